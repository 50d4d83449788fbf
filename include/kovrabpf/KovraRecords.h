// The records of the pinned maps, copied byte for byte to and from the kernel. Their sizes and
// field offsets are a contract with the kernel side's programs and are pinned down below; the
// header depends on nothing, so that the catalogue and the desk's tools read it without the map
// handles.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android::bpf {

// The platform netd's per-UID statistics record.
struct StatsValue {
    uint64_t rxPackets;
    uint64_t rxBytes;
    uint64_t txPackets;
    uint64_t txBytes;
};

// The vendor's per-UID statistics record: netd's four counters, then two more filled by the
// vendor's program (zero when the record is built from a StatsValue).
struct KovraStatsValue {
    uint64_t rxPackets;
    uint64_t rxBytes;
    uint64_t txPackets;
    uint64_t txBytes;
    uint64_t extra0;
    uint64_t extra1;
};

// A frozen app's connection attempt, as the kernel side records it. Opaque to the library.
struct AppFreezeSynInfo {
    uint64_t data[2];
};

// A frozen app's traffic statistics, as the kernel side records them. Opaque to the library.
struct AppFreezeStatsInfo {
    uint64_t data[5];
};

// The freeze accounting's settings; their meaning belongs to the kernel side.
struct AppFreezeConfig {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
};

// Speed of one socket or one (UID, interface) pair in two directions, each with the
// CLOCK_MONOTONIC nanosecond time of its last update. Fields named aux/tag are the kernel side's.
struct SpeedsValue {
    uint32_t tag;
    uint32_t ifindex;
    uint64_t firstAux0;
    uint64_t firstAux1;
    uint64_t firstSpeed;
    uint64_t firstAux2;
    uint64_t firstStamp;
    uint64_t secondAux0;
    uint64_t secondAux1;
    uint64_t secondSpeed;
    uint64_t secondAux2;
    uint64_t secondStamp;
};

// A (UID, interface) pair's speeds in kbps, 0 for a stale direction.
struct IfaceSpeedsValue {
    uint64_t firstSpeedKbps;
    uint64_t secondSpeedKbps;
};

// Key of the UID speeds map. Read as one little-endian u64: uid low, ifindex high.
struct UidIfindexKey {
    uint32_t uid;
    uint32_t ifindex;
};

// An interface under measurement; localEnable 1 leaves its subnet-local sockets out of reports.
struct IfIndexSpeedConfig {
    uint32_t enable;
    uint32_t localEnable;
};

// What the kernel side knows of a socket; only three fields mean anything to the library.
struct SocketTuple {
    uint32_t opaque0;
    uint32_t ifindex;
    uint32_t ipv4Valid;
    uint8_t opaque1[8];
    uint32_t remoteAddr4;  // network byte order
    uint8_t opaque2[40];
};

static_assert(sizeof(StatsValue) == 32);
static_assert(sizeof(KovraStatsValue) == 48 && offsetof(KovraStatsValue, extra0) == 32);
static_assert(sizeof(AppFreezeSynInfo) == 16);
static_assert(sizeof(AppFreezeStatsInfo) == 40);
static_assert(sizeof(AppFreezeConfig) == 12 && offsetof(AppFreezeConfig, word2) == 8);
static_assert(sizeof(SpeedsValue) == 88);
static_assert(offsetof(SpeedsValue, ifindex) == 4 && offsetof(SpeedsValue, firstSpeed) == 24 &&
              offsetof(SpeedsValue, firstStamp) == 40 && offsetof(SpeedsValue, secondSpeed) == 64 &&
              offsetof(SpeedsValue, secondStamp) == 80);
static_assert(sizeof(IfaceSpeedsValue) == 16);
static_assert(sizeof(UidIfindexKey) == 8 && offsetof(UidIfindexKey, ifindex) == 4);
static_assert(sizeof(IfIndexSpeedConfig) == 8 && offsetof(IfIndexSpeedConfig, localEnable) == 4);
static_assert(sizeof(SocketTuple) == 64);
static_assert(offsetof(SocketTuple, ifindex) == 4 && offsetof(SocketTuple, ipv4Valid) == 8 &&
              offsetof(SocketTuple, remoteAddr4) == 20);

}  // namespace android::bpf
