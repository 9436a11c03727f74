"""Frames and their sound become a video file, through PyAV."""
import os
from fractions import Fraction
from typing import TYPE_CHECKING, Any, Iterable, Optional, Tuple

from ._library import FPS, PathLike
from ._sound import Samples
from .frame import Frame

if TYPE_CHECKING:
    from ._sound import Sound

_FORMATS = {"rgb": "rgb24", "rgba": "rgba", "i420": "yuv420p", "nv12": "nv12"}
_SOUND_RATE = 48000  # of the file: every player and encoder has it


def write_video(path: PathLike, frames: Iterable[Frame],
                sound: "Optional[Sound]" = None, rate: int = 16000) -> int:
    """Writes H.264 and AAC to `path` (its ending says which container) and returns the frames.

    frames  of one size; ``clip.render(...)`` as it is, or frames of a face.
    sound   mono samples as for ``Clip.render``; None takes each frame's own sound.
    rate    of the sound, in Hz.

    The file appears when it is whole: it is written beside its place and renamed. Needs the
    packages av and numpy.
    """
    import av

    path = os.fspath(path)
    samples = None if sound is None else Samples.of(sound)
    file = unfinished(path, f"{os.uname().nodename}-{os.getpid()}") + os.path.splitext(path)[1]
    try:
        with av.open(file, "w") as container:
            count = _write(av, container, frames, samples, rate)
        os.replace(file, path)
    except BaseException:
        if os.path.exists(file):
            os.unlink(file)
        raise
    return count


def unfinished(path: str, who: str) -> str:
    """How the file is named, up to its ending, that `who` writes to become `path`."""
    folder, name = os.path.split(path)
    return os.path.join(folder, f".unfinished-{name}-{who}")


def _streams(container: Any, width: int, height: int) -> Tuple[Any, Any]:
    video = container.add_stream("libx264", rate=FPS)
    # 4:2:0 wants even sizes: an odd frame loses its last row or column.
    video.width, video.height = width // 2 * 2, height // 2 * 2
    video.pix_fmt = "yuv420p"
    matrix = "bt709" if height >= 720 else "smpte170m"
    video.options = {"preset": "veryfast", "crf": "20", "color_range": "tv", "colorspace": matrix,
                     "color_primaries": matrix, "color_trc": matrix}
    audio = container.add_stream("aac", rate=_SOUND_RATE)
    audio.codec_context.layout = "mono"
    return video, audio


def _picture(av: Any, frame: Frame, width: int, height: int) -> Any:
    import numpy

    pixels = numpy.asarray(frame)
    if frame.pixels not in ("rgb", "rgba"):
        return av.VideoFrame.from_ndarray(pixels, format=_FORMATS[frame.pixels])
    image = av.VideoFrame.from_ndarray(numpy.ascontiguousarray(pixels[:height, :width]),
                                       format=_FORMATS[frame.pixels])
    matrix = "ITU709" if frame.height >= 720 else "ITU601"
    return image.reformat(format="yuv420p", src_colorspace=matrix, dst_colorspace=matrix)


def _write(av: Any, container: Any, frames: Iterable[Frame], sound: Optional[Samples],
           rate: int) -> int:
    import numpy

    video = audio = None
    resampler = av.AudioResampler(format="fltp", layout="mono", rate=_SOUND_RATE)
    count, length = 0, rate // FPS
    for frame in frames:
        if video is None:
            video, audio = _streams(container, frame.width, frame.height)
        image = _picture(av, frame, video.width, video.height)
        image.pts, image.time_base = count, Fraction(1, FPS)
        container.mux(video.encode(image))
        piece = frame.sound if sound is None else sound.pcm(count * length, (count + 1) * length)
        if len(piece) > 0:
            block = av.AudioFrame.from_ndarray(numpy.asarray(piece)[None, :], format="s16",
                                               layout="mono")
            block.rate, block.pts = rate, count * length
            for resampled in resampler.resample(block):
                container.mux(audio.encode(resampled))
        count += 1
    if video is not None and audio is not None:
        for resampled in resampler.resample(None):
            container.mux(audio.encode(resampled))
        for stream in (video, audio):
            container.mux(stream.encode(None))
    return count
