// Per-app network blocking: a UID with an entry of 1 in the disconnect limit map or in the
// legacy limit map loses the network. Its packets are dropped both ways, and the socket address
// hooks refuse connect() and sendto() at once (EPERM) instead of letting a dropped SYN retry
// for minutes. The counting programs check the same decision, since every program of a cgroup
// runs whatever another one decided.
#include "live.h"

SEC("cgroup_skb/ingress")
int block_ingress(struct __sk_buff* skb) {
    return blocked(bpf_get_socket_uid(skb)) ? 0 : 1;
}

SEC("cgroup_skb/egress")
int block_egress(struct __sk_buff* skb) {
    return blocked(bpf_get_socket_uid(skb)) ? 0 : 1;
}

static __always_inline int allowCaller(void) {
    return blocked((__u32)bpf_get_current_uid_gid()) ? 0 : 1;
}

SEC("cgroup/connect4")
int block_connect4(struct bpf_sock_addr* ctx) {
    return allowCaller();
}

SEC("cgroup/connect6")
int block_connect6(struct bpf_sock_addr* ctx) {
    return allowCaller();
}

SEC("cgroup/sendmsg4")
int block_sendmsg4(struct bpf_sock_addr* ctx) {
    return allowCaller();
}

SEC("cgroup/sendmsg6")
int block_sendmsg6(struct bpf_sock_addr* ctx) {
    return allowCaller();
}

char LICENSE[] SEC("license") = "GPL";
