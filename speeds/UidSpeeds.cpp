// Per-(UID, interface) speeds: every live pair in kbps, with the pruning of stale pairs.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"
#include "SpeedAge.h"

namespace android::bpf {

namespace {

using UidSpeedsTable = std::unordered_map<uint64_t, IfaceSpeedsValue>;

// The map key read as one little-endian u64, whatever the host's byte order: uid in the low half,
// ifindex in the high half, so no two pairs share a table key.
uint64_t tableKey(const UidIfindexKey& key) {
    return uint64_t{key.ifindex} << 32 | key.uid;
}

}  // namespace

int bpfGetAppUidSpeedsTotal(UidSpeedsTable& speeds, uint32_t staleMs) {
    BpfMap map(maps::kAppUidSpeeds);
    if (auto status =
                openFailure(map, maps::kAppUidSpeeds, "Opening appUidSpeedsMap(%s) failed: %s")) {
        return *status;
    }
    // A failed walk is logged by the walk itself; the pairs read before it are the report.
    (void)bpfGetAppUidSpeedsTotalInternal(speeds, map, staleMs, monotonicNowNs());
    return 0;
}

int bpfGetAppUidSpeedsTotalInternal(UidSpeedsTable& speeds, BpfMap<UidIfindexKey, SpeedsValue>& map,
                                    uint32_t staleMs, uint64_t now) {
    const Result<void> walk =
            map.iterateWithValue([&](const UidIfindexKey& key, const SpeedsValue& value,
                                     BpfMap<UidIfindexKey, SpeedsValue>& self) {
                const SpeedsAge age(value, now, staleMs);
                if (age.prunable()) {
                    // Best effort: a pair that cannot be deleted is left for the next call.
                    (void)self.deleteValue(key);
                    return Result<void>{};
                }
                speeds.try_emplace(tableKey(key), IfaceSpeedsValue{toKbps(age.firstSpeed(value)),
                                                                   toKbps(age.secondSpeed(value))});
                return Result<void>{};
            });
    return walkFailed(walk, "bpfGetAppUidSpeedsTotalInternal end with error: %s") ? -1 : 0;
}

}  // namespace android::bpf
