// The services the walking and opening benchmarks leave out, each over its own maps of n entries
// where it walks or clears: <service>/service/n:<n>. Mostly their bpf command counts matter
// here; a service that empties or rewrites what it finds is set up again, untimed, before every
// call.
#include <time.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Bench.h"

namespace kovra::bench {
namespace {

using namespace android::bpf;

// The interface the speed records and socket tuples below name.
constexpr uint32_t kIfindex = 7;

// The maps one call finds, pinned at their catalogue paths. Whatever was pinned there before
// (another benchmark's seeded map) is pinned back when the stage goes.
class Stage {
  public:
    Stage() = default;
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage() {
        made_.clear();
        for (auto& [path, before] : saved_) {
            unlink(path.c_str());
            if (before) before->pin(path.c_str());
        }
    }

    // Pins `map` holding keyAt(0..n-1), values from `make`, with room for the service's own
    // writes.
    template <typename K, typename V>
    const RawMap& put(const PinnedMap<K, V>& map, int64_t n,
                      V (*make)(const K&) = derivedFrom<K, V>) {
        saved_.emplace_back(map.path, RawMap::find(map.path, sandbox::Access::kReadWrite));
        const RawMap& made = made_.emplace_back(map.path, sizeof(K), sizeof(V), n + 16);
        if (n > 0) fill(made, n, make);
        return made;
    }
    // Also writes `key` -> `value` into the map.
    template <typename K, typename V>
    void put(const PinnedMap<K, V>& map, int64_t n, const K& key, const V& value) {
        put(map, n);
        sandbox::openMap(map).put(key, value);
    }

  private:
    std::vector<std::pair<std::string, std::optional<RawMap>>> saved_;
    std::deque<RawMap> made_;  // keeps references to its maps
};

// A speed record on kIfindex, updated in both directions when the map is seeded.
template <typename K>
SpeedsValue fresh(const K& key) {
    SpeedsValue value = freshSpeeds(key);
    value.ifindex = kIfindex;
    return value;
}

SocketTuple onInterface(const uint64_t& cookie) {
    SocketTuple tuple = derivedFrom<uint64_t, SocketTuple>(cookie);
    tuple.ifindex = kIfindex;
    return tuple;
}

// The three maps an interface's data lives in, n entries each on kIfindex.
void interfaceData(Stage& stage, int64_t n) {
    stage.put(maps::kAppSocketSpeeds, n, fresh<uint64_t>);
    stage.put(maps::kAppUidSpeeds, n, fresh<UidIfindexKey>);
    stage.put(maps::kAppSocketInfo, n, onInterface);
}

struct Service {
    std::string name;
    std::function<void(Stage&, int64_t n)> stage;
    std::function<void()> call;
    bool consumes = false;  // the call empties or rewrites its maps: stage them before each call
};

template <typename Table, typename K, typename V>
Service copier(const char* name, const PinnedMap<K, V>& map, int (*read)(Table&),
               bool harvests = false) {
    return {name, [map](Stage& stage, int64_t n) { stage.put(map, n); },
            [read] {
                Table out;
                read(out);
            },
            harvests};
}

std::vector<Service> services() {
    using Counters = std::unordered_map<uint32_t, uint64_t>;
    std::vector<Service> all = {
            copier("bpfFetchAppFreezeSyns", maps::kAppFreezeSyn, bpfFetchAppFreezeSyns, true),
            copier("bpfGetAppTcpFinDropMap", maps::kAppTcpFinDrop, bpfGetAppTcpFinDropMap),
            {"bpfGetAppFreezeConfig",
             [](Stage& stage, int64_t n) {
                 stage.put(maps::kAppFreezeConfig, n, 1u, AppFreezeConfig{1, 2, 3});
             },
             [] {
                 AppFreezeConfig out;
                 bpfGetAppFreezeConfig(out);
             }},
            // Every call writes a new configuration; one equal to the last written costs nothing.
            {"bpfSetAppFreezeConfig",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppFreezeConfig, n); },
             [] {
                 static uint32_t round = 0;
                 AppFreezeConfig next{++round, 2, 3};
                 bpfSetAppFreezeConfig(next);
             }},
            {"bpfAddAppImHbLenMap",
             [](Stage& stage, int64_t n) { stage.put(maps::kImAppHbLen, n); },
             [] { bpfAddAppImHbLenMap(10007, 300); }},
            // A zero state writes its two entries and clears the heartbeat lengths.
            {"bpfUpdateScreenStateMap(0)",
             [](Stage& stage, int64_t n) {
                 stage.put(maps::kScreenState, 0);
                 stage.put(maps::kImAppHbLen, n);
             },
             [] { bpfUpdateScreenStateMap(0, 42); }, true},
            // A non-zero state reads six flags and resets the one flagged map.
            {"bpfUpdateScreenStateMap(1)",
             [](Stage& stage, int64_t n) {
                 stage.put(maps::kScreenState, 0);
                 stage.put(maps::kAppTcpInwakeup, n);
                 stage.put(maps::kOverflowingMapCheck, 0, 8u, 1u);
             },
             [] { bpfUpdateScreenStateMap(1, 42); }, true},
            {"bpfEnableNetwork",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppNetDisconnLimit, n); },
             [] { bpfEnableNetwork(10007); }, true},
            {"bpfLegacySetFirewall",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppVuskLimit, n); },
             [] { bpfLegacySetFirewall(10007, 1); }, true},
            {"bpfGetSocketLocalStatus",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppSocketInfo, n, onInterface); },
             [] { bpfGetSocketLocalStatus(10007); }},
            {"bpfDeleteIfindexSocketSpeeds", interfaceData,
             [] { bpfDeleteIfindexSocketSpeeds(kIfindex); }, true},
            {"bpfDeleteIfindexUidSpeeds", interfaceData,
             [] { bpfDeleteIfindexUidSpeeds(kIfindex); }, true},
            {"bpfDelIfIndexSocketInfoMap", interfaceData,
             [] { bpfDelIfIndexSocketInfoMap(kIfindex); }, true},
            // Disabling an interface sweeps its three maps, then drops its table entry.
            {"bpfUpdateAppSocketSpeedsIfindex(disable)",
             [](Stage& stage, int64_t n) {
                 interfaceData(stage, n);
                 stage.put(maps::kAppSocketSpeedsIfindex, 0, kIfindex, IfIndexSpeedConfig{1, 0});
             },
             [] { bpfUpdateAppSocketSpeedsIfindex(kIfindex, 0, 0); }, true},
            {"bpfUpdateAppSocketSpeedsIfindex(enable)",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppSocketSpeedsIfindex, n); },
             [] { bpfUpdateAppSocketSpeedsIfindex(kIfindex, 1, 1); }},
            {"bpfUpdateAppSocketSpeedsConfig",
             [](Stage& stage, int64_t n) { stage.put(maps::kAppSocketSpeedsConfig, n); },
             [] { bpfUpdateAppSocketSpeedsConfig(5); }},
    };
    struct Reader {
        const char* name;
        PinnedMap<uint32_t, uint64_t> map;
        int (*read)(Counters&);
    };
    // bpfGetAppTcpInwakeupMap, the first of them, is among the walking benchmarks.
    const Reader readers[] = {
            {"bpfGetAppTcpOutwakeupMap", maps::kAppTcpOutwakeup, bpfGetAppTcpOutwakeupMap},
            {"bpfGetAppTcpWakeupdurationMap", maps::kAppTcpWakeupduration,
             bpfGetAppTcpWakeupdurationMap},
            {"bpfGetAppTcpOutImHbMap", maps::kAppTcpOutImHb, bpfGetAppTcpOutImHbMap},
            {"bpfGetAppTcpOutAlignMap", maps::kAppTcpOutAlign, bpfGetAppTcpOutAlignMap},
            {"bpfGetAppTcpInKeepAliveMap", maps::kAppTcpInKeepAlive, bpfGetAppTcpInKeepAliveMap},
            {"bpfGetAppTcpReinwakeupMap", maps::kAppTcpReinwakeup, bpfGetAppTcpReinwakeupMap},
            {"bpfGetAppTcpReoutwakeupMap", maps::kAppTcpReoutwakeup, bpfGetAppTcpReoutwakeupMap}};
    for (const Reader& r : readers) all.push_back(copier<Counters>(r.name, r.map, r.read));
    return all;
}

void runService(benchmark::State& state, const Service& service) {
    const int64_t n = state.range(0);
    auto stage = std::make_unique<Stage>();
    service.stage(*stage, n);
    const CommandCount commands;
    for (auto _ : state) {
        if (service.consumes) {
            state.PauseTiming();
            stage.reset();  // the old maps go before their pins are replaced
            stage = std::make_unique<Stage>();
            service.stage(*stage, n);
            state.ResumeTiming();
        }
        service.call();
    }
    commands.count(state, n);
}

}  // namespace

void registerServiceBenchmarks() {
    for (const Service& service : services()) {
        benchmark::RegisterBenchmark((service.name + "/service").c_str(), runService, service)
                ->ArgName("n")
                ->Arg(kSizes[0]);
    }
}

}  // namespace kovra::bench
