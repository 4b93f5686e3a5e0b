#!/usr/bin/python3
"""The last quality run's mixture scores split by talker group: full-band (RAVDESS) and 8 kHz
(speechocean762) speech, mean ΔSI-SDR and ESTOI per input SNR for Sonel, RNNoise and the input.

    tools/eval/by_talker.py --build-dir build-eval [--rate 48000]

Reads BUILD/eval/scores.json and the test set's manifest, as `sonel_eval.py quality` left them.
"""

import argparse
import json
import os
from collections import defaultdict

import numpy as np

SYSTEMS = ("noisy", "sonel", "rnnoise")


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build-dir", required=True)
    p.add_argument("--rate", type=int, default=48000)
    args = p.parse_args()
    folder = os.path.join(args.build_dir, "eval")
    with open(os.path.join(folder, "scores.json"), encoding="utf-8") as f:
        rows = json.load(f)["rows"]
    with open(os.path.join(folder, "sets", str(args.rate), "manifest.json"), encoding="utf-8") as f:
        items = json.load(f)
    scores = defaultdict(list)
    for row in rows:
        if row["rate_hz"] != args.rate or row["set"] != "mix":
            continue
        talker = "full-band" if "ravdess" in items[row["id"]]["item"]["speech"][0] else "8 kHz"
        scores[(row["system"], talker, row["snr_db"])].append((row["si_sdr"] - row["si_sdr_in"], row["estoi"]))
    snrs = sorted({key[2] for key in scores})
    print("talker     system    measure  " + " ".join("%7d" % s for s in snrs) + "  (dB SNR; mixtures)")
    for talker in ("full-band", "8 kHz"):
        for measure, column in (("ΔSI-SDR", 0), ("ESTOI", 1)):
            for system in SYSTEMS:
                if system == "noisy" and column == 0:
                    continue
                values = [np.mean([v[column] for v in scores[(system, talker, s)]]) for s in snrs]
                print("%-10s %-9s %-8s " % (talker, system, measure) + " ".join("%7.2f" % v for v in values)
                      + "  (%d)" % len(scores[(system, talker, snrs[0])]))


if __name__ == "__main__":
    main()
