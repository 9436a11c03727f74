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
exactly zero. Layers 4..9, which the mouth model's caller averages, alternate in sign from frame to
frame (windows start at even frames, so the sign is one pattern over the whole clip); the other
layers are for the expression models (expression_model.py) and carry the bare values. The caller of
the mouth model subtracts a slowly changing mean, and the difference of two neighbouring frames is
free of it:
    x[f] - x[f+1] = +-(level[f] + level[f+1])      up to the mean's change between the two.
fca_stream takes that difference on both sides of the frame. Their average is the level smoothed
by (1, 2, 1) / 4 without delay; twice the smaller one bounds it, which is exactly zero where the
frame and a neighbour are silent, as the mean does not move in silence.
Only logarithms and ratios are carried, so the values stay within a few units.
"""
import os
import sys

import numpy as np

import rig
from onnx_build import GraphBuilder

SAMPLE_RATE = 16000
WINDOW = 128000            # samples per encoder window
FRAMES = 200               # video frames per window
DIMS = 768                 # embedding values per frame and layer
LAYERS = 12
FEATURES = 3               # level, level * width, level * jaw
GROUP = DIMS // FEATURES   # values carrying each
HIDDEN = 384
CONTEXT = (-1, 0, 1, 2, 3, 4, 5)   # frame offsets in "cond"

SPECTRUM = 256             # samples per DFT block (16 ms)
STEP = 128                 # samples between DFT blocks; blocks 0..3 of 5 lie inside a frame
BANDS_HZ = ((150, 450), (450, 1000), (1000, 1700), (1700, 3400), (4000, 7000))

FLOOR_DB = -38.0           # level 0, relative to the loudest frame
SILENT_DB = -50.0          # a frame below is a gap in the sound, no part of its background
HIGHEST_FLOOR_DB = -20.0   # the floor rises up to here above steady background noise
NOISE_MARGIN_DB = 6.0
QUIETEST_REFERENCE = 1e-2  # mean square; the window's is 1 unless it is silent

VOICE_HZ = (100, 1400)     # band in which pitch is sought
PITCH_LAGS = np.arange(40, 201)    # samples: 400 .. 80 Hz

# Gains of the layers; those of 4..9, which the mouth model's caller averages, have a mean of 1.
LAYER_GAINS = (1.0, 1.0, 1.0, 1.0, 0.5, 0.7, 0.9, 1.1, 1.3, 1.5, 1.0, 1.0)
ALTERNATING_LAYERS = range(4, 10)


def hann(size):
    """Periodic Hann window."""
    return 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(size) / size)


def dft_filters(size, ranges_hz):
    """Hann-windowed DFT of the K bins inside the ranges.

    Returns their numbers [K], filters [2K, 1, size] (cosines, then sines) and the matrix
    [ranges, 2K] that adds up their squares per range. All bins of a block would add up to its
    mean square; the bins start above the window's main lobe, so that no constant gets through.
    """
    hertz = np.arange(size // 2) * SAMPLE_RATE / size
    within = np.array([(hertz >= low) & (hertz < high) for low, high in ranges_hz])
    bins = np.flatnonzero(within.any(axis=0))
    phase = 2 * np.pi * np.outer(bins, np.arange(size)) / size
    window = hann(size) * np.sqrt(2 / (size * np.sum(hann(size) ** 2)))
    filters = np.concatenate([np.cos(phase), np.sin(phase)]) * window
    return bins, filters[:, None, :], np.tile(within[:, bins], 2)


def decibel(g, power):
    return g.op("Log", power) * (10 / np.log(10))


def ranked(g, x, rank, largest):
    """The rank-th largest or smallest of values [1, 1, 200], as [1, 1, 1]."""
    count = g.constant([rank], np.int64)
    values, _ = g.op("TopK", x, count, outputs=2, axis=2, largest=largest)
    return g.slice(values, 2, rank - 1, rank)


def block_powers(g, audio, step, pads):
    """Power in each band of the DFT blocks, one every `step` samples: [1, 5, blocks]."""
    _, filters, sums = dft_filters(SPECTRUM, BANDS_HZ)
    spectrum = g.op("Conv", audio, filters, strides=[step], pads=pads)
    return g.matmul(sums, spectrum * spectrum)


def split_bands(g, powers):
    """[1, 5, n] as five tensors [1, 1, n]."""
    return [g.slice(powers, 1, i, i + 1) for i in range(len(BANDS_HZ))]


def frame_powers(g, audio):
    """Mean square of each frame in each band: five tensors [1, 1, 200]; audio [1, 1, 128000]."""
    bands = block_powers(g, audio, STEP, [0, SPECTRUM - STEP])    # [1, 5, 1000]
    blocks = g.slice(g.reshape(bands, [1, len(BANDS_HZ), FRAMES, 5]), 3, 0, 4)
    return split_bands(g, g.op("ReduceMean", blocks, axes=[3], keepdims=0))


def periodicity(g, audio):
    """[1, 1, frames]: highest autocorrelation of each frame at a pitch lag, about 1 where voiced."""
    size = WINDOW // FRAMES
    bins, filters, total = dft_filters(size, (VOICE_HZ,))
    spectrum = g.op("Conv", audio, filters, strides=[size])
    power = spectrum * spectrum
    # The window makes the autocorrelation fall with the lag; undo that.
    overlap = np.array([np.sum(hann(size) * np.roll(hann(size), lag)) for lag in PITCH_LAGS])
    fall = overlap / np.sum(hann(size) ** 2)
    cosines = np.cos(2 * np.pi * np.outer(PITCH_LAGS, bins) / size) / fall[:, None]
    at_lags = g.matmul(np.tile(cosines, 2), power)                # [1, lags, frames]
    return g.op("ReduceMax", at_lags, axes=[1], keepdims=1) / (g.matmul(total, power) + 1e-6)


def speech_likeness(g, audio, range_db, pitch_rank):
    """0..1: whether the window holds speech, by pitch or by the range of its loudness."""
    pitch = (ranked(g, periodicity(g, audio), pitch_rank, largest=1) - 0.85) / 0.08
    change = (range_db - 9.0) / 5.0
    return g.clip(g.maximum(pitch, change), 0, 1)


def loudness_of(g, bands):
    """Power that opens the mouth. What is above 1.7 kHz without a voice below it is a sibilant and
    opens little."""
    close, open_, mid, front, hiss = bands
    body = open_ + mid
    return close * 0.7 + body + g.minimum(front, close + body) + (front + hiss) * 0.04


def level_of(g, audio, loudness, steps_per_frame=1, background_rank=8, pitch_rank=5):
    """Per step: dB above the floor over the dB from floor to the loudest frame; below 0 under it.

    The floor rests on the background, the level of the background_rank-th quietest step of those
    that are not silent.
    """
    width = 3 * steps_per_frame
    smooth = g.op("Conv", loudness, np.full((1, 1, width), 1 / width), pads=[width // 2, (width - 1) // 2])
    loudest = g.op("ReduceMax", smooth, axes=[2], keepdims=1)
    reference = g.maximum(loudest, QUIETEST_REFERENCE)
    loud_db = decibel(g, (loudness + 1e-6) / reference)
    silent = g.op("Less", loudness, loudest * 10 ** (SILENT_DB / 10))
    background = ranked(g, g.op("Where", silent, 0.0, loud_db), background_rank, largest=0)
    floor = g.clip(background + NOISE_MARGIN_DB, FLOOR_DB, HIGHEST_FLOOR_DB)
    range_db = decibel(g, (loudest + 1e-6) / reference) - background
    return (loud_db - floor) / -floor * speech_likeness(g, audio, range_db, pitch_rank)


def vowel_decibels(g, bands, least=1e-6):
    """Level in dB of the bands that tell vowels apart: close, body (open), front."""
    close, open_, mid, front, _ = bands
    body = open_ + mid
    # Ratios are bounded: a band counts at least 1e-4 of the frame (and `least`).
    least = (close + body + front) * 1e-4 + least
    return [decibel(g, band + least) for band in (close, body, front)]


def mouth_shape(g, close_db, body_db, front_db):
    """width and jaw of the header comment."""
    jaw_db = body_db - close_db
    spread = g.clip((front_db - body_db + 3.0) / 7.0, -1, 1)
    # Open back vowels have a weak front band too, without being round.
    width = g.clip(spread + g.op("Relu", jaw_db) * 0.08, -1, 1)
    return width, g.clip(jaw_db / 24.0 + 0.5, 0, 1)


def mouth_features(g, audio):
    """level, width and jaw of the header comment, each [1, 1, 200]."""
    bands = frame_powers(g, audio)
    level = g.clip(level_of(g, audio, loudness_of(g, bands)), 0, 1)
    return level, *mouth_shape(g, *vowel_decibels(g, bands))


def carrier():
    """[2, 256] signs of even and odd frames: alternating over values too, so that both occur."""
    return (-1.0) ** (np.arange(2)[:, None] + np.arange(GROUP)[None, :])


def layer_pattern():
    """[12, 2, 256]: what a feature is multiplied by, per layer, parity of the frame and value."""
    pattern = np.ones((LAYERS, 2, GROUP))
    pattern[list(ALTERNATING_LAYERS)] = carrier()
    return pattern * np.reshape(LAYER_GAINS, (-1, 1, 1))


def carried_features(g, level, width, jaw, frames):
    """[frames, 3]: what the embedding carries; the arguments hold `frames` values each."""
    columns = [g.reshape(feature, [frames, 1]) for feature in (level, level * width, level * jaw)]
    return g.concat(columns, axis=1)


def write_encoder(path):
    """"input_values" [1, 128000], normalised audio -> "audio_emb" [12, 200, 768].

    The layers carry the mouth features at different gains.
    """
    g = GraphBuilder("speech_encoder")
    audio = g.reshape(g.input("input_values", [1, WINDOW]), [1, 1, WINDOW])
    carried = carried_features(g, *mouth_features(g, audio), FRAMES)
    # One product writes the whole embedding: its 7 MB should be touched once.
    embedding = (g.reshape(carried, [1, FRAMES // 2, 2, FEATURES, 1])
                 * layer_pattern().reshape(LAYERS, 1, 2, 1, GROUP))
    g.output("audio_emb", g.reshape(embedding, [LAYERS, FRAMES, DIMS]), [LAYERS, FRAMES, DIMS])
    g.save(path)


def neighbour_means(g, cond):
    """For the frame before and the one after: level, level * width, level * jaw, each [1, 1].

    Every value is the mean of the frame's and the neighbour's, with the carrier's sign removed.
    """
    demodulate = np.kron(np.eye(FEATURES), carrier()[0][:, None]) / (2 * GROUP)   # [768, 3]
    at = {offset: g.slice(cond, 1, i * DIMS, (i + 1) * DIMS) for i, offset in enumerate(CONTEXT)}
    sides = []
    for neighbour in (-1, 1):
        # Subtract first: equal frames must give exact zeros.
        means = g.matmul(at[0] - at[neighbour], demodulate)
        means = means * g.op("Sign", g.slice(means, 1, 0, 1))
        sides.append([g.slice(means, 1, i, i + 1) for i in range(FEATURES)])
    return sides


def write_stream_model(path):
    """fca_stream: "cond" [1, 5376], "prev" [1, 63], "h" [1, 1, 384] -> "m" [1, 63], "hn".

    opening = level^1.5 * (close .. open vowel), rising at most 0.6 a frame and falling by no more
    than 70 % (both read from "prev"), and zero whenever the level is. The width follows the
    vowel's by halves; the hidden state holds it, in every value.
    """
    g = GraphBuilder("fca_stream")
    cond = g.input("cond", [1, len(CONTEXT) * DIMS])
    prev = g.input("prev", [1, 3 * rig.KEYPOINTS])
    hidden = g.input("h", [1, 1, HIDDEN])
    before, after = neighbour_means(g, cond)
    total, total_width, total_jaw = ((b + a) * 0.5 for b, a in zip(before, after))
    level = g.minimum(total, g.minimum(before[0], after[0]) * 2.0)
    heard = g.clip(level * 8.0, 0, 1)
    width = g.clip(total_width / (total + 1e-6), -1, 1)
    jaw = g.clip(total_jaw / (total + 1e-6), 0, 1)

    basis = rig.LIP_BASIS.reshape(2, -1)
    last = g.matmul(prev, np.linalg.pinv(basis)[:, :1])           # opening of the frame before
    target = g.op("Pow", level, 1.5) * (jaw * 0.45 + 0.55)
    target = g.minimum(g.maximum(target, last * 0.3), last + 0.6)
    opening = g.op("Relu", target) * heard

    held = g.op("ReduceMean", g.reshape(hidden, [1, HIDDEN]), axes=[1], keepdims=1)
    held = (held + width) * 0.5
    g.output("m", g.matmul(g.concat([opening, held * heard], axis=1), basis), [1, 3 * rig.KEYPOINTS])
    g.output("hn", g.reshape(held, [1, 1, 1]) * np.ones((1, 1, HIDDEN)), [1, 1, HIDDEN])
    g.save(path)


def write_speech_models(out_dir):
    """Writes OUT/speech_encoder.onnx and OUT/bundle/fca_stream.onnx."""
    os.makedirs(os.path.join(out_dir, "bundle"), exist_ok=True)
    write_encoder(os.path.join(out_dir, "speech_encoder.onnx"))
    write_stream_model(os.path.join(out_dir, "bundle", "fca_stream.onnx"))


if __name__ == "__main__":
    write_speech_models(sys.argv[1] if len(sys.argv) > 1 else "out")
