"""Where speech comes from: a program that reads text, or a tone for measuring.

All sound is mono, 16 bits, at `limits.RATE`; it is handed on as it comes.
"""
import asyncio
import shlex
import struct
from array import array
from math import pi, sin
from typing import AsyncIterator, Iterator, List, Optional, Union

import av

from .limits import RATE

ESPEAK = "espeak-ng --stdin --stdout -v en-us+f3 -s 150 -p 55"
PIECE = 4096  # bytes
STALL_S = 10.0  # without a byte of a program that was given a text

# The tone: a mark of the first kind at the beginning and each 0.4 s, the second kind in between.
MARK_HZ, FILL_HZ = 600, 1500
MARK_FRAMES, PERIOD_FRAMES = 2, 10
AMPLITUDE = 9000


class VoiceError(Exception):
    """The program did not speak; the text is for the page."""


class Resampler:
    """Pieces of mono 16-bit sound at any rate become pieces at `RATE`."""

    def __init__(self, rate: int) -> None:
        self._rate = rate
        self._odd = b""
        self._resampler = (None if rate == RATE else
                           av.AudioResampler(format="s16", layout="mono", rate=RATE))

    def feed(self, data: bytes) -> bytes:
        data = self._odd + data
        whole = len(data) & ~1
        self._odd = data[whole:]
        if self._resampler is None or not whole:
            return data[:whole]
        return self._joined(self._resampler.resample(sound_frame(data[:whole], self._rate)))

    def rest(self) -> bytes:
        return b"" if self._resampler is None else self._joined(self._resampler.resample(None))

    @staticmethod
    def _joined(frames: "List[av.AudioFrame]") -> bytes:
        return b"".join(bytes(frame.planes[0])[:2 * frame.samples] for frame in frames)


def sound_frame(data: Union[bytes, memoryview], rate: int) -> "av.AudioFrame":
    frame = av.AudioFrame(format="s16", layout="mono", samples=len(data) // 2)
    memoryview(frame.planes[0]).cast("B")[:len(data)] = data
    frame.sample_rate = rate
    return frame


class Voice:
    """A program that reads text on its standard input and writes sound.

    command  its words; never seen by a shell. The text is not among them.
    rate     Hz of the 16-bit samples that it writes; None: it writes a WAV file, which tells.
    """

    def __init__(self, command: str = ESPEAK, rate: Optional[int] = None) -> None:
        self._command = shlex.split(command)
        if not self._command:
            raise ValueError("the speech command is empty")
        self._rate = rate

    async def speak(self, text: str) -> AsyncIterator[bytes]:
        """Pieces of sound while the program goes on; leaving the loop ends it."""
        try:
            process = await asyncio.create_subprocess_exec(
                *self._command, stdin=asyncio.subprocess.PIPE, stdout=asyncio.subprocess.PIPE,
                stderr=asyncio.subprocess.DEVNULL)
        except OSError as error:
            raise VoiceError(f"{self._command[0]} does not start: {error.strerror}") from error
        assert process.stdin is not None and process.stdout is not None
        try:
            try:
                process.stdin.write(text.encode())
                process.stdin.close()
            except (BrokenPipeError, ConnectionResetError):
                pass  # its exit status tells
            rate = self._rate
            if rate is None:
                rate = await asyncio.wait_for(wav_rate(process.stdout), STALL_S)
            sound = Resampler(rate)
            while True:
                piece = await asyncio.wait_for(process.stdout.read(PIECE), STALL_S)
                made = sound.feed(piece) if piece else sound.rest()
                if made:
                    yield made
                if not piece:
                    break
            status = await asyncio.wait_for(process.wait(), STALL_S)
            if status:
                raise VoiceError(f"{self._command[0]} ended with status {status}")
        except asyncio.TimeoutError:
            raise VoiceError(f"{self._command[0]} said nothing for {STALL_S:g} s") from None
        finally:
            if process.returncode is None:
                process.kill()
                await asyncio.shield(process.wait())


async def wav_rate(stream: asyncio.StreamReader) -> int:
    """Reads up to the samples of a mono 16-bit WAV file whose length may not be known yet."""
    try:
        riff, wave = struct.unpack("<4s4x4s", await stream.readexactly(12))
        layout = b""
        while True:
            name, size = struct.unpack("<4sI", await stream.readexactly(8))
            if name == b"data":
                break
            if size > 4096:
                raise VoiceError("the speech command's WAV file has a strange header")
            chunk = await stream.readexactly(size + size % 2)
            if name == b"fmt ":
                layout = chunk
        kind, channels, rate, _, _, bits = struct.unpack("<HHIIHH", layout[:16])
    except (asyncio.IncompleteReadError, struct.error):
        raise VoiceError("the speech command wrote no WAV file") from None
    if (riff, wave) != (b"RIFF", b"WAVE") or (kind, channels, bits) != (1, 1, 16):
        raise VoiceError("the speech command's WAV file is not mono with 16 bits")
    if not 4000 <= rate <= 192000:
        raise VoiceError(f"the speech command writes at {rate} Hz")
    return int(rate)


def tone(frames: int) -> Iterator[bytes]:
    """A sound whose marks tell where in it one is; one piece per 40 ms."""
    samples = RATE // 25
    pieces = [array("h", (round(AMPLITUDE * sin(2 * pi * hz * i / RATE)) for i in range(samples)))
              .tobytes() for hz in (MARK_HZ, FILL_HZ)]  # both are whole periods long
    for frame in range(frames):
        yield pieces[frame % PERIOD_FRAMES >= MARK_FRAMES]
