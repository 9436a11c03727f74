#!/usr/bin/python3
"""Turns convolutions of an ONNX model into com.velmarin.int8::Int8ConvVNNI nodes.

    int8_model.py IN.onnx OUT.onnx [--least-channels 16]

Converted is every 2-D Conv whose weights are a constant and that has at least so many output
channels. Weights get one scale per output channel; activations are quantised when the model runs,
over the range that they then have, so nothing needs calibrating.

The operator counts padding as the smallest input. That is 0 where the input cannot be negative (it
comes from a Relu, say); elsewhere a Pad node in front does the padding.
"""
import argparse
import sys

import numpy as np
import onnx
from onnx import helper, numpy_helper, shape_inference

DOMAIN = "com.velmarin.int8"
NEVER_NEGATIVE = {"Relu", "Sigmoid", "HardSigmoid", "Softmax", "Softplus", "Abs", "Exp", "Sqrt"}
KEEP_THE_SIGN = {"MaxPool", "AveragePool", "Resize", "Reshape", "Transpose", "Identity", "SpaceToDepth",
                 "DepthToSpace", "Slice", "Squeeze", "Unsqueeze"}
DEFAULTS = {"strides": [1, 1], "pads": [0, 0, 0, 0], "dilations": [1, 1], "group": 1}


def quantise(weights):
    """int8 weights [M, ...] and their scales [M]; the largest weight of each channel becomes +-127."""
    largest = np.abs(weights.reshape(len(weights), -1)).max(axis=1)
    scale = np.where(largest > 0, largest / 127, 1).astype(np.float32)
    rounded = np.rint(weights / scale.reshape(-1, *[1] * (weights.ndim - 1)))
    return np.clip(rounded, -127, 127).astype(np.int8), scale


class Converter:
    def __init__(self, model, least_channels):
        self.model, self.graph, self.least_channels = model, model.graph, least_channels
        self.constants = {c.name: c for c in self.graph.initializer}
        self.producers = {name: node for node in self.graph.node for name in node.output}
        self.added, self.converted = {}, 0

    def add(self, name, array):
        self.added[name] = numpy_helper.from_array(array, name)
        return name

    def never_negative(self, name):
        node = self.producers.get(name)
        if node is None:
            return False
        if node.op_type == "Clip" and len(node.input) > 1 and node.input[1] in self.constants:
            return numpy_helper.to_array(self.constants[node.input[1]]).min() >= 0
        return node.op_type in NEVER_NEGATIVE or (
            node.op_type in KEEP_THE_SIGN and self.never_negative(node.input[0]))

    def fits(self, node):
        if node.op_type != "Conv" or node.domain not in ("", "ai.onnx"):
            return False
        weights = self.constants.get(node.input[1])
        bias = node.input[2] if len(node.input) > 2 else ""
        automatic = [a.s for a in node.attribute if a.name == "auto_pad" and a.s != b"NOTSET"]
        return (weights is not None and weights.data_type == onnx.TensorProto.FLOAT and len(weights.dims) == 4
                and weights.dims[0] >= self.least_channels and (not bias or bias in self.constants)
                and not automatic)

    def convert(self, node):
        """The nodes that replace a convolution."""
        name = node.name or node.output[0]
        given = {a.name: helper.get_attribute_value(a) for a in node.attribute}
        attributes = {key: given.get(key, default) for key, default in DEFAULTS.items()}
        weights, scale = quantise(numpy_helper.to_array(self.constants[node.input[1]]))
        bias = np.zeros(len(weights), np.float32)
        if len(node.input) > 2 and node.input[2]:
            bias = numpy_helper.to_array(self.constants[node.input[2]])
        x, before = node.input[0], []
        if any(attributes["pads"]) and not self.never_negative(x):
            top, left, bottom, right = attributes["pads"]
            amounts = self.add(f"{name}.pads", np.array([0, 0, top, left, 0, 0, bottom, right], np.int64))
            before = [helper.make_node("Pad", [x, amounts], [f"{name}.padded"], name=f"{name}.pad")]
            x, attributes["pads"] = f"{name}.padded", [0, 0, 0, 0]
        inputs = [x, self.add(f"{name}.int8", weights), self.add(f"{name}.scale", scale),
                  self.add(f"{name}.bias", bias)]
        self.converted += 1
        return [*before, helper.make_node("Int8ConvVNNI", inputs, node.output, name=name, domain=DOMAIN,
                                          **attributes)]

    def run(self):
        nodes = [new for node in self.graph.node for new in (self.convert(node) if self.fits(node) else [node])]
        del self.graph.node[:]
        self.graph.node.extend(nodes)
        used = {name for node in nodes for name in node.input} | {o.name for o in self.graph.output}
        kept = [c for name, c in self.constants.items() if name in used] + list(self.added.values())
        del self.graph.initializer[:]
        self.graph.initializer.extend(kept)
        if self.converted:
            self.model.opset_import.append(helper.make_opsetid(DOMAIN, 1))
        onnx.checker.check_model(self.model)
        return self.model


def convert(model, least_channels=16):
    """A converted copy of the model. Shapes found in the float model are written down, because the
    runtime does not infer those behind the operator."""
    return Converter(shape_inference.infer_shapes(model), least_channels).run()


def main():
    parser = argparse.ArgumentParser(description="Turns convolutions into Int8ConvVNNI nodes.")
    parser.add_argument("input")
    parser.add_argument("output")
    parser.add_argument("--least-channels", type=int, default=16,
                        help="convert from so many output channels on (default 16)")
    options = parser.parse_args()
    model = convert(onnx.load(options.input), options.least_channels)
    onnx.save(model, options.output)
    count = sum(node.op_type == "Int8ConvVNNI" for node in model.graph.node)
    print(f"{count} of {count + sum(node.op_type == 'Conv' for node in model.graph.node)} convolutions converted")
    return 0


if __name__ == "__main__":
    sys.exit(main())
