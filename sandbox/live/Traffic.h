// The desk's traffic driver: scripted flows between app UIDs, each end a forked child that joins
// the live side's cgroup and takes its UID before it makes a socket. Flows run over loopback or
// over a veth pair whose far end sits in a network namespace of the driver's own; either way
// inside the (private) network namespace the driver runs in. Every flow is bounded in bytes,
// connections and time.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace kovra::traffic {

enum class Protocol { kTcp, kUdp };
enum class Route { kLoopback, kVeth };

struct Flow {
    uint32_t uid = 0;        // the app that connects and sends
    uint32_t peerUid = 0;    // the app that listens and receives
    Protocol protocol = Protocol::kTcp;
    Route route = Route::kLoopback;
    uint64_t bytes = 0;      // payload per connection
    uint32_t chunk = 1000;   // bytes per write or datagram
    uint64_t rate = 0;       // payload bytes per second; 0: as fast as it goes
    uint32_t connections = 1;  // TCP: one after the other
    uint32_t holdMs = 0;     // TCP: idle time before closing each connection
    bool keepAlive = false;  // TCP: the listener probes idle connections every second
    uint32_t limitMs = 60000;  // the flow ends at this age whatever it has sent
};

struct Sent {
    uint64_t bytes = 0;      // payload the app wrote
    uint64_t messages = 0;   // writes or datagrams
    uint64_t retransmitted = 0;  // TCP payload bytes sent again (tcpi_bytes_retrans)
    uint64_t received = 0;   // payload the peer read
    uint32_t connections = 0;
    uint64_t cookie = 0;     // socket cookie of the app's first socket
    uint32_t ifindex = 0;    // interface the flow leaves by
    uint16_t port = 0;       // the peer's port
    int error = 0;           // errno of the first failed socket call, 0 if none
    double seconds = 0;
};

// Limits that every flow must keep.
inline constexpr uint64_t kMaxBytes = 1ull << 30;
inline constexpr uint32_t kMaxConnections = 5000;
inline constexpr uint32_t kMaxLimitMs = 120000;
inline constexpr size_t kMaxFlows = 512;  // at once

// A decimal number as kovractl reads one: digits only (no sign, blank or leading zero), at most
// `max`. Throws std::invalid_argument naming `name`.
uint64_t parseNumber(const std::string& name, const std::string& text, uint64_t max);

// Parses "uid=10001,peer=10002,proto=tcp,route=lo,bytes=100000,chunk=1000,rate=50000,
// conns=1,hold=0,keepalive=0,limit=60000" (each key once; limit at least 1). Throws
// std::invalid_argument naming the mistake.
Flow parseFlow(const std::string& text);

// Runs the flows at once and waits for them all, at most `limit` each: every wait of a flow ends
// by its deadline. `cgroup` is the live side's sub-cgroup that both ends join. Every child dies
// with the thread that called run(). Sends only in the network namespace declared in
// live::kNetnsEnv; throws std::runtime_error in any other, or when the network cannot be
// prepared. One run at a time per process (stop() reaches the children of the current one).
std::vector<Sent> run(const std::vector<Flow>& flows, const std::string& cgroup);

// Ends every flow of the run under way (or, before one, of the next) within a second, each
// reporting what it did, and starts no more: for a handler of SIGINT or SIGTERM
// (async-signal-safe). run() then returns.
void stop();

// The flows and what they sent, as a table and as JSON.
std::string table(const std::vector<Flow>& flows, const std::vector<Sent>& sent);
std::string json(const std::vector<Flow>& flows, const std::vector<Sent>& sent);

}  // namespace kovra::traffic
