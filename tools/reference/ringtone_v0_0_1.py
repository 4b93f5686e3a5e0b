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
NORM_EPSILON = 1e-5


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


def logistic(v):
    return F32(1.0) / (F32(1.0) + np.exp(-np.asarray(v, np.float64)).astype(F32))


def layer_norm(v, gain, bias):
    v = np.asarray(v, F32)
    mean = v.mean(dtype=np.float64)
    var = ((v - mean) ** 2).mean(dtype=np.float64)
    return ((v - mean) / np.sqrt(var + NORM_EPSILON) * gain + bias).astype(F32)


def model_records(mu, sd, in_ws, in_bs, in_gains, in_betas, gru_w, gru_b, reset_w, reset_b,
                  out_ws, out_bs, out_gains, out_betas, name=None, timestamp=None):
    """Every record the detector reads. A file handed to the library as a blob also needs `name`
    and `timestamp` ("ModelName", "TimeStamp": the registry's key)."""
    R = sw.Record
    vec = lambda v: np.asarray(v, F32)  # noqa: E731
    records = {
        "Version": R(sw.STRING, VERSION),
        "RingtoneVersion": R(sw.STRING, RINGTONE_VERSION),
        "SampleRate": R(sw.UINT, MODEL_RATE),
        # Selection and the registry read every model's frame: the 10 ms hop at the model's rate.
        "FrameLength": R(sw.UINT, MODEL_RATE // 100),
        "MU": R(sw.VECTOR, vec(mu)),
        "SD": R(sw.VECTOR, vec(sd)),
        "WeightLinear": R(sw.MATRIX_LIST, [vec(w) for w in in_ws]),
        "BiasLinear": R(sw.VECTOR_LIST, [vec(b) for b in in_bs]),
        "GainLinearNorm": R(sw.VECTOR_LIST, [vec(g) for g in in_gains]),
        "BiasLinearNorm": R(sw.VECTOR_LIST, [vec(b) for b in in_betas]),
        "WeightGRU": R(sw.MATRIX, vec(gru_w)),
        "BiasGRU": R(sw.VECTOR, vec(gru_b)),
        "WeightGRU_reset": R(sw.MATRIX, vec(reset_w)),
        "BiasGRU_reset": R(sw.VECTOR, vec(reset_b)),
        "WeightNonLinear": R(sw.MATRIX_LIST, [vec(w) for w in out_ws]),
        "BiasNonLinear": R(sw.VECTOR_LIST, [vec(b) for b in out_bs]),
        "GainNonLinearNorm": R(sw.VECTOR_LIST, [vec(g) for g in out_gains]),
        "BiasNonLinearNorm": R(sw.VECTOR_LIST, [vec(b) for b in out_betas]),
    }
    if name is not None:
        records["ModelName"] = R(sw.STRING, name)
        records["TimeStamp"] = R(sw.STRING, timestamp)
    return records


class Model:
    """The records of a ringtone model, checked against each other."""

    def __init__(self, records):
        if _record(records, "Version", sw.STRING) != VERSION:
            raise ValueError("model version is not %s" % VERSION)
        if not _record(records, "RingtoneVersion", sw.STRING):
            raise ValueError("not a ringtone detector: RingtoneVersion is empty")
        get = lambda name, code: _record(records, name, code)  # noqa: E731
        self.mu, self.sd = get("MU", sw.VECTOR), get("SD", sw.VECTOR)
        self.in_w, self.in_b = get("WeightLinear", sw.MATRIX_LIST), get("BiasLinear", sw.VECTOR_LIST)
        self.in_g = get("GainLinearNorm", sw.VECTOR_LIST)
        self.in_beta = get("BiasLinearNorm", sw.VECTOR_LIST)
        self.gru_w, self.gru_b = get("WeightGRU", sw.MATRIX), get("BiasGRU", sw.VECTOR)
        self.reset_w, self.reset_b = get("WeightGRU_reset", sw.MATRIX), get("BiasGRU_reset", sw.VECTOR)
        self.out_w, self.out_b = get("WeightNonLinear", sw.MATRIX_LIST), get("BiasNonLinear", sw.VECTOR_LIST)
        self.out_g = get("GainNonLinearNorm", sw.VECTOR_LIST)
        self.out_beta = get("BiasNonLinearNorm", sw.VECTOR_LIST)
        if len(self.mu) != FEATURES or len(self.sd) != FEATURES or np.any(self.sd <= 0):
            raise ValueError("MU and SD must have %d values, SD above 0" % FEATURES)
        self.hidden = self.reset_w.shape[0]
        if self.gru_w.shape != (2 * self.hidden, self.reset_w.shape[1]) or len(self.gru_b) != 3 * self.hidden:
            raise ValueError("WeightGRU must be 2H x (I + H) and BiasGRU 3H values")
        if not self.in_w or not self.out_w or len(self.out_g) != len(self.out_w) - 1:
            raise ValueError("the network needs input layers and output layers")

    @classmethod
    def load(cls, path):
        return cls(sw.read_file(str(path)))


class Network:
    """Recurrent state and one step of the layer-normalised GRU network."""

    def __init__(self, model):
        self.m = model
        self.state = np.zeros(model.hidden, F32)

    def step(self, features):
        m, h = self.m, self.state
        x = ((np.asarray(features, F32) - m.mu) / m.sd).astype(F32)
        for w, b, g, beta in zip(m.in_w, m.in_b, m.in_g, m.in_beta):
            x = np.tanh(layer_norm(w @ x + b, g, beta)).astype(F32)
        width, hidden = len(x), m.hidden
        u_part, h_part = m.gru_w[:, :width], m.gru_w[:, width:]
        z = logistic(u_part[:hidden] @ x + h_part[:hidden] @ h + m.gru_b[:hidden])
        r = logistic(m.reset_w[:, :width] @ x + m.reset_w[:, width:] @ h + m.reset_b)
        c = np.tanh(u_part[hidden:] @ x + m.gru_b[hidden:2 * hidden]
                    + r * (h_part[hidden:] @ h + m.gru_b[2 * hidden:])).astype(F32)
        self.state = (z * h + (F32(1.0) - z) * c).astype(F32)
        x = self.state
        for k, (w, b) in enumerate(zip(m.out_w, m.out_b)):
            v = (w @ x + b).astype(F32)
            x = np.tanh(layer_norm(v, m.out_g[k], m.out_beta[k])).astype(F32) if k < len(m.out_w) - 1 \
                else logistic(v)
        return F32(x[0])


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
