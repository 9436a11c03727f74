#!/usr/bin/python3
"""The demo's expression models in closed form: short-window encoder, streaming encoder, decoder.

Features of a frame are 12 layers x 768 values; layers 0..3 and 10..11 carry level, level * width and
level * jaw of speech_model.py, 256 values each. They come either from the speech encoder's window
of 8 s or, with little delay, from two smaller models:
    trunk   hears 2 s and gives 640 channels every 5 ms. The caller samples them at points between
            the steps, so each step stands for the 40 ms around it; and since they travel in half
            precision, they are decibels: powers would overflow, and the rests between words vanish.
    head    turns the 640 channels of 8 frames into 8 x 12 x 768 features.

The streaming encoder has two attention layers over LEFT frames back and AHEAD frames ahead:
    1  smooths the features: query and key are the frame's place on a circle, so that the weights
       fall with the distance like a bell curve;
    2  finds how loud the last half second was: the key is the level itself.
The mouth opens by the level in relation to that, so a quiet sentence is spoken as clearly as a
loud one. The mask is added to the scores, as it holds -infinity: a product would give NaN.
Its rows are opening, "heard" (0 in silence, 1 in speech) and width; the remaining values are zero.

The decoder limits how fast the mouth opens and closes, reading its own last frame from "prev", and
lets the width follow by halves. Values are normalised: the lips' mean is that of a speaking mouth, so
rest is m * std + mean = 0 and not m = 0. Standard deviations are powers of two, hence rest is exact.
The first hidden value is 1 in a running stream: the zero state of a new one stands for rest, too.
"""
import json
import shutil

import numpy as np
from onnx import TensorProto

import rig
import speech_model as speech
from onnx_build import GraphBuilder

# Trunk and head
TRUNK_WINDOW = 32000       # samples
TRUNK_STEP = 80
TRUNK_STEPS = TRUNK_WINDOW // TRUNK_STEP
STEPS_PER_FRAME = 8
CHANNELS = 640
TRUNK_VALUES = 4           # level; close, body and front band in bel
HEAD_FRAMES = 8

# Streaming encoder
WIDTH = 16                 # values per frame
LEFT, AHEAD, DEPTH = 12, 2, 2
LONGEST = 45000            # frames of a stream: half an hour
PERIODS = 4.0 * 2.0 ** np.arange(WIDTH // 2)      # frames, of the positional sines
SMOOTHING_PERIOD, SMOOTHING_SHARPNESS = 32.0, 36.0   # weights 1, 1/2, 1/16 at 0, 1, 2 frames
PEAK_SHARPNESS = 8.0
QUIET_PEAK = 0.45          # a level below which speech no longer counts as fully loud
SILENCE_PRIME = 25         # frames

# Decoder
RISE, FALL = 0.6, 0.3      # per frame: at most + RISE, not below FALL times the last opening
SPEAKING = (0.25, 0.125)   # opening and width at the mean of the normalised values
LIP_SCALE, OTHER_SCALE = 2.0 ** -4, 2.0 ** -6


def write_trunk(path):
    """"input_values" [1, 32000], normalised audio -> "trunk" [1, 640, 400], float16."""
    g = GraphBuilder("speech_trunk")
    audio = g.reshape(g.input("input_values", [1, TRUNK_WINDOW]), [1, 1, TRUNK_WINDOW])
    before = speech.SPECTRUM // 2                                  # blocks are centred on their step
    powers = speech.block_powers(g, audio, TRUNK_STEP, [before, before - TRUNK_STEP])
    smooth = g.op("AveragePool", powers, kernel_shape=[7], pads=[3, 3], count_include_pad=1)
    bands = speech.split_bands(g, smooth)
    level = speech.level_of(g, audio, speech.loudness_of(g, bands), STEPS_PER_FRAME,
                            background_rank=16, pitch_rank=2)
    bels = [value * 0.1 for value in speech.vowel_decibels(g, bands)]
    values = g.concat([level, *bels], axis=1)                      # [1, 4, 400]
    spread = (g.reshape(values, [1, TRUNK_VALUES, 1, TRUNK_STEPS])
              * np.ones((1, 1, CHANNELS // TRUNK_VALUES, 1)))
    halves = g.op("Cast", g.reshape(spread, [1, CHANNELS, TRUNK_STEPS]), to=TensorProto.FLOAT16)
    g.output("trunk", halves, [1, CHANNELS, TRUNK_STEPS], TensorProto.FLOAT16)
    g.save(path)


def write_head(path):
    """"x" [8, 640], the trunk at 8 frames -> "emb" [8, 9216], the first frame's number being even."""
    g = GraphBuilder("speech_head")
    channels = g.input("x", [HEAD_FRAMES, CHANNELS])
    copies = CHANNELS // TRUNK_VALUES
    gather = np.kron(np.eye(TRUNK_VALUES), np.ones((copies, 1))) / copies
    means = g.matmul(channels, gather)
    level, *bels = (g.slice(means, 1, i, i + 1) for i in range(TRUNK_VALUES))
    width, jaw = speech.mouth_shape(g, *(bel * 10.0 for bel in bels))
    carried = speech.carried_features(g, g.clip(level, 0, 1), width, jaw, HEAD_FRAMES)
    embedding = (g.reshape(carried, [HEAD_FRAMES // 2, 2, 1, speech.FEATURES, 1])
                 * speech.layer_pattern().transpose(1, 0, 2)[None, :, :, None])
    g.output("emb", g.reshape(embedding, [HEAD_FRAMES, speech.LAYERS * speech.DIMS]),
             [HEAD_FRAMES, speech.LAYERS * speech.DIMS])
    g.save(path)


def positions(count):
    """[count, WIDTH] float32: sines, then cosines of the frame number, one pair per period."""
    phase = 2 * np.pi * np.outer(np.arange(count), 1 / PERIODS)
    return np.concatenate([np.sin(phase), np.cos(phase)], axis=1).astype(np.float32)


def feature_reader():
    """[9216, 3]: the mean over the bare layers of what each of the features is carried by."""
    bare = [layer not in speech.ALTERNATING_LAYERS for layer in range(speech.LAYERS)]
    per_layer = np.kron(np.eye(speech.FEATURES), np.ones((speech.GROUP, 1))) / speech.GROUP
    return np.kron(np.array(bare)[:, None] / sum(bare), per_layer)


def attend(g, query, key, value, mask):
    """Attention of rows [1, n, k] under an additive mask [1, 1, n, n]; gives [1, 1, n, values]."""
    scores = g.matmul(query, g.transpose(key, [0, 2, 1])) + mask
    return g.matmul(g.op("Softmax", scores, axis=3), value)


def write_streaming_encoder(path):
    """"feat" [1, n, 12, 768], "pos_window" [1, n, 16], "attn" [1, 1, n, n] -> "ctx" [1, n, 16]."""
    g = GraphBuilder("a2x_enc_stream")
    features = g.input("feat", [1, "n", speech.LAYERS, speech.DIMS])
    places = g.input("pos_window", [1, "n", WIDTH])
    mask = g.input("attn", [1, 1, "n", "n"])
    carried = g.matmul(g.reshape(features, [1, -1, speech.LAYERS * speech.DIMS]), feature_reader())

    on_circle = np.tile(PERIODS == SMOOTHING_PERIOD, 2)[:, None] * np.eye(WIDTH)
    key = g.matmul(places, on_circle[:, on_circle.any(axis=0)])
    smooth = attend(g, key * SMOOTHING_SHARPNESS, key, carried, mask)     # [1, 1, n, 3]
    level, width, jaw = (g.slice(smooth, 3, i, i + 1) for i in range(speech.FEATURES))
    heard = g.clip(level * 8.0, 0, 1)
    width, jaw = width / (level + 1e-6), jaw / (level + 1e-6)

    rows = g.reshape(level, [1, -1, 1])
    peak = attend(g, rows * 0.0 + PEAK_SHARPNESS, rows, rows, mask)
    relative = g.clip(level / g.maximum(peak, QUIET_PEAK), 0, 1)
    opening = g.op("Pow", relative, 1.5) * (g.clip(jaw, 0, 1) * 0.45 + 0.55)
    row = g.matmul(g.concat([opening, heard, g.clip(width, -1, 1)], axis=3), np.eye(3, WIDTH))
    g.output("ctx", g.reshape(row, [1, -1, WIDTH]), [1, "n", WIDTH])
    g.save(path)


def normalisation():
    """Mean and standard deviation [63] of the decoder's values: scales that are powers of two."""
    mean = rig.mouth_offsets(*SPEAKING)
    scale = np.full((rig.KEYPOINTS, 3), OTHER_SCALE, np.float32)
    scale[list(rig.LIPS)] = LIP_SCALE
    return mean, scale.ravel()


def write_decoder(path):
    """"ctx_t" [1, 16], "prev" [1, 63], "h" [1, 1, 16] -> "m" [1, 63], "h_out" [1, 1, 16].

    Hidden values: 1 in a running stream, the width last shown, zeros.
    """
    g = GraphBuilder("a2x_dec")
    context = g.input("ctx_t", [1, WIDTH])
    prev = g.input("prev", [1, 3 * rig.KEYPOINTS])
    hidden = g.reshape(g.input("h", [1, 1, WIDTH]), [1, WIDTH])
    target, heard, width = (g.slice(context, 1, i, i + 1) for i in range(3))
    running, held = (g.slice(hidden, 1, i, i + 1) for i in range(2))

    mean, scale = normalisation()
    basis = rig.LIP_BASIS.reshape(2, -1)
    offsets = prev * scale + mean
    last = g.matmul(offsets, np.linalg.pinv(basis)[:, :1]) * running
    opening = g.op("Relu", g.minimum(g.maximum(target, last * FALL), last + RISE)) * heard
    width = (held + width) * 0.5
    moved = g.matmul(g.concat([opening, width * heard], axis=1), basis)
    g.output("m", (moved - mean) / scale, [1, 3 * rig.KEYPOINTS])
    state = g.matmul(g.concat([g.constant([[1.0]]), width], axis=1), np.eye(2, WIDTH))
    g.output("h_out", g.reshape(state, [1, 1, WIDTH]), [1, 1, WIDTH])
    g.save(path)


def write_expression_directory(directory, keypoints):
    """The expression engine's files; keypoints: the file with the target frames' keypoints."""
    directory.mkdir()
    meta = {"h": WIDTH, "window": AHEAD, "left": LEFT, "layers": DEPTH, "maxlen": LONGEST,
            "silence_prime": SILENCE_PRIME}
    (directory / "a2x_meta.json").write_text(json.dumps(meta, indent=2) + "\n")
    positions(LONGEST).tofile(directory / "a2x_pos.f32")
    np.concatenate(normalisation()).astype(np.float32).tofile(directory / "a2x_norm.f32")
    shutil.copyfile(keypoints, directory / "xs_target.bin")
    write_streaming_encoder(directory / "a2x_enc_stream.onnx")
    write_decoder(directory / "a2x_dec.onnx")


def write_expression_models(out):
    """Writes OUT/expression/, OUT/speech_trunk.onnx and OUT/speech_head.onnx beside OUT/bundle/."""
    write_trunk(out / "speech_trunk.onnx")
    write_head(out / "speech_head.onnx")
    write_expression_directory(out / "expression", out / "bundle" / "xs_target.bin")
