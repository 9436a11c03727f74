#!/usr/bin/env python3
"""Makes the demo subject: OUT_DIR/bundle/, OUT_DIR/motion/, OUT_DIR/expression/ and OUT_DIR/speech_*.onnx.

A second run with the same sources and arguments changes nothing. Everything is made beside its
final place and moved there at the end, so an interrupted run leaves either the old subject or none.
"""
import argparse
import hashlib
import os
import pathlib
import shutil
import sys
import tempfile
import time

# One thread per process: the frames are already drawn side by side.
for name in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS"):
    os.environ.setdefault(name, "1")

HERE = pathlib.Path(__file__).resolve().parent
STAMP = "demo.stamp"


def fingerprint(frames):
    """Hash of the generator's sources and arguments."""
    digest = hashlib.sha256(f"frames={frames}\n".encode())
    for path in sorted(p for p in HERE.glob("*.py") if not p.stem.endswith("_test")):
        digest.update(path.name.encode() + b"\0" + path.read_bytes())
    return digest.hexdigest()


def write_all(directory, frames):
    """The bundle and the speech models, into an empty directory."""
    import bundle
    import expression_model
    import motion_model
    import speech_model
    (directory / "bundle").mkdir()
    bundle.write_bundle(directory / "bundle", frames)
    (directory / "motion").mkdir()
    motion_model.write_motion(directory / "motion", frames)
    speech_model.write_speech_models(directory)
    expression_model.write_expression_models(directory)


def move_into_place(work, out):
    """Moves what lies in `work` to `out`; an older entry of the same name goes to work/old."""
    (work / "old").mkdir()
    for entry in [e for e in work.iterdir() if e.name != "old"]:
        if (out / entry.name).exists():
            os.rename(out / entry.name, work / "old" / entry.name)
        os.rename(entry, out / entry.name)


def main():
    parser = argparse.ArgumentParser(description="Makes the demo subject.")
    parser.add_argument("out", type=pathlib.Path, metavar="OUT_DIR")
    parser.add_argument("--frames", type=int, default=120, help="number of target frames (default 120)")
    parser.add_argument("--force", action="store_true", help="make it anew although it is up to date")
    options = parser.parse_args()
    if options.frames < 1:
        parser.error("--frames must be at least 1")
    out, stamp = options.out, options.out / STAMP
    wanted = fingerprint(options.frames)
    if not options.force and stamp.is_file() and stamp.read_text() == wanted and (out / "bundle").is_dir():
        print(f"demo subject up to date in {out}")
        return 0
    start = time.monotonic()
    out.mkdir(parents=True, exist_ok=True)
    work = pathlib.Path(tempfile.mkdtemp(prefix=".making-", dir=out))
    try:
        write_all(work, options.frames)
        stamp.unlink(missing_ok=True)
        move_into_place(work, out)
        stamp.write_text(wanted)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print(f"demo subject with {options.frames} frames in {out} ({time.monotonic() - start:.1f} s)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
