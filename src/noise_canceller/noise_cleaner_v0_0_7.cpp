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

NoiseCleaner_v0_0_7::NoiseCleaner_v0_0_7(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : LayerNormCleaner(modelPair, sampleRate, kParameterKeys, kFilterRecords, kNetworkKeys,
                       "src/noise_canceller/noise_cleaner_v0_0_7", "NoiseCleaner_v0_0_7") {}

}  // namespace SONEL::NOISE_CANCELLER
