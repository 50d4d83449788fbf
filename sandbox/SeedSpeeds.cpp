// The demo data set's speed records: sockets and (UID, interface) pairs, fresh and stale, and the
// interfaces they are measured on.
#include <arpa/inet.h>

#include <kovrabpf/KovraKernelContract.h>

#include "SeedParts.h"
#include "kovrasandbox/Maps.h"

namespace kovra::sandbox {

using namespace android::bpf;

namespace {

// Interface 1 is the loopback on every Linux machine, so its subnet (127.0.0.0/8) is known;
// 21 and 22 play Wi-Fi and cellular and are never asked about.
constexpr uint32_t kLoopback = 1;
constexpr uint32_t kWifi = 21;
constexpr uint32_t kCellular = 22;

struct DemoSocket {
    uint64_t cookie;
    uint32_t uid;
    uint32_t ifindex;
    uint64_t firstSpeed, secondSpeed;  // kbps * 1000
    uint64_t firstAgeMs, secondAgeMs;
    const char* peer;
};

// Fresh: under a second old. Stale: three or four minutes old.
constexpr DemoSocket kSockets[] = {
        {40961, 10012, kWifi, 2400000, 800000, 150, 150, "142.250.74.46"},
        {40962, 10031, kWifi, 40000, 12000, 300, 300, "157.240.1.35"},
        {40963, 10047, kCellular, 15600000, 1100000, 80, 80, "151.101.1.69"},
        {40964, 10012, kWifi, 3000000, 900000, 180000, 180000, "142.250.74.99"},
        {40965, 10058, kCellular, 700000, 50000, 240000, 240000, "93.184.216.34"},
        {40966, 10058, kCellular, 9000000, 500000, 180000, 200, "93.184.216.35"},
        {40967, 10063, kLoopback, 3000000, 3000000, 100, 100, "127.0.0.9"},
        {40968, 10031, kWifi, 20000, 0, 100, 100, "157.240.1.36"},
};

struct DemoPair {
    uint32_t uid;
    uint32_t ifindex;
    uint64_t firstSpeed, secondSpeed;
    uint64_t firstAgeMs, secondAgeMs;
};

constexpr DemoPair kPairs[] = {
        {10012, kWifi, 1200000, 300000, 150, 150},
        {10012, kCellular, 800000, 100000, 180000, 180000},
        {10031, kWifi, 0, 0, 200, 200},
        {10047, kCellular, 5500000, 2000000, 90, 90},
        {10058, kWifi, 4000000, 250000, 180000, 120},
        {10063, kCellular, 300000, 300000, 240000, 240000},
};

SpeedsValue speedRecord(uint32_t tag, uint32_t ifindex, uint64_t firstSpeed, uint64_t firstStamp,
                        uint64_t secondSpeed, uint64_t secondStamp) {
    SpeedsValue v{};
    v.tag = tag;
    v.ifindex = ifindex;
    v.firstSpeed = firstSpeed;
    v.firstStamp = firstStamp;
    v.secondSpeed = secondSpeed;
    v.secondStamp = secondStamp;
    return v;
}

SocketTuple socketInfo(const DemoSocket& s) {
    SocketTuple t{};
    t.ifindex = s.ifindex;
    t.ipv4Valid = 1;
    t.remoteAddr4 = inet_addr(s.peer);
    return t;
}

}  // namespace

void seedSpeeds(uint64_t nowNs) {
    const auto measured = openMap(maps::kAppSocketSpeedsIfindex);
    measured.put(kLoopback, {1, 1});
    measured.put(kWifi, {1, 0});
    measured.put(kCellular, {1, 0});
    openMap(maps::kAppSocketSpeedsConfig).put(KOVRA_SPEEDS_CONFIG_KEY, 3);

    const auto sockets = openMap(maps::kAppSocketSpeeds);
    const auto info = openMap(maps::kAppSocketInfo);
    for (const DemoSocket& s : kSockets) {
        sockets.put(s.cookie, speedRecord(s.uid, s.ifindex, s.firstSpeed, ago(nowNs, s.firstAgeMs),
                                          s.secondSpeed, ago(nowNs, s.secondAgeMs)));
        info.put(s.cookie, socketInfo(s));
    }
    const auto pairs = openMap(maps::kAppUidSpeeds);
    for (const DemoPair& p : kPairs) {
        pairs.put({p.uid, p.ifindex},
                  speedRecord(0, p.ifindex, p.firstSpeed, ago(nowNs, p.firstAgeMs), p.secondSpeed,
                              ago(nowNs, p.secondAgeMs)));
    }
}

}  // namespace kovra::sandbox
