#!/usr/bin/python3
"""Writes a parity case for the C++ ringtone detector: a random model, a test signal and the
NumPy reference's probabilities for it.

    make_ringtone_parity_case.py OUTDIR --seed S --rate R [--input-layers 1|2]

OUTDIR/model.vlw is a random, numerically tame ringtone detector (one or two input layers of 32,
a GRU of 24, output layers 24 -> 12 -> 1); OUTDIR/input.f32 is a few seconds at R Hz in the
16-bit range: noise, digital silence, a dual tone with a ring cadence over noise, a clipped tone,
a tone stepping through levels and a near-silent stretch; OUTDIR/expected.f32 is the reference's
probability for every 10 ms hop. Both are raw little-endian float32.
"""

import argparse
import os
import sys

import numpy as np

import make_v0_0_6_parity_case as cleaner_case
import ringtone_v0_0_1 as ring

sw = ring.sw
F32 = np.float32

SECONDS = 5.0
INPUT_WIDTH = 32
HIDDEN = 24
OUTPUT_WIDTHS = (12, 1)
# Columns that read the recurrent state are kept small, so the state update contracts and a
# rounding difference between the implementations dies out instead of growing.
# Logits of the output over the signal: centred with this spread, so the probabilities cover most
# of (0, 1) without saturating.
LOGIT_SPREAD = 1.5
SD_FLOOR = 0.1


def test_signal(rate, rng):
    hop = ring.hop_length(rate)
    count = int(SECONDS * rate) // hop * hop
    t = np.arange(count) / rate
    noise = rng.standard_normal(count)
    x = np.zeros(count)

    def span(start, stop):
        return (t >= start) & (t < stop)

    x += np.where(span(0.0, 0.6), 300.0 * noise, 0.0)
    # 0.6 ... 1.0 s: digital silence.
    ringing = span(1.0, 2.6) & ((t - 1.0) % 0.6 < 0.4)   # 0.4 s on, 0.2 s off
    dual = np.sin(2 * np.pi * 440.0 * t) + np.sin(2 * np.pi * 480.0 * t)
    x += np.where(ringing, 6000.0 * dual, 0.0) + np.where(span(1.0, 2.6), 100.0 * noise, 0.0)
    clipped = np.clip(60000.0 * np.sin(2 * np.pi * 1400.0 * t) + 2000.0 * noise, -32767.0, 32767.0)
    x = np.where(span(2.6, 3.2), clipped, x)
    # Level steps of a tone over noise, from below the noise to 36 dB above it. The single-precision
    # transform's error in a bin grows with the loudest component of the frame, so a tone far
    # above the noise under it moves the weak bins' log powers by more: at 56 dB it moved a
    # probability by up to 1.2e-4, at 36 dB by a tenth of that.
    for k, amplitude in enumerate((50.0, 2000.0, 20000.0)):
        start = 3.2 + 0.4 * k
        x += np.where(span(start, start + 0.4), amplitude * np.sin(2 * np.pi * 950.0 * t) + 300.0 * noise, 0.0)
    x += np.where(span(4.4, SECONDS), 5.0 * noise, 0.0)
    return np.clip(x, -32767.0, 32767.0).astype(F32)


def records_for(mu, sd, network, seed):
    return ring.model_records(mu, sd, name="ringtone-parity-%d" % seed, timestamp="20260101T000000", **network)


def write_case(outdir, seed, rate, input_layers):
    rng = np.random.default_rng(seed)
    signal = test_signal(rate, rng)
    network = cleaner_case.random_network(rng, ring.FEATURES, INPUT_WIDTH, input_layers, HIDDEN, OUTPUT_WIDTHS)
    features = ring.stream_features(signal, rate)
    mu = features.mean(axis=0).astype(F32)
    sd = (features.std(axis=0) + SD_FLOOR).astype(F32)

    # Scale and shift the logistic layer so its logits over the signal have the wanted spread.
    p = ring.detect(ring.Model(records_for(mu, sd, network, seed)), signal, rate).astype(np.float64)
    p = np.clip(p, 1e-6, 1 - 1e-6)
    logits = np.log(p / (1 - p))
    scale = LOGIT_SPREAD / (logits.std() + 1e-9)
    network["out_ws"][-1] = (network["out_ws"][-1] * scale).astype(F32)
    network["out_bs"][-1] = ((network["out_bs"][-1] - logits.mean()) * scale).astype(F32)

    os.makedirs(outdir, exist_ok=True)
    path = os.path.join(outdir, "model.vlw")
    sw.WeightWriter(records_for(mu, sd, network, seed)).write_file(path)
    signal.astype("<f4").tofile(os.path.join(outdir, "input.f32"))
    # The expected output comes from the file as written, so it is what the library will load.
    ring.detect(ring.Model.load(path), signal, rate).astype("<f4").tofile(os.path.join(outdir, "expected.f32"))


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write a ringtone detector parity case (model, input, expected).")
    parser.add_argument("outdir")
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--rate", type=int, required=True)
    parser.add_argument("--input-layers", type=int, default=1, choices=(1, 2))
    args = parser.parse_args(argv)
    write_case(args.outdir, args.seed, args.rate, args.input_layers)
    return 0


if __name__ == "__main__":
    sys.exit(main())
