#!/usr/bin/python3
"""Writes a parity case for the C++ v0.0.6 or v0.0.7 cleaner: a random model, a test signal and
the NumPy reference's output for it.

    make_v0_0_6_parity_case.py OUTDIR --rate R --seed S [--input-layers 1|2] [--defaults]
                               [--generation 0.0.7|0.0.7-vad]

OUTDIR/model.vlw is a random, numerically tame v0.0.6 cleaner (the v0.0.5 parity case's geometry:
compress rate 2, two past frames of context, a top band cut short; input layers of 32, a GRU of
24, a normalised output layer of 16 and the band layer; the energy gate on, so the silent stretch
freezes blocks and the state must wait across them). OUTDIR/input.f32 is the v0.0.5 parity case's
signal (make_parity_case.py) and OUTDIR/expected.f32 the reference output for it fed in 10 ms
frames; both raw little-endian float32 at the model rate. Without --defaults the model also
switches on, under the v0.0.6 names, every post-processing step the reference has.

A 0.0.7 case is the same with the 0.0.7 filter records and keys and the separable-dense network:
the GRU and the normalised output layer in GROUPS groups (the band layer and the input layers
whole). The 0.0.7 cleaner reads no post-processing switch; without --defaults the model carries
them under the 0.0.7 names all the same, and both sides must leave them unread.

A 0.0.7-vad case is the 0.0.7 case's cleaner with its shared network names prefixed "Nc" and a
random voice detector beside it (nc_v0_0_7_vad.py), calibrated so that it passes about half of
the signal's hops and no logit lies near the decision; the expected output is the gated one.
"""

import argparse
import os
import sys

import numpy as np

import make_parity_case as case
import nc_v0_0_6 as nc6
import nc_v0_0_7 as nc7
import nc_v0_0_7_vad as nc7vad

nc = nc6.nc
sw = nc.sw
F32 = np.float32

INPUT_WIDTH = 32
HIDDEN = 24
OUTPUT_WIDTH = 16
# Groups of the 0.0.7 case's GRU and output layer.
GROUPS = 2
# Energy gate (mean square, 16-bit units): the training geometry's, digital silence and dither.
FREEZE_LOW, FREEZE_HIGH = 1.0, 4.0
# Columns that read the recurrent state are kept small so the state update contracts and a
# rounding difference between implementations dies out instead of growing.
STATE_WEIGHT_SCALE = 0.4
# Band logits over the test signal: this spread around a mean drawn from LOGIT_MEAN_RANGE, as in
# the v0.0.5 case, so gains cover (0, 1) and the volume increase reaches the clip-fix point.
LOGIT_SPREAD = 1.5
LOGIT_MEAN_RANGE = (0.0, 2.0)
SD_FLOOR = 0.1
# The gated case's detector: context frames, and the spread of its logits over the test signal,
# whose hops it splits into speech and not; no logit comes closer to the 0.5 decision than the
# margin, so rounding differences between implementations cannot flip one.
GATED = "0.0.7-vad"
VAD_PREVIEW = 3
VAD_LOGIT_SPREAD = 4.0
VAD_MARGIN = 0.01


def front_end_records(rate, controls, gen=nc6):
    """The front-end records and the controls under the generation's names."""
    hop = rate // 100
    bins = hop + 1
    begin, end = case.unaligned_filter_range(bins, case.COMPRESS_RATE)
    bands = nc.BandLayout(bins, begin, end, case.COMPRESS_RATE).count
    begin_name, end_name, past_last = gen.Model.FILTER_RECORDS
    R = sw.Record
    records = {
        "Version": R(sw.STRING, gen.VERSION),
        "SampleRate": R(sw.UINT, rate),
        "FrameLength": R(sw.UINT, 2 * hop),
        "Step": R(sw.UINT, hop),
        begin_name: R(sw.UINT, begin),
        end_name: R(sw.UINT, end + int(past_last)),
        "PreviewFrames": R(sw.UINT, case.PREVIEW_FRAMES),
        "CoefficientNumber": R(sw.UINT, bands),
        "FreezeLowEnThr": R(sw.FLOAT, FREEZE_LOW),
        "FreezeHighEnThr": R(sw.FLOAT, FREEZE_HIGH),
        "LogPowerEpsilon": R(sw.FLOAT, case.LOG_POWER_EPSILON),
        "ModelName": R(sw.STRING, "parity-v%s-%d" % (gen.VERSION, rate)),
        "TimeStamp": R(sw.STRING, "20260101T000000"),
    }
    records.update(case.control_records(dict(controls, COMPRESS_RATE=(sw.UINT, case.COMPRESS_RATE)), gen.KEYS))
    return records, (case.PREVIEW_FRAMES + 1) * bands, bands


def random_network(rng, features, input_width, input_layers, hidden, out_widths, groups=1):
    """Records of a random layer-normalised network (as layer_norm_gru.records takes them):
    `input_layers` layers of `input_width`, a GRU of `hidden`, then layers of `out_widths`, all but
    the last normalised; with groups > 1 the GRU and the first output layer are grouped."""
    def dense(rows, columns, state_columns=0):
        w = rng.standard_normal((rows, columns))
        w[:, columns - state_columns:] *= STATE_WEIGHT_SCALE / np.sqrt(max(state_columns, 1))
        w[:, :columns - state_columns] /= np.sqrt(columns - state_columns)
        return w.astype(F32)

    def small(n):
        return (0.1 * rng.standard_normal(n)).astype(F32)

    def gains(n):
        return (1.0 + 0.1 * rng.standard_normal(n)).astype(F32)

    widths = [features] + [input_width] * input_layers
    outs = [hidden] + list(out_widths)
    return dict(
        in_ws=[dense(widths[k + 1], widths[k]) for k in range(input_layers)],
        in_bs=[small(w) for w in widths[1:]], in_gains=[gains(w) for w in widths[1:]],
        in_betas=[small(w) for w in widths[1:]],
        gru_w=dense(2 * hidden, (input_width + hidden) // groups, hidden // groups), gru_b=small(3 * hidden),
        reset_w=dense(hidden, (input_width + hidden) // groups, hidden // groups), reset_b=small(hidden),
        out_ws=[dense(outs[k + 1], outs[k] // (groups if k == 0 else 1)) for k in range(len(out_widths))],
        out_bs=[small(w) for w in outs[1:]], out_gains=[gains(w) for w in outs[1:-1]],
        out_betas=[small(w) for w in outs[1:-1]])


def records_for(front, network, mu, sd):
    return dict(front, **nc6.lngru.records(mu, sd, **network))


def band_logits(records, signal, gen=nc6):
    """The band layer's logits for every analysed block of a fresh stream."""
    model = gen.Model(records)
    feats = nc.FrontEnd(model).signal_features(signal)
    network = model.new_network()
    gains = np.stack([network.step(f) for f in feats.inputs[feats.analysed]]).astype(np.float64)
    gains = np.clip(gains, 1e-6, 1 - 1e-6)
    return np.log(gains / (1 - gains)), feats


def write_case(outdir, rate, seed, input_layers=1, controls=case.EXERCISE_ALL, gen=nc6):
    rng = np.random.default_rng(seed)
    signal = case.test_signal(rate, rng)
    front, features, bands = front_end_records(rate, controls, gen)
    gated = gen is nc7vad
    gen = nc7 if gated else gen  # the cleaner of a gated case is a v0.0.7 cleaner
    network = random_network(rng, features, INPUT_WIDTH, input_layers, HIDDEN, (OUTPUT_WIDTH, bands),
                             GROUPS if gen is nc7 else 1)

    # MU/SD: one value per network input, from the context of the signal's analysed blocks.
    ones = records_for(front, network, np.zeros(features, F32), np.ones(features, F32))
    _, feats = band_logits(ones, signal, gen)
    context = feats.inputs[feats.analysed]
    mu = context.mean(axis=0).astype(F32)
    sd = (context.std(axis=0) + SD_FLOOR).astype(F32)

    # Scale and shift each band's logit so the gains over the signal spread over (0, 1).
    logits, _ = band_logits(records_for(front, network, mu, sd), signal, gen)
    scale = LOGIT_SPREAD / (logits.std(axis=0) + 1e-6)
    offset = rng.uniform(*LOGIT_MEAN_RANGE, bands)
    network["out_ws"][-1] = (network["out_ws"][-1] * scale[:, None]).astype(F32)
    network["out_bs"][-1] = ((network["out_bs"][-1] - logits.mean(axis=0)) * scale + offset).astype(F32)

    records = records_for(front, network, mu, sd)
    if gated:
        records = nc7vad.gated_records(records, detector_records(rate, signal, rng, controls))
        gen = nc7vad
    os.makedirs(outdir, exist_ok=True)
    path = os.path.join(outdir, "model.vlw")
    sw.WeightWriter(records).write_file(path)
    signal.astype("<f4").tofile(os.path.join(outdir, "input.f32"))
    # The expected output comes from the file as written, so it is what the library will load.
    gen.clean(gen.Model.load(path), signal).astype("<f4").tofile(os.path.join(outdir, "expected.f32"))


def detector_records(rate, signal, rng, controls):
    """A random voice detector's records for a gated v0.0.7 file: the cleaner's geometry (20 ms
    frames, 10 ms hops) at the cleaner's rate, bins 2 to Nyquist (a top band cut short); with
    `controls` the compress rate 2 and the epsilon 0.01 written, else the defaults 3 and 0.001.
    Its output is calibrated on `signal` to pass about half the hops, none near the decision."""
    hop, R = rate // 100, sw.Record
    compress = 2 if controls else nc7vad.DEFAULT_COMPRESS_RATE
    bands = nc.BandLayout(hop + 1, 2, hop, compress).count
    records = {
        "VadVersion": R(sw.STRING, "0.0.1"), "VadSampleRate": R(sw.UINT, rate), "VadFrameLength": R(sw.UINT, 2 * hop),
        "VadStep": R(sw.UINT, hop), "VadFiltrBegin": R(sw.UINT, 2), "VadFiltrEnd": R(sw.UINT, hop + 1),
        "VadPreviewFrames": R(sw.UINT, VAD_PREVIEW), "VadCoefficientNumber": R(sw.UINT, bands)}
    if controls:
        records.update({"CONTROL_VELTA_COMPRESS_RATE_VAD": R(sw.UINT, compress), "VadLpsEps": R(sw.FLOAT, 0.01)})
    features = VAD_PREVIEW * bands
    network = random_network(rng, features, INPUT_WIDTH, 1, HIDDEN, (OUTPUT_WIDTH, 1))

    def run(mu, sd):
        """The detector's contexts and logits over the signal's hops."""
        detector = nc7vad.Detector(dict(records, **nc6.lngru.records(mu, sd, **network, names=nc7vad.DETECTOR_NAMES)))
        stream = nc7vad.DetectorStream(detector)
        contexts, logits = [], []
        for frame in nc7vad.detector_frames(detector, signal):
            p = np.clip(float(stream.probability(frame)), 1e-9, 1 - 1e-9)
            contexts.append(stream.context.ravel().copy())
            logits.append(np.log(p / (1 - p)))
        return np.array(contexts), np.array(logits)

    contexts, _ = run(np.zeros(features, F32), np.ones(features, F32))
    mu, sd = contexts.mean(axis=0).astype(F32), (contexts.std(axis=0) + SD_FLOOR).astype(F32)
    _, logits = run(mu, sd)
    scale = VAD_LOGIT_SPREAD / (logits.std() + 1e-6)
    centred = (logits - np.median(logits)) * scale
    offsets = np.linspace(-1.0, 1.0, 401)
    offset = offsets[np.argmax([np.abs(centred + o).min() for o in offsets])]
    if np.abs(centred + offset).min() < VAD_MARGIN:
        raise ValueError("no detector offset keeps the logits %g from the decision" % VAD_MARGIN)
    network["out_ws"][-1] = (network["out_ws"][-1] * scale).astype(F32)
    network["out_bs"][-1] = ((network["out_bs"][-1] - np.median(logits)) * scale + offset).astype(F32)
    records.update(nc6.lngru.records(mu, sd, **network, names=nc7vad.DETECTOR_NAMES))
    return records


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write a v0.0.6 or v0.0.7 cleaner parity case (model, input, expected output).")
    parser.add_argument("outdir")
    parser.add_argument("--rate", type=int, required=True, choices=(8000, 16000, 24000, 32000))
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--input-layers", type=int, default=1, choices=(1, 2))
    parser.add_argument("--defaults", action="store_true",
                        help="leave every post-processing switch at its default")
    parser.add_argument("--generation", default=nc6.VERSION, choices=(nc6.VERSION, nc7.VERSION, GATED))
    args = parser.parse_args(argv)
    write_case(args.outdir, args.rate, args.seed, args.input_layers, {} if args.defaults else case.EXERCISE_ALL,
               {nc7.VERSION: nc7, GATED: nc7vad}.get(args.generation, nc6))
    return 0


if __name__ == "__main__":
    sys.exit(main())
