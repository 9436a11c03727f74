#!/usr/bin/python3
"""Writes the models of int8conv_bench into a directory: int8conv_models.py DIR.

    chain_C_S_M.onnx   x [1, C, S, S] -> y [1, M, S, S], 3 x 3 with padding 1, as the runtime's own
                       chain DynamicQuantizeLinear, ConvInteger, Cast, Mul, Add; weights unsigned
                       with zero point 128
    conv_C_S_M.onnx    the same in float
    int8_C_S_M.onnx    the same as Int8ConvVNNI
"""
import os
import sys

import numpy as np
from onnx import TensorProto, helper, numpy_helper, save

SHAPES = [(64, 64, 64), (128, 64, 128), (64, 128, 64), (32, 256, 32), (256, 32, 256)]
SAME = {"strides": [1, 1], "pads": [1, 1, 1, 1], "dilations": [1, 1], "group": 1}


def write(path, nodes, constants, c, side, m):
    info = helper.make_tensor_value_info
    graph = helper.make_graph(
        nodes, "bench", [info("x", TensorProto.FLOAT, [1, c, side, side])],
        [info("y", TensorProto.FLOAT, [1, m, side, side])],
        [numpy_helper.from_array(value, name) for name, value in constants.items()])
    domains = [helper.make_opsetid("", 16), helper.make_opsetid("com.velmarin.int8", 1)]
    save(helper.make_model(graph, opset_imports=domains, ir_version=8), path)


def main(directory):
    os.makedirs(directory, exist_ok=True)
    random = np.random.default_rng(1)
    node = helper.make_node
    for c, side, m in SHAPES:
        weights = random.integers(-127, 128, (m, c, 3, 3)).astype(np.int8)
        scale = random.uniform(0.5, 1.5, m).astype(np.float32) / 1000
        bias = random.normal(size=m).astype(np.float32)

        def path(kind):
            return os.path.join(directory, f"{kind}_{c}_{side}_{m}.onnx")

        chain = [node("DynamicQuantizeLinear", ["x"], ["q", "s", "z"]),
                 node("ConvInteger", ["q", "w", "z", "w_zero"], ["sums"], **SAME),
                 node("Cast", ["sums"], ["sums_f"], to=TensorProto.FLOAT),
                 node("Mul", ["s", "scale"], ["factor"]),
                 node("Mul", ["sums_f", "factor"], ["scaled"]),
                 node("Add", ["scaled", "bias"], ["y"])]
        write(path("chain"), chain,
              {"w": (weights.astype(np.int32) + 128).astype(np.uint8), "w_zero": np.uint8(128),
               "scale": scale.reshape(m, 1, 1), "bias": bias.reshape(m, 1, 1)}, c, side, m)
        write(path("conv"), [node("Conv", ["x", "w", "bias"], ["y"], **SAME)],
              {"w": weights * scale.reshape(m, 1, 1, 1), "bias": bias}, c, side, m)
        write(path("int8"), [node("Int8ConvVNNI", ["x", "w", "scale", "bias"], ["y"],
                                  domain="com.velmarin.int8", **SAME)],
              {"w": weights, "scale": scale, "bias": bias}, c, side, m)


if __name__ == "__main__":
    main(sys.argv[1])
