#pragma once
// One processing stream: checks frame sizes, converts samples, carries frames to the model's rate
// and back, and dispatches them to its cleaner or detector.
#include <memory>
#include <vector>

#include "sonel_audio_sdk/audio_types.h"
#include "utils/export.h"

namespace SONEL::NOISE_CANCELLER {
class NoiseCleaner;
}
namespace SONEL::UTILS {
class Resampler;
}

namespace SONEL::SONEL_AUDIO {

class SONEL_EXPORT SonelAudioSessionT {
public:
    SonelAudioSessionT(SonelAudioSamplingRate inputRate, SonelAudioSamplingRate outputRate,
                       SonelAudioFrameDuration duration, const char* modelName,
                       SonelAudioSessionType type);
    ~SonelAudioSessionT();
    SonelAudioSessionT(const SonelAudioSessionT&) = delete;
    SonelAudioSessionT& operator=(const SonelAudioSessionT&) = delete;

    SonelAudioSessionType getType() const { return type_; }
    unsigned inputFrameSize() const { return inputFrameSize_; }
    NOISE_CANCELLER::NoiseCleaner& cleaner() { return *cleaner_; }
    // Delay from the caller's input to its output in output-rate samples, once the first frame
    // has been processed (the resamplers fix theirs on their first call). Fractional when the
    // rates make the resampled delay fall between samples.
    double latencySamples() const;

    bool cleanNoise(const short* in, unsigned long inSize, short* out, unsigned long outSize,
                    ncAudioInfo_t* info, bool flag);
    bool cleanNoise(const float* in, unsigned long inSize, float* out, unsigned long outSize,
                    ncAudioInfo_t* info, bool flag);
    float frameVad(const short* frame, unsigned long size, bandWidthInfo_t* info);
    float frameVad(const float* frame, unsigned long size, bandWidthInfo_t* info);
    float frameRingtone(const short* frame, unsigned long size);
    float frameRingtone(const float* frame, unsigned long size);
    float frameNoiseDB(const short* frame, unsigned long size);
    float frameNoiseDB(const float* frame, unsigned long size);
    bool resetNoiseDBSession();
    void noiseVoiceStats(NoiseVoiceStats* stats);

private:
    template <typename Sample>
    bool clean(const Sample* in, unsigned long inSize, Sample* out, unsigned long outSize,
               ncAudioInfo_t* info, bool flag);
    template <typename Sample>
    float detect(const Sample* frame, unsigned long size);
    template <typename Sample>
    float vad(const Sample* frame, unsigned long size, bandWidthInfo_t* info);
    // Converts `count` samples to floats in the 16-bit range at the model's rate; returns the
    // buffer that holds them.
    template <typename Sample>
    std::vector<float>& loadFrame(const Sample* in, unsigned long count);
    bool sizesValid(unsigned long inSize, unsigned long outSize, const void* in, const void* out) const;
    void printLongSizeError() const;
    void printShortSizeError() const;

    std::shared_ptr<NOISE_CANCELLER::NoiseCleaner> cleaner_;
    std::unique_ptr<UTILS::Resampler> inputResampler_;
    std::unique_ptr<UTILS::Resampler> outputResampler_;
    unsigned inputFrameSize_ = 0;
    unsigned outputFrameSize_ = 0;
    SonelAudioSessionType type_;
    unsigned durationMs_ = 0;

    // Scratch reused every frame so the audio path never allocates after the first call.
    std::vector<float> frame_;      // the caller's frame as floats in the 16-bit range
    std::vector<float> modelFrame_; // the same at the model's rate
    std::vector<float> output_;     // the cleaned frame back at the caller's rate
    std::vector<float> prefix_;     // VAD frame head handed to the bandwidth predictor
};

}  // namespace SONEL::SONEL_AUDIO
