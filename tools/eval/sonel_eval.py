#!/usr/bin/python3
"""Sonel's evaluation and benchmark harness: objective quality and speed against RNNoise, WebRTC
and SpeexDSP.

    sonel_eval.py quality [--build-dir DIR] [--extra-data DIR] [--model PATH]... [--rates 48000,16000]
                          [--systems A,B] [--variant NAME=PATH[,PATH]]... [--from-scores]
        Renders the test sets from the holdout corpus, runs every system over them, and writes
        docs/quality.md and docs/quality/*.png (--from-scores: from the last run's scores).
    sonel_eval.py smoke [--build-dir DIR] [--model PATH]... [--set-threshold] [--no-build]
        CI guard: Sonel alone on one mixture per SNR and noise group at 48 and 16 kHz (80 s of
        mixtures per rate), from the in-tree corpus alone; fails when its mean ΔSI-SDR is below
        tools/eval/smoke_threshold.json's threshold. --set-threshold records a new threshold from
        the current model instead.
    sonel_eval.py speed [--build-dir DIR] [--model PATH]...
        Google Benchmark targets and the whole-stream benchmark; writes its section of
        docs/benchmarks.md.
    sonel_eval.py sets [--build-dir DIR] [--extra-data DIR]
        Only renders the test sets (BUILD/eval/sets/RATE/).

--extra-data (default: $SONEL_EXTRA_DATA) is the folder ../shared/data/debian/fetch.sh filled from
Debian packages; its holdout recordings join the in-tree ones.

Sonel runs with every shipped model registered (models/sonel-nc-*.vlw), so each stream gets the
model for its rate; while none exists, an untrained stand-in is written to
BUILD/eval/standin-32k.vlw and every report says so. The build folder
(default build-eval) is configured and the needed targets built unless --no-build is given.
"""

import argparse
import glob
import hashlib
import json
import math
import os
import platform
import subprocess
import sys
import time

import numpy as np

import evaluate
import report
import standin
import testsets

EVAL_DIR = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(EVAL_DIR))
sys.path.insert(0, os.path.dirname(EVAL_DIR))
import sonel_weights  # noqa: E402

DEFAULT_MODELS = os.path.join("models", "sonel-nc-*.vlw")
DEFAULT_BUILD = os.path.join(REPO, "build-eval")
DEFAULT_DATA = os.path.join(os.path.dirname(REPO), "shared", "data")
RATES = (48000, 16000)
STAND_IN_LABEL = "untrained stand-in"
THRESHOLD_FILE = os.path.join(EVAL_DIR, "smoke_threshold.json")
# One mixture per SNR and noise group and one clean-only item (for the delay) at each rate: 175 s
# of audio in all.
SMOKE_PLAN = {"mixtures_per_snr": 1, "noise_items": 0, "clean_items": 1}
# The guard trips this far below the score the current model had when the threshold was set:
# far above run-to-run and machine-to-machine rounding (the smoke run is deterministic; BLAS
# kernels move it by well under 0.01 dB), small next to what a trained model gains (~10 dB).
SMOKE_MARGIN_DB = 1.0


def repo_relative(path):
    path = os.path.abspath(path)
    return os.path.relpath(path, REPO) if path.startswith(REPO + os.sep) else path


def ensure_built(build_dir, targets, build):
    if build:
        if not os.path.exists(os.path.join(build_dir, "CMakeCache.txt")):
            subprocess.run(["cmake", "-S", REPO, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release"], check=True)
        subprocess.run(["cmake", "--build", build_dir, "-j2", "--target"] + list(targets), check=True)


def resolve_models(paths, build_dir):
    """The Sonel models a run registers: {"files", "path", "sha256", "name", "label", "stand_in"}.
    Without paths, every shipped model (one per rate; a session gets the best fit for its rate)."""
    if not paths:
        paths = sorted(glob.glob(os.path.join(REPO, DEFAULT_MODELS)))
        if not paths:
            paths = [os.path.join(build_dir, "eval", "standin-32k.vlw")]
            if not os.path.exists(paths[0]):
                standin.write(paths[0])
    hashes, names = [], []
    for path in paths:
        with open(path, "rb") as source:
            hashes.append(hashlib.sha256(source.read()).hexdigest())
        names.append(sonel_weights.read_file(path)["ModelName"].value)
    # One file is known by its own hash, a set of files by the hash of their hashes.
    sha256 = hashes[0] if len(hashes) == 1 else hashlib.sha256(" ".join(hashes).encode()).hexdigest()
    stand_in = any(name.startswith(standin.MODEL_NAME_PREFIX) for name in names)
    name = " + ".join(names)
    return {"files": [os.path.abspath(p) for p in paths], "path": ", ".join(repo_relative(p) for p in paths),
            "sha256": sha256, "name": name, "stand_in": stand_in, "label": STAND_IN_LABEL if stand_in else name}


def machine():
    cpu = platform.processor() or platform.machine()
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        for line in info:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    return "Machine: %s, %d cores, %s." % (cpu, os.cpu_count(), platform.platform())


def command_line(argv):
    return " ".join(["tools/eval/sonel_eval.py"] + argv)


def run_quality(args, argv):
    scores = os.path.join(args.build_dir, "eval", "scores.json")
    started = time.time()
    if args.from_scores:
        with open(scores, encoding="utf-8") as source:
            result = json.load(source)
        # The page describes the plan the scores were made on, whatever the extra folder now.
        model, command, extra_data = result.pop("model"), result.pop("command"), result.pop("extra_data")
        holdout = testsets.Holdout(args.data_dir, extra_data)
        items = testsets.plan(holdout)
    else:
        holdout = testsets.Holdout(args.data_dir, args.extra_data)
        items = testsets.plan(holdout)
        ensure_built(args.build_dir, ["sonel-eval-run"], args.build)
        model = resolve_models(args.model, args.build_dir)
        model["variants"] = {evaluate.SONEL + "-" + name: resolve_models(paths.split(","), args.build_dir)
                             for name, _, paths in (v.partition("=") for v in args.variant)}
        tools = evaluate.Tools(os.path.join(args.build_dir, "tools", "eval", "sonel-eval-run"), model["files"],
                               {system: variant["files"] for system, variant in model["variants"].items()})
        result = evaluate.evaluate(items, holdout, os.path.join(args.build_dir, "eval"), args.rates,
                                   args.systems + sorted(model["variants"]), tools)
        command = command_line(argv)
        with open(scores, "w", encoding="utf-8") as out:
            json.dump(dict(result, model=model, command=command, extra_data=args.extra_data), out)
    docs = os.path.join(REPO, "docs")
    report.plots(result, os.path.join(args.build_dir, "eval"), docs, model)
    with open(os.path.join(docs, "quality.md"), "w", encoding="utf-8") as out:
        out.write(report.markdown(result, items, holdout, model, command, machine()))
    print("docs/quality.md written (%.0f s)" % (time.time() - started))
    return 0


def smoke_key(model):
    # A stand-in is rebuilt per machine and its bytes may differ in the last bit of a weight, so
    # it is known by its label; a trained model by its hash.
    return STAND_IN_LABEL if model["stand_in"] else model["sha256"]


def run_smoke(args, argv):
    ensure_built(args.build_dir, ["sonel-eval-run"], args.build)
    model = resolve_models(args.model, args.build_dir)
    tools = evaluate.Tools(os.path.join(args.build_dir, "tools", "eval", "sonel-eval-run"), model["files"])
    # The in-tree corpus alone, extra folder or not: the threshold belongs to one set, the one CI
    # can render.
    holdout = testsets.Holdout(args.data_dir)
    items = testsets.plan(holdout, **SMOKE_PLAN)
    result = evaluate.evaluate(items, holdout, os.path.join(args.build_dir, "eval", "smoke"), RATES,
                               (evaluate.SONEL,), tools, progress=lambda text: None)
    deltas = [r["si_sdr"] - r["si_sdr_in"] for r in result["rows"] if r["set"] == "mix"]
    mean = float(np.mean(deltas))
    print("Sonel (%s): mean ΔSI-SDR %.3f dB over %d mixtures; delays %s"
          % (model["label"], mean, len(deltas), result["delays"]))
    if args.set_threshold:
        record = threshold_record(mean, model, command_line(argv))
        with open(THRESHOLD_FILE, "w", encoding="utf-8") as out:
            json.dump(record, out, indent=2, ensure_ascii=False)
            out.write("\n")
        print("threshold set to %.1f dB in %s" % (record["threshold_db"], repo_relative(THRESHOLD_FILE)))
        return 0
    with open(THRESHOLD_FILE, encoding="utf-8") as source:
        passed, message = check_threshold(json.load(source), model, mean)
    print(message)
    return 0 if passed else 1


def threshold_record(mean_db, model, command):
    return {"model": smoke_key(model), "model_name": model["name"], "measured_db": round(mean_db, 3),
            "threshold_db": math.floor((mean_db - SMOKE_MARGIN_DB) * 10.0) / 10.0,
            "rule": "threshold = measured mean ΔSI-SDR - %.1f dB, rounded down to 0.1 dB" % SMOKE_MARGIN_DB,
            "command": command}


def check_threshold(record, model, mean_db):
    """(passed, message) of the guard for a smoke score of the given model."""
    if record["model"] != smoke_key(model):
        return False, ("FAIL: the smoke threshold was set for model %s (%s), not for %s (%s); run "
                       "tools/eval/sonel_eval.py smoke --set-threshold and commit %s"
                       % (record["model"], record["model_name"], smoke_key(model), model["name"],
                          repo_relative(THRESHOLD_FILE)))
    if mean_db < record["threshold_db"]:
        return False, ("FAIL: mean ΔSI-SDR %.3f dB is below the threshold %.1f dB"
                       % (mean_db, record["threshold_db"]))
    return True, "ok: threshold %.1f dB" % record["threshold_db"]


def run_sets(args, argv):
    holdout = testsets.Holdout(args.data_dir, args.extra_data)
    items = testsets.plan(holdout)
    for rate in args.rates:
        sets_dir = os.path.join(args.build_dir, "eval", "sets", str(rate))
        evaluate.materialise(items, holdout, rate, sets_dir)
    return 0


def run_speed(args, argv):
    import speed
    ensure_built(args.build_dir, speed.TARGETS, args.build)
    model = resolve_models(args.model, args.build_dir)
    return speed.write_report(args, model, command_line(argv), machine())


def main(argv=None):
    argv = sys.argv[1:] if argv is None else argv
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    commands = parser.add_subparsers(dest="command", required=True)
    runners = {"quality": run_quality, "smoke": run_smoke, "speed": run_speed, "sets": run_sets}
    for name in runners:
        sub = commands.add_parser(name)
        sub.add_argument("--build-dir", default=DEFAULT_BUILD)
        sub.add_argument("--data-dir", default=DEFAULT_DATA, help="the shared corpus (holdout/ is read)")
        sub.add_argument("--model", action="append",
                         help="Sonel model file, repeatable (default: every %s, else an untrained "
                              "stand-in)" % DEFAULT_MODELS)
        sub.add_argument("--no-build", dest="build", action="store_false",
                         help="use the build folder as it is")
        if name in ("quality", "sets"):
            sub.add_argument("--extra-data", type=os.path.abspath,
                             default=os.environ.get(testsets.EXTRA_DATA_ENV) or None,
                             help="output folder of ../shared/data/debian/fetch.sh, whose holdout joins "
                                  "the corpus's (default: $%s; none when unset)" % testsets.EXTRA_DATA_ENV)
            sub.add_argument("--rates", type=lambda s: [int(r) for r in s.split(",")], default=list(RATES))
        if name == "quality":
            sub.add_argument("--systems", type=lambda s: s.split(","), default=list(evaluate.SYSTEMS))
            sub.add_argument("--variant", action="append", default=[], metavar="NAME=MODEL[,MODEL]",
                             help="a further Sonel system, sonel-NAME, with these models registered "
                                  "instead (model generations side by side); repeatable")
            sub.add_argument("--from-scores", action="store_true",
                             help="rewrite the report from BUILD/eval/scores.json without running anything")
        if name == "smoke":
            sub.add_argument("--set-threshold", action="store_true")
    args = parser.parse_args(argv)
    args.build_dir = os.path.abspath(args.build_dir)
    return runners[args.command](args, argv)


if __name__ == "__main__":
    sys.exit(main())
