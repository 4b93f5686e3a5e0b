#!/usr/bin/python3
"""Makes the noisy sample the README's main job cleans: held-out speech from two speakers with
café noise at 5 dB SNR, 48 kHz mono. Without the corpus beside the checkout it copies the small
sample shipped in models/demo/.

    make_demo_sample.py OUT.wav
"""

import sys
from pathlib import Path

import numpy as np
import soundfile as sf

ROOT = Path(__file__).resolve().parent.parent
HOLDOUT = ROOT.parent / "shared" / "data" / "holdout"
SHIPPED = ROOT / "models" / "demo" / "noisy-sample.flac"
RATE = 48000
SPEECH = ["ravdess_actor15_03-01-01-01-01-01-15.flac", "ravdess_actor22_03-01-08-02-02-02-22.flac"]
NOISE = "moodist_places_restaurant_00.flac"
SNR_DB = 5.0
LEVEL_DBFS = -26.0


def load(path):
    audio, rate = sf.read(path, dtype="float64", always_2d=True)
    audio = audio[:, 0]
    if rate != RATE:  # noise files are stored at lower rates
        from scipy.signal import resample_poly
        g = np.gcd(rate, RATE)
        audio = resample_poly(audio, RATE // g, rate // g)
    return audio


def main(out):
    if not HOLDOUT.is_dir():
        audio, rate = sf.read(SHIPPED, dtype="float32")
        sf.write(out, audio, rate, subtype="PCM_16")
        print("corpus not found beside the checkout; using the shipped sample %s" % SHIPPED)
        return
    speech = np.concatenate([load(HOLDOUT / "speech" / name) for name in SPEECH])
    noise = np.resize(load(HOLDOUT / "noise" / NOISE), speech.shape)
    rms = lambda x: np.sqrt(np.mean(x * x) + 1e-20)
    speech *= 10 ** (LEVEL_DBFS / 20) / rms(speech)
    noise *= rms(speech) / rms(noise) / 10 ** (SNR_DB / 20)
    sf.write(out, (speech + noise).astype(np.float32), RATE, subtype="PCM_16")
    print("wrote %s: %.1f s of held-out speech with cafe noise at %.0f dB SNR" % (out, len(speech) / RATE, SNR_DB))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(Path(sys.argv[1]))
