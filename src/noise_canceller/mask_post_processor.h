#pragma once
// Shapes each block's bin gains (the ratio mask) and the synthesised block by the switches a
// model carries: squaring or soft modification, high-band squaring, temporal smoothing, a soft
// threshold, the energy-threshold cut, volume up, the background speaker fix and clip protection.
#include <cstdint>
#include <string>
#include <vector>

#include "noise_canceller/background_speaker_fix.h"
#include "utils/en_threshold.h"
#include "weights/model.h"

namespace SONEL::NOISE_CANCELLER {

// Names of a model generation's parameter keys: "<prefix><X><tag>" plus the compress-rate key.
struct ParameterKeys {
    std::string prefix;       // "SONEL_" or "VELTA_"
    std::string tag;          // "_v0_0_5"
    std::string compressKey;  // "VELTA_COMPRESS_RATE_v0_0_5"
    // Without tunable keys only the compress rate is read and every other parameter keeps its
    // default (v0.0.7).
    bool tunable = true;
    std::string key(const char* name) const { return prefix + name + tag; }
};

struct MaskParams {
    float smoothCoef = 1.0f;
    bool rmModify = false;
    bool highFreqSmooth = false;
    bool clipFix = false;
    float clipFixPoint = 25000.0f;
    bool threshCutEnabled = false;
    float threshCutRefEn = 100.0f;
    bool rmThresholdEnabled = false;
    float rmThreshold = 0.5f;
    bool rescaleEnabled = true;
    float rescaleRefEn = 100.0f;
    float rescaleRefAmpl = 2000.0f;
    uint64_t compressRate = 2;
    bool volumeUp = false;
    float volumeUpPercent = 0.0f;
    bool skipFrame = false;
    float skipFrameLevel = 0.0f;
    SpeakerFixParams speakerFix;

    // Reads every field by the model parameter rule, with range checks and their warnings.
    static MaskParams read(const WEIGHTS::ModelPair& model, const ParameterKeys& keys);
};

class MaskPostProcessor {
public:
    // bins: spectrum bin count; window: the analysis window (normalises the speaker fix).
    MaskPostProcessor(const MaskParams& params, size_t bins, const std::vector<float>& window,
                      unsigned frameDurationMs);

    // Feeds the windowed block to the energy-threshold cut before the mask is shaped.
    void observeBlock(const std::vector<float>& windowedBlock);
    // Mask shaping, in order: squaring / soft modification, high-band squaring, temporal
    // smoothing, soft threshold, energy-threshold cut.
    void shapeMask(std::vector<float>& mask);
    // Output-block steps on the synthesised block: volume up, speaker fix, clip fix (the last
    // only for frames whose input peak was within the clip point).
    void processBlock(std::vector<float>& block, bool notClipped);
    bool setSpeakerFix(bool on);
    void reset();

private:
    MaskParams params_;
    std::vector<float> previousMask_;
    UTILS::EnThreshold enThreshold_;
    BackgroundSpeakerFix speakerFix_;
};

}  // namespace SONEL::NOISE_CANCELLER
