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
    "(exit 102)"                                           # a UID without an entry
    "app_freeze_syn entries: 6 -> 0"                       # harvest empties the map
    "0 records"                                            # the second harvest is empty
    "succ update config 2,45,900 over"                     # the library's DEBUG line with -v
    "app_socket_speeds entries: 8 -> 6"                    # stale sockets pruned
    "app_socket_info entries: 8 -> 6"                      # with their socket information
    "app_uid_speeds entries: 6 -> 4"                       # stale pairs pruned
    "app_socket_speeds entries: 6 -> 4, app_uid_speeds: 4 -> 3, app_socket_info: 6 -> 4"
    "im_app_hb_len entries: 4 -> 0"                        # screen off drops heartbeat lengths
    "[BpfWakeupDetector] clear overflowing map:9"          # screen on resets flagged maps
    "sk_tcp_cookie_in_seq entries: 32 -> 0, app_tcp_inwakeup entries: 20 -> 0"
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
