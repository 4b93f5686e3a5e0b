#!/usr/bin/python3
"""Voice activity detection on the holdout: Sonel's detector against a plain energy detector,
frame by frame, per input SNR and noise group; writes docs/vad.md and docs/vad/roc.png.

    vad_eval.py [--build-dir DIR] [--extra-data DIR] [--rate 16000]

The test sets are the quality evaluation's (testsets.py: the same mixtures, noise-only and
clean-only items), rendered at --rate. Each item goes through `sonel vad --format frames` as a
16-bit WAV file, as a user runs it. The truth for a 10 ms frame is the training label rule
(tools/train/vad.py) applied to the item's clean speech.

Measures per group: frame-level ROC AUC; F1 of "speech" at probability 0.5 (the calibrated
decision point); the false-alarm rate on noise-only items (share of frames at 0.5 or above); and
onsets, the share of utterance starts (a speech frame after at least 200 ms without speech)
detected within 50 ms. The energy detector's score is the frame's level in dB: threshold-free
measures (AUC) compare it fairly; its decision point is the level that gives the best F1 over all
mixtures, which favours it.
"""

import argparse
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
import soundfile as sf

import testsets

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(EVAL_DIR))
sys.path.insert(0, os.path.join(REPO, "tools", "train"))
from vad import speech_labels  # noqa: E402

DEFAULT_DATA = os.path.join(os.path.dirname(REPO), "shared", "data")
FRAME_S = 0.01
ONSET_QUIET_FRAMES = 20
ONSET_WINDOW_FRAMES = 5
DECISION = 0.5


def sonel_probabilities(tool, samples, rate):
    with tempfile.NamedTemporaryFile(suffix=".wav") as wav:
        sf.write(wav.name, samples, rate, subtype="PCM_16")
        out = subprocess.run([tool, "vad", wav.name, "--format", "frames"], check=True,
                             capture_output=True, text=True).stdout
    return np.array([float(line.split("\t")[1]) for line in out.splitlines()])


def energy_scores(samples, rate):
    hop = int(rate * FRAME_S)
    frames = np.pad(samples, (0, -len(samples) % hop)).reshape(-1, hop)
    return 10 * np.log10(np.mean(frames ** 2, axis=1) + 1e-12)


def auc(scores, truth):
    """Probability that a speech frame scores above a non-speech frame (ties count half)."""
    truth = truth.astype(bool)
    positives, negatives = truth.sum(), (~truth).sum()
    if positives == 0 or negatives == 0:
        return float("nan")
    order = np.argsort(scores, kind="mergesort")
    ranks = np.empty(len(scores))
    sorted_scores = scores[order]
    # Average ranks over ties.
    starts = np.r_[0, np.flatnonzero(np.diff(sorted_scores)) + 1]
    ends = np.r_[starts[1:], len(scores)]
    for s, e in zip(starts, ends):
        ranks[order[s:e]] = (s + e + 1) / 2.0
    return float((ranks[truth].sum() - positives * (positives + 1) / 2) / (positives * negatives))


def roc(scores, truth):
    order = np.argsort(-scores)
    t = truth[order].astype(bool)
    return np.r_[0, np.cumsum(~t) / max((~t).sum(), 1)], np.r_[0, np.cumsum(t) / max(t.sum(), 1)]


def f1(decisions, truth):
    hits = float((decisions & truth).sum())
    return 2 * hits / max(float(decisions.sum() + truth.sum()), 1.0)


def onsets(truth):
    starts = []
    quiet = ONSET_QUIET_FRAMES
    for k, speech in enumerate(truth):
        if speech and quiet >= ONSET_QUIET_FRAMES:
            starts.append(k)
        quiet = 0 if speech else quiet + 1
    return starts


def onset_share(decisions, truth):
    starts = onsets(truth)
    found = [decisions[k:k + ONSET_WINDOW_FRAMES + 1].any() for k in starts]
    return float(np.mean(found)) if found else float("nan"), len(found)


def run(args):
    holdout = testsets.Holdout(args.data_dir, args.extra_data)
    items = testsets.plan(holdout)
    tool = os.path.join(args.build_dir, "tools", "sonel")
    rows = []
    started = time.time()
    for n, item in enumerate(items):
        rendered = testsets.render(item, holdout, args.rate)
        samples = rendered["input"]
        reference = rendered["reference"]
        frames = int(np.ceil(len(samples) / (args.rate * FRAME_S)))
        truth = (speech_labels(reference.astype(np.float32) * 32768.0, args.rate)[:frames] > 0
                 if reference is not None else np.zeros(frames, bool))
        truth = np.pad(truth, (0, frames - len(truth)))
        scores = {"sonel": sonel_probabilities(tool, samples, args.rate)[:frames],
                  "energy": energy_scores(samples, args.rate)[:frames]}
        rows.append({"set": item["set"], "group": item.get("group", "-"), "snr": item.get("snr_db"),
                     "truth": truth, "scores": scores})
        if n % 50 == 0:
            print("%d/%d items (%.0f s)" % (n, len(items), time.time() - started), flush=True)
    return rows


def table(rows):
    mixes = [r for r in rows if r["set"] == "mix"]
    truth_all = np.concatenate([r["truth"] for r in mixes])
    energy_all = np.concatenate([r["scores"]["energy"] for r in mixes])
    # The energy detector's best decision level over every mixture.
    levels = np.percentile(energy_all, np.arange(1, 100))
    energy_level = max(levels, key=lambda t: f1(energy_all >= t, truth_all))
    decide = {"sonel": lambda s: s >= DECISION, "energy": lambda s: s >= energy_level}
    lines = []
    groups = sorted({r["group"] for r in mixes})
    for group in groups:
        for snr in sorted({r["snr"] for r in mixes}):
            part = [r for r in mixes if r["group"] == group and r["snr"] == snr]
            truth = np.concatenate([r["truth"] for r in part])
            cells = []
            for system in ("sonel", "energy"):
                scores = np.concatenate([r["scores"][system] for r in part])
                decisions = [decide[system](r["scores"][system]) for r in part]
                found = [onset_share(d, r["truth"]) for d, r in zip(decisions, part)]
                share = sum(s * c for s, c in found if c) / max(sum(c for _, c in found), 1)
                cells += ["%.3f" % auc(scores, truth), "%.3f" % f1(np.concatenate(decisions), truth),
                          "%.2f" % share]
            lines.append("| %s | %+d | %s |" % (group, snr, " | ".join(cells)))
    noise = {g: [r for r in rows if r["set"] == "noise" and r["group"] == g] for g in groups}
    alarms = []
    for group in groups:
        cells = []
        for system in ("sonel", "energy"):
            decisions = np.concatenate([decide[system](r["scores"][system]) for r in noise[group]])
            cells.append("%.4f" % decisions.mean())
        alarms.append("| %s | %s |" % (group, " | ".join(cells)))
    return lines, alarms, energy_level


def plot(rows, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    mixes = [r for r in rows if r["set"] == "mix"]
    fig, axes = plt.subplots(1, 2, figsize=(10, 4.5))
    for ax, group in zip(axes, ("seen", "unseen")):
        part = [r for r in mixes if r["group"] == group]
        truth = np.concatenate([r["truth"] for r in part])
        for system, style in (("sonel", "-"), ("energy", "--")):
            x, y = roc(np.concatenate([r["scores"][system] for r in part]), truth)
            ax.plot(x, y, style, label="%s (AUC %.3f)" % (system, auc(np.concatenate(
                [r["scores"][system] for r in part]), truth)))
        ax.set_title("%s noise, all SNRs" % group)
        ax.set_xlabel("false-alarm rate")
        ax.set_ylabel("detection rate")
        ax.legend(loc="lower right")
        ax.grid(alpha=0.3)
    fig.tight_layout()
    fig.savefig(path, dpi=90)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    p.add_argument("--data-dir", default=DEFAULT_DATA)
    p.add_argument("--extra-data", default=os.environ.get(testsets.EXTRA_DATA_ENV))
    p.add_argument("--rate", type=int, default=16000)
    args = p.parse_args(argv)
    rows = run(args)
    lines, alarms, energy_level = table(rows)
    docs = os.path.join(REPO, "docs")
    os.makedirs(os.path.join(docs, "vad"), exist_ok=True)
    plot(rows, os.path.join(docs, "vad", "roc.png"))
    command = "/usr/bin/python3 tools/eval/vad_eval.py " + " ".join(
        a.replace(REPO + "/", "") for a in (argv if argv is not None else sys.argv[1:]))
    with open(os.path.join(docs, "vad.md"), "w", encoding="utf-8") as out:
        out.write(page(lines, alarms, energy_level, args, command))
    print("\n".join(lines + alarms))
    return 0


def page(lines, alarms, energy_level, args, command):
    header = ("| noise | SNR dB | Sonel AUC | Sonel F1 | Sonel onsets | energy AUC | energy F1 | "
              "energy onsets |\n|---|---|---|---|---|---|---|---|\n")
    return ("# Voice activity detection\n\n"
            "Generated by `%s` (%d Hz host, the holdout test sets of `docs/quality.md`, %s).\n\n"
            "Truth per 10 ms frame: the training label rule on the clean speech (within 25 dB of its "
            "active level, held 50 ms). F1 at the calibrated decision point 0.5 for Sonel, at the "
            "best level over all mixtures (%.1f dB) for the energy detector; onsets: share of "
            "utterance starts (after 200 ms without speech) detected within 50 ms.\n\n"
            "%s%s\n\n"
            "False alarms on noise alone (share of frames called speech):\n\n"
            "| noise | Sonel | energy |\n|---|---|---|\n%s\n\n"
            "![ROC](vad/roc.png)\n"
            % (command, args.rate, "with the Debian-package noise" if args.extra_data else "in-tree noise only",
               energy_level, header, "\n".join(lines), "\n".join(alarms)))


if __name__ == "__main__":
    sys.exit(main())
