// Every pinned map the services use: its path with its key and value types, and the service
// family that owns it. The services open maps from these entries, and tools and tests that stand
// the maps up read sizes from the same entries, so a path or a record exists in one place only.
#pragma once

#include <stdint.h>

#include <array>

#include <kovrabpf/KovraBpfNetworkStats.h>

namespace android::bpf {

enum class MapFamily { kStats, kFreeze, kSpeeds, kWakeup, kFirewall };

namespace maps {

// Per-UID traffic totals.
inline constexpr PinnedMap<uint32_t, StatsValue> kNetdAppUidStats{
        "/sys/fs/bpf/netd_shared/map_netd_app_uid_stats_map"};
inline constexpr PinnedMap<uint32_t, KovraStatsValue> kUidPurStats{
        "/sys/fs/bpf/map_kovra-netd_uid_pur_stats_map"};

// Freeze accounting.
inline constexpr PinnedMap<uint64_t, AppFreezeSynInfo> kAppFreezeSyn{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_syn_map"};
inline constexpr PinnedMap<uint64_t, AppFreezeStatsInfo> kAppFreezeStats{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_stats_map"};
inline constexpr PinnedMap<uint32_t, AppFreezeConfig> kAppFreezeConfig{
        "/sys/fs/bpf/map_kovra-netd_app_freeze_config_map"};

// Socket and UID speeds. The socket information map's doubled slash is how the kernel side
// names it; the path resolves the same either way, but the literal is kept as it is known.
inline constexpr PinnedMap<uint64_t, SpeedsValue> kAppSocketSpeeds{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_map"};
inline constexpr PinnedMap<uint64_t, SocketTuple> kAppSocketInfo{
        "/sys/fs/bpf//map_kovra-netd_app_socket_info_map"};
inline constexpr PinnedMap<uint32_t, IfIndexSpeedConfig> kAppSocketSpeedsIfindex{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_ifindex_map"};
inline constexpr PinnedMap<UidIfindexKey, SpeedsValue> kAppUidSpeeds{
        "/sys/fs/bpf/map_kovra-netd_app_uid_speeds_map"};
inline constexpr PinnedMap<uint32_t, uint32_t> kAppSocketSpeedsConfig{
        "/sys/fs/bpf/map_kovra-netd_app_socket_speeds_config_map"};

// TCP wake-up detector: counters, heartbeat lengths, screen state and overflow handling.
inline constexpr PinnedMap<uint32_t, uint32_t> kAppTcpFinDrop{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_fin_drop_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpInwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_inwakeup_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_outwakeup_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpWakeupduration{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_wakeupduration_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutImHb{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_out_im_hb_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpOutAlign{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_out_align_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpInKeepAlive{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_in_keep_alive_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpReinwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_reinwakeup_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kAppTcpReoutwakeup{
        "/sys/fs/bpf/map_kovra-netd_app_tcp_reoutwakeup_map"};
inline constexpr PinnedMap<uint32_t, uint32_t> kImAppHbLen{
        "/sys/fs/bpf/map_kovra-netd_im_app_hb_len_map"};
inline constexpr PinnedMap<uint32_t, uint64_t> kScreenState{
        "/sys/fs/bpf/map_kovra-netd_screen_state_map"};
inline constexpr PinnedMap<uint32_t, uint32_t> kOverflowingMapCheck{
        "/sys/fs/bpf/map_kovra-netd_overflowing_map_check_map"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieInSeq{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_in_seq_map"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieOutSeq{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_out_seq_map"};
inline constexpr PinnedMap<uint64_t, uint32_t> kSkTcpCookieOutAck{
        "/sys/fs/bpf/map_kovra-netd_sk_tcp_cookie_out_ack_map"};

// Per-app network blocking.
inline constexpr PinnedMap<uint32_t, uint32_t> kAppNetDisconnLimit{
        "/sys/fs/bpf/map_kovra-netd_app_net_disconn_limit_map"};
inline constexpr PinnedMap<uint32_t, uint32_t> kAppVuskLimit{
        "/sys/fs/bpf/map_kovra-netd_app_vusk_limit_map"};

}  // namespace maps

// A catalogue row: what it takes to create a map the services will accept.
struct PinnedMapInfo {
    const char* path;
    uint32_t keySize;
    uint32_t valueSize;
    MapFamily family;
};

template <typename K, typename V>
constexpr PinnedMapInfo describe(const PinnedMap<K, V>& map, MapFamily family) {
    return {map.path, sizeof(K), sizeof(V), family};
}

inline constexpr std::array kPinnedMaps = {
        describe(maps::kNetdAppUidStats, MapFamily::kStats),
        describe(maps::kUidPurStats, MapFamily::kStats),
        describe(maps::kAppFreezeSyn, MapFamily::kFreeze),
        describe(maps::kAppFreezeStats, MapFamily::kFreeze),
        describe(maps::kAppFreezeConfig, MapFamily::kFreeze),
        describe(maps::kAppSocketSpeeds, MapFamily::kSpeeds),
        describe(maps::kAppSocketInfo, MapFamily::kSpeeds),
        describe(maps::kAppSocketSpeedsIfindex, MapFamily::kSpeeds),
        describe(maps::kAppUidSpeeds, MapFamily::kSpeeds),
        describe(maps::kAppSocketSpeedsConfig, MapFamily::kSpeeds),
        describe(maps::kAppTcpFinDrop, MapFamily::kWakeup),
        describe(maps::kAppTcpInwakeup, MapFamily::kWakeup),
        describe(maps::kAppTcpOutwakeup, MapFamily::kWakeup),
        describe(maps::kAppTcpWakeupduration, MapFamily::kWakeup),
        describe(maps::kAppTcpOutImHb, MapFamily::kWakeup),
        describe(maps::kAppTcpOutAlign, MapFamily::kWakeup),
        describe(maps::kAppTcpInKeepAlive, MapFamily::kWakeup),
        describe(maps::kAppTcpReinwakeup, MapFamily::kWakeup),
        describe(maps::kAppTcpReoutwakeup, MapFamily::kWakeup),
        describe(maps::kImAppHbLen, MapFamily::kWakeup),
        describe(maps::kScreenState, MapFamily::kWakeup),
        describe(maps::kOverflowingMapCheck, MapFamily::kWakeup),
        describe(maps::kSkTcpCookieInSeq, MapFamily::kWakeup),
        describe(maps::kSkTcpCookieOutSeq, MapFamily::kWakeup),
        describe(maps::kSkTcpCookieOutAck, MapFamily::kWakeup),
        describe(maps::kAppNetDisconnLimit, MapFamily::kFirewall),
        describe(maps::kAppVuskLimit, MapFamily::kFirewall),
};

}  // namespace android::bpf
