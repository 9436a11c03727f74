"""The inside of the mouth as the renderer carries it in the pooled features.

An atlas [4, 128, 128] (red, green, blue, alpha) of two layers of 64 rows: on top the upper teeth,
which stay with the skull, below them tongue and lower teeth, which move with the jaw. Columns span
+-HALF_WIDTH units around the mouth's centre; rows span ROWS units, measured for the upper layer
from the resting line between the lips and for the lower one from the lower lip's inner edge.
"""
import numpy as np

from drawing import bump, mix, smoothstep

SIZE = 128
LAYER_ROWS = SIZE // 2
HALF_WIDTH = 0.27
ROWS_UPPER = (-0.08, 0.24)
ROWS_LOWER = (-0.22, 0.10)
CAVITY = (0.17, 0.045, 0.055)


def _layer_coordinates(rows):
    x = ((np.arange(SIZE) + 0.5) / SIZE * 2 - 1) * HALF_WIDTH
    y = rows[0] + (np.arange(LAYER_ROWS) + 0.5) / LAYER_ROWS * (rows[1] - rows[0])
    return np.meshgrid(x.astype(np.float32), y.astype(np.float32))


def _teeth(x, edge, widths):
    """Distance (units) to the next gap between teeth and each point's biting edge."""
    gaps = np.concatenate([[0], np.cumsum(widths)])
    gaps = np.concatenate([-gaps[:0:-1], gaps])
    to_gap = np.min(np.abs(x[..., None] - gaps), axis=-1)
    return to_gap, edge - 0.006 * np.exp(-(to_gap / 0.006) ** 2)


def upper_layer():
    """[4, 64, 128]: the row of upper teeth."""
    x, y = _layer_coordinates(ROWS_UPPER)
    to_gap, edge = _teeth(x, 0.034 - 1.00 * x ** 2, (0.050, 0.042, 0.040, 0.036))
    alpha = smoothstep(0.005, -0.003, y - edge) * smoothstep(0.205, 0.17, np.abs(x))
    ivory = mix((0.97, 0.945, 0.90), (0.62, 0.50, 0.46), np.clip((x / 0.185) ** 2, 0, 1))
    ivory = mix(ivory, (0.80, 0.60, 0.56), 0.55 * smoothstep(0.006, 0.0, to_gap))
    ivory = mix(ivory, (0.99, 0.98, 0.96), 0.5 * bump(x, y, -0.03, 0.012, 0.05, 0.012))
    return np.concatenate([np.moveaxis(ivory, -1, 0), alpha[None]])


def lower_layer():
    """[4, 64, 128]: the tongue, and in front of it the lower teeth's edge."""
    x, y = _layer_coordinates(ROWS_LOWER)
    top = -0.066 + 2.6 * x ** 2 + 0.010 * np.exp(-(x / 0.020) ** 2)
    body = smoothstep(-0.006, 0.010, y - top)
    colour = mix((0.66, 0.25, 0.26), (0.86, 0.45, 0.44), smoothstep(-0.01, 0.05, y - top))
    colour = mix(colour, (0.52, 0.17, 0.19), 0.55 * np.exp(-(x / 0.012) ** 2) * smoothstep(0.0, 0.02, y - top))
    colour = mix(colour, (0.96, 0.68, 0.66), 0.50 * bump(x, y, -0.045, -0.035, 0.03, 0.012))
    colour = mix(colour, (0.42, 0.12, 0.14), 0.85 * np.clip((np.abs(x) / 0.14) ** 3, 0, 1))
    to_gap, edge = _teeth(x, 0.0, (0.030, 0.032, 0.034, 0.034))
    edge = -0.016 + 0.9 * x ** 2 - (edge * 0.5)
    teeth = smoothstep(-0.003, 0.005, y - edge) * smoothstep(0.15, 0.11, np.abs(x))
    ivory = mix((0.80, 0.73, 0.67), (0.52, 0.38, 0.36), np.clip((x / 0.14) ** 2, 0, 1))
    ivory = mix(ivory, (0.56, 0.36, 0.34), 0.6 * smoothstep(0.005, 0.0, to_gap))
    colour = mix(colour, ivory, teeth)
    alpha = np.maximum(body, teeth)
    return np.concatenate([np.moveaxis(colour, -1, 0), alpha[None]])


def atlas():
    """[4, 128, 128] float32; its 65536 values are one frame's pooled features."""
    return np.concatenate([upper_layer(), lower_layer()], axis=1).astype(np.float32)
