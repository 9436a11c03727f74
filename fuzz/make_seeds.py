#!/usr/bin/python3
"""Writes the seeds of the fuzz targets, a folder per target: make_seeds.py DIR MODELS.

MODELS is where tests/models/make_models.py has written the models of the tests.
"""
import itertools
import os
import sys

from onnx import TensorProto, helper, load

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "demo"))
import render_model  # noqa: E402
import stream_seeds  # noqa: E402
import utt_seeds  # noqa: E402


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


def gridsample_rewrite(test_models):
    """Real models (the demo subject's renderers and those of the tests) with their large constants
    cut short, since the rewrite never looks into them, and every kind of GridSample node."""
    models = {"every_node": sampler_nodes(),
              "demo_standard": render_model.standard_graph(64, 1).model(),
              "demo_synth": render_model.synth_graph(64, 1).model()}
    for name in ("render", "render_warped", "render_own_operators", "feat_synth", "sampler", "sampler_fast"):
        models[name] = load(os.path.join(test_models, name + ".onnx"))
    return {name + ".onnx": shortened(model).SerializeToString() for name, model in models.items()}


# Target -> a function of MODELS that returns the seeds: file name -> bytes.
SEEDS = {"gridsample_rewrite_fuzz": gridsample_rewrite,
         "motion_push_fuzz": stream_seeds.motion_push,
         "a2x_push_fuzz": stream_seeds.a2x_push,
         "utt_calls_fuzz": utt_seeds.utt_calls}


def main(directory, test_models):
    for target, seeds in SEEDS.items():
        folder = os.path.join(directory, target)
        os.makedirs(folder, exist_ok=True)
        for name, content in seeds(test_models).items():
            with open(os.path.join(folder, name), "wb") as file:
                file.write(content)


if __name__ == "__main__":
    main(*sys.argv[1:])
