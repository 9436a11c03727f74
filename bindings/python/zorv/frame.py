"""One finished picture."""
import ctypes
import enum
import sys
from array import array
from collections import deque
from typing import Any, Callable, Deque, Dict, Optional, Tuple, Union

from ._library import FPS

CHANNELS = {"rgb": 3, "rgba": 4}
KINDS = ("idle", "speech", "ramp")


class FrameFlags(enum.IntFlag):
    """What is special about a frame of a face."""

    FIRST = 1  #: the first of its utterance
    LAST = 2  #: the last of its utterance, where that was certain when it was pulled
    SILENCE = 4  #: with LAST: ended by silence, not by a call
    GAP = 8  #: frames were left out before it


def plane_shapes(pixels: str, width: int, height: int) -> Tuple[Tuple[int, ...], ...]:
    """Rows, bytes per row and, where they are whole pixels, channels of each plane."""
    columns, rows = (width + 1) // 2, (height + 1) // 2
    if pixels == "i420":
        return (height, width), (rows, columns), (rows, columns)
    if pixels == "nv12":
        return (height, width), (rows, 2 * columns)
    return ((height, width, CHANNELS[pixels]),)


def plane_sizes(pixels: str, width: int, height: int) -> Tuple[int, ...]:
    """Bytes of each plane; they lie one behind the other."""
    sizes = []
    for shape in plane_shapes(pixels, width, height):
        size = 1
        for extent in shape:
            size *= extent
        sizes.append(size)
    return tuple(sizes)


class Frame:
    """One finished picture and the sound that belongs to it.

    A frame owns its memory: it may be kept after the engine that made it is gone, and be drawn on.
    ``numpy.asarray(frame)`` is the picture without a copy: height x width x 3 bytes R, G, B (x 4
    for RGBA, the last one 255). For I420 and NV12 it is the usual one block of 3/2 height x width
    when both are even, else a flat one; the planes are ``y``, ``u``, ``v`` or ``y``, ``uv``.
    """

    __slots__ = ("width", "height", "pixels", "kind", "utterance", "first_sample", "pts",
                 "sequence", "flags", "_buffer", "_sound", "_spare", "__weakref__")

    width: int  #: in pixels
    height: int  #: in pixels
    pixels: str  #: "rgb", "rgba", "i420" or "nv12"
    kind: str  #: "speech", "idle" or "ramp" (the mouth closes)
    utterance: int  #: its number, from 1; of a ramp the one that it closes; 0 for idle frames
    first_sample: int  #: of a speech frame: where its sound begins in the utterance; else -1
    pts: int  #: in 1/25 s
    sequence: int  #: counts finished frames; a gap shows frames that were dropped
    flags: FrameFlags

    def __init__(self, buffer: bytearray, width: int, height: int, pixels: str, *, kind: str,
                 utterance: int, first_sample: int, pts: int, sequence: int, flags: FrameFlags,
                 sound: "Union[array[int], Callable[[], array[int]]]",
                 spare: "Optional[Deque[bytearray]]" = None) -> None:
        self._buffer = buffer
        self.width, self.height, self.pixels = width, height, pixels
        self.kind, self.utterance, self.first_sample = kind, utterance, first_sample
        self.pts, self.sequence, self.flags = pts, sequence, flags
        self._sound = sound
        self._spare = spare

    def __del__(self) -> None:
        # Nobody sees the picture any more when this frame and this call alone refer to its memory.
        if self._spare is not None and sys.getrefcount(self._buffer) <= 2:
            self._spare.append(self._buffer)

    def __repr__(self) -> str:
        return (f"<zorv.Frame {self.pts}: {self.kind}, utterance {self.utterance}, "
                f"{self.width} x {self.height} {self.pixels}>")

    @property
    def data(self) -> memoryview:
        """All bytes, in the shape that ``numpy.asarray(frame)`` has."""
        return memoryview(self._buffer).cast("B", self._shape())

    @property
    def sound(self) -> memoryview:
        """The 40 ms that belong to the picture: int16 samples at the rate of what was pushed."""
        if callable(self._sound):
            self._sound = self._sound()
        return memoryview(self._sound)

    @property
    def y(self) -> memoryview:
        """Luma of I420 and NV12: height x width bytes."""
        return self._plane("y", 0, ("i420", "nv12"))

    @property
    def u(self) -> memoryview:
        """Blue difference of I420: half the height x half the width, rounded up."""
        return self._plane("u", 1, ("i420",))

    @property
    def v(self) -> memoryview:
        """Red difference of I420: half the height x half the width, rounded up."""
        return self._plane("v", 2, ("i420",))

    @property
    def uv(self) -> memoryview:
        """Both differences of NV12 by turns: half the height x twice half the width, rounded up."""
        return self._plane("uv", 1, ("nv12",))

    @property
    def __array_interface__(self) -> Dict[str, Any]:
        return {"shape": self._shape(), "typestr": "|u1", "data": (place_of(self._buffer), False),
                "version": 3}

    def _shape(self) -> Tuple[int, ...]:
        if self.pixels in CHANNELS:
            return self.height, self.width, CHANNELS[self.pixels]
        if self.height % 2 or self.width % 2:
            return (len(self._buffer),)
        return self.height * 3 // 2, self.width

    def _plane(self, name: str, plane: int, of: Tuple[str, ...]) -> memoryview:
        if self.pixels not in of:
            raise AttributeError(f"a frame of {self.pixels} pixels has no plane {name}")
        sizes = plane_sizes(self.pixels, self.width, self.height)
        begin = sum(sizes[:plane])
        shape = plane_shapes(self.pixels, self.width, self.height)[plane]
        return memoryview(self._buffer)[begin:begin + sizes[plane]].cast("B", shape)


def place_of(buffer: bytearray) -> int:
    """Where it lies; it must not be resized."""
    return ctypes.addressof(ctypes.c_char.from_buffer(buffer))


class FrameMaker:
    """What the makers of frames tell of them."""

    _width: int
    _height: int

    @property
    def width(self) -> int:
        """Of the frames, in pixels."""
        return self._width

    @property
    def height(self) -> int:
        """Of the frames, in pixels."""
        return self._height

    @property
    def fps(self) -> int:
        """Frames per second: 25."""
        return FPS


class Memory:
    """Buffers for frames of one size. Those of frames that are gone are used again: fresh ones of
    some megabytes cost more than what is copied into them."""

    def __init__(self, pixels: str, width: int, height: int) -> None:
        self.sizes = plane_sizes(pixels, width, height)
        self.spare: Deque[bytearray] = deque(maxlen=8)

    def take(self) -> bytearray:
        try:
            return self.spare.pop()
        except IndexError:
            return bytearray(sum(self.sizes))
