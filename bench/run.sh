#!/usr/bin/env bash
# Builds the benchmarks in build/bench (plain optimized build), runs every one of them over real
# maps in a private bpffs (needs root) and prints one table: per service and size, time per entry
# and the ratios to the raw loop and to the kernel's batched read.
#   REPS=N    repetitions of each benchmark, interleaved at random (default 5)
#   any further arguments go to the benchmark binary (e.g. --benchmark_filter=clear)
# Run it on a quiet machine: `uptime` first; the CPU times are steadier than wall times.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench -j2 --target kovrabpf_bench >/dev/null
echo "$(uname -sr), $(nproc) cores, $(${CXX:-c++} --version | head -1), load:$(uptime | sed 's/.*load average://')"
results=build/bench/results.json
build/bench/bench/kovrabpf_bench --benchmark_list_tests "$@" >build/bench/listing.txt
build/bench/bench/kovrabpf_bench --benchmark_repetitions="${REPS:-5}" \
    --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
    --benchmark_out="$results" --benchmark_out_format=json "$@" >/dev/null
python3 bench/table.py "$results" build/bench/listing.txt
