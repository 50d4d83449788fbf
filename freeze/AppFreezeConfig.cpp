// The freeze accounting's configuration record, kept under key 1 of its map.
#include <string.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

// The kernel side reads its settings from key 1, not 0.
constexpr uint32_t kConfigKey = KOVRA_FREEZE_CONFIG_KEY;

// The last configuration this process wrote successfully; all zero until then, so a first
// request for three zeros writes nothing. It knows nothing of writes by other processes: setting
// the value this process wrote last is skipped even if the map has changed since. No lock guards
// it, so concurrent setters race on it.
AppFreezeConfig lastAppFreezeConfig{};

bool sameConfig(const AppFreezeConfig& a, const AppFreezeConfig& b) {
    return a.word0 == b.word0 && a.word1 == b.word1 && a.word2 == b.word2;
}

// Both a failed read and a failed write report under this one line, which names the setter.
int configAccessFailed(int code) {
    logError("Failed to get bpfSetAppFreezeConfig stats: %s", strerror(code));
    return -code;
}

}  // namespace

int bpfGetAppFreezeConfig(AppFreezeConfig& config) {
    // Read-write like the setter, so the reader takes the map's shared lock too.
    BpfMap map(maps::kAppFreezeConfig);
    if (auto status = openFailure(map, maps::kAppFreezeConfig,
                                  "Opening bpfGetAppFreezeConfig(%s) failed: %s")) {
        return *status;
    }
    const Result<AppFreezeConfig> value = map.readValue(kConfigKey);
    if (!value.ok()) return configAccessFailed(errorCode(value.error()));
    config = value.value();
    return 0;
}

int bpfSetAppFreezeConfig(AppFreezeConfig& config) {
    if (sameConfig(config, lastAppFreezeConfig)) return 0;

    BpfMap map(maps::kAppFreezeConfig);
    if (auto status = openFailure(map, maps::kAppFreezeConfig,
                                  "Opening bpfSetAppFreezeConfig(%s) failed: %s")) {
        return *status;
    }
    const Result<void> written = map.writeValue(kConfigKey, config, BPF_ANY);
    // Only a write that reached the kernel counts: after a failure the same request tries again.
    if (!written.ok()) return configAccessFailed(errorCode(written.error()));
    lastAppFreezeConfig = config;
    logDebug("succ update config %u,%u,%u over", config.word0, config.word1, config.word2);
    return 0;
}

}  // namespace android::bpf
