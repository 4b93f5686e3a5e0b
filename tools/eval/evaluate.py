"""Runs every system over the test sets and scores the outputs against the clean references.

Files live under BUILD/eval: sets/RATE/ holds the rendered items (float WAV: ID.wav is the
input, ID-ref.wav the clean speech of a mixture), work/RATE/ the raw float32 streams the runners
read and write while one system is scored, and examples/RATE/ the aligned outputs for one
mixture, kept for the spectrogram.
"""

import json
import os
import shutil
import subprocess

import numpy as np
import soundfile as sf

import align
import metrics
import testsets

NOISY = "noisy"  # the unprocessed input, scored like a system
CPP_SYSTEMS = ("speexdsp-15", "speexdsp-30", "webrtc-high", "webrtc-veryhigh")
RNNOISE = "rnnoise"
SONEL = "sonel"
SYSTEMS = (NOISY,) + CPP_SYSTEMS + (RNNOISE, SONEL)
RNNOISE_RATE_HZ = 48000
# Zeros fed after each file; every system's delay must stay below the search range, and the
# search range below the flush, so the aligned output never reads past what the system produced.
FLUSH_MS = 100
MAX_DELAY_MS = 80
EXAMPLE_ID = "mix-unseen-snr+05-000"

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
RNNOISE_DIR = os.path.join(EVAL_DIR, "rnnoise")


class Tools:
    """What runs the systems: the sonel-eval-run binary, the Sonel model files, Node.js.
    `variants` ({system name: model files}) are further Sonel systems, each with its own models
    registered instead of `models`: model generations measured side by side."""

    def __init__(self, runner, models, variants=None):
        self.runner, self.models, self.variants = runner, models, variants or {}

    def run(self, system, rate_hz, pairs, scratch):
        """Writes each (input, output) pair's output; raw float32 files at rate_hz."""
        os.makedirs(scratch, exist_ok=True)
        listing = os.path.join(scratch, "list.txt")
        if system == RNNOISE and rate_hz != RNNOISE_RATE_HZ:
            wide = [(os.path.join(scratch, "%d-in.f32" % i), os.path.join(scratch, "%d-out.f32" % i))
                    for i in range(len(pairs))]
            for (source, _), (wide_in, _) in zip(pairs, wide):
                _write_raw(wide_in, testsets.resample(_read_raw(source), rate_hz, RNNOISE_RATE_HZ))
            self.run(system, RNNOISE_RATE_HZ, wide, os.path.join(scratch, "wide"))
            for (_, target), (wide_in, wide_out) in zip(pairs, wide):
                _write_raw(target, testsets.resample(_read_raw(wide_out), RNNOISE_RATE_HZ, rate_hz))
                os.remove(wide_in)
                os.remove(wide_out)
            return
        with open(listing, "w", encoding="utf-8") as out:
            out.writelines("%s\t%s\n" % pair for pair in pairs)
        if system == RNNOISE:
            if not os.path.isdir(os.path.join(RNNOISE_DIR, "node_modules", "@jitsi", "rnnoise-wasm")):
                raise RuntimeError("RNNoise is not installed: run tools/setup-debian.sh "
                                   "(or npm ci --prefix tools/eval/rnnoise)")
            command = ["node", os.path.join(RNNOISE_DIR, "denoise.mjs"), listing]
        else:
            variant = self.variants.get(system)
            command = [self.runner, SONEL if variant else system, str(rate_hz), listing]
            if system == SONEL or variant:
                command += model_args(variant or self.models)
        subprocess.run(command + ["--flush-ms", str(FLUSH_MS)], check=True, stdout=subprocess.DEVNULL)


def model_args(models):
    """Command-line arguments registering every model file with the C++ runners."""
    return [arg for path in models for arg in ("--model", path)]


def _read_raw(path):
    return np.fromfile(path, dtype="<f4")


def _write_raw(path, samples):
    np.asarray(samples, dtype="<f4").tofile(path)


def materialise(items, holdout, rate_hz, sets_dir):
    """Renders the items at rate_hz into sets_dir, skipping those already rendered from the same
    description; returns {id: level set in dBFS}."""
    os.makedirs(sets_dir, exist_ok=True)
    manifest_path = os.path.join(sets_dir, "manifest.json")
    manifest = {}
    if os.path.exists(manifest_path):
        with open(manifest_path, encoding="utf-8") as source:
            manifest = json.load(source)
    for item in items:
        path = os.path.join(sets_dir, item["id"] + ".wav")
        if manifest.get(item["id"], {}).get("item") == item and os.path.exists(path):
            continue
        rendered = testsets.render(item, holdout, rate_hz)
        sf.write(path, rendered["input"], rate_hz, subtype="FLOAT")
        if rendered["reference"] is not None and item["set"] == "mix":
            sf.write(os.path.join(sets_dir, item["id"] + "-ref.wav"), rendered["reference"], rate_hz,
                     subtype="FLOAT")
        manifest[item["id"]] = {"item": item, "level_dbfs": round(rendered["level_dbfs"], 3)}
    with open(manifest_path, "w", encoding="utf-8") as out:
        json.dump(manifest, out, indent=1, sort_keys=True)
    return {item["id"]: manifest[item["id"]]["level_dbfs"] for item in items}


def signals(item, sets_dir):
    """Input and clean reference (the input itself for the clean-only set, None for noise)."""
    signal, _ = sf.read(os.path.join(sets_dir, item["id"] + ".wav"), dtype="float64")
    if item["set"] == "mix":
        reference, _ = sf.read(os.path.join(sets_dir, item["id"] + "-ref.wav"), dtype="float64")
        return signal, reference
    return signal, signal if item["set"] == "clean" else None


def _scores(item, signal, reference, output, rate_hz):
    if item["set"] == "noise":
        return {"residual_db": metrics.level_change_db(signal, output)}
    if item["set"] == "clean":
        return {"si_sdr": metrics.si_sdr(reference, output),
                "estoi": metrics.estoi(reference, output, rate_hz)}
    stoi, estoi = metrics.stoi_and_estoi(reference, output, rate_hz)
    return {"si_sdr": metrics.si_sdr(reference, output), "si_sdr_in": metrics.si_sdr(reference, signal),
            "onset_si_sdr": metrics.onset_si_sdr(reference, output, rate_hz),
            "onset_si_sdr_in": metrics.onset_si_sdr(reference, signal, rate_hz),
            "stoi": stoi, "estoi": estoi, "seg_snr": metrics.segmental_snr(reference, output, rate_hz)}


def score_system(system, rate_hz, items, sets_dir, work_dir, tools, examples_dir):
    """Runs one system over the items at one rate; returns (delay in samples, score rows). The
    delay is the median over the clean-only items of the output's lag behind the input, and is
    removed from every output before scoring."""
    in_dir, out_dir = os.path.join(work_dir, "in"), os.path.join(work_dir, system)
    os.makedirs(out_dir, exist_ok=True)
    pairs = [(os.path.join(in_dir, i["id"] + ".f32"), os.path.join(out_dir, i["id"] + ".f32")) for i in items]
    if system != NOISY:
        tools.run(system, rate_hz, pairs, os.path.join(work_dir, "scratch"))
    max_delay = MAX_DELAY_MS * rate_hz / 1000.0

    def output_of(pair):
        return _read_raw(pair[1]).astype(np.float64)

    delay = 0.0
    if system != NOISY:
        lags = [align.estimate_delay(signals(item, sets_dir)[0], output_of(pair), max_delay)
                for item, pair in zip(items, pairs) if item["set"] == "clean"]
        if not lags:
            raise ValueError("delay estimation needs at least one clean-only item")
        delay = float(np.median(lags))
    rows = []
    for item, pair in zip(items, pairs):
        signal, reference = signals(item, sets_dir)
        output = signal if system == NOISY else align.advance(output_of(pair), delay, len(signal))
        if item["id"] == EXAMPLE_ID:
            os.makedirs(examples_dir, exist_ok=True)
            _write_raw(os.path.join(examples_dir, system + ".f32"), output)
            _write_raw(os.path.join(examples_dir, "clean.f32"), reference)
        row = {"rate_hz": rate_hz, "system": system, "set": item["set"], "id": item["id"]}
        for key in ("snr_db", "group"):
            if key in item:
                row[key] = item[key]
        row.update(_scores(item, signal, reference, output, rate_hz))
        rows.append(row)
    shutil.rmtree(out_dir)
    return delay, rows


def evaluate(items, holdout, eval_dir, rates, systems, tools, progress=print):
    """Scores of every system on every item at every rate, with the delays removed and the
    levels the test sets were rendered at."""
    result = {"rows": [], "delays": {}, "levels": {}}
    for rate_hz in rates:
        sets_dir = os.path.join(eval_dir, "sets", str(rate_hz))
        work_dir = os.path.join(eval_dir, "work", str(rate_hz))
        progress("%d Hz: rendering %d test items" % (rate_hz, len(items)))
        result["levels"][str(rate_hz)] = materialise(items, holdout, rate_hz, sets_dir)
        os.makedirs(os.path.join(work_dir, "in"), exist_ok=True)
        for item in items:
            signal, _ = signals(item, sets_dir)
            _write_raw(os.path.join(work_dir, "in", item["id"] + ".f32"), signal)
        result["delays"][str(rate_hz)] = {}
        for system in systems:
            progress("%d Hz: %s" % (rate_hz, system))
            delay, rows = score_system(system, rate_hz, items, sets_dir, work_dir, tools,
                                       os.path.join(eval_dir, "examples", str(rate_hz)))
            result["delays"][str(rate_hz)][system] = delay
            result["rows"] += rows
        shutil.rmtree(work_dir)
    return result
