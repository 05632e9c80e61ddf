#!/usr/bin/env python3
"""The background blur a Linux user would otherwise assemble in Python.

MediaPipe's image segmenter runs the selfie segmentation network (the same TFLite model the
library's model.winml is converted from), OpenCV blurs the whole frame and blends it with the
camera frame through the person mask:

    rgb     = cv2.cvtColor(frame, cv2.COLOR_BGR2RGB)
    mask    = segmenter.segment_for_video(rgb).confidence_masks[0]   # person probability, 0..1
    blurred = cv2.GaussianBlur(frame, (k, k), 0)                      # k = height / 13, odd
    out     = cv2.blendLinear(frame, blurred, mask, 1 - mask)

Frames are BGR arrays as cv2.VideoCapture delivers them. Used by run_bench.py; run on its own it
blurs a Y4M clip into another Y4M clip:

    .venv/bin/python bench/peer/peer_blur.py --model .deps/selfie_segmentation/selfie_segmentation_landscape.tflite in.y4m out.y4m
"""

import argparse
import sys

import cv2
import flatbuffers
import numpy as np
from mediapipe.tasks.metadata import metadata_schema_py_generated as md_fb
from mediapipe.tasks.metadata import schema_py_generated as tfl_fb
from mediapipe.tasks.python.core import base_options as mp_base_options
from mediapipe.tasks.python.vision import image_segmenter as mp_segmenter
from mediapipe.tasks.python.vision.core import image as mp_image
from mediapipe.tasks.python.vision.core import vision_task_running_mode as mp_mode


def with_normalisation_metadata(model_bytes):
    """The TFLite model with the metadata MediaPipe's segmenter insists on.

    The selfie segmentation files carry no metadata block, and the segmenter refuses a model
    without one. The block added here says what the network expects (RGB input scaled to 0..1,
    one grey-level confidence mask out), as tools/model/compare_models.py does; the network itself
    is untouched.
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
        return model_bytes
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


class PeerBlur:
    """Segment, blur, blend: one frame in, one frame out, as in a video loop."""

    def __init__(self, model_path, frame_height):
        with open(model_path, "rb") as f:
            data = with_normalisation_metadata(f.read())
        options = mp_segmenter.ImageSegmenterOptions(
            base_options=mp_base_options.BaseOptions(model_asset_buffer=data),
            running_mode=mp_mode.VisionTaskRunningMode.VIDEO,
            output_confidence_masks=True,
            output_category_mask=False,
        )
        self.segmenter = mp_segmenter.ImageSegmenter.create_from_options(options)
        self.kernel = max(3, int(round(frame_height / 13.0)) | 1)
        self.timestamp_ms = 0

    def process(self, bgr):
        rgb = cv2.cvtColor(bgr, cv2.COLOR_BGR2RGB)
        result = self.segmenter.segment_for_video(
            mp_image.Image(mp_image.ImageFormat.SRGB, rgb), self.timestamp_ms
        )
        self.timestamp_ms += 33
        mask = result.confidence_masks[0].numpy_view()
        if mask.ndim == 3:
            mask = mask[:, :, 0]
        mask = np.ascontiguousarray(mask, dtype=np.float32)
        blurred = cv2.GaussianBlur(bgr, (self.kernel, self.kernel), 0)
        return cv2.blendLinear(bgr, blurred, mask, 1.0 - mask)

    def close(self):
        self.segmenter.close()


# ---- Y4M (4:2:0) reading and writing, shared with run_bench.py --------------------------------


def read_y4m(path):
    """Yields (width, height, I420 bytes as a (h * 3 / 2, w) array) for every frame."""
    with open(path, "rb") as f:
        header = f.readline().split()
        if not header or header[0] != b"YUV4MPEG2":
            raise ValueError(f"{path}: not a Y4M file")
        fields = {item[:1]: item[1:] for item in header[1:]}
        width, height = int(fields[b"W"]), int(fields[b"H"])
        colour = fields.get(b"C", b"420jpeg")
        if not colour.startswith(b"420"):
            raise ValueError(f"{path}: only 4:2:0 Y4M is read, not {colour.decode()}")
        size = width * height * 3 // 2
        while True:
            line = f.readline()
            if not line:
                return
            if not line.startswith(b"FRAME"):
                raise ValueError(f"{path}: damaged frame header")
            data = f.read(size)
            if len(data) < size:
                return
            yield width, height, np.frombuffer(data, dtype=np.uint8).reshape(height * 3 // 2, width)


class Y4mWriter:
    def __init__(self, path, width, height, rate="30:1"):
        self.f = open(path, "wb")
        self.f.write(f"YUV4MPEG2 W{width} H{height} F{rate} Ip A1:1 C420jpeg\n".encode())

    def write(self, i420):
        self.f.write(b"FRAME\n")
        self.f.write(np.ascontiguousarray(i420).tobytes())

    def close(self):
        self.f.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--model", required=True, help="selfie_segmentation_landscape.tflite")
    parser.add_argument("input", help="Y4M clip")
    parser.add_argument("output", help="Y4M clip to write")
    args = parser.parse_args()
    peer = None
    writer = None
    for width, height, i420 in read_y4m(args.input):
        if peer is None:
            peer = PeerBlur(args.model, height)
            writer = Y4mWriter(args.output, width, height)
        out = peer.process(cv2.cvtColor(i420, cv2.COLOR_YUV2BGR_I420))
        writer.write(cv2.cvtColor(out, cv2.COLOR_BGR2YUV_I420))
    if peer is None:
        print(f"{args.input}: no frames", file=sys.stderr)
        return 1
    peer.close()
    writer.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
