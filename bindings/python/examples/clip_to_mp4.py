"""A spoken text becomes a video file.

    python3 clip_to_mp4.py SUBJECT ENCODER OUT.mp4 TEXT
"""
import io
import subprocess
import sys
import wave
from typing import Tuple

import zorv


def say(text: str) -> Tuple[bytes, int]:
    """16-bit samples of the text, and their rate."""
    spoken = subprocess.run(["espeak-ng", "--stdout", "--", text], check=True, capture_output=True)
    with wave.open(io.BytesIO(spoken.stdout)) as sound:
        return sound.readframes(sound.getnframes()), sound.getframerate()


def main(subject: str, encoder: str, out: str, text: str) -> None:
    sound, rate = say(text)
    with zorv.Clip(subject, encoder=encoder) as clip:
        frames = zorv.write_video(out, clip.render(sound, rate), sound, rate)
        print(f"{out}: {frames} frames of {clip.width} x {clip.height}")


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    main(*sys.argv[1:])
