// Which interfaces are measured, the global speed configuration word, and the sweeps that wipe
// what was gathered for an interface.
#include <string.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

// Deletes every entry of `pinned` whose value's `field` names `ifindex`. Entries are matched by
// the interface recorded in the value, which is where the kernel side keeps it, not by any
// interface a key may carry. The walk has fetched the next key before it calls back, so deleting
// the current entry does not lose its place; a deletion that fails is left alone.
template <typename K, typename V>
int sweepInterface(const PinnedMap<K, V>& pinned, uint32_t V::*field, uint32_t ifindex,
                   const char* openFormat, const char* walkFormat) {
    BpfMap map(pinned);
    if (auto status = openFailure(map, pinned, openFormat)) return *status;
    const Result<void> walk =
            map.iterateWithValue([&](const K& key, const V& value, BpfMap<K, V>& self) {
                if (value.*field == ifindex) (void)self.deleteValue(key);
                return Result<void>{};
            });
    return walkFailed(walk, walkFormat) ? -1 : 0;
}

}  // namespace

int bpfUpdateAppSocketSpeedsIfindex(uint32_t ifindex, int enable, uint32_t localEnable) {
    BpfMap table(maps::kAppSocketSpeedsIfindex);
    if (auto status = openFailure(table, maps::kAppSocketSpeedsIfindex,
                                  "Opening appSocketSpeedsIfindexMap(%s) failed: %s")) {
        return *status;
    }
    Result<void> update;
    if (enable != 0) {
        update = table.writeValue(ifindex, IfIndexSpeedConfig{1, localEnable}, BPF_ANY);
    } else {
        // The data goes before the table entry, so the kernel side keeps measuring until nothing
        // gathered for the interface is left. A sweep that fails does not stop the others.
        (void)bpfDeleteIfindexSocketSpeeds(ifindex);
        (void)bpfDeleteIfindexUidSpeeds(ifindex);
        (void)bpfDelIfIndexSocketInfoMap(ifindex);
        update = table.deleteValue(ifindex);
    }
    if (!update.ok()) {
        logError("bpfUpdateAppSocketSpeedsIfindex failed! %d,%d,%s", static_cast<int>(ifindex),
                 enable, strerror(errorCode(update.error())));
        return -1;
    }
    return 0;
}

int bpfUpdateAppSocketSpeedsConfig(uint32_t config) {
    BpfMap map(maps::kAppSocketSpeedsConfig);
    if (auto status = openFailure(map, maps::kAppSocketSpeedsConfig,
                                  "Opening appSocketSpeedsConfigMap(%s) failed: %s")) {
        return *status;
    }
    // The word lives under key 0. A rejected write is deliberately ignored: no log line, and
    // the call still returns 0.
    (void)map.writeValue(KOVRA_SPEEDS_CONFIG_KEY, config, BPF_ANY);
    return 0;
}

int bpfDeleteIfindexSocketSpeeds(uint32_t ifindex) {
    // The open failure names the interface update, which is this sweep's usual caller.
    return sweepInterface(
            maps::kAppSocketSpeeds, &SpeedsValue::ifindex, ifindex,
            "bpfUpdateAppSocketSpeedsIfindex Opening appSocketStatsMap(%s) failed: %s",
            "bpfDeleteIfindexSocketSpeeds end with error: %s");
}

int bpfDeleteIfindexUidSpeeds(uint32_t ifindex) {
    // The key carries an interface too, but the value's is the one the kernel side measured on.
    return sweepInterface(maps::kAppUidSpeeds, &SpeedsValue::ifindex, ifindex,
                          "bpfUpdateAppSocketSpeedsIfindex Opening appUidSpeedsMap(%s) failed: %s",
                          "bpfDeleteIfindexUidSpeeds end with error: %s");
}

int bpfDelIfIndexSocketInfoMap(uint32_t ifindex) {
    return sweepInterface(maps::kAppSocketInfo, &SocketTuple::ifindex, ifindex,
                          "Opening socketInfoMap(%s) failed: %s",
                          "bpfDelIfIndexSocketInfoMap end with error: %s");
}

}  // namespace android::bpf
