#!/usr/bin/env bash
# Sets up, builds and runs every test: the share of test code, the layout of the sources
# (clang-format) and the device build (Soong over Android.bp, every module's sources compiled as
# a device build compiles them) first, then a sanitized build (AddressSanitizer and
# UndefinedBehaviorSanitizer), then the same tests cross-built for 64-bit Arm on arm64 kernels
# 5.10, 6.1 and 6.12 under qemu, then a libFuzzer run of every fuzz family (FUZZ_SECONDS each, 20 by default),
# then the plain build, whose tests run once under valgrind's memcheck and once as they are; that
# last ctest summary closes the run.
# The kernel-map tests need root; with CI=true they fail rather than skip without it.
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1

jobs=$(nproc)
status=0
build() {  # build BUILD_DIR [cmake options...]
    local dir=$1
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null &&
        cmake --build "$dir" -j "$jobs"
}
check() {  # check BUILD_DIR
    (cd "$1" && ctest -j "$jobs" --output-on-failure --timeout 300)
}
phase() {  # phase TITLE: its heading, with the time the run has taken so far
    printf '== %s (at %dm%02ds)\n' "$1" $((SECONDS / 60)) $((SECONDS % 60))
}

# Test code stays well below the code it tests (at most 0.40 of it), and the sources, the eBPF
# programs among them, are as clang-format lays them out.
bash scripts/test-ratio.sh || status=1
bash scripts/check-format.sh || status=1
bash scripts/check-android-build.sh || status=1
phase "sanitized build (ASan + UBSan)"
export ASAN_OPTIONS=detect_leaks=1
# -O1 with line tables only: what the sanitizers' reports need (file and line of every frame), at
# half the build time of -O2 with full debug information.
{ build build/asan -DKOVRA_SANITIZE=ON -DKOVRA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="-O1 -g1" && check build/asan; } || status=1
unset ASAN_OPTIONS
phase "arm64 kernels 5.10, 6.1, 6.12 (qemu)"
bash scripts/test-arm64.sh || status=1
phase "fuzzing (libFuzzer, ASan + UBSan)"
FUZZ_SECONDS=${FUZZ_SECONDS:-20} bash scripts/fuzz.sh || status=1
phase "plain build"
if build build/release; then
    phase "valgrind memcheck (plain build)"
    bash scripts/memcheck.sh build/release || status=1
    check build/release || status=1
else
    status=1
fi
exit $status
