#!/usr/bin/python3
"""Writes a parity case for the C++ v0.0.5 cleaner: a random model, a test signal and the NumPy
reference's output for it.

    make_parity_case.py OUTDIR --rate R --seed S [--hidden H] [--layers K] [--defaults]

OUTDIR/model.vlw is a random, numerically tame v0.0.5 model (compress rate 2, two past frames of
context, a filter range whose top band is cut short, gains spread over (0, 1)); OUTDIR/input.f32
is a few seconds of tones and noise at 16-bit level with level changes, a stretch of digital
silence and a passage louder than the clip-fix point; OUTDIR/expected.f32 is the reference
output for that input fed in 10 ms frames. Both are raw little-endian float32 at the model rate.
Without --defaults the model also switches on every post-processing step the reference has.
"""

import argparse
import os
import sys

import numpy as np

import nc_v0_0_5 as nc

sw = nc.sw
F32 = np.float32

COMPRESS_RATE = 2
PREVIEW_FRAMES = 2
LOG_POWER_EPSILON = 1e-2
SECONDS = 3.0
# Output logits over the test signal: standard deviation 1.5 around a mean drawn from 0 .. 2, so
# gains spread over (0, 1) (about 0.15 .. 0.97) and lean open enough for the volume increase to
# push blocks over the clip-fix point.
LOGIT_SPREAD = 1.5
LOGIT_MEAN_RANGE = (0.0, 2.0)
# Columns that read the recurrent state are kept small so the state update contracts and a
# rounding difference between implementations dies out instead of growing.
STATE_WEIGHT_SCALE = 0.2
CLIP_FIX_POINT = 9000.0

# Values that make every mask and output-block step change the samples.
EXERCISE_ALL = {
    "SMOOT_COEF": (sw.FLOAT, 0.7),
    "SMOOT_RM_MODIFY": (sw.STRING, "t"),
    "HIGH_FREQ_SMOOT": (sw.STRING, "t"),
    "ENABLE_CLIP_FIX": (sw.STRING, "t"),
    "CLIP_FIX_POINT": (sw.FLOAT, CLIP_FIX_POINT),
    "ENABLE_RM_THRESHOLD": (sw.STRING, "t"),
    "RM_THRESHOLD": (sw.FLOAT, 0.3),
    "ENABLE_RESCALE": (sw.STRING, "t"),
    "RESCALE_REF_AMPL": (sw.FLOAT, 2000.0),
    "VOLUME_UP": (sw.STRING, "t"),
    "VOLUME_UP_PERCENT": (sw.FLOAT, 190.0),
    "SKIP_FRAME": (sw.STRING, "t"),
}

# (start s, tone amplitude, noise rms) of each level step; amplitude 0 is digital silence. The
# 1.5 s step stays below the clip-fix point at the input and goes above it after the volume
# increase; the 2.2 s step is above it at the input, so the clip fix must leave it alone.
LEVEL_STEPS = [(0.0, 300.0, 30.0), (0.5, 2500.0, 400.0), (1.2037, 0.0, 0.0),
               (1.4981, 7500.0, 300.0), (2.2, 10000.0, 1000.0), (2.6, 1500.0, 150.0)]


def control_records(values, keys=nc.KEYS):
    return {keys.control(x): sw.Record(type_code, value) for x, (type_code, value) in values.items()}


def unaligned_filter_range(bins, compress_rate):
    """Bins 1 .. End with the top band cut short by End. n >> c stays even so that no other band
    straddles an octave edge (b*2, b*4, ...); those layouts are covered by the unit tests."""
    for end in range(bins - 2, 0, -1):
        n = end
        if (n >> compress_rate) % 2 == 0 and n % (1 << (compress_rate + 1)) != 0:
            return 1, end
    raise ValueError("no unaligned filter range in %d bins" % bins)


def test_signal(rate, rng):
    hop = rate // 100
    count = int(SECONDS * rate) // hop * hop
    t = np.arange(count) / rate
    f0 = 180.0 + 20.0 * np.sin(2 * np.pi * 3.0 * t)
    phase = 2 * np.pi * np.cumsum(f0) / rate
    voice = sum(np.sin(k * phase) / k for k in range(1, 6))
    sweep_top = 0.4 * rate
    chirp = np.sin(2 * np.pi * (100.0 * t + (sweep_top - 100.0) * t * t / (2 * SECONDS)))
    tone = 0.6 * voice / np.abs(voice).max() + 0.4 * chirp
    noise = rng.standard_normal(count)
    amplitude, noise_rms = np.zeros(count), np.zeros(count)
    for start, a, r in LEVEL_STEPS:
        first = int(start * rate)
        amplitude[first:], noise_rms[first:] = a, r
    return np.clip(amplitude * tone + noise_rms * noise, -32767, 32767).astype(F32)


def model_records(rate, rng, hidden=24, layers=2, filter_range=None, controls=EXERCISE_ALL):
    """Every record of a v0.0.5 model, in the order of the design page, with random weights;
    MU, SD and the output layer still need `calibrate`."""
    hop = rate // 100
    bins = hop + 1
    begin, end = filter_range or unaligned_filter_range(bins, COMPRESS_RATE)
    bands = nc.BandLayout(bins, begin, end, COMPRESS_RATE).count
    features = (PREVIEW_FRAMES + 1) * bands

    def dense(rows, columns, state_columns=0):
        w = rng.standard_normal((rows, columns))
        w[:, :state_columns] *= STATE_WEIGHT_SCALE / np.sqrt(max(state_columns, 1))
        w[:, state_columns:] /= np.sqrt(columns - state_columns)
        return w.astype(F32)

    def bias(rows):
        return (0.1 * rng.standard_normal(rows)).astype(F32)

    first = dict(rows=hidden, columns=hidden + features, state_columns=hidden)
    rect_w = [dense(**first)] + [dense(hidden, hidden) for _ in range(layers - 1)]
    lin_w = [dense(**first)] + [dense(hidden, hidden) for _ in range(layers - 1)]
    records = {
        "Version": sw.Record(sw.STRING, nc.VERSION),
        "SampleRate": sw.Record(sw.UINT, rate),
        "FrameLength": sw.Record(sw.UINT, 2 * hop),
        "Step": sw.Record(sw.UINT, hop),
        "FiltrBegin": sw.Record(sw.UINT, begin),
        "FiltrEnd": sw.Record(sw.UINT, end),
        "PreviewFrames": sw.Record(sw.UINT, PREVIEW_FRAMES),
        "CoefficientNumber": sw.Record(sw.UINT, bands),
        "FreezeLowEnThr": sw.Record(sw.FLOAT, 0.0),
        "FreezeHighEnThr": sw.Record(sw.FLOAT, 0.0),
        "MU": sw.Record(sw.VECTOR, np.zeros(1, F32)),
        "SD": sw.Record(sw.VECTOR, np.ones(1, F32)),
        "LogPowerEpsilon": sw.Record(sw.FLOAT, LOG_POWER_EPSILON),
        "ModelName": sw.Record(sw.STRING, "parity-%d" % rate),
        "TimeStamp": sw.Record(sw.STRING, "20260101T000000"),
        "WeightGRU": sw.Record(sw.MATRIX, dense(**first)),
        "BaesGRU": sw.Record(sw.VECTOR, bias(hidden)),
        "WeightNonLinear": sw.Record(sw.MATRIX_LIST, rect_w + [dense(bands, hidden)]),
        "BaesNonLinear": sw.Record(sw.VECTOR_LIST, [bias(hidden) for _ in range(layers)] + [bias(bands)]),
        "WeightLinear": sw.Record(sw.MATRIX_LIST, lin_w),
        "BaesLinear": sw.Record(sw.VECTOR_LIST, [bias(hidden) for _ in range(layers)]),
    }
    records.update(control_records(dict(controls, COMPRESS_RATE=(sw.UINT, COMPRESS_RATE))))
    return records


def calibrate(records, signal, rng):
    """MU/SD from the signal's band log powers (one entry per band, so the context reuses them
    modulo their length), then output rows scaled so the gains spread over (0, 1)."""
    front = nc.FrontEnd(nc.Model(records))
    log_bands = front.signal_features(signal).log_bands
    log_bands = log_bands[~np.isnan(log_bands[:, 0])]
    records["MU"] = sw.Record(sw.VECTOR, log_bands.mean(axis=0).astype(F32))
    records["SD"] = sw.Record(sw.VECTOR, (log_bands.std(axis=0) + 0.1).astype(F32))

    model = nc.Model(records)
    network = nc.Network(model)
    inputs = nc.FrontEnd(model).signal_features(signal).inputs
    logits = np.stack([network.hidden(f) for f in inputs]) @ model.rect_w[-1].T
    scale = LOGIT_SPREAD / (logits.std(axis=0) + 1e-6)
    offset = -logits.mean(axis=0) * scale + rng.uniform(*LOGIT_MEAN_RANGE, scale.size)
    out_w = list(model.rect_w)
    out_b = list(model.rect_b)
    out_w[-1] = (out_w[-1] * scale[:, None]).astype(F32)
    out_b[-1] = offset.astype(F32)
    records["WeightNonLinear"] = sw.Record(sw.MATRIX_LIST, out_w)
    records["BaesNonLinear"] = sw.Record(sw.VECTOR_LIST, out_b)
    return records


def write_case(outdir, rate, seed, hidden=24, layers=2, controls=EXERCISE_ALL):
    rng = np.random.default_rng(seed)
    signal = test_signal(rate, rng)
    records = calibrate(model_records(rate, rng, hidden, layers, controls=controls), signal, rng)
    os.makedirs(outdir, exist_ok=True)
    sw.WeightWriter(records).write_file(os.path.join(outdir, "model.vlw"))
    signal.astype("<f4").tofile(os.path.join(outdir, "input.f32"))
    # The expected output comes from the file as written, so it is what the library will load.
    model = nc.Model.load(os.path.join(outdir, "model.vlw"))
    nc.clean(model, signal).astype("<f4").tofile(os.path.join(outdir, "expected.f32"))


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write a v0.0.5 parity case (model, input, expected output).")
    parser.add_argument("outdir")
    parser.add_argument("--rate", type=int, required=True, choices=(8000, 16000, 24000, 32000))
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--hidden", type=int, default=24, help="width of every hidden layer")
    parser.add_argument("--layers", type=int, default=2, help="hidden layers")
    parser.add_argument("--defaults", action="store_true",
                        help="leave every post-processing switch at its default")
    args = parser.parse_args(argv)
    if args.hidden < 1 or args.layers < 1:
        parser.error("--hidden and --layers must be at least 1")
    write_case(args.outdir, args.rate, args.seed, args.hidden, args.layers,
               {} if args.defaults else EXERCISE_ALL)
    return 0


if __name__ == "__main__":
    sys.exit(main())
