#!/usr/bin/env bash
# install_test.sh tree BUILD SOURCE: install, move the tree, build host.c against it (pkg-config,
#   find_package), blur from it alone (both hosts, automatic selection, zynvbg); a missing
#   evaluator or model folder is logged.   install_test.sh package BUILD: the Debian package.
set -euo pipefail
T="$(mktemp -d)"
trap 'rm -rf "$T"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

if [[ "$1" == package ]]; then
    cpack -G DEB --config "$2/CPackConfig.cmake" -B "$T" >/dev/null
    DEB="$(ls "$T"/zynvbg_*_amd64.deb)"
    dpkg-deb -c "$DEB" | awk '{print $1 " " $6}' | sed 's|^\(.\)[^ ]* \./|\1 /|' >"$T/files"
    for want in "- /usr/lib/libZYNNativeVBG.so.1.0.0" "l /usr/lib/libZYNNativeVBG.so.1" \
        "l /usr/lib/libZYNNativeVBG.so" "- /usr/include/zyn_native_vbg.h" "- /usr/bin/zynvbg" \
        "- /usr/libexec/zynvbg/EvalVBGProcessingType" "- /usr/lib/zynvbg/libonnxruntime.so.1" \
        "- /usr/lib/zynvbg/plugins_cpu.xml" "- /usr/lib/zynvbg/libopenvino_intel_cpu_plugin.so" \
        "- /usr/share/zynvbg/models/model.winml" "- /usr/share/zynvbg/models/general/model.winml" \
        "- /usr/lib/pkgconfig/zynnativevbg.pc" "- /usr/lib/cmake/ZYNNativeVBG/ZYNNativeVBGConfig.cmake"; do
        grep -qxF -e "$want" "$T/files" || fail "package lacks $want"
    done
    ! grep -E '^- /usr/lib/(lib)?(onnxruntime|openvino|tbb)' "$T/files" || fail "runtime on the library path"
    DEPENDS="$(dpkg-deb -f "$DEB" Depends)"
    for dep in libavformat59 libavcodec59 libswscale6 libavutil57 libspdlog1.10 libfmt9 libyuv0; do
        [[ "$DEPENDS" == *"$dep"* ]] || fail "Depends lacks $dep: $DEPENDS"
    done
    exit 0
fi

BUILD="$2" SOURCE="$3"
# Installed in one place, used from another: the pkg-config file and the CMake package as well.
cmake --install "$BUILD" --prefix "$T/p" >/dev/null
mv "$T/p" "$T/moved"
M="$T/moved"
cc -Wall -Werror -o "$T/host-pc" "$SOURCE/tests/install/host.c" \
    $(PKG_CONFIG_PATH="$M/lib/pkgconfig" pkg-config --cflags --libs zynnativevbg)
cmake -S "$SOURCE/tests/install/consumer" -B "$T/consumer" -DCMAKE_PREFIX_PATH="$M" >/dev/null
cmake --build "$T/consumer" >/dev/null

# Library configurations with their own log and cache folders.
for name in onnx auto noeval nomodels; do
    mkdir -p "$T/$name/cache"
    models="$M/share/zynvbg/models"
    [[ $name == nomodels ]] && models="$M/share/zynvbg/nomodels"
    printf '{"modelsPath": "%s", "logPath": "%s", "fileCachePath": "%s"}' \
        "$models" "$T/$name/logs" "$T/$name/cache" >"$T/$name.json"
done
LD_LIBRARY_PATH="$M/lib" "$T/host-pc" --frame "$T/frame.yuv"

# Everything below runs from the moved tree alone: where a mount namespace is available, the
# build folder and the set-up dependencies are hidden behind empty folders.
cat >"$T/run.sh" <<RUN
set -euo pipefail
export LD_LIBRARY_PATH="$M/lib"
"$T/host-pc" "$T/onnx.json" 8
"$T/consumer/host" "$T/auto.json" 3
grep -q '"OpenVinoCpu"' "$T/auto/cache/PT_CONFIG.json"
! grep -q "Plugin configuration" "$T/auto/logs/ZYNNativeVBG.log" || exit 1
"$M/bin/zynvbg" --help | grep -- --library >/dev/null
"$M/bin/zynvbg" -q -i "$T/frame.yuv" --raw-size 320x240 --raw-format nv12 -o "$T/out.yuv" \
    --blur --work-dir "$T/tool"
"$T/host-pc" --check "$T/out.yuv"
rm "$M/libexec/zynvbg/EvalVBGProcessingType"
"$T/host-pc" "$T/noeval.json" 3
grep -q "Evaluator program not found.*$M/libexec/zynvbg/EvalVBGProcessingType" \
    "$T/noeval/logs/ZYNNativeVBG.log"
[[ ! -e "$T/noeval/cache/PT_CONFIG.json" ]]
set +e; "$T/host-pc" "$T/nomodels.json" 8; [[ \$? == 2 ]] || exit 1; set -e
grep -q "$M/share/zynvbg/nomodels/model.winml" "$T/nomodels/logs/ZYNNativeVBG.log"
RUN
WRAP=() HIDE=""
if unshare -m true 2>/dev/null; then
    WRAP=(unshare -m)
    for dir in "$BUILD" "$SOURCE/.deps" "$SOURCE/.venv"; do
        HIDE+="mount -t tmpfs tmpfs '$(readlink -f "$dir")' && "
    done
else
    echo "no mount namespace here: the build folder stays visible" >&2
fi
"${WRAP[@]}" bash -c "$HIDE bash -x '$T/run.sh'" || fail "installed tree"
