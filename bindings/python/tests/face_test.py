import asyncio
import os
import subprocess
import sys
import threading
import unittest
from unittest import mock

import numpy
from support import BUNDLE, DEMO, ENCODER, EXPRESSION, MOTION, QUIET_FORK, Case, voice

import zorv

RATE = 24000


def face(**options):
    return zorv.Face(BUNDLE, **{"motion": MOTION, "threads": 1, "rate": RATE, **options})


def next_frame(of):
    while True:
        frame = of.pull()
        if frame is not None:
            return frame


def pull_until(of, done):
    frames = []
    while not done():
        frame = of.pull()
        if frame is not None:
            frames.append(frame)
    return frames


def spoken(frames, utterance):
    return b"".join(f.sound.tobytes() for f in frames
                    if f.kind == "speech" and f.utterance == utterance)


class Faces(Case):
    def test_sound_and_picture_of_two_lines_and_a_barge_in(self):
        sound = voice(0.6, RATE)
        for source in ({"motion": MOTION}, {"motion": EXPRESSION, "encoder": ENCODER}):
            with self.subTest(source), face(**source, idle_ahead=1) as subject:
                events = subject.events()
                for begin, end in ((0, 1), (1, 7000), (7000, 7000), (7000, len(sound))):
                    self.assertEqual(subject.push(sound[begin:end]), 1 if begin < end else 0)
                subject.end()
                floats = numpy.frombuffer(sound, "i2").astype("f4") / 32768
                self.assertEqual(subject.push(floats), 2)
                subject.end()
                ended = threading.Event()
                waiter = threading.Thread(target=lambda: (subject.wait_finished(2), ended.set()))
                waiter.start()
                frames = pull_until(subject, ended.is_set)
                waiter.join()
                for utterance in (1, 2):
                    self.assertEqual(spoken(frames, utterance), sound.tobytes())
                    self.assertEqual(subject.wait_finished(utterance), (len(sound), "end"))
                    self.assertEqual((next(events).type, next(events)[:4]),
                                     ("started", ("finished", utterance, "end", len(sound))))
                shown = [f for f in frames if f.utterance == 1 and f.kind == "speech"]
                self.assertEqual([f.first_sample for f in shown], list(range(0, len(sound), 960)))
                self.assertEqual(shown[0].flags, zorv.FrameFlags.FIRST)
                self.assertEqual([f.pts for f in frames], list(range(len(frames))))

                self.assertEqual(subject.push(voice(20, RATE)), 3)
                frames = [next_frame(subject)]
                while frames[-1].utterance != 3:
                    frames.append(next_frame(subject))
                subject.interrupt()
                self.assertEqual(subject.wait_finished(3), (960, "interrupt"))
                self.assertEqual([next(events).type, next(events).type], ["started", "interrupted"])
                self.raises_text("there is no utterance 4", subject.wait_finished, 4)
                self.assertEqual(subject.failures(), (0, ""))
                self.assertEqual(subject.stats().utterances_started, 3)
                self.assertEqual(subject.latency().idle_ahead, 1)
        frames[-1].sound[0] = numpy.asarray(frames[-1])[0, 0, 0] = 7  # they are ours

    def test_forms_of_pixels(self):
        of = {}
        for pixels in ("rgba", "rgb", "i420", "nv12"):
            with face(pixels=pixels) as subject:
                of[pixels] = next_frame(subject)
        picture = numpy.asarray(of["rgb"]).astype(int)
        self.assertTrue((numpy.asarray(of["rgba"])[..., :3] == picture).all())
        planar, packed = of["i420"], of["nv12"]
        self.assertEqual(numpy.asarray(planar).shape, (1080, 1280))
        for plane, other in ((planar.y, packed.y), (planar.u, numpy.asarray(packed.uv)[:, 0::2]),
                             (planar.v, numpy.asarray(packed.uv)[:, 1::2])):
            self.assertTrue((numpy.asarray(plane) == other).all())
        luma = 16 + picture @ [0.1826, 0.6142, 0.0620]  # BT.709, limited range
        self.assertLess(abs(numpy.asarray(planar.y) - luma).max(), 2)
        self.assertFalse(hasattr(of["rgb"], "y") or hasattr(packed, "u") or hasattr(planar, "uv"))

    def test_what_is_refused(self):
        for options, error in (({"rate": 44110}, zorv.ZorvError), ({"idle_ahead": 9}, zorv.ZorvError),
                               ({"motion": DEMO / "none"}, zorv.ZorvError),
                               ({"rate": 2**40}, ValueError), ({"pixels": "yuv"}, ValueError),
                               ({"late": "never"}, ValueError), ({"silence_end": 0}, ValueError),
                               ({"silence_end": "soon"}, ValueError), ({"rate": "24k"}, TypeError)):
            with self.subTest(options), self.assertRaises(error):
                with face(**options) as subject:
                    while not subject.ready:
                        pass
        self.raises_text("zorv_create: cannot open", zorv.Face, DEMO / "none", MOTION)
        self.raises_text("is the process's", face, encoder=BUNDLE / "other.onnx")
        with face() as subject:
            for sound, error in ((numpy.zeros((1, 9), "i2"), ValueError), (9, TypeError),
                                 (numpy.zeros(9, "f8"), TypeError), (b"odd", ValueError)):
                self.raises_text("", subject.push, sound, error=error)
            kept = next_frame(subject)
            waiting = subject.events()
            subject.push(voice(1))
            threading.Timer(0.05, subject.close).start()
            self.raises_text("the face is closed", next, waiting)
            for call in (subject.pull, subject.end, subject.interrupt, subject.stats, subject.events,
                         subject.latency, subject.failures, lambda: subject.push(b""),
                         lambda: subject.ready, lambda: subject.wait_finished(1)):
                self.raises_text("the face is closed", call)
            subject.close()
        self.assertEqual(numpy.asarray(kept).shape, (720, 1280, 4))


class Async(Case, unittest.IsolatedAsyncioTestCase):
    async def test_a_line_is_shown_while_others_wait(self):
        sound = voice(0.4, RATE)
        async with await zorv.Face.open(BUNDLE, MOTION, rate=RATE, pixels="i420") as subject:
            seen = []

            async def show():
                async for frame in subject.frames():
                    seen.append(frame)

            async def first_event():
                async for event in subject.events():
                    return event.type

            showing = asyncio.create_task(show())
            cancelled = asyncio.create_task(first_event())
            event = asyncio.create_task(first_event())
            await asyncio.sleep(0)
            cancelled.cancel()
            utterance = subject.push(sound)
            given_up = asyncio.create_task(subject.finished(utterance))
            await asyncio.sleep(0)
            given_up.cancel()
            subject.end()
            outcome = await subject.finished(utterance)
            self.assertEqual((outcome, await event), ((len(sound), "end"), "started"))
            self.assertTrue(given_up.cancelled())
            self.assertEqual(spoken(seen, utterance), sound.tobytes())
            # Whatever it waits for, a task can be cancelled, and the next one goes on.
            for _ in range(10):
                showing.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await showing
                count = len(seen)
                showing = asyncio.create_task(show())
                while len(seen) == count:
                    await asyncio.sleep(0.001)
            waiting = [asyncio.create_task(work) for work in (
                subject.finished(subject.push(sound)), first_event())] + [showing]
            await asyncio.sleep(0)
        for task in waiting:
            with self.assertRaisesRegex(zorv.ZorvError, "the face is closed"):
                await task
                await task.result()

    async def test_opening_and_closing_can_be_cancelled(self):
        opened = []
        with mock.patch.object(zorv.Face, "close", autospec=True,
                               side_effect=lambda face: opened.append(face)):
            opening = asyncio.create_task(zorv.Face.open(BUNDLE, MOTION))
            await asyncio.sleep(0)
            opening.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await opening
            while not opened:  # it is closed as soon as it is there
                await asyncio.sleep(0.001)
        subject = opened.pop()

        async def leave():
            async with subject:
                pass

        leaving = asyncio.create_task(leave())
        await asyncio.sleep(0)
        leaving.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await leaving
        subject.close()  # waits for the one that goes on
        with self.assertRaises(zorv.ZorvError):
            await zorv.Face.open(DEMO / "none", MOTION)

    async def test_pace(self):
        """25 per second; up to 8 late frames are caught up, more start a new schedule."""
        clock, delays, shown = [100.0], {5: 0.2, 20: 0.33, 40: 0.5}, []

        async def sleep(seconds):
            clock[0] += seconds

        subject = zorv.Face.__new__(zorv.Face)
        subject.pull = lambda: len(shown)
        with mock.patch.object(asyncio.get_running_loop(), "time", lambda: clock[0]), \
                mock.patch("zorv.face.asyncio.sleep", sleep):
            async for frame in subject.frames():
                shown.append(clock[0] - 100)
                clock[0] += delays.get(frame, 0)
                if frame == 59:
                    break
        expected = numpy.full(59, 0.04)
        expected[5:10] = [0.2, 0, 0, 0, 0]
        expected[20:29] = [0.33] + 7 * [0] + [0.03]
        expected[40:42] = [0.5, 0.04]
        numpy.testing.assert_allclose(numpy.diff(shown), expected, atol=1e-9)


class Ends(Case):
    PROGRAM = """
import asyncio, os, sys, threading, zorv
sys.path.insert(0, sys.argv[2])
from support import *
what = sys.argv[1]
face = zorv.Face(BUNDLE, motion=MOTION)
face.push(voice(5))
if what == "fork":
    child = os.fork()
    if not child:
        try: face.pull()
        except zorv.ZorvError as error: assert "process" in str(error)
        face.close()
        sys.exit(3)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 3
if what == "pulled":
    while face.pull() is None or face.stats().speech_frames_pulled == 0: pass
if what == "dropped":
    del face
if what == "raise":
    async def consume():
        async with face:
            async for frame in face.frames(): raise KeyError
    try: asyncio.run(consume())
    except KeyError: pass
if what == "loop":
    async def consume():
        async for frame in face.frames(): return
    asyncio.run(consume())
if what == "thread":
    threading.Thread(target=lambda: [None for _ in face.events()], daemon=True).start()
    many = [zorv.Face(BUNDLE, motion=MOTION) for _ in range(3)]
"""

    def test_cleanly_whatever_happens(self):
        for what in ("exit", "fork", "pulled", "dropped", "raise", "loop", "thread"):
            with self.subTest(what):
                done = subprocess.run(
                    [sys.executable, *QUIET_FORK, "-c", self.PROGRAM, what,
                     os.path.dirname(__file__)],
                    capture_output=True, text=True, timeout=200)
                self.assertEqual((done.returncode, done.stderr, done.stdout), (0, "", ""))


if __name__ == "__main__":
    unittest.main()
