#pragma once
// The generation-0.0.7 noise cleaner with its own voice detector in the same model file. Per hop
// the detector runs first, on its own spectral front end at its own rate; the v0.0.7 cleaning
// step runs only on a hop the detector calls speech (probability at least 0.5), and a hop without
// speech becomes silence. docs/design.md ("Noise cleaner with voice detector v0.0.7") gives the
// records of such a file and the choices made here.
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "noise_canceller/layer_norm_gru.h"
#include "noise_canceller/noise_cleaner_v0_0_6.h"
#include "utils/cyclic_block_data.h"

namespace SONEL::UTILS {
class Resampler;
}

namespace SONEL::NOISE_CANCELLER {

class NoiseCleanerWithVad_v0_0_7 : public LayerNormCleaner {
public:
    // The cleaner's network records that the detector's share a name with carry this prefix
    // ("NcWeightGRU"); every other cleaner record keeps its v0.0.7 name.
    static const char* const kCleanerNetworkPrefix;
    // The detector's network records: the layer-normalised GRU's names for its dense layers and
    // GRU, "VadMU", "VadSD" and "Vad" ahead of the four norm records.
    static LayerNormGru::Keys detectorKeys();

    // The detector's geometry and front-end settings, read under the "Vad…" records.
    struct VadParams {
        unsigned sampleRate = 0;
        unsigned step = 0;
        unsigned filtrBegin = 0;
        unsigned filtrEnd = 0;  // one past the last bin
        unsigned frameLength = 0;
        unsigned previewFrames = 0;
        unsigned coefficientNumber = 0;
        float lpsEps = 0.001f;
        float targetLevel = 2000.0f;
        float secondLevel = 100.0f;  // held beside the target level; the detector step reads it not
        uint64_t compressRate = 3;

        // Throws SonelException naming the record that is missing or out of range.
        static VadParams read(const WEIGHTS::ModelPair& model);
        unsigned frameDurationMs() const { return sampleRate ? frameLength * 1000 / sampleRate : 0; }
    };

    // inputDurationMs: the duration of the frames cleanNoise will be given. Throws SonelException
    // when either part of the model is malformed or the detector's frame and hop durations are
    // not the cleaner's.
    NoiseCleanerWithVad_v0_0_7(WEIGHTS::ModelPtr model, unsigned long inputDurationMs);
    ~NoiseCleanerWithVad_v0_0_7() override;

    // One frame of the input duration, cleaned in place. Throws SonelException "Resample failed."
    // when the converter to the detector's rate gives nothing.
    bool cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool flag) override;
    // Back to the state of a new stream: histories, both networks' states, the converter.
    bool resetSession() override;
    unsigned delaySamples() const override { return outputPrefill_; }
    bool acceptsFrame(size_t samples) const override { return samples == inputFrame_; }
    std::string frameRule() const override;

    // The detector step on one detector frame (VadFrameLength samples): `out` becomes one value,
    // the speech probability.
    void vadCleaner(const float* frame, std::vector<float>& out);
    const VadParams& vadParams() const { return vad_; }

private:
    void primeHistories();

    VadParams vad_;
    unsigned cleanerDurationMs_;
    size_t inputFrame_;       // samples per input frame at the cleaner's rate
    size_t vadInputFrame_;    // the same frame at the detector's rate
    size_t outputPrefill_;    // samples of silence ahead of the output
    BandLayout vadBands_;
    LayerNormGru vadNetwork_;
    std::vector<float> vadWindow_;
    std::shared_ptr<UTILS::FFT> vadTransform_;
    std::unique_ptr<UTILS::Resampler> resampler_;

    CONTAINERS::CyclicBlockData cleanerInput_;
    CONTAINERS::CyclicBlockData vadInput_;
    CONTAINERS::CyclicBlockData vadFeatures_;
    CONTAINERS::CyclicBlockData output_;

    // Per-frame scratch, sized at construction.
    std::vector<float> resampled_;
    std::vector<float> block_;
    std::vector<float> silence_;
    std::vector<float> vadWindowed_;
    std::vector<std::complex<float>> vadSpectrum_;
    std::vector<float> vadPower_;
    std::vector<float> vadBandLog_;
    std::vector<float> probability_;
};

}  // namespace SONEL::NOISE_CANCELLER
