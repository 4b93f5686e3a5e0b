#include "noise_canceller/mask_post_processor.h"

#include <algorithm>
#include <cmath>

#include "weights/model_parameters.h"

namespace SONEL::NOISE_CANCELLER {

using WEIGHTS::lookupParameter;

namespace {

// The energy-threshold cut follows the windowed block's mean square (16-bit units²) against the
// model's reference: 10 blocks (100 ms) of recent level, 100 blocks (1 s) of loud level.
constexpr size_t kEnergyLength = 1;
constexpr size_t kLoudCountLimit = 100;
constexpr size_t kRecentBlocks = 10;
constexpr size_t kLoudBlocks = 100;

// Each step of the compress rate halves the bins kept one to one; past 16 no geometry keeps any.
uint64_t readCompressRate(const WEIGHTS::ModelPair& model, const ParameterKeys& keys) {
    return lookupParameter(
        model, keys.compressKey, MaskParams().compressRate, [](uint64_t v) { return v <= 16; },
        "WARNING OF COMPRESS_RATE VALUE. IT MUST BE IN INTERVAL [0,16] \\n DEFAULT VALUE 2");
}

}  // namespace

MaskParams MaskParams::read(const WEIGHTS::ModelPair& model, const ParameterKeys& keys) {
    MaskParams p;
    if (!keys.tunable) {
        p.compressRate = readCompressRate(model, keys);
        return p;
    }
    p.smoothCoef = lookupParameter(
        model, keys.key("SMOOT_COEF"), p.smoothCoef, [](float v) { return v > 0.0f && v <= 1.0f; },
        "WARNING OF SMOOTH COEF NUMBER VALUE. IT MUST BE iIN INTERVALK (0,1] \\n DEFAULT VALUE 1.f");
    p.rmModify = lookupParameter(model, keys.key("SMOOT_RM_MODIFY"), p.rmModify);
    p.highFreqSmooth = lookupParameter(model, keys.key("HIGH_FREQ_SMOOT"), p.highFreqSmooth);
    p.clipFix = lookupParameter(model, keys.key("ENABLE_CLIP_FIX"), p.clipFix);
    p.clipFixPoint = lookupParameter(
        model, keys.key("CLIP_FIX_POINT"), p.clipFixPoint,
        [](float v) { return v > 1.0f && v < 32768.0f; },
        "WARNING OF CLIP_FIX_POINT NUMBER VALUE. IT MUST BE IN INTERVALK (1,32768) \\n DEFAULT VALUE 25000");
    p.threshCutEnabled = lookupParameter(model, keys.key("ENABLE_THRESH_CUT"), p.threshCutEnabled);
    p.threshCutRefEn = lookupParameter(
        model, keys.key("THRESH_CUT_REF_EN"), p.threshCutRefEn,
        [](float v) { return v >= 1.0f && v <= 1000.0f; },
        "WARNING OF THRESH_CUT_REF VALUE. IT MUST BE iIN INTERVALK [1,1000] \\n DEFAULT VALUE 100");
    p.rmThresholdEnabled = lookupParameter(model, keys.key("ENABLE_RM_THRESHOLD"), p.rmThresholdEnabled);
    p.rmThreshold = lookupParameter(
        model, keys.key("RM_THRESHOLD"), p.rmThreshold, [](float v) { return v >= 0.0f && v <= 1.0f; },
        "WARNING OF RM_THRESHOLD VALUE. IT MUST BE iIN INTERVALK [0.0,1.0] \\n DEFAULT VALUE 0.5");
    p.rescaleEnabled = lookupParameter(model, keys.key("ENABLE_RESCALE"), p.rescaleEnabled);
    p.rescaleRefEn = lookupParameter(model, keys.key("RESCALE_REF_EN"), p.rescaleRefEn);
    p.rescaleRefAmpl = lookupParameter(
        model, keys.key("RESCALE_REF_AMPL"), p.rescaleRefAmpl,
        [](float v) { return v > 0.0f && v <= 32768.0f; },
        "WARNING OF RESCALE_REF_AMPL VALUE. IT MUST BE IN INTERVAL (0,32768] \\n DEFAULT VALUE 2000");
    p.compressRate = readCompressRate(model, keys);
    p.volumeUp = lookupParameter(model, keys.key("VOLUME_UP"), p.volumeUp);
    // An out-of-range percentage means no increase.
    const float percent = lookupParameter(model, keys.key("VOLUME_UP_PERCENT"), 0.0f);
    p.volumeUpPercent = percent > 0.0f && percent < 200.0f ? percent : 0.0f;
    // Any valid percentage could push the output past full scale, so it brings the clip fix.
    if (p.volumeUpPercent > 0.0f && !p.clipFix) {
        std::cout << "WARNING: Enabled Clip fix, because VolumeUp is Enabled" << std::endl;
        p.clipFix = true;
    }
    p.skipFrame = lookupParameter(model, keys.key("SKIP_FRAME"), p.skipFrame);
    if (p.skipFrame) p.skipFrameLevel = 0.0f;
    p.speakerFix = SpeakerFixParams::read(model, keys);
    return p;
}

MaskPostProcessor::MaskPostProcessor(const MaskParams& params, size_t bins,
                                     const std::vector<float>& window, unsigned frameDurationMs)
    : params_(params),
      previousMask_(bins, 0.0f),
      enThreshold_(kEnergyLength, kLoudCountLimit, params.threshCutRefEn, kRecentBlocks, kLoudBlocks),
      speakerFix_(params.speakerFix, window, frameDurationMs) {}

void MaskPostProcessor::observeBlock(const std::vector<float>& windowedBlock) {
    if (params_.threshCutEnabled) enThreshold_.setCurrentData(windowedBlock);
}

void MaskPostProcessor::shapeMask(std::vector<float>& mask) {
    if (params_.rmModify) {
        // Soft step at 0.05: small gains stay as they are, larger ones are squared.
        for (float& m : mask) {
            const double v = m;
            m = static_cast<float>(v / (1.0 + std::exp((v - 0.05) / 0.05)) +
                                   v * v / (1.0 + std::exp(-3.0 * (v - 0.05) / 0.05)));
        }
    } else {
        for (float& m : mask) m *= m;
    }
    if (params_.highFreqSmooth)
        for (size_t i = mask.size() / 2; i < mask.size(); ++i) mask[i] *= mask[i];
    if (params_.smoothCoef != 1.0f) {
        const float c = params_.smoothCoef;
        for (size_t i = 0; i < mask.size(); ++i) mask[i] = c * mask[i] + (1.0f - c) * previousMask_[i];
    }
    std::copy(mask.begin(), mask.end(), previousMask_.begin());
    if (params_.rmThresholdEnabled) {
        const float inverse = 1.0f / params_.rmThreshold;
        for (float& m : mask)
            if (m < params_.rmThreshold) m = m * (inverse * m);
    }
    if (params_.threshCutEnabled) enThreshold_.applyEnThreshold(mask);
}

void MaskPostProcessor::processBlock(std::vector<float>& block, bool notClipped) {
    if (params_.volumeUp && params_.volumeUpPercent > 0.0f) {
        const float gain = 1.0f + params_.volumeUpPercent / 100.0f;
        for (float& s : block) s *= gain;
    }
    if (speakerFix_.enabled()) speakerFix_.process(block);
    if (params_.clipFix && notClipped) {
        // Only the positive peak is tested: the limit guards the cleaner's own gain.
        const float peak = *std::max_element(block.begin(), block.end());
        if (peak > params_.clipFixPoint) {
            const float scale = params_.clipFixPoint / peak;
            for (float& s : block) s *= scale;
        }
    }
}

bool MaskPostProcessor::setSpeakerFix(bool on) { return speakerFix_.setEnabled(on); }

void MaskPostProcessor::reset() {
    std::fill(previousMask_.begin(), previousMask_.end(), 0.0f);
    enThreshold_.reset();
    speakerFix_.reset();
}

}  // namespace SONEL::NOISE_CANCELLER
