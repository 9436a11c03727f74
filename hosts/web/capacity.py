"""How many viewers this machine carries: one session is measured, as ``zorv doctor`` does, with the
encoders that a viewer needs besides."""
import asyncio
import os
import time
from array import array
from dataclasses import dataclass
from math import pi, sin
from pathlib import Path
from typing import Awaitable, Callable, Iterator, Optional

from aiortc.codecs import get_encoder
from aiortc.rtcrtpparameters import RTCRtpCodecParameters

from zorv import Face

from .limits import RATE
from .tracks import VIDEO_CLOCK, Picture, Sound

SPEECH_S = 3.0
WARM_FRAMES, WARM_S = 300, 8.0  # until each target frame was decoded
SPARE_CORES, SPARE_MEMORY = 0.3, 0.2  # kept back, as zorv doctor keeps them


@dataclass(frozen=True)
class Cost:
    """Of one session that speaks."""

    cores: float
    memory_bytes: float


def voice(seconds: float) -> "array[int]":
    """Between a hum and a vowel."""
    return array("h", (round(9000 * sin(2 * pi * 140 * i / RATE) * (1 + sin(6 * pi * i / RATE)))
                       for i in range(round(seconds * RATE))))


def own_memory() -> int:
    """Bytes of this process that no other one shares."""
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith("RssAnon:"):
            return 1024 * int(line.split()[1])
    return 0


def usable_cores() -> float:
    """Of this process: its processors, and what its control group gives it of them."""
    cores = float(len(os.sched_getaffinity(0)))
    for limit in _group_limits("cpu.max"):
        quota, _, period = limit.partition(" ")
        if quota != "max" and period:
            cores = min(cores, int(quota) / int(period))
    return cores


def usable_memory() -> float:
    """Bytes that are free for sessions."""
    fields = dict(line.split(":") for line in Path("/proc/meminfo").read_text().splitlines())
    free = 1024 * float(fields["MemAvailable"].split()[0])
    for limit in _group_limits("memory.max"):
        if limit != "max":
            free = min(free, float(limit))
    return free


def _group_limits(name: str) -> Iterator[str]:
    try:
        groups = Path("/proc/self/cgroup").read_text().splitlines()
    except OSError:
        return
    for group in groups:
        number, _, path = group.split(":", 2)
        if number != "0":
            continue
        root = Path("/sys/fs/cgroup")
        folder = root / path.lstrip("/")
        for place in (folder, *folder.parents):
            if place != root and root not in place.parents:
                break
            try:
                yield (place / name).read_text().strip()
            except OSError:
                continue


def fitting(cost: Cost, cores: Optional[float] = None, memory: Optional[float] = None) -> int:
    """Sessions of that cost that fit, at least one."""
    cores = usable_cores() if cores is None else cores
    memory = usable_memory() if memory is None else memory
    by_cores = cores * (1 - SPARE_CORES) / max(cost.cores, 1e-3)
    by_memory = memory * (1 - SPARE_MEMORY) / max(cost.memory_bytes, 1.0)
    return max(1, int(min(by_cores, by_memory)))


async def measure(open_face: Callable[[], Awaitable[Face]]) -> Cost:
    """Opens a face, lets it speak in real time and encodes what it shows.

    open_face   awaited for a face with I420 pixels at `RATE`; another one of the same subject should
                be open, so that only what a further session costs is measured.
    """
    memory = own_memory()
    face = await open_face()
    try:
        await warm(face)
        picture, sound = Picture(), Sound()
        video, audio = (get_encoder(RTCRtpCodecParameters(mimeType=kind, clockRate=clock))
                        for kind, clock in (("video/VP8", VIDEO_CLOCK), ("audio/opus", RATE)))
        frames = 0
        begin = time.process_time()
        line = face.push(voice(SPEECH_S))
        face.end()
        async for frame in face.frames():
            picture.put(frame)
            sound.put(frame)
            video.encode(await picture.recv())
            for _ in range(2):
                audio.encode(await sound.recv())
            if frame.kind == "speech":
                frames += 1
            elif frame.utterance == line or frames:
                break  # the mouth closes
        used = time.process_time() - begin
        grown = max(own_memory() - memory, 1)
    finally:
        await asyncio.to_thread(face.close)
    return Cost(25 * used / max(frames, 1), float(grown))


async def warm(face: Face) -> None:
    """Pulls until every target frame was decoded and the models are there; all of the subject's
    faces share them from then on."""
    end = time.monotonic() + WARM_S
    pulled = 0
    while (pulled < WARM_FRAMES or not face.ready) and time.monotonic() < end:
        if face.pull() is None:
            await asyncio.sleep(0.001)
        else:
            pulled += 1
