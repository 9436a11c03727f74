#!/usr/bin/python3
"""The demo's speech models in closed form: a speech encoder and the streaming mouth model.

The encoder hears one window of 8 s at 16 kHz (200 video frames of 640 samples) at zero mean and
unit variance. A Hann-windowed DFT gives the power in five bands per frame, and from these:
    level  0 .. 1      loudness in dB below the window's loudest frame; 0 from the floor down
    width -1 .. 1      round .. spread: 1.7-3.4 kHz (front vowels) against 0.45-1.7 kHz
    jaw    0 .. 1      close .. open vowel: 0.45-1.7 kHz against 0.15-0.45 kHz
A window of steady noise alone (no pitch, hardly any change of loudness) has level 0 throughout;
its normalised samples cannot tell it from speech otherwise.
The embedding carries level, level * width and level * jaw, 256 values each, so that silence is
exactly zero. They alternate in sign from frame to frame (windows start at even frames, so the
sign is one pattern over the whole clip). The caller subtracts a slowly changing mean, and the
difference of two neighbouring frames is free of it:
    x[f] - x[f+1] = +-(level[f] + level[f+1])      up to the mean's change between the two.
fca_stream takes that difference on both sides of the frame. Their average is the level smoothed
by (1, 2, 1) / 4 without delay; twice the smaller one bounds it, which is exactly zero where the
frame and a neighbour are silent, as the mean does not move in silence.
Only logarithms and ratios are carried, so the values stay within a few units.
"""
import os
import sys

import numpy as np
from onnx import TensorProto, checker, helper, numpy_helper, save

try:
    from demo import rig
except ImportError:
    import rig

SAMPLE_RATE = 16000
WINDOW = 128000            # samples per encoder window
FRAMES = 200               # video frames per window
DIMS = 768                 # embedding values per frame and layer
LAYERS = 10
HIDDEN = 384
CONTEXT = (-1, 0, 1, 2, 3, 4, 5)   # frame offsets in "cond"

SPECTRUM = 256             # samples per DFT block (16 ms)
STEP = 128                 # samples between DFT blocks; blocks 0..3 of 5 lie inside a frame
BANDS_HZ = ((150, 450), (450, 1000), (1000, 1700), (1700, 3400), (4000, 7000))

FLOOR_DB = -38.0           # level 0, relative to the loudest frame
HIGHEST_FLOOR_DB = -20.0   # the floor rises up to here above steady background noise
NOISE_MARGIN_DB = 6.0
QUIETEST_REFERENCE = 1e-2  # mean square; the window's is 1 unless it is silent

VOICE_HZ = (100, 1400)     # band in which pitch is sought
PITCH_LAGS = np.arange(40, 201)    # samples: 400 .. 80 Hz

# Gains of the layers 4..9, which callers average (their mean is 1).
LAYER_GAINS = (0.5, 0.7, 0.9, 1.1, 1.3, 1.5)


class _Graph:
    """Collects nodes and constants of one ONNX graph; calls return the output's name."""

    def __init__(self, name):
        self.name, self.nodes, self.constants, self.count = name, [], [], 0

    def const(self, value, dtype=np.float32):
        self.count += 1
        name = f"const{self.count}"
        self.constants.append(numpy_helper.from_array(np.asarray(value, dtype), name))
        return name

    def ints(self, *values):
        return self.const(values, np.int64)

    def __call__(self, op, *inputs, out=None, **attributes):
        """Adds a node; inputs are names, numbers or float arrays."""
        inputs = [i if isinstance(i, str) else self.const(i) for i in inputs]
        self.count += 1
        out = out or f"{op.lower()}{self.count}"
        self.nodes.append(helper.make_node(op, inputs, [out], name=f"{op}_{self.count}", **attributes))
        return out

    def rows(self, x, axis, begin, end):
        """x[begin:end] along one axis."""
        return self("Slice", x, self.ints(begin), self.ints(end), self.ints(axis))

    def reshape(self, x, *shape, out=None):
        return self("Reshape", x, self.ints(*shape), out=out)

    def top(self, x, count, largest):
        """The count largest (or smallest) values along axis 2, in order."""
        self.count += 1
        out = f"top{self.count}"
        self.nodes.append(helper.make_node("TopK", [x, self.ints(count)], [out, out + "_at"],
                                           axis=2, largest=largest))
        return out

    def clip(self, x, low, high):
        return self("Clip", x, low, high)

    def save(self, path, inputs, outputs):
        def infos(entries):
            return [helper.make_tensor_value_info(n, TensorProto.FLOAT, s) for n, s in entries]
        graph = helper.make_graph(self.nodes, self.name, infos(inputs), infos(outputs), self.constants)
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=7,
                                  producer_name="zorv demo")
        checker.check_model(model, full_check=True)
        save(model, path)


def _dft_filters(size, hertz_ranges):
    """Hann-windowed DFT of the K bins (numbers [K]) inside the ranges.

    Returns the numbers, filters [2K, 1, size] (cosines, then sines) and the matrix
    [ranges, 2K] that adds up their squares per range. The sum over all bins of a block would be its mean square; bins start above the Hann
    window's main lobe, so that no constant gets through.
    """
    hertz = np.arange(size // 2) * SAMPLE_RATE / size
    within = np.array([(hertz >= a) & (hertz < b) for a, b in hertz_ranges])
    used = np.flatnonzero(within.any(axis=0))
    phase = 2 * np.pi * np.outer(used, np.arange(size)) / size
    hann = _hann(size)
    filters = np.concatenate([np.cos(phase), np.sin(phase)]) * hann * np.sqrt(2 / (size * np.sum(hann ** 2)))
    return used, filters[:, None, :], np.tile(within[:, used], 2)


def _hann(size):
    return 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(size) / size)


def _decibel(g, power):
    return g("Mul", g("Log", power), 10 / np.log(10))


def _band_powers(g):
    """Mean square of each frame in each band: five tensors [1, 1, 200]."""
    _, filters, sums = _dft_filters(SPECTRUM, BANDS_HZ)
    spectrum = g("Conv", g.reshape("input_values", 1, 1, WINDOW), filters, strides=[STEP], pads=[0, SPECTRUM - STEP])
    bands = g("MatMul", sums, g("Mul", spectrum, spectrum))       # [1, 5, 1000]
    blocks = g.reshape(bands, 1, len(BANDS_HZ), FRAMES, 5)
    frames = g("ReduceMean", g.rows(blocks, 3, 0, 4), axes=[3], keepdims=0)
    return [g.rows(frames, 1, i, i + 1) for i in range(len(BANDS_HZ))]


def _periodicity(g):
    """[1, 1, 200]: highest autocorrelation of each frame at a pitch lag, about 1 where voiced."""
    size = WINDOW // FRAMES
    bins, filters, every = _dft_filters(size, (VOICE_HZ,))
    spectrum = g("Conv", g.reshape("input_values", 1, 1, WINDOW), filters, strides=[size])
    power = g("Mul", spectrum, spectrum)
    hann = _hann(size)
    overlap = np.array([np.sum(hann * np.roll(hann, lag)) for lag in PITCH_LAGS]) / np.sum(hann ** 2)
    cosines = np.cos(2 * np.pi * np.outer(PITCH_LAGS, bins) / size) / overlap[:, None]
    at_lags = g("MatMul", np.tile(cosines, 2), power)             # [1, lags, 200]
    best = g("ReduceMax", at_lags, axes=[1], keepdims=1)
    return g("Div", best, g("Add", g("MatMul", every, power), 1e-6))


def _ranked(g, x, rank, largest):
    """The rank-th largest or smallest of [1, 1, 200] values, as [1, 1, 1]."""
    return g.rows(g.top(x, rank, largest), 2, rank - 1, rank)


def _speech_likeness(g, range_db):
    """0..1: whether the window holds speech, by pitch or by the range of its loudness."""
    pitch = g("Sub", _ranked(g, _periodicity(g), 5, 1), 0.85)
    change = g("Sub", range_db, 9.0)
    return g.clip(g("Max", g("Mul", pitch, 1 / 0.08), g("Mul", change, 1 / 5)), 0.0, 1.0)


def _level(g, loudness):
    """0..1 per frame: dB above the floor over the dB from floor to the loudest frame."""
    smooth = g("Conv", loudness, np.full((1, 1, 3), 1 / 3), pads=[1, 1])
    reference = g("Max", g("ReduceMax", smooth, axes=[2], keepdims=1), QUIETEST_REFERENCE)
    decibel = _decibel(g, g("Div", g("Add", loudness, 1e-6), reference))
    # Background: the eighth quietest frame of those that are not silent.
    silent = g("Less", decibel, FLOOR_DB - 12)
    background = _ranked(g, g("Where", silent, 0.0, decibel), 8, 0)
    floor = g.clip(g("Add", background, NOISE_MARGIN_DB), FLOOR_DB, HIGHEST_FLOOR_DB)
    level = g.clip(g("Div", g("Sub", decibel, floor), g("Neg", floor)), 0.0, 1.0)
    return g("Mul", level, _speech_likeness(g, g("Neg", background)))


def _mouth_features(g):
    """level, width and jaw of the header comment, each [1, 1, 200]."""
    close, open_, mid, front, hiss = _band_powers(g)
    body = g("Add", open_, mid)
    voiced = g("Add", close, body)
    # What is above 1.7 kHz without a voice below it is a sibilant and opens little.
    loudness = g("Sum", g("Mul", close, 0.7), body, g("Min", front, voiced),
                 g("Mul", g("Add", front, hiss), 0.04))
    level = _level(g, loudness)

    # Ratios are bounded: a band counts at least 1e-4 of the frame (and 1e-6 of the window).
    least = g("Add", g("Mul", g("Add", voiced, front), 1e-4), 1e-6)
    close_db, body_db, front_db = (_decibel(g, g("Add", p, least)) for p in (close, body, front))
    jaw_db = g("Sub", body_db, close_db)
    spread = g.clip(g("Mul", g("Add", g("Sub", front_db, body_db), 3.0), 1 / 7), -1.0, 1.0)
    # Open back vowels have a weak front band too, without being round.
    width = g.clip(g("Add", spread, g("Mul", g("Relu", jaw_db), 0.08)), -1.0, 1.0)
    jaw = g.clip(g("Add", g("Mul", jaw_db, 1 / 24), 0.5), 0.0, 1.0)
    return level, width, jaw


def _carrier():
    """[200, 256] signs: alternating over frames and over values, so that both signs occur."""
    return (-1.0) ** (np.arange(FRAMES)[:, None] + np.arange(DIMS // 3)[None, :])


def write_encoder(path):
    """"input_values" [1, 128000], normalised audio -> "audio_emb" [10, 200, 768].

    Layers 4..9 carry the mouth features at different gains, layers 0..3 the bare level.
    """
    g = _Graph("speech_encoder")
    level, width, jaw = _mouth_features(g)
    carried = [level, g("Mul", level, width), g("Mul", level, jaw)]
    carrier = _carrier()
    groups = [g("Mul", g.reshape(c, FRAMES, 1), carrier) for c in carried]   # [200, 256] each
    embedding = g.reshape(g("Concat", *groups, axis=1), 1, FRAMES, DIMS)
    upper = g("Mul", embedding, np.reshape(LAYER_GAINS, (-1, 1, 1)))
    lower = g("Expand", g.reshape(level, 1, FRAMES, 1), g.ints(LAYERS - len(LAYER_GAINS), FRAMES, DIMS))
    g("Concat", lower, upper, axis=0, out="audio_emb")
    g.save(path, [("input_values", [1, WINDOW])], [("audio_emb", [LAYERS, FRAMES, DIMS])])


def _neighbour_sums(g):
    """Per side (frame before, frame after): level, level * width, level * jaw, each [1, 1].

    Every value is the frame's plus the neighbour's, halved, with the carrier's sign removed.
    """
    carrier = _carrier()[0]
    demodulate = np.zeros((DIMS, 3), np.float32)
    for i in range(3):
        demodulate[i * 256:(i + 1) * 256, i] = carrier / 512
    at = {o: g.rows("cond", 1, i * DIMS, (i + 1) * DIMS) for i, o in enumerate(CONTEXT)}
    sides = []
    for neighbour in (-1, 1):
        # Subtract first: equal frames must give exact zeros.
        values = g("MatMul", g("Sub", at[0], at[neighbour]), demodulate)
        level = g.rows(values, 1, 0, 1)
        sides.append(g("Mul", values, g("Sign", level)))
    return [[g.rows(s, 1, i, i + 1) for i in range(3)] for s in sides]


def write_stream_model(path):
    """fca_stream: "cond" [1, 5376], "prev" [1, 63], "h" [1, 1, 384] -> "m" [1, 63], "hn".

    opening = level^1.5 * (close .. open vowel), rising at most 0.6 a frame and falling by no more
    than 70 % (both read from "prev"), and zero whenever the level is. The width follows the
    vowel's by halves; the hidden state holds it, in every value.
    """
    g = _Graph("fca_stream")
    before, after = _neighbour_sums(g)
    level, wide, jaw = (g("Mul", g("Add", b, a), 0.5) for b, a in zip(before, after))
    level = g("Min", level, g("Mul", g("Min", before[0], after[0]), 2.0))
    heard = g.clip(g("Mul", level, 8.0), 0.0, 1.0)
    total = g("Add", g("Mul", g("Add", before[0], after[0]), 0.5), 1e-6)
    wide, jaw = (g.clip(g("Div", v, total), low, 1.0) for v, low in ((wide, -1.0), (jaw, 0.0)))

    target = g("Mul", g("Pow", level, 1.5), g("Add", g("Mul", jaw, 0.45), 0.55))
    basis = rig.LIP_BASIS.reshape(2, -1)
    last = g("MatMul", "prev", np.linalg.pinv(basis)[:, :1])       # opening of the frame before
    target = g("Min", g("Max", target, g("Mul", last, 0.3)), g("Add", last, 0.6))
    opening = g("Mul", g("Relu", target), heard)

    state = g("ReduceMean", g.reshape("h", 1, HIDDEN), axes=[1], keepdims=1)
    state = g("Mul", g("Add", state, wide), 0.5)
    g("Expand", g.reshape(state, 1, 1, 1), g.ints(1, 1, HIDDEN), out="hn")
    shape = g("Concat", opening, g("Mul", state, heard), axis=1)
    g("MatMul", shape, basis, out="m")
    g.save(path, [("cond", [1, len(CONTEXT) * DIMS]), ("prev", [1, 63]), ("h", [1, 1, HIDDEN])],
           [("m", [1, 63]), ("hn", [1, 1, HIDDEN])])


def write_speech_models(out_dir):
    """Writes OUT/speech_encoder.onnx and OUT/bundle/fca_stream.onnx."""
    os.makedirs(os.path.join(out_dir, "bundle"), exist_ok=True)
    write_encoder(os.path.join(out_dir, "speech_encoder.onnx"))
    write_stream_model(os.path.join(out_dir, "bundle", "fca_stream.onnx"))


if __name__ == "__main__":
    write_speech_models(sys.argv[1] if len(sys.argv) > 1 else "out")
