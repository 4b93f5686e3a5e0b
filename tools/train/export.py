#!/usr/bin/python3
"""Writes a trained checkpoint as a model file (".vlw" plain, ".sw" enciphered) of the generation
it was trained for (0.0.5, or 0.0.6 and 0.0.7 for runs of train.py --generation 0.0.6 / 0.0.7).

    export.py --checkpoint STATE_DIR/checkpoint.pt --out models/sonel-nc-32k.vlw \
              [--out models/sonel-nc-32k.sw --build-dir build] [--detector DETECTOR.vlw]

With --detector, a 0.0.7 cleaner is written gated by its own voice detector: the file holds the
cleaner's records (its network records that the detector shares a name with prefixed "Nc") and
the detector's settings and network records as DETECTOR.vlw holds them, with "VadVersion"
(docs/design.md, Noise cleaner with voice detector v0.0.7).

The ".sw" form needs the cipher key of a build folder (its CMakeCache.txt). Every file written
is read back through the reference cleaner's loader, which checks the records against each other.
"""

import argparse
import sys
import time

import torch

import network as net
import nc_v0_0_7_vad as nc7vad

sw = net.sw


def load_checkpoint(path):
    """Geometry, network (evaluation mode) and MU/SD of a training checkpoint."""
    ck = torch.load(path, map_location="cpu")
    geometry = net.geometry_of(ck["args"])
    model = net.new_network(geometry)
    model.load_state_dict(ck["network"])
    model.eval()
    return geometry, model, ck["mu"], ck["sd"]


def write_model(path, geometry, model, mu, sd, name, timestamp=None, key=None, detector=None):
    """Writes the model file and returns it as the reference cleaner of its generation loads it;
    with `detector` (a voice detector's records), the gated v0.0.7 cleaner."""
    records = net.model_records(geometry, model, mu, sd, name, timestamp=timestamp)
    if detector is not None:
        if geometry.generation != nc7vad.VERSION:
            raise ValueError("only a 0.0.7 cleaner is gated by a detector, not %s" % geometry.generation)
        records = nc7vad.gated_records(records, detector)
    writer = sw.WeightWriter(records)
    writer.write_file(path, key)
    read_back = sw.read_file(path, key)
    if sw.WeightWriter(read_back).to_stream() != writer.to_stream():
        raise ValueError("%s did not read back unchanged" % path)
    return nc7vad.Model(read_back) if detector is not None else net.reference_model(read_back)


def main(argv=None):
    p = argparse.ArgumentParser(description="Export a training checkpoint as a model file.")
    p.add_argument("--checkpoint", required=True)
    p.add_argument("--out", action="append", required=True, help="model file (.vlw or .sw); repeatable")
    p.add_argument("--build-dir", help="build folder whose CMakeCache.txt holds SONEL_TEA_KEY (for .sw)")
    p.add_argument("--name", help="ModelName record (default sonel-nc-<rate>k)")
    p.add_argument("--timestamp", help="TimeStamp record (default: now, UTC, YYYYMMDDTHHMMSS)")
    p.add_argument("--detector", help="model file with a voice detector's records, to gate a 0.0.7 cleaner")
    args = p.parse_args(argv)
    if any(o.endswith(".sw") for o in args.out) and not args.build_dir:
        p.error("the enciphered form needs --build-dir")
    key = sw.key_from_build(args.build_dir) if args.build_dir else None

    detector = sw.read_file(args.detector) if args.detector else None
    geometry, model, mu, sd = load_checkpoint(args.checkpoint)
    name = args.name or "sonel-nc-%dk" % (geometry.rate // 1000)
    # One stamp for every form written, so the .vlw and the .sw name the same model.
    timestamp = args.timestamp or time.strftime("%Y%m%dT%H%M%S", time.gmtime())
    for out in args.out:
        loaded = write_model(out, geometry, model, mu, sd, name, timestamp, key, detector)
        print("wrote %s (%s, %s, %d Hz, %d bands, hidden %s)" % (out, name, geometry.generation, geometry.rate,
                                                                 loaded.bands.count, geometry.hidden))
    return 0


if __name__ == "__main__":
    sys.exit(main())
