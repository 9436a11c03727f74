"""A frame says in its own pixels which one it is, for whoever measures at the viewer.

A row of cells at the top, black is 0 and white is 1, the first two are 1 and 0; then, highest bit
first: 16 bits of the frame's pts, 1 whether it is speech, 11 of its place in its utterance in frames,
and 6 that are the sum of the ones before them.
"""
from zorv import Frame

CELLS = 36
_FIELDS = ((16, 0xFFFF), (1, 1), (11, 0x7FF))


def bits_of(frame: Frame, samples_per_frame: int) -> str:
    speech = frame.kind == "speech"
    place = frame.first_sample // samples_per_frame if speech else 0
    values = (frame.pts, int(speech), place)
    text = "".join(format(value & most, f"0{width}b")
                   for value, (width, most) in zip(values, _FIELDS))
    return "10" + text + format(text.count("1"), "06b")


def draw(frame: Frame, samples_per_frame: int) -> None:
    """Into an I420 frame: cells as high as they are wide, as many as fit `CELLS` times."""
    size = frame.width // CELLS & ~1
    row = b"".join((b"\xeb" if bit == "1" else b"\x10") * size
                   for bit in bits_of(frame, samples_per_frame))
    luma = frame.y.cast("B")
    for y in range(size):
        luma[y * frame.width:y * frame.width + len(row)] = row
    grey, stride = b"\x80" * (len(row) // 2), (frame.width + 1) // 2
    for plane in (frame.u.cast("B"), frame.v.cast("B")):
        for y in range(size // 2):
            plane[y * stride:y * stride + len(grey)] = grey
