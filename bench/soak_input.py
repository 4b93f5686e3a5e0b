#!/usr/bin/python3
"""Writes the soak's input: the evaluation's first two holdout mixtures per SNR and noise group,
two noise-only items per group and two clean-only items, rendered at RATE and concatenated as
raw float32 mono (what bench/soak.cpp loops).

    bench/soak_input.py RATE OUT [--data DIR] [--extra-data DIR]
"""
import argparse
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "eval"))
import testsets  # noqa: E402


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("rate", type=int)
    p.add_argument("out")
    p.add_argument("--data", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "shared", "data"))
    p.add_argument("--extra-data", default=os.environ.get(testsets.EXTRA_DATA_ENV))
    args = p.parse_args()
    holdout = testsets.Holdout(args.data, args.extra_data)
    items = testsets.plan(holdout, mixtures_per_snr=2, noise_items=2, clean_items=2)
    audio = np.concatenate([testsets.render(item, holdout, args.rate)["input"] for item in items])
    audio.astype("<f4").tofile(args.out)
    print("%s: %d items, %.1f s at %d Hz" % (args.out, len(items), len(audio) / args.rate, args.rate))


if __name__ == "__main__":
    main()
