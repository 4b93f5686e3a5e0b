#!/usr/bin/python3
"""Read and write Sonel weight files from Python (training export, tests).

A weight file is a stream of named, typed records. The plain form (".vlw") is the stream as it
is; the enciphered form (".sw", and every in-memory blob) is a 16-byte plain header followed by a
TEA-enciphered body. The writer here produces the same bytes as the library's WeightWriter for
the same records added in the same order.

The cipher key is a build setting (CMake cache variable SONEL_TEA_KEY). It is never spelled out
here: pass it as four integers, or read it from a build folder with key_from_build().

Command line:
    sonel_weights.py write RECORDS.json OUT.(vlw|sw) [--build-dir DIR]
    sonel_weights.py convert IN OUT [--build-dir DIR]

RECORDS.json is a list of {"name": ..., "type": CODE, "value": ...}. Floats may be numbers or
hexadecimal strings ("0x1.8p+1", exact); a matrix is {"rows": R, "columns": C, "data": [...]}
with data in row-major order; list types are JSON lists of those values.
"""

import argparse
import json
import os
import re
import struct
import sys
import itertools
from collections import namedtuple

import numpy as np

# Record type codes.
FLOAT, UINT, STRING, VECTOR, MATRIX, VECTOR_LIST, MATRIX_LIST = range(7)

Record = namedtuple("Record", "type value")

MAGIC = b"SMW\0"
HEADER_BYTES = 16
BODY_PREFIX_BYTES = 16
CIPHER_BLOCK_BYTES = 8
WRITER_FORMAT_VERSION = 1
TEA_DELTA = 0x9E3779B9
TEA_CYCLES = 32
U32_MASK = 0xFFFFFFFF

_temp_counter = itertools.count()

CORRUPTED = "Corrupted weight file!"
BAD_HEADER = "Corrupted weight header!"


class WeightFileError(ValueError):
    """A weight file that cannot be read; the text is the library's own message."""


def key_from_build(build_dir):
    """The four TEA key words from SONEL_TEA_KEY in BUILD_DIR/CMakeCache.txt."""
    with open(os.path.join(build_dir, "CMakeCache.txt"), encoding="utf-8") as cache:
        for line in cache:
            match = re.match(r"SONEL_TEA_KEY:\w+=(.*)$", line.strip())
            if match:
                words = tuple(int(word, 0) for word in match.group(1).split(";"))
                if len(words) != 4 or any(not 0 <= w <= U32_MASK for w in words):
                    raise ValueError("SONEL_TEA_KEY must be four 32-bit words")
                return words
    raise ValueError("no SONEL_TEA_KEY in the CMake cache of " + build_dir)


def _tea(words, key, decipher):
    """TEA over an even-length uint32 array, all blocks at once (y = even, z = odd words)."""
    if key is None or len(key) != 4:
        raise ValueError("the TEA key is four 32-bit words (see key_from_build)")
    y, z = words[0::2].copy(), words[1::2].copy()
    k0, k1, k2, k3 = (np.uint32(k) for k in key)
    four, five = np.uint32(4), np.uint32(5)
    sums = [(TEA_DELTA * (i + 1)) & U32_MASK for i in range(TEA_CYCLES)]
    for s in reversed(sums) if decipher else sums:
        s = np.uint32(s)
        if decipher:
            z -= ((y << four) + k2) ^ (y + s) ^ ((y >> five) + k3)
            y -= ((z << four) + k0) ^ (z + s) ^ ((z >> five) + k1)
        else:
            y += ((z << four) + k0) ^ (z + s) ^ ((z >> five) + k1)
            z += ((y << four) + k2) ^ (y + s) ^ ((y >> five) + k3)
    out = np.empty_like(words)
    out[0::2], out[1::2] = y, z
    return out


def _text(value):
    return value if isinstance(value, bytes) else value.encode("utf-8", "surrogateescape")


def _u32(value):
    return struct.pack("<I", value)


def _floats(values):
    array = np.asarray(values, dtype="<f4")
    return _u32(array.size) + array.tobytes()


def _matrix(value):
    array = np.ascontiguousarray(value, dtype="<f4")
    if array.ndim != 2:
        raise ValueError("a matrix record needs a 2-D array")
    return _u32(array.shape[0]) + _u32(array.shape[1]) + array.tobytes()


def _vector(value):
    if np.ndim(value) != 1:
        raise ValueError("a vector record needs a 1-D array")
    return _floats(value)


_ENCODERS = {
    FLOAT: lambda v: np.float32(v).astype("<f4").tobytes(),
    UINT: _u32,
    STRING: lambda v: _u32(len(_text(v))) + _text(v),
    VECTOR: _vector,
    MATRIX: _matrix,
    VECTOR_LIST: lambda v: _u32(len(v)) + b"".join(_vector(e) for e in v),
    MATRIX_LIST: lambda v: _u32(len(v)) + b"".join(_matrix(e) for e in v),
}


class WeightWriter:
    """Records in the order they are added; a name may appear once."""

    def __init__(self, records=None):
        self._chunks = []
        self._names = set()
        for name, record in (records or {}).items():
            self.add(name, record.type, record.value)

    def add(self, name, type_code, value):
        raw_name = _text(name)
        if raw_name in self._names:
            raise ValueError("weight record %r added twice" % (name,))
        body = _ENCODERS[type_code](value)
        self._chunks.append(_u32(len(raw_name)) + raw_name + _u32(type_code) + body)
        self._names.add(raw_name)

    def to_stream(self):
        return b"".join(self._chunks)

    def to_enciphered(self, key):
        stream = self.to_stream()
        pad = -len(stream) % CIPHER_BLOCK_BYTES
        body = _u32(len(stream)) + _u32(pad) + bytes(8) + stream + bytes(pad)
        words = _tea(np.frombuffer(body, dtype="<u4").astype(np.uint32), key, decipher=False)
        header = MAGIC + _u32(WRITER_FORMAT_VERSION) + _u32(len(stream)) + _u32(pad)
        return header + words.astype("<u4").tobytes()

    def write_file(self, path, key=None):
        """By extension, as the library: ".sw" enciphered (needs the key), ".vlw" plain."""
        extension = _extension(path)
        if extension not in ("sw", "vlw"):
            raise ValueError("a weight file ends in .sw or .vlw: " + path)
        data = self.to_enciphered(key) if extension == "sw" else self.to_stream()
        # Renamed over the target only once complete, so a failed write leaves no partial file.
        temp = "%s.tmp.%d.%d" % (path, os.getpid(), next(_temp_counter))
        fd = os.open(temp, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o666)
        try:
            with os.fdopen(fd, "wb") as out:
                out.write(data)
                out.flush()
                os.fsync(out.fileno())
            os.replace(temp, path)
        except BaseException:
            if os.path.exists(temp):
                os.unlink(temp)
            raise


class _Cursor:
    """Reads that run past the end raise _EndOfData, checked before any array is built."""

    class EndOfData(Exception):
        pass

    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, size):
        if size > len(self.data) - self.at:
            raise self.EndOfData
        chunk = self.data[self.at:self.at + size]
        self.at += size
        return chunk

    def u32(self):
        return struct.unpack("<I", self.take(4))[0]

    def floats(self, count):
        return np.frombuffer(self.take(4 * count), dtype="<f4").astype(np.float32)

    def vector(self):
        return self.floats(self.u32())

    def matrix(self):
        rows, columns = self.u32(), self.u32()
        return self.floats(rows * columns).reshape(rows, columns)

    def text(self):
        return self.take(self.u32()).decode("utf-8", "surrogateescape")

    def listed(self, read_one, min_bytes):
        count = self.u32()
        if count > (len(self.data) - self.at) // min_bytes:
            raise self.EndOfData
        return [read_one() for _ in range(count)]


_DECODERS = {
    FLOAT: lambda c: float(c.floats(1)[0]),
    UINT: _Cursor.u32,
    STRING: _Cursor.text,
    VECTOR: _Cursor.vector,
    MATRIX: _Cursor.matrix,
    VECTOR_LIST: lambda c: c.listed(c.vector, 4),
    MATRIX_LIST: lambda c: c.listed(c.matrix, 8),
}


def read_stream(data):
    """Records of a plain stream, in file order. As in the library, a record cut off by the end
    of the data ends the stream without it, an unknown type code is skipped without a body, and a
    repeated name replaces the earlier record (keeping the earlier position)."""
    records = {}
    cursor = _Cursor(bytes(data))
    try:
        while True:
            name = cursor.take(cursor.u32()).decode("utf-8", "surrogateescape")
            type_code = cursor.u32()
            if type_code in _DECODERS:
                records[name] = Record(type_code, _DECODERS[type_code](cursor))
    except _Cursor.EndOfData:
        return records


def read_enciphered(data, key):
    data = bytes(data)
    if len(data) < HEADER_BYTES + BODY_PREFIX_BYTES:
        raise WeightFileError(CORRUPTED)
    if data[:4] != MAGIC:
        raise WeightFileError(BAD_HEADER)
    body = data[HEADER_BYTES:]
    # An odd word count deciphers one word further (the trailing bytes and zeros), as the
    # library does; bytes past the last whole block that no count reaches stay as they are.
    words = len(body) // 4
    ciphered = words + words % 2
    padded = body + bytes(4 * ciphered + 4 - len(body))
    cipher_words = np.frombuffer(padded[:4 * ciphered], dtype="<u4").astype(np.uint32)
    plain = _tea(cipher_words, key, decipher=True)
    body = (plain.astype("<u4").tobytes() + padded[4 * ciphered:])[:len(body)]
    pad = struct.unpack_from("<I", body, 4)[0]
    if pad > len(body) - BODY_PREFIX_BYTES:
        raise WeightFileError(CORRUPTED)
    return read_stream(body[BODY_PREFIX_BYTES:len(body) - pad])


def read_file(path, key=None):
    """Records of an ".sw" (needs the key) or ".vlw" file."""
    with open(path, "rb") as source:
        data = source.read()
    extension = _extension(path)
    if extension == "sw":
        return read_enciphered(data, key)
    if extension == "vlw":
        return read_stream(data)
    raise WeightFileError("Invalid weight file!")


def _extension(path):
    return path.rpartition(".")[2] if "." in path else ""


def _json_value(type_code, value):
    def number(x):
        return float.fromhex(x) if isinstance(x, str) else float(x)

    def matrix(m):
        data = np.array([number(x) for x in m["data"]], dtype=np.float32)
        return data.reshape(m["rows"], m["columns"])

    def vector(v):
        return np.array([number(x) for x in v], dtype=np.float32)

    return {
        FLOAT: number,
        UINT: int,
        STRING: str,
        VECTOR: vector,
        MATRIX: matrix,
        VECTOR_LIST: lambda v: [vector(e) for e in v],
        MATRIX_LIST: lambda v: [matrix(e) for e in v],
    }[type_code](value)


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write or convert Sonel weight files.")
    parser.add_argument("--build-dir", help="build folder whose CMakeCache.txt holds SONEL_TEA_KEY")
    commands = parser.add_subparsers(dest="command", required=True)
    write = commands.add_parser("write", help="write the records described in a JSON file")
    write.add_argument("records")
    write.add_argument("output")
    convert = commands.add_parser("convert", help="read a weight file and write it in another form")
    convert.add_argument("input")
    convert.add_argument("output")
    args = parser.parse_args(argv)

    key = key_from_build(args.build_dir) if args.build_dir else None
    paths = [args.output] + ([args.input] if args.command == "convert" else [])
    if key is None and any(_extension(path) == "sw" for path in paths):
        parser.error("the enciphered form needs --build-dir")
    if args.command == "write":
        writer = WeightWriter()
        with open(args.records, encoding="utf-8") as listing:
            for entry in json.load(listing):
                writer.add(entry["name"], entry["type"], _json_value(entry["type"], entry["value"]))
    else:
        writer = WeightWriter(read_file(args.input, key))
    writer.write_file(args.output, key)
    return 0


if __name__ == "__main__":
    sys.exit(main())
