#include "noise_canceller/noise_cleaner_v0_0_7.h"

namespace SONEL::NOISE_CANCELLER {

const ParameterKeys NoiseCleaner_v0_0_7::kParameterKeys{"SONEL_", "_v0_0_7", "SONEL_COMPRESS_RATE_v0_0_7", false};
const FrontEndParams::FilterRecords NoiseCleaner_v0_0_7::kFilterRecords{"FilterBegin", "FilterEnd", true};
const LayerNormGru::Keys NoiseCleaner_v0_0_7::kNetworkKeys = networkKeys("");

LayerNormGru::Keys NoiseCleaner_v0_0_7::networkKeys(const std::string& prefix) {
    LayerNormGru::Keys keys;
    keys.grouped = true;
    for (std::string* name : {&keys.inputWeights, &keys.inputBiases, &keys.gruWeight, &keys.gruBias,
                              &keys.resetWeight, &keys.resetBias, &keys.outputWeights, &keys.outputBiases})
        *name = prefix + *name;
    return keys;
}

NoiseCleaner_v0_0_7::NoiseCleaner_v0_0_7(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : LayerNormCleaner(modelPair, sampleRate, kParameterKeys, kFilterRecords, kNetworkKeys,
                       "src/noise_canceller/noise_cleaner_v0_0_7", "NoiseCleaner_v0_0_7") {}

}  // namespace SONEL::NOISE_CANCELLER
