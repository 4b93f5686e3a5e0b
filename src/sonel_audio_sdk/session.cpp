#include "sonel_audio_sdk/session.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <iostream>
#include <type_traits>

#include "noise_canceller/noise_cleaner.h"
#include "utils/resampler.h"
#include "utils/sonel_exception.h"

namespace SONEL::SONEL_AUDIO {

using UTILS::SonelException;

namespace {

const char* const kSessionFile = "src/sonel_audio_sdk/session";
constexpr float kFloatToInt16 = 32768.0f;
constexpr float kInt16ToFloat = 3.0517578e-5f;  // 1 / 32768

// Beyond this (float units, 2^30 in 16-bit units) an input sample is limited before it is scaled
// and resampled: a float near its largest value would overflow to infinity in either.
constexpr float kFloatInputLimit = 32768.0f;

// NaN, which std::clamp would pass through and the 16-bit conversion could not represent,
// becomes 0.
void clampToInt16(std::vector<float>& samples) {
    for (float& s : samples) s = std::isnan(s) ? 0.0f : std::clamp(s, -32768.0f, 32767.0f);
}

// A NaN or infinite float sample is silence: passed on, it would reach the network's recurrent
// state and every later frame of the stream would come out NaN.
float scaledFloat(float s) {
    return std::isfinite(s) ? std::clamp(s, -kFloatInputLimit, kFloatInputLimit) * kFloatToInt16 : 0.0f;
}

}  // namespace

SonelAudioSessionT::SonelAudioSessionT(SonelAudioSamplingRate inputRate,
                                       SonelAudioSamplingRate outputRate,
                                       SonelAudioFrameDuration duration, const char* modelName,
                                       SonelAudioSessionType type)
    : type_(type), durationMs_(static_cast<unsigned>(duration)) {
    cleaner_ = NOISE_CANCELLER::NoiseCleaner::create(inputRate, duration, modelName, type);
    const bool vad = type == SONEL_AUDIO_SESSION_VAD;
    inputFrameSize_ = getSampleCount(durationMs_, inputRate);
    outputFrameSize_ = getSampleCount(durationMs_, vad ? 1u : static_cast<unsigned>(outputRate));

    const unsigned modelRate = cleaner_->sampleRate();
    const unsigned modelFrameSize = getSampleCount(durationMs_, modelRate);

    // A cleaner works in whole hops; a frame that is not a whole number of them would be handed
    // back with part of its last hop not yet overlap-added.
    const bool cleaning = type == SONEL_AUDIO_SESSION_NC || type == SONEL_AUDIO_SESSION_NC_WITH_STATS;
    if (cleaning && !cleaner_->acceptsFrame(modelFrameSize))
        throw SonelException("ERROR frame duration " + std::to_string(durationMs_) + " ms is " +
                                 std::to_string(modelFrameSize) + " samples at the model's rate, not " +
                                 cleaner_->frameRule(),
                             kSessionFile, __LINE__, "SonelAudioSessionT");

    // A detector takes 10 ms blocks, into which the session cuts each frame: a duration that is
    // not a whole number of them could be opened but never processed.
    if (vad && (durationMs_ == 0 || durationMs_ % 10 != 0))
        throw SonelException("ERROR frame duration " + std::to_string(durationMs_) +
                                 " ms is not a whole number of the voice detector's 10 ms blocks",
                             kSessionFile, __LINE__, "SonelAudioSessionT");

    // A ringtone detector gathers frames of any length into its 10 ms hops, at the session's own
    // rate; a frame still has to hold a sample.
    if (type == SONEL_AUDIO_SESSION_RINGTONE && inputFrameSize_ == 0)
        throw SonelException("ERROR frame duration " + std::to_string(durationMs_) +
                                 " ms holds no samples at " + std::to_string(static_cast<unsigned>(inputRate)) +
                                 " Hz",
                             kSessionFile, __LINE__, "SonelAudioSessionT");

    const bool sameRates = modelRate == static_cast<unsigned>(inputRate) &&
                           modelRate == static_cast<unsigned>(outputRate);
    if (!sameRates && durationMs_ != 10)
        throw SonelException("RESAMPLER WORKS WITH WRONG FRAMEDURATION ", kSessionFile, 76,
                             "SonelAudioSessionT");

    // The converters are built only for a session that will run: their filter tables take longer
    // to compute than everything else a session is made of.
    if (modelFrameSize != inputFrameSize_)
        inputResampler_ = std::make_unique<UTILS::Resampler>(inputFrameSize_, modelFrameSize);
    // A detector's result is one value read from its vector, so its output side stays at the
    // model's rate.
    const unsigned callerOutputSize =
        getSampleCount(durationMs_, vad ? modelRate : static_cast<unsigned>(outputRate));
    if (modelFrameSize != callerOutputSize)
        outputResampler_ = std::make_unique<UTILS::Resampler>(modelFrameSize, callerOutputSize);

    const size_t largest = std::max({inputFrameSize_, outputFrameSize_, modelFrameSize});
    frame_.reserve(largest);
    modelFrame_.reserve(largest);
    output_.reserve(largest);
    prefix_.reserve(largest);
}

// Resamplers go first, then the cleaner.
SonelAudioSessionT::~SonelAudioSessionT() {
    outputResampler_.reset();
    inputResampler_.reset();
}

void SonelAudioSessionT::printLongSizeError() const {
    std::cerr << "ERROR input dataSize or output dataSize or pointers of inputData output Data is "
                 "wrong\n input size must be "
              << inputFrameSize_ << "\n output size must be " << outputFrameSize_ << std::endl;
}

void SonelAudioSessionT::printShortSizeError() const {
    std::cerr << "ERROR input dataSize or output dataSize is wrong \n input size must be "
              << inputFrameSize_ << "\n output size must be " << outputFrameSize_ << std::endl;
}

bool SonelAudioSessionT::sizesValid(unsigned long inSize, unsigned long outSize, const void* in,
                                    const void* out) const {
    return inSize == inputFrameSize_ && outSize == outputFrameSize_ && in && out;
}

template <typename Sample>
std::vector<float>& SonelAudioSessionT::loadFrame(const Sample* in, unsigned long count) {
    frame_.resize(count);
    for (unsigned long i = 0; i < count; ++i)
        frame_[i] = std::is_floating_point_v<Sample> ? scaledFloat(static_cast<float>(in[i]))
                                                     : static_cast<float>(in[i]);
    std::vector<float>* work = &frame_;
    if (inputResampler_ && inputResampler_->resample(frame_, modelFrame_) > 0) work = &modelFrame_;
    clampToInt16(*work);
    return *work;
}

template <typename Sample>
bool SonelAudioSessionT::clean(const Sample* in, unsigned long inSize, Sample* out,
                               unsigned long outSize, ncAudioInfo_t* info, bool flag) {
    if (!sizesValid(inSize, outSize, in, out)) {
        printLongSizeError();
        return false;
    }
    std::vector<float>* work = &loadFrame(in, inSize);
    if (!cleaner_->cleanNoise(*work, info, flag)) return false;
    if (outputResampler_ && outputResampler_->resample(*work, output_) > 0) work = &output_;
    clampToInt16(*work);

    const unsigned long available = std::min<unsigned long>(work->size(), outSize);
    for (unsigned long i = 0; i < available; ++i) {
        if constexpr (std::is_floating_point_v<Sample>)
            out[i] = (*work)[i] * kInt16ToFloat;
        else
            out[i] = static_cast<Sample>((*work)[i]);
    }
    std::fill(out + available, out + outSize, Sample(0));
    return true;
}

bool SonelAudioSessionT::cleanNoise(const short* in, unsigned long inSize, short* out,
                                    unsigned long outSize, ncAudioInfo_t* info, bool flag) {
    return clean(in, inSize, out, outSize, info, flag);
}

bool SonelAudioSessionT::cleanNoise(const float* in, unsigned long inSize, float* out,
                                    unsigned long outSize, ncAudioInfo_t* info, bool flag) {
    return clean(in, inSize, out, outSize, info, flag);
}

template <typename Sample>
float SonelAudioSessionT::vad(const Sample* frame, unsigned long size, bandWidthInfo_t* info) {
    const unsigned subFrames = durationMs_ / 10;
    if (durationMs_ % 10 != 0 || subFrames == 0 || size % subFrames != 0 ||
        size != inputFrameSize_ || !frame) {
        if constexpr (std::is_floating_point_v<Sample>) {
            printShortSizeError();
            return -2.0f;
        } else {
            printLongSizeError();
            throw SonelException("ERROR in input values", kSessionFile, __LINE__, "frameVad");
        }
    }
    const unsigned long subSize = size / subFrames;
    float sum = 0.0f;
    for (unsigned k = 0; k < subFrames; ++k) {
        std::vector<float>& work = loadFrame(frame + k * subSize, subSize);
        cleaner_->cleanNoise(work, nullptr, false);
        const float probability = work.empty() ? 0.0f : work[0];
        sum += probability;
        if (info && info->bandwidthClass == 0 && probability > 0.5f) {
            const unsigned long headSize = (k + 1) * subSize;
            prefix_.resize(headSize);
            for (unsigned long i = 0; i < headSize; ++i)
                prefix_[i] = std::is_floating_point_v<Sample>
                                 ? static_cast<float>(frame[i]) * kFloatToInt16
                                 : static_cast<float>(frame[i]);
            cleaner_->predictBandwidth(prefix_, SONEL_AUDIO_FRAME_10MS, info);
        }
    }
    return sum / static_cast<float>(subFrames);
}

float SonelAudioSessionT::frameVad(const short* frame, unsigned long size, bandWidthInfo_t* info) {
    return vad(frame, size, info);
}

float SonelAudioSessionT::frameVad(const float* frame, unsigned long size, bandWidthInfo_t* info) {
    return vad(frame, size, info);
}

template <typename Sample>
float SonelAudioSessionT::detect(const Sample* frame, unsigned long size) {
    if (size != inputFrameSize_ || !frame) {
        if constexpr (std::is_floating_point_v<Sample>) {
            printShortSizeError();
            return -2.0f;
        } else {
            printLongSizeError();
            throw SonelException("ERROR in input values", kSessionFile, __LINE__, "frameDetect");
        }
    }
    std::vector<float>& work = loadFrame(frame, size);
    cleaner_->cleanNoise(work, nullptr, false);
    return work.empty() ? 0.0f : work[0];
}

float SonelAudioSessionT::frameRingtone(const short* frame, unsigned long size) {
    return detect(frame, size);
}
float SonelAudioSessionT::frameRingtone(const float* frame, unsigned long size) {
    return detect(frame, size);
}
float SonelAudioSessionT::frameNoiseDB(const short* frame, unsigned long size) {
    return detect(frame, size);
}
float SonelAudioSessionT::frameNoiseDB(const float* frame, unsigned long size) {
    return detect(frame, size);
}

bool SonelAudioSessionT::resetNoiseDBSession() {
    cleaner_->resetSession();
    if (inputResampler_) inputResampler_->reset();
    if (outputResampler_) outputResampler_->reset();
    return true;
}

double SonelAudioSessionT::latencySamples() const {
    double atModelRate = cleaner_->delaySamples();
    if (inputResampler_) atModelRate += static_cast<double>(inputResampler_->leadingSilence());
    double atOutputRate = atModelRate;
    if (outputResampler_)
        atOutputRate = atModelRate * outputResampler_->factor() +
                       static_cast<double>(outputResampler_->leadingSilence());
    return atOutputRate;
}

void SonelAudioSessionT::noiseVoiceStats(NoiseVoiceStats* stats) { cleaner_->getNcStats(stats); }

}  // namespace SONEL::SONEL_AUDIO
