#!/usr/bin/python3
"""Trains the VAD_0.0.1 voice activity detector on mixtures made on the fly from the training
corpus, calibrates it on a validation part of that corpus and writes the model file.

    vad.py --state-dir /root/sonel-train/vad [--extra-data DIR]
    vad.py --state-dir /root/sonel-train/vad --export models/sonel-vad.sw --build-dir build

The detector runs at 8 kHz: its 240-sample analysis frame is then 30 ms, a legal VAD frame of an
8 kHz session, and its 80-sample hop is one 10 ms block. Features come from the reference
detector's front end (tools/reference/vad_v0_0_1.py), the one CI holds to the C++ detector.

Labels: a 10 ms block is speech when the clean speech's power in it is within LABEL_RANGE_DB of
the speech's active level (the mean power of its loud frames), and stays speech for a hangover of
HANGOVER_BLOCKS after that. Inputs are the cleaner's training mixtures (-5 ... 25 dB SNR, with
noise-only and clean-only shares). Speech recordings and noise recordings are split by name into
a fitting part and a validation part; the calibration points ("Test_MINMAX", "Test_BestF1") are
read off the raw outputs on validation mixtures only. Running the same command again resumes
from STATE_DIR/checkpoint.pt.
"""

import argparse
import copy
import hashlib
import json
import math
import os
import sys
import time
from multiprocessing import Pool
from pathlib import Path

import numpy as np
import torch

import network as net
from corpus import EXTRA_DATA_ENV, Corpus, extra_data_dir
from examples import made_ahead
from mixing import P_NOISE_ONLY, Mixer, activity_labels
from train import DEFAULT_DATA, learning_rate, save

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "reference"))
import vad_v0_0_1 as vad  # noqa: E402

sw = net.sw
F32 = np.float32
RATE = 8000
FRAME_LENGTH = 240
HIDDEN = (vad.STATE_SIZE, 32)
LABEL_RANGE_DB = 25.0
HANGOVER_BLOCKS = 5
# Below this block power (16-bit units) nothing is speech, however quiet the talker.
LABEL_FLOOR = 1.0
VALIDATION_SHARE = 0.1
VALIDATION_EPOCH = 1_000_000
NORMALISATION_EPOCH = 1_000_001
SD_FLOOR = 0.01
# Utterance starts: speech blocks within ONSET_BLOCKS of a pause of at least PAUSE_BLOCKS. A
# detector that is late there cuts the first syllable of every utterance.
ONSET_BLOCKS = 5
PAUSE_BLOCKS = 20
MODEL_NAME = "sonel-vad"


def speech_labels(target, rate):
    """1 for the 10 ms blocks that hold speech (see the module's description)."""
    return activity_labels(target, rate, LABEL_RANGE_DB, HANGOVER_BLOCKS, LABEL_FLOOR)


def onset_mask(labels):
    """True for the first ONSET_BLOCKS speech blocks after PAUSE_BLOCKS or more without speech
    (or from the start of the mixture)."""
    mask = np.zeros(len(labels), bool)
    quiet = PAUSE_BLOCKS
    for k, speech in enumerate(labels > 0):
        if speech and quiet >= PAUSE_BLOCKS:
            mask[k:k + ONSET_BLOCKS] = labels[k:k + ONSET_BLOCKS] > 0
        quiet = 0 if speech else quiet + 1
    return mask


def in_validation(name):
    return int(hashlib.sha256(name.encode()).hexdigest()[:8], 16) < VALIDATION_SHARE * 2 ** 32


def part(corpus, validation):
    """The corpus's fitting or validation recordings."""
    out = copy.copy(corpus)
    out.speech_items = [i for i in corpus.speech_items if in_validation(i["name"]) == validation]
    out.noise_items = [i for i in corpus.noise_items if in_validation(i["name"]) == validation]
    return out


class Vad001:
    """What the VAD_0.0.1 detector is trained on and how it is written; a detector of another
    model (gated_vad.py) gives its own."""

    rate = RATE

    def features(self, signal):
        return vad.stream_features(signal, RATE, FRAME_LENGTH)

    def labels(self, target):
        return speech_labels(target, RATE)

    def normalisation(self, features):
        """MU and SD (a variance here) from the features of the normalisation mixtures."""
        return features.mean(0).astype(F32), np.maximum(features.var(0), SD_FLOOR).astype(F32)

    def inputs(self, features, mu, sd):
        return vad.network_inputs(features, mu, sd)

    def network(self):
        return DetectorNetwork()

    def calibration(self, scores, labels):
        """The thresholds the file carries ("Test_MINMAX" ends, "Test_BestF1"), and what to print;
        scores and labels are one row per validation mixture."""
        scores, labels = scores.ravel(), labels.ravel()
        best, f1 = best_f1_threshold(scores, labels)
        return (float(scores.min()), best, float(scores.max())), {"validation_f1": f1}

    def write(self, path, key, model, mu, sd, thresholds, timestamp):
        sw.WeightWriter(records(model, mu, sd, thresholds, timestamp)).write_file(path, key)
        vad.Model(sw.read_file(path, key))  # the reference accepts what was written


_mixers = None


def _init(corpus_folder, seconds, seed, noise_only, detector):
    global _mixers
    corpus = Corpus(corpus_folder)
    _mixers = {v: Mixer(part(corpus, v), seconds, noise_only=noise_only) for v in (False, True)}, seed, detector


def _example(key):
    """Features and labels of mixture (epoch, index); validation epochs draw from validation
    recordings."""
    mixers, seed, detector = _mixers
    epoch, index = key
    mix = mixers[epoch == VALIDATION_EPOCH](np.random.default_rng([seed, epoch, index]))
    features = detector.features(mix.noisy)
    labels = detector.labels(mix.target)[:len(features)]
    return features, labels


class Data:
    def __init__(self, workers, corpus_folder, seconds, seed, noise_only, detector):
        self.detector = detector
        self.pool = Pool(workers, _init, (corpus_folder, seconds, seed, noise_only, detector))

    def examples(self, keys):
        return self.pool.map(_example, keys)

    def batches(self, keys, size, mu, sd):
        """(inputs, labels) arrays of `size` mixtures each, one batch made ahead."""
        for examples in made_ahead(self.pool, _example, keys, size):
            yield (np.stack([self.detector.inputs(f, mu, sd) for f, _ in examples]),
                   np.stack([labels for _, labels in examples]))

    def close(self):
        self.pool.terminate()
        self.pool.join()


class DetectorNetwork(net.CleanerNetwork):
    """The cleaner's gated recurrent layers with one linear output: the raw detector score."""

    def __init__(self):
        super().__init__(vad.CONTEXT_FRAMES * len(vad.merge_groups(FRAME_LENGTH // 2 + 1)), 1, HIDDEN)

    def forward(self, inputs, state=None):
        x, state = self.hidden_layers(inputs, torch.ones(inputs.shape[:2], dtype=torch.bool), state)
        return torch.nn.functional.linear(x, self.out_w, self.out_b)[..., 0], state


def records(model, mu, sd, thresholds, timestamp="training"):
    p = net._np
    return vad.model_records(RATE, FRAME_LENGTH, mu, sd, p(model.gate_w), p(model.gate_b),
                             [p(w) for w in model.rect_w], [p(b) for b in model.rect_b],
                             [p(w) for w in model.lin_w] + [p(model.out_w)],
                             [p(b) for b in model.lin_b] + [p(model.out_b)], thresholds,
                             name=MODEL_NAME, timestamp=timestamp)


def raw_scores(model, data, keys, mu, sd):
    """Raw outputs and labels of every block of the mixtures of `keys`, each run from a fresh
    state as a stream is."""
    scores, labels = [], []
    with torch.no_grad():
        for inputs, batch_labels in data.batches(keys, 16, mu, sd):
            raw, _ = model(torch.from_numpy(inputs))
            scores.append(raw.numpy().ravel())
            labels.append(batch_labels.ravel())
    return np.concatenate(scores), np.concatenate(labels)


def best_f1_threshold(scores, labels):
    order = np.argsort(-scores)
    hits = np.cumsum(labels[order])
    precision = hits / np.arange(1, len(order) + 1)
    recall = hits / max(labels.sum(), 1.0)
    f1 = 2 * precision * recall / np.maximum(precision + recall, 1e-12)
    return float(scores[order][int(np.argmax(f1))]), float(f1.max())


def auc(scores, labels):
    """Probability that a speech block outscores a block without speech (ties count half)."""
    ranks = np.empty(len(scores))
    order = np.argsort(scores, kind="mergesort")
    ranks[order] = np.arange(1, len(scores) + 1)
    for value in np.unique(scores[order][np.r_[False, np.diff(scores[order]) == 0]]):
        tied = scores == value
        ranks[tied] = ranks[tied].mean()
    positives = labels > 0
    n, m = positives.sum(), (~positives).sum()
    return float((ranks[positives].sum() - n * (n + 1) / 2) / max(n * m, 1))


def validation_report(model, data, args, mu, sd):
    """AUC, and at the best-F1 point F1, false-alarm rate and the share of utterance starts
    detected within 50 ms, on the validation mixtures (training split only)."""
    keys = [(VALIDATION_EPOCH, i) for i in range(args.validation)]
    scores, labels = raw_scores(model, data, keys, mu, sd)
    best, f1 = best_f1_threshold(scores, labels)
    blocks = scores.reshape(args.validation, -1) >= best
    truth = labels.reshape(args.validation, -1)
    starts = found = 0
    for decided, t in zip(blocks, truth):
        first = np.flatnonzero(onset_mask(t) & np.r_[True, t[:-1] == 0])
        starts += len(first)
        found += sum(decided[k:k + ONSET_BLOCKS + 1].any() for k in first)
    return {"auc": auc(scores, labels), "f1": f1, "false_alarms": float(blocks[truth == 0].mean()),
            "onsets_50ms": found / max(starts, 1), "threshold": best}


def detector_arguments(description, epochs, seconds, chunk, lr):
    """A detector trainer's command line: its own options are added to what this returns, and
    `finish_arguments` parses it. The defaults that differ between detectors are arguments."""
    p = argparse.ArgumentParser(description=description.split("\n\n")[0])
    p.add_argument("--state-dir", required=True)
    p.add_argument("--data", default=str(DEFAULT_DATA))
    p.add_argument("--extra-data", help="output folder of ../shared/data/debian/fetch.sh (default: "
                   "$%s; none when unset)" % EXTRA_DATA_ENV)
    p.add_argument("--cache-dir", help="decoded corpus cache (default STATE_DIR/cache)")
    p.add_argument("--epochs", type=int, default=epochs)
    p.add_argument("--examples", type=int, default=512, help="mixtures per epoch")
    p.add_argument("--batch", type=int, default=16)
    p.add_argument("--seconds", type=float, default=seconds)
    p.add_argument("--chunk", type=float, default=chunk, help="seconds per truncated-BPTT step")
    p.add_argument("--lr", type=float, default=lr)
    p.add_argument("--seed", type=int, default=20261124)
    p.add_argument("--validation", type=int, default=256, help="validation (and calibration) mixtures")
    p.add_argument("--normalisation", type=int, default=128)
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--export", action="append", help="model file to write (.sw needs --build-dir)")
    p.add_argument("--build-dir")
    p.add_argument("--report", action="store_true",
                   help="print the trained detector's measures on the validation mixtures and stop")
    return p


def finish_arguments(p, argv):
    args = p.parse_args(argv)
    args.cache_dir = args.cache_dir or os.path.join(args.state_dir, "cache")
    args.extra_data = extra_data_dir(args.extra_data)
    return args


def parse_args(argv, description=__doc__):
    p = detector_arguments(description, epochs=30, seconds=6.0, chunk=2.0, lr=2e-3)
    p.add_argument("--noise-only-share", type=float, default=P_NOISE_ONLY,
                   help="share of mixtures without speech (false alarms are learnt there)")
    p.add_argument("--onset-weight", type=float, default=1.0,
                   help="loss weight of the first ONSET_BLOCKS speech blocks after a pause")
    p.add_argument("--noise-only-weight", type=float, default=1.0,
                   help="loss weight of every hop of a mixture without speech (a gate must pass none)")
    return finish_arguments(p, argv)


def resume_or_start(checkpoint_path, model, optimizer, normalisation):
    """(MU, SD, epoch, step, history) of the run in `checkpoint_path`, its network and optimiser
    loaded; or of a new run, MU and SD from `normalisation()`."""
    if checkpoint_path.exists():
        ck = torch.load(checkpoint_path)
        model.load_state_dict(ck["network"])
        optimizer.load_state_dict(ck["optimizer"])
        print("resumed at epoch %d" % ck["epoch"], flush=True)
        return ck["mu"], ck["sd"], ck["epoch"], ck["step"], ck["history"]
    mu, sd = normalisation()
    return mu, sd, 0, 0, []


def train_epochs(model, optimizer, batches, args, checkpoint_path, run):
    """A detector's schedule up to args.epochs: each epoch's batches (`batches(epoch)` gives
    inputs, 0/1 labels and per-hop loss weights) in truncated back-propagation chunks of
    args.chunk seconds, weighted binary cross-entropy on the logit, the cleaner's learning-rate
    schedule, a checkpoint after every epoch. `run` is (MU, SD, epoch, step, history); returns it
    at the end."""
    mu, sd, epoch, step, history = run
    chunk = int(round(args.chunk * 100))
    total = args.epochs * math.ceil(args.examples / args.batch) * math.ceil(args.seconds / args.chunk)
    loss_fn = torch.nn.BCEWithLogitsLoss(reduction="none")
    while epoch < args.epochs:
        started, running = time.time(), []
        for batch in batches(epoch):
            inputs, labels, weights = (torch.from_numpy(a.astype(F32)) for a in batch)
            state = None
            for first in range(0, inputs.shape[1], chunk):
                window = slice(first, first + chunk)
                raw, state = model(inputs[:, window], state)
                w = weights[:, window]
                loss = (loss_fn(raw, labels[:, window]) * w).sum() / w.sum().clamp(min=1.0)
                for group in optimizer.param_groups:
                    group["lr"] = learning_rate(args, step, total)
                optimizer.zero_grad()
                loss.backward()
                torch.nn.utils.clip_grad_norm_(model.parameters(), 1.0)
                optimizer.step()
                if hasattr(model, "bound_recurrence"):
                    model.bound_recurrence()
                state = state.detach()
                step += 1
                running.append(float(loss))
        epoch += 1
        history.append({"epoch": epoch, "loss": float(np.mean(running)), "minutes": (time.time() - started) / 60})
        print(json.dumps(history[-1]), flush=True)
        save(checkpoint_path, {"network": model.state_dict(), "optimizer": optimizer.state_dict(), "mu": mu,
                               "sd": sd, "epoch": epoch, "step": step, "history": history, "args": vars(args)})
    return mu, sd, epoch, step, history


def main(argv=None, detector=None, description=__doc__):
    """Trains `detector` (default the VAD_0.0.1 detector) as the command line says."""
    args = parse_args(argv, description)
    detector = detector or Vad001()
    torch.set_num_threads(1)
    torch.manual_seed(args.seed)
    state_dir = Path(args.state_dir)
    state_dir.mkdir(parents=True, exist_ok=True)
    checkpoint_path = state_dir / "checkpoint.pt"
    corpus_folder = Corpus.load_or_build(args.data, "train", detector.rate, args.cache_dir, args.workers,
                                         args.extra_data).folder
    data = Data(args.workers, corpus_folder, args.seconds, args.seed, args.noise_only_share, detector)
    model = detector.network()
    optimizer = torch.optim.Adam(model.parameters(), lr=args.lr)
    try:
        def normalisation():
            examples = data.examples([(NORMALISATION_EPOCH, i) for i in range(args.normalisation)])
            return detector.normalisation(np.concatenate([f for f, _ in examples]))

        run = resume_or_start(checkpoint_path, model, optimizer, normalisation)
        mu, sd = run[:2]
        if args.report:
            model.eval()
            print(json.dumps(validation_report(model, data, args, mu, sd)), flush=True)
            return 0

        def batches(epoch):
            # Hops at an utterance's start weigh args.onset_weight, and every hop of a mixture
            # without speech args.noise_only_weight (1 and 1: every hop alike).
            for inputs, labels in data.batches([(epoch, i) for i in range(args.examples)], args.batch, mu, sd):
                weights = 1.0 + (args.onset_weight - 1.0) * np.stack([onset_mask(l) for l in labels])
                weights[~labels.any(axis=1)] = args.noise_only_weight
                yield inputs, labels, weights

        train_epochs(model, optimizer, batches, args, checkpoint_path, run)
        if args.export:
            model.eval()
            scores, labels = raw_scores(model, data, [(VALIDATION_EPOCH, i) for i in range(args.validation)],
                                        mu, sd)
            thresholds, summary = detector.calibration(scores.reshape(args.validation, -1),
                                                       labels.reshape(args.validation, -1))
            print(json.dumps(dict(summary, thresholds=thresholds, speech_share=float(labels.mean()))), flush=True)
            key = sw.key_from_build(args.build_dir) if args.build_dir else None
            timestamp = time.strftime("%Y%m%dT%H%M%S", time.gmtime())
            for out in args.export:
                detector.write(out, key, model, mu, sd, thresholds, timestamp)
                print("wrote %s" % out, flush=True)
        return 0
    finally:
        data.close()


if __name__ == "__main__":
    sys.exit(main())
