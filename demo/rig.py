"""What the 21 keypoints of the demo subject mean, and how speech moves them.

Coordinates are in crop units: x to the right, y down, both in [-1, 1] across the square face
crop (crop width = 2 units), z towards the viewer. Left and right are the picture's.

A mouth shape is two numbers that are zero at rest:
    opening  0 closed .. 1 wide open (jaw down, lips apart)
    width   -1 round (corners in, lips forward) .. 0 neutral .. +1 spread (corners out)
Lip offsets are linear in them (LIP_BASIS), so every model can move between the two descriptions.
"""
import numpy as np

KEYPOINTS = 21

# index: (name, rest x, rest y, rest z)
LAYOUT = [
    ("nose tip", 0.00, 0.10, 0.30),            # 0
    ("chin", 0.00, 0.74, 0.10),                # 1
    ("forehead", 0.00, -0.62, 0.10),           # 2
    ("left cheek", -0.36, 0.20, 0.00),         # 3
    ("right cheek", 0.36, 0.20, 0.00),         # 4
    ("left jaw", -0.42, 0.46, -0.10),          # 5
    ("left mouth corner", -0.195, 0.376, 0.05),   # 6  lip
    ("left eye", -0.23, -0.14, 0.00),          # 7
    ("right eye", 0.23, -0.14, 0.00),          # 8
    ("left brow", -0.24, -0.38, 0.05),         # 9
    ("right brow", 0.24, -0.38, 0.05),         # 10
    ("right jaw", 0.42, 0.46, -0.10),          # 11
    ("right mouth corner", 0.195, 0.376, 0.05),   # 12 lip
    ("left upper lid", -0.23, -0.23, 0.00),    # 13
    ("upper lip, inner edge", 0.000, 0.395, 0.12),  # 14 lip
    ("right upper lid", 0.23, -0.23, 0.00),    # 15
    ("nose bridge", 0.00, -0.12, 0.15),        # 16
    ("lower lip, inner edge", 0.000, 0.405, 0.12),  # 17 lip
    ("neck", 0.00, 0.92, -0.20),               # 18
    ("upper lip, outer edge", 0.000, 0.330, 0.10),  # 19 lip
    ("lower lip, outer edge", 0.000, 0.480, 0.10),  # 20 lip
]
NAMES = [entry[0] for entry in LAYOUT]
REST = np.array([entry[1:] for entry in LAYOUT], np.float32)  # [21, 3]

LEFT_CORNER, RIGHT_CORNER = 6, 12
UPPER_INNER, LOWER_INNER, UPPER_OUTER, LOWER_OUTER = 14, 17, 19, 20
LIPS = (6, 12, 14, 17, 19, 20)


def _lip_basis():
    """[2, 21, 3]: keypoint offsets for opening = 1 and for width = 1."""
    basis = np.zeros((2, KEYPOINTS, 3), np.float32)
    opening, width = basis
    opening[LOWER_INNER, 1] = 0.170
    opening[LOWER_OUTER, 1] = 0.150
    opening[UPPER_INNER, 1] = -0.030
    opening[UPPER_OUTER, 1] = -0.020
    opening[LEFT_CORNER] = (0.015, 0.045, 0)
    opening[RIGHT_CORNER] = (-0.015, 0.045, 0)
    width[LEFT_CORNER] = (-0.065, -0.022, 0)
    width[RIGHT_CORNER] = (0.065, -0.022, 0)
    for lip in (UPPER_INNER, LOWER_INNER, UPPER_OUTER, LOWER_OUTER):
        width[lip, 2] = -0.05  # spread lips flatten, round ones come forward
    return basis


LIP_BASIS = _lip_basis()


def mouth_offsets(opening, width):
    """Keypoint offsets [..., 63] for mouth shapes given as arrays of the same shape."""
    opening, width = np.asarray(opening, np.float32), np.asarray(width, np.float32)
    offsets = opening[..., None, None] * LIP_BASIS[0] + width[..., None, None] * LIP_BASIS[1]
    return offsets.reshape(*opening.shape, KEYPOINTS * 3)
