#include "noise_canceller/background_speaker_fix.h"

#include <algorithm>
#include <cmath>

#include "noise_canceller/mask_post_processor.h"
#include "weights/model_parameters.h"

namespace SONEL::NOISE_CANCELLER {

using WEIGHTS::lookupParameter;

SpeakerFixParams SpeakerFixParams::read(const WEIGHTS::ModelPair& model, const ParameterKeys& keys) {
    SpeakerFixParams p;
    p.enabled = lookupParameter(model, keys.key("ENABLE_BACKGROUND_SPEAKER_FIX"), p.enabled);
    p.cutStartDb = lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_CUT_START_DB"), p.cutStartDb);
    p.cutEndDb = lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_CUT_END_DB"), p.cutEndDb);
    p.runFrameCount =
        lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_RUN_FRAME_COUNT"), p.runFrameCount);
    p.runMinLen = lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_RUN_MIN_LEN"), p.runMinLen);
    p.utteranceLen =
        lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_UTTERANCE_LEN"), p.utteranceLen);
    p.variableWindow =
        lookupParameter(model, keys.key("BACKGROUND_SPEAKER_FIX_VAR_WIND_MODE"), p.variableWindow);
    return p;
}

BackgroundSpeakerFix::BackgroundSpeakerFix(const SpeakerFixParams& params,
                                           const std::vector<float>& analysisWindow,
                                           unsigned frameDurationMs)
    : enabled_(params.enabled),
      cutStartDb(params.cutStartDb),
      cutEndDb(params.cutEndDb),
      maxWindow(std::max<uint64_t>(static_cast<uint64_t>(params.runFrameCount), 1)),
      minWindow(params.runMinLen),
      variableWindow(params.variableWindow),
      history(maxWindow, 0.0f),
      window(maxWindow),
      // 1 - duration / (2000 ms · utterance length): the main-talker level follows over about
      // one utterance (0.9975 per 10 ms block for a 2 s utterance).
      levelSmoothing(1.0f + 1.0f / (params.utteranceLen * -2000.0f / static_cast<float>(frameDurationMs))) {
    double energy = 0.0;
    for (float w : analysisWindow) energy += static_cast<double>(w) * w;
    windowEnergy = static_cast<float>(energy);
}

void BackgroundSpeakerFix::process(std::vector<float>& block) {
    double sum = 0.0;
    for (float s : block) sum += static_cast<double>(s) * s;
    const float e = static_cast<float>(sum / windowEnergy);

    history[head_] = e;
    head_ = (head_ + 1) % maxWindow;
    const uint64_t span = std::min(window, maxWindow);
    double recent = 0.0;
    for (uint64_t k = 1; k <= span; ++k) recent += history[(head_ + maxWindow - k) % maxWindow];
    const float mean = static_cast<float>(recent / static_cast<double>(span ? span : 1));

    const float d = 10.0f * std::log10(speakerLevel / (mean + 1.0f));
    float gainDb = 0.0f;
    if (d >= cutStartDb) {
        gainDb = (d - cutStartDb) * maxCutDb / (cutEndDb - cutStartDb);
    } else {
        // The main talker's level is learnt only while the block is within reach of it.
        speakerLevel = levelSmoothing * speakerLevel + (1.0f - levelSmoothing) * mean;
    }
    if (variableWindow) {
        if (d <= cutEndDb && window < maxWindow) ++window;
        else if (d > cutEndDb && window > minWindow) --window;
    }
    const float gain = std::pow(10.0f, gainDb / 10.0f);
    for (float& s : block) s *= gain;
}

void BackgroundSpeakerFix::reset() {
    std::fill(history.begin(), history.end(), 0.0f);
    head_ = 0;
    window = maxWindow;
    speakerLevel = 1.0f;
}

}  // namespace SONEL::NOISE_CANCELLER
