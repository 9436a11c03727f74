"""The wheel works in fresh environments, offline, and so do the pages' examples as they stand there.

    wheel_test.py SOURCES DEMO [INTERPRETER...]
"""
import glob
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

sources, demo = (Path(argument).resolve() for argument in sys.argv[1:3])
interpreters = sys.argv[3:] or ["/usr/bin/python3"]
wheel, = glob.glob(str(sources / "build/dist/zorv-*.whl"))

# What needs neither numpy nor anything else.
BARE = """
import zorv
with zorv.Clip("build/demo/bundle", encoder="build/demo/speech_encoder.onnx") as clip:
    frames = list(clip.render(bytes(2 * 4800), rate=48000))
assert [frame.data.shape for frame in frames] == [(720, 1280, 3)] * 3, frames

import asyncio
async def live():
    async with await zorv.Face.open("build/demo/bundle", "build/demo/motion", rate=48000) as face:
        line = face.push(bytes(2 * 4800))
        face.end()
        async for frame in face.frames():
            if frame.kind == "ramp":
                break
        assert await face.finished(line) == (4800, "end")
asyncio.run(live())
"""


def run(*command, cwd, **environment):
    done = subprocess.run([str(part) for part in command], cwd=cwd, env=environment,
                          capture_output=True, text=True, timeout=1200)
    if done.returncode or done.stderr:
        sys.exit(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")


def environment(folder, interpreter, *options):
    run(interpreter, "-m", "venv", *options, folder, cwd="/", PATH=os.defpath)
    run(folder / "bin/pip", "--disable-pip-version-check", "install", "-q", "--no-index", "--no-deps", wheel,
        cwd="/", PATH=os.defpath)
    return folder / "bin/python"


with tempfile.TemporaryDirectory() as name:
    folder = Path(name)
    (folder / "build").mkdir()
    (folder / "build/demo").symlink_to(demo)
    run("espeak-ng", "-w", folder / "speech.wav", "A short line.", cwd=folder)
    for i, interpreter in enumerate(interpreters):
        run(environment(folder / f"bare{i}", interpreter), "-c", BARE, cwd=folder)
    python = environment(folder / "full", "/usr/bin/python3", "--system-site-packages")
    run(python, "-c", "from zorv.web.server import Options, Server; Server(Options('', ''))", cwd=folder)
    count = 0
    for page in ("README.md", "docs/python.md"):
        for example in re.findall(r"^```python\n(.*?)^```", (sources / page).read_text(), re.M | re.S):
            (folder / "example.py").write_text(example)
            run(python, "example.py", cwd=folder, PATH=os.defpath)
            count += 1
    print(f"{Path(wheel).name}: {len(interpreters)} interpreters, {count} examples")
    sys.exit(count < 2)
