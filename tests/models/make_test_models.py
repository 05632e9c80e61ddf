#!/usr/bin/env python3
"""Writes the small per-pixel ONNX models of the backend tests, described in README.md here.

Usage: make_test_models.py [DIR]   (default: this folder). The output is the same bytes on every run.
"""

import os
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

F = [0.25, 0.5, 0.125, 0.0625]
NOT_F = [-w for w in F]
# file, input channels, [(output name, weights [K][C] of a 1x1 convolution, bias [K])], doc
MODELS = [
    ("exact_two_channel.onnx", 4, [("output", [NOT_F, F], [1.0, 0.0])],
     "output[1] = f = 0.25*c0 + 0.5*c1 + 0.125*c2 + 0.0625*c3, output[0] = 1 - f"),
    ("three_output_channels.onnx", 4, [("output", [NOT_F, F, [0.5, 0.0, 0.0, 0.0]], [1.0, 0.0, 0.25])],
     "output[0] = 1 - f, output[1] = f, output[2] = 0.5*c0 + 0.25"),
    ("three_input_channels.onnx", 3, [("output", [[-0.25, -0.5, -0.125], [0.25, 0.5, 0.125]], [1.0, 0.0])],
     "g = 0.25*c0 + 0.5*c1 + 0.125*c2; output[0] = 1 - g, output[1] = g"),
    ("two_outputs.onnx", 4, [("output", [NOT_F, F], [1.0, 0.0]), ("output2", [[0.0, 0.0, 0.0, -1.0]], [1.0])],
     "output: [1 - f, f] as exact_two_channel; output2: 1 - c3"),
]


def build(file_name, in_channels, outputs, doc):
    nodes, inits, graph_outputs = [], [], []
    for name, weights, bias in outputs:
        w = np.asarray(weights, dtype=np.float32)
        inits += [numpy_helper.from_array(w.reshape(*w.shape, 1, 1), name + "/w"),
                  numpy_helper.from_array(np.asarray(bias, dtype=np.float32), name + "/b")]
        nodes.append(helper.make_node("Conv", ["input", name + "/w", name + "/b"], [name], name=name,
                                      kernel_shape=[1, 1]))
        graph_outputs.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, [1, len(weights), 8, 16]))
    graph = helper.make_graph(nodes, os.path.splitext(file_name)[0],
                              [helper.make_tensor_value_info("input", TensorProto.FLOAT, [1, in_channels, 8, 16])],
                              graph_outputs, initializer=inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)],
                              producer_name="zynvbg-test-models", producer_version="1", doc_string=doc)
    model.ir_version = 8
    onnx.checker.check_model(model, full_check=True)
    return model


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    os.makedirs(out, exist_ok=True)
    for file_name, in_channels, outputs, doc in MODELS:
        path = os.path.join(out, file_name)
        with open(path + ".tmp", "wb") as f:
            f.write(build(file_name, in_channels, outputs, doc).SerializeToString(deterministic=True))
        os.replace(path + ".tmp", path)
        print(f"make_test_models: wrote {path}")


if __name__ == "__main__":
    main()
