#!/usr/bin/python3
"""Noise-level estimation on the holdout: Sonel's level per 10 ms frame against the known level
of each item's noise part, at 16 and 48 kHz hosts; writes docs/noise-level.md.

    noise_level_eval.py [--build-dir DIR] [--extra-data DIR] [--rates 16000,48000]

The test sets are the quality evaluation's (testsets.py: the mixtures and the noise-only items),
rendered at each rate. Each item goes through `sonel noise-level --format frames` as a float WAV
file, with the shipped 0.0.5 cleaner a host at that rate would register for noise levels (the
16 kHz model at 16 kHz, the 32 kHz noise-level model at 48 kHz).

The truth for frame k is the estimator's own figure computed on the noise part alone, which the
rendering knows (mixture minus clean speech): l_k = 10 log10 of the mean square of the noise over
the frame's samples (0 dBFS a full-scale square wave), at least -120; T_0 = l_0 and
T_k = T_{k-1} + a (l_k - T_{k-1}) with a = 1 - exp(-10 ms / 250 ms), every frame weighed alike
(there is no speech in it to weigh less). The first second of each item is left out: both figures
start from their first frame, and the estimator's first measured hop comes 10 ms late.

A mixture frame counts as speech when the clean speech's power over the frame is within 25 dB of
its active level (testsets.active_power), else as a pause.
"""

import argparse
import math
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
import soundfile as sf

import speed
import pages
import testsets

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(EVAL_DIR))
DEFAULT_DATA = os.path.join(os.path.dirname(REPO), "shared", "data")
MODELS = {16000: "models/sonel-nc-16k.sw", 48000: "models/sonel-noise-level.sw"}  # 0.0.5 cleaners
FRAME_S = 0.01
FLOOR_DBFS = -120.0
TIME_CONSTANT_S = 0.25
SETTLE_S = 1.0
SPEECH_RANGE_DB = 25.0
TARGET_SPEECH_DB = 2.0
TARGET_NOISE_DB = 1.0
TARGET_FRAME_US = 20.0


def frame_levels(signal, rate):
    """Per-frame level in dBFS of whole 10 ms frames, floored."""
    hop = int(round(rate * FRAME_S))
    frames = signal[:len(signal) // hop * hop].reshape(-1, hop)
    power = np.mean(frames.astype(np.float64) ** 2, axis=1)
    with np.errstate(divide="ignore"):
        return np.maximum(10.0 * np.log10(power), FLOOR_DBFS)


def smoothed(levels):
    """The figure's smoothing in dB, every frame weighed alike."""
    a = 1.0 - math.exp(-FRAME_S / TIME_CONSTANT_S)
    out = np.empty_like(levels)
    value = levels[0]
    for k, level in enumerate(levels):
        value += a * (level - value)
        out[k] = value
    return out


def sonel_levels(tool, model, samples, rate):
    with tempfile.NamedTemporaryFile(suffix=".wav") as wav:
        sf.write(wav.name, samples.astype(np.float32), rate, subtype="FLOAT")
        out = subprocess.run([tool, "noise-level", wav.name, "--format", "frames", "--model", model],
                             check=True, capture_output=True, text=True).stdout
    return np.array([float(line.split("\t")[1]) for line in out.splitlines()])


def run_rate(args, holdout, items, rate):
    tool = os.path.join(args.build_dir, "tools", "sonel")
    model = os.path.join(REPO, MODELS[rate])
    settle = int(round(SETTLE_S / FRAME_S))
    hop = int(round(rate * FRAME_S))
    rows = []
    started = time.time()
    for n, item in enumerate(items):
        rendered = testsets.render(item, holdout, rate)
        mixture, reference = rendered["input"], rendered["reference"]
        noise = mixture - reference if reference is not None else mixture
        truth = smoothed(frame_levels(noise, rate))
        reported = sonel_levels(tool, model, mixture, rate)[:len(truth)]
        error = (reported - truth)[settle:]
        if reference is not None:
            clean = reference[:len(reference) // hop * hop].reshape(-1, hop)
            power = np.mean(clean ** 2, axis=1)
            speech = (power >= testsets.active_power(reference, rate) * 10.0 ** (-SPEECH_RANGE_DB / 10.0))[settle:]
        else:
            speech = np.zeros(len(error), bool)
        rows.append({"set": item["set"], "group": item["group"], "snr": item.get("snr_db"),
                     "error": error, "speech": speech})
        if n % 100 == 0:
            print("%d Hz: %d/%d items (%.0f s)" % (rate, n, len(items), time.time() - started), flush=True)
    return rows


def summary(errors):
    e = np.abs(np.concatenate(errors)) if errors else np.zeros(0)
    if e.size == 0:
        return None
    signed = np.concatenate(errors)
    return {"median": float(np.median(e)), "p90": float(np.percentile(e, 90)),
            "bias": float(np.median(signed)), "frames": int(e.size)}


def split(rows, group=None, snr=None):
    """{"speech": ..., "pause": ..., "noise": ...} summaries of the rows of a group (or all)."""
    chosen = [r for r in rows if (group is None or r["group"] == group) and (snr is None or r["snr"] == snr)]
    mixes = [r for r in chosen if r["set"] == "mix"]
    return {"speech": summary([r["error"][r["speech"]] for r in mixes]),
            "pause": summary([r["error"][~r["speech"]] for r in mixes]),
            "noise": summary([r["error"] for r in chosen if r["set"] == "noise"])}


def benchmark(build_dir):
    """CPU time per frame of the session benchmarks this page reports (speed.session_cpu_times)."""
    return speed.session_cpu_times(build_dir, "NoiseDbFrame|NcFrame")


def cell(s):
    return "%.2f | %.2f | %+.2f" % (s["median"], s["p90"], s["bias"]) if s else "- | - | -"


def page(results, times, args, command):
    lines = ["# Noise-level estimation", "",
             "Generated by `%s` (%s)." % (command, "with the Debian-package noise" if args.extra_data
                                          else "in-tree noise only"), "",
             "What is compared, per 10 ms frame: the level `sonel noise-level --format frames` reports "
             "for the mixture, and the true level of the mixture's noise part. The true level is the "
             "estimator's own figure computed on the noise part alone, which the rendering knows: "
             "each frame's mean square in dBFS (0 dBFS a full-scale square wave, at least -120), "
             "smoothed in dB as the estimator smooths (time constant 250 ms, every frame weighed "
             "alike). The first second of each item is left out while both settle. Errors are "
             "reported minus true, in dB: median and 90th percentile of the absolute error, and the "
             "median signed error (bias). A mixture frame is *speech* when the clean speech's power "
             "over it is within 25 dB of its active level, else *pause*. Models: the 16 kHz model at "
             "16 kHz, the 32 kHz noise-level model (`models/sonel-noise-level.sw`) at 48 kHz.", "",
             "| host | noise | speech: median | p90 | bias | pause: median | p90 | bias | "
             "noise alone: median | p90 | bias |",
             "|---|---|---|---|---|---|---|---|---|---|---|"]
    for rate, rows in results:
        for group in ("seen", "unseen", None):
            s = split(rows, group)
            lines.append("| %d Hz | %s | %s | %s | %s |" % (rate, group or "all", cell(s["speech"]),
                                                          cell(s["pause"]), cell(s["noise"])))
    lines += ["", "Speech frames by input SNR (both noise groups):", "",
              "| host | SNR dB | median | p90 | bias | frames |", "|---|---|---|---|---|---|"]
    for rate, rows in results:
        for snr in testsets.SNRS_DB:
            s = split(rows, snr=snr)["speech"]
            if s:
                lines.append("| %d Hz | %+d | %s | %d |" % (rate, snr, cell(s), s["frames"]))

    lines += ["", "## Against the targets", "",
              "| target | 16 kHz | 48 kHz |", "|---|---|---|"]
    by_rate = dict(results)

    def figure(rate, key, limit):
        if rate not in by_rate:
            return "not run"
        s = split(by_rate[rate])[key]
        return "%.2f dB (%s)" % (s["median"], "met" if s["median"] <= limit else "missed")
    lines.append("| median absolute error with speech present <= %g dB | %s | %s |"
                 % (TARGET_SPEECH_DB, figure(16000, "speech", TARGET_SPEECH_DB), figure(48000, "speech", TARGET_SPEECH_DB)))
    lines.append("| median absolute error on noise alone <= %g dB | %s | %s |"
                 % (TARGET_NOISE_DB, figure(16000, "noise", TARGET_NOISE_DB), figure(48000, "noise", TARGET_NOISE_DB)))
    lines.append("| zero allocations per frame | 0 (test NoiseLevel.ReturnCodesAndFramesWithoutAllocation) | "
                 "0 (same test) |")

    def cost(host, model):
        t = times.get("BM_NoiseDbFrame/host_hz:%d/model_hz:%d" % (host, model))
        nc = times.get("BM_NcFrame/host_hz:%d/model_hz:%d" % (host, model))
        if t is None:
            return "not measured"
        return "%.1f µs (%s; cleaning alone %.1f µs)" % (t, "met" if t <= TARGET_FRAME_US else "missed", nc)
    lines.append("| at most %g µs per frame | %s | %s (32 kHz noise-level model); %s (16 kHz model) |"
                 % (TARGET_FRAME_US, cost(16000, 16000), cost(48000, 32000), cost(48000, 16000)))
    lines.append("")
    if times:
        lines.append("Per-frame cost: CPU time, median of five repetitions of `%s "
                     "--benchmark_filter='NoiseDbFrame|NcFrame'` (shipped-size networks with random "
                     "weights) on the machine that ran this page, whose load average was %.1f on %d "
                     "cores as it started. *Cleaning alone* is a noise-cleaning session's frame at the "
                     "same rates, which also converts the cleaned frame back to the host rate; the "
                     "noise-level frame runs the same cleaner and never converts back, so at 48 kHz it "
                     "costs less than cleaning and at 16 kHz about the same." % (
                         os.path.relpath(os.path.join(args.build_dir, "bench", "sonel_session_bench"), REPO),
                         times["load"], times["cores"]))
        lines.append("")
    lines += ["Reading the table: on noise alone the cleaner removes nearly all of the noise and the "
              "level follows it closely; the 90th percentile is set by noises the cleaner partly "
              "keeps as if they were voice (the talk in a restaurant, a mosquito's whine): what it "
              "keeps is not counted as noise. Under speech the "
              "estimate runs a little low and the error grows with the SNR: the louder the voice "
              "over the noise, the more of the noise under it the cleaner keeps, and blocks where "
              "it keeps more than it removes move the level only a tenth as far.", ""]
    return "\n".join(lines)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    p.add_argument("--data-dir", default=DEFAULT_DATA)
    p.add_argument("--extra-data", default=os.environ.get(testsets.EXTRA_DATA_ENV))
    p.add_argument("--rates", default="16000,48000")
    p.add_argument("--no-benchmark", action="store_true", help="leave the per-frame cost out")
    args = p.parse_args(argv)
    args.build_dir = os.path.abspath(args.build_dir)
    holdout = testsets.Holdout(args.data_dir, args.extra_data)
    items = [item for item in testsets.plan(holdout) if item["set"] in ("mix", "noise")]
    times = {} if args.no_benchmark else benchmark(args.build_dir)
    results = [(rate, run_rate(args, holdout, items, rate)) for rate in map(int, args.rates.split(","))]
    command = pages.command_line("noise_level_eval.py", argv)
    pages.write("noise-level.md", page(results, times, args, command))
    return 0


if __name__ == "__main__":
    sys.exit(main())
