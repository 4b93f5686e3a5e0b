#!/usr/bin/python3
"""Writes a parity case for the C++ VAD_0.0.1 detector: a random model, a test signal and the
NumPy reference's probabilities for it.

    make_vad_parity_case.py OUTDIR --seed S [--layers 2|3] [--thresholds] [--state-reset]

OUTDIR/model.vlw is a random, numerically tame detector at 8 kHz with the shipped layout
(240-sample frames, 61 bands, four frames of context, a 94-value state) and two or three layers;
OUTDIR/input.f32 is a few seconds of a voiced tone and noise at 16-bit level with level steps,
stretches of digital silence, a passage below the level tracker's floor and loud, clipped
passages; OUTDIR/expected.f32 is the reference's output for it, one value per 10 ms block. Both
are raw little-endian float32.

Without --thresholds the model has no calibration records and its raw output is centred in
(0, 1), so the C interface passes it on. With --thresholds the raw output is spread wider and
Test_MINMAX / Test_BestF1 are set inside its range, so the calibration's clamps are used at both
ends. --state-reset switches the watchdog on through the weight's control record; the model is
otherwise the one the same seed gives without it. The signal lasts past block 601, so a detector
stuck at "no speech" is reset at least twice.
"""

import argparse
import os
import sys

import numpy as np

import vad_v0_0_1 as vad

sw = vad.sw
F32 = np.float32

RATE = 8000
FRAME_LENGTH = 240
SECONDS = 7.0
HIDDEN = 32  # width of the second hidden layer of a three-layer model
# Columns that read the recurrent state are kept small, so the state update contracts and a
# rounding difference between the implementations dies out instead of growing; they are still
# large enough for a reset of the state to change the output visibly.
STATE_WEIGHT_SCALE = 0.4
# Raw output over the test signal: without thresholds centred on 0.5 with a spread that keeps it
# inside (0, 1); with thresholds a logit-like spread that the calibration maps.
RAW_CENTRE, RAW_SPREAD = 0.5, 0.12
LOGIT_SPREAD = 2.0
# Calibration points as percentiles of the raw output: a few percent of the blocks fall below the
# minimum or above the maximum and are clamped.
THRESHOLD_PERCENTILES = (3.0, 45.0, 97.0)
SD_FLOOR = 0.1

# (start s, tone amplitude, noise rms) of each level step; amplitude 0 is digital silence. The
# 3.0 s step has a mean square below the level tracker's floor (10000), so it must not move the
# level; the 2.2 s and 4.9 s steps are loud enough to be taken at once, the latter clipped.
LEVEL_STEPS = [(0.0, 300.0, 30.0), (0.8, 2500.0, 400.0), (1.6037, 0.0, 0.0), (2.2, 12000.0, 500.0),
               (3.0, 60.0, 5.0), (3.8, 6000.0, 2000.0), (4.6, 0.0, 0.0), (4.9, 40000.0, 3000.0),
               (5.7, 800.0, 100.0), (6.4, 3000.0, 50.0)]


def test_signal(rng):
    block = RATE // 100
    count = int(SECONDS * RATE) // block * block
    t = np.arange(count) / RATE
    f0 = 140.0 + 40.0 * np.sin(2 * np.pi * 0.7 * t)
    phase = 2 * np.pi * np.cumsum(f0) / RATE
    voice = sum(np.sin(k * phase) / k for k in range(1, 12))
    # Syllable-rate envelope, so the detector's input changes from block to block.
    envelope = 0.35 + 0.65 * np.abs(np.sin(2 * np.pi * 2.5 * t))
    tone = envelope * voice / np.abs(voice).max()
    noise = rng.standard_normal(count)
    amplitude, noise_rms = np.zeros(count), np.zeros(count)
    for start, a, r in LEVEL_STEPS:
        first = int(start * RATE)
        amplitude[first:], noise_rms[first:] = a, r
    return np.clip(amplitude * tone + noise_rms * noise, -32767, 32767).astype(F32)


def random_network(rng, layers):
    """Gate, rectified and linear paths with unit-variance activations for unit-variance inputs;
    the output layer is a placeholder until `calibrate`."""
    features = len(vad.merge_groups(FRAME_LENGTH // 2 + 1))
    inputs = vad.CONTEXT_FRAMES * features

    def dense(rows, columns, state_columns=0):
        w = rng.standard_normal((rows, columns))
        w[:, :state_columns] *= STATE_WEIGHT_SCALE / np.sqrt(max(state_columns, 1))
        w[:, state_columns:] /= np.sqrt(columns - state_columns)
        return w.astype(F32)

    def bias(rows):
        return (0.1 * rng.standard_normal(rows)).astype(F32)

    first = dict(rows=vad.STATE_SIZE, columns=vad.STATE_SIZE + inputs, state_columns=vad.STATE_SIZE)
    widths = [vad.STATE_SIZE] + [HIDDEN] * (layers - 2)
    nonlinear_w, linear_w = [dense(**first)], [dense(**first)]
    for k in range(1, layers - 1):
        nonlinear_w.append(dense(widths[k], widths[k - 1]))
        linear_w.append(dense(widths[k], widths[k - 1]))
    return dict(gate_w=dense(**first), gate_b=bias(vad.STATE_SIZE),
                nonlinear_ws=nonlinear_w, nonlinear_bs=[bias(w) for w in widths],
                linear_ws=linear_w + [dense(1, widths[-1])], linear_bs=[bias(w) for w in widths] + [bias(1)])


def calibrate(network, signal, rng, with_thresholds):
    """MU and SD (a variance) from the signal's features; then the output row scaled and shifted
    so the raw output over the signal has the wanted centre and spread; then the thresholds."""
    features = vad.stream_features(signal, RATE, FRAME_LENGTH)
    mu = features.mean(axis=0).astype(F32)
    sd = (features.var(axis=0) + SD_FLOOR).astype(F32)

    def raw_outputs(net):
        model = vad.Model(vad.model_records(RATE, FRAME_LENGTH, mu, sd, **net))
        detector = vad.Detector(model)
        return detector.stream(signal).astype(np.float64)

    raw = raw_outputs(network)
    centre, spread = (0.0, LOGIT_SPREAD) if with_thresholds else (RAW_CENTRE, RAW_SPREAD)
    scale = spread / (raw.std() + 1e-9)
    out_w, out_b = network["linear_ws"][-1], network["linear_bs"][-1]
    network["linear_ws"][-1] = (out_w * scale).astype(F32)
    network["linear_bs"][-1] = ((out_b - raw.mean()) * scale + centre + 0.1 * spread * rng.uniform(-1, 1)).astype(F32)
    thresholds = None
    if with_thresholds:
        thresholds = tuple(np.percentile(raw_outputs(network), THRESHOLD_PERCENTILES))
    return mu, sd, thresholds


def write_case(outdir, seed, layers, with_thresholds, state_reset):
    rng = np.random.default_rng(seed)
    signal = test_signal(rng)
    network = random_network(rng, layers)
    mu, sd, thresholds = calibrate(network, signal, rng, with_thresholds)
    records = vad.model_records(RATE, FRAME_LENGTH, mu, sd, thresholds=thresholds, state_reset=state_reset,
                                **network)
    records["ModelName"] = sw.Record(sw.STRING, "vad-parity-%d" % seed)
    records["TimeStamp"] = sw.Record(sw.STRING, "20260101T000000")
    os.makedirs(outdir, exist_ok=True)
    path = os.path.join(outdir, "model.vlw")
    sw.WeightWriter(records).write_file(path)
    signal.astype("<f4").tofile(os.path.join(outdir, "input.f32"))
    # The expected output comes from the file as written, so it is what the library will load.
    vad.Detector(vad.Model.load(path)).stream(signal).astype("<f4").tofile(os.path.join(outdir, "expected.f32"))


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write a VAD_0.0.1 parity case (model, input, expected output).")
    parser.add_argument("outdir")
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--layers", type=int, default=3, choices=(2, 3),
                        help="linear layers: one or two hidden layers and the output")
    parser.add_argument("--thresholds", action="store_true", help="add calibration thresholds")
    parser.add_argument("--state-reset", action="store_true", help="switch the watchdog on")
    args = parser.parse_args(argv)
    write_case(args.outdir, args.seed, args.layers, args.thresholds, args.state_reset)
    return 0


if __name__ == "__main__":
    sys.exit(main())
