#!/usr/bin/python3
"""NumPy reference of the v0.0.5 noise cleaner, written from docs/design-noise-cleaner.md. The
v0.0.6 cleaner (nc_v0_0_6.py) runs the same front end and frame loop with its own network.

It is kept independent of the C++ cleaner on purpose: a CI test feeds the same model and audio
to both and compares the samples. It is also the front end of the training pipeline, so the
features a network is trained on are the ones it sees when it runs.

Command line (raw little-endian float32 samples in the 16-bit range at the model's rate; the
signal is fed as a stream of 10 ms frames, the last one shorter when the length is not a multiple
of 10 ms, and the output has the input's length):

    nc_v0_0_5.py MODEL IN.f32 OUT.f32

Training:

    model = Model.load("model.vlw")            # or Model(records) with sonel_weights records
    front = FrontEnd(model)
    feats = front.signal_features(noisy)       # blocks exactly as the stream analyses them
    feats.inputs      # (blocks, (PreviewFrames + 1) * m) network input, normalised by MU/SD
    feats.analysed    # False where the energy gate froze the block (its rows are NaN)
    clean_power = model.bands.compress(np.abs(front.block_spectra(clean)) ** 2)
    noisy_power = model.bands.compress(np.abs(feats.spectra) ** 2)
    target = np.sqrt(clean_power / np.maximum(noisy_power, 1e-9))   # band gains, same layout
    model.bands.expand(target)                 # band gains back to bins, 0 outside the filter
"""

import argparse
import collections
import sys
from dataclasses import dataclass
from pathlib import Path

import numpy as np

# sonel_weights.py lives one folder up; the reference is run as a script, not as a package.
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
import sonel_weights as sw  # noqa: E402

F32 = np.float32
VERSION = "0.0.5"
FRAME_MS = 10
# The level tracker averages the last 8 loud blocks: 80 ms of loud input at one block per hop.
LEVEL_MEMORY_BLOCKS = 8
# Below this mean square (16-bit units) a block is digital silence and is not rescaled.
RESCALE_FLOOR = 1e-6


def logistic(v):
    """1 / (1 + e^-v) in double precision, stored as float."""
    return (1.0 / (1.0 + np.exp(-np.asarray(v, dtype=np.float64)))).astype(F32)


def vorbis_window(n):
    """w[i] = sin(pi/2 sin^2(pi i / n)); periodic, so w[i]^2 + w[i + n/2]^2 = 1."""
    s = np.sin(np.pi * np.arange(n, dtype=np.float64) / n)
    return np.sin(np.pi / 2 * s * s).astype(F32)


def signal_blocks(signal, hop):
    """The 2*hop blocks a stream of `signal` analyses: one per hop, the first starting hop
    zeros before the signal (the pre-filled input buffer)."""
    padded = np.concatenate([np.zeros(hop, F32), np.asarray(signal, F32)])
    count = len(signal) // hop
    if count == 0:
        return np.zeros((0, 2 * hop), F32)
    return np.lib.stride_tricks.sliding_window_view(padded, 2 * hop)[::hop][:count]


@dataclass(frozen=True)
class ParameterKeys:
    """Names of a generation's tunable parameters: "CONTROL_<prefix><X><tag>" in the weight file,
    except the compress rate, "CONTROL_<compress_prefix>COMPRESS_RATE<tag>". Without `tunable`
    keys the compress rate is the only parameter read; the rest keep their defaults."""

    prefix: str
    tag: str
    compress_prefix: str = "VELTA_"
    tunable: bool = True

    def control(self, x):
        return "CONTROL_" + (self.compress_prefix if x == "COMPRESS_RATE" else self.prefix) + x + self.tag


KEYS = ParameterKeys("SONEL_", "_v0_0_5")


def _record(records, name, type_code):
    record = records.get(name)
    if record is None or record.type != type_code:
        raise ValueError("model record %s missing or not of type %d" % (name, type_code))
    return record.value


@dataclass(frozen=True)
class PostProcessing:
    """Mask and output-block switches, from the model's CONTROL_ records (defaults otherwise)."""

    smooth_coef: float = 1.0
    rm_modify: bool = False
    high_freq_smooth: bool = False
    clip_fix: bool = False
    clip_fix_point: float = 25000.0
    thresh_cut: bool = False
    rm_threshold_enabled: bool = False
    rm_threshold: float = 0.5
    rescale: bool = True
    rescale_ref_ampl: float = 2000.0
    compress_rate: int = 2
    volume_up: bool = False
    volume_up_percent: float = 0.0
    skip_frame: bool = False
    background_speaker_fix: bool = False

    @classmethod
    def from_records(cls, records, keys=KEYS):
        d = cls()

        def control(x, type_code, default):
            record = records.get(keys.control(x))
            if record is None or record.type != type_code:
                return default
            return record.value == "t" if type_code == sw.STRING else record.value

        def flag(x, default):
            return control(x, sw.STRING, default)

        def number(x, default, valid):
            value = control(x, sw.FLOAT, default)
            return value if valid(value) else default

        if not keys.tunable:
            return cls(compress_rate=control("COMPRESS_RATE", sw.UINT, d.compress_rate))
        percent = control("VOLUME_UP_PERCENT", sw.FLOAT, d.volume_up_percent)
        percent = percent if 0.0 < percent < 200.0 else 0.0
        return cls(
            smooth_coef=number("SMOOT_COEF", d.smooth_coef, lambda v: 0.0 < v <= 1.0),
            rm_modify=flag("SMOOT_RM_MODIFY", d.rm_modify),
            high_freq_smooth=flag("HIGH_FREQ_SMOOT", d.high_freq_smooth),
            # A valid volume increase needs the clip fix, whatever ENABLE_CLIP_FIX says.
            clip_fix=flag("ENABLE_CLIP_FIX", d.clip_fix) or percent > 0.0,
            clip_fix_point=number("CLIP_FIX_POINT", d.clip_fix_point, lambda v: 1.0 < v < 32768.0),
            thresh_cut=flag("ENABLE_THRESH_CUT", d.thresh_cut),
            rm_threshold_enabled=flag("ENABLE_RM_THRESHOLD", d.rm_threshold_enabled),
            rm_threshold=number("RM_THRESHOLD", d.rm_threshold, lambda v: 0.0 <= v <= 1.0),
            rescale=flag("ENABLE_RESCALE", d.rescale),
            rescale_ref_ampl=control("RESCALE_REF_AMPL", sw.FLOAT, d.rescale_ref_ampl),
            compress_rate=control("COMPRESS_RATE", sw.UINT, d.compress_rate),
            volume_up=flag("VOLUME_UP", d.volume_up),
            volume_up_percent=percent,
            skip_frame=flag("SKIP_FRAME", d.skip_frame),
            background_speaker_fix=flag("ENABLE_BACKGROUND_SPEAKER_FIX", d.background_speaker_fix),
        )


class BandLayout:
    """Bins FiltrBegin..FiltrEnd of a half spectrum grouped into the network's bands.

    With n bins in the filter range and compress rate c, the lowest b = n >> c bins are bands of
    their own; above them bands are 2, 4, 8 ... bins wide, the width doubling once a band would
    start at or beyond b*2, b*4, ...; a band cut off by FiltrEnd holds the bins that exist.
    """

    def __init__(self, bins, begin, end, compress_rate):
        n = end - begin + 1
        kept = n >> compress_rate
        if not 0 <= begin <= end < bins or kept == 0:
            raise ValueError("filter range %d..%d does not fit %d bins at compress rate %d"
                             % (begin, end, bins, compress_rate))
        starts = list(range(kept))
        width, edge, position = 2, 2 * kept, kept
        while position < n:
            while position >= edge:
                width, edge = 2 * width, 2 * edge
            starts.append(position)
            position += width
        self.bins, self.begin, self.end = bins, begin, end
        self.starts = np.array(starts)
        self.widths = np.diff(np.append(self.starts, n))
        self.band_of_bin = np.repeat(np.arange(len(starts)), self.widths)

    @property
    def count(self):
        return len(self.starts)

    def compress(self, power):
        """Band sums (float32) of bin powers given over whole half spectra (last axis)."""
        in_range = np.asarray(power, F32)[..., self.begin:self.end + 1]
        return np.add.reduceat(in_range, self.starts, axis=-1)

    def expand(self, gains):
        """Every bin of the filter range gets its band's gain; bins outside get 0."""
        gains = np.asarray(gains, F32)
        out = np.zeros(gains.shape[:-1] + (self.bins,), F32)
        out[..., self.begin:self.end + 1] = gains[..., self.band_of_bin]
        return out


class Model:
    """The records of a v0.0.5 model, checked against each other. A later generation with the
    same front end subclasses it and replaces the class attributes and the network."""

    VERSION = VERSION
    KEYS = KEYS
    # The front end scales the context by MU and SD (indexed modulo their length); a network that
    # scales its own input gets the log powers as they are.
    scales_features = True
    # The filter range's records and whether the end is one past the last bin (else the last bin).
    FILTER_RECORDS = ("FiltrBegin", "FiltrEnd", False)

    def __init__(self, records):
        version = _record(records, "Version", sw.STRING)
        if version != self.VERSION:
            raise ValueError("model version %r is not %s" % (version, self.VERSION))
        self.rate = _record(records, "SampleRate", sw.UINT)
        self.hop = _record(records, "Step", sw.UINT)
        self.block = _record(records, "FrameLength", sw.UINT)
        if self.block != 2 * self.hop or self.hop * 1000 != self.rate * FRAME_MS:
            raise ValueError("FrameLength must be 2 x Step and Step 10 ms at SampleRate")
        self.post = PostProcessing.from_records(records, self.KEYS)
        begin_name, end_name, past_last = self.FILTER_RECORDS
        self.bands = BandLayout(self.block // 2 + 1, _record(records, begin_name, sw.UINT),
                                _record(records, end_name, sw.UINT) - int(past_last), self.post.compress_rate)
        if _record(records, "CoefficientNumber", sw.UINT) != self.bands.count:
            raise ValueError("CoefficientNumber must be the band count %d" % self.bands.count)
        self.context_frames = _record(records, "PreviewFrames", sw.UINT) + 1
        self.freeze_low = _record(records, "FreezeLowEnThr", sw.FLOAT)
        self.freeze_high = _record(records, "FreezeHighEnThr", sw.FLOAT)
        self.epsilon = F32(_record(records, "LogPowerEpsilon", sw.FLOAT))
        self.mu = _record(records, "MU", sw.VECTOR)
        self.sd = _record(records, "SD", sw.VECTOR)
        if self.mu.size == 0 or self.sd.size == 0:
            raise ValueError("MU and SD must not be empty")
        self._read_network(records)

    @property
    def inputs(self):
        """Network input length: the context of every band."""
        return self.context_frames * self.bands.count

    def new_network(self):
        return Network(self)

    def _read_network(self, records):
        self.gate_w = _record(records, "WeightGRU", sw.MATRIX)
        self.gate_b = _record(records, "BaesGRU", sw.VECTOR)
        self.rect_w = _record(records, "WeightNonLinear", sw.MATRIX_LIST)
        self.rect_b = _record(records, "BaesNonLinear", sw.VECTOR_LIST)
        self.lin_w = _record(records, "WeightLinear", sw.MATRIX_LIST)
        self.lin_b = _record(records, "BaesLinear", sw.VECTOR_LIST)
        self._check_network()

    def _check_network(self):
        layers = len(self.lin_w)
        if layers == 0 or len(self.lin_b) != layers or len(self.rect_w) != layers + 1 \
                or len(self.rect_b) != layers + 1:
            raise ValueError("network needs K >= 1 linear and K + 1 non-linear entries")
        state = self.gate_w.shape[0]
        width = state + self.inputs
        expected = [(self.gate_w.shape, (state, width)), (self.gate_b.shape, (state,))]
        for k in range(layers):
            # The first hidden layer feeds the recurrent state, so it has the state's width.
            rows = state if k == 0 else self.lin_w[k].shape[0]
            shape = (rows, width)
            expected += [(self.rect_w[k].shape, shape), (self.lin_w[k].shape, shape),
                         (self.rect_b[k].shape, (rows,)), (self.lin_b[k].shape, (rows,))]
            width = rows
        expected += [(self.rect_w[-1].shape, (self.bands.count, width)),
                     (self.rect_b[-1].shape, (self.bands.count,))]
        for got, want in expected:
            if tuple(got) != want:
                raise ValueError("network shape %s, expected %s" % (tuple(got), want))

    @classmethod
    def load(cls, path):
        return cls(sw.read_file(str(path)))


@dataclass
class Analysis:
    """One analysed block: windowed samples, unscaled rfft, log band powers, network input."""

    windowed: np.ndarray
    spectrum: np.ndarray
    log_bands: np.ndarray
    inputs: np.ndarray


@dataclass
class SignalFeatures:
    """Per-block arrays of a whole signal; rows of blocks frozen by the energy gate are NaN."""

    spectra: np.ndarray
    log_bands: np.ndarray
    inputs: np.ndarray
    analysed: np.ndarray


class FrontEnd:
    """Window, transform, level tracker, band powers, context and normalisation of a stream."""

    def __init__(self, model):
        self.model = model
        self.window = vorbis_window(model.block)
        width = model.inputs
        self._mu = model.mu[np.arange(width) % model.mu.size] if model.scales_features else None
        self._sd = model.sd[np.arange(width) % model.sd.size] if model.scales_features else None
        self.reset()

    def reset(self):
        m = self.model
        self.context = np.full((m.context_frames, m.bands.count), np.log(m.epsilon), F32)
        self.levels = collections.deque(maxlen=LEVEL_MEMORY_BLOCKS)
        self.frozen = False

    def _gate_on(self):
        return self.model.freeze_low > 0 and self.model.freeze_high > 0

    def _freezes(self, energy):
        if self._gate_on():
            if not self.frozen and energy <= self.model.freeze_low:
                self.frozen = True
            elif self.frozen and energy >= self.model.freeze_high:
                self.frozen = False
        return self.frozen

    def _rescale_gain(self, energy):
        m = self.model
        level = energy
        if self._gate_on() and energy < m.freeze_high and self.levels:
            level = float(np.mean(self.levels))
        if energy >= m.freeze_high:
            self.levels.append(energy)
        if not m.post.rescale or level <= RESCALE_FLOOR:
            return F32(1.0)
        return F32(m.post.rescale_ref_ampl / np.sqrt(level))

    def block_spectra(self, signal):
        """Unscaled rfft of every windowed block of `signal` (stateless), for training targets."""
        return np.fft.rfft(signal_blocks(signal, self.model.hop) * self.window).astype(np.complex64)

    def analyse(self, block):
        """Features of the next block of the stream; None when the energy gate freezes it."""
        x = np.asarray(block, F32)
        energy = float(np.mean(np.square(x, dtype=np.float64)))
        if self._freezes(energy):
            return None
        windowed = x * self.window
        spectrum = np.fft.rfft(windowed).astype(np.complex64)
        gain = self._rescale_gain(energy)
        power = np.square(np.hypot(spectrum.real, spectrum.imag) * gain)
        log_bands = np.log(self.model.bands.compress(power) + self.model.epsilon)
        self.context = np.roll(self.context, -1, axis=0)
        self.context[-1] = log_bands
        inputs = self.context.ravel().copy() if self._mu is None else (self.context.ravel() - self._mu) / self._sd
        return Analysis(windowed, spectrum, log_bands, inputs)

    def signal_features(self, signal):
        """Features of every block of `signal` as a fresh stream analyses them."""
        self.reset()
        spectra = self.block_spectra(signal)
        m = self.model
        log_bands = np.full((len(spectra), m.bands.count), np.nan, F32)
        inputs = np.full((len(spectra), m.inputs), np.nan, F32)
        analysed = np.zeros(len(spectra), bool)
        for j, block in enumerate(signal_blocks(signal, m.hop)):
            analysis = self.analyse(block)
            if analysis is not None:
                log_bands[j], inputs[j], analysed[j] = analysis.log_bands, analysis.inputs, True
        return SignalFeatures(spectra, log_bands, inputs, analysed)


class Network:
    """Update gate, hidden layers with a rectified and a linear path, logistic band gains."""

    def __init__(self, model):
        self.model = model
        self.reset()

    def reset(self):
        self.state = np.zeros(self.model.gate_w.shape[0], F32)

    def hidden(self, features):
        """Last hidden layer for one block; advances the recurrent state."""
        m = self.model
        x = np.concatenate([self.state, np.asarray(features, F32)])
        z = logistic(m.gate_w @ x + m.gate_b)
        for k, (a_w, a_b, g_w, g_b) in enumerate(zip(m.rect_w, m.rect_b, m.lin_w, m.lin_b)):
            a = a_w @ x + a_b
            g = g_w @ x + g_b
            x = np.where(a < 0, g, a + g)
            if k == 0:
                self.state = z * x + (F32(1) - z) * self.state
        return x

    def step(self, features):
        """Band gains in [0, 1] for one block."""
        return logistic(self.model.rect_w[-1] @ self.hidden(features) + self.model.rect_b[-1])


class StreamCleaner:
    """The frame loop: buffers, blocks, mask post-processing, synthesis and overlap-add."""

    def __init__(self, model):
        post = model.post
        if post.thresh_cut or post.background_speaker_fix:
            raise NotImplementedError("the reference has no energy-threshold cut nor background speaker fix")
        self.model = model
        self.front = FrontEnd(model)
        self.network = model.new_network()
        self.reset()

    def reset(self):
        hop = self.model.hop
        self.front.reset()
        self.network.reset()
        self.kept_mask = np.zeros(self.model.bands.bins, F32)
        # Both buffers start with one hop of zeros: the stream's delay is exactly one hop.
        self.unread_input = np.zeros(hop, F32)
        self.unread_output = np.zeros(hop, F32)

    def process_frame(self, frame):
        """Cleaned samples for one frame of any length (the stream's output, one hop late)."""
        frame = np.asarray(frame, F32)
        if frame.size == 0:
            return frame.copy()
        post, hop = self.model.post, self.model.hop
        peak = max(abs(frame.max()), abs(frame.min()))
        skip = post.skip_frame and peak <= 0.0
        not_clipped = peak <= post.clip_fix_point
        self.unread_input = np.concatenate([self.unread_input, frame])
        while self.unread_input.size >= 2 * hop:
            cleaned = self._clean_block(self.unread_input[:2 * hop], skip, not_clipped)
            self.unread_input = self.unread_input[hop:]
            self.unread_output = np.concatenate([self.unread_output, np.zeros(hop, F32)])
            # Samples already handed out no longer take part in the overlap-add.
            overlap = min(2 * hop, self.unread_output.size)
            self.unread_output[-overlap:] += cleaned[-overlap:]
        out, self.unread_output = self.unread_output[:frame.size], self.unread_output[frame.size:]
        return out

    def _clean_block(self, block, skip, not_clipped):
        m = self.model
        analysis = self.front.analyse(block)
        if analysis is None:
            return np.zeros(m.block, F32)
        gains = np.ones(m.bands.count, F32) if skip else self.network.step(analysis.inputs)
        mask = self._shape_mask(m.bands.expand(gains))
        window = self.front.window
        out = np.fft.irfft(analysis.spectrum * mask, n=m.block).astype(F32) * window
        if m.post.volume_up:
            out *= F32(1.0 + m.post.volume_up_percent / 100.0)
        if m.post.clip_fix and not_clipped:
            peak = out.max()
            if peak > m.post.clip_fix_point:
                out *= F32(m.post.clip_fix_point) / peak
        return out

    def _shape_mask(self, mask):
        post = self.model.post
        if post.rm_modify:
            v = mask.astype(np.float64)
            mask = (v / (1.0 + np.exp((v - 0.05) / 0.05))
                    + v * v / (1.0 + np.exp(-3.0 * (v - 0.05) / 0.05))).astype(F32)
        else:
            mask = mask * mask
        if post.high_freq_smooth:
            half = mask.size // 2
            mask[half:] = mask[half:] * mask[half:]
        if post.smooth_coef != 1.0:
            c = F32(post.smooth_coef)
            mask = c * mask + (F32(1) - c) * self.kept_mask
        self.kept_mask = mask
        # A threshold of 0 has no value below it and would only divide by zero.
        if post.rm_threshold_enabled and post.rm_threshold > 0.0:
            inverse = F32(1) / F32(post.rm_threshold)
            mask = np.where(mask < F32(post.rm_threshold), mask * (inverse * mask), mask)
        return mask


def clean(model, signal):
    """Output of a fresh stream fed `signal` in 10 ms frames (same length as the input)."""
    cleaner = StreamCleaner(model)
    signal = np.asarray(signal, F32)
    hop = model.hop
    frames = [cleaner.process_frame(signal[i:i + hop]) for i in range(0, signal.size, hop)]
    return np.concatenate(frames) if frames else np.zeros(0, F32)


def main(argv=None):
    parser = argparse.ArgumentParser(description="Clean raw float32 audio with the v0.0.5 reference.")
    parser.add_argument("model", help="model weight file (.vlw)")
    parser.add_argument("input", help="raw little-endian float32 samples, 16-bit range, model rate")
    parser.add_argument("output", help="where the cleaned samples go, same format and length")
    args = parser.parse_args(argv)
    signal = np.fromfile(args.input, dtype="<f4")
    clean(Model.load(args.model), signal).astype("<f4").tofile(args.output)
    return 0


if __name__ == "__main__":
    sys.exit(main())
