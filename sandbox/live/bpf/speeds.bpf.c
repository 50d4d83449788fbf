// Speeds, on the interfaces that have an entry in the measurement table only. Per socket cookie
// and per (UID, interface) a SpeedsValue holds two halves: the first is receive (ingress), the
// second transmit (egress). Each half measures payload bits per second over windows:
//   aux0   payload bytes of the window that is open
//   aux1   when that window opened (bpf_ktime_get_ns)
//   speed  bits per second of the last closed window: the library's /1000 gives kbps
//   aux2   payload bytes of this direction since the record was made
//   stamp  bpf_ktime_get_ns (CLOCK_MONOTONIC, the library's time base) of the latest packet
// A window closes at the first packet that comes at least the window length after it opened;
// a speed is not decayed when traffic stops: the services' staleness rule retires it.
// `tag` holds the UID. The speed configuration word (key 0) is the window length in
// milliseconds: 0 or no entry means 1000, other values are held to 10..60000.
// The socket information record is rewritten on every measured packet (layout below).
// Two CPUs updating one record at once may lose a packet from a window; counts are not exact.
#include "live.h"

struct half {
    __u64 windowBytes;
    __u64 windowStart;
    __u64 speed;
    __u64 totalBytes;
    __u64 stamp;
};

struct speeds_value {
    __u32 tag;
    __u32 ifindex;
    struct half first;   // receive
    struct half second;  // transmit
};

struct uid_ifindex_key {
    __u32 uid;
    __u32 ifindex;
};

struct ifindex_speed_config {
    __u32 enable;
    __u32 localEnable;
};

// SocketTuple, 64 bytes.
struct socket_tuple {
    __u32 uid;
    __u32 ifindex;
    __u32 ipv4Valid;
    __u16 localPort;   // host order
    __u16 remotePort;  // host order
    __u8 protocol;
    __u8 pad[3];
    __u32 remoteAddr4;  // network order
    __u8 remoteAddr6[16];
    __u8 unused[24];
};

HASH_MAP(app_socket_speeds, __u64, struct speeds_value);
HASH_MAP(app_socket_info, __u64, struct socket_tuple);
HASH_MAP(app_socket_speeds_ifindex, __u32, struct ifindex_speed_config);
HASH_MAP(app_uid_speeds, struct uid_ifindex_key, struct speeds_value);
HASH_MAP(app_socket_speeds_config, __u32, __u32);

static __always_inline __u64 windowNs(void) {
    __u32 key = KOVRA_SPEEDS_CONFIG_KEY;
    __u32* config = bpf_map_lookup_elem(&app_socket_speeds_config, &key);
    __u64 ms = config != NULL && *config != 0 ? *config : 1000;
    if (ms < 10) ms = 10;
    if (ms > 60000) ms = 60000;
    return ms * NS_PER_MS;
}

static __always_inline void measure(struct half* h, __u64 now, __u64 window, __u64 payload) {
    if (h->windowStart == 0) {
        h->windowStart = now;
    } else if (now - h->windowStart >= window) {
        __u64 elapsedMs = (now - h->windowStart) / NS_PER_MS;
        h->speed = h->windowBytes * 8 * 1000 / elapsedMs;
        h->windowStart = now;
        h->windowBytes = 0;
    }
    __sync_fetch_and_add(&h->windowBytes, payload);
    __sync_fetch_and_add(&h->totalBytes, payload);
    h->stamp = now;
}

static __always_inline void update(void* map, const void* key, const struct packet* p, bool egress,
                                   __u64 now, __u64 window) {
    struct speeds_value fresh = {.tag = p->uid, .ifindex = p->ifindex};
    struct speeds_value* value = lookupOrInit(map, key, &fresh, NULL);
    if (value == NULL) return;
    value->ifindex = p->ifindex;
    if (egress) {
        measure(&value->second, now, window, p->payload);
    } else {
        measure(&value->first, now, window, p->payload);
    }
}

static __always_inline int speeds(struct __sk_buff* skb, bool egress) {
    __u32 ifindex = skb->ifindex;
    if (bpf_map_lookup_elem(&app_socket_speeds_ifindex, &ifindex) == NULL) return 1;
    struct packet p;
    parse(skb, egress, &p);
    if (blocked(p.uid)) return 1;

    const __u64 now = bpf_ktime_get_ns();
    const __u64 window = windowNs();
    update(&app_socket_speeds, &p.cookie, &p, egress, now, window);
    struct uid_ifindex_key pair = {.uid = p.uid, .ifindex = p.ifindex};
    update(&app_uid_speeds, &pair, &p, egress, now, window);

    struct socket_tuple tuple = {
            .uid = p.uid,
            .ifindex = p.ifindex,
            .ipv4Valid = p.ipv4,
            .localPort = p.localPort,
            .remotePort = p.remotePort,
            .protocol = p.protocol,
            .remoteAddr4 = p.remote4,
    };
    __builtin_memcpy(tuple.remoteAddr6, p.remote6, 16);
    bpf_map_update_elem(&app_socket_info, &p.cookie, &tuple, BPF_ANY);
    return 1;
}

SEC("cgroup_skb/ingress")
int speeds_ingress(struct __sk_buff* skb) {
    return speeds(skb, false);
}

SEC("cgroup_skb/egress")
int speeds_egress(struct __sk_buff* skb) {
    return speeds(skb, true);
}

char LICENSE[] SEC("license") = "GPL";
