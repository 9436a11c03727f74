"""Small drawing kit: signed-distance shapes painted on premultiplied RGBA canvases.

Lengths are in crop units (see rig.py) unless a name says pixels. Colours are sRGB triples in
[0, 1]; images are float32 [height, width, channels].
"""
import numpy as np
from scipy import ndimage


def smoothstep(edge0, edge1, value):
    """0 below edge0, 1 above edge1, smooth in between (edge0 > edge1 reverses it)."""
    t = np.clip((value - edge0) / (edge1 - edge0), 0.0, 1.0)
    return t * t * (3.0 - 2.0 * t)


def bump(x, y, cx, cy, rx, ry):
    """Gaussian hill of height 1 at (cx, cy) with radii (rx, ry)."""
    return np.exp(-(((x - cx) / rx) ** 2 + ((y - cy) / ry) ** 2))


def mix(a, b, t):
    """Blend two colours (triples or images) by t [height, width]."""
    t = np.asarray(t)[..., None]
    return np.asarray(a, np.float32) * (1 - t) + np.asarray(b, np.float32) * t


def spline(points, closed=True, steps=10):
    """Catmull-Rom curve through points [N, 2], sampled `steps` times per segment."""
    p = np.asarray(points, np.float64)
    if closed:
        p = np.concatenate([p[-1:], p, p[:2]])
    else:
        p = np.concatenate([2 * p[:1] - p[1:2], p, 2 * p[-1:] - p[-2:-1]])
    a, b, c, d = p[:-3, None], p[1:-2, None], p[2:-1, None], p[3:, None]
    t = (np.arange(steps) / steps)[None, :, None]
    curve = 0.5 * (2 * b + (c - a) * t + (2 * a - 5 * b + 4 * c - d) * t ** 2
                   + (3 * b - a - 3 * c + d) * t ** 3)
    curve = curve.reshape(-1, 2)
    return curve if closed else np.concatenate([curve, p[-2:-1]])


def mirrored(points):
    """Closed outline from its right half, listed from top to bottom."""
    right = np.asarray(points, np.float64)
    left = right[::-1] * (-1, 1)
    return np.concatenate([right, left[np.abs(left[:, 0]) > 1e-9]])


def polygon_sdf(polygon, x, y):
    """Signed distance (negative inside) from the points x, y to a closed polygon [N, 2]."""
    distance = np.full(x.shape, 1e9, np.float32)
    inside = np.zeros(x.shape, bool)
    for (ax, ay), (bx, by) in zip(polygon, np.roll(polygon, -1, axis=0)):
        ex, ey = bx - ax, by - ay
        length = ex * ex + ey * ey
        if length == 0:
            continue
        px, py = x - np.float32(ax), y - np.float32(ay)
        t = np.clip((px * ex + py * ey) / length, 0, 1).astype(np.float32)
        distance = np.minimum(distance, (px - ex * t) ** 2 + (py - ey * t) ** 2)
        if ey != 0:
            crosses = (py >= 0) != (y >= by)
            inside ^= crosses & ((px * ey < py * ex) == (ey > 0))
    return np.where(inside, -1, 1) * np.sqrt(distance)


def sample(image, x, y, order=1):
    """Values of image [h, w, c] at pixel positions x, y (integer = pixel centre), edges repeated.

    order 1 interpolates bilinearly, order 3 with cubic splines.
    """
    return np.stack([ndimage.map_coordinates(channel, (y, x), order=order, mode="nearest")
                     for channel in np.moveaxis(image, -1, 0)], axis=-1)


class Canvas:
    """Premultiplied RGBA picture of a rectangle of the plane.

    x, y: coordinates of the pixel centres [h, w]; pixels: [h, w, 4]; ppu: pixels per unit;
    soft: width of an anti-aliased edge, in units.
    """

    def __init__(self, x0, y0, x1, y1, ppu, soft):
        width, height = int(round((x1 - x0) * ppu)), int(round((y1 - y0) * ppu))
        self.x0, self.y0, self.ppu, self.soft = x0, y0, ppu, soft
        xs = x0 + (np.arange(width, dtype=np.float32) + 0.5) / ppu
        ys = y0 + (np.arange(height, dtype=np.float32) + 0.5) / ppu
        self.x, self.y = np.meshgrid(xs, ys)
        self.pixels = np.zeros((height, width, 4), np.float32)

    def part(self, x0, y0, x1, y1):
        """A canvas that shares this one's pixels inside the given rectangle."""
        i0, i1 = (int(round((v - self.x0) * self.ppu)) for v in (x0, x1))
        j0, j1 = (int(round((v - self.y0) * self.ppu)) for v in (y0, y1))
        view = object.__new__(Canvas)
        view.x0, view.y0 = self.x0 + i0 / self.ppu, self.y0 + j0 / self.ppu
        view.ppu, view.soft = self.ppu, self.soft
        view.x, view.y = self.x[j0:j1, i0:i1], self.y[j0:j1, i0:i1]
        view.pixels = self.pixels[j0:j1, i0:i1]
        return view

    def outline(self, points, steps=10, decimate=1, margin=0.06):
        """Signed distance to the closed spline through points; far outside it is just large.

        decimate > 1 computes on a coarser grid and interpolates (for big, smooth shapes).
        """
        polygon = spline(points, steps=steps)
        sdf = np.full(self.x.shape, 10.0, np.float32)
        low = (polygon.min(axis=0) - margin - (self.x0, self.y0)) * self.ppu
        high = (polygon.max(axis=0) + margin - (self.x0, self.y0)) * self.ppu
        i0, j0 = np.maximum(low.astype(int), 0)
        i1, j1 = np.minimum(high.astype(int) + 1, (self.x.shape[1], self.x.shape[0]))
        x, y = self.x[j0:j1, i0:i1], self.y[j0:j1, i0:i1]
        if decimate > 1:
            coarse = polygon_sdf(polygon, x[::decimate, ::decimate], y[::decimate, ::decimate])
            jj, ii = np.mgrid[0:y.shape[0], 0:x.shape[1]].astype(np.float32) / decimate
            sdf[j0:j1, i0:i1] = sample(coarse[..., None], ii, jj)[..., 0]
        else:
            sdf[j0:j1, i0:i1] = polygon_sdf(polygon, x, y)
        return sdf

    def cover(self, sdf, soft=None):
        """Coverage 0..1 of a shape given by its signed distance."""
        return np.clip(0.5 - sdf / (soft or self.soft), 0, 1)

    def paint(self, colour, coverage):
        """Lay a colour (triple or image) over the picture."""
        coverage = np.asarray(coverage, np.float32)[..., None]
        self.pixels *= 1 - coverage
        self.pixels[..., :3] += np.asarray(colour, np.float32) * coverage
        self.pixels[..., 3:] += coverage

    def tint(self, colour, amount):
        """Multiply what is already there towards a colour (shadows, blush); alpha stays."""
        amount = np.asarray(amount, np.float32)[..., None]
        self.pixels[..., :3] *= 1 - amount * (1 - np.asarray(colour, np.float32))

    def glow(self, colour, amount):
        """Add light to what is already there; alpha stays."""
        amount = np.asarray(amount, np.float32)[..., None]
        self.pixels[..., :3] += amount * np.asarray(colour, np.float32) * self.pixels[..., 3:]
        np.clip(self.pixels, 0, 1, out=self.pixels)

    def sample(self, x, y):
        """Premultiplied RGBA at points of the plane."""
        return sample(self.pixels, (x - self.x0) * self.ppu - 0.5, (y - self.y0) * self.ppu - 0.5)
