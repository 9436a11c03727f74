"""Seeds of the targets that open damaged directories."""
import itertools
import struct


# Operations of damaged_dir.h.
def remove(file):
    return bytes([file, 0])


def directory(file):
    return bytes([file, 1])


def resize_by(file, more):
    return struct.pack("<BBh", file, 2, more)


def resize_to(file, size):
    return bytes([file, 3]) + size.to_bytes(3, "little")


def overwrite(file, place, content):
    return bytes([file, 4]) + place.to_bytes(3, "little") + bytes([len(content)]) + content


def append(file, content):
    return bytes([file, 5, len(content)]) + content


def copy(file, other):
    return bytes([file, 6, other])


def value(colon, text):
    """In file 0, which is the one with the metadata."""
    return bytes([0, 7, colon, len(text)]) + text.encode()


def damage(first_bytes, files, values):
    """Each first byte alone, then every kind of damage to every file and to every value of the
    metadata, the first bytes by turns."""
    turns = itertools.cycle(first_bytes)
    seeds = {f"{first}": bytes([first]) for first in first_bytes}
    odd = (struct.pack("<4f", float("nan"), float("inf"), -3e38, 1e-42), b"\xff" * 16, b"\x00\x7c" * 8)
    for f in range(files):
        kinds = [remove(f), directory(f), resize_by(f, -1), resize_by(f, 1), resize_to(f, 0), resize_to(f, 4),
                 append(f, b'"NT": 1'), copy(f, (f + 1) % files), overwrite(f, 300, b"\x00\x80\x00\x7f" * 4),
                 *(overwrite(f, 0, content) for content in odd)]
        seeds.update({f"{first_bytes[0]}_file_{f}_{k}": bytes([next(turns)]) + kind for k, kind in enumerate(kinds)})
    for v in range(values):
        for k, text in enumerate(("0", "1", "3", "-1", "1e9", "-1e400", "nan", '"x"', "2147483647", "0.01")):
            seeds[f"{first_bytes[0]}_value_{v}_{k}"] = bytes([next(turns)]) + value(v, text)
    return seeds


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
