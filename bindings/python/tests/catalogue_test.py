"""A catalogue on a local cluster of two worker processes."""
import io
import os
import tempfile
import time
import unittest
import wave
from pathlib import Path
from unittest import mock

from distributed import Client, LocalCluster, as_completed
from support import BUNDLE, ENCODER, Case, voice

import zorv

CLIPS = 40


def write_sound(path, samples):
    with wave.open(str(path), "wb") as sound:
        sound.setnchannels(1)
        sound.setsampwidth(2)
        sound.setframerate(16000)
        sound.writeframes(samples.tobytes())


class Terminal(io.StringIO):
    def isatty(self):
        return True


class Catalogue(Case):
    def test_workers_die_and_every_file_is_there_once(self):
        with tempfile.TemporaryDirectory() as name, LocalCluster(
                n_workers=2, threads_per_worker=1, dashboard_address=None,
                silence_logs=50, scheduler_kwargs={"allowed_failures": 10}) as cluster, \
                Client(cluster) as client:
            folder = Path(name)
            lengths = [0.04 * (1 + i % 5) for i in range(CLIPS)]
            jobs = [zorv.Job(str(BUNDLE), str(folder / f"{i}.wav"), str(folder / f"{i}.mp4"),
                             encoder=str(ENCODER)) for i in range(CLIPS)]
            for job, length in zip(jobs, lengths):
                write_sound(job.sound, voice(length))
            Path(jobs[7].sound).write_bytes(b"no sound")
            numbers = client.run(os.getpid)

            def with_a_death(futures):
                """The worker that holds the sixth result dies before anyone asks for it."""
                for count, future in enumerate(as_completed(futures)):
                    if count == 5:
                        os.kill(numbers[client.who_has([future])[future.key][0]], 9)
                        while future.status == "finished":
                            time.sleep(0.01)
                    yield future

            with mock.patch("distributed.as_completed", with_a_death):
                results = zorv.render_catalogue(jobs, client)
            self.assertEqual([r.job for r in results], jobs)
            self.assertEqual([r.state for r in results],
                             ["failed" if i == 7 else "made" for i in range(CLIPS)])
            self.assertIn("Error: file does not start with RIFF id", results[7].text)
            names = {f"{i}.wav" for i in range(CLIPS)} | {f"{i}.mp4" for i in range(CLIPS) if i != 7}
            self.assertEqual(set(os.listdir(folder)), names)
            with zorv.Clip(BUNDLE, ENCODER, threads=1) as clip:
                here = {length: folder / f"here{length}.mp4" for length in lengths}
                for length, path in here.items():
                    zorv.write_video(path, clip.render(voice(length)), voice(length))
            for job, length in zip(jobs, lengths):
                if job != jobs[7]:
                    self.assertEqual(Path(job.target).read_bytes(), here[length].read_bytes())
            before = {job.target: os.stat(job.target) for job in jobs if job != jobs[7]}
            with mock.patch("sys.stderr", Terminal()) as shown:
                again = zorv.render_catalogue(jobs, client)
            self.assertIn("\r40 of 40 clips, 1 failed", shown.getvalue())
            with mock.patch("sys.stderr", io.StringIO()) as shown:  # no terminal
                zorv.render_catalogue(jobs[:3], client)
            self.assertEqual(shown.getvalue(), "")
            self.assertEqual([r.state for r in again],
                             ["failed" if i == 7 else "there" for i in range(CLIPS)])
            self.assertEqual({target: os.stat(target) for target in before}, before)
            self.raises_text("same target", zorv.render_catalogue, jobs[:1] * 2, client,
                             error=ValueError)


if __name__ == "__main__":
    unittest.main()
