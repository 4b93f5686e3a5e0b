#pragma once
// The generation-0.0.6 noise cleaner: the v0.0.5 cleaner's frame loop, front end, energy gate,
// post-processing and synthesis, with the layer-normalised GRU network giving the band gains.
// Its tunable parameters are named "VELTA_<X>_v0_0_6" (control file) and
// "CONTROL_VELTA_<X>_v0_0_6" (weight). docs/design.md ("Noise cleaner v0.0.6") gives the records.
#include <vector>

#include "noise_canceller/layer_norm_gru.h"
#include "noise_canceller/spectral_cleaner.h"

namespace SONEL::NOISE_CANCELLER {

// The cleaners whose band gains come from the layer-normalised GRU network: v0.0.6, and v0.0.7
// with grouped matrices. The generation gives its parameter keys, filter records and network
// record names; the network and its reset are this class's.
class LayerNormCleaner : public SpectralCleaner {
protected:
    // Throws SonelException, from `file` and `function`, naming the record when the front end or
    // the network is malformed or the network's last layer does not give one gain per band.
    LayerNormCleaner(WEIGHTS::ModelPtr model, unsigned sampleRate, const ParameterKeys& keys,
                     const FrontEndParams::FilterRecords& filter, const LayerNormGru::Keys& networkKeys,
                     const char* file, const char* function, ContextStart contextStart = ContextStart::Silence);

private:
    void computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) override;
    void resetNetwork() override;

    LayerNormGru network_;
};

class NoiseCleaner_v0_0_6 : public LayerNormCleaner {
public:
    NoiseCleaner_v0_0_6(WEIGHTS::ModelPtr model, unsigned sampleRate);
};

}  // namespace SONEL::NOISE_CANCELLER
