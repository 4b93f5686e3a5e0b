#!/usr/bin/python3
"""NumPy reference of the v0.0.7 noise cleaner, written from docs/design.md (Noise cleaner v0.0.7):
the v0.0.5 cleaner's front end, frame loop and post-processing (nc_v0_0_5.py), with the
separable-dense GRU network (layer_norm_gru.py with grouped matrices) giving the band gains. Its
filter range is "FilterBegin" … "FilterEnd" (one past the last bin), and it reads one parameter,
"CONTROL_SONEL_COMPRESS_RATE_v0_0_7"; the rest of the post-processing keeps its defaults.

Command line (as nc_v0_0_5.py: raw little-endian float32 samples in the 16-bit range at the
model's rate, fed in 10 ms frames; the output has the input's length):

    nc_v0_0_7.py MODEL IN.f32 OUT.f32
"""

import sys

import nc_v0_0_6 as nc6

nc = nc6.nc
VERSION = "0.0.7"
KEYS = nc.ParameterKeys("SONEL_", "_v0_0_7", compress_prefix="SONEL_", tunable=False)


class Model(nc6.Model):
    """The records of a v0.0.7 cleaner: the v0.0.6 records, grouped matrices allowed, with the
    0.0.7 filter range and keys."""

    VERSION = VERSION
    KEYS = KEYS
    FILTER_RECORDS = ("FilterBegin", "FilterEnd", True)
    GROUPED = True

    def _read_network(self, records):
        if "VadVersion" in records and records["VadVersion"].value:
            raise ValueError("a cleaner with its own voice detector, not this cleaner")
        super()._read_network(records)


# Output of a fresh stream fed `signal` in 10 ms frames: the frame loop is the v0.0.5 cleaner's.
clean = nc.clean


if __name__ == "__main__":
    sys.exit(nc6.main(model_class=Model))
