"""Speech to talking-face video of one prepared subject, on a CPU, in real time.

``Clip`` renders sound that is known from the start; ``Face`` speaks sound as it comes and idles in
between. ``Frame`` is what both make, and ``write_video`` makes a file of frames. Many clips go over a
cluster with ``render_catalogue``. Failures are ``ZorvError`` with the library's own text.
"""
from ._engine import Event, Outcome
from ._library import ZorvError
from .catalogue import Job, Result, render_catalogue
from .clip import Clip
from .face import Events, Face, Failures, Latency, Stats
from .frame import Frame, FrameFlags
from .video import write_video

__all__ = ["Clip", "Event", "Events", "Face", "Failures", "Frame", "FrameFlags", "Job", "Latency",
           "Outcome", "Result", "Stats", "ZorvError", "render_catalogue", "write_video"]
