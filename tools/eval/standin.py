"""Untrained stand-in for the Sonel model, so the harness runs end to end before a trained model
exists: a random v0.0.5 network of the shipped geometry (bins 1 ... N/2; compress rate 4 and 256
hidden units at 32 kHz, 3 and 192 at 16 kHz; two past frames; two hidden layers), calibrated by
the parity-case generator so its gains spread over (0, 1). It removes no noise on purpose; its
scores only show that the pipeline works, and its cost matches a shipped model's.
"""

import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "reference"))
import make_parity_case as parity  # noqa: E402

SEED = 5
MODEL_NAME_PREFIX = "untrained-stand-in"
GEOMETRY = {32000: (4, 256), 16000: (3, 192)}  # rate: (compress rate, hidden units)
LAYERS = 2


def write(path, rate_hz=32000):
    compress_rate, hidden = GEOMETRY[rate_hz]
    hop = rate_hz // 100
    rng = np.random.default_rng(SEED)
    # The parity generator builds its band layout from this module constant.
    parity.COMPRESS_RATE = compress_rate
    records = parity.model_records(rate_hz, rng, hidden, LAYERS, filter_range=(1, hop), controls={})
    records = parity.calibrate(records, parity.test_signal(rate_hz, rng), rng)
    records["ModelName"] = parity.sw.Record(parity.sw.STRING, "%s-%d" % (MODEL_NAME_PREFIX, rate_hz))
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    parity.sw.WeightWriter(records).write_file(path)
