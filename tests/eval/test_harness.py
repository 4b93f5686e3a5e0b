"""The evaluation harness's plumbing: delay alignment, the test-set plan, and every system's
runner (tools/eval)."""

import math
import os
import subprocess
import tempfile
import unittest

import numpy as np

import align
import evaluate
import metrics
import sonel_eval
import speed
import standin
import testsets
from test_metrics import noise_at, speech_like

DATA_DIR = os.environ.get("SONEL_TEST_DATA_DIR", "")
RUNNER = os.environ.get("SONEL_EVAL_RUNNER", "")


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
        cls.items = testsets.plan(DATA_DIR)

    def test_plan_covers_the_issue_and_is_deterministic(self):
        mixtures = [i for i in self.items if i["set"] == "mix"]
        for snr in testsets.SNRS_DB:
            self.assertGreaterEqual(sum(i["snr_db"] == snr for i in mixtures), 40)
        self.assertGreaterEqual(sum(i["seconds"] for i in mixtures), 20 * 60)
        self.assertEqual({i["set"] for i in self.items}, {"mix", "noise", "clean"})
        speech = [tuple(i["speech"]) for i in self.items if "speech" in i]
        self.assertEqual(len(speech), len(set(speech)), "an utterance is used twice")
        self.assertTrue(all(f.startswith(("ravdess_actor", "so762_")) for s in speech for f in s))
        self.assertEqual(testsets.plan(DATA_DIR), self.items)
        # The smoke set is the full plan's first mixture per SNR, so its items match.
        smoke = testsets.plan(DATA_DIR, mixtures_per_snr=1, noise_items=0, clean_items=1)
        self.assertTrue(all(item in self.items for item in smoke))
        self.assertEqual(len(smoke), len(testsets.SNRS_DB) + 1)

    def test_rendered_mixtures_have_the_planned_snr_and_level(self):
        mixtures = [i for i in self.items if i["set"] == "mix"][:6]
        for rate in (48000, 16000):
            for item in mixtures:
                with self.subTest(rate=rate, id=item["id"]):
                    rendered = testsets.render(item, DATA_DIR, rate)
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
        items = testsets.plan(DATA_DIR, mixtures_per_snr=1, noise_items=1, clean_items=2)
        with tempfile.TemporaryDirectory() as folder:
            result = evaluate.evaluate(items, DATA_DIR, folder, [rate], ["delaying"], DelayingSystem(),
                                       progress=lambda text: None)
        self.assertAlmostEqual(result["delays"][str(rate)]["delaying"], DelayingSystem.DELAY, delta=0.02)
        rows = {row["id"]: row for row in result["rows"]}
        self.assertEqual(set(rows), {item["id"] for item in items})
        for item in items:
            row = rows[item["id"]]
            with self.subTest(id=item["id"]):
                if item["set"] == "mix":
                    # Scale and delay undone: the output scores as its input did.
                    self.assertAlmostEqual(row["si_sdr"], row["si_sdr_in"], delta=0.2)
                    self.assertEqual(row["snr_db"], item["snr_db"])
                elif item["set"] == "noise":
                    self.assertAlmostEqual(row["residual_db"], 20 * math.log10(2), delta=0.01)
                else:
                    self.assertGreater(row["si_sdr"], 35.0)
                    self.assertGreater(row["estoi"], 0.99)


class ReportPlumbingTest(unittest.TestCase):
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
