#!/usr/bin/env python3
"""Builds the segmentation models ("model.winml", ONNX) from the selfie segmentation TFLite files.

Usage: build_models.py --source DIR --out DIR

Writes
  OUT/model.winml          from selfie_segmentation_landscape.tflite, input 144 x 256 (the default)
  OUT/general/model.winml  from selfie_segmentation.tflite, input 256 x 256

Model contract of the written files:
  input  "input"  float [1, 4, H, W]: channels 0..2 are bytes 0..2 of each 4-byte pixel (B, G, R)
                  scaled by 1/255, channel 3 is the previous smoothed mask (read by nothing);
  output "output" float [1, 2, H, W]: channel 0 = 1 - p, channel 1 = p, p = person probability.

What the conversion changes with respect to the TFLite network:
  - NHWC tensors become NCHW; fp16 constants (behind DEQUANTIZE) are stored as fp32.
  - The RGB input of the first convolution is reordered to B, G, R and a fourth input channel with
    zero weights is added, so the network sees exactly the same values as before.
  - The final one-channel transposed convolution becomes a two-channel one (weights -w, w; bias
    -b, b) so that the closing Sigmoid emits [1 - p, p].
  - TFLite SAME padding becomes explicit ONNX pads with the odd extra pixel at the end; MEAN over
    the spatial axes and whole-map AVERAGE_POOL_2D become GlobalAveragePool; RESIZE_BILINEAR
    becomes Resize (linear) with the coordinate mode its flags select.

Every operator, option and shape is checked; anything unexpected ends the build with a message and
a non-zero exit status. The result is byte-for-byte the same for the same source files.
"""

import argparse
import hashlib
import os
import sys
import tempfile

import numpy as np

try:
    import onnx
    import tflite
    from onnx import TensorProto, helper, numpy_helper
except ImportError as exc:  # pragma: no cover - reported to the person running setup
    sys.exit(f"build_models: missing Python package ({exc}); install tools/model/requirements.txt")

OPSET = 17
IR_VERSION = 8
PRODUCER = "zynvbg-build-models"
PRODUCER_VERSION = "1"

VARIANTS = (
    # (source file, output path relative to --out, expected input height, width)
    ("selfie_segmentation_landscape.tflite", "model.winml", 144, 256),
    ("selfie_segmentation.tflite", os.path.join("general", "model.winml"), 256, 256),
)


class ConversionError(Exception):
    pass


def fail(msg):
    raise ConversionError(msg)


def _enum_names(enum_cls):
    return {v: k for k, v in vars(enum_cls).items() if not k.startswith("_") and isinstance(v, int)}


OP_NAMES = _enum_names(tflite.BuiltinOperator)
OPTION_NAMES = _enum_names(tflite.BuiltinOptions)
ACTIVATION_NAMES = _enum_names(tflite.ActivationFunctionType)
PADDING_NAMES = _enum_names(tflite.Padding)

# TFLite tensor types this converter understands.
TFL_FLOAT32 = tflite.TensorType.FLOAT32
TFL_FLOAT16 = tflite.TensorType.FLOAT16
TFL_INT32 = tflite.TensorType.INT32


class Source:
    """Read-only view of one TFLite flatbuffer."""

    def __init__(self, path):
        with open(path, "rb") as f:
            self.data = f.read()
        if len(self.data) < 8 or self.data[4:8] != b"TFL3":
            fail(f"{path}: not a TFLite flatbuffer (identifier {self.data[4:8]!r})")
        self.sha256 = hashlib.sha256(self.data).hexdigest()
        self.model = tflite.Model.GetRootAsModel(self.data, 0)
        if self.model.SubgraphsLength() != 1:
            fail(f"{path}: expected one subgraph, found {self.model.SubgraphsLength()}")
        self.graph = self.model.Subgraphs(0)
        self.opcodes = []
        for i in range(self.model.OperatorCodesLength()):
            oc = self.model.OperatorCodes(i)
            code = max(oc.BuiltinCode(), oc.DeprecatedBuiltinCode())
            name = OP_NAMES.get(code, f"builtin#{code}")
            if name == "CUSTOM":
                custom = oc.CustomCode()
                name = "CUSTOM:" + (custom.decode() if custom else "")
            self.opcodes.append(name)

    def tensor(self, index):
        return self.graph.Tensors(index)

    def name(self, index):
        return self.tensor(index).Name().decode()

    def shape(self, index):
        t = self.tensor(index)
        return tuple(int(d) for d in t.ShapeAsNumpy()) if t.ShapeLength() else ()

    def ttype(self, index):
        return self.tensor(index).Type()

    def buffer_data(self, index):
        """Raw bytes of a constant tensor, or None when the tensor has no data."""
        t = self.tensor(index)
        buf = self.model.Buffers(t.Buffer())
        if buf.DataLength():
            return buf.DataAsNumpy().tobytes()
        if buf.Offset() > 1:
            return self.data[buf.Offset() : buf.Offset() + buf.Size()]
        return None

    def constant(self, index):
        """The value of a constant tensor in its stored type, shaped."""
        raw = self.buffer_data(index)
        if raw is None:
            return None
        ttype = self.ttype(index)
        dtype = {TFL_FLOAT32: np.float32, TFL_FLOAT16: np.float16, TFL_INT32: np.int32}.get(ttype)
        if dtype is None:
            fail(f"constant {self.name(index)!r} has unsupported tensor type {ttype}")
        value = np.frombuffer(raw, dtype=np.dtype(dtype).newbyteorder("<"))
        shape = self.shape(index)
        if value.size != int(np.prod(shape, dtype=np.int64)):
            fail(f"constant {self.name(index)!r}: {value.size} values for shape {shape}")
        return value.reshape(shape)

    def ops(self):
        for i in range(self.graph.OperatorsLength()):
            op = self.graph.Operators(i)
            ins = [int(op.Inputs(j)) for j in range(op.InputsLength())]
            outs = [int(op.Outputs(j)) for j in range(op.OutputsLength())]
            yield i, self.opcodes[op.OpcodeIndex()], op, ins, outs


def options(op, expected_name, cls):
    got = OPTION_NAMES.get(op.BuiltinOptionsType(), str(op.BuiltinOptionsType()))
    if got != expected_name:
        fail(f"expected {expected_name}, found {got}")
    table = op.BuiltinOptions()
    opt = cls()
    opt.Init(table.Bytes, table.Pos)
    return opt


def same_pads(in_size, kernel, stride, dilation=1):
    """TFLite SAME padding for one axis: (before, after), the odd pixel at the end."""
    out = -(-in_size // stride)
    effective = (kernel - 1) * dilation + 1
    total = max((out - 1) * stride + effective - in_size, 0)
    return total // 2, total - total // 2


class Converter:
    def __init__(self, src):
        self.src = src
        self.nodes = []
        self.initializers = []
        self.consts = {}  # TFLite tensor index -> float32/int32 numpy value (NHWC / TFLite layout)
        self.names = {}  # TFLite tensor index -> ONNX value name (NCHW activations)
        self.expected = {}  # ONNX value name -> expected NCHW shape, checked after shape inference
        self.used_names = set()
        self.consumers = {}

    # --- helpers --------------------------------------------------------------------------
    def unique(self, base):
        base = "".join(c if c.isalnum() or c in "_/.-" else "_" for c in base)
        name, n = base, 1
        while name in self.used_names:
            n += 1
            name = f"{base}_{n}"
        self.used_names.add(name)
        return name

    def add_init(self, base, value):
        name = self.unique(base)
        self.initializers.append(numpy_helper.from_array(np.ascontiguousarray(value), name))
        return name

    def activation_of(self, index):
        if index in self.consts:
            fail(f"operand {self.src.name(index)!r} is a constant where an activation was expected")
        if index not in self.names:
            fail(f"tensor {self.src.name(index)!r} is used before it is produced")
        return self.names[index]

    def define(self, index, onnx_name=None):
        shape = self.src.shape(index)
        if len(shape) != 4:
            fail(f"activation {self.src.name(index)!r} has rank {len(shape)}, expected 4 (NHWC)")
        if self.src.ttype(index) != TFL_FLOAT32:
            fail(f"activation {self.src.name(index)!r} is not float32")
        name = onnx_name or self.unique(self.src.name(index))
        self.names[index] = name
        n, h, w, c = shape
        self.expected[name] = (n, c, h, w)
        return name

    def fused(self, act, out_index, pre_name):
        """Emits the fused activation after pre_name; returns the name holding the result."""
        kind = ACTIVATION_NAMES.get(act, str(act))
        if kind == "NONE":
            return pre_name
        out = self.define(out_index)
        if kind == "RELU":
            self.nodes.append(helper.make_node("Relu", [pre_name], [out], name=out))
        elif kind == "RELU6":
            lo = self.add_init(out + "/min", np.array(0.0, np.float32))
            hi = self.add_init(out + "/max", np.array(6.0, np.float32))
            self.nodes.append(helper.make_node("Clip", [pre_name, lo, hi], [out], name=out))
        else:
            fail(f"fused activation {kind} is not supported")
        return out

    def conv_output(self, act, out_index):
        """Name for a convolution result: the final tensor, or a pre-activation temporary."""
        if ACTIVATION_NAMES.get(act) == "NONE":
            return self.define(out_index)
        return self.unique(self.src.name(out_index) + "/preact")

    # --- operators --------------------------------------------------------------------------
    def conv2d(self, op, ins, outs, first_input):
        opt = options(op, "Conv2DOptions", tflite.Conv2DOptions)
        if len(ins) != 3 or ins[2] < 0:
            fail("CONV_2D without bias")
        x_idx, w_idx, b_idx = ins
        weight, bias = self.const_of(w_idx), self.const_of(b_idx)
        if opt.DilationHFactor() != 1 or opt.DilationWFactor() != 1:
            fail("dilated CONV_2D is not supported")
        o, kh, kw, i = weight.shape
        _, h, w, c = self.src.shape(x_idx)
        if c != i or bias.shape != (o,):
            fail(f"CONV_2D shapes: input {self.src.shape(x_idx)}, kernel {weight.shape}, bias {bias.shape}")
        onnx_w = weight.transpose(0, 3, 1, 2)  # [O, I, kh, kw]
        if first_input:
            # The network wants R, G, B; the host feeds B, G, R plus the previous mask.
            if i != 3:
                fail(f"first convolution takes {i} channels, expected 3 (RGB)")
            onnx_w = np.concatenate(
                [onnx_w[:, 2:3], onnx_w[:, 1:2], onnx_w[:, 0:1], np.zeros_like(onnx_w[:, :1])], axis=1
            )
            x_name = "input"
        else:
            x_name = self.activation_of(x_idx)
        pads = self.pads(opt.Padding(), h, w, kh, kw, opt.StrideH(), opt.StrideW())
        out = self.conv_output(opt.FusedActivationFunction(), outs[0])
        wn = self.add_init(self.src.name(w_idx), onnx_w)
        bn = self.add_init(self.src.name(b_idx), bias)
        self.nodes.append(
            helper.make_node(
                "Conv",
                [x_name, wn, bn],
                [out],
                name=out,
                kernel_shape=[kh, kw],
                strides=[opt.StrideH(), opt.StrideW()],
                pads=pads,
                dilations=[1, 1],
                group=1,
            )
        )
        self.fused(opt.FusedActivationFunction(), outs[0], out)

    def depthwise(self, op, ins, outs):
        opt = options(op, "DepthwiseConv2DOptions", tflite.DepthwiseConv2DOptions)
        if len(ins) != 3 or ins[2] < 0:
            fail("DEPTHWISE_CONV_2D without bias")
        x_idx, w_idx, b_idx = ins
        weight, bias = self.const_of(w_idx), self.const_of(b_idx)
        if opt.DilationHFactor() != 1 or opt.DilationWFactor() != 1:
            fail("dilated DEPTHWISE_CONV_2D is not supported")
        one, kh, kw, oc = weight.shape
        _, h, w, c = self.src.shape(x_idx)
        mult = opt.DepthMultiplier()
        if one != 1 or oc != c * mult or bias.shape != (oc,) or mult != 1:
            fail(
                f"DEPTHWISE_CONV_2D shapes: input {self.src.shape(x_idx)}, kernel {weight.shape}, "
                f"multiplier {mult}"
            )
        onnx_w = weight.transpose(3, 0, 1, 2)  # [C, 1, kh, kw]
        pads = self.pads(opt.Padding(), h, w, kh, kw, opt.StrideH(), opt.StrideW())
        out = self.conv_output(opt.FusedActivationFunction(), outs[0])
        wn = self.add_init(self.src.name(w_idx), onnx_w)
        bn = self.add_init(self.src.name(b_idx), bias)
        self.nodes.append(
            helper.make_node(
                "Conv",
                [self.activation_of(x_idx), wn, bn],
                [out],
                name=out,
                kernel_shape=[kh, kw],
                strides=[opt.StrideH(), opt.StrideW()],
                pads=pads,
                dilations=[1, 1],
                group=c,
            )
        )
        self.fused(opt.FusedActivationFunction(), outs[0], out)

    def pads(self, padding, h, w, kh, kw, sh, sw):
        kind = PADDING_NAMES.get(padding, str(padding))
        if kind == "VALID":
            return [0, 0, 0, 0]
        if kind != "SAME":
            fail(f"padding {kind} is not supported")
        top, bottom = same_pads(h, kh, sh)
        left, right = same_pads(w, kw, sw)
        return [top, left, bottom, right]

    def unary(self, onnx_op, ins, outs):
        if len(ins) != 1 or len(outs) != 1:
            fail(f"{onnx_op}: expected one input and one output")
        x = self.activation_of(ins[0])
        out = self.define(outs[0])
        self.nodes.append(helper.make_node(onnx_op, [x], [out], name=out))

    def binary(self, op, onnx_op, opt_name, opt_cls, ins, outs):
        opt = options(op, opt_name, opt_cls)
        if len(ins) != 2:
            fail(f"{onnx_op}: expected two inputs")
        a, b = (self.activation_of(i) for i in ins)
        sa, sb, so = self.src.shape(ins[0]), self.src.shape(ins[1]), self.src.shape(outs[0])
        if np.broadcast_shapes(sa, sb) != so:
            fail(f"{onnx_op}: shapes {sa} and {sb} do not broadcast to {so}")
        act = opt.FusedActivationFunction()
        out = self.conv_output(act, outs[0])
        self.nodes.append(helper.make_node(onnx_op, [a, b], [out], name=out))
        self.fused(act, outs[0], out)

    def global_pool(self, ins, outs):
        x = self.activation_of(ins[0])
        n, h, w, c = self.src.shape(ins[0])
        if self.src.shape(outs[0]) != (n, 1, 1, c):
            fail(f"pooling output {self.src.shape(outs[0])} is not a global average of {(n, h, w, c)}")
        out = self.define(outs[0])
        self.nodes.append(helper.make_node("GlobalAveragePool", [x], [out], name=out))

    def mean(self, op, ins, outs):
        opt = options(op, "ReducerOptions", tflite.ReducerOptions)
        axes = self.const_of(ins[1], dtype=np.int32)
        if sorted(int(a) for a in axes.reshape(-1)) != [1, 2] or not opt.KeepDims():
            fail(f"MEAN over axes {axes.tolist()} keep_dims={opt.KeepDims()} is not a global pool")
        self.global_pool(ins[:1], outs)

    def average_pool(self, op, ins, outs):
        opt = options(op, "Pool2DOptions", tflite.Pool2DOptions)
        _, h, w, _ = self.src.shape(ins[0])
        if (opt.FilterHeight(), opt.FilterWidth()) != (h, w) or PADDING_NAMES.get(opt.Padding()) != "VALID":
            fail(
                f"AVERAGE_POOL_2D {opt.FilterHeight()}x{opt.FilterWidth()} over {h}x{w} "
                f"({PADDING_NAMES.get(opt.Padding())}) is not a global pool"
            )
        if ACTIVATION_NAMES.get(opt.FusedActivationFunction()) != "NONE":
            fail("AVERAGE_POOL_2D with a fused activation is not supported")
        self.global_pool(ins, outs)

    def resize_bilinear(self, op, ins, outs):
        opt = options(op, "ResizeBilinearOptions", tflite.ResizeBilinearOptions)
        size = self.const_of(ins[1], dtype=np.int32).reshape(-1)
        n, _, _, c = self.src.shape(ins[0])
        oh, ow = int(size[0]), int(size[1])
        if self.src.shape(outs[0]) != (n, oh, ow, c):
            fail(f"RESIZE_BILINEAR to {oh}x{ow} but output shape is {self.src.shape(outs[0])}")
        if opt.AlignCorners() and opt.HalfPixelCenters():
            fail("RESIZE_BILINEAR with both align_corners and half_pixel_centers")
        if opt.AlignCorners():
            mode = "align_corners"
        elif opt.HalfPixelCenters():
            mode = "half_pixel"
        else:
            mode = "asymmetric"
        out = self.define(outs[0])
        sizes = self.add_init(out + "/sizes", np.array([n, c, oh, ow], np.int64))
        self.nodes.append(
            helper.make_node(
                "Resize",
                [self.activation_of(ins[0]), "", "", sizes],
                [out],
                name=out,
                mode="linear",
                coordinate_transformation_mode=mode,
            )
        )

    def transpose_conv_bias(self, op, ins, outs, two_channel_output):
        """Convolution2DTransposeBias: custom options are a raw {padding, stride_w, stride_h} struct."""
        raw = op.CustomOptionsAsNumpy().tobytes() if op.CustomOptionsLength() else b""
        if len(raw) != 12:
            fail(f"Convolution2DTransposeBias options are {len(raw)} bytes, expected 12")
        padding, stride_w, stride_h = (int(v) for v in np.frombuffer(raw, "<i4"))
        if padding not in (1, 2):  # 1 = SAME, 2 = VALID in this struct's own coding
            fail(f"Convolution2DTransposeBias padding code {padding} is not supported")
        if len(ins) != 3:
            fail("Convolution2DTransposeBias expects input, kernel and bias")
        x_idx, w_idx, b_idx = ins
        weight, bias = self.const_of(w_idx), self.const_of(b_idx)
        o, kh, kw, i = weight.shape
        n, h, w, c = self.src.shape(x_idx)
        if c != i or bias.shape != (o,):
            fail(f"Convolution2DTransposeBias shapes: input {(n, h, w, c)}, kernel {weight.shape}")
        if (kh, kw) != (stride_h, stride_w):
            fail(f"Convolution2DTransposeBias kernel {kh}x{kw} differs from stride {stride_h}x{stride_w}")
        if self.src.shape(outs[0]) != (n, h * stride_h, w * stride_w, o):
            fail(f"Convolution2DTransposeBias output shape {self.src.shape(outs[0])} unexpected")
        onnx_w = weight.transpose(3, 0, 1, 2)  # [I, O, kh, kw]
        if two_channel_output:
            if o != 1:
                fail(f"the final map has {o} channels, expected 1")
            onnx_w = np.concatenate([-onnx_w, onnx_w], axis=1)
            bias = np.concatenate([-bias, bias])
        wn = self.add_init(self.src.name(w_idx), onnx_w)
        bn = self.add_init(self.src.name(b_idx), bias)
        out = self.unique(self.src.name(outs[0]))
        self.names[outs[0]] = out
        self.expected[out] = (n, onnx_w.shape[1], h * stride_h, w * stride_w)
        self.nodes.append(
            helper.make_node(
                "ConvTranspose",
                [self.activation_of(x_idx), wn, bn],
                [out],
                name=out,
                kernel_shape=[kh, kw],
                strides=[stride_h, stride_w],
                pads=[0, 0, 0, 0],
            )
        )

    def const_of(self, index, dtype=np.float32):
        if index not in self.consts:
            value = self.src.constant(index)
            if value is None:
                fail(f"tensor {self.src.name(index)!r} should be a constant")
            if value.dtype == np.float16:
                fail(f"fp16 constant {self.src.name(index)!r} used without DEQUANTIZE")
            self.consts[index] = value
        value = self.consts[index]
        if value.dtype != dtype:
            fail(f"constant {self.src.name(index)!r} is {value.dtype}, expected {np.dtype(dtype)}")
        return value

    # --- driver -----------------------------------------------------------------------------
    def run(self, height, width):
        src = self.src
        g = src.graph
        if g.InputsLength() != 1 or g.OutputsLength() != 1:
            fail(f"expected one input and one output, found {g.InputsLength()} and {g.OutputsLength()}")
        in_idx, out_idx = int(g.Inputs(0)), int(g.Outputs(0))
        if src.shape(in_idx) != (1, height, width, 3) or src.ttype(in_idx) != TFL_FLOAT32:
            fail(f"input {src.name(in_idx)!r} is {src.shape(in_idx)}, expected float (1, {height}, {width}, 3)")
        if src.shape(out_idx) != (1, height, width, 1) or src.ttype(out_idx) != TFL_FLOAT32:
            fail(
                f"output {src.name(out_idx)!r} is {src.shape(out_idx)}, "
                f"expected float (1, {height}, {width}, 1)"
            )

        ops = list(src.ops())
        for _, _, _, ins, _ in ops:
            for t in ins:
                self.consumers[t] = self.consumers.get(t, 0) + 1
        if self.consumers.get(out_idx):
            fail("the graph output is also read inside the graph")

        # The output must be LOGISTIC(transposed conv), each read once: that pair becomes the
        # two-channel transposed convolution and the Sigmoid that yields [1 - p, p].
        producer = {o: (name, ins) for _, name, _, ins, outs in ops for o in outs}
        last_name, last_ins = producer.get(out_idx, (None, None))
        if last_name != "LOGISTIC":
            fail(f"the output is produced by {last_name}, expected LOGISTIC")
        pre_idx = last_ins[0]
        pre_op = producer.get(pre_idx, (None,))[0]
        if pre_op != "CUSTOM:Convolution2DTransposeBias" or self.consumers[pre_idx] != 1:
            fail("the output LOGISTIC does not read a Convolution2DTransposeBias result used once")
        if self.consumers.get(in_idx) != 1:
            fail("the graph input is read by more than one operator")

        for i, name, op, ins, outs in ops:
            try:
                self.convert_op(name, op, ins, outs, in_idx, out_idx, pre_idx)
            except ConversionError as exc:
                fail(f"operator {i} ({name}, output {src.name(outs[0]) if outs else '?'}): {exc}")
        if out_idx not in self.names:
            fail("the graph output was never produced")

    def convert_op(self, name, op, ins, outs, in_idx, out_idx, pre_idx):
        if name == "DEQUANTIZE":
            value = self.src.constant(ins[0])
            if value is None or value.dtype != np.float16:
                fail(f"DEQUANTIZE of {self.src.name(ins[0])!r} is not an fp16 constant")
            if self.src.ttype(outs[0]) != TFL_FLOAT32 or self.src.shape(outs[0]) != value.shape:
                fail("DEQUANTIZE output is not float32 of the same shape")
            self.consts[outs[0]] = value.astype(np.float32)
            return
        if in_idx in ins and name != "CONV_2D":
            fail(f"the graph input is read by {name}, expected CONV_2D")
        if name == "CONV_2D":
            self.conv2d(op, ins, outs, first_input=in_idx in ins)
        elif name == "DEPTHWISE_CONV_2D":
            self.depthwise(op, ins, outs)
        elif name == "RELU":
            self.unary("Relu", ins, outs)
        elif name == "HARD_SWISH":
            self.unary("HardSwish", ins, outs)
        elif name == "LOGISTIC":
            if outs[0] == out_idx:
                x = self.activation_of(ins[0])
                self.names[out_idx] = "output"
                self.expected["output"] = (1, 2) + self.src.shape(out_idx)[1:3]
                self.nodes.append(helper.make_node("Sigmoid", [x], ["output"], name="output"))
            else:
                self.unary("Sigmoid", ins, outs)
        elif name == "ADD":
            self.binary(op, "Add", "AddOptions", tflite.AddOptions, ins, outs)
        elif name == "MUL":
            self.binary(op, "Mul", "MulOptions", tflite.MulOptions, ins, outs)
        elif name == "MEAN":
            self.mean(op, ins, outs)
        elif name == "AVERAGE_POOL_2D":
            self.average_pool(op, ins, outs)
        elif name == "RESIZE_BILINEAR":
            self.resize_bilinear(op, ins, outs)
        elif name == "CUSTOM:Convolution2DTransposeBias":
            self.transpose_conv_bias(op, ins, outs, two_channel_output=outs[0] == pre_idx)
        else:
            fail(f"operator {name} is not supported")


def build_one(source_path, height, width):
    src = Source(source_path)
    conv = Converter(src)
    conv.run(height, width)

    graph = helper.make_graph(
        conv.nodes,
        "person_segmentation",
        [helper.make_tensor_value_info("input", TensorProto.FLOAT, [1, 4, height, width])],
        [helper.make_tensor_value_info("output", TensorProto.FLOAT, [1, 2, height, width])],
        initializer=conv.initializers,
    )
    model = helper.make_model(
        graph,
        opset_imports=[helper.make_opsetid("", OPSET)],
        producer_name=PRODUCER,
        producer_version=PRODUCER_VERSION,
        doc_string=(
            f"Person segmentation {height}x{width} converted from {os.path.basename(source_path)} "
            "(Apache-2.0). input: [1,4,H,W] B,G,R in 0..1 and the previous mask (unused); "
            "output: [1,2,H,W] = [1 - p, p]."
        ),
    )
    model.ir_version = IR_VERSION
    helper.set_model_props(model, {"source_file": os.path.basename(source_path), "source_sha256": src.sha256})

    onnx.checker.check_model(model, full_check=True)
    inferred = onnx.shape_inference.infer_shapes(model, check_type=True, strict_mode=True)
    shapes = {}
    for vi in list(inferred.graph.value_info) + list(inferred.graph.output):
        dims = vi.type.tensor_type.shape.dim
        shapes[vi.name] = tuple(d.dim_value if d.HasField("dim_value") else None for d in dims)
    for name, want in conv.expected.items():
        got = shapes.get(name)
        if got != tuple(want):
            fail(f"{os.path.basename(source_path)}: tensor {name!r} infers as {got}, TFLite says {tuple(want)}")
    return model, len(conv.nodes), len(conv.initializers)


def write_atomically(model, path):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    data = model.SerializeToString(deterministic=True)
    fd, tmp = tempfile.mkstemp(prefix=".model-", suffix=".tmp", dir=os.path.dirname(path))
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data)
            f.flush()
            os.fsync(f.fileno())
        os.chmod(tmp, 0o644)
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
    return len(data)


def main(argv=None):
    parser = argparse.ArgumentParser(description="Convert the selfie segmentation TFLite models to ONNX.")
    parser.add_argument("--source", required=True, help="folder holding the .tflite files")
    parser.add_argument("--out", required=True, help="models folder to write")
    args = parser.parse_args(argv)

    try:
        built = []
        for file_name, rel_out, height, width in VARIANTS:
            source_path = os.path.join(args.source, file_name)
            if not os.path.isfile(source_path):
                fail(f"source model {source_path} is missing")
            try:
                model = build_one(source_path, height, width)
            except (ConversionError, onnx.checker.ValidationError, onnx.shape_inference.InferenceError):
                raise
            except Exception as exc:  # a truncated or corrupt flatbuffer fails deep inside the reader
                fail(f"{source_path}: cannot read the model ({type(exc).__name__}: {exc})")
            built.append((model, os.path.join(args.out, rel_out), height, width))
        # Write only after both variants converted cleanly.
        for (model, n_nodes, n_inits), out_path, height, width in built:
            size = write_atomically(model, out_path)
            print(
                f"build_models: wrote {out_path} ({height}x{width}, {n_nodes} nodes, "
                f"{n_inits} weights, {size} bytes)"
            )
    except ConversionError as exc:
        print(f"build_models: error: {exc}", file=sys.stderr)
        return 1
    except (onnx.checker.ValidationError, onnx.shape_inference.InferenceError) as exc:
        print(f"build_models: error: the generated ONNX model is invalid: {exc}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
