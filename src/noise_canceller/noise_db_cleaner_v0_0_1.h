#pragma once
// The noise-level estimator: how loud the background noise is, in dBFS, once per block. It runs
// the v0.0.5 noise cleaner on a copy of the audio and measures what the cleaner takes away (the
// input, delayed to line up with the cleaned output, minus that output). The figure is smoothed
// in dB with a 250 ms time constant, ten times slower while the cleaner keeps more than it
// removes (someone is talking), so it holds steady through speech and still follows a new noise
// within about a second. docs/design.md ("Noise-level estimator") gives the scale and the reasons.
#include <cstddef>
#include <vector>

#include "noise_canceller/noise_cleaner.h"
#include "noise_canceller/noise_cleaner_v0_0_5.h"

namespace SONEL::NOISE_CANCELLER {

class NoiseDBCleaner_v0_0_1 : public NoiseCleaner {
public:
    // 0 dBFS is a full-scale square wave: mean square 32768² in 16-bit units.
    static constexpr float kFloorDbfs = -120.0f;  // digital silence, and before the first hop
    // Noise louder than this is clipping already. Capping there keeps every level clear of the
    // C interface's error codes −1 … −4, so a host tells a failure by a value above −4.5.
    static constexpr float kCeilingDbfs = -5.0f;
    static constexpr double kTimeConstantS = 0.25;
    // Share of the usual step taken on a block where the cleaner keeps more than it removes.
    static constexpr double kSpeechStepShare = 0.1;

    // `model` must be a v0.0.5 cleaner model; `sampleRate` is its rate (blocks arrive at it).
    NoiseDBCleaner_v0_0_1(WEIGHTS::ModelPtr model, unsigned sampleRate);

    // Any number of samples in the 16-bit range in; the current level (dBFS) out, alone in the
    // vector. The samples are measured in whole hops of the cleaner; a partial hop waits for the
    // next call.
    bool cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool flag) override;
    // Starts over as a new stream: cleaner, delay line, partial hop and the smoothed level.
    bool resetSession() override;

    float level() const;

private:
    void measureHop();

    NoiseCleaner_v0_0_5 cleaner_;
    size_t hop_;
    size_t delay_;              // samples between a sample entering the cleaner and leaving it
    double stepPerHop_;         // smoothing step of one hop, 1 − e^(−hop / τ)
    std::vector<float> input_;  // the hop being gathered, sanitised
    size_t gathered_ = 0;
    std::vector<float> work_;          // the copy the cleaner cleans in place
    std::vector<float> delayLine_;     // the last `delay_` input samples, a ring
    size_t delayPos_ = 0;
    size_t samplesSeen_ = 0;           // up to `delay_`: the cleaner's primed silence
    bool measured_ = false;
    double levelDb_ = kFloorDbfs;
};

}  // namespace SONEL::NOISE_CANCELLER
