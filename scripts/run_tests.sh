#!/usr/bin/env bash
# Sets everything up and runs every test: the normal build, then the whole suite again under
# AddressSanitizer with UndefinedBehaviorSanitizer, then the concurrency suites under
# ThreadSanitizer, then every fuzz target for a short while (FUZZ_SECONDS, 30 by default).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="${JOBS:-2}"

bash scripts/setup.sh

configure() {  # dir, extra cmake arguments...
    local dir="$1"
    shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
}

echo "== build"
configure build
cmake --build build -j"$JOBS"
echo "== tests"
ctest --test-dir build -j"$JOBS" --output-on-failure -LE slow

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
configure build-asan -DZYN_SANITIZE=address
cmake --build build-asan -j"$JOBS"
# Third-party libraries under the sanitizer runtimes: oneTBB must not load its helpers with
# RTLD_DEEPBIND, and OpenVINO's plugins (loaded by bare name) are found on the library path, since
# the runtimes' dlopen does not search the caller's run path.
export TBB_ENABLE_SANITIZERS=1
OPENVINO_LIBS="$("$ROOT/.venv/bin/python" -c 'import openvino, os; print(os.path.join(os.path.dirname(openvino.__file__), "libs"))')"

echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer"
LD_LIBRARY_PATH="$OPENVINO_LIBS${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
LSAN_OPTIONS="suppressions=$ROOT/tests/sanitizer/lsan.supp" \
UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    ctest --test-dir build-asan -j"$JOBS" --output-on-failure -LE slow

echo "== ThreadSanitizer build (concurrency suites)"
configure build-tsan -DZYN_SANITIZE=thread
cmake --build build-tsan -j"$JOBS"
if ctest --test-dir build-tsan -N -L concurrency | grep -q "Total Tests: [1-9]"; then
    echo "== concurrency tests under ThreadSanitizer"
    LD_LIBRARY_PATH="$OPENVINO_LIBS${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
    TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$ROOT/tests/sanitizer/tsan.supp" \
        ctest --test-dir build-tsan -j"$JOBS" --output-on-failure -L concurrency
fi
echo "== fuzz targets, ${FUZZ_SECONDS:-30} s each"
bash scripts/fuzz.sh "${FUZZ_SECONDS:-30}"
echo "== all tests passed"
