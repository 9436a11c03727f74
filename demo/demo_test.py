"""Checks of the demo subject that need no renderer: files, placement, movement, caching."""
import pathlib
import sys
import tempfile
import unittest
from unittest import mock

import numpy as np

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import bundle
import character
import expression_model
import make_demo
import motion_model
import rig

FRAMES = 3


def run_generator(out, *options):
    with mock.patch.object(sys, "argv", ["make_demo.py", str(out), "--frames", str(FRAMES), *options]):
        return make_demo.main()


class Bundle(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.out = pathlib.Path(cls.directory.name) / "demo"
        run_generator(cls.out)
        cls.bundle = cls.out / "bundle"

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def test_rest_of_the_expression_is_exact_and_not_zero(self):
        mean, scale = np.fromfile(self.out / "expression" / "a2x_norm.f32", np.float32).reshape(2, 63)
        np.testing.assert_array_equal((-mean / scale) * scale + mean, 0)
        self.assertGreater(np.abs(mean / scale).max(), 0.5)

    def test_source_records_lead_back_to_the_keypoints(self):
        """Turned by its angles, moved by its expression, scaled: every record is its target frame."""
        records = np.fromfile(self.out / "motion/src_xs_info.bin", np.float32).reshape(FRAMES, 328)
        targets = np.fromfile(self.bundle / "xs_target.bin", np.float32).reshape(FRAMES, 21, 3)
        turns = []
        for record, target in zip(records.astype(np.float64), targets):
            expression, canonical = record[:63].reshape(21, 3), record[63:126].reshape(21, 3)
            weights = [np.exp(record[first:first + 66]) for first in (126, 192, 262)]
            pitch, roll, yaw = (np.sum(w * np.arange(66)) / np.sum(w) * 3 - 97.5 for w in weights)
            self.assertAlmostEqual(roll, 0, places=5)
            points = (canonical @ motion_model.rotation(pitch, yaw) + expression) * record[258]
            np.testing.assert_allclose(points, target, atol=1e-6)
            np.testing.assert_array_equal(record[259:262], 0)
            turns.append(yaw)
        self.assertGreater(np.ptp(turns), 1.0)                     # degrees: the head does turn

    def test_second_run_keeps_everything_and_a_failed_one_leaves_the_old_subject(self):
        before = {p: p.stat().st_mtime_ns for p in self.out.rglob("*")}
        run_generator(self.out)
        with mock.patch.object(bundle, "draw_frames", side_effect=KeyboardInterrupt):
            with self.assertRaises(KeyboardInterrupt):
                run_generator(self.out, "--force")
        after = {p: p.stat().st_mtime_ns for p in self.out.rglob("*")}
        self.assertEqual(before, after)


class Shapes(unittest.TestCase):
    def test_mask_is_closed_at_the_border_and_open_over_what_moves(self):
        mask = bundle.mask()
        self.assertEqual(max(mask[0].max(), mask[-1].max(), mask[:, 0].max(), mask[:, -1].max()), 0)
        moving = [(rig.REST[k] + o * rig.LIP_BASIS[0, k] + w * rig.LIP_BASIS[1, k])[:2]
                  for k in (*rig.LIPS, 1) for o in (0, 1) for w in (-1, 1)]
        for x, y in moving:
            self.assertEqual(mask[int((y + 1) * bundle.CROP / 2), int((x + 1) * bundle.CROP / 2)], 255)

    def test_keypoints_follow_the_painted_features(self):
        """Looking up a keypoint's place on the head canvas must lead back to its rest position."""
        for index in (0, 31, 77, 119):
            pose = character.Pose(index, 120)
            points = pose.keypoints()
            dx, dy = pose.parallax(points[:, 0], points[:, 1])
            np.testing.assert_allclose(points[:, 0] - dx, rig.REST[:, 0], atol=1e-3)
            np.testing.assert_allclose(points[:, 1] - dy, rig.REST[:, 1], atol=1e-3)

    def test_attention_by_position_is_a_bell_curve_anywhere(self):
        e = expression_model
        for frame in (0, 1000, e.LONGEST - 1 - e.LEFT):
            rows = e.positions(frame + e.LEFT + 1)[frame:][:, np.tile(e.PERIODS == e.SMOOTHING_PERIOD, 2)]
            weight = np.exp(e.SMOOTHING_SHARPNESS * (rows @ rows[0] - rows[0] @ rows[0]))
            np.testing.assert_allclose(weight[:3], (1, 0.5, 1 / 16), atol=0.01)
            self.assertLess(weight[4:].max(), 1e-3)


if __name__ == "__main__":
    unittest.main()
