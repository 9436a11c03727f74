"""The C interface, declared as include/zorv_core.h declares it, and how its errors are raised.

Each call releases the interpreter lock. The text of a failed call belongs to the thread that made
it, so whoever calls a function also calls `fail` on that thread before anything else.
"""
import atexit
import ctypes
import logging
import os
from ctypes import c_char_p, c_double, c_float, c_int, c_int32, c_int64, c_size_t, c_uint32
from ctypes import c_uint64, c_void_p
from pathlib import Path
from typing import Any, NoReturn, Optional, Union

RATE = 16000  # what the models hear, in Hz
FPS = 25
KEYPOINT_FLOATS = 63
SAMPLES_PER_FRAME = RATE // FPS

PathLike = Union[str, os.PathLike[str]]


class ZorvError(RuntimeError):
    """Something did not work; the text is the library's own."""


class UttOpts(ctypes.Structure):
    """zorv_utt_opts"""

    _fields_ = [("motion_dir", c_char_p), ("threads", c_int), ("ep", c_char_p),
                ("steady_model", c_char_p), ("eager", c_int), ("silence_end_s", c_double),
                ("ramp_frames", c_int), ("ramp_frames_interrupt", c_int)]


class UttStats(ctypes.Structure):
    """zorv_utt_stats"""

    _fields_ = [("frames_pulled", c_uint64), ("speech_frames_pulled", c_uint64),
                ("utterances_started", c_uint64), ("first_frame_latency_ms", c_double),
                ("render_ms", c_double), ("reserved", c_uint64), ("state", c_int)]


LOG_CALLBACK = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)
class UttFrame(ctypes.Structure):
    """zorv_utt_frame"""

    _fields_ = [("struct_size", c_size_t), ("plane", c_void_p * 3), ("stride", c_int32 * 3),
                ("sound", c_void_p), ("sound_capacity", c_int32), ("sound_samples", c_int32),
                ("sequence", c_uint64), ("kind", c_int32), ("frame", c_int32),
                ("speech_sequence", c_int32), ("utterance", c_uint64), ("first_sample", c_int64),
                ("pts", c_int64), ("flags", c_uint32)]


class UttEvent(ctypes.Structure):
    """zorv_utt_event"""

    _fields_ = [("struct_size", c_size_t), ("type", c_int32), ("reason", c_int32),
                ("utterance", c_uint64), ("samples", c_int64), ("pts", c_int64),
                ("frames_left_out", c_uint64), ("missed", c_uint64)]


class UttLatency(ctypes.Structure):
    """zorv_utt_latency_info"""

    _fields_ = [("struct_size", c_size_t), ("look_ahead_samples", c_int32),
                ("idle_ahead", c_int32), ("render_ms", c_double),
                ("frames_left_out_late", c_uint64), ("frames_left_out_failed", c_uint64),
                ("late_slots", c_uint64), ("sound_bytes", c_uint64)]


FRAME_CALLBACK = ctypes.CFUNCTYPE(c_int, c_void_p, c_int, c_void_p, c_int, c_int)

RECORDS = {"zorv_utt_opts": UttOpts, "zorv_utt_stats": UttStats, "zorv_utt_frame": UttFrame,
           "zorv_utt_event": UttEvent, "zorv_utt_latency_info": UttLatency}

# Name: result, then arguments. Handles and blocks of memory are plain addresses.
FUNCTIONS: "dict[str, tuple[Any, ...]]" = {
    "zorv_version": (c_int,),
    "zorv_set_log": (None, LOG_CALLBACK, c_void_p),
    "zorv_telemetry_enable": (None, c_int),
    "zorv_telemetry_pending": (c_size_t,),
    "zorv_telemetry_take": (c_size_t, c_char_p, c_size_t),
    "zorv_create": (c_void_p, c_char_p, c_char_p, c_int, c_char_p),
    "zorv_destroy": (None, c_void_p),
    "zorv_last_error": (c_char_p,),
    "zorv_nt": (c_int, c_void_p),
    "zorv_width": (c_int, c_void_p),
    "zorv_height": (c_int, c_void_p),
    "zorv_render_kp_crop": (c_void_p, c_void_p, c_int, c_void_p, c_void_p),
    "zorv_paste_crop": (c_int, c_void_p, c_int, c_void_p, c_void_p, c_size_t),
    "zorv_resample": (c_int, c_void_p, c_int, c_int, c_void_p, c_int),
    "zorv_resample_last_error": (c_char_p,),
    "zorv_stream_create": (c_void_p, c_char_p, c_char_p, c_int, c_int, c_float),
    "zorv_stream_run": (c_int, c_void_p, c_void_p, c_int, FRAME_CALLBACK, c_void_p),
    "zorv_stream_cancel": (None, c_void_p),
    "zorv_stream_width": (c_int, c_void_p),
    "zorv_stream_height": (c_int, c_void_p),
    "zorv_stream_destroy": (None, c_void_p),
    "zorv_stream_last_error": (c_char_p,),
    "zorv_motion_create": (c_void_p, c_char_p, c_int, c_char_p),
    "zorv_motion_destroy": (None, c_void_p),
    "zorv_motion_last_error": (c_char_p,),
    "zorv_motion_nt": (c_int, c_void_p),
    "zorv_motion_push": (c_int, c_void_p, c_void_p, c_int),
    "zorv_motion_finish": (None, c_void_p),
    "zorv_motion_avail": (c_int, c_void_p),
    "zorv_motion_pull": (c_int, c_void_p, c_void_p, c_void_p, c_void_p, c_int),
    "zorv_motion_reset": (None, c_void_p, c_int, c_int, c_int),
    "zorv_a2x_create": (c_void_p, c_char_p, c_int),
    "zorv_a2x_destroy": (None, c_void_p),
    "zorv_a2x_preload_w2v": (c_int, c_char_p),
    "zorv_a2x_last_error": (c_char_p,),
    "zorv_a2x_nt": (c_int, c_void_p),
    "zorv_a2x_push": (c_int, c_void_p, c_void_p, c_int),
    "zorv_a2x_finish": (None, c_void_p),
    "zorv_a2x_avail": (c_int, c_void_p),
    "zorv_a2x_pull": (c_int, c_void_p, c_void_p, c_void_p, c_void_p, c_int),
    "zorv_a2x_reset": (None, c_void_p, c_int, c_int, c_int),
    "zorv_utt_create": (c_void_p, c_void_p, c_void_p),
    "zorv_utt_destroy": (None, c_void_p),
    "zorv_utt_last_error": (c_char_p,),
    "zorv_utt_ready": (c_int, c_void_p),
    "zorv_utt_set_input": (c_int, c_void_p, c_int),
    "zorv_utt_set_pixels": (c_int, c_void_p, c_int),
    "zorv_utt_set_idle_ahead": (c_int, c_void_p, c_int),
    "zorv_utt_set_late": (c_int, c_void_p, c_int),
    "zorv_utt_push": (c_uint64, c_void_p, c_void_p, c_int),
    "zorv_utt_end_utterance": (None, c_void_p),
    "zorv_utt_interrupt": (None, c_void_p),
    "zorv_utt_pull": (c_int, c_void_p, c_void_p),
    "zorv_utt_next_event": (c_int, c_void_p, c_void_p),
    "zorv_utt_fd": (c_int, c_void_p, c_int),
    "zorv_utt_latency": (c_int, c_void_p, c_void_p),
    "zorv_utt_get_stats": (None, c_void_p, c_void_p),
    "zorv_utt_failure": (c_uint64, c_void_p, c_char_p, c_size_t),
}


def _load() -> ctypes.CDLL:
    """The library of ZORV_LIBRARY, else the one inside the package, else the system's."""
    inside = Path(__file__).with_name("lib") / "libzorv_core.so.0"
    name = os.environ.get("ZORV_LIBRARY") or (str(inside) if inside.exists() else inside.name)
    try:
        library = ctypes.CDLL(name)
        for function, (result, *arguments) in FUNCTIONS.items():
            entry = getattr(library, function)
            entry.restype, entry.argtypes = result, arguments
    except (OSError, AttributeError) as error:
        raise ImportError(f"zorv cannot use its library {name}: {error}") from error
    return library


lib = _load()


def _log_line(_user: None, line: bytes) -> None:
    logging.getLogger("zorv").info("%s", line.decode(errors="replace"))


_log = LOG_CALLBACK(_log_line)
lib.zorv_set_log(_log, None)
atexit.register(lib.zorv_set_log, LOG_CALLBACK(0), None)  # no Python to log to any more


def last_error(function: str) -> str:
    """The text of this thread's failed call of `function`; "" if none."""
    for family in ("stream", "motion", "a2x", "utt", "resample"):
        if function.startswith(f"zorv_{family}"):
            break
    else:
        family = ""
    text: bytes = getattr(lib, f"zorv_{family}_last_error" if family else "zorv_last_error")()
    return text.decode(errors="replace")


def fail(function: str) -> NoReturn:
    """Raises the text of this thread's failed call of `function`."""
    raise ZorvError(last_error(function) or f"{function} failed")


def path_bytes(path: PathLike) -> bytes:
    name = os.fsencode(path)
    if b"\0" in name:
        raise ValueError("a path with a zero byte inside")
    return name


def c_integer(name: str, value: int) -> int:
    """`value` as a C int holds it."""
    if not isinstance(value, int):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if not -(2**31) <= value < 2**31:
        raise ValueError(f"{name} is out of range: {value}")
    return value


def model_threads(threads: int) -> int:
    """0 asks for the processors that this process may use."""
    return c_integer("threads", threads) if threads > 0 else len(os.sched_getaffinity(0))


def open_context(bundle: PathLike, threads: int) -> int:
    handle: Optional[int] = lib.zorv_create(path_bytes(bundle), b"render", threads, None)
    if handle is None:
        fail("zorv_create")
    return handle
