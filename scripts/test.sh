#!/usr/bin/env bash
# Sets up, builds and runs every test: a sanitized build (AddressSanitizer and
# UndefinedBehaviorSanitizer) first, then the same tests cross-built for 64-bit Arm on an arm64
# kernel under qemu, then the plain build, whose ctest summary closes the run.
# The kernel-map tests need root; with CI=true they fail rather than skip without it.
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1

jobs=$(nproc)
status=0
run_suite() {  # run_suite BUILD_DIR [cmake options...]
    local dir=$1
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null &&
        cmake --build "$dir" -j "$jobs" &&
        (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 300) || status=1
}

echo "== sanitized build (ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1 run_suite build/asan -DKOVRA_SANITIZE=ON
echo "== arm64 kernel (qemu)"
bash scripts/test-arm64.sh || status=1
echo "== plain build"
run_suite build/release
exit $status
