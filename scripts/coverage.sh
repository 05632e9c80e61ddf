#!/usr/bin/env bash
# Builds with gcc's coverage instrumentation (build-cov/), runs the normal test suite there and
# prints line and branch coverage of src/ and tools/. Not part of CI; needs gcovr (Debian's
# package). The install tests are left out: they run the library from an installed copy. Counters
# are updated atomically, since the library counts lines on several threads at once.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="${JOBS:-2}"
DIR="${COVERAGE_DIR:-build-cov}"
command -v gcovr >/dev/null || { echo "coverage: gcovr is not installed (apt-get install gcovr)" >&2; exit 2; }

cmake -S . -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic" \
    -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
    -DCMAKE_EXE_LINKER_FLAGS="--coverage" -DCMAKE_SHARED_LINKER_FLAGS="--coverage" >/dev/null
cmake --build "$DIR" -j"$JOBS"
find "$DIR" -name '*.gcda' -delete
ctest --test-dir "$DIR" -j"$JOBS" -LE 'slow|install' --output-on-failure || true
gcovr --root "$ROOT" --object-directory "$DIR" --filter 'src/' --filter 'tools/' \
    --exclude-throw-branches --exclude-unreachable-branches -j "$JOBS" \
    --txt "$DIR/coverage.txt" --print-summary
