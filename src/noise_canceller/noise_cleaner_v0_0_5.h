#pragma once
// The reference noise cleaner: a gated recurrent network over band log powers. Hidden layers
// add a rectified and a linear path; an update gate blends the first hidden layer into the
// recurrent state; the output layer gives one logistic gain per band.
#include <vector>

#include "noise_canceller/spectral_cleaner.h"
#include "utils/matrix.h"

namespace SONEL::NOISE_CANCELLER {

class NoiseCleaner_v0_0_5 : public SpectralCleaner {
public:
    // The network records of the weight: update gate W_z, b_z; per hidden layer the rectified
    // path A, α and the linear path G, γ; the output layer as the last A, α.
    struct Params {
        const CONTAINERS::Matrix& gateWeight;
        const std::vector<float>& gateBias;
        const std::vector<CONTAINERS::Matrix>& rectifiedWeights;
        const std::vector<std::vector<float>>& rectifiedBiases;
        const std::vector<CONTAINERS::Matrix>& linearWeights;
        const std::vector<std::vector<float>>& linearBiases;

        // Throws SonelException when a record is missing or a shape does not chain.
        Params(const WEIGHTS::Weight& weight, size_t inputLength, size_t bandCount);
    };

    NoiseCleaner_v0_0_5(WEIGHTS::ModelPtr model, unsigned sampleRate);

private:
    void computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) override;
    void resetNetwork() override;

    Params params_;
    std::vector<float> state_;
    std::vector<float> x_;        // [state ; features]
    std::vector<float> gate_;
    std::vector<float> rectified_;
    std::vector<float> linear_;
    std::vector<float> hidden_[2];  // alternate layer outputs
};

}  // namespace SONEL::NOISE_CANCELLER
