#pragma once
// Base of every speech model: holds the shared model, picks and builds the model class for a
// session, and offers the services all models share (a cached FFT, bandwidth prediction and the
// talk/noise statistics).
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sonel_audio_sdk/audio_types.h"
#include "utils/export.h"
#include "weights/model.h"

namespace SONEL::UTILS {
class FFT;
}

namespace SONEL::NOISE_CANCELLER {

class RingtoneCleaner_v0_0_1;

class SONEL_EXPORT NoiseCleaner {
public:
    NoiseCleaner(WEIGHTS::ModelPtr model, unsigned sampleRate);
    virtual ~NoiseCleaner();
    NoiseCleaner(const NoiseCleaner&) = delete;
    NoiseCleaner& operator=(const NoiseCleaner&) = delete;

    // Processes one frame at the model's rate in place. A detector leaves exactly one value
    // (its probability or level) at the front of the vector.
    virtual bool cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool flag) = 0;
    virtual bool resetSession() { return true; }
    virtual bool background_speaker_fix_switch(bool /*on*/) { return false; }
    // Samples at the model's rate between a sample entering cleanNoise and leaving it.
    virtual unsigned delaySamples() const { return 0; }
    // Whether frames of `samples` (at the model's rate) can be processed exactly, and the rule
    // for a refusal's message.
    virtual bool acceptsFrame(size_t samples) const { return samples > 0; }
    virtual std::string frameRule() const { return "a positive number of samples"; }

    std::string getVersion() const;
    unsigned sampleRate() const { return sampleRate_; }
    std::shared_ptr<UTILS::FFT> getFftPtr(size_t n);
    void predictBandwidth(std::vector<float>& frame, SonelAudioFrameDuration durationMs,
                          bandWidthInfo_t* info);
    void voiceStatsUpdate(double energy, unsigned long frameDurationMs);
    void noiseStatsUpdate(double level, unsigned long frameDurationMs);
    void getNcStats(NoiseVoiceStats* out);
    // The ringtone detector a cleaner reports with when a frame asks for it: chosen when the
    // session is made, so the audio thread never reads the registry. Null: never evaluated.
    void setRingtoneModel(WEIGHTS::ModelPtr detector) { ringtoneModel_ = std::move(detector); }

    // The model class for a session. Only registered models of the session's kind compete
    // (voice detectors, ringtone detectors or cleaners), all of them when none is of that kind;
    // a noise-level session takes the 0.0.5 cleaners alone when there are any.
    static std::shared_ptr<NoiseCleaner> create(SonelAudioSamplingRate rate,
                                                SonelAudioFrameDuration duration, const char* name,
                                                SonelAudioSessionType sessionType);
    // The registered model whose rate is closest at or below `rate` among those of the right
    // kind (detector models carry "VAD" in their version); empty when none is of that kind.
    static WEIGHTS::ModelPtr selectModel(const std::vector<WEIGHTS::ModelPtr>& models,
                                         SonelAudioSamplingRate rate,
                                         SonelAudioSessionType sessionType);

protected:
    // The ringtone probability of `count` samples at this cleaner's rate, or −1.0 when there is
    // no detector. The first call builds the detector (the one allocation); a model that cannot
    // be built is reported once and forgotten, so the cleaning itself goes on.
    double ringtoneProbability(const float* samples, size_t count);

    WEIGHTS::ModelPtr model;

private:
    static constexpr int kBandFigures = 7;  // four band powers and three combinations

    unsigned sampleRate_;
    int32_t bandwidthElapsedMs = 0;
    std::vector<float> bandwidthAccumulator = std::vector<float>(kBandFigures, 0.0f);
    int32_t bandwidthExtraBands = 3;
    std::shared_ptr<UTILS::FFT> fft;
    uint64_t fftSize = 0;
    std::vector<float> bandwidthFrame_;                  // scratch: the analysed copy
    std::vector<std::complex<float>> bandwidthSpectrum_;  // scratch: its spectrum

    int32_t statsAccumulationCount = 20;
    int32_t talkEnergyThreshold = 36;
    int32_t silentFrameCountConsideredTalk = 4;
    int32_t noNoiseLevel = 2;
    int32_t lowNoiseLevel = 25;
    int32_t mediumNoiseLevel = 50;

    double noiseSum_ = 0.0;
    uint64_t noiseFrames_ = 0;
    double voiceSum_ = 0.0;
    uint64_t voiceFrames_ = 0;
    uint64_t silentRun = 0;
    uint32_t talkTime = 0;
    std::unordered_map<uint32_t, uint32_t> noiseTimeByLevel;

    WEIGHTS::ModelPtr ringtoneModel_;
    std::unique_ptr<RingtoneCleaner_v0_0_1> ringtone_;
};

}  // namespace SONEL::NOISE_CANCELLER
