#!/usr/bin/env bash
# Benchmark of the library (per-frame latency, throughput and CPU time at 640x360, 1280x720 and
# 1920x1080; blur, picture background and touch-up; ONNX Runtime and OpenVINO) against the peer
# pipeline a Linux user would otherwise assemble (MediaPipe selfie segmentation with OpenCV blur
# and blend, in Python), side by side in one run on the same frames, with the share of one core
# each would use at 30 fps and the flicker of both on a still clip. Writes out/bench/results.md.
# Extra arguments go to bench/peer/run_bench.py (--frames N).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="$ROOT/build"
VENV="$ROOT/.venv"
log() { printf '[bench] %s\n' "$*"; }

cd "$ROOT"
bash scripts/setup.sh

log "building the library and zynvbg in $BUILD"
cmake -S . -B "$BUILD" -G Ninja >/dev/null
cmake --build "$BUILD" -j2 --target ZYNNativeVBG zynvbg

# The peer pipeline's packages, installed into the project's environment once.
stamp="$VENV/.bench-peer-requirements"
if [[ ! -f "$stamp" ]] || ! cmp -s "$stamp" bench/peer/requirements.txt; then
    log "installing the peer pipeline's Python packages"
    "$VENV/bin/pip" install --quiet --disable-pip-version-check -r bench/peer/requirements.txt
    cp bench/peer/requirements.txt "$stamp"
fi

"$VENV/bin/python" bench/peer/run_bench.py --tool "$BUILD/zynvbg" --out "$ROOT/out/bench" "$@"

# The GStreamer element's cost per frame beyond the library's own processing, when the plugin is
# built (GStreamer's development packages present).
if cmake --build "$BUILD" -j2 --target zynvbg_gst_overhead >/dev/null 2>&1; then
    {
        echo
        echo "## GStreamer element overhead"
        echo
        for mode in 8 7; do
            echo "- $("$BUILD/gst/zynvbg_gst_overhead" 200 "$mode" 2>/dev/null | tail -n 1)"
        done
    } | tee -a "$ROOT/out/bench/results.md"
fi
