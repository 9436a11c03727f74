"""A voice agent's face: it says a line, starts a second one and is interrupted by its user.

    python3 agent.py SUBJECT MOTION_DIR [OUT.mp4]      # what a viewer saw and heard
"""
import asyncio
import subprocess
import sys
from typing import AsyncIterator, List

import av
import numpy
import zorv

RATE = 24000  # what speech services send


async def voice(text: str) -> AsyncIterator[bytes]:
    """Pieces of 16-bit samples, as a speech service would send them: faster than they sound."""
    command = ["espeak-ng", "--stdout", "--", text]
    spoken = await asyncio.to_thread(lambda: subprocess.check_output(command))
    samples = numpy.frombuffer(spoken[44:], numpy.int16)[None, :]  # at 22050 Hz
    resampler = av.AudioResampler(format="s16", layout="mono", rate=RATE)
    for at in range(0, samples.shape[1], 2205):
        block = av.AudioFrame.from_ndarray(samples[:, at:at + 2205], format="s16", layout="mono")
        block.rate = 22050
        for piece in resampler.resample(block):
            yield piece.to_ndarray().tobytes()
            await asyncio.sleep(0.01)


async def say(face: zorv.Face, text: str) -> int:
    """Pushes a line and returns its number; the face goes on speaking it."""
    utterance = 0
    async for piece in voice(text):
        utterance = face.push(piece)
    face.end()
    return utterance


async def show(face: zorv.Face, seen: List[zorv.Frame]) -> None:
    async for frame in face.frames():  # 25 per second, each with its 40 ms of sound
        seen.append(frame)


async def report(events: zorv.Events) -> None:
    async for event in events:
        print(f"{event.type} {event.utterance} {event.reason}", flush=True)


async def talk(face: zorv.Face) -> None:
    first = await say(face, "Hello! I am a face that talks.")
    outcome = await face.finished(first)
    print(f"heard {outcome.samples / RATE:.2f} s of the first line")

    events = face.events()
    second = await say(face, "Let me tell you everything that I know, from the very beginning.")
    while (await events.__anext__()).utterance != second:
        pass  # it has not started yet
    await asyncio.sleep(0.5)
    face.interrupt()  # the user speaks
    outcome = await face.finished(second)
    print(f"heard {outcome.samples / RATE:.2f} s of the second line: {outcome.reason}")


async def main(subject: str, motion: str, out: str = "") -> None:
    seen: List[zorv.Frame] = []
    async with await zorv.Face.open(subject, motion=motion, rate=RATE, pixels="i420") as face:
        others = [asyncio.create_task(show(face, seen)), asyncio.create_task(report(face.events()))]
        await talk(face)
        for task in others:
            task.cancel()
    if out:
        zorv.write_video(out, seen, rate=RATE)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    asyncio.run(main(*sys.argv[1:]))
