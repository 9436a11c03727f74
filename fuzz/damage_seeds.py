"""Seeds of the targets that open damaged directories."""
import itertools
import struct

# Operations of damaged_dir.h behind the byte for the file: remove, a directory in its place, a byte
# less and more, to nothing, to 4 bytes, append, copy, overwrite.
KINDS = [b"\0", b"\1", b"\2\xff\xff", b"\2\1\0", b"\3\0\0\0", b"\3\4\0\0", b'\5\7"NT": 1', b"\6\1",
         b"\4\x2c\1\0\x10" + b"\x00\x80\x00\x7f" * 4,
         *(b"\4\0\0\0\x10" + odd for odd in (struct.pack("<4f", float("nan"), float("inf"), -3e38, 1e-42),
                                             b"\xff" * 16, b"\x00\x7c" * 8))]


def resize_to(file, size):
    return bytes([file, 3]) + size.to_bytes(3, "little")


def value(colon, text):
    """In file 0, which is the one with the metadata."""
    return bytes([0, 7, colon, len(text)]) + text.encode()


def damage(first_bytes, files, values):
    """Each first byte alone, then every kind of damage to every file and to every value of the
    metadata, the first bytes by turns."""
    texts = ("0", "1", "3", "-1", "1e9", "-1e400", "nan", '"x"', "2147483647", "0.01")
    damages = [b""] * len(first_bytes) + [bytes([f]) + kind for f in range(files) for kind in KINDS]
    damages += [value(v, text) for v in range(values) for text in texts]
    turns = itertools.cycle(first_bytes)
    return {f"{first_bytes[0]}_{k}": bytes([next(turns)]) + done for k, done in enumerate(damages)}


def bundle_open(_test_models):
    # Smaller bundles and crops that are in order again.
    one = ((6, 131072), (5, 1536), (7, 524288), (1, 24), (2, 4), (3, 252), (4, 252))
    return {**damage(range(9), files=17, values=11),
            "one_frame": b"\0" + value(2, "1") + value(10, "1") + b"".join(itertools.starmap(resize_to, one)),
            "no_drive": b"\0" + value(10, "0") + b"".join(resize_to(file, 0) for file in (2, 3, 4)),
            "wide_kernel": b"\0" + value(9, "247483"),
            "crop_8": b"\6" + value(5, "8") + resize_to(5, 2 * 3 * 8 * 8 * 2)}


def engine_open(_test_models):
    return {**damage((0, 2), files=14, values=5), **damage((1, 3), files=6, values=6),
            "one_target": b"\2" + value(0, "1") + value(1, "1") + resize_to(11, 1312) + resize_to(12, 252),
            "short_table": b"\3" + value(4, "1") + resize_to(1, 64)}
