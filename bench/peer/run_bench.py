#!/usr/bin/env python3
"""Per-frame latency and throughput of the library against the peer Python pipeline.

Run by scripts/bench.sh. In one run, on the same generated frames:

- the library through the zynvbg tool (frames in NV12, the time and the CPU time of each
  ZynNativeVideoProcessingProcessFrame call as zynvbg measures them), at 640x360, 1280x720 and
  1920x1080, for blur, a picture background and touch-up, with ONNX Runtime (processing mode 8)
  and OpenVINO (processing mode 7);
- the peer pipeline of peer_blur.py (MediaPipe selfie segmentation, OpenCV blur and blend) for
  the same blur, timed per frame around its segment, blur and blend steps, with its CPU time
  counted the same way as the library's: the calling thread's inside the step, plus that of
  every other thread of the process since the previous frame, less what the harness's own
  frame conversion ran on them;
- the flicker of both on a still clip: the mean absolute change of the output's luma between
  consecutive frames of an unchanging scene with camera-like sensor noise.

The first frames of every run are warm-up (first-use allocations, the person fading in through
the temporal smoothing of the mask) and are left out of every figure.

CPU time is user + system time of all threads that do the work, so that a pipeline that keeps
several cores busy for a short wall time shows what it really costs a machine that also runs a
call's video encoder and decoders. Writes out/bench/results.md (and prints it). Exit status 0
when everything ran, 1 when a run failed; the targets (speed and CPU against the peer, the two
backends close to each other) are reported, not enforced.
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
HD, SMALL = (1280, 720), (640, 360)
SPEEDUP_HD, SPEEDUP_SMALL = 8.0, 3.0  # per-frame time against the peer
CPU_RATIO_HD, CPU_LIMIT_HD_MS = 8.0, 4.0  # CPU per frame at 1280x720
BACKENDS_WITHIN = 1.3  # the two backends' medians at 1280x720


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


def summarise(micros, cpu_micros):
    """Median, 95th percentile and mean-based frames per second of per-frame times, and the
    median CPU time per frame, after the warm-up frames."""
    def kept(values):
        return values[WARMUP:] if len(values) > WARMUP + 2 else values

    ms = [m / 1000.0 for m in kept(micros)]
    ms_sorted = sorted(ms)
    p95 = ms_sorted[min(len(ms_sorted) - 1, int(round(0.95 * (len(ms_sorted) - 1))))]
    return {
        "median": statistics.median(ms),
        "p95": p95,
        "fps": 1000.0 / statistics.fmean(ms),
        "cpu": statistics.median(kept(cpu_micros)) / 1000.0,
        "frames": len(ms),
    }


def core_share(cpu_ms):
    """The share of one core a pipeline with this CPU time per frame takes at 30 frames per
    second."""
    return cpu_ms * 30.0 / 1000.0


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
        rows = list(csv.DictReader(f))
    micros = [float(row["library_us"]) for row in rows]
    cpu_micros = [float(row["library_cpu_us"]) for row in rows]
    stages = ""
    for line in done.stdout.splitlines():
        if line.startswith("library statistics: "):
            stages = line[len("library statistics: "):].strip()
    return micros, cpu_micros, stages


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


def other_threads_cpu():
    """CPU seconds so far of every thread of this process but the calling one."""
    return time.process_time() - time.thread_time()


def run_peer(model, clip, output=None):
    """Per-frame times and CPU times of the peer pipeline in microseconds, and its output luma
    planes when `output` is asked for (a list to append to)."""
    peer = None
    micros = []
    cpu_micros = []
    others = other_threads_cpu()
    for width, height, i420 in read_y4m(clip):
        if peer is None:
            with QuietStderr():
                peer = PeerBlur(model, height)
            others = other_threads_cpu()
        converting = other_threads_cpu()
        bgr = cv2.cvtColor(i420, cv2.COLOR_YUV2BGR_I420)  # what cv2.VideoCapture would deliver
        harness = other_threads_cpu() - converting  # OpenCV's pool threads may convert
        thread_start = time.thread_time()
        start = time.perf_counter()
        out = peer.process(bgr)
        micros.append((time.perf_counter() - start) * 1e6)
        calling = time.thread_time() - thread_start
        now = other_threads_cpu()
        cpu_micros.append((calling + now - others - harness) * 1e6)
        if output is not None:
            output.append(cv2.cvtColor(out, cv2.COLOR_BGR2YUV_I420)[:height].copy())
        others = other_threads_cpu()
    if peer is not None:
        peer.close()
    return micros, cpu_micros


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

    # A library start in a fresh work folder runs the processing-type evaluation in the
    # background, which would share the machine with the first timed runs. One automatic run
    # (processing mode 3) waits for it and stores its result, so later starts skip it.
    try:
        run_library(args.tool, work, clips[SIZES[0]], 3, ["--blur", "--frames", str(WARMUP)],
                    os.path.join(timings, "evaluation.csv"))
    except RuntimeError as error:
        print(f"[bench] the evaluation run failed: {error}", file=sys.stderr, flush=True)

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
                    micros, cpu_micros, stage = run_library(args.tool, work, clips[size], mode,
                                                            effect_args, csv_path)
                except RuntimeError as error:
                    # One failing run is reported in the table; the others still run.
                    print(f"[bench] failed: {error}", file=sys.stderr, flush=True)
                    failures.append(f"{backend} {effect} {w}x{h}: {str(error).splitlines()[-1]}")
                    continue
                lib[(mode, effect, size)] = summarise(micros, cpu_micros)
                stages[(mode, effect, size)] = stage
        print(f"[bench] peer pipeline blur       {w}x{h}", flush=True)
        peer_micros, peer_cpu = run_peer(args.model, clips[size])
        with open(os.path.join(timings, f"peer-blur-{w}x{h}.csv"), "w") as f:
            f.write("frame,peer_us,peer_cpu_us\n")
            f.writelines(f"{i},{int(m + 0.5)},{int(c + 0.5)}\n"
                         for i, (m, c) in enumerate(zip(peer_micros, peer_cpu)))
        peer[size] = summarise(peer_micros, peer_cpu)

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

    def time_cell(summary):
        return f"{summary['median']:.2f} ms ({summary['fps']:.0f} fps)"

    def cpu_cells(summary):
        return f"{summary['cpu']:.2f} ms | {100.0 * core_share(summary['cpu']):.0f}%"

    lines = []
    lines.append("## Library against the peer pipeline (background blur)")
    lines.append("")
    lines.append(f"Machine: {note}; load average {os.getloadavg()[0]:.1f} at the end. "
                 f"{args.frames} frames per clip, the first {WARMUP} left out; per-frame medians "
                 "(throughput from the mean). CPU time is user + system of every thread doing "
                 "the work.")
    lines.append("")
    lines.append("| size | pipeline | time per frame | CPU per frame | share of one core at 30 fps "
                 "| faster than the peer | less CPU than the peer |")
    lines.append("|---|---|---|---|---|---|---|")
    for size in SIZES:
        p = peer[size]
        for mode, backend in BACKENDS:
            s_ = lib.get((mode, "blur", size))
            if s_ is None:
                lines.append(f"| {size[0]}x{size[1]} | library, {backend} | failed | | | | |")
                continue
            lines.append(f"| {size[0]}x{size[1]} | library, {backend} | {time_cell(s_)} "
                         f"| {cpu_cells(s_)} | {p['median'] / s_['median']:.1f}x "
                         f"| {p['cpu'] / s_['cpu']:.1f}x |")
        lines.append(f"| {size[0]}x{size[1]} | peer (MediaPipe + OpenCV) | {time_cell(p)} "
                     f"| {cpu_cells(p)} | | |")
    lines.append("")
    hd = [lib.get((m, "blur", HD)) for m, _ in BACKENDS]
    small = [lib.get((m, "blur", SMALL)) for m, _ in BACKENDS]
    if all(hd) and all(small):
        def verdict(ok):
            return "met" if ok else "NOT met"

        medians = [s_["median"] for s_ in hd]
        apart = max(medians) / min(medians)
        fast_hd = min(peer[HD]["median"] / s_["median"] for s_ in hd)
        fast_small = min(peer[SMALL]["median"] / s_["median"] for s_ in small)
        cpu_hd = max(s_["cpu"] for s_ in hd)
        less_cpu = min(peer[HD]["cpu"] / s_["cpu"] for s_ in hd)
        lines.append("Targets, both backends:")
        lines.append("")
        lines.append(f"- 1280x720 medians within {BACKENDS_WITHIN}x of each other: {apart:.2f}x, "
                     f"{verdict(apart <= BACKENDS_WITHIN)}.")
        lines.append(f"- at least {SPEEDUP_HD:.0f}x faster than the peer at 1280x720: "
                     f"{fast_hd:.1f}x, {verdict(fast_hd >= SPEEDUP_HD)}; at least "
                     f"{SPEEDUP_SMALL:.0f}x at 640x360: {fast_small:.1f}x, "
                     f"{verdict(fast_small >= SPEEDUP_SMALL)}.")
        lines.append(f"- CPU per 1280x720 frame at most {CPU_LIMIT_HD_MS:.0f} ms: {cpu_hd:.2f} ms, "
                     f"{verdict(cpu_hd <= CPU_LIMIT_HD_MS)}; at least {CPU_RATIO_HD:.0f}x less "
                     f"than the peer: {less_cpu:.1f}x, {verdict(less_cpu >= CPU_RATIO_HD)}.")
    lines.append("")
    lines.append("## Every library run")
    lines.append("")
    lines.append("| backend | effect | size | median | p95 | throughput | CPU per frame "
                 "| share of one core at 30 fps | last frame's stages (ms) |")
    lines.append("|---|---|---|---|---|---|---|---|---|")
    for mode, backend in BACKENDS:
        for effect, _ in EFFECTS:
            for size in SIZES:
                s_ = lib.get((mode, effect, size))
                if s_ is None:
                    lines.append(f"| {backend} | {effect} | {size[0]}x{size[1]} | failed "
                                 "| | | | | |")
                    continue
                lines.append(
                    f"| {backend} | {effect} | {size[0]}x{size[1]} | {s_['median']:.2f} ms "
                    f"| {s_['p95']:.2f} ms | {s_['fps']:.0f} fps | {cpu_cells(s_)} "
                    f"| `{stages[(mode, effect, size)]}` |")
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
