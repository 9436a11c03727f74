#!/usr/bin/python3
"""Writes the seeds of the fuzz targets, a folder per target: make_seeds.py DIR MODELS.

MODELS is where tests/models/make_models.py has written the models of the tests.
"""
import io
import itertools
import os
import struct
import sys

from onnx import TensorProto, helper, load
from PIL import Image

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


def metadata(_test_models):
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


# Operations of damaged_dir.h.
def remove(file):
    return bytes([file, 0])


def directory(file):
    return bytes([file, 1])


def resize_by(file, more):
    return struct.pack("<BBh", file, 2, more)


def resize_to(file, size):
    return bytes([file, 3]) + size.to_bytes(3, "little")


def overwrite(file, place, content):
    return bytes([file, 4]) + place.to_bytes(3, "little") + bytes([len(content)]) + content


def append(file, content):
    return bytes([file, 5, len(content)]) + content


def copy(file, other):
    return bytes([file, 6, other])


def value(colon, text):
    """In file 0, which is the one with the metadata."""
    return bytes([0, 7, colon, len(text)]) + text.encode()


def damage(first_bytes, files, values):
    """Each first byte alone, then every kind of damage to every file and to every value of the
    metadata, the first bytes by turns."""
    turns = itertools.cycle(first_bytes)
    seeds = {f"{first}": bytes([first]) for first in first_bytes}
    odd = (struct.pack("<4f", float("nan"), float("inf"), -3e38, 1e-42), b"\xff" * 16, b"\x00\x7c" * 8)
    for f in range(files):
        kinds = [remove(f), directory(f), resize_by(f, -1), resize_by(f, 1), resize_to(f, 0), resize_to(f, 4),
                 append(f, b'"NT": 1'), copy(f, (f + 1) % files), overwrite(f, 300, b"\x00\x80\x00\x7f" * 4),
                 *(overwrite(f, 0, content) for content in odd)]
        seeds.update({f"{first_bytes[0]}_file_{f}_{k}": bytes([next(turns)]) + kind for k, kind in enumerate(kinds)})
    for v in range(values):
        for k, text in enumerate(("0", "1", "3", "-1", "1e9", "-1e400", "nan", '"x"', "2147483647", "0.01")):
            seeds[f"{first_bytes[0]}_value_{v}_{k}"] = bytes([next(turns)]) + value(v, text)
    return seeds


def bundle_open(_test_models):
    # Smaller bundles and crops that are in order again.
    one = ((6, 131072), (5, 1536), (7, 524288), (1, 24), (2, 4), (3, 252), (4, 252))
    return {**damage(range(9), files=17, values=11),
            "one_frame": b"\0" + value(2, "1") + value(10, "1") + b"".join(itertools.starmap(resize_to, one)),
            "no_drive": b"\0" + value(10, "0") + b"".join(resize_to(file, 0) for file in (2, 3, 4)),
            "wide_kernel": b"\0" + value(9, "247483"),
            "crop_8": b"\6" + value(5, "8") + resize_to(5, 2 * 3 * 8 * 8 * 2)}


def engine_open(_test_models):
    return {**damage((0, 2), files=14, values=5), **damage((1, 3), files=6, values=6),
            "one_target": b"\2" + value(0, "1") + value(1, "1") + resize_to(11, 1312) + resize_to(12, 252),
            "short_table": b"\3" + value(4, "1") + resize_to(1, 64)}


def image(_test_models):
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
    return seeds


# Target -> a function of MODELS that returns the seeds: file name -> bytes.
SEEDS = {"bundle_open_fuzz": bundle_open,
         "engine_open_fuzz": engine_open,
         "gridsample_rewrite_fuzz": gridsample_rewrite,
         "image_fuzz": image,
         "metadata_fuzz": metadata,
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
