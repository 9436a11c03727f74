"""A face's frames become a picture track and a sound track.

Both take their timestamps from the frame's `pts`; nothing waits here but the newest picture and the
sound of the frame that is being sent.
"""
import asyncio
from collections import deque
from fractions import Fraction
from typing import Deque, Optional, Tuple

import av
from aiortc import MediaStreamTrack
from aiortc.mediastreams import MediaStreamError

from zorv import Frame

from .limits import RATE
from .speech import sound_frame

PACKET = RATE // 50  # samples of an audio packet: 20 ms, half a frame
PACKET_S = PACKET / RATE
VIDEO_CLOCK = 90000
STALL_S = 0.2
MOST_PACKETS = 50  # that wait when a peer takes no sound


class Picture(MediaStreamTrack):
    """The newest frame; one that the encoder had no time for is skipped and counted."""

    kind = "video"

    def __init__(self) -> None:
        super().__init__()
        self._waiting: "Optional[av.VideoFrame]" = None
        self._arrived = asyncio.Event()
        self._left_at = 0.0
        self.sent = self.skipped = self.stalls = 0  # stalls: STALL_S and more between two that left
        self.encode_s = 0.0  # from one picture's leaving to the next one's asking, a running average

    def put(self, frame: Frame) -> None:
        picture = av.VideoFrame(frame.width, frame.height, "yuv420p")
        for plane, pixels in zip(picture.planes, (frame.y, frame.u, frame.v)):
            rows, width = pixels.shape or (0, 0)
            target, source = memoryview(plane).cast("B"), pixels.cast("B")
            stride = plane.line_size
            if stride == width:
                target[:rows * width] = source
            else:
                for row in range(rows):
                    target[row * stride:row * stride + width] = \
                        source[row * width:(row + 1) * width]
        picture.pts, picture.time_base = frame.pts * (VIDEO_CLOCK // 25), Fraction(1, VIDEO_CLOCK)
        self.skipped += self._waiting is not None
        self._waiting = picture
        self._arrived.set()

    def clear(self) -> None:
        """Drops the picture that waits, unless it is the first one."""
        if self.sent and self._waiting is not None:
            self._waiting = None
            self._arrived.clear()

    async def recv(self) -> "av.VideoFrame":
        clock = asyncio.get_running_loop().time
        if self.sent:
            spent = clock() - self._left_at
            self.encode_s += (spent - self.encode_s) / min(self.sent, 16)
        while self._waiting is None:
            if self.readyState != "live":
                raise MediaStreamError
            await self._arrived.wait()
        picture, self._waiting = self._waiting, None
        self._arrived.clear()
        self.stalls += self.sent > 0 and clock() - self._left_at >= STALL_S
        self.sent += 1
        self._left_at = clock()
        return picture


class Sound(MediaStreamTrack):
    """Packets of 20 ms, each at its time; late ones go out at once."""

    kind = "audio"

    def __init__(self) -> None:
        super().__init__()
        self._waiting: Deque[Tuple[float, int, bytes]] = deque(maxlen=MOST_PACKETS)
        self._arrived = asyncio.Event()

    def put(self, frame: Frame) -> None:
        now, sound = asyncio.get_running_loop().time(), frame.sound.cast("B")
        for half in range(2):
            self._waiting.append((now + half * PACKET_S, (2 * frame.pts + half) * PACKET,
                                  bytes(sound[2 * PACKET * half:2 * PACKET * (half + 1)])))
        self._arrived.set()

    def clear(self) -> None:
        """What waits becomes silence: a hole would be filled with more of what was said."""
        silence = bytes(2 * PACKET)
        for i, (due, pts, _) in enumerate(self._waiting):
            self._waiting[i] = due, pts, silence

    async def recv(self) -> "av.AudioFrame":
        while not self._waiting:
            if self.readyState != "live":
                raise MediaStreamError
            self._arrived.clear()
            await self._arrived.wait()
        wait = self._waiting[0][0] - asyncio.get_running_loop().time()
        if wait > 0:
            await asyncio.sleep(wait)
        _, pts, sound = self._waiting.popleft()
        packet = sound_frame(sound, RATE)
        packet.pts, packet.time_base = pts, Fraction(1, RATE)
        return packet
