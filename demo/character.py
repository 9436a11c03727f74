"""The demo subject: a drawn head-and-shoulders portrait that breathes, sways and blinks.

The still parts (background, back hair, body, head) are painted once on large canvases; a frame
lays them over each other through the pose of that moment and draws the eyes on top of the head
canvas first. Everything is in crop units (rig.py): the head canvas uses the face crop's own
coordinates, the body canvas those of the resting crop.
"""
import copy

import numpy as np
from scipy import ndimage

import rig
from drawing import Canvas, bump, mirrored, mix, smoothstep, spline
from eyes import EYE_X, EYE_Y, paint_eye

WIDTH, HEIGHT = 1280, 720
UNIT_PX = 226.0                 # one crop unit in frame pixels
CENTRE_PX = (640.0, 338.0)      # the resting crop's centre in the frame
PPU = 2 * UNIT_PX               # canvases are drawn at twice the frame's resolution
SOFT = 1.5 / UNIT_PX            # width of an anti-aliased edge

SKIN_LIGHT, SKIN_MID, SKIN_DARK = (0.995, 0.845, 0.760), (0.945, 0.715, 0.605), (0.72, 0.44, 0.385)
HAIR_DARK, HAIR_MID, HAIR_LIGHT = (0.17, 0.075, 0.07), (0.42, 0.185, 0.12), (0.86, 0.50, 0.28)
LIP_DARK, LIP_MID, LIP_LIGHT = (0.56, 0.20, 0.22), (0.80, 0.37, 0.36), (0.94, 0.58, 0.54)
LIGHT = np.array((-0.45, -0.50, 0.74), np.float32)
LIGHT /= np.linalg.norm(LIGHT)

FACE = mirrored([(0, -0.84), (0.30, -0.76), (0.46, -0.55), (0.515, -0.28), (0.515, 0.0),
                 (0.478, 0.22), (0.408, 0.42), (0.310, 0.58), (0.195, 0.69), (0.095, 0.738), (0, 0.748)])


# ---------------------------------------------------------------------------- painting once

def shade(canvas, height):
    """Soft light 0..1 and gloss 0..1 on a relief of the given height (units, towards the viewer)."""
    dy, dx = np.gradient(height, 1.0 / canvas.ppu)
    norm = np.sqrt(dx * dx + dy * dy + 1)
    lambert = (-dx * LIGHT[0] - dy * LIGHT[1] + LIGHT[2]) / norm
    half = LIGHT + (0, 0, 1)
    half /= np.linalg.norm(half)
    gloss = np.clip((-dx * half[0] - dy * half[1] + half[2]) / norm, 0, 1)
    return np.clip(0.5 + 0.5 * lambert, 0, 1), gloss


def face_relief(x, y):
    """Height of the face towards the viewer: an ellipsoid with the features as gentle hills."""
    r2 = (x / 0.60) ** 2 + ((y + 0.06) / 0.88) ** 2
    height = 0.50 * np.sqrt(np.clip(1 - r2, 0.015, 1))
    ridge = bump(x, y, 0, -0.06, 0.050, 0.17)
    height += 0.024 * ridge + 0.066 * bump(x, y, 0, 0.085, 0.080, 0.078)
    for side in (-1, 1):
        height += 0.022 * bump(x, y, side * 0.062, 0.115, 0.036, 0.036)
        height -= 0.035 * bump(x, y, side * EYE_X, EYE_Y + 0.01, 0.14, 0.10)
        height += 0.020 * bump(x, y, side * 0.24, -0.31, 0.16, 0.07)
        height += 0.035 * bump(x, y, side * 0.29, 0.16, 0.15, 0.15)
        height -= 0.010 * bump(x, y, side * 0.235, 0.40, 0.035, 0.05)
    height += 0.028 * bump(x, y, 0, 0.40, 0.21, 0.13)
    height -= 0.018 * bump(x, y, 0, 0.545, 0.12, 0.038)
    height += 0.034 * bump(x, y, 0, 0.65, 0.12, 0.09)
    height -= 0.010 * bump(x, y, 0, 0.25, 0.020, 0.06)
    return height


def skin_colour(light):
    """Ramp from warm shadow over the mid tone to the lit colour."""
    shadowed = mix(SKIN_DARK, SKIN_MID, smoothstep(0.42, 0.78, light))
    return mix(shadowed, SKIN_LIGHT, smoothstep(0.72, 1.0, light))


def strands(across, along, width, seed, count=20):
    """Hair streaks in [-1, 1]: waves across the strands that drift slowly along them.

    across, along: strand coordinates; width: units per unit of `across`. Waves too fine for the
    frame's resolution are left out where they are too fine.
    """
    rng = np.random.default_rng(seed)
    total = np.zeros(across.shape, np.float32)
    for k in range(count):
        frequency = 6.0 * 1.22 ** k
        phase, drift = rng.uniform(0, 2 * np.pi), rng.uniform(-2.5, 2.5)
        visible = np.clip(width * 2 * np.pi / frequency / 0.009 - 0.5, 0, 1)
        total += visible * np.sin(across * frequency + phase + drift * along * (1 + 0.08 * k)) / (1 + 0.05 * k)
    return np.tanh(total / 2.8)


def hair_colour(streaks, band, light):
    """Hair colour from streaks (-1..1), a gloss band (0..1) and a soft light (0..1)."""
    base = mix(HAIR_DARK, HAIR_MID, np.clip(0.15 + 0.85 * light + 0.30 * streaks, 0, 1))
    return mix(base, HAIR_LIGHT, np.clip(band * (0.55 + 0.55 * streaks), 0, 0.9))


def paint_face(canvas):
    """Skin of the face with its modelling, blush and freckles."""
    x, y = canvas.x, canvas.y
    sdf = canvas.outline(FACE, decimate=4)
    light, gloss = shade(canvas, face_relief(x, y))
    light -= 0.10 * smoothstep(-0.10, 0.0, sdf)                       # turning away at the rim
    light -= 0.13 * smoothstep(-0.50, -0.75, y)                       # under the fringe
    light -= 0.05 * smoothstep(0.45, 0.75, y)
    canvas.paint(skin_colour(light), canvas.cover(sdf))
    for side in (-1, 1):
        canvas.tint((0.98, 0.62, 0.58), (0.42 - 0.06 * side) * bump(x, y, side * 0.315, 0.135, 0.13, 0.10))
        canvas.tint((0.90, 0.66, 0.62), 0.45 * bump(x, y, side * EYE_X, EYE_Y - 0.055, 0.14, 0.07))
        canvas.tint((0.93, 0.72, 0.66), 0.30 * bump(x, y, side * EYE_X, EYE_Y + 0.085, 0.11, 0.03))
    canvas.tint((0.98, 0.70, 0.64), 0.40 * bump(x, y, 0.01, 0.09, 0.085, 0.07))
    canvas.glow((1.0, 0.90, 0.84), 0.09 * gloss ** 60)
    canvas.glow((1.0, 0.97, 0.92), 0.24 * bump(x, y, -0.016, 0.068, 0.022, 0.024))
    canvas.glow((1.0, 0.95, 0.90), 0.06 * bump(x, y, -0.010, -0.05, 0.018, 0.09))
    rim = smoothstep(-0.05, -0.004, sdf) * smoothstep(0.1, 0.5, x) * smoothstep(-0.3, 0.2, y)
    canvas.glow((0.55, 0.62, 0.80), 0.22 * rim)
    paint_freckles(canvas)


def paint_freckles(canvas):
    """A light sprinkle of freckles over nose and cheeks."""
    rng = np.random.default_rng(4)
    for _ in range(46):
        cx, cy = rng.normal(0, 0.17), 0.075 + rng.normal(0, 0.040)
        size = rng.uniform(0.0045, 0.0085)
        if np.hypot(cx, cy - 0.09) < 0.075:       # the tip of the nose stays clear
            continue
        part = canvas.part(cx - 0.04, cy - 0.04, cx + 0.04, cy + 0.04)
        part.tint((0.72, 0.46, 0.36), rng.uniform(0.18, 0.42) * bump(part.x, part.y, cx, cy, size, size))


def paint_nose(canvas):
    """Nostrils, wings and the shadow under the tip (the bridge is in the relief)."""
    part = canvas.part(-0.2, -0.1, 0.2, 0.3)
    x, y = part.x, part.y
    part.tint((0.80, 0.52, 0.46), 0.55 * bump(x, y, 0.012, 0.168, 0.075, 0.026))
    for side in (-1, 1):
        part.tint((0.45, 0.16, 0.15), 0.66 * bump(x, y, side * 0.038, 0.154 - abs(x) * 0.12, 0.021, 0.0095))
        wing = np.hypot((x - side * 0.056) / 0.95, y - 0.122)
        arc = smoothstep(0.014, 0.0, np.abs(wing - 0.036)) * smoothstep(0.010, 0.034, side * (x - side * 0.056))
        part.tint((0.78, 0.50, 0.44), 0.42 * arc * smoothstep(0.085, 0.12, y))


def lip_line(x):
    """Height of the line between the closed lips: the parabola through corners and middle."""
    half, corner = -rig.REST[rig.LEFT_CORNER, 0], rig.REST[rig.LEFT_CORNER, 1]
    middle = 0.5 * (rig.REST[rig.UPPER_INNER, 1] + rig.REST[rig.LOWER_INNER, 1])
    return corner + (middle - corner) * (1 - (x / half) ** 2)


def lip_outlines():
    """Upper and lower lip at rest as outlines that share the line between the lips."""
    half, corner = -rig.REST[rig.LEFT_CORNER, 0], rig.REST[rig.LEFT_CORNER, 1]
    top, bottom = rig.REST[rig.UPPER_OUTER, 1], rig.REST[rig.LOWER_OUTER, 1]
    seam = [(x, lip_line(x)) for x in (0.14, 0.07, 0)]
    upper = mirrored([(0, top + 0.006), (0.042, top - 0.006), (0.10, top + 0.014), (0.155, top + 0.036),
                      (half, corner), *seam])
    lower = mirrored([*seam[::-1], (half, corner), (0.145, lip_line(0.145) + 0.038), (0.080, bottom - 0.009),
                      (0, bottom)])
    return upper, lower


def paint_lips(canvas):
    """Both lips, closed, with their shine and the dark line between them."""
    part = canvas.part(-0.30, 0.24, 0.30, 0.60)
    x, y = part.x, part.y
    upper, lower = lip_outlines()
    part.tint((0.80, 0.52, 0.46), 0.50 * bump(x, y, 0, 0.512, 0.105, 0.022))
    up, low = part.outline(upper), part.outline(lower)
    above = y - lip_line(np.clip(x, -0.2, 0.2))                # height below the line, units
    part.paint(mix(LIP_MID, LIP_DARK, 0.75 * smoothstep(-0.06, 0.0, above)), part.cover(up, 2.2 * SOFT))
    body = mix(LIP_MID, LIP_DARK, 0.70 * smoothstep(0.045, 0.085, above) + 0.45 * smoothstep(0.022, 0.0, above))
    part.paint(body, part.cover(low, 2.2 * SOFT))
    inside = part.cover(np.minimum(up, low), 3 * SOFT)
    creases = 0.5 + 0.5 * np.sin(x * 210 + 3 * np.sin(x * 47))
    part.tint((0.80, 0.55, 0.55), 0.12 * inside * creases * smoothstep(0.2, 0.05, np.abs(x)))
    part.glow(LIP_LIGHT, 0.38 * inside * bump(x, above, -0.030, 0.036, 0.085, 0.013))
    part.glow((1, 0.92, 0.9), 0.26 * inside * bump(x, above, -0.040, 0.036, 0.030, 0.007))
    part.glow(LIP_LIGHT, 0.14 * inside * bump(x, above, -0.04, -0.046, 0.05, 0.010))
    half, corner = -rig.REST[rig.LEFT_CORNER, 0], rig.REST[rig.LEFT_CORNER, 1]
    ends = smoothstep(half + 0.018, half - 0.03, np.abs(x))
    part.tint((0.42, 0.13, 0.15), 0.72 * ends * smoothstep(0.0080, 0.0, np.abs(above)))
    for side in (-1, 1):
        part.tint((0.66, 0.36, 0.32), 0.42 * bump(x, y, side * (half + 0.010), corner - 0.004, 0.017, 0.022))


def paint_brows(canvas):
    """Tapered brows with a few hairs' worth of texture."""
    for side in (-1, 1):
        top = np.array([(0.098, -0.372), (0.165, -0.399), (0.25, -0.411), (0.335, -0.385), (0.402, -0.322)])
        under = np.array([(0.33, -0.357), (0.25, -0.377), (0.165, -0.361), (0.100, -0.340)])
        part = canvas.part(-0.50, -0.50, 0.50, -0.22)
        sdf = part.outline(np.concatenate([top, under]) * (side, 1))
        slant = np.sin((part.x * side * 1.0 + part.y * 0.9) * 260) * 0.5 + 0.5
        part.paint(mix(HAIR_MID, HAIR_DARK, 0.30 + 0.35 * slant), 0.84 * part.cover(sdf, 0.020))


def crown_coordinates(canvas, cx, cy):
    """Angle and distance of the canvas points from the parting, where the strands start."""
    dx, dy = canvas.x - cx, canvas.y - cy
    return np.arctan2(dx, dy), np.hypot(dx, dy)


def paint_back_hair(canvas):
    """The hair behind the head: a full, wavy bob that frames jaw and neck."""
    x, y = canvas.x, canvas.y
    points = mirrored([(0, -1.03), (0.34, -0.97), (0.58, -0.76), (0.70, -0.42), (0.735, -0.05), (0.750, 0.30),
                       (0.775, 0.55), (0.745, 0.80), (0.62, 0.92), (0.44, 0.90), (0.26, 0.80), (0, 0.78)])
    sdf = canvas.outline(points, decimate=4)
    wave = 0.030 * np.sin(y * 6.5 + 0.8) * np.sign(x)
    across = (x + wave) * (1 + 0.18 * smoothstep(0.4, 0.9, y))
    streaks = strands(across * 2.2, y, 1 / 2.2, 11)
    inner = smoothstep(0.60, 0.36, np.abs(x))
    light = 0.66 - 0.22 * x - 0.62 * inner - 0.26 * smoothstep(0.35, 0.9, y)
    band = (0.9 * bump(x, y, -0.67, 0.14, 0.10, 0.28) + 0.55 * bump(x, y, 0.70, 0.24, 0.07, 0.24)) * (1 - inner)
    colour = hair_colour(streaks * (1 - 0.7 * inner), band, np.clip(light, -0.1, 1))
    canvas.paint(colour, canvas.cover(sdf, 0.012))


def paint_front_hair(canvas):
    """Crown, a fringe swept to one side and the locks along the cheeks."""
    x, y = canvas.x, canvas.y
    outline = [(0.02, -1.045), (0.32, -0.985), (0.55, -0.80), (0.665, -0.48), (0.690, -0.10), (0.690, 0.22),
               (0.665, 0.47), (0.610, 0.66), (0.540, 0.735), (0.505, 0.72), (0.535, 0.58), (0.532, 0.40),
               (0.512, 0.20), (0.495, 0.0), (0.480, -0.20), (0.445, -0.38), (0.37, -0.545), (0.25, -0.665),
               (0.15, -0.74), (0.02, -0.63), (-0.14, -0.53), (-0.30, -0.455), (-0.42, -0.36), (-0.475, -0.20),
               (-0.495, 0.0), (-0.512, 0.20), (-0.532, 0.40), (-0.530, 0.58), (-0.500, 0.72), (-0.54, 0.74),
               (-0.615, 0.66), (-0.675, 0.46), (-0.700, 0.20), (-0.695, -0.12), (-0.665, -0.48), (-0.54, -0.82),
               (-0.30, -0.99)]
    sdf = canvas.outline(outline, decimate=4, steps=8)
    shadow = ndimage.gaussian_filter(canvas.cover(sdf - 0.012, 0.05), 14.5, mode="nearest")
    inside_face = canvas.cover(canvas.outline(FACE, decimate=4))
    canvas.tint((0.62, 0.36, 0.34), 0.62 * shadow * inside_face)
    angle, radius = crown_coordinates(canvas, 0.15, -0.88)
    swept = angle + 0.30 * np.sin(2.2 * radius) * np.sign(x - 0.15)
    top = strands(swept * 3.0, radius, radius / 3.0, 5)
    down = strands((x + 0.022 * np.sin(y * 6.5 + 0.8) * np.sign(x)) * 2.6, y, 1 / 2.6, 6)
    sides = smoothstep(-0.48, 0.10, y + 0.25 * (np.abs(x) - 0.5))
    streaks = top + (down - top) * sides
    edge = smoothstep(-0.09, 0.0, sdf)
    light = 0.84 - 0.22 * x - 0.28 * edge - 0.25 * smoothstep(0.1, 0.75, y) \
        - 0.40 * np.exp(-((x - 0.15 + 0.10 * (y + 0.74)) / 0.028) ** 2) * smoothstep(-0.70, -0.82, y)
    ring = radius + 0.025 * np.sin(9 * angle) + 0.04 * x
    band = 0.90 * np.exp(-((ring - 0.46) / 0.085) ** 2) * smoothstep(0.1, -0.3, y) \
        + 0.55 * bump(x, y, -0.61, 0.06, 0.05, 0.24) + 0.30 * bump(x, y, 0.60, 0.10, 0.04, 0.22)
    ragged = strands(swept * 3.0, radius * 0, radius / 3.0, 8, count=9) * (1 - sides)
    fringe = sdf + 0.009 * ragged * smoothstep(0.25, 0.6, radius) * smoothstep(-0.95, -0.70, y)
    canvas.paint(hair_colour(streaks, band, np.clip(light, 0, 1)), canvas.cover(fringe, 0.011))
    paint_wisps(canvas)


def paint_wisps(canvas):
    """A few loose hairs along the fringe and beside the face, as thin curves."""
    rng = np.random.default_rng(21)
    part = canvas.part(-0.80, -1.10, 0.80, 0.80)
    paths = [((0.13, -0.76), (-0.10, -0.56), (-0.34, -0.40), (-0.45, -0.24)),
             ((0.10, -0.78), (-0.16, -0.55), (-0.40, -0.36), (-0.485, -0.10)),
             ((0.17, -0.76), (0.32, -0.58), (0.42, -0.38), (0.462, -0.16)),
             ((-0.47, -0.16), (-0.485, 0.08), (-0.50, 0.30), (-0.47, 0.46)),
             ((0.46, -0.14), (0.480, 0.10), (0.495, 0.32), (0.462, 0.50))]
    for path in paths:
        for _ in range(3):
            points = np.array(path) + rng.normal(0, 0.006, (4, 2)) + rng.normal(0, 0.010, 2)
            curve = spline(points, closed=False, steps=8)
            distance = np.full(part.x.shape, 1.0, np.float32)
            for (ax, ay), (bx, by) in zip(curve[:-1], curve[1:]):
                i0, i1 = (int((v + s * 0.02 - part.x0) * PPU) for v, s in ((min(ax, bx), -1), (max(ax, bx), 1)))
                j0, j1 = (int((v + s * 0.02 - part.y0) * PPU) for v, s in ((min(ay, by), -1), (max(ay, by), 1)))
                px, py = part.x[j0:j1, i0:i1] - ax, part.y[j0:j1, i0:i1] - ay
                along = np.clip((px * (bx - ax) + py * (by - ay)) / ((bx - ax) ** 2 + (by - ay) ** 2), 0, 1)
                piece = np.hypot(px - along * (bx - ax), py - along * (by - ay))
                distance[j0:j1, i0:i1] = np.minimum(distance[j0:j1, i0:i1], piece)
            part.paint(mix(HAIR_MID, HAIR_LIGHT, np.full(part.x.shape, rng.uniform(0, 0.35))),
                       0.75 * part.cover(distance - 0.0022, 1.2 * SOFT))


def paint_head():
    """Head canvas without the eyes: face, nose, lips, brows and front hair."""
    canvas = Canvas(-0.90, -1.15, 0.90, 0.90, PPU, SOFT)
    paint_face(canvas)
    paint_nose(canvas)
    paint_lips(canvas)
    paint_brows(canvas)
    paint_front_hair(canvas)
    return canvas


def paint_hair_layer():
    """Canvas of the hair behind the neck."""
    canvas = Canvas(-1.0, -1.2, 1.0, 1.05, PPU, SOFT)
    paint_back_hair(canvas)
    return canvas


def paint_body():
    """Neck, shoulders and a ribbed jumper, in the coordinates of the resting crop."""
    canvas = Canvas(-1.9, 0.30, 1.9, 1.80, PPU, SOFT)
    x, y = canvas.x, canvas.y
    neck = canvas.outline(mirrored([(0, 0.32), (0.215, 0.34), (0.215, 0.62), (0.222, 0.84), (0.28, 0.98),
                                    (0.46, 1.06), (0.5, 1.4), (0, 1.5)]), decimate=4)
    light, _ = shade(canvas, 0.42 * np.sqrt(np.clip(1 - (x / 0.40) ** 2, 0.02, 1)))
    light -= 0.30 * smoothstep(1.02, 0.62, y + 0.10 * x)
    canvas.paint(skin_colour(light), canvas.cover(neck))
    canvas.tint((0.62, 0.36, 0.34), 0.65 * bump(x, y, 0.03, 0.66, 0.28, 0.20))
    paint_jumper(canvas)
    return canvas


def paint_jumper(canvas):
    """A teal jumper with a rolled, ribbed collar."""
    x, y = canvas.x, canvas.y
    dark, mid, light_colour = (0.045, 0.20, 0.24), (0.10, 0.40, 0.43), (0.36, 0.67, 0.65)
    sdf = canvas.outline(mirrored([(0, 1.10), (0.24, 1.00), (0.38, 0.985), (0.62, 1.06), (0.96, 1.16), (1.25, 1.30),
                                   (1.44, 1.55), (1.56, 1.95), (0, 2.0)]), decimate=4)
    height = 0.62 * np.sqrt(np.clip(1 - (x / 1.55) ** 2, 0.02, 1)) - 0.75 * np.clip(y - 1.1, -1, 0) ** 2 \
        - 0.28 * smoothstep(0.95, 1.5, np.abs(x)) * (y - 1.0)
    height += 0.03 * bump(x, y, -0.60, 1.50, 0.22, 0.35) + 0.02 * bump(x, y, 0.66, 1.55, 0.20, 0.3)
    light, _ = shade(canvas, height - 0.25 * smoothstep(-0.10, 0.02, sdf) ** 2)
    knit = 0.5 + 0.5 * np.sin(x * 88 + 1.3 * np.sin(y * 110)) * np.sin(y * 110)
    light = np.clip(light - 0.05 + 0.06 * knit, 0, 1)
    wool = mix(mix(dark, mid, smoothstep(0.30, 0.82, light)), light_colour, 0.85 * smoothstep(0.78, 1.02, light))
    canvas.paint(wool, canvas.cover(sdf))
    canvas.tint((0.25, 0.35, 0.45), 0.55 * bump(x, y, 0.05, 1.02, 0.55, 0.16) * canvas.cover(sdf))
    collar = canvas.outline(mirrored([(0, 1.005), (0.16, 0.975), (0.28, 0.895), (0.335, 0.90), (0.365, 0.965),
                                      (0.30, 1.075), (0.15, 1.150), (0, 1.175)]), decimate=2)
    around = np.arctan2(x, 1.9 - y)
    ribs = 0.5 + 0.5 * np.sin(around * 150)
    roll = smoothstep(-0.085, -0.01, collar)
    tone = np.clip(0.80 - 0.36 * x - 0.42 * roll - 0.22 * ribs, 0, 1)
    canvas.paint(mix(mix(dark, mid, smoothstep(0.1, 0.7, tone)), light_colour, 0.7 * smoothstep(0.6, 1.0, tone)),
                 canvas.cover(collar))


def paint_background():
    """[H, W, 3] evening gradient with out-of-focus lights."""
    x, y = np.meshgrid(np.arange(WIDTH, dtype=np.float32), np.arange(HEIGHT, dtype=np.float32))
    u, v = x / WIDTH, y / HEIGHT
    image = mix((0.93, 0.72, 0.58), (0.36, 0.42, 0.56), smoothstep(-0.1, 1.15, 0.75 * u + 0.45 * v))
    image = mix(image, (1.0, 0.88, 0.72), 0.65 * bump(u, v, 0.24, 0.30, 0.28, 0.42))
    image = mix(image, (0.16, 0.19, 0.30), 0.55 * smoothstep(0.5, 1.25, v + 0.25 * u))
    rng = np.random.default_rng(9)
    for _ in range(26):
        cx, cy, radius = rng.uniform(0, WIDTH), rng.uniform(-20, 520), rng.uniform(18, 62)
        colour = np.array([(1.0, 0.86, 0.62), (1.0, 0.72, 0.52), (0.72, 0.84, 0.95)])[rng.integers(3)]
        distance = np.hypot(x - cx, y - cy)
        rim = 0.75 + 0.25 * smoothstep(radius * 0.6, radius, distance)
        disc = rim * smoothstep(radius + 5, radius - 5, distance)
        image = mix(image, colour, rng.uniform(0.06, 0.20) * disc)
    return image


# ---------------------------------------------------------------------------- movement

class Pose:
    """Where head, eyes and body are in one frame.

    matrix: [2, 3] crop units (centre origin) to frame pixels; yaw, pitch: small turns that shift
    near parts against far ones (units per unit of depth); breath: -1..1; lids: 1 open .. 0 shut.
    """

    def __init__(self, index, count):
        t = index / max(count - 1, 1)            # every movement rests at both ends of the walk
        wave = lambda cycles, shift=0.0: np.cos(2 * np.pi * (cycles * t)) + shift
        breath = -wave(1.5)
        sway = 0.62 * wave(0.5) + 0.38 * wave(2.0)
        nod = 0.6 * wave(1.0) - 0.4 * wave(2.5)
        self.breath, self.sway = breath, sway
        self.yaw, self.pitch = 0.085 * (0.7 * wave(0.5) - 0.3 * wave(1.5)), 0.045 * nod
        roll = np.deg2rad(1.3) * (0.7 * wave(1.0) + 0.3 * wave(0.5))
        scale = UNIT_PX * (1 + 0.004 * breath)
        cos, sin = scale * np.cos(roll), scale * np.sin(roll)
        self.shift = np.array((7.0 * sway, 2.6 * nod - 1.6 * breath))
        tx, ty = np.array(CENTRE_PX) + self.shift
        self.matrix = np.array([[cos, -sin, tx], [sin, cos, ty]])
        self.lids = blink(index, count)
        self.gaze = (-0.012 * (0.7 * wave(0.5) - 0.3 * wave(1.5)), 0.003 * nod)

    def crop_matrix(self, side):
        """[2, 3] placement from pixel indices of the side x side crop to frame pixels."""
        unit = 2.0 / side
        a, b, tx, c, d, ty = self.matrix.ravel()
        offset = 0.5 * unit - 1.0
        return np.array([[a * unit, b * unit, (a + b) * offset + tx],
                         [c * unit, d * unit, (c + d) * offset + ty]])

    def keypoints(self):
        """[21, 3] keypoints of this frame in crop units."""
        points = rig.REST.copy()
        rest = points.copy()
        for _ in range(4):                        # invert the parallax of `parallax`
            dx, dy = self.parallax(points[:, 0], points[:, 1])
            points[:, 0], points[:, 1] = rest[:, 0] + dx, rest[:, 1] + dy
        return points

    def parallax(self, x, y):
        """Shift of the picture (units) at crop coordinates x, y that makes the head turn."""
        depth = 0.55 * bump(x, y, 0, 0.10, 0.42, 0.62) + 0.22 * bump(x, y, 0, 0.07, 0.10, 0.16) - 0.20
        return self.yaw * depth, self.pitch * depth


def blink(index, count):
    """Openness of the eyes: quick down, slower up, four times along the walk (once a double blink)."""
    openness = 0.90                              # a relaxed lid rests on the iris
    for at in (0.14, 0.46, 0.52, 0.83):
        k = index - round(at * (count - 1))
        openness = min(openness, {-2: 0.75, -1: 0.25, 0: 0.0, 1: 0.12, 2: 0.55, 3: 0.88}.get(k, 1.0))
    return openness


class Painter:
    """Holds the painted layers and draws frames; make one per process."""

    def __init__(self):
        self.background = paint_background()
        self.hair, self.body, self.head = paint_hair_layer(), paint_body(), paint_head()
        self.x, self.y = np.meshgrid(np.arange(WIDTH, dtype=np.float32), np.arange(HEIGHT, dtype=np.float32))

    def head_with_eyes(self, pose):
        """A copy of the head canvas with the eyes of this moment drawn on."""
        canvas = copy.copy(self.head)
        canvas.pixels = self.head.pixels.copy()
        for side in (-1, 1):
            paint_eye(canvas, side, pose.lids, pose.gaze)
        return canvas

    def frame(self, pose):
        """[H, W, 3] picture in [0, 1]."""
        image = self.background.copy()
        x, y = (self.x - CENTRE_PX[0]) / UNIT_PX, (self.y - CENTRE_PX[1]) / UNIT_PX
        inverse = np.linalg.inv(np.vstack([pose.matrix, (0, 0, 1)]))[:2]
        hx = (inverse[0, 0] * self.x + inverse[0, 1] * self.y + inverse[0, 2]).astype(np.float32)
        hy = (inverse[1, 0] * self.x + inverse[1, 1] * self.y + inverse[1, 2]).astype(np.float32)
        lay(image, self.hair, hx + 0.25 * pose.yaw, hy)

        follow = smoothstep(1.35, 0.55, y)
        lift = 0.012 * pose.breath * smoothstep(0.75, 1.15, y)
        spread = 1 - 0.006 * pose.breath * smoothstep(0.9, 1.4, y)
        dx, dy = pose.shift / UNIT_PX
        lay(image, self.body, (x - dx * (0.30 + 0.70 * follow)) * spread, y - dy * follow + lift)

        px, py = pose.parallax(hx, hy)
        lay(image, self.head_with_eyes(pose), hx - px, hy - py)
        return image


def lay(image, canvas, x, y):
    """Composite a canvas over image [H, W, 3], in place; x, y: canvas coordinates per pixel."""
    high_x, high_y = canvas.x0 + canvas.x.shape[1] / PPU, canvas.y0 + canvas.x.shape[0] / PPU
    hit = (x > canvas.x0) & (x < high_x) & (y > canvas.y0) & (y < high_y)
    rows, columns = np.flatnonzero(hit.any(axis=1)), np.flatnonzero(hit.any(axis=0))
    box = np.s_[rows[0]:rows[-1] + 1, columns[0]:columns[-1] + 1]
    rgba = canvas.sample(x[box], y[box]) * hit[box][..., None]
    image[box] = image[box] * (1 - rgba[..., 3:]) + rgba[..., :3]
