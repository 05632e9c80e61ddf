#!/usr/bin/env bash
# Prints the project's test lines against its code lines and their ratio (the aim is 0.25 to 0.35).
# Tests: the source files under tests/ and fuzz/. Code: the source files under src/, include/,
# tools/, bench/, scripts/ and gst/. Source files are the tracked C, C++, Python and shell files;
# fuzz seeds, models and CMake lists are not counted.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
count() {
    git ls-files -- "$@" | grep -E '\.(c|cc|cpp|h|hpp|py|sh)$' | xargs -r cat | wc -l
}
tests=$(count tests fuzz)
code=$(count src include tools bench scripts gst)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d\ncode  %d\nratio %.3f\n", t, c, (c ? t / c : 0) }'
