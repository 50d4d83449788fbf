#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer in
# build/fuzz and runs each family for FUZZ_SECONDS seconds (30 by default), starting from its
# checked-in corpus under fuzz/corpus/<family>. New inputs go to build/fuzz/corpus/<family>, a
# failing input to build/fuzz/artifacts/ (replay it with KOVRA_FUZZ_FAMILY=<family>
# build/fuzz/fuzz/maps_fuzzer INPUT, or build/fuzz/fuzz/capture_fuzzer INPUT for the capture
# reader). Needs root (the services' target fills real maps in a private bpffs).
#   bash scripts/fuzz.sh [FAMILY...]     (default: every family)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build/fuzz
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVRA_FUZZ=ON \
    -DKOVRA_SANITIZE=ON -DKOVRA_BUILD_TESTS=OFF -DKOVRA_BUILD_BENCH=OFF >/dev/null
# The fuzzers alone: kovractl and the traffic driver are tested by the other builds.
cmake --build "$build" -j "$(nproc)" --target maps_fuzzer capture_fuzzer >/dev/null

targets=("$@")
if ((${#targets[@]} == 0)); then
    for corpus in fuzz/corpus/*/; do targets+=("$(basename "$corpus")"); done
fi
mkdir -p "$build/artifacts"
for target in "${targets[@]}"; do
    work="$build/corpus/$target"
    mkdir -p "$work"
    log="$build/$target.log"
    fuzzer=maps_fuzzer
    [[ $target == capture ]] && fuzzer=capture_fuzzer
    if ! KOVRA_FUZZ_FAMILY="$target" "$build/fuzz/$fuzzer" -max_total_time="${FUZZ_SECONDS:-30}" \
            -artifact_prefix="$build/artifacts/" "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
        tail -n 40 "$log"
        echo "fuzz: $target FAILED (input in $build/artifacts/)"
        exit 1
    fi
    echo "fuzz: $target: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log"), no failure"
done
