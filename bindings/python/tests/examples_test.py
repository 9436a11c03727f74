"""The examples run as they stand."""
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from support import BUNDLE, ENCODER, MOTION

EXAMPLES = Path(__file__).parents[1] / "examples"


class Examples(unittest.TestCase):
    def run_example(self, name, *arguments, folder):
        done = subprocess.run([sys.executable, EXAMPLES / name, *map(str, arguments)], cwd=folder,
                              capture_output=True, text=True, timeout=540)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def test_clip_to_mp4(self):
        with tempfile.TemporaryDirectory() as folder:
            said = self.run_example("clip_to_mp4.py", BUNDLE, ENCODER, "hello.mp4", "Hello!",
                                    folder=folder)
            self.assertRegex(said, r"^hello\.mp4: \d\d frames of 1280 x 720\n$")
            self.assertGreater(os.path.getsize(Path(folder, "hello.mp4")), 10000)

    def test_agent(self):
        with tempfile.TemporaryDirectory() as folder:
            said = self.run_example("agent.py", BUNDLE, MOTION, "seen.mp4", folder=folder)
            for line in ("started 1 ", "finished 1 end", r"heard [12]\.\d\d s of the first line",
                         "started 2 ", r"heard \d\.\d\d s of the second line: interrupt"):
                self.assertRegex(said, f"(^|\n){line}\n")
            self.assertGreater(os.path.getsize(Path(folder, "seen.mp4")), 10000)


if __name__ == "__main__":
    unittest.main()
