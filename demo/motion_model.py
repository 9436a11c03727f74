"""The demo's motion directory in closed form: tables and the three models of the motion engine.

The engine hands the feature model windows of 21 spectra (512 samples every 320) in 80 bands, and
the generator 80 rows of 1103 values, one row per video frame. The generator's motion vectors move
the lips; the engine takes nothing else from them.

hubert_student: each of the 20 rows hears two neighbouring spectra.
    loud   0 .. 1   loudness in dB above SILENCE_DB times how voiced the sound is, 0 in silence
                    and in noise
    width -1 .. 1   round .. spread, and
    jaw    0 .. 1   close .. open vowel, as in speech_model.py
The 1024 values carry loud, loud * width and loud * jaw in turn, since rows get averaged.

lmdm: opening = level^1.5 * (close .. open vowel), where level runs from RANGE_DB below the
reference to the reference: the loudest frame of the chunk, or the reference of the chunk before,
slowly forgotten. The depth of the head (the z translation), which no later step reads, carries the
reference from chunk to chunk; 0 means that nothing came before. The engine takes the first frame
of a stream as the zero of expression, so the first frames open slowly from there.

stitch: keeps the lips within what the renderer can show; otherwise it changes nothing.
"""
import json

import numpy as np

import character
import rig
import speech_model as speech
from onnx_build import GraphBuilder
from speech_model import decibel, hann

SPECTRUM = 512              # samples of one spectrum
BINS = SPECTRUM // 2 + 1
BANDS = 80
SPECTRA, ROWS = 21, 20      # per window: spectra in, feature rows out
DIMS = 1024                 # feature values per row
EMOTION, EYES, EXTRA = 8, 2 + 6, 63
CONDITION = DIMS + EMOTION + EYES + EXTRA
CHUNK = 80                  # frames per run of the generator

POSE_BINS = 66              # logits of an angle: bin i stands for 3 i - 97.5 degrees
MOTION = 1 + 3 * POSE_BINS + 3 + 63
DEPTH, EXPRESSION = MOTION - 64, MOTION - 63    # places in a motion vector

SINGLE_BINS = (2, 47)       # bins 62 .. 1440 Hz have a band of their own
VOICE_HZ = (100, 1400)      # where harmonics stand out of a voiced spectrum
NOISE_PEAKS_DB = 2.5        # peaks over mean level; noise stays below
VOICE_PEAKS_DB = 3.5
SILENCE_DB = -80.0          # of full scale
FEATURE_MEAN, FEATURE_SCALE = 0.35, 0.25    # typical values of a feature in speech

RANGE_DB = 38.0             # level 0 lies this far below the reference
QUIETEST_REFERENCE_DB = -40.0
FIRST_REFERENCE_DB = -30.0  # before anything was heard
FORGET_DB = 4.0             # per chunk
QUICK, SLOW = (0.2, 0.6, 0.2), (0.1, 0.25, 0.3, 0.25, 0.1)    # weights of neighbouring frames
FIRST_FRAMES = 3            # a stream's first frames, until the mouth opens fully

CHARACTER_SCALE = 1.25      # the generator's character is drawn larger than the subject


# ---------------------------------------------------------------------------- front end

def band_edges():
    """[81] first bins of the bands: single bins at first, then growing geometrically."""
    first, last = SINGLE_BINS
    wide = BANDS - (last - first)
    edges = np.round(last * (BINS / last) ** (np.arange(wide + 1) / wide)).astype(int)
    return np.concatenate([np.arange(first, last), edges])


def band_matrix():
    """[257, 80] from magnitudes to bands; the squares of a band are its mean square of the signal."""
    matrix = np.zeros((BINS, BANDS), np.float32)
    edges = band_edges()
    unit = np.sqrt(2 / (SPECTRUM * np.sum(hann(SPECTRUM) ** 2)))
    for band, (low, high) in enumerate(zip(edges[:-1], edges[1:])):
        matrix[low:high, band] = unit / np.sqrt(high - low)
    return matrix


def bands_within(low_hz, high_hz):
    """Whether each band's centre lies in a range: [80] booleans, and the centres in Hz."""
    edges = band_edges()
    centres = (edges[:-1] + edges[1:] - 1) / 2 * speech.SAMPLE_RATE / SPECTRUM
    return (centres >= low_hz) & (centres < high_hz), centres


def voicing(g, power):
    """[1, 1, 20] 0..1 from band powers [1, 80, 20]: how far harmonics and formants stand out."""
    within, centres = bands_within(*VOICE_HZ)
    tilt = np.where(within, centres / VOICE_HZ[0], 0)[None]    # noise that falls with frequency is flat
    count = within.sum()
    mean_db = decibel(g, g.matmul(tilt / count, power) + 1e-10)
    flat_db = g.matmul(within[None] / count, decibel(g, power + 1e-12)) + np.sum(10 * np.log10(tilt[tilt > 0])) / count
    return g.clip((mean_db - flat_db - NOISE_PEAKS_DB) / (VOICE_PEAKS_DB - NOISE_PEAKS_DB), 0, 1)


def speech_features(g, power):
    """loud, width and jaw of the header comment, each [1, 1, 20], from band powers [1, 80, 20]."""
    sums = np.array([bands_within(*band)[0] for band in speech.BANDS_HZ])
    bands = speech.split_bands(g, g.matmul(sums, power))
    loud_db = decibel(g, speech.loudness_of(g, bands) + 1e-10)
    loud = g.clip(loud_db / -SILENCE_DB + 1.0, 0, 1) * voicing(g, power)
    return loud, *speech.mouth_shape(g, *speech.vowel_decibels(g, bands, least=1e-10))


def carried():
    """[3, 1024]: which of the three features each value of a row carries."""
    return np.equal.outer(np.arange(3), np.arange(DIMS) % 3)


def student_graph():
    """"bands" [1, 80, 21], logarithms of band magnitudes -> "features" [1, 20, 1024]."""
    g = GraphBuilder("hubert_student")
    power = g.exp(g.input("bands", [1, BANDS, SPECTRA]) * 2.0)
    power = (g.slice(power, 2, 0, ROWS) + g.slice(power, 2, 1, SPECTRA)) * 0.5
    loud, width, jaw = speech_features(g, power)
    features = g.transpose(g.concat([loud, loud * width, loud * jaw], axis=1), [0, 2, 1])
    values = g.matmul((features - FEATURE_MEAN) / FEATURE_SCALE, carried())
    g.output("features", values, [1, ROWS, DIMS])
    return g


# ---------------------------------------------------------------------------- generator

def level_of(g, loud, before, first):
    """Level 0..1 of 80 frames and the new reference [1, 1, 1]; loud [1, 1, 80].

    before: the reference of the chunk before; first: 1 in a stream's first chunk, else 0.
    """
    of_db = lambda db: db / -SILENCE_DB + 1.0
    remembered = g.mix(before - FORGET_DB / -SILENCE_DB, g.constant(of_db(FIRST_REFERENCE_DB)), first)
    loudest = g.op("ReduceMax", loud, axes=[2], keepdims=1)
    reference = g.maximum(g.maximum(loudest, remembered), of_db(QUIETEST_REFERENCE_DB))
    return g.clip((loud - reference) * (-SILENCE_DB / RANGE_DB) + 1.0, 0, 1), reference


def over_time(g, x, taps):
    """Frames weighted with their neighbours, the first and the last repeated; x [1, 1, 80]."""
    side = len(taps) // 2
    padded = g.op("Pad", x, g.constant([0, 0, side, 0, 0, side], np.int64), mode="edge")
    return g.op("Conv", padded, np.reshape(taps, (1, 1, -1)))


def vowel(g, loud, product, taps):
    """A feature from its product with loud, over the frames around, the loud ones counting most."""
    return over_time(g, product, taps) / (over_time(g, loud, taps) + 1e-6)


def generator_graph():
    """"kp_cond" [1, 265], "aud_cond" [1, 80, 1103] -> "pred" [1, 80, 265].

    The pose is that of the conditioning vector, but for the depth.
    """
    g = GraphBuilder("lmdm")
    before = g.reshape(g.input("kp_cond", [1, MOTION]), [1, 1, MOTION])
    rows = g.input("aud_cond", [1, CHUNK, CONDITION])
    listen = np.zeros((CONDITION, 3), np.float32)
    listen[:DIMS] = (carried() / carried().sum(axis=1, keepdims=True)).T
    features = g.transpose(g.matmul(rows, listen), [0, 2, 1])
    loud, loud_width, loud_jaw = (g.slice(features, 1, i, i + 1) for i in range(3))
    remembered = g.slice(before, 2, DEPTH, EXPRESSION)
    first = g.clip(1.0 - remembered * 1e6, 0, 1)
    level, reference = level_of(g, over_time(g, loud, QUICK), remembered, first)
    width = over_time(g, g.clip(vowel(g, loud, loud_width, SLOW), -1, 1) * g.clip(level * 3.0, 0, 1), QUICK)
    jaw = g.clip(vowel(g, loud, loud_jaw, QUICK), 0, 1)
    opening = g.op("Pow", level, 1.5) * (jaw * 0.45 + 0.55)

    begin = np.clip(np.arange(CHUNK) / FIRST_FRAMES, 0, 1).reshape(1, 1, CHUNK)
    shapes = g.concat([opening, width], axis=1) * g.mix(g.constant(1.0), g.constant(begin), first)
    shapes = g.transpose(shapes, [0, 2, 1])                                          # [1, 80, 2]
    expression = g.matmul(shapes, rig.LIP_BASIS.reshape(2, -1) / CHARACTER_SCALE)
    still = np.zeros((1, CHUNK, 1), np.float32)
    g.output("pred", g.concat([g.slice(before, 2, 0, DEPTH) + still, reference + still, expression], axis=2),
             [1, CHUNK, MOTION])
    return g


# ---------------------------------------------------------------------------- stitching

def stitch_graph():
    """"kp_source", "kp_driving" [1, 21, 3] -> "stitched" [1, 21, 3]."""
    g = GraphBuilder("stitch")
    source = g.input("kp_source", [1, rig.KEYPOINTS, 3])
    driving = g.input("kp_driving", [1, rig.KEYPOINTS, 3])
    basis = rig.LIP_BASIS.reshape(2, -1)
    shape = g.matmul(g.reshape(driving - source, [1, 3 * rig.KEYPOINTS]), np.linalg.pinv(basis))
    allowed = g.minimum(g.maximum(shape, np.array([[0, -1.2]])), np.array([[1.2, 1.2]]))
    g.output("stitched", driving + g.reshape(g.matmul(allowed - shape, basis), [1, rig.KEYPOINTS, 3]),
             [1, rig.KEYPOINTS, 3])
    return g


# ---------------------------------------------------------------------------- tables

def angle_logits(degrees):
    """[66] logits whose expected angle is `degrees`: a bell three bins wide around it."""
    place = (degrees + 97.5) / 3
    return np.maximum(-(np.arange(POSE_BINS) - place) ** 2 / (2 * 1.5 ** 2), -60)


def rotation(pitch, yaw):
    """[3, 3] of a head without roll, angles in degrees; points are rows."""
    (sp, sy), (cp, cy) = np.sin(np.deg2rad([pitch, yaw])), np.cos(np.deg2rad([pitch, yaw]))
    return np.array([[cy, 0, -sy], [sp * sy, cp, sp * cy], [cp * sy, -sp, cp * cy]])


def keypoint_info(expression, canonical, pitch, yaw, scale):
    """One record of 328 values; the subject's crop follows the head, so roll and translation are 0."""
    return np.concatenate([np.ravel(expression), np.ravel(canonical), angle_logits(pitch), angle_logits(0),
                           [scale], np.zeros(3), angle_logits(yaw)]).astype(np.float32)


def source_info(pose):
    """The record of a target frame: the resting head turned, and what is left to its keypoints."""
    # A point at depth z moves by pose.yaw * z to the right and by pose.pitch * z down.
    yaw, pitch = np.rad2deg(np.arctan(pose.yaw)), -np.rad2deg(np.arctan(pose.pitch))
    return keypoint_info(pose.keypoints() - rig.REST @ rotation(pitch, yaw), rig.REST, pitch, yaw, 1.0)


def write_tables(directory, count):
    """All but the models."""
    poses = [character.Pose(index, count) for index in range(count)]
    rest = np.zeros((rig.KEYPOINTS, 3))
    tables = {
        "hubert_stft_window": hann(SPECTRUM),
        "hubert_stft_binmat": band_matrix(),
        "hubert_fmean": np.full(DIMS, FEATURE_MEAN),
        "hubert_fstd": np.full(DIMS, FEATURE_SCALE),
        "emo": np.eye(1, EMOTION),
        "ch_xs_info": keypoint_info(rest, rig.REST, 0, 0, CHARACTER_SCALE),
        "ch_sc": rig.REST,
        "ch_eye_open": np.full(2, character.blink(0, count)),
        "ch_eye_ball": np.zeros(6),
        "v_min_max": np.repeat([-100.0, 100.0], MOTION),      # the models keep their own limits
        "src_xs_info": np.stack([source_info(pose) for pose in poses]),
        "xs_target": np.stack([pose.keypoints() for pose in poses]),
    }
    for name, values in tables.items():
        np.asarray(values, np.float32).tofile(directory / f"{name}.bin")
    meta = {"nt": count, "n_src": count, "n_emo": 1, "s_bridge": 1.0, "delta_pitch": 0.0}
    (directory / "meta.json").write_text(json.dumps(meta, indent=2) + "\n")


def write_motion(directory, count):
    """The motion directory of a subject with `count` target frames, into an existing directory."""
    write_tables(directory, count)
    for name, graph in (("hubert_student", student_graph), ("lmdm", generator_graph), ("stitch", stitch_graph)):
        graph().save(directory / f"{name}.onnx")
