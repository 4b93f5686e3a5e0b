#!/usr/bin/python3
"""NumPy reference of the v0.0.7 noise cleaner with its own voice detector, written from
docs/design.md (Noise cleaner with voice detector v0.0.7): per hop the detector judges the hop's
frame, the v0.0.7 cleaning step (nc_v0_0_7.py, the v0.0.5 frame loop's block step) runs on a hop
it calls speech (probability at least 0.5) and a hop without speech is silence.

The cleaner's records are a v0.0.7 cleaner's with "Nc" ahead of the eight network names the
detector also uses; the detector is the layer-normalised GRU (layer_norm_gru.py) under those
plain names, "VadMU", "VadSD" and the "Vad" norm records, over the log band powers of its own
Hann-windowed frames. The reference runs the detector at the cleaner's rate only (the library
converts the rate with libresample, which it does not model).

Command line (as nc_v0_0_5.py: raw little-endian float32 samples in the 16-bit range at the
model's rate, fed in 10 ms frames; the output has the input's length):

    nc_v0_0_7_vad.py MODEL IN.f32 OUT.f32
"""

import sys

import numpy as np

import layer_norm_gru as lngru
import nc_v0_0_6 as nc6
import nc_v0_0_7 as nc7

nc = nc6.nc
sw = nc.sw
_record = nc._record
F32 = np.float32

VERSION = nc7.VERSION
KEYS = nc7.KEYS
CLEANER_PREFIX = "Nc"
# The roles whose names the detector and the cleaner would share.
SHARED = ("in_w", "in_b", "gru_w", "gru_b", "reset_w", "reset_b", "out_w", "out_b")
CLEANER_NAMES = {role: (CLEANER_PREFIX if role in SHARED else "") + name for role, name in lngru.NAMES.items()}
DETECTOR_NAMES = dict(lngru.NAMES, mu="VadMU", sd="VadSD", in_g="VadGainLinearNorm", in_beta="VadBiasLinearNorm",
                      out_g="VadGainNonLinearNorm", out_beta="VadBiasNonLinearNorm")
# A detector's own records besides its network's (DETECTOR_NAMES).
DETECTOR_SETTINGS = ("VadVersion", "VadSampleRate", "VadStep", "VadFiltrBegin", "VadFiltrEnd", "VadFrameLength",
                     "VadPreviewFrames", "VadCoefficientNumber", "VadLpsEps", "CONTROL_VELTA_COMPRESS_RATE_VAD")
SPEECH = F32(0.5)
DEFAULT_LPS_EPS = F32(0.001)
DEFAULT_COMPRESS_RATE = 3
TARGET_LEVEL = 2000.0
# Silence ahead of the output (ms) for working duration W and input duration I (ms).
OUTPUT_PREFILL_MS = {
    (32, 32): 16, (32, 30): 28, (32, 20): 30, (32, 15): 30, (32, 40): 30, (32, 10): 31,
    (30, 10): 25, (30, 20): 25, (30, 40): 25, (30, 30): 15, (30, 15): 15, (30, 32): 29,
    (20, 10): 10, (20, 20): 10, (20, 30): 10, (20, 40): 10, (20, 32): 18, (20, 15): 15,
}


def gated_records(cleaner, detector, vad_version="0.0.1"):
    """A gated file's records from a v0.0.7 cleaner's (its shared network names get the prefix)
    and a detector's settings and network; "VadVersion" is the detector's or `vad_version`."""
    records = dict(cleaner)
    for role in SHARED:
        records[CLEANER_NAMES[role]] = records.pop(lngru.NAMES[role])
    for name in DETECTOR_SETTINGS + tuple(DETECTOR_NAMES.values()):
        if name in detector:
            records[name] = detector[name]
    if not (records.get("VadVersion") and records["VadVersion"].value):
        records["VadVersion"] = sw.Record(sw.STRING, vad_version)
    return records


class DetectorFrontEnd:
    """The detector's settings, and its features of one frame."""

    def __init__(self, records):
        get = lambda name: _record(records, name, sw.UINT)  # noqa: E731
        self.rate, self.step = get("VadSampleRate"), get("VadStep")
        self.begin, self.end = get("VadFiltrBegin"), get("VadFiltrEnd")
        self.frame, self.preview = get("VadFrameLength"), get("VadPreviewFrames")
        eps = records["VadLpsEps"].value if "VadLpsEps" in records else F32(0)
        self.eps = F32(eps) if eps != 0 else DEFAULT_LPS_EPS
        control = records.get("CONTROL_VELTA_COMPRESS_RATE_VAD")
        self.compress_rate = control.value if control is not None else DEFAULT_COMPRESS_RATE
        self.bands = nc.BandLayout(self.frame // 2 + 1, self.begin, self.end - 1, self.compress_rate)
        if get("VadCoefficientNumber") != self.bands.count:
            raise ValueError("VadCoefficientNumber must be the band count %d" % self.bands.count)
        self.window = np.hanning(self.frame).astype(F32)

    @property
    def inputs(self):
        """Network input length: the preview frames' bands."""
        return self.preview * self.bands.count

    def features(self, frame):
        """Log band powers of one frame, its level normalised to the target level."""
        x = np.asarray(frame, F32)
        energy = float(np.mean(np.square(x, dtype=np.float64)))
        gain = F32(TARGET_LEVEL / np.sqrt(energy)) if energy > 1e-6 else F32(1.0)
        spectrum = np.fft.rfft(x * self.window).astype(np.complex64)
        power = np.square(gain * np.hypot(spectrum.real, spectrum.imag))
        return np.log(self.bands.compress(power) + self.eps).astype(F32)

    def contexts(self, signal):
        """The network's raw input for every hop of a fresh stream fed `signal`: the newest
        preview frames' features, oldest first, zeros before the stream."""
        features = np.stack([self.features(f) for f in detector_frames(self, signal)])
        padded = np.concatenate([np.zeros((self.preview - 1, self.bands.count), F32), features])
        return np.stack([padded[k:k + self.preview].ravel() for k in range(len(features))])


class Detector(DetectorFrontEnd):
    """The detector's settings and network, checked against each other."""

    def __init__(self, records):
        super().__init__(records)
        self.weights = lngru.Weights(records, self.inputs, False, DETECTOR_NAMES)
        if self.weights.outputs != 1:
            raise ValueError("the detector's last layer gives %d values, not one" % self.weights.outputs)


class DetectorStream:
    """The detector's context (its preview frames, zeros at the start) and recurrent state."""

    def __init__(self, detector):
        self.d = detector
        self.network = lngru.Network(detector.weights)
        self.context = np.zeros((detector.preview, detector.bands.count), F32)

    def probability(self, frame):
        self.context = np.roll(self.context, -1, axis=0)
        self.context[-1] = self.d.features(frame)
        return self.network.step(self.context.ravel())[0]


class Model(nc7.Model):
    """A v0.0.7 cleaner with the "Nc" network names and the detector beside it."""

    NETWORK_NAMES = CLEANER_NAMES

    def _read_network(self, records):
        if not ("VadVersion" in records and records["VadVersion"].value):
            raise ValueError("no VadVersion: a plain v0.0.7 cleaner")
        nc6.Model._read_network(self, records)
        self.detector = Detector(records)
        work = self.block * 1000 // self.rate
        if self.detector.frame * self.rate != self.block * self.detector.rate \
                or self.detector.step * self.rate != self.hop * self.detector.rate:
            raise ValueError("Working and input frame durations for vad model and nc model should match.")
        if self.detector.rate != self.rate:
            raise NotImplementedError("the reference runs the detector at the cleaner's rate only")
        self.work_ms = work


class StreamCleaner(nc.StreamCleaner):
    """The gated frame loop: the detector first, then the cleaner's block step or silence."""

    def __init__(self, model, input_ms=nc.FRAME_MS):
        self.input_ms = input_ms
        super().__init__(model)

    def reset(self):
        super().reset()
        m, d = self.model, self.model.detector
        self.front.context[:] = 0  # the cleaner's context starts at zero here
        self.detector = DetectorStream(d)
        self.vad_input = np.zeros(d.frame - d.step, F32)
        prefill = OUTPUT_PREFILL_MS.get((m.work_ms, self.input_ms), 0)
        self.unread_output = np.zeros(m.rate * prefill // 1000, F32)

    def process_frame(self, frame):
        frame = np.asarray(frame, F32)
        post, hop, d = self.model.post, self.model.hop, self.model.detector
        peak = max(abs(frame.max()), abs(frame.min()))
        skip, not_clipped = post.skip_frame and peak <= 0.0, peak <= post.clip_fix_point
        self.unread_input = np.concatenate([self.unread_input, frame])
        self.vad_input = np.concatenate([self.vad_input, frame])
        while self.unread_input.size >= 2 * hop:
            speech = self.detector.probability(self.vad_input[:d.frame]) >= SPEECH
            self.vad_input = self.vad_input[d.step:]
            block = self.unread_input[:2 * hop]
            cleaned = self._clean_block(block, skip, not_clipped) if speech else np.zeros(2 * hop, F32)
            self.unread_input = self.unread_input[hop:]
            self.unread_output = np.concatenate([self.unread_output, np.zeros(hop, F32)])
            overlap = min(2 * hop, self.unread_output.size)
            self.unread_output[-overlap:] += cleaned[-overlap:]
        out = np.zeros(frame.size, F32)
        ready = min(frame.size, self.unread_output.size)
        out[:ready], self.unread_output = self.unread_output[:ready], self.unread_output[ready:]
        return out


def clean(model, signal):
    """Output of a fresh stream fed `signal` in 10 ms frames (same length as the input)."""
    cleaner = StreamCleaner(model)
    signal = np.asarray(signal, F32)
    frames = [cleaner.process_frame(signal[i:i + model.hop]) for i in range(0, signal.size, model.hop)]
    return np.concatenate(frames) if frames else np.zeros(0, F32)


def probabilities(model, signal):
    """The detector's probability for every hop of a fresh stream fed `signal`."""
    stream = DetectorStream(model.detector)
    return np.array([stream.probability(f) for f in detector_frames(model.detector, signal)])


def detector_frames(detector, signal):
    """The detector's frame for every hop of a fresh stream fed `signal`: its history starts
    with the frame's overlap of zeros."""
    padded = np.concatenate([np.zeros(detector.frame - detector.step, F32), np.asarray(signal, F32)])
    return [padded[i:i + detector.frame] for i in range(0, padded.size - detector.frame + 1, detector.step)]


if __name__ == "__main__":
    sys.exit(nc6.main(model_class=Model, clean_signal=clean))
