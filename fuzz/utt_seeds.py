"""Seeds of utt_calls_fuzz, in the form of its lives."""

PIPELINED, BATCHED, AT_ONCE = 0x20, 0x40, 0x80
NEXT = b"\xff"


def life(source, flags=0, silence=0):
    assert flags % 32 == 0
    # The source is the flags modulo 3.
    return bytes([flags | next(n for n in range(3) if (flags | n) % 3 == source), silence])


def pusher(call, value=0):
    return bytes([call, value])


def puller(call, value=0):
    return bytes([0x40 | call, value])


def controller(call, value=0):
    return bytes([0x80 | call, value])


def push(samples):
    return pusher(0, samples // 47)


def pull(frames):
    return puller(0, frames)


END, NOTHING = pusher(4), pusher(7) + pusher(7, 1)
SMALL = b"".join(puller(7, how) for how in range(4))
INTERRUPT, OTHER_END, FAIL = controller(0), controller(5), controller(7)


def utt_calls(_):
    line = push(6000) + push(4500) + END
    pause = controller(2, 200)
    seeds = {
        "nothing": life(0),
        "gone_at_once": life(0, AT_ONCE) + NEXT + life(1, AT_ONCE | PIPELINED) + line,
        "bad_arguments": life(0) + NOTHING + SMALL + pull(3) + SMALL + puller(5, 1) + controller(3, 3),
        "two_pull": life(0) + line + pull(30) + (controller(6, 2) + controller(2, 9)) * 8,
        "fails": life(0) + line + FAIL + line + pause + FAIL + pull(30) + controller(3, 64),
        "silence": life(0, 0, 3) + (push(3000) + pusher(6, 255)) * 3 + pull(40) + (pause + controller(4, 90)) * 3,
        "ends_by_others": life(1) + line + push(3000) + OTHER_END + pause + OTHER_END + pull(9),
        "three_lives": (life(0, AT_ONCE) + line + pull(9) + NEXT + life(1, AT_ONCE) + push(9999) + INTERRUPT + NEXT
                        + life(0, BATCHED) + line),
    }
    # Ten thousand random runs: 25 in each life, three lives each.
    for number in range(134):
        seeds[f"accounts/{number}"] = b"".join(
            life(0, BATCHED * (n % 2), 0x80) + (3 * number + n + 1000).to_bytes(2, "little") for n in range(3))
    for source in range(3):
        for flags in (0, PIPELINED | BATCHED):
            name = f"{source}_{flags:02x}"
            seeds["speaks_" + name] = life(source, flags) + line + push(11000) + END + pull(40) + pull(20)
            seeds["interrupted_" + name] = (life(source, flags) + line + pull(20) + pause + INTERRUPT + line
                                            + (pause + INTERRUPT + push(2000) + pull(3)) * 3 + END + pull(9))
    return seeds
