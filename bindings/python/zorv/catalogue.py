"""Many clips over a cluster."""
import glob
import os
import sys
import threading
import wave
from typing import Any, Dict, Iterable, List, NamedTuple, Optional, Tuple

from ._library import ZorvError
from .clip import Clip
from .video import unfinished, write_video


class Job(NamedTuple):
    """One clip of a catalogue; every worker sees the same paths."""

    bundle: str  #: the subject's directory
    sound: str  #: a mono WAV file of 16-bit samples
    target: str  #: the video that is to be there
    encoder: Optional[str] = None  #: and what else ``Clip`` is told
    engine: str = "fca"
    motion: Optional[str] = None
    threads: int = 1


class Result(NamedTuple):
    """What became of a job."""

    job: Job
    state: str  #: "made", "there" (it was before) or "failed"
    text: str = ""  #: why it failed


def render_catalogue(jobs: Iterable[Job], client: Any) -> List[Result]:
    """Renders clips on the workers of a cluster and returns a result per job, in their order.

    jobs    ``zorv.Job(bundle, sound, target, ...)``, each with a target of its own.
    client  a ``distributed.Client``; this function returns when all jobs have ended.

    A file is there whole or not at all: it is written beside its place and renamed. Files that are
    there already are left alone, so a catalogue can be run again. Jobs of workers that die run again
    elsewhere. A failure stops nobody else. On a terminal, progress is shown on standard error.
    """
    import distributed

    jobs = [Job(*job) for job in jobs]
    targets = [os.path.realpath(job.target) for job in jobs]
    if len(set(targets)) < len(targets):
        raise ValueError("two jobs have the same target")
    results: Dict[int, Result] = {}
    futures: Dict[Any, int] = {}
    for i, job in enumerate(jobs):
        if os.path.exists(job.target):
            results[i] = Result(job, "there")
        else:
            # One clip takes a whole slot of a worker; a result is never looked up by its arguments.
            futures[client.submit(_render, job, pure=False)] = i
    progress = _Progress(len(jobs))
    progress.show(len(results), 0)
    failed = 0
    try:
        ended: Iterable[Any] = getattr(distributed, "as_completed")(futures)
        for future in ended:
            i = futures[future]
            try:
                text = future.result()  # waits again if the worker died before it was told
            except Exception as error:
                text = str(error) or type(error).__name__
            _remove_unfinished(jobs[i].target)
            results[i] = Result(jobs[i], "failed" if text else "made", text)
            failed += results[i].state == "failed"
            progress.show(len(results), failed)
    finally:
        client.cancel([future for future, i in futures.items() if i not in results])
        progress.end()
    return [results[i] for i in range(len(jobs))]


def _remove_unfinished(target: str) -> None:
    """What a worker that died has left."""
    for file in glob.glob(glob.escape(unfinished(target, "")) + "*"):
        os.unlink(file)


class _Progress:
    def __init__(self, total: int) -> None:
        self._total = total
        self._shown = sys.stderr.isatty()

    def show(self, ended: int, failed: int) -> None:
        if self._shown:
            failures = f", {failed} failed" if failed else ""
            print(f"\r{ended} of {self._total} clips{failures} ", end="", file=sys.stderr, flush=True)

    def end(self) -> None:
        if self._shown:
            print(file=sys.stderr)


# The last subject of each thread of a worker stays open: catalogues have few subjects.
_kept = threading.local()


def _clip(job: Job) -> Clip:
    key: Tuple[Any, ...] = (job.bundle, job.encoder, job.engine, job.motion, job.threads)
    if getattr(_kept, "key", None) != key:
        _kept.key = None
        _kept.clip = Clip(job.bundle, job.encoder, job.threads, engine=job.engine, motion=job.motion)
        _kept.key = key
    clip: Clip = _kept.clip
    return clip


def _render(job: Job) -> str:
    """Runs on a worker; returns why it failed, "" when the file is there."""
    try:
        if not os.path.exists(job.target):
            sound, rate = _read(job.sound)
            write_video(job.target, _clip(job).render(sound, rate), sound, rate)
        return ""
    except (ZorvError, OSError, EOFError, ValueError, wave.Error) as error:
        return f"{type(error).__name__}: {error}"


def _read(path: str) -> Tuple[bytes, int]:
    with wave.open(path) as sound:
        if sound.getnchannels() != 1 or sound.getsampwidth() != 2:
            raise ValueError(f"{path} is not mono of 16 bits")
        return sound.readframes(sound.getnframes()), sound.getframerate()
