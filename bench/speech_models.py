#!/usr/bin/python3
"""Writes speech models of trained sizes with random weights for speech_bench:

    speech_models.py DIR [DEMO]

    motion      feature model (10 M parameters, 5 transformer layers of 384) and generator (30 M, 7
                layers of 512 with attention to the conditioning rows), one pass through its layers
    motion_N    the same generator, its layers passed through N times, as one that removes noise in
                N steps
    speech_encoder.onnx  12 transformer layers of 768 behind a convolutional front end (94 M)
    speech_trunk.onnx, speech_head.onnx  the same front end over 2 s, the same layers over 8 frames
    expression  streaming encoder (6 layers of 256, 5 M) and recurrent decoder (10 M)

Everything else in the directories is copied from the demo subject DEMO (build/demo), whose bundle
they speak to. 1.2 GB.
"""
import json
import os
import pathlib
import shutil
import sys
import zlib

import numpy as np
from onnx import TensorProto

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "demo"))
from onnx_build import GraphBuilder

STEPS = (4, 12)            # of the generators beside the plain one
STREAM, LEFT, AHEAD, DEPTH = 256, 8, 0, 6
LONGEST = 3000             # frames of an expression stream


class Net(GraphBuilder):
    """Layers by name: the same name has the same weights in every graph."""

    def __init__(self, name):
        super().__init__(name)
        self.weights = {}

    def parameters(self):
        return sum(int(np.prod(w.dims)) for w in self.constants.values())

    def weight(self, name, shape, deviation):
        if name not in self.weights:
            random = np.random.default_rng(zlib.crc32(name.encode()))
            values = random.standard_normal(shape, np.float32) * np.float32(deviation)
            self.weights[name] = self.constant(values)
        return self.weights[name]

    def linear(self, x, name, inputs, outputs, gain=1.0):
        w = self.weight(name + ".w", (inputs, outputs), gain / np.sqrt(inputs))
        return self.matmul(x, w) + self.weight(name + ".b", (outputs,), 0.02)

    def conv(self, x, name, inputs, outputs, kernel, group=1, **attributes):
        fan = inputs // group * kernel
        return self.op("Conv", x, self.weight(name + ".w", (outputs, inputs // group, kernel), np.sqrt(2 / fan)),
                       self.weight(name + ".b", (outputs,), 0.02), group=group, **attributes)

    def gelu(self, x):
        return x * 0.5 * (self.op("Erf", x / np.sqrt(2)) + 1)

    def norm(self, x):
        centred = x - self.op("ReduceMean", x, axes=[-1])
        variance = self.op("ReduceMean", self.op("Pow", centred, 2.0), axes=[-1])
        width = self.width
        return (centred / self.sqrt(variance + 1e-5) * self.constant(np.ones(width))
                + self.constant(np.zeros(width)))

    def attend(self, x, context, name, heads, mask=None):
        """Attention of x [1, n, width] to context [1, m, width] under an additive mask."""
        width, each = self.width, self.width // heads

        def split(value, part, order):
            rows = self.linear(value, f"{name}.{part}", width, width)
            return self.transpose(self.reshape(rows, [1, -1, heads, each]), order)

        scores = self.matmul(split(x, "q", [0, 2, 1, 3]), split(context, "k", [0, 2, 3, 1])) / np.sqrt(each)
        weights = self.op("Softmax", scores if mask is None else scores + mask, axis=3)
        mixed = self.transpose(self.matmul(weights, split(context, "v", [0, 2, 1, 3])), [0, 2, 1, 3])
        return self.linear(self.reshape(mixed, [1, -1, width]), name + ".o", width, width)

    def layer(self, x, name, heads, context=None, mask=None):
        """A transformer layer, normalised behind each of its parts."""
        x = self.norm(x + self.attend(x, x, name + ".self", heads, mask))
        if context is not None:
            x = self.norm(x + self.attend(x, context, name + ".cross", heads))
        inner = self.gelu(self.linear(x, name + ".in", self.width, 4 * self.width))
        return self.norm(x + self.linear(inner, name + ".out", 4 * self.width, self.width))

    def write(self, path):
        print(f"{path}: {self.parameters() / 1e6:.1f} M parameters", flush=True)
        self.save(path)


def write_feature_model(path):
    g = Net("speech features of random weights")
    g.width = 384
    x = g.gelu(g.conv(g.input("mel", [1, 80, 21]), "conv0", 80, 384, 3, pads=[1, 1]))
    x = g.gelu(g.conv(x, "conv1", 384, 384, 2))
    x = g.norm(g.transpose(x, [0, 2, 1]) + g.weight("places", (1, 20, 384), 0.1))
    for i in range(5):
        x = g.layer(x, f"layer{i}", 6)
    g.output("features", g.linear(x, "last", 384, 1024), [1, 20, 1024])
    g.write(path)


def write_generator(path, steps):
    g = Net("motion of random weights")
    g.width = 512
    before, rows = g.input("before", [1, 265]), g.input("rows", [1, 80, 1103])
    heard = g.norm(g.linear(rows, "rows", 1103, 512) + g.weight("places", (1, 80, 512), 0.1))
    before = g.linear(g.reshape(before, [1, 1, 265]), "before", 265, 512, gain=0.3)
    motion = g.weight("noise", (1, 80, 265), 1.0)
    for step in range(steps):
        x = g.linear(motion, "motion", 265, 512) + before + g.weight(f"step{step}", (512,), 0.1)
        x = g.norm(x + g.weight("places", (1, 80, 512), 0.1))
        for i in range(7):
            x = g.layer(x, f"layer{i}", 8, context=heard)
        motion = motion * 0.5 + g.linear(x, "last", 512, 265, gain=0.1)
    g.output("motion", motion, [1, 80, 265])
    g.write(path)


def write_stitch(path):
    g = Net("keypoints of random weights")
    source, driving = g.input("source", [1, 63]), g.input("driving", [1, 63])
    x = g.gelu(g.linear(g.concat([source, driving], 1), "in", 126, 128))
    x = g.gelu(g.linear(x, "mid", 128, 128))
    g.output("keypoints", g.reshape(driving + g.linear(x, "out", 128, 63, gain=0.01), [1, 21, 3]), [1, 21, 3])
    g.write(path)


def front_end(g, samples):
    """"input_values" -> [1, 640, steps of 80 samples]; the first layer is normalised over time."""
    x = g.reshape(g.input("input_values", [1, samples]), [1, 1, samples])
    x = g.conv(x, "front0", 1, 512, 10, strides=[5])
    x = g.gelu(g.op("InstanceNormalization", x, g.constant(np.ones(512)), g.constant(np.zeros(512)), epsilon=1e-5))
    for i in range(1, 5):
        x = g.gelu(g.conv(x, f"front{i}", 512, 640 if i == 4 else 512, 3, strides=[2]))
    return x


def hidden_states(g, frames):
    """[1, n, 640] -> what comes out of each of the twelve layers, [1, n, 768]."""
    g.width = 640
    frames = g.norm(frames)
    g.width = 768
    x = g.linear(frames, "project", 640, 768)
    around = g.conv(g.transpose(x, [0, 2, 1]), "around", 768, 768, 128, group=16, pads=[64, 63])
    x = g.norm(x + g.transpose(g.gelu(around), [0, 2, 1]))
    states = []
    for i in range(12):
        x = g.layer(x, f"layer{i}", 12)
        states.append(x)
    return states


def write_encoder(path):
    g = Net("speech encoder of random weights")
    channels = front_end(g, 128000)                                        # [1, 640, 1599]
    at = np.arange(200) * 1598 / 199
    low = np.minimum(np.floor(at).astype(np.int64), 1597)
    sampled = g.mix(g.gather(channels, low, 2), g.gather(channels, low + 1, 2), (at - low).astype(np.float32))
    states = hidden_states(g, g.transpose(sampled, [0, 2, 1]))
    g.output("audio_emb", g.concat(states, 0), [12, 200, 768])
    g.write(path)


def write_trunk(path):
    g = Net("speech trunk of random weights")
    halves = g.op("Cast", front_end(g, 32000), to=TensorProto.FLOAT16)
    g.output("trunk", halves, [1, 640, 399], TensorProto.FLOAT16)
    g.write(path)


def write_head(path):
    g = Net("speech head of random weights")
    states = hidden_states(g, g.reshape(g.input("x", [8, 640]), [1, 8, 640]))
    g.output("emb", g.reshape(g.concat(states, 2), [8, 12 * 768]), [8, 12 * 768])
    g.write(path)


def write_streaming_encoder(path):
    g = Net("expression encoder of random weights")
    features = g.input("feat", [1, "n", 12, 768])
    places = g.input("pos_window", [1, "n", STREAM])
    mask = g.input("attn", [1, 1, "n", "n"])
    mixed = g.op("ReduceSum", features * np.full((12, 1), 1 / 12), g.constant([2], np.int64), keepdims=0)
    g.width = STREAM
    x = g.norm(g.linear(mixed, "project", 768, STREAM) + places)
    for i in range(DEPTH):
        x = g.layer(x, f"layer{i}", 8, mask=mask)
    g.output("ctx", x, [1, "n", STREAM])
    g.write(path)


def write_decoder(path):
    g = Net("expression decoder of random weights")
    heard, before = g.input("ctx_t", [1, STREAM]), g.input("prev", [1, 63])
    old = g.reshape(g.input("h", [1, 1, STREAM]), [1, STREAM])
    x = g.gelu(g.linear(g.concat([heard, before], 1), "in", STREAM + 63, 1536))
    x = g.gelu(g.linear(x, "mid", 1536, 1536))
    update, keep, new = (g.slice(g.linear(x, "gates", 1536, 3 * STREAM), 1, i * STREAM, (i + 1) * STREAM)
                         for i in range(3))
    update = g.op("Sigmoid", update + g.linear(old, "old_update", STREAM, STREAM))
    keep = g.op("Sigmoid", keep + g.linear(old, "old_keep", STREAM, STREAM))
    new = g.op("Tanh", new + keep * g.linear(old, "old_new", STREAM, STREAM))
    state = g.mix(new, old, update)
    x = g.gelu(g.linear(g.concat([state, x], 1), "wide", STREAM + 1536, 1536))
    x = g.gelu(g.linear(x, "wide2", 1536, 1536))
    g.output("m", g.op("Tanh", g.linear(x, "last", 1536, 63)), [1, 63])
    g.output("h_out", g.reshape(state, [1, 1, STREAM]), [1, 1, STREAM])
    g.write(path)


def write_motion(root, demo):
    first = root / "motion"
    for steps in (1, *STEPS):
        path = first if steps == 1 else root / f"motion_{steps}"
        shutil.copytree(demo / "motion", path, ignore=shutil.ignore_patterns("*.onnx"), dirs_exist_ok=True)
        write_generator(path / "lmdm.onnx", steps)
        for name, write in (("hubert_student.onnx", write_feature_model), ("stitch.onnx", write_stitch)):
            if steps == 1:
                write(path / name)
            else:
                (path / name).unlink(missing_ok=True)
                os.link(first / name, path / name)


def write_expression(path, demo):
    path.mkdir(exist_ok=True)
    shutil.copy(demo / "expression" / "xs_target.bin", path)
    meta = {"h": STREAM, "window": AHEAD, "left": LEFT, "layers": DEPTH, "maxlen": 1200, "silence_prime": 0}
    (path / "a2x_meta.json").write_text(json.dumps(meta))
    phase = np.arange(LONGEST)[:, None] / 10000 ** (np.arange(STREAM // 2) / (STREAM // 2))
    np.concatenate([np.sin(phase), np.cos(phase)], 1).astype("<f4").tofile(path / "a2x_pos.f32")
    np.repeat([0, 0.002], 63).astype("<f4").tofile(path / "a2x_norm.f32")
    write_streaming_encoder(path / "a2x_enc_stream.onnx")
    write_decoder(path / "a2x_dec.onnx")


def main(root, demo="build/demo"):
    root, demo = pathlib.Path(root), pathlib.Path(demo)
    root.mkdir(parents=True, exist_ok=True)
    write_motion(root, demo)
    write_encoder(root / "speech_encoder.onnx")
    write_trunk(root / "speech_trunk.onnx")
    write_head(root / "speech_head.onnx")
    write_expression(root / "expression", demo)


if __name__ == "__main__":
    main(*sys.argv[1:])
