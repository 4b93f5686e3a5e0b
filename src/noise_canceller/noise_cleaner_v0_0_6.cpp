#include "noise_canceller/noise_cleaner_v0_0_6.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

const ParameterKeys kKeys{"VELTA_", "_v0_0_6", "VELTA_COMPRESS_RATE_v0_0_6"};

}  // namespace

// The network scales the context by MU and SD itself (one value per input, the whole context),
// so the front end hands it the log powers as they are.
NoiseCleaner_v0_0_6::NoiseCleaner_v0_0_6(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : SpectralCleaner(modelPair, sampleRate, kKeys, FeatureScaling::Network),
      network_(*modelPair, inputLength()) {
    requireOneGainPerBand(network_.outputCount(), "src/noise_canceller/noise_cleaner_v0_0_6", "NoiseCleaner_v0_0_6");
}

void NoiseCleaner_v0_0_6::computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) {
    network_.calcRMForwardProp_GRU_Layernorm(networkInput.data(), bandGains.data());
}

void NoiseCleaner_v0_0_6::resetNetwork() { network_.resetState(); }

}  // namespace SONEL::NOISE_CANCELLER
