// The catalogue: every pinned map the services use, one row each, with its path, its key and
// value records, its short name (how kovractl and the desk's eBPF programs call it), the service
// family that owns it, the access its services need and what a view calls a plain-number key or
// value. The services open their maps from these rows; the desk's tools, programs and tests create,
// check and show maps from the same rows, so a map is described in one place only. The header
// depends on the records alone, not on the map handles.
#pragma once

#include <stdint.h>

#include <array>
#include <tuple>

#include <kovrabpf/KovraRecords.h>

namespace android::bpf {

enum class MapFamily { kStats, kFreeze, kSpeeds, kWakeup, kFirewall };

// How the services open a map: read-only (no lock), or read-write, which takes the shared lock on
// the map's id and needs a map whose flags allow writing. A map some service writes is read-write.
enum class MapAccess { kReadOnly, kReadWrite };

// A map's row. The types a map is opened with are written once, beside its path. A view names a
// record's fields after the record; a plain-number key or value takes its label (empty for a
// record).
template <typename K, typename V>
struct PinnedMap {
    using Key = K;
    using Value = V;
    const char* path;
    const char* name = "";
    MapFamily family = MapFamily::kStats;
    MapAccess access = MapAccess::kReadWrite;
    const char* keyLabel = "";
    const char* valueLabel = "";
};

namespace maps {

// Shorthands for the rows.
inline constexpr MapFamily kStats = MapFamily::kStats, kFreeze = MapFamily::kFreeze,
                           kSpeeds = MapFamily::kSpeeds, kWakeup = MapFamily::kWakeup,
                           kFirewall = MapFamily::kFirewall;
inline constexpr MapAccess kRO = MapAccess::kReadOnly, kRW = MapAccess::kReadWrite;

// The rows, kept as a table by hand.
// clang-format off
// Per-UID traffic totals.
inline constexpr PinnedMap<uint32_t, StatsValue> kNetdAppUidStats{
        "/sys/fs/bpf/netd_shared/map_netd_app_uid_stats_map", "app_uid_stats", kStats, kRO, "uid"};
inline constexpr PinnedMap<uint32_t, KovraStatsValue> kUidPurStats{
        "/sys/fs/bpf/map_kovra-netd_uid_pur_stats_map", "uid_pur_stats", kStats, kRO, "uid"};

// Freeze accounting.
inline constexpr PinnedMap<uint64_t, AppFreezeSynInfo> kAppFreezeSyn{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_syn_map", "app_freeze_syn", kFreeze, kRW, "key"};
inline constexpr PinnedMap<uint64_t, AppFreezeStatsInfo> kAppFreezeStats{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_stats_map", "app_freeze_stats", kFreeze, kRW, "key"};
inline constexpr PinnedMap<uint32_t, AppFreezeConfig> kAppFreezeConfig{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_config_map",
        "app_freeze_config", kFreeze, kRW, "key"};

// Socket and UID speeds. The socket information map's doubled slash is how the kernel side
// names it; the path resolves the same either way, but the literal is kept as it is known.
inline constexpr PinnedMap<uint64_t, SpeedsValue> kAppSocketSpeeds{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_map",
        "app_socket_speeds", kSpeeds, kRW, "cookie"};
inline constexpr PinnedMap<uint64_t, SocketTuple> kAppSocketInfo{
        "/sys/fs/bpf//map_kovra-netd_app_socket_info_map",
        "app_socket_info", kSpeeds, kRW, "cookie"};
inline constexpr PinnedMap<uint32_t, IfIndexSpeedConfig> kAppSocketSpeedsIfindex{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_ifindex_map",
        "app_socket_speeds_ifindex", kSpeeds, kRW, "ifindex"};
inline constexpr PinnedMap<UidIfindexKey, SpeedsValue> kAppUidSpeeds{
        "/sys/fs/bpf/map_kovra-netd_app_uid_speeds_map", "app_uid_speeds", kSpeeds, kRW};
inline constexpr PinnedMap<uint32_t, uint32_t> kAppSocketSpeedsConfig{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_config_map",
        "app_socket_speeds_config", kSpeeds, kRW, "key", "config"};

// TCP wake-up detector: counters, heartbeat lengths, screen state and overflow handling.
inline constexpr PinnedMap<uint32_t, uint32_t> kAppTcpFinDrop{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_fin_drop_map",
        "app_tcp_fin_drop", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpInwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_inwakeup_map",
        "app_tcp_inwakeup", kWakeup, kRW, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_outwakeup_map",
        "app_tcp_outwakeup", kWakeup, kRW, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpWakeupduration{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_wakeupduration_map",
        "app_tcp_wakeupduration", kWakeup, kRW, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutImHb{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_out_im_hb_map",
        "app_tcp_out_im_hb", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutAlign{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_out_align_map",
        "app_tcp_out_align", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpInKeepAlive{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_in_keep_alive_map",
        "app_tcp_in_keep_alive", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpReinwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_reinwakeup_map",
        "app_tcp_reinwakeup", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpReoutwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_reoutwakeup_map",
        "app_tcp_reoutwakeup", kWakeup, kRO, "uid", "count"};
inline constexpr PinnedMap<uint32_t, uint32_t> kImAppHbLen{
        "/sys/fs/bpf/map_kovra-netd_im_app_hb_len_map",
        "im_app_hb_len", kWakeup, kRW, "uid", "hbLen"};
inline constexpr PinnedMap<uint32_t, uint64_t> kScreenState{
        "/sys/fs/bpf/map_kovra-netd_screen_state_map",
        "screen_state", kWakeup, kRW, "key", "value"};
inline constexpr PinnedMap<uint32_t, uint32_t> kOverflowingMapCheck{
        "/sys/fs/bpf/map_kovra-netd_overflowing_map_check_map",
        "overflowing_map_check", kWakeup, kRW, "bit", "flag"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieInSeq{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_in_seq_map",
        "sk_tcp_cookie_in_seq", kWakeup, kRW, "cookie", "seq"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieOutSeq{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_out_seq_map",
        "sk_tcp_cookie_out_seq", kWakeup, kRW, "cookie", "seq"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieOutAck{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_out_ack_map",
        "sk_tcp_cookie_out_ack", kWakeup, kRW, "cookie", "ack"};

// Per-app network blocking.
inline constexpr PinnedMap<uint32_t, uint32_t> kAppNetDisconnLimit{
        "/sys/fs/bpf/map_kovra-netd_app_net_disconn_limit_map",
        "app_net_disconn_limit", kFirewall, kRW, "uid", "value"};
inline constexpr PinnedMap<uint32_t, uint32_t> kAppVuskLimit{
        "/sys/fs/bpf/map_kovra-netd_app_vusk_limit_map",
        "app_vusk_limit", kFirewall, kRW, "uid", "value"};

// clang-format on

}  // namespace maps

// Every row, in the order tools list them. A new map is its row above and its entry here.
inline constexpr std::tuple kCatalogue{&maps::kNetdAppUidStats,   &maps::kUidPurStats,
                                       &maps::kAppFreezeSyn,      &maps::kAppFreezeStats,
                                       &maps::kAppFreezeConfig,   &maps::kAppSocketSpeeds,
                                       &maps::kAppSocketInfo,     &maps::kAppSocketSpeedsIfindex,
                                       &maps::kAppUidSpeeds,      &maps::kAppSocketSpeedsConfig,
                                       &maps::kAppTcpFinDrop,     &maps::kAppTcpInwakeup,
                                       &maps::kAppTcpOutwakeup,   &maps::kAppTcpWakeupduration,
                                       &maps::kAppTcpOutImHb,     &maps::kAppTcpOutAlign,
                                       &maps::kAppTcpInKeepAlive, &maps::kAppTcpReinwakeup,
                                       &maps::kAppTcpReoutwakeup, &maps::kImAppHbLen,
                                       &maps::kScreenState,       &maps::kOverflowingMapCheck,
                                       &maps::kSkTcpCookieInSeq,  &maps::kSkTcpCookieOutSeq,
                                       &maps::kSkTcpCookieOutAck, &maps::kAppNetDisconnLimit,
                                       &maps::kAppVuskLimit};

// Calls `visit(map)` for every row with its types, for code that reads or writes records.
template <typename Visit>
constexpr void forEachMap(Visit&& visit) {
    std::apply([&](const auto*... map) { (visit(*map), ...); }, kCatalogue);
}

// A row without its types: what it takes to create or check a map the services will accept.
struct PinnedMapInfo {
    const char* path;
    const char* name;
    uint32_t keySize;
    uint32_t valueSize;
    MapFamily family;
    MapAccess access;
};

template <typename K, typename V>
constexpr PinnedMapInfo describe(const PinnedMap<K, V>& map) {
    return {map.path, map.name, sizeof(K), sizeof(V), map.family, map.access};
}

inline constexpr auto kPinnedMaps =
        std::apply([](const auto*... map) { return std::array{describe(*map)...}; }, kCatalogue);

}  // namespace android::bpf
