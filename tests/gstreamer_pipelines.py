#!/usr/bin/python3
"""Runs every pipeline of docs/gstreamer.md as it stands there and judges what it wrote: the mouth
follows the sound without lag (`zorv sync`) and no frame is missing; the live one has both streams.

    gstreamer_pipelines.py PROGRAM DEMO_DIR PLUGIN_DIR PAGE
"""
import json
import math
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import wave

TEXT = ("We were away a year ago, and nobody at home remembered where the boat had been. "
        "Seven open windows let the morning into every single room.")
RESULTS = ["face.mp4", "face.m3u8", "face.flv", "live.mp4"]  # of the page's pipelines, in order
NGINX = """
load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;
daemon off;
pid {dir}/nginx.pid;
error_log {dir}/nginx.log;
events {{}}
rtmp {{ server {{ listen 127.0.0.1:{port}; application live {{
    live on; record all; record_path {dir}; record_suffix .flv; }} }} }}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(what, state, seconds=60):
    """Waits for the state itself; the limit only ends a test that hangs."""
    end = time.monotonic() + seconds
    while not state():
        if time.monotonic() > end:
            sys.exit(f"{what}: nothing for {seconds} s")
        time.sleep(0.05)


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class StreamingServer:
    """nginx on a free loopback port; what is streamed to it lies in the folder afterwards."""

    def __init__(self, folder):
        self.port = free_port()
        config = folder / "nginx.conf"
        config.write_text(NGINX.format(dir=folder, port=self.port))
        self.process = subprocess.Popen(["nginx", "-p", str(folder), "-c", str(config)],
                                        stderr=subprocess.DEVNULL)

    def __enter__(self):
        wait_for("nginx", lambda: self.process.poll() is not None or accepts(self.port))
        if self.process.poll() is not None:
            sys.exit("nginx does not start; is libnginx-mod-rtmp there?")
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGQUIT)
        self.process.wait(timeout=60)


def judge_live(video):
    """Both streams are there and end together. How regular they are is the machine's affair; that
    picture and sound fit is tested on a clock of the test's own."""
    log = subprocess.run(["gst-launch-1.0", "-v", "filesrc", f"location={video}", "!", "qtdemux",
                          "name=d", "d.video_0", "!", "queue", "!", "identity", "name=v",
                          "silent=false", "!", "fakesink", "d.audio_0", "!", "queue", "!",
                          "identity", "name=a", "silent=false", "!", "fakesink"],
                         check=True, stdout=subprocess.PIPE).stdout.decode()
    ends = {}
    for name, minutes, seconds in re.findall(
            r"Identity:(.): last-message = chain.* pts: 0:(\d+):([\d.]+)", log):
        ends[name] = max(ends.get(name, 0), 60 * int(minutes) + float(seconds))
    print(f"{video.name}: streams end at {ends}", flush=True)
    if set(ends) != {"a", "v"} or min(ends.values()) < 5 or abs(ends["a"] - ends["v"]) > 0.2:
        sys.exit(f"{video.name}: picture and sound do not end together")


def judge(program, video, frames):
    report = json.loads(subprocess.run([program, "sync", "--json", str(video)], check=True,
                                       stdout=subprocess.PIPE).stdout)
    line = f"{video.name}: lag {report['lag_frames']}, correlation {report['correlation']:.2f}, " \
           f"{report['frames']} frames"
    print(line, flush=True)
    if report["lag_frames"] != 0 or report["correlation"] < 0.6:
        sys.exit(f"{line}: the mouth does not follow the sound")
    if report["frames"] != frames:
        sys.exit(f"{line}: {frames} frames expected")


def main():
    program, demo, plugins, page = (pathlib.Path(p).resolve() for p in sys.argv[1:5])
    for tool in ("gst-launch-1.0", "nginx", "espeak-ng"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is missing: scripts/setup.sh --dev installs it")
    pipelines = re.findall(r"```sh\n(.*?)```", page.read_text(), re.S)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        os.chmod(folder, 0o777)  # the server's worker is another user
        (folder / "build").mkdir()
        (folder / "build/demo").symlink_to(demo)
        speech = folder / "speech.wav"
        subprocess.run(["espeak-ng", "-s", "150", "-w", str(speech), "--", TEXT], check=True)
        with wave.open(str(speech)) as sound:
            seconds = sound.getnframes() / sound.getframerate()
        frames = math.ceil(round(seconds * 16000) / 640)
        environment = dict(os.environ, GST_PLUGIN_PATH=str(plugins),
                           GST_REGISTRY=str(folder / "registry.bin"))
        with StreamingServer(folder) as server:
            for pipeline, result in zip(pipelines, RESULTS, strict=True):
                command = pipeline.replace("127.0.0.1:1935", f"127.0.0.1:{server.port}")
                done = subprocess.run(["bash", "-e", "-c", command], cwd=folder, env=environment,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600)
                if done.returncode or b"ERROR" in done.stdout:
                    sys.exit(done.stdout.decode(errors="replace") + command)
                if result == "live.mp4":
                    judge_live(folder / result)
                else:
                    judge(program, folder / result, frames)


if __name__ == "__main__":
    main()
