"""The decoded corpus cache: speech loses a recording's DC offset and rumble (the target would
otherwise teach the network to pass the lowest bands as voice) while noise keeps all of its
sound, every file comes out at the model rate, and a cache built by an older layout is rebuilt."""

import json
import os
import sys
import tempfile
import unittest
from pathlib import Path

import numpy as np
import soundfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "train"))

import corpus  # noqa: E402

SOURCE_RATE = 44100
RATE = 32000


def tone(hz, seconds, rate=SOURCE_RATE):
    t = np.arange(int(seconds * rate)) / rate
    return 0.2 * np.sin(2 * np.pi * hz * t)


class CorpusCacheTest(unittest.TestCase):
    def test_speech_loses_offset_and_rumble_noise_keeps_them(self):
        with tempfile.TemporaryDirectory() as root:
            split = Path(root, "data", "train")
            (split / "speech").mkdir(parents=True)
            (split / "noise").mkdir()
            # A voice-band tone over an offset of half its RMS and a 15 Hz rumble, the same under
            # a noise name: only the speech copy is cleaned.
            recording = tone(440, 2.0) + 0.07 + tone(15, 2.0) * 0.5
            soundfile.write(split / "speech" / "tuxpaint_fr_a.flac", recording, SOURCE_RATE, subtype="PCM_24")
            soundfile.write(split / "noise" / "rumble_a.flac", recording, SOURCE_RATE, subtype="PCM_24")

            cache = Path(root, "cache")
            built = corpus.Corpus.load_or_build(Path(root, "data"), "train", RATE, cache)
            speech = np.asarray(built.speech_audio(built.speech_items[0]), dtype=np.float64)
            noise = np.asarray(built.noise_audio(built.noise_items[0]), dtype=np.float64)
            self.assertEqual(built.rate, RATE)
            self.assertAlmostEqual(speech.size, 2.0 * RATE, delta=1)

            def share_below(x, hz):
                power = np.abs(np.fft.rfft(x)) ** 2
                freqs = np.fft.rfftfreq(x.size, 1.0 / RATE)
                return power[freqs < hz].sum() / power.sum()

            middle = slice(RATE // 4, -RATE // 4)  # away from the filter's edges
            self.assertLess(abs(speech[middle].mean()), 0.002)
            self.assertLess(share_below(speech[middle], 30.0), 0.01)
            self.assertGreater(abs(noise.mean()), 0.06)
            self.assertGreater(share_below(noise, 30.0), 0.3)
            # The voice band passes untouched.
            self.assertAlmostEqual(np.sqrt(2 * np.mean(speech[middle] ** 2)), 0.2, delta=0.005)

            # A cache of an older layout is not trusted: it is built again.
            index = cache / "train-32000" / "index.json"
            stored = json.loads(index.read_text())
            stored["version"] = corpus.CACHE_VERSION - 1
            stored["speech"][0]["active"] = [0, 1]
            index.write_text(json.dumps(stored))
            rebuilt = corpus.Corpus.load_or_build(Path(root, "data"), "train", RATE, cache)
            self.assertEqual(rebuilt.speech_items[0]["active"], built.speech_items[0]["active"])


if __name__ == "__main__":
    unittest.main()
