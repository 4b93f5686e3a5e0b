#include "noise_canceller/background_speaker_fix.h"

#include <algorithm>
#include <cmath>
#include <iostream>

#include "noise_canceller/mask_post_processor.h"
#include "weights/model_parameters.h"

namespace SONEL::NOISE_CANCELLER {

using WEIGHTS::lookupParameter;

namespace {
constexpr float kMaxRunFrames = 1000.0f;
}  // namespace

SpeakerFixParams SpeakerFixParams::read(const WEIGHTS::ModelPair& model, const ParameterKeys& keys) {
    SpeakerFixParams p;
    p.enabled = lookupParameter(model, keys.key("ENABLE_BACKGROUND_SPEAKER_FIX"), p.enabled);
    const auto finiteDb = [](float v) { return std::fabs(v) <= 200.0f; };
    p.cutStartDb = lookupParameter(
        model, keys.key("BACKGROUND_SPEAKER_FIX_CUT_START_DB"), p.cutStartDb, finiteDb,
        "WARNING OF BACKGROUND_SPEAKER_FIX_CUT_START_DB VALUE. IT MUST BE IN INTERVAL [-200,200] \\n DEFAULT VALUE 10");
    p.cutEndDb = lookupParameter(
        model, keys.key("BACKGROUND_SPEAKER_FIX_CUT_END_DB"), p.cutEndDb, finiteDb,
        "WARNING OF BACKGROUND_SPEAKER_FIX_CUT_END_DB VALUE. IT MUST BE IN INTERVAL [-200,200] \\n DEFAULT VALUE 15");
    // The attenuation slope divides by the gap between the two.
    if (!(p.cutEndDb > p.cutStartDb)) {
        std::cout << "WARNING OF BACKGROUND_SPEAKER_FIX CUT DB VALUES. CUT_END_DB MUST BE ABOVE CUT_START_DB "
                     "\\n DEFAULT VALUES 10 AND 15"
                  << std::endl;
        p.cutStartDb = SpeakerFixParams{}.cutStartDb;
        p.cutEndDb = SpeakerFixParams{}.cutEndDb;
    }
    // The level history holds this many blocks in every session: 1000 blocks is 10 s of 10 ms hops.
    p.runFrameCount = lookupParameter(
        model, keys.key("BACKGROUND_SPEAKER_FIX_RUN_FRAME_COUNT"), p.runFrameCount,
        [](float v) { return v >= 1.0f && v <= kMaxRunFrames; },
        "WARNING OF BACKGROUND_SPEAKER_FIX_RUN_FRAME_COUNT VALUE. IT MUST BE IN INTERVAL [1,1000] \\n DEFAULT VALUE 40");
    p.runMinLen = lookupParameter(
        model, keys.key("BACKGROUND_SPEAKER_FIX_RUN_MIN_LEN"), p.runMinLen,
        [](uint64_t v) { return v >= 1 && v <= static_cast<uint64_t>(kMaxRunFrames); },
        "WARNING OF BACKGROUND_SPEAKER_FIX_RUN_MIN_LEN VALUE. IT MUST BE IN INTERVAL [1,1000] \\n DEFAULT VALUE 2");
    p.utteranceLen = lookupParameter(
        model, keys.key("BACKGROUND_SPEAKER_FIX_UTTERANCE_LEN"), p.utteranceLen,
        [](float v) { return v > 0.0f && v <= 3600.0f; },
        "WARNING OF BACKGROUND_SPEAKER_FIX_UTTERANCE_LEN VALUE. IT MUST BE IN INTERVAL (0,3600] \\n DEFAULT VALUE 2");
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
      window(maxWindow),
      // 1 - duration / (2000 ms · utterance length): the main-talker level follows over about
      // one utterance (0.9975 per 10 ms block for a 2 s utterance).
      levelSmoothing(1.0f + 1.0f / (params.utteranceLen * -2000.0f / static_cast<float>(frameDurationMs))) {
    double energy = 0.0;
    for (float w : analysisWindow) energy += static_cast<double>(w) * w;
    windowEnergy = static_cast<float>(energy);
    if (enabled_) history.assign(maxWindow, 0.0f);
}

bool BackgroundSpeakerFix::setEnabled(bool on) {
    // The history is made on first use: most sessions never switch the fix on.
    if (on && history.empty()) history.assign(maxWindow, 0.0f);
    enabled_ = on;
    return true;
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
    std::fill(history.begin(), history.end(), 0.0f);  // empty until the fix is first enabled
    head_ = 0;
    window = maxWindow;
    speakerLevel = 1.0f;
}

}  // namespace SONEL::NOISE_CANCELLER
