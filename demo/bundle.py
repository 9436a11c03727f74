"""Writes the subject's bundle directory.

    manifest.json           what follows, in numbers
    target_frames/          NT JPEG frames
    M.f32                   [NT, 6] placement of the crop in each frame
    P.f16                   [NT, 3, CROP, CROP] the crop cut from the decoded frame, RGB 0..1
    pooled64.f16            [NT, 64, 32, 32] the mouth's inside (mouth.py)
    fs_red.f16              [NT, 64, 64, 64] the crop again, reduced (render_model.py)
    mask_512.u8             [CROP, CROP] where the crop replaces the frame
    xs_target.bin           [NT, 21, 3] float32 keypoints of each frame
    drive/                  a stored driving sequence: keypoints at rest and moved, frame indices
    model_*.onnx            renderers
"""
import json
import multiprocessing

import numpy as np
import onnx
from PIL import Image

import character
import int8_model
import mouth
import render_model
import rig
from drawing import sample, smoothstep

CROP = 512
DRIVE_FRAMES = 75
FRAME_RATE = 25
SHARPENING = {"amount": 0.25, "sigma": 1.2, "ksize": 7}
POOLED_VALUES, FEATURE_VALUES = 64 * 32 * 32, 64 * 64 * 64
RENDERERS = {"render": (render_model.standard_graph, 1),
             "b24_fp32": (render_model.standard_graph, 4),
             "refined": (render_model.refined_graph, 1),
             "synth": (render_model.synth_graph, 1)}

_painter = None


def cut_crop(frame, placement):
    """[3, CROP, CROP] float32 0..1 from a decoded frame [H, W, 3] uint8 through its placement [2, 3]."""
    x, y = np.meshgrid(np.arange(CROP), np.arange(CROP))
    at = np.einsum("ij,jhw->ihw", placement[:, :2], np.stack([x, y])) + placement[:, 2, None, None]
    crop = sample(frame.astype(np.float32) / 255, at[0], at[1], order=3)
    return np.clip(np.moveaxis(crop, -1, 0), 0, 1)


def _write_at(path, offset, values):
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(values.tobytes())


def _draw_frame(job):
    """Draws one target frame and writes all that is cut from it."""
    directory, index, count = job
    global _painter
    if _painter is None:
        _painter = character.Painter()
    pose = character.Pose(index, count)
    picture = (np.clip(_painter.frame(pose), 0, 1) * 255 + 0.5).astype(np.uint8)
    path = directory / "target_frames" / f"frame_{index:06d}.jpg"
    Image.fromarray(picture).save(path, quality=95, subsampling=0)
    crop = cut_crop(np.asarray(Image.open(path).convert("RGB")), pose.crop_matrix(CROP))
    half = crop.astype(np.float16)
    _write_at(directory / "P.f16", index * half.nbytes, half)
    features = render_model.pack_features(crop).astype(np.float16)
    _write_at(directory / "fs_red.f16", index * features.nbytes, features)


def draw_frames(directory, count, processes=2):
    """Target frames and the tensors cut from them, on `processes` cores."""
    (directory / "target_frames").mkdir()
    for name, values in (("P.f16", 3 * CROP * CROP), ("fs_red.f16", FEATURE_VALUES)):
        with open(directory / name, "wb") as file:
            file.truncate(count * values * 2)
    with multiprocessing.Pool(processes) as pool:
        jobs = [(directory, index, count) for index in range(count)]
        for _ in pool.imap_unordered(_draw_frame, jobs, chunksize=4):
            pass


def write_pooled(directory, count):
    """The same mouth for every frame, in half precision."""
    atlas = mouth.atlas().astype(np.float16)
    assert atlas.size == POOLED_VALUES
    with open(directory / "pooled64.f16", "wb") as file:
        for _ in range(count):
            file.write(atlas.tobytes())


def mask():
    """[CROP, CROP] uint8: 255 over the face, feathered to 0 before the crop's border."""
    line = (np.arange(CROP) + 0.5) * 2 / CROP - 1
    x, y = np.meshgrid(line, line)
    radius = ((x / 0.97) ** 4 + (y / 0.98) ** 4) ** 0.25
    return np.round(255 * smoothstep(0.985, 0.84, radius)).astype(np.uint8)


def write_drive(directory, targets):
    """A few seconds of mouth movement, as a check without any speech model.

    targets: [NT, 63] keypoints per target frame.
    """
    count = len(targets)
    time = np.arange(DRIVE_FRAMES) / FRAME_RATE
    syllables = np.clip(np.sin(2 * np.pi * 3.1 * time) + 0.35 * np.sin(2 * np.pi * 1.3 * time), 0, None)
    opening = 0.75 * syllables * np.sin(np.pi * np.arange(DRIVE_FRAMES) / (DRIVE_FRAMES - 1))
    width = 0.8 * np.sin(2 * np.pi * 0.85 * time + 0.4) * np.clip(opening * 2, 0, 1)
    period = max(2 * (count - 1), 1)
    walk = np.arange(DRIVE_FRAMES) % period
    indices = np.minimum(walk, period - walk).clip(0, count - 1).astype(np.int32)
    source = targets[indices]
    (directory / "drive").mkdir()
    source.astype(np.float32).tofile(directory / "drive" / "xs.f32")
    (source + rig.mouth_offsets(opening, width)).astype(np.float32).tofile(directory / "drive" / "xd.f32")
    indices.tofile(directory / "drive" / "si.i32")


def write_bundle(directory, count):
    """Everything but the speech models, into an existing empty directory."""
    poses = [character.Pose(index, count) for index in range(count)]
    manifest = {"format": "zorv-bundle-v0", "agent": "demo", "NT": count,
                "H": character.HEIGHT, "W": character.WIDTH, "crop": CROP,
                **SHARPENING, "frames": DRIVE_FRAMES}
    (directory / "manifest.json").write_text(json.dumps(manifest, indent=2) + "\n")
    np.stack([pose.crop_matrix(CROP).ravel() for pose in poses]).astype(np.float32).tofile(directory / "M.f32")
    targets = np.stack([pose.keypoints().ravel() for pose in poses]).astype(np.float32)
    targets.tofile(directory / "xs_target.bin")
    write_drive(directory, targets)
    mask().tofile(directory / "mask_512.u8")
    write_pooled(directory, count)
    for key, (graph, batch) in RENDERERS.items():
        graph(CROP, batch).save(directory / f"model_{key}.onnx")
    refined = onnx.load(str(directory / "model_refined.onnx"))
    onnx.save(int8_model.convert(refined), str(directory / "model_refined_int8.onnx"))
    draw_frames(directory, count)
