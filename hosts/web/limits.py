"""What a visitor may ask for, and how often."""
import time
from dataclasses import dataclass

RATE = 48000  # Hz of all sound between the page, the face and its viewer
OFFER_BYTES = 64 * 1024  # of a session's description
TEXT_LENGTH = 1000  # characters of one request
MESSAGE_BYTES = 8 * 1024
CONNECT_S = 8.0  # from the answer to the first packet
QUIET_S = 7.0  # without a packet of the viewer, after which it is gone
UPLOAD_S = 30.0  # that a file may take to arrive


@dataclass(frozen=True)
class Limits:
    """Of one visitor."""

    speech_s: float = 60.0  #: of one utterance, whatever it comes from
    requests_per_s: float = 10.0  #: messages and files of one session
    sessions_per_s: float = 5.0  #: opened by all visitors together

    @property
    def speech_bytes(self) -> int:
        return 2 * int(self.speech_s * RATE)


class Bucket:
    """Lets `rate` requests per second pass, after a pause up to `burst` at once."""

    def __init__(self, rate: float, burst: float) -> None:
        self._rate, self._burst = rate, burst
        self._left, self._at = burst, time.monotonic()

    def take(self) -> bool:
        """Whether one more may pass now."""
        now = time.monotonic()
        self._left = min(self._burst, self._left + (now - self._at) * self._rate)
        self._at = now
        if self._left < 1:
            return False
        self._left -= 1
        return True
