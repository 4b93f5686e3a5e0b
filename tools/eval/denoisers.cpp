#include "denoisers.h"

#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "sonel-audio-sdk.h"

namespace sonel_eval {

namespace {

const std::string kModelNamePrefix = "model-";

bool supportedRate(unsigned rateHz) {
    return rateHz == 8000 || rateHz == 16000 || rateHz == 32000 || rateHz == 48000;
}

class SonelDenoiser final : public Denoiser {
public:
    SonelDenoiser(unsigned rateHz, const std::string& modelName) : Denoiser(rateHz) {
        const auto rate = static_cast<SonelAudioSamplingRate>(rateHz);
        session_ = sonelAudioNcCreateSession(rate, rate, SONEL_AUDIO_FRAME_10MS, modelName.c_str());
        if (!session_) throw std::runtime_error("Sonel could not create a session");
    }
    ~SonelDenoiser() override { sonelAudioNcCloseSession(session_); }

    void process(const float* in, float* out) override {
        const auto n = static_cast<unsigned>(frameSize());
        if (sonelAudioNcCleanAmbientNoiseFloat(session_, in, n, out, n) != SONEL_AUDIO_OK)
            throw std::runtime_error("Sonel failed on a frame");
    }

private:
    void* session_ = nullptr;
};

// SpeexDSP's preprocessor works on 16-bit samples only; the conversion costs it nothing that
// matters at the levels the test sets use (-35 dBFS speech is still 60 dB above the LSB).
class SpeexDenoiser final : public Denoiser {
public:
    SpeexDenoiser(unsigned rateHz, int suppressDb)
        : Denoiser(rateHz),
          state_(speex_preprocess_state_init(static_cast<int>(frameSize()), static_cast<int>(rateHz))),
          pcm_(frameSize()) {
        if (!state_) throw std::runtime_error("SpeexDSP could not create a preprocessor");
        // Gain control, voice detection and dereverberation start switched off.
        int on = 1;
        speex_preprocess_ctl(state_, SPEEX_PREPROCESS_SET_DENOISE, &on);
        speex_preprocess_ctl(state_, SPEEX_PREPROCESS_SET_NOISE_SUPPRESS, &suppressDb);
    }
    ~SpeexDenoiser() override { speex_preprocess_state_destroy(state_); }

    void process(const float* in, float* out) override {
        for (size_t i = 0; i < pcm_.size(); ++i)
            pcm_[i] = static_cast<spx_int16_t>(std::lrint(std::clamp(in[i] * 32768.0f, -32768.0f, 32767.0f)));
        speex_preprocess_run(state_, pcm_.data());
        for (size_t i = 0; i < pcm_.size(); ++i) out[i] = pcm_[i] / 32768.0f;
    }

private:
    SpeexPreprocessState* state_;
    std::vector<spx_int16_t> pcm_;
};

// The audio processing module with only its noise suppressor switched on (every other component
// starts disabled), fed through the float interface.
class WebRtcDenoiser final : public Denoiser {
public:
    WebRtcDenoiser(unsigned rateHz, webrtc::NoiseSuppression::Level level)
        : Denoiser(rateHz), apm_(webrtc::AudioProcessing::Create()), config_(static_cast<int>(rateHz), 1) {
        if (!apm_ || apm_->noise_suppression()->set_level(level) != webrtc::AudioProcessing::kNoError ||
            apm_->noise_suppression()->Enable(true) != webrtc::AudioProcessing::kNoError)
            throw std::runtime_error("WebRTC could not set up its noise suppressor");
    }

    void process(const float* in, float* out) override {
        if (apm_->ProcessStream(&in, config_, config_, &out) != webrtc::AudioProcessing::kNoError)
            throw std::runtime_error("WebRTC failed on a frame");
    }

private:
    std::unique_ptr<webrtc::AudioProcessing> apm_;
    webrtc::StreamConfig config_;
};

}  // namespace

SonelLibrary::SonelLibrary(const std::vector<std::string>& modelPaths) {
    if (modelPaths.empty()) throw std::invalid_argument("Sonel needs at least one model");
    if (sonelAudioGlobalInit(nullptr) != SONEL_AUDIO_OK)
        throw std::runtime_error("Sonel could not start its global instance");
    // Each file under its own name; a session asks for the first and gets the registry's best fit
    // for its rate, as a host shipping one model per rate would.
    for (size_t i = 0; i < modelPaths.size(); ++i) {
        const std::wstring widePath(modelPaths[i].begin(), modelPaths[i].end());
        names_.push_back(kModelNamePrefix + std::to_string(i));
        if (sonelAudioSetModel(widePath.c_str(), names_.back().c_str()) != SONEL_AUDIO_OK) {
            names_.pop_back();
            release();
            throw std::runtime_error("Sonel could not load the model " + modelPaths[i]);
        }
    }
}

SonelLibrary::~SonelLibrary() { release(); }

void SonelLibrary::release() {
    for (const auto& name : names_) sonelAudioRemoveModel(name.c_str());
    sonelAudioGlobalDestroy();
}

std::unique_ptr<Denoiser> SonelLibrary::session(unsigned rateHz) const {
    return std::make_unique<SonelDenoiser>(rateHz, names_.front());
}

const std::vector<std::string>& peerSystems() {
    static const std::vector<std::string> names = {"speexdsp-15", "speexdsp-30", "webrtc-high",
                                                   "webrtc-veryhigh"};
    return names;
}

std::unique_ptr<Denoiser> makeDenoiser(const std::string& system, unsigned rateHz,
                                       const SonelLibrary* sonel) {
    if (!supportedRate(rateHz))
        throw std::invalid_argument("unsupported rate " + std::to_string(rateHz) + " Hz");
    if (system == kSonelSystem && sonel) return sonel->session(rateHz);
    if (system == "speexdsp-15") return std::make_unique<SpeexDenoiser>(rateHz, -15);
    if (system == "speexdsp-30") return std::make_unique<SpeexDenoiser>(rateHz, -30);
    if (system == "webrtc-high")
        return std::make_unique<WebRtcDenoiser>(rateHz, webrtc::NoiseSuppression::kHigh);
    if (system == "webrtc-veryhigh")
        return std::make_unique<WebRtcDenoiser>(rateHz, webrtc::NoiseSuppression::kVeryHigh);
    throw std::invalid_argument("unknown system '" + system + "'");
}

}  // namespace sonel_eval
