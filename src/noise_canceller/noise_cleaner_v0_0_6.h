#pragma once
// The generation-0.0.6 noise cleaner: the v0.0.5 cleaner's frame loop, front end, energy gate,
// post-processing and synthesis, with the layer-normalised GRU network giving the band gains.
// Its tunable parameters are named "VELTA_<X>_v0_0_6" (control file) and
// "CONTROL_VELTA_<X>_v0_0_6" (weight). docs/design.md ("Noise cleaner v0.0.6") gives the records.
#include <vector>

#include "noise_canceller/layer_norm_gru.h"
#include "noise_canceller/spectral_cleaner.h"

namespace SONEL::NOISE_CANCELLER {

class NoiseCleaner_v0_0_6 : public SpectralCleaner {
public:
    // Throws SonelException naming the record when the front end or the network is malformed or
    // the network's last layer does not give one gain per band.
    NoiseCleaner_v0_0_6(WEIGHTS::ModelPtr model, unsigned sampleRate);

private:
    void computeBandGains(const std::vector<float>& networkInput, std::vector<float>& bandGains) override;
    void resetNetwork() override;

    LayerNormGru network_;
};

}  // namespace SONEL::NOISE_CANCELLER
