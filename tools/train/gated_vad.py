#!/usr/bin/python3
"""Trains the voice detector that gates a v0.0.7 cleaner and writes its records, which
export.py --detector joins to a trained 0.0.7 cleaner (docs/design.md, Noise cleaner with voice
detector v0.0.7).

    gated_vad.py --state-dir /root/sonel-train/gvad-16k --rate 16000 [--extra-data DIR]
    gated_vad.py --state-dir /root/sonel-train/gvad-16k --rate 16000 --export gvad-16k.vlw
    export.py --checkpoint CLEANER/checkpoint.pt --detector gvad-16k.vlw --out gated-16k.vlw

The detector runs at the cleaner's rate (so the library needs no converter for it) on the
cleaner's geometry: 20 ms Hann frames every 10 ms hop, bins 1 to Nyquist, the default compress
rate 3 and epsilon 0.001, PREVIEW frames of context; its features come from the reference
detector's front end (tools/reference/nc_v0_0_7_vad.py), the one CI holds to the library. The
network is the ringtone detector's 0.0.6 form (layer-normalised input layer, GRU, one normalised
hidden layer, logistic output). Mixtures, labels, the validation split, the loss and the
resumable schedule are vad.py's; a hop is labelled speech when either 10 ms half of its frame
is, since rejecting it silences both. Export folds into the last bias the point on the
validation mixtures that passes SPEECH_KEPT of the speech hops, so the cleaner's fixed decision
at 0.5 is that point: a speech hop the gate rejects is speech lost, most often an utterance's
first hop, while a noise hop it passes is still cleaned.
"""

import argparse
import sys

import numpy as np

import vad  # puts tools/reference on the path
from ringtone import RingtoneNetwork, network_arrays

import nc_v0_0_7_vad as nc7vad  # noqa: E402

sw = vad.sw
F32 = np.float32
PREVIEW = 4
WIDTHS = (64, 64, 32)  # input layer, GRU, hidden output layer
SD_FLOOR = 0.05
SPEECH_KEPT = 0.99
RATES = (8000, 16000, 24000, 32000)


def settings_records(rate):
    """The detector's settings records at `rate` (the cleaner's geometry)."""
    hop, R = rate // 100, sw.Record
    bands = nc7vad.nc.BandLayout(hop + 1, 1, hop, nc7vad.DEFAULT_COMPRESS_RATE).count
    return {"VadVersion": R(sw.STRING, "0.0.1"), "VadSampleRate": R(sw.UINT, rate),
            "VadFrameLength": R(sw.UINT, 2 * hop), "VadStep": R(sw.UINT, hop), "VadFiltrBegin": R(sw.UINT, 1),
            "VadFiltrEnd": R(sw.UINT, hop + 1), "VadPreviewFrames": R(sw.UINT, PREVIEW),
            "VadCoefficientNumber": R(sw.UINT, bands)}


class GatedDetector:
    """What the gating detector is trained on and how it is written (vad.main's detector)."""

    def __init__(self, rate):
        self.rate = rate
        self.front = nc7vad.DetectorFrontEnd(settings_records(rate))

    def features(self, signal):
        return self.front.contexts(signal)

    def labels(self, target):
        halves = vad.speech_labels(target, self.rate)
        return np.maximum(halves, np.r_[F32(0), halves[:-1]])

    def normalisation(self, features):
        """VadMU and VadSD (a deviation): one value per network input."""
        return features.mean(0).astype(F32), (features.std(0) + SD_FLOOR).astype(F32)

    def inputs(self, features, mu, sd):
        return ((features - mu) / sd).astype(F32)

    def network(self):
        return RingtoneNetwork(WIDTHS, self.front.inputs)

    def records(self, model, mu, sd, threshold):
        """The detector's records with `threshold` (a raw score) moved to the logistic's 0.5."""
        arrays = list(network_arrays(model))
        arrays[9] = arrays[9][:-1] + [arrays[9][-1] - F32(threshold)]  # the last layer's bias
        records = settings_records(self.rate)
        records.update(nc7vad.lngru.records(mu, sd, *arrays, names=nc7vad.DETECTOR_NAMES))
        return records

    def calibration(self, scores, labels):
        """(lowest score, the gate's point, highest score): the point is the highest score that
        SPEECH_KEPT of the speech hops reach. Printed with it, from the validation mixtures (one
        row each): the share of speech-free hops it passes, and for the mixtures without speech,
        the share of their hops it passes and of them it silences whole (what a cleaner behind
        the gate needs to give silence on noise alone)."""
        point = float(np.quantile(scores[labels > 0], 1.0 - SPEECH_KEPT))
        noise_only = ~labels.any(axis=1)
        passed = scores[noise_only] >= point
        return (float(scores.min()), point, float(scores.max())), {
            "speech_kept": float(np.mean(scores[labels > 0] >= point)),
            "noise_passed": float(np.mean(scores[labels == 0] >= point)),
            "noise_only_hops_passed": float(passed.mean()) if noise_only.any() else None,
            "noise_only_silenced": float(np.mean(~passed.any(axis=1))) if noise_only.any() else None}

    def write(self, path, key, model, mu, sd, thresholds, timestamp):
        sw.WeightWriter(self.records(model, mu, sd, thresholds[1])).write_file(path, key)
        nc7vad.Detector(sw.read_file(path, key))  # the reference accepts what was written


def main(argv=None):
    """--rate (the cleaner's, default 16000), then vad.py's options."""
    p = argparse.ArgumentParser(add_help=False)
    p.add_argument("--rate", type=int, default=16000, choices=RATES)
    known, rest = p.parse_known_args(argv)
    return vad.main(rest, GatedDetector(known.rate), __doc__)


if __name__ == "__main__":
    sys.exit(main())
