#!/usr/bin/env python3
"""Checks the built segmentation models against the TFLite models they were converted from.

Usage: compare_models.py [--models .deps/models] [--source .deps/selfie_segmentation]
                         [--out out/model_compare] [--tolerance 0.02] [--runs 200]

For each model variant (landscape 144x256 = models/model.winml, general 256x256 =
models/general/model.winml) and each test picture, the person probability (output channel 1)
computed by ONNX Runtime is compared with the probability of the source TFLite model run by
MediaPipe's own TFLite inference (which carries the Convolution2DTransposeBias kernel). The
picture is first cropped and scaled to the model size, so both runtimes see exactly the same
pixels. It also checks that output channel 0 is 1 - channel 1, that the fourth input channel
changes nothing, that the astronaut mask covers the person and not the background (the masks are
written as PNG files to --out), and reports the ONNX Runtime inference time (median of --runs).

Exit status: 0 when every check passes, 1 when one fails, 2 when a Python package is missing.
Extra packages: .venv/bin/pip install -r tools/model/requirements-compare.txt
"""

import argparse
import os
import statistics
import sys
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
REQUIREMENTS = os.path.join("tools", "model", "requirements-compare.txt")

try:
    import flatbuffers
    import numpy as np
    import onnxruntime as ort
    from PIL import Image, ImageDraw
    from mediapipe.tasks.metadata import metadata_schema_py_generated as md_fb
    from mediapipe.tasks.metadata import schema_py_generated as tfl_fb
    from mediapipe.tasks.python.core import base_options as mp_base_options
    from mediapipe.tasks.python.vision import image_segmenter as mp_segmenter
    from mediapipe.tasks.python.vision.core import image as mp_image
except ImportError as exc:
    print(
        f"compare_models: missing Python package ({exc}).\n"
        f"Install the comparison requirements first: .venv/bin/pip install -r {REQUIREMENTS}",
        file=sys.stderr,
    )
    sys.exit(2)

SKIMAGE_DATA = "/usr/lib/python3/dist-packages/skimage/data"

# (label, built model relative to --models, source file, height, width)
VARIANTS = (
    ("landscape", "model.winml", "selfie_segmentation_landscape.tflite", 144, 256),
    ("general", os.path.join("general", "model.winml"), "selfie_segmentation.tflite", 256, 256),
)

# Rough outline of the person in astronaut.png (512 x 512 picture coordinates, x, y), hair to the
# bottom edge, leaving out the helmet she holds and the flag.
ASTRONAUT_PERSON = [
    (160, 45), (195, 18), (255, 15), (295, 40), (302, 100), (290, 150), (305, 185), (306, 255),
    (340, 280), (358, 320), (360, 345), (300, 365), (285, 420), (278, 512), (25, 512), (20, 420),
    (30, 300), (55, 260), (112, 205), (118, 170), (150, 148), (152, 100),
]
# Points that must be person (> 0.5): centre of the face, middle of the torso.
ASTRONAUT_PERSON_POINTS = {"face centre": (225, 120), "torso": (190, 270)}
# Points that must be background (< 0.5): the wall between her head and the model shuttle, the
# middle of the flag. The top corners of each crop are checked as well; the bottom corners only
# when the crop ends above her elbows (below that the suit and the helmet reach the picture edge).
ASTRONAUT_BACKGROUND_POINTS = {"wall": (345, 60), "flag": (35, 150)}
BACKGROUND_INSET = 6


def load_rgb(name):
    im = Image.open(os.path.join(SKIMAGE_DATA, name))
    return im.convert("RGB")


def crop_box(size, aspect, top_fraction):
    """Largest box of the given width/height aspect, centred horizontally, at top_fraction."""
    w, h = size
    if w / h > aspect:
        cw, ch = round(h * aspect), h
    else:
        cw, ch = w, round(w / aspect)
    left = (w - cw) // 2
    top = round((h - ch) * top_fraction)
    return (left, top, left + cw, top + ch)


# (label, file, flip left-right, top fraction of the crop, is the astronaut)
PICTURES = (
    ("astronaut", "astronaut.png", False, 0.0, True),
    ("camera", "camera.png", False, 0.15, False),
    ("astronaut-flipped", "astronaut.png", True, 0.25, False),
    ("coffee", "coffee.png", False, 0.5, False),
)


def prepare(picture, height, width):
    """The picture cropped to the model aspect and scaled to model size: (uint8 HxWx3 RGB, box)."""
    label, file_name, flip, top_fraction, _ = picture
    im = load_rgb(file_name)
    if flip:
        im = im.transpose(Image.Transpose.FLIP_LEFT_RIGHT)
    box = crop_box(im.size, width / height, top_fraction)
    im = im.resize((width, height), Image.Resampling.BILINEAR, box=box)
    return np.asarray(im, dtype=np.uint8).copy(), box


def with_normalisation_metadata(model_bytes):
    """The TFLite model with metadata telling MediaPipe to feed pixel / 255 (mean 0, std 255).

    The network itself is untouched: a metadata buffer is appended, nothing else changes.
    """
    norm = md_fb.NormalizationOptionsT()
    norm.mean, norm.std = [0.0], [255.0]
    unit = md_fb.ProcessUnitT()
    unit.optionsType = md_fb.ProcessUnitOptions.NormalizationOptions
    unit.options = norm

    def image_content(color_space):
        props = md_fb.ImagePropertiesT()
        props.colorSpace = color_space
        content = md_fb.ContentT()
        content.contentPropertiesType = md_fb.ContentProperties.ImageProperties
        content.contentProperties = props
        return content

    stats = md_fb.StatsT()
    stats.max, stats.min = [1.0], [0.0]
    tensor_in = md_fb.TensorMetadataT()
    tensor_in.name = "image"
    tensor_in.content = image_content(md_fb.ColorSpaceType.RGB)
    tensor_in.processUnits = [unit]
    tensor_in.stats = stats
    tensor_out = md_fb.TensorMetadataT()
    tensor_out.name = "segmentation_masks"
    tensor_out.content = image_content(md_fb.ColorSpaceType.GRAYSCALE)
    subgraph = md_fb.SubGraphMetadataT()
    subgraph.inputTensorMetadata = [tensor_in]
    subgraph.outputTensorMetadata = [tensor_out]
    meta = md_fb.ModelMetadataT()
    meta.name = "person segmentation"
    meta.subgraphMetadata = [subgraph]
    meta.minParserVersion = "1.0.0"
    builder = flatbuffers.Builder(0)
    builder.Finish(meta.Pack(builder), b"M001")
    meta_bytes = bytes(builder.Output())

    model = tfl_fb.ModelT.InitFromObj(tfl_fb.Model.GetRootAsModel(model_bytes, 0))
    if model.metadata and any(m.name == b"TFLITE_METADATA" for m in model.metadata):
        raise RuntimeError("the source model already carries metadata")
    buffer = tfl_fb.BufferT()
    buffer.data = np.frombuffer(meta_bytes, dtype=np.uint8)
    model.buffers.append(buffer)
    entry = tfl_fb.MetadataT()
    entry.name = "TFLITE_METADATA"
    entry.buffer = len(model.buffers) - 1
    model.metadata = (model.metadata or []) + [entry]
    builder = flatbuffers.Builder(0)
    builder.Finish(model.Pack(builder), b"TFL3")
    return bytes(builder.Output())


class Reference:
    """The source TFLite model run by MediaPipe's image segmenter (CPU)."""

    def __init__(self, tflite_path):
        with open(tflite_path, "rb") as f:
            data = with_normalisation_metadata(f.read())
        options = mp_segmenter.ImageSegmenterOptions(
            base_options=mp_base_options.BaseOptions(model_asset_buffer=data),
            output_confidence_masks=True,
            output_category_mask=False,
        )
        self.segmenter = mp_segmenter.ImageSegmenter.create_from_options(options)

    def probability(self, rgb):
        result = self.segmenter.segment(mp_image.Image(mp_image.ImageFormat.SRGB, rgb))
        if len(result.confidence_masks) != 1:
            raise RuntimeError(f"reference returned {len(result.confidence_masks)} masks, expected 1")
        mask = np.array(result.confidence_masks[0].numpy_view(), dtype=np.float32)
        return mask.reshape(rgb.shape[:2])

    def close(self):
        self.segmenter.close()


def model_input(rgb, prev_mask=None):
    """The tensor the library feeds: bytes 0..2 of each BGRA pixel (B, G, R) / 255, previous mask."""
    h, w, _ = rgb.shape
    unit = np.arange(256, dtype=np.float32) / np.float32(255.0)
    x = np.zeros((1, 4, h, w), dtype=np.float32)
    x[0, 0] = unit[rgb[..., 2]]
    x[0, 1] = unit[rgb[..., 1]]
    x[0, 2] = unit[rgb[..., 0]]
    if prev_mask is not None:
        x[0, 3] = prev_mask
    return x


def make_session(path, sequential=False):
    """A CPU session configured as the library's ONNX Runtime backend does (parallel execution
    mode, memory pattern, CPU arena, default thread counts), or with sequential execution."""
    options = ort.SessionOptions()
    options.execution_mode = ort.ExecutionMode.ORT_SEQUENTIAL if sequential else ort.ExecutionMode.ORT_PARALLEL
    options.enable_mem_pattern = True
    options.enable_cpu_mem_arena = True
    return ort.InferenceSession(path, options, providers=["CPUExecutionProvider"])


def check_contract(session, height, width):
    problems = []
    ins, outs = session.get_inputs(), session.get_outputs()
    if [i.name for i in ins] != ["input"] or list(ins[0].shape) != [1, 4, height, width]:
        problems.append(f"inputs are {[(i.name, i.shape) for i in ins]}, expected input [1, 4, {height}, {width}]")
    if [o.name for o in outs] != ["output"] or list(outs[0].shape) != [1, 2, height, width]:
        problems.append(
            f"outputs are {[(o.name, o.shape) for o in outs]}, expected output [1, 2, {height}, {width}]"
        )
    if ins and ins[0].type != "tensor(float)" or outs and outs[0].type != "tensor(float)":
        problems.append("input or output is not float")
    return problems


def to_model_coords(point, box, height, width, flip=False, picture_width=512):
    x, y = point
    if flip:
        x = picture_width - 1 - x
    left, top, right, bottom = box
    mx = (x + 0.5 - left) * width / (right - left) - 0.5
    my = (y + 0.5 - top) * height / (bottom - top) - 0.5
    return int(round(mx)), int(round(my))


def astronaut_checks(prob, box, height, width, out_dir, label, rgb):
    """Person points > 0.5, crop corners < 0.5, IoU with the rough outline; writes the PNGs."""
    problems, notes = [], []
    for name, point in ASTRONAUT_PERSON_POINTS.items():
        mx, my = to_model_coords(point, box, height, width)
        if not (0 <= mx < width and 0 <= my < height):
            problems.append(f"{name} {point} falls outside the {label} crop")
            continue
        value = float(prob[my, mx])
        notes.append(f"{name} p={value:.3f}")
        if value <= 0.5:
            problems.append(f"{name} at model pixel ({mx}, {my}) has p={value:.3f}, expected > 0.5")
    i = BACKGROUND_INSET
    background = {
        name: to_model_coords(point, box, height, width)
        for name, point in ASTRONAUT_BACKGROUND_POINTS.items()
    }
    background["top-left corner"] = (i, i)
    background["top-right corner"] = (width - 1 - i, i)
    if box[3] <= 300:
        background["bottom-left corner"] = (i, height - 1 - i)
        background["bottom-right corner"] = (width - 1 - i, height - 1 - i)
    for name, (mx, my) in background.items():
        if not (0 <= mx < width and 0 <= my < height):
            problems.append(f"{name} falls outside the {label} crop")
            continue
        value = float(prob[my, mx])
        notes.append(f"{name} p={value:.3f}")
        if value >= 0.5:
            problems.append(f"{name} at model pixel ({mx}, {my}) has p={value:.3f}, expected < 0.5")

    outline = Image.new("L", (width, height), 0)
    polygon = [to_model_coords(p, box, height, width) for p in ASTRONAUT_PERSON]
    ImageDraw.Draw(outline).polygon(polygon, fill=255)
    expected = np.asarray(outline) > 127
    predicted = prob > 0.5
    iou = float((expected & predicted).sum()) / float(max((expected | predicted).sum(), 1))
    notes.append(f"IoU with the rough outline (helmet left out) {iou:.3f}")

    os.makedirs(out_dir, exist_ok=True)
    mask_path = os.path.join(out_dir, f"astronaut_{label}_mask.png")
    overlay = rgb.astype(np.float32) * (0.35 + 0.65 * prob[..., None])
    overlay[..., 1] += 80.0 * prob
    sheet = np.concatenate(
        [
            rgb,
            np.clip(overlay, 0, 255).astype(np.uint8),
            np.repeat((expected * 255).astype(np.uint8)[..., None], 3, 2),
        ],
        axis=1,
    )
    sheet_path = os.path.join(out_dir, f"astronaut_{label}_sheet.png")
    Image.fromarray(sheet, "RGB").save(sheet_path)
    notes.append(f"mask {mask_path}, picture | overlay | outline {sheet_path}")
    return problems, notes


def time_session(session, height, width, runs):
    x = model_input(np.full((height, width, 3), 128, np.uint8))
    for _ in range(20):
        session.run(["output"], {"input": x})
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        session.run(["output"], {"input": x})
        times.append((time.perf_counter() - start) * 1000.0)
    return statistics.median(times), min(times), max(times)


def openvino_check(model_path, inputs, reference_probs):
    """OpenVINO CPU against the reference: {precision label: (max, mean |difference|)}.

    Measured twice: with the plugin's default inference precision (bf16 on CPUs with AMX or
    AVX512-BF16) and with the f32 precision hint."""
    try:
        import openvino as ov
    except ImportError:
        return None
    core = ov.Core()
    model = core.read_model(model_path)
    results = {}
    for label, config in (("default", {}), ("f32 hint", {"INFERENCE_PRECISION_HINT": "f32"})):
        compiled = core.compile_model(model, "CPU", config)
        precision = compiled.get_property("INFERENCE_PRECISION_HINT").get_type_name()
        worst, total = 0.0, 0.0
        for x, ref in zip(inputs, reference_probs):
            y = compiled({"input": x})[compiled.output("output")]
            worst = max(worst, float(np.abs(y[0, 1] - ref).max()))
            total += float(np.abs(y[0, 1] - ref).mean())
        results[f"{label} ({precision})"] = (worst, total / len(inputs), label == "f32 hint")
    return results


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--models", default=os.path.join(ROOT, ".deps", "models"))
    parser.add_argument("--source", default=os.path.join(ROOT, ".deps", "selfie_segmentation"))
    parser.add_argument("--out", default=os.path.join(ROOT, "out", "model_compare"))
    parser.add_argument("--tolerance", type=float, default=0.02)
    parser.add_argument("--runs", type=int, default=200)
    args = parser.parse_args(argv)

    print(f"onnxruntime {ort.__version__}; reference: MediaPipe image segmenter (TFLite, CPU)")
    failures = []
    for label, rel_model, source_name, height, width in VARIANTS:
        model_path = os.path.join(args.models, rel_model)
        source_path = os.path.join(args.source, source_name)
        for path in (model_path, source_path):
            if not os.path.isfile(path):
                print(f"compare_models: {path} is missing (run scripts/setup.sh)", file=sys.stderr)
                return 1
        print(f"\n== {label}: {model_path} ({height}x{width}) against {source_name}")
        session = make_session(model_path)
        problems = check_contract(session, height, width)
        failures += [f"{label}: {p}" for p in problems]
        if problems:
            for p in problems:
                print(f"  FAIL {p}")
            continue
        reference = Reference(source_path)
        rng = np.random.default_rng(7)
        inputs, reference_probs = [], []
        for picture in PICTURES:
            rgb, box = prepare(picture, height, width)
            ref = reference.probability(rgb)
            x = model_input(rgb)
            y = session.run(["output"], {"input": x})[0]
            prob = y[0, 1]
            diff = float(np.abs(prob - ref).max())
            mean_diff = float(np.abs(prob - ref).mean())
            complement = float(np.abs(y[0, 0] + y[0, 1] - 1.0).max())
            # The fourth channel (previous mask) must not change the answer.
            random_prev = rng.random((height, width), np.float32)
            y_prev = session.run(["output"], {"input": model_input(rgb, random_prev)})[0]
            prev_effect = float(np.abs(y_prev - y).max())
            ok = diff <= args.tolerance and complement <= 1e-5 and prev_effect == 0.0
            print(
                f"  {picture[0]:<18} max |p_onnx - p_tflite| = {diff:.6f} (mean {mean_diff:.2e}), "
                f"person pixels {float((ref > 0.5).mean()) * 100:5.1f}%, "
                f"max |c0 + c1 - 1| = {complement:.1e}, previous-mask effect {prev_effect:.1e}"
                f"  {'ok' if ok else 'FAIL'}"
            )
            if not ok:
                failures.append(f"{label}/{picture[0]}: difference {diff:.6f}, complement {complement:.1e}, "
                                f"previous-mask effect {prev_effect:.1e}")
            inputs.append(x)
            reference_probs.append(ref)
            os.makedirs(args.out, exist_ok=True)
            Image.fromarray(np.clip(prob * 255.0, 0, 255).astype(np.uint8), "L").save(
                os.path.join(args.out, f"{picture[0]}_{label}_mask.png"))
            if picture[4]:
                problems, notes = astronaut_checks(prob, box, height, width, args.out, label, rgb)
                print("    astronaut: " + "; ".join(notes))
                for p in problems:
                    print(f"    FAIL {p}")
                failures += [f"{label}/astronaut: {p}" for p in problems]
        reference.close()

        ov_results = openvino_check(model_path, inputs, reference_probs)
        if ov_results is None:
            print("  OpenVINO: package not importable, skipped")
        else:
            for name, (worst, mean, gated) in ov_results.items():
                ok = worst <= args.tolerance
                verdict = ("ok" if ok else "FAIL") if gated else "(not checked: precision depends on the CPU)"
                print(
                    f"  OpenVINO CPU {name:<16} max |p - p_tflite| = {worst:.6f} (mean {mean:.2e}) "
                    f"over the pictures  {verdict}"
                )
                if gated and not ok:
                    failures.append(f"{label}: OpenVINO f32 difference {worst:.6f}")

        sessions = (("library settings, parallel", session), ("sequential", make_session(model_path, True)))
        for mode, sess in sessions:
            median, fastest, slowest = time_session(sess, height, width, args.runs)
            print(f"  ONNX Runtime inference ({mode}): median {median:.3f} ms over {args.runs} runs "
                  f"(min {fastest:.3f}, max {slowest:.3f})")

    print()
    if failures:
        print(f"compare_models: {len(failures)} check(s) failed:")
        for f in failures:
            print(f"  {f}")
        return 1
    print(f"compare_models: all checks passed (tolerance {args.tolerance})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
