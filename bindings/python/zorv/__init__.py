"""Speech to talking-face video of one prepared subject, on a CPU, in real time.

``Clip`` renders sound that is known from the start; ``Frame`` is what comes out. ``write_video``
makes a file of frames. Failures are ``ZorvError`` with the library's own text.
"""
from ._library import ZorvError
from .clip import Clip
from .frame import Frame, FrameFlags
from .video import write_video

__all__ = ["Clip", "Frame", "FrameFlags", "ZorvError", "write_video"]
