// The TCP wake-up detector's per-UID counters, and the IM heartbeat lengths its kernel side reads.
//
// Reading is not harvesting: the readers leave the kernel maps as they are. None of these
// services logs anything; the caller sees only the status.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

// The readers are defined with the spelling their callers link against, which holds the 64-bit
// counters only where unsigned long is 64 bits wide: the 64-bit targets the library is built for.
static_assert(sizeof(unsigned long) == sizeof(uint64_t), "the wake-up readers need an LP64 target");

// Copies a snapshot of one counter map into the caller's table, keeping any UID the table
// already holds. The kernel side updates the counters while we walk, so the snapshot belongs to
// no single instant, and a UID it deletes between listing and reading ends the walk with -1.
template <typename Value>
int readCounters(const PinnedMap<uint32_t, Value>& counters,
                 std::unordered_map<uint32_t, Value>& out) {
    BpfMapRO map(counters);
    if (auto status = openFailure(map, counters)) return *status;
    return copyInto(map, out).ok() ? 0 : -1;
}

}  // namespace

int bpfGetAppTcpFinDropMap(std::unordered_map<unsigned int, unsigned int>& map) {
    return readCounters(maps::kAppTcpFinDrop, map);
}

int bpfGetAppTcpInwakeupMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpInwakeup, map);
}

int bpfGetAppTcpOutwakeupMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpOutwakeup, map);
}

int bpfGetAppTcpWakeupdurationMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpWakeupduration, map);
}

int bpfGetAppTcpOutImHbMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpOutImHb, map);
}

int bpfGetAppTcpOutAlignMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpOutAlign, map);
}

int bpfGetAppTcpInKeepAliveMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpInKeepAlive, map);
}

int bpfGetAppTcpReinwakeupMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpReinwakeup, map);
}

int bpfGetAppTcpReoutwakeupMap(std::unordered_map<unsigned int, unsigned long>& map) {
    return readCounters(maps::kAppTcpReoutwakeup, map);
}

// The lengths stay registered until a later call replaces them or the screen goes to state 0.
int bpfAddAppImHbLenMap(uint32_t uid, uint32_t hbLen) {
    BpfMap map(maps::kImAppHbLen);
    if (auto status = openFailure(map, maps::kImAppHbLen)) return *status;
    return map.writeValue(uid, hbLen, BPF_ANY).ok() ? 0 : -1;
}

}  // namespace android::bpf
