// Per-UID traffic totals over maps of fuzzed UIDs and records, with a caller's table that
// already holds some of them.
#include <kovrabpf/KovraPinnedMaps.h>

#include "FuzzMaps.h"

using namespace android::bpf;
using namespace kovra::fuzz;

namespace {

KovraStatsValue widened(const StatsValue& stats) {
    KovraStatsValue value{};
    memcpy(&value, &stats, sizeof(stats));
    return value;
}

void fuzzSingleUid(FuzzedDataProvider& input, const FuzzedMap<uint32_t, KovraStatsValue>& map) {
    const uint32_t uid = draw<uint32_t>(input);
    const KovraStatsValue untouched = draw<KovraStatsValue>(input);
    KovraStatsValue out = untouched;
    const int status = withoutLeak([&] { return bpfGetUidPurStats(uid, out); });
    const auto it = map.written().find(uid);
    if (it == map.written().end()) {
        require(status == -ENOENT, "a missing UID is not -ENOENT");
        require(kovra::sandbox::sameBytes(untouched, out), "a failed lookup wrote the record");
    } else {
        require(status == 0, "a present UID was not read");
        require(kovra::sandbox::sameBytes(it->second, out), "the record changed on the way");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzedMap<uint32_t, StatsValue> netd(maps::kNetdAppUidStats);
    static FuzzedMap<uint32_t, KovraStatsValue> pur(maps::kUidPurStats);
    FuzzedDataProvider input(data, size);
    netd.refill(input);
    pur.refill(input);
    fuzzCopy(input, netd, bpfGetUidStatsTotal, widened);
    fuzzCopy(input, pur, bpfGetUidPurStatsTotal);
    fuzzSingleUid(input, pur);
    return 0;
}
