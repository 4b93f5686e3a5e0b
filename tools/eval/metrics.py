"""Objective speech-quality measures of a processed signal against its clean reference.

Every function takes 1-D arrays of the same length at the same rate, already aligned in time.

- SI-SDR (Le Roux et al., 2019): scale-invariant signal-to-distortion ratio, zero-mean signals.
- STOI (Taal et al., 2011) and extended STOI (Jensen & Taal, 2016), written from the papers: both
  resample to 10 kHz, drop frames more than 40 dB below the loudest clean frame, and compare the
  one-third-octave band envelopes of 384 ms segments. STOI correlates each band's envelope after
  normalising the processed one to the clean energy and clipping it at a signal-to-distortion
  ratio of -15 dB; ESTOI correlates whole segments normalised over time and then over bands.
- Segmental SNR: mean of per-frame SNRs limited to -10 ... 35 dB (30 ms Hann frames, 75 % overlap).
- Level change: how many dB quieter the output is than the input (noise-only set).
- Onset SI-SDR: SI-SDR over the first 200 ms of each utterance alone, where a cleaner that waits
  to be sure of speech (a voice gate, a slow noise estimate) loses the most.
"""

import math

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view
from scipy.signal import resample_poly

import testsets

# Guards divisions by energies of exactly silent signals.
TINY = np.finfo(np.float64).tiny

STOI_RATE_HZ = 10000
STOI_FRAME = 256          # 25.6 ms at 10 kHz
STOI_HOP = 128            # 50 % overlap
STOI_FFT = 512
STOI_BANDS = 15           # one-third octaves, centres 150 Hz ... 3.8 kHz
STOI_LOWEST_CENTRE_HZ = 150.0
STOI_SEGMENT_FRAMES = 30  # 30 hops of 12.8 ms: 384 ms
STOI_CLIP_SDR_DB = -15.0
STOI_DYNAMIC_RANGE_DB = 40.0

# An utterance starts at a speech frame after at least this long without one (a breath between
# phrases is shorter; the pauses between a talker's recordings are longer).
ONSET_PAUSE_MS = 300.0
ONSET_MS = 200.0

SEG_SNR_FRAME_MS = 30.0
SEG_SNR_HOP_FRACTION = 0.25
SEG_SNR_RANGE_DB = (-10.0, 35.0)


def _pair(reference, processed):
    x = np.asarray(reference, dtype=np.float64)
    y = np.asarray(processed, dtype=np.float64)
    if x.ndim != 1 or x.shape != y.shape:
        raise ValueError("reference and processed signal must be 1-D and of equal length")
    return x, y


def si_sdr(reference, processed):
    """dB; +inf when the processed signal is a scaled copy of the reference."""
    x, y = _pair(reference, processed)
    x, y = x - x.mean(), y - y.mean()
    target = (np.dot(y, x) / max(np.dot(x, x), TINY)) * x
    distortion = np.sum((y - target) ** 2)
    if distortion == 0.0:
        return math.inf
    return 10.0 * math.log10(max(np.sum(target ** 2), TINY) / distortion)


def onset_mask(reference, rate_hz):
    """Which samples of the clean `reference` are in the first ONSET_MS of an utterance: from each
    speech frame (testsets.active_frames) that follows ONSET_PAUSE_MS without one, or the first."""
    frame, _, active = testsets.active_frames(np.asarray(reference, dtype=np.float64), rate_hz)
    pause = int(round(ONSET_PAUSE_MS / testsets.ACTIVE_FRAME_MS))
    mask = np.zeros(len(reference), dtype=bool)
    quiet = pause
    for k, speech in enumerate(active):
        if speech and quiet >= pause:
            mask[k * frame:k * frame + int(rate_hz * ONSET_MS / 1000)] = True
        quiet = 0 if speech else quiet + 1
    return mask


def onset_si_sdr(reference, processed, rate_hz):
    """SI-SDR (dB) over the onset samples of `reference` alone, taken as one signal."""
    x, y = _pair(reference, processed)
    mask = onset_mask(x, rate_hz)
    return si_sdr(x[mask], y[mask])


def level_change_db(before, after):
    """How much quieter `after` is than `before`, in dB (positive: attenuated)."""
    x, y = _pair(before, after)
    return 10.0 * math.log10(max(np.sum(x * x), TINY) / max(np.sum(y * y), TINY))


def segmental_snr(reference, processed, rate_hz):
    x, y = _pair(reference, processed)
    frame = int(round(SEG_SNR_FRAME_MS * rate_hz / 1000.0))
    hop = max(1, int(frame * SEG_SNR_HOP_FRACTION))
    if len(x) < frame:
        raise ValueError("signal shorter than one %g ms frame" % SEG_SNR_FRAME_MS)
    window = np.hanning(frame)
    clean = sliding_window_view(x, frame)[::hop] * window
    error = clean - sliding_window_view(y, frame)[::hop] * window
    snr = 10.0 * (np.log10(np.maximum(np.sum(clean ** 2, axis=1), TINY))
                  - np.log10(np.maximum(np.sum(error ** 2, axis=1), TINY)))
    return float(np.mean(np.clip(snr, *SEG_SNR_RANGE_DB)))


def _to_stoi_rate(signal, rate_hz):
    g = math.gcd(int(rate_hz), STOI_RATE_HZ)
    return resample_poly(signal, STOI_RATE_HZ // g, int(rate_hz) // g)


def _stoi_window():
    # Hann of 256 points without its zero end points, so no frame sample is wasted.
    return np.hanning(STOI_FRAME + 2)[1:-1]


def _frames(signal):
    return sliding_window_view(signal, STOI_FRAME)[::STOI_HOP] * _stoi_window()


def _drop_silent_frames(x, y):
    """Both signals rebuilt by overlap-add from the frames where the clean one is within the
    dynamic range of its loudest frame; the kept frames are joined hop by hop."""
    fx, fy = _frames(x), _frames(y)
    energy_db = 20.0 * np.log10(np.linalg.norm(fx, axis=1) + TINY)
    keep = energy_db > energy_db.max() - STOI_DYNAMIC_RANGE_DB
    fx, fy = fx[keep], fy[keep]
    length = (len(fx) - 1) * STOI_HOP + STOI_FRAME
    xs, ys = np.zeros(length), np.zeros(length)
    for i in range(len(fx)):
        xs[i * STOI_HOP:i * STOI_HOP + STOI_FRAME] += fx[i]
        ys[i * STOI_HOP:i * STOI_HOP + STOI_FRAME] += fy[i]
    return xs, ys


def _band_matrix():
    """(bands, bins) 0/1 matrix: bin k belongs to band j when its centre frequency is between the
    band's edges (geometric means of neighbouring centres), edges rounded to the nearest bin."""
    bin_hz = STOI_RATE_HZ / STOI_FFT
    centres = STOI_LOWEST_CENTRE_HZ * 2.0 ** (np.arange(STOI_BANDS) / 3.0)
    lower = np.round(centres * 2.0 ** (-1.0 / 6.0) / bin_hz).astype(int)
    upper = np.round(centres * 2.0 ** (1.0 / 6.0) / bin_hz).astype(int)
    matrix = np.zeros((STOI_BANDS, STOI_FFT // 2 + 1))
    for j in range(STOI_BANDS):
        matrix[j, lower[j]:upper[j]] = 1.0
    return matrix


_BANDS = _band_matrix()


def _band_envelopes(signal):
    """(bands, frames) one-third-octave magnitudes of the short-time spectrum."""
    spectrum = np.fft.rfft(_frames(signal), STOI_FFT, axis=1)
    return np.sqrt(_BANDS @ (np.abs(spectrum) ** 2).T)


def _segments(x, y, rate_hz):
    """Clean and processed envelope segments, (segments, bands, 30 frames) each."""
    x, y = _pair(x, y)
    x, y = _drop_silent_frames(_to_stoi_rate(x, rate_hz), _to_stoi_rate(y, rate_hz))
    ex, ey = _band_envelopes(x), _band_envelopes(y)
    if ex.shape[1] < STOI_SEGMENT_FRAMES:
        raise ValueError("less than 384 ms of speech left after dropping silent frames")
    return (sliding_window_view(ex, STOI_SEGMENT_FRAMES, axis=1).transpose(1, 0, 2),
            sliding_window_view(ey, STOI_SEGMENT_FRAMES, axis=1).transpose(1, 0, 2))


def _centre_and_normalise(a, axis):
    a = a - a.mean(axis=axis, keepdims=True)
    return a / (np.linalg.norm(a, axis=axis, keepdims=True) + TINY)


def _stoi_of(sx, sy):
    scale = np.linalg.norm(sx, axis=2, keepdims=True) / (np.linalg.norm(sy, axis=2, keepdims=True) + TINY)
    bound = 1.0 + 10.0 ** (-STOI_CLIP_SDR_DB / 20.0)
    sy = np.minimum(sy * scale, bound * sx)
    correlation = np.sum(_centre_and_normalise(sx, 2) * _centre_and_normalise(sy, 2), axis=2)
    return float(np.mean(correlation))


def _estoi_of(sx, sy):
    # Normalised over time per band (axis 2), then over bands per frame (axis 1).
    nx = _centre_and_normalise(_centre_and_normalise(sx, 2), 1)
    ny = _centre_and_normalise(_centre_and_normalise(sy, 2), 1)
    return float(np.mean(np.sum(nx * ny, axis=1)))


def stoi(reference, processed, rate_hz):
    return _stoi_of(*_segments(reference, processed, rate_hz))


def estoi(reference, processed, rate_hz):
    return _estoi_of(*_segments(reference, processed, rate_hz))


def stoi_and_estoi(reference, processed, rate_hz):
    """Both from one analysis of the pair."""
    sx, sy = _segments(reference, processed, rate_hz)
    return _stoi_of(sx, sy), _estoi_of(sx, sy)
