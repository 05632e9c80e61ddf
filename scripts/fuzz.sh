#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer with UndefinedBehaviorSanitizer) and runs
# every one of them for the given number of seconds (default 30), starting from its seed inputs in
# fuzz/corpus/<name>/, with the mutation dictionary fuzz/<name>.dict where there is one. What a
# run finds goes to a working corpus in the build folder, never to the committed seeds; an input
# that fails is written to build-fuzz/fuzz-artifacts/ and fails the script. Each target's
# execution count is printed at the end.
#   bash scripts/fuzz.sh [seconds] [target...]
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
SECONDS_PER_TARGET="${1:-30}"
shift || true
JOBS="${JOBS:-2}"
BUILD="${FUZZ_BUILD_DIR:-build-fuzz}"

CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZYN_BUILD_FUZZ=ON -DZYN_SANITIZE=address -DZYN_BUILD_TESTS=OFF >/dev/null

if [ "$#" -gt 0 ]; then
    TARGETS=("$@")
else
    TARGETS=()
    for source in fuzz/*_fuzz.cpp; do
        TARGETS+=("$(basename "$source" .cpp)")
    done
fi
cmake --build "$BUILD" -j"$JOBS" --target "${TARGETS[@]}"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export LSAN_OPTIONS="suppressions=$ROOT/tests/sanitizer/lsan.supp"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ARTIFACTS="$ROOT/$BUILD/fuzz-artifacts"
mkdir -p "$ARTIFACTS"
SUMMARY=()
STATUS=0
for target in "${TARGETS[@]}"; do
    name="${target%_fuzz}"
    seeds="fuzz/corpus/$name"
    work="$BUILD/fuzz-corpus/$name"
    mkdir -p "$work"
    log="$BUILD/fuzz-logs/$target.log"
    mkdir -p "$(dirname "$log")"
    options=(-max_total_time="$SECONDS_PER_TARGET" -timeout=60 -rss_limit_mb=4096
        -print_final_stats=1 -artifact_prefix="$ARTIFACTS/$target-")
    if [ -f "fuzz/$name.dict" ]; then
        options+=(-dict="fuzz/$name.dict")
    fi
    echo "== fuzzing $target for ${SECONDS_PER_TARGET}s"
    if "$BUILD/fuzz/$target" "$work" "$seeds" "${options[@]}" >"$log" 2>&1; then
        runs="$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)"
        SUMMARY+=("$target: ${runs:-?} runs in ${SECONDS_PER_TARGET}s")
    else
        STATUS=1
        SUMMARY+=("$target: FAILED (log $log, inputs in $ARTIFACTS)")
        tail -n 60 "$log"
    fi
done
echo "== fuzzing summary"
printf '  %s\n' "${SUMMARY[@]}"
exit "$STATUS"
