#!/usr/bin/env bash
# The libkovrabpf demo, live: installs what it needs, builds kovractl and the traffic driver,
# and runs a scenario in `kovractl sandbox --live`: a private bpffs with every map, a private
# network namespace, and the project's own eBPF programs attached to a private cgroup. Apps
# (UIDs) send real traffic there; family by family the demo shows what the traffic did and what
# the services report, and checks that the two agree. Needs root; the machine's own maps,
# cgroups and network are not touched.
#
#   bash scripts/demo.sh                                 set up, build, run the scenario
#   bash scripts/demo.sh --kovractl PATH --traffic PATH  run it with already built tools
#
# Exit status: 0 when every check held, 1 when one did not, 3 when the sandbox could not start.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# ---- The scenario, run inside the live sandbox ----

failures=0
step() { printf '\n== %s\n' "$*"; }
say() { printf '   %s\n' "$*"; }

# Shows a command the way a user would type it, runs it, and tells a non-zero exit.
run() {
    printf '$ kovractl %s\n' "$*"
    local rc=0
    "$kovractl" "$@" 2>&1 || rc=$?
    ((rc == 0)) || printf '(exit %d)\n' "$rc"
}
# The same for the traffic driver; its JSON goes to $sent.
drive() {
    printf '$ kovra-traffic flow %s\n' "$*"
    "$traffic" --json "$sent" flow "$@"
}
json() { "$kovractl" --json "$@" 2>/dev/null; }

# check DESCRIPTION CONDITION...: the condition is a command; prints ok or FAILED.
check() {
    local what=$1
    shift
    if "$@"; then
        printf '   ok: %s\n' "$what"
    else
        printf '   FAILED: %s\n' "$what"
        failures=$((failures + 1))
    fi
}
# within ACTUAL EXPECTED PERCENT
within() { awk -v a="$1" -v e="$2" -v p="$3" 'BEGIN { d = a - e; if (d < 0) d = -d; exit !(d <= e * p / 100) }'; }

traffic_totals() {
    step "Traffic totals: what two apps sent, and what the per-UID statistics say"
    drive uid=10001,peer=10002,bytes=300000 uid=10003,peer=10004,proto=udp,bytes=70000,chunk=700
    run stats pur 10001
    run stats pur 10003
    local tx packets again rx udp
    tx=$(json stats pur 10001 | jq '.[0].txBytes')
    packets=$(json stats pur 10001 | jq '.[0].txPackets')
    again=$(jq '.[0].retransmitted' "$sent")
    say "TCP on loopback: every segment carries 52 header bytes, the SYN 8 more:"
    say "tx bytes = payload + retransmitted + 52 x tx packets + 8"
    say "         = 300000 + $again + 52 x $packets + 8 = $((300000 + again + 52 * packets + 8))"
    check "UID 10001's tx bytes ($tx) equal the formula" test "$tx" -eq $((300000 + again + 52 * packets + 8))
    local rxPackets
    rx=$(json stats pur 10002 | jq '.[0].rxBytes')
    rxPackets=$(json stats pur 10002 | jq '.[0].rxPackets')
    check "the receiving app's rx bytes ($rx) hold the same formula with its $rxPackets packets" \
        test "$rx" -eq $((300000 + again + 52 * rxPackets + 8))
    udp=$(json stats pur 10003 | jq '.[0].txBytes')
    say "UDP: tx bytes = 100 datagrams x (700 + 28) = 72800; extra1 holds the UDP bytes"
    check "UID 10003's tx bytes ($udp) are 72800" test "$udp" -eq 72800
    local listing
    listing=$(run stats uids)
    echo "$listing"
    check "the listing counts its four UIDs" grep -qx '4 UIDs' <<<"$listing"
}

speeds() {
    step "Speeds: paced flows measured per socket and per (UID, interface), then pruned"
    say "Measure the loopback (1) and the interfaces the driver's veth pair may get (2-16)."
    run speeds iface 1 on
    for i in $(seq 2 16); do "$kovractl" speeds iface "$i" on >/dev/null; done
    say "The configuration word is the live side's window: speeds over 500 ms."
    run speeds config 500
    say "App 10011 sends TCP over loopback at 50000 B/s (400 kbps), app 10013 UDP over the"
    say "veth pair at 25000 B/s (200 kbps), for 4 s; the services are asked while they run."
    drive uid=10011,peer=10012,bytes=200000,rate=50000 \
        uid=10013,peer=10014,proto=udp,route=veth,bytes=100000,rate=25000 >"$scratch/speeds" &
    flows=$!
    sleep 3
    run speeds sockets --stale-ms 2000 --min-kbps 100
    run speeds uids --stale-ms 2000
    wait "$flows"
    cat "$scratch/speeds"
    local cookie udpCookie ifindex tcpKbps udpKbps pairKbps
    cookie=$(jq '.[0].cookie' "$sent")
    udpCookie=$(jq '.[1].cookie' "$sent")
    ifindex=$(jq '.[1].ifindex' "$sent")
    tcpKbps=$(json speeds sockets --stale-ms 5000 --min-kbps 0 | jq ".rows[] | select(.cookie == $cookie) | .secondSpeedKbps")
    udpKbps=$(json speeds sockets --stale-ms 5000 --min-kbps 0 | jq ".rows[] | select(.cookie == $udpCookie) | .secondSpeedKbps")
    pairKbps=$(json speeds uids --stale-ms 5000 | jq ".rows[] | select(.uid == 10012 and .ifindex == 1) | .firstSpeedKbps")
    check "socket $cookie sent at ${tcpKbps:-?} kbps, within 10% of 400" within "${tcpKbps:-0}" 400 10
    check "socket $udpCookie on interface $ifindex sent at ${udpKbps:-?} kbps, within 10% of 200" \
        within "${udpKbps:-0}" 200 10
    check "UID 10012 received at ${pairKbps:-?} kbps on the loopback, within 10% of 400" \
        within "${pairKbps:-0}" 400 10
    say "The flows have stopped; 2 s later their speeds are stale and the services prune them."
    sleep 2.2
    run speeds sockets --stale-ms 2000 --min-kbps 0
    run speeds uids --stale-ms 2000
    check "no socket left" test "$(json speeds sockets --stale-ms 2000 --min-kbps 0 | jq ".rows | length")" -eq 0
}

blocking() {
    step "Network blocking: a blocked app fails at once, another app goes on"
    say "App 10021 sends 20000 B/s for 8 s meanwhile."
    # Long enough for the checks beside it on a loaded machine; its report goes to a file of its
    # own, since the drives below write theirs meanwhile.
    sent=$scratch/other.json drive uid=10021,peer=10022,bytes=160000,rate=20000 >"$scratch/other" &
    local other=$! before after
    run net block 10023
    drive uid=10023,peer=10022,bytes=1000 uid=10023,peer=10022,proto=udp,bytes=1000
    check "the blocked app's connect() and sendto() fail with EPERM" \
        test "$(jq -r '[.[].error] | unique | .[]' "$sent")" = "Operation not permitted"
    before=$(json stats pur 10021 | jq '.[0].txBytes')
    sleep 1
    after=$(json stats pur 10021 | jq '.[0].txBytes')
    check "app 10021's flow went on: tx bytes $before -> $after" test "$after" -gt "$before"
    run net unblock 10023
    drive uid=10023,peer=10022,bytes=1000
    check "unblocked, it connects and sends again" test "$(jq '.[0].received' "$sent")" -eq 1000
    say "The legacy switch: rule 0 blocks, rule 1 lets the app back on."
    run net legacy 10024 0
    drive uid=10024,peer=10022,proto=udp,bytes=1000
    check "blocked by the legacy map" test "$(jq -r '.[0].error' "$sent")" = "Operation not permitted"
    run net legacy 10024 1
    drive uid=10024,peer=10022,proto=udp,bytes=1000
    check "and back" test "$(jq -r '.[0].error' "$sent")" = null
    wait "$other"
    cat "$scratch/other"
    check "app 10021 sent all its bytes" test "$(jq '.[0].received' "$scratch/other.json")" -eq 160000
}

freeze() {
    step "Freeze accounting: a frozen app's connection attempts and traffic, harvested"
    printf '$ kovra-traffic freeze 10031\n'
    "$traffic" freeze 10031
    drive uid=10031,peer=10032,bytes=2000,conns=3 uid=10033,peer=10031,bytes=500
    local harvest key data0 data1 syns=0
    harvest=$(run freeze syns)
    echo "$harvest"
    say "The live side's SYN record: DATA0 = UID | remote IPv4 << 32, DATA1 = remote port"
    say "| local port << 16 | SYNs << 32 | inbound << 48 | protocol << 56 (docs/live.md):"
    while read -r key data0 data1; do
        [[ $key =~ ^[0-9]+$ && $data0 =~ ^[0-9]+$ ]] || continue
        syns=$((syns + 1))
        if (((data1 >> 48) & 255)); then
            say "socket $key: UID $((data0 & 0xffffffff)), $(((data1 >> 32) & 0xffff)) SYN(s) inbound to its port $(((data1 >> 16) & 0xffff))"
        else
            say "socket $key: UID $((data0 & 0xffffffff)), $(((data1 >> 32) & 0xffff)) SYN(s) outbound to port $((data1 & 0xffff))"
        fi
    done <<<"$harvest"
    check "3 outbound and 1 inbound SYN records were harvested ($syns)" test "$syns" -eq 4
    run freeze stats
    say "A harvest empties the maps: the second one is empty."
    run freeze syns
    printf '$ kovra-traffic thaw 10031\n'
    "$traffic" thaw 10031
}

wakeup() {
    step "TCP wake-up detector: screen off, counts per app, screen on resets what overflowed"
    run screen off 1000
    say "App 10041 sends ten 100-byte heartbeats, 250 ms apart; its heartbeat length is 100."
    run wakeup hb-len 10041 100
    say "App 10043 idles 2.5 s on a connection its peer probes with keep-alives; app 10045"
    say "opens 600 short connections, more than the 1024-entry sequence maps hold."
    drive uid=10041,peer=10042,bytes=1000,chunk=100,rate=400 \
        uid=10043,peer=10044,bytes=10,hold=2500,keepalive=1 uid=10045,peer=10046,bytes=0,conns=600
    run wakeup
    local row
    row=$(json wakeup)
    check "one outbound wake-up and 10 heartbeats for 10041" \
        test "$(jq '.[] | select(.uid == 10041) | "\(.outwakeup) \(.outImHb)"' <<<"$row")" = '"1 10"'
    check "keep-alives reached 10043" \
        test "$(jq '.[] | select(.uid == 10043) | .inKeepAlive // 0' <<<"$row")" -ge 1
    say "The sequence maps overflowed: the live side set their flags (1, 2, 4)."
    run maps | awk 'NR <= 2 || /seq|ack|overflowing/'
    local reset
    reset=$(run screen on 2000)
    echo "$reset"
    check "screen on reset them and logged the mask" grep -qF 'clear overflowing map:7' <<<"$reset"
    run maps | awk 'NR <= 2 || /seq|ack/'
    check "screen on emptied the sequence map" \
        test "$("$kovractl" maps | awk '/sk_tcp_cookie_in_seq/ { print $6 }')" -eq 0
}

# The same maps on another desk: captured, replayed into a fresh sandbox, captured again, and
# the services asked the same questions on both.
replay() {
    step "Device to desk: the maps captured, replayed into a fresh sandbox and compared"
    local capture=$scratch/capture.json replayed=$scratch/replayed.json
    # The harvests above emptied the freeze maps: a frozen app's records for both desks to harvest.
    say "App 10051 frozen, two connections, thawed and blocked: more for both desks to show."
    "$traffic" freeze 10051 >/dev/null
    "$traffic" flow uid=10051,peer=10052,bytes=500,conns=2 >/dev/null
    "$traffic" thaw 10051 >/dev/null
    "$kovractl" net block 10051 >/dev/null
    printf '$ kovractl -j dump > capture.json\n'
    "$kovractl" -j dump >"$capture"
    asked "$kovractl" >"$scratch/asked-live"
    printf '$ kovractl sandbox --seed capture.json --raw-stamps -- kovractl -j dump > replayed.json\n'
    "$kovractl" sandbox --seed "$capture" --raw-stamps -- "$kovractl" -j dump >"$replayed" 2>/dev/null
    run diff "$capture" "$replayed"
    check "the replayed maps are the captured ones, byte for byte" same "$capture" "$replayed"
    say "Replayed with its stamps rebased, the services answer as they did here (--preview: the"
    say "harvests, prunes and resets run on copies; the stamps themselves are left out):"
    "$kovractl" sandbox --seed "$capture" -- bash -c "$(declare -f asked); asked kovractl" \
        >"$scratch/asked-replayed" 2>/dev/null
    cut -f1 "$scratch/asked-live" | paste -sd , | sed 's/,/, /g' | fold -sw 92 | sed 's/^/   /'
    check "the replayed sandbox's answers are the live ones" agree "$scratch/asked-live" \
        "$scratch/asked-replayed"
    check "they include harvested freeze records and socket speeds" covered "$scratch/asked-live"
}
same() { "$kovractl" diff "$1" "$2" >/dev/null; }
# agree A B: the same lines in both; if not, the first that differ, for the log.
agree() { cmp -s "$1" "$2" || { diff "$1" "$2" | cut -c1-160 | head -6 | sed 's/^/   /' && false; }; }
covered() {
    awk -F '\t' '$1 == "freeze syns" && $2 ~ /"harvested":[1-9]/ { freeze = 1 }
        $1 == "speeds sockets" && $2 ~ /"cookie"/ { speeds = 1 }
        END { exit !(freeze && speeds) }' "$1"
}

# asked KOVRACTL: what the services return and would remove, one "COMMAND<tab>JSON" line each,
# without the speed records' stamps, which a rebased replay moves by design: rebased, each record
# keeps the age it had at capture, as it would on another machine. Every record is younger than
# --stale-ms 600000 (the demo runs for about a minute), so none sits at the staleness boundary,
# where the few milliseconds between the two desks' calls could tell the ages apart.
asked() {
    local command
    for command in "stats uids" "stats pur" "freeze syns" "freeze stats" \
        "speeds sockets --stale-ms 600000 --min-kbps 0" "speeds uids --stale-ms 600000" \
        "speeds iface" "speeds config" "wakeup" "wakeup hb-len" "screen on 3000" \
        "screen off 3000" "net list"; do
        # shellcheck disable=SC2086
        printf '%s\t%s\n' "${command%% -*}" "$("$1" -j --preview $command 2>/dev/null |
            jq -c 'walk(if type == "object" then del(.firstStamp, .secondStamp) else . end)')"
    done
}

scenario() {
    kovractl=$1
    traffic=$2
    scratch=$(mktemp -d)
    sent=$scratch/sent.json
    trap 'rm -rf "$scratch"' EXIT
    echo "Live sandbox: every map at its path, the programs attached to cgroup $KOVRA_LIVE_CGROUP."
    traffic_totals
    speeds
    blocking
    freeze
    wakeup
    replay
    if ((failures == 0)); then
        printf '\nDemo finished: all five families live, every check held.\n'
    else
        printf '\nDemo finished with %d failed checks.\n' "$failures"
        exit 1
    fi
}

# ---- Setting up and entering the sandbox ----

if [[ ${1:-} == --scenario ]]; then
    scenario "$2" "$3"
    exit
fi
if [[ $(id -u) -ne 0 ]]; then
    echo "demo: needs root, for the live sandbox (try: sudo bash scripts/demo.sh)" >&2
    exit 3
fi
if [[ ${1:-} == --kovractl ]]; then
    kovractl=$(realpath "$2")
    traffic=$(realpath "${4:?demo: --kovractl PATH --traffic PATH}")
else
    bash "$root/scripts/setup.sh"
    build=$root/build/demo
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_BUILD_TESTS=OFF >/dev/null
    cmake --build "$build" --target kovractl kovra-traffic -j 2 >/dev/null
    kovractl=$build/tools/kovractl/kovractl
    traffic=$build/tools/kovra-traffic/kovra-traffic
fi
exec "$kovractl" sandbox --live -- bash "$root/scripts/demo.sh" --scenario "$kovractl" "$traffic"
