"""The voice-detection evaluation's own arithmetic (tools/eval/vad_eval.py): how Silero's 32 ms
windows become 10 ms frame scores, the AUC and ROC of yes/no detectors, and the C++ runner."""

import os
import subprocess
import tempfile
import unittest

import numpy as np

import vad_eval

RUNNER = os.environ.get("SONEL_EVAL_VAD_RUNNER", "")
RATE = 16000
FRAME = 160


class SileroFramesTest(unittest.TestCase):
    def test_each_frame_takes_the_latest_window_it_may_wait_for(self):
        windows = 40
        frames = windows * vad_eval.SILERO_WINDOW // FRAME
        # A window's score is its number from 1, so a frame's score names the window it took.
        scores = np.arange(1, windows + 1, dtype=float)
        for delay_ms in (0.0, 10.0, 22.0, 37.5):
            with self.subTest(delay_ms=delay_ms):
                taken = vad_eval.silero_frames(scores, frames, delay_ms).astype(int) - 1
                deadline = FRAME * (np.arange(frames) + 1) + delay_ms * RATE / 1000
                window_end = vad_eval.SILERO_WINDOW * (taken + 1)
                some = taken >= 0
                self.assertTrue(np.all(window_end[some] <= deadline[some]), "a frame used a later window")
                # Nothing later was allowed: the next window, where there is one, ends past the deadline.
                self.assertTrue(np.all((taken == windows - 1) | (window_end + vad_eval.SILERO_WINDOW > deadline)))
                self.assertTrue(np.all(np.diff(taken) >= 0))
        # Without delay the first window (ending at 32 ms) serves frames 3 to 5 (ending 40 ... 60 ms).
        taken = vad_eval.silero_frames(scores, 8).astype(int) - 1
        self.assertEqual(list(taken), [-1, -1, -1, 0, 0, 0, 1, 1])
        # Waiting 30 ms, every frame has a window that holds it whole.
        taken = vad_eval.silero_frames(scores, frames, vad_eval.SILERO_COVERING_DELAY_MS).astype(int) - 1
        self.assertTrue(np.all(vad_eval.SILERO_WINDOW * (taken + 1) >= FRAME * (np.arange(frames) + 1)))


class RocTest(unittest.TestCase):
    def test_a_yes_no_detector_is_one_point_and_its_trapezoid(self):
        rng = np.random.default_rng(3)
        truth = rng.random(5000) < 0.4
        decisions = np.where(truth, rng.random(5000) < 0.8, rng.random(5000) < 0.3).astype(float)
        detection = decisions[truth].mean()
        false_alarm = decisions[~truth].mean()
        x, y = vad_eval.roc(decisions, truth)
        np.testing.assert_allclose(x, [0.0, false_alarm, 1.0])
        np.testing.assert_allclose(y, [0.0, detection, 1.0])
        self.assertAlmostEqual(vad_eval.auc(decisions, truth), (detection + 1.0 - false_alarm) / 2.0, places=12)

    def test_auc_is_the_area_under_the_curve_with_ties(self):
        rng = np.random.default_rng(4)
        truth = rng.random(4000) < 0.5
        # Scores on a coarse grid, so many frames tie.
        scores = np.round(rng.normal(truth * 0.8, 1.0), 1)
        x, y = vad_eval.roc(scores, truth)
        self.assertAlmostEqual(float(np.sum(np.diff(x) * (y[1:] + y[:-1]) / 2.0)), vad_eval.auc(scores, truth),
                               places=12)
        self.assertEqual(len(x), len(np.unique(scores)) + 1)


@unittest.skipUnless(RUNNER and os.path.exists(RUNNER), "sonel-eval-vad not built")
class RunnerTest(unittest.TestCase):
    def scores(self, system, signal):
        with tempfile.TemporaryDirectory() as scratch:
            source, target = os.path.join(scratch, "in.f32"), os.path.join(scratch, "out.f32")
            np.asarray(signal, dtype="<f4").tofile(source)
            listing = os.path.join(scratch, "list")
            with open(listing, "w", encoding="utf-8") as out:
                out.write("%s\t%s\n" % (source, target))
            subprocess.run([RUNNER, system, str(RATE), listing], check=True, capture_output=True)
            return np.fromfile(target, dtype="<f4")

    def test_levels_and_frames(self):
        # 2.5 frames of a 0.1 sine: the half frame is padded with zeros, not dropped.
        t = np.arange(int(2.5 * FRAME)) / RATE
        levels = self.scores("energy", 0.1 * np.sin(2 * np.pi * 500.0 * t))
        self.assertEqual(len(levels), 3)
        np.testing.assert_allclose(levels, 10 * np.log10([0.005, 0.005, 0.0025]), atol=0.01)
        self.assertLess(float(self.scores("energy", np.zeros(FRAME))[0]), -115.0)

    def test_webrtc_hears_no_voice_in_silence_and_some_in_a_voiced_tone(self):
        t = np.arange(RATE * 2) / RATE
        f0 = 140.0 + 30.0 * np.sin(2 * np.pi * 0.7 * t)
        voiced = 0.1 * sum(np.sin(k * 2 * np.pi * np.cumsum(f0) / RATE) / k for k in range(1, 20))
        for system in vad_eval.WEBRTC:
            with self.subTest(system=system):
                decisions = self.scores(system, np.r_[np.zeros(RATE), voiced])
                self.assertTrue(set(np.unique(decisions)) <= {0.0, 1.0})
                self.assertEqual(decisions[:100].sum(), 0.0)
                self.assertGreater(decisions[100:].mean(), 0.5)

    def test_refuses_an_unknown_system(self):
        with self.assertRaises(subprocess.CalledProcessError):
            self.scores("webrtc-vad-extreme", np.zeros(FRAME))


if __name__ == "__main__":
    unittest.main()
