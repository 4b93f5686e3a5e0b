#include "noise_canceller/noise_db_cleaner_v0_0_1.h"

#include <algorithm>
#include <cmath>

#include "noise_canceller/feature_extractor.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

constexpr double kFullScaleSquared = 32768.0 * 32768.0;

double dbfs(double meanSquare) {
    const double db = 10.0 * std::log10(meanSquare / kFullScaleSquared);
    return db > NoiseDBCleaner_v0_0_1::kFloorDbfs ? db : NoiseDBCleaner_v0_0_1::kFloorDbfs;  // NaN too
}

}  // namespace

NoiseDBCleaner_v0_0_1::NoiseDBCleaner_v0_0_1(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : NoiseCleaner(modelPair, sampleRate),
      cleaner_(modelPair, sampleRate),
      hop_(FrontEndParams::read(*modelPair->first, {}).step),
      delay_(cleaner_.delaySamples()),
      stepPerHop_(1.0 - std::exp(-static_cast<double>(hop_) / sampleRate / kTimeConstantS)),
      input_(hop_),
      work_(hop_),
      delayLine_(delay_, 0.0f) {}

float NoiseDBCleaner_v0_0_1::level() const {
    return static_cast<float>(std::clamp(levelDb_, static_cast<double>(kFloorDbfs),
                                         static_cast<double>(kCeilingDbfs)));
}

bool NoiseDBCleaner_v0_0_1::cleanNoise(std::vector<float>& frame, ncAudioInfo_t* /*info*/,
                                       bool /*flag*/) {
    for (float sample : frame) {
        // The session already turns non-finite samples into silence; a caller that builds the
        // estimator directly gets the same, since one NaN in the cleaner's recurrent state would
        // fix the level at the floor for the rest of the stream.
        input_[gathered_++] = std::isfinite(sample) ? std::clamp(sample, -32768.0f, 32768.0f) : 0.0f;
        if (gathered_ == hop_) {
            measureHop();
            gathered_ = 0;
        }
    }
    frame.resize(1);
    frame[0] = level();
    return true;
}

void NoiseDBCleaner_v0_0_1::measureHop() {
    std::copy(input_.begin(), input_.end(), work_.begin());
    if (!cleaner_.cleanNoise(work_, nullptr, false)) return;

    // What the cleaner removed from each sample: the input `delay_` samples back (when the
    // cleaner's output carries it) minus the output. The cleaner's first `delay_` output samples
    // are its primed silence and measure nothing.
    double removed = 0.0, kept = 0.0;
    size_t counted = 0;
    for (size_t i = 0; i < hop_; ++i) {
        float delayed = input_[i];
        if (delay_ > 0) {
            delayed = delayLine_[delayPos_];
            delayLine_[delayPos_] = input_[i];
            delayPos_ = delayPos_ + 1 == delay_ ? 0 : delayPos_ + 1;
        }
        if (samplesSeen_ < delay_) {
            ++samplesSeen_;
            continue;
        }
        const double out = work_[i];
        const double difference = static_cast<double>(delayed) - out;
        removed += difference * difference;
        kept += out * out;
        ++counted;
    }
    if (counted == 0) return;

    const double hopDb = dbfs(removed / static_cast<double>(counted));
    if (!measured_) {
        levelDb_ = hopDb;
        measured_ = true;
        return;
    }
    // Smoothing in dB, not power: a burst the cleaner removes (a cough, a door) lifts the level
    // by a fraction of its size in dB rather than of its power, and the level falls back after a
    // step down as fast as it rises after a step up. While the cleaner keeps more than it removes
    // the block is mostly speech, and what it removes then misses the noise under the voice (it
    // read 1.2 dB low in the median on the 16 kHz holdout mixtures); such blocks move the level
    // only a tenth as far, so a noise the cleaner takes for speech is still followed, slowly.
    const double share = kept > removed ? kSpeechStepShare : 1.0;
    levelDb_ += stepPerHop_ * share * (hopDb - levelDb_);
}

bool NoiseDBCleaner_v0_0_1::resetSession() {
    cleaner_.resetSession();
    std::fill(delayLine_.begin(), delayLine_.end(), 0.0f);
    delayPos_ = 0;
    gathered_ = 0;
    samplesSeen_ = 0;
    measured_ = false;
    levelDb_ = kFloorDbfs;
    return true;
}

}  // namespace SONEL::NOISE_CANCELLER
