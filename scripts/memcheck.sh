#!/usr/bin/env bash
# Runs every test executable of a build (default build/release) under valgrind's memcheck and
# fails on any memory error or definite or indirect leak. The live soak runs for
# KOVRA_SOAK_SECONDS (default 5 here). Needs root, like the tests themselves.
#   bash scripts/memcheck.sh [BUILD_DIR]
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
export KOVRA_SOAK_SECONDS=${KOVRA_SOAK_SECONDS:-5}
status=0
mapfile -t tests < <(find "$build/tests" -maxdepth 1 -type f -name '*_tests' -perm -u+x | sort)
((${#tests[@]})) || { echo "memcheck: no test executable in $build/tests"; exit 1; }
for t in "${tests[@]}"; do
    log=$build/$(basename "$t").memcheck.log
    start=$SECONDS
    # Forked death-test children end in abort(); what they held then is no leak of ours.
    if valgrind -q --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect \
            --errors-for-leak-kinds=definite,indirect --child-silent-after-fork=yes \
            --suppressions=scripts/valgrind.supp "$t" >"$log" 2>&1; then
        echo "memcheck: $(basename "$t") clean ($((SECONDS - start)) s)"
    else
        grep -v '^\[' "$log" | tail -n 60
        echo "memcheck: $(basename "$t") FAILED (log in $log)"
        status=1
    fi
done
exit $status
