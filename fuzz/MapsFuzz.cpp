// The services whose outcome depends on what the maps hold, over real maps filled from the
// fuzzer's input, one family per run, chosen by KOVRA_FUZZ_FAMILY (wakeup or speeds; each has its
// corpus in fuzz/corpus/). The services that copy a map whole take the same path whatever it
// holds; their contract is checked entry by entry in the kernel-map tests.
//   wakeup     a screen-state switch with fuzzed overflow flags that resets exactly the maps
//              flagged with 1, takes those flags back and leaves the rest;
//   speeds     the socket speed report over records whose stamps fall around now, with fuzzed
//              staleness, floor and watch list, and interfaces that may ask for the local-subnet
//              filter. A socket that is surely stale must be pruned (from both socket maps), one
//              that is surely fresh must stay, and whatever is reported must be its record with
//              each speed in kbps or 0; where nothing about an entry is in doubt, whether it is
//              reported is checked too. "Surely" is judged against the clock read before and
//              after the call, since the service reads its own. (The UID report applies the same
//              age rule; its boundaries are checked exactly, at the caller's clock, in the tests.)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <unordered_map>
#include <unordered_set>

#include <fuzzer/FuzzedDataProvider.h>
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Clock.h>
#include <kovrasandbox/Maps.h>

using namespace android::bpf;
namespace sandbox = kovra::sandbox;

namespace {

// A broken check ends the process, which libFuzzer reports with the input that did it; so does
// a write to a map that fails (sandbox::Error).
void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// Any plain record, from the input's next bytes (zero-padded when the input runs out).
template <typename T>
T draw(FuzzedDataProvider& input) {
    T value{};
    const auto bytes = input.ConsumeBytes<uint8_t>(sizeof(T));
    if (!bytes.empty()) memcpy(&value, bytes.data(), bytes.size());
    return value;
}

// Every key of the library's maps fits in 64 bits; the model keys its entries that way.
template <typename K>
uint64_t widen(const K& key) {
    static_assert(sizeof(K) <= sizeof(uint64_t));
    uint64_t wide = 0;
    memcpy(&wide, &key, sizeof(K));
    return wide;
}

// Runs `call`, requiring that it leaves the number of open descriptors as it found it.
template <typename F>
auto withoutLeak(F&& call) {
    const int before = sandbox::openFdCount();
    auto result = call();
    require(before == sandbox::openFdCount(), "a descriptor leaked");
    return result;
}

// A pinned map with what the current input wrote into it.
template <typename K, typename V>
class FuzzedMap {
  public:
    // The most entries one refill draws.
    static constexpr uint32_t kMaxEntries = 32;
    // A target may write keys of its own after a refill (the wake-up target adds overflow flags
    // to a refilled check map), so the map has room beyond what a refill can draw: a write of the
    // target's own never fails on a full map, whatever the input.
    static constexpr uint32_t kCapacity = 2 * kMaxEntries;

    explicit FuzzedMap(const PinnedMap<K, V>& map) : mMap(map, kCapacity) {}

    // Empties the map, then writes the entries the input asks for, each key and record drawn by
    // `drawKey` and `drawValue` (by default from the input's next bytes as they are). Keys repeat
    // whenever the input repeats them; the last write wins, as in the kernel.
    template <typename DrawValue = V (*)(FuzzedDataProvider&),
              typename DrawKey = K (*)(FuzzedDataProvider&)>
    void refill(FuzzedDataProvider& input, DrawValue drawValue = draw<V>,
                DrawKey drawKey = draw<K>) {
        for (const K& key : mMap.keys()) mMap.erase(key);
        mWritten.clear();
        const uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, kMaxEntries);
        for (uint32_t i = 0; i < count; ++i) {
            const K key = drawKey(input);
            const V value = drawValue(input);
            mMap.put(key, value);
            mWritten[widen(key)] = value;
        }
    }

    const std::unordered_map<uint64_t, V>& written() const { return mWritten; }
    const sandbox::TypedMap<K, V>& map() const { return mMap; }

  private:
    sandbox::TypedMap<K, V> mMap;
    std::unordered_map<uint64_t, V> mWritten;
};

// The caller's table before the call: a few entries under keys the map holds or not, whose
// values the service must leave alone.
template <typename Table, typename V>
Table callersTable(FuzzedDataProvider& input, const std::unordered_map<uint64_t, V>& written) {
    Table table;
    const uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, 4);
    for (uint32_t i = 0; i < count; ++i) {
        auto key = draw<typename Table::key_type>(input);
        if (!written.empty() && input.ConsumeBool()) {
            auto it = written.begin();
            std::advance(it, input.ConsumeIntegralInRange<size_t>(0, written.size() - 1));
            key = static_cast<typename Table::key_type>(it->first);
        }
        table.try_emplace(key, draw<typename Table::mapped_type>(input));
    }
    return table;
}

// The maps a non-zero screen state may reset, by the overflow flag that names them.
struct Resettable {
    uint32_t bit;
    const sandbox::RawMap* map;
    size_t keySize;
};

size_t entries(const Resettable& r) {
    return r.map->rawKeys(r.keySize).size();
}

void fuzzScreenOn(FuzzedDataProvider& input, FuzzedMap<uint32_t, uint32_t>& check,
                  const std::vector<Resettable>& resettable) {
    check.refill(input);
    // Flags drawn from the input land on the six known bits as often as not.
    for (const Resettable& r : resettable) {
        if (input.ConsumeBool()) {
            const uint32_t flag = input.ConsumeIntegralInRange<uint32_t>(0, 2);
            check.map().put(r.bit, flag);
        }
    }
    std::vector<std::pair<std::optional<uint32_t>, size_t>> before;
    for (const Resettable& r : resettable) before.emplace_back(check.map().get(r.bit), entries(r));
    const size_t flags = check.map().keys().size();

    require(withoutLeak([&] { return bpfUpdateScreenStateMap(1, 7); }) == 0, "screen on failed");
    for (size_t i = 0; i < resettable.size(); ++i) {
        const auto& [flag, size] = before[i];
        const Resettable& r = resettable[i];
        if (flag == 1u) {
            require(check.map().get(r.bit) == 0u, "a flag of 1 was not taken back");
            require(entries(r) == 0, "a flagged map kept entries");
        } else {
            require(check.map().get(r.bit) == flag, "a flag other than 1 changed");
            require(entries(r) == size, "a map not flagged with 1 was touched");
        }
    }
    require(check.map().keys().size() == flags, "the check map gained or lost keys");
}

// Records whose stamps mostly lie within a few seconds either side of now, and whose interface
// is one of a handful, so that staleness and the interface table both come into play.
SpeedsValue drawSpeeds(FuzzedDataProvider& input) {
    SpeedsValue value = draw<SpeedsValue>(input);
    const uint64_t now = sandbox::monotonicNowNs();
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

    const uint64_t start = sandbox::monotonicNowNs();
    const int status = withoutLeak(
            [&] { return bpfGetAppSocketSpeedsTotal(after, staleMs, minKbps, watched); });
    const uint64_t end = sandbox::monotonicNowNs();
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
            require(sandbox::sameBytes(rest, v), "a reported record changed beyond its speeds");
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

void wakeup(FuzzedDataProvider& input) {
    static FuzzedMap<uint32_t, uint64_t> inWakeups(maps::kAppTcpInwakeup);
    static FuzzedMap<uint32_t, uint64_t> outWakeups(maps::kAppTcpOutwakeup);
    static FuzzedMap<uint32_t, uint64_t> durations(maps::kAppTcpWakeupduration);
    static FuzzedMap<uint64_t, uint32_t> inSeq(maps::kSkTcpCookieInSeq);
    static FuzzedMap<uint64_t, uint32_t> outSeq(maps::kSkTcpCookieOutSeq);
    static FuzzedMap<uint64_t, uint32_t> outAck(maps::kSkTcpCookieOutAck);
    static FuzzedMap<uint32_t, uint32_t> check(maps::kOverflowingMapCheck);
    static const sandbox::TypedMap screen(maps::kScreenState);
    static const std::vector<Resettable> resettable = {
            {1, &inSeq.map(), 8},     {2, &outSeq.map(), 8},      {4, &outAck.map(), 8},
            {8, &inWakeups.map(), 4}, {16, &outWakeups.map(), 4}, {32, &durations.map(), 4}};
    for (auto* counters : {&inWakeups, &outWakeups, &durations}) counters->refill(input);
    for (auto* sequences : {&inSeq, &outSeq, &outAck}) sequences->refill(input);
    fuzzScreenOn(input, check, resettable);
}

void speeds(FuzzedDataProvider& input) {
    static Maps speedMaps;
    fuzzSocketSpeeds(input, speedMaps);
}

const std::pair<const char*, void (*)(FuzzedDataProvider&)> kFamilies[] = {{"wakeup", wakeup},
                                                                           {"speeds", speeds}};
void (*family)(FuzzedDataProvider&) = nullptr;

}  // namespace

// Runs in a private bpffs, entered once before the first input; a fuzz run needs root.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* name = getenv("KOVRA_FUZZ_FAMILY");
    for (const auto& [known, run] : kFamilies) {
        if (name != nullptr && strcmp(name, known) == 0) family = run;
    }
    if (family == nullptr) {
        fprintf(stderr,
                "fuzzing cannot run: KOVRA_FUZZ_FAMILY must name a family "
                "(wakeup or speeds)\n");
        exit(1);
    }
    try {
        sandbox::enterPrivateBpffs();
    } catch (const sandbox::Error& problem) {
        fprintf(stderr, "fuzzing cannot run: %s\n", problem.what());
        exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    family(input);
    return 0;
}
