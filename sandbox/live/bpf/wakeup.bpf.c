// The TCP wake-up detector. It works while the screen is off: the screen state map's key 1
// holds 1 (what a zero screen state writes); with 2 or no entry it counts nothing. Per UID:
//  - a burst is a run of TCP segments that carry payload, SYN or FIN, less than 1 s apart;
//    the first segment of a burst is a wake-up: inwakeup or outwakeup by its direction;
//  - a wake-up that comes less than 10 s after the UID's previous segment is also a re-wake-up
//    (reinwakeup, reoutwakeup);
//  - wakeupduration: milliseconds from each burst's first segment to its last, summed;
//  - out_align: outbound wake-ups that come less than 1 s after another UID's segment, that is
//    while the device is awake already;
//  - out_im_hb: outbound segments whose payload is exactly the UID's registered heartbeat
//    length (im_app_hb_len; UIDs without one have no heartbeats);
//  - in_keep_alive: inbound segments without SYN or FIN, of at most one byte, whose sequence
//    number is one below the next one expected on that socket (a TCP keep-alive probe); they
//    are not wake-ups;
//  - fin_drop: FIN segments of a blocked UID, which blocking drops.
// Per socket cookie it keeps the next inbound sequence number expected (sk_tcp_cookie_in_seq),
// the next outbound one (sk_tcp_cookie_out_seq) and the latest outbound acknowledgement number
// (sk_tcp_cookie_out_ack). When an entry cannot be added to one of these three maps or to the
// inwakeup, outwakeup or wakeupduration counters because the map is full, the map's bit in the
// overflow check map is set to 1, for the screen-on service to reset it. (Any failure to take a
// key counts: kernels differ in the errno of a full map.)
#include "live.h"

HASH_MAP(screen_state, __u32, __u64);
HASH_MAP(overflowing_map_check, __u32, __u32);
HASH_MAP(sk_tcp_cookie_in_seq, __u64, __u32);
HASH_MAP(sk_tcp_cookie_out_seq, __u64, __u32);
HASH_MAP(sk_tcp_cookie_out_ack, __u64, __u32);
HASH_MAP(app_tcp_fin_drop, __u32, __u32);
HASH_MAP(app_tcp_inwakeup, __u32, __u64);
HASH_MAP(app_tcp_outwakeup, __u32, __u64);
HASH_MAP(app_tcp_wakeupduration, __u32, __u64);
HASH_MAP(app_tcp_out_im_hb, __u32, __u64);
HASH_MAP(app_tcp_out_align, __u32, __u64);
HASH_MAP(app_tcp_in_keep_alive, __u32, __u64);
HASH_MAP(app_tcp_reinwakeup, __u32, __u64);
HASH_MAP(app_tcp_reoutwakeup, __u32, __u64);
HASH_MAP(im_app_hb_len, __u32, __u32);

// The detector's own state per UID; not a catalogue map.
struct uid_state {
    __u64 lastNs;      // the UID's latest burst segment
    __u64 durationNs;  // summed burst durations
};
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 4096);
    __type(key, __u32);
    __type(value, struct uid_state);
} uid_state SEC(".maps");

// The latest burst segment of any UID.
struct device_state {
    __u64 lastNs;
    __u32 uid;
};
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct device_state);
} device_state SEC(".maps");

#define BURST_GAP_NS (1000 * NS_PER_MS)
#define REWAKE_GAP_NS (10000 * NS_PER_MS)

// The counters that no overflow bit stands for.
enum { NO_BIT = 0 };

static __always_inline void flagOverflow(__u32 bit) {
    __u32 flag = KOVRA_OVERFLOWING;
    bpf_map_update_elem(&overflowing_map_check, &bit, &flag, BPF_ANY);
}

static __always_inline void bump(void* map, __u32 uid, __u32 bit) {
    __u64 zero = 0;
    bool full = false;
    __u64* counter = lookupOrInit(map, &uid, &zero, &full);
    if (counter != NULL) __sync_fetch_and_add(counter, 1);
    if (full && bit != NO_BIT) flagOverflow(bit);
}

// A failed write is a key the map could not take (see lookupOrInit): the map is full.
static __always_inline void setSequence(void* map, __u64 cookie, __u32 value, __u32 bit) {
    if (bpf_map_update_elem(map, &cookie, &value, BPF_ANY) != 0) flagOverflow(bit);
}

static __always_inline int detect(struct __sk_buff* skb, bool egress) {
    __u32 key = KOVRA_SCREEN_CODE_KEY;
    __u64* screen = bpf_map_lookup_elem(&screen_state, &key);
    if (screen == NULL || *screen != KOVRA_SCREEN_OFF) return 1;
    struct packet p;
    parse(skb, egress, &p);
    if (p.protocol != IPPROTO_TCP) return 1;
    if (blocked(p.uid)) {
        if (p.tcpFlags & TCP_FIN) {
            __u32 zero = 0;
            __u32* drops = lookupOrInit(&app_tcp_fin_drop, &p.uid, &zero, NULL);
            if (drops != NULL) __sync_fetch_and_add(drops, 1);
        }
        return 1;
    }

    const bool synOrFin = (p.tcpFlags & (TCP_SYN | TCP_FIN)) != 0;
    const __u32 next = p.seq + (__u32)p.payload + (synOrFin ? 1 : 0);
    if (!egress) {
        __u32* expected = bpf_map_lookup_elem(&sk_tcp_cookie_in_seq, &p.cookie);
        if (expected != NULL && !synOrFin && p.payload <= 1 && p.seq + 1 == *expected) {
            bump(&app_tcp_in_keep_alive, p.uid, NO_BIT);
            return 1;
        }
        setSequence(&sk_tcp_cookie_in_seq, p.cookie, next, KOVRA_OVERFLOW_IN_SEQ);
    } else {
        setSequence(&sk_tcp_cookie_out_seq, p.cookie, next, KOVRA_OVERFLOW_OUT_SEQ);
        if (p.tcpFlags & TCP_ACK)
            setSequence(&sk_tcp_cookie_out_ack, p.cookie, p.ack, KOVRA_OVERFLOW_OUT_ACK);
        __u32* hbLen = bpf_map_lookup_elem(&im_app_hb_len, &p.uid);
        if (hbLen != NULL && p.payload != 0 && p.payload == *hbLen) {
            bump(&app_tcp_out_im_hb, p.uid, NO_BIT);
        }
    }
    if (p.payload == 0 && !synOrFin) return 1;

    const __u64 now = bpf_ktime_get_ns();
    struct uid_state fresh = {};
    struct uid_state* state = lookupOrInit(&uid_state, &p.uid, &fresh, NULL);
    __u32 zeroKey = 0;
    struct device_state* device = bpf_map_lookup_elem(&device_state, &zeroKey);
    if (state == NULL || device == NULL) return 1;

    const __u64 last = state->lastNs;
    if (last != 0 && now - last < BURST_GAP_NS) {
        state->durationNs += now - last;
        __u64 ms = state->durationNs / NS_PER_MS;
        if (bpf_map_update_elem(&app_tcp_wakeupduration, &p.uid, &ms, BPF_ANY) != 0) {
            flagOverflow(KOVRA_OVERFLOW_WAKEUPDURATION);
        }
    } else {
        const bool rewake = last != 0 && now - last < REWAKE_GAP_NS;
        if (egress) {
            bump(&app_tcp_outwakeup, p.uid, KOVRA_OVERFLOW_OUTWAKEUP);
            if (rewake) bump(&app_tcp_reoutwakeup, p.uid, NO_BIT);
            if (device->uid != p.uid && device->lastNs != 0 &&
                now - device->lastNs < BURST_GAP_NS) {
                bump(&app_tcp_out_align, p.uid, NO_BIT);
            }
        } else {
            bump(&app_tcp_inwakeup, p.uid, KOVRA_OVERFLOW_INWAKEUP);
            if (rewake) bump(&app_tcp_reinwakeup, p.uid, NO_BIT);
        }
    }
    state->lastNs = now;
    device->lastNs = now;
    device->uid = p.uid;
    return 1;
}

SEC("cgroup_skb/ingress")
int wakeup_ingress(struct __sk_buff* skb) {
    return detect(skb, false);
}

SEC("cgroup_skb/egress")
int wakeup_egress(struct __sk_buff* skb) {
    return detect(skb, true);
}

char LICENSE[] SEC("license") = "GPL";
