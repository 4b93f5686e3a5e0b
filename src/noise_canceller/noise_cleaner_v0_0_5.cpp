#include "noise_canceller/noise_cleaner_v0_0_5.h"

#include <cmath>

#include "utils/mat_mul.h"
#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

using CONTAINERS::Matrix;
using UTIL_FUNCTIONS::matMulPlusB;

namespace {

const ParameterKeys kKeys{"SONEL_", "_v0_0_5", "VELTA_COMPRESS_RATE_v0_0_5"};

void requireShape(bool ok, const std::string& what) {
    if (!ok)
        throw UTILS::SonelException("ERROR network shape: " + what,
                                    "src/noise_canceller/noise_cleaner_v0_0_5", __LINE__, "Params");
}

// Logistic in double precision, stored as float.
void logistic(std::vector<float>& v) {
    for (float& x : v) x = static_cast<float>(1.0 / (1.0 + std::exp(-static_cast<double>(x))));
}

}  // namespace

NoiseCleaner_v0_0_5::Params::Params(const WEIGHTS::Weight& weight, size_t inputLength,
                                    size_t bandCount)
    : gateWeight(weight.get<Matrix>("WeightGRU")),
      gateBias(weight.get<std::vector<float>>("BaesGRU")),
      rectifiedWeights(weight.get<std::vector<Matrix>>("WeightNonLinear")),
      rectifiedBiases(weight.get<std::vector<std::vector<float>>>("BaesNonLinear")),
      linearWeights(weight.get<std::vector<Matrix>>("WeightLinear")),
      linearBiases(weight.get<std::vector<std::vector<float>>>("BaesLinear")) {
    const size_t layers = linearWeights.size();
    requireShape(layers >= 1 && linearBiases.size() == layers &&
                     rectifiedWeights.size() == layers + 1 && rectifiedBiases.size() == layers + 1,
                 "one or more hidden layers and one output layer");
    const size_t stateSize = gateWeight.rows;
    requireShape(gateBias.size() == stateSize && gateWeight.columns == stateSize + inputLength,
                 "update gate is state x (state + features)");
    size_t in = stateSize + inputLength;
    for (size_t k = 0; k <= layers; ++k) {
        const Matrix& a = rectifiedWeights[k];
        requireShape(a.columns == in && rectifiedBiases[k].size() == a.rows,
                     "layer " + std::to_string(k) + " input or bias size");
        if (k < layers) {
            const Matrix& g = linearWeights[k];
            requireShape(g.rows == a.rows && g.columns == in && linearBiases[k].size() == g.rows,
                         "layer " + std::to_string(k) + " linear path");
        }
        requireShape(k != 0 || a.rows == stateSize, "first hidden layer must match the state");
        in = a.rows;
    }
    requireShape(in == bandCount, "output layer must give one gain per band");
}

NoiseCleaner_v0_0_5::NoiseCleaner_v0_0_5(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : SpectralCleaner(modelPair, sampleRate, kKeys, FeatureScaling::FrontEnd),
      params_(*modelPair->first, inputLength(), bandCount()),
      state_(params_.gateWeight.rows, 0.0f),
      x_(params_.gateWeight.columns),
      gate_(params_.gateWeight.rows) {
    size_t widest = 0;
    for (const Matrix& a : params_.rectifiedWeights) widest = std::max<size_t>(widest, a.rows);
    rectified_.reserve(widest);
    linear_.reserve(widest);
    hidden_[0].reserve(widest);
    hidden_[1].reserve(widest);
}

void NoiseCleaner_v0_0_5::computeBandGains(const std::vector<float>& networkInput,
                                           std::vector<float>& bandGains) {
    std::copy(state_.begin(), state_.end(), x_.begin());
    std::copy(networkInput.begin(), networkInput.end(), x_.begin() + static_cast<long>(state_.size()));
    matMulPlusB(params_.gateWeight, x_, params_.gateBias, gate_);
    logistic(gate_);

    const size_t layers = params_.linearWeights.size();
    const std::vector<float>* in = &x_;
    for (size_t k = 0; k < layers; ++k) {
        std::vector<float>& h = hidden_[k % 2];
        matMulPlusB(params_.rectifiedWeights[k], *in, params_.rectifiedBiases[k], rectified_);
        matMulPlusB(params_.linearWeights[k], *in, params_.linearBiases[k], linear_);
        h.resize(rectified_.size());
        for (size_t i = 0; i < h.size(); ++i)
            h[i] = rectified_[i] < 0.0f ? linear_[i] : rectified_[i] + linear_[i];
        if (k == 0)
            for (size_t i = 0; i < state_.size(); ++i)
                state_[i] = gate_[i] * h[i] + (1.0f - gate_[i]) * state_[i];
        in = &h;
    }
    matMulPlusB(params_.rectifiedWeights[layers], *in, params_.rectifiedBiases[layers], bandGains);
    logistic(bandGains);
}

void NoiseCleaner_v0_0_5::resetNetwork() { std::fill(state_.begin(), state_.end(), 0.0f); }

}  // namespace SONEL::NOISE_CANCELLER
