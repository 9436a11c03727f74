"""One viewer: a face, its peer connection, and what the page asks for over the data channel.

Messages of the page, JSON objects on the channel "control":
    {"say": TEXT}  {"stop": true}  {"mic": BOOL}  {"measure": BOOL}  {"tone": FRAMES}
and to it:
    {"event": TYPE, "utterance": N, "samples": N, "reason": TEXT}   as `zorv.Event`
    {"error": TEXT}  {"mic": BOOL}  {"state": ...}                  twice a second, see `_status`
"""
import asyncio
import json
import logging
import re
import secrets
from typing import Any, AsyncIterator, Callable, Coroutine, Dict, Optional, Set, Tuple, TypeVar

import av
from aiortc import RTCConfiguration, RTCPeerConnection, RTCSessionDescription
from aiortc.mediastreams import MediaStreamError

from zorv import Face, ZorvError

from . import timecode
from .limits import (CONNECT_S, MESSAGE_BYTES, QUIET_S, RATE, TEXT_LENGTH, UPLOAD_S, Bucket,
                     Limits)
from .speech import Voice, VoiceError, tone
from .tracks import Picture, Sound

log = logging.getLogger("zorv.web")
STATUS_S, LOOK_S = 0.5, 1.0
T = TypeVar("T")


class Refused(Exception):
    """What the page asked for is not done; the text is for the page, the status for HTTP."""

    def __init__(self, text: str, status: int = 400) -> None:
        super().__init__(text)
        self.status = status


class Session:
    """Runs in one event loop; `close` may be called at any time, and more than once.

    face     opened with I420 pixels at `RATE`; the session closes it.
    overview what the page is told about the whole server.
    """

    def __init__(self, face: Face, voice: Voice, limits: Limits,
                 overview: Callable[[], Dict[str, Any]]) -> None:
        self.id = secrets.token_urlsafe(16)
        self.face = face
        self.ended = asyncio.Event()
        self.picture, self.sound = Picture(), Sound()
        self._voice, self._limits, self._overview = voice, limits, overview
        self._requests = Bucket(limits.requests_per_s, 2 * limits.requests_per_s)
        self._peer = RTCPeerConnection(RTCConfiguration(iceServers=[]))
        self._channel: Any = None
        self._tasks: "Set[asyncio.Task[Any]]" = set()
        self._speaking: "Optional[asyncio.Task[str]]" = None
        self._listening = self._measuring = False
        self._last = (0, 0)
        self._closing: "Optional[asyncio.Task[None]]" = None
        self._peer.on("connectionstatechange", self._connection_changed)
        self._peer.on("datachannel", self._channel_opened)
        self._peer.on("track", self._track_came)

    async def answer(self, sdp: str) -> str:
        """The answer to a page's offer, with every candidate in it."""
        self._start(self._watch())
        try:
            offer = RTCSessionDescription(_without_names(sdp), "offer")
            await self._peer.setRemoteDescription(offer)
            for track in (self.sound, self.picture):
                self._peer.addTrack(track)
            await self._peer.setLocalDescription(await self._peer.createAnswer())
        except asyncio.CancelledError:
            raise
        except Exception as error:  # of all kinds: it parses what a stranger wrote
            log.info("offer refused: %r", error)
            raise Refused("this offer cannot be answered") from error
        answer: str = self._peer.localDescription.sdp
        return answer

    @property
    def late(self) -> int:
        """Times that a speech frame was due and not there."""
        return self._frames()[0]

    @property
    def left_out(self) -> int:
        """Speech frames that were never shown."""
        return self._frames()[1]

    def _frames(self) -> Tuple[int, int]:
        try:
            latency = self.face.latency()
            self._last = (latency.late_slots,
                          latency.frames_left_out_late + latency.frames_left_out_failed)
        except ZorvError:
            pass  # closed: what was known then
        return self._last

    async def close(self) -> None:
        """Ends the connection and the face, and gives their memory back."""
        if self._closing is None:
            self._closing = asyncio.ensure_future(self._close())
        await asyncio.shield(self._closing)

    async def _close(self) -> None:
        self.ended.set()
        tasks = list(self._tasks)
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        try:
            await asyncio.wait_for(self._peer.close(), QUIET_S / 2)
        except Exception as error:  # the face is closed whatever becomes of the connection
            log.info("closing the connection: %r", error)
        self._peer.remove_all_listeners()
        if self._channel is not None:
            self._channel.remove_all_listeners()
        self._frames()
        await asyncio.to_thread(self.face.close)

    # What the page asks for.

    def say(self, text: str) -> None:
        """Interrupts what is spoken and speaks a text."""
        text = text.strip()
        if not text:
            raise Refused("there is nothing to say")
        if len(text) > TEXT_LENGTH:
            raise Refused(f"a text may have {TEXT_LENGTH} characters")
        self._speak(self._voice.speak(text))

    async def play(self, pieces: AsyncIterator[bytes]) -> None:
        """Interrupts what is spoken and speaks a sound; raises Refused when it was not all spoken."""
        if not self._requests.take():
            raise Refused("too many requests", 429)
        task = self._speak(pieces)
        try:
            await asyncio.wait([task], timeout=UPLOAD_S)
            if not task.done():
                raise Refused("the sound took too long to arrive", 408)
            if task.cancelled():
                raise Refused("interrupted", 409)
            refused = task.result()
            if refused:
                raise Refused(refused, 413)
        finally:
            task.cancel()

    def interrupt(self) -> None:
        """Quiet: nothing of what was said is sent any more, whoever holds it."""
        if self._speaking is not None:
            self._speaking.cancel()
            self._speaking = None
        self._listening = False
        self.face.interrupt()
        self.sound.clear()
        self.picture.clear()

    def handle(self, message: Any) -> None:
        """One message of the page."""
        try:
            if not self._requests.take():
                raise Refused("too many requests")
            if not isinstance(message, str) or len(message) > MESSAGE_BYTES:
                raise Refused("a message is a short text")
            try:
                request = json.loads(message)
            except (ValueError, RecursionError):
                request = None
            if not isinstance(request, dict):
                raise Refused("a message is a JSON object")
            self._obey(request)
        except (Refused, ZorvError) as error:
            self.tell({"error": str(error)})

    def _obey(self, request: Dict[str, Any]) -> None:
        if isinstance(request.get("say"), str):
            self.say(request["say"])
        elif request.get("stop") is True:
            self.interrupt()
        elif request.get("mic") is True:
            self.interrupt()
            self._listening = True
            self.tell({"mic": True})
        elif request.get("mic") is False:
            self._mute()
        elif isinstance(request.get("measure"), bool):
            self._measuring = request["measure"]
        elif isinstance(request.get("tone"), int):
            most = int(25 * self._limits.speech_s)
            self._speak(_at_once(tone(max(0, min(request["tone"], most)))))
        elif request.get("alive") is not True:  # which only shows that the page is there
            raise Refused("a message that nobody knows")

    def _speak(self, pieces: AsyncIterator[bytes]) -> "asyncio.Task[str]":
        self.interrupt()
        self._speaking = self._start(self._push(pieces))
        return self._speaking

    async def _push(self, pieces: AsyncIterator[bytes]) -> str:
        """Why not everything was pushed, else ""."""
        left = self._limits.speech_bytes
        try:
            async for piece in pieces:
                self.face.push(piece[:left])
                left -= len(piece)
                if left < 0:
                    raise Refused(f"only {self._limits.speech_s:g} s are spoken at a time")
        except (Refused, VoiceError, ZorvError) as error:
            self.tell({"error": str(error)})
            return str(error)
        finally:
            # After an interrupt the utterance is another one's, and has its own end.
            if self._speaking is asyncio.current_task():
                self._speaking = None
                self.face.end()
            await _closed(pieces)
        return ""

    # What it is told.

    def tell(self, message: Dict[str, Any]) -> None:
        if self._channel is not None and self._channel.readyState == "open":
            self._channel.send(json.dumps(message))

    def _status(self) -> Dict[str, Any]:
        stats, (late, left_out) = self.face.stats(), self._frames()
        return {"state": stats.state, "ready": self.face.ready, "pulled": stats.frames_pulled,
                "first_frame_ms": stats.first_frame_latency_ms, "render_ms": stats.render_ms,
                "late": late, "sent": self.picture.sent,
                "encode_ms": 1000 * self.picture.encode_s, "stalls": self.picture.stalls,
                "skipped": self.picture.skipped + left_out, **self._overview()}

    async def _send_status(self) -> None:
        while True:
            self.tell(self._status())
            await asyncio.sleep(STATUS_S)

    async def _send_events(self) -> None:
        async for event in self.face.events():
            self.tell({"event": event.type, "utterance": event.utterance,
                       "samples": event.samples, "reason": event.reason})

    # The connection.

    def _connection_changed(self) -> None:
        state = self._peer.connectionState
        if state == "connected" and not self.ended.is_set():
            self._start(self._show())
        elif state in ("failed", "closed"):
            self.ended.set()

    def _channel_opened(self, channel: Any) -> None:
        if self._channel is not None or channel.label != "control":
            channel.close()
            return
        self._channel = channel
        channel.on("message", self.handle)
        channel.on("close", self.ended.set)
        self._start(self._send_status())
        self._start(self._send_events())

    def _track_came(self, track: Any) -> None:
        if track.kind == "audio":
            self._start(self._hear(track))

    async def _show(self) -> None:
        async for frame in self.face.frames():
            if self._measuring:
                timecode.draw(frame, RATE // 25)
            self.picture.put(frame)
            self.sound.put(frame)

    async def _hear(self, track: Any) -> None:
        """The microphone; while it is switched off its sound is dropped."""
        loop = asyncio.get_running_loop()
        resampler = av.AudioResampler(format="s16", layout="mono", rate=RATE)
        begin, heard = 0.0, 0
        try:
            while True:
                packet = await track.recv()
                if not self._listening:
                    begin, heard = loop.time(), 0
                    continue
                for frame in resampler.resample(packet):
                    heard += frame.samples
                    if heard <= (loop.time() - begin + 1) * RATE:  # no faster than it sounds
                        self.face.push(bytes(frame.planes[0])[:2 * frame.samples])
                if heard >= self._limits.speech_s * RATE:
                    self._mute()
        except MediaStreamError:
            pass  # it has ended

    def _mute(self) -> None:
        if self._listening:
            self._listening = False
            self.face.end()
        self.tell({"mic": False})

    async def _watch(self) -> None:
        """Ends the session when nothing comes from the viewer any more. Counts looks, not time: where
        the server itself stands still, the viewer is not to blame."""
        received, left = 0, CONNECT_S
        while left > 0 and not self.ended.is_set():
            await asyncio.sleep(LOOK_S)
            left -= LOOK_S
            now = await self._received()
            if now != received:
                received, left = now, QUIET_S
        self.ended.set()

    async def _received(self) -> int:
        """Packets of any kind so far."""
        for sender in self._peer.getSenders():
            for report in (await sender.getStats()).values():
                if report.type == "transport":
                    return int(report.packetsReceived)
        return 0

    def _start(self, work: "Coroutine[Any, Any, T]") -> "asyncio.Task[T]":
        task = asyncio.create_task(work)
        self._tasks.add(task)
        task.add_done_callback(self._stopped)
        return task

    def _stopped(self, task: "asyncio.Task[Any]") -> None:
        self._tasks.discard(task)
        if not task.cancelled() and task.exception() is not None:
            log.warning("session ends: %r", task.exception())
            self.tell({"error": str(task.exception())})
            self.ended.set()


def _without_names(sdp: str) -> str:
    """Browsers hide their addresses behind names that only their own network can look up, a second each
    where nobody answers. They are not needed: the viewer's packets tell where it is. Until they come
    an address must stand there, so one at which nobody is."""
    return re.sub(r"^(a=candidate:\S+ \d+ \S+ \d+) \S+\.local \d+", r"\1 127.0.0.1 9", sdp, flags=re.M)


async def _at_once(pieces: Any) -> AsyncIterator[bytes]:
    for piece in pieces:
        yield piece
        await asyncio.sleep(0)


async def _closed(pieces: AsyncIterator[bytes]) -> None:
    close = getattr(pieces, "aclose", None)
    if close is not None:
        await close()
