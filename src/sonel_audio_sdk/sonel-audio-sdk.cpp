// The C interface: thin wrappers that find the instance, check the session handle and convert
// every exception into a return code, so nothing thrown inside ever reaches the host.
#include "sonel-audio-sdk.h"

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <string>

#include "noise_canceller/noise_cleaner.h"
#include "sonel_audio_sdk/instance.h"
#include "utils/energy_level.h"
#include "utils/sonel_exception.h"

using SONEL::bandWidthInfo_t;
using SONEL::ncAudioInfo_t;
using SONEL::NoiseVoiceStats;
using SONEL::SONEL_AUDIO::SonelAudioInstanceT;
using SONEL::SONEL_AUDIO::SonelAudioSessionT;
using SONEL::UTILS::SonelException;

namespace {

const char* const kInterfaceFile = "src/sonel_audio_sdk/sonel-audio-sdk";
const char* const kWrongSession = "The Session pointer is wrong insert existing session pointer";

// Runs `body` and turns exceptions into the interface's codes (-3 library, -2 standard,
// -1 anything else), printing their text on standard error.
template <typename Result, typename Body>
Result guarded(Body&& body, Result sonelCode, Result standardCode, Result unknownCode) {
    try {
        return body();
    } catch (const SonelException& e) {
        std::cerr << e.what() << std::endl;
        return sonelCode;
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return standardCode;
    } catch (...) {
        std::cerr << "UNDEFINED EXCEPTION" << std::endl;
        return unknownCode;
    }
}

template <typename Body>
int32_t guardedCode(Body&& body) {
    return guarded<int32_t>(body, SONEL_AUDIO_SONEL_EXCEPTION, SONEL_AUDIO_STD_EXCEPTION,
                            SONEL_AUDIO_UNKNOWN_EXCEPTION);
}

template <typename Body>
float guardedFloat(Body&& body) {
    return guarded<float>(body, -3.0f, -2.0f, -1.0f);
}

template <typename Body>
void* guardedHandle(Body&& body) {
    return guarded<void*>(body, nullptr, nullptr, nullptr);
}

// The live session behind `handle` when it has the expected type, else null.
SonelAudioSessionT* liveSession(void* handle, SonelAudioSessionType type) {
    auto* instance = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET);
    auto* session = static_cast<SonelAudioSessionT*>(handle);
    if (!instance->isSessionTrue(session) || instance->getSessionType(session) != type) return nullptr;
    return session;
}

bool isSupportedRate(int32_t rate) {
    switch (rate) {
        case 8000: case 16000: case 24000: case 32000:
        case 44100: case 48000: case 88200: case 96000:
            return true;
        default:
            return false;
    }
}

bool ratesSupported(std::initializer_list<SonelAudioSamplingRate> rates) {
    for (SonelAudioSamplingRate rate : rates) {
        if (!isSupportedRate(rate)) {
            std::cerr << "Unsupported Sampling rates!" << std::endl;
            return false;
        }
    }
    return true;
}

int32_t closeSession(void* handle, SonelAudioSessionType type) {
    return guardedCode([&] {
        auto* instance = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET);
        auto* session = static_cast<SonelAudioSessionT*>(handle);
        if (instance->getSessionType(session) != type)
            throw SonelException(
                "Trying to close a non-existant session or session of incompatible type",
                kInterfaceFile, __LINE__, "closeSession");
        return instance->destroySession(session) ? SONEL_AUDIO_OK : SONEL_AUDIO_FAILED;
    });
}

// Levels are 0 … 100; anything else (never expected) reads as 0 rather than an undefined
// conversion.
uint32_t levelOf(double level) {
    return level > 0.0 && level <= 100.0 ? static_cast<uint32_t>(level) : 0u;
}

template <typename Sample>
int32_t cleanFrame(void* handle, SonelAudioSessionType type, const Sample* input,
                   unsigned int inputSize, Sample* output, unsigned int outputSize,
                   SonelAudioNcFrameInfo* frameInfo, bool ringtone) {
    return guardedCode([&] {
        SonelAudioSessionT* session = liveSession(handle, type);
        if (!session) {
            std::cerr << kWrongSession << std::endl;
            return static_cast<int32_t>(SONEL_AUDIO_WRONG_SESSION);
        }
        ncAudioInfo_t info{};
        const bool cleaned = session->cleanNoise(input, inputSize, output, outputSize,
                                                 frameInfo ? &info : nullptr, ringtone);
        if (cleaned && frameInfo) {
            frameInfo->voiceLevel = levelOf(info.voiceLevel);
            frameInfo->noiseLevel = levelOf(info.noiseLevel);
            const double probability = info.ringtoneProbability;
            frameInfo->ringtoneState =
                probability == -1.0 ? 0 : probability >= SonelAudioInstanceT::csdThreshold_ ? 1 : 2;
        }
        return static_cast<int32_t>(1 - static_cast<int32_t>(cleaned));
    });
}

template <typename Sample>
float vadFrame(void* handle, const Sample* frame, unsigned int frameSize,
               SonelAudioBandWidthInfo_t* info) {
    return guardedFloat([&] {
        SonelAudioSessionT* session = liveSession(handle, SONEL_AUDIO_SESSION_VAD);
        if (!session) {
            std::cerr << kWrongSession << std::endl;
            return -4.0f;
        }
        bandWidthInfo_t internal{0, info ? info->averagingPeriodMs : 0, info ? info->startDelayMs : 0};
        const float probability = session->frameVad(frame, frameSize, info ? &internal : nullptr);
        if (info) info->bandwidthClass = internal.bandwidthClass;
        if (!(probability >= 0.0f && probability <= 1.0f)) {
            std::cerr << "THE CLEANING ERROR OUTPUT result " << probability << std::endl;
            std::cerr << kWrongSession << std::endl;
            return -4.0f;
        }
        return probability;
    });
}

// Ringtone and noise-level frames: one value from a detector session of the given type.
template <typename Sample, typename Call>
float detectorFrame(void* handle, SonelAudioSessionType type, Call call, bool checkRange) {
    return guardedFloat([&] {
        SonelAudioSessionT* session = liveSession(handle, type);
        if (!session) {
            std::cerr << kWrongSession << std::endl;
            return -4.0f;
        }
        const float result = call(*session);
        if (checkRange && !(result >= 0.0f && result <= 1.0f)) {
            std::cerr << "THE CLEANING ERROR OUTPUT result " << result << std::endl;
            std::cerr << kWrongSession << std::endl;
            return -4.0f;
        }
        return result;
    });
}

unsigned int energyLevel(double meanSquare) {
    const double level = SONEL::UTILS::energyLevel(meanSquare);
    if (std::isnan(level)) return 0;  // an empty frame: 0 / 0 has no level to report
    return static_cast<unsigned int>(level);
}

}  // namespace

extern "C" {

int32_t sonelAudioGlobalInit(const wchar_t* workingPath) {
    return guardedCode([&] {
        SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::INIT, workingPath);
        return static_cast<int32_t>(SONEL_AUDIO_OK);
    });
}

int32_t sonelAudioGlobalDestroy(void) {
    return guardedCode([&] {
        SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::DESTROY);
        return static_cast<int32_t>(SONEL_AUDIO_OK);
    });
}

int32_t sonelAudioGetVersion(SonelAudioVersionInfo* out) {
    if (!out) {
        std::cerr << "Null pointer received" << std::endl;
        return SONEL_AUDIO_UNKNOWN_EXCEPTION;
    }
    *out = SonelAudioVersionInfo{};
    return guardedCode([&] {
        *out = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)->version();
        return static_cast<int32_t>(SONEL_AUDIO_OK);
    });
}

int32_t sonelAudioSetModel(const wchar_t* weightFilePath, const char* modelName) {
    if (!weightFilePath) {
        std::cout << "WARRNING sonelAudioSetModel FUNCTION CALL with nullptr" << std::endl;
        return SONEL_AUDIO_MODEL_NOT_LOADED;
    }
    return guardedCode([&] {
        auto* instance = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET);
        std::lock_guard<std::mutex> lock(SonelAudioInstanceT::mutexForInputs_);
        return static_cast<int32_t>(instance->addWeightWithControlFile(weightFilePath, modelName)
                                        ? SONEL_AUDIO_OK
                                        : SONEL_AUDIO_MODEL_NOT_LOADED);
    });
}

int32_t sonelAudioSetModelBlob(const void* blob, unsigned int blobSize, const char* modelName) {
    if (!blob) {
        std::cout << "WARRNING Vlt_SDK_SetModel_Blob FUNCTION CALL with nullptr" << std::endl;
        return SONEL_AUDIO_MODEL_NOT_LOADED;
    }
    return guardedCode([&] {
        auto* instance = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET);
        std::lock_guard<std::mutex> lock(SonelAudioInstanceT::mutexForInputs_);
        return static_cast<int32_t>(instance->addWeightBlob(blob, blobSize, modelName)
                                        ? SONEL_AUDIO_OK
                                        : SONEL_AUDIO_MODEL_NOT_LOADED);
    });
}

int32_t sonelAudioRemoveModel(const char* modelName) {
    return guardedCode([&] {
        auto* instance = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET);
        std::lock_guard<std::mutex> lock(SonelAudioInstanceT::mutexForInputs_);
        if (!instance->removeWeight(modelName))
            throw SonelException("ERROR Remove model.", kInterfaceFile, __LINE__,
                                 "sonelAudioRemoveModel");
        return static_cast<int32_t>(SONEL_AUDIO_OK);
    });
}

void* sonelAudioNcCreateSession(SonelAudioSamplingRate inputRate, SonelAudioSamplingRate outputRate,
                                SonelAudioFrameDuration frameDuration, const char* modelName) {
    if (!ratesSupported({inputRate, outputRate})) return nullptr;
    return guardedHandle([&]() -> void* {
        return SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)
            ->createNCSession(inputRate, outputRate, frameDuration, modelName);
    });
}

void* sonelAudioNcWithStatsCreateSession(SonelAudioSamplingRate inputRate,
                                         SonelAudioSamplingRate outputRate,
                                         SonelAudioFrameDuration frameDuration,
                                         const char* modelName) {
    if (!ratesSupported({inputRate, outputRate})) return nullptr;
    return guardedHandle([&]() -> void* {
        const char* threshold = std::getenv("sonel_env_csd_threshold");
        SonelAudioInstanceT::csdThreshold_ =
            threshold && *threshold ? std::stof(threshold) : 0.5f;
        return SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)
            ->createNCWithStatsSession(inputRate, outputRate, frameDuration, modelName);
    });
}

void* sonelAudioVadCreateSession(SonelAudioSamplingRate rate, SonelAudioFrameDuration frameDuration,
                                 const char* modelName) {
    if (!ratesSupported({rate})) return nullptr;
    return guardedHandle([&]() -> void* {
        return SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)
            ->createVADSession(rate, frameDuration, modelName);
    });
}

void* sonelAudioRingtoneCreateSession(SonelAudioSamplingRate rate,
                                      SonelAudioFrameDuration frameDuration, const char* modelName) {
    if (!ratesSupported({rate})) return nullptr;
    return guardedHandle([&]() -> void* {
        return SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)
            ->createRingtoneSession(rate, frameDuration, modelName);
    });
}

void* sonelAudioNoiseDbCreateSession(SonelAudioSamplingRate rate,
                                     SonelAudioFrameDuration frameDuration, const char* modelName) {
    if (!ratesSupported({rate})) return nullptr;
    return guardedHandle([&]() -> void* {
        return SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)
            ->createNoiseDBSession(rate, frameDuration, modelName);
    });
}

int32_t sonelAudioNcCloseSession(void* session) { return closeSession(session, SONEL_AUDIO_SESSION_NC); }
int32_t sonelAudioNcWithStatsCloseSession(void* session) {
    return closeSession(session, SONEL_AUDIO_SESSION_NC_WITH_STATS);
}
int32_t sonelAudioVadCloseSession(void* session) { return closeSession(session, SONEL_AUDIO_SESSION_VAD); }
int32_t sonelAudioRingtoneCloseSession(void* session) {
    return closeSession(session, SONEL_AUDIO_SESSION_RINGTONE);
}
int32_t sonelAudioNoiseDbCloseSession(void* session) {
    return closeSession(session, SONEL_AUDIO_SESSION_NOISE_DB);
}

int32_t sonelAudioNoiseDbResetSession(void* handle) {
    return guardedCode([&] {
        SonelAudioSessionT* session = liveSession(handle, SONEL_AUDIO_SESSION_NOISE_DB);
        if (!session)
            throw SonelException(
                "Trying to reset a non-existing session or session of incompatible type",
                kInterfaceFile, __LINE__, "sonelAudioNoiseDbResetSession");
        return session->resetNoiseDBSession() ? SONEL_AUDIO_OK : SONEL_AUDIO_FAILED;
    });
}

int32_t sonelAudioNcCleanAmbientNoiseInt16(void* session, const short* input, unsigned int inputSize,
                                           short* output, unsigned int outputSize) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC, input, inputSize, output, outputSize, nullptr,
                      false);
}
int32_t sonelAudioNcCleanAmbientNoiseWithRingtoneInt16(void* session, const short* input,
                                                       unsigned int inputSize, short* output,
                                                       unsigned int outputSize, bool ringtone) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC, input, inputSize, output, outputSize, nullptr,
                      ringtone);
}
int32_t sonelAudioNcWithStatsCleanAmbientNoiseInt16(void* session, const short* input,
                                                    unsigned int inputSize, short* output,
                                                    unsigned int outputSize,
                                                    SonelAudioNcFrameInfo* info) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC_WITH_STATS, input, inputSize, output,
                      outputSize, info, false);
}
int32_t sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneInt16(void* session, const short* input,
                                                                unsigned int inputSize, short* output,
                                                                unsigned int outputSize,
                                                                bool ringtone,
                                                                SonelAudioNcFrameInfo* info) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC_WITH_STATS, input, inputSize, output,
                      outputSize, info, ringtone);
}
int32_t sonelAudioNcCleanAmbientNoiseFloat(void* session, const float* input, unsigned int inputSize,
                                           float* output, unsigned int outputSize) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC, input, inputSize, output, outputSize, nullptr,
                      false);
}
int32_t sonelAudioNcCleanAmbientNoiseWithRingtoneFloat(void* session, const float* input,
                                                       unsigned int inputSize, float* output,
                                                       unsigned int outputSize, bool ringtone) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC, input, inputSize, output, outputSize, nullptr,
                      ringtone);
}
int32_t sonelAudioNcWithStatsCleanAmbientNoiseFloat(void* session, const float* input,
                                                    unsigned int inputSize, float* output,
                                                    unsigned int outputSize,
                                                    SonelAudioNcFrameInfo* info) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC_WITH_STATS, input, inputSize, output,
                      outputSize, info, false);
}
int32_t sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(void* session, const float* input,
                                                                unsigned int inputSize, float* output,
                                                                unsigned int outputSize,
                                                                bool ringtone,
                                                                SonelAudioNcFrameInfo* info) {
    return cleanFrame(session, SONEL_AUDIO_SESSION_NC_WITH_STATS, input, inputSize, output,
                      outputSize, info, ringtone);
}

int32_t sonelAudioNcWithStatsRetrieveStats(void* handle, SonelAudioNcStats* stats) {
    if (!stats) {
        std::cerr << "Invalid NC stats pointer" << std::endl;
        return SONEL_AUDIO_WRONG_SESSION;
    }
    return guardedCode([&] {
        SonelAudioSessionT* session = liveSession(handle, SONEL_AUDIO_SESSION_NC_WITH_STATS);
        if (!session) {
            std::cerr << kWrongSession << std::endl;
            return static_cast<int32_t>(SONEL_AUDIO_WRONG_SESSION);
        }
        NoiseVoiceStats collected;
        session->noiseVoiceStats(&collected);
        stats->talkTimeMs = collected.talkTime;
        stats->noNoiseMs = collected.noiseTimeByLevel[0];
        stats->lowNoiseMs = collected.noiseTimeByLevel[1];
        stats->mediumNoiseMs = collected.noiseTimeByLevel[2];
        stats->highNoiseMs = collected.noiseTimeByLevel[3];
        return static_cast<int32_t>(SONEL_AUDIO_OK);
    });
}

float _sonelAudioVadFrameInt16Helper(void* session, const short* frame, unsigned int frameSize,
                                     SonelAudioBandWidthInfo_t* info) {
    return vadFrame(session, frame, frameSize, info);
}
float _sonelAudioVadFrameFloatHelper(void* session, const float* frame, unsigned int frameSize,
                                     SonelAudioBandWidthInfo_t* info) {
    return vadFrame(session, frame, frameSize, info);
}
float sonelAudioVadFrameInt16(void* session, const short* frame, unsigned int frameSize) {
    return _sonelAudioVadFrameInt16Helper(session, frame, frameSize, nullptr);
}
float sonelAudioVadFrameInt16Ex(void* session, const short* frame, unsigned int frameSize,
                                SonelAudioBandWidthInfo_t* info) {
    return _sonelAudioVadFrameInt16Helper(session, frame, frameSize, info);
}
float sonelAudioVadFrameFloat(void* session, const float* frame, unsigned int frameSize) {
    return _sonelAudioVadFrameFloatHelper(session, frame, frameSize, nullptr);
}
float sonelAudioVadFrameFloatEx(void* session, const float* frame, unsigned int frameSize,
                                SonelAudioBandWidthInfo_t* info) {
    return _sonelAudioVadFrameFloatHelper(session, frame, frameSize, info);
}

int32_t sonelAudioNcBackgroundSpeakerFixOnOff(void* handle, bool enable) {
    // Deliberately two-valued: 0 when the fix was switched, 1 for every kind of failure.
    const int32_t result = guardedCode([&] {
        SonelAudioSessionT* session = liveSession(handle, SONEL_AUDIO_SESSION_NC);
        if (!session) return static_cast<int32_t>(SONEL_AUDIO_FAILED);
        return static_cast<int32_t>(session->cleaner().background_speaker_fix_switch(enable)
                                        ? SONEL_AUDIO_OK
                                        : SONEL_AUDIO_FAILED);
    });
    return result == SONEL_AUDIO_OK ? SONEL_AUDIO_OK : SONEL_AUDIO_FAILED;
}

float sonelAudioDetectRingtoneFrameInt16(void* session, const short* frame, unsigned int frameSize) {
    return detectorFrame<short>(
        session, SONEL_AUDIO_SESSION_RINGTONE,
        [&](SonelAudioSessionT& s) { return s.frameRingtone(frame, frameSize); }, false);
}
float sonelAudioDetectRingtoneFrameFloat(void* session, const float* frame, unsigned int frameSize) {
    return detectorFrame<float>(
        session, SONEL_AUDIO_SESSION_RINGTONE,
        [&](SonelAudioSessionT& s) { return s.frameRingtone(frame, frameSize); }, true);
}
float sonelAudioNoiseDbFrameInt16(void* session, const short* frame, unsigned int frameSize) {
    return detectorFrame<short>(
        session, SONEL_AUDIO_SESSION_NOISE_DB,
        [&](SonelAudioSessionT& s) { return s.frameNoiseDB(frame, frameSize); }, false);
}
float sonelAudioNoiseDbFrameFloat(void* session, const float* frame, unsigned int frameSize) {
    return detectorFrame<float>(
        session, SONEL_AUDIO_SESSION_NOISE_DB,
        [&](SonelAudioSessionT& s) { return s.frameNoiseDB(frame, frameSize); }, false);
}

unsigned int sonelAudioGetFrameEnergyFloat(const float* frame, unsigned int frameSize) {
    double sum = 0.0;
    for (unsigned int i = 0; i < frameSize; ++i) sum += static_cast<double>(frame[i]) * frame[i];
    return energyLevel(sum / frameSize);
}

unsigned int sonelAudioGetFrameEnergyInt16(const short* frame, unsigned int frameSize) {
    double sum = 0.0;
    for (unsigned int i = 0; i < frameSize; ++i) {
        const float x = static_cast<float>(frame[i]) * 3.0517578e-5f;
        sum += static_cast<double>(x) * x;
    }
    return energyLevel(sum / frameSize);
}

}  // extern "C"
