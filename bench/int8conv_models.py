#!/usr/bin/python3
"""Writes the models of int8conv_bench into a directory: int8conv_models.py DIR.

    chain_C_S_M.onnx   x [1, C, S, S] -> y [1, M, S, S], 3 x 3 with padding 1, as the runtime's own
                       chain DynamicQuantizeLinear, ConvInteger, Cast, Mul, Add; weights unsigned
                       with zero point 128
    conv_C_S_M.onnx    the same in float
    int8_C_S_M.onnx    the same as Int8ConvVNNI
    model_float.onnx   a renderer of realistic size with random weights: encoder, warp by keypoints,
                       decoder; 6 GMAC per frame of 512 x 512
    model_int8.onnx    its twin, converted like any other float model
    model_int8_last.onnx  the same with the last layer, of 12 channels, as int8
"""
import os
import pathlib
import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper, save

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "demo"))
import int8_model
from onnx_build import GraphBuilder

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


def renderer():
    random = np.random.default_rng(2)
    g = GraphBuilder("renderer of random weights")
    pooled, picture = g.input("pooled64", [1, 64, 32, 32]), g.input("P_rgb", [1, 3, 512, 512])
    driving, source = g.input("kp_driving", [1, 21, 3]), g.input("kp_source", [1, 21, 3])

    def conv(x, inputs, outputs, stride=1, relu=True):
        weights = random.normal(size=(outputs, inputs, 3, 3)) * np.sqrt(2 / (9 * inputs))
        x = g.op("Conv", x, weights, 0.01 * random.normal(size=outputs), strides=[stride, stride], pads=[1, 1, 1, 1])
        return g.op("Relu", x) if relu else x

    def enlarge(x):
        return g.op("Resize", x, None, np.array([1, 1, 2, 2], np.float32), mode="nearest",
                    coordinate_transformation_mode="asymmetric", nearest_mode="floor")

    features = conv(conv(picture, 3, 32, 2), 32, 64, 2)                                  # 64 x 128 x 128
    line = ((np.arange(128) + 0.5) / 64 - 1).astype(np.float32)
    still = np.stack(np.meshgrid(line, line), axis=-1)
    moved = g.matmul(g.reshape(driving - source, [1, 63]), 0.02 * random.normal(size=(63, 2)))
    waves = 0.02 * np.sin(3 * still[..., ::-1])
    features = g.grid_sample(features, g.reshape(moved, [1, 1, 1, 2]) + (still + waves).reshape(1, 128, 128, 2))
    deep = conv(g.concat([conv(features, 64, 64, 2), enlarge(pooled)], 1), 128, 128)     # 128 x 64 x 64
    for _ in range(2):
        deep = g.op("Relu", deep + conv(conv(deep, 128, 128), 128, 128, relu=False))
    wide = conv(enlarge(conv(enlarge(deep), 128, 64)), 64, 32)                           # 32 x 256 x 256
    rgb = g.op("DepthToSpace", conv(wide, 32, 12, relu=False), blocksize=2, mode="DCR")
    g.output("rgb", g.op("Sigmoid", rgb), [1, 3, 512, 512])
    return g.model()


def main(directory):
    os.makedirs(directory, exist_ok=True)
    model = renderer()
    onnx.save(model, os.path.join(directory, "model_float.onnx"))
    onnx.save(int8_model.convert(model), os.path.join(directory, "model_int8.onnx"))
    onnx.save(int8_model.convert(model, least_channels=12), os.path.join(directory, "model_int8_last.onnx"))
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
