#include "noise_canceller/layer_norm_gru.h"

#include <algorithm>
#include <cmath>

#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

using CONTAINERS::Matrix;
using UTIL_FUNCTIONS::matMulPlusB;

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

// Checks the lists of one stack of layers against each other and chains them from `in` values;
// returns the width of the last layer. `normed` layers (all but a logistic last one) need a gain
// and a norm bias as wide as they are.
size_t chainLayers(const std::vector<Matrix>& weights, const Vectors& biases, const Vectors& gains,
                   const Vectors& normBiases, size_t normed, size_t in, const std::string& weightKey,
                   const std::string& biasKey, const std::string& gainKey, const std::string& normBiasKey) {
    require(!weights.empty(), weightKey + " needs at least one layer");
    require(biases.size() == weights.size(), biasKey + " needs " + std::to_string(weights.size()) +
                                                 " entries (one per layer of " + weightKey + "), not " +
                                                 std::to_string(biases.size()));
    require(gains.size() == normed && normBiases.size() == normed,
            gainKey + " and " + normBiasKey + " need " + std::to_string(normed) + " entries each, not " +
                std::to_string(gains.size()) + " and " + std::to_string(normBiases.size()));
    for (size_t k = 0; k < weights.size(); ++k) {
        const Matrix& w = weights[k];
        require(w.rows >= 1 && w.columns == in,
                entry(weightKey, k) + " is " + shape(w) + ", not (at least 1) x " + std::to_string(in));
        require(biases[k].size() == w.rows, entry(biasKey, k) + " needs " + std::to_string(w.rows) + " values, not " +
                                                std::to_string(biases[k].size()));
        if (k < normed)
            require(gains[k].size() == w.rows && normBiases[k].size() == w.rows,
                    entry(gainKey, k) + " and " + entry(normBiasKey, k) + " need " + std::to_string(w.rows) +
                        " values each");
        in = w.rows;
    }
    return in;
}

}  // namespace

LayerNormGru::LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount, const Keys& keys)
    : weight_(model.first),
      mean_(model.first->get<std::vector<float>>(keys.mean)),
      deviation_(model.first->get<std::vector<float>>(keys.deviation)) {
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

    const size_t in = chainLayers(inWeights, inBiases, inGains, inNormBiases, inWeights.size(), featureCount,
                                  keys.inputWeights, keys.inputBiases, keys.inputGains, keys.inputNormBiases);
    const size_t hidden = resetWeight.rows;
    require(hidden >= 1 && resetWeight.columns == in + hidden,
            keys.resetWeight + " is " + shape(resetWeight) + ", not H x (" + std::to_string(in) +
                " + H) with H at least 1 (" + std::to_string(in) + " from the last input layer)");
    require(resetBias.size() == hidden,
            keys.resetBias + " needs " + std::to_string(hidden) + " values, not " + std::to_string(resetBias.size()));
    require(gruWeight.rows == 2 * hidden && gruWeight.columns == in + hidden,
            keys.gruWeight + " is " + shape(gruWeight) + ", not " + std::to_string(2 * hidden) + " x " +
                std::to_string(in + hidden) + " (update and candidate rows over input and state)");
    require(gruBias.size() == 3 * hidden,
            keys.gruBias + " needs " + std::to_string(3 * hidden) + " values, not " + std::to_string(gruBias.size()));
    chainLayers(outWeights, outBiases, outGains, outNormBiases, outWeights.size() - (outWeights.empty() ? 0 : 1),
                hidden, keys.outputWeights, keys.outputBiases, keys.outputGains, keys.outputNormBiases);

    for (size_t k = 0; k < inWeights.size(); ++k) {
        inputLayers_.push_back({&inWeights[k], &inBiases[k], &inGains[k], &inNormBiases[k]});
        inputs_.emplace_back(inWeights[k].rows);
    }
    for (size_t k = 0; k < outWeights.size(); ++k) {
        const bool last = k + 1 == outWeights.size();
        outputLayers_.push_back(
            {&outWeights[k], &outBiases[k], last ? nullptr : &outGains[k], last ? nullptr : &outNormBiases[k]});
        outputs_.emplace_back(outWeights[k].rows);
    }

    // WeightGRU's rows 0 … H − 1 are the update gate, H … 2H − 1 the candidate; its columns
    // 0 … I − 1 read the input and the rest the state. BiasGRU: update, candidate input,
    // candidate state.
    fromInputWeight_ = Matrix(static_cast<unsigned>(3 * hidden), static_cast<unsigned>(in));
    fromStateWeight_ = Matrix(static_cast<unsigned>(3 * hidden), static_cast<unsigned>(hidden));
    auto split = [&](const Matrix& source, size_t sourceRow, size_t row) {
        for (size_t c = 0; c < in; ++c)
            fromInputWeight_.at(static_cast<unsigned>(row), static_cast<unsigned>(c)) =
                source.at(static_cast<unsigned>(sourceRow), static_cast<unsigned>(c));
        for (size_t c = 0; c < hidden; ++c)
            fromStateWeight_.at(static_cast<unsigned>(row), static_cast<unsigned>(c)) =
                source.at(static_cast<unsigned>(sourceRow), static_cast<unsigned>(in + c));
    };
    fromInputBias_.assign(3 * hidden, 0.0f);
    fromStateBias_.assign(3 * hidden, 0.0f);
    for (size_t i = 0; i < hidden; ++i) {
        split(gruWeight, i, i);                        // update
        split(resetWeight, i, hidden + i);             // reset
        split(gruWeight, hidden + i, 2 * hidden + i);  // candidate
        fromInputBias_[i] = gruBias[i];
        fromInputBias_[hidden + i] = resetBias[i];
        fromInputBias_[2 * hidden + i] = gruBias[hidden + i];
        fromStateBias_[2 * hidden + i] = gruBias[2 * hidden + i];
    }

    state_.assign(hidden, 0.0f);
    normalised_.assign(featureCount, 0.0f);
    fromInput_.assign(3 * hidden, 0.0f);
    fromState_.assign(3 * hidden, 0.0f);
}

LayerNormGru::LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount)
    : LayerNormGru(model, featureCount, Keys()) {}

void LayerNormGru::resetState() { std::fill(state_.begin(), state_.end(), 0.0f); }

void LayerNormGru::normaliseAndSquash(std::vector<float>& v, const std::vector<float>& gain,
                                      const std::vector<float>& normBias) {
    // Mean and variance in double: a layer's outputs can share a large offset, and the
    // difference from the mean is what the normalisation keeps.
    const double n = static_cast<double>(v.size());
    double sum = 0.0;
    for (float x : v) sum += x;
    const double mean = sum / n;
    double squares = 0.0;
    for (float x : v) squares += (x - mean) * (x - mean);
    const double root = std::sqrt(squares / n + kNormEpsilon);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = std::tanh(static_cast<float>((v[i] - mean) / root * gain[i] + normBias[i]));
}

void LayerNormGru::calcRMForwardProp_GRU_Layernorm(const float* features, float* out) {
    for (size_t i = 0; i < normalised_.size(); ++i) normalised_[i] = (features[i] - mean_[i]) / deviation_[i];

    const std::vector<float>* x = &normalised_;
    for (size_t k = 0; k < inputLayers_.size(); ++k) {
        const Layer& layer = inputLayers_[k];
        matMulPlusB(*layer.weight, *x, *layer.bias, inputs_[k]);
        normaliseAndSquash(inputs_[k], *layer.gain, *layer.normBias);
        x = &inputs_[k];
    }

    // z = σ(W_z [u; h] + b_z), r = σ(W_r [u; h] + b_r), c = tanh(W_cu u + b_cu + r ⊙ (W_ch h + b_ch)),
    // h ← z ⊙ h + (1 − z) ⊙ c. Both products read the state before this step changes it.
    matMulPlusB(fromInputWeight_, *x, fromInputBias_, fromInput_);
    matMulPlusB(fromStateWeight_, state_, fromStateBias_, fromState_);
    const size_t hidden = state_.size();
    for (size_t i = 0; i < hidden; ++i) {
        const float z = sigmoid_(fromInput_[i] + fromState_[i]);
        const float r = sigmoid_(fromInput_[hidden + i] + fromState_[hidden + i]);
        const float c = std::tanh(fromInput_[2 * hidden + i] + r * fromState_[2 * hidden + i]);
        state_[i] = z * state_[i] + (1.0f - z) * c;
    }

    x = &state_;
    for (size_t k = 0; k < outputLayers_.size(); ++k) {
        const Layer& layer = outputLayers_[k];
        matMulPlusB(*layer.weight, *x, *layer.bias, outputs_[k]);
        if (layer.gain)
            normaliseAndSquash(outputs_[k], *layer.gain, *layer.normBias);
        else
            for (float& v : outputs_[k]) v = sigmoid_(v);
        x = &outputs_[k];
    }
    std::copy(x->begin(), x->end(), out);
}

}  // namespace SONEL::NOISE_CANCELLER
