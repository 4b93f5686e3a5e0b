#include "sonel_audio_sdk/instance.h"

#include <cstdlib>
#include <iostream>

#include "utils/sonel_exception.h"
#include "utils/wide_string.h"
#include "weights/control_file.h"

namespace SONEL::SONEL_AUDIO {

using UTILS::SonelException;
using WEIGHTS::ModelPair;
using WEIGHTS::ModelPtr;
using WEIGHTS::Weight;

std::mutex SonelAudioInstanceT::mutexForInputs_;
float SonelAudioInstanceT::csdThreshold_ = 0.5f;
SonelAudioInstanceT* SonelAudioInstanceT::instance_ = nullptr;

namespace {

const char* const kInstanceFile = "src/sonel_audio_sdk/instance";
constexpr SonelAudioVersionInfo kLibraryVersion{7, 0, 1, 40};

// Registry messages go to standard output, each on its own flushed line.
void say(const std::string& text) { std::cout << text << std::endl; }

std::wstring extensionOf(const std::wstring& path) {
    const size_t dot = path.rfind(L'.');
    return dot == std::wstring::npos ? std::wstring() : path.substr(dot + 1);
}

// The file's base name: between the last "/" and the last "." that follows it.
std::string baseNameOf(const std::wstring& path) {
    const size_t slash = path.rfind(L'/');
    const size_t start = slash == std::wstring::npos ? 0 : slash + 1;
    size_t dot = path.rfind(L'.');
    if (dot == std::wstring::npos || dot < start) dot = path.size();
    return UTILS::toUtf8(path.substr(start, dot - start));
}

}  // namespace

SonelAudioInstanceT::SonelAudioInstanceT(const wchar_t* path) {
    if (path) workingFolder_ = path;
    if (!workingFolder_.empty() && workingFolder_.back() != L'/') workingFolder_ += L'/';
}

void SonelAudioInstanceT::releaseAtExit() {
    std::lock_guard<std::mutex> lock(mutexForInputs_);
    delete instance_;
    instance_ = nullptr;
}

SonelAudioInstanceT* SonelAudioInstanceT::Instance(MODE mode, const wchar_t* path) {
    switch (mode) {
        case GET:
            if (!instance_)
                throw SonelException("TRY TO GET NULL INSTANCE,ISN'T INITIALIZED", kInstanceFile, 38,
                                     "Instance");
            return instance_;
        case INIT: {
            std::lock_guard<std::mutex> lock(mutexForInputs_);
            static const bool exitHandlerRegistered = std::atexit(releaseAtExit) == 0;
            (void)exitHandlerRegistered;
            if (!instance_) instance_ = new SonelAudioInstanceT(path);
            ++instance_->referenceCount_;
            instance_->version_ = kLibraryVersion;
            return instance_;
        }
        case DESTROY: {
            std::lock_guard<std::mutex> lock(mutexForInputs_);
            if (!instance_)
                throw SonelException("DESTROYING WITHOUT INTIALIZATION", kInstanceFile, 64,
                                     "Instance");
            if (instance_->referenceCount_-- == 1) {
                delete instance_;
                instance_ = nullptr;
            }
            return nullptr;
        }
    }
    throw SonelException("Incorrect instance access mode...", kInstanceFile, 75, "Instance");
}

bool SonelAudioInstanceT::insertModel(const std::string& name, ModelPtr model) {
    if (!models_.emplace(name, std::move(model)).second) {
        say("Warning Failed to insert model. \n");
        return false;
    }
    return true;
}

bool SonelAudioInstanceT::loadWeightInto(ModelPtr& model, const std::wstring& path) {
    model->first = readAndCheckWeight(path).first;
    return model->first != nullptr;
}

bool SonelAudioInstanceT::addWeightWithControlFile(const wchar_t* path, const char* modelName) {
    const std::string name = modelName ? modelName : "";
    if (name.empty()) {
        say("WARNING model name is empaty");
        return false;
    }
    if (models_.count(name)) {
        say("WARNING model name exists");
        return false;
    }
    // Relative paths are taken from the working folder given at init, when there is one.
    std::wstring fullPath = path;
    if (!fullPath.empty() && fullPath[0] != L'/') fullPath = workingFolder_ + fullPath;

    auto model = std::make_shared<ModelPair>();
    const std::wstring extension = extensionOf(fullPath);
    if (extension == L"cfg") {
        const std::string cfgPath = UTILS::toUtf8(fullPath);
        WEIGHTS::ControlEntries entries;
        if (!WEIGHTS::parseControlFile(cfgPath, entries)) {
            say("ERROR control file can't be opened: " + cfgPath);
            return false;
        }
        for (const auto& [key, value] : entries) {
            if (key == "CONTROLFILE") {
                say("WARNING there are CONTROLFILE parameter inside of controlFile, skipped");
            } else if (key == "WEIGHT") {
                if (model->first) {
                    say("WARNING multiple weight including, weight exists.");
                    continue;
                }
                say("WEIGHT " + value);
                const std::string weightPath =
                    value[0] == '/' ? value : WEIGHTS::folderOf(cfgPath) + value;
                loadWeightInto(model, UTILS::fromUtf8(weightPath));
            } else {
                addModelEnvironment(model, key.c_str(), value.c_str());
            }
        }
        // A model without a usable weight could never build a session: refuse it now.
        if (!model->first) return false;
    } else if (extension == L"vlw" || extension == L"sw") {
        say("WEIGHT " + UTILS::toUtf8(fullPath));
        if (!loadWeightInto(model, fullPath)) return false;
    } else {
        say("ERROR INVALID EXTENSION");
        return false;
    }
    return insertModel(name, std::move(model));
}

WeightAndKey SonelAudioInstanceT::readAndCheckWeight(const std::wstring& path) {
    const std::string key = baseNameOf(path);
    if (key.size() < 2) {
        say("ERROR WEIGHT NAME ISNT LONG ENOUGHT\n");
        return {};
    }
    if (auto cached = weightCache_.find(key); cached != weightCache_.end()) {
        ++weightUseCounts_[key];
        return {cached->second, ""};
    }
    auto weight = std::make_shared<Weight>();
    if (!weight->load(path)) {
        say("WARNING weight isn't loaded \n weigth file: " + UTILS::toUtf8(path));
        return {};
    }
    weightCache_[key] = weight;
    weightUseCounts_[key] = 1;
    return {weight, key};
}

bool SonelAudioInstanceT::addWeightBlob(const void* blob, size_t size, const char* modelName) {
    const std::string name = modelName ? modelName : "";
    if (name.empty() || models_.count(name)) {
        say("WARNING model name exists or empty, please insert different name");
        return false;
    }
    auto [weight, key] = readAndCheckWeightBlob(blob, size);
    if (key.empty() || !weight) {
        say("Warning Weight name isn't included or weight has been included before \n");
        return false;
    }
    return insertModel(name, std::make_shared<ModelPair>(weight, CONTAINERS::AnyMap{}));
}

WeightAndKey SonelAudioInstanceT::readAndCheckWeightBlob(const void* blob, size_t size) {
    auto weight = std::make_shared<Weight>();
    if (!weight->loadBlob(blob, size)) {
        say("WARNING weight isn't loaded \n");
        return {};
    }
    const std::string key = vlwUniqueIdGenerator(weight);
    if (key.size() < 2) {
        say("ERROR WEIGHT NAME ISNT LONG ENOUGHT\n");
        return {};
    }
    if (auto cached = weightCache_.find(key); cached != weightCache_.end()) {
        ++weightUseCounts_[key];
        return {cached->second, key};
    }
    weightCache_[key] = weight;
    weightUseCounts_[key] = 1;
    return {weight, key};
}

std::string SonelAudioInstanceT::vlwUniqueIdGenerator(const std::shared_ptr<Weight>& weight) {
    const auto* version = weight->find<std::string>("Version");
    const auto* rate = weight->find<unsigned>("SampleRate");
    const auto* frameLength = weight->find<unsigned>("FrameLength");
    const auto* modelName = weight->find<std::string>("ModelName");
    const auto* timeStamp = weight->find<std::string>("TimeStamp");
    if (!version || !rate || !frameLength || !modelName || !timeStamp) {
        say("ERROR INVALID WEIGHT\n");
        return "";
    }
    const unsigned rateKHz = *rate / 1000;
    const unsigned frameMs = rateKHz == 0 ? 0 : *frameLength / rateKHz;
    return *version + std::to_string(frameMs) + std::to_string(rateKHz) + *modelName + *timeStamp;
}

bool SonelAudioInstanceT::addModelEnvironment(ModelPtr& model, const char* key, const char* value) {
    say(std::string("ENVIRONMENT KEY-\"") + key + "\" VALUE-\"" + value + "\"");
    model->second.set<std::string>(key, value);
    return model->second.contains(key);
}

bool SonelAudioInstanceT::removeWeight(const char* modelName) {
    const std::string name = modelName ? modelName : "";
    if (name.empty()) {
        say("WARNING model name is empaty");
        return false;
    }
    auto entry = models_.find(name);
    if (entry == models_.end()) {
        say("WARNING model name doesn't exist");
        return false;
    }
    // The cache lets go of a weight once no registered model uses it, so a later registration
    // of an edited file reads it afresh; running sessions keep their own reference.
    for (auto cached = weightCache_.begin(); cached != weightCache_.end(); ++cached) {
        if (cached->second != entry->second->first) continue;
        if (--weightUseCounts_[cached->first] == 0) {
            weightUseCounts_.erase(cached->first);
            weightCache_.erase(cached);
        }
        break;
    }
    models_.erase(entry);
    return true;
}

bool SonelAudioInstanceT::clearAll() {
    sessions_.clear();
    models_.clear();
    weightCache_.clear();
    weightUseCounts_.clear();
    workingFolder_.clear();
    return true;
}

SonelAudioSessionT* SonelAudioInstanceT::createSession(SonelAudioSamplingRate inRate,
                                                       SonelAudioSamplingRate outRate,
                                                       SonelAudioFrameDuration duration,
                                                       const char* modelName,
                                                       SonelAudioSessionType type) {
    std::lock_guard<std::mutex> lock(mutexForInputs_);
    auto session = std::make_unique<SonelAudioSessionT>(inRate, outRate, duration, modelName, type);
    SonelAudioSessionT* handle = session.get();
    sessions_.insert(std::move(session));
    return handle;
}

SonelAudioSessionT* SonelAudioInstanceT::createNCSession(SonelAudioSamplingRate inRate,
                                                         SonelAudioSamplingRate outRate,
                                                         SonelAudioFrameDuration duration,
                                                         const char* modelName) {
    return createSession(inRate, outRate, duration, modelName, SONEL_AUDIO_SESSION_NC);
}

SonelAudioSessionT* SonelAudioInstanceT::createNCWithStatsSession(SonelAudioSamplingRate inRate,
                                                                  SonelAudioSamplingRate outRate,
                                                                  SonelAudioFrameDuration duration,
                                                                  const char* modelName) {
    return createSession(inRate, outRate, duration, modelName, SONEL_AUDIO_SESSION_NC_WITH_STATS);
}

SonelAudioSessionT* SonelAudioInstanceT::createVADSession(SonelAudioSamplingRate rate,
                                                          SonelAudioFrameDuration duration,
                                                          const char* modelName) {
    return createSession(rate, rate, duration, modelName, SONEL_AUDIO_SESSION_VAD);
}

SonelAudioSessionT* SonelAudioInstanceT::createRingtoneSession(SonelAudioSamplingRate rate,
                                                               SonelAudioFrameDuration duration,
                                                               const char* modelName) {
    return createSession(rate, rate, duration, modelName, SONEL_AUDIO_SESSION_RINGTONE);
}

SonelAudioSessionT* SonelAudioInstanceT::createNoiseDBSession(SonelAudioSamplingRate rate,
                                                              SonelAudioFrameDuration duration,
                                                              const char* modelName) {
    return createSession(rate, rate, duration, modelName, SONEL_AUDIO_SESSION_NOISE_DB);
}

bool SonelAudioInstanceT::isSessionTrue(SonelAudioSessionT* session) const {
    return sessions_.contains(session);
}

int32_t SonelAudioInstanceT::getSessionType(SonelAudioSessionT* session) const {
    return isSessionTrue(session) ? session->getType() : 0;
}

bool SonelAudioInstanceT::destroySession(SonelAudioSessionT* session) {
    std::lock_guard<std::mutex> lock(mutexForInputs_);
    if (sessions_.erase(session)) return true;
    say("WARNING SESSION ISN'T FOUND");
    return false;
}

}  // namespace SONEL::SONEL_AUDIO
