#!/usr/bin/env python3
"""Writes the small ONNX models used by the exact-value tests of the inference backends.

Usage: make_test_models.py [--out DIR]   (default: the folder of this script)
Needs only the `onnx` and `numpy` packages. The output is the same bytes on every run.

Every model works per pixel (1x1 convolutions), has H = 8 and W = 16 (different, so a
width/height mix-up shows), float tensors, ONNX opset 17, IR version 8. With c0..c3 the input
channels of a pixel and

    f = 0.25*c0 + 0.5*c1 + 0.125*c2 + 0.0625*c3

(all weights are powers of two, so f is exact up to float32 rounding of the sum; compare with a
tolerance of 1e-6):

exact_two_channel.onnx
    input "input" [1,4,8,16] -> output "output" [1,2,8,16]
    output channel 0 = 1 - f, channel 1 = f.
    Channels 0..2 of the input are bytes 0..2 of each pixel (B, G, R) / 255 and channel 3 is the
    previous mask, so the weights tell which channel went where.

three_output_channels.onnx
    input "input" [1,4,8,16] -> output "output" [1,3,8,16]
    channel 0 = 1 - f, channel 1 = f, channel 2 = 0.5*c0 + 0.25.

three_input_channels.onnx
    input "input" [1,3,8,16] -> output "output" [1,2,8,16]
    with g = 0.25*c0 + 0.5*c1 + 0.125*c2: channel 0 = 1 - g, channel 1 = g.
    A model without the previous-mask channel.

two_outputs.onnx
    input "input" [1,4,8,16] -> two outputs, in this order:
    "output"  [1,2,8,16]: channel 0 = 1 - f, channel 1 = f (as exact_two_channel.onnx);
    "output2" [1,1,8,16]: 1 - c3.
"""

import argparse
import os
import sys

import numpy as np

try:
    import onnx
    from onnx import TensorProto, helper, numpy_helper
except ImportError as exc:
    sys.exit(f"make_test_models: missing Python package ({exc}); install tools/model/requirements.txt")

HEIGHT, WIDTH = 8, 16
OPSET, IR_VERSION = 17, 8

F_WEIGHTS = [0.25, 0.5, 0.125, 0.0625]


def pointwise(name, weights, bias):
    """A 1x1 convolution: out[k] = sum_c weights[k][c] * in[c] + bias[k]."""
    w = np.asarray(weights, dtype=np.float32)
    w = w.reshape(w.shape[0], w.shape[1], 1, 1)
    b = np.asarray(bias, dtype=np.float32)
    inits = [numpy_helper.from_array(w, name + "/w"), numpy_helper.from_array(b, name + "/b")]
    return inits, (name + "/w", name + "/b")


def build(file_name, in_channels, outputs, doc):
    """outputs: list of (output name, weights [K][C], bias [K])."""
    nodes, inits, graph_outputs = [], [], []
    for out_name, weights, bias in outputs:
        layer_inits, (w_name, b_name) = pointwise(out_name, weights, bias)
        inits += layer_inits
        nodes.append(
            helper.make_node("Conv", ["input", w_name, b_name], [out_name], name=out_name, kernel_shape=[1, 1])
        )
        graph_outputs.append(
            helper.make_tensor_value_info(out_name, TensorProto.FLOAT, [1, len(weights), HEIGHT, WIDTH])
        )
    graph = helper.make_graph(
        nodes,
        os.path.splitext(file_name)[0],
        [helper.make_tensor_value_info("input", TensorProto.FLOAT, [1, in_channels, HEIGHT, WIDTH])],
        graph_outputs,
        initializer=inits,
    )
    model = helper.make_model(
        graph,
        opset_imports=[helper.make_opsetid("", OPSET)],
        producer_name="zynvbg-test-models",
        producer_version="1",
        doc_string=doc,
    )
    model.ir_version = IR_VERSION
    onnx.checker.check_model(model, full_check=True)
    return model


def models():
    neg_f = [-w for w in F_WEIGHTS]
    two = [neg_f, F_WEIGHTS]
    yield build(
        "exact_two_channel.onnx",
        4,
        [("output", two, [1.0, 0.0])],
        "output[1] = f = 0.25*c0 + 0.5*c1 + 0.125*c2 + 0.0625*c3, output[0] = 1 - f",
    ), "exact_two_channel.onnx"
    yield build(
        "three_output_channels.onnx",
        4,
        [("output", two + [[0.5, 0.0, 0.0, 0.0]], [1.0, 0.0, 0.25])],
        "output[0] = 1 - f, output[1] = f, output[2] = 0.5*c0 + 0.25",
    ), "three_output_channels.onnx"
    yield build(
        "three_input_channels.onnx",
        3,
        [("output", [[-0.25, -0.5, -0.125], [0.25, 0.5, 0.125]], [1.0, 0.0])],
        "g = 0.25*c0 + 0.5*c1 + 0.125*c2; output[0] = 1 - g, output[1] = g",
    ), "three_input_channels.onnx"
    yield build(
        "two_outputs.onnx",
        4,
        [("output", two, [1.0, 0.0]), ("output2", [[0.0, 0.0, 0.0, -1.0]], [1.0])],
        "output: [1 - f, f] as exact_two_channel; output2: 1 - c3",
    ), "two_outputs.onnx"


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write the small ONNX test models.")
    parser.add_argument("--out", default=os.path.dirname(os.path.abspath(__file__)))
    args = parser.parse_args(argv)
    os.makedirs(args.out, exist_ok=True)
    for model, file_name in models():
        path = os.path.join(args.out, file_name)
        data = model.SerializeToString(deterministic=True)
        tmp = path + ".tmp"
        with open(tmp, "wb") as f:
            f.write(data)
        os.replace(tmp, path)
        print(f"make_test_models: wrote {path} ({len(data)} bytes)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
