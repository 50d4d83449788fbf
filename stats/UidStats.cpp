// Per-UID traffic totals from netd's statistics map and from the vendor's own.
#include <string.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

using UidStatsTable = std::unordered_map<int64_t, KovraStatsValue>;

// The UID key widens to the table's int64_t by zero extension, so UID 4294967295 never shows
// up as -1.
Result<void> bpfGetUidStatsTotalInternal(UidStatsTable& out,
                                         const BpfMapRO<uint32_t, StatsValue>& map) {
    return copyInto(map, out, [](const StatsValue& stats) {
        KovraStatsValue value{};
        memcpy(&value, &stats, sizeof(stats));
        return value;
    });
}

Result<void> bpfGetFreezeStatsTotalInternal(UidStatsTable& out,
                                            const BpfMapRO<uint32_t, KovraStatsValue>& map) {
    return copyInto(map, out);
}

}  // namespace

int bpfGetUidStatsTotal(UidStatsTable& out) {
    BpfMapRO map(maps::kNetdAppUidStats);
    if (auto status =
                openFailure(map, maps::kNetdAppUidStats, "Opening appUidStatsMap(%s) failed: %s")) {
        return *status;
    }
    const Result<void> walk = bpfGetUidStatsTotalInternal(out, map);
    return walkFailed(walk, "bpfGetUidStatsTotalInternal end with error: %s") ? -1 : 0;
}

int bpfGetUidPurStatsTotal(UidStatsTable& out) {
    BpfMapRO map(maps::kUidPurStats);
    if (auto status =
                openFailure(map, maps::kUidPurStats, "Opening appPurStatsMap(%s) failed: %s")) {
        return *status;
    }
    const Result<void> walk = bpfGetFreezeStatsTotalInternal(out, map);
    return walkFailed(walk, "bpfGetFreezeStatsTotalInternal end with error: %s") ? -1 : 0;
}

int bpfGetUidPurStats(uint32_t uid, KovraStatsValue& out) {
    BpfMapRO map(maps::kUidPurStats);
    if (auto status =
                openFailure(map, maps::kUidPurStats, "Opening appPurStatsMap(%s) failed: %s")) {
        return *status;
    }
    const Result<KovraStatsValue> value = map.readValue(uid);
    if (!value.ok()) {
        const int code = errorCode(value.error());
        logError("Failed to get current uid %u stats: %s", uid, strerror(code));
        return -code;
    }
    out = value.value();
    return 0;
}

}  // namespace android::bpf
