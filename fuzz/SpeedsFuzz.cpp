// The speed reports over maps of fuzzed records whose stamps fall around now, with fuzzed
// staleness, floor and watch list, and interfaces that may ask for the local-subnet filter.
// A socket or pair that is surely stale must be pruned (from both socket maps), one that is surely
// fresh must stay, and whatever is reported must be its record with each speed in kbps or 0;
// where nothing about an entry is in doubt, whether it is reported is checked too. "Surely" is
// judged against the clock read before and after the call, since the service reads its own.
#include <time.h>

#include <unordered_set>

#include <kovrabpf/KovraPinnedMaps.h>

#include "FuzzMaps.h"

using namespace android::bpf;
using namespace kovra::fuzz;

namespace {

uint64_t monotonicNow() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Records whose stamps mostly lie within a few seconds either side of now, and whose interface
// is one of a handful, so that staleness and the interface table both come into play.
SpeedsValue drawSpeeds(FuzzedDataProvider& input) {
    SpeedsValue value = draw<SpeedsValue>(input);
    const uint64_t now = monotonicNow();
    for (uint64_t* stamp : {&value.firstStamp, &value.secondStamp}) {
        if (input.ConsumeBool())
            *stamp = now - input.ConsumeIntegralInRange<int64_t>(-1, 8) * 500000000;
    }
    value.ifindex = input.ConsumeIntegralInRange<uint32_t>(0, 3);
    return value;
}

// A direction's staleness as the service judges it at some instant between `before` and `after`:
// known when both ends agree.
struct Staleness {
    bool surelyStale, surelyFresh;
};

Staleness judge(uint64_t stamp, uint32_t staleMs, uint64_t before, uint64_t after) {
    auto stale = [&](uint64_t now) { return now > stamp && (now - stamp) / 1000000 > staleMs; };
    return {stale(before), !stale(after)};
}

struct Judged {
    Staleness first, second;
    bool surelyPruned, surelyKept;
    bool known() const {
        return (first.surelyStale || first.surelyFresh) &&
               (second.surelyStale || second.surelyFresh);
    }
};

Judged judge(const SpeedsValue& v, uint32_t staleMs, uint64_t before, uint64_t after) {
    const Staleness first = judge(v.firstStamp, staleMs, before, after);
    const Staleness second = judge(v.secondStamp, staleMs, before, after);
    return {first, second, before > v.secondStamp && first.surelyStale && second.surelyStale,
            v.secondStamp >= after || first.surelyFresh || second.surelyFresh};
}

// A reported speed is the record's divided by 1000, or 0 for a stale direction.
bool speedFits(uint64_t reported, uint64_t raw, const Staleness& s) {
    if (s.surelyFresh) return reported == raw / 1000;
    if (s.surelyStale) return reported == 0;
    return reported == 0 || reported == raw / 1000;
}

struct Maps {
    FuzzedMap<uint64_t, SpeedsValue> sockets{maps::kAppSocketSpeeds};
    FuzzedMap<uint64_t, SocketTuple> infos{maps::kAppSocketInfo};
    FuzzedMap<uint32_t, IfIndexSpeedConfig> interfaces{maps::kAppSocketSpeedsIfindex};
    FuzzedMap<UidIfindexKey, SpeedsValue> uids{maps::kAppUidSpeeds};
};

void fuzzSocketSpeeds(FuzzedDataProvider& input, Maps& maps) {
    using Table = std::unordered_map<uint64_t, SpeedsValue>;
    maps.sockets.refill(input, drawSpeeds);
    maps.infos.refill(input);
    maps.interfaces.refill(
            input,
            [](FuzzedDataProvider& in) {
                return IfIndexSpeedConfig{1, in.ConsumeIntegralInRange<uint32_t>(0, 1)};
            },
            [](FuzzedDataProvider& in) { return in.ConsumeIntegralInRange<uint32_t>(0, 3); });
    const uint32_t staleMs = input.ConsumeIntegralInRange<uint32_t>(0, 5000);
    const uint32_t minKbps = input.ConsumeIntegral<uint32_t>();
    std::unordered_set<uint64_t> watched;
    for (const auto& [cookie, _] : maps.sockets.written()) {
        if (input.ConsumeBool()) watched.insert(cookie);
    }
    const Table before = callersTable<Table>(input, maps.sockets.written());
    Table after = before;

    const uint64_t start = monotonicNow();
    const int status = withoutLeak(
            [&] { return bpfGetAppSocketSpeedsTotal(after, staleMs, minKbps, watched); });
    const uint64_t end = monotonicNow();
    require(status == 0, "the socket report failed");

    const uint32_t limit = minKbps * 1000;  // wraps in 32 bits, as the report's floor does
    for (const auto& [cookie, v] : maps.sockets.written()) {
        const Judged j = judge(v, staleMs, start, end);
        const bool present = maps.sockets.map().get(cookie).has_value();
        if (j.surelyPruned) {
            require(!present, "a surely stale socket was not pruned");
            require(!maps.infos.map().get(cookie), "a pruned socket kept its information");
        }
        if (j.surelyKept) require(present, "a fresh socket was pruned");
        if (before.count(cookie)) continue;
        const auto reported = after.find(cookie);
        if (reported != after.end()) {
            SpeedsValue rest = reported->second;
            require(speedFits(rest.firstSpeed, v.firstSpeed, j.first) &&
                            speedFits(rest.secondSpeed, v.secondSpeed, j.second),
                    "a reported speed is neither the record's in kbps nor 0");
            rest.firstSpeed = v.firstSpeed;
            rest.secondSpeed = v.secondSpeed;
            require(kovra::sandbox::sameBytes(rest, v), "a reported record changed beyond its speeds");
            require(!j.surelyPruned, "a pruned socket was reported");
        }
        const auto iface = maps.interfaces.written().find(v.ifindex);
        const bool mayBeLocal =
                iface != maps.interfaces.written().end() && iface->second.localEnable == 1;
        if (!j.known() || !j.surelyKept || mayBeLocal) continue;
        const uint64_t first = j.first.surelyStale ? 0 : v.firstSpeed;
        const uint64_t second = j.second.surelyStale ? 0 : v.secondSpeed;
        const bool due = first >= limit || second >= limit ||
                         (watched.count(cookie) && (first != 0 || second != 0));
        require(due == (reported != after.end()),
                due ? "a due socket was not reported" : "a socket under the floor was reported");
    }
    for (const auto& [cookie, _] : after) {
        require(before.count(cookie) || maps.sockets.written().count(cookie),
                "a socket no map held was reported");
    }
}

void fuzzUidSpeeds(FuzzedDataProvider& input, Maps& maps) {
    using Table = std::unordered_map<uint64_t, IfaceSpeedsValue>;
    maps.uids.refill(input, drawSpeeds);
    const uint32_t staleMs = input.ConsumeIntegralInRange<uint32_t>(0, 5000);
    const Table before = callersTable<Table>(input, maps.uids.written());
    Table after = before;

    const uint64_t start = monotonicNow();
    require(withoutLeak([&] { return bpfGetAppUidSpeedsTotal(after, staleMs); }) == 0,
            "the UID report failed");
    const uint64_t end = monotonicNow();

    for (const auto& [key, v] : maps.uids.written()) {
        const Judged j = judge(v, staleMs, start, end);
        UidIfindexKey pair;
        memcpy(&pair, &key, sizeof(pair));
        const bool present = maps.uids.map().get(pair).has_value();
        if (j.surelyPruned) require(!present, "a surely stale pair was not pruned");
        if (j.surelyKept) require(present, "a fresh pair was pruned");
        if (before.count(key)) continue;
        const auto reported = after.find(key);
        if (reported == after.end()) {
            require(!j.surelyKept, "a live pair was not reported");
            continue;
        }
        require(!j.surelyPruned, "a pruned pair was reported");
        require(speedFits(reported->second.firstSpeedKbps, v.firstSpeed, j.first) &&
                        speedFits(reported->second.secondSpeedKbps, v.secondSpeed, j.second),
                "a reported speed is neither the record's in kbps nor 0");
    }
    require(after.size() <= before.size() + maps.uids.written().size(),
            "a pair no map held was reported");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Maps maps;
    FuzzedDataProvider input(data, size);
    fuzzSocketSpeeds(input, maps);
    fuzzUidSpeeds(input, maps);
    return 0;
}
