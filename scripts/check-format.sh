#!/usr/bin/env bash
# Checks that the C and C++ sources git tracks, the eBPF programs among them, are as
# clang-format 14 (Debian's) lays them out under .clang-format; prints each difference as a
# warning and fails when there is one. `clang-format -i` on the files named mends them.
#   bash scripts/check-format.sh
set -euo pipefail
cd "$(dirname "$0")/.."
format=$(command -v clang-format-14 || command -v clang-format) || {
    echo "check-format: clang-format 14 is not installed (scripts/setup.sh installs it)" >&2
    exit 1
}
mapfile -d '' files < <(git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
if "$format" --dry-run -Werror "${files[@]}"; then
    echo "check-format: ${#files[@]} files as clang-format lays them out"
else
    echo "check-format: the files named above differ from clang-format's layout" >&2
    exit 1
fi
