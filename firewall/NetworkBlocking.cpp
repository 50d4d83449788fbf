// Per-app network blocking: a UID with an entry (value 1) in a limit map is cut off the network
// by the kernel side; no entry means not blocked. These services report through their status
// alone and log nothing.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

using LimitMap = BpfMap<uint32_t, uint32_t>;

constexpr uint32_t kBlocked = KOVRA_BLOCKED;
constexpr int kRuleAllow = 1;

// Callers hand UIDs over as int; the maps are keyed by the same 32 bits read as unsigned, with
// no range check, so -1 is the key 4294967295.
uint32_t uidKey(int uid) {
    return static_cast<uint32_t>(uid);
}

// Create or replace: blocking a blocked UID succeeds.
int block(const LimitMap& map, int uid) {
    return map.writeValue(uidKey(uid), kBlocked, BPF_ANY).ok() ? 0 : -1;
}

// A UID that was not blocked has no entry to delete; that is reported as a failure like any
// other.
int unblock(const LimitMap& map, int uid) {
    return map.deleteValue(uidKey(uid)).ok() ? 0 : -1;
}

}  // namespace

int bpfDisableNetwork(int uid) {
    LimitMap map(maps::kAppNetDisconnLimit);
    if (auto status = openFailure(map, maps::kAppNetDisconnLimit)) return *status;
    return block(map, uid);
}

int bpfEnableNetwork(int uid) {
    LimitMap map(maps::kAppNetDisconnLimit);
    if (auto status = openFailure(map, maps::kAppNetDisconnLimit)) return *status;
    return unblock(map, uid);
}

int bpfLegacySetFirewall(int uid, int rule) {
    // No descriptor check here, unlike the other two: on a bad descriptor the map operation
    // itself fails, which is reported as -1 like any other failure.
    LimitMap map(maps::kAppVuskLimit);
    return rule == kRuleAllow ? unblock(map, uid) : block(map, uid);
}

}  // namespace android::bpf
