"""The page, its sessions, and what they cost."""
import asyncio
import base64
import ctypes
import gc
import hashlib
import ipaddress
import json
import logging
import re
import resource
import socket
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, AsyncIterator, Awaitable, Callable, Dict, FrozenSet, Optional

from aiohttp import web
from aioice import ice
from aioice.ice import get_host_addresses
from aiortc.codecs import vpx

from zorv import Face, ZorvError

from . import capacity, metrics
from .limits import OFFER_BYTES, RATE, UPLOAD_S, Bucket, Limits
from .session import Refused, Session
from .speech import ESPEAK, Voice

DRAIN_S = 5.0
BITRATE = 2_000_000  # bits per second of the picture
M_MMAP_THRESHOLD = -3  # of malloc.h
log = logging.getLogger("zorv.web")
Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


@dataclass(frozen=True)
class Options:
    """How the server is run."""

    bundle: str
    motion: str
    encoder: Optional[str] = None
    threads: int = 1  #: of each session's models
    host: str = "127.0.0.1"
    port: int = 8080  #: 0: a free one
    sessions: Optional[int] = None  #: at a time; None: as many as the machine carries
    origins: FrozenSet[str] = frozenset()  #: besides the server's own addresses
    tts: str = ESPEAK
    tts_rate: Optional[int] = None  #: Hz; None: the program writes a WAV file
    limits: Limits = field(default_factory=Limits)


class Server:
    """Start it with ``await Server.open(options)``, end it with ``close``."""

    def __init__(self, options: Options) -> None:
        self.options = options
        self.sessions: Dict[str, Session] = {}
        self.limit = options.sessions or 1
        self.cost: Optional[capacity.Cost] = None
        self.url = ""
        self._voice = Voice(options.tts, options.tts_rate)
        self._telemetry = metrics.Telemetry()
        self._opening = 0
        self._visitors = Bucket(options.limits.sessions_per_s, 4 * options.limits.sessions_per_s)
        self._counts = {"opened": 0, "refused": 0, "late": 0, "skipped": 0, "sent": 0}
        self._keeper: Optional[Face] = None
        self._runner: Optional[web.AppRunner] = None
        self._origins: FrozenSet[str] = frozenset()
        self._ends: "set[asyncio.Task[None]]" = set()
        self._load = (time.monotonic(), time.process_time(), 0.0)
        page = (Path(__file__).parent / "page.html").read_text()
        self._page = page.encode()
        self._headers = {
            "Content-Security-Policy": _policy(page), "X-Content-Type-Options": "nosniff",
            "Referrer-Policy": "no-referrer", "Cache-Control": "no-store",
            "Cross-Origin-Resource-Policy": "same-origin"}

    @classmethod
    async def open(cls, options: Options) -> "Server":
        """Loads the subject, measures the machine unless the number of sessions is given, listens."""
        server = cls(options)
        try:
            await server._open()
        except BaseException:
            await server.close()
            raise
        return server

    async def _open(self) -> None:
        _tune_memory()
        _tune_encoder()
        if _loopback(self.options.host):
            _ice_on_loopback()
        # Sessions come and go; this one keeps what they share: weights and decoded frames.
        self._keeper = await self._open_face()
        await capacity.warm(self._keeper)
        if self.options.sessions is None:
            self.cost = await capacity.measure(self._open_face)
            self.limit = capacity.fitting(self.cost)
        app = web.Application(client_max_size=OFFER_BYTES, middlewares=[self._guard])
        app.router.add_get("/", self._get_page)
        app.router.add_get("/health", self._get_health)
        app.router.add_get("/metrics", self._get_metrics)
        app.router.add_post("/session", self._post_session)
        app.router.add_post("/session/{id}/sound", self._post_sound)
        gc.collect()
        gc.freeze()  # what is there now stays: collecting what a session leaves need not look at it
        self._runner = web.AppRunner(app, access_log=None, handle_signals=False)
        await self._runner.setup()
        site = web.TCPSite(self._runner, self.options.host, self.options.port)
        await site.start()
        host, port = self._runner.addresses[0][:2]
        self.url = f"http://{_bracketed(host)}:{port}/"
        names = {host, self.options.host}
        everywhere = ipaddress.ip_address(host).is_unspecified
        if everywhere or _loopback(host):
            names |= {"localhost", "127.0.0.1", "::1"}
        if everywhere:
            names |= {socket.gethostname(), *get_host_addresses(use_ipv4=True, use_ipv6=True)}
        self._origins = self.options.origins | {f"http://{_bracketed(name)}:{port}" for name in names}

    async def close(self) -> None:
        """Ends every session and stops listening."""
        if self._runner is not None:
            await self._runner.cleanup()
        await asyncio.gather(*(session.close() for session in self.sessions.values()))
        await asyncio.gather(*self._ends)
        if self._keeper is not None:
            await asyncio.to_thread(self._keeper.close)

    async def _open_face(self) -> Face:
        options = self.options
        return await Face.open(options.bundle, options.motion, encoder=options.encoder,
                               pixels="i420", rate=RATE, idle_ahead=1, threads=options.threads)

    # Requests.

    @web.middleware
    async def _guard(self, request: web.Request, handler: Handler) -> web.StreamResponse:
        """A request that changes something comes from a page of this server, or from one that the
        operator named: whatever name of this machine the visitor's browser was told."""
        try:
            if request.method not in ("GET", "HEAD") \
                    and request.headers.get("Origin") not in self._origins:
                raise Refused("this page may not do that here", 403)
            answer = await handler(request)
        except web.HTTPException as error:
            answer = _said(error.status, error.reason)
            await _drain(request, 4 * self.options.limits.speech_bytes)
        except Refused as error:
            answer = _said(error.status, str(error))
            await _drain(request, 4 * self.options.limits.speech_bytes)
        answer.headers.update(self._headers)
        return answer

    async def _get_page(self, request: web.Request) -> web.Response:
        return web.Response(body=self._page, content_type="text/html", charset="utf-8")

    async def _get_health(self, request: web.Request) -> web.Response:
        return web.json_response({"status": "ok", **self.overview()})

    async def _get_metrics(self, request: web.Request) -> web.Response:
        self._telemetry.collect()
        counts = dict(self._counts)
        for session in self.sessions.values():
            _add_frames(counts, session)
        usage = resource.getrusage(resource.RUSAGE_SELF)
        own = {
            "zorv_web_sessions": ("gauge", len(self.sessions)),
            "zorv_web_sessions_limit": ("gauge", self.limit),
            "zorv_web_sessions_opened_total": ("counter", counts["opened"]),
            "zorv_web_sessions_refused_total": ("counter", counts["refused"]),
            "zorv_web_frames_sent_total": ("counter", counts["sent"]),
            "zorv_web_frames_late_total": ("counter", counts["late"]),
            "zorv_web_frames_skipped_total": ("counter", counts["skipped"]),
            "process_cpu_seconds_total": ("counter", usage.ru_utime + usage.ru_stime),
            "process_own_memory_bytes": ("gauge", capacity.own_memory())}
        return web.Response(text=metrics.plain(own) + self._telemetry.text(),
                            headers={"Content-Type": "text/plain; version=0.0.4; charset=utf-8"})

    async def _post_session(self, request: web.Request) -> web.Response:
        if not self._visitors.take():
            raise Refused("too many visitors at once; try again in a moment", 429)
        offer = await _described(request)
        here = sum(not session.ended.is_set() for session in self.sessions.values())
        if here + self._opening >= self.limit:
            self._counts["refused"] += 1
            number = "one viewer" if self.limit == 1 else f"{self.limit} viewers"
            return _said(503, f"Full: this machine carries {number} at a time. "
                              "Try again when one has left.", {"Retry-After": "10"})
        self._opening += 1
        try:
            face = await self._open_face()
            session = Session(face, self._voice, self.options.limits, self.overview)
            self.sessions[session.id] = session
        except ZorvError as error:
            raise Refused(str(error), 500) from error
        finally:
            self._opening -= 1
        self._counts["opened"] += 1
        end = asyncio.ensure_future(self._end(session))
        self._ends.add(end)
        end.add_done_callback(self._ends.discard)
        try:
            answer = await session.answer(offer)
        except BaseException:
            session.ended.set()
            raise
        return web.json_response({"id": session.id, "type": "answer", "sdp": answer,
                                  "rate": RATE, "seconds": self.options.limits.speech_s}, status=201)

    async def _post_sound(self, request: web.Request) -> web.Response:
        session = self.sessions.get(request.match_info["id"])
        if session is None:
            raise Refused("there is no such session", 404)
        most = self.options.limits.speech_bytes
        if (request.content_length or 0) > most:
            raise Refused(f"only {self.options.limits.speech_s:g} s are spoken at a time", 413)
        await session.play(_uploaded(request))
        return web.Response(status=204)

    # Sessions.

    async def _end(self, session: Session) -> None:
        await session.ended.wait()
        await session.close()
        del self.sessions[session.id]
        _add_frames(self._counts, session)
        del session
        gc.collect()  # what a connection leaves behind refers to itself
        await asyncio.to_thread(_trim)

    def overview(self) -> Dict[str, Any]:
        """For every page: how many watch, and what that costs."""
        at, used, cores = self._load
        now = time.monotonic()
        if now - at > 1:
            spent = time.process_time()
            cores = (spent - used) / (now - at)
            self._load = now, spent, cores
        return {"sessions": len(self.sessions), "limit": self.limit, "cores": round(cores, 3),
                "memory_mb": round(capacity.own_memory() / 2**20)}


def _tune_memory() -> None:
    """Large blocks of their own, which go back to the system when they are freed: by itself the C
    library moves them into its heaps after a while, and sessions that come and go tear those up."""
    tune = getattr(ctypes.CDLL(None), "mallopt", None)
    if tune is not None:
        tune(M_MMAP_THRESHOLD, 128 * 1024)


def _trim() -> None:
    """Gives freed memory back to the system, where the C library can."""
    trim = getattr(ctypes.CDLL(None), "malloc_trim", None)
    if trim is not None:
        trim(0)


def _add_frames(counts: Dict[str, int], session: Session) -> None:
    counts["sent"] += session.picture.sent
    counts["skipped"] += session.picture.skipped + session.left_out
    counts["late"] += session.late


def _said(status: int, text: str, headers: Optional[Dict[str, str]] = None) -> web.Response:
    return web.json_response({"error": text}, status=status, headers=headers)


async def _described(request: web.Request) -> str:
    """The description in an offer."""
    try:
        offer = json.loads(await asyncio.wait_for(request.read(), UPLOAD_S))
        sdp = offer["sdp"]
        if offer["type"] != "offer" or not isinstance(sdp, str):
            raise ValueError
    except (ValueError, KeyError, TypeError, RecursionError, asyncio.TimeoutError):
        raise Refused("this is no offer") from None
    return sdp


async def _uploaded(request: web.Request) -> AsyncIterator[bytes]:
    """Whole samples of the body as it arrives."""
    odd = b""
    try:
        async for data in request.content.iter_any():
            data = odd + data
            whole = len(data) & ~1
            odd = data[whole:]
            yield data[:whole]
    except (ConnectionError, web.RequestPayloadError) as error:
        raise Refused("the sound broke off") from error


async def _drain(request: web.Request, most: int) -> None:
    """Reads what still comes, so that a refusal is read: a connection that is closed before its
    request has ended may take the answer with it."""
    async def read() -> None:
        left = most
        async for data in request.content.iter_any():
            left -= len(data)
            if left < 0:
                break
    try:
        await asyncio.wait_for(read(), DRAIN_S)
    except (ConnectionError, web.RequestPayloadError, asyncio.TimeoutError):
        pass


def _policy(page: str) -> str:
    """Nothing but what stands in the page itself."""
    def hashes(tag: str) -> str:
        return " ".join(
            "'sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() + "'"
            for text in re.findall(f"<{tag}>(.*?)</{tag}>", page, re.S))
    return ("default-src 'none'; connect-src 'self'; media-src 'self' blob: mediastream:; "
            f"img-src data:; script-src {hashes('script')}; style-src {hashes('style')}; "
            "base-uri 'none'; form-action 'none'; frame-ancestors 'none'")


def _loopback(host: str) -> bool:
    try:
        return host == "localhost" or ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False


def _bracketed(host: str) -> str:
    return f"[{host}]" if ":" in host else host


def _tune_encoder() -> None:
    """aiortc begins with half a megabit, where a picture of this size falls into blocks; the viewer's
    own estimate, which its browser sends, takes it up and down from there."""
    vpx.DEFAULT_BITRATE, vpx.MAX_BITRATE = BITRATE, 2 * BITRATE


def _ice_on_loopback() -> None:
    """Media, too: by itself it would listen on every address but this one."""
    ice.get_host_addresses = lambda use_ipv4, use_ipv6: ["127.0.0.1"]
