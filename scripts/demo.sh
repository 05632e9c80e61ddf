#!/usr/bin/env bash
# The main job on a built-in sample: sets the machine up, builds the library and the zynvbg tool,
# makes a short 1280x720 clip of a person with a moving camera, runs it through background blur,
# a picture background and a presenter layout, and leaves the videos and a contact sheet in
# out/demo/ (or the folder given as the first argument).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
OUT="${1:-$ROOT/out/demo}"
BUILD="$ROOT/build"
SAMPLES=/usr/lib/python3/dist-packages/skimage/data

log() { printf '[demo] %s\n' "$*"; }

cd "$ROOT"
bash scripts/setup.sh

log "building the library and zynvbg in $BUILD"
cmake -S . -B "$BUILD" -G Ninja >/dev/null
cmake --build "$BUILD" -j2 --target ZYNNativeVBG zynvbg
ZYNVBG="$BUILD/zynvbg"

mkdir -p "$OUT"
MEDIA="$OUT/media"
mkdir -p "$MEDIA"
ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }

# The camera: the astronaut portrait (public domain), enlarged, with a 16:9 window that drifts
# sideways and bobs up and down as a hand-held camera would; 3.5 s at 30 fps.
log "making the sample clip (3.5 s, 1280x720, 30 fps)"
ff -loop 1 -framerate 30 -t 3.5 -i "$SAMPLES/astronaut.png" \
    -vf "scale=2048:2048:flags=bicubic,crop=w=1792:h=1008:x='112+96*sin(2*PI*t/3.5)':y='48+40*sin(4*PI*t/3.5)',scale=1280:720,format=yuv420p" \
    -c:v libx264 -preset veryfast -crf 16 "$MEDIA/camera.mp4"

# A picture background: an evening sky over the sea.
ff -f lavfi -i "color=c=black:s=1280x720,format=rgb24" \
    -vf "geq=r='106+138*Y/470':g='76+86*Y/470':b='147-50*Y/470',drawbox=x=0:y=470:w=1280:h=250:color=0x1d3557:t=fill,drawbox=x=0:y=466:w=1280:h=4:color=0xffd166:t=fill,drawbox=x=930:y=330:w=120:h=120:color=0xffd166@0.9:t=fill" \
    -frames:v 1 "$MEDIA/background.png"

# The shared screen: a slide with a title bar and a bar chart.
ff -f lavfi -i "color=c=white:s=1280x720" \
    -vf "drawbox=x=0:y=0:w=1280:h=110:color=0x264653:t=fill,drawbox=x=60:y=40:w=520:h=30:color=white:t=fill,drawbox=x=140:y=520:w=160:h=140:color=0x2a9d8f:t=fill,drawbox=x=380:y=400:w=160:h=260:color=0xe9c46a:t=fill,drawbox=x=620:y=300:w=160:h=360:color=0xf4a261:t=fill,drawbox=x=860:y=200:w=160:h=460:color=0xe76f51:t=fill,drawbox=x=100:y=660:w=1000:h=4:color=0x264653:t=fill" \
    -frames:v 1 "$MEDIA/slides.png"

# The conference room behind presenter and screen: a wall, a wood panel and a floor.
ff -f lavfi -i "color=c=black:s=1280x720,format=rgb24" \
    -vf "geq=r='223-64*Y/560':g='231-52*Y/560':b='236-44*Y/560',drawbox=x=0:y=560:w=1280:h=160:color=0x5b4636:t=fill,drawbox=x=0:y=552:w=1280:h=8:color=0x3d2f24:t=fill" \
    -frames:v 1 "$MEDIA/room.png"

WORK="$OUT/work"
run() {
    local name="$1"
    shift
    log "zynvbg: $name"
    "$ZYNVBG" -i "$MEDIA/camera.mp4" -o "$OUT/$name.mp4" --work-dir "$WORK" "$@"
}
run blur --blur
run background --background "$MEDIA/background.png"
run presenter --weatherman conferenceroom --weatherman-background "$MEDIA/room.png" \
    --presentation "$MEDIA/slides.png"

# Contact sheet: two moments (frames 20 and 80), each as original | blur | background |
# presenter, 640x360 per picture.
log "making the contact sheet"
row() {
    local n="$1"
    ff -i "$MEDIA/camera.mp4" -i "$OUT/blur.mp4" -i "$OUT/background.mp4" -i "$OUT/presenter.mp4" \
        -filter_complex "[0:v]select='eq(n\,$n)',scale=640:360[a];[1:v]select='eq(n\,$n)',scale=640:360[b];[2:v]select='eq(n\,$n)',scale=640:360[c];[3:v]select='eq(n\,$n)',scale=640:360[d];[a][b][c][d]hstack=inputs=4" \
        -frames:v 1 "$MEDIA/row-$n.png"
}
row 20
row 80
ff -i "$MEDIA/row-20.png" -i "$MEDIA/row-80.png" -filter_complex vstack=inputs=2 \
    "$OUT/contact_sheet.png"

log "done. Output folder: $OUT"
log "  blur.mp4, background.mp4, presenter.mp4: the three runs (camera: media/camera.mp4)"
log "  contact_sheet.png: frames 20 and 80, original | blur | background | presenter"
log "  work/logs/ZYNNativeVBG.log: the library's log"
