// The records' fields by name, offset and size, for the desk tools that show, capture and write
// records field by field. Each record's list covers every byte of it in order, which is checked
// whenever a map's fields are looked up (MapFields), so a record changed without its description
// fails at once, in every desk tool and test.
// A plain-number key or value is one field named by its catalogue row's label.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <kovrabpf/KovraRecords.h>

namespace kovra::tool {

struct Field {
    const char* name;
    size_t offset;
    size_t size;
    // A number (little-endian, 1 to 8 bytes), or bytes without a meaning the desk knows, shown as
    // hex.
    bool opaque = false;
    // A CLOCK_MONOTONIC stamp in nanoseconds, which a replay on another machine rebases.
    bool monotonic = false;
};
using Fields = std::vector<Field>;

namespace fields {

using namespace android::bpf;

#define KOVRA_FIELD_OF(Record, member) #member, offsetof(Record, member), sizeof(Record::member)

template <typename T>
Fields of(const char* label) {
    static_assert(sizeof(T) <= sizeof(uint64_t), "a record needs its own field list");
    return {{label, 0, sizeof(T)}};
}

template <>
inline Fields of<StatsValue>(const char*) {
    return {{KOVRA_FIELD_OF(StatsValue, rxPackets)},
            {KOVRA_FIELD_OF(StatsValue, rxBytes)},
            {KOVRA_FIELD_OF(StatsValue, txPackets)},
            {KOVRA_FIELD_OF(StatsValue, txBytes)}};
}
// The vendor's record: netd's four counters where netd has them, then its own two.
template <>
inline Fields of<KovraStatsValue>(const char* label) {
    static_assert(offsetof(KovraStatsValue, txBytes) == offsetof(StatsValue, txBytes));
    Fields all = of<StatsValue>(label);
    all.push_back({KOVRA_FIELD_OF(KovraStatsValue, extra0)});
    all.push_back({KOVRA_FIELD_OF(KovraStatsValue, extra1)});
    return all;
}
// The freeze records are the kernel side's words, numbered.
template <>
inline Fields of<AppFreezeSynInfo>(const char*) {
    return {{"data0", 0, 8}, {"data1", 8, 8}};
}
template <>
inline Fields of<AppFreezeStatsInfo>(const char*) {
    return {{"data0", 0, 8}, {"data1", 8, 8}, {"data2", 16, 8}, {"data3", 24, 8}, {"data4", 32, 8}};
}
template <>
inline Fields of<AppFreezeConfig>(const char*) {
    return {{KOVRA_FIELD_OF(AppFreezeConfig, word0)},
            {KOVRA_FIELD_OF(AppFreezeConfig, word1)},
            {KOVRA_FIELD_OF(AppFreezeConfig, word2)}};
}
template <>
inline Fields of<SpeedsValue>(const char*) {
    Fields all = {
            {KOVRA_FIELD_OF(SpeedsValue, tag)},        {KOVRA_FIELD_OF(SpeedsValue, ifindex)},
            {KOVRA_FIELD_OF(SpeedsValue, firstAux0)},  {KOVRA_FIELD_OF(SpeedsValue, firstAux1)},
            {KOVRA_FIELD_OF(SpeedsValue, firstSpeed)}, {KOVRA_FIELD_OF(SpeedsValue, firstAux2)},
            {KOVRA_FIELD_OF(SpeedsValue, firstStamp)}, {KOVRA_FIELD_OF(SpeedsValue, secondAux0)},
            {KOVRA_FIELD_OF(SpeedsValue, secondAux1)}, {KOVRA_FIELD_OF(SpeedsValue, secondSpeed)},
            {KOVRA_FIELD_OF(SpeedsValue, secondAux2)}, {KOVRA_FIELD_OF(SpeedsValue, secondStamp)}};
    all[6].monotonic = all[11].monotonic = true;
    return all;
}
template <>
inline Fields of<UidIfindexKey>(const char*) {
    return {{KOVRA_FIELD_OF(UidIfindexKey, uid)}, {KOVRA_FIELD_OF(UidIfindexKey, ifindex)}};
}
template <>
inline Fields of<IfIndexSpeedConfig>(const char*) {
    return {{KOVRA_FIELD_OF(IfIndexSpeedConfig, enable)},
            {KOVRA_FIELD_OF(IfIndexSpeedConfig, localEnable)}};
}
template <>
inline Fields of<SocketTuple>(const char*) {
    return {{KOVRA_FIELD_OF(SocketTuple, opaque0)},
            {KOVRA_FIELD_OF(SocketTuple, ifindex)},
            {KOVRA_FIELD_OF(SocketTuple, ipv4Valid)},
            {KOVRA_FIELD_OF(SocketTuple, opaque1), true},
            {KOVRA_FIELD_OF(SocketTuple, remoteAddr4)},
            {KOVRA_FIELD_OF(SocketTuple, opaque2), true}};
}

#undef KOVRA_FIELD_OF

// True when the fields tile the record: in order, without a gap or an overlap, to its end.
template <typename T>
bool coversRecord(const Fields& all) {
    size_t next = 0;
    for (const Field& field : all) {
        if (field.offset != next) return false;
        next += field.size;
    }
    return next == sizeof(T);
}

}  // namespace fields
}  // namespace kovra::tool
