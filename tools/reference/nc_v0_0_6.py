#!/usr/bin/python3
"""NumPy reference of the v0.0.6 noise cleaner, written from docs/design.md (Noise cleaner v0.0.6):
the v0.0.5 cleaner's front end, frame loop and post-processing (nc_v0_0_5.py), with the
layer-normalised GRU network (layer_norm_gru.py) giving the band gains. Its parameters are
"CONTROL_VELTA_<X>_v0_0_6".

Command line (as nc_v0_0_5.py: raw little-endian float32 samples in the 16-bit range at the
model's rate, fed in 10 ms frames; the output has the input's length):

    nc_v0_0_6.py MODEL IN.f32 OUT.f32
"""

import argparse
import sys

import numpy as np

import layer_norm_gru as lngru
import nc_v0_0_5 as nc

sw = nc.sw
F32 = np.float32
VERSION = "0.0.6"
KEYS = nc.ParameterKeys("VELTA_", "_v0_0_6")


class Model(nc.Model):
    """The records of a v0.0.6 cleaner: the v0.0.5 front-end records and the network's."""

    VERSION = VERSION
    KEYS = KEYS
    # The network's first step scales the context by MU and SD, one value per input.
    scales_features = False
    # Matrices narrower than their input split it into groups (the separable-dense form).
    GROUPED = False
    NETWORK_NAMES = lngru.NAMES

    def _read_network(self, records):
        if "RingtoneVersion" in records and records["RingtoneVersion"].value:
            raise ValueError("a ringtone detector, not a cleaner")
        self.network_weights = lngru.Weights(records, self.inputs, self.GROUPED, self.NETWORK_NAMES)
        if self.network_weights.outputs != self.bands.count:
            raise ValueError("the last layer gives %d values, not one per band (%d)"
                             % (self.network_weights.outputs, self.bands.count))

    def new_network(self):
        return Network(self)


class Network(lngru.Network):
    """Band gains in (0, 1) for one block's context of log band powers."""

    def __init__(self, model):
        super().__init__(model.network_weights)


# Output of a fresh stream fed `signal` in 10 ms frames: the frame loop is the v0.0.5 cleaner's.
clean = nc.clean


def main(argv=None, model_class=Model, clean_signal=None):
    parser = argparse.ArgumentParser(description="Clean raw float32 audio with the v%s reference."
                                     % model_class.VERSION)
    parser.add_argument("model", help="model weight file (.vlw)")
    parser.add_argument("input", help="raw little-endian float32 samples, 16-bit range, model rate")
    parser.add_argument("output", help="where the cleaned samples go, same format and length")
    args = parser.parse_args(argv)
    signal = np.fromfile(args.input, dtype="<f4")
    (clean_signal or clean)(model_class.load(args.model), signal).astype("<f4").tofile(args.output)
    return 0


if __name__ == "__main__":
    sys.exit(main())
