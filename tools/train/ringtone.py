#!/usr/bin/python3
"""Trains the ringtone detector (a "0.0.6" model file with "RingtoneVersion") on mixtures made on
the fly: the training corpus's speech and noise, with a ring or alert tone over them in half the
mixtures, and writes the model file.

    ringtone.py --state-dir /root/sonel-train/ring --rings DIR [--extra-data DIR]
    ringtone.py --state-dir /root/sonel-train/ring --rings DIR --export models/sonel-ringtone.sw --build-dir build

DIR for --rings is the output of tools/train/ringtone_data.sh (its train/ring recordings are used;
holdout/ring is left to the evaluation). Half the rings drawn are those recordings, half are
synthesised: dual-tone and single-tone cadences, electromechanical bells (a harmonic tone shaken
at 15 to 25 Hz), melodic ringtones (a motif of notes repeated), alarm beeps and a phone's
vibration buzz. Every ring passes through a random loudspeaker and room before it is mixed.

Hard negatives come with the background: the cleaner's training mixtures with music at 30 % of
the noise draws (against 15 % for the cleaner), birdsong, sirens and clocks from the noise corpus,
and in some mixtures mains hum.

Labels: a 10 ms hop is "ring" when the ring's own power in it is within LABEL_RANGE_DB of its
active level, and stays so for HANGOVER_HOPS after. A ring hop buried under the rest of the
mixture (more than MASKED_DB below it in that hop) teaches nothing either way and is left out of
the loss. Features come from the reference detector's front end
(tools/reference/ringtone_v0_0_1.py), the one CI holds to the C++ detector. Running the same
command again resumes from STATE_DIR/checkpoint.pt.
"""

import json
import math
import os
import sys
import time
from multiprocessing import Pool
from pathlib import Path

import numpy as np
import soundfile as sf
import torch
from scipy.signal import butter, fftconvolve, resample_poly, sosfilt

from corpus import Corpus
from examples import made_ahead
from mixing import Mixer, active_power, activity_labels, frame_power, microphone, room
from network import gru_records
from vad import auc, detector_arguments, finish_arguments, part, resume_or_start, train_epochs

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "reference"))
import ringtone_v0_0_1 as rt  # noqa: E402

sw = rt.sw
F32 = np.float32
RATE = 16000
WIDTHS = (64, 64, 32)  # input layer, GRU, hidden output layer
LABEL_RANGE_DB = 25.0
HANGOVER_HOPS = 20
MASKED_DB = 20.0
P_RING = 0.5
P_RECORDED_RING = 0.5
# Ring level against the speech's active level, or against the noise without speech (dB).
RING_RATIO_DB = (-10.0, 25.0)
RING_SECONDS = (1.5, 8.0)
P_ROOM = 0.4
P_SMALL_SPEAKER = 0.4
P_HUM = 0.1
HUM_DB = (-15.0, 10.0)
# Part of the input band-limited as an 8 kHz channel leaves it, so the top of the detector's grid
# may be empty.
P_NARROW = 0.2
MUSIC_SHARE = 0.3
# Alert tones in the noise corpus that are neither ring nor clearly not one: left out.
AMBIGUOUS_NOISE = ("seatbelt_beeps",)
VALIDATION_EPOCH = 1_000_000
NORMALISATION_EPOCH = 1_000_001
SD_FLOOR = 0.05
MODEL_NAME = "sonel-ringtone"


# Synthesised rings --------------------------------------------------------------------------

def _cadence(rng, n, rate, on_s, off_s, jitter=0.0):
    """0/1 gate of n samples: on for on_s, off for off_s, repeated, from a random phase."""
    period = on_s + off_s
    t = (np.arange(n) / rate + rng.uniform(0, period)) % period
    gate = (t < on_s).astype(np.float64)
    ramp = max(int(0.005 * rate), 1)  # 5 ms edges, as a ringer's amplifier has
    return np.convolve(gate, np.ones(ramp) / ramp, mode="same")


def _tones(freqs, n, rate, rng):
    t = np.arange(n) / rate
    return sum(np.sin(2 * np.pi * f * t + rng.uniform(0, 2 * np.pi)) for f in freqs)


def _harmonic(f0, n, rate, rng, partials, tilt):
    t = np.arange(n) / rate
    return sum(np.sin(2 * np.pi * f0 * k * t + rng.uniform(0, 2 * np.pi)) / k ** tilt
               for k in range(1, partials + 1) if f0 * k < 0.45 * rate)


def synthetic_ring(rng, n, rate):
    kind = rng.choice(["dual", "bell", "melody", "beeps", "buzz"], p=[0.3, 0.15, 0.3, 0.15, 0.1])
    if kind == "dual":
        f1 = rng.uniform(300, 1300)
        freqs = [f1] if rng.random() < 0.3 else [f1, f1 + rng.uniform(30, 500)]
        x = _tones(freqs, n, rate, rng)
        if rng.random() < 0.4:  # a warble: two tone sets alternating every 25 to 60 ms
            alt = _tones([f * rng.uniform(1.1, 1.5) for f in freqs], n, rate, rng)
            x = np.where(_cadence(rng, n, rate, *(rng.uniform(0.025, 0.06, 2))) > 0.5, x, alt)
        on = rng.uniform(0.3, 2.0)
        gate = _cadence(rng, n, rate, on, rng.uniform(0.2, 4.0))
        if rng.random() < 0.4:  # double rings: two short bursts, then a long pause
            gate *= _cadence(rng, n, rate, on / 2.5, on / 5)
        return x * gate
    if kind == "bell":
        x = _harmonic(rng.uniform(400, 1600), n, rate, rng, 6, 1.0)
        shake = 0.5 + 0.5 * np.sign(np.sin(2 * np.pi * rng.uniform(15, 25) * np.arange(n) / rate))
        return x * shake * _cadence(rng, n, rate, rng.uniform(0.8, 2.0), rng.uniform(1.0, 4.0))
    if kind == "melody":
        scale = np.array([0, 2, 4, 7, 9, 12, 14, 16])
        root = rng.uniform(220, 900)
        notes = rng.choice(scale, int(rng.integers(4, 11)))
        lengths = rng.choice([0.08, 0.12, 0.16, 0.25, 0.33], len(notes))
        gap = rng.uniform(0.0, 1.5)
        decay = rng.uniform(3, 20) if rng.random() < 0.6 else 0.0
        partials, tilt = int(rng.integers(1, 7)), rng.uniform(0.5, 2.0)
        motif = []
        for note, length in zip(notes, lengths):
            m = int(length * rate)
            env = np.exp(-decay * np.arange(m) / rate) * np.minimum(1, np.arange(m) / (0.005 * rate))
            motif.append(_harmonic(root * 2 ** (note / 12), m, rate, rng, partials, tilt) * env)
        motif.append(np.zeros(int(gap * rate)))
        motif = np.concatenate(motif)
        return np.resize(np.roll(motif, int(rng.integers(len(motif)))), n)
    if kind == "beeps":
        x = _tones([rng.uniform(1500, 3800)], n, rate, rng)
        gate = _cadence(rng, n, rate, *(rng.uniform(0.04, 0.15, 2)))
        return x * gate * _cadence(rng, n, rate, rng.uniform(0.4, 1.0), rng.uniform(0.3, 1.0))
    # buzz: a vibration motor on a table, a rough low tone with its harmonics
    f0 = rng.uniform(120, 250)
    x = _harmonic(f0, n, rate, rng, 12, 0.7) * (1 + 0.3 * rng.standard_normal(n))
    return x * _cadence(rng, n, rate, rng.uniform(0.3, 1.2), rng.uniform(0.3, 1.5))


def hum(rng, n, rate):
    """Mains hum with its harmonics: tonal, steady and no ring. (A steady tone higher up is left
    out: its first second is a ring's first burst, and a detector cannot tell them apart in time
    to report the ring within half a second.)"""
    return _harmonic(rng.choice([50.0, 60.0]), n, rate, rng, 12, 0.5)


# Recorded rings -------------------------------------------------------------------------------

def load_rings(folder, rate):
    rings = []
    for name in sorted(os.listdir(folder)):
        audio, source_rate = sf.read(os.path.join(folder, name), dtype="float64", always_2d=True)
        audio = audio.mean(axis=1)
        g = math.gcd(rate, source_rate)
        rings.append((name, resample_poly(audio, rate // g, source_rate // g)))
    if not rings:
        raise SystemExit("no ring recordings in %s: run tools/train/ringtone_data.sh first" % folder)
    return rings


def recorded_ring(rng, rings, n):
    """A stretch of a ring recording, looped with its own silence: short ringers repeat, as
    they do on a phone, after a pause of up to two seconds."""
    _, audio = rings[int(rng.integers(len(rings)))]
    pause = np.zeros(int(rng.uniform(0.0, 2.0) * RATE)) if len(audio) < 4 * RATE else np.zeros(0)
    cycle = np.concatenate([audio, pause])
    start = int(rng.integers(len(cycle)))
    return np.resize(np.roll(cycle, -start), n)


# Mixtures -------------------------------------------------------------------------------------

def ring_labels(ring, rate):
    return activity_labels(ring, rate, LABEL_RANGE_DB, HANGOVER_HOPS)


def ring_through_speaker_and_room(rng, ring):
    sections = microphone(rng, RATE)
    if rng.random() < P_SMALL_SPEAKER:  # a phone's loudspeaker: little below 300 Hz
        sections = np.concatenate([sections, butter(2, rng.uniform(250, 800), "highpass", fs=RATE, output="sos")])
    ring = sosfilt(sections, ring)
    if rng.random() < P_ROOM:
        response, _ = room(rng, RATE)
        ring = fftconvolve(ring, response)[:len(ring)]
    return ring


def make_example(mixer, rings, rng):
    """(16-bit samples, labels per hop, loss weights per hop) of one mixture."""
    mix = mixer(rng)
    n = len(mix.noisy)
    background = mix.noisy.astype(np.float64)
    reference = active_power(mix.target, RATE) if mix.kind != "noise" else np.mean(background ** 2)
    reference = max(reference, 1.0)
    ring = np.zeros(n)
    if rng.random() < P_RING:
        length = min(n, int(rng.uniform(*RING_SECONDS) * RATE))
        start = int(rng.integers(-length // 3, n - length // 2))
        first, last = max(start, 0), min(start + length, n)
        sound = recorded_ring(rng, rings, length) if rng.random() < P_RECORDED_RING \
            else synthetic_ring(rng, length, RATE)
        ring[first:last] = sound[first - start:last - start]
        ring = ring_through_speaker_and_room(rng, ring)
        ring *= np.sqrt(reference * 10 ** (-rng.uniform(*RING_RATIO_DB) / 10) / max(active_power(ring, RATE), 1e-20))
    if rng.random() < P_HUM:
        tone = hum(rng, n, RATE)
        background = background + tone * np.sqrt(reference * 10 ** (rng.uniform(*HUM_DB) / 10) / np.mean(tone ** 2))
    labels = ring_labels(ring, RATE)
    masked = frame_power(ring, RATE) * 10 ** (MASKED_DB / 10) < frame_power(background, RATE)
    weights = np.where((labels > 0) & masked, 0.0, 1.0).astype(F32)
    x = background + ring
    if rng.random() < P_NARROW:
        x = sosfilt(butter(8, rng.uniform(3300, 3900), "lowpass", fs=RATE, output="sos"), x)
    x = np.clip(np.round(x), -32768, 32767)
    return x, labels, weights


_state = None


def _init(corpus_folder, ring_folder, seconds, seed, music_share):
    global _state
    corpus = Corpus(corpus_folder)
    corpus.noise_items = [i for i in corpus.noise_items if not any(a in i["name"] for a in AMBIGUOUS_NOISE)]
    mixers = {v: Mixer(part(corpus, v), seconds, music=music_share) for v in (False, True)}
    _state = mixers, load_rings(ring_folder, RATE), seed


def _example(key):
    mixers, rings, seed = _state
    epoch, index = key
    x, labels, weights = make_example(mixers[epoch == VALIDATION_EPOCH], rings,
                                      np.random.default_rng([seed, epoch, index]))
    features = rt.stream_features(x, RATE).astype(F32)
    return features, labels[:len(features)], weights[:len(features)]


class Data:
    def __init__(self, workers, corpus_folder, ring_folder, seconds, seed, music_share):
        self.pool = Pool(workers, _init, (corpus_folder, ring_folder, seconds, seed, music_share))

    def examples(self, keys):
        return self.pool.map(_example, keys)

    def batches(self, keys, size, mu, sd):
        for examples in made_ahead(self.pool, _example, keys, size):
            yield (np.stack([(f - mu) / sd for f, _, _ in examples]).astype(F32),
                   np.stack([labels for _, labels, _ in examples]), np.stack([w for _, _, w in examples]))

    def close(self):
        self.pool.terminate()
        self.pool.join()


# Network --------------------------------------------------------------------------------------

class RingtoneNetwork(torch.nn.Module):
    """The 0.0.6 network form: one layer-normalised input layer, a GRU, one layer-normalised
    hidden layer and a logistic output (docs/design.md)."""

    def __init__(self, widths=WIDTHS, features=rt.FEATURES):
        super().__init__()
        inp, state, hid = widths
        self.inp = torch.nn.Linear(features, inp)
        self.inp_norm = torch.nn.LayerNorm(inp, eps=rt.NORM_EPSILON)
        self.gru = torch.nn.GRU(inp, state, batch_first=True)
        self.hid = torch.nn.Linear(state, hid)
        self.hid_norm = torch.nn.LayerNorm(hid, eps=rt.NORM_EPSILON)
        self.out = torch.nn.Linear(hid, 1)

    def forward(self, x, state=None):
        x = torch.tanh(self.inp_norm(self.inp(x)))
        y, state = self.gru(x, state)
        return self.out(torch.tanh(self.hid_norm(self.hid(y))))[..., 0], state


def network_arrays(model):
    """The network's weights in the order of the 0.0.6 records after MU and SD (input layer, the
    GRU regrouped by network.gru_records, output layers, their norms)."""
    p = lambda t: t.detach().numpy().astype(F32)  # noqa: E731
    return ([p(model.inp.weight)], [p(model.inp.bias)], [p(model.inp_norm.weight)], [p(model.inp_norm.bias)],
            *gru_records([model.gru]), [p(model.hid.weight), p(model.out.weight)],
            [p(model.hid.bias), p(model.out.bias)], [p(model.hid_norm.weight)], [p(model.hid_norm.bias)])


def records(model, mu, sd, timestamp="training"):
    """The network's weights as the 0.0.6 records."""
    return rt.model_records(mu, sd, *network_arrays(model), name=MODEL_NAME, timestamp=timestamp)


def scores(model, data, keys, mu, sd):
    out, labels = [], []
    with torch.no_grad():
        for inputs, batch_labels, _ in data.batches(keys, 16, mu, sd):
            logits, _ = model(torch.from_numpy(inputs))
            out.append(torch.sigmoid(logits).numpy().ravel())
            labels.append(batch_labels.ravel())
    return np.concatenate(out), np.concatenate(labels)


def validation_report(model, data, args, mu, sd):
    """AUC, and at 0.5 the share of ring hops found and of ringless hops flagged, on mixtures of
    the training split's validation recordings (the rings are training rings)."""
    s, labels = scores(model, data, [(VALIDATION_EPOCH, i) for i in range(args.validation)], mu, sd)
    hit = s >= 0.5
    return {"auc": auc(s, labels), "found": float(hit[labels > 0].mean()),
            "false_alarms": float(hit[labels == 0].mean()), "ring_share": float(labels.mean())}


def parse_args(argv):
    p = detector_arguments(__doc__, epochs=40, seconds=8.0, chunk=4.0, lr=3e-3)
    p.add_argument("--rings", required=True, help="output folder of tools/train/ringtone_data.sh")
    p.add_argument("--widths", default=",".join(map(str, WIDTHS)),
                   help="input layer, GRU and hidden output layer widths")
    p.add_argument("--music-share", type=float, default=MUSIC_SHARE, help="share of noise draws that are music")
    args = finish_arguments(p, argv)
    args.widths = tuple(int(w) for w in args.widths.split(","))
    return args


def main(argv=None):
    args = parse_args(argv)
    torch.set_num_threads(1)
    torch.manual_seed(args.seed)
    state_dir = Path(args.state_dir)
    state_dir.mkdir(parents=True, exist_ok=True)
    checkpoint_path = state_dir / "checkpoint.pt"
    corpus_folder = Corpus.load_or_build(args.data, "train", RATE, args.cache_dir, args.workers,
                                         args.extra_data).folder
    data = Data(args.workers, corpus_folder, os.path.join(args.rings, "train", "ring"), args.seconds, args.seed,
                args.music_share)
    model = RingtoneNetwork(args.widths)
    optimizer = torch.optim.Adam(model.parameters(), lr=args.lr)
    try:
        def normalisation():
            examples = data.examples([(NORMALISATION_EPOCH, i) for i in range(args.normalisation)])
            features = np.concatenate([f for f, _, _ in examples])
            return features.mean(0).astype(F32), np.maximum(features.std(0), SD_FLOOR).astype(F32)

        run = resume_or_start(checkpoint_path, model, optimizer, normalisation)
        mu, sd = run[:2]
        if args.report:
            model.eval()
            print(json.dumps(validation_report(model, data, args, mu, sd)), flush=True)
            return 0
        train_epochs(model, optimizer, lambda epoch: data.batches([(epoch, i) for i in range(args.examples)],
                                                                  args.batch, mu, sd),
                     args, checkpoint_path, run)
        if args.export:
            model.eval()
            print(json.dumps(validation_report(model, data, args, mu, sd)), flush=True)
            key = sw.key_from_build(args.build_dir) if args.build_dir else None
            timestamp = time.strftime("%Y%m%dT%H%M%S", time.gmtime())
            for out in args.export:
                sw.WeightWriter(records(model, mu, sd, timestamp)).write_file(out, key)
                written = rt.Model(sw.read_file(out, key))  # the reference accepts what was written
                print("wrote %s" % out, flush=True)
            check_export(model, written, data, mu, sd)
        return 0
    finally:
        data.close()


def check_export(model, written, data, mu, sd):
    """The exported file, run by the reference on one validation mixture, gives what the trained
    network gives."""
    features, _, _ = data.examples([(VALIDATION_EPOCH, 0)])[0]
    with torch.no_grad():
        logits, _ = model(torch.from_numpy(((features - mu) / sd).astype(F32))[None])
    trained = torch.sigmoid(logits)[0].numpy()
    network = rt.Network(written)
    exported = np.array([network.step(f) for f in features])
    print("export check: largest difference %.2e over %d hops" % (np.abs(trained - exported).max(), len(features)),
          flush=True)


if __name__ == "__main__":
    sys.exit(main())
