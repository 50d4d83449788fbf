// Freeze accounting. A UID is frozen on the desk while the desk's own control map
// (desk_frozen_uids, pinned by the loader) holds it with a non-zero value. For a frozen UID:
//  - every TCP SYN (no ACK) it sends or that reaches one of its sockets is a connection attempt,
//    recorded under the socket's cookie in the SYN map;
//  - all its traffic is added up under the UID (zero-extended to 64 bits) in the statistics map.
// The freeze configuration record is not read. Traffic that blocking drops is not counted.
#include "live.h"

// AppFreezeSynInfo, 16 bytes.
struct freeze_syn {
    __u32 uid;
    __u32 remote4;     // network order; 0 for IPv6
    __u16 remotePort;  // host order
    __u16 localPort;   // host order
    __u16 attempts;    // SYNs seen on this socket, saturating
    __u8 inbound;      // 1: the SYN reached the app (its listener), 0: the app sent it
    __u8 protocol;     // IPPROTO_TCP
};

// AppFreezeStatsInfo, 40 bytes.
struct freeze_stats {
    __u64 rxPackets;
    __u64 rxBytes;
    __u64 txPackets;
    __u64 txBytes;
    __u64 lastNs;  // bpf_ktime_get_ns (CLOCK_MONOTONIC) of the latest packet
};

HASH_MAP(app_freeze_syn, __u64, struct freeze_syn);
HASH_MAP(app_freeze_stats, __u64, struct freeze_stats);
HASH_MAP(desk_frozen_uids, __u32, __u32);

static __always_inline int account(struct __sk_buff* skb, bool egress) {
    struct packet p;
    parse(skb, egress, &p);
    __u32* frozen = bpf_map_lookup_elem(&desk_frozen_uids, &p.uid);
    if (frozen == NULL || *frozen == 0 || blocked(p.uid)) return 1;

    if (p.protocol == IPPROTO_TCP && (p.tcpFlags & (TCP_SYN | TCP_ACK)) == TCP_SYN) {
        struct freeze_syn first = {
                .uid = p.uid,
                .remote4 = p.ipv4 ? p.remote4 : 0,
                .remotePort = p.remotePort,
                .localPort = p.localPort,
                .inbound = !egress,
                .protocol = IPPROTO_TCP,
        };
        struct freeze_syn* syn = lookupOrInit(&app_freeze_syn, &p.cookie, &first, NULL);
        if (syn != NULL && syn->attempts != 0xffff) syn->attempts++;
    }

    __u64 key = p.uid;
    struct freeze_stats zero = {};
    struct freeze_stats* stats = lookupOrInit(&app_freeze_stats, &key, &zero, NULL);
    if (stats == NULL) return 1;
    if (egress) {
        __sync_fetch_and_add(&stats->txPackets, p.segments);
        __sync_fetch_and_add(&stats->txBytes, p.bytes);
    } else {
        __sync_fetch_and_add(&stats->rxPackets, p.segments);
        __sync_fetch_and_add(&stats->rxBytes, p.bytes);
    }
    stats->lastNs = bpf_ktime_get_ns();
    return 1;
}

SEC("cgroup_skb/ingress")
int freeze_ingress(struct __sk_buff* skb) {
    return account(skb, false);
}

SEC("cgroup_skb/egress")
int freeze_egress(struct __sk_buff* skb) {
    return account(skb, true);
}

char LICENSE[] SEC("license") = "GPL";
