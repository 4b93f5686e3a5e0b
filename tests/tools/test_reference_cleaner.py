"""Checks of the NumPy reference cleaner and of the parity cases it generates."""

import os
import tempfile
import unittest

import numpy as np

import make_parity_case as parity
import nc_v0_0_5 as nc

RATES = (8000, 16000, 24000, 32000)
# The parity test's tolerance: 1e-3 of full scale in 16-bit units.
TOLERANCE = 32768 * 1e-3


class ReferenceCleanerTest(unittest.TestCase):
    def test_unity_mask_returns_the_input_one_hop_late(self):
        for rate in RATES:
            with self.subTest(rate=rate), tempfile.TemporaryDirectory() as folder:
                rng = np.random.default_rng(rate)
                hop = rate // 100
                records = parity.model_records(rate, rng, filter_range=(0, hop), controls={})
                # Output layer reduced to its bias: σ(50) rounds to a gain of exactly 1.0.
                records["WeightNonLinear"].value[-1][:] = 0.0
                records["BaesNonLinear"].value[-1][:] = 50.0
                paths = [os.path.join(folder, name) for name in ("unity.vlw", "in.f32", "out.f32")]
                nc.sw.WeightWriter(records).write_file(paths[0])
                signal = parity.test_signal(rate, rng)
                signal.astype("<f4").tofile(paths[1])
                nc.main(paths)
                out = np.fromfile(paths[2], dtype="<f4")
                self.assertEqual(out.size, signal.size)
                np.testing.assert_allclose(out[:hop], 0.0, atol=TOLERANCE)
                np.testing.assert_allclose(out[hop:], signal[:-hop], atol=TOLERANCE)

    def test_band_expansion_gives_every_bin_its_band(self):
        begin = 3
        for c in range(4):
            for n in range(1 << c, 150):
                with self.subTest(compress_rate=c, n=n):
                    bins = begin + n + 2
                    layout = nc.BandLayout(bins, begin, begin + n - 1, c)
                    # Row i: the bins that share bin i's band.
                    same_band = layout.expand(layout.compress(np.eye(bins)))
                    outside = np.r_[0:begin, begin + n:bins]
                    self.assertFalse(same_band[outside].any() or same_band[:, outside].any())
                    kept = n >> c
                    for i in range(n):
                        members = np.flatnonzero(same_band[begin + i]) - begin
                        start = members[0]
                        octave = int(np.floor(np.log2(start / kept))) if start >= kept else -1
                        width = min(2 << octave, n - start) if octave >= 0 else 1
                        self.assertTrue(np.array_equal(members, np.arange(start, start + width)))
                    if n % (2 << c) == 0:
                        self.assertEqual(layout.count, kept * (c + 2) // 2)

    def test_window_squares_sum_to_one_at_half_overlap(self):
        for rate in RATES:
            with self.subTest(rate=rate):
                w = nc.vorbis_window(rate // 50).astype(np.float64)
                self.assertEqual(w[0], 0.0)
                np.testing.assert_allclose(w ** 2 + np.roll(w, rate // 100) ** 2, 1.0, atol=1e-6)

    def test_training_features_are_the_streams_and_parity_gains_spread(self):
        with tempfile.TemporaryDirectory() as folder:
            parity.write_case(folder, 16000, seed=3)
            model = nc.Model.load(os.path.join(folder, "model.vlw"))
            signal = np.fromfile(os.path.join(folder, "input.f32"), dtype="<f4")
        inputs = nc.FrontEnd(model).signal_features(signal).inputs

        cleaner = nc.StreamCleaner(model)
        streamed = []
        analyse = cleaner.front.analyse

        def recording_analyse(block):
            streamed.append(analyse(block))
            return streamed[-1]

        cleaner.front.analyse = recording_analyse
        for start in range(0, signal.size, model.hop):
            cleaner.process_frame(signal[start:start + model.hop])
        np.testing.assert_array_equal(np.stack([a.inputs for a in streamed]), inputs)

        network = nc.Network(model)
        gains = np.stack([network.step(f) for f in inputs])
        self.assertGreater(np.mean((gains > 0.05) & (gains < 0.95)), 0.8)
        self.assertGreater(gains.std(), 0.15)


if __name__ == "__main__":
    unittest.main()
