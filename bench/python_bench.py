"""What Python costs beside the C interface, on the demo subject.

    python_bench.py DEMO [batch] [idle] [sessions] [catalogue]    with ZORV_LIBRARY and PYTHONPATH

batch     frames per second of Clip and of the batch stream called from C types, by turns.
idle      processor time of a session that idles, I420 in asyncio, with and without the pull.
sessions  8 speaking sessions in one process: processor time of the calling thread inside each binding
          call, which bounds the time that it holds the interpreter lock; and the event loop's delay
          beside that of an empty loop in another process at the same time.
catalogue clips per second of two workers on a core each, and of one, and the processor time that a
          clip costs. Without a core of its own a single worker fills two: it draws, and its video
          encoder and reader run beside.
"""
import asyncio
import ctypes
import os
import subprocess
import sys
import tempfile
import threading
import time
import wave
from array import array
from math import pi, sin

import numpy
import zorv
from zorv import _library, clip

demo = sys.argv[1]
BUNDLE, ENCODER, MOTION = f"{demo}/bundle", f"{demo}/speech_encoder.onnx", f"{demo}/motion"


def voice(seconds, rate=16000):
    return array("h", (round(9000 * sin(2 * pi * 140 * i / rate) * (1 + sin(6 * pi * i / rate)))
                       for i in range(int(seconds * rate))))


def percentile(values, share):
    return sorted(values)[min(int(len(values) * share), len(values) - 1)]


def batch():
    sound = voice(8)
    with zorv.Clip(BUNDLE, ENCODER, threads=1) as subject:
        stream, speech = subject._renderer._stream, array("f", (x / 32768 for x in sound))
        frame = ctypes.create_string_buffer(subject.width * subject.height * 3)
        best = {}
        for turn in range(7):
            for name in ("library", "python"):
                clock, processor = time.perf_counter(), time.process_time()
                if name == "python":
                    count = sum(1 for _ in subject.render(sound))
                else:
                    count = _library.lib.zorv_stream_run(
                        stream, speech.buffer_info()[0], len(speech), clip.FRAME_CALLBACK(0), None)
                clock, processor = time.perf_counter() - clock, time.process_time() - processor
                if turn:  # the first one warms up
                    best.setdefault(name, []).append((count / clock, 1000 * processor / count))
    for name, runs in best.items():
        print(f"batch, {name}: {max(fps for fps, _ in runs):.1f} frames/s, "
              f"{min(ms for _, ms in runs):.2f} ms of processor time per frame (best of {len(runs)})")
    python, library = (min(ms for _, ms in best[name]) for name in ("python", "library"))
    print(f"batch: {library / python:.3f} of the library's frames per processor second")


async def idle():
    async with await zorv.Face.open(BUNDLE, MOTION, pixels="i420", threads=1) as face:
        while not face.ready:
            await asyncio.sleep(0.1)
        frames = face.frames()
        for _ in range(150):  # every target frame has been decoded
            await frames.__anext__()
        start, processor = time.perf_counter(), time.process_time()
        for _ in range(500):
            await frames.__anext__()
        wall, processor = time.perf_counter() - start, time.process_time() - processor
        await frames.aclose()
        print(f"idle: {processor / wall:.4f} of a core at {500 / wall:.2f} frames/s")


async def loop_delays(stop):
    delays = []
    while not stop():
        due = time.perf_counter() + 0.005
        await asyncio.sleep(0.005)
        delays.append(time.perf_counter() - due)
    return delays


def report(name, seconds):
    print(f"{name}: median {1000 * percentile(seconds, 0.5):.2f} ms, "
          f"p99 {1000 * percentile(seconds, 0.99):.2f} ms, "
          f"p99.9 {1000 * percentile(seconds, 0.999):.2f} ms of {len(seconds)}", flush=True)


def empty_loop():
    """Until standard input ends."""
    ended = threading.Event()
    threading.Thread(target=lambda: (sys.stdin.read(), ended.set()), daemon=True).start()
    report("delay of an empty loop beside it", asyncio.run(loop_delays(ended.is_set)))


async def sessions(count=8):
    faces = [await zorv.Face.open(BUNDLE, MOTION, rate=24000, pixels="i420", threads=1)
             for _ in range(count)]
    held = []

    def timed(call):
        def run(*arguments):
            before = time.thread_time()
            try:
                return call(*arguments)
            finally:
                held.append(time.thread_time() - before)
        return run

    for face in faces:
        for name in ("pull", "push", "end", "interrupt"):
            setattr(face, name, timed(getattr(face, name)))
    whole = voice(4, 24000)
    floats = numpy.frombuffer(whole, numpy.int16).astype(numpy.float32) / 32768

    async def talk(face):
        for line in (whole, floats, whole):
            for at in range(0, len(line), 2400):
                face.push(line[at:at + 2400])
                await asyncio.sleep(0.1)
            face.end()
            await asyncio.sleep(1)
        face.interrupt()

    async def show(face):
        async for _ in face.frames():
            pass

    done = threading.Event()
    beside = subprocess.Popen([sys.executable, __file__, demo, "empty_loop"], stdin=subprocess.PIPE)
    showing = [asyncio.create_task(show(face)) for face in faces]
    measuring = asyncio.create_task(loop_delays(done.is_set))
    start = time.perf_counter()
    await asyncio.gather(*(talk(face) for face in faces))
    done.set()
    wall = time.perf_counter() - start
    beside.communicate()
    report(f"{count} sessions, processor time inside one binding call", held)
    report(f"{count} sessions, delay of their loop", await measuring)
    pulled = [face.stats().frames_pulled for face in faces]
    print(f"{count} sessions: {sum(pulled) / wall / count:.1f} frames/s each")
    for task in showing:
        task.cancel()
    for face in faces:
        await asyncio.to_thread(face.close)


def stay_on(core):
    """Every thread of this process, and those to come."""
    for thread in os.listdir("/proc/self/task"):
        os.sched_setaffinity(int(thread), {core})


def catalogue(clips=24, seconds=2):
    from distributed import Client, LocalCluster
    speeds = []
    for workers in (1, 2, 1, 2):
        with tempfile.TemporaryDirectory() as folder, LocalCluster(
                n_workers=workers, threads_per_worker=1, dashboard_address=None) as cluster, \
                Client(cluster) as client:
            with wave.open(f"{folder}/sound.wav", "wb") as sound:
                sound.setparams((1, 2, 16000, 0, "NONE", ""))
                sound.writeframes(voice(seconds).tobytes())
            jobs = [zorv.Job(BUNDLE, f"{folder}/sound.wav", f"{folder}/{i}.mp4", ENCODER)
                    for i in range(clips + 2 * workers)]
            cores = sorted(os.sched_getaffinity(0))
            for core, worker in zip(cores, client.run(os.getpid)):
                client.run(stay_on, core, workers=[worker])
            zorv.render_catalogue(jobs[clips:], client)  # the models are open
            start, here = time.perf_counter(), time.process_time()
            there = sum(client.run(time.process_time).values())
            results = zorv.render_catalogue(jobs[:clips], client)
            there = sum(client.run(time.process_time).values()) - there
            here = time.process_time() - here  # the scheduler's, too
            speeds.append(clips / (time.perf_counter() - start))
            assert {result.state for result in results} == {"made"}, results
            print(f"catalogue, {workers} workers: {speeds[-1]:.2f} clips of {seconds} s per second; "
                  f"processor time per clip {there / clips:.3f} s in workers, {here / clips:.3f} s "
                  "beside them", flush=True)
    print(f"catalogue: two workers make {sum(speeds[1::2]) / sum(speeds[::2]):.2f} times as much")


if __name__ == "__main__":
    for job in sys.argv[2:] or ("batch", "idle", "sessions", "catalogue"):
        work = globals()[job]()
        if work is not None:
            asyncio.run(work)
