#!/usr/bin/python3
"""NumPy reference of the ringtone detector (0.0.6 model files with "RingtoneVersion"), written
from docs/design.md (Layer-normalised GRU network; Ringtone detector).

Independent of the C++ detector on purpose: a CI test feeds both the same model and audio and
compares the probabilities. It is also the training pipeline's front end (`stream_features`), so
the detector is trained on the features it computes when it runs, at every rate.

Command line (raw little-endian float32 samples in the 16-bit range at RATE, fed in 10 ms
blocks; a trailing partial block is dropped; one float32 probability per block out):

    ringtone_v0_0_1.py MODEL RATE IN.f32 OUT.f32

Training:

    feats = stream_features(signal, rate)   # (hops, 127): spectral shape and level, not normalised
"""

import argparse
import sys
from pathlib import Path

import numpy as np

# sonel_weights.py lives one folder up; the reference is run as a script, not as a package.
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
import sonel_weights as sw  # noqa: E402
import layer_norm_gru as lngru  # noqa: E402
from layer_norm_gru import NORM_EPSILON, layer_norm, logistic  # noqa: E402,F401
from nc_v0_0_5 import _record  # noqa: E402

F32 = np.float32
VERSION = "0.0.6"
RINGTONE_VERSION = "0.0.1"
MODEL_RATE = 8000          # the lowest rate the features need; selection takes it for every rate
FRAME_MS = 32
GRID_STEP_HZ = 31.25
GRID = np.arange(2, 128) * GRID_STEP_HZ   # 62.5 ... 3968.75 Hz, 126 points
POWER_EPSILON = 1e-3
FEATURES = len(GRID) + 1


def frame_length(rate):
    """32 ms of samples, or at rates where that is no whole number the next even size whose
    factors are 2, 3 and 5 (1440 at 44.1 kHz, 2880 at 88.2 kHz)."""
    n = -(-FRAME_MS * rate // 1000)
    while True:
        m = n
        for p in (2, 3, 5):
            while m % p == 0:
                m //= p
        if m == 1 and n % 2 == 0:
            return n
        n += 1


def hop_length(rate):
    return rate // 100


def grid_positions(rate):
    """Fractional FFT-bin position of every grid point."""
    return GRID * frame_length(rate) / rate


def hann(n):
    return 0.5 - 0.5 * np.cos(2.0 * np.pi * np.arange(n) / n)


def frame_features(frames, rate):
    """(k, N) analysis frames -> (k, 127) features: ln power on the grid minus its mean, then the
    mean."""
    n = frame_length(rate)
    spectrum = np.fft.rfft(frames * hann(n), axis=-1)
    power = (spectrum.real ** 2 + spectrum.imag ** 2) / float(n) ** 2
    pos = grid_positions(rate)
    low = np.floor(pos).astype(int)
    frac = pos - low
    high = np.minimum(low + 1, power.shape[-1] - 1)
    on_grid = power[:, low] * (1.0 - frac) + power[:, high] * frac
    logs = np.log(on_grid + POWER_EPSILON)
    level = logs.mean(axis=-1, keepdims=True)
    return np.concatenate([logs - level, level], axis=-1)


def stream_features(signal, rate):
    """Features of every whole 10 ms hop of `signal` (16-bit range): the frame of a hop is the
    newest frame-length samples at its end, zeros before the stream's start."""
    n, hop = frame_length(rate), hop_length(rate)
    hops = len(signal) // hop
    padded = np.concatenate([np.zeros(n, np.float64), np.asarray(signal, np.float64)])
    ends = n + hop * (np.arange(hops) + 1)
    index = ends[:, None] - n + np.arange(n)[None, :]
    return frame_features(padded[index], rate)


def model_records(mu, sd, in_ws, in_bs, in_gains, in_betas, gru_w, gru_b, reset_w, reset_b,
                  out_ws, out_bs, out_gains, out_betas, name=None, timestamp=None):
    """Every record the detector reads. A file handed to the library as a blob also needs `name`
    and `timestamp` ("ModelName", "TimeStamp": the registry's key)."""
    R = sw.Record
    records = {
        "Version": R(sw.STRING, VERSION),
        "RingtoneVersion": R(sw.STRING, RINGTONE_VERSION),
        "SampleRate": R(sw.UINT, MODEL_RATE),
        # Selection and the registry read every model's frame: the 10 ms hop at the model's rate.
        "FrameLength": R(sw.UINT, MODEL_RATE // 100),
    }
    records.update(lngru.records(mu, sd, in_ws, in_bs, in_gains, in_betas, gru_w, gru_b, reset_w, reset_b,
                                 out_ws, out_bs, out_gains, out_betas))
    if name is not None:
        records["ModelName"] = R(sw.STRING, name)
        records["TimeStamp"] = R(sw.STRING, timestamp)
    return records


class Model(lngru.Weights):
    """The records of a ringtone model, checked against each other."""

    def __init__(self, records):
        if _record(records, "Version", sw.STRING) != VERSION:
            raise ValueError("model version is not %s" % VERSION)
        if not _record(records, "RingtoneVersion", sw.STRING):
            raise ValueError("not a ringtone detector: RingtoneVersion is empty")
        super().__init__(records, FEATURES)
        if self.outputs != 1:
            raise ValueError("a detector gives one probability, not %d" % self.outputs)

    @classmethod
    def load(cls, path):
        return cls(sw.read_file(str(path)))


class Network(lngru.Network):
    """Recurrent state and one step of the detector's network."""

    def step(self, features):
        """The probability for one hop's features."""
        return F32(super().step(features)[0])


def detect(model, signal, rate):
    """Probability of every whole 10 ms hop."""
    network = Network(model)
    return np.array([network.step(f) for f in stream_features(signal, rate)], F32)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("model")
    p.add_argument("rate", type=int)
    p.add_argument("input")
    p.add_argument("output")
    args = p.parse_args()
    signal = np.fromfile(args.input, "<f4").astype(np.float64)
    detect(Model.load(args.model), signal, args.rate).astype("<f4").tofile(args.output)


if __name__ == "__main__":
    main()
