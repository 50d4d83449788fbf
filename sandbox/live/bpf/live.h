// What every program of the desk's live side shares: the catalogue maps it reuses, the blocking
// decision, and one parse of the packet at the IP header that cgroup_skb programs start at.
//
// Map declarations carry the catalogue map's short name; the loader swaps each for the map
// pinned at the catalogue path, so the sizes and types below only have to match the records.
#pragma once

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/ipv6.h>
#include <linux/tcp.h>
#include <linux/udp.h>
#include <stdbool.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include <kovrabpf/KovraKernelContract.h>

#define NS_PER_MS 1000000ULL

// The loader swaps every catalogue map for the pinned one, which keeps its own room; the desk's
// own maps are created with this room, enough for every UID a test or a sandbox freezes.
#define HASH_MAP(name_, key_, value_)    \
    struct {                             \
        __uint(type, BPF_MAP_TYPE_HASH); \
        __uint(max_entries, 1024);       \
        __type(key, key_);               \
        __type(value, value_);           \
    } name_ SEC(".maps")

// Both limit maps block alike: an entry with KOVRA_BLOCKED cuts the UID off (the services write
// only that; anything else is read as "not blocked").
HASH_MAP(app_net_disconn_limit, __u32, __u32);
HASH_MAP(app_vusk_limit, __u32, __u32);

static __always_inline bool blocked(__u32 uid) {
    __u32* value = bpf_map_lookup_elem(&app_net_disconn_limit, &uid);
    if (value != NULL && *value == KOVRA_BLOCKED) return true;
    value = bpf_map_lookup_elem(&app_vusk_limit, &uid);
    return value != NULL && *value == KOVRA_BLOCKED;
}

// One packet as the counting programs see it. Its direction stays a constant argument of the
// inlined functions: a direction read from memory lets the compiler index fields by it, which
// the verifier rejects.
struct packet {
    __u32 uid;
    __u32 ifindex;
    __u64 cookie;
    __u8 protocol;  // IPPROTO_TCP, IPPROTO_UDP, or whatever else
    __u8 tcpFlags;  // byte 13 of the TCP header (FIN 1, SYN 2, RST 4, PSH 8, ACK 16)
    bool ipv4;
    __u32 segments;  // gso_segs: the packets this skb leaves or arrived as
    __u64 bytes;     // IP bytes of all segments, headers of every segment included
    __u64 payload;   // transport payload of all segments
    __u32 seq;       // TCP sequence and acknowledgement numbers, host order
    __u32 ack;
    __u16 localPort;  // host order
    __u16 remotePort;
    __u32 remote4;     // network order, IPv4 only
    __u8 remote6[16];  // IPv6 only
};

#define TCP_FIN 0x01
#define TCP_SYN 0x02
#define TCP_ACK 0x10

// Fills `p` from the skb. cgroup_skb programs see the packet from its IP header on, in both
// directions; a GSO packet carries one set of headers for all its segments, so the headers of
// the others are added to reach the bytes the segments have between them.
static __always_inline void parse(struct __sk_buff* skb, bool egress, struct packet* p) {
    __builtin_memset(p, 0, sizeof(*p));
    p->uid = bpf_get_socket_uid(skb);
    p->cookie = bpf_get_socket_cookie(skb);
    p->ifindex = skb->ifindex;
    p->segments = skb->gso_segs > 1 ? skb->gso_segs : 1;
    __u32 ipHeader = 0;
    if (skb->protocol == bpf_htons(ETH_P_IP)) {
        struct iphdr ip;
        if (bpf_skb_load_bytes(skb, 0, &ip, sizeof(ip)) == 0) {
            p->ipv4 = true;
            p->protocol = ip.protocol;
            p->remote4 = egress ? ip.daddr : ip.saddr;
            ipHeader = ip.ihl * 4;
        }
    } else if (skb->protocol == bpf_htons(ETH_P_IPV6)) {
        struct ipv6hdr ip6;
        if (bpf_skb_load_bytes(skb, 0, &ip6, sizeof(ip6)) == 0) {
            p->protocol = ip6.nexthdr;
            __builtin_memcpy(p->remote6, egress ? &ip6.daddr : &ip6.saddr, 16);
            ipHeader = sizeof(ip6);
        }
    }
    __u32 header = 0;
    if (ipHeader != 0 && p->protocol == IPPROTO_TCP) {
        struct tcphdr tcp;
        if (bpf_skb_load_bytes(skb, ipHeader, &tcp, sizeof(tcp)) == 0) {
            header = ipHeader + tcp.doff * 4;
            p->tcpFlags = ((__u8*)&tcp)[13];
            p->seq = bpf_ntohl(tcp.seq);
            p->ack = bpf_ntohl(tcp.ack_seq);
            p->localPort = bpf_ntohs(egress ? tcp.source : tcp.dest);
            p->remotePort = bpf_ntohs(egress ? tcp.dest : tcp.source);
        }
    } else if (ipHeader != 0 && p->protocol == IPPROTO_UDP) {
        struct udphdr udp;
        if (bpf_skb_load_bytes(skb, ipHeader, &udp, sizeof(udp)) == 0) {
            header = ipHeader + sizeof(udp);
            p->localPort = bpf_ntohs(egress ? udp.source : udp.dest);
            p->remotePort = bpf_ntohs(egress ? udp.dest : udp.source);
        }
    }
    if (header == 0 || header > skb->len) {
        p->bytes = skb->len;
        return;
    }
    p->payload = skb->len - header;
    p->bytes = skb->len + (__u64)(p->segments - 1) * header;
}

// The value of `key` in a hash map, created as `initial` when absent. NULL when the entry cannot
// be made: then *full is set, since a map that takes no new key is full for its users (E2BIG,
// or ENOMEM or EBUSY where the kernel's allocator gives out first).
static __always_inline void* lookupOrInit(void* map, const void* key, const void* initial,
                                          bool* full) {
    void* value = bpf_map_lookup_elem(map, key);
    if (value != NULL) return value;
    bpf_map_update_elem(map, key, initial, BPF_NOEXIST);
    value = bpf_map_lookup_elem(map, key);
    if (value == NULL && full != NULL) *full = true;
    return value;
}
