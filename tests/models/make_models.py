#!/usr/bin/python3
"""Writes the ONNX models of the tests into a directory: make_models.py DIR.

Each model is a formula that a test can compute again or that fails in a known way. Renderers are
made for crops of 16 x 16; they tell all their inputs apart:
    rgb = image / 2 + mean(pooled) / 4 + sum(kd * KD) - sum(ks * KS)
with image = P_rgb, or the corner fs_red[:, 0:3, 0:16, 0:16]; KD[i] = (1 + i) / 10000 and
KS[i] = (64 - i) / 20000 over the 63 values of a keypoint set.
"""
import os
import sys

import numpy as np
from onnx import TensorProto, checker, helper, load, numpy_helper, save

CROP = 16


class Graph:
    """Collects nodes and constants of one graph; calls return the output's name."""

    def __init__(self, opset=13):
        self.nodes, self.constants, self.count, self.opset = [], [], 0, opset

    def const(self, value, dtype=np.float32):
        self.count += 1
        name = f"const{self.count}"
        self.constants.append(numpy_helper.from_array(np.asarray(value, dtype), name))
        return name

    def ints(self, *values):
        return self.const(values, np.int64)

    def __call__(self, op, *inputs, out=None, **attributes):
        self.count += 1
        out = out or f"t{self.count}"
        inputs = [i if isinstance(i, str) else self.const(i) for i in inputs]
        self.nodes.append(helper.make_node(op, inputs, [out], name=f"n{self.count}", **attributes))
        return out

    def save(self, path, inputs, outputs, types=None, domains=()):
        """inputs and outputs: name -> shape. types: element types other than float. domains: of
        further operators that are not standard."""
        def infos(entries):
            return [helper.make_tensor_value_info(n, (types or {}).get(n, TensorProto.FLOAT), s)
                    for n, s in entries.items()]
        graph = helper.make_graph(self.nodes, "test", infos(inputs), infos(outputs), self.constants)
        opsets = [("", self.opset), ("com.velmarin.int8", 1), *((domain, 1) for domain in domains)]
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid(*o) for o in opsets],
                                  ir_version=7, producer_name="zorv tests")
        checker.check_model(model)
        save(model, path)


def told_by_a_run(g, value, number):
    """The number, which depends on `value` as far as anyone can tell ahead of a run."""
    first = g("Slice", g("Reshape", value, g.ints(-1)), g.ints(0), g.ints(1))
    zero = g("Mul", g("Cast", g("IsNaN", first), to=TensorProto.FLOAT), 0.0)
    return g("Cast", g("Add", zero, float(number)), to=TensorProto.INT64)


def weighted_sum(g, keypoints, weights):
    """[B, 21, 3] keypoints -> [B, 1, 1, 1]."""
    product = g("Mul", keypoints, np.reshape(weights, (1, 21, 3)))
    total = g("ReduceSum", product, g.ints(1, 2), keepdims=1)
    return g("Unsqueeze", total, g.ints(3))


def motion(g, kd, ks):
    index = np.arange(63)
    return g("Sub", weighted_sum(g, kd, (1 + index) / 10000), weighted_sum(g, ks, (64 - index) / 20000))


def renderer(path, batch=1, pooled_shape=(64, 32, 32), crop=CROP, fail_at=None, rgb="rgb", extra=(),
             **shapes):
    """The standard graph. fail_at: runs fail when kp_driving[0] lies outside -fail_at .. fail_at.
    shapes: declared for inputs instead of the right ones, or "float16" for the element type."""
    g = Graph()
    mean = g("ReduceMean", "pooled64", axes=list(range(1, 1 + len(pooled_shape))), keepdims=0)
    mean = g("Reshape", mean, g.ints(-1, 1, 1, 1))
    base = g("Add", g("Mul", "P_rgb", 0.5), g("Mul", mean, 0.25))
    moved = motion(g, "kp_driving", "kp_source")
    if fail_at is not None:
        first = g("Slice", g("Reshape", "kp_driving", g.ints(-1)), g.ints(0), g.ints(1))
        row = g("Cast", g("Floor", g("Div", first, float(fail_at))), to=TensorProto.INT64)
        moved = g("Add", moved, g("Gather", g.const([0.0]), row))  # only rows -1 and 0 exist
    g("Add", base, moved, out=rgb)
    inputs = {"pooled64": [batch, *pooled_shape], "P_rgb": [batch, 3, crop, crop],
              "kp_driving": [batch, 21, 3], "kp_source": [batch, 21, 3], **{name: [1] for name in extra}}
    for name, shape in shapes.items():  # what the graph reads is made of what it is given
        right = inputs[name]
        for node in g.nodes:
            node.input[:] = [name + "_right" if i == name else i for i in node.input]
        if shape == "float16":
            g("Cast", name, to=TensorProto.FLOAT, out=name + "_right")
        else:
            g("Reshape", name, g.ints(*right), out=name + "_right")
            inputs[name] = shape
        g.nodes.insert(0, g.nodes.pop())
    types = {name: TensorProto.FLOAT16 for name, shape in shapes.items() if shape == "float16"}
    g.save(path, inputs, {rgb: [batch, 3, crop, crop]}, types)


def own_operators(path):
    """The standard graph with a node of either operator of the library, and padding for one."""
    g = Graph()
    weights = np.zeros((3, 3, 3, 3))
    weights[:, :, 1, 1] = 64
    padded = g("Pad", "P_rgb", g.const([0, 0, 1, 1, 0, 0, 1, 1], np.int64))
    image = g("Int8ConvVNNI", padded, g.const(weights, np.int8), g.const(np.full(3, 1 / 384)), g.const(np.zeros(3)),
              domain="com.velmarin.int8")
    line = (np.arange(CROP) * 2 + 1) / CROP - 1
    image = g("GridSampleFast", image, np.stack(np.meshgrid(line, line), -1)[None], domain="com.velmarin")
    mean = g("ReduceMean", "pooled64", axes=[1, 2, 3], keepdims=1)
    g("Add", g("Add", image, mean), motion(g, "kp_driving", "kp_source"), out="rgb")
    g.save(path,
           {"pooled64": [1, 64, 32, 32], "P_rgb": [1, 3, CROP, CROP],
            "kp_driving": [1, 21, 3], "kp_source": [1, 21, 3]},
           {"rgb": [1, 3, CROP, CROP]}, domains=["com.velmarin"])


def sampler(path, domain, rank=4):
    """y = x sampled at grid, alone, for any sizes: the standard node or the library's operator."""
    g = Graph(16)
    if domain:
        g("GridSampleFast", "x", "grid", out="y", domain=domain)
    else:
        g("GridSample", "x", "grid", out="y", mode="bilinear", padding_mode="border")
    g.save(path, {"x": list("NCHW"[:rank]), "grid": list("nhwp")}, {"y": list("abcd")},
           domains=[domain] if domain else [])


def warped(path, external=False, way="plain"):
    """The standard graph with its image moved by the first driving keypoint: once by a node that
    the library replaces, once by one that it leaves alone, and half of each. external: constants
    lie in a file of their own beside the model. way: "resized" samples down to half the size and up
    again, "half" in half precision, "deep" a volume, "half_resize" behind a Resize in half precision,
    "sensitive" shows what rounding leaves."""
    g = Graph(20 if way == "deep" else 16)
    line = (np.arange(CROP) * 2 + 1) / CROP - 1
    move = g("Reshape", g("Slice", "kp_driving", g.ints(0, 0), g.ints(1, 2), g.ints(1, 2)), g.ints(1, 1, 1, 2))
    grid = g("Add", np.stack(np.meshgrid(line, line), -1)[None], move)
    how = {"mode": "linear" if way == "deep" else "bilinear", "padding_mode": "border", "align_corners": 0}
    if way == "resized":
        rough = (np.arange(CROP // 2) * 4 + 2) / CROP - 1
        small = g("GridSample", "P_rgb", np.stack(np.meshgrid(rough, rough), -1)[None], **how)
        replaced = g("GridSample", small, grid, **how)
    elif way == "half":
        halves = [g("Cast", t, to=TensorProto.FLOAT16) for t in ("P_rgb", grid)]
        replaced = g("Cast", g("GridSample", *halves, **how), to=TensorProto.FLOAT)
    elif way == "deep":
        flat = g("Concat", grid, np.zeros((1, CROP, CROP, 1)), axis=3)
        volume = g("GridSample", g("Unsqueeze", "P_rgb", g.ints(2)), g("Unsqueeze", flat, g.ints(1)), **how)
        replaced = g("Squeeze", volume, g.ints(2))
    else:
        image = "P_rgb"
        if way == "half_resize":
            half = g("Resize", g("Cast", image, to=TensorProto.FLOAT16), "", g.const([1.0, 1.0, 2.0, 2.0]),
                     mode="linear", coordinate_transformation_mode="half_pixel")
            image = g("Cast", half, to=TensorProto.FLOAT)
        replaced = g("GridSample", image, grid, **how)
    kept = g("GridSample", "P_rgb", grid, mode=how["mode"], padding_mode="border", align_corners=1)
    image = g("Mul", g("Add", replaced, kept), 0.5)
    if way == "sensitive":
        image = g("Sin", g("Mul", image, 1e9))
    if way != "deep":
        image = g("Add", image, g("ReduceMean", "pooled64", axes=[1, 2, 3], keepdims=1))
        image = g("Add", image, motion(g, "kp_driving", "kp_source"))
    g("Identity", image, out="rgb")
    g.save(path,
           {"pooled64": [1, 64, 32, 32], "P_rgb": [1, 3, CROP, CROP],
            "kp_driving": [1, 21, 3], "kp_source": [1, 21, 3]},
           {"rgb": [1, 3, CROP, CROP]})
    if external:
        save(load(path), path, save_as_external_data=True, size_threshold=256,
             location=os.path.basename(path) + ".weights")


def feat_synth(path, batch=1):
    g = Graph()
    corner = g("Slice", "fs_red", g.ints(0, 0, 0), g.ints(3, CROP, CROP), g.ints(1, 2, 3))
    mean = g("ReduceMean", "pooled", axes=[1, 2, 3], keepdims=1)
    g("Add", g("Add", g("Mul", corner, 0.5), g("Mul", mean, 0.25)), motion(g, "kd", "ks"), out="rgb")
    g.save(path,
           {"fs_red": [batch, 64, 64, 64], "pooled": [batch, 64, 32, 32],
            "kd": [batch, 21, 3], "ks": [batch, 21, 3]},
           {"rgb": [batch, 3, CROP, CROP]})


def encoder(path, layers=10, dtype=TensorProto.FLOAT):
    """Per frame of 640 samples 768 fixed random mixtures, plus the place in the window, so that a
    frame's embedding depends on the window that it is taken from; every layer scaled its own way.
    """
    g = Graph()
    mix = np.random.default_rng(7).normal(size=(640, 768)) / 25
    frames = g("MatMul", g("Reshape", "input_values", g.ints(1, 200, 640)), mix)
    frames = g("Add", frames, np.arange(200).reshape(1, 200, 1) / 500)
    scales = 1 + np.arange(layers).reshape(layers, 1, 1) * 0.3 - 0.002 * np.arange(768)
    g("Cast", g("Mul", frames, scales), to=dtype, out="audio_emb")
    g.save(path, {"input_values": [1, 128000]}, {"audio_emb": [layers, 200, 768]}, {"audio_emb": dtype})


def fca_stream(path, m_values=63, hidden=384):
    """m = tanh(cond W) / 20 + prev / 2 - h[:63] / 100; hn = h / 2 + mean(prev) + pattern * mean(cond)."""
    g = Graph()
    mix = np.random.default_rng(8).normal(size=(5376, m_values)) / 200
    now = g("Mul", g("Tanh", g("MatMul", "cond", mix)), 0.05)
    memory = g("Mul", g("Slice", g("Reshape", "h", g.ints(1, 384)), g.ints(0), g.ints(m_values), g.ints(1)), 0.01)
    past = g("Slice", g("Mul", "prev", 0.5), g.ints(0), g.ints(m_values), g.ints(1))
    g("Sub", g("Add", now, past), memory, out="m")
    drive = g("Mul", g("ReduceMean", "cond", axes=[1], keepdims=1), np.cos(np.arange(384)).reshape(1, 384))
    state = g("Add", g("Mul", "h", 0.5), g("Add", drive, g("ReduceMean", "prev", axes=[1], keepdims=1)))
    g("Slice", state, g.ints(0), told_by_a_run(g, "prev", hidden), g.ints(2), out="hn")
    g.save(path, {"cond": [1, 5376], "prev": [1, 63], "h": [1, 1, 384]},
           {"m": [1, m_values], "hn": [1, 1, "values"]})

# The expression engine's models, for a width of 16. The last value of an encoder row is the last
# value of its positional row, and the last value of the decoder's state counts its runs.
A2X_WIDTH = 16
A2X_MIXED = (np.arange(A2X_WIDTH) < A2X_WIDTH - 1).astype(np.float32)


def a2x_trunk(path, steps=399, declared=None):
    """640 fixed random mixtures of each 80 samples, plus the place in the window."""
    g = Graph()
    mix = np.random.default_rng(11).normal(size=(80, 640)) / 9
    blocks = g("MatMul", g("Reshape", "input_values", g.ints(400, 80)), mix)
    blocks = g("Add", blocks, np.arange(400).reshape(400, 1) / 1000)
    channels = g("Reshape", g("Transpose", blocks, perm=[1, 0]), g.ints(1, 640, 400))
    channels = g("Slice", channels, g.ints(0), told_by_a_run(g, "input_values", steps), g.ints(2))
    g("Cast", channels, to=TensorProto.FLOAT16, out="trunk_steps")
    g.save(path, {"input_values": [1, 32000]}, {"trunk_steps": [1, 640, declared or steps]},
           {"trunk_steps": TensorProto.FLOAT16})


def a2x_head(path):
    """768 fixed random mixtures of a frame's channels; every layer scaled its own way."""
    g = Graph()
    mix = np.random.default_rng(12).normal(size=(640, 768)) / 25
    rows = g("Reshape", g("MatMul", "x", mix), g.ints(8, 1, 768))
    scales = 1 + np.arange(12).reshape(12, 1) * 0.3 - 0.002 * np.arange(768)
    g("Reshape", g("Mul", rows, scales), g.ints(8, 9216), out="emb")
    g.save(path, {"x": [8, 640]}, {"emb": [8, 9216]})


def a2x_enc_stream(path, layers=2):
    """Mixtures of feature and position, then layers of attention under the mask."""
    g = Graph()
    random = np.random.default_rng(13)
    rows = g("Reshape", "feat", g.ints(1, -1, 9216))
    x = g("Add", g("MatMul", rows, random.normal(size=(9216, A2X_WIDTH)) / 200), "pos_window")
    for _ in range(layers):
        query, key, value = (g("MatMul", x, random.normal(size=(A2X_WIDTH, A2X_WIDTH)) / 4) for _ in "qkv")
        scores = g("MatMul", query, g("Transpose", key, perm=[0, 2, 1]))
        weights = g("Softmax", g("Add", g("Unsqueeze", scores, g.ints(1)), "attn"), axis=-1)
        x = g("Tanh", g("Add", x, g("MatMul", g("Squeeze", weights, g.ints(1)), value)))
    g("Add", g("Mul", x, A2X_MIXED), g("Mul", "pos_window", 1 - A2X_MIXED), out="rows")
    g.save(path, {"feat": [1, "n", 12, 768], "pos_window": [1, "n", A2X_WIDTH], "attn": [1, 1, "n", "n"]},
           {"rows": [1, "n", A2X_WIDTH]})


def a2x_dec(path, fails_at=None):
    """m and h_out: tanh of mixtures of all inputs. fails_at: the run fails whose context's last
    value and whose count of runs are both this."""
    g = Graph()
    random = np.random.default_rng(14)
    hidden = g("Reshape", "h", g.ints(1, A2X_WIDTH))

    def mixture(values):
        def weights(rows):
            return random.normal(size=(rows, values)) / (2 * np.sqrt(rows))
        known = [g("MatMul", g("Mul", name, A2X_MIXED), weights(A2X_WIDTH)) for name in ("ctx_t", hidden)]
        return g("Tanh", g("Add", g("Add", *known), g("MatMul", "prev", weights(63))))

    m = mixture(63)
    count = g("Add", hidden, 1.0)
    if fails_at is not None:
        last = [g("Slice", t, g.ints(A2X_WIDTH - 1), g.ints(A2X_WIDTH), g.ints(1)) for t in ("ctx_t", hidden)]
        hit = g("And", *(g("Equal", t, float(fails_at)) for t in last))
        row = g("Mul", g("Cast", hit, to=TensorProto.INT64), g.ints(9))
        m = g("Add", m, g("Reshape", g("Gather", g.const([0.0]), row), g.ints(1, 1)))  # only row 0 exists
    g("Identity", m, out="m")
    state = g("Add", g("Mul", mixture(A2X_WIDTH), A2X_MIXED), g("Mul", count, 1 - A2X_MIXED))
    g("Reshape", state, g.ints(1, 1, A2X_WIDTH), out="h_out")
    g.save(path, {"ctx_t": [1, A2X_WIDTH], "prev": [1, 63], "h": [1, 1, A2X_WIDTH]},
           {"m": [1, 63], "h_out": [1, 1, A2X_WIDTH]})


def a2x_models(path):
    encoder(path("a2x_w2v"), layers=12)
    a2x_trunk(path("a2x_trunk"))
    a2x_trunk(path("a2x_trunk_open"), declared="steps")
    a2x_trunk(path("a2x_trunk_short"), steps=290)
    a2x_head(path("a2x_head"))
    a2x_enc_stream(path("a2x_enc_stream"))
    a2x_dec(path("a2x_dec"))
    a2x_dec(path("a2x_dec_fails"), fails_at=30)


def fail_above(g, value, level):
    """A zero to be added; computing it fails when the largest element of `value` exceeds level."""
    largest = g("Relu", g("Reshape", g("ReduceMax", value, keepdims=0), g.ints(1)))
    row = g("Cast", g("Floor", g("Div", largest, float(level))), to=TensorProto.INT64)
    return g("Gather", g.const([0.0]), row)  # only row 0 exists


def hubert_student(path, fail_level=None, transforms=21):
    """Row r mixes the bands of transforms r and r + 1; windows with a band above 10 (louder than
    any speech) stand out by the excess."""
    g = Graph()
    bands = g("Transpose", "mel", perm=[0, 2, 1])
    now = g("Slice", bands, g.ints(0), g.ints(20), g.ints(1))
    after = g("Slice", bands, g.ints(1), g.ints(21), g.ints(1))
    both = g("Add", g("Mul", now, 0.07), g("Mul", after, 0.03))
    mix = np.random.default_rng(11).normal(size=(80, 1024)) / 9
    rows = g("Tanh", g("Add", g("MatMul", both, mix), np.arange(20).reshape(1, 20, 1) / 50))
    loud = g("Relu", g("Sub", g("ReduceMax", "mel", keepdims=0), 10.0))
    if fail_level is not None:
        loud = g("Add", loud, fail_above(g, "mel", fail_level))
    g("Add", rows, loud, out="features")
    g.save(path, {"mel": [1, 80, transforms]}, {"features": [1, "rows", 1024]})


def lmdm(path, fail_level=None, frames=None):
    """tanh(rows W) / 3 + cond / 4 + a wave over the chunk's frames, plus 1 where a row is loud."""
    g = Graph()
    mix = np.random.default_rng(12).normal(size=(1103, 265)) / 20
    motion = g("Mul", g("Tanh", g("MatMul", "rows", mix)), 0.33)
    past = g("Mul", g("Reshape", "cond", g.ints(1, 1, 265)), 0.25)
    wave = 0.05 * np.sin(np.arange(80).reshape(1, 80, 1) * 0.7 + np.arange(265) * 0.2)
    loud = g("Sign", g("Relu", g("Sub", g("ReduceMax", "rows", axes=[2], keepdims=1), 2.0)))
    if fail_level is not None:
        loud = g("Add", loud, fail_above(g, "rows", fail_level))
    whole = g("Add", g("Add", motion, past), g("Add", loud, wave))
    if frames is not None:
        whole = g("Slice", whole, g.ints(0), told_by_a_run(g, "cond", frames), g.ints(1))
    g("Identity", whole, out="motion")
    g.save(path, {"cond": [1, 265], "rows": [1, 80, 1103]}, {"motion": [1, "frames", 265]})


def stitch(path, fail_level=None):
    """0.9 xd + xs S."""
    g = Graph()
    mix = np.random.default_rng(13).normal(size=(63, 63)) / 80
    moved = g("Add", g("Mul", "xd", 0.9), g("MatMul", "xs", mix))
    if fail_level is not None:
        moved = g("Add", moved, fail_above(g, "xd", fail_level))
    g("Reshape", moved, g.ints(1, 21, 3), out="kp")
    g.save(path, {"xs": [1, 63], "xd": [1, 63]}, {"kp": [1, 21, 3]})


def motion_models(path):
    hubert_student(path("hubert_student"))
    hubert_student(path("hubert_student_fails"), fail_level=12)
    hubert_student(path("hubert_student_open"), transforms="n")
    lmdm(path("lmdm"))
    lmdm(path("lmdm_fails"), fail_level=3)
    lmdm(path("lmdm_short"), frames=79)
    stitch(path("stitch"))
    stitch(path("stitch_fails"), fail_level=2)


def int8conv(path, inputs=8, scales=6, kernel=(3, 2), **attributes):
    """x [1, 8, 10, 20] -> y through one Int8ConvVNNI node of 6 output channels."""
    g = Graph()
    shape = (6, inputs, *kernel)
    weights = (np.arange(np.prod(shape)) * 37 % 256 - 128).reshape(shape)
    index = np.arange(scales)
    g("Int8ConvVNNI", "x", g.const(weights, np.int8), (index + 1) / 1024, index / 8 - 1, out="y",
      domain="com.velmarin.int8", **attributes)
    g.save(path, {"x": [1, 8, 10, 20]}, {"y": [1, 6, None, None]})


def int8conv_models(path):
    int8conv(path("int8conv"), inputs=4, group=2, strides=[2, 1], pads=[1, 0, 2, 3], dilations=[1, 2])
    int8conv(path("int8conv_defaults"))
    int8conv(path("int8conv_short"), strides=[2], pads=[1, 1, 1], dilations=[2])
    int8conv(path("int8conv_bad_scale"), scales=5)
    int8conv(path("int8conv_too_large"), kernel=(3, 21))


def main(directory):
    os.makedirs(directory, exist_ok=True)

    def path(name):
        return os.path.join(directory, name + ".onnx")

    renderer(path("render"))
    renderer(path("render_b4"), batch=4)
    renderer(path("render_fails"), fail_at=100)
    renderer(path("render_fails_b4"), batch=4, fail_at=100)
    renderer(path("render_symbolic_batch"), batch="N")
    renderer(path("render_pooled_3d"), pooled_shape=(64, 1024))
    renderer(path("render_pooled_small"), pooled_shape=(64, 16, 32))
    renderer(path("render_crop_8"), crop=8)
    renderer(path("render_other_output"), rgb="picture")
    renderer(path("render_extra_input"), extra=["gain"])
    renderer(path("render_flat_keypoints"), kp_driving=[1, 63])
    renderer(path("render_half_image"), P_rgb="float16")
    renderer(path("render_open"), P_rgb=[1, 3, "h", "w"], kp_driving=["b", 21, 3])
    own_operators(path("render_own_operators"))
    warped(path("render_warped"))
    warped(path("render_warped_external"), external=True)
    for way in ("resized", "half", "deep", "half_resize", "sensitive"):
        warped(path("render_warped_" + way), way=way)
    sampler(path("sampler"), "")
    sampler(path("sampler_fast"), "com.velmarin")
    sampler(path("sampler_fast_rank3"), "com.velmarin", rank=3)
    feat_synth(path("feat_synth"))
    feat_synth(path("feat_synth_b4"), batch=4)
    encoder(path("encoder"))
    encoder(path("encoder_9_layers"), layers=9)
    encoder(path("encoder_double"), dtype=TensorProto.DOUBLE)
    fca_stream(path("fca_stream"))
    fca_stream(path("fca_stream_short_m"), m_values=62)
    fca_stream(path("fca_stream_short_hn"), hidden=383)
    a2x_models(path)
    motion_models(path)
    int8conv_models(path)


if __name__ == "__main__":
    main(sys.argv[1])
