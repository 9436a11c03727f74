"""An utterance engine that any thread may use and close, and its events for those who wait."""
import atexit
import ctypes
import os
import select
import threading
import weakref
from collections import OrderedDict, deque
from concurrent.futures import Future
from contextlib import contextmanager
from typing import Any, Deque, Dict, Iterator, List, NamedTuple, Optional

from ._library import UttEvent, ZorvError, fail, lib

KEPT = 1024  # events that wait for a reader, and outcomes, as in the library

EVENT_TYPES = {1: "started", 2: "finished", 3: "interrupted", 4: "failed"}
REASONS = {0: "", 1: "end", 2: "silence", 3: "interrupt", 4: "failure"}


class Event(NamedTuple):
    """What became of an utterance."""

    type: str  #: "started", then one of "finished", "interrupted" and "failed"
    utterance: int  #: its number
    reason: str  #: "end", "silence", "interrupt" or "failure"; "" when it started
    samples: int  #: up to where it was shown, in pushed samples
    pts: int  #: of its last pulled speech frame, in 1/25 s; -1 when there is none
    frames_left_out: int  #: speech frames up to there that were not shown
    missed: int  #: events before this one that nobody read in time


class Outcome(NamedTuple):
    """How an utterance ended: what ``await face.finished(utterance)`` returns."""

    samples: int  #: up to where it was heard, in pushed samples
    reason: str  #: "end", "silence", "interrupt" or "failure"


class Mailbox:
    """Events for one reader. Any thread puts, one takes."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._events: Deque[Event] = deque(maxlen=KEPT)
        self._missed = 0
        self._closed: Optional[BaseException] = None
        self._waiter: "Optional[Future[None]]" = None

    def put(self, event: Event) -> None:
        with self._lock:
            if len(self._events) == KEPT:
                self._missed += 1
            self._events.append(event)
            self._wake()

    def close(self, error: BaseException) -> None:
        with self._lock:
            self._closed = error
            self._wake()

    def take(self) -> Optional[Event]:
        """The oldest event; None when there is none yet. Raises when no more can come."""
        with self._lock:
            if self._events:
                event = self._events.popleft()
                missed, self._missed = self._missed, 0
                return event._replace(missed=event.missed + missed)
            if self._closed is not None:
                raise self._closed
            return None

    def arrival(self) -> "Future[None]":
        """Done as soon as `take` has something to give."""
        with self._lock:
            waiter: "Future[None]" = Future()
            if self._events or self._closed is not None:
                waiter.set_result(None)
            else:
                self._waiter = waiter
            return waiter

    def _wake(self) -> None:
        waiter, self._waiter = self._waiter, None
        if waiter is not None and waiter.set_running_or_notify_cancel():
            waiter.set_result(None)


class Engine:
    """The handles, and the thread that reads the engine's events.

    Calls may overlap; `close` waits until they have left the library. In a child of fork every
    call raises and nothing is freed.
    """

    def __init__(self, ctx: int, utt: int) -> None:
        self._ctx, self._utt = ctx, utt
        self._pid = os.getpid()
        self._lock = threading.Lock()
        self._left = threading.Condition(self._lock)
        self._calls = 0
        self._closed = False
        self._gone = threading.Event()
        # Guarded by the lock, too.
        self._pushed = 0  # the highest number so far
        self._outcomes: "OrderedDict[int, Outcome]" = OrderedDict()
        self._waiting: "Dict[int, List[Future[Outcome]]]" = {}
        self._mailboxes: "weakref.WeakSet[Mailbox]" = weakref.WeakSet()

        self.closing_fd = self._close_fd = -1  # the first is readable for good once it closes
        try:
            self.closing_fd, self._close_fd = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
            fd = lib.zorv_utt_fd(utt, 2)
            if fd < 0:
                fail("zorv_utt_fd")
            self._reader = threading.Thread(target=self._read, args=(fd,), name="zorv-events",
                                            daemon=True)
            self._reader.start()
        except BaseException:
            self._free()
            raise
        _open.add(self)

    @contextmanager
    def call(self) -> Iterator[int]:
        """The engine for one call and the reading of its error."""
        self._enter()
        try:
            yield self._utt
        finally:
            with self._lock:
                self._calls -= 1
                if self._closed:
                    self._left.notify_all()

    def _enter(self) -> None:
        if os.getpid() != self._pid:
            raise ZorvError("the face was opened by another process")
        with self._lock:
            self._check_open()
            self._calls += 1

    def _check_open(self) -> None:
        if self._closed:
            raise self._closed_error()

    @staticmethod
    def _closed_error() -> ZorvError:
        return ZorvError("the face is closed")

    @property
    def closed(self) -> bool:
        """Whether nothing is left to free here: also in a child of fork."""
        return self._closed or self._pid != os.getpid()

    def pushed(self, utterance: int) -> None:
        with self._lock:
            self._pushed = max(self._pushed, utterance)

    def outcome(self, utterance: int) -> "Future[Outcome]":
        with self.call(), self._lock:
            future: "Future[Outcome]" = Future()
            known = self._outcomes.get(utterance)
            if known is not None:
                future.set_result(known)
            elif not 1 <= utterance <= self._pushed:
                raise ZorvError(f"there is no utterance {utterance}")
            elif self._outcomes and utterance < next(reversed(self._outcomes)):
                raise ZorvError(f"the end of utterance {utterance} is not kept any more")
            else:
                # Those whose waiter has been cancelled go when the next one comes.
                futures = [f for f in self._waiting.get(utterance, []) if not f.cancelled()]
                self._waiting[utterance] = [*futures, future]
            return future

    def mailbox(self) -> Mailbox:
        with self.call(), self._lock:
            box = Mailbox()
            self._mailboxes.add(box)
            return box

    def _read(self, fd: int) -> None:
        poll = select.poll()
        poll.register(fd, select.POLLIN)
        poll.register(self.closing_fd, select.POLLIN)
        try:
            while True:
                poll.poll()
                while True:
                    event = self._next_event()
                    if event is None:
                        break
                    self._note(event)
        except ZorvError:  # closed, or no engine any more
            pass

    def _next_event(self) -> Optional[Event]:
        record = UttEvent(struct_size=ctypes.sizeof(UttEvent))
        with self.call() as utt:
            found = lib.zorv_utt_next_event(utt, ctypes.byref(record))
            if found < 0:
                fail("zorv_utt_next_event")
        if not found:
            return None
        return Event(EVENT_TYPES[record.type], record.utterance, REASONS[record.reason],
                     record.samples, record.pts, record.frames_left_out, record.missed)

    def _note(self, event: Event) -> None:
        ended: "List[Future[Outcome]]" = []
        lost: "List[Future[Outcome]]" = []
        outcome = Outcome(event.samples, event.reason)
        with self._lock:
            boxes = list(self._mailboxes)
            self._pushed = max(self._pushed, event.utterance)
            if event.missed:
                for number in [n for n in self._waiting if n < event.utterance]:
                    lost += self._waiting.pop(number)
            if event.type != "started":
                self._outcomes[event.utterance] = outcome
                while len(self._outcomes) > KEPT:
                    self._outcomes.popitem(last=False)
                ended = self._waiting.pop(event.utterance, [])
        for future in ended:
            if future.set_running_or_notify_cancel():
                future.set_result(outcome)
        self._refuse(lost, ZorvError("the end of the utterance was missed"))
        for box in boxes:
            box.put(event)

    @staticmethod
    def _refuse(futures: "List[Future[Any]]", error: BaseException) -> None:
        for future in futures:
            if future.set_running_or_notify_cancel():
                future.set_exception(error)

    def close(self, tell: bool = True) -> None:
        """Ends what waits, which raises there, then the engine. A second call waits for the first."""
        if os.getpid() != self._pid:
            return
        with self._lock:
            first = not self._closed
            self._closed = True
        if not first:
            if threading.current_thread() is not self._reader:
                self._gone.wait()
            return
        os.write(self._close_fd, b"x")
        if threading.current_thread() is not self._reader:
            self._reader.join()
        with self._lock:
            waiting = [future for futures in self._waiting.values() for future in futures]
            self._waiting.clear()
            boxes = list(self._mailboxes)
        if tell:
            self._refuse(waiting, self._closed_error())
            for box in boxes:
                box.close(self._closed_error())
        with self._lock:
            while self._calls:
                self._left.wait()
        self._free()
        self._gone.set()

    def _free(self) -> None:
        lib.zorv_utt_destroy(self._utt)
        lib.zorv_destroy(self._ctx)
        for fd in (self.closing_fd, self._close_fd):
            if fd >= 0:
                os.close(fd)


_open: "weakref.WeakSet[Engine]" = weakref.WeakSet()


@atexit.register
def _close_all() -> None:
    """Engines end before the interpreter does; the threads that still wait go with it."""
    for engine in list(_open):
        engine.close(tell=False)
