#include "noise_canceller/noise_cleaner_v0_0_7.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

LayerNormGru::Keys groupedKeys() {
    LayerNormGru::Keys keys;
    keys.grouped = true;
    return keys;
}

}  // namespace

const ParameterKeys NoiseCleaner_v0_0_7::kParameterKeys{"SONEL_", "_v0_0_7", "SONEL_COMPRESS_RATE_v0_0_7", false};
const FrontEndParams::FilterRecords NoiseCleaner_v0_0_7::kFilterRecords{"FilterBegin", "FilterEnd", true};
const LayerNormGru::Keys NoiseCleaner_v0_0_7::kNetworkKeys = groupedKeys();

// As in v0.0.6 the network scales the context by MU and SD itself, so the front end hands it the
// log powers as they are.
NoiseCleaner_v0_0_7::NoiseCleaner_v0_0_7(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : SpectralCleaner(modelPair, sampleRate, kParameterKeys, FeatureScaling::Network, kFilterRecords),
      network_(*modelPair, inputLength(), kNetworkKeys) {
    requireOneGainPerBand(network_.outputCount(), "src/noise_canceller/noise_cleaner_v0_0_7", "NoiseCleaner_v0_0_7");
}

void NoiseCleaner_v0_0_7::computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) {
    network_.calcRMForwardPropGRUSepdense(networkInput.data(), bandGains.data());
}

void NoiseCleaner_v0_0_7::resetNetwork() { network_.resetState(); }

}  // namespace SONEL::NOISE_CANCELLER
