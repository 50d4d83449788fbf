// Per-socket speeds: the report with its floor, watch list and local-subnet filter, the pruning
// of stale sockets, and the subnet test for one socket.
#include <errno.h>
#include <net/if.h>
#include <string.h>

#include <netutils/ifc.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"
#include "SpeedAge.h"

namespace android::bpf {

namespace {

using SocketSpeedsTable = std::unordered_map<uint64_t, SpeedsValue>;
using LocalEnableTable = std::unordered_map<uint32_t, uint32_t>;
using WatchList = std::unordered_set<uint64_t>;

// ifindex -> localEnable of every interface under measurement. A failed walk is not an error
// here: the interfaces it did not reach are just not filtered.
void bpfGetIfIndexLocalEnable(LocalEnableTable& localEnable) {
    BpfMap table(maps::kAppSocketSpeedsIfindex);
    (void)copyInto(table, localEnable,
                   [](const IfIndexSpeedConfig& config) { return config.localEnable; });
}

bool leavesOutLocalSockets(const LocalEnableTable& localEnable, uint32_t ifindex) {
    const auto entry = localEnable.find(ifindex);
    return entry != localEnable.end() && entry->second == 1;
}

// The report's copy of a socket's record: speeds in kbps, everything else as the kernel wrote it.
SpeedsValue reportOf(const SpeedsValue& value, uint64_t first, uint64_t second) {
    SpeedsValue report = value;
    report.firstSpeed = toKbps(first);
    report.secondSpeed = toKbps(second);
    return report;
}

Result<void> bpfGetAppSocketSpeedsTotalInternal(BpfMap<uint64_t, SpeedsValue>& speedsMap,
                                                BpfMap<uint64_t, SocketTuple>& infoMap,
                                                SocketSpeedsTable& speeds,
                                                LocalEnableTable& localEnable, uint32_t staleMs,
                                                uint32_t minKbps, uint64_t now,
                                                WatchList& watched) {
    // The floor stays a 32-bit product, as callers have always had it: a minKbps above 4294967
    // wraps modulo 2^32 (4294968 gives a floor of 704) instead of growing. Do not widen it.
    const uint32_t limit = minKbps * 1000u;
    // The walk reads a copy of the watch list, never the caller's set.
    return speedsMap.iterateWithValue([&, watched](const uint64_t& cookie, const SpeedsValue& value,
                                                   BpfMap<uint64_t, SpeedsValue>& map) {
        const SpeedsAge age(value, now, staleMs);
        if (age.prunable()) {
            // Best effort: an entry that cannot be deleted is simply left for the next call.
            (void)map.deleteValue(cookie);
            (void)infoMap.deleteValue(cookie);
            return Result<void>{};
        }
        const uint64_t first = age.firstSpeed(value);
        const uint64_t second = age.secondSpeed(value);
        if (leavesOutLocalSockets(localEnable, value.ifindex) &&
            bpfGetSocketLocalStatus(cookie) == 1) {
            return Result<void>{};
        }
        const bool fastEnough = first >= limit || second >= limit;
        const bool watchedAndMoving = watched.count(cookie) != 0 && (first != 0 || second != 0);
        if (!fastEnough && !watchedAndMoving) return Result<void>{};

        speeds.try_emplace(cookie, reportOf(value, first, second));
        logDebug("add speed %lu %lu %lu kbps", cookie, toKbps(first), toKbps(second));
        return Result<void>{};
    });
}

}  // namespace

int bpfGetAppSocketSpeedsTotal(SocketSpeedsTable& speeds, uint32_t staleMs, uint32_t minKbps,
                               WatchList& watched) {
    BpfMap speedsMap(maps::kAppSocketSpeeds);
    if (auto status = openFailure(speedsMap, maps::kAppSocketSpeeds,
                                  "Opening appSocketStatsMap(%s) failed: %s")) {
        return *status;
    }
    BpfMap infoMap(maps::kAppSocketInfo);
    if (auto status = openFailure(infoMap, maps::kAppSocketInfo,
                                  "Opening appSocketInfoMap(%s) failed: %s")) {
        return *status;
    }
    const uint64_t now = monotonicNowNs();
    LocalEnableTable localEnable;
    bpfGetIfIndexLocalEnable(localEnable);

    // One interface-control context for the whole walk, which may ask for the address of an
    // interface once per socket. Should it fail to open, every subnet test fails and the sockets
    // are reported as not local.
    (void)ifc_init();
    const Result<void> walk = bpfGetAppSocketSpeedsTotalInternal(
            speedsMap, infoMap, speeds, localEnable, staleMs, minKbps, now, watched);
    ifc_close();

    // What was reported before the failure stays, and the call still succeeds.
    walkFailed(walk, "bpfGetAppSocketSpeedsTotalInternal end with error: %s");
    return 0;
}

// Needs an interface-control context (ifc_init) opened by the caller; bpfGetAppSocketSpeedsTotal
// opens one around its walk. Called without one it fails at the interface query.
int bpfGetSocketLocalStatus(uint64_t cookie) {
    BpfMap infoMap(maps::kAppSocketInfo);
    if (openFailure(infoMap, maps::kAppSocketInfo, "Opening appSocketInfoMap(%s) failed: %s")) {
        return -1;
    }
    const Result<SocketTuple> tuple = infoMap.readValue(cookie);
    if (!tuple.ok()) {
        logError("appSocketInfoMap read socket %lu failed!", cookie);
        return -1;
    }
    const SocketTuple& socket = tuple.value();

    char name[IFNAMSIZ];
    if (if_indextoname(socket.ifindex, name) == nullptr) {
        logError("ifName is null %d!", static_cast<int>(socket.ifindex));
        return -1;
    }
    in_addr_t address;
    int prefixLength;
    if (ifc_get_info(name, &address, &prefixLength, nullptr) != 0) {
        logError("ifc_get_info failed is null %s %s!", name, strerror(errno));
        return -1;
    }
    if (socket.ipv4Valid == 0) return -1;

    // All three are in network byte order, so the subnet test needs no swapping.
    const in_addr_t mask = prefixLengthToIpv4Netmask(prefixLength);
    return ((address ^ socket.remoteAddr4) & mask) == 0 ? 1 : 0;
}

}  // namespace android::bpf
