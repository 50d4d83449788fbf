// The desk's traffic driver: scripted flows between app UIDs, each end a forked child that joins
// the live side's cgroup and takes its UID before it makes a socket. Flows run over loopback or
// over a veth pair whose far end sits in a network namespace of the driver's own; either way
// inside the (private) network namespace the driver runs in. Every flow is bounded in bytes,
// connections and time.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include <kovralive/Flow.h>

namespace kovra::traffic {

struct Sent {
    uint64_t bytes = 0;          // payload the app wrote
    uint64_t messages = 0;       // writes or datagrams
    uint64_t retransmitted = 0;  // TCP payload bytes sent again (tcpi_bytes_retrans)
    uint64_t received = 0;       // payload the peer read
    uint32_t connections = 0;
    uint64_t cookie = 0;   // socket cookie of the app's first socket
    uint32_t ifindex = 0;  // interface the flow leaves by
    uint16_t port = 0;     // the peer's port
    int error = 0;         // errno of the app's first failed socket call, 0 if none
    int peerError = 0;     // errno of the peer's failure to listen, 0 if it listened
    double seconds = 0;
};

// Runs the flows at once and waits for them all, at most `limit` each: every wait of a flow ends
// by its deadline. `cgroup` is the live side's sub-cgroup that both ends join. Every child dies
// with the thread that called run(). Sends only in the network namespace declared in
// live::kNetnsEnv; throws a sandbox::Error (a live::LiveError) in any other, or when the
// network or a flow's ends cannot be prepared. One run at a time per process (stop() reaches the
// children of the current one).
std::vector<Sent> run(const std::vector<Flow>& flows, const std::string& cgroup);

// Ends every flow of the run under way (or, before one, of the next) within a second, each
// reporting what it did, and starts no more: for a handler of SIGINT or SIGTERM
// (async-signal-safe). run() then returns.
void stop();

}  // namespace kovra::traffic
