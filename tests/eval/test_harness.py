"""The evaluation harness's plumbing: delay alignment, the test-set plan, and every system's
runner (tools/eval)."""

import math
import os
import subprocess
import tempfile
import unittest
from collections import Counter
from unittest import mock

import numpy as np
import soundfile as sf

import align
import evaluate
import metrics
import report
import sonel_eval
import speed
import standin
import testsets
from test_metrics import noise_at, speech_like

DATA_DIR = os.environ.get("SONEL_TEST_DATA_DIR", "")
RUNNER = os.environ.get("SONEL_EVAL_RUNNER", "")
# The Debian-package folder, where this machine has it: the grouping is then checked on its
# holdout too.
EXTRA_DIR = os.environ.get(testsets.EXTRA_DATA_ENV, "")


def trained_sources(extra_dir):
    """The noise sources the training split has recordings of."""
    folders = [os.path.join(DATA_DIR, "train", "noise")]
    if extra_dir:
        folders.append(os.path.join(extra_dir, "train", "noise"))
    return {testsets.noise_source(name) for folder in folders for name in os.listdir(folder)}


class AlignTest(unittest.TestCase):
    def test_recovers_and_removes_fractional_delays(self):
        rate = 48000
        clean = speech_like(rate, 2.0)
        flush = np.zeros(rate // 10)
        for delay in (0.0, 1.0, 151.0, 80.5, 560.5, 333.37):
            with self.subTest(delay=delay):
                # A delayed copy, made by the inverse of what alignment does, plus mild noise so
                # the peak is not an exact autocorrelation.
                late = align.advance(np.concatenate([clean, flush]), -delay, len(clean) + len(flush))
                late += noise_at(late, 30.0)
                estimate = align.estimate_delay(clean, late, 0.08 * rate)
                self.assertAlmostEqual(estimate, delay, delta=0.02)
                self.assertGreater(metrics.si_sdr(clean, align.advance(late, estimate, len(clean))), 28.0)
        with self.assertRaises(ValueError):
            align.advance(clean, 10.0, len(clean))


@unittest.skipUnless(os.path.isdir(os.path.join(DATA_DIR, "holdout")), "corpus not available")
class TestSetTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.holdout = testsets.Holdout(DATA_DIR)
        cls.items = testsets.plan(cls.holdout)

    def test_plan_is_deterministic_and_the_smoke_set_its_prefix(self):
        mixtures = [i for i in self.items if i["set"] == "mix"]
        self.assertGreaterEqual(sum(i["seconds"] for i in mixtures), 2 * 20 * 60)
        self.assertEqual({i["set"] for i in self.items}, {"mix", "noise", "clean"})
        self.assertEqual(len({i["id"] for i in self.items}), len(self.items))
        self.assertEqual(testsets.plan(testsets.Holdout(DATA_DIR)), self.items)
        # The smoke set is the full plan's first mixture per SNR and group, so its items match.
        smoke = testsets.plan(self.holdout, mixtures_per_snr=1, noise_items=0, clean_items=1)
        self.assertTrue(all(item in self.items for item in smoke))
        self.assertEqual(len(smoke), len(testsets.NOISE_GROUPS) * len(testsets.SNRS_DB) + 1)

    def test_noise_groups_are_paired_and_drawn_from_their_own_sources(self):
        plans = [(None, self.items)]
        if EXTRA_DIR:
            plans.append((EXTRA_DIR, testsets.plan(testsets.Holdout(DATA_DIR, EXTRA_DIR))))
        for extra_dir, items in plans:
            with self.subTest(extra_dir=extra_dir):
                trained = trained_sources(extra_dir)
                for item in (i for i in items if i["set"] != "clean"):
                    source = testsets.noise_source(item["noise"])
                    self.assertTrue(item["id"].startswith("%s-%s-" % (item["set"], item["group"])), item["id"])
                    if item["group"] == testsets.UNSEEN:
                        self.assertNotIn(source, trained, item["id"])
                    else:
                        self.assertEqual(item["group"], testsets.SEEN)
                        self.assertIn(source, trained, item["id"])
                mixtures = [i for i in items if i["set"] == "mix"]
                self.assertEqual(Counter((i["group"], i["snr_db"]) for i in mixtures),
                                 {(g, s): testsets.MIXTURES_PER_SNR
                                  for g in testsets.NOISE_GROUPS for s in testsets.SNRS_DB})
                self.assertEqual(Counter(i["group"] for i in items if i["set"] == "noise"),
                                 {g: testsets.NOISE_ONLY_ITEMS for g in testsets.NOISE_GROUPS})
                # Both groups hear the same speech at the same SNR and level; no speech item is
                # used by two pairs or by a pair and the clean-only set.
                pairs = {}
                for item in mixtures:
                    pairs.setdefault(item["id"].split("-", 2)[2], []).append(
                        (tuple(item["speech"]), item["seconds"], item["snr_db"], item["level_dbfs"]))
                self.assertTrue(all(len(p) == 2 and p[0] == p[1] for p in pairs.values()))
                speech = [p[0][0] for p in pairs.values()] + [tuple(i["speech"]) for i in items
                                                              if i["set"] == "clean"]
                self.assertEqual(len(speech), len(set(speech)), "an utterance is used twice")

    def test_extra_folder_noise_joins_the_group_of_its_source(self):
        with tempfile.TemporaryDirectory() as extra:
            rng = np.random.default_rng(1)
            for kind, name in (("noise", "music_freedroid_test.flac"), ("noise", "0ad_test.flac"),
                               ("speech", "tuxpaint_da_test.flac")):
                folder = os.path.join(extra, "holdout", kind)
                os.makedirs(folder, exist_ok=True)
                sf.write(os.path.join(folder, name), 0.1 * rng.standard_normal(8000 * 30), 8000)
            items = testsets.plan(testsets.Holdout(DATA_DIR, extra))
        drawn = {i["noise"]: i["group"] for i in items if "noise" in i}
        self.assertEqual(drawn.get("music_freedroid_test.flac"), testsets.UNSEEN)
        self.assertEqual(drawn.get("0ad_test.flac"), testsets.SEEN)
        # The speech is the in-tree corpus's alone, and more noise to draw from moves no speech draw.
        self.assertEqual([i.get("speech") for i in items], [i.get("speech") for i in self.items])
        with self.assertRaisesRegex(ValueError, "the corpus itself"):
            testsets.Holdout(DATA_DIR, DATA_DIR)

    def test_rendered_mixtures_have_the_planned_snr_and_level(self):
        mixtures = [i for i in self.items if i["set"] == "mix"][:6]
        for rate in (48000, 16000):
            for item in mixtures:
                with self.subTest(rate=rate, id=item["id"]):
                    rendered = testsets.render(item, self.holdout, rate)
                    clean, signal = rendered["reference"], rendered["input"]
                    noise = signal - clean
                    self.assertEqual(len(signal), round(item["seconds"] * rate))
                    snr = 10 * math.log10(testsets.active_power(clean, rate) / np.mean(noise ** 2))
                    self.assertAlmostEqual(snr, item["snr_db"], places=6)
                    level = 20 * math.log10(math.sqrt(np.mean(signal ** 2)))
                    self.assertAlmostEqual(level, rendered["level_dbfs"], places=6)
                    peak_limited = np.isclose(np.abs(signal).max(), testsets.PEAK_LIMIT)
                    self.assertTrue(peak_limited or abs(level - item["level_dbfs"]) < 1e-6)
                    self.assertLessEqual(np.abs(signal).max(), testsets.PEAK_LIMIT + 1e-12)


class DelayingSystem:
    """Stands in for a runner: each output is the input at half amplitude, DELAY samples late."""
    DELAY = 123.25

    def run(self, system, rate_hz, pairs, scratch):
        for source, target in pairs:
            signal = np.fromfile(source, dtype="<f4").astype(np.float64)
            padded = np.concatenate([signal, np.zeros(rate_hz * evaluate.FLUSH_MS // 1000)])
            late = 0.5 * align.advance(padded, -self.DELAY, len(padded))
            late.astype("<f4").tofile(target)


@unittest.skipUnless(os.path.isdir(os.path.join(DATA_DIR, "holdout")), "corpus not available")
class ScoringTest(unittest.TestCase):
    def test_delay_is_removed_before_scoring(self):
        rate = 16000
        holdout = testsets.Holdout(DATA_DIR)
        items = testsets.plan(holdout, mixtures_per_snr=1, noise_items=1, clean_items=2)
        with tempfile.TemporaryDirectory() as folder:
            result = evaluate.evaluate(items, holdout, folder, [rate], ["delaying"], DelayingSystem(),
                                       progress=lambda text: None)
        self.assertAlmostEqual(result["delays"][str(rate)]["delaying"], DelayingSystem.DELAY, delta=0.02)
        rows = {row["id"]: row for row in result["rows"]}
        self.assertEqual(set(rows), {item["id"] for item in items})
        for item in items:
            row = rows[item["id"]]
            with self.subTest(id=item["id"]):
                self.assertEqual(row.get("group"), item.get("group"))
                if item["set"] == "mix":
                    # Scale and delay undone: the output scores as its input did.
                    self.assertAlmostEqual(row["si_sdr"], row["si_sdr_in"], delta=0.2)
                    self.assertEqual(row["snr_db"], item["snr_db"])
                elif item["set"] == "noise":
                    self.assertAlmostEqual(row["residual_db"], 20 * math.log10(2), delta=0.01)
                else:
                    self.assertGreater(row["si_sdr"], 35.0)
                    self.assertGreater(row["estoi"], 0.99)


class ExtraFolderTest(unittest.TestCase):
    def test_a_folder_without_holdout_noise_is_refused_with_the_command_that_fills_it(self):
        with tempfile.TemporaryDirectory() as extra, tempfile.TemporaryDirectory() as build:
            os.makedirs(os.path.join(extra, "train", "noise"))
            command = ["sets", "--no-build", "--build-dir", build]
            for how, argv, environment in (("flag", command + ["--extra-data", extra], {}),
                                           ("environment", command, {testsets.EXTRA_DATA_ENV: extra})):
                with self.subTest(how=how), mock.patch.dict(os.environ, environment), \
                        self.assertRaises(SystemExit) as caught:
                    sonel_eval.main(argv)
                self.assertIn("has no holdout/noise: run ../shared/data/debian/fetch.sh " + extra,
                              str(caught.exception))


class ReportPlumbingTest(unittest.TestCase):
    def test_scores_are_pooled_over_snrs_and_noise_groups_once_each(self):
        rows = [{"rate_hz": 16000, "system": "sonel", "set": "mix", "id": str(k), "snr_db": snr,
                 "group": group, "si_sdr": 1.0 + delta, "si_sdr_in": 1.0}
                for k, (snr, group, delta) in enumerate(((0, testsets.SEEN, 1.0), (0, testsets.UNSEEN, 2.0),
                                                         (5, testsets.SEEN, 3.0), (5, testsets.UNSEEN, 4.0)))]
        rows.append({"rate_hz": 16000, "system": "sonel", "set": "clean", "id": "c", "si_sdr": 9.0})
        summary = report.summarise(rows)

        def deltas(snr, group):
            return sorted(summary[(16000, "sonel", "mix", snr, group)]["delta_si_sdr"])

        self.assertEqual(deltas(0, testsets.SEEN), [1.0])
        self.assertEqual(deltas(None, testsets.UNSEEN), [2.0, 4.0])
        self.assertEqual(deltas(5, None), [3.0, 4.0])
        self.assertEqual(deltas(None, None), [1.0, 2.0, 3.0, 4.0])
        self.assertEqual(summary[(16000, "sonel", "clean", None, None)]["si_sdr"], [9.0])

    def test_smoke_guard(self):
        stand_in = {"stand_in": True, "sha256": "ab" * 32, "name": "untrained-stand-in-32000"}
        trained = {"stand_in": False, "sha256": "cd" * 32, "name": "nc-32k"}
        record = sonel_eval.threshold_record(-3.04, stand_in, "cmd")
        self.assertEqual(record["threshold_db"], -4.1)
        self.assertTrue(sonel_eval.check_threshold(record, stand_in, -3.04)[0])
        self.assertTrue(sonel_eval.check_threshold(record, stand_in, -4.1)[0])
        self.assertFalse(sonel_eval.check_threshold(record, stand_in, -4.11)[0])
        # A threshold belongs to the model it was measured on.
        self.assertFalse(sonel_eval.check_threshold(record, trained, 12.0)[0])
        record = sonel_eval.threshold_record(9.96, trained, "cmd")
        self.assertEqual((record["model"], record["threshold_db"]), ("cd" * 32, 8.9))

    def test_benchmark_section_replaces_only_itself(self):
        new = speed.SECTION + "\n\nnew numbers\n"
        page = "# Benchmarks\n\n## DSP stages\n\nkept\n"
        appended = speed.replace_section(page, new)
        self.assertEqual(appended, page + "\n" + new)
        self.assertEqual(speed.replace_section(appended, new), appended)
        middle = page + "\n" + speed.SECTION + "\n\nold numbers\n\n## Later\n\nkept too\n"
        replaced = speed.replace_section(middle, new)
        self.assertEqual(replaced, page + "\n" + new + "\n## Later\n\nkept too\n")


@unittest.skipUnless(os.path.exists(RUNNER), "SONEL_EVAL_RUNNER not set")
class RunnerTest(unittest.TestCase):
    def test_every_system_delivers_the_input_within_the_flush(self):
        """Each system's output is whole frames plus the flush long, and its delay is inside the
        range the aligner searches: otherwise scoring would cut off the end of every item."""
        with tempfile.TemporaryDirectory() as folder:
            model = os.path.join(folder, "standin.vlw")
            standin.write(model)
            tools = evaluate.Tools(RUNNER, [model])
            systems = list(evaluate.CPP_SYSTEMS) + [evaluate.SONEL]
            if os.path.isdir(os.path.join(evaluate.RNNOISE_DIR, "node_modules")):
                systems.append(evaluate.RNNOISE)
            for rate in (16000, 48000):
                clean = speech_like(rate, 1.505)
                source = os.path.join(folder, "in.f32")
                clean.astype("<f4").tofile(source)
                for system in systems:
                    with self.subTest(system=system, rate=rate):
                        target = os.path.join(folder, system + ".f32")
                        tools.run(system, rate, [(source, target)], os.path.join(folder, "scratch"))
                        output = np.fromfile(target, dtype="<f4")
                        frame = rate // 100
                        expected = math.ceil((len(clean) + evaluate.FLUSH_MS * rate // 1000) / frame) * frame
                        self.assertEqual(len(output), expected)
                        self.assertTrue(np.all(np.isfinite(output)))
                        max_delay = evaluate.MAX_DELAY_MS * rate / 1000
                        delay = align.estimate_delay(clean, output, max_delay)
                        self.assertLess(delay, max_delay - 1)
                        # The clean signal comes through recognisably at that delay.
                        aligned = align.advance(output, delay, len(clean))
                        self.assertGreater(metrics.si_sdr(clean, aligned), 0.0)

    def test_rejects_bad_arguments(self):
        for args in (["nosuch", "16000"], ["speexdsp-15", "44100"], ["sonel", "16000"]):
            with self.subTest(args=args), tempfile.NamedTemporaryFile("w", suffix=".txt") as listing:
                result = subprocess.run([RUNNER] + args + [listing.name], capture_output=True, text=True)
                self.assertNotEqual(result.returncode, 0)
                self.assertIn("sonel-eval-run", result.stderr)


if __name__ == "__main__":
    unittest.main()
