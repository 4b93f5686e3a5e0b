"""Known answers and properties of the evaluation metrics (tools/eval/metrics.py)."""

import math
import unittest

import numpy as np

import metrics
import report

RATES = (16000, 48000)


def speech_like(rate, seconds=3.0, seed=0):
    """Voiced syllables: a gliding harmonic tone reaching 5 kHz (every STOI band), 4 Hz syllable
    envelope, two pauses."""
    t = np.arange(int(seconds * rate)) / rate
    f0 = 140.0 + 30.0 * np.sin(2 * np.pi * 0.7 * t)
    phase = 2 * np.pi * np.cumsum(f0) / rate
    rng = np.random.default_rng(seed)
    amplitudes = rng.uniform(0.2, 1.0, 30) / np.sqrt(np.arange(1, 31))
    voice = sum(a * np.sin(k * phase) for k, a in enumerate(amplitudes, start=1))
    envelope = np.maximum(0.0, np.sin(2 * np.pi * 4.0 * t)) ** 2
    envelope[(t > 0.9) & (t < 1.3)] = 0.0
    envelope[(t > 2.1) & (t < 2.4)] = 0.0
    return 0.1 * voice * envelope


def noise_at(clean, snr_db, seed=1, orthogonal=False):
    noise = np.random.default_rng(seed).standard_normal(len(clean))
    if orthogonal:
        c = clean - clean.mean()
        noise -= noise.mean()
        noise -= np.dot(noise, c) / np.dot(c, c) * c
    return noise * math.sqrt(np.sum((clean - clean.mean()) ** 2) / np.sum(noise ** 2) * 10 ** (-snr_db / 10))


class SiSdrTest(unittest.TestCase):
    def test_known_ratios(self):
        clean = speech_like(16000)
        self.assertEqual(metrics.si_sdr(clean, clean), math.inf)
        # Scale and a constant offset change nothing.
        self.assertGreater(metrics.si_sdr(clean, 0.3 * clean + 0.01), 200.0)
        for snr in (-10.0, -5.0, 0.0, 7.5, 20.0, 40.0):
            with self.subTest(snr=snr):
                mixture = clean + noise_at(clean, snr, orthogonal=True)
                self.assertAlmostEqual(metrics.si_sdr(clean, mixture), snr, places=9)
                self.assertAlmostEqual(metrics.si_sdr(clean, 2.5 * mixture), snr, places=9)

    def test_rejects_mismatched_lengths(self):
        with self.assertRaises(ValueError):
            metrics.si_sdr(np.ones(10), np.ones(11))


class StoiTest(unittest.TestCase):
    def test_clean_against_itself_scores_one(self):
        for rate in RATES:
            clean = speech_like(rate)
            for name, measure in (("stoi", metrics.stoi), ("estoi", metrics.estoi)):
                with self.subTest(rate=rate, measure=name):
                    self.assertAlmostEqual(measure(clean, clean, rate), 1.0, places=9)
                    self.assertAlmostEqual(measure(clean, 0.2 * clean, rate), 1.0, places=9)

    def test_falls_with_noise_and_ignores_silence(self):
        rate = 16000
        clean = speech_like(rate)
        for name, measure in (("stoi", metrics.stoi), ("estoi", metrics.estoi)):
            scores = [measure(clean, clean + noise_at(clean, snr), rate) for snr in (30, 15, 5, 0, -5, -10)]
            with self.subTest(measure=name, scores=scores):
                self.assertTrue(all(a > b for a, b in zip(scores, scores[1:])))
                self.assertGreater(scores[0], 0.95)
                # Noise alone carries nothing of the speech envelope. ESTOI scores it near 0;
                # STOI's clipping at 6.6 times the clean envelope lets its troughs through, so it
                # keeps a floor, but below the noisiest mixture.
                unrelated = measure(clean, noise_at(clean, 0.0, seed=7), rate)
                self.assertLess(unrelated, scores[-1])
                if name == "estoi":
                    self.assertLess(abs(unrelated), 0.1)
                # Frames more than 40 dB below the loudest clean frame are dropped, so a silent
                # stretch added to both signals (a whole number of 12.8 ms hops) changes nothing.
                mixture = clean + noise_at(clean, 5.0)
                silence = np.zeros(int(rate * 0.128 * 10))
                padded = measure(np.concatenate([clean, silence]), np.concatenate([mixture, silence]), rate)
                self.assertAlmostEqual(padded, measure(clean, mixture, rate), places=6)

    def test_estoi_is_stricter_than_stoi_under_noise(self):
        # ESTOI's spectro-temporal correlation keeps no credit for the per-band clipping STOI
        # applies, so at low SNR it lies well below STOI (Jensen & Taal report the same ordering).
        rate = 16000
        clean = speech_like(rate)
        mixture = clean + noise_at(clean, -5.0)
        self.assertLess(metrics.estoi(clean, mixture, rate) + 0.1, metrics.stoi(clean, mixture, rate))

    def test_too_short_is_an_error(self):
        with self.assertRaises(ValueError):
            metrics.stoi(speech_like(16000, 0.3), speech_like(16000, 0.3), 16000)


class LevelMeasuresTest(unittest.TestCase):
    def test_segmental_snr_and_level_change(self):
        rate = 16000
        signal = np.random.default_rng(3).standard_normal(rate * 4)
        self.assertEqual(metrics.segmental_snr(signal, signal, rate), 35.0)
        self.assertAlmostEqual(metrics.segmental_snr(signal, np.zeros_like(signal), rate), 0.0, places=9)
        for snr in (-5.0, 0.0, 10.0, 20.0):
            with self.subTest(snr=snr):
                noise = np.random.default_rng(4).standard_normal(len(signal)) * 10 ** (-snr / 20)
                # Both stationary: every frame sits near the same SNR.
                self.assertAlmostEqual(metrics.segmental_snr(signal, signal + noise, rate), snr, delta=0.3)
        self.assertAlmostEqual(metrics.level_change_db(signal, 0.1 * signal), 20.0, places=9)

    def test_onsets_are_the_first_200_ms_after_each_long_pause(self):
        for rate in RATES:
            with self.subTest(rate=rate):
                clean = speech_like(rate)
                mask = metrics.onset_mask(clean, rate)
                # Utterances start at 0, and after the pauses ending at 1.3 and 2.5 s; the 125 ms
                # gaps between syllables are no pause.
                starts = np.flatnonzero(np.diff(mask.astype(int)) == 1) + 1
                self.assertEqual(mask[0], True)
                np.testing.assert_allclose(starts / rate, [1.3, 2.5], atol=0.021)
                self.assertEqual(mask.sum(), 3 * int(0.2 * rate))
                # A gate that opens 100 ms late loses half of each onset: the onset measure
                # falls far below the whole signal's, which the rest of the speech holds up.
                late = clean.copy()
                for start in np.concatenate([[0], starts]):
                    late[start:start + rate // 10] = 0.0
                whole, onset = metrics.si_sdr(clean, late), metrics.onset_si_sdr(clean, late, rate)
                self.assertLess(onset, whole - 3.0)
                self.assertGreater(metrics.onset_si_sdr(clean, clean + 1e-6 * late, rate), 100.0)

    def test_confidence_interval(self):
        # Mean 3, s = 1.5811, t(0.975, 4) = 2.7764: half-width 2.7764 * 1.5811 / sqrt(5).
        mean, half = report.mean_ci([1.0, 2.0, 3.0, 4.0, 5.0])
        self.assertAlmostEqual(mean, 3.0)
        self.assertAlmostEqual(half, 1.9632, places=4)


if __name__ == "__main__":
    unittest.main()
