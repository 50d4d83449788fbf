// Every walking service beside its two floors, over the same seeded map at every size:
//   <service>/service/<n>   the library's service;
//   <service>/raw/<n>       the same algorithm in bare bpf commands into the same kind of table;
//   <service>/batch/<n>     the kernel's batched read into the same kind of table.
// A service that empties its map (a harvest) is refilled outside the timed region, and its
// floors empty the map the same way the service does: key by key, or in the batch itself.

#include <time.h>

#include <string>
#include <unordered_map>
#include <unordered_set>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Bench.h"

namespace kovra::bench {
namespace {

using namespace android::bpf;

enum class After { kKeep, kEmpty };

template <typename K, typename V, typename Table, typename Store>
void runRaw(benchmark::State& state, const PinnedMap<K, V>& map, V (*make)(const K&), Store store,
            After after) {
    const int64_t n = state.range(0);
    const RawMap& pinned = seeded(map, n, make);
    Table out;
    for (auto _ : state) {
        out.clear();
        const int fd = openPinned(map.path, after == After::kEmpty ? 0 : BPF_F_RDONLY);
        rawWalk<K, V>(fd, [&](const K& key, const V& value) { store(out, key, value); });
        if (after == After::kEmpty) rawClear<K>(fd);
        close(fd);
        if (after == After::kEmpty) refillUntimed(state, pinned, n, make);
    }
    if (static_cast<int64_t>(out.size()) != n) fail(state, "the walk missed entries");
    perEntry(state, n);
}

template <typename K, typename V, typename Table, typename Store>
void runBatch(benchmark::State& state, const PinnedMap<K, V>& map, V (*make)(const K&), Store store,
              After after) {
    const int64_t n = state.range(0);
    const RawMap& pinned = seeded(map, n, make);
    std::vector<K> keys(n);
    std::vector<V> values(n);
    Table out;
    for (auto _ : state) {
        out.clear();
        const bool emptying = after == After::kEmpty;
        const RawMap opened = RawMap::open(
                map.path, emptying ? sandbox::Access::kReadWrite : sandbox::Access::kReadOnly);
        batchRead(opened, emptying ? sandbox::BatchMode::kReadAndDelete : sandbox::BatchMode::kRead,
                  keys, values, [&](const K& key, const V& value) { store(out, key, value); });
        if (after == After::kEmpty) refillUntimed(state, pinned, n, make);
    }
    if (static_cast<int64_t>(out.size()) != n) fail(state, "the batch missed entries");
    perEntry(state, n);
}

template <typename K, typename V, typename Table, typename Service>
void runService(benchmark::State& state, const PinnedMap<K, V>& map, V (*make)(const K&),
                Service service, After after) {
    const int64_t n = state.range(0);
    const RawMap& pinned = seeded(map, n, make);
    Table out;
    const CommandCount commands;
    for (auto _ : state) {
        out.clear();
        if (service(out) != 0) fail(state, "the service failed");
        if (after == After::kEmpty) refillUntimed(state, pinned, n, make);
    }
    if (static_cast<int64_t>(out.size()) != n) fail(state, "the service missed entries");
    perEntry(state, n);
    commands.count(state, n);
}

// Registers a service and its floors at every size, the three side by side for each size.
// `store` puts one entry into the table the way the service does.
template <typename Table, typename K, typename V, typename Service, typename Store>
void registerWalk(const std::string& name, const PinnedMap<K, V>& map, V (*make)(const K&),
                  Service service, Store store, After after = After::kKeep) {
    for (int64_t n : kSizes) {
        auto add = [n](const std::string& variant, auto run) {
            benchmark::RegisterBenchmark(variant.c_str(), run)->ArgName("n")->Arg(n);
        };
        add(name + "/service",
            [=](benchmark::State& s) { runService<K, V, Table>(s, map, make, service, after); });
        add(name + "/raw",
            [=](benchmark::State& s) { runRaw<K, V, Table>(s, map, make, store, after); });
        add(name + "/batch",
            [=](benchmark::State& s) { runBatch<K, V, Table>(s, map, make, store, after); });
    }
}

using UidTotals = std::unordered_map<int64_t, KovraStatsValue>;

// Longer than any benchmark runs: no speed record goes stale and none is pruned.
constexpr uint32_t kNeverStaleMs = UINT32_MAX;

using SocketSpeeds = std::unordered_map<uint64_t, SpeedsValue>;
using UidSpeeds = std::unordered_map<uint64_t, IfaceSpeedsValue>;

// Every socket at or above a floor of 0, in kbps.
int reportAllSockets(SocketSpeeds& out) {
    std::unordered_set<uint64_t> watched;
    return bpfGetAppSocketSpeedsTotal(out, kNeverStaleMs, 0, watched);
}

int reportAllPairs(UidSpeeds& out) {
    return bpfGetAppUidSpeedsTotal(out, kNeverStaleMs);
}

KovraStatsValue widened(const StatsValue& stats) {
    KovraStatsValue value{};
    memcpy(&value, &stats, sizeof(stats));
    return value;
}

}  // namespace

void registerWalkBenchmarks() {
    registerWalk<UidTotals>("bpfGetUidStatsTotal", maps::kNetdAppUidStats,
                            derivedFrom<uint32_t, StatsValue>, bpfGetUidStatsTotal,
                            [](UidTotals& out, const uint32_t& uid, const StatsValue& v) {
                                out.try_emplace(int64_t{uid}, widened(v));
                            });
    registerWalk<UidTotals>("bpfGetUidPurStatsTotal", maps::kUidPurStats,
                            derivedFrom<uint32_t, KovraStatsValue>, bpfGetUidPurStatsTotal,
                            [](UidTotals& out, const uint32_t& uid, const KovraStatsValue& v) {
                                out.try_emplace(int64_t{uid}, v);
                            });
    using Counters = std::unordered_map<uint32_t, uint64_t>;
    registerWalk<Counters>("bpfGetAppTcpInwakeupMap", maps::kAppTcpInwakeup,
                           derivedFrom<uint32_t, uint64_t>, bpfGetAppTcpInwakeupMap,
                           [](Counters& out, const uint32_t& uid, const uint64_t& count) {
                               out.try_emplace(uid, count);
                           });
    using FreezeStats = std::unordered_map<uint64_t, AppFreezeStatsInfo>;
    registerWalk<FreezeStats>(
            "bpfFetchAppFreezeStats", maps::kAppFreezeStats,
            derivedFrom<uint64_t, AppFreezeStatsInfo>, bpfFetchAppFreezeStats,
            [](FreezeStats& out, const uint64_t& key, const AppFreezeStatsInfo& record) {
                out.try_emplace(key, record);
            },
            After::kEmpty);

    // The socket report also opens the socket information map and walks the interface table;
    // both stay empty, so no socket is pruned or tested for the local subnet.
    static const RawMap socketInfo(maps::kAppSocketInfo.path, sizeof(uint64_t),
                                   sizeof(SocketTuple));
    static const RawMap interfaces(maps::kAppSocketSpeedsIfindex.path, sizeof(uint32_t),
                                   sizeof(IfIndexSpeedConfig));
    registerWalk<SocketSpeeds>("bpfGetAppSocketSpeedsTotal", maps::kAppSocketSpeeds,
                               freshSpeeds<uint64_t>, reportAllSockets,
                               [](SocketSpeeds& out, const uint64_t& cookie, const SpeedsValue& v) {
                                   SpeedsValue kbps = v;
                                   kbps.firstSpeed /= 1000;
                                   kbps.secondSpeed /= 1000;
                                   out.try_emplace(cookie, kbps);
                               });
    registerWalk<UidSpeeds>(
            "bpfGetAppUidSpeedsTotal", maps::kAppUidSpeeds, freshSpeeds<UidIfindexKey>,
            reportAllPairs, [](UidSpeeds& out, const UidIfindexKey& key, const SpeedsValue& v) {
                out.try_emplace(uint64_t{key.ifindex} << 32 | key.uid,
                                IfaceSpeedsValue{v.firstSpeed / 1000, v.secondSpeed / 1000});
            });
}

}  // namespace kovra::bench
