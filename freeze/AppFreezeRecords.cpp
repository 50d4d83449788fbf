// Harvest of the records the kernel side keeps about frozen apps: connection attempts (SYN
// records) and traffic statistics, each in its own map. A harvest delivers the map's records to
// the caller and then empties the map, so that each record is handed over once and the kernel
// side starts afresh.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

// One harvested map with the lines that report its failures.
template <typename Value>
struct FreezeRecords {
    PinnedMap<uint64_t, Value> map;
    const char* openFailed;
    const char* walkFailed;
};

constexpr FreezeRecords<AppFreezeSynInfo> kSynRecords{maps::kAppFreezeSyn,
                                                      "Opening appFreezeSyncMap(%s) failed: %s",
                                                      "bpfFetchAppFreezeSyns end with error: %s"};
constexpr FreezeRecords<AppFreezeStatsInfo> kStatsRecords{
        maps::kAppFreezeStats, "Opening appFreezeStatsMap(%s) failed: %s",
        "bpfFetchAppFreezeStats end with error: %s"};

// Reads the whole map first and clears it afterwards. A record the kernel side adds or updates
// after the walk has passed its key is deleted by the clear without being delivered; one walk
// and one clear keep the call short, and that loss is accepted. Keys already in `out` keep their
// value, yet their kernel records are cleared all the same.
template <typename Value>
int harvest(const FreezeRecords<Value>& records, std::unordered_map<uint64_t, Value>& out) {
    BpfMap map(records.map);
    if (auto status = openFailure(map, records.map, records.openFailed)) return *status;
    // After a failed walk the map is left whole: its records are delivered by the next harvest.
    if (walkFailed(copyInto(map, out), records.walkFailed)) return -1;
    // What was read is already the caller's; a clear that stops early has logged its own failure
    // and only leaves records for the next harvest, so it does not fail this one.
    (void)map.clear();
    return 0;
}

}  // namespace

int bpfFetchAppFreezeSyns(std::unordered_map<uint64_t, AppFreezeSynInfo>& out) {
    return harvest(kSynRecords, out);
}

int bpfFetchAppFreezeStats(std::unordered_map<uint64_t, AppFreezeStatsInfo>& out) {
    return harvest(kStatsRecords, out);
}

}  // namespace android::bpf
