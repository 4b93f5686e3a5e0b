#include "noise_canceller/layer_norm_gru.h"

#include <algorithm>
#include <cmath>

#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

using CONTAINERS::Matrix;
using UTIL_FUNCTIONS::blockMatMulPlus;
using UTIL_FUNCTIONS::groupedMatMulPlusB;

namespace {

// Added to the variance under the square root, so a layer whose outputs are all equal gives its
// norm biases instead of dividing by zero.
constexpr double kNormEpsilon = 1e-5;

const char* const kFile = "src/noise_canceller/layer_norm_gru";

void require(bool ok, const std::string& what) {
    if (!ok) throw UTILS::SonelException("ERROR layer-normalised GRU: " + what, kFile, __LINE__, "LayerNormGru");
}

std::string entry(const std::string& record, size_t k) { return record + "[" + std::to_string(k) + "]"; }

std::string shape(const Matrix& m) { return std::to_string(m.rows) + " x " + std::to_string(m.columns); }

using Vectors = std::vector<std::vector<float>>;

// Groups of a `rows` x `columns` matrix over `in` inputs: one when it reads them all; with groups
// allowed, in / columns when that splits the inputs and the rows evenly; 0 when it fits neither.
size_t groupsOf(size_t rows, size_t columns, size_t in, bool grouped) {
    if (columns == in) return 1;
    if (!grouped || columns == 0 || in % columns != 0) return 0;
    const size_t groups = in / columns;
    return rows % groups == 0 ? groups : 0;
}

// Checks the lists of one stack of layers against each other and chains them from `in` values;
// returns the width of the last layer and leaves each layer's group count in `groups`. `normed`
// layers (all but a logistic last one) need a gain and a norm bias as wide as they are.
size_t chainLayers(const std::vector<Matrix>& weights, const Vectors& biases, const Vectors& gains,
                   const Vectors& normBiases, size_t normed, size_t in, bool grouped, std::vector<size_t>& groups,
                   const std::string& weightKey, const std::string& biasKey, const std::string& gainKey,
                   const std::string& normBiasKey) {
    require(!weights.empty(), weightKey + " needs at least one layer");
    require(biases.size() == weights.size(), biasKey + " needs " + std::to_string(weights.size()) +
                                                 " entries (one per layer of " + weightKey + "), not " +
                                                 std::to_string(biases.size()));
    require(gains.size() == normed && normBiases.size() == normed,
            gainKey + " and " + normBiasKey + " need " + std::to_string(normed) + " entries each, not " +
                std::to_string(gains.size()) + " and " + std::to_string(normBiases.size()));
    groups.clear();
    for (size_t k = 0; k < weights.size(); ++k) {
        const Matrix& w = weights[k];
        const size_t g = w.rows >= 1 ? groupsOf(w.rows, w.columns, in, grouped) : 0;
        require(g >= 1, entry(weightKey, k) + " is " + shape(w) + ", not (at least 1) x " + std::to_string(in) +
                            (grouped ? " or a number of rows that its groups of the " + std::to_string(in) +
                                           " inputs split evenly"
                                     : ""));
        require(biases[k].size() == w.rows, entry(biasKey, k) + " needs " + std::to_string(w.rows) + " values, not " +
                                                std::to_string(biases[k].size()));
        if (k < normed)
            require(gains[k].size() == w.rows && normBiases[k].size() == w.rows,
                    entry(gainKey, k) + " and " + entry(normBiasKey, k) + " need " + std::to_string(w.rows) +
                        " values each");
        groups.push_back(g);
        in = w.rows;
    }
    return in;
}

}  // namespace

LayerNormGru::LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount, const Keys& keys)
    : weight_(model.first),
      mean_(model.first->get<std::vector<float>>(keys.mean)),
      deviation_(model.first->get<std::vector<float>>(keys.deviation)),
      gruWeight_(model.first->get<Matrix>(keys.gruWeight)),
      gruBias_(model.first->get<std::vector<float>>(keys.gruBias)),
      resetWeight_(model.first->get<Matrix>(keys.resetWeight)),
      resetBias_(model.first->get<std::vector<float>>(keys.resetBias)) {
    const WEIGHTS::Weight& w = *weight_;
    const auto& inWeights = w.get<std::vector<Matrix>>(keys.inputWeights);
    const auto& inBiases = w.get<Vectors>(keys.inputBiases);
    const auto& inGains = w.get<Vectors>(keys.inputGains);
    const auto& inNormBiases = w.get<Vectors>(keys.inputNormBiases);
    const auto& gruWeight = w.get<Matrix>(keys.gruWeight);
    const auto& gruBias = w.get<std::vector<float>>(keys.gruBias);
    const auto& resetWeight = w.get<Matrix>(keys.resetWeight);
    const auto& resetBias = w.get<std::vector<float>>(keys.resetBias);
    const auto& outWeights = w.get<std::vector<Matrix>>(keys.outputWeights);
    const auto& outBiases = w.get<Vectors>(keys.outputBiases);
    const auto& outGains = w.get<Vectors>(keys.outputGains);
    const auto& outNormBiases = w.get<Vectors>(keys.outputNormBiases);

    // Features are divided by SD: a deviation, so every value must be above 0.
    require(mean_.size() == featureCount && deviation_.size() == featureCount,
            keys.mean + " and " + keys.deviation + " need " + std::to_string(featureCount) +
                " values (one per feature), not " + std::to_string(mean_.size()) + " and " +
                std::to_string(deviation_.size()));
    for (size_t i = 0; i < featureCount; ++i)
        require(deviation_[i] > 0.0f,
                entry(keys.deviation, i) + " is " + std::to_string(deviation_[i]) + "; a deviation must be above 0");

    std::vector<size_t> inGroups, outGroups;
    const size_t in = chainLayers(inWeights, inBiases, inGains, inNormBiases, inWeights.size(), featureCount,
                                  keys.grouped, inGroups, keys.inputWeights, keys.inputBiases, keys.inputGains,
                                  keys.inputNormBiases);
    // Grouped, each of the G groups of the state reads its own H / G state values and every G-th of
    // the I inputs: both records then have I / G + H / G columns.
    const size_t hidden = resetWeight.rows;
    const size_t groups = hidden >= 1 && resetWeight.columns >= 1 && (in + hidden) % resetWeight.columns == 0
                              ? (in + hidden) / resetWeight.columns
                              : 0;
    const bool gruFits = groups == 1 || (keys.grouped && groups > 1 && in % groups == 0 && hidden % groups == 0);
    require(gruFits, keys.resetWeight + " is " + shape(resetWeight) + ", not H x (" + std::to_string(in) + " + H)" +
                         (keys.grouped ? " or H x (" + std::to_string(in) + " + H) / G for G groups that split both" : "") +
                         " with H at least 1 (" + std::to_string(in) + " from the last input layer)");
    require(resetBias.size() == hidden,
            keys.resetBias + " needs " + std::to_string(hidden) + " values, not " + std::to_string(resetBias.size()));
    const size_t groupIn = in / groups, groupState = hidden / groups;
    require(gruWeight.rows == 2 * hidden && gruWeight.columns == groupIn + groupState,
            keys.gruWeight + " is " + shape(gruWeight) + ", not " + std::to_string(2 * hidden) + " x " +
                std::to_string(groupIn + groupState) + " (update and candidate rows over input and state" +
                (groups > 1 ? ", " + std::to_string(groups) + " groups)" : ")"));
    require(gruBias.size() == 3 * hidden,
            keys.gruBias + " needs " + std::to_string(3 * hidden) + " values, not " + std::to_string(gruBias.size()));
    chainLayers(outWeights, outBiases, outGains, outNormBiases, outWeights.size() - (outWeights.empty() ? 0 : 1),
                hidden, keys.grouped, outGroups, keys.outputWeights, keys.outputBiases, keys.outputGains,
                keys.outputNormBiases);

    size_t widest = in;
    for (size_t k = 0; k < inWeights.size(); ++k) {
        inputLayers_.push_back({&inWeights[k], &inBiases[k], &inGains[k], &inNormBiases[k], inGroups[k]});
        inputs_.emplace_back(inWeights[k].rows);
        widest = std::max<size_t>(widest, inWeights[k].columns * inGroups[k]);
    }
    for (size_t k = 0; k < outWeights.size(); ++k) {
        const bool last = k + 1 == outWeights.size();
        outputLayers_.push_back({&outWeights[k], &outBiases[k], last ? nullptr : &outGains[k],
                                 last ? nullptr : &outNormBiases[k], outGroups[k]});
        outputs_.emplace_back(outWeights[k].rows);
        widest = std::max<size_t>(widest, outWeights[k].columns * outGroups[k]);
    }

    gruGroups_ = groups;
    state_.assign(hidden, 0.0f);
    normalised_.assign(featureCount, 0.0f);
    byGroup_.assign(widest, 0.0f);
    joined_.assign(groupIn + groupState, 0.0f);
    for (auto* v : {&update_, &reset_, &candidateInput_, &candidateState_}) v->assign(hidden, 0.0f);
}

LayerNormGru::LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount)
    : LayerNormGru(model, featureCount, Keys()) {}

void LayerNormGru::resetState() { std::fill(state_.begin(), state_.end(), 0.0f); }

void LayerNormGru::normaliseAndSquash(std::vector<float>& v, const std::vector<float>& gain,
                                      const std::vector<float>& normBias) const {
    // Mean and variance in double: a layer's outputs can share a large offset, and the
    // difference from the mean is what the normalisation keeps.
    const double n = static_cast<double>(v.size());
    double sum = 0.0;
    for (float x : v) sum += x;
    const double mean = sum / n;
    double squares = 0.0;
    for (float x : v) squares += (x - mean) * (x - mean);
    const double scale = 1.0 / std::sqrt(squares / n + kNormEpsilon);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = tanh_(static_cast<float>((v[i] - mean) * scale) * gain[i] + normBias[i]);
}

const float* LayerNormGru::readByGroup(const float* x, size_t n, size_t groups, std::vector<float>& scratch) {
    if (groups == 1) return x;
    const size_t each = n / groups;
    for (size_t g = 0; g < groups; ++g)
        for (size_t j = 0; j < each; ++j) scratch[g * each + j] = x[j * groups + g];
    return scratch.data();
}

void LayerNormGru::calcRMForwardProp_GRU_Layernorm(const float* features, float* out) {
    for (size_t i = 0; i < normalised_.size(); ++i) normalised_[i] = (features[i] - mean_[i]) / deviation_[i];

    const std::vector<float>* x = &normalised_;
    for (size_t k = 0; k < inputLayers_.size(); ++k) {
        const Layer& layer = inputLayers_[k];
        groupedMatMulPlusB(*layer.weight, readByGroup(x->data(), x->size(), layer.groups, byGroup_), layer.groups,
                           *layer.bias, inputs_[k]);
        normaliseAndSquash(inputs_[k], *layer.gain, *layer.normBias);
        x = &inputs_[k];
    }

    // z = σ(W_z [u; h] + b_z), r = σ(W_r [u; h] + b_r), c = tanh(W_cu u + b_cu + r ⊙ (W_ch h + b_ch)),
    // h ← z ⊙ h + (1 − z) ⊙ c. Every product reads the state before this step changes it; each
    // group reads its own contiguous part of the state and its rows of the records.
    const size_t groups = gruGroups_, hidden = state_.size(), groupState = hidden / groups;
    const size_t groupIn = x->size() / groups, width = groupIn + groupState;
    const float* u = readByGroup(x->data(), x->size(), groups, byGroup_);
    std::copy(gruBias_.begin(), gruBias_.begin() + hidden, update_.begin());
    std::copy(resetBias_.begin(), resetBias_.end(), reset_.begin());
    std::copy(gruBias_.begin() + hidden, gruBias_.begin() + 2 * hidden, candidateInput_.begin());
    std::copy(gruBias_.begin() + 2 * hidden, gruBias_.end(), candidateState_.begin());
    for (size_t g = 0; g < groups; ++g) {
        const size_t first = g * groupState;
        std::copy(u + g * groupIn, u + (g + 1) * groupIn, joined_.begin());
        std::copy(state_.begin() + first, state_.begin() + first + groupState, joined_.begin() + groupIn);
        const float* updateRows = gruWeight_.data.data() + first * width;
        const float* candidateRows = gruWeight_.data.data() + (hidden + first) * width;
        blockMatMulPlus(updateRows, groupState, width, width, joined_.data(), update_.data() + first);
        blockMatMulPlus(resetWeight_.data.data() + first * width, groupState, width, width, joined_.data(),
                        reset_.data() + first);
        blockMatMulPlus(candidateRows, groupState, groupIn, width, joined_.data(), candidateInput_.data() + first);
        blockMatMulPlus(candidateRows + groupIn, groupState, groupState, width, joined_.data() + groupIn,
                        candidateState_.data() + first);
    }
    for (size_t i = 0; i < hidden; ++i) {
        const float z = sigmoid_(update_[i]);
        const float r = sigmoid_(reset_[i]);
        const float c = tanh_(candidateInput_[i] + r * candidateState_[i]);
        state_[i] = z * state_[i] + (1.0f - z) * c;
    }

    x = &state_;
    for (size_t k = 0; k < outputLayers_.size(); ++k) {
        const Layer& layer = outputLayers_[k];
        groupedMatMulPlusB(*layer.weight, readByGroup(x->data(), x->size(), layer.groups, byGroup_), layer.groups,
                           *layer.bias, outputs_[k]);
        if (layer.gain)
            normaliseAndSquash(outputs_[k], *layer.gain, *layer.normBias);
        else
            for (float& v : outputs_[k]) v = sigmoid_(v);
        x = &outputs_[k];
    }
    std::copy(x->begin(), x->end(), out);
}

}  // namespace SONEL::NOISE_CANCELLER
