#!/usr/bin/python3
"""NumPy reference of the VAD_0.0.1 voice activity detector, written from docs/design.md.

Independent of the C++ detector on purpose: a CI test feeds both the same model and audio and
compares the probabilities. It is also the training pipeline's front end (`stream_features`), so
a detector is trained on the features it sees when it runs.

Command line (raw little-endian float32 samples in the 16-bit range at the model's rate, fed in
blocks of 10 ms; a trailing partial block is dropped; one float32 probability per block out):

    vad_v0_0_1.py MODEL IN.f32 OUT.f32

Training:

    feats = stream_features(signal, rate)        # (blocks, 61) log band powers, not normalised
    inputs = network_inputs(feats, mu, sd)       # (blocks, 4 * 61) what the network reads
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
VERSION = "VAD_0.0.1"
BLOCK_MS = 10
CONTEXT_FRAMES = 4
STATE_SIZE = 94
FEATURE_EPSILON = 1e-7
# Input-level tracker: mean squares (16-bit units) below the floor leave the level alone; a block
# louder than twice the level is taken at once (fast rise), others are smoothed in.
LEVEL_SMOOTHING = 0.954992586021436  # 10^(-1/50)
LEVEL_FLOOR = 10000.0
LEVEL_ATTACK = 2.0
TARGET_LEVEL = 2000.0
INITIAL_LEVEL = TARGET_LEVEL ** 2
# Watchdog over the raw output: clears the recurrent state when it has been stuck at "no speech".
RESET_HISTORY = 200
RESET_PROBABILITY = F32(0.75)
RESET_RATIO = F32(0.95)
RESET_MIN_INTERVAL = 300
U64 = 1 << 64
CALIBRATION_FLOOR, CALIBRATION_CEILING = F32(1e-5), F32(0.99999)
STATE_RESET_KEY = "VELTA_VAD_ENABLE_STATE_RESET_v0_0_1"


def logistic(v):
    """1 / (e^-v + 1) in single precision."""
    v = np.asarray(v, dtype=F32)
    with np.errstate(over="ignore"):
        return (F32(1.0) / (np.exp(-v) + F32(1.0))).astype(F32)


def hamming_window(n):
    """Symmetric: 0.54 - 0.46 cos(2 pi i / (n - 1))."""
    i = np.arange(n, dtype=np.float64)
    return (0.54 - 0.46 * np.cos(2.0 * np.pi * i / (n - 1))).astype(F32)


def merge_groups(n):
    """(start, width) of each feature over n power bins: the first floor(n/4) (+1 when n mod 8 is
    1) bins alone, then groups of 2, 4, ... each width doubling where the octave ends."""
    q = n // 4
    o = 1 if n % 8 == 1 else 0
    groups = [(k, 1) for k in range(q + o)]
    position, width = q + o, 2
    while position < n:
        if position - o == 2 * q:
            q *= 2
            width *= 2
        groups.append((position, width))
        position += width
    return groups


def merge_bands(power):
    """Mean power of each group, over the last axis (a group cut short by the top bin is still
    divided by its full width)."""
    groups = merge_groups(power.shape[-1])
    out = np.empty(power.shape[:-1] + (len(groups),), dtype=F32)
    for j, (start, width) in enumerate(groups):
        out[..., j] = power[..., start:start + width].sum(axis=-1, dtype=F32) / F32(width)
    return out


def frame_features(frames, window):
    """ln(merged power + 1) of windowed frames (..., frame length)."""
    spectrum = np.fft.rfft((frames * window).astype(F32), axis=-1)
    power = (spectrum.real.astype(F32) ** 2 + spectrum.imag.astype(F32) ** 2).astype(F32)
    return np.log(merge_bands(power) + F32(1.0)).astype(F32)


def block_gains(energies):
    """Gain the level tracker gives each block, from the blocks' mean squares (float64)."""
    level = INITIAL_LEVEL
    gains = np.empty(len(energies), dtype=np.float64)
    for k, e in enumerate(energies):
        if e >= LEVEL_FLOOR:
            if e > LEVEL_ATTACK * level:
                level = LEVEL_SMOOTHING * e + (1.0 - LEVEL_SMOOTHING) * level
            else:
                level = LEVEL_SMOOTHING * level + (1.0 - LEVEL_SMOOTHING) * e
        gains[k] = TARGET_LEVEL / (np.sqrt(level) + 1e-7)
    return gains


def stream_features(signal, rate, frame_length=240):
    """Features of every whole 10 ms block of `signal` (16-bit range, model rate), as the
    detector computes them block by block: each block is scaled by its gain when it arrives and
    the analysis frame is the newest frame-length scaled samples."""
    block = rate * BLOCK_MS // 1000
    blocks = len(signal) // block
    x = np.asarray(signal[:blocks * block], dtype=F32).reshape(blocks, block)
    energies = (x.astype(np.float64) ** 2).sum(axis=1) / block
    scaled = (x * block_gains(energies).astype(F32)[:, None]).astype(F32).reshape(-1)
    history = np.concatenate([np.zeros(frame_length, F32), scaled])
    ends = frame_length + block * np.arange(1, blocks + 1)
    frames = np.lib.stride_tricks.sliding_window_view(history, frame_length)[ends - frame_length]
    return frame_features(frames, hamming_window(frame_length))


def normalise(features, mu, sd):
    return ((features - mu) / np.sqrt(sd + F32(FEATURE_EPSILON))).astype(F32)


def network_inputs(features, mu, sd):
    """The network's input at each block: the newest four normalised feature frames, oldest
    first, the history starting as four frames of silence (features of all-zero input)."""
    silence = normalise(np.zeros_like(mu), mu, sd)
    normalised = np.concatenate([np.tile(silence, (CONTEXT_FRAMES - 1, 1)),
                                 normalise(features, mu, sd)])
    windows = np.lib.stride_tricks.sliding_window_view(normalised, CONTEXT_FRAMES, axis=0)
    return windows.transpose(0, 2, 1).reshape(len(features), -1).astype(F32)


def model_records(sample_rate, frame_length, mu, sd, gate_w, gate_b, nonlinear_ws, nonlinear_bs,
                  linear_ws, linear_bs, thresholds=None, state_reset=False, name=None,
                  timestamp=None):
    """Every record the detector reads. `thresholds` = (minimum, best-F1 point, maximum) of the
    raw output, written as "Test_MINMAX" and "Test_BestF1". A file handed to the library as a
    blob also needs `name` and `timestamp` ("ModelName", "TimeStamp": the registry's key)."""
    R = sw.Record
    records = {
        "Version": R(sw.STRING, VERSION),
        "SampleRate": R(sw.UINT, sample_rate),
        "FrameLength": R(sw.UINT, frame_length),
        "MU": R(sw.VECTOR, np.asarray(mu, F32)),
        "SD": R(sw.VECTOR, np.asarray(sd, F32)),
        "WeightGRU": R(sw.MATRIX, np.asarray(gate_w, F32)),
        "BaesGRU": R(sw.VECTOR, np.asarray(gate_b, F32)),
        "WeightNonLinear": R(sw.MATRIX_LIST, [np.asarray(w, F32) for w in nonlinear_ws]),
        "BaesNonLinear": R(sw.VECTOR_LIST, [np.asarray(b, F32) for b in nonlinear_bs]),
        "WeightLinear": R(sw.MATRIX_LIST, [np.asarray(w, F32) for w in linear_ws]),
        "BaesLinear": R(sw.VECTOR_LIST, [np.asarray(b, F32) for b in linear_bs]),
    }
    if name is not None:
        records["ModelName"] = R(sw.STRING, name)
        records["TimeStamp"] = R(sw.STRING, timestamp)
    if thresholds is not None:
        low, best, high = (float(t) for t in thresholds)
        records["Test_MINMAX"] = R(sw.VECTOR, np.asarray([low, high], F32))
        records["Test_BestF1"] = R(sw.VECTOR, np.asarray([best], F32))
    if state_reset:
        records["CONTROL_" + STATE_RESET_KEY] = R(sw.STRING, "t")
    return records


class Model:
    """The records of a VAD_0.0.1 model, checked against each other."""

    def __init__(self, records):
        version = _record(records, "Version", sw.STRING)
        if version != VERSION:
            raise ValueError("model version %r is not %s" % (version, VERSION))
        self.rate = _record(records, "SampleRate", sw.UINT)
        self.frame_length = _record(records, "FrameLength", sw.UINT)
        self.mu = _record(records, "MU", sw.VECTOR)
        self.sd = _record(records, "SD", sw.VECTOR)
        self.gate_w = _record(records, "WeightGRU", sw.MATRIX)
        self.gate_b = _record(records, "BaesGRU", sw.VECTOR)
        self.nonlinear_w = _record(records, "WeightNonLinear", sw.MATRIX_LIST)
        self.nonlinear_b = _record(records, "BaesNonLinear", sw.VECTOR_LIST)
        self.linear_w = _record(records, "WeightLinear", sw.MATRIX_LIST)
        self.linear_b = _record(records, "BaesLinear", sw.VECTOR_LIST)
        features = len(merge_groups(self.frame_length // 2 + 1))
        if len(self.mu) != features or len(self.sd) != features:
            raise ValueError("MU and SD must have %d values" % features)
        if self.gate_w.shape != (STATE_SIZE, STATE_SIZE + CONTEXT_FRAMES * features):
            raise ValueError("WeightGRU must be %d x %d" % (STATE_SIZE, STATE_SIZE + 4 * features))
        if len(self.linear_w) < 1 or len(self.nonlinear_w) != len(self.linear_w) - 1:
            raise ValueError("the network needs L linear and L - 1 non-linear layers")
        self.thresholds = None
        minmax, best = records.get("Test_MINMAX"), records.get("Test_BestF1")
        if minmax is not None and best is not None and len(minmax.value) >= 2 and len(best.value):
            self.thresholds = (F32(minmax.value[0]), F32(best.value[0]), F32(minmax.value[1]))
        reset = records.get("CONTROL_" + STATE_RESET_KEY)
        self.state_reset = reset is not None and reset.type == sw.STRING and reset.value == "t"

    @classmethod
    def load(cls, path):
        return cls(sw.read_file(str(path)))

    def calibrate(self, raw):
        """Maps the raw output so the minimum goes to 0, the best-F1 point to 0.5 and the maximum
        to 1, clamped to [1e-5, 0.99999]; without thresholds the raw value as it is."""
        if self.thresholds is None:
            return F32(raw)
        t0, t1, t2 = self.thresholds
        half = F32(0.5)
        q = (raw - t0) * half / (t1 - t0) if raw < t1 else (raw - t1) * half / (t2 - t1) + half
        return F32(min(max(F32(q), CALIBRATION_FLOOR), CALIBRATION_CEILING))


class Network:
    """Recurrent state and one step: gate z = logistic(W_z [s; x]); hidden layer k adds a
    rectified and a linear branch; after the first layer only s <- z y + (1 - z) s, and the next
    layers go on from y; the last linear layer's first output is the raw result."""

    def __init__(self, model):
        self.model = model
        self.state = np.zeros(STATE_SIZE, F32)

    def step(self, inputs):
        m = self.model
        x = np.concatenate([self.state, inputs]).astype(F32)
        z = logistic(m.gate_w @ x + m.gate_b)
        for k in range(len(m.linear_w) - 1):
            a = (m.nonlinear_w[k] @ x + m.nonlinear_b[k]).astype(F32)
            b = (m.linear_w[k] @ x + m.linear_b[k]).astype(F32)
            y = np.where(a < 0, b, a + b).astype(F32)
            if k == 0:
                self.state = (z * y + (F32(1.0) - z) * self.state).astype(F32)
            x = y
        return F32((m.linear_w[-1] @ x + m.linear_b[-1])[0])


class Watchdog:
    """Counts frames judged silent over the last 200; the count subtracts both the new and the
    replaced flag once the ring is full, so it falls and wraps (64-bit), and from then on a
    reset comes every 300 frames."""

    def __init__(self):
        self.flags, self.position, self.count, self.since_reset = [], 0, 0, 0

    def step(self, raw, network):
        silent = int(RESET_PROBABILITY > logistic(raw))
        if len(self.flags) < RESET_HISTORY:
            self.flags.append(silent)
            self.count = (self.count + silent) % U64
        else:
            old = self.flags[self.position]
            self.flags[self.position] = silent
            self.count = (self.count - silent - old) % U64
        self.position = (self.position + 1) % RESET_HISTORY
        self.since_reset += 1
        if RESET_RATIO * F32(len(self.flags)) < F32(self.count) and \
                self.since_reset >= RESET_MIN_INTERVAL:
            network.state = np.zeros(STATE_SIZE, F32)
            self.since_reset = 0


class Detector:
    """One stream: the level tracker, the sample and feature histories, the network state and
    the watchdog."""

    def __init__(self, model):
        self.model = model
        self.level = INITIAL_LEVEL
        self.samples = np.zeros(model.frame_length, F32)
        silence = normalise(np.zeros_like(model.mu), model.mu, model.sd)
        self.context = [silence] * CONTEXT_FRAMES
        self.network = Network(model)
        self.watchdog = Watchdog() if model.state_reset else None
        self.window = hamming_window(model.frame_length)

    def block(self, samples):
        """Speech probability of one block (16-bit range, model rate)."""
        x = np.asarray(samples, dtype=F32)
        e = float((x.astype(np.float64) ** 2).sum() / len(x)) if len(x) else 0.0
        if e >= LEVEL_FLOOR:
            if e > LEVEL_ATTACK * self.level:
                self.level = LEVEL_SMOOTHING * e + (1.0 - LEVEL_SMOOTHING) * self.level
            else:
                self.level = LEVEL_SMOOTHING * self.level + (1.0 - LEVEL_SMOOTHING) * e
        gain = F32(TARGET_LEVEL / (np.sqrt(self.level) + 1e-7))
        self.samples = np.concatenate([self.samples, (x * gain).astype(F32)])[-len(self.samples):]
        features = frame_features(self.samples, self.window)
        self.context = self.context[1:] + [normalise(features, self.model.mu, self.model.sd)]
        raw = self.network.step(np.concatenate(self.context))
        if self.watchdog is not None:
            self.watchdog.step(raw, self.network)
        return self.model.calibrate(raw)

    def stream(self, signal):
        block = self.model.rate * BLOCK_MS // 1000
        return np.array([self.block(signal[k:k + block])
                         for k in range(0, len(signal) - block + 1, block)], dtype=F32)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("model")
    parser.add_argument("input")
    parser.add_argument("output")
    args = parser.parse_args()
    signal = np.fromfile(args.input, dtype="<f4")
    Detector(Model.load(args.model)).stream(signal).astype("<f4").tofile(args.output)
    return 0


if __name__ == "__main__":
    sys.exit(main())
