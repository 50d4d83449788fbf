// libkovrabpf: typed, synchronous services over the vendor's pinned eBPF network maps.
//
// Every service opens the maps it needs, does its work, closes them and returns an int status:
//   0        success;
//   -errno   a map handle was unusable after opening, or (traffic totals, freeze configuration)
//            a single lookup or update failed with that errno;
//   -1       a walk, a write or a delete failed;
// a few services return 0 after a logged walk error or an unchecked write; each says so below.
// Maps that are missing or do not fit their records end the process with abort() while they are
// opened, without a log line. Results go into containers the caller owns: services only insert,
// never overwrite, sum, remove or clear, so a caller that wants a fresh snapshot empties the
// container first.
//
// Failures are logged to the Android log under the tag "KovraBpfNetworkStats"; the blocking
// services and the wake-up counter readers log nothing.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <unordered_map>
#include <unordered_set>

#include <kovrabpf/BpfMap.h>
#include <kovrabpf/KovraRecords.h>

namespace android::bpf {

// ---- Per-UID traffic totals. ----

// Copies netd's per-UID statistics into `out` (UID zero-extended; trailing fields 0).
// 0, -1 when the walk failed (entries read before the failure stay), -errno.
int bpfGetUidStatsTotal(std::unordered_map<int64_t, KovraStatsValue>& out);
// The same over the vendor's per-UID statistics map.
int bpfGetUidPurStatsTotal(std::unordered_map<int64_t, KovraStatsValue>& out);
// One UID of the vendor's map: 0, or minus the lookup's errno (-ENOENT: no entry), `out` untouched.
int bpfGetUidPurStats(uint32_t uid, KovraStatsValue& out);

// ---- Freeze accounting. ----

// Delivers the kernel's records into `out`, then empties the kernel map. Records written between
// the read and the clear are lost by design. 0 (also when the clear failed), -1 when the walk
// failed (the kernel map is then left as it was), -errno.
int bpfFetchAppFreezeSyns(std::unordered_map<uint64_t, AppFreezeSynInfo>& out);
int bpfFetchAppFreezeStats(std::unordered_map<uint64_t, AppFreezeStatsInfo>& out);
// Reads the configuration record: 0, or -errno of the lookup with `config` untouched.
int bpfGetAppFreezeConfig(AppFreezeConfig& config);
// Writes the configuration record unless it equals the last one this process wrote (all zero in
// a fresh process). 0, or -errno of the write. Not thread-safe.
int bpfSetAppFreezeConfig(AppFreezeConfig& config);

// ---- Socket and UID speeds. Stamps are CLOCK_MONOTONIC nanoseconds. ----

// Reports, in kbps, sockets at or above `minKbps` in either direction (or watched and moving),
// leaving out subnet-local sockets on interfaces that ask for it, and prunes sockets whose both
// directions are older than `staleMs`. 0 (also after a logged walk error), or -errno.
// Opens and closes libnetutils' process-wide interface-control context (ifc_init/ifc_close)
// around its walk: do not run it concurrently with another user of that context.
int bpfGetAppSocketSpeedsTotal(std::unordered_map<uint64_t, SpeedsValue>& speeds, uint32_t staleMs,
                               uint32_t minKbps, std::unordered_set<uint64_t>& watched);
// 1 when the socket's peer lies in its interface's IPv4 subnet, 0 when not, -1 when unknown.
// Asks through the caller's interface-control context (ifc_init); without one it logs the
// failed interface query and returns -1.
int bpfGetSocketLocalStatus(uint64_t cookie);
// Reports every live (UID, interface) pair in kbps and prunes stale ones. 0, or -errno.
int bpfGetAppUidSpeedsTotal(std::unordered_map<uint64_t, IfaceSpeedsValue>& speeds,
                            uint32_t staleMs);
// The walk of bpfGetAppUidSpeedsTotal over the caller's handle at the caller's `now`: 0 or -1.
int bpfGetAppUidSpeedsTotalInternal(std::unordered_map<uint64_t, IfaceSpeedsValue>& speeds,
                                    BpfMap<UidIfindexKey, SpeedsValue>& map, uint32_t staleMs,
                                    uint64_t now);
// Puts an interface into measurement (any non-zero `enable`), or takes it out and wipes what was
// gathered for it. 0, -1 when the table write or delete failed, -errno.
int bpfUpdateAppSocketSpeedsIfindex(uint32_t ifindex, int enable, uint32_t localEnable);
// Stores the global speed configuration word. 0 even when the kernel rejects it, or -errno.
int bpfUpdateAppSocketSpeedsConfig(uint32_t config);
// Sweeps deleting every entry whose value names `ifindex`: 0, -1 on a walk error, -errno.
int bpfDeleteIfindexSocketSpeeds(uint32_t ifindex);
int bpfDeleteIfindexUidSpeeds(uint32_t ifindex);
int bpfDelIfIndexSocketInfoMap(uint32_t ifindex);

// ---- TCP wake-up detector. The readers and bpfAddAppImHbLenMap log nothing. ----

// Snapshot readers of the per-UID counter maps: 0, -1 when the walk failed, -errno.
int bpfGetAppTcpFinDropMap(std::unordered_map<unsigned int, unsigned int>& map);
int bpfGetAppTcpInwakeupMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpOutwakeupMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpWakeupdurationMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpOutImHbMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpOutAlignMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpInKeepAliveMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpReinwakeupMap(std::unordered_map<unsigned int, unsigned long>& map);
int bpfGetAppTcpReoutwakeupMap(std::unordered_map<unsigned int, unsigned long>& map);
// Registers an app's IM heartbeat length: 0, -1 when the write failed, -errno.
int bpfAddAppImHbLenMap(uint32_t uid, uint32_t hbLen);
// Records a screen-state change; a non-zero state also resets the maps the kernel side flags as
// overflowing, a zero state drops the heartbeat lengths. 0, -1 when a state write failed, -errno.
int bpfUpdateScreenStateMap(uint32_t screenState, uint64_t stamp);

// ---- Per-app network blocking. Nothing is logged. ----

// The UID is used as the unsigned key with the same bits (-1 is 4294967295).
int bpfDisableNetwork(int uid);  // 0, -1 when the write failed, -errno
int bpfEnableNetwork(int uid);   // 0, -1 when the delete failed (no entry included), -errno
// Rule 1 unblocks (delete), any other rule blocks (write). 0 or -1.
int bpfLegacySetFirewall(int uid, int rule);

}  // namespace android::bpf
