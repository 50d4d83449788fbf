#!/usr/bin/env bash
# Prints how much of the project's C and C++ is test code, and fails when tests outgrow the rest.
# Counted over the files git tracks (.c .cc .cpp .h .hpp), lines that are neither blank nor
# comments. Test code is everything under tests/ or fuzz/ (and files named *_test.* or test_*);
# the rest is the library, kovractl, the desk kernel side and the benchmarks.
#   bash scripts/test-ratio.sh [LIMIT]      (LIMIT: the highest ratio that passes, 0.40 by default)
set -euo pipefail
cd "$(dirname "$0")/.."
limit=${1:-0.40}

mapfile -d '' files < <(git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
awk -v limit="$limit" '
    FNR == 1 { test = (FILENAME ~ /(^|\/)(tests?|fuzz)\// || FILENAME ~ /_test\.|test_/) }
    {
        line = $0
        gsub(/^[ \t]+|[ \t]+$/, "", line)
        if (inBlock) { if (index(line, "*/")) inBlock = 0; next }
        if (line == "" || line ~ /^\/\//) next
        if (line ~ /^\/\*/) { inBlock = !index(line, "*/"); next }
        if (test) tests++; else code++
    }
    END {
        ratio = code ? tests / code : 0
        printf "test-ratio: test code %d lines, other code %d lines: ratio %.3f (limit %s)\n",
               tests, code, ratio, limit
        exit (ratio > limit + 0)
    }' "${files[@]}"
