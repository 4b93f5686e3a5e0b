#pragma once
// Attenuates output blocks whose recent level lies far below the main talker's, so a second,
// more distant voice that the mask keeps as speech is pushed down.
#include <cstdint>
#include <vector>

#include "weights/model.h"

namespace SONEL::NOISE_CANCELLER {

struct ParameterKeys;

struct SpeakerFixParams {
    bool enabled = false;
    float cutStartDb = 10.0f;
    float cutEndDb = 15.0f;
    float runFrameCount = 40.0f;
    uint64_t runMinLen = 2;
    float utteranceLen = 2.0f;
    bool variableWindow = true;

    static SpeakerFixParams read(const WEIGHTS::ModelPair& model, const ParameterKeys& keys);
};

class BackgroundSpeakerFix {
public:
    BackgroundSpeakerFix(const SpeakerFixParams& params, const std::vector<float>& window,
                         unsigned frameDurationMs);

    bool enabled() const { return enabled_; }
    bool setEnabled(bool on);
    // In place on one synthesised block.
    void process(std::vector<float>& block);
    void reset();

private:
    bool enabled_;
    float cutStartDb;
    float cutEndDb;
    uint64_t maxWindow;
    uint64_t minWindow;
    bool variableWindow;
    std::vector<float> history;  // ring of maxWindow block energies, newest at head_ - 1; empty while never enabled
    size_t head_ = 0;
    uint64_t window;
    float speakerLevel = 1.0f;
    float levelSmoothing;
    float maxCutDb = -60.0f;
    float windowEnergy;
};

}  // namespace SONEL::NOISE_CANCELLER
