"""The subject's eyes: ball, iris, lids, lashes and crease, drawn anew for every frame."""
import numpy as np

from drawing import bump, mix, smoothstep

EYE_X, EYE_Y = 0.230, -0.140
HALF = 0.118                    # half width of an eye as drawn by paint_eye ...
EYE_SCALE = 1.17                # ... which enlarges it by this


def lid_curves(across, openness):
    """Heights of upper and lower lid (units, relative to the eye's centre) at across in [-1, 1].

    across runs from the inner to the outer corner, which sits a little higher.
    """
    arch = np.clip(1 - np.abs(across) ** 2.3, 0, 1)
    tilt = -0.008 * across
    lower = tilt + 0.042 * arch * (1 - 0.1 * across)
    upper = tilt - 0.081 * np.clip(1 - np.abs(across - 0.06) ** 2.5, 0, 1) ** 0.9
    return lower + (upper - lower) * openness, lower


def paint_eye(canvas, side, openness, gaze):
    """One eye on the head canvas; openness 1 open .. 0 shut, gaze (x, y) in units."""
    part = canvas.part(side * EYE_X - 0.21, EYE_Y - 0.19, side * EYE_X + 0.21, EYE_Y + 0.14)
    x, y = (part.x - side * EYE_X) / EYE_SCALE, (part.y - EYE_Y) / EYE_SCALE
    across = np.clip(x * side / HALF, -1.35, 1.35)
    upper, lower = lid_curves(np.clip(across, -1, 1), openness)
    open_upper, _ = lid_curves(np.clip(across, -1, 1), 1.0)
    inside = np.maximum.reduce([upper - y, y - lower, (np.abs(across) - 1) * HALF])

    # The lid that comes down is skin, slightly darker towards the lashes.
    lid = np.maximum.reduce([open_upper - 0.004 - y, y - lower, (np.abs(across) - 1) * HALF])
    skin = mix((0.93, 0.69, 0.58), (0.80, 0.50, 0.43), smoothstep(-0.06, 0.05, y))
    part.paint(skin, part.cover(lid, 2 * part.soft))

    shaded = np.clip((x / 0.15) ** 2 + smoothstep(0.0, -0.075, y) * 0.55, 0, 1)
    ball = mix((0.985, 0.965, 0.95), (0.72, 0.66, 0.68), shaded)
    paint_iris(ball, x - gaze[0] - side * -0.006, y + 0.012 - gaze[1])
    shadow = smoothstep(0.050, 0.0, y - upper)
    ball *= 1 - 0.55 * shadow[..., None] * np.array((0.75, 0.9, 0.9), np.float32)
    part.paint(ball, part.cover(inside, 1.6 * part.soft))
    for cx, cy, size, power in ((-0.022, -0.034, 0.0150, 0.95), (0.022, 0.014, 0.0085, 0.5)):
        spark = smoothstep(size + 0.004, size - 0.004, np.hypot(x - gaze[0] - cx, y - gaze[1] - cy))
        part.paint((1, 1, 1), power * spark * part.cover(inside + 0.004))
    part.paint((0.86, 0.52, 0.48), 0.75 * bump(across, y, -0.96, 0.012, 0.10, 0.012) * part.cover(inside + 0.002))
    paint_lashes(part, across, x, y, upper, lower, open_upper, openness, side)


def paint_iris(ball, x, y):
    """Hazel-green iris with dark rim, lighter lower half and pupil, onto an eyeball image."""
    radius, angle = np.hypot(x, y), np.arctan2(y, x)
    fibres = 0.5 + 0.5 * np.sin(angle * 31 + 4 * np.sin(angle * 7))
    colour = mix((0.62, 0.55, 0.22), (0.20, 0.42, 0.30), smoothstep(0.022, 0.050, radius))
    lit = (0.55 * smoothstep(-0.01, 0.05, y) + 0.12 * fibres) * smoothstep(0.075, 0.03, radius)
    colour = mix(colour, (0.62, 0.74, 0.42), lit)
    colour = mix(colour, (0.06, 0.12, 0.11), smoothstep(0.052, 0.066, radius))
    colour = mix(colour, (0.03, 0.025, 0.03), smoothstep(0.034, 0.027, radius))
    cover = smoothstep(0.071, 0.063, radius)[..., None]
    ball *= 1 - cover
    ball += colour * cover


def paint_lashes(part, across, x, y, upper, lower, open_upper, openness, side):
    """Upper lash line with a small wing, a faint lower one and the crease of the lid."""
    reach = smoothstep(1.16, 0.98, across) * smoothstep(-1.06, -0.94, across)
    thick = 0.007 + 0.010 * smoothstep(-1.0, 0.9, across)
    wing = -0.030 * np.clip(across - 0.93, 0, 1) / 0.2 * (0.4 + 0.6 * openness)
    line = np.abs(y - (upper + wing - 0.35 * thick)) - 0.5 * thick
    part.paint((0.13, 0.06, 0.06), 0.95 * reach * part.cover(line, 2 * part.soft))
    length = 0.030 * smoothstep(-0.3, 0.9, across) * reach
    sway = (upper - y) / np.maximum(length, 1e-4)
    curved = (across - 0.12 * np.clip(sway, 0, 1) ** 1.5) * 9.0
    spikes = np.abs(curved - np.round(curved)) * 2
    lash = smoothstep(0.60, 0.20, spikes + 0.45 * np.clip(sway, 0, 1)) * (sway > -0.1) * smoothstep(1.0, 0.7, sway)
    part.paint((0.13, 0.06, 0.06), 0.75 * lash * reach * smoothstep(0.0, 0.5, across) * (0.35 + 0.65 * openness))
    rim = np.abs(y - lower - 0.003) - 0.0025
    part.paint((0.42, 0.20, 0.18), 0.40 * smoothstep(1.05, 0.9, np.abs(across)) * part.cover(rim, 2.5 * part.soft))
    crease = np.abs(y - (open_upper - 0.030 + 0.006 * across)) - 0.003
    part.tint((0.62, 0.34, 0.30), 0.55 * (0.35 + 0.65 * openness) * smoothstep(1.1, 0.6, np.abs(across - 0.05))
              * part.cover(crease, 4 * part.soft))
