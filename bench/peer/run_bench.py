#!/usr/bin/env python3
"""Per-frame latency and throughput of the library against the peer Python pipeline.

Run by scripts/bench.sh. In one run, on the same generated frames:

- the library through the zynvbg tool (frames in NV12, the time of each
  ZynNativeVideoProcessingProcessFrame call as zynvbg measures it), at 640x360, 1280x720 and
  1920x1080, for blur, a picture background and touch-up, with ONNX Runtime (processing mode 8)
  and OpenVINO (processing mode 7);
- the peer pipeline of peer_blur.py (MediaPipe selfie segmentation, OpenCV blur and blend) for
  the same blur, timed per frame around its segment, blur and blend steps;
- the flicker of both on a still clip: the mean absolute change of the output's luma between
  consecutive frames of an unchanging scene with camera-like sensor noise.

The first frames of every run are warm-up (first-use allocations, the person fading in through
the temporal smoothing of the mask) and are left out of every figure.

Writes out/bench/results.md (and prints it). Exit status 0 when everything ran, 1 when a run
failed; the 5x requirement at 1280x720 is reported, not enforced.
"""

import argparse
import csv
import datetime
import os
import platform
import statistics
import subprocess
import sys
import time

import cv2  # noqa: E402
import numpy as np  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from peer_blur import PeerBlur, Y4mWriter, read_y4m  # noqa: E402

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
ASTRONAUT = "/usr/lib/python3/dist-packages/skimage/data/astronaut.png"
SIZES = [(640, 360), (1280, 720), (1920, 1080)]
BACKENDS = [(8, "ONNX Runtime"), (7, "OpenVINO")]
EFFECTS = [
    ("blur", ["--blur"]),
    ("background", ["--background", None]),  # filled with the generated picture
    ("touch-up", ["--touchup", "0.05"]),
]
WARMUP = 5
REQUIRED_SPEEDUP = 5.0


def ffmpeg(*args):
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", *args], check=True)


def make_clips(folder, frames):
    """Moving-camera clips of the astronaut portrait at every size, a still noisy clip at
    1280x720, and a background picture."""
    os.makedirs(folder, exist_ok=True)
    seconds = frames / 30.0
    clips = {}
    for w, h in SIZES:
        path = os.path.join(folder, f"moving-{w}x{h}.y4m")
        ffmpeg(
            "-loop", "1", "-framerate", "30", "-t", f"{seconds:.3f}", "-i", ASTRONAUT,
            "-vf",
            "scale=2048:2048:flags=bicubic,"
            "crop=w=1792:h=1008:x='112+96*sin(2*PI*t/3.5)':y='48+40*sin(4*PI*t/3.5)',"
            f"scale={w}:{h},format=yuv420p",
            "-frames:v", str(frames), path,
        )
        clips[(w, h)] = path
    still = os.path.join(folder, "still-1280x720.y4m")
    # The same window every frame; temporal noise stands in for a camera sensor.
    ffmpeg(
        "-loop", "1", "-framerate", "30", "-i", ASTRONAUT,
        "-vf",
        "scale=2048:2048:flags=bicubic,crop=w=1792:h=1008:x=112:y=48,scale=1280:720,"
        "noise=alls=3:allf=t,format=yuv420p",
        "-frames:v", str(frames), still,
    )
    background = os.path.join(folder, "background.png")
    ffmpeg(
        "-f", "lavfi", "-i", "color=c=black:s=1920x1080,format=rgb24",
        "-vf", "geq=r='106+138*Y/H':g='76+86*Y/H':b='147-50*Y/H'",
        "-frames:v", "1", background,
    )
    return clips, still, background


def summarise(micros):
    """Median, 95th percentile and mean-based frames per second of per-frame times after the
    warm-up frames."""
    kept = micros[WARMUP:] if len(micros) > WARMUP + 2 else micros
    ms = [m / 1000.0 for m in kept]
    ms_sorted = sorted(ms)
    p95 = ms_sorted[min(len(ms_sorted) - 1, int(round(0.95 * (len(ms_sorted) - 1))))]
    return {
        "median": statistics.median(ms),
        "p95": p95,
        "fps": 1000.0 / statistics.fmean(ms),
        "frames": len(ms),
    }


def run_library(tool, work, clip, mode, effect_args, timings, output="null"):
    cmd = [tool, "-i", clip, "-o", output, "--processing-mode", str(mode), "--timings", timings,
           "--work-dir", work, *effect_args]
    done = subprocess.run(cmd, capture_output=True, text=True)
    if done.returncode != 0:
        why = (f"killed by signal {-done.returncode}" if done.returncode < 0
               else f"exit {done.returncode}")
        detail = done.stderr.strip().splitlines()[-1:] or [""]
        raise RuntimeError(f"{' '.join(cmd)}\n{why} {detail[0]}".rstrip())
    with open(timings) as f:
        micros = [float(row["library_us"]) for row in csv.DictReader(f)]
    stages = ""
    for line in done.stdout.splitlines():
        if line.startswith("library statistics: "):
            stages = line[len("library statistics: "):].strip()
    return micros, stages


class QuietStderr:
    """Sends the process's stderr to /dev/null for a while: MediaPipe's native start-up notes
    are written there directly, past Python's own streams."""

    def __enter__(self):
        sys.stderr.flush()
        self.saved = os.dup(2)
        null = os.open(os.devnull, os.O_WRONLY)
        os.dup2(null, 2)
        os.close(null)

    def __exit__(self, *exc):
        os.dup2(self.saved, 2)
        os.close(self.saved)
        return False


def run_peer(model, clip, output=None):
    """Per-frame times of the peer pipeline in microseconds, and its output luma planes when
    `output` is asked for (a list to append to)."""
    peer = None
    micros = []
    for width, height, i420 in read_y4m(clip):
        if peer is None:
            with QuietStderr():
                peer = PeerBlur(model, height)
        bgr = cv2.cvtColor(i420, cv2.COLOR_YUV2BGR_I420)  # what cv2.VideoCapture would deliver
        start = time.perf_counter()
        out = peer.process(bgr)
        micros.append((time.perf_counter() - start) * 1e6)
        if output is not None:
            output.append(cv2.cvtColor(out, cv2.COLOR_BGR2YUV_I420)[:height].copy())
    if peer is not None:
        peer.close()
    return micros


def luma_planes(y4m):
    return [i420[:height].copy() for _, height, i420 in read_y4m(y4m)]


def flicker(planes):
    """Mean absolute luma change between consecutive frames, after the warm-up frames."""
    kept = planes[WARMUP:]
    changes = [np.mean(np.abs(a.astype(np.int16) - b.astype(np.int16)))
               for a, b in zip(kept, kept[1:])]
    return float(np.mean(changes)) if changes else float("nan")


def machine_note():
    cpu = platform.processor() or platform.machine()
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    load = os.getloadavg()
    return (f"{cpu}, {os.cpu_count()} logical CPUs, load average {load[0]:.1f} at start; "
            f"{datetime.datetime.now().strftime('%Y-%m-%d %H:%M')}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tool", default=os.path.join(ROOT, "build", "zynvbg"))
    parser.add_argument("--out", default=os.path.join(ROOT, "out", "bench"))
    parser.add_argument("--model", default=os.path.join(
        ROOT, ".deps", "selfie_segmentation", "selfie_segmentation_landscape.tflite"))
    parser.add_argument("--frames", type=int, default=60, help="frames per clip (default 60)")
    args = parser.parse_args()
    if args.frames < WARMUP + 5:
        parser.error(f"--frames must be at least {WARMUP + 5}")

    out = os.path.abspath(args.out)
    work = os.path.join(out, "work")
    timings = os.path.join(out, "timings")
    os.makedirs(timings, exist_ok=True)
    note = machine_note()
    print(f"[bench] {note}", flush=True)
    print("[bench] making the clips", flush=True)
    clips, still, background = make_clips(os.path.join(out, "clips"), args.frames)

    lib = {}     # (mode, effect, size) -> summary
    stages = {}  # (mode, effect, size) -> last frame's stage times from the library
    peer = {}    # size -> summary
    failures = []
    for size in SIZES:
        w, h = size
        for mode, backend in BACKENDS:
            for effect, template in EFFECTS:
                effect_args = [background if a is None else a for a in template]
                print(f"[bench] library {backend:12s} {effect:10s} {w}x{h}", flush=True)
                csv_path = os.path.join(timings, f"lib-{mode}-{effect}-{w}x{h}.csv")
                try:
                    micros, stage = run_library(args.tool, work, clips[size], mode, effect_args,
                                                csv_path)
                except RuntimeError as error:
                    # One failing run is reported in the table; the others still run.
                    print(f"[bench] failed: {error}", file=sys.stderr, flush=True)
                    failures.append(f"{backend} {effect} {w}x{h}: {str(error).splitlines()[-1]}")
                    continue
                lib[(mode, effect, size)] = summarise(micros)
                stages[(mode, effect, size)] = stage
        print(f"[bench] peer pipeline blur       {w}x{h}", flush=True)
        peer_micros = run_peer(args.model, clips[size])
        with open(os.path.join(timings, f"peer-blur-{w}x{h}.csv"), "w") as f:
            f.write("frame,peer_us\n")
            f.writelines(f"{i},{int(m + 0.5)}\n" for i, m in enumerate(peer_micros))
        peer[size] = summarise(peer_micros)

    print("[bench] flicker on the still clip", flush=True)
    flick = {"input (camera noise)": flicker(luma_planes(still))}
    for mode, backend in BACKENDS:
        y4m = os.path.join(out, f"still-library-{mode}.y4m")
        try:
            run_library(args.tool, work, still, mode, ["--blur", "--format", "i420"],
                        os.path.join(timings, f"still-{mode}.csv"), output=y4m)
        except RuntimeError as error:
            print(f"[bench] failed: {error}", file=sys.stderr, flush=True)
            failures.append(f"{backend} blur on the still clip: {str(error).splitlines()[-1]}")
            flick[f"library blur, {backend}"] = float("nan")
            continue
        flick[f"library blur, {backend}"] = flicker(luma_planes(y4m))
        os.remove(y4m)
    peer_planes = []
    run_peer(args.model, still, output=peer_planes)
    flick["peer blur (MediaPipe + OpenCV)"] = flicker(peer_planes)

    def cell(summary):
        if summary is None:
            return "failed"
        return f"{summary['median']:.2f} ms ({summary['fps']:.0f} fps)"

    def ratio(summary, reference):
        if summary is None:
            return "-"
        return f"{reference['median'] / summary['median']:.1f}x"

    lines = []
    lines.append("## Library against the peer pipeline (background blur)")
    lines.append("")
    lines.append(f"Machine: {note}. {args.frames} frames per clip, the first {WARMUP} left out; "
                 "per-frame medians.")
    lines.append("")
    lines.append("| size | library, ONNX Runtime | library, OpenVINO | peer (MediaPipe + OpenCV) "
                 "| speed-up, ONNX Runtime | speed-up, OpenVINO |")
    lines.append("|---|---|---|---|---|---|")
    for size in SIZES:
        ort = lib.get((8, "blur", size))
        ov = lib.get((7, "blur", size))
        p = peer[size]
        lines.append(f"| {size[0]}x{size[1]} | {cell(ort)} | {cell(ov)} | {cell(p)} "
                     f"| {ratio(ort, p)} | {ratio(ov, p)} |")
    lines.append("")
    hd = (1280, 720)
    medians = [lib[(m, "blur", hd)]["median"] for m, _ in BACKENDS if (m, "blur", hd) in lib]
    if medians:
        speedup = peer[hd]["median"] / min(medians)
        verdict = "meets" if speedup >= REQUIRED_SPEEDUP else "falls short of"
        lines.append(f"At 1280x720 the library is {speedup:.1f}x faster per frame than the peer "
                     f"pipeline (faster backend), which {verdict} the {REQUIRED_SPEEDUP:.0f}x "
                     "target.")
    lines.append("")
    lines.append("## Every library run")
    lines.append("")
    lines.append("| backend | effect | size | median | p95 | throughput | last frame's stages (ms) |")
    lines.append("|---|---|---|---|---|---|---|")
    for mode, backend in BACKENDS:
        for effect, _ in EFFECTS:
            for size in SIZES:
                s = lib.get((mode, effect, size))
                if s is None:
                    lines.append(f"| {backend} | {effect} | {size[0]}x{size[1]} | failed | | | |")
                    continue
                lines.append(
                    f"| {backend} | {effect} | {size[0]}x{size[1]} | {s['median']:.2f} ms "
                    f"| {s['p95']:.2f} ms | {s['fps']:.0f} fps | `{stages[(mode, effect, size)]}` |")
    lines.append("")
    lines.append("## Flicker on a still clip (1280x720)")
    lines.append("")
    lines.append("Mean absolute change of the luma between consecutive frames of an unchanging "
                 "scene with sensor noise (0 to 255; lower is steadier).")
    lines.append("")
    lines.append("| pipeline | mean abs luma change |")
    lines.append("|---|---|")
    for name, value in flick.items():
        lines.append(f"| {name} | {value:.3f} |")
    lines.append("")
    if failures:
        lines.append("Runs that failed:")
        lines.append("")
        lines.extend(f"- {failure}" for failure in failures)
        lines.append("")
    report = "\n".join(lines)
    with open(os.path.join(out, "results.md"), "w") as f:
        f.write(report)
    print()
    print(report)
    print(f"[bench] written to {os.path.join(out, 'results.md')}")
    return 1 if failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (RuntimeError, subprocess.CalledProcessError) as error:
        print(f"[bench] failed: {error}", file=sys.stderr)
        sys.exit(1)
