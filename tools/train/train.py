#!/usr/bin/python3
"""Trains a noise-cleaning network on mixtures made on the fly from the training corpus: the
v0.0.5 network, with --generation 0.0.6 the layer-normalised GRU network, or with --generation
0.0.7 its separable-dense form (GRU and output layer in --groups groups).

    train.py --rate 32000 --state-dir /root/sonel-train/nc32k

Everything a run writes goes under --state-dir: checkpoint.pt (the latest, written every few
minutes and at every epoch's end), epoch-NNN.pt (one per finished epoch), history.jsonl (losses
per epoch) and the decoded-corpus cache. Running the same command again resumes from
checkpoint.pt: network, optimizer, step count, epoch and position in the epoch, random state.
Mixtures are fixed by (seed, epoch, index), so a resumed run sees the data an uninterrupted run
would have seen. See docs/training.md.
"""

import argparse
import json
import math
import os
import sys
import time
from pathlib import Path

import numpy as np
import torch

import network as net
from corpus import EXTRA_DATA_ENV, Corpus, extra_data_dir
from examples import Loader
from mixing import P_MUSIC, P_NARROW_TALKER, P_NOISE_ONLY, P_SECOND_NOISE

REPO = Path(__file__).resolve().parent.parent.parent
DEFAULT_DATA = REPO.parent / "shared" / "data"
# Mixture keys (seed, epoch, index) beyond any training epoch: the validation mixtures and the
# mixtures MU/SD are measured on.
VALIDATION_EPOCH = 1_000_000
NORMALISATION_EPOCH = 1_000_001
# Under-estimating a gain removes speech; it costs this much more than letting noise through.
ATTENUATION_WEIGHT = 1.0
SD_FLOOR = 0.1

# Per rate: epochs, mixtures per epoch. An epoch of 1280 ten-second mixtures is 3.6 h of audio;
# at 32 kHz it takes about 1.4 min on 2 cores (two data workers beside the training thread: making
# the mixtures and their features costs more than the network's step). Fifty epochs fit one
# working session per model (docs/training.md).
SCHEDULES = {8000: (50, 1280), 16000: (50, 1280), 32000: (50, 1280)}


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--rate", type=int, required=True, choices=sorted(net.GEOMETRIES))
    p.add_argument("--generation", default=net.nc.VERSION, choices=net.GENERATIONS,
                   help="model generation (network form) to train (default %(default)s)")
    p.add_argument("--state-dir", required=True,
                   help="checkpoints, history and caches (outside the work tree)")
    p.add_argument("--data", default=str(DEFAULT_DATA),
                   help="corpus root holding train/ (default %(default)s)")
    p.add_argument("--extra-data", help="output folder of ../shared/data/debian/fetch.sh, read beside "
                   "--data (default: $%s; none when unset)" % EXTRA_DATA_ENV)
    p.add_argument("--cache-dir", help="decoded corpus cache (default STATE_DIR/cache)")
    p.add_argument("--hidden", type=lambda s: [int(h) for h in s.split(",")],
                   help="hidden layer sizes, e.g. 192,192; for 0.0.6 and 0.0.7 input layer, GRU and output "
                   "layer, e.g. 96,96,96 (default by rate; network.py)")
    p.add_argument("--groups", type=int,
                   help="0.0.7: groups of the GRU and the output layer, dividing each width (default %d)"
                   % net.GROUPS_0_0_7)
    p.add_argument("--preview-frames", type=int,
                   help="past blocks the network sees beside the current one (default by rate)")
    p.add_argument("--init-from", help="model file (.vlw) whose network and MU/SD a new run starts from")
    p.add_argument("--epochs", type=int, help="length of the schedule (default by rate)")
    p.add_argument("--examples", type=int, help="mixtures per epoch (default by rate)")
    p.add_argument("--batch", type=int, default=16, help="mixtures per batch")
    p.add_argument("--seconds", type=float, default=10.0, help="mixture length")
    p.add_argument("--noise-only-share", type=float, default=P_NOISE_ONLY,
                   help="share of mixtures without speech")
    p.add_argument("--narrow-talker-share", type=float, default=P_NARROW_TALKER,
                   help="share of full-band talkers cut to a narrow band under wider noise")
    p.add_argument("--speed-perturbation", type=float, default=0.0,
                   help="speech resampled by a factor drawn from 1 +- this (more voices)")
    p.add_argument("--noise-variation", type=float, default=0.0,
                   help="share of noise recordings played at another speed and coloured (more noises)")
    p.add_argument("--second-noise-share", type=float, default=P_SECOND_NOISE,
                   help="share of mixtures with a second noise recording under the first")
    p.add_argument("--music-share", type=float, default=P_MUSIC,
                   help="share of noise draws that are music, when the corpus has music")
    p.add_argument("--clipping", type=float, default=0.0,
                   help="share of inputs driven past full scale and clipped")
    p.add_argument("--codec", type=float, default=0.0,
                   help="share of inputs coloured as by a low-bitrate codec")
    p.add_argument("--chunk", type=float, default=2.5, help="seconds per truncated-BPTT step")
    p.add_argument("--lr", type=float, default=1e-3)
    p.add_argument("--attenuation-weight", type=float, default=ATTENUATION_WEIGHT,
                   help="extra weight of the loss where the gain falls short of its target")
    p.add_argument("--energy-weight", type=float, default=0.0,
                   help="share of each band's loss weight that follows its input energy (0: all alike)")
    p.add_argument("--seed", type=int, default=20260101)
    p.add_argument("--validation", type=int, default=64, help="validation mixtures")
    p.add_argument("--normalisation", type=int, default=128, help="mixtures MU/SD are measured on")
    p.add_argument("--workers", type=int, default=2, help="data worker processes")
    p.add_argument("--threads", type=int, default=1, help="torch threads")
    p.add_argument("--recurrence-limit", type=float, default=net.RECURRENCE_LIMIT,
                   help="bound on the first layer's state columns (0: none; see network.py); 0.0.5 only, "
                   "a 0.0.6 state is bounded by its form")
    p.add_argument("--checkpoint-minutes", type=float, default=5.0)
    p.add_argument("--until-epoch", type=int,
                   help="stop once this many epochs are done, keeping the schedule's learning-rate curve")
    p.add_argument("--stop-after", type=int, help="stop after this many batches (smoke runs)")
    args = p.parse_args(argv)
    if args.generation != net.nc.VERSION:
        if args.hidden and len(args.hidden) != 3:
            p.error("a %s network takes three --hidden widths: input layer, GRU, output layer" % args.generation)
        if args.init_from:
            p.error("--init-from reads 0.0.5 model files only")
    if args.groups and args.generation != net.nc7.VERSION:
        p.error("--groups applies to 0.0.7 networks only")
    epochs, examples = SCHEDULES[args.rate]
    args.epochs = args.epochs or epochs
    args.examples = args.examples or examples
    args.cache_dir = args.cache_dir or os.path.join(args.state_dir, "cache")
    args.extra_data = extra_data_dir(args.extra_data)
    return args


# Settings that must not change when a run is resumed.
FIXED = ("rate", "generation", "hidden", "groups", "preview_frames", "noise_only_share", "batch", "seconds", "chunk",
         "seed", "examples", "validation", "normalisation")
FIXED_BEFORE = {"generation": net.nc.VERSION, "hidden": None, "groups": None, "preview_frames": None,
                "noise_only_share": P_NOISE_ONLY}


def loss_terms(gains, target, valid, energy, attenuation_weight, energy_weight):
    """Squared error of the compressed gains, plus the squared shortfall where the gain is below
    its target (speech attenuation) weighted again; means over the counted bands, each band
    weighted 1 - energy_weight + energy_weight * (its relative compressed energy)."""
    v = valid.to(gains.dtype) * (1.0 - energy_weight + energy_weight * energy)
    count = v.sum().clamp(min=1.0)
    squared = ((gains - target) ** 2 * v).sum() / count
    shortfall = (torch.clamp(target - gains, min=0.0) ** 2 * v).sum() / count
    return squared + attenuation_weight * shortfall, squared, shortfall


def learning_rate(args, step, total):
    warmup = 100
    progress = min(step / max(total, 1), 1.0)
    # Cosine from the full rate down to 5 % of it over the schedule.
    return args.lr * min(1.0, (step + 1) / warmup) * (0.05 + 0.95 * 0.5 * (1 + math.cos(math.pi * progress)))


def save(path, payload):
    temp = "%s.tmp" % path
    torch.save(payload, temp)
    os.replace(temp, path)


def tensors(batch, device):
    return {k: torch.from_numpy(np.ascontiguousarray(v)).to(device) for k, v in batch.items()}


def shares(args):
    return {"noise_only": args.noise_only_share, "narrow_talker": args.narrow_talker_share,
            "speed": args.speed_perturbation, "noise_variation": args.noise_variation,
            "second_noise": args.second_noise_share, "music": args.music_share,
            "clipping": args.clipping, "codec": args.codec}


def evaluate(model, batches, args):
    sums = np.zeros(3)
    weight = 0.0
    with torch.no_grad():
        for b in batches:
            gains, _ = model(b["inputs"], b["analysed"])
            n = float(b["valid"].sum())
            terms = loss_terms(gains, b["target"], b["valid"], b["energy"], args.attenuation_weight,
                               args.energy_weight)
            sums += n * np.array([float(x) for x in terms])
            weight += n
    return sums / max(weight, 1.0)


def normalisation(args, geometry, corpus_folder):
    loader = Loader(args.workers, geometry, np.zeros(1, np.float32), np.ones(1, np.float32),
                    corpus_folder, args.seconds, args.seed, shares(args))
    try:
        log_bands = loader.log_bands([(NORMALISATION_EPOCH, i) for i in range(args.normalisation)])
    finally:
        loader.close()
    sd = np.maximum(log_bands.std(axis=0), SD_FLOOR)
    return log_bands.mean(axis=0).astype(np.float32), sd.astype(np.float32)


def main(argv=None):
    args = parse_args(argv)
    torch.set_num_threads(args.threads)
    device = torch.device("cuda" if torch.cuda.is_available() else "cpu")
    geometry = net.geometry_of(vars(args))
    # Only the 0.0.5 state can run away (network.py); a 0.0.6 one is bounded by its form.
    bound_recurrence = args.recurrence_limit > 0 and geometry.generation == net.nc.VERSION
    state_dir = Path(args.state_dir)
    state_dir.mkdir(parents=True, exist_ok=True)
    checkpoint_path = state_dir / "checkpoint.pt"

    # Decoded once here, then memory-mapped by every data worker.
    corpus_folder = Corpus.load_or_build(args.data, "train", args.rate, args.cache_dir, max(args.workers, 1),
                                         args.extra_data).folder

    torch.manual_seed(args.seed)
    model = net.new_network(geometry).to(device)
    optimizer = torch.optim.Adam(model.parameters(), lr=args.lr)
    if checkpoint_path.exists():
        ck = torch.load(checkpoint_path, map_location=device)
        for name in FIXED:
            # Runs from before a setting existed had its default.
            if ck["args"].get(name, FIXED_BEFORE.get(name)) != getattr(args, name):
                sys.exit("%s is %r in the checkpoint, %r on the command line"
                         % (name, ck["args"].get(name, FIXED_BEFORE.get(name)), getattr(args, name)))
        model.load_state_dict(ck["network"])
        optimizer.load_state_dict(ck["optimizer"])
        torch.set_rng_state(ck["torch_rng"])
        mu, sd = ck["mu"], ck["sd"]
        epoch, position, step, running = ck["epoch"], ck["position"], ck["step"], ck["running"]
        history = ck["history"]
        print("resumed at epoch %d, batch %d, step %d" % (epoch, position, step), flush=True)
    elif args.init_from:
        # A continuation on other data keeps the network's input scaling: new MU/SD would move
        # every feature under weights trained for the old ones.
        records = net.sw.read_file(args.init_from, None)
        if records["SampleRate"].value != args.rate:
            sys.exit("%s is a %d Hz model, not %d Hz" % (args.init_from, records["SampleRate"].value, args.rate))
        net.load_records(model, records)
        if bound_recurrence:
            model.bound_recurrence(args.recurrence_limit)
        mu, sd = (np.asarray(records[k].value, np.float32) for k in ("MU", "SD"))
        print("starting from %s" % args.init_from, flush=True)
        epoch, position, step, running, history = 0, 0, 0, [0.0, 0.0], []
    else:
        print("measuring MU/SD on %d mixtures" % args.normalisation, flush=True)
        mu, sd = normalisation(args, geometry, corpus_folder)
        epoch, position, step, running, history = 0, 0, 0, [0.0, 0.0], []

    batches_per_epoch = math.ceil(args.examples / args.batch)
    total_steps = args.epochs * batches_per_epoch * math.ceil(args.seconds / args.chunk)
    chunk = int(round(args.chunk * 100))

    def checkpoint(path):
        save(path, {"args": vars(args), "network": model.state_dict(), "optimizer": optimizer.state_dict(),
                    "torch_rng": torch.get_rng_state(), "mu": mu, "sd": sd, "epoch": epoch,
                    "position": position, "step": step, "running": running, "history": history})

    loader = Loader(args.workers, geometry, mu, sd, corpus_folder, args.seconds, args.seed,
                    shares(args))
    try:
        validation = [tensors(b, device) for b in
                      loader.batches([(VALIDATION_EPOCH, i) for i in range(args.validation)], args.batch)]
        last_save = time.time()
        done = 0
        last = min(args.epochs, args.until_epoch or args.epochs)
        while epoch < last:
            started = time.time()
            keys = [(epoch, i) for i in range(args.examples)][position * args.batch:]
            for batch in loader.batches(keys, args.batch):
                b = tensors(batch, device)
                state = None
                for first in range(0, b["inputs"].shape[1], chunk):
                    part = slice(first, first + chunk)
                    gains, state = model(b["inputs"][:, part], b["analysed"][:, part], state)
                    loss, _, _ = loss_terms(gains, b["target"][:, part], b["valid"][:, part],
                                            b["energy"][:, part], args.attenuation_weight,
                                            args.energy_weight)
                    for group in optimizer.param_groups:
                        group["lr"] = learning_rate(args, step, total_steps)
                    optimizer.zero_grad()
                    loss.backward()
                    norm = torch.nn.utils.clip_grad_norm_(model.parameters(), 1.0)
                    if not (torch.isfinite(loss) and torch.isfinite(norm)):
                        # Stop before the damage reaches a checkpoint; the last one stays usable.
                        raise FloatingPointError("loss %s, gradient norm %s at epoch %d, batch %d, step %d"
                                                 % (float(loss), float(norm), epoch, position, step))
                    optimizer.step()
                    if bound_recurrence:
                        model.bound_recurrence(args.recurrence_limit)
                    state = state.detach()
                    step += 1
                    weight = float(b["valid"][:, part].sum())
                    running = [running[0] + float(loss) * weight, running[1] + weight]
                position += 1
                done += 1
                if time.time() - last_save > 60 * args.checkpoint_minutes:
                    checkpoint(checkpoint_path)
                    last_save = time.time()
                if args.stop_after and done >= args.stop_after:
                    checkpoint(checkpoint_path)
                    print("stopped after %d batches at epoch %d, batch %d" % (done, epoch, position),
                          flush=True)
                    return 0
            val = evaluate(model, validation, args)
            record = {"epoch": epoch + 1, "step": step, "train_loss": running[0] / max(running[1], 1.0),
                      "val_loss": val[0], "val_squared": val[1], "val_shortfall": val[2],
                      "lr": learning_rate(args, step, total_steps), "minutes": (time.time() - started) / 60,
                      "time": time.strftime("%Y-%m-%dT%H:%M:%S")}
            print(json.dumps(record), flush=True)
            history.append(record)
            epoch, position, running = epoch + 1, 0, [0.0, 0.0]
            checkpoint(state_dir / ("epoch-%03d.pt" % epoch))
            checkpoint(checkpoint_path)
            # Rewritten from the checkpoint's copy, so a resumed run never logs an epoch twice.
            with open(state_dir / "history.jsonl.tmp", "w", encoding="utf-8") as log:
                log.writelines(json.dumps(r) + "\n" for r in history)
            os.replace(state_dir / "history.jsonl.tmp", state_dir / "history.jsonl")
            last_save = time.time()
        print("schedule complete: %d epochs" % args.epochs if last == args.epochs
              else "stopped at epoch %d of %d" % (last, args.epochs), flush=True)
        return 0
    finally:
        loader.close()


if __name__ == "__main__":
    sys.exit(main())
