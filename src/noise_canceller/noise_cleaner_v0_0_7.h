#pragma once
// The generation-0.0.7 noise cleaner: the v0.0.5 cleaner's frame loop, front end, energy gate,
// post-processing and synthesis, with the separable-dense GRU network (the layer-normalised GRU
// with grouped matrices) giving the band gains. It reads one tunable parameter, the compress rate
// ("SONEL_COMPRESS_RATE_v0_0_7" / "CONTROL_SONEL_COMPRESS_RATE_v0_0_7"); every other
// post-processing parameter keeps its default. docs/design.md ("Noise cleaner v0.0.7") gives the
// records.
#include <string>

#include "noise_canceller/noise_cleaner_v0_0_6.h"

namespace SONEL::NOISE_CANCELLER {

class NoiseCleaner_v0_0_7 : public LayerNormCleaner {
public:
    // The 0.0.7 names, for every model that carries a 0.0.7 cleaner.
    static const ParameterKeys kParameterKeys;
    static const FrontEndParams::FilterRecords kFilterRecords;
    static const LayerNormGru::Keys kNetworkKeys;
    // The 0.0.7 network names with `prefix` ahead of the eight that a voice detector in the same
    // file also uses (its dense layers, their biases and the GRU's four records); MU, SD and
    // the norm records keep their names.
    static LayerNormGru::Keys networkKeys(const std::string& prefix);

    // Throws SonelException naming the record when the front end or the network is malformed or
    // the network's last layer does not give one gain per band.
    NoiseCleaner_v0_0_7(WEIGHTS::ModelPtr model, unsigned sampleRate);
};

}  // namespace SONEL::NOISE_CANCELLER
