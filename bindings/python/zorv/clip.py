"""Whole clips of speech become frames."""
import atexit
import ctypes
import itertools
import os
import queue
import threading
import weakref
from array import array
from typing import TYPE_CHECKING, Any, Callable, Iterator, Optional

from . import _encoder
from ._library import (FPS, FRAME_CALLBACK, KEYPOINT_FLOATS, RATE, SAMPLES_PER_FRAME, PathLike,
                       ZorvError, fail, last_error, lib, model_threads, open_context,
                       path_bytes)
from ._sound import Samples, address
from .frame import Frame, FrameFlags, FrameMaker, Memory, place_of

if TYPE_CHECKING:
    from ._sound import Sound

_Deliver = Callable[[bytearray], None]


class _Stopped(Exception):
    """Nobody wants the rest of the frames."""


class _DeltaRenderer:
    """The library's batch stream: it hears the whole clip."""

    def __init__(self, bundle: PathLike, encoder: Optional[PathLike], motion: Optional[PathLike],
                 threads: int) -> None:
        if encoder is None or motion is not None:
            raise ValueError('engine "fca" needs encoder=FILE and no motion directory')
        self._lock = threading.Lock()
        self._running = self._cancelled = False
        self._stream: Optional[int] = lib.zorv_stream_create(
            path_bytes(bundle), path_bytes(encoder), threads, 0, 1.0)
        if self._stream is None:
            fail("zorv_stream_create")
        self.width: int = lib.zorv_stream_width(self._stream)
        self.height: int = lib.zorv_stream_height(self._stream)
        self.memory = Memory("rgb", self.width, self.height)

    def run(self, speech: "array[float]", deliver: _Deliver) -> None:
        stopped: Optional[BaseException] = None

        def on_frame(_user: None, _index: int, rgb: int, _width: int, _height: int) -> int:
            nonlocal stopped
            if stopped is None:
                try:
                    picture = self.memory.take()
                    ctypes.memmove(place_of(picture), rgb, len(picture))
                    deliver(picture)
                except BaseException as error:  # a callback cannot raise
                    stopped = error
                    self.cancel()
            return 0

        with self._lock:
            self._running, self._cancelled = True, False
        made = lib.zorv_stream_run(self._stream, address(speech), len(speech),
                                   FRAME_CALLBACK(on_frame), None)
        text = last_error("zorv_stream_run")
        with self._lock:
            self._running = False
        if self._cancelled:  # one that came too late would stop the next run
            lib.zorv_stream_run(self._stream, address(speech), 0, FRAME_CALLBACK(0), None)
        if stopped is not None:
            raise stopped
        if made < 0:
            raise ZorvError(text)

    def cancel(self) -> None:
        with self._lock:
            if self._running:
                self._cancelled = True
                lib.zorv_stream_cancel(self._stream)

    def close(self) -> None:
        lib.zorv_stream_destroy(self._stream)


class _KeypointRenderer:
    """An engine that hears speech in pieces, and the bundle's renderer."""

    PIECE = RATE // 2
    PULL = 32

    def __init__(self, family: str, bundle: PathLike, encoder: Optional[PathLike],
                 motion: Optional[PathLike], threads: int) -> None:
        if motion is None:
            raise ValueError(f'engine "{family}" needs motion=DIR')
        self._family = family
        self._wanted = True
        self._engine: Optional[int] = None
        self._ctx: Optional[int] = None
        if family == "a2x":
            _encoder.use(encoder, threads)
            self._engine = lib.zorv_a2x_create(path_bytes(motion), threads)
        elif encoder is not None:
            raise ValueError('encoder is not for engine "motion"')
        else:
            self._engine = lib.zorv_motion_create(path_bytes(motion), threads, None)
        if self._engine is None:
            fail(f"zorv_{family}_create")
        try:
            self._ctx = open_context(bundle, threads)
            frames, wanted = self._call("nt"), lib.zorv_nt(self._ctx)
            if frames != wanted:
                raise ZorvError(f"{os.fsdecode(motion)} is for a subject of {frames} target frames "
                                f"and {os.fsdecode(bundle)} has {wanted}")
        except BaseException:
            self.close()
            raise
        self.width: int = lib.zorv_width(self._ctx)
        self.height: int = lib.zorv_height(self._ctx)
        self.memory = Memory("rgb", self.width, self.height)
        self._target = array("i", bytes(4 * self.PULL))
        self._source = array("f", bytes(4 * self.PULL * KEYPOINT_FLOATS))
        self._driving = array("f", bytes(4 * self.PULL * KEYPOINT_FLOATS))

    def _call(self, name: str, *arguments: Any) -> Any:
        return getattr(lib, f"zorv_{self._family}_{name}")(self._engine, *arguments)

    def run(self, speech: "array[float]", deliver: _Deliver) -> None:
        self._wanted = True
        self._call("reset", 0, 1, 0)
        made, place = 0, address(speech)
        for at in range(0, len(speech), self.PIECE):
            if not self._call("push", place + 4 * at, min(self.PIECE, len(speech) - at)):
                fail(f"zorv_{self._family}_push")
            made += self._render_ready(deliver)
        self._call("finish")
        made += self._render_ready(deliver)
        if made != -(-len(speech) // SAMPLES_PER_FRAME):
            fail(f"zorv_{self._family}_pull")

    def _render_ready(self, deliver: _Deliver) -> int:
        made = 0
        while self._call("avail") > 0:
            count = self._call("pull", address(self._target), address(self._source),
                               address(self._driving), self.PULL)
            for i in range(count):
                self._render(i, deliver)
            made += count
            if count == 0:
                break
        return made

    def _render(self, i: int, deliver: _Deliver) -> None:
        if not self._wanted:
            raise _Stopped
        at = 4 * i * KEYPOINT_FLOATS
        target = self._target[i]
        crop = lib.zorv_render_kp_crop(self._ctx, target, address(self._source) + at,
                                       address(self._driving) + at)
        if crop is None:
            fail("zorv_render_kp_crop")
        picture = self.memory.take()
        if not lib.zorv_paste_crop(self._ctx, target, crop, place_of(picture), len(picture)):
            fail("zorv_paste_crop")
        deliver(picture)

    def cancel(self) -> None:
        self._wanted = False

    def close(self) -> None:
        self._call("destroy")
        lib.zorv_destroy(self._ctx)


class _Render:
    """A render in progress: a thread makes the pictures, a few ahead of who takes them."""

    AHEAD = 4

    def __init__(self, renderer: Any, speech: "array[float]") -> None:
        self._renderer, self._speech = renderer, speech
        self._ready: "queue.Queue[Any]" = queue.Queue(self.AHEAD)
        self._over = False  # nobody takes any more
        self._thread = threading.Thread(target=self._run, name="zorv-clip", daemon=True)
        self._pid = os.getpid()
        _running.add(self)
        self._thread.start()

    def take(self) -> Optional[bytearray]:
        """The next picture; None after the last one."""
        item = self._ready.get()
        if isinstance(item, BaseException):
            raise item
        picture: Optional[bytearray] = item
        return picture

    def close(self) -> None:
        """Stops the render and waits until it has left the library."""
        if self._pid != os.getpid():
            return
        self._over = True
        self._renderer.cancel()
        while self._thread.is_alive() and self._thread is not threading.current_thread():
            while not self._ready.empty():
                self._ready.get()
            self._thread.join(0.01)
        self._put_end(ZorvError("the clip is closed"))  # for who still waits

    def _run(self) -> None:
        end: Optional[BaseException] = None
        try:
            self._renderer.run(self._speech, self._deliver)
        except BaseException as error:
            end = error
        if not self._over:
            self._ready.put(end)

    def _put_end(self, end: BaseException) -> None:
        try:
            self._ready.put_nowait(end)
        except queue.Full:
            pass

    def _deliver(self, picture: bytearray) -> None:
        if self._over:
            raise _Stopped
        self._ready.put(picture)


_running: "weakref.WeakSet[_Render]" = weakref.WeakSet()


@atexit.register
def _close_all() -> None:
    """A render that goes on would call back into an interpreter that is gone."""
    for render in list(_running):
        render.close()


class Clip(FrameMaker):
    """A subject opened for clips whose speech is known from the start.

        with zorv.Clip("subject", encoder="encoder.onnx") as clip:
            for frame in clip.render(samples, rate=24000):
                show(numpy.asarray(frame))

    bundle   the subject's directory.
    encoder  the speech encoder's file: for the engines "fca" and "a2x".
    threads  threads of the model runtime; 0: as many as there are processors for this process.
    engine   "fca" hears the whole clip before its first frame; "motion" and "a2x" hear it in
             pieces, as a live face does, and take the directory of their models as ``motion``.

    Errors are ``ZorvError`` with the library's text. One render at a time; ``close`` may be called
    from any thread and stops a render that is running.
    """

    def __init__(self, bundle: PathLike, encoder: Optional[PathLike] = None, threads: int = 0, *,
                 engine: str = "fca", motion: Optional[PathLike] = None) -> None:
        self._renderer: Any = None
        self._active: Optional[_Render] = None
        self._lock = threading.Lock()
        self._pid = os.getpid()
        threads = model_threads(threads)
        if engine == "fca":
            self._renderer = _DeltaRenderer(bundle, encoder, motion, threads)
        elif engine in ("motion", "a2x"):
            self._renderer = _KeypointRenderer(engine, bundle, encoder, motion, threads)
        else:
            raise ValueError(f'engine must be "fca", "motion" or "a2x", not {engine!r}')
        self._width, self._height = self._renderer.width, self._renderer.height

    def render(self, samples: "Sound", rate: int = RATE) -> Iterator[Frame]:
        """The frames of a clip, RGB, one for each started 40 ms of its sound.

        samples  mono: an array of float32 in [-1, 1] or int16, or bytes of 16-bit samples.
        rate     their rate, 8000 to 48000 Hz in steps of 25.

        Frames are made in a thread of its own, up to four ahead of the loop. Leaving the loop stops
        it. A failure raises ``ZorvError`` after the frames before it.
        """
        sound = Samples.of(samples)
        speech = sound.speech(rate)
        self._check_open()
        return self._frames(sound, rate, speech)

    def _frames(self, sound: Samples, rate: int, speech: "array[float]") -> Iterator[Frame]:
        with self._lock:
            self._check_open()
            if self._active is not None:
                raise ZorvError("a render of this clip is running; leave its loop first")
            render = self._active = _Render(self._renderer, speech)
            spare = self._renderer.memory.spare
        length = rate // FPS

        def sound_of(index: int) -> "Callable[[], array[int]]":
            def piece() -> "array[int]":
                samples = sound.pcm(index * length, (index + 1) * length)
                samples.extend([0] * (length - len(samples)))
                return samples
            return piece

        try:
            for index in itertools.count():
                picture = render.take()
                if picture is None:
                    return
                yield Frame(picture, self._width, self._height, "rgb", kind="speech", utterance=1,
                            first_sample=index * length, pts=index, sequence=index,
                            flags=FrameFlags(0), sound=sound_of(index), spare=spare)
        finally:
            render.close()
            with self._lock:
                if self._active is render:
                    self._active = None

    def _check_open(self) -> None:
        if self._pid != os.getpid():
            raise ZorvError("the clip was opened by another process")
        if self._renderer is None:
            raise ZorvError("the clip is closed")

    def close(self) -> None:
        """Stops a render that is running and frees the models. A second call does nothing."""
        if self._pid != os.getpid():
            return
        with self._lock:  # from here on no render starts
            renderer, self._renderer = self._renderer, None
            active = self._active
        if active is not None:
            active.close()
        if renderer is not None:
            renderer.close()

    def __enter__(self) -> "Clip":
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_lock", None) is not None:
            self.close()
