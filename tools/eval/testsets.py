"""Evaluation test sets made from the holdout split of the shared corpus, deterministically.

`plan()` draws every choice (speech, noise, offsets, SNRs, levels) from one seeded generator and
describes each item in seconds and file names only; `render()` turns an item into samples at
any rate. Rendering the same plan at 48 and 16 kHz gives the same mixtures at both rates.

Sets:
- "mix": clean speech plus noise at SNRs of -5 ... 20 dB, 48 per SNR (about 31 minutes).
- "noise": noise alone (residual-noise measure), 40 items.
- "clean": speech alone (speech-distortion measure, delay estimation), 40 items.

SNR is the ratio of the speech's active level (mean power of the 20 ms frames within 40 dB of
its loudest frame, so pauses and the recordings' room tone do not count) to the noise's mean
power. The level is the mixture's RMS, drawn uniformly in -35 ... -15 dBFS and lowered where a
peak would pass 0.99 of full scale (the level actually set is recorded).
"""

import math
import os
from collections import defaultdict

import numpy as np
import soundfile as sf
from scipy.signal import resample_poly

SEED = 20261122
SNRS_DB = (-5, 0, 5, 10, 15, 20)
MIXTURES_PER_SNR = 48
NOISE_ONLY_ITEMS = 40
CLEAN_ONLY_ITEMS = 40
LEVEL_RANGE_DBFS = (-35.0, -15.0)
PEAK_LIMIT = 0.99
# Consecutive utterances of one speaker are joined until an item lasts this long: long enough for
# a suppressor's noise estimate to settle and for a dozen STOI segments of speech.
ITEM_MIN_SECONDS = 5.0
ACTIVE_FRAME_MS = 20.0
ACTIVE_RANGE_DB = 40.0


def speaker_of(name):
    """Speaker id from a holdout file name (ravdess_actorNN_..., so762_spkNNNN_...)."""
    return name.split("_")[1]


def _speech_items(speech_dir):
    """Lists of consecutive same-speaker files of at least ITEM_MIN_SECONDS each (a speaker's
    remainder shorter than that is dropped)."""
    by_speaker = defaultdict(list)
    for name in sorted(os.listdir(speech_dir)):
        if name.endswith((".flac", ".ogg")):
            by_speaker[speaker_of(name)].append(name)
    items = []
    for speaker in sorted(by_speaker):
        current, seconds = [], 0.0
        for name in by_speaker[speaker]:
            current.append(name)
            seconds += sf.info(os.path.join(speech_dir, name)).duration
            if seconds >= ITEM_MIN_SECONDS:
                items.append((current, seconds))
                current, seconds = [], 0.0
    return items


def plan(data_dir, mixtures_per_snr=MIXTURES_PER_SNR, noise_items=NOISE_ONLY_ITEMS,
         clean_items=CLEAN_ONLY_ITEMS, seed=SEED):
    """Item descriptions of all three sets. A smaller count gives the first items of the full
    plan's draws, in the same order, so a smoke set is a prefix of the full one per SNR."""
    speech_dir = os.path.join(data_dir, "holdout", "speech")
    noise_dir = os.path.join(data_dir, "holdout", "noise")
    rng = np.random.default_rng(seed)
    speech = _speech_items(speech_dir)
    order = rng.permutation(len(speech))
    needed = len(SNRS_DB) * MIXTURES_PER_SNR + CLEAN_ONLY_ITEMS
    if len(order) < needed:
        raise ValueError("holdout speech makes %d items, %d needed" % (len(order), needed))
    noises = sorted(n for n in os.listdir(noise_dir) if n.endswith((".flac", ".ogg")))
    noise_seconds = [sf.info(os.path.join(noise_dir, n)).duration for n in noises]

    def noise_draw(seconds):
        k = int(rng.integers(len(noises)))
        # A noise shorter than the item is looped from its start; otherwise any offset that fits.
        offset = float(rng.uniform(0.0, max(0.0, noise_seconds[k] - seconds)))
        return {"noise": noises[k], "noise_offset_s": round(offset, 4)}

    def level():
        return round(float(rng.uniform(*LEVEL_RANGE_DBFS)), 2)

    # Draws are made for the full plan whatever the counts asked, so prefixes stay stable.
    items = []
    next_speech = iter(order)
    for i in range(MIXTURES_PER_SNR):
        for snr in SNRS_DB:
            files, seconds = speech[next(next_speech)]
            item = {"set": "mix", "id": "mix-snr%+03d-%03d" % (snr, i), "speech": files,
                    "seconds": round(seconds, 4), "snr_db": snr, "level_dbfs": level()}
            item.update(noise_draw(seconds))
            if i < mixtures_per_snr:
                items.append(item)
    for i in range(CLEAN_ONLY_ITEMS):
        files, seconds = speech[next(next_speech)]
        if i < clean_items:
            items.append({"set": "clean", "id": "clean-%03d" % i, "speech": files,
                          "seconds": round(seconds, 4), "level_dbfs": level()})
    for i in range(NOISE_ONLY_ITEMS):
        item = {"set": "noise", "id": "noise-%03d" % i, "seconds": ITEM_MIN_SECONDS + 1.0,
                "level_dbfs": level()}
        item.update(noise_draw(item["seconds"]))
        if i < noise_items:
            items.append(item)
    return items


def resample(signal, from_hz, to_hz):
    """Polyphase resampling (linear phase: no delay)."""
    if from_hz == to_hz:
        return signal
    g = math.gcd(from_hz, to_hz)
    return resample_poly(signal, to_hz // g, from_hz // g)


def load(path, rate_hz):
    """A corpus file as float64 samples at `rate_hz`."""
    samples, native = sf.read(path, dtype="float64", always_2d=True)
    return resample(samples.mean(axis=1), native, rate_hz)


def active_power(signal, rate_hz):
    """Mean power of the 20 ms frames within 40 dB of the loudest one."""
    frame = int(rate_hz * ACTIVE_FRAME_MS / 1000)
    frames = signal[:len(signal) // frame * frame].reshape(-1, frame)
    power = np.mean(frames ** 2, axis=1)
    active = power >= power.max() * 10.0 ** (-ACTIVE_RANGE_DB / 10.0)
    return float(np.mean(power[active]))


def _scaled(parts, level_dbfs):
    """`parts` scaled together so their sum has the level, or less where the peak would pass
    PEAK_LIMIT; returns the scaled parts and the level actually set."""
    total = sum(parts)
    gain = 10.0 ** (level_dbfs / 20.0) / math.sqrt(np.mean(total ** 2))
    gain = min(gain, PEAK_LIMIT / np.max(np.abs(total)))
    return [p * gain for p in parts], 20.0 * math.log10(gain * math.sqrt(np.mean(total ** 2)))


def render(item, data_dir, rate_hz):
    """{"input": samples, "reference": clean samples or None, "level_dbfs": level set}."""
    holdout = os.path.join(data_dir, "holdout")
    length = int(round(item["seconds"] * rate_hz))
    speech = None
    if "speech" in item:
        speech = np.concatenate([load(os.path.join(holdout, "speech", f), rate_hz) for f in item["speech"]])
        speech = np.pad(speech, (0, max(0, length - len(speech))))[:length]
    noise = None
    if "noise" in item:
        source = load(os.path.join(holdout, "noise", item["noise"]), rate_hz)
        start = int(round(item["noise_offset_s"] * rate_hz))
        noise = np.resize(source[start:], length)
    if speech is not None and noise is not None:
        noise = noise * math.sqrt(active_power(speech, rate_hz) / np.mean(noise ** 2)
                                  * 10.0 ** (-item["snr_db"] / 10.0))
        (speech, noise), level = _scaled([speech, noise], item["level_dbfs"])
        return {"input": speech + noise, "reference": speech, "level_dbfs": level}
    (signal,), level = _scaled([speech if speech is not None else noise], item["level_dbfs"])
    return {"input": signal, "reference": signal if speech is not None else None, "level_dbfs": level}
