"""The live page's server with viewers in the same process, and what strangers may try.

    web_test.py    with ZORV_LIBRARY, PYTHONPATH and ZORV_DEMO_DIR
"""
import asyncio
import gc
import json
import os
import re
import sys
import tempfile
import time
import unittest
from array import array
from fractions import Fraction
from pathlib import Path
from statistics import median
from unittest import mock

import aiohttp
from aiortc import MediaStreamTrack, RTCConfiguration, RTCPeerConnection, RTCSessionDescription
from aiortc.mediastreams import MediaStreamError
from yarl import URL
from zorv.web import capacity
from zorv.web.limits import MESSAGE_BYTES, TEXT_LENGTH, Limits
from zorv.web.server import Options, Server
from zorv.web.speech import Voice, VoiceError, sound_frame, tone
from zorv.web.timecode import CELLS

DEMO = os.environ["ZORV_DEMO_DIR"]
# Says a second of sound, then nothing until it is ended; leaves its number.
ENDLESS = (f"{sys.executable} -c \"import sys,os,time; open(sys.argv[1],'w').write(str(os.getpid()));"
           "sys.stdout.buffer.write(b'abcd'*8000); sys.stdout.flush(); time.sleep(600)\" ")


class Microphone(MediaStreamTrack):
    """A tone without an end, in packets of 20 ms."""

    kind = "audio"
    sent = 0

    async def recv(self):
        await asyncio.sleep(0.02)
        piece = next(tone(1))[:1920]
        frame = sound_frame(piece, 48000)
        frame.pts, frame.time_base = 960 * self.sent, Fraction(1, 48000)
        self.sent += 1
        return frame


class Viewer:
    """A peer that decodes everything it gets."""

    async def open(self, http, url, status=201):
        self.frames, self.packets, self.messages, self.news = [], [], [], asyncio.Condition()
        self.peer = RTCPeerConnection(RTCConfiguration(iceServers=[]))
        self.channel = self.peer.createDataChannel("control")
        self.channel.on("message", lambda text: asyncio.ensure_future(self.note(json.loads(text))))
        self.peer.addTransceiver("video", direction="recvonly")
        self.peer.addTrack(Microphone())
        self.tasks = []
        self.peer.on("track", lambda track: self.tasks.append(asyncio.ensure_future(self.take(track))))
        await self.peer.setLocalDescription(await self.peer.createOffer())
        # aiortc gives extensions of sound and picture the same number, and reads one as the other.
        sdp = re.sub("a=extmap:.*ssrc-audio-level\r\n", "", self.peer.localDescription.sdp)
        # Browsers do not tell where they are.
        sdp = re.sub(r"(a=candidate:\S+ \d+ \S+ \d+) \S+", r"\1 name-of-nobody.local", sdp)
        offer = {"type": "offer", "sdp": sdp}
        async with http.post(url + "session", json=offer) as answer:
            self.answer = await answer.json()
            assert answer.status == status, self.answer
        if status == 201:
            await self.peer.setRemoteDescription(RTCSessionDescription(self.answer["sdp"], "answer"))
            await self.until(lambda: self.messages and self.frames and self.packets)
        return self

    async def note(self, message):
        async with self.news:
            self.messages.append(message)
            self.news.notify_all()

    async def take(self, track):
        try:
            while True:
                data = await track.recv()
                async with self.news:
                    if track.kind == "video":
                        self.frames.append((data.pts, code_of(data)))
                    else:
                        self.packets.append((data.pts, crossings(data)))
                    self.news.notify_all()
        except MediaStreamError:
            pass

    async def until(self, judge):
        async with self.news:
            await asyncio.wait_for(self.news.wait_for(judge), 30)

    async def told(self, *names, **fields):
        """Waits for a message that has these fields, and forgets it and those before it."""
        def at():
            return next((i for i, message in enumerate(self.messages)
                         if fields.items() <= message.items() and set(names) <= set(message)), None)
        await self.until(lambda: at() is not None)
        i = at()
        found, self.messages = self.messages[i], self.messages[i + 1:]
        return found

    def send(self, **message):
        self.channel.send(json.dumps(message))

    async def close(self):
        await self.peer.close()
        await asyncio.gather(*self.tasks)


def code_of(frame):
    """What a time code says: pts, whether it is speech, its place; None when there is none."""
    size = frame.width // CELLS & ~1
    row = memoryview(frame.planes[0]).cast("B")[size // 2 * frame.planes[0].line_size:]
    bits = "".join("01"[row[i * size + size // 2] > 128] for i in range(CELLS))
    if bits[:2] != "10" or bits[2:30].count("1") != int(bits[30:], 2):
        return None
    return int(bits[2:18], 2), bits[18] == "1", int(bits[19:30], 2)


def crossings(frame):
    """Changes of sign of a loud packet; 0 of a quiet one. Of stereo, the left channel's."""
    samples = array("h", bytes(frame.planes[0]))[:2 * frame.samples:2]
    if max(samples) < 2000:
        return 0
    return sum(a * b < 0 for a, b in zip(samples, samples[1:]))


async def pieces(data, count):
    for _ in range(count):
        yield data


class Web(unittest.IsolatedAsyncioTestCase):
    async def serve(self, **options):
        asyncio.get_running_loop().set_debug(False)  # it logs whatever a busy machine makes slow
        options.setdefault("sessions", 2)
        server = await Server.open(Options(f"{DEMO}/bundle", f"{DEMO}/motion", port=0, **options))
        self.addAsyncCleanup(server.close)
        self.url, self.server = server.url, server
        self.http = aiohttp.ClientSession(headers={"Origin": server.url.rstrip("/")})
        self.addAsyncCleanup(self.http.close)

    async def viewer(self):
        viewer = await Viewer().open(self.http, self.url)
        self.addAsyncCleanup(viewer.close)
        return viewer

    async def status(self, method, path, **options):
        async with self.http.request(method, URL(self.url + path, encoded=True), **options) as answer:
            return answer.status, await answer.text()

    async def sessions(self, count):
        while len(self.server.sessions) != count:
            await asyncio.sleep(0.02)

    async def test_sound_and_picture_arrive_in_order_and_belong_together(self):
        await self.serve()
        viewer = await self.viewer()
        viewer.send(measure=True)
        viewer.send(tone=60)
        self.assertEqual((await viewer.told(event="started"))["utterance"], 1)
        self.assertEqual((await viewer.told(event="finished"))["samples"], 60 * 1920)
        last = viewer.frames[-1][0] + 90000
        await viewer.until(lambda: viewer.frames[-1][0] > last)
        stamps = [pts for pts, _ in viewer.frames]
        self.assertEqual(stamps, sorted(set(stamps)))
        speech = [(pts, code) for pts, code in viewer.frames if code and code[1]]
        self.assertGreater(len(speech), 5)
        # The time stamps are the engine's: the code's pts, 3600 ticks each.
        base = speech[0][0] - 3600 * speech[0][1][0]
        for pts, (number, _, place) in speech:
            self.assertEqual((pts, number - place), (base + 3600 * number, speech[0][1][0] - speech[0][1][2]))
        # A mark in the sound begins where the picture of its place does, to one packet.
        heard = [(pts, kind) for pts, kind in viewer.packets if kind]
        marks = [pts for (_, before), (pts, kind) in zip([(0, 60)] + heard, heard) if kind < 40 <= before]
        self.assertEqual(len(marks), 6)
        for k, pts in enumerate(marks):
            self.assertAlmostEqual(pts - marks[0], k * 19200, delta=960)
        self.assertAlmostEqual(heard[-1][0] - heard[0][0], 60 * 1920 - 960, delta=960)

        viewer.send(tone=1000)
        await viewer.told(event="started", utterance=2)
        viewer.send(stop=True)
        self.assertLess((await viewer.told(event="interrupted", utterance=2))["samples"], 1000 * 1920)
        status, text = await self.status("POST", f"session/{viewer.answer['id']}/sound",
                                         data=b"".join(tone(30)))
        self.assertEqual((status, text), (204, ""))
        self.assertEqual((await viewer.told(event="finished", utterance=3))["samples"], 30 * 1920)
        viewer.send(mic=True)
        await viewer.told(event="started", utterance=4)
        viewer.send(mic=False)
        await viewer.told(event="finished", utterance=4)

        status, text = await self.status("GET", "metrics")
        values = dict(line.rsplit(" ", 1) for line in text.splitlines() if line[0] != "#")
        self.assertTrue(all(re.fullmatch(r'[a-z]\w*({\w+="[^"]*"(,\w+="[^"]*")*})?', name)
                            and float(value) >= 0 for name, value in values.items()), text)
        self.assertEqual((values["zorv_web_sessions"], values["zorv_web_sessions_limit"]), ("1", "2"))
        self.assertGreaterEqual(int(values["zorv_utterance_first_frame_duration_seconds_count"]), 4)
        self.assertEqual(values['zorv_utterance_first_frame_duration_seconds_bucket{le="+Inf"}'],
                         values["zorv_utterance_first_frame_duration_seconds_count"])
        self.assertGreaterEqual(int(values["zorv_utterance_interrupts_total"]), 1)
        self.assertGreaterEqual(int(values["zorv_web_frames_sent_total"]), len(stamps))
        for name in ("late", "skipped"):
            self.assertIn(f"zorv_web_frames_{name}_total", values)

    async def test_a_voice_is_spoken_while_it_talks_and_ends_with_its_line(self):
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        await self.serve(tts=f"{ENDLESS}{folder}/number", tts_rate=16000)
        viewer = await self.viewer()
        viewer.send(say="Anything.")
        await viewer.told(event="started", utterance=1)  # while the program goes on
        number = int((folder / "number").read_text())
        os.kill(number, 0)
        viewer.send(stop=True)
        await viewer.told(event="interrupted", utterance=1)
        while os.path.exists(f"/proc/{number}"):
            await asyncio.sleep(0.02)
        # No shell sees a text: the program reads it as it is, and nothing else happens.
        text = f"$(touch {folder}/a) `touch {folder}/b`; touch {folder}/c | -x 'ü\" > {folder}/d"
        viewer_voice = Voice(f"tee {folder}/heard", 8000)
        self.assertTrue(b"".join([piece async for piece in viewer_voice.speak(text)]))
        self.assertEqual((folder / "heard").read_text(), text)
        self.assertEqual(sorted(os.listdir(folder)), ["heard", "number"])
        with self.assertRaisesRegex(VoiceError, "WAV"):
            await Voice("false").speak(text).__anext__()

    async def test_strangers_get_nothing(self):
        await self.serve(limits=Limits(speech_s=2, requests_per_s=4, sessions_per_s=2))
        origin = self.url.rstrip("/")
        viewer = await self.viewer()
        self.assertEqual(set(re.findall(r"^a=candidate:\S+ \d \S+ \d+ (\S+)", viewer.answer["sdp"], re.M)),
                         {"127.0.0.1"})
        sound = f"session/{viewer.answer['id']}/sound"
        for headers in ({"Origin": "https://elsewhere.example"}, {"Origin": "null"}, {"Origin": ""},
                        {"Origin": "http://elsewhere.example", "Host": "elsewhere.example"},
                        {"Origin": origin + ".elsewhere.example"}):
            for path in ("session", sound):
                self.assertEqual((await self.status("POST", path, headers=headers, data=b""))[0], 403)
        async with aiohttp.ClientSession() as bare, bare.post(self.url + sound) as answer:
            self.assertEqual(answer.status, 403)
        for method, path, data, wanted in (
                ("POST", sound, bytes(2 * 48000 * 2 + 2), 413),
                ("POST", sound, pieces(bytes(48000), 5), 413),  # without a length
                ("POST", "session/unknown/sound", b"", 404), ("POST", "session", b"x" * 70000, 413),
                ("POST", "session", b"[" * 60000, 400), ("POST", "session", b'{"type": "offer"}', 400),
                ("POST", "session", b'{"type": "offer", "sdp": "v=0"}', 400),
                ("PUT", "session", b"", 405), ("GET", "page.html", None, 404),
                ("GET", "../server.py", None, 404), ("GET", "%2e%2e/%2e%2e/etc/passwd", None, 404),
                ("GET", "session/..%2f..%2fserver.py/sound", None, 405)):
            with self.subTest(f"{method} {path}"):
                status, text = await self.status(method, path, data=data)
                self.assertEqual(status, wanted, text)
                self.assertNotRegex(text, "import|root:|Traceback")
        viewer.send(tone=10**9)  # is spoken as long as an utterance may be, and no longer
        self.assertEqual((await viewer.told(event="finished"))["samples"], 2 * 48000)
        viewer.send(mic=True)
        await viewer.told(mic=True)
        await viewer.told(mic=False)
        with mock.patch("zorv.web.limits.time", mock.Mock(**{"monotonic.return_value": time.monotonic()})):
            statuses = [(await self.status("POST", "session", data=b"x"))[0] for _ in range(10)]
        self.assertIn(429, statuses)
        for message in ("x" * (MESSAGE_BYTES + 1), "nothing", "[1]", "[" * 5000, '{"unknown": 1}',
                        json.dumps({"say": "x" * (TEXT_LENGTH + 1)}), '{"say": " "}', b"\0\1"):
            await asyncio.sleep(0.3)  # slow enough for the limit of requests
            viewer.messages.clear()
            viewer.channel.send(message)
            self.assertRegex((await viewer.told("error"))["error"], "message|text|nothing")
        for _ in range(20):
            viewer.send(stop=True)
        while (await viewer.told("error"))["error"] != "too many requests":
            pass

    async def test_full_is_said_and_who_leaves_makes_room(self):
        await self.serve()
        first, second = await self.viewer(), await self.viewer()
        third = await Viewer().open(self.http, self.url, status=503)
        self.assertRegex(third.answer["error"], "^Full: this machine carries 2 viewers")
        await third.close()
        for viewer in (first, second):  # nobody suffers
            shown = len(viewer.frames)
            await viewer.until(lambda: len(viewer.frames) > shown + 25)
        await first.close()
        await self.sessions(1)
        async def lost(*_): pass
        connection = second.peer.sctp.transport.transport._connection  # the network is lost: no goodbye
        connection.send = connection.sendto = lost
        began = asyncio.get_running_loop().time()
        await self.sessions(0)
        self.assertGreater(asyncio.get_running_loop().time() - began, 1)  # it was not told
        status, text = await self.status("GET", "health")
        self.assertEqual((json.loads(text)["sessions"], json.loads(text)["status"]), (0, "ok"))

    async def test_fifty_sessions_leave_no_memory_behind(self):
        await self.serve(limits=Limits(sessions_per_s=1000))
        memory = []
        for _ in range(50):
            viewer = await Viewer().open(self.http, self.url)
            await viewer.close()
            await self.sessions(0)
            gc.collect()
            memory.append(capacity.own_memory() / 2**20)
        self.assertLess(median(memory[40:]) - median(memory[10:20]), 12, memory)


if __name__ == "__main__":
    unittest.main()
