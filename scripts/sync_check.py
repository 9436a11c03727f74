#!/usr/bin/python3
"""Checks that the demo subject's mouth follows speech.

Speaks through espeak-ng in several voices and rates, renders, and measures the written videos with
`zorv sync`: lag, correlation, stillness in digital silence. Then the measuring itself is checked
with three controls: a shifted sound, an unrelated sound, and two tones with different lips.
Prints a table; exits 1 when any bound is broken.
"""
import argparse
import array
import json
import math
import os
import pathlib
import subprocess
import sys
import wave

RATE = 16000
MAX_LAG = 1             # frames
MIN_CORRELATION = 0.6
MAX_MOVEMENT = 0.03     # of the opening's range, in any 5 frames while the sound is all zeros
MAX_DRIFT = 0.10        # the same over a whole pause: breathing and tilting heads show here
MAX_UNRELATED = 0.3
MIN_WIDTH_RATIO = 1.15  # spread lips to round lips

# (voice, words per minute, what it says before and after a pause)
CLIPS = [
    ("en-us", 150, "We were away a year ago, and nobody at home remembered where the boat had been.",
     "Seven open windows let the morning into every single room of the old house by the river."),
    ("en-gb", 120, "Good morning everybody.", "Are you all ready to go?"),
    ("en-us+f3", 175, "My mother baked a marble cake on Sunday.", "Papa ate almost all of it."),
    ("en-gb+m7", 200, "The amber moon came up above the bay.", "Mary hummed a merry melody."),
    ("de", 140, "Guten Abend, meine Damen und Herren.", "Wie geht es Ihnen heute?"),
    ("es+f2", 160, "Buenos dias a todos mis amigos.", "La manana esta muy bonita."),
    ("fr", 150, "Bonjour, mes amis.", "Nous allons bien ce matin."),
]
UNRELATED = ("it", 165, "Quando il sole tramonta dietro le colline, tutta la valle diventa rossa e "
             "il vento porta il profumo del mare fino alle case del paese piu lontano. "
             "Allora i bambini tornano di corsa, e le nonne chiudono le finestre una per una.")

# What `zorv render` needs: the engine's name, then options and environment variables that name
# files of the demo directory. a2x-short is the engine with its speech encoder for short windows.
EXPRESSION = {"--encoder": "speech_encoder.onnx", "--motion-dir": "expression"}
ENGINES = {
    "fca": ("fca", {"--encoder": "speech_encoder.onnx"}, {}),
    "motion": ("motion", {"--motion-dir": "motion"}, {}),
    "a2x": ("a2x", EXPRESSION, {}),
    "a2x-short": ("a2x", EXPRESSION, {"ZORV_A2X_W2V_WIN_ONNX": "speech_trunk.onnx",
                                      "ZORV_A2X_W2V_HEAD_ONNX": "speech_head.onnx"}),
}


def write_wav(path, samples):
    with wave.open(str(path), "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(RATE)
        out.writeframes(array.array("h", [int(s) for s in samples]).tobytes())


def speak(path, voice, rate, text):
    """Samples of a sentence at RATE (linear resampling is enough for speech synthesis)."""
    subprocess.run(["espeak-ng", "-v", voice, "-s", str(rate), "-w", str(path), "--", text], check=True)
    with wave.open(str(path)) as spoken:
        samples = array.array("h", spoken.readframes(spoken.getnframes()))
        step = spoken.getframerate() / RATE
    places = (i * step for i in range(int((len(samples) - 1) / step)))
    return [samples[int(p)] * (1 - p % 1) + samples[int(p) + 1] * (p % 1) for p in places]


def tone(formants, pitch=130, seconds=3.0):
    """A vowel-like tone: harmonics shaped by formants (frequency, width), pulsed on and off."""
    weights = [sum(a / (1 + ((k * pitch - f) / w) ** 2) for f, w, a in formants) / k ** 0.5
               for k in range(1, int(7000 / pitch))]
    scale = 12000 / max(sum(weights) / 2, 1e-9)
    samples = []
    for i in range(int(seconds * RATE)):
        t = i / RATE
        gate = min(1.0, max(0.0, 4 * math.sin(2 * math.pi * 1.25 * t)))
        value = sum(a * math.sin(2 * math.pi * k * pitch * t) for k, a in enumerate(weights, 1))
        samples.append(max(-32000, min(32000, gate * scale * value)) if gate else 0)
    return samples


class Check:
    def __init__(self, options):
        self.zorv, self.work, self.brief = options.zorv, options.work, options.brief
        self.demo, self.engines = options.demo, options.engine
        self.broken, self.mouth = [], []

    def expect(self, fine, text):
        print(("ok      " if fine else "BROKEN  ") + text, flush=True)
        if not fine:
            self.broken.append(text)

    def render(self, name, samples, engine=None):
        sound, video = self.work / f"{name}.wav", self.work / f"{name}.mp4"
        write_wav(sound, samples)
        kind, files, variables = ENGINES[engine or self.engines[0]]
        command = [self.zorv, "render", self.demo / "bundle", "--engine", kind, "--audio", sound, "-o", video]
        for option, file in files.items():
            command += [option, self.demo / file]
        environment = {**os.environ, "ZORV_A2X_W2V_WIN": "1" if variables else "0",
                       **{variable: self.demo / file for variable, file in variables.items()}}
        done = subprocess.run(command, env=environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.exit(f"rendering {name} failed: {done.stderr}")
        # The engine does not fail without its short windows: it says so and takes the long ones.
        if bool(variables) != ("short-window w2v ARMED" in done.stderr):
            sys.exit(f"{name} went through the wrong speech encoder: {done.stderr}")
        return sound, video

    def sync(self, video, sound, *more):
        done = subprocess.run([self.zorv, "sync", video, "--audio", sound, "--json", *more],
                              stdout=subprocess.PIPE, check=True, text=True)
        return json.loads(done.stdout)

    def clip(self, number, voice, rate, before, after):
        pause = [0] * int(1.2 * RATE)
        raw = self.work / "spoken.wav"
        samples = speak(raw, voice, rate, before) + pause
        if not self.brief:
            samples += speak(raw, voice, rate, after) + pause
        engine = self.engines[number % len(self.engines)]
        sound, video = self.render(f"clip{number}", samples, engine)
        got = self.sync(video, sound, *self.mouth)
        if self.brief and not self.mouth:
            # Later clips are too short for finding the mouth, but it is the same face. Their vowels
            # may spread it further.
            x, y, w, h = got["region"]
            self.mouth = ["--region", f"{x - 24},{y - 16},{w + 48},{h + 32}"]
        movement = got["silence_movement_px"] or 0
        drift, opening = got["silence_drift_px"] or 0, got["opening_range_px"]
        self.expect(abs(got["lag_frames"]) <= MAX_LAG and got["correlation"] >= MIN_CORRELATION
                    and got["silent_frames"] >= 20
                    and movement <= MAX_MOVEMENT * opening and drift <= MAX_DRIFT * opening,
                    f"{engine}, {voice} at {rate}: lag {got['lag_frames']}, correlation {got['correlation']:.3f}, "
                    f"opening {opening:.1f} px; {got['silent_frames']} silent frames move "
                    f"{movement:.2f} px, drift {drift:.2f} px")
        return sound, video, got

    def controls(self, sound, video, got):
        late = self.sync(video, sound, "--shift-frames", "5")["lag_frames"] - got["lag_frames"]
        self.expect(late == 5, f"sound shifted by 5 frames reads {late}")
        other = self.work / "unrelated.wav"
        write_wav(other, speak(self.work / "spoken.wav", *UNRELATED))
        value = self.sync(video, other)["correlation"]
        self.expect(value < MAX_UNRELATED, f"unrelated sound: correlation {value:.3f}")
        region = ",".join(str(v) for v in got["region"])
        widths = {}
        for name, formants in {"i": [(280, 60, 1), (2300, 150, .6), (3000, 200, .4)],
                               "u": [(300, 60, 1), (750, 80, .4)]}.items():
            tone_sound, tone_video = self.render(f"tone_{name}", tone(formants))
            widths[name] = self.sync(tone_video, tone_sound, "--region", region)["mouth_width_px"]
        self.expect(widths["i"] >= MIN_WIDTH_RATIO * widths["u"],
                    f"mouth width: /i/ {widths['i']:.0f} px, /u/ {widths['u']:.0f} px")


def main():
    parser = argparse.ArgumentParser(description="Checks that the demo subject's mouth follows speech.")
    parser.add_argument("zorv", metavar="ZORV", help="the program")
    parser.add_argument("demo", metavar="DEMO_DIR", type=pathlib.Path, help="what make_demo.py wrote")
    parser.add_argument("work", metavar="WORK_DIR", type=pathlib.Path, help="for sounds and videos")
    parser.add_argument("--engine", choices=ENGINES, nargs="+", default=["fca"],
                        help="of several, the voices take turns through them")
    parser.add_argument("--brief", action="store_true", help="one sentence per voice, no controls")
    options = parser.parse_args()
    options.work.mkdir(parents=True, exist_ok=True)
    check = Check(options)
    results = [check.clip(number, *clip) for number, clip in enumerate(CLIPS)]
    if not options.brief:
        check.controls(*results[0])
    if check.broken:
        sys.exit(f"{len(check.broken)} of the bounds broken")


if __name__ == "__main__":
    main()
