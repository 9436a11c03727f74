"""Seeds of utt_calls_fuzz, in the form of utt_program.h."""
import struct

PIPELINED, BATCHED, AT_ONCE, DAMAGED = 0x20, 0x40, 0x80, 0x1c
SILENCE_ENDS = 0xc0


def life(source, flags=0, eager=0, ramps=0):
    return bytes([source | flags]) + struct.pack("bB", eager, ramps)


# The pushing thread.
def push(samples):
    return struct.pack("<BH", 0, samples)


END = bytes([36])
NOTHING = bytes([56, 57])


# The pulling thread.
def pull(frames):
    return bytes([0x7f + frames])


SMALL = bytes([0x7c, 0x7d, 0x7f])
LOOK = bytes([0x70, 0x76])

# The controlling thread.
INTERRUPT = bytes([0xc0])
ASK = bytes([0xec, 0xed, 0xee, 0xef, 0xb4])
CONTROLLER_END = bytes([0xbc])
CONTROLLER_PULL = bytes([0xbe])


def pusher_pause(steps):
    return bytes([48, steps])


def puller_pause(steps):
    return bytes([0xa8, steps])


def controller_pause(steps):
    return bytes([0xd8, steps])


NEXT = b"\xff"


def utt_calls(_):
    line = push(6000) + push(4500) + END
    seeds = {
        "nothing": life(0),
        "gone_at_once": life(0, AT_ONCE) + NEXT + life(1, AT_ONCE | PIPELINED) + line,
        "bad_arguments": life(0) + NOTHING + SMALL + pull(3) + SMALL + LOOK + ASK,
        "two_pull": life(0) + line + pull(30) + (CONTROLLER_PULL + controller_pause(9)) * 8,
        "damaged": life(0, DAMAGED) + line + line + pull(30) + ASK,
        "silence": life(0, 0, 1, SILENCE_ENDS) + (push(3000) + pusher_pause(255)) * 3 + pull(40),
        "ends_by_others": life(1) + line + push(3000) + CONTROLLER_END + controller_pause(50) + CONTROLLER_END + pull(9),
        "three_lives": (life(0, AT_ONCE) + line + pull(9) + NEXT + life(1, AT_ONCE) + push(9999) + INTERRUPT + NEXT
                        + life(0, BATCHED) + line),
    }
    for source in range(4):
        for flags in (0, PIPELINED | BATCHED):
            name = f"{source}_{flags:02x}"
            seeds["speaks_" + name] = life(source, flags) + line + push(11000) + END + pull(40) + pull(20)
            seeds["interrupted_" + name] = (
                life(source, flags, 2) + line + pull(20) + controller_pause(200) + INTERRUPT + line
                + (controller_pause(60) + INTERRUPT + push(2000) + pull(3)) * 3 + END + puller_pause(90) + pull(9))
    return seeds
