"""The face renderer as a closed formula: keypoints in, face crop out.

Coordinates are crop units, as in rig.py. The picture is pulled back along a flow that is computed
on a GRID x GRID raster and enlarged:

  * the keypoints of head and face move their surroundings (fixed, normalised Gaussian weights);
  * what the lip keypoints do beyond that moves the mouth: the corners stretch it sideways, the
    skin above the line between the lips follows the upper lip, the skin below it follows the lower
    lip and takes the jaw along. The two vertical flows are carried separately and chosen per pixel
    of the full raster, so that the mouth parts along a sharp line;
  * lips that would cross just touch, and a drop beyond DROP_LIMIT stops there;
  * where the lips are apart the mouth's inside (mouth.py) shows through.

With driving = source every displacement is exactly zero and the picture comes back unchanged.
"""
import numpy as np
from PIL import Image

import mouth
import refinement
import rig
from onnx_build import GraphBuilder

GRID = 128                    # raster of the coarse flow
BASE_REACH = 0.24             # radius of a keypoint's Gaussian, units
WINDOW = (160, 96)            # width and height in pixels of a 512 crop where the mouth can open
WINDOW_AT = (176, 328)        # its left top corner
CORNER_ROUNDING = 0.08        # flattens the ends of the lips' arcs, so that the coarse flow can follow
CORNER_REACH = 0.26           # how far outside the mouth its corners pull the cheek, units
DROP_LIMIT = 0.235            # the lower lip's drop (units) that still fits the window
LUMA, CHROMA = 448, 160       # sides of the planes in the reduced features


def base_weights(x, y):
    """[15, ...]: share of each non-lip keypoint in the movement at points x, y; sums to 1."""
    base = [k for k in range(rig.KEYPOINTS) if k not in rig.LIPS]
    squared = np.stack([((x - rig.REST[k, 0]) ** 2 + (y - rig.REST[k, 1]) ** 2) for k in base])
    weight = np.exp(-(squared - squared.min(axis=0)) / BASE_REACH ** 2)
    return base, weight / weight.sum(axis=0)


def pixel_centres(count, first=0, total=None):
    """Coordinates in [-1, 1] of `count` pixels from index `first` of a side of `total` pixels."""
    total = total or count
    return ((np.arange(count) + first + 0.5) * 2 / total - 1).astype(np.float32)


class Lips:
    """The lip keypoints of a batch as [B, 1, 1] values ready to meet rasters."""

    def __init__(self, graph, driving, source, batch):
        self.graph, self.batch = graph, batch
        base, weights = base_weights(rig.REST[list(rig.LIPS), 0], rig.REST[list(rig.LIPS), 1])
        residual = np.zeros((len(rig.LIPS), rig.KEYPOINTS), np.float32)
        for row, k in enumerate(rig.LIPS):
            residual[row, k] = 1
            residual[row, base] -= weights[:, row]
        self.difference = driving - source
        self._own = graph.reshape(graph.matmul(graph.constant(residual), self.difference),
                                  [batch, len(rig.LIPS) * 3, 1])
        self._driving = graph.reshape(driving, [batch, rig.KEYPOINTS * 3, 1])
        own, at = self.own, self.at
        self.left, self.right = at(rig.LEFT_CORNER, 0), at(rig.RIGHT_CORNER, 0)
        self.centre = 0.5 * (self.left + self.right)
        self.half = graph.maximum(0.5 * (self.right - self.left), 0.02)
        # Lips that would cross just touch, half way; exaggerated drops stop at the limit.
        raw_upper, raw_lower = own(rig.UPPER_INNER, 1), own(rig.LOWER_INNER, 1)
        upper, lower = graph.clip(raw_upper, -0.06, 0.1), graph.minimum(raw_lower, DROP_LIMIT)
        middle, gap = 0.5 * (upper + lower), graph.maximum(lower - upper, 0.0)
        self.upper_inner, self.lower_inner, self.gap = middle - 0.5 * gap, middle + 0.5 * gap, gap
        self.pucker = pucker = (own(14, 2) + own(17, 2) + own(19, 2) + own(20, 2)) * (0.25 / 0.05)
        self.upper_outer = own(rig.UPPER_OUTER, 1) - 0.018 * pucker
        self.lower_outer = graph.minimum(own(rig.LOWER_OUTER, 1), DROP_LIMIT - 0.01) + 0.020 * pucker
        self.jaw = 0.55 * graph.clip(own(rig.LOWER_OUTER, 1), 0, DROP_LIMIT - 0.01)
        # The resting line in driving coordinates: lip positions less their own movement.
        self.rest_left = at(rig.LEFT_CORNER, 1) - own(rig.LEFT_CORNER, 1)
        self.rest_right = at(rig.RIGHT_CORNER, 1) - own(rig.RIGHT_CORNER, 1)
        self.rest_middle = 0.5 * (at(rig.UPPER_INNER, 1) + at(rig.LOWER_INNER, 1) - raw_upper - raw_lower)

    def own(self, keypoint, axis):
        """Movement of a lip keypoint beyond that of the face around it."""
        return self.graph.slice(self._own, 1, *self._range(rig.LIPS.index(keypoint) * 3 + axis))

    def at(self, keypoint, axis):
        """Driving position of a keypoint."""
        return self.graph.slice(self._driving, 1, *self._range(keypoint * 3 + axis))

    @staticmethod
    def _range(index):
        return index, index + 1

    def curves(self, x):
        """For columns x [1, 1, W]: (t, corner x, corner y, arc, upper, lower).

        t runs -1..1 between the corners; arc is 0 at the corners and 1 in the middle; upper and
        lower are the heights of the inner lip edges; the corner terms are what the corners' own
        movement contributes, fading outside the mouth.
        """
        g = self.graph
        t = (x - self.centre) / self.half
        inside = g.maximum(1.0 - t * t, 0.0)
        root = np.sqrt(CORNER_ROUNDING)
        arc = (g.sqrt(inside + CORNER_ROUNDING) - root) * (1 / (np.sqrt(1 + CORNER_ROUNDING) - root))
        share = g.clip(0.5 * t + 0.5, 0, 1)
        fade = g.smooth(1.0 - (g.abs(t) - 1.0) * self.half * (1 / CORNER_REACH))
        corner_x = g.mix(self.own(rig.LEFT_CORNER, 0), self.own(rig.RIGHT_CORNER, 0), share) * fade
        corner_y = g.mix(self.own(rig.LEFT_CORNER, 1), self.own(rig.RIGHT_CORNER, 1), share) * fade
        tilted = g.mix(self.rest_left, self.rest_right, share)
        sag = self.rest_middle - 0.5 * (self.rest_left + self.rest_right)
        line = tilted + sag * inside + corner_y * (1.0 - arc)
        return t, corner_x, corner_y, arc, line + self.upper_inner * arc, line + self.lower_inner * arc


def coarse_flow(graph, lips, batch):
    """Three [B, GRID, GRID]: movement in x, in y above the lips' line, and what to add below it."""
    g = graph
    x = pixel_centres(GRID).reshape(1, 1, GRID)
    y = pixel_centres(GRID).reshape(1, GRID, 1)
    base, weights = base_weights(x[0], y[0])
    selected = g.transpose(g.gather(lips.difference, base, 1), [0, 2, 1])          # [B, 3, 15]
    moved = g.reshape(g.matmul(selected, g.constant(weights.reshape(len(base), -1))), [batch, 3, GRID, GRID])
    moved_x, moved_y, _ = (g.reshape(v, [batch, GRID, GRID]) for v in g.op("Split", moved, outputs=3, axis=1))

    _, corner_x, corner_y, arc, upper, lower = lips.curves(g.constant(x))
    y = g.constant(y)
    above, below = g.maximum(upper - y, 0.0), g.maximum(y - lower, 0.0)
    aside = g.smooth(1.0 - g.abs(y - 0.5 * (upper + lower)) * (1 / 0.26))
    flow_x = corner_x * aside

    lip_up = g.mix(lips.upper_inner, lips.upper_outer, g.clip(above * (1 / 0.070), 0, 1))
    flow_up = (corner_y * (1.0 - arc) + lip_up * arc) * g.smooth(1.0 - above * (1 / 0.17))
    lip_low = g.mix(lips.lower_inner, lips.lower_outer, g.clip(below * (1 / 0.075), 0, 1))
    lip_low = corner_y * (1.0 - arc) + lip_low * arc
    across = np.clip(1 - (pixel_centres(GRID) / 0.56) ** 2, 0, 1).reshape(1, 1, GRID) ** 2
    skin = g.mix(lip_low, lips.jaw * across, g.smooth((below - 0.055) * (1 / 0.20)))
    chin = rig.REST[1, 1] + lips.jaw
    flow_low = skin * g.smooth(1.0 - (y - chin) / (0.985 - chin))

    return moved_x + flow_x, moved_y + flow_up, flow_low - flow_up


def warp(graph, picture, lips, batch, side):
    """The picture [B, 3, side, side] pulled along the flow."""
    g = graph
    x, y = pixel_centres(side).reshape(1, 1, side), pixel_centres(side).reshape(1, side, 1)
    *_, upper, lower = lips.curves(g.constant(x))
    below = g.clip((y - 0.5 * (upper + lower)) * (side / 2.0) + 0.5, 0, 1)
    flow_x, flow_y, jump = (g.reshape(g.resize(g.reshape(v, [batch, 1, GRID, GRID]), [batch, 1, side, side]),
                                      [batch, side, side]) for v in coarse_flow(graph, lips, batch))
    across = g.reshape(x - flow_x, [batch, side, side, 1])
    down = g.reshape(y - flow_y - jump * below, [batch, side, side, 1])
    return g.grid_sample(picture, g.concat([across, down], 3))


def mouth_inside(graph, pooled, lips, batch):
    """Colour [B, 3, 64, 128] of the mouth's inside over the mouth window."""
    g = graph
    size, rows = mouth.SIZE, mouth.LAYER_ROWS
    atlas = g.reshape(pooled, [batch, 4, size, size])
    x = (WINDOW_AT[0] + (np.arange(size) + 0.5) / size * WINDOW[0]) / 256 - 1
    y = (WINDOW_AT[1] + (np.arange(rows) + 0.5) / rows * WINDOW[1]) / 256 - 1
    x, y = x.reshape(1, 1, size).astype(np.float32), y.reshape(1, rows, 1).astype(np.float32)
    u = g.clip((x - lips.centre) * (1 / mouth.HALF_WIDTH), -1, 1)
    margin = 0.5 / rows

    def layer(origin, span, first):
        v = g.clip((y - origin - span[0]) * (1 / (span[1] - span[0])), margin, 1 - margin)
        return v + (first - 1.0)

    # Lips that come forward cover more of the upper teeth.
    teeth = lips.rest_middle - 0.016 * g.maximum(lips.pucker, 0.0)
    v = g.concat([layer(teeth, mouth.ROWS_UPPER, 0.0),
                  layer(lips.rest_middle + lips.lower_inner, mouth.ROWS_LOWER, 1.0)], 1)   # [B, 128, 1]
    still = np.zeros((1, size, size), np.float32)
    grid = g.concat([g.reshape(u + still, [batch, size, size, 1]), g.reshape(v + still, [batch, size, size, 1])], 3)
    layers = g.grid_sample(atlas, grid)
    colour, alpha = g.slice(layers, 1, 0, 3), g.slice(layers, 1, 3, 4)
    cavity = np.array(mouth.CAVITY, np.float32).reshape(1, 3, 1, 1)
    inside = g.mix(g.constant(cavity), g.slice(colour, 2, rows, size), g.slice(alpha, 2, rows, size))
    return g.mix(inside, g.slice(colour, 2, 0, rows), g.slice(alpha, 2, 0, rows))


def add_mouth(graph, picture, pooled, lips, batch, side):
    """Shows the mouth's inside where the lips are apart."""
    g = graph
    scale = side / 512
    width, height = (int(round(v * scale)) for v in WINDOW)
    left, top = (int(round(v * scale)) for v in WINDOW_AT)
    x = g.constant(pixel_centres(width, left, side).reshape(1, 1, width))
    y = g.constant(pixel_centres(height, top, side).reshape(1, height, 1))
    t, *_, upper, lower = lips.curves(x)
    depth = g.minimum(y - upper, lower - y)
    cover = g.reshape(g.clip(depth * (1 / 0.0085), 0, 1), [batch, 1, height, width])
    # Light falls off towards the upper lip and the corners.
    light = g.clip(0.42 + (y - upper) * 11.0, 0, 1) * g.clip(1.12 - 0.55 * t * t, 0, 1)
    inside = g.resize(mouth_inside(graph, pooled, lips, batch), [batch, 3, height, width])
    inside = inside * g.reshape(light, [batch, 1, height, width])
    rows = g.slice(picture, 2, top, top + height)
    window = g.mix(g.slice(rows, 3, left, left + width), inside, cover)
    rows = g.concat([g.slice(rows, 3, 0, left), window, g.slice(rows, 3, left + width, side)], 3)
    return g.concat([g.slice(picture, 2, 0, top), rows, g.slice(picture, 2, top + height, side)], 2)


def standard_graph(side, batch, refined=False):
    """Renderer that takes the source picture itself; refined: with convolutions at the end."""
    graph = GraphBuilder("face renderer")
    pooled = graph.input("pooled64", [batch, 64, 32, 32])
    picture = graph.input("P_rgb", [batch, 3, side, side])
    driving, source = graph.input("kp_driving", [batch, 21, 3]), graph.input("kp_source", [batch, 21, 3])
    lips = Lips(graph, driving, source, batch)
    rgb = add_mouth(graph, warp(graph, picture, lips, batch, side), pooled, lips, batch, side)
    graph.output("rgb", refinement.refine(graph, rgb) if refined else rgb, [batch, 3, side, side])
    return graph


def refined_graph(side, batch):
    return standard_graph(side, batch, refined=True)


def synth_graph(side, batch):
    """Renderer that rebuilds the source picture from the reduced features first."""
    graph = GraphBuilder("face renderer from reduced features")
    features = graph.input("fs_red", [batch, 64, 64, 64])
    pooled = graph.input("pooled", [batch, 64, 32, 32])
    driving, source = graph.input("kd", [batch, 21, 3]), graph.input("ks", [batch, 21, 3])
    lips = Lips(graph, driving, source, batch)
    picture = picture_from_features(graph, features, batch, side)
    rgb = add_mouth(graph, warp(graph, picture, lips, batch, side), pooled, lips, batch, side)
    graph.output("rgb", rgb, [batch, 3, side, side])
    return graph


# ------------------------------------------------------------------- the reduced features
# 64 x 64 x 64 values hold brightness at LUMA x LUMA and two colour differences (red and blue less
# brightness) at CHROMA x CHROMA, one plane after the other, then zeros.

LUMA_WEIGHTS = (0.299, 0.587, 0.114)


def _resized(plane, side):
    """A plane [S, S] resampled to [side, side], pixel areas aligned."""
    return np.asarray(Image.fromarray(plane.astype(np.float32), "F").resize((side, side), Image.LANCZOS))


def pack_features(picture):
    """[262144] float32 from a picture [3, S, S]."""
    luma = np.tensordot(LUMA_WEIGHTS, picture, 1)
    planes = [_resized(luma, LUMA), _resized(picture[0] - luma, CHROMA),
              _resized(picture[2] - luma, CHROMA)]
    values = np.concatenate([p.ravel() for p in planes])
    return np.pad(values, (0, 64 ** 3 - values.size)).astype(np.float32)


def picture_from_features(graph, features, batch, side):
    """[B, 3, side, side] from [B, 64, 64, 64]; the inverse of pack_features."""
    g = graph
    flat = g.reshape(features, [batch, 64 ** 3])
    luma_size, chroma_size = LUMA ** 2, CHROMA ** 2
    luma = g.reshape(g.slice(flat, 1, 0, luma_size), [batch, 1, LUMA, LUMA])
    chroma = g.reshape(g.slice(flat, 1, luma_size, luma_size + 2 * chroma_size), [batch, 2, CHROMA, CHROMA])
    luma, chroma = (g.resize(luma, [batch, 1, side, side]), g.resize(chroma, [batch, 2, side, side]))
    red_less, blue_less = g.op("Split", chroma, outputs=2, axis=1)
    green = luma - (LUMA_WEIGHTS[0] / LUMA_WEIGHTS[1]) * red_less - (LUMA_WEIGHTS[2] / LUMA_WEIGHTS[1]) * blue_less
    return g.concat([luma + red_less, green, luma + blue_less], 1)
