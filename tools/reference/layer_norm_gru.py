"""NumPy reference of the layer-normalised GRU network, the network of generation 0.0.6 models,
written from docs/design.md (Layer-normalised GRU network). The ringtone detector and the v0.0.6
cleaner both run it; each reads its records and gives its own number of features. The v0.0.7
cleaner runs it with grouped matrices (grouped=True; docs/design.md, Noise cleaner v0.0.7).

    weights = Weights(records, features)      # the 14 records, checked against each other
                                              # (names=...: under other names)
    network = Network(weights)
    out = network.step(x)                     # raw features in, the last layer's values out
"""

import sys
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
import sonel_weights as sw  # noqa: E402
from nc_v0_0_5 import _record  # noqa: E402

F32 = np.float32
# Added to a layer's variance under the square root (PyTorch's LayerNorm default).
NORM_EPSILON = 1e-5


def logistic(v):
    """The exponential in double, the rest in float, as the library's single-precision form."""
    return F32(1.0) / (F32(1.0) + np.exp(-np.asarray(v, np.float64)).astype(F32))


def layer_norm(v, gain, bias):
    """(v - mean) / sqrt(var + eps) * gain + bias over v's own values; mean and variance in double."""
    v = np.asarray(v, F32)
    mean = v.mean(dtype=np.float64)
    var = ((v - mean) ** 2).mean(dtype=np.float64)
    return ((v - mean) / np.sqrt(var + NORM_EPSILON) * gain + bias).astype(F32)


# The records' names under the 0.0.6 form; a model holding two networks renames some of them.
NAMES = dict(mu="MU", sd="SD", in_w="WeightLinear", in_b="BiasLinear", in_g="GainLinearNorm",
             in_beta="BiasLinearNorm", gru_w="WeightGRU", gru_b="BiasGRU", reset_w="WeightGRU_reset",
             reset_b="BiasGRU_reset", out_w="WeightNonLinear", out_b="BiasNonLinear", out_g="GainNonLinearNorm",
             out_beta="BiasNonLinearNorm")


def records(mu, sd, in_ws, in_bs, in_gains, in_betas, gru_w, gru_b, reset_w, reset_b,
            out_ws, out_bs, out_gains, out_betas, names=NAMES):
    """The network's records, under the 0.0.6 names unless `names` gives others."""
    R = sw.Record
    vec = lambda v: np.asarray(v, F32)  # noqa: E731
    vectors = lambda vs: R(sw.VECTOR_LIST, [vec(v) for v in vs])  # noqa: E731
    return {
        names["mu"]: R(sw.VECTOR, vec(mu)),
        names["sd"]: R(sw.VECTOR, vec(sd)),
        names["in_w"]: R(sw.MATRIX_LIST, [vec(w) for w in in_ws]),
        names["in_b"]: vectors(in_bs),
        names["in_g"]: vectors(in_gains),
        names["in_beta"]: vectors(in_betas),
        names["gru_w"]: R(sw.MATRIX, vec(gru_w)),
        names["gru_b"]: R(sw.VECTOR, vec(gru_b)),
        names["reset_w"]: R(sw.MATRIX, vec(reset_w)),
        names["reset_b"]: R(sw.VECTOR, vec(reset_b)),
        names["out_w"]: R(sw.MATRIX_LIST, [vec(w) for w in out_ws]),
        names["out_b"]: vectors(out_bs),
        names["out_g"]: vectors(out_gains),
        names["out_beta"]: vectors(out_betas),
    }


def groups_of(w, width, grouped):
    """Groups of matrix w over `width` inputs: 1 when it reads them all; grouped, width / columns
    when that splits the inputs and the rows evenly; 0 when it fits neither."""
    rows, columns = w.shape
    if columns == width:
        return 1
    if not grouped or columns == 0 or width % columns or rows % (width // columns):
        return 0
    return width // columns


def by_group(x, groups):
    """x as group g of a grouped product reads it: row g holds x[g], x[g + G], x[g + 2G], ..."""
    return np.asarray(x, F32).reshape(-1, groups).T


def grouped_product(w, x, groups):
    """Block-diagonal w (the groups' rows stacked) times x read by group (strided)."""
    if groups == 1:
        return w @ x
    rows, columns = w.shape
    return np.einsum("grc,gc->gr", w.reshape(groups, rows // groups, columns), by_group(x, groups)).reshape(rows)


def _chain(weights, biases, gains, betas, normed, width, name, grouped):
    """Checks one stack of layers from `width` inputs; returns the last layer's width and each
    layer's group count."""
    if not weights or len(biases) != len(weights) or len(gains) != normed or len(betas) != normed:
        raise ValueError("%s: %d layers, %d biases, %d and %d norm entries (%d wanted)"
                         % (name, len(weights), len(biases), len(gains), len(betas), normed))
    groups = []
    for k, (w, b) in enumerate(zip(weights, biases)):
        if w.ndim != 2 or w.shape[0] < 1 or not groups_of(w, width, grouped) or b.shape != (w.shape[0],):
            raise ValueError("%s[%d] is %s, not (at least 1) x %d%s" % (
                name, k, w.shape, width, " nor grouped" if grouped else ""))
        if k < normed and (gains[k].shape != b.shape or betas[k].shape != b.shape):
            raise ValueError("%s[%d]'s norm gain and bias need %d values" % (name, k, w.shape[0]))
        groups.append(groups_of(w, width, grouped))
        width = w.shape[0]
    return width, groups


class Weights:
    """The records of one network for `features` inputs, checked against each other; `grouped`
    lets a matrix narrower than its input split it into groups."""

    def __init__(self, records, features, grouped=False, names=NAMES):
        get = lambda role, code: _record(records, names[role], code)  # noqa: E731
        self.mu, self.sd = get("mu", sw.VECTOR), get("sd", sw.VECTOR)
        self.in_w, self.in_b = get("in_w", sw.MATRIX_LIST), get("in_b", sw.VECTOR_LIST)
        self.in_g, self.in_beta = get("in_g", sw.VECTOR_LIST), get("in_beta", sw.VECTOR_LIST)
        self.gru_w, self.gru_b = get("gru_w", sw.MATRIX), get("gru_b", sw.VECTOR)
        self.reset_w, self.reset_b = get("reset_w", sw.MATRIX), get("reset_b", sw.VECTOR)
        self.out_w, self.out_b = get("out_w", sw.MATRIX_LIST), get("out_b", sw.VECTOR_LIST)
        self.out_g, self.out_beta = get("out_g", sw.VECTOR_LIST), get("out_beta", sw.VECTOR_LIST)
        if len(self.mu) != features or len(self.sd) != features or np.any(self.sd <= 0):
            raise ValueError("MU and SD must have %d values, SD above 0" % features)
        width, self.in_groups = _chain(self.in_w, self.in_b, self.in_g, self.in_beta, len(self.in_w), features,
                                       "WeightLinear", grouped)
        self.hidden = hidden = self.reset_w.shape[0]
        # Grouped, each group of the state reads its own H / G values and every G-th input.
        columns = self.reset_w.shape[1]
        g = (width + hidden) // columns if hidden and columns and (width + hidden) % columns == 0 else 0
        if not (g == 1 or (grouped and g > 1 and width % g == 0 and hidden % g == 0)) \
                or len(self.reset_b) != hidden:
            raise ValueError("WeightGRU_reset must be H x (%d + H) / G and BiasGRU_reset H values" % width)
        self.gru_groups = g
        if self.gru_w.shape != (2 * hidden, columns) or len(self.gru_b) != 3 * hidden:
            raise ValueError("WeightGRU must be 2H x (I + H) / G and BiasGRU 3H values")
        self.outputs, self.out_groups = _chain(self.out_w, self.out_b, self.out_g, self.out_beta,
                                               max(len(self.out_w) - 1, 0), hidden, "WeightNonLinear", grouped)


class Network:
    """Recurrent state and one step of the network."""

    def __init__(self, weights):
        self.m = weights
        self.reset()

    def reset(self):
        self.state = np.zeros(self.m.hidden, F32)

    def step(self, features):
        """The last layer's values (float32) for one input of raw features; advances the state."""
        m, h = self.m, self.state
        x = ((np.asarray(features, F32) - m.mu) / m.sd).astype(F32)
        for w, b, g, beta, groups in zip(m.in_w, m.in_b, m.in_g, m.in_beta, m.in_groups):
            x = np.tanh(layer_norm(grouped_product(w, x, groups) + b, g, beta)).astype(F32)
        hidden, groups = m.hidden, m.gru_groups
        width = len(x) // groups

        def gate(w, b):
            """Input part plus bias, and the state part (each group reading its own state)."""
            from_input = grouped_product(w[:, :width], x, groups) + b
            from_state = np.einsum("grc,gc->gr", w[:, width:].reshape(groups, hidden // groups, -1),
                                   h.reshape(groups, -1)).reshape(hidden)
            return from_input, from_state

        zi, zh = gate(m.gru_w[:hidden], m.gru_b[:hidden])
        ri, rh = gate(m.reset_w, m.reset_b)
        ci, ch = gate(m.gru_w[hidden:], m.gru_b[hidden:2 * hidden])
        z, r = logistic(zi + zh), logistic(ri + rh)
        c = np.tanh(ci + r * (ch + m.gru_b[2 * hidden:])).astype(F32)
        self.state = (z * h + (F32(1.0) - z) * c).astype(F32)
        x = self.state
        for k, (w, b, groups) in enumerate(zip(m.out_w, m.out_b, m.out_groups)):
            v = (grouped_product(w, x, groups) + b).astype(F32)
            x = np.tanh(layer_norm(v, m.out_g[k], m.out_beta[k])).astype(F32) if k < len(m.out_w) - 1 \
                else logistic(v)
        return x
