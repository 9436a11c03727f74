"""Seeds of the targets that push audio into an engine, in the form of stream_program.h."""
import random
import struct

FORWARD = bytes([0])
SPEECH, LOUD, SPECIAL, SPECIAL_WITHIN, BYTES, FLOATS = 1, 3, 4, 5, 6, 7


def push(samples, flavour=SPEECH | 15 << 3, more=b""):
    return b"".join(bytes([0]) + struct.pack("<HB", n, flavour) + more for n in pieces(samples))


def pieces(samples):
    while samples > 60000:
        yield 60000
        samples -= 60000
    yield samples


def avail():
    return bytes([8])


def pull(most):
    return bytes([9, most])


def deltas(samples):
    return bytes([12]) + struct.pack("<HB", samples, SPEECH | 15 << 3) + bytes([0])


def eager(value):
    return bytes([13]) + struct.pack("b", value)


def reset(frame=0, flags=0):
    return bytes([14, flags | frame << 3])


def reset_far(frame, flags=0):
    return bytes([14, flags | 4]) + struct.pack("<i", frame)


def finish():
    return bytes([15])


def streams():
    """Name -> program without its first byte, the variant."""
    rng = random.Random(3)
    def cuts(total, longest):
        while total > 0:
            n = min(total, rng.randrange(longest))
            yield n
            total -= n
    polled = FORWARD + b"".join(push(n) + pull(rng.randrange(12)) for n in cuts(100000, 9000))
    edges = FORWARD + b"".join(push(n) + avail() for n in (0, 1, 639, 1, 640, 51199, 1280, 3200, 4480, 45000))
    return {
        "one_push": FORWARD + push(100000),
        "empty": FORWARD,
        "polled": polled,
        "edges": edges,
        "never_asked": FORWARD + b"".join(push(n) for n in cuts(150000, 20000)),
        "not_numbers": FORWARD + b"".join(
            push(7000) + push(900, SPECIAL | which << 3) + push(9000, SPECIAL_WITHIN | which << 3, b"\x99\x03") + pull(30)
            for which in range(8)),
        "loud_and_faint": FORWARD + b"".join(push(9000, LOUD | power << 3) + pull(9) for power in range(0, 32, 2)),
        "raw": FORWARD + push(60000, BYTES | 5 << 3, bytes([0, 10, 99, 200, 128, 1])) + avail()
               + push(60000, FLOATS | 1 << 3, struct.pack("<ff", 0.25, -3e38)) + pull(99),
        "eager": FORWARD + eager(1) + b"".join(push(1000) + pull(3) for _ in range(40)) + eager(0) + pull(99),
        "eager_left": FORWARD + eager(3) + b"".join(push(5000) + avail() for _ in range(18)) + eager(0) + pull(200)
                      + push(9000) + pull(80),
        "eager_left_early": FORWARD + eager(3) + b"".join(push(5000) + avail() for _ in range(5)) + eager(0)
                            + push(9000) + pull(80),
        "adaptive": bytes([2]) + eager(-1) + b"".join(push(3000) + pull(2) for _ in range(30)),
        "resets": FORWARD + push(60000) + pull(4) + reset(2, 3) + push(70000) + avail() + reset_far(-2**31, 1)
                  + push(50000) + pull(20) + reset_far(2**31 - 1, 2) + push(80000) + pull(255),
        "after_the_end": FORWARD + push(40000) + pull(9) + finish() + pull(255) + push(9000) + pull(255) + deltas(9000)
                         + push(30000) + avail(),
        "clip_between": FORWARD + push(30000) + deltas(17000) + pull(5) + push(30000) + deltas(1) + pull(90),
    }


def motion_push(_):
    return {name: b"\x00" + program for name, program in streams().items()}


def a2x_push(_):
    """Three of the twelve variants each (four engines, three comparisons), the one that forgets the rhythm always."""
    return {f"{name}_{variant}": bytes([variant]) + program
            for i, (name, program) in enumerate(streams().items()) for variant in (i % 12, (i + 5) % 12, 10)}
