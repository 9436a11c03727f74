#!/usr/bin/env python3
"""What a viewer of the live page gets, from the page's own pixels and sound in headless Chromium.

    web_bench.py DEMO [--rounds 20] [--minutes 0]    with ZORV_LIBRARY and PYTHONPATH

Each round asks for a tone (an instant voice), hears it and sees the mouth open, then interrupts. With
--minutes the face then speaks so long in lines of 10 s, and what stood still is counted. Server and
browser share this machine: its load is printed, and `nice` says how much of it they get.
"""
import argparse
import contextlib
import json
import os
import queue
import re
import shutil
import subprocess
import sys
import tempfile
import threading

# What a viewer should get: name, key, limit in ms.
AIMS = (("first sound after the request", "sound", 250), ("open mouth after the request", "mouth", 250),
        ("silent after the interrupt", "silent", 150), ("mouth shut after the interrupt", "shut", 300))
PARTS = (("engine, from the first sound pushed to the first frame", "engine"),
         ("encoder, one picture and its sending", "encode"),
         ("network buffer of the sound", "sound_buffer"),
         ("network buffer of the picture", "picture_buffer"), ("decoder, one picture", "decode"),
         ("sound output of the browser", "output"))


def lines_of(stream):
    """A queue of its lines, None at the end."""
    found = queue.Queue()

    def read():
        for line in stream:
            found.put(line)
        found.put(None)
    threading.Thread(target=read, daemon=True).start()
    return found


@contextlib.contextmanager
def serving(demo, *options):
    """The address of a server that ends with the block."""
    process = subprocess.Popen(
        [sys.executable, "-m", "zorv.web", f"{demo}/bundle", "--motion", f"{demo}/motion",
         "--port", "0", *options], stdout=subprocess.PIPE, text=True)
    try:
        lines = lines_of(process.stdout)
        address = None
        while not address:
            line = lines.get(timeout=120)
            if line is None:
                sys.exit("the server did not start")
            address = re.match(r"(http://\S+/)  ", line)
        yield address[1]
    finally:
        process.terminate()
        process.wait(60)


def chromium(folder, url, *options):
    """A browser of its own, with a microphone that beeps; its console is on standard error."""
    program = shutil.which("chromium") or sys.exit("chromium is missing: scripts/setup.sh --dev")
    return subprocess.Popen(
        [program, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
         "--no-first-run", "--disable-background-networking", "--disable-component-update",
         "--mute-audio", f"--user-data-dir={folder}", "--autoplay-policy=no-user-gesture-required",
         "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream",
         "--enable-logging=stderr", *options, url],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace")


def measured(url, rounds, minutes=0.0, during=lambda: None):
    """What the page reports, and the other lines of its console."""
    others = []
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        browser = chromium(folder, f"{url}?rounds={rounds}&minutes={minutes}")
        try:
            lines = lines_of(browser.stderr)
            during()
            while True:
                line = lines.get(timeout=60 * minutes + 20 * rounds + 120)
                if line is None:
                    raise RuntimeError("the browser ended")
                found = re.search(r'CONSOLE.*?"measured ({.*})", source', line)
                if found:
                    return json.loads(found[1]), others
                if "CONSOLE" in line:
                    others.append(line)
        finally:
            browser.terminate()
            browser.wait(60)


def load():
    return "load average " + " ".join(f"{value:.1f}" for value in os.getloadavg())


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("demo")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--minutes", type=float, default=0)
    options = parser.parse_args()
    print(f"{os.cpu_count()} processors, {load()}, niceness {os.nice(0)}")
    with serving(options.demo, "--sessions", "1") as url:
        result, _ = measured(url, options.rounds, options.minutes)
    for name, key, aim in AIMS:
        values = sorted(one[key] for one in result["rounds"] if one.get(key) is not None)
        middle = values[len(values) // 2]
        print(f"{name}: median {middle:.0f} ms, {values[0]:.0f} to {values[-1]:.0f} ms in {len(values)} "
              f"of {options.rounds} rounds; aim {aim} ms, {'reached' if middle <= aim else 'missed'}")
    offsets = sorted(value for one in result["rounds"] for value in one["offsets"])
    middle = offsets[len(offsets) // 2]
    print(f"sound ahead of picture: median {middle:.0f} ms, {offsets[0]:.0f} to {offsets[-1]:.0f} ms at "
          f"{len(offsets)} marks; aim within 40 ms in the median, "
          f"{'reached' if abs(middle) <= 40 else 'missed'}, and -125 to 45 ms always, "
          f"{'reached' if offsets[0] >= -125 and offsets[-1] <= 45 else 'missed'}")
    print("of which, and beside it:")
    for name, key in PARTS:
        print(f"  {name}: {result['parts'][key]:.1f} ms")
    print(f"frames seen {result['frames']}, time codes that could not be read {result['unread']}")
    if "minutes" in result:
        print("{minutes:g} minutes of speech: {shown} frames shown, {late} late, {skipped} skipped, "
              "{freezes} freezes (200 ms and more; {stalls} of the server's own), the longest gap {longest} "
              "ms, {gaps} gaps in the sound".format(**result["minutes"]))
    print(load())


if __name__ == "__main__":
    main()
