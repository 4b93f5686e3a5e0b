#pragma once
// The process-wide, reference-counted instance behind the C interface: the loaded models, a cache
// of weights already read, and the table of live sessions.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "sonel-audio-sdk.h"
#include "sonel_audio_sdk/session.h"
#include "sonel_audio_sdk/session_table.h"
#include "utils/export.h"
#include "weights/model.h"

namespace SONEL::SONEL_AUDIO {

enum MODE : int32_t { GET = 0, INIT = 1, DESTROY = 2 };

using WeightAndKey = std::pair<std::shared_ptr<WEIGHTS::Weight>, std::string>;

class SONEL_EXPORT SonelAudioInstanceT {
public:
    // get: the live instance (throws when none); init: create or re-reference; destroy: drop one
    // reference, deleting the instance with its sessions and models at zero.
    static SonelAudioInstanceT* Instance(MODE mode, const wchar_t* path = nullptr);

    // Serialises instance life, registry changes and session creation/destruction. Frame
    // processing never takes it.
    static std::mutex mutexForInputs_;
    // Process-wide threshold that turns a ringtone probability into a frame's ringtone state.
    static float csdThreshold_;

    SonelAudioInstanceT(const SonelAudioInstanceT&) = delete;
    SonelAudioInstanceT& operator=(const SonelAudioInstanceT&) = delete;

    const SonelAudioVersionInfo& version() const { return version_; }
    const std::wstring& workingFolder() const { return workingFolder_; }
    const std::map<std::string, WEIGHTS::ModelPtr>& models() const { return models_; }

    bool addWeightWithControlFile(const wchar_t* path, const char* modelName);
    WeightAndKey readAndCheckWeight(const std::wstring& path);
    bool addWeightBlob(const void* blob, size_t size, const char* modelName);
    WeightAndKey readAndCheckWeightBlob(const void* blob, size_t size);
    static std::string vlwUniqueIdGenerator(const std::shared_ptr<WEIGHTS::Weight>& weight);
    static bool addModelEnvironment(WEIGHTS::ModelPtr& model, const char* key, const char* value);
    bool removeWeight(const char* modelName);
    bool clearAll();

    SonelAudioSessionT* createNCSession(SonelAudioSamplingRate inRate, SonelAudioSamplingRate outRate,
                                        SonelAudioFrameDuration duration, const char* modelName);
    SonelAudioSessionT* createNCWithStatsSession(SonelAudioSamplingRate inRate,
                                                 SonelAudioSamplingRate outRate,
                                                 SonelAudioFrameDuration duration,
                                                 const char* modelName);
    SonelAudioSessionT* createVADSession(SonelAudioSamplingRate rate, SonelAudioFrameDuration duration,
                                         const char* modelName);
    SonelAudioSessionT* createRingtoneSession(SonelAudioSamplingRate rate,
                                              SonelAudioFrameDuration duration, const char* modelName);
    SonelAudioSessionT* createNoiseDBSession(SonelAudioSamplingRate rate,
                                             SonelAudioFrameDuration duration, const char* modelName);

    // Lock-free, and safe while other threads create and close their own sessions.
    bool isSessionTrue(SonelAudioSessionT* session) const;
    // The session's type, or 0 when the pointer is null or not a live session.
    int32_t getSessionType(SonelAudioSessionT* session) const;
    bool destroySession(SonelAudioSessionT* session);

private:
    explicit SonelAudioInstanceT(const wchar_t* path);
    ~SonelAudioInstanceT() = default;
    static void releaseAtExit();

    SonelAudioSessionT* createSession(SonelAudioSamplingRate inRate, SonelAudioSamplingRate outRate,
                                      SonelAudioFrameDuration duration, const char* modelName,
                                      SonelAudioSessionType type);
    bool loadWeightInto(WEIGHTS::ModelPtr& model, const std::wstring& path);
    bool insertModel(const std::string& name, WEIGHTS::ModelPtr model);

    SonelAudioVersionInfo version_{};
    std::wstring workingFolder_;
    SessionTable sessions_;
    std::map<std::string, WEIGHTS::ModelPtr> models_;
    std::map<std::string, std::shared_ptr<WEIGHTS::Weight>> weightCache_;
    std::map<std::string, uint32_t> weightUseCounts_;
    uint32_t referenceCount_ = 0;

    static SonelAudioInstanceT* instance_;
};

}  // namespace SONEL::SONEL_AUDIO
