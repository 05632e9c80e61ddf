#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer with UndefinedBehaviorSanitizer) and runs
# every one of them for the given number of seconds (default 30), starting from its seed inputs in
# fuzz/corpus/<name>/, with the mutation dictionary fuzz/<name>.dict where there is one. What a
# run finds goes to a working corpus in the build folder, never to the committed seeds; an input
# that fails is written to build-fuzz/fuzz-artifacts/ and fails the script. Each target's
# execution count is printed at the end. Inputs are up to 64 KiB, so that texts reach the nesting
# and size limits of the JSON reader. The effect-configuration target runs a second time without a
# stored processing-type selection (automatic mode), as "effect_config_fuzz:no-selection"; that run
# can also be named on its own.
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
    RUNS=("$@")
else
    RUNS=()
    for source in fuzz/*_fuzz.cpp; do
        RUNS+=("$(basename "$source" .cpp)")
    done
    RUNS+=("effect_config_fuzz:no-selection")
fi
TARGETS=()
for run in "${RUNS[@]}"; do
    TARGETS+=("${run%%:*}")
done
cmake --build "$BUILD" -j"$JOBS" --target $(printf '%s\n' "${TARGETS[@]}" | sort -u)

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export LSAN_OPTIONS="suppressions=$ROOT/tests/sanitizer/lsan.supp"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ARTIFACTS="$ROOT/$BUILD/fuzz-artifacts"
mkdir -p "$ARTIFACTS"
SUMMARY=()
STATUS=0
for run in "${RUNS[@]}"; do
    target="${run%%:*}"
    variant=""
    selection=""
    if [ "$run" != "$target" ]; then
        variant="-${run#*:}"
        [ "$variant" = "-no-selection" ] && selection=1
    fi
    name="${target%_fuzz}"
    seeds="fuzz/corpus/$name"
    work="$BUILD/fuzz-corpus/$name$variant"
    mkdir -p "$work"
    log="$BUILD/fuzz-logs/$target$variant.log"
    mkdir -p "$(dirname "$log")"
    options=(-max_total_time="$SECONDS_PER_TARGET" -timeout=60 -rss_limit_mb=4096 -max_len=65536
        -print_final_stats=1 -artifact_prefix="$ARTIFACTS/$target$variant-")
    if [ -f "fuzz/$name.dict" ]; then
        options+=(-dict="fuzz/$name.dict")
    fi
    echo "== fuzzing $run for ${SECONDS_PER_TARGET}s"
    if ZYN_FUZZ_NO_SELECTION="$selection" "$BUILD/fuzz/$target" "$work" "$seeds" "${options[@]}" \
        >"$log" 2>&1; then
        runs="$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)"
        SUMMARY+=("$run: ${runs:-?} runs in ${SECONDS_PER_TARGET}s")
    else
        STATUS=1
        SUMMARY+=("$run: FAILED (log $log, inputs in $ARTIFACTS)")
        tail -n 60 "$log"
    fi
done
echo "== fuzzing summary"
printf '  %s\n' "${SUMMARY[@]}"
exit "$STATUS"
