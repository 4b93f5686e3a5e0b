"""Evaluation test sets made from the holdout split of the shared corpus, deterministically.

`plan()` draws every choice (speech, noise, offsets, SNRs, levels) from one seeded generator and
describes each item in seconds and file names only; `render()` turns an item into samples at
any rate. Rendering the same plan at 48 and 16 kHz gives the same mixtures at both rates.

The holdout noise is the in-tree corpus's and, when given, that of the extra folder that
../shared/data/debian/fetch.sh fills from Debian packages (laid out the same way; it adds 0 A.D.,
SuperTuxKart, Tux Paint and the Freedroid RPG soundtrack). The speech is the in-tree corpus's
alone (see Holdout).

Noise comes in two groups, reported apart: "seen" sources, further recordings of sources the
training split has recordings of, and "unseen" sources, which have no training recording at all.
Users meet noise the model never heard, so the second group is the one that tells.

Sets:
- "mix": clean speech plus noise at SNRs of -5 ... 20 dB, 48 per SNR in each noise group (about
  70 minutes). Each speech item is mixed twice at the same SNR and level, once with each group's
  noise, so the two groups differ in their noise alone.
- "noise": noise alone (residual-noise measure), 40 items per group.
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
AUDIO_SUFFIXES = (".flac", ".ogg")
EXTRA_DATA_ENV = "SONEL_EXTRA_DATA"
SEEN, UNSEEN = "seen", "unseen"
NOISE_GROUPS = (SEEN, UNSEEN)
# Holdout noise sources with no recording in the training split (../shared/data/MANIFEST.md):
# all of Noisekun, and the Freedroid RPG soundtrack (training's music is Wesnoth's). Every other
# holdout noise file is a further recording of a source training has.
UNSEEN_SOURCES = ("noisekun", "music_freedroid")


def speaker_of(name):
    """Speaker id from a holdout file name (ravdess_actorNN_..., so762_spkNNNN_...)."""
    return name.split("_")[1]


def noise_source(name):
    """The source a noise file comes from: its name's prefix, with the game for music
    (music_GAME_TRACK), since each soundtrack is a source of its own."""
    parts = name.split("_")
    return "_".join(parts[:2]) if parts[0] == "music" else parts[0]


def noise_group(name):
    return UNSEEN if noise_source(name) in UNSEEN_SOURCES else SEEN


class Holdout:
    """The holdout split's files by name: speech from the in-tree corpus, noise from it and, when
    `extra_dir` is given, from the extra folder too (every source has its own file-name prefix,
    so a name is in one folder only).

    The extra folder's speech, Tux Paint's Danish read descriptions, is left out: the median clip
    carries a DC offset of a tenth of its RMS (stepping where clips are joined into an item) and,
    the offset aside, a fifth of its power below 100 Hz. Every suppressor rightly removes both, so
    as references these clips would score that removal as damage to the speech."""

    def __init__(self, data_dir, extra_dir=None):
        self.extra_dir = extra_dir
        folders = [("speech", os.path.join(data_dir, "holdout", "speech")),
                   ("noise", os.path.join(data_dir, "holdout", "noise"))]
        if extra_dir:
            folders.append(("noise", os.path.join(extra_dir, "holdout", "noise")))
            if not os.path.isdir(folders[-1][1]):
                raise SystemExit("%s has no holdout/noise: run ../shared/data/debian/fetch.sh %s first "
                                 "(it extracts the Debian-package recordings), or leave out --extra-data "
                                 "and %s" % (extra_dir, extra_dir, EXTRA_DATA_ENV))
        self.files = {"speech": {}, "noise": {}}
        for kind, folder in folders:
            files = self.files[kind]
            for name in sorted(os.listdir(folder)):
                if not name.endswith(AUDIO_SUFFIXES):
                    continue
                if name in files:
                    raise ValueError("%s is in %s and in %s: is the extra folder the corpus itself?"
                                     % (name, os.path.dirname(files[name]), folder))
                files[name] = os.path.join(folder, name)
        self._seconds = {}

    def path(self, kind, name):
        return self.files[kind][name]

    def seconds(self, kind, name):
        if (kind, name) not in self._seconds:
            self._seconds[(kind, name)] = sf.info(self.path(kind, name)).duration
        return self._seconds[(kind, name)]


def _speech_items(holdout):
    """Lists of consecutive same-speaker files of at least ITEM_MIN_SECONDS each (a speaker's
    remainder shorter than that is dropped)."""
    by_speaker = defaultdict(list)
    for name in sorted(holdout.files["speech"]):
        by_speaker[speaker_of(name)].append(name)
    items = []
    for speaker in sorted(by_speaker):
        current, seconds = [], 0.0
        for name in by_speaker[speaker]:
            current.append(name)
            seconds += holdout.seconds("speech", name)
            if seconds >= ITEM_MIN_SECONDS:
                items.append((current, seconds))
                current, seconds = [], 0.0
    return items


def noise_pools(holdout):
    """{noise group: the holdout noise files of its sources, sorted}."""
    pools = {group: [] for group in NOISE_GROUPS}
    for name in sorted(holdout.files["noise"]):
        pools[noise_group(name)].append(name)
    return pools


def plan(holdout, mixtures_per_snr=MIXTURES_PER_SNR, noise_items=NOISE_ONLY_ITEMS,
         clean_items=CLEAN_ONLY_ITEMS, seed=SEED):
    """Item descriptions of all three sets; the counts of mixtures and noise-only items are per
    noise group. A smaller count gives the first items of the full plan's draws, in the same
    order, so a smoke set is a prefix of the full one per SNR and group."""
    rng = np.random.default_rng(seed)
    speech = _speech_items(holdout)
    order = rng.permutation(len(speech))
    needed = len(SNRS_DB) * MIXTURES_PER_SNR + CLEAN_ONLY_ITEMS
    if len(order) < needed:
        raise ValueError("holdout speech makes %d items, %d needed" % (len(order), needed))
    pools = noise_pools(holdout)
    chances = {}
    for group, names in pools.items():
        if not names:
            raise ValueError("the holdout has no noise of %s sources" % group)
        # A recording's chance is its length up to an item's: every recording that fills an
        # item counts once however long it runs (no soundtrack outweighs the ambiences), and a
        # clip shorter than that (Tux Paint's animal calls, looped to fill the item) by the
        # share of an item it fills.
        lengths = np.array([min(holdout.seconds("noise", n), ITEM_MIN_SECONDS) for n in names])
        chances[group] = lengths / lengths.sum()

    def noise_draw(group, seconds):
        name = pools[group][int(rng.choice(len(pools[group]), p=chances[group]))]
        # A noise shorter than the item is looped from its start; otherwise any offset that fits.
        offset = float(rng.uniform(0.0, max(0.0, holdout.seconds("noise", name) - seconds)))
        return {"group": group, "noise": name, "noise_offset_s": round(offset, 4)}

    def level():
        return round(float(rng.uniform(*LEVEL_RANGE_DBFS)), 2)

    # Draws are made for the full plan whatever the counts asked, so prefixes stay stable.
    items = []
    next_speech = iter(order)
    for i in range(MIXTURES_PER_SNR):
        for snr in SNRS_DB:
            files, seconds = speech[next(next_speech)]
            pair_level = level()
            for group in NOISE_GROUPS:
                item = {"set": "mix", "id": "mix-%s-snr%+03d-%03d" % (group, snr, i), "speech": files,
                        "seconds": round(seconds, 4), "snr_db": snr, "level_dbfs": pair_level}
                item.update(noise_draw(group, seconds))
                if i < mixtures_per_snr:
                    items.append(item)
    for i in range(CLEAN_ONLY_ITEMS):
        files, seconds = speech[next(next_speech)]
        if i < clean_items:
            items.append({"set": "clean", "id": "clean-%03d" % i, "speech": files,
                          "seconds": round(seconds, 4), "level_dbfs": level()})
    for i in range(NOISE_ONLY_ITEMS):
        for group in NOISE_GROUPS:
            item = {"set": "noise", "id": "noise-%s-%03d" % (group, i), "seconds": ITEM_MIN_SECONDS + 1.0,
                    "level_dbfs": level()}
            item.update(noise_draw(group, item["seconds"]))
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


def active_frames(signal, rate_hz):
    """(samples per frame, power of each whole 20 ms frame, which frames are within 40 dB of the
    loudest): the frames that count as speech in a level or an onset."""
    frame = int(rate_hz * ACTIVE_FRAME_MS / 1000)
    frames = signal[:len(signal) // frame * frame].reshape(-1, frame)
    power = np.mean(frames ** 2, axis=1)
    return frame, power, power >= power.max() * 10.0 ** (-ACTIVE_RANGE_DB / 10.0)


def active_power(signal, rate_hz):
    """Mean power of the 20 ms frames within 40 dB of the loudest one."""
    _, power, active = active_frames(signal, rate_hz)
    return float(np.mean(power[active]))


def _scaled(parts, level_dbfs):
    """`parts` scaled together so their sum has the level, or less where the peak would pass
    PEAK_LIMIT; returns the scaled parts and the level actually set."""
    total = sum(parts)
    gain = 10.0 ** (level_dbfs / 20.0) / math.sqrt(np.mean(total ** 2))
    gain = min(gain, PEAK_LIMIT / np.max(np.abs(total)))
    return [p * gain for p in parts], 20.0 * math.log10(gain * math.sqrt(np.mean(total ** 2)))


def render(item, holdout, rate_hz):
    """{"input": samples, "reference": clean samples or None, "level_dbfs": level set}."""
    length = int(round(item["seconds"] * rate_hz))
    speech = None
    if "speech" in item:
        speech = np.concatenate([load(holdout.path("speech", f), rate_hz) for f in item["speech"]])
        speech = np.pad(speech, (0, max(0, length - len(speech))))[:length]
    noise = None
    if "noise" in item:
        source = load(holdout.path("noise", item["noise"]), rate_hz)
        start = int(round(item["noise_offset_s"] * rate_hz))
        noise = np.resize(source[start:], length)
    if speech is not None and noise is not None:
        noise = noise * math.sqrt(active_power(speech, rate_hz) / np.mean(noise ** 2)
                                  * 10.0 ** (-item["snr_db"] / 10.0))
        (speech, noise), level = _scaled([speech, noise], item["level_dbfs"])
        return {"input": speech + noise, "reference": speech, "level_dbfs": level}
    (signal,), level = _scaled([speech if speech is not None else noise], item["level_dbfs"])
    return {"input": signal, "reference": signal if speech is not None else None, "level_dbfs": level}
