#!/usr/bin/python3
"""Adds the layer-normalised model files to the model targets' seed corpora: a v0.0.6 cleaner,
a v0.0.7 cleaner (GRU and output layer in two groups), a v0.0.7 cleaner with its own voice
detector, and a ringtone detector, each written by the NumPy reference's parity-case writer with
4-unit layers, so the fuzzer's mutations land in the records that shape the network (counts,
shapes, groups, the detector's settings) rather than in kilobytes of weights. Run after a change
to those formats, with the build whose key enciphers the blobs:

    tests/fuzz/make_layer_norm_seeds.py BUILD_DIR tests/fuzz/corpus
"""

import argparse
import os
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "..", "tools", "reference"), os.path.join(HERE, "..", "..", "tools")]

import make_ringtone_parity_case as ringtone_case  # noqa: E402
import make_v0_0_6_parity_case as cleaner_case  # noqa: E402
import sonel_weights as sw  # noqa: E402

RATE = 16000
WIDTH = 4  # every layer; the two groups of a v0.0.7 case split it


def plain_body(writer):
    """The body of an enciphered file before the cipher: what set_model_blob_body enciphers."""
    stream = writer.to_stream()
    pad = -len(stream) % sw.CIPHER_BLOCK_BYTES
    return sw._u32(len(stream)) + sw._u32(pad) + bytes(8) + stream + bytes(pad)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build_dir", help="build folder whose CMake cache holds SONEL_TEA_KEY")
    parser.add_argument("corpus", help="tests/fuzz/corpus")
    args = parser.parse_args(argv)
    key = sw.key_from_build(args.build_dir)
    cleaner_case.INPUT_WIDTH = cleaner_case.HIDDEN = cleaner_case.OUTPUT_WIDTH = WIDTH
    ringtone_case.INPUT_WIDTH = ringtone_case.HIDDEN = WIDTH
    ringtone_case.OUTPUT_WIDTHS = (WIDTH, 1)
    cases = {
        "layer-norm-0.0.6-16k": lambda d: cleaner_case.write_case(d, RATE, 1, gen=cleaner_case.nc6),
        "layer-norm-0.0.7-16k": lambda d: cleaner_case.write_case(d, RATE, 2, gen=cleaner_case.nc7),
        "layer-norm-0.0.7-vad-16k": lambda d: cleaner_case.write_case(d, RATE, 3, gen=cleaner_case.nc7vad),
        "ringtone-16k": lambda d: ringtone_case.write_case(d, 4, RATE, 1),
    }
    for name, write_case in cases.items():
        with tempfile.TemporaryDirectory() as folder:
            write_case(folder)
            writer = sw.WeightWriter(sw.read_file(os.path.join(folder, "model.vlw")))
        for target, suffix, data in (("set_model_blob", ".sw", writer.to_enciphered(key)),
                                     ("set_model_blob_body", ".body", plain_body(writer))):
            with open(os.path.join(args.corpus, target, name + suffix), "wb") as out:
                out.write(data)
        print("%s: %d bytes of records" % (name, len(writer.to_stream())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
