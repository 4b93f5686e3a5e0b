#pragma once
// The network of generation 0.0.6 models: the features normalised by MU and SD, input layers that
// each apply a layer-normalised affine map and tanh, a GRU with update, reset and candidate gates,
// and output layers, layer-normalised and tanh but for the last, which is logistic. The ringtone
// detector and the v0.0.6 cleaner run it; the v0.0.7 cleaner runs it with grouped (block-diagonal)
// matrices, the separable-dense form. docs/design.md ("Layer-normalised GRU network", "Noise
// cleaner v0.0.7") gives the records and the step.
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
        // Separable dense (0.0.7): a matrix with fewer columns than its layer has inputs splits
        // them into groups. Off, every matrix must read all of its inputs.
        bool grouped = false;
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
    // The same step, named for the separable-dense form it runs when the keys allow groups.
    void calcRMForwardPropGRUSepdense(const float* features, float* out) {
        calcRMForwardProp_GRU_Layernorm(features, out);
    }
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
        size_t groups;
    };

    // x (n values) as a grouped product reads it: group g takes x[g], x[g + G], x[g + 2G], …, so
    // each group of a layer sees every group of the layer before. One group reads x as it is.
    static const float* readByGroup(const float* x, size_t n, size_t groups, std::vector<float>& scratch);

    // v ← tanh(LN(v) ⊙ gain + normBias), mean and variance over v itself.
    void normaliseAndSquash(std::vector<float>& v, const std::vector<float>& gain,
                            const std::vector<float>& normBias) const;

    // The records live in the weight; holding it keeps them valid for the network's life.
    std::shared_ptr<const WEIGHTS::Weight> weight_;
    const std::vector<float>& mean_;
    const std::vector<float>& deviation_;
    std::vector<Layer> inputLayers_;
    std::vector<Layer> outputLayers_;

    // The GRU records, read in place (shared by every session of the model). Unit i belongs to
    // group i / (H / G); its rows read the group's I / G inputs, then its H / G state values.
    const CONTAINERS::Matrix& gruWeight_;  // update rows 0 … H − 1, candidate rows H … 2H − 1
    const std::vector<float>& gruBias_;    // update, candidate input, candidate state
    const CONTAINERS::Matrix& resetWeight_;
    const std::vector<float>& resetBias_;
    size_t gruGroups_ = 1;

    UTILS::SigmoidOperator sigmoid_;
    UTILS::TanhOperator tanh_;
    std::vector<float> state_;
    // Per-step scratch, sized at construction.
    std::vector<float> normalised_;
    std::vector<float> byGroup_;              // a grouped product's input, read by group
    std::vector<std::vector<float>> inputs_;  // one per input layer
    std::vector<float> joined_;  // one group's inputs, then its state values
    std::vector<float> update_, reset_, candidateInput_, candidateState_;
    std::vector<std::vector<float>> outputs_;  // one per output layer
};

}  // namespace SONEL::NOISE_CANCELLER
