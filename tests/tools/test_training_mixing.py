"""Training mixtures declare the bandwidth their target speech really has: the loss leaves out the
bands above it, so a bandwidth set too high teaches the network to remove a talker's missing
highs from the noise, and one set too low leaves speech bands untrained."""

import os
import sys
import unittest

import numpy as np
from scipy.signal import butter, sosfiltfilt, welch

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "train"))

import mixing  # noqa: E402

RATE = 32000
NARROW_SOURCE_HZ = 8000.0


class WhiteCorpus:
    """Stands in for the decoded corpus: flat-spectrum 'speech' of both groups (the 8 kHz group
    cut at 8 kHz, as its recordings are) and flat noise reaching the Nyquist frequency."""

    def __init__(self, rng):
        self.rate = RATE
        cut = butter(16, NARROW_SOURCE_HZ, fs=RATE, output="sos")
        self.speech, self.speech_items = [], []
        for group, bandwidth in (("ravdess", RATE / 2), ("so762", NARROW_SOURCE_HZ)):
            for _ in range(3):
                audio = rng.standard_normal(RATE)
                if bandwidth < RATE / 2:
                    audio = sosfiltfilt(cut, audio)
                self.speech_items.append({"group": group, "bandwidth": bandwidth, "length": RATE,
                                          "active": [0, RATE], "index": len(self.speech)})
                self.speech.append(audio)
        self.noise = [rng.standard_normal(2 * RATE)]
        self.noise_items = [{"name": "white_00.flac", "length": 2 * RATE, "index": 0}]

    def speech_audio(self, item):
        return self.speech[item["index"]]

    def noise_audio(self, item):
        return self.noise[item["index"]]


def band_density(x, low_hz, high_hz):
    freqs, power = welch(x, RATE, nperseg=1024)
    return power[(freqs >= low_hz) & (freqs < high_hz)].mean()


class MixtureBandwidthTest(unittest.TestCase):
    def test_declared_bandwidth_is_where_the_target_speech_ends(self):
        rng = np.random.default_rng(3)
        mixer = mixing.Mixer(WhiteCorpus(rng), seconds=1.0)
        talker_cut_over_wider_noise = 0
        for _ in range(300):
            mix = mixer(rng)
            if mix.kind == "noise":
                continue
            bw = mix.bandwidth
            in_band = band_density(mix.target, 0.25 * bw, 0.5 * bw)
            # Flat speech through a microphone's shelves and peaks (at most ±16 dB) still fills
            # its band; a low-pass it went through but the bandwidth ignores does not.
            self.assertGreater(band_density(mix.target, 0.7 * bw, 0.85 * bw), in_band * 10 ** (-3.5))
            if bw < 0.75 * RATE / 2:
                self.assertLess(band_density(mix.target, 1.3 * bw, RATE / 2), in_band * 1e-2)
                noisy_above = band_density(mix.noisy - mix.target, 1.3 * bw, RATE / 2)
                if noisy_above > in_band * 1e-3 and bw != NARROW_SOURCE_HZ:
                    talker_cut_over_wider_noise += 1
        # Full-band talkers cut to a narrow band, with the noise reaching above the cut.
        self.assertGreater(talker_cut_over_wider_noise, 5)

    def test_a_16k_model_still_mixes_full_band_and_8k_talkers(self):
        # At 16 kHz the cache records every talker's bandwidth as 8 kHz; the full-band readers
        # must still be drawn as such (a run once found no full-band group and stopped).
        rng = np.random.default_rng(4)
        corpus = WhiteCorpus(rng)
        corpus.rate = 16000
        for item in corpus.speech_items:
            item["bandwidth"] = min(item["bandwidth"], 8000.0)
        mixer = mixing.Mixer(corpus, seconds=1.0)
        self.assertEqual((mixer.full_band, mixer.narrow_band), (["ravdess"], ["so762"]))
        kinds = {mixer(rng).kind for _ in range(40)}
        self.assertIn("noisy", kinds)

    def test_a_silent_noise_recording_is_never_the_noise_of_a_mixture(self):
        # A soundtrack's "silence" track is digital silence: scaled to an SNR it made NaN.
        rng = np.random.default_rng(8)
        corpus = WhiteCorpus(rng)
        corpus.noise = [np.zeros(20 * RATE), rng.standard_normal(2 * RATE)]
        corpus.noise_items = [{"name": "music_silence.flac", "length": 20 * RATE, "index": 0, "music": True},
                              {"name": "white_00.flac", "length": 2 * RATE, "index": 1}]
        mixer = mixing.Mixer(corpus, seconds=1.0, music=0.5)
        for _ in range(40):
            mix = mixer(rng)
            self.assertTrue(np.all(np.isfinite(mix.noisy)))
            if mix.kind != "clean":
                self.assertGreater(np.mean((mix.noisy - mix.target) ** 2), 0.0)

    def test_speed_perturbation_moves_the_band_edge_with_the_voice(self):
        rng = np.random.default_rng(5)
        mixer = mixing.Mixer(WhiteCorpus(rng), seconds=1.0, speed=0.1)
        declared, narrow = [], []
        for _ in range(40):
            speech, bandwidth = mixer._speech(rng)
            declared.append(bandwidth)
            # The 8 kHz talkers' steep edge; a full-band one's is only the resampler's roll-off.
            if bandwidth < 0.75 * RATE / 2:
                narrow.append(bandwidth)
                freqs, power = welch(speech, RATE, nperseg=1024)
                in_band = power[(freqs > 0.25 * bandwidth) & (freqs < 0.5 * bandwidth)].mean()
                edge = freqs[power > 0.1 * in_band].max()
                self.assertLess(abs(edge - bandwidth), 0.04 * bandwidth, (edge, bandwidth))
        self.assertLess(min(narrow), 0.95 * NARROW_SOURCE_HZ)
        self.assertGreater(max(narrow), 1.05 * NARROW_SOURCE_HZ)
        self.assertLess(min(declared), 0.95 * RATE / 2)


class NoiseVariationTest(unittest.TestCase):
    def test_varied_noise_moves_in_pitch_and_fills_the_mixture(self):
        rng = np.random.default_rng(9)
        corpus = WhiteCorpus(rng)
        tone_hz = 1000.0
        corpus.noise = [np.sin(2 * np.pi * tone_hz * np.arange(2 * RATE) / RATE)]
        low, high = (s / mixing.SPEED_STEPS for s in mixing.NOISE_SPEED_STEPS)

        def peaks(variation):
            mixer = mixing.Mixer(corpus, seconds=3.0, noise_variation=variation)
            found = []
            for _ in range(30):
                noise = mixer._one_noise(rng)
                self.assertEqual(noise.size, mixer.length)
                # Played from a source long enough for the whole mixture: no silent tail.
                tail = noise[-RATE // 10:]
                self.assertAlmostEqual(np.sqrt(np.mean(tail ** 2)), 1.0, delta=0.5)
                freqs, power = welch(noise, RATE, nperseg=8192)
                found.append(freqs[np.argmax(power)])
            return np.array(found)

        plain = peaks(0.0)
        np.testing.assert_allclose(plain, tone_hz, atol=RATE / 8192)
        varied = peaks(1.0)
        self.assertTrue(np.all((varied > low * tone_hz - 8) & (varied < high * tone_hz + 8)), varied)
        self.assertLess(varied.min(), 0.9 * tone_hz)
        self.assertGreater(varied.max(), 1.1 * tone_hz)


class NoiseDrawTest(unittest.TestCase):
    def test_music_share_length_weighting_and_scattered_events(self):
        rng = np.random.default_rng(11)
        corpus = WhiteCorpus(rng)
        click = np.hanning(RATE // 10)
        corpus.noise = [rng.standard_normal(20 * RATE), rng.standard_normal(60 * RATE)] + [click] * 10
        corpus.noise_items = ([{"name": "amb_a.flac", "length": 20 * RATE, "index": 0},
                               {"name": "music_b.flac", "length": 60 * RATE, "index": 1, "music": True}]
                              + [{"name": "buckle_%d.flac" % i, "length": click.size, "index": 2 + i}
                                 for i in range(10)])
        mixer = mixing.Mixer(corpus, seconds=4.0, music=0.2)
        draws = np.searchsorted(mixer.noise_draw, rng.random(20000) * mixer.noise_draw[-1], side="right")
        # Music held to its share whatever its length; the rest in proportion to length, so ten
        # 0.1 s clicks together weigh 1 s against the ambience's 20 s.
        self.assertAlmostEqual(np.mean(draws == 1), 0.2, delta=0.015)
        self.assertAlmostEqual(np.mean(draws >= 2), 0.8 * 1.0 / 21.0, delta=0.01)
        # A click family is scattered at random times, leaving silence between, not looped into
        # a steady tick.
        corpus.noise_items = corpus.noise_items[2:]
        mixer = mixing.Mixer(corpus, seconds=4.0)
        for _ in range(10):
            noise = mixer._one_noise(rng)
            self.assertEqual(noise.size, mixer.length)
            self.assertGreater(np.mean(np.abs(noise) < 1e-9), 0.3)
            self.assertAlmostEqual(np.mean(noise ** 2), 1.0, delta=1e-6)


class InputDamageTest(unittest.TestCase):
    def test_codec_cuts_its_band_and_clipping_stops_at_full_scale(self):
        rng = np.random.default_rng(13)
        x = rng.standard_normal(4 * RATE)
        y, cutoff = mixing.coded(rng, x, RATE)
        self.assertEqual(y.size, x.size)
        self.assertLess(band_density(y, cutoff + 500, RATE / 2), 1e-4 * band_density(y, 200, cutoff / 2))
        # In band the coded signal is still the input, up to the quantisation.
        low = sosfiltfilt(butter(8, cutoff / 2, fs=RATE, output="sos"), np.stack([x, y]))
        self.assertGreater(np.corrcoef(low)[0, 1], 0.9)
        mixer = mixing.Mixer(WhiteCorpus(rng), seconds=1.0, clipping=1.0, codec=1.0)
        clipped = 0
        for _ in range(20):
            mix = mixer(rng)
            self.assertLessEqual(mix.bandwidth, mixing.CODEC_CUTOFF_HZ[1])
            self.assertLessEqual(np.abs(mix.noisy).max(), mixing.FULL_SCALE)
            # Driven past full scale: samples sit at the rails.
            clipped += np.sum(np.abs(mix.noisy) >= mixing.FULL_SCALE - 1) > 1
        self.assertEqual(clipped, 20)


if __name__ == "__main__":
    unittest.main()
