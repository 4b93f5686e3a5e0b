"""Training mixtures made on the fly: speech and noise segments of the training corpus, mixed at a
random SNR and level, through a random microphone response, optional band-limiting and, for part
of the speech, synthetic reverberation. Everything random comes from the generator passed in, so
a mixture is fixed by its seed."""

from dataclasses import dataclass

import numpy as np
from scipy.signal import butter, fftconvolve, lfilter, resample_poly, sosfilt

from corpus import ACTIVITY_RANGE_DB, SPEECH_BANDWIDTH_HZ

FULL_SCALE = 32768.0
SNR_DB = (-5.0, 25.0)
LEVEL_DBFS = (-45.0, -10.0)
# Shares of mixtures without noise (the cleaner must pass clean speech untouched) and without
# speech (it must remove noise on its own, including in the bands speech does not reach).
P_CLEAN_ONLY = 0.08
P_NOISE_ONLY = 0.07
# Full-band (RAVDESS) against 8 kHz (speechocean762) speech; half each, so the bands above
# 8 kHz see as much speech as the corpus allows.
P_FULL_BAND_SPEECH = 0.5
UTTERANCE_GAIN_DB = 4.0
# Pause kept around an utterance's active part, and silence between utterances, in seconds.
MARGIN_S = (0.05, 0.5)
GAP_S = (0.0, 0.6)
P_SECOND_NOISE = 0.25
SECOND_NOISE_DB = (-12.0, 0.0)
P_NOISE_RAMP = 0.3
NOISE_RAMP_DB = 10.0
LOOP_FADE_S = 0.02
P_REVERB = 0.3
RT60_S = (0.2, 1.0)
DIRECT_TO_REVERB_DB = (-3.0, 12.0)
# Reflections within 50 ms of the direct sound help intelligibility: the target keeps them.
EARLY_S = 0.05
P_HIGHPASS = 0.5
P_SHELF = 0.5
EQ_DB = 8.0
# Whenever the host rate differs from the model's, the session's resamplers band-limit the
# model's input: through `sonel denoise` at 48 kHz with a 32 kHz model the round trip is -6 dB at
# 14 kHz and -27 dB at 15 kHz. A model that never saw its top bands empty misread such input
# (ESTOI 0.69 through the library against 0.77 on the same item at the model's own rate), so half
# the mixtures are cut between 80 and 95 % of the Nyquist frequency.
P_HOST_RESAMPLER = 0.5
HOST_CUTOFF = (0.80, 0.95)
# Narrow-band channels and microphones.
P_BAND_LIMIT = 0.15
BAND_LIMITS_HZ = (3800.0, 5500.0, 7000.0, 8000.0, 11000.0, 12000.0)
LOW_PASS_ORDER = 12
# A talker whose own recording chain is narrower than the noise around it (the 8 kHz half of the
# corpus over full-band noise is one such case). Taught only by the 8 kHz speakers, a network
# ties "no speech above 8 kHz" to their voices: full-band talkers cut at 7.8 kHz, over the same
# noise, lost 3 dB of SI-SDR improvement at -5 dB SNR on training mixtures. So part of the
# full-band speech is cut too, at one of the narrow-band limits, before the noise is added
# (`--narrow-talker-share`).
P_NARROW_TALKER = 0.3
# Speed perturbation (`--speed-perturbation D`): each mixture's speech is resampled by one factor
# drawn from 1 ± D, which moves pitch, formants and tempo together. The corpus has 14 full-band
# and 200 narrow-band voices; shifted copies of them stand in for talkers it lacks. Sped-up
# speech reaches higher and slowed speech ends lower, so the mixture's bandwidth moves with it.
SPEED_STEPS = 100
# Noise variation (`--noise-variation P`): each noise recording drawn is, with probability P,
# played back at a speed drawn from NOISE_SPEED_STEPS / SPEED_STEPS and coloured by a response
# of its own (a second, independent draw of `microphone`). The training noise is 53 minutes of
# 60 recordings, and the network generalises to unseen noise far worse than to unseen voices:
# the shipped 32 kHz network gains 8.3 dB at 0 dB SNR on holdout speech over training noise,
# but 6.9 dB on training speech over holdout noise (docs/training.md, Results, item 7).
NOISE_SPEED_STEPS = (80, 125)
# Noise recordings are drawn in proportion to their length (the Debian batch holds 167 key clicks
# of 0.3 s beside 30 s ambiences), except music, which gets this share of the draws when present:
# it is tonal and harmonic like voiced speech, and an hour of it would otherwise be 40 % of draws.
P_MUSIC = 0.15
# Recordings shorter than this are events (a key click, a bark, a kettle's whistle): a mixture's
# noise is then a random scatter of clips of the same family, at a random rate per second, each
# up to EVENT_GAIN_DB quieter than the loudest.
EVENT_S = 2.0
# Mean square (full scale 1) below which a drawn noise stretch counts as digital silence (-100 dBFS).
SILENT_NOISE_POWER = 1e-10
SILENT_NOISE_TRIES = 64
EVENT_RATE_HZ = (0.5, 6.0)
EVENT_GAIN_DB = 10.0
# Clipping (`--clipping P`): the mixture driven this far above full scale and clipped there.
CLIP_OVERDRIVE_DB = (1.0, 12.0)
# Low-bitrate colouring (`--codec P`): what a low-rate transform codec upstream leaves, on the
# whole input: a band cut, spectral holes where a bin falls this far below the loudest of its
# block, and magnitudes quantised in steps of this many dB.
CODEC_CUTOFF_HZ = (4000.0, 12000.0)
CODEC_HOLE_DB = (25.0, 45.0)
CODEC_STEP_DB = (1.5, 6.0)
CODEC_BLOCK_S = 0.02


def family(name):
    """Clips of one source and kind: `tuxpaint_dog.flac` -> tuxpaint, `buckle_1e-0.flac` -> buckle."""
    return name.split("_", 1)[0]


def noise_weights(items, rate, music_share):
    """Cumulative draw weights of the noise items: their lengths, with music scaled to its share."""
    lengths = np.array([float(item["length"]) for item in items])
    is_music = np.array([bool(item.get("music")) for item in items])
    if is_music.any() and (~is_music).any():
        lengths[is_music] *= music_share / (1 - music_share) * lengths[~is_music].sum() / lengths[is_music].sum()
    return np.cumsum(lengths)


def coded(rng, x, rate):
    """`x` through a crude low-bitrate transform codec; returns it and the codec's band edge."""
    from scipy.signal import istft, stft
    cutoff = min(rng.uniform(*CODEC_CUTOFF_HZ), 0.45 * rate)
    hole_db, step_db = rng.uniform(*CODEC_HOLE_DB), rng.uniform(*CODEC_STEP_DB)
    block = int(CODEC_BLOCK_S * rate)
    freqs, _, spec = stft(x, rate, nperseg=block)
    spec[freqs >= cutoff] = 0.0
    magnitude = np.abs(spec)
    floor = magnitude.max(axis=0, keepdims=True) * 10 ** (-hole_db / 20)
    level_db = 20 * np.log10(np.maximum(magnitude, 1e-12))
    quantised = 10 ** ((np.round(level_db / step_db + rng.uniform(-0.5, 0.5, spec.shape)) * step_db) / 20)
    spec = np.where(magnitude > floor, quantised * np.exp(1j * np.angle(spec)), 0.0)
    _, y = istft(spec, rate, nperseg=block)
    return np.resize(y, x.size) if y.size < x.size else y[:x.size], cutoff


def low_pass(cutoff_hz, rate):
    """The band-limiting filter of mixtures, as second-order sections."""
    return butter(LOW_PASS_ORDER, cutoff_hz, "lowpass", fs=rate, output="sos")


@dataclass
class Mixture:
    noisy: np.ndarray    # float32, 16-bit units, rounded to integers as a 16-bit input is
    target: np.ndarray   # float32, the speech the cleaner should leave (dry or early reverb)
    bandwidth: float     # Hz: no speech above it, so the target says nothing there
    kind: str            # "noisy", "clean" or "noise"
    snr_db: float        # nan unless noisy


def frame_power(x, rate):
    hop = rate // 100
    frames = x[:len(x) // hop * hop].reshape(-1, hop)
    return np.mean(np.square(frames, dtype=np.float64), axis=1)


def active_power(x, rate):
    """Mean power over the 10 ms frames within ACTIVITY_RANGE_DB of the loudest."""
    power = frame_power(x, rate)
    if power.max() <= 0.0:
        return 0.0
    return float(power[power > power.max() * 10 ** (-ACTIVITY_RANGE_DB / 10)].mean())


def activity_labels(x, rate, range_db, hangover, floor=0.0):
    """1 for the 10 ms frames where `x` is within `range_db` of its active level (and above
    `floor`), held for `hangover` frames after each: the labels of the detectors' training."""
    power = frame_power(x, rate)
    loud = (power > active_power(x, rate) * 10 ** (-range_db / 10)) & (power > floor)
    labels = loud.copy()
    for lag in range(1, hangover + 1):
        labels[lag:] |= loud[:-lag]
    return labels.astype(np.float32)


def _shelf(rng, rate, low):
    """RBJ shelving biquad, random corner and gain, as second-order sections."""
    f = rng.uniform(100.0, 400.0) if low else rng.uniform(2000.0, 0.4 * rate)
    a_gain = 10 ** (rng.uniform(-EQ_DB, EQ_DB) / 40)
    w = 2 * np.pi * f / rate
    cos, alpha = np.cos(w), np.sin(w) / np.sqrt(2)
    root = 2 * np.sqrt(a_gain) * alpha
    sign = 1.0 if low else -1.0
    b = a_gain * np.array([(a_gain + 1) - sign * (a_gain - 1) * cos + root,
                           sign * 2 * ((a_gain - 1) - sign * (a_gain + 1) * cos),
                           (a_gain + 1) - sign * (a_gain - 1) * cos - root])
    a = np.array([(a_gain + 1) + sign * (a_gain - 1) * cos + root,
                  -sign * 2 * ((a_gain - 1) + sign * (a_gain + 1) * cos),
                  (a_gain + 1) + sign * (a_gain - 1) * cos - root])
    return np.concatenate([b / a[0], a / a[0]])[None, :]


def _peak(rng, rate):
    f = np.exp(rng.uniform(np.log(300.0), np.log(min(6000.0, 0.4 * rate))))
    a_gain = 10 ** (rng.uniform(-EQ_DB, EQ_DB) / 40)
    w = 2 * np.pi * f / rate
    alpha = np.sin(w) / (2 * rng.uniform(0.5, 2.5))
    b = np.array([1 + alpha * a_gain, -2 * np.cos(w), 1 - alpha * a_gain])
    a = np.array([1 + alpha / a_gain, -2 * np.cos(w), 1 - alpha / a_gain])
    return np.concatenate([b / a[0], a / a[0]])[None, :]


def microphone(rng, rate):
    """A random microphone and preamp response: high-pass, shelves and one or two peaks."""
    sections = []
    if rng.random() < P_HIGHPASS:
        sections.append(butter(2, rng.uniform(40.0, 250.0), "highpass", fs=rate, output="sos"))
    for low in (True, False):
        if rng.random() < P_SHELF:
            sections.append(_shelf(rng, rate, low))
    for _ in range(rng.integers(1, 3)):
        sections.append(_peak(rng, rate))
    return np.concatenate(sections)


def room(rng, rate):
    """Impulse response and its early part: direct sound plus an exponentially decaying tail
    whose highs die faster (one-pole low-pass), at a random direct-to-reverberant ratio."""
    rt60 = rng.uniform(*RT60_S)
    t = np.arange(int(min(1.2 * rt60, 1.0) * rate)) / rate
    tail = rng.standard_normal(t.size) * 10 ** (-3 * t / rt60)
    pole = np.exp(-2 * np.pi * rng.uniform(2000.0, 0.45 * rate) / rate)
    tail = lfilter([1 - pole], [1, -pole], tail)
    tail[:int(rng.uniform(0.001, 0.01) * rate)] = 0.0
    tail *= np.sqrt(10 ** (-rng.uniform(*DIRECT_TO_REVERB_DB) / 10) / np.sum(tail ** 2))
    tail[0] += 1.0
    return tail, tail[:int(EARLY_S * rate)]


def looped(audio, n, start, fade):
    """n samples of `audio` from `start`, wrapped around with a power-preserving cross-fade.
    `audio` must be longer than two fades and `start` at least one fade before its end."""
    up = np.sin(0.5 * np.pi * (np.arange(fade) + 0.5) / fade)
    out = np.zeros(n)
    position, source = 0, audio[start:]
    while position < n:
        piece = np.array(source[:n - position], dtype=np.float64)
        more = position + piece.size < n
        if position > 0:
            piece[:fade] *= up[:piece.size]
        if more:
            piece[-fade:] *= up[::-1]
        out[position:position + piece.size] += piece
        position += piece.size - (fade if more else 0)
        source = audio
    return out


class Mixer:
    def __init__(self, corpus, seconds, noise_only=P_NOISE_ONLY, narrow_talker=P_NARROW_TALKER,
                 speed=0.0, noise_variation=0.0, second_noise=P_SECOND_NOISE, music=P_MUSIC,
                 clipping=0.0, codec=0.0):
        self.corpus, self.noise_only, self.narrow_talker = corpus, noise_only, narrow_talker
        self.speed, self.noise_variation = speed, noise_variation
        self.second_noise, self.clipping, self.codec = second_noise, clipping, codec
        self.rate = corpus.rate
        self.length = int(seconds * self.rate)
        self.groups = {}
        for item in corpus.speech_items:
            self.groups.setdefault(item["group"], []).append(item)
        # By what the recordings hold, not what is left of it at this rate: at 16 kHz every group
        # ends at 8 kHz, but the 8 kHz recordings still stand apart from the full-band readers.
        self.full_band = sorted(g for g in self.groups if SPEECH_BANDWIDTH_HZ[g] > 8000.0)
        self.narrow_band = sorted(g for g in self.groups if g not in self.full_band)
        self.noise_draw = noise_weights(corpus.noise_items, self.rate, music)
        self.families = {}
        for i, item in enumerate(corpus.noise_items):
            self.families.setdefault(family(item["name"]), []).append(i)

    def _speech(self, rng):
        wide = rng.random() < P_FULL_BAND_SPEECH
        groups = self.full_band if wide else self.narrow_band
        # With one full-band source no number is drawn, so runs without the Debian speech see the
        # mixtures they always saw.
        group = groups[int(rng.integers(len(groups)))] if len(groups) > 1 else groups[0]
        items, n, rate = self.groups[group], self.length, self.rate
        # Played back faster by steps/SPEED_STEPS; without perturbation no number is drawn, so
        # runs from before it see the same mixtures.
        steps = SPEED_STEPS
        if self.speed:
            steps = int(rng.integers(round(SPEED_STEPS * (1 - self.speed)),
                                     round(SPEED_STEPS * (1 + self.speed)) + 1))
        out = np.zeros(n)
        # Half the mixtures start in the middle of an utterance, as a stream joined late does.
        position = -int(rng.integers(0, n // 4)) if rng.random() < 0.5 else int(rng.integers(0, rate // 2))
        while position < n:
            item = items[rng.integers(len(items))]
            audio = self.corpus.speech_audio(item)
            start = max(0, item["active"][0] - int(rng.uniform(*MARGIN_S) * rate))
            end = min(item["length"], item["active"][1] + int(rng.uniform(*MARGIN_S) * rate))
            piece = audio[start:end] * 10 ** (rng.uniform(-UTTERANCE_GAIN_DB, UTTERANCE_GAIN_DB) / 20)
            if steps != SPEED_STEPS:
                piece = resample_poly(piece, SPEED_STEPS, steps)
            first, last = max(position, 0), min(position + piece.size, n)
            if last > first:
                out[first:last] = piece[first - position:last - position]
            position += piece.size + int(rng.uniform(*GAP_S) * rate)
        return out, min(items[0]["bandwidth"] * steps / SPEED_STEPS, rate / 2)

    def _events(self, rng, family_items):
        """Short clips of one family (key clicks, animal calls, a kettle) dropped at random times:
        looped, a 0.3 s key click would become a steady 3 Hz tick."""
        out = np.zeros(self.length)
        rate_per_s = rng.uniform(*EVENT_RATE_HZ)
        times = np.cumsum(rng.exponential(1.0 / rate_per_s, int(rate_per_s * self.length / self.rate * 2) + 4))
        for t in times[times * self.rate < self.length]:
            item = self.corpus.noise_items[family_items[rng.integers(len(family_items))]]
            clip = np.asarray(self.corpus.noise_audio(item), np.float64)
            first = int(t * self.rate)
            piece = clip[:self.length - first] * 10 ** (rng.uniform(-EVENT_GAIN_DB, 0.0) / 20)
            out[first:first + piece.size] += piece
        return out

    def _one_noise(self, rng):
        # A stretch of digital silence (some recordings hold one, and a file whose sound lies
        # above the model's band is silent at its rate) is no noise: it is drawn again.
        for _ in range(SILENT_NOISE_TRIES):
            out = self._noise_draw(rng)
            power = np.mean(out ** 2)
            if power > SILENT_NOISE_POWER:
                break
        return out / np.sqrt(power + 1e-12)

    def _noise_draw(self, rng):
        items = self.corpus.noise_items
        index = int(np.searchsorted(self.noise_draw, rng.random() * self.noise_draw[-1], side="right"))
        item = items[min(index, len(items) - 1)]
        if item["length"] < EVENT_S * self.rate:
            return self._events(rng, self.families[family(item["name"])])
        audio = self.corpus.noise_audio(item)
        fade = int(LOOP_FADE_S * self.rate)
        start = int(rng.integers(0, item["length"] - fade))
        # Without variation no number is drawn, so runs from before it see the same mixtures.
        if self.noise_variation and rng.random() < self.noise_variation:
            steps = int(rng.integers(NOISE_SPEED_STEPS[0], NOISE_SPEED_STEPS[1] + 1))
            # steps / SPEED_STEPS times as many source samples, played back in self.length.
            source = looped(audio, -(-self.length * steps // SPEED_STEPS), start, fade)
            out = sosfilt(microphone(rng, self.rate), resample_poly(source, SPEED_STEPS, steps)[:self.length])
        else:
            out = looped(audio, self.length, start, fade)
        return out

    def _noise(self, rng):
        noise = self._one_noise(rng)
        if rng.random() < self.second_noise:
            noise += self._one_noise(rng) * 10 ** (rng.uniform(*SECOND_NOISE_DB) / 20)
        if rng.random() < P_NOISE_RAMP:
            noise *= 10 ** (np.linspace(0.0, rng.uniform(-NOISE_RAMP_DB, NOISE_RAMP_DB), self.length) / 20)
        return noise

    def __call__(self, rng):
        rate, n = self.rate, self.length
        draw = rng.random()
        kind = "clean" if draw < P_CLEAN_ONLY else "noise" if draw < P_CLEAN_ONLY + self.noise_only else "noisy"
        bandwidth = rate / 2
        wet = target = noise = np.zeros(n)
        # Narrow-band channels that fit below the model's band (an 8 kHz model has none).
        narrow = [f for f in BAND_LIMITS_HZ if f < 0.45 * rate]
        if kind != "noise":
            wet, bandwidth = self._speech(rng)
            # Without the share no number is drawn, so runs from before it see the same mixtures.
            if self.narrow_talker and narrow and bandwidth > max(narrow) and rng.random() < self.narrow_talker:
                bandwidth = rng.choice(narrow)
                wet = sosfilt(low_pass(bandwidth, rate), wet)
            target = wet
            if rng.random() < P_REVERB:
                response, early = room(rng, rate)
                wet = fftconvolve(target, response)[:n]
                target = fftconvolve(target, early)[:n]
        if kind != "clean":
            noise = self._noise(rng)

        sections = microphone(rng, rate)
        draw = rng.random()
        # Without a narrow channel (8 kHz model) those mixtures get the resampler's roll-off.
        cutoff = (rng.choice(narrow) if draw < P_BAND_LIMIT and narrow
                  else rng.uniform(*HOST_CUTOFF) * rate / 2 if draw < P_BAND_LIMIT + P_HOST_RESAMPLER
                  else None)
        if cutoff is not None:
            sections = np.concatenate([sections, low_pass(cutoff, rate)])
            bandwidth = min(bandwidth, cutoff)
        wet, target, noise = (sosfilt(sections, x) for x in (wet, target, noise))

        snr = float("nan")
        if kind == "noisy":
            snr = rng.uniform(*SNR_DB)
            # The floor keeps a noise that the band limit left (almost) nothing of finite.
            noise *= np.sqrt(active_power(wet, rate) / 10 ** (snr / 10) / (np.mean(noise ** 2) + 1e-20))
        mix = wet + noise
        # Without these shares no number is drawn, so runs from before them see the same mixtures.
        if self.codec and rng.random() < self.codec:
            mix, cutoff = coded(rng, mix, rate)
            bandwidth = min(bandwidth, cutoff)
        # The level is that of the mixture where speech is active (all of it without speech).
        level = active_power(wet, rate) + np.mean(noise ** 2) if kind != "noise" else np.mean(noise ** 2)
        gain = FULL_SCALE * 10 ** (rng.uniform(*LEVEL_DBFS) / 20) / np.sqrt(level + 1e-20)
        full_scale_gain = (FULL_SCALE - 1) / max(np.abs(mix).max(), 1e-12)
        gain = min(gain, full_scale_gain)
        if self.clipping and rng.random() < self.clipping:
            # Peaks driven that far past full scale and clipped there, as by an input stage set
            # too hot; the target keeps its unclipped speech.
            gain = full_scale_gain * 10 ** (rng.uniform(*CLIP_OVERDRIVE_DB) / 20)
        noisy = np.clip(np.round(mix * gain), -FULL_SCALE, FULL_SCALE - 1).astype(np.float32)
        return Mixture(noisy, (target * gain).astype(np.float32), float(bandwidth), kind, snr)
