"""The voice detector's training: its labels follow the stated rule, and the exported model, run by
the NumPy reference detector, gives the probabilities the PyTorch module gave (so what was trained
and calibrated is what the library runs)."""

import os
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "train"))

try:
    import torch
except ImportError:  # CI does not install torch; training machines do.
    torch = None

RATE = 8000
BLOCK = RATE // 100


@unittest.skipIf(torch is None, "training needs python3-torch")
class VadTrainingTest(unittest.TestCase):
    def test_labels_mark_blocks_near_the_speech_level_and_hold_them_after_it(self):
        import vad

        # 10 ms blocks: 20 silent, 30 loud, 20 silent, 30 at -20 dB, 30 silent, 30 at -35 dB.
        levels_db = [None] * 20 + [0.0] * 30 + [None] * 20 + [-20.0] * 30 + [None] * 30 + [-35.0] * 30
        rng = np.random.default_rng(3)
        target = np.concatenate([np.zeros(BLOCK) if db is None else
                                 3000.0 * 10 ** (db / 20) * rng.standard_normal(BLOCK) for db in levels_db])
        labels = vad.speech_labels(target.astype(np.float32), RATE)
        expected = np.zeros(len(levels_db))
        for first, last in ((20, 50), (70, 100)):  # the -35 dB blocks are outside the range
            expected[first:last + vad.HANGOVER_BLOCKS] = 1.0
        np.testing.assert_array_equal(labels, expected)

    def test_exported_model_reproduces_the_trained_networks_probabilities(self):
        import vad
        from vad_v0_0_1 import Detector, Model

        torch.manual_seed(5)
        network = vad.DetectorNetwork()
        with torch.no_grad():
            for p in network.parameters():
                p.add_(0.05 * torch.randn_like(p))  # biases away from zero, so a swap shows
        network.bound_recurrence()
        network.eval()
        rng = np.random.default_rng(4)
        # Noise bursts at changing levels (the level tracker's fast rise and slow fall) and a
        # stretch of digital silence.
        signal = rng.standard_normal(3 * RATE) * np.repeat(rng.uniform(0.0, 6000.0, 30), RATE // 10)
        signal[RATE:RATE + RATE // 4] = 0.0
        signal = np.round(signal).astype(np.float32)
        features = vad.vad.stream_features(signal, RATE)
        mu, sd = features.mean(0), np.maximum(features.var(0), vad.SD_FLOOR)
        inputs = vad.vad.network_inputs(features, mu, sd)
        with torch.no_grad():
            raw = network(torch.from_numpy(inputs[None]))[0][0].numpy()
        thresholds = (float(raw.min()), float(np.median(raw)), float(raw.max()))
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "vad.vlw")
            vad.sw.WeightWriter(vad.records(network, mu, sd, thresholds)).write_file(path)
            model = Model.load(path)
        calibrated = np.array([model.calibrate(np.float32(r)) for r in raw])
        np.testing.assert_allclose(Detector(model).stream(signal), calibrated, atol=1e-5)
        # The calibration points land where they were put.
        self.assertAlmostEqual(float(model.calibrate(np.float32(thresholds[1]))), 0.5, places=6)
        self.assertLess(float(calibrated.min()), 1e-4)
        self.assertGreater(float(calibrated.max()), 1 - 1e-4)

    def test_gating_detector_export_gives_the_reference_the_trained_probabilities_moved_to_its_threshold(self):
        import gated_vad
        import nc_v0_0_7_vad as nc7vad
        import vad

        rate = 16000
        detector = gated_vad.GatedDetector(rate)
        torch.manual_seed(6)
        network = detector.network()
        with torch.no_grad():
            for p in network.parameters():
                p.add_(0.1 * torch.randn_like(p))
        network.eval()
        rng = np.random.default_rng(7)
        signal = rng.standard_normal(2 * rate) * np.repeat(rng.uniform(0.0, 6000.0, 20), rate // 10)
        signal[rate // 2:rate] = 0.0
        signal = np.round(signal).astype(np.float32)
        features = detector.features(signal)
        mu, sd = detector.normalisation(features)
        with torch.no_grad():
            raw = network(torch.from_numpy(detector.inputs(features, mu, sd)[None]))[0][0].numpy()
        threshold = float(np.median(raw))
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "detector.vlw")
            detector.write(path, None, network, mu, sd, (raw.min(), threshold, raw.max()), "test")
            records = nc7vad.sw.read_file(path)
        self.assertEqual(records["VadSampleRate"].value, rate)
        stream = nc7vad.DetectorStream(nc7vad.Detector(records))
        probabilities = np.array([stream.probability(f) for f in nc7vad.detector_frames(stream.d, signal)])
        np.testing.assert_allclose(probabilities, 1 / (1 + np.exp(threshold - raw)), atol=1e-5)
        self.assertAlmostEqual(float(np.mean(probabilities >= 0.5)), 0.5, delta=0.02)

        # The gate's point keeps 99 % of the speech hops, however few speech-free hops that rejects.
        # Of the ten mixtures without speech, the five far below every speech hop are silenced
        # whole; the other five pass some hops.
        scores = rng.standard_normal((40, 500))
        labels = (rng.random((40, 500)) < 0.3).astype(np.float32)
        labels[:10] = 0.0
        scores[labels > 0] += 1.0
        scores[:5] -= 10.0
        (low, point, high), summary = detector.calibration(scores, labels)
        self.assertEqual((low, high), (scores.min(), scores.max()))
        self.assertAlmostEqual(float(np.mean(scores[labels > 0] >= point)), gated_vad.SPEECH_KEPT, delta=0.001)
        self.assertAlmostEqual(summary["noise_passed"], float(np.mean(scores[labels == 0] >= point)))
        self.assertEqual(summary["noise_only_silenced"], 0.5)
        self.assertAlmostEqual(summary["noise_only_hops_passed"], float(np.mean(scores[:10] >= point)))
        self.assertGreater(summary["noise_only_hops_passed"], 0.0)

        # A hop is speech when either half of its frame is: one hop more than the hangover holds.
        target = np.zeros(rate // 2, np.float32)
        target[rate // 10:rate // 10 + rate // 100] = 3000.0
        self.assertEqual(list(np.flatnonzero(detector.labels(target))), list(range(10, 12 + vad.HANGOVER_BLOCKS)))


if __name__ == "__main__":
    unittest.main()
