import gc
import os
import signal
import subprocess
import sys
import tempfile
import threading
import unittest
from array import array
from pathlib import Path
from unittest import mock

import numpy
from support import BUNDLE, DEMO, ENCODER, EXPRESSION, MOTION, QUIET_FORK, Case, voice

import zorv

ENGINES = {"fca": {"encoder": ENCODER}, "motion": {"motion": MOTION},
           "a2x": {"encoder": ENCODER, "motion": EXPRESSION}}


def pictures(frames):
    return [bytes(frame.data) for frame in frames]


class Clips(Case):
    def test_engines_render_and_stop_and_go_on(self):
        sound = voice(0.5)
        for engine, models in ENGINES.items():
            with self.subTest(engine), zorv.Clip(BUNDLE, engine=engine, threads=1, **models) as clip:
                frames = list(clip.render(sound))
                self.assertEqual([f.first_sample for f in frames], [640 * k for k in range(13)])
                self.assertEqual((clip.width, clip.height, clip.fps), (1280, 720, 25))
                self.assertEqual(b"".join(f.sound.tobytes() for f in frames),
                                 sound.tobytes() + bytes(640))
                picture = numpy.asarray(frames[3])
                self.assertEqual((picture.shape, picture.dtype), ((720, 1280, 3), numpy.uint8))
                self.assertTrue(numpy.shares_memory(picture, numpy.asarray(frames[3].data)))
                # Left early, also before the first frame, the next render is like the first.
                for leave_at in (0, 2):
                    for frame in clip.render(sound):
                        if frame.pts == leave_at:
                            break
                clip.render(sound)
                floats = numpy.frombuffer(sound, numpy.int16).astype(numpy.float32) / 32768
                self.assertEqual(pictures(clip.render(floats)), pictures(frames))

    def test_rates_and_kinds_of_sound(self):
        with zorv.Clip(BUNDLE, encoder=ENCODER) as clip:
            for rate, samples, count in ((8000, 1601, 6), (44100, 3529, 3), (48000, 1920, 1)):
                sound = voice(1, rate)[:samples]
                frames = list(clip.render(sound.tobytes(), rate))
                self.assertEqual(len(frames), count)
                self.assertEqual({len(f.sound) for f in frames}, {rate // 25})
                strided = numpy.repeat(numpy.frombuffer(sound, numpy.int16), 2)[::2]
                self.assertEqual(pictures(clip.render(strided, rate)), pictures(frames))
            self.assertEqual(list(clip.render(b"")), [])
            converted = {}
            odd = array("f", [float("nan"), float("inf"), -float("inf"), 1e30, -1.0, 0.5])
            for loaded in (numpy, None):  # both ways of converting
                with mock.patch.dict(sys.modules, numpy=loaded):
                    self.assertEqual(next(clip.render(odd)).sound[:6].tolist(),
                                     [0, 0, 0, 32767, -32768, 16384])
                    shown = [bytes(frame.data) for frame in clip.render(voice(0.1))]
                    self.assertEqual(shown, converted.setdefault("frames", shown))

    def test_what_is_refused(self):
        with zorv.Clip(BUNDLE, encoder=ENCODER) as clip:
            render = clip.render
            for sound, error in ((numpy.zeros(9), TypeError), (numpy.zeros((2, 9), "f4"), ValueError),
                                 ([0.5], TypeError), (b"odd", ValueError), (None, TypeError),
                                 (numpy.zeros(9, ">i2"), TypeError)):
                self.raises_text("", render, sound, error=error)
            for rate, error in ((96000, zorv.ZorvError), (-1, zorv.ZorvError), (0, zorv.ZorvError),
                                (2**32 + 16000, ValueError), (16000.0, TypeError)):
                self.raises_text("rate", render, voice(0.1), rate, error=error)
            running = clip.render(voice(1))
            next(running)
            self.raises_text("is running", next, clip.render(voice(0.1)))
            clip.close()
            self.raises_text("closed", lambda: [None for _ in running])
            self.raises_text("closed", render, voice(0.1))
            clip.close()
        missing = DEMO / "none"
        self.raises_text(f"zorv_create: cannot open {missing}/manifest.json", zorv.Clip, missing, ENCODER)
        self.raises_text("zorv_motion_create: ", zorv.Clip, BUNDLE, engine="motion", motion=missing)
        self.raises_text("is loaded", zorv.Clip, BUNDLE, missing, engine="a2x", motion=EXPRESSION)
        for options in ({}, {"engine": "other"}, {"engine": "motion", "encoder": ENCODER},
                        {"encoder": "zero\0"}, {"encoder": ENCODER, "motion": MOTION}):
            self.raises_text("", zorv.Clip, BUNDLE, error=ValueError, **options)

    def test_failures_and_frames_outlive_their_clip(self):
        with tempfile.TemporaryDirectory() as folder:
            subject = Path(folder, "subject")
            subject.mkdir()
            for file in BUNDLE.iterdir():
                (subject / file.name).symlink_to(file)
            # Clips decode what they show first: without the third target frame two come out.
            frames = subject / "frames"
            target = sorted(p for p in BUNDLE.rglob("*") if p.suffix in (".jpg", ".png"))[2]
            inside = target.parent.relative_to(BUNDLE)
            (subject / inside).unlink()
            (subject / inside).mkdir()
            for file in target.parent.iterdir():
                if file != target:
                    (subject / inside / file.name).symlink_to(file)
            clip = zorv.Clip(subject, encoder=ENCODER)
            made = []
            with self.assertRaises(zorv.ZorvError) as caught:
                for frame in clip.render(voice(0.4)):
                    made.append(frame)
            self.assertIn("zorv_stream_run: ", str(caught.exception))
            self.assertEqual(len(made), 2)
            del clip, frame
            gc.collect()
            self.assertEqual(numpy.asarray(made[1]).shape, (720, 1280, 3))

    def test_ends_cleanly_whatever_happens(self):
        program = f"""
import os, signal, sys, threading, zorv
sys.path.insert(0, {os.path.dirname(__file__)!r})
from support import *
clip = zorv.Clip(BUNDLE, encoder=ENCODER)
frames = clip.render(voice(60))
next(frames)
what = sys.argv[1]
if what == "fork":
    child = os.fork()
    if not child:
        try: next(clip.render(voice(1)))
        except zorv.ZorvError as error: assert "process" in str(error)
        sys.exit(3)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 3
if what == "interrupt":
    threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGINT)).start()
    try:
        for frame in frames: pass
    except KeyboardInterrupt:
        assert len(list(clip.render(voice(0.1)))) == 3
if what == "raise":
    try:
        for frame in frames: raise KeyError
    except KeyError: pass
"""
        for what in ("fork", "interrupt", "raise", "exit"):
            with self.subTest(what):
                done = subprocess.run([sys.executable, *QUIET_FORK, "-c", program, what],
                                      capture_output=True, text=True, timeout=120)
                self.assertEqual((done.returncode, done.stderr, done.stdout), (0, "", ""))

    def test_video(self):
        import av
        with tempfile.TemporaryDirectory() as folder, zorv.Clip(BUNDLE, ENCODER) as clip:
            for rate, given in ((22050, True), (48000, False)):
                sound = voice(0.5, rate)
                path = Path(folder, f"{rate}.mp4")
                count = zorv.write_video(path, clip.render(sound, rate), sound if given else None,
                                         rate)
                with av.open(str(path)) as video:
                    shown = [f.to_ndarray(format="rgb24") for f in video.decode(video=0)]
                    video.seek(0)
                    heard = numpy.concatenate([f.to_ndarray()[0] for f in video.decode(audio=0)])
                self.assertEqual((count, len(shown)), (13, 13))
                frames = list(clip.render(sound, rate))
                self.assertLess(abs(shown[5].astype(int) - numpy.asarray(frames[5])).mean(), 4)
                self.assertGreater(len(heard), 0.5 * 48000 - 1)
                self.assertGreater(abs(heard[:24000]).mean(), 0.05)
            self.raises_text("", zorv.write_video, Path(folder, "no.mp4"), clip.render(sound, rate),
                             b"odd", error=ValueError)
            self.assertEqual(sorted(os.listdir(folder)), ["22050.mp4", "48000.mp4"])


if __name__ == "__main__":
    unittest.main()
