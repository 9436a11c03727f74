"""The speech encoder of the expression engines, of which a process has one."""
import os
import threading
from typing import Optional

from ._library import PathLike, ZorvError, fail, lib, path_bytes

_lock = threading.Lock()
_loaded: Optional[bytes] = None


def use(encoder: Optional[PathLike], threads: int) -> None:
    """Loads `encoder`, or what W2V_ONNX names, unless an encoder is loaded already.

    Another one than the one that is loaded raises ZorvError. The first one stays, and its threads.
    """
    global _loaded
    with _lock:
        named = path_bytes(encoder) if encoder is not None else os.environb.get(b"W2V_ONNX", b"")
        path = os.path.realpath(named) if named else b""
        if _loaded is None:
            _preload(path, threads)
            _loaded = path
            os.environb[b"W2V_ONNX"] = path  # without it no expression engine opens
        elif encoder is not None and path != _loaded:
            raise ZorvError(f"the speech encoder is the process's, and {os.fsdecode(_loaded)} is "
                            f"loaded; {os.fsdecode(path)} cannot be")


def _preload(path: bytes, threads: int) -> None:
    name = "ZORV_A2X_W2V_THREADS"
    asked = os.environ.get(name)
    os.environ[name] = asked or str(threads)
    try:
        if not lib.zorv_a2x_preload_w2v(path):
            fail("zorv_a2x_preload_w2v")
    finally:
        if asked is None:
            del os.environ[name]
