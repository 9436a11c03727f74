"""Samples of a host become what the library takes."""
import ctypes
import sys
from array import array
from dataclasses import dataclass
from math import isfinite
from typing import TYPE_CHECKING, Any, Optional, Union, cast

from ._library import RATE, c_integer, fail, lib

if TYPE_CHECKING:
    import numpy
    from _typeshed import ReadableBuffer

    Sound = Union[ReadableBuffer, "numpy.ndarray[Any, Any]"]

assert sys.byteorder == "little"


@dataclass(frozen=True)
class Samples:
    """Mono sound in one block, 16-bit samples or floats."""

    data: bytes
    kind: str  # "h" or "f"

    @classmethod
    def of(cls, sound: "Sound") -> "Samples":
        if isinstance(sound, (bytes, bytearray)):
            if len(sound) % 2:
                raise ValueError("bytes of 16-bit samples come in pairs")
            return cls(bytes(sound), "h")
        try:
            view = memoryview(cast("ReadableBuffer", sound))
        except TypeError:
            raise TypeError("sound must be an array of int16 or float32 samples, or bytes, not "
                            f"{type(sound).__name__}") from None
        kind = view.format.lstrip("@=<")
        if kind not in ("h", "f"):
            raise TypeError(f"samples must be int16 or float32, not of format {view.format!r}")
        if view.ndim != 1:
            raise ValueError(f"sound must be mono: one dimension, not {view.ndim}")
        return cls(view.tobytes(), kind)

    def __len__(self) -> int:
        return len(self.data) // (2 if self.kind == "h" else 4)

    def pcm(self, begin: int = 0, end: Optional[int] = None) -> "array[int]":
        """Samples [begin, end) in 16 bits; a float that is not finite counts as 0."""
        piece = memoryview(self.data).cast(self.kind)[begin:end]
        if self.kind == "h":
            return array("h", piece)
        numpy = _numpy()
        if numpy is None:
            return array("h", (max(-32768, min(32767, round(x * 32768))) if isfinite(x) else 0
                               for x in piece))
        floats = numpy.frombuffer(piece, numpy.float32)
        scaled = numpy.rint(numpy.clip(floats, -1, 1) * 32768)
        scaled[~numpy.isfinite(floats)] = 0
        return array("h", numpy.minimum(scaled, 32767).astype(numpy.int16).tobytes())

    def speech(self, rate: int) -> "array[float]":
        """What the models hear of it: floats at 16 kHz."""
        samples, numpy = array("f"), _numpy()
        if self.kind == "f":
            samples.frombytes(self.data)
        elif numpy is None:
            samples.extend(x / 32768 for x in memoryview(self.data).cast("h"))
        else:
            whole = numpy.frombuffer(self.data, numpy.int16).astype(numpy.float32)
            samples.frombytes((whole / 32768).tobytes())
        if c_integer("rate", rate) == RATE:
            return samples
        room = -(-len(samples) * RATE // max(rate, 1))
        resampled = array("f", bytes(4 * room))
        if lib.zorv_resample(address(samples), c_integer("samples", len(samples)), rate,
                             address(resampled), c_integer("samples", room)) != room:
            fail("zorv_resample")
        return resampled


def _numpy() -> Any:
    """numpy where it is loaded already: it converts a second of sound in microseconds, where Python
    takes milliseconds and holds the interpreter lock."""
    return sys.modules.get("numpy")


def address(data: "array[Any]") -> int:
    """Valid while the array lives and keeps its size; of an empty one, a place for no samples."""
    return data.buffer_info()[0] if data else ctypes.addressof(_nothing)


_nothing = ctypes.c_double()
