"""A last stage of convolutions over the whole picture, in closed form: a touch of local contrast.

The picture is folded into 2 x 2 blocks (12 channels at half the size) and three 3 x 3 convolutions
carry it on unchanged while the four spare channels gather the brightness around each block, wider
with each layer. At the end every pixel moves away from that by STRENGTH. All values stay above 0,
so the rectifiers between the layers change nothing; they tell a converter that nothing is negative.
"""
import numpy as np

CHANNELS = 16             # 2 x 2 pixels of 3 colours, and 4 of brightness
STRENGTH = 0.06
LUMA = np.array((0.299, 0.587, 0.114), np.float32)


def _carry(inputs):
    """[16, inputs, 3, 3]: the twelve pixel channels as they are."""
    weights = np.zeros((CHANNELS, inputs, 3, 3), np.float32)
    for k in range(12):
        weights[k, k, 1, 1] = 1
    return weights


def layers():
    """Weights of the three 3 x 3 layers and of the 1 x 1 layer that ends the stage."""
    bell = np.outer((1, 2, 1), (1, 2, 1)) / 16
    gather = _carry(12)
    for pixel in range(4):
        for colour in range(3):
            gather[12 + pixel, 3 * pixel + colour] = LUMA[colour] * bell
    spread = _carry(CHANNELS)
    for pixel in range(4):
        for other in range(4):
            spread[12 + pixel, 12 + other] = bell / 4
    last = np.zeros((12, CHANNELS, 1, 1), np.float32)
    for pixel in range(4):
        for colour in range(3):
            row = last[3 * pixel + colour, :, 0, 0]
            row[3 * pixel:3 * pixel + 3] = STRENGTH * LUMA
            row[3 * pixel + colour] += 1
            row[12 + pixel] = -STRENGTH
    return gather, spread, spread, last


def refine(graph, picture):
    """The picture [B, 3, S, S] with S even."""
    value = graph.op("SpaceToDepth", picture, blocksize=2)
    *wide, last = layers()
    for weights in wide:
        value = graph.op("Conv", value, weights, np.zeros(CHANNELS), pads=[1, 1, 1, 1])
        value = graph.op("Relu", value)
    value = graph.op("Conv", value, last, np.zeros(12))
    return graph.op("DepthToSpace", value, blocksize=2, mode="DCR")
