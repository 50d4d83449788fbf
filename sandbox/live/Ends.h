// The two ends of a flow, each run in a child of the driver that has joined the live side's
// cgroup and taken its app's UID, and the reports they write the driver over their pipes.
#pragma once

#include <stdint.h>

#include <string>

#include <kovralive/Flow.h>

namespace kovra::traffic {

// What the receiving end reports once its flow is over. Its port goes first, alone, so that the
// sender can start: 0 when it could not listen, and then `error` says why.
struct ReceiverReport {
    uint64_t received = 0;  // payload it read
    int error = 0;          // errno of listening, 0 when it listened
};

// What the sending end reports once its flow is over.
struct SenderReport {
    uint64_t bytes = 0;          // payload written
    uint64_t messages = 0;       // writes or datagrams
    uint64_t retransmitted = 0;  // TCP payload bytes sent again (tcpi_bytes_retrans)
    uint32_t connections = 0;
    uint64_t cookie = 0;  // socket cookie of its first socket
    int error = 0;        // errno of its first failed socket call, 0 if none
    double seconds = 0;
};

// Listens on `ip`, writes the port to `report`, and receives until the sender is done (`stop`
// reads end of file) or the flow's limit.
ReceiverReport receive(const Flow& flow, const std::string& ip, int stop, int report);

// Connects to `ip`:`port` and sends the flow, paced as it asks, within its limit.
SenderReport send(const Flow& flow, const std::string& ip, uint16_t port);

}  // namespace kovra::traffic
