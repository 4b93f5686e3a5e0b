#pragma once
// The ringtone detector: the probability that a phone is ringing or another alert tone (ringback,
// busy, call waiting, an alarm) sounds, with or without speech over it. Every 10 ms hop it reads
// the newest 32 ms of the stream on a fixed grid of 126 frequencies below 4 kHz, so its features
// are the same at every rate and it runs at the session's own rate without a converter; a
// layer-normalised GRU network turns them into the probability. It never alters audio: a ringtone
// session reads the value from the front of the vector. docs/design.md ("Ringtone detector")
// gives the reasons.
#include <complex>
#include <cstddef>
#include <memory>
#include <vector>

#include "noise_canceller/layer_norm_gru.h"
#include "noise_canceller/noise_cleaner.h"

namespace SONEL::UTILS {
class FFT;
}

namespace SONEL::NOISE_CANCELLER {

class RingtoneCleaner_v0_0_1 : public NoiseCleaner {
public:
    static constexpr unsigned kFrameMs = 32;
    static constexpr double kGridStepHz = 31.25;
    static constexpr size_t kGridFirst = 2;  // the grid is kGridFirst … kGridLast steps of 31.25 Hz
    static constexpr size_t kGridLast = 127;
    static constexpr size_t kGridPoints = kGridLast - kGridFirst + 1;  // 62.5 … 3968.75 Hz
    static constexpr size_t kFeatureCount = kGridPoints + 1;           // the shape and the level
    static constexpr double kPowerEpsilon = 1e-3;
    static constexpr unsigned kMinRate = 8000;  // the grid's top must stay below Nyquist
    static constexpr unsigned kMaxRate = 96000;

    // Everything the front end needs at one rate, checked once so the hop path can trust it.
    struct Params {
        unsigned sampleRate;
        size_t hop;          // 10 ms
        size_t frameLength;  // frameLength(sampleRate)
        size_t binCount;     // frameLength / 2 + 1
        // Each grid point as a fractional bin: the bin below it and the share of the bin above.
        std::vector<size_t> lowBin;
        std::vector<double> highShare;
        std::vector<float> window;  // periodic Hann, 0.5 − 0.5 cos(2πn/N)
        std::shared_ptr<UTILS::FFT> fft;

        // Throws SonelException when the model is no ringtone detector or the rate is outside
        // kMinRate … kMaxRate.
        Params(const WEIGHTS::ModelPair& model, unsigned sampleRate);
    };

    // Samples in the analysis frame at `rate`: 32 ms, or where that is no whole number of even
    // size with factors 2, 3 and 5 only (what the transform handles without allocating), the next
    // size that is (1,440 at 44.1 kHz, 2,880 at 88.2 kHz).
    static size_t frameLength(unsigned rate);

    // `sampleRate` is the rate the samples arrive at: the session's own in a ringtone session,
    // the cleaner's in a cleaning session. Throws SonelException for a malformed model.
    RingtoneCleaner_v0_0_1(WEIGHTS::ModelPtr model, unsigned sampleRate);

    // Any number of samples in the 16-bit range in; the frame's probability out, alone in the
    // vector. Always true.
    bool cleanNoise(std::vector<float>& samples, ncAudioInfo_t* info, bool flag) override;

    // The same without a vector: the mean probability of the hops these samples complete, or the
    // last value when they complete none (0 before the first hop).
    float detect(const float* samples, size_t count);

    const Params& params() const { return params_; }
    float value() const { return value_; }

private:
    float analyseHop();

    Params params_;
    LayerNormGru network_;
    std::vector<float> history_;  // the newest frameLength samples; the hop being gathered at its end
    size_t gathered_ = 0;
    float value_ = 0.0f;

    // Per-hop scratch, sized in the constructor.
    std::vector<float> windowed_;
    std::vector<std::complex<float>> spectrum_;
    std::vector<double> logs_;
    std::vector<float> features_;
};

}  // namespace SONEL::NOISE_CANCELLER
