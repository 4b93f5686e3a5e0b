#!/usr/bin/python3
"""Voice activity detection on the holdout: Sonel's detector against Silero VAD, RNNoise's voice
probability, WebRTC's voice detection and a plain energy detector, frame by frame, per input SNR
and noise group, with each one's CPU time per 10 ms frame; writes docs/vad.md and docs/vad/roc.png.

    vad_eval.py [--build-dir DIR] [--extra-data DIR] [--model FILE] [--rate 16000]

The test sets are the quality evaluation's (testsets.py: the same mixtures, noise-only and
clean-only items), rendered at --rate. Each item goes through `sonel vad --format frames` as a
16-bit WAV file, as a user runs it; the peers get the same samples as raw float32 (resampled to
16 kHz for Silero and WebRTC and to 48 kHz for RNNoise where --rate differs). The truth for a 10 ms
frame is the training label rule (tools/train/vad.py) applied to the item's clean speech.

Needs, besides the `sonel` tool: `sonel-eval-vad` (tools/eval/vad_systems.cpp) built in the same
build folder, and the two node packages (`npm ci --ignore-scripts --prefix tools/eval/silero`,
`npm ci --prefix tools/eval/rnnoise`).

Measures per group: frame-level ROC AUC; F1 of "speech" at each system's decision point; the
false-alarm rate on noise-only items (share of frames called speech); and onsets, the share of
utterance starts (a speech frame after at least 200 ms without speech) detected within 50 ms.
Decision points: 0.5 for the probabilities (Sonel's is calibrated to it; 0.5 is Silero's and
RNNoise's customary threshold); WebRTC decides for itself; the energy detector's score is the
frame's level in dB and its decision point is the level that gives the best F1 over all mixtures,
which favours it.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import time

import numpy as np
import soundfile as sf

import pages
import testsets

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(EVAL_DIR))
sys.path.insert(0, os.path.join(REPO, "tools", "train"))
from vad import speech_labels  # noqa: E402

DEFAULT_DATA = os.path.join(os.path.dirname(REPO), "shared", "data")
DEFAULT_MODEL = os.path.join(REPO, "models", "sonel-vad.sw")
SILERO_DIR = os.path.join(EVAL_DIR, "silero")
RNNOISE_DIR = os.path.join(EVAL_DIR, "rnnoise")
FRAME_S = 0.01
ONSET_QUIET_FRAMES = 20
ONSET_WINDOW_FRAMES = 5
DECISION = 0.5

SONEL, SILERO, RNNOISE, ENERGY = "sonel", "silero", "rnnoise", "energy"
WEBRTC = ("webrtc-vad-high", "webrtc-vad-moderate", "webrtc-vad-low", "webrtc-vad-verylow")
SYSTEMS = (SONEL, SILERO, RNNOISE) + WEBRTC + (ENERGY,)
# The detectors that say yes or no and nothing between: a single point on the ROC plane.
BINARY = WEBRTC

SILERO_RATE_HZ = 16000
SILERO_WINDOW = 512
RNNOISE_RATE_HZ = 48000
# Silero answers once per 32 ms window. A frame may use a window that ends no later than the
# frame's own end plus this delay: 0 gives Silero what Sonel has, the audio up to the end of
# the frame. Giving it the first window that covers the frame whole would mean waiting up to
# 30 ms more (window ends fall on 2 ms steps against frame ends: 512 and 160 samples share 32);
# the page reports that case too, as a bound on what the wait costs it.
SILERO_DELAY_MS = 0.0
SILERO_COVERING_DELAY_MS = 30.0
# Items rendered, run and scored per batch: bounds the scratch files (about 60 MB per batch).
BATCH_ITEMS = 100
# The mixtures that make the timing input: about 60 s of speech in noise, the same for everyone.
TIMING_ITEMS = 12
TIMING_PASSES = 5
MODEL_LIMIT_BYTES = 100 * 1000


def silero_frames(window_scores, frames, delay_ms=SILERO_DELAY_MS):
    """Silero's per-window probabilities as 10 ms frame scores: each frame takes the latest window
    that ends at or before the frame's end plus `delay_ms` (windows of 512 samples at 16 kHz,
    frames of 160). Frames before the first such window score 0."""
    delay = int(round(delay_ms * SILERO_RATE_HZ / 1000.0))
    hop = int(SILERO_RATE_HZ * FRAME_S)
    frame_ends = hop * (np.arange(frames) + 1) + delay
    latest = frame_ends // SILERO_WINDOW - 1
    scores = np.asarray(window_scores, dtype=np.float64)
    out = np.zeros(frames)
    usable = latest >= 0
    out[usable] = scores[np.minimum(latest[usable], len(scores) - 1)]
    return out


def auc(scores, truth):
    """Probability that a speech frame scores above a non-speech frame (ties count half): the
    area under the ROC curve with straight lines between its points, so for a yes/no detector the
    trapezoid through its single point."""
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
    """False-alarm and detection rates at every distinct score as the threshold, from (0, 0) to
    (1, 1); tied frames move together, so a yes/no detector gives one point between the ends."""
    order = np.argsort(-scores, kind="mergesort")
    s, t = scores[order], truth[order].astype(bool)
    last_of_tie = np.r_[np.flatnonzero(np.diff(s)), len(s) - 1]
    false_alarms = np.cumsum(~t)[last_of_tie] / max((~t).sum(), 1)
    detections = np.cumsum(t)[last_of_tie] / max(t.sum(), 1)
    return np.r_[0.0, false_alarms], np.r_[0.0, detections]


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


class Runners:
    """Every detector's command line, over batches of raw float32 files."""

    def __init__(self, build_dir, model):
        self.tool = os.path.join(build_dir, "tools", "sonel")
        self.runner = os.path.join(build_dir, "tools", "eval", "sonel-eval-vad")
        self.model = model
        for path, how in ((self.tool, "build the sonel target"), (self.runner, "build the sonel-eval-vad target"),
                          (os.path.join(SILERO_DIR, "node_modules", "onnxruntime-node"),
                           "run npm ci --ignore-scripts --prefix tools/eval/silero"),
                          (os.path.join(RNNOISE_DIR, "node_modules", "@jitsi", "rnnoise-wasm"),
                           "run npm ci --prefix tools/eval/rnnoise"),
                          (model, "give --model")):
            if not os.path.exists(path):
                raise SystemExit("%s is missing: %s" % (path, how))

    def sonel_tool(self, samples, rate):
        with tempfile.NamedTemporaryFile(suffix=".wav") as wav:
            sf.write(wav.name, samples, rate, subtype="PCM_16")
            out = subprocess.run([self.tool, "vad", wav.name, "--model", self.model, "--format", "frames"],
                                 check=True, capture_output=True, text=True).stdout
        return np.array([float(line.split("\t")[1]) for line in out.splitlines()])

    def start(self, system, rate, inputs, scratch):
        """Starts scoring each raw float32 input file; finish() waits and reads the scores."""
        listing = os.path.join(scratch, system + ".list")
        outputs = [os.path.join(scratch, "%s-%d.f32" % (system, i)) for i in range(len(inputs))]
        with open(listing, "w", encoding="utf-8") as out:
            out.writelines("%s\t%s\n" % pair for pair in zip(inputs, outputs))
        if system == SILERO:
            command = ["node", os.path.join(SILERO_DIR, "vad.mjs"), listing]
        elif system == RNNOISE:
            command = ["node", os.path.join(RNNOISE_DIR, "vad.mjs"), listing]
        else:
            command = [self.runner, system, str(rate), listing, "--model", self.model]
        return subprocess.Popen(command, stdout=subprocess.DEVNULL), outputs

    @staticmethod
    def finish(started):
        process, outputs = started
        if process.wait() != 0:
            raise RuntimeError("%s failed (exit status %d)" % (" ".join(process.args), process.returncode))
        scores = [np.fromfile(path, dtype="<f4").astype(np.float64) for path in outputs]
        for path in outputs:
            os.remove(path)
        return scores

    def cpu_per_frame(self, system, rate, path):
        """(quickest, median) process CPU microseconds per 10 ms frame."""
        if system == SILERO:
            command = ["node", os.path.join(SILERO_DIR, "vad.mjs"), "--time", path]
        elif system == RNNOISE:
            command = ["node", os.path.join(RNNOISE_DIR, "vad.mjs"), "--time", path]
        else:
            command = [self.runner, system, str(rate), "--time", path, "--model", self.model]
        out = subprocess.run(command + ["--passes", str(TIMING_PASSES)], check=True, capture_output=True,
                             text=True).stdout
        line = [l for l in out.splitlines() if l.startswith(system + " ")][-1]
        quickest, median = line.split()[1:3]
        return float(quickest), float(median)


def write_raw(path, samples):
    np.asarray(samples, dtype="<f4").tofile(path)


def score_batch(runners, rendered, rate, scratch):
    """{system: [frame scores of each item]} for one batch of rendered items."""
    paths = {}
    for name, peer_rate in (("host", rate), ("silero", SILERO_RATE_HZ), ("rnnoise", RNNOISE_RATE_HZ)):
        paths[name] = []
        for i, item in enumerate(rendered):
            path = os.path.join(scratch, "%s-%d-in.f32" % (name, i))
            write_raw(path, testsets.resample(item["input"], rate, peer_rate))
            paths[name].append(path)
    # WebRTC takes the host's rate where it can; its detector sees 0 ... 8 kHz whatever the rate.
    webrtc_rate, webrtc_paths = (rate, paths["host"]) if rate in (8000, 16000, 32000, 48000) else \
        (SILERO_RATE_HZ, paths["silero"])
    # The node detectors run beside the rest: RNNoise alone takes about as long as everything else.
    peers = {SILERO: runners.start(SILERO, SILERO_RATE_HZ, paths["silero"], scratch),
             RNNOISE: runners.start(RNNOISE, RNNOISE_RATE_HZ, paths["rnnoise"], scratch)}
    scores = {SONEL: [runners.sonel_tool(item["input"], rate) for item in rendered],
              ENERGY: runners.finish(runners.start(ENERGY, rate, paths["host"], scratch))}
    for system in WEBRTC:
        scores[system] = runners.finish(runners.start(system, webrtc_rate, webrtc_paths, scratch))
    for system, started in peers.items():
        scores[system] = runners.finish(started)
    for group in paths.values():
        for path in group:
            os.remove(path)
    return scores


def run(args, runners):
    holdout = testsets.Holdout(args.data_dir, args.extra_data)
    # The clean-only set has no non-speech frames to score against; it is left out.
    items = testsets.plan(holdout, mixtures_per_snr=args.mixtures_per_snr, noise_items=args.noise_items,
                          clean_items=0)
    rows = []
    started = time.time()
    with tempfile.TemporaryDirectory(prefix="sonel-vad-eval-") as scratch:
        for first in range(0, len(items), BATCH_ITEMS):
            batch = items[first:first + BATCH_ITEMS]
            rendered = [testsets.render(item, holdout, args.rate) for item in batch]
            scores = score_batch(runners, rendered, args.rate, scratch)
            for k, (item, r) in enumerate(zip(batch, rendered)):
                frames = int(np.ceil(len(r["input"]) / (args.rate * FRAME_S)))
                truth = (speech_labels(r["reference"].astype(np.float32) * 32768.0, args.rate)[:frames] > 0
                         if r["reference"] is not None else np.zeros(frames, bool))
                truth = np.pad(truth, (0, frames - len(truth)))
                windows = scores[SILERO][k]
                per_frame = {system: scores[system][k][:frames] for system in SYSTEMS if system != SILERO}
                per_frame[SILERO] = silero_frames(windows, frames)
                for system, s in per_frame.items():
                    if len(s) != frames:
                        raise RuntimeError("%s gave %d frames for %s, %d expected"
                                           % (system, len(s), item["id"], frames))
                rows.append({"set": item["set"], "group": item.get("group", "-"), "snr": item.get("snr_db"),
                             "truth": truth, "scores": per_frame,
                             "silero_covering": silero_frames(windows, frames, SILERO_COVERING_DELAY_MS)})
            print("%d/%d items (%.0f s)" % (len(rows), len(items), time.time() - started), flush=True)
        timing = time_systems(runners, holdout, items, args.rate, scratch)
    return rows, timing


def time_systems(runners, holdout, items, rate, scratch):
    """CPU per 10 ms frame of every detector over the same minute of mixtures, one after another."""
    mixes = [item for item in items if item["set"] == "mix"][:TIMING_ITEMS]
    signal = np.concatenate([testsets.render(item, holdout, rate)["input"] for item in mixes])
    paths = {}
    for name, peer_rate in (("host", rate), (SILERO, SILERO_RATE_HZ), (RNNOISE, RNNOISE_RATE_HZ)):
        paths[name] = os.path.join(scratch, "timing-%s.f32" % name)
        write_raw(paths[name], testsets.resample(signal, rate, peer_rate))
    load_before = os.getloadavg()
    cpu = {}
    for system in SYSTEMS:
        path = paths.get(system, paths["host"])
        system_rate = {SILERO: SILERO_RATE_HZ, RNNOISE: RNNOISE_RATE_HZ}.get(system, rate)
        cpu[system] = runners.cpu_per_frame(system, system_rate, path)
    return {"cpu": cpu, "seconds": len(signal) / rate, "load": (load_before, os.getloadavg()),
            "cores": os.cpu_count()}


def decision_rules(rows):
    mixes = [r for r in rows if r["set"] == "mix"]
    truth_all = np.concatenate([r["truth"] for r in mixes])
    energy_all = np.concatenate([r["scores"][ENERGY] for r in mixes])
    # The energy detector's best decision level over every mixture.
    levels = np.percentile(energy_all, np.arange(1, 100))
    energy_level = max(levels, key=lambda t: f1(energy_all >= t, truth_all))
    rules = {system: (lambda s: s >= DECISION) for system in SYSTEMS}
    rules[ENERGY] = lambda s: s >= energy_level
    return rules, energy_level


def measures(rows, rules):
    """{(group, snr): {system: (auc, f1, onset share)}} over the mixtures, and
    {group: {system: false-alarm rate}} over the noise-only items."""
    mixes = [r for r in rows if r["set"] == "mix"]
    groups = sorted({r["group"] for r in mixes})
    cells = {}
    for group in groups:
        for snr in sorted({r["snr"] for r in mixes}):
            part = [r for r in mixes if r["group"] == group and r["snr"] == snr]
            truth = np.concatenate([r["truth"] for r in part])
            cells[(group, snr)] = {}
            for system in SYSTEMS:
                scores = np.concatenate([r["scores"][system] for r in part])
                decisions = [rules[system](r["scores"][system]) for r in part]
                found = [onset_share(d, r["truth"]) for d, r in zip(decisions, part)]
                share = sum(s * c for s, c in found if c) / max(sum(c for _, c in found), 1)
                cells[(group, snr)][system] = (auc(scores, truth), f1(np.concatenate(decisions), truth), share)
    alarms = {}
    for group in groups:
        noise = [r for r in rows if r["set"] == "noise" and r["group"] == group]
        alarms[group] = {system: float(np.concatenate([rules[system](r["scores"][system]) for r in noise]).mean())
                         for system in SYSTEMS}
    return cells, alarms


def covering_auc(rows):
    """{group: Silero's AUC over all SNRs when a frame may wait for the first window covering it}."""
    out = {}
    for group in sorted({r["group"] for r in rows if r["set"] == "mix"}):
        part = [r for r in rows if r["set"] == "mix" and r["group"] == group]
        truth = np.concatenate([r["truth"] for r in part])
        out[group] = (auc(np.concatenate([r["scores"][SILERO] for r in part]), truth),
                      auc(np.concatenate([r["silero_covering"] for r in part]), truth))
    return out


def plot(rows, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    mixes = [r for r in rows if r["set"] == "mix"]
    styles = {SONEL: ("C3", "-", 2.2), SILERO: ("C0", "-", 1.4), RNNOISE: ("C2", "-", 1.4),
              ENERGY: ("0.4", "--", 1.2)}
    markers = dict(zip(WEBRTC, ("o", "s", "^", "v")))
    fig, axes = plt.subplots(1, 2, figsize=(11, 5))
    for ax, group in zip(axes, testsets.NOISE_GROUPS):
        part = [r for r in mixes if r["group"] == group]
        truth = np.concatenate([r["truth"] for r in part])
        for system in SYSTEMS:
            scores = np.concatenate([r["scores"][system] for r in part])
            x, y = roc(scores, truth)
            label = "%s (AUC %.3f)" % (system, auc(scores, truth))
            if system in BINARY:
                # The one operating point, with the straight lines its AUC is taken under.
                ax.plot(x[1:2], y[1:2], markers[system], color="C1", label=label, markersize=6)
                ax.plot(np.r_[x, 1.0], np.r_[y, 1.0], ":", color="C1", linewidth=0.8)
            else:
                color, style, width = styles[system]
                ax.plot(x, y, style, color=color, linewidth=width, label=label)
        ax.set_title("%s noise, all SNRs" % group)
        ax.set_xlabel("false-alarm rate")
        ax.set_ylabel("detection rate")
        ax.legend(loc="lower right", fontsize=8)
        ax.grid(alpha=0.3)
    fig.tight_layout()
    fig.savefig(path, dpi=90)


def model_size(runners):
    """(path, file bytes, network weights in all, weights of the first layer's two halves and the
    gate together, the shape of each, bands per feature frame)."""
    info = subprocess.run([runners.tool, "model", "info", runners.model], check=True, capture_output=True,
                          text=True).stdout
    total, first = 0, 0
    first_shape, bands = None, None
    for line in info.splitlines():
        name = line.split()[0] if line.strip() else ""
        shapes = [(int(a), int(b) if b else 1) for a, b in re.findall(r"\[(\d+)(?: x (\d+))?\]", line)]
        if name == "MU" and shapes:
            bands = shapes[0][0]
        if not name.startswith(("Weight", "Baes", "Bias")):
            continue
        total += sum(a * b for a, b in shapes)
        if name in ("WeightGRU", "WeightLinear", "WeightNonLinear") and shapes:
            first += shapes[0][0] * shapes[0][1]
            first_shape = shapes[0]
    return runners.model, os.path.getsize(runners.model), total, first, first_shape, bands


def allocation_test(build_dir):
    """'passed', 'failed' or 'not built' for the allocation test, run now."""
    binary = os.path.join(build_dir, "tests", "noise_canceller", "sonel_cleaner_tests")
    if not os.path.exists(binary):
        return "not built"
    done = subprocess.run([binary, "--gtest_filter=VadRealTime.NoAllocationPerBlockAfterWarmUp"],
                          capture_output=True, text=True)
    return "passed" if done.returncode == 0 and "[  PASSED  ] 1 test" in done.stdout else "failed"


def targets(cells, timing, size, allocations):
    """The page's list of targets, each with its figures and whether it is met."""
    lines = []
    rivals = (RNNOISE,) + WEBRTC + (ENERGY,)
    margins = []
    for (group, snr), c in sorted(cells.items()):
        best = max(rivals, key=lambda s: c[s][0])
        margins.append((c[SONEL][0] - c[best][0], group, snr, best))
    short = ["%s %+d dB (%+.4f against %s)" % (g, snr, m, best) for m, g, snr, best in margins if m <= 0]
    met = len(margins) - len(short)
    lines.append("- AUC above WebRTC (every likelihood), RNNoise and the energy detector at every SNR: "
                 + ("met in all %d cells; smallest margin %+.3f." % (met, min(margins)[0]) if not short else
                    "**not met**, %d of %d cells; short at %s." % (met, len(margins), ", ".join(short))))
    gaps = [(c[SONEL][0] - c[SILERO][0], key) for key, c in cells.items() if key[1] >= 5]
    worst, where = min(gaps)
    met = sum(g >= -0.02 for g, _ in gaps)
    lines.append("- AUC within 0.02 of Silero at 5 dB and above: %s, %d of %d cells; Sonel's AUC less "
                 "Silero's is %+.3f at its lowest (%s, %+d dB)."
                 % ("met" if met == len(gaps) else "**not met**", met, len(gaps), worst, *where))
    ours, silero = timing["cpu"][SONEL][0], timing["cpu"][SILERO][0]
    lines.append("- CPU per frame at most a tenth of Silero's: %s, %.1f µs against %.1f µs (%.2f of "
                 "Silero's; a tenth is %.1f µs)." % ("met" if ours <= silero / 10 else "**not met**",
                                                    ours, silero, ours / silero, silero / 10))
    path, size_bytes, total, first, shape, bands = size
    units, inputs = shape[0], shape[1] - shape[0]
    lines.append("- Model file at most 100 KB: %s, `%s` is %.1f KB. The detector's layout fixes a "
                 "%d-unit recurrent state over %d × %d features: the first layer's two halves and the "
                 "gate take state and features together, %d × %d weights each, %s in all, %.1f KB as "
                 "float32 before anything else (%s network weights in the file)."
                 % ("met" if size_bytes <= MODEL_LIMIT_BYTES else "**not met**", os.path.relpath(path, REPO),
                    size_bytes / 1000.0, units, inputs // bands, bands, shape[0], shape[1], "{:,}".format(first),
                    first * 4 / 1000.0, "{:,}".format(total)))
    lines.append("- No allocation per frame: `VadRealTime.NoAllocationPerBlockAfterWarmUp` %s in this run."
                 % allocations)
    return lines


def page(cells, alarms, covering, energy_level, timing, target_lines, args, command):
    groups = sorted({g for g, _ in cells})
    snrs = sorted({s for _, s in cells})
    head = "| noise | SNR dB | " + " | ".join(SYSTEMS) + " |\n|---|---|" + "---|" * len(SYSTEMS) + "\n"

    def measure_table(index, fmt):
        return head + "\n".join("| %s | %+d | %s |" % (g, s, " | ".join(fmt % cells[(g, s)][system][index]
                                                                      for system in SYSTEMS))
                                for g in groups for s in snrs)

    alarm_table = ("| noise | " + " | ".join(SYSTEMS) + " |\n|---|" + "---|" * len(SYSTEMS) + "\n" +
                   "\n".join("| %s | %s |" % (g, " | ".join("%.4f" % alarms[g][s] for s in SYSTEMS))
                             for g in groups))
    covering_text = "; ".join("%s noise %.3f instead of %.3f" % (g, covering[g][1], covering[g][0])
                              for g in groups)
    (before, after), cores = timing["load"], timing["cores"]
    cpu_table = ("| detector | CPU µs per 10 ms frame, quickest pass | median pass | share of real time |\n"
                 "|---|---|---|---|\n" +
                 "\n".join("| %s | %.2f | %.2f | %.3f%% |" % (s, q, m, q / 100.0)
                           for s, (q, m) in ((s, timing["cpu"][s]) for s in SYSTEMS)))
    return """# Voice activity detection

Generated by `%(command)s` (%(rate)d Hz host, the holdout test sets of `docs/quality.md`, %(noise)s;
Sonel's model `%(model)s`).

## Systems

- `sonel`: Sonel's detector through `sonel vad --format frames`, a probability per 10 ms frame.
- `silero`: Silero VAD v5, the ONNX model `@ricky0123/vad-web` 0.0.31 ships
  (`silero_vad_v5.onnx`), run by `onnxruntime-node` 1.30.0 on one thread
  (`tools/eval/silero/vad.mjs`). It gives one probability per 32 ms window (512 samples at 16 kHz,
  plus the 64 samples before it as look-behind, as its own wrapper feeds it). A 10 ms frame takes
  the probability of the latest window that ends no later than the frame's end: no look-ahead,
  the same audio Sonel has when it answers for that frame. Frames before the first window ends
  (the first 30 ms of an item) score 0. Letting each frame wait for the first window that covers
  it whole (up to 30 ms later) would move its AUC over all SNRs to: %(covering)s.
- `rnnoise`: the voice probability `rnnoise_process_frame` returns, RNNoise's WebAssembly build
  (`@jitsi/rnnoise-wasm` 0.2.1) at 48 kHz, one per 10 ms frame (`tools/eval/rnnoise/vad.mjs`).
- `webrtc-vad-*`: WebRTC's voice detection, the audio processing module of Debian's
  `libwebrtc-audio-processing` with only voice detection on, at each of its four likelihood
  settings (high calls the most frames speech), read per 10 ms frame with `stream_has_voice()`
  (`tools/eval/vad_systems.cpp`). A yes/no detector's ROC is a single point: its AUC below is the
  area under the straight lines from (0, 0) through that point to (1, 1), computed from its 0/1
  scores in the same way as everyone else's, and the plot shows each as a marker.
- `energy`: the frame's level in dB.

Truth per 10 ms frame: the training label rule on the clean speech (within 25 dB of its active
level, held 50 ms). F1 at 0.5 for the probabilities, at WebRTC's own decision, and at the best
level over all mixtures (%(level).1f dB) for the energy detector; onsets: share of utterance starts
(after 200 ms without speech) detected within 50 ms.

## Targets

%(targets)s

## Frame-level ROC AUC

%(auc)s

## F1 at the decision point

%(f1)s

## Onsets detected within 50 ms

%(onsets)s

## False alarms on noise alone

Share of frames called speech on the noise-only items:

%(alarms)s

## ROC

![ROC, one panel per noise group](vad/roc.png)

## CPU per frame

Process CPU time per 10 ms of audio over the same %(seconds).0f s of mixtures, every detector one
after another in the same run, after a warm-up pass; %(passes)d timed passes each, the quickest and
the median given. Sonel's detector runs through its C interface (`sonelAudioVadFrameFloat`, the call
the `BM_VadFrame` benchmark times) at a %(rate)d Hz host, resampling included; WebRTC with only voice
detection on; Silero per 512-sample window divided by 3.2; RNNoise per 480-sample frame at 48 kHz
as its WebAssembly build runs, denoising included (it has no way to ask for the probability alone);
the energy detector in C++. The machine (%(cores)d cores) is shared with other jobs: load average
%(load_before).1f before the timings and %(load_after).1f after. CPU time rather than wall-clock
time keeps most of that out, but not cache and memory contention, so take these as upper bounds.
One detector alone: `sonel-eval-vad SYSTEM RATE --time FILE [--model FILE]` from the build folder,
`node tools/eval/silero/vad.mjs --time FILE` or `node tools/eval/rnnoise/vad.mjs --time FILE`
(raw float32 files; 16 kHz for Silero, 48 kHz for RNNoise).

%(cpu)s
""" % {"command": command, "rate": args.rate,
       "noise": "with the Debian-package noise" if args.extra_data else "in-tree noise only",
       "model": os.path.relpath(args.model, REPO), "covering": covering_text, "level": energy_level,
       "targets": "\n".join(target_lines), "auc": measure_table(0, "%.3f"), "f1": measure_table(1, "%.3f"),
       "onsets": measure_table(2, "%.2f"), "alarms": alarm_table, "seconds": timing["seconds"],
       "passes": TIMING_PASSES, "cores": cores, "load_before": before[0], "load_after": after[0],
       "cpu": cpu_table}


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    p.add_argument("--data-dir", default=DEFAULT_DATA)
    p.add_argument("--extra-data", default=os.environ.get(testsets.EXTRA_DATA_ENV))
    p.add_argument("--model", default=DEFAULT_MODEL, help="Sonel's detector model (default: %(default)s)")
    p.add_argument("--rate", type=int, default=16000)
    p.add_argument("--mixtures-per-snr", type=int, default=testsets.MIXTURES_PER_SNR,
                   help="per noise group; fewer gives a quick run (the page then says so in its command)")
    p.add_argument("--noise-items", type=int, default=testsets.NOISE_ONLY_ITEMS)
    args = p.parse_args(argv)
    args.model = os.path.abspath(args.model)
    runners = Runners(args.build_dir, args.model)
    rows, timing = run(args, runners)
    rules, energy_level = decision_rules(rows)
    cells, alarms = measures(rows, rules)
    target_lines = targets(cells, timing, model_size(runners), allocation_test(args.build_dir))
    docs = os.path.join(REPO, "docs")
    os.makedirs(os.path.join(docs, "vad"), exist_ok=True)
    plot(rows, os.path.join(docs, "vad", "roc.png"))
    command = pages.command_line("vad_eval.py", argv)
    pages.write("vad.md", page(cells, alarms, covering_auc(rows), energy_level, timing, target_lines, args, command))
    return 0


if __name__ == "__main__":
    sys.exit(main())
