"""What the tests share: the demo subject and a spoken sound."""
import os
import unittest
from array import array
from math import pi, sin
from pathlib import Path

DEMO = Path(os.environ["ZORV_DEMO_DIR"])
BUNDLE = DEMO / "bundle"
ENCODER = DEMO / "speech_encoder.onnx"
MOTION = DEMO / "motion"
EXPRESSION = DEMO / "expression"
# For a Python that warns, from 3.12 on, of what the test is about: a fork beside threads.
QUIET_FORK = ("-W", "ignore:This process")


def voice(seconds, rate=16000):
    """Something between a hum and a vowel, int16."""
    return array("h", (round(9000 * sin(2 * pi * 140 * i / rate) * (1 + sin(2 * pi * 3 * i / rate)))
                       for i in range(round(seconds * rate))))


class Case(unittest.TestCase):
    def raises_text(self, text, call, *arguments, error=None, **options):
        import zorv
        with self.assertRaises(error or zorv.ZorvError) as caught:
            call(*arguments, **options)
        self.assertIn(text, str(caught.exception))
