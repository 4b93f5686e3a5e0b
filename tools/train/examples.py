"""Training examples: a mixture's network inputs from the reference front end (the one CI holds
to the C++ cleaner), the band gains the network should output, and which of them count.

The default post-processing squares the network output o before it multiplies the spectrum, so
the output is trained towards o = sqrt(g) where g = sqrt(E_target / E_noisy), the band's ideal
amplitude ratio clipped to [0, 1]: o = min(E_target / E_noisy, 1) ** (1/4).
"""

import dataclasses
from multiprocessing import Pool

import numpy as np

import network as net
from corpus import Corpus
from mixing import Mixer

F32 = np.float32
# Power (16-bit units) added to both band energies of the ratio: where the target and the input
# are both below the 16-bit floor the gain is 1, not 0/0.
RATIO_FLOOR = 1.0
# Exponent of the noisy band energy in a band's loss weight (--energy-weight): the weight follows
# the band's amplitude compressed as the gain target is, so loud bands, which dominate the output's
# error energy, count more without letting the loudest few decide alone.
ENERGY_EXPONENT = 0.25
# A band counts when it starts below this share of the speech's bandwidth (a resampled 16 kHz
# source rolls off just below 8 kHz).
BANDWIDTH_MARGIN = 0.97


def front_end(geometry, mu, sd):
    """The 0.0.5 front end, whatever the generation: features scaled by the per-band MU/SD. A 0.0.6
    network reads the same context and scales it itself by the same values, repeated per frame.
    The 0.0.7 cleaner reads no rescale switch, so its input is rescaled (the library's default)
    and so are the features it trains on."""
    controls = None if geometry.keys.tunable else {}
    geometry = dataclasses.replace(geometry, generation=net.nc.VERSION, groups=1)
    records = net.model_records(geometry, net.new_network(geometry), mu, sd, "features", controls=controls,
                                timestamp="features")
    return net.nc.FrontEnd(net.nc.Model(records))


def band_starts_hz(geometry):
    bands = geometry.bands()
    return (geometry.filter_range[0] + bands.starts) * geometry.rate / geometry.block


class ExampleMaker:
    def __init__(self, geometry, mu, sd, corpus_folder, seconds, seed, shares):
        self.geometry, self.seed = geometry, seed
        self.front = front_end(geometry, mu, sd)
        self.mixer = Mixer(Corpus(corpus_folder), seconds, **shares)
        self.starts_hz = band_starts_hz(geometry)

    def mixture(self, epoch, index):
        return self.mixer(np.random.default_rng([self.seed, epoch, index]))

    def __call__(self, key):
        mix = self.mixture(*key)
        feats = self.front.signal_features(mix.noisy)
        bands = self.front.model.bands
        clean = bands.compress(np.abs(self.front.block_spectra(mix.target)) ** 2).astype(np.float64)
        noisy = bands.compress(np.abs(feats.spectra) ** 2).astype(np.float64)
        ratio = np.minimum((clean + RATIO_FLOOR) / (noisy + RATIO_FLOOR), 1.0)
        valid = feats.analysed[:, None] & (self.starts_hz < BANDWIDTH_MARGIN * mix.bandwidth)[None, :]
        weight = (noisy + RATIO_FLOOR) ** ENERGY_EXPONENT
        # Relative to the mixture's mean over its counted bands: the input level does not matter.
        weight /= max(weight[valid].mean(), 1e-12) if valid.any() else 1.0
        return {
            # Frozen blocks (NaN rows) never reach the network; zeros keep the arithmetic finite.
            "inputs": np.nan_to_num(feats.inputs, nan=0.0).astype(F32),
            "log_bands": feats.log_bands,
            "analysed": feats.analysed,
            "target": (ratio ** 0.25).astype(F32),
            "valid": valid,
            "energy": weight.astype(F32),
        }


_maker = None


def _init(*args):
    global _maker
    _maker = ExampleMaker(*args)


def _make(key):
    example = _maker(key)
    del example["log_bands"]
    return example


def _make_bands(key):
    example = _maker(key)
    return example["log_bands"][example["analysed"]]


def made_ahead(pool, make, keys, size):
    """Lists of what `make` gives for `keys`, `size` keys at a time, each list made by the pool's
    workers while the caller works on the one before."""
    groups = [keys[i:i + size] for i in range(0, len(keys), size)]
    pending = pool.map_async(make, groups[0]) if groups else None
    for i in range(len(groups)):
        examples = pending.get()
        if i + 1 < len(groups):
            pending = pool.map_async(make, groups[i + 1])
        yield examples


class Loader:
    """Examples made by worker processes, one batch ahead of the consumer."""

    def __init__(self, workers, geometry, mu, sd, corpus_folder, seconds, seed, shares):
        """`shares`: keyword arguments of the Mixer (shares of kinds of mixture)."""
        self.pool = Pool(workers, _init, (geometry, mu, sd, corpus_folder, seconds, seed, shares))

    def batches(self, keys, batch_size):
        """Stacked batches (dict of arrays, leading axis = example) of the examples of `keys`."""
        for examples in made_ahead(self.pool, _make, keys, batch_size):
            yield {name: np.stack([e[name] for e in examples]) for name in examples[0]}

    def log_bands(self, keys):
        """Log band powers of the analysed blocks of `keys`, all stacked (for MU/SD)."""
        return np.concatenate(self.pool.map(_make_bands, keys))

    def close(self):
        self.pool.terminate()
        self.pool.join()
