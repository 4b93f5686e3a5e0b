#!/usr/bin/python3
"""Ringtone detection on the holdout: rings never heard in training under holdout speech, and an
hour of holdout audio with no ring, at 16 and 48 kHz hosts; writes docs/ringtone.md.

    ringtone_eval.py --rings DIR [--build-dir DIR] [--extra-data DIR] [--rates 16000,48000]

DIR for --rings is the output of tools/train/ringtone_data.sh; its holdout/ring recordings (whole
sources that training never drew from, and three ringtones of a source it did) are used here
and nowhere else.

Ring set: every holdout ring under holdout speech at speech-to-ring ratios of 0, 5, 10, 15 and
20 dB (the speech's active level over the ring's), ITEMS_PER_CELL speech items per ring and
ratio. Each item lasts ITEM_S seconds; the ring starts at RING_START_S and sounds for RING_S
seconds, a short recording repeating after a pause of PAUSE_S as a phone repeats its ring. A
frame's truth is the training label rule (tools/train/ringtone.py: the ring's own power within
25 dB of its active level, held 200 ms).

No-ring set: the quality evaluation's holdout items (testsets.py): clean speech, noise alone
(music, birds, sirens, clocks and ambiences, both noise groups) and speech in noise at -5 ... 20
dB. A false alarm is a run of frames at or above 0.5 (runs less than 300 ms apart count as one,
as `sonel ringtone` joins them); its rate is per hour of audio.

Detection delay: per ring item, from the first ring frame to the first frame at or above 0.5.
Every item goes through `sonel ringtone --format frames` as a float WAV file.
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
from vad_eval import auc

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(EVAL_DIR))
sys.path.insert(0, os.path.join(REPO, "tools", "train"))
from ringtone import ring_labels  # noqa: E402

DEFAULT_DATA = os.path.join(os.path.dirname(REPO), "shared", "data")
MODEL = "models/sonel-ringtone.sw"
SEED = 20261124
RATIOS_DB = (0, 5, 10, 15, 20)
ITEMS_PER_CELL = 4
ITEM_S, RING_START_S, RING_S, PAUSE_S = 8.0, 2.0, 5.0, 1.0
FRAME_S = 0.01
THRESHOLD = 0.5
JOIN_FRAMES = 30
TARGET_AUC = 0.98
TARGET_ALARMS_PER_HOUR = 1.0
TARGET_DELAY_S = 0.5
TARGET_FRAME_US = 20.0


def ring_items(holdout, ring_dir):
    """Descriptions of the ring set, drawn from one seeded generator."""
    rng = np.random.default_rng(SEED)
    speech = testsets._speech_items(holdout)
    rings = sorted(os.listdir(ring_dir))
    items = []
    for ring in rings:
        for ratio in RATIOS_DB:
            for k in range(ITEMS_PER_CELL):
                files, _ = speech[int(rng.integers(len(speech)))]
                items.append({"ring": ring, "ratio_db": ratio, "speech": files,
                              "level_dbfs": float(rng.uniform(*testsets.LEVEL_RANGE_DBFS)),
                              "ring_offset_s": float(rng.uniform(0.0, 1.0)), "id": "%s-%+d-%d" % (ring, ratio, k)})
    return items


def render_ring_item(item, holdout, ring_dir, rate):
    n = int(ITEM_S * rate)
    speech = np.concatenate([testsets.load(holdout.path("speech", f), rate) for f in item["speech"]])
    speech = np.resize(speech, n) if len(speech) < n else speech[:n]
    source = testsets.load(os.path.join(ring_dir, item["ring"]), rate)
    if len(source) < 4 * rate:
        source = np.concatenate([source, np.zeros(int(PAUSE_S * rate))])
    sound = np.resize(np.roll(source, -int(item["ring_offset_s"] * rate) % len(source)), int(RING_S * rate))
    ring = np.zeros(n)
    first = int(RING_START_S * rate)
    ring[first:first + len(sound)] = sound[:n - first]
    ring *= math.sqrt(testsets.active_power(speech, rate) * 10 ** (-item["ratio_db"] / 10)
                      / max(testsets.active_power(ring, rate), 1e-20))
    (speech, ring), _ = testsets._scaled([speech, ring], item["level_dbfs"])
    return speech + ring, ring


def probabilities(tool, samples, rate):
    with tempfile.NamedTemporaryFile(suffix=".wav") as wav:
        sf.write(wav.name, samples.astype(np.float32), rate, subtype="FLOAT")
        out = subprocess.run([tool, "ringtone", wav.name, "--format", "frames", "--model",
                              os.path.join(REPO, MODEL)], check=True, capture_output=True, text=True).stdout
    return np.array([float(line.split("\t")[1]) for line in out.splitlines()])


def alarm_runs(p):
    """Runs of frames at or above the threshold, joined across gaps shorter than JOIN_FRAMES."""
    runs, last = 0, None
    for k in np.flatnonzero(p >= THRESHOLD):
        if last is None or k - last > JOIN_FRAMES:
            runs += 1
        last = k
    return runs


def run_rate(args, holdout, rate):
    tool = os.path.join(args.build_dir, "tools", "sonel")
    ring_dir = os.path.join(args.rings, "holdout", "ring")
    started = time.time()
    cells, delays = {}, {}
    for item in ring_items(holdout, ring_dir):
        mixture, ring = render_ring_item(item, holdout, ring_dir, rate)
        truth = ring_labels(ring * 32768.0, rate)
        p = probabilities(tool, mixture, rate)[:len(truth)]
        cells.setdefault(item["ratio_db"], []).append((p, truth[:len(p)]))
        onset = int(np.argmax(truth > 0))
        hits = np.flatnonzero(p[onset:] >= THRESHOLD)
        delays.setdefault(item["ring"], []).append(hits[0] * FRAME_S if len(hits) else float("inf"))
    print("%d Hz: ring set done (%.0f s)" % (rate, time.time() - started), flush=True)
    alarms = {}
    for item in testsets.plan(holdout):
        kind = {"clean": "speech alone", "noise": "noise alone", "mix": "speech in noise"}[item["set"]]
        group = "%s (%s)" % (kind, item["group"]) if "group" in item else kind
        p = probabilities(tool, testsets.render(item, holdout, rate)["input"], rate)
        a = alarms.setdefault(group, {"seconds": 0.0, "alarms": 0, "frames": 0, "flagged": 0})
        a["seconds"] += len(p) * FRAME_S
        a["alarms"] += alarm_runs(p)
        a["frames"] += len(p)
        a["flagged"] += int((p >= THRESHOLD).sum())
    print("%d Hz: no-ring set done (%.0f s)" % (rate, time.time() - started), flush=True)
    return cells, delays, alarms


def benchmark(build_dir):
    """CPU time per frame of the session benchmarks this page reports (speed.session_cpu_times)."""
    return speed.session_cpu_times(build_dir, "RingtoneFrame")


def page(results, times, args, command):
    lines = ["# Ringtone detection", "",
             "Generated by `%s`." % command, "",
             "Held-out rings: %s. They come from sources training never drew from (the freedesktop "
             "sound theme, Twinkle) and three ringtones of Jami that training did not hear "
             "(docs/training.md, Ringtone detector)." % ", ".join(sorted(os.listdir(os.path.join(args.rings, "holdout", "ring")))),
             "", "## Rings under speech", "",
             "AUC per 10 ms frame over ring and ringless frames of the ring set (each item: %g s of "
             "holdout speech, the ring from %g s for %g s), by the speech's active level over the "
             "ring's; detection delay from the first ring frame to the first frame at or above %.1f, "
             "over all ratios." % (ITEM_S, RING_START_S, RING_S, THRESHOLD), "",
             "| host | " + " | ".join("%+d dB" % r for r in RATIOS_DB) + " | all |",
             "|---|" + "---|" * (len(RATIOS_DB) + 1)]
    for rate, (cells, delays, _) in results:
        row = [auc(np.concatenate([p for p, _ in cells[r]]), np.concatenate([t for _, t in cells[r]])) for r in RATIOS_DB]
        everything = [c for r in RATIOS_DB for c in cells[r]]
        row.append(auc(np.concatenate([p for p, _ in everything]), np.concatenate([t for _, t in everything])))
        lines.append("| %d Hz | %s |" % (rate, " | ".join("%.3f" % a for a in row)))
    lines += ["", "Detection delay by ring (median over its items; *missed*: never at 0.5 while it sounds):", "",
              "| host | ring | median delay s | within 0.5 s | missed |", "|---|---|---|---|---|"]
    for rate, (_, delays, _) in results:
        for ring, d in sorted(delays.items()):
            d = np.array(d)
            found = d[np.isfinite(d)]
            lines.append("| %d Hz | %s | %s | %d / %d | %d |" % (
                rate, ring, "%.2f" % np.median(found) if len(found) else "-", (d <= TARGET_DELAY_S).sum(), len(d),
                (~np.isfinite(d)).sum()))
    lines += ["", "## No ring: false alarms", "",
              "| host | audio | hours | false alarms | per hour | frames flagged |", "|---|---|---|---|---|---|"]
    for rate, (_, _, alarms) in results:
        total = {"seconds": 0.0, "alarms": 0, "frames": 0, "flagged": 0}
        for group, a in sorted(alarms.items()):
            for k in total:
                total[k] += a[k]
            lines.append("| %d Hz | %s | %.2f | %d | %.1f | %.2f %% |" % (
                rate, group, a["seconds"] / 3600, a["alarms"], a["alarms"] / (a["seconds"] / 3600),
                100.0 * a["flagged"] / a["frames"]))
        lines.append("| %d Hz | all | %.2f | %d | %.1f | %.2f %% |" % (
            rate, total["seconds"] / 3600, total["alarms"], total["alarms"] / (total["seconds"] / 3600),
            100.0 * total["flagged"] / total["frames"]))

    lines += ["", "## Against the targets", "", "| target | " + " | ".join("%d Hz" % r for r, _ in results) + " |",
              "|---|" + "---|" * len(results)]

    def worst_auc(cells):
        return min(auc(np.concatenate([p for p, _ in cells[r]]), np.concatenate([t for _, t in cells[r]]))
                   for r in RATIOS_DB)

    def alarm_rate(alarms):
        return sum(a["alarms"] for a in alarms.values()) / (sum(a["seconds"] for a in alarms.values()) / 3600)

    def within(delays):
        d = np.concatenate([np.array(v) for v in delays.values()])
        return float(np.mean(d <= TARGET_DELAY_S))

    verdict = lambda ok: "met" if ok else "missed"  # noqa: E731
    lines.append("| AUC >= %.2f at every ratio from 0 to 20 dB | %s |" % (TARGET_AUC, " | ".join(
        "lowest %.3f (%s)" % (worst_auc(c), verdict(worst_auc(c) >= TARGET_AUC)) for _, (c, _, _) in results)))
    lines.append("| fewer than %g false alarm per hour without a ring | %s |" % (TARGET_ALARMS_PER_HOUR, " | ".join(
        "%.1f (%s)" % (alarm_rate(a), verdict(alarm_rate(a) < TARGET_ALARMS_PER_HOUR)) for _, (_, _, a) in results)))
    lines.append("| detection within %.1f s | %s |" % (TARGET_DELAY_S, " | ".join(
        "%.0f %% of rings (%s)" % (100 * within(d), verdict(within(d) == 1.0)) for _, (_, d, _) in results)))
    lines.append("| zero allocations per frame | %s |" % " | ".join(
        "0 (test RingtoneSession.EveryRateAndDurationGivesTheMeanOfItsHopsWithoutAllocating)" for _ in results))

    def cost(rate):
        t = times.get("BM_RingtoneFrame/host_hz:%d" % rate)
        return "not measured" if t is None else "%.1f µs (%s)" % (t, verdict(t <= TARGET_FRAME_US))
    lines.append("| at most %g µs per frame | %s |" % (TARGET_FRAME_US, " | ".join(cost(r) for r, _ in results)))
    lines.append("")
    if times:
        lines += ["Per-frame cost: CPU time, median of five repetitions of `%s --benchmark_filter=RingtoneFrame` "
                  "(a ringtone session with the shipped model, 10 ms frames) on the machine that ran this page, "
                  "whose load average was %.1f on %d cores as it started." % (
                      os.path.relpath(os.path.join(args.build_dir, "bench", "sonel_session_bench"), REPO),
                      times["load"], times["cores"]), ""]
    return "\n".join(lines)


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--rings", required=True, help="output folder of tools/train/ringtone_data.sh")
    p.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    p.add_argument("--data-dir", default=DEFAULT_DATA)
    p.add_argument("--extra-data", default=os.environ.get(testsets.EXTRA_DATA_ENV))
    p.add_argument("--rates", default="16000,48000")
    p.add_argument("--no-benchmark", action="store_true", help="leave the per-frame cost out")
    args = p.parse_args(argv)
    args.build_dir = os.path.abspath(args.build_dir)
    holdout = testsets.Holdout(args.data_dir, args.extra_data)
    times = {} if args.no_benchmark else benchmark(args.build_dir)
    results = [(rate, run_rate(args, holdout, rate)) for rate in map(int, args.rates.split(","))]
    command = pages.command_line("ringtone_eval.py", argv)
    pages.write("ringtone.md", page(results, times, args, command))
    return 0


if __name__ == "__main__":
    sys.exit(main())
