"""The cleaners' networks as PyTorch modules, the model geometries, and the weight-file records
written from a trained network.

Generation 0.0.5 (`CleanerNetwork`) computes exactly what `nc_v0_0_5.Network` (and the C++
cleaner) computes: x = [s ; f]; z = σ(W_z x + b_z); hidden layer k: a = A_k·in + α_k,
g = G_k·in + γ_k, h = g where a < 0 else a + g; after the first layer only
s ← z ⊙ h + (1 − z) ⊙ s; the next layers take h; band gains σ(A_last·h + α_last). Parameters are
stored in the records' own shapes (rows = outputs, the state's columns first), so export is a copy.

Generation 0.0.6 (`LayerNormGruCleaner`) is the layer-normalised GRU network of docs/design.md
(`nc_v0_0_6.Network`): input layers tanh(LayerNorm(W x + b)), PyTorch's GRU, output layers
tanh(LayerNorm(W x + b)) and a logistic band layer. Export regroups the GRU's weights
(`gru_records`) and repeats the per-band MU/SD for every frame of the context.

Generation 0.0.7 (`SepDenseGruCleaner`) is the 0.0.6 form with the GRU and the normalised output
layer in groups (`nc_v0_0_7.Network`; docs/design.md, Noise cleaner v0.0.7): group g reads every
G-th value of the layer before and its own part of the state. The GRU is one PyTorch GRU per
group; export stacks their units.
"""

import dataclasses
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import torch

TOOLS = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TOOLS / "reference"))
sys.path.insert(0, str(TOOLS))
import layer_norm_gru as lngru  # noqa: E402
import nc_v0_0_5 as nc  # noqa: E402
import nc_v0_0_6 as nc6  # noqa: E402
import nc_v0_0_7 as nc7  # noqa: E402
import sonel_weights as sw  # noqa: E402

F32 = np.float32
# The reference cleaner of each generation; its keys and filter records are the file's.
REFERENCE_MODELS = {nc.VERSION: nc.Model, nc6.VERSION: nc6.Model, nc7.VERSION: nc7.Model}
GENERATIONS = tuple(REFERENCE_MODELS)
# Groups of a 0.0.7 network's GRU and output layer unless a run chooses (--groups).
GROUPS_0_0_7 = 4
# Bound on the first layer's state columns (see CleanerNetwork.bound_recurrence).
RECURRENCE_LIMIT = 0.95


@dataclass(frozen=True)
class Geometry:
    """Block, band and network sizes of one model rate."""

    rate: int
    compress_rate: int
    # 0.0.5: the hidden layers' widths. 0.0.6 and 0.0.7: (input layer, GRU, output layer) widths.
    hidden: tuple
    preview_frames: int = 2
    # Energy gate (mean square, 16-bit units): RMS 1 and 2 LSB, i.e. digital silence and its
    # dither only; room tone recorded above the 16-bit floor is louder.
    freeze_low: float = 1.0
    freeze_high: float = 4.0
    # Post-processing chosen for the trained network on training-split mixtures, on top of
    # CONTROLS: ((X, (type, value)), ...) for CONTROL_SONEL_X (docs/training.md).
    tuned_controls: tuple = ()
    generation: str = nc.VERSION
    # 0.0.7: groups of the GRU and the output layer (every other layer reads its input whole).
    groups: int = 1

    @property
    def reference(self):
        """The generation's reference cleaner model class."""
        return REFERENCE_MODELS[self.generation]

    @property
    def keys(self):
        """Names of the generation's CONTROL_ records."""
        return self.reference.KEYS

    @property
    def hop(self):
        return self.rate // 100

    @property
    def block(self):
        return 2 * self.hop

    @property
    def filter_range(self):
        # Bin 0 (DC) carries no speech and gets gain 0; the Nyquist bin is the top of the range.
        return 1, self.hop

    @property
    def log_power_epsilon(self):
        # The power 16-bit rounding noise (variance 1/12 LSB²) leaves in one bin of the windowed
        # block: Σw² / 12 = N / 24. A float input and its 16-bit copy then give the same features,
        # and anything below the 16-bit floor reads as the same silence.
        return self.block / 24.0

    def bands(self):
        begin, end = self.filter_range
        return nc.BandLayout(self.hop + 1, begin, end, self.compress_rate)


def geometry_of(args):
    """The geometry a run trains: its rate's, with the generation, hidden sizes and feature context
    the run chose (if any). Runs from before the generation was a choice trained 0.0.5."""
    geometry = GEOMETRIES[args["rate"]]
    generation = args.get("generation") or nc.VERSION
    if generation == nc6.VERSION:
        # As wide as the rate's 0.0.5 network, with the soft threshold the rule gave its network.
        geometry = dataclasses.replace(geometry, generation=nc6.VERSION, hidden=(geometry.hidden[0],) * 3,
                                       tuned_controls=TUNED_0_0_6.get(geometry.rate, ()))
    if generation == nc7.VERSION:
        # Three times the rate's 0.0.5 width in four groups: at 32 kHz 384 wide for 350 k multiplies
        # per hop, where the shipped 0.0.5 network (256 wide) takes 481 k (docs/design.md).
        geometry = dataclasses.replace(geometry, generation=nc7.VERSION, hidden=(3 * geometry.hidden[0],) * 3,
                                       tuned_controls=(), groups=args.get("groups") or GROUPS_0_0_7)
    hidden, preview = args.get("hidden"), args.get("preview_frames")
    if hidden:
        geometry = dataclasses.replace(geometry, hidden=tuple(hidden))
    if preview is not None:
        geometry = dataclasses.replace(geometry, preview_frames=preview)
    return geometry


GEOMETRIES = {
    8000: Geometry(8000, compress_rate=2, hidden=(64, 64)),
    # Soft thresholds the noise-only rule gives the shipped networks trained on the larger corpus
    # (docs/training.md, Results, item 9).
    16000: Geometry(16000, compress_rate=3, hidden=(96, 96),
                    tuned_controls=(("ENABLE_RM_THRESHOLD", (sw.STRING, "t")),
                                    ("RM_THRESHOLD", (sw.FLOAT, 0.5)))),
    32000: Geometry(32000, compress_rate=4, hidden=(128, 128),
                    tuned_controls=(("ENABLE_RM_THRESHOLD", (sw.STRING, "t")),
                                    ("RM_THRESHOLD", (sw.FLOAT, 0.6)))),
}

# The soft threshold the noise-only rule gave the 0.0.6 network trained at each rate (docs/training.md,
# Results, item 10); a rate without one gets the library's defaults.
TUNED_0_0_6 = {
    32000: (("ENABLE_RM_THRESHOLD", (sw.STRING, "t")), ("RM_THRESHOLD", (sw.FLOAT, 0.3))),
}

# Post-processing the models are trained for: the library's defaults (mask squared, nothing else)
# except the input rescale, which is off (docs/training.md says why).
CONTROLS = {
    "ENABLE_RESCALE": (sw.STRING, "f"),
}


def control_records(controls, compress_rate, keys=nc.KEYS):
    if not keys.tunable and controls:
        raise ValueError("this generation reads no post-processing control but the compress rate, not %s"
                         % ", ".join(sorted(controls)))
    values = dict(controls, COMPRESS_RATE=(sw.UINT, compress_rate))
    return {keys.control(x): sw.Record(type_code, value) for x, (type_code, value) in values.items()}


class CleanerNetwork(torch.nn.Module):
    def __init__(self, features, bands, hidden):
        super().__init__()
        hidden = tuple(hidden)
        if len(hidden) < 1:
            raise ValueError("the network needs at least one hidden layer")
        self.features, self.bands, self.hidden = features, bands, hidden
        state = hidden[0]
        widths = [state + features] + list(hidden[:-1])

        def dense(rows, columns):
            return torch.nn.Parameter(torch.empty(rows, columns))

        self.gate_w = dense(state, state + features)
        self.gate_b = torch.nn.Parameter(torch.zeros(state))
        self.rect_w = torch.nn.ParameterList([dense(h, w) for h, w in zip(hidden, widths)])
        self.rect_b = torch.nn.ParameterList([torch.nn.Parameter(torch.zeros(h)) for h in hidden])
        self.lin_w = torch.nn.ParameterList([dense(h, w) for h, w in zip(hidden, widths)])
        self.lin_b = torch.nn.ParameterList([torch.nn.Parameter(torch.zeros(h)) for h in hidden])
        self.out_w = dense(bands, hidden[-1])
        self.out_b = torch.nn.Parameter(torch.zeros(bands))
        self.reset_parameters()

    def reset_parameters(self):
        for w in [self.gate_w, *self.rect_w, *self.lin_w, self.out_w]:
            torch.nn.init.xavier_uniform_(w)
        # The rectified and linear paths add up: halve each so a layer starts near unit gain.
        with torch.no_grad():
            for w in [*self.rect_w, *self.lin_w]:
                w.mul_(0.5)
        self.bound_recurrence()

    def bound_recurrence(self, limit=RECURRENCE_LIMIT):
        """Scales each first-layer row's state columns so that the state's peak |s| can never grow:
        h_i is either the linear path g_i or g_i + a_i, so when both rows' state columns sum in
        absolute value to at most `limit` < 1, |h_i| <= limit·max|s| + (feature and bias part),
        and s ← z ⊙ h + (1 − z) ⊙ s stays below max(|s_0|, that part / (1 − limit)) for any
        input, however long the stream. Without it the state ran away within minutes of training."""
        h0 = self.state_size
        with torch.no_grad():
            a, g = self.rect_w[0][:, :h0], self.lin_w[0][:, :h0]
            sums = torch.maximum(g.abs().sum(1), (g + a).abs().sum(1))
            scale = torch.clamp(limit / sums, max=1.0).unsqueeze(1)
            a.mul_(scale)
            g.mul_(scale)

    @property
    def state_size(self):
        return self.hidden[0]

    def forward(self, features, analysed, state=None):
        """Band gains (batch, blocks, bands) for normalised features (batch, blocks, features).

        `analysed` (batch, blocks) is False where the energy gate froze the block: there the state
        is kept, as the cleaner keeps it, and the gains are meaningless. Returns the gains and
        the state after the last block."""
        x, state = self.hidden_layers(features, analysed, state)
        return torch.sigmoid(torch.nn.functional.linear(x, self.out_w, self.out_b)), state

    def hidden_layers(self, features, analysed, state=None):
        """The last hidden layer's output (batch, blocks, width) and the state after the last
        block."""
        batch, blocks, _ = features.shape
        h0 = self.state_size
        if state is None:
            state = features.new_zeros(batch, h0)
        # Only the state columns of the first layer and the gate run step by step; the feature
        # columns and every later layer run over all blocks at once.
        first_w = torch.cat([self.gate_w, self.rect_w[0], self.lin_w[0]])
        first_b = torch.cat([self.gate_b, self.rect_b[0], self.lin_b[0]])
        ahead = torch.nn.functional.linear(features, first_w[:, h0:], first_b)
        state_w = first_w[:, :h0].t()
        keep = analysed.unsqueeze(-1)
        outputs = []
        for t, pre in enumerate(ahead.unbind(1)):
            z, a, g = (pre + state @ state_w).split(h0, dim=1)
            z = torch.sigmoid(z)
            h = torch.where(a < 0, g, a + g)
            state = torch.where(keep[:, t], z * h + (1 - z) * state, state)
            outputs.append(h)
        x = torch.stack(outputs, 1)
        for a_w, a_b, g_w, g_b in list(zip(self.rect_w, self.rect_b, self.lin_w, self.lin_b))[1:]:
            a = torch.nn.functional.linear(x, a_w, a_b)
            g = torch.nn.functional.linear(x, g_w, g_b)
            x = torch.where(a < 0, g, a + g)
        return x, state


class LayerNormGruCleaner(torch.nn.Module):
    """Band gains from the 0.0.6 network form: one input layer tanh(LayerNorm(W x + b)), a GRU,
    one output layer of the same form and a logistic band layer. The GRU's state needs no bound:
    it is a convex blend of itself and a tanh, so it stays within [-1, 1] on any input."""

    def __init__(self, features, bands, hidden):
        super().__init__()
        hidden = tuple(hidden)
        if len(hidden) != 3 or min(hidden) < 1:
            raise ValueError("a 0.0.6 network has three widths (input layer, GRU, output layer), not %s"
                             % (hidden,))
        width, state, out = hidden
        self.features, self.bands, self.hidden = features, bands, hidden
        self.inp = torch.nn.Linear(features, width)
        self.inp_norm = torch.nn.LayerNorm(width, eps=lngru.NORM_EPSILON)
        self.gru = torch.nn.GRU(width, state, batch_first=True)
        self.hid = torch.nn.Linear(state, out)
        self.hid_norm = torch.nn.LayerNorm(out, eps=lngru.NORM_EPSILON)
        self.out = torch.nn.Linear(out, bands)

    @property
    def state_size(self):
        return self.hidden[1]

    def forward(self, features, analysed, state=None):
        """As CleanerNetwork.forward: gains (batch, blocks, bands) and the state after the last
        block; blocks the energy gate froze keep the state."""
        x = self.gru_input(torch.tanh(self.inp_norm(self.inp(features))))
        if state is None:
            state = features.new_zeros(features.shape[0], self.state_size)
        # The fused GRU cannot skip a frozen block, so it runs over each stream's analysed blocks
        # moved to the front, in order; every block then reads the state after the last analysed
        # block up to it (the state it came in with before the first), and the states computed
        # past a stream's analysed blocks are never read. A step-by-step loop that skips frozen
        # blocks gives the same values, at twice the time of the grouped GRU.
        order = torch.argsort((~analysed).to(torch.uint8), dim=1, stable=True)
        front = x.gather(1, order.unsqueeze(-1).expand(-1, -1, x.shape[-1]))
        states = torch.cat([state.unsqueeze(1), self.run_gru(front, state)], 1)
        y = states.gather(1, analysed.long().cumsum(1).unsqueeze(-1).expand(-1, -1, states.shape[-1]))
        return torch.sigmoid(self.out(torch.tanh(self.hid_norm(self.hid(y))))), y[:, -1]

    def run_gru(self, x, state):
        """The GRU's state after each block of x, from `state`."""
        return self.gru(x, state.unsqueeze(0))[0]

    def gru_groups(self):
        """The GRUs whose units make the state, in order (one here)."""
        return [self.gru]

    def gru_input(self, x):
        """The input layer's values in the order the GRU reads them."""
        return x


class GroupedLinear(torch.nn.Module):
    """W x + b with W block-diagonal in `groups` groups, group g reading x[g], x[g + G], ... and
    giving the g-th block of outputs; the weight is held as the model record stores it,
    outputs x inputs / groups (nn.Linear's initialisation over a group's inputs)."""

    def __init__(self, inputs, outputs, groups):
        super().__init__()
        if inputs % groups or outputs % groups:
            raise ValueError("%d groups do not split %d inputs and %d outputs" % (groups, inputs, outputs))
        self.groups = groups
        bound = 1.0 / np.sqrt(inputs // groups)
        self.weight = torch.nn.Parameter(torch.empty(outputs, inputs // groups).uniform_(-bound, bound))
        self.bias = torch.nn.Parameter(torch.empty(outputs).uniform_(-bound, bound))

    def forward(self, x):
        g = self.groups
        by_group = x.unflatten(-1, (-1, g)).transpose(-1, -2)
        blocks = self.weight.view(g, -1, self.weight.shape[1])
        return torch.einsum("...gc,grc->...gr", by_group, blocks).flatten(-2) + self.bias


class SepDenseGruCleaner(LayerNormGruCleaner):
    """The 0.0.7 network form: LayerNormGruCleaner with its GRU and output layer in `groups`
    groups. The GRU is one PyTorch GRU per group, each reading its group's part of the input layer
    (every G-th value) and keeping its part of the state."""

    def __init__(self, features, bands, hidden, groups):
        super().__init__(features, bands, hidden)
        width, state, out = self.hidden
        if groups < 1 or width % groups or state % groups or out % groups:
            raise ValueError("%d groups must split every width of %s" % (groups, self.hidden))
        self.groups = groups
        self.hid = GroupedLinear(state, out, groups)
        self.gru = torch.nn.ModuleList(torch.nn.GRU(width // groups, state // groups, batch_first=True)
                                       for _ in range(groups))

    def run_gru(self, x, state):
        return torch.cat([gru(part.contiguous(), own.unsqueeze(0).contiguous())[0] for gru, part, own in
                          zip(self.gru, x.chunk(self.groups, -1), state.chunk(self.groups, -1))], -1)

    def gru_groups(self):
        return list(self.gru)

    def gru_input(self, x):
        return x.unflatten(-1, (-1, self.groups)).transpose(-1, -2).flatten(-2)


def _np(p):
    return p.detach().cpu().numpy().astype(F32)


def gru_records(grus):
    """One-layer PyTorch GRUs, one per group of units (one for an ungrouped network), as the 0.0.6
    records WeightGRU, BiasGRU, WeightGRU_reset and BiasGRU_reset. PyTorch keeps the reset, update
    and candidate rows together ([r; z; n]) and the input and state parts apart; the model file
    keeps update and candidate in "WeightGRU", the reset gate apart, input and state columns side
    by side (a unit's own group's, for 0.0.7), and sums the two biases of each gate (the
    candidate's state bias stays apart: the reset gate scales it)."""
    gates = {k: [] for k in ("w_r", "w_z", "w_n", "b_r", "b_z", "b_n", "b_hn")}
    for gru in grus:
        if gru.num_layers != 1 or not gru.bias or gru.bidirectional:
            raise ValueError("the 0.0.6 records hold one forward GRU layer with biases")
        w_i, w_h = _np(gru.weight_ih_l0), _np(gru.weight_hh_l0)
        b_i, b_h = _np(gru.bias_ih_l0), _np(gru.bias_hh_l0)
        for name, rows in zip("rzn", np.split(np.arange(3 * gru.hidden_size), 3)):
            gates["w_" + name].append(np.hstack([w_i[rows], w_h[rows]]))
            gates["b_" + name].append(b_i[rows] + b_h[rows] if name != "n" else b_i[rows])
        gates["b_hn"].append(b_h[2 * gru.hidden_size:])
    joined = {k: np.concatenate(v) for k, v in gates.items()}
    return np.vstack([joined["w_z"], joined["w_n"]]), \
        np.concatenate([joined["b_z"], joined["b_n"], joined["b_hn"]]), joined["w_r"], joined["b_r"]


def _network_records(geometry, network, mu, sd):
    """The network's records: 0.0.5 as they are stored, 0.0.6 and 0.0.7 regrouped (with MU and SD)."""
    R = sw.Record
    if geometry.generation != nc.VERSION:
        n = network
        return lngru.records(mu, sd, [_np(n.inp.weight)], [_np(n.inp.bias)], [_np(n.inp_norm.weight)],
                             [_np(n.inp_norm.bias)], *gru_records(n.gru_groups()),
                             [_np(n.hid.weight), _np(n.out.weight)],
                             [_np(n.hid.bias), _np(n.out.bias)], [_np(n.hid_norm.weight)], [_np(n.hid_norm.bias)])
    return {
        "WeightGRU": R(sw.MATRIX, _np(network.gate_w)),
        "BaesGRU": R(sw.VECTOR, _np(network.gate_b)),
        "WeightNonLinear": R(sw.MATRIX_LIST, [_np(w) for w in network.rect_w] + [_np(network.out_w)]),
        "BaesNonLinear": R(sw.VECTOR_LIST, [_np(b) for b in network.rect_b] + [_np(network.out_b)]),
        "WeightLinear": R(sw.MATRIX_LIST, [_np(w) for w in network.lin_w]),
        "BaesLinear": R(sw.VECTOR_LIST, [_np(b) for b in network.lin_b]),
    }


def model_records(geometry, network, mu, sd, name, controls=None, timestamp=None):
    """Every record the geometry's cleaner reads, in the order of the design page. `mu` and `sd`
    hold one value per band, as training measures them; a 0.0.6 network scales every input of the
    context itself, so its file repeats them for each frame. `controls` default to CONTROLS plus
    the geometry's tuned post-processing."""
    if controls is None:
        controls = dict(CONTROLS, **dict(geometry.tuned_controls)) if geometry.keys.tunable else {}
    bands = geometry.bands()
    begin, end = geometry.filter_range
    begin_name, end_name, past_last = geometry.reference.FILTER_RECORDS
    frames = geometry.preview_frames + 1 if geometry.generation != nc.VERSION else 1
    mu, sd = np.tile(np.asarray(mu, F32), frames), np.tile(np.asarray(sd, F32), frames)
    R = sw.Record
    records = {
        "Version": R(sw.STRING, geometry.generation),
        "SampleRate": R(sw.UINT, geometry.rate),
        "FrameLength": R(sw.UINT, geometry.block),
        "Step": R(sw.UINT, geometry.hop),
        begin_name: R(sw.UINT, begin),
        end_name: R(sw.UINT, end + int(past_last)),
        "PreviewFrames": R(sw.UINT, geometry.preview_frames),
        "CoefficientNumber": R(sw.UINT, bands.count),
        "FreezeLowEnThr": R(sw.FLOAT, geometry.freeze_low),
        "FreezeHighEnThr": R(sw.FLOAT, geometry.freeze_high),
        "MU": R(sw.VECTOR, mu),
        "SD": R(sw.VECTOR, sd),
        "LogPowerEpsilon": R(sw.FLOAT, geometry.log_power_epsilon),
        "ModelName": R(sw.STRING, name),
        "TimeStamp": R(sw.STRING, timestamp or time.strftime("%Y%m%dT%H%M%S", time.gmtime())),
    }
    records.update(_network_records(geometry, network, mu, sd))
    records.update(control_records(controls, geometry.compress_rate, geometry.keys))
    return records


def reference_model(records):
    """The reference cleaner's model of the generation the records name ("Version")."""
    return REFERENCE_MODELS.get(records["Version"].value, nc.Model)(records)


def load_records(network, records):
    """Sets a 0.0.5 `network`'s parameters from a model file's records (the inverse of
    model_records); the shapes must match the geometry the network was made for."""
    if not isinstance(network, CleanerNetwork):
        raise ValueError("only 0.0.5 networks start from a model file")
    rect, lin = records["WeightNonLinear"].value, records["WeightLinear"].value
    values = {"gate_w": records["WeightGRU"].value, "gate_b": records["BaesGRU"].value,
              "out_w": rect[-1], "out_b": records["BaesNonLinear"].value[-1]}
    for k in range(len(network.hidden)):
        values.update({"rect_w.%d" % k: rect[k], "rect_b.%d" % k: records["BaesNonLinear"].value[k],
                       "lin_w.%d" % k: lin[k], "lin_b.%d" % k: records["BaesLinear"].value[k]})
    state = network.state_dict()
    if set(values) != set(state) or len(rect) != len(network.hidden) + 1:
        raise ValueError("the model file's layers do not match a network of hidden sizes %s"
                         % (network.hidden,))
    for name, value in values.items():
        if tuple(np.shape(value)) != tuple(state[name].shape):
            raise ValueError("%s is %s in the model file, %s in the network"
                             % (name, np.shape(value), tuple(state[name].shape)))
        state[name] = torch.from_numpy(np.asarray(value, F32).copy())
    network.load_state_dict(state)


def new_network(geometry):
    bands = geometry.bands().count
    features = (geometry.preview_frames + 1) * bands
    if geometry.generation == nc7.VERSION:
        return SepDenseGruCleaner(features, bands, geometry.hidden, geometry.groups)
    form = LayerNormGruCleaner if geometry.generation == nc6.VERSION else CleanerNetwork
    return form(features, bands, geometry.hidden)
