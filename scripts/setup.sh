#!/usr/bin/env bash
# Installs everything the project needs on a fresh Debian 12 machine, from the package registries
# only, and builds the segmentation models. Idempotent: a second run finds everything in place and
# returns in seconds.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
DEPS="$ROOT/.deps"
VENV="$ROOT/.venv"
ORT_PACKAGE="com.github.asus4.onnxruntime@0.4.9"
MEDIAPIPE_PACKAGE="@mediapipe/selfie_segmentation@0.1.1675465747"
OPENVINO_VERSION="2026.4.1"

log() { printf '[setup] %s\n' "$*"; }

# --- Debian packages -------------------------------------------------------------------------
APT_PACKAGES=(
    build-essential cmake ninja-build pkg-config git file
    libspdlog-dev libfmt-dev rapidjson-dev libyuv-dev
    libavformat-dev libavcodec-dev libswscale-dev libavutil-dev ffmpeg
    libgtest-dev googletest libbenchmark-dev
    clang libclang-rt-14-dev clang-format
    python3 python3-venv python3-skimage
    nodejs npm
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good pipewire gstreamer1.0-pipewire wireplumber dbus
)
missing=()
for p in "${APT_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
# Node and npm may come from outside Debian on a prepared machine; only install them when absent.
if command -v node >/dev/null 2>&1 && command -v npm >/dev/null 2>&1; then
    filtered=()
    for p in "${missing[@]}"; do
        [[ "$p" == nodejs || "$p" == npm ]] || filtered+=("$p")
    done
    missing=("${filtered[@]}")
fi
if ((${#missing[@]})); then
    log "installing Debian packages: ${missing[*]}"
    SUDO=""
    [[ $(id -u) -eq 0 ]] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

mkdir -p "$DEPS"

# --- ONNX Runtime (headers and Linux x64 library from the npm registry) ------------------------
ORT_DIR="$DEPS/onnxruntime"
if [[ ! -f "$ORT_DIR/lib/libonnxruntime.so.1" || ! -f "$ORT_DIR/include/onnxruntime_cxx_api.h" ]]; then
    log "fetching $ORT_PACKAGE"
    tmp="$(mktemp -d)"
    (cd "$tmp" && npm pack --silent "$ORT_PACKAGE" >/dev/null)
    headers="package/Plugins/iOS~/onnxruntime.xcframework/ios-arm64_x86_64-simulator/onnxruntime.framework/Headers"
    tar -xzf "$tmp"/*.tgz -C "$tmp" "$headers" package/Plugins/Linux/x64/libonnxruntime.so
    rm -rf "$ORT_DIR"
    mkdir -p "$ORT_DIR/include" "$ORT_DIR/lib"
    cp "$tmp/$headers"/*.h "$ORT_DIR/include/"
    cp "$tmp/package/Plugins/Linux/x64/libonnxruntime.so" "$ORT_DIR/lib/libonnxruntime.so.1"
    ln -sf libonnxruntime.so.1 "$ORT_DIR/lib/libonnxruntime.so"
    rm -rf "$tmp"
fi

# --- MediaPipe selfie segmentation models (npm registry) --------------------------------------
MP_DIR="$DEPS/selfie_segmentation"
if [[ ! -f "$MP_DIR/selfie_segmentation_landscape.tflite" ]]; then
    log "fetching $MEDIAPIPE_PACKAGE"
    tmp="$(mktemp -d)"
    (cd "$tmp" && npm pack --silent "$MEDIAPIPE_PACKAGE" >/dev/null)
    tar -xzf "$tmp"/*.tgz -C "$tmp"
    rm -rf "$MP_DIR"
    mkdir -p "$MP_DIR"
    cp "$tmp"/package/*.tflite "$tmp"/package/LICENSE "$MP_DIR/" 2>/dev/null ||
        cp "$tmp"/package/*.tflite "$MP_DIR/"
    rm -rf "$tmp"
fi

# --- Python virtual environment: OpenVINO and the model tools ---------------------------------
if [[ ! -x "$VENV/bin/python" ]]; then
    log "creating $VENV"
    /usr/bin/python3 -m venv "$VENV"
fi
req_stamp="$VENV/.requirements-installed"
want="openvino==$OPENVINO_VERSION"
if [[ -f "$ROOT/tools/model/requirements.txt" ]]; then
    want="$want $(tr '\n' ' ' <"$ROOT/tools/model/requirements.txt")"
fi
if [[ ! -f "$req_stamp" || "$(cat "$req_stamp")" != "$want" ]]; then
    log "installing Python packages: $want"
    "$VENV/bin/pip" install --quiet --disable-pip-version-check "openvino==$OPENVINO_VERSION"
    if [[ -f "$ROOT/tools/model/requirements.txt" ]]; then
        "$VENV/bin/pip" install --quiet --disable-pip-version-check -r "$ROOT/tools/model/requirements.txt"
    fi
    echo "$want" >"$req_stamp"
fi

# --- Segmentation models --------------------------------------------------------------------
if [[ -f "$ROOT/tools/model/build_models.py" ]]; then
    if [[ ! -f "$DEPS/models/model.winml" || "$ROOT/tools/model/build_models.py" -nt "$DEPS/models/model.winml" ]]; then
        log "building the segmentation models"
        "$VENV/bin/python" "$ROOT/tools/model/build_models.py" --source "$MP_DIR" --out "$DEPS/models"
    fi
fi

log "ready"
