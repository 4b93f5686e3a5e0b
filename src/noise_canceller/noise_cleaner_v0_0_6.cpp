#include "noise_canceller/noise_cleaner_v0_0_6.h"

#include <string>

#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

const ParameterKeys kKeys{"VELTA_", "_v0_0_6", "VELTA_COMPRESS_RATE_v0_0_6"};

}  // namespace

// The network scales the context by MU and SD itself (one value per input, the whole context),
// so the front end hands it the log powers as they are.
LayerNormCleaner::LayerNormCleaner(WEIGHTS::ModelPtr modelPair, unsigned sampleRate, const ParameterKeys& keys,
                                   const FrontEndParams::FilterRecords& filter,
                                   const LayerNormGru::Keys& networkKeys, const char* file, const char* function,
                                   ContextStart contextStart)
    : SpectralCleaner(modelPair, sampleRate, keys, FeatureScaling::Network, filter, contextStart),
      network_(*modelPair, inputLength(), networkKeys) {
    if (network_.outputCount() != bandCount())
        throw UTILS::SonelException("ERROR network shape: the last layer of WeightNonLinear has " +
                                        std::to_string(network_.outputCount()) + " rows, not one per band (" +
                                        std::to_string(bandCount()) + ")",
                                    file, __LINE__, function);
}

void LayerNormCleaner::computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) {
    network_.calcRMForwardProp_GRU_Layernorm(networkInput.data(), bandGains.data());
}

void LayerNormCleaner::resetNetwork() { network_.resetState(); }

NoiseCleaner_v0_0_6::NoiseCleaner_v0_0_6(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : LayerNormCleaner(modelPair, sampleRate, kKeys, {}, LayerNormGru::Keys(),
                       "src/noise_canceller/noise_cleaner_v0_0_6", "NoiseCleaner_v0_0_6") {}

}  // namespace SONEL::NOISE_CANCELLER
