"""Constant-delay alignment of a system's output to its input.

A suppressor delays its output by a fixed number of samples (frame buffering, overlap-add,
resampling), which need not be whole: Sonel at a 48 kHz host rate with a 32 kHz model is
480 + 80.5 samples late. Half a sample of misalignment alone caps the SI-SDR of speech near
20 dB, so the delay is estimated and removed to a fraction of a sample.
"""

import numpy as np
from scipy.fft import irfft, next_fast_len, rfft

# Cross-correlation evaluated on a grid of 1/8 sample (band-limited interpolation), then refined
# by a parabola through the peak and its two neighbours.
UPSAMPLING = 8


def estimate_delay(reference, output, max_delay):
    """Delay in samples (0 ... max_delay, fractional) at which `output` best matches
    `reference`: the peak of their cross-correlation."""
    reference = np.asarray(reference, dtype=np.float64)
    output = np.asarray(output, dtype=np.float64)
    size = next_fast_len(len(reference) + len(output))
    cross = rfft(output, size) * np.conj(rfft(reference, size))
    lags = irfft(cross, size * UPSAMPLING)[:int(np.ceil(max_delay * UPSAMPLING)) + 2]
    peak = int(np.argmax(lags[:-1]))
    if 0 < peak:
        before, at, after = lags[peak - 1:peak + 2]
        curvature = before - 2.0 * at + after
        offset = 0.5 * (before - after) / curvature if curvature < 0 else 0.0
    else:
        offset = 0.0
    return (peak + offset) / UPSAMPLING


def advance(output, delay, length):
    """The first `length` samples of `output` moved `delay` samples earlier (fractional delays by
    a linear phase). `output` must reach at least `delay` samples past `length`; what it holds
    there is the system's flush, so the circular wrap of its first samples falls outside."""
    output = np.asarray(output, dtype=np.float64)
    if len(output) < length + np.ceil(delay):
        raise ValueError("output too short to remove a delay of %g samples" % delay)
    size = next_fast_len(len(output))
    frequencies = np.arange(size // 2 + 1) / size
    spectrum = rfft(output, size) * np.exp(2j * np.pi * frequencies * delay)
    if size % 2 == 0:
        # The Nyquist bin must stay real; a half-sample shift of it is only defined up to sign.
        spectrum[-1] = spectrum[-1].real
    return irfft(spectrum, size)[:length]
