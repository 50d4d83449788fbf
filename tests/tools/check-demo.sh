#!/usr/bin/env bash
# Runs the demo with a built kovractl and checks that each family's step shows what it should.
#   bash check-demo.sh KOVRACTL
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
output=$(bash "$root/scripts/demo.sh" --kovractl "$1" 2>&1)
status=$?
echo "$output"

expected=(
    "307 UIDs"                                             # traffic totals
    "(exit 4)"                                             # a UID without an entry
    "top 3 of 307 UIDs"                                    # a watch, sorted and cut
    "6 records harvested and removed from app_freeze_syn (0 entries left)"
    "0 records harvested"                                  # the second harvest is empty
    "succ update config 2,45,900 over"                     # the library's DEBUG line with -v
    "freeze configuration 0 0 0 not written"               # the skipped write, told
    "pruned 2 stale sockets: 40964 40965 (and 2 socket information records)"
    "pruned 2 stale pairs"                                 # stale pairs pruned
    "wiped for interface 22: 2 from app_socket_speeds, 1 from app_uid_speeds, 2 from app_socket_info, 1 from app_socket_speeds_ifindex"
    "dropped 4 heartbeat lengths"                          # screen off drops heartbeat lengths
    "[BpfWakeupDetector] clear overflowing map:9"          # screen on resets flagged maps
    "reset overflowing maps (mask 9): sk_tcp_cookie_in_seq (32 entries) app_tcp_inwakeup (20 entries)"
    "app_net_disconn_limit entries: 1 -> 2"                # block
    "app_vusk_limit entries: 1 -> 0"                       # legacy allow
    "Demo finished: every family walked."
)
missing=0
for line in "${expected[@]}"; do
    grep -qF -- "$line" <<<"$output" || { echo "check-demo: missing: $line" >&2; missing=1; }
done
((status == 0)) || echo "check-demo: the demo exited with $status" >&2
((status == 0 && missing == 0))
