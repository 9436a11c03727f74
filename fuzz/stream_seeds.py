"""Seeds of stream_fuzz: programs of its steps."""
import random
import struct

SPEECH, LOUD, SPECIAL_WITHIN, SPECIAL, FLOATS = 1, 3, 5, 6, 7
AVAIL, FINISH = bytes([8]), bytes([15])
FORWARD = bytes([0])


def push(samples, flavour=SPEECH | 15 << 3, more=b""):
    pieces = [60000] * (samples // 60000) + [samples % 60000]
    return b"".join(bytes([0]) + struct.pack("<HB", n, flavour) + more for n in pieces)


def pull(most):
    return bytes([9, most])


def deltas(samples):
    return bytes([12]) + struct.pack("<HB", samples, SPEECH | 15 << 3)


def eager(value):
    return bytes([13]) + struct.pack("b", value)


def reset(frame, flags=0):
    return bytes([14, flags | 4]) + struct.pack("<i", frame)


def streams():
    """Name -> program without its first two bytes, the engine and the comparison."""
    rng = random.Random(3)

    def cuts(total, longest):
        while total > 0:
            n = min(total, rng.randrange(longest))
            yield n
            total -= n
    return {
        "empty": FORWARD,
        "polled": FORWARD + b"".join(push(n) + pull(rng.randrange(12)) for n in cuts(100000, 9000)),
        "edges": FORWARD + b"".join(push(n) + AVAIL for n in (0, 1, 639, 1, 640, 51199, 1280, 3200, 4480, 45000)),
        "never_asked": FORWARD + b"".join(push(n) for n in cuts(140000, 20000)),
        "not_numbers": FORWARD + b"".join(
            push(7000) + push(900, SPECIAL | which << 3) + push(9000, SPECIAL_WITHIN | which << 3, b"\x99\x03") + pull(30)
            for which in range(8)),
        "loud_and_faint": FORWARD + b"".join(push(9000, LOUD | power << 3) + pull(9) for power in range(0, 32, 2)),
        "raw": FORWARD + push(20, FLOATS, struct.pack("<20f", *[0.25, -3e38] * 10)) + AVAIL + push(60000) + pull(99),
        "eager": FORWARD + eager(1) + b"".join(push(1000) + pull(3) for _ in range(30)) + eager(0) + pull(99),
        "eager_left": FORWARD + eager(3) + b"".join(push(5000) + AVAIL for _ in range(18)) + eager(0) + pull(200)
                      + push(9000) + pull(80),
        "adaptive": bytes([2]) + eager(-1) + b"".join(push(3000) + pull(2) for _ in range(30)),
        "resets": FORWARD + push(60000) + pull(4) + reset(2, 3) + push(30000) + AVAIL + reset(-2**31, 1)
                  + push(20000) + pull(20) + reset(2**31 - 1, 2) + push(30000) + pull(255),
        "after_the_end": FORWARD + push(40000) + pull(9) + FINISH + pull(255) + push(9000) + pull(255) + deltas(9000)
                         + push(30000) + AVAIL,
        "clip_between": FORWARD + push(30000) + deltas(17000) + pull(5) + push(30000) + deltas(1) + pull(90),
    }


def stream(_):
    """Each with the motion engine and two of the four others, the comparisons by turns."""
    return {f"{name}_{engine}": bytes([engine, (i + engine) % 3]) + program
            for i, (name, program) in enumerate(streams().items())
            for engine in (0, 1 + i % 4, 3)}
