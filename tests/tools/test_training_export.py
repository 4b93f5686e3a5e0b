"""The exported model, run by the NumPy reference network, gives the band gains the PyTorch module
gave on the same features (so what was trained is what the cleaner runs); v0.0.6 and v0.0.7
exports also clean in the library as in the reference."""

import dataclasses
import os
import subprocess
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "train"))

try:
    import torch
except ImportError:  # CI does not install torch; training machines do.
    torch = None

# Gains are in [0, 1]; the reference computes the logistic in double, torch in float.
TOLERANCE = 1e-5
# The `sonel` tool of the build under test (set by CTest); without it the library check is skipped.
SONEL_TOOL = os.environ.get("SONEL_TOOL", "")


def speech_like(rate, rng):
    """Two seconds: harmonics in noise at changing levels, and 300 ms of digital silence so the
    energy gate freezes blocks in the middle of the stream."""
    t = np.arange(2 * rate) / rate
    x = np.sin(2 * np.pi * 150 * t) + 0.5 * np.sin(2 * np.pi * 2400 * t) + 0.3 * rng.standard_normal(t.size)
    x *= 3000.0 * (1.2 + np.sin(2 * np.pi * 1.5 * t))
    x[int(0.8 * rate):int(1.1 * rate)] = 0.0
    return np.round(x).astype(np.float32)


@unittest.skipIf(torch is None, "training needs python3-torch")
class TrainingExportTest(unittest.TestCase):
    def test_exported_model_reproduces_the_trained_networks_gains(self):
        import export
        import network as net

        # A soft threshold picked by the rule goes into the geometry and from there into the file.
        tuned = (("ENABLE_RM_THRESHOLD", (net.sw.STRING, "t")), ("RM_THRESHOLD", (net.sw.FLOAT, 0.3)))
        cases = [dataclasses.replace(net.GEOMETRIES[16000], tuned_controls=tuned),
                 # Layers of different widths catch a transposed or misplaced matrix; a context
                 # longer than the default, features taken from the wrong block.
                 net.Geometry(32000, compress_rate=4, hidden=(8, 6, 5), preview_frames=4)]
        for geometry in cases:
            with self.subTest(rate=geometry.rate, hidden=geometry.hidden), \
                    tempfile.TemporaryDirectory() as folder:
                torch.manual_seed(geometry.rate)
                rng = np.random.default_rng(geometry.rate)
                model = net.new_network(geometry)
                # Non-zero biases, and weights moved off their initial values; larger steps let
                # the recurrence run away (the hidden layers have no squashing non-linearity).
                with torch.no_grad():
                    for p in model.parameters():
                        p.add_(0.05 * torch.randn_like(p))
                bands = geometry.bands().count
                mu = rng.normal(8.0, 2.0, bands).astype(np.float32)
                sd = rng.uniform(1.0, 3.0, bands).astype(np.float32)
                # Through a checkpoint, as export.py reads it: a run's own hidden sizes and
                # context replace its rate's.
                checkpoint = os.path.join(folder, "checkpoint.pt")
                torch.save({"args": {"rate": geometry.rate, "hidden": list(geometry.hidden),
                                     "preview_frames": geometry.preview_frames},
                            "network": model.state_dict(), "mu": mu, "sd": sd}, checkpoint)
                read_geometry, model, mu, sd = export.load_checkpoint(checkpoint)
                self.assertEqual(read_geometry.hidden, geometry.hidden)
                self.assertEqual(read_geometry.preview_frames, geometry.preview_frames)
                loaded = export.write_model(os.path.join(folder, "m.vlw"), geometry, model, mu, sd, "test")
                controls = dict(geometry.tuned_controls)
                self.assertEqual(loaded.post.rm_threshold_enabled, "ENABLE_RM_THRESHOLD" in controls)
                if controls:
                    self.assertAlmostEqual(loaded.post.rm_threshold, controls["RM_THRESHOLD"][1], places=6)

                feats = net.nc.FrontEnd(loaded).signal_features(speech_like(geometry.rate, rng))
                self.assertTrue(0 < feats.analysed.sum() < feats.analysed.size)
                with torch.no_grad():
                    gains, _ = model(torch.from_numpy(np.nan_to_num(feats.inputs))[None],
                                     torch.from_numpy(feats.analysed)[None])
                gains = gains[0].numpy()[feats.analysed]
                reference = net.nc.Network(loaded)
                expected = np.stack([reference.step(f) for f in feats.inputs[feats.analysed]])
                self.assertGreater(expected.std(), 0.05)
                np.testing.assert_allclose(gains, expected, atol=TOLERANCE)

    def test_bounded_recurrence_never_lets_the_cleaners_state_grow(self):
        import network as net

        geometry = net.Geometry(16000, compress_rate=3, hidden=(12,))
        features = np.zeros(3 * geometry.bands().count, np.float32)
        peak = 1000.0
        for bounded in (False, True):
            torch.manual_seed(5)
            model = net.new_network(geometry)
            with torch.no_grad():
                for p in model.parameters():
                    p.add_(0.5 * torch.randn_like(p))
                # No input drive: whatever exceeds the state's peak comes from the recurrence.
                model.rect_b[0].zero_()
                model.lin_b[0].zero_()
            if bounded:
                model.bound_recurrence()
            records = net.model_records(geometry, model, np.zeros(1), np.ones(1), "t", timestamp="t")
            loaded = net.nc.Model(records)
            reference = net.nc.Network(loaded)
            h0 = geometry.hidden[0]
            a, g = loaded.rect_w[0][:, :h0], loaded.lin_w[0][:, :h0]
            # The worst state for each output on either branch: every column pushing one way.
            worst = 0.0
            for row in np.concatenate([g, a + g]):
                reference.state = (peak * np.sign(row)).astype(np.float32)
                worst = max(worst, float(np.abs(reference.hidden(features)).max()))
            if bounded:
                self.assertLessEqual(worst, peak * net.RECURRENCE_LIMIT * (1 + 1e-6))
            else:
                self.assertGreater(worst, peak)


GENERATIONS = ("0.0.6", "0.0.7")


def layer_norm_export(folder, generation, seed=6):
    """A random 0.0.6 or 0.0.7 network exported through a checkpoint as train.py writes one;
    returns the network as export.py reads it back, the per-band MU/SD, the file and its reference
    model. Every width differs (16 input, 12 state, 10 output, 50 bands at 16 kHz) so a transposed
    or misplaced matrix cannot fit, and four frames of context so MU/SD repeated for the wrong
    frames show; 0.0.7 splits its GRU and output layer in two groups."""
    import export
    import network as net

    torch.manual_seed(seed)
    rng = np.random.default_rng(seed)
    args = {"rate": 16000, "generation": generation, "hidden": [16, 12, 10], "preview_frames": 3,
            "groups": 2 if generation == "0.0.7" else None}
    geometry = net.geometry_of(args)
    model = net.new_network(geometry)
    with torch.no_grad():
        for p in model.parameters():
            p.add_(0.3 * torch.randn_like(p))
    bands = geometry.bands().count
    mu = rng.normal(8.0, 2.0, bands).astype(np.float32)
    sd = rng.uniform(1.0, 3.0, bands).astype(np.float32)
    checkpoint = os.path.join(folder, "checkpoint.pt")
    torch.save({"args": args, "network": model.state_dict(), "mu": mu, "sd": sd}, checkpoint)
    geometry, model, mu, sd = export.load_checkpoint(checkpoint)
    path = os.path.join(folder, "model.vlw")
    loaded = export.write_model(path, geometry, model, mu, sd, "test", timestamp="test")
    return geometry, model, mu, sd, path, loaded


@unittest.skipIf(torch is None, "training needs python3-torch")
class LayerNormExportTest(unittest.TestCase):
    def test_reference_runs_the_export_as_trained(self):
        for generation in GENERATIONS:
            with self.subTest(generation):
                self.check_reference_runs_the_export_as_trained(generation)

    def check_reference_runs_the_export_as_trained(self, generation):
        import examples
        import network as net

        with tempfile.TemporaryDirectory() as folder:
            geometry, model, mu, sd, _, loaded = layer_norm_export(folder, generation)
        self.assertEqual((geometry.generation, geometry.hidden), (generation, (16, 12, 10)))
        self.assertIsInstance(loaded, net.REFERENCE_MODELS[generation])
        # Under the generation's own names: rescaling off for 0.0.6, on for 0.0.7 (which reads no
        # switch), the compress rate of the geometry.
        self.assertEqual(loaded.post.rescale, generation == "0.0.7")
        self.assertEqual(loaded.bands.count, geometry.bands().count)

        signal = speech_like(16000, np.random.default_rng(1))
        # The trainer's inputs: the 0.0.5 front end, scaled by the per-band MU/SD.
        trained = examples.front_end(geometry, mu, sd).signal_features(signal)
        # The cleaner's: the context as it is, scaled by the network.
        raw = net.nc.FrontEnd(loaded).signal_features(signal)
        np.testing.assert_array_equal(trained.analysed, raw.analysed)
        self.assertTrue(0 < raw.analysed.sum() < raw.analysed.size)
        network = loaded.new_network()
        expected = np.stack([network.step(f) for f in raw.inputs[raw.analysed]])
        self.assertGreater(expected.std(), 0.05)

        inputs = torch.from_numpy(np.nan_to_num(trained.inputs))[None]
        analysed = torch.from_numpy(trained.analysed)[None]
        with torch.no_grad():
            gains, _ = model(inputs, analysed)
            # As training feeds it, in chunks carrying the state: the cut lands among frozen
            # blocks, so the first chunk's state must be the one its last analysed block left.
            cut = int(np.argmin(trained.analysed)) + 1
            first, state = model(inputs[:, :cut], analysed[:, :cut])
            second, _ = model(inputs[:, cut:], analysed[:, cut:], state)
        np.testing.assert_allclose(gains[0].numpy()[trained.analysed], expected, atol=TOLERANCE)
        chunked = torch.cat([first, second], 1)[0].numpy()[trained.analysed]
        np.testing.assert_allclose(chunked, expected, atol=TOLERANCE)

    @unittest.skipUnless(SONEL_TOOL, "SONEL_TOOL (the sonel tool of a build) is not set")
    def test_library_cleans_the_export_as_the_reference(self):
        for generation in GENERATIONS:
            with self.subTest(generation):
                self.check_library_cleans_the_export_as_the_reference(generation)

    def check_library_cleans_the_export_as_the_reference(self, generation):
        import soundfile as sf

        import network as net

        with tempfile.TemporaryDirectory() as folder:
            geometry, _, _, _, path, loaded = layer_norm_export(folder, generation)
            signal = speech_like(16000, np.random.default_rng(2))
            noisy, cleaned = os.path.join(folder, "in.wav"), os.path.join(folder, "out.wav")
            sf.write(noisy, signal / 32768.0, 16000, subtype="FLOAT")
            subprocess.run([SONEL_TOOL, "denoise", "--model", path, noisy, cleaned], check=True,
                           capture_output=True)
            library, rate = sf.read(cleaned, dtype="float32")
        self.assertEqual((rate, library.shape), (16000, signal.shape))
        # The tool removes the cleaner's one-hop delay; the reference's output keeps it.
        reference = net.nc.clean(loaded, signal)[geometry.hop:] / 32768.0
        self.assertGreater(np.abs(reference - signal[:-geometry.hop] / 32768.0).max(), 0.05)
        np.testing.assert_allclose(library[:-geometry.hop], reference, atol=1e-3)

    def test_gated_export_is_the_cleaner_behind_its_detector_in_reference_and_library(self):
        import export
        import make_v0_0_6_parity_case as case
        import nc_v0_0_7_vad as nc7vad

        signal = speech_like(16000, np.random.default_rng(3))
        with tempfile.TemporaryDirectory() as folder:
            geometry, model, mu, sd, _, _ = layer_norm_export(folder, "0.0.7")
            detector = case.detector_records(16000, signal, np.random.default_rng(4), {})
            path = os.path.join(folder, "gated.vlw")
            gated = export.write_model(path, geometry, model, mu, sd, "test", "test", detector=detector)
            with self.assertRaises(ValueError):  # only a 0.0.7 cleaner has a gated form
                export.write_model(path, dataclasses.replace(geometry, generation="0.0.6"), model, mu, sd, "test",
                                   detector=detector)
            # Output hop m + 1 (one hop late) holds blocks m and m + 1: silence where the detector
            # passed neither.
            hop = geometry.hop
            speech = nc7vad.probabilities(gated, signal) >= nc7vad.SPEECH
            self.assertTrue(0.2 < speech.mean() < 0.8)
            expected = nc7vad.clean(gated, signal)
            quiet = ~speech[:-1] & ~speech[1:]
            hops = expected[hop:].reshape(-1, hop)
            self.assertFalse(np.any(hops[quiet]))
            self.assertTrue(np.all(np.any(hops[speech[:-1] & speech[1:]], axis=1)))
            if SONEL_TOOL:
                import soundfile as sf
                noisy, cleaned = os.path.join(folder, "in.wav"), os.path.join(folder, "out.wav")
                sf.write(noisy, signal / 32768.0, 16000, subtype="FLOAT")
                subprocess.run([SONEL_TOOL, "denoise", "--model", path, noisy, cleaned], check=True,
                               capture_output=True)
                library, _ = sf.read(cleaned, dtype="float32")
                np.testing.assert_allclose(library[:-hop], expected[hop:] / 32768.0, atol=1e-3)


if __name__ == "__main__":
    unittest.main()
