"""Shows a face on a page that makes it talk.

    python3 -m zorv.web BUNDLE --motion DIR [--port 8080]
"""
import argparse
import asyncio
import logging
import signal
import sys
from typing import List, Optional

from zorv import ZorvError

from .limits import Limits
from .server import Options, Server
from .speech import ESPEAK


def parsed(arguments: Optional[List[str]] = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="python3 -m zorv.web", description=__doc__.split("\n")[0])
    add = parser.add_argument
    add("bundle", metavar="BUNDLE", help="the subject's directory")
    add("--motion", metavar="DIR", required=True, help="directory of its motion models")
    add("--encoder", metavar="FILE", help="speech encoder of expression models")
    add("--threads", type=int, default=1, help="model threads of each session (1)")
    add("--host", default="127.0.0.1", help="address to listen on (127.0.0.1: this machine alone)")
    add("--port", type=int, default=8080, help="(8080; 0: a free one)")
    add("--origin", action="append", default=[], metavar="URL",
        help="another page's origin that may open sessions, https://example.org")
    add("--sessions", type=int, metavar="N",
        help="viewers at a time (default: measured at the start)")
    add("--seconds", type=float, default=Limits.speech_s,
        help="the longest utterance (%(default)g)")
    add("--tts", default=ESPEAK, metavar="COMMAND",
        help="reads a text on standard input, writes mono sound; no shell sees it (%(default)s)")
    add("--tts-rate", type=int, metavar="HZ",
        help="of its 16-bit little-endian samples; without it, it writes a WAV file")
    options = parser.parse_args(arguments)
    if options.sessions is not None and options.sessions < 1:
        parser.error("--sessions must be 1 or more")
    if not 1 <= options.seconds <= 600:
        parser.error("--seconds must be from 1 to 600")
    if options.tts_rate is not None and not 4000 <= options.tts_rate <= 192000:
        parser.error("--tts-rate must be from 4000 to 192000")
    return options


async def serve(options: argparse.Namespace) -> None:
    stop = asyncio.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        asyncio.get_running_loop().add_signal_handler(number, stop.set)
    if options.sessions is None:
        print("measuring how many viewers this machine carries ...", flush=True)
    server = await Server.open(Options(
        options.bundle, options.motion, options.encoder, options.threads, options.host,
        options.port, options.sessions, frozenset(options.origin), options.tts, options.tts_rate,
        Limits(speech_s=options.seconds)))
    try:
        if server.cost is not None:
            print(f"one takes {server.cost.cores:.2f} cores while it speaks")
        print(f"{server.url}  up to {server.limit} at a time; end with Ctrl-C", flush=True)
        await stop.wait()
    finally:
        await server.close()


def main() -> int:
    logging.basicConfig(level=logging.WARNING, format="%(name)s: %(message)s")
    try:
        asyncio.run(serve(parsed()))
    except (ZorvError, OSError, ValueError) as error:
        print(f"zorv.web: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
