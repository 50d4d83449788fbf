// A program that uses libkovrabpf the way a vendor service would: records, services, the map
// catalogue and the map handle templates. It only links them; run, it touches no map.
#include <stdio.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

using namespace android::bpf;

// Never called: proves that the services and the templates' instances link.
int readEverything() {
    std::unordered_map<int64_t, KovraStatsValue> totals;
    BpfMapRO<uint32_t, uint64_t> counters(maps::kAppTcpInwakeup);
    uint64_t sum = 0;
    auto walk = counters.iterateWithValue([&](const uint32_t&, const uint64_t& v, const auto&) {
        sum += v;
        return Result<void>{};
    });
    BpfMap<uint32_t, uint32_t> lengths(maps::kImAppHbLen);
    auto cleared = lengths.clear();
    return bpfGetUidStatsTotal(totals) + (walk.ok() && cleared.ok() ? 0 : 1) + int(sum);
}

int main(int argc, char**) {
    if (argc > 99) return readEverything();
    SpeedsValue speeds{};
    printf("kovrabpf consumer: %zu pinned maps, SpeedsValue %zu bytes, gate %d\n",
           kPinnedMaps.size(), sizeof(speeds), uncachedKernelVersion() != 0);
    return 0;
}
