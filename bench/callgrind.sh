#!/usr/bin/env bash
# Counts with callgrind the user-space instructions per entry that each walking service and its
# raw loop execute over a map of N entries (default 10240). The kernel's side of the system calls
# is not counted, so this shows exactly what the library adds around them, and unlike a time it
# comes out the same on every run, however busy the machine. Needs root, like the benchmarks.
#   N=65536 bash bench/callgrind.sh [SERVICE...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j2 --target kovrabpf_bench >/dev/null
bench=build/bench/bench/kovrabpf_bench
n=${N:-10240}
services=("$@")
if ((${#services[@]} == 0)); then
    mapfile -t services < <("$bench" --benchmark_list_tests | sed -n "s|/service/n:$n\$||p")
fi

out=$(mktemp)
trap 'rm -f "$out"' EXIT
instructions() {  # instructions BENCHMARK FUNCTION...: instructions inside the functions
    local benchmark=$1 toggles=()
    shift
    for f in "$@"; do toggles+=("--toggle-collect=$f"); done
    valgrind --tool=callgrind --callgrind-out-file="$out" "${toggles[@]}" "$bench" \
        --benchmark_filter="^$benchmark/n:$n\$" --benchmark_min_time=0 >/dev/null 2>&1
    sed -n 's/^summary: *//p; s/^totals: *//p' "$out" | head -n1
}

printf '%-26s %12s %12s %9s\n' "service (n=$n)" "service/ent" "raw/ent" "extra/ent"
for s in "${services[@]}"; do
    service=$(instructions "$s/service" "android::bpf::$s(*")
    raw=$(instructions "$s/raw" '*rawWalk*' '*rawClear*')
    awk -v s="$s" -v a="$service" -v b="$raw" -v n="$n" \
        'BEGIN { printf "%-26s %12.1f %12.1f %9.1f\n", s, a / n, b / n, (a - b) / n }'
done
echo "(instructions per entry executed in user space, system calls' kernel side excluded)"
