#include "noise_canceller/noise_cleaner.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>

#include "noise_canceller/noise_cleaner_v0_0_5.h"
#include "noise_canceller/noise_cleaner_v0_0_6.h"
#include "noise_canceller/noise_cleaner_v0_0_7.h"
#include "noise_canceller/noise_cleaner_with_vad_v0_0_7.h"
#include "noise_canceller/noise_db_cleaner_v0_0_1.h"
#include "noise_canceller/ringtone_cleaner_v0_0_1.h"
#include "noise_canceller/vad_cleaner_v0_0_1.h"
#include "sonel_audio_sdk/instance.h"
#include "utils/fft.h"
#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

using UTILS::SonelException;
using WEIGHTS::ModelPtr;

namespace {

const char* const kCleanerFile = "src/noise_canceller/noise_cleaner";

// Reads one integer statistics setting from the model environment; a present key is echoed so
// the host log shows which tuning a session runs with.
void readStatsKey(const CONTAINERS::AnyMap& environment, const char* key, const char* label,
                  int32_t& field) {
    if (const std::string* text = environment.find<std::string>(key)) {
        field = std::stoi(*text);
        std::cout << label << field << std::endl;
    }
}

enum class ModelKind { Cleaner, VoiceDetector, RingtoneDetector };

// Voice detectors carry "VAD" in their version; a ringtone detector shares its version with the
// cleaners of its generation and is told apart by its own version record.
ModelKind kindOf(const WEIGHTS::Weight& weight) {
    const std::string* version = weight.find<std::string>("Version");
    if (version && version->find("VAD") != std::string::npos) return ModelKind::VoiceDetector;
    const std::string* ringtone = weight.find<std::string>("RingtoneVersion");
    if (ringtone && !ringtone->empty()) return ModelKind::RingtoneDetector;
    return ModelKind::Cleaner;
}

ModelKind kindFor(SonelAudioSessionType sessionType) {
    switch (sessionType) {
        case SONEL_AUDIO_SESSION_VAD:
            return ModelKind::VoiceDetector;
        case SONEL_AUDIO_SESSION_RINGTONE:
            return ModelKind::RingtoneDetector;
        default:
            return ModelKind::Cleaner;
    }
}

std::vector<ModelPtr> modelsOfKind(const std::vector<ModelPtr>& models, ModelKind kind) {
    std::vector<ModelPtr> matching;
    for (const ModelPtr& m : models)
        if (kindOf(*m->first) == kind) matching.push_back(m);
    return matching;
}

}  // namespace

NoiseCleaner::NoiseCleaner(ModelPtr modelPair, unsigned sampleRate)
    : model(std::move(modelPair)), sampleRate_(sampleRate) {
    const CONTAINERS::AnyMap& env = model->second;
    readStatsKey(env, "sonel_env_no_noise", "### sonel_env_no_noise: ", noNoiseLevel);
    readStatsKey(env, "sonel_env_low_noise", "### sonel_env_low_noise: ", lowNoiseLevel);
    readStatsKey(env, "sonel_env_medium_noise", "### sonel_env_medium_noise: ", mediumNoiseLevel);
    readStatsKey(env, "sonel_env_talk_energy_threshold", "### sonel_env_talk_energy_threshold: ",
                 talkEnergyThreshold);
    readStatsKey(env, "sonel_env_silent_frame_count_considered_talk",
                 "### sonel_env_silent_frame_count_considered_talk: ", silentFrameCountConsideredTalk);
    readStatsKey(env, "sonel_env_stats_accumulation_count",
                 "### sonel_env_stats_accumulation_count : ", statsAccumulationCount);
    // Every class exists from the start, so the per-frame statistics never insert into the map.
    for (uint32_t level = 0; level < 4; ++level) noiseTimeByLevel[level] = 0;
}

NoiseCleaner::~NoiseCleaner() = default;

std::string NoiseCleaner::getVersion() const { return WEIGHTS::getWeightVersion(*model->first); }

std::shared_ptr<UTILS::FFT> NoiseCleaner::getFftPtr(size_t n) {
    if (fft && fftSize == n) return fft;
    fft = UTILS::FFT::create(n);
    fftSize = n;
    return fft;
}

void NoiseCleaner::predictBandwidth(std::vector<float>& frame, SonelAudioFrameDuration durationMs,
                                    bandWidthInfo_t* info) {
    info->bandwidthClass = 0;
    const int32_t duration = static_cast<int32_t>(durationMs);
    if (duration <= 0) return;
    const size_t rate = frame.size() * 1000 / static_cast<size_t>(duration);
    const size_t bands = std::min<size_t>(rate / 8000, 4);

    bandwidthElapsedMs += duration;
    if (bandwidthElapsedMs <= info->startDelayMs) return;

    // 44.1 and 88.2 kHz frames have an odd sample count; the real transform needs an even one.
    size_t length = frame.size();
    if (rate == 88200) length -= 2;
    if (rate == 44100) length -= 1;
    bandwidthFrame_.assign(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
    const std::shared_ptr<UTILS::FFT> transform = getFftPtr(length);
    if (!transform) {
        std::cout << "ERROR: Failed to create FFT object" << std::endl;
        return;
    }
    const size_t bins = length / 2 + 1;
    bandwidthSpectrum_.resize(bins);
    transform->forward(bandwidthFrame_.data(), bandwidthSpectrum_.data());

    double power[4] = {0.0, 0.0, 0.0, 0.0};
    const size_t perBand = bands ? (bins - 1) / bands : 0;
    for (size_t b = 0; b < bands && perBand > 0; ++b) {
        double sum = 0.0;
        for (size_t k = 1 + b * perBand; k <= (b + 1) * perBand; ++k) {
            const float magnitude = std::hypot(bandwidthSpectrum_[k].real(), bandwidthSpectrum_[k].imag());
            sum += static_cast<double>(magnitude) * magnitude;
        }
        power[b] = sum / static_cast<double>(perBand);
    }
    const double figures[kBandFigures] = {power[0], power[1], power[2], power[3],
                                          power[0] + power[1], power[2] + power[3],
                                          power[0] + power[1] + power[2] + power[3]};
    const double floor = static_cast<double>(1e-6f);
    for (int i = 0; i < kBandFigures; ++i)
        bandwidthAccumulator[i] += static_cast<float>(10.0 * std::log(figures[i] + floor));

    const int32_t elapsed = bandwidthElapsedMs - info->startDelayMs;
    if (elapsed < info->averagingPeriodMs) return;
    const float frames = static_cast<float>(elapsed / duration);
    for (float& a : bandwidthAccumulator) a /= frames;
    const auto& a = bandwidthAccumulator;
    info->bandwidthClass = a[4] - a[5] < 70.0f ? 3 : a[0] - a[1] < 68.0f ? 2 : 1;
    bandwidthElapsedMs = 0;
    std::fill(bandwidthAccumulator.begin(), bandwidthAccumulator.end(), 0.0f);
}

void NoiseCleaner::voiceStatsUpdate(double energy, unsigned long frameDurationMs) {
    voiceSum_ += std::isfinite(energy) ? energy : 0.0;  // as in noiseStatsUpdate
    ++voiceFrames_;
    if (statsAccumulationCount <= 0 || voiceFrames_ % statsAccumulationCount != 0) return;
    const auto average = static_cast<int64_t>(voiceSum_ / statsAccumulationCount);
    voiceSum_ = 0.0;
    const auto blockMs = static_cast<uint32_t>(statsAccumulationCount * frameDurationMs);
    if (average >= talkEnergyThreshold) {
        silentRun = 0;
        talkTime += blockMs;
    } else if (silentRun < static_cast<uint64_t>(std::max(silentFrameCountConsideredTalk, 0))) {
        // A short pause inside speech still counts as talk.
        ++silentRun;
        talkTime += blockMs;
    }
}

void NoiseCleaner::noiseStatsUpdate(double level, unsigned long frameDurationMs) {
    // The averages are converted to integers; a level that is not a number counts as 0.
    noiseSum_ += std::isfinite(level) ? level : 0.0;
    ++noiseFrames_;
    if (statsAccumulationCount <= 0 || noiseFrames_ % statsAccumulationCount != 0) return;
    const auto average = static_cast<int64_t>(noiseSum_ / statsAccumulationCount);
    noiseSum_ = 0.0;
    const uint32_t level_class = average <= noNoiseLevel       ? 0
                                 : average <= lowNoiseLevel    ? 1
                                 : average <= mediumNoiseLevel ? 2
                                                               : 3;
    noiseTimeByLevel[level_class] += static_cast<uint32_t>(statsAccumulationCount * frameDurationMs);
}

double NoiseCleaner::ringtoneProbability(const float* samples, size_t count) {
    if (!ringtoneModel_) return -1.0;
    if (!ringtone_) {
        try {
            ringtone_ = std::make_unique<RingtoneCleaner_v0_0_1>(ringtoneModel_, sampleRate_);
        } catch (const std::exception& e) {
            std::cerr << "WARNING ringtone detector not built, frames are not evaluated: " << e.what()
                      << std::endl;
            ringtoneModel_.reset();
            return -1.0;
        }
    }
    return ringtone_->detect(samples, count);
}

void NoiseCleaner::getNcStats(NoiseVoiceStats* out) {
    for (uint32_t level = 0; level < 4; ++level)
        out->noiseTimeByLevel[level] = noiseTimeByLevel[level];
    out->talkTime = talkTime;
}

ModelPtr NoiseCleaner::selectModel(const std::vector<ModelPtr>& models, SonelAudioSamplingRate rate,
                                   SonelAudioSessionType sessionType) {
    ModelPtr best;
    ModelPtr lastCandidate;
    uint64_t bestDifference = std::numeric_limits<uint64_t>::max();
    const bool wantDetector = sessionType == SONEL_AUDIO_SESSION_VAD;
    for (const ModelPtr& candidate : models) {
        const bool isDetector =
            WEIGHTS::getWeightVersion(*candidate->first).find("VAD") != std::string::npos;
        if (isDetector != wantDetector) continue;
        lastCandidate = candidate;
        const unsigned modelRate = WEIGHTS::getWeightInfo(*candidate->first).first;
        if (modelRate > static_cast<unsigned>(rate)) continue;
        const uint64_t difference = static_cast<unsigned>(rate) - modelRate;
        if (difference < bestDifference) {
            bestDifference = difference;
            best = candidate;
        }
        if (difference == 0) break;
    }
    return best ? best : lastCandidate;
}

std::shared_ptr<NoiseCleaner> NoiseCleaner::create(SonelAudioSamplingRate rate,
                                                   SonelAudioFrameDuration duration,
                                                   const char* name,
                                                   SonelAudioSessionType sessionType) {
    auto* instance = SONEL_AUDIO::SonelAudioInstanceT::Instance(SONEL_AUDIO::GET);
    std::vector<ModelPtr> models;
    for (const auto& entry : instance->models()) models.push_back(entry.second);

    // The name must be registered; the model itself is the registry's best fit for the rate, so
    // a host that registers one model per rate gets the right one for every stream.
    if (name && !instance->models().count(name))
        throw SonelException("Weight with this name isn't found", kCleanerFile, __LINE__, "create");
    // Only models of the session's kind compete, so a ringtone session beside a 16 kHz cleaner
    // gets the detector and an 8 kHz cleaning session never gets a detector. With none of that
    // kind registered all of them do, and a wrong one is refused below by its version.
    std::vector<ModelPtr> ofKind = modelsOfKind(models, kindFor(sessionType));
    // The noise-level estimator runs a 0.0.5 cleaner: beside a newer cleaner of the same rate (the
    // default beside the model kept for noise levels), a noise-level session takes the 0.0.5 one.
    if (sessionType == SONEL_AUDIO_SESSION_NOISE_DB) {
        std::vector<ModelPtr> estimators;
        for (const ModelPtr& m : ofKind)
            if (WEIGHTS::getWeightVersion(*m->first) == "0.0.5") estimators.push_back(m);
        if (!estimators.empty()) ofKind = std::move(estimators);
    }
    const ModelPtr chosen = selectModel(ofKind.empty() ? models : ofKind, rate, sessionType);
    if (!chosen) throw SonelException("Weight not found ", kCleanerFile, __LINE__, "create");

    const std::string version = WEIGHTS::getWeightVersion(*chosen->first);
    const unsigned modelRate = WEIGHTS::getWeightInfo(*chosen->first).first;
    const bool cleaning =
        sessionType == SONEL_AUDIO_SESSION_NC || sessionType == SONEL_AUDIO_SESSION_NC_WITH_STATS;
    // A "0.0.6" file is a cleaner unless it carries the ringtone detector's version record; a
    // "0.0.7" file with a non-empty "VadVersion" carries its own voice detector, which gates the
    // cleaner hop by hop and is built for the session's frame duration.
    const bool cleaner06 = version == "0.0.6" && kindOf(*chosen->first) == ModelKind::Cleaner;
    const std::string* vadVersion = chosen->first->find<std::string>("VadVersion");
    const bool gated07 = version == "0.0.7" && vadVersion && !vadVersion->empty();
    const bool cleaner07 = version == "0.0.7" && !gated07;
    if (cleaning && (gated07 || cleaner07 || cleaner06 || version == "0.0.5")) {
        std::shared_ptr<NoiseCleaner> cleaner;
        if (gated07)
            cleaner = std::make_shared<NoiseCleanerWithVad_v0_0_7>(chosen, static_cast<unsigned long>(duration));
        else if (cleaner07)
            cleaner = std::make_shared<NoiseCleaner_v0_0_7>(chosen, modelRate);
        else if (cleaner06)
            cleaner = std::make_shared<NoiseCleaner_v0_0_6>(chosen, modelRate);
        else
            cleaner = std::make_shared<NoiseCleaner_v0_0_5>(chosen, modelRate);
        // The detector for the cleaning session's ringtone flag is picked now, by the rule a
        // ringtone session at the cleaner's rate follows. A detector file the registry cannot
        // place leaves the flag without effect rather than refusing the cleaning session.
        const std::vector<ModelPtr> detectors = modelsOfKind(models, ModelKind::RingtoneDetector);
        if (!detectors.empty()) {
            try {
                cleaner->setRingtoneModel(
                    selectModel(detectors, static_cast<SonelAudioSamplingRate>(modelRate),
                                SONEL_AUDIO_SESSION_RINGTONE));
            } catch (const SonelException& e) {
                std::cerr << "WARNING no ringtone detector for this session: " << e.what() << std::endl;
            }
        }
        return cleaner;
    }
    if (sessionType == SONEL_AUDIO_SESSION_VAD && version == "VAD_0.0.1")
        return std::make_shared<VadCleaner_v0_0_1>(chosen, modelRate);
    // A ringtone detector works at the session's own rate: its features do not depend on it.
    if (sessionType == SONEL_AUDIO_SESSION_RINGTONE && version == "0.0.6" &&
        kindOf(*chosen->first) == ModelKind::RingtoneDetector)
        return std::make_shared<RingtoneCleaner_v0_0_1>(chosen, static_cast<unsigned>(rate));
    if (sessionType == SONEL_AUDIO_SESSION_NOISE_DB && version == "0.0.5")
        return std::make_shared<NoiseDBCleaner_v0_0_1>(chosen, modelRate);
    throw SonelException("Unsupported weight version", kCleanerFile, __LINE__, "create");
}

}  // namespace SONEL::NOISE_CANCELLER
