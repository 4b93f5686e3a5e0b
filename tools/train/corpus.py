"""The speech and noise of one corpus split, decoded and resampled to a model rate once and cached
as float32 arrays (memory-mapped, so data workers share the pages) outside the work tree.

Speech bandwidth comes from the corpus MANIFEST: RAVDESS files are 48 kHz recordings (full band),
speechocean762 files were recorded at 16 kHz and hold nothing above 8 kHz although their Ogg
container runs at 48 kHz, the Tux Paint read descriptions are 44.1 kHz recordings (full band).

A split can draw on two roots: the in-tree corpus and the folder `../shared/data/debian/fetch.sh`
fills from Debian packages (`--extra-data DIR` or the SONEL_EXTRA_DATA environment variable),
laid out the same way (SPLIT/speech, SPLIT/noise).
"""

import copy
import json
import math
import os
from multiprocessing import Pool
from pathlib import Path

import numpy as np
import soundfile
from scipy.signal import butter, resample_poly, sosfiltfilt

SPEECH_BANDWIDTH_HZ = {"ravdess": 24000.0, "so762": 8000.0, "tuxpaint": 22050.0}
# Noise recordings that are music (a call's background music is noise to remove): named apart so
# the mixer can hold their share of the draws (an hour of soundtrack against 86 minutes of the rest).
MUSIC_PREFIX = "music_"
EXTRA_DATA_ENV = "SONEL_EXTRA_DATA"
# Activity: 10 ms frames within 40 dB of the file's loudest frame. Both corpora keep their
# leading and trailing pauses (RAVDESS about 1 s of studio tone at each end).
ACTIVITY_RANGE_DB = 40.0
# Speech below this is a recording's DC offset and rumble, not voice (some Tux Paint clips carry an
# offset of a tenth of their RMS and a few per cent of their energy under 80 Hz): kept, the target
# would teach the network to pass the lowest bands as speech.
SPEECH_HIGH_PASS_HZ = 40.0
CACHE_VERSION = 3


def speech_group(name):
    group = name.split("_", 1)[0]
    if group not in SPEECH_BANDWIDTH_HZ:
        raise ValueError("speech file of unknown origin (no bandwidth known): " + name)
    return group


def _decode(job):
    path, rate, high_pass = job
    audio, source_rate = soundfile.read(path, dtype="float32", always_2d=True)
    audio = audio.mean(axis=1)
    if high_pass and len(audio) > 64:
        # Zero phase, so the clean target stays aligned with what the mixture is made of.
        sos = butter(2, SPEECH_HIGH_PASS_HZ, btype="highpass", fs=source_rate, output="sos")
        audio = sosfiltfilt(sos, audio).astype(np.float32)
    if source_rate != rate:
        g = math.gcd(source_rate, rate)
        audio = resample_poly(audio, rate // g, source_rate // g).astype(np.float32)
    return audio


def active_span(audio, rate):
    """First and one-past-last sample of the frames within ACTIVITY_RANGE_DB of the loudest."""
    hop = rate // 100
    frames = audio[:len(audio) // hop * hop].reshape(-1, hop)
    power = np.mean(frames.astype(np.float64) ** 2, axis=1) + 1e-20
    active = np.flatnonzero(10 * np.log10(power / power.max()) > -ACTIVITY_RANGE_DB)
    return int(active[0] * hop), int((active[-1] + 1) * hop)


class Corpus:
    """speech/noise: one float32 array each; *_items: per file offset, length and more."""

    def __init__(self, folder):
        self.folder = folder = Path(folder)
        with open(folder / "index.json", encoding="utf-8") as f:
            index = json.load(f)
        self.rate = index["rate"]
        self.speech_items = index["speech"]
        self.noise_items = index["noise"]
        self.speech = np.memmap(folder / "speech.f32", dtype=np.float32, mode="r")
        self.noise = np.memmap(folder / "noise.f32", dtype=np.float32, mode="r")

    def speech_audio(self, item):
        return self.speech[item["offset"]:item["offset"] + item["length"]]

    def noise_audio(self, item):
        return self.noise[item["offset"]:item["offset"] + item["length"]]

    def with_noise_of(self, other):
        """This corpus's speech over `other`'s noise (same rate): splits speech generalisation
        from noise generalisation."""
        if other.rate != self.rate:
            raise ValueError("noise at %d Hz for speech at %d Hz" % (other.rate, self.rate))
        mixed = copy.copy(self)
        mixed.noise_items, mixed.noise = other.noise_items, other.noise
        return mixed

    @classmethod
    def load_or_build(cls, data_dir, split, rate, cache_dir, workers=1, extra_dir=None):
        """The split's cache, built first when missing or made from other sources. `extra_dir`:
        the fetch script's output folder, or None for the in-tree corpus alone."""
        roots = split_roots(data_dir, split, extra_dir)
        folder = Path(cache_dir) / ("%s%s-%d" % (split, "+extra" if extra_dir else "", rate))
        index = folder / "index.json"
        if index.exists():
            with open(index, encoding="utf-8") as f:
                stored = json.load(f)
            if stored.get("version") == CACHE_VERSION and stored.get("sources") == [str(r) for r in roots]:
                return cls(folder)
        build(roots, rate, folder, workers)
        return cls(folder)


def extra_data_dir(given):
    """The fetch script's output folder: the flag's value, else the environment's, else None."""
    return given or os.environ.get(EXTRA_DATA_ENV) or None


def split_roots(data_dir, split, extra_dir):
    roots = [Path(data_dir) / split]
    if extra_dir:
        extra = Path(extra_dir) / split
        if not (extra / "noise").is_dir():
            raise SystemExit("%s has no %s/noise: run ../shared/data/debian/fetch.sh %s first "
                             "(it extracts the Debian-package recordings), or leave out "
                             "--extra-data and %s" % (extra_dir, split, extra_dir, EXTRA_DATA_ENV))
        roots.append(extra)
    return roots


def build(roots, rate, folder, workers):
    folder.mkdir(parents=True, exist_ok=True)
    index = {"version": CACHE_VERSION, "rate": rate, "sources": [str(r) for r in roots]}
    with Pool(workers) as pool:
        for kind in ("speech", "noise"):
            paths = sorted((p for root in roots if (root / kind).is_dir() for p in (root / kind).iterdir()
                            if p.suffix in (".flac", ".ogg")), key=lambda p: p.name)
            items, offset = [], 0
            with open(folder / (kind + ".f32.tmp"), "wb") as out:
                for path, audio in zip(paths, pool.imap(_decode, [(str(p), rate, kind == "speech") for p in paths])):
                    item = {"name": path.name, "offset": offset, "length": len(audio)}
                    if kind == "speech":
                        group = speech_group(path.name)
                        start, end = active_span(audio, rate)
                        item.update(group=group, active=[start, end],
                                    bandwidth=min(SPEECH_BANDWIDTH_HZ[group], rate / 2))
                    else:
                        item["music"] = path.name.startswith(MUSIC_PREFIX)
                    items.append(item)
                    out.write(audio.astype(np.float32).tobytes())
                    offset += len(audio)
            os.replace(folder / (kind + ".f32.tmp"), folder / (kind + ".f32"))
            index[kind] = items
    # The index is written last: its presence marks a complete cache.
    with open(folder / "index.json.tmp", "w", encoding="utf-8") as f:
        json.dump(index, f)
    os.replace(folder / "index.json.tmp", folder / "index.json")
