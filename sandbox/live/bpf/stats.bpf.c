// Per-UID traffic totals, into netd's 32-byte record and the vendor's 48-byte one alike:
// packets are segments (gso_segs) and bytes are IP bytes, headers included. The vendor's two
// further counters hold the TCP bytes and the UDP bytes of both directions. Traffic that
// blocking drops is not counted.
#include "live.h"

struct stats_value {
    __u64 rxPackets;
    __u64 rxBytes;
    __u64 txPackets;
    __u64 txBytes;
};

struct kovra_stats_value {
    struct stats_value netd;
    __u64 tcpBytes;
    __u64 udpBytes;
};

HASH_MAP(app_uid_stats, __u32, struct stats_value);
HASH_MAP(uid_pur_stats, __u32, struct kovra_stats_value);

static __always_inline void add(struct stats_value* s, const struct packet* p, bool egress) {
    if (egress) {
        __sync_fetch_and_add(&s->txPackets, p->segments);
        __sync_fetch_and_add(&s->txBytes, p->bytes);
    } else {
        __sync_fetch_and_add(&s->rxPackets, p->segments);
        __sync_fetch_and_add(&s->rxBytes, p->bytes);
    }
}

static __always_inline int count(struct __sk_buff* skb, bool egress) {
    struct packet p;
    parse(skb, egress, &p);
    if (blocked(p.uid)) return 1;
    struct kovra_stats_value zero = {};
    struct stats_value* netd = lookupOrInit(&app_uid_stats, &p.uid, &zero.netd, NULL);
    if (netd != NULL) add(netd, &p, egress);
    struct kovra_stats_value* pur = lookupOrInit(&uid_pur_stats, &p.uid, &zero, NULL);
    if (pur != NULL) {
        add(&pur->netd, &p, egress);
        if (p.protocol == IPPROTO_TCP) __sync_fetch_and_add(&pur->tcpBytes, p.bytes);
        if (p.protocol == IPPROTO_UDP) __sync_fetch_and_add(&pur->udpBytes, p.bytes);
    }
    return 1;
}

SEC("cgroup_skb/ingress")
int stats_ingress(struct __sk_buff* skb) {
    return count(skb, false);
}

SEC("cgroup_skb/egress")
int stats_egress(struct __sk_buff* skb) {
    return count(skb, true);
}

char LICENSE[] SEC("license") = "GPL";
