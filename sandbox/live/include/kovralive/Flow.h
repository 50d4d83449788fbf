// A flow of the desk's traffic driver as it is written ("uid=10001,peer=10002,bytes=100000"),
// parsed and checked against the limits every flow keeps. Pure: nothing here touches the system.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include <kovrasandbox/Error.h>

namespace kovra::traffic {

enum class Protocol { kTcp, kUdp };
enum class Route { kLoopback, kVeth };

struct Flow {
    uint32_t uid = 0;      // the app that connects and sends
    uint32_t peerUid = 0;  // the app that listens and receives
    Protocol protocol = Protocol::kTcp;
    Route route = Route::kLoopback;
    uint64_t bytes = 0;        // payload per connection
    uint32_t chunk = 1000;     // bytes per write or datagram
    uint64_t rate = 0;         // payload bytes per second; 0: as fast as it goes
    uint32_t connections = 1;  // TCP: one after the other
    uint32_t holdMs = 0;       // TCP: idle time before closing each connection
    bool keepAlive = false;    // TCP: the listener probes idle connections every second
    uint32_t limitMs = 60000;  // the flow ends at this age whatever it has sent
};

// A flow written wrong, thrown like every failure of the sandbox library (kovrasandbox/Error.h).
struct FlowError : sandbox::Error {
    using sandbox::Error::Error;
};

// Limits that every flow must keep.
inline constexpr uint64_t kMaxBytes = 1ull << 30;
inline constexpr uint32_t kMaxConnections = 5000;
inline constexpr uint32_t kMaxLimitMs = 120000;
inline constexpr size_t kMaxFlows = 512;  // at once

// A decimal number as kovractl reads one: digits only (no sign, blank or leading zero), at most
// `max`. Throws FlowError naming `name`.
uint64_t parseNumber(const std::string& name, const std::string& text, uint64_t max);

// Parses "uid=10001,peer=10002,proto=tcp,route=lo,bytes=100000,chunk=1000,rate=50000,
// conns=1,hold=0,keepalive=0,limit=60000" (each key once; limit at least 1). Throws
// FlowError naming the mistake.
Flow parseFlow(const std::string& text);

}  // namespace kovra::traffic
