#pragma once
// The network of generation 0.0.6 models: the features normalised by MU and SD, input layers that
// each apply a layer-normalised affine map and tanh, a GRU with update, reset and candidate gates,
// and output layers, layer-normalised and tanh but for the last, which is logistic. The ringtone
// detector runs it; cleaners of the same generation are to run it under their own record names,
// which is why the names are a parameter. docs/design.md ("Layer-normalised GRU network") gives
// the records and the step.
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "utils/mat_mul.h"
#include "utils/matrix.h"
#include "weights/model.h"

namespace SONEL::NOISE_CANCELLER {

class LayerNormGru {
public:
    // Record names of one network in a weight file.
    struct Keys {
        std::string mean = "MU";
        std::string deviation = "SD";
        std::string inputWeights = "WeightLinear";
        std::string inputBiases = "BiasLinear";
        std::string inputGains = "GainLinearNorm";
        std::string inputNormBiases = "BiasLinearNorm";
        std::string gruWeight = "WeightGRU";
        std::string gruBias = "BiasGRU";
        std::string resetWeight = "WeightGRU_reset";
        std::string resetBias = "BiasGRU_reset";
        std::string outputWeights = "WeightNonLinear";
        std::string outputBiases = "BiasNonLinear";
        std::string outputGains = "GainNonLinearNorm";
        std::string outputNormBiases = "BiasNonLinearNorm";
    };

    // Reads the network for `featureCount` features and checks every shape against the others;
    // throws SonelException naming the first record that is missing or out of shape. Every
    // vector the step uses is sized here.
    LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount, const Keys& keys);
    // The same under the 0.0.6 names.
    LayerNormGru(const WEIGHTS::ModelPair& model, size_t featureCount);

    // One step: featureCount() raw features in, outputCount() values in (0, 1) out. Advances the
    // recurrent state; allocates nothing.
    void calcRMForwardProp_GRU_Layernorm(const float* features, float* out);
    // Back to the state of a new stream (zero).
    void resetState();

    size_t featureCount() const { return mean_.size(); }
    size_t stateSize() const { return state_.size(); }
    size_t outputCount() const { return outputs_.back().size(); }

private:
    struct Layer {
        const CONTAINERS::Matrix* weight;
        const std::vector<float>* bias;
        const std::vector<float>* gain;      // null for the logistic output layer
        const std::vector<float>* normBias;  // null for the logistic output layer
    };

    // v ← tanh(LN(v) ⊙ gain + normBias), mean and variance over v itself.
    static void normaliseAndSquash(std::vector<float>& v, const std::vector<float>& gain,
                                   const std::vector<float>& normBias);

    // The records live in the weight; holding it keeps them valid for the network's life.
    std::shared_ptr<const WEIGHTS::Weight> weight_;
    const std::vector<float>& mean_;
    const std::vector<float>& deviation_;
    std::vector<Layer> inputLayers_;
    std::vector<Layer> outputLayers_;

    // The GRU regrouped by what each part reads: [update; reset; candidate] rows over the input,
    // and the same rows over the state. Only the candidate's state part is scaled by the reset
    // gate, so the two halves are kept apart.
    CONTAINERS::Matrix fromInputWeight_;  // 3H × I
    std::vector<float> fromInputBias_;    // update, reset, candidate input biases
    CONTAINERS::Matrix fromStateWeight_;  // 3H × H
    std::vector<float> fromStateBias_;    // 0, 0, candidate state bias

    UTILS::SigmoidOperator sigmoid_;
    std::vector<float> state_;
    // Per-step scratch, sized at construction.
    std::vector<float> normalised_;
    std::vector<std::vector<float>> inputs_;  // one per input layer
    std::vector<float> fromInput_;
    std::vector<float> fromState_;
    std::vector<std::vector<float>> outputs_;  // one per output layer
};

}  // namespace SONEL::NOISE_CANCELLER
