#!/usr/bin/python3
"""Writes the seeds of gridsample_rewrite_fuzz: make_seeds.py DIR.

Real models (the demo subject's renderers and those of the tests) with their large constants cut
short, since the rewrite never looks into them, and every kind of GridSample node.
"""
import itertools
import os
import sys
import tempfile

from onnx import TensorProto, helper, load

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path[:0] = [os.path.join(ROOT, "demo"), os.path.join(ROOT, "tests", "models")]
import make_models  # noqa: E402
import render_model  # noqa: E402


def shortened(model, limit=32):
    for tensor in model.graph.initializer:
        if len(tensor.raw_data) > limit:
            tensor.raw_data = tensor.raw_data[:limit]
    return model


def sampler_nodes():
    """One model with a GridSample node for every combination of what the rewrite looks at."""
    nodes = []
    choices = itertools.product((None, "linear", "bilinear", "nearest"), (None, "border", "zeros"),
                                (None, 0, 1), ("", "ai.onnx", "com.velmarin"))
    for mode, padding, align, domain in choices:
        stated = {"mode": mode, "padding_mode": padding, "align_corners": align}
        stated = {key: value for key, value in stated.items() if value is not None}
        nodes.append(helper.make_node("GridSample", ["x", "g"], [f"y{len(nodes)}"], domain=domain, **stated))
    def tensor(name):
        return helper.make_tensor_value_info(name, TensorProto.FLOAT, [1, 2, 4, 4])
    graph = helper.make_graph(nodes, "all", [tensor("x"), tensor("g")], [tensor("y0")])
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 16)])


def main(directory):
    os.makedirs(directory, exist_ok=True)
    models = {"every_node": sampler_nodes(),
              "demo_standard": render_model.standard_graph(64, 1).model(),
              "demo_synth": render_model.synth_graph(64, 1).model()}
    with tempfile.TemporaryDirectory() as work:
        make_models.main(work)
        for name in ("render", "render_warped", "render_own_operators", "feat_synth", "sampler", "sampler_fast"):
            models[name] = load(os.path.join(work, name + ".onnx"))
    for name, model in models.items():
        with open(os.path.join(directory, name + ".onnx"), "wb") as file:
            file.write(shortened(model).SerializeToString())


if __name__ == "__main__":
    main(sys.argv[1])
