"""A face that talks, live."""
import asyncio
import ctypes
import os
import threading
from array import array
from concurrent.futures import TimeoutError as FutureTimeout
from typing import TYPE_CHECKING, Any, AsyncIterator, Iterator, List, NamedTuple, Optional, Union

from . import _encoder
from ._engine import Engine, Event, Mailbox, Outcome
from ._library import (FPS, RATE, PathLike, UttFrame, UttLatency, UttOpts, UttStats, ZorvError,
                       c_integer, fail, last_error, lib, model_threads, open_context, path_bytes)
from ._sound import Samples, address
from .frame import KINDS, Frame, FrameFlags, FrameMaker, Memory, place_of, plane_shapes

if TYPE_CHECKING:
    from ._sound import Sound

_PIXELS = {"rgba": 0, "rgb": 1, "i420": 2, "nv12": 3}
_LATE = {"wait": 0, "skip": 1}
_STATES = ("idle", "waiting", "speaking", "ramp")
_CAUGHT_UP = 8  # frames


class Stats(NamedTuple):
    """Counted since the face was opened."""

    frames_pulled: int
    speech_frames_pulled: int
    utterances_started: int
    first_frame_latency_ms: float  #: of the latest one: from its first push to its first frame
    render_ms: float  #: per speech frame, a running average
    state: str  #: "idle", "waiting" (for the first speech frame), "speaking" or "ramp"


class Latency(NamedTuple):
    """How far picture lies behind sound, and what it cost."""

    look_ahead_samples: int  #: pushed samples from a frame's first one until it can be made
    idle_ahead: int
    render_ms: float
    frames_left_out_late: int
    frames_left_out_failed: int
    late_slots: int  #: times that a speech frame was due for 40 ms and not there
    sound_bytes: int  #: memory of sound that waits for its frames


class Failures(NamedTuple):
    """What went wrong while the face ran."""

    total: int
    latest: str  #: why, "" when nothing did


class Events:
    """Events from the moment on that this was made; iterate with ``async for`` or ``for``."""

    def __init__(self, mailbox: Mailbox) -> None:
        self._mailbox = mailbox

    def __iter__(self) -> Iterator[Event]:
        return self

    def __next__(self) -> Event:
        while True:
            event = self._mailbox.take()
            if event is not None:
                return event
            self._mailbox.arrival().result()

    def __aiter__(self) -> AsyncIterator[Event]:
        return self

    async def __anext__(self) -> Event:
        while True:
            event = self._mailbox.take()
            if event is not None:
                return event
            await asyncio.wrap_future(self._mailbox.arrival())


class Face(FrameMaker):
    """A subject that speaks what is pushed, as it is pushed, and idles in between.

        async with await zorv.Face.open("subject", motion="subject/motion") as face:
            utterance = face.push(pcm)
            face.end()
            async for frame in face.frames():    # 25 per second
                show(frame)                      # and play frame.sound with it

    bundle        the subject's directory.
    motion        directory of its motion or expression models.
    encoder       the speech encoder of expression models; the process has one, and another one
                  than the one that is loaded raises.
    pixels        of the frames: "rgba", "rgb", "i420" or "nv12". YUV is limited range, BT.709 from
                  720 lines on, else BT.601.
    rate          of the pushed sound: 8000 to 48000 Hz in steps of 25.
    idle_ahead    idle frames made ahead, 1 to 8: fewer show speech sooner.
    late          "wait": speech frames that come late are shown all the same, for hosts that play
                  frames with their sound; "skip": they are left out, for hosts whose sound plays
                  from elsewhere.
    silence_end   seconds without a push that end an utterance, or "never".
    eager         frames per provisional step of the models; 0: adaptive; -2: hybrid, steps of 3.
    threads       threads of the model runtime; 0: as many as there are processors.
    ramp_frames   frames from speech back to rest; 0: 6.
    steady_model  model key of a second renderer for batches of speech; None: "b24_fp32"; "-": none.

    The constructor loads the renderer; ``Face.open`` does so in a thread, for event loops. The
    models of speech load in the background: what is pushed meanwhile is spoken then (``ready``).
    Every method may be called from any thread. Failures raise ``ZorvError`` with the library's text.
    Closing ends what others wait for with ``ZorvError``; frames that were pulled stay.
    """

    def __init__(self, bundle: PathLike, motion: PathLike, encoder: Optional[PathLike] = None,
                 pixels: str = "rgba", rate: int = RATE, idle_ahead: int = 2, late: str = "wait",
                 silence_end: Union[str, float] = "never", eager: int = 0, threads: int = 0,
                 ramp_frames: int = 0, steady_model: Optional[str] = None) -> None:
        for name, value, values in (("pixels", pixels, _PIXELS), ("late", late, _LATE)):
            if value not in values:
                raise ValueError(f"{name} must be one of {', '.join(values)}, not {value!r}")
        if isinstance(silence_end, str):
            if silence_end != "never":
                raise ValueError(f'silence_end must be "never" or seconds, not {silence_end!r}')
            silence_end = -1.0
        elif not silence_end > 0:
            raise ValueError(f"silence_end must be above 0 s, not {silence_end}")
        threads = model_threads(threads)
        expression = os.path.exists(os.path.join(path_bytes(motion), b"a2x_enc_stream.onnx"))
        if encoder is not None or expression:
            _encoder.use(encoder, threads)
        options = UttOpts(
            motion_dir=path_bytes(motion), threads=threads, eager=c_integer("eager", eager),
            silence_end_s=silence_end, ramp_frames=c_integer("ramp_frames", ramp_frames),
            steady_model=None if steady_model is None else path_bytes(steady_model))
        settings = (("input", c_integer("rate", rate)), ("pixels", _PIXELS[pixels]),
                    ("idle_ahead", c_integer("idle_ahead", idle_ahead)), ("late", _LATE[late]))
        ctx = open_context(bundle, threads)
        utt = lib.zorv_utt_create(ctx, ctypes.byref(options))
        try:
            if utt is None:
                fail("zorv_utt_create")
            for setting, number in settings:
                if not getattr(lib, f"zorv_utt_set_{setting}")(utt, number):
                    fail("zorv_utt_set")
        except BaseException:
            lib.zorv_utt_destroy(utt)
            lib.zorv_destroy(ctx)
            raise
        self._width, self._height = lib.zorv_width(ctx), lib.zorv_height(ctx)
        self._pixels, self._rate = pixels, rate
        self._strides = [shape[1] * (shape[2] if len(shape) > 2 else 1)
                         for shape in plane_shapes(pixels, self._width, self._height)]
        self._memory = Memory(pixels, self._width, self._height)
        self._engine = Engine(ctx, utt)

    @classmethod
    async def open(cls, *arguments: Any, **options: Any) -> "Face":
        """The constructor, in a thread: the event loop goes on meanwhile."""
        opening = asyncio.ensure_future(asyncio.to_thread(cls, *arguments, **options))
        try:
            return await asyncio.shield(opening)
        except asyncio.CancelledError:
            opening.add_done_callback(_close_unwanted)
            raise

    @property
    def pixels(self) -> str:
        """Of the frames: "rgba", "rgb", "i420" or "nv12"."""
        return self._pixels

    @property
    def rate(self) -> int:
        """Of pushed sound and of the frames' sound, in Hz."""
        return self._rate

    @property
    def ready(self) -> bool:
        """Whether the models of speech are loaded. Raises when the face cannot speak."""
        with self._engine.call() as utt:
            state: int = lib.zorv_utt_ready(utt)
            if state < 0:
                fail("zorv_utt_ready")
        return state > 0

    def push(self, pcm: "Sound") -> int:
        """Appends sound to the utterance that is being pushed, or starts one; never waits.

        pcm  mono at ``rate``: an array of int16 or of float32 in [-1, 1], or bytes of 16-bit samples.

        Returns the utterance's number: 1, 2, 3 ...; 0 when there was no sample.
        """
        samples = Samples.of(pcm)
        data = samples.data if samples.kind == "h" else samples.pcm().tobytes()
        with self._engine.call() as utt:
            number: int = lib.zorv_utt_push(utt, data, c_integer("samples", len(samples)))
            text = "" if number else last_error("zorv_utt_push")
        if text:
            raise ZorvError(text)
        self._engine.pushed(number)
        return number

    def end(self) -> None:
        """Ends the utterance that is being pushed; what is pushed next is another one."""
        with self._engine.call() as utt:
            lib.zorv_utt_end_utterance(utt)

    def interrupt(self) -> None:
        """Stops speaking: drops all sound and frames that were not pulled, and closes the mouth."""
        with self._engine.call() as utt:
            lib.zorv_utt_interrupt(utt)

    def pull(self) -> Optional[Frame]:
        """The next frame with its sound; None when there is none yet. Never waits."""
        picture, sound = self._memory.take(), array("h", bytes(2 * (self._rate // FPS)))
        record = UttFrame(struct_size=ctypes.sizeof(UttFrame), sound=address(sound),
                          sound_capacity=len(sound))
        place = place_of(picture)
        for i, stride in enumerate(self._strides):
            record.plane[i], record.stride[i] = place, stride
            place += self._memory.sizes[i]
        with self._engine.call() as utt:
            found: int = lib.zorv_utt_pull(utt, ctypes.byref(record))
            if found < 0:
                fail("zorv_utt_pull")
        if not found:
            self._memory.spare.append(picture)
            return None
        return Frame(picture, self._width, self._height, self._pixels, kind=KINDS[record.kind],
                     utterance=record.utterance, first_sample=record.first_sample, pts=record.pts,
                     sequence=record.sequence, flags=FrameFlags(record.flags), sound=sound,
                     spare=self._memory.spare)

    async def frames(self) -> AsyncIterator[Frame]:
        """Frames at 25 per second, paced by the event loop's clock.

        Up to 8 frames that came late are caught up; beyond that the schedule starts again from now.
        """
        loop = asyncio.get_running_loop()
        interval = 1 / FPS
        descriptors: List[int] = []  # copies: others may watch the same ones
        try:
            due = loop.time()
            while True:
                frame = self.pull()
                while frame is None:
                    if not descriptors:
                        descriptors += self._watched()
                    await _readable(descriptors)
                    frame = self.pull()
                yield frame
                due += interval
                if loop.time() - due > _CAUGHT_UP * interval:
                    due = loop.time()
                await asyncio.sleep(max(due - loop.time(), 0))
        finally:
            for fd in descriptors:
                os.close(fd)

    def _watched(self) -> List[int]:
        with self._engine.call() as utt:
            fd = lib.zorv_utt_fd(utt, 1)
            if fd < 0:
                fail("zorv_utt_fd")
            return [os.dup(fd), os.dup(self._engine.closing_fd)]

    async def finished(self, utterance: int) -> Outcome:
        """Waits until an utterance has ended: what was heard of it, and why it ended.

        The last 1024 outcomes are kept. Raises ``ZorvError`` for a number that no push returned.
        """
        return await asyncio.wrap_future(self._engine.outcome(utterance))

    def wait_finished(self, utterance: int, timeout: Optional[float] = None) -> Outcome:
        """``finished`` for threads; raises ``TimeoutError`` after `timeout` seconds."""
        future = self._engine.outcome(utterance)
        try:
            return future.result(timeout)
        except FutureTimeout:
            future.cancel()
            raise TimeoutError(f"utterance {utterance} has not ended in {timeout} s") from None

    def events(self) -> Events:
        """What becomes of utterances, from now on; every call gives an iterator of its own."""
        return Events(self._engine.mailbox())

    def stats(self) -> Stats:
        """What was counted so far."""
        record = UttStats()
        with self._engine.call() as utt:
            lib.zorv_utt_get_stats(utt, ctypes.byref(record))
        return Stats(record.frames_pulled, record.speech_frames_pulled, record.utterances_started,
                     record.first_frame_latency_ms, record.render_ms, _STATES[record.state])

    def latency(self) -> Latency:
        """How far picture lies behind sound, and what it cost so far."""
        record = UttLatency(struct_size=ctypes.sizeof(UttLatency))
        with self._engine.call() as utt:
            if not lib.zorv_utt_latency(utt, ctypes.byref(record)):
                fail("zorv_utt_latency")
        return Latency(*(getattr(record, name) for name in Latency._fields))

    def failures(self) -> Failures:
        """How often something failed, and the latest reason."""
        text = ctypes.create_string_buffer(1024)
        with self._engine.call() as utt:
            count: int = lib.zorv_utt_failure(utt, text, len(text))
        return Failures(count, text.value.decode(errors="replace"))

    def close(self) -> None:
        """Ends the engine and what others wait for. A second call does nothing. May last: it waits
        for a model that is loading."""
        self._engine.close()

    def __enter__(self) -> "Face":
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    async def __aenter__(self) -> "Face":
        return self

    async def __aexit__(self, *_exception: object) -> None:
        await asyncio.shield(asyncio.to_thread(self.close))

    def __del__(self) -> None:
        engine = getattr(self, "_engine", None)
        if engine is not None and not engine.closed:
            # The thread that drops the last reference may hold any lock, so it does not wait.
            threading.Thread(target=engine.close, name="zorv-close").start()


def _close_unwanted(opening: "asyncio.Future[Face]") -> None:
    if not opening.cancelled() and opening.exception() is None:
        threading.Thread(target=opening.result().close, name="zorv-close").start()


async def _readable(descriptors: List[int]) -> None:
    loop = asyncio.get_running_loop()
    found = loop.create_future()

    def wake() -> None:
        if not found.done():
            found.set_result(None)

    for fd in descriptors:
        loop.add_reader(fd, wake)
    try:
        await found
    finally:
        for fd in descriptors:
            loop.remove_reader(fd)
