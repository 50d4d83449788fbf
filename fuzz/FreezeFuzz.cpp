// Freeze records harvests over maps of fuzzed keys and records, with a caller's table that
// already holds some of them: the table gains what the map held, and the map ends up empty.
#include <kovrabpf/KovraPinnedMaps.h>

#include "FuzzMaps.h"

using namespace android::bpf;
using namespace kovra::fuzz;

namespace {

template <typename V>
void fuzzHarvest(FuzzedDataProvider& input, FuzzedMap<uint64_t, V>& map,
                 int (*harvest)(std::unordered_map<uint64_t, V>&)) {
    map.refill(input);
    fuzzCopy(input, map, harvest);
    require(map.map().keys().empty(), "a harvest left records in the map");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzedMap<uint64_t, AppFreezeSynInfo> syns(maps::kAppFreezeSyn);
    static FuzzedMap<uint64_t, AppFreezeStatsInfo> stats(maps::kAppFreezeStats);
    FuzzedDataProvider input(data, size);
    fuzzHarvest(input, syns, bpfFetchAppFreezeSyns);
    fuzzHarvest(input, stats, bpfFetchAppFreezeStats);
    return 0;
}
