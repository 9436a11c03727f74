#!/usr/bin/python3
"""Writes the seeds of the fuzz targets, a folder per target: make_seeds.py DIR MODELS.

MODELS is where tests/models/make_models.py has written the models of the tests.
"""
import io
import itertools
import os
import random
import sys

import numpy as np
from onnx import TensorProto, helper, load
from PIL import Image

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "demo"))
import damage_seeds  # noqa: E402
import int8_model  # noqa: E402
import render_model  # noqa: E402
import utt_seeds  # noqa: E402
from onnx_build import GraphBuilder  # noqa: E402


def shortened(model, limit=64):
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


def folding_nodes():
    """Everything that is folded into int8 convolutions, once."""
    g = GraphBuilder("folds")
    x, pads = g.input("x", [1, 2, 4, 4]), [1, 1, 1, 1]
    for relu in (True, False):
        x = g.op("Resize", g.op("Relu", x) if relu else x, None, np.array([1, 1, 2, 2], np.float32),
                 mode="nearest", coordinate_transformation_mode="asymmetric", nearest_mode="floor")
        x = g.op("Conv", x, np.ones((4, 2 if relu else 4, 3, 3)), pads=pads)
    g.output("y", g.op("DepthToSpace", x, blocksize=2, mode="CRD"), [1, 1, 32, 32])
    return int8_model.convert(g.model(), least_channels=4)


def rewrite(test_models):
    """Real models (the demo subject's renderers and those of the tests) with their large constants
    cut short, since the rewrites never look into them, and every node that they look at."""
    models = {"every_node": sampler_nodes(), "folds": folding_nodes(),
              "demo_standard": render_model.standard_graph(64, 1).model(),
              "demo_synth": render_model.synth_graph(64, 1).model()}
    for name in ("render", "render_warped", "render_own_operators", "feat_synth", "sampler", "sampler_fast"):
        models[name] = load(os.path.join(test_models, name + ".onnx"))
    return {name + ".onnx": shortened(model).SerializeToString() for name, model in models.items()}


def metadata():
    """Good metadata, and everything that the rules for finding a value leave open."""
    good = {"motion": '{"nt": 3, "n_src": 3, "n_emo": 4, "s_bridge": 0.8, "delta_pitch": 3.0}',
            "expression": '{"h": 16, "window": 1, "left": 3, "layers": 2, "maxlen": 400, "silence_prime": 8}'}
    texts = dict(good, empty="", quote='"nt', no_colon='{"nt" 3', no_value='{"nt":', key_as_value='{"a": "nt", "b": 5}',
                 nested='{"x": {"nt": 9}, "nt": 3}', far_colon='"nt" "n_src" "n_emo" : 3')
    numbers = ("-1", "0", "1e9", "1e400", "-1e400", "nan", "inf", "0x10", "2147483648", "99999999999999999999", " +7",
               "3,5", '"3"', "true", "- 3", ".5e1")
    for engine, text in good.items():
        for i, number in enumerate(numbers):
            first, rest = text.split(":", 1)
            texts[f"{engine}_first_{i}"] = f"{first}:{number},{rest.split(',', 1)[1]}"
            texts[f"{engine}_last_{i}"] = f"{text.rsplit(':', 1)[0]}:{number}}}"
    return {name + ".json": text.encode() for name, text in texts.items()}


def image():
    """A picture in every kind of file that the decoder knows, and in one that it does not."""
    picture = Image.new("RGB", (24, 16))
    picture.putdata([(i * 7 % 256, i * 3 % 256, i % 256) for i in range(24 * 16)])
    kinds = {"jpeg": (picture, "JPEG", {}),
             "jpeg_progressive": (picture, "JPEG", {"progressive": True}),
             "jpeg_whole_colour": (picture, "JPEG", {"subsampling": 0, "quality": 95}),
             "jpeg_grey": (picture.convert("L"), "JPEG", {}),
             "jpeg_four_colours": (picture.convert("CMYK"), "JPEG", {}),
             "png_palette": (picture.convert("P"), "PNG", {}),
             **{kind.lower(): (picture, kind, {}) for kind in ("PNG", "BMP")}}
    seeds = {}
    for name, (pixels, kind, options) in kinds.items():
        file = io.BytesIO()
        pixels.save(file, kind, **options)
        seeds[name] = file.getvalue()
    # A length of a gigabyte, a table of 257 symbols, and no tables at all.
    seeds["png_long_part"] = seeds["png"].replace(seeds["png"][33:37], b"\x40\0\0\0", 1)
    table = seeds["jpeg"].index(b"\xff\xc4") + 5
    seeds["jpeg_without_tables"] = seeds["jpeg"].replace(b"\xff\xc4", b"\xff\xfe")
    seeds["jpeg_large_table"] = seeds["jpeg"][:table] + b"\xff\2" + seeds["jpeg"][table + 2:]
    return seeds


def files(_test_models):
    """A picture or metadata behind the byte that says so; manifests are kept with the sources."""
    return {name: kind + content for kind, seeds in ((b"\1", image()), (b"\2", metadata()))
            for name, content in seeds.items()}


def stream(_test_models):
    """Random programs with many small numbers for every engine and comparison."""
    rng = random.Random(3)
    return {f"{i:03}": bytes([i % 5, i // 5 % 3]) + bytes(rng.randrange(rng.choice((4, 16, 256))) for _ in range(2000))
            for i in range(105)}


# Target -> a function of MODELS that returns the seeds: file name -> bytes.
SEEDS = {"bundle_open_fuzz": damage_seeds.bundle_open,
         "engine_open_fuzz": damage_seeds.engine_open,
         "rewrite_fuzz": rewrite,
         "files_fuzz": files,
         "stream_fuzz": stream,
         "utt_calls_fuzz": utt_seeds.utt_calls}


def main(directory, test_models):
    for target, seeds in SEEDS.items():
        for name, content in seeds(test_models).items():
            path = os.path.join(directory, target, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as file:
                file.write(content)


if __name__ == "__main__":
    main(*sys.argv[1:])
