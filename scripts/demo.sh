#!/usr/bin/env bash
# The libkovrabpf demo: installs what it needs, builds kovractl, and walks every service family
# in a sandbox (a private bpffs seeded with a demo data set), showing what each step does to the
# maps. Needs root, for the sandbox's private bpffs; the machine's own maps are never touched.
#
#   bash scripts/demo.sh                   set up, build, run the scenario
#   bash scripts/demo.sh --kovractl PATH   run the scenario with an already built kovractl
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# ---- The scenario, run inside the sandbox ----

step() { printf '\n== %s\n' "$*"; }

# Shows a command the way a user would type it, runs it, and tells a non-zero exit.
run() {
    printf '$ kovractl %s\n' "$*"
    local rc=0
    "$kovractl" "$@" 2>&1 || rc=$?
    ((rc == 0)) || printf '(exit %d)\n' "$rc"
}

# Entry count of one map, read beside the services by `kovractl maps`.
entries() { "$kovractl" maps | awk -v name="$1" '$1 == name { print $6 }'; }

# Runs a command and reports how it changed the entry count of one map.
counted() {
    local map=$1 before
    shift
    before=$(entries "$map")
    run "$@"
    printf '   %s entries: %s -> %s\n' "$map" "$before" "$(entries "$map")"
}

traffic() {
    step "Traffic totals: netd's per-UID statistics and the vendor's own"
    run stats uids | sed -n '1,6p;$p'
    run stats pur 10005
    echo "   A UID without an entry: the lookup's ENOENT (status -2) is exit 4, with the library's log line."
    run stats pur 9
    echo "   Watching: a listing every half second, with rates from the counters' deltas."
    run stats uids --interval 0.5 --count 2 --sort rxBytes --top 3
}

freeze() {
    step "Freeze accounting: harvesting frozen apps' records, and the settings"
    echo "   A harvest hands over every record, then empties the kernel map, and says so."
    run freeze syns
    echo "   Nothing new since: the second harvest is empty."
    run freeze syns
    run freeze stats
    run freeze config get
    echo "   -v shows the library's DEBUG line for a write."
    run -v freeze config set 2 45 900
    run freeze config get
    echo "   A fresh process never writes 0 0 0: the library skips it, and kovractl says so."
    run freeze config set 0 0 0
}

speeds() {
    step "Speeds: sockets and (UID, interface) pairs, fresh and stale; measured interfaces"
    echo "   Sockets at 100 kbps or more (or watched and moving). Both directions older than 30 s:"
    echo "   pruned with their socket information. 40967 talks to 127.0.0.9 on the loopback,"
    echo "   measured with the local filter: left out. 40968 is slow but watched."
    run -v speeds sockets --stale-ms 30000 --min-kbps 100 --watch 40968
    echo "   Every live pair, 0 kbps included; stale pairs pruned."
    run speeds uids --stale-ms 30000
    echo "   Taking interface 22 out of measurement wipes its sockets, pairs and socket information."
    run speeds iface 22 off
    echo "   The measured interfaces and the configuration word, read without a service."
    run speeds iface
    run speeds iface 5 on --local
    run speeds config 7
    run speeds config
}

wakeup() {
    step "TCP wake-up detector: per-UID counters, heartbeat lengths, screen state"
    run wakeup inwakeup outwakeup wakeupduration | sed -n '1,6p;$p'
    run wakeup hb-len 10044 240
    run wakeup hb-len
    echo "   Screen off drops every registered heartbeat length."
    run screen off 1000
    echo "   The screen state and the overflow flags the kernel side set."
    run screen
    echo "   Screen on resets the maps the kernel side flagged as overflowing (flags 1 and 8:"
    echo "   inbound sequences and inbound wake-ups) and logs the mask with no tag."
    run screen on 2000
    echo "   Nothing is flagged any more: a second screen on resets nothing and logs nothing."
    run screen on 3000
}

blocking() {
    step "Network blocking: per-app switches"
    counted app_net_disconn_limit net block 10050
    counted app_net_disconn_limit net unblock 10050
    echo "   Unblocking an app that is not blocked is the service's -1: exit 1."
    run net unblock 10050
    echo "   The legacy switch: rule 1 lets the app back on, any other rule blocks it."
    counted app_vusk_limit net legacy 10077 1
    counted app_vusk_limit net legacy 10088 0
    run net list
}

scenario() {
    kovractl=$1
    echo "Sandbox: a private bpffs at /sys/fs/bpf with every map the services use, seeded."
    run maps | head -4
    echo "   Any map, decoded by its records, without a service and without changing it."
    run dump screen_state app_freeze_config
    traffic
    freeze
    speeds
    wakeup
    blocking
    printf '\nDemo finished: every family walked.\n'
}

# ---- Setting up and entering the sandbox ----

if [[ ${1:-} == --scenario ]]; then
    scenario "$2"
    exit
fi
if [[ $(id -u) -ne 0 ]]; then
    echo "demo: needs root, for the sandbox's private bpffs (try: sudo bash scripts/demo.sh)" >&2
    exit 3
fi
if [[ ${1:-} == --kovractl ]]; then
    kovractl=$(realpath "$2")
else
    bash "$root/scripts/setup.sh"
    build=$root/build/demo
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_BUILD_TESTS=OFF >/dev/null
    cmake --build "$build" --target kovractl -j 2 >/dev/null
    kovractl=$build/tools/kovractl/kovractl
fi
exec "$kovractl" sandbox --seed demo -- bash "$root/scripts/demo.sh" --scenario "$kovractl"
