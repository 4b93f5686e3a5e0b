// sonel-eval-vad: voice detectors over raw audio in 10 ms frames, for tools/eval/vad_eval.py.
//
//   sonel-eval-vad SYSTEM RATE LIST [--model PATH]
//   sonel-eval-vad SYSTEM RATE --time FILE [--model PATH] [--passes N]
//
// LIST holds one "INPUT<TAB>OUTPUT" pair per line. INPUT is raw little-endian float32 mono at RATE
// Hz in -1 ... 1, zero-padded here to whole frames; OUTPUT gets one float32 score per frame.
// Every file gets a fresh detector.
//
// Systems:
//   sonel            the library's detector through its C interface (needs --model), a
//                    probability;
//   webrtc-vad-LIKELIHOOD
//                    the audio processing module with only voice detection switched on, at
//                    likelihood high, moderate, low or verylow (high calls the most frames speech);
//                    1 for a frame it says has voice, 0 otherwise;
//   energy           the frame's level in dB re full scale.
//
// With --time, FILE is run once to warm up and then N times more (default 5), each pass with a
// fresh detector; the line printed gives the process CPU time per frame of the quickest pass
// and of the median one, in microseconds. CPU time rather than wall-clock time, because the
// machines this runs on are shared: a busy neighbour stretches the wall clock far more than it
// stretches our own CPU time.
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sonel-audio-sdk.h"

namespace {

constexpr int kExitUsage = 2;
constexpr const char* kModelName = "vad";
const std::string kWebRtcPrefix = "webrtc-vad-";
// Keeps log10 finite on digital silence: -120 dBFS, below any 16-bit signal's level.
constexpr double kEnergyFloor = 1e-12;

class Detector {
public:
    virtual ~Detector() = default;
    // The score of one frame of frameSize samples.
    virtual float score(const float* frame) = 0;
};

class SonelDetector final : public Detector {
public:
    SonelDetector(unsigned rateHz, size_t frameSize) : frameSize_(static_cast<unsigned>(frameSize)) {
        session_ = sonelAudioVadCreateSession(static_cast<SonelAudioSamplingRate>(rateHz),
                                              SONEL_AUDIO_FRAME_10MS, kModelName);
        if (!session_) throw std::runtime_error("Sonel could not create a VAD session");
    }
    ~SonelDetector() override { sonelAudioVadCloseSession(session_); }

    float score(const float* frame) override {
        const float probability = sonelAudioVadFrameFloat(session_, frame, frameSize_);
        if (probability < 0.0f) throw std::runtime_error("Sonel's detector failed on a frame");
        return probability;
    }

private:
    void* session_ = nullptr;
    unsigned frameSize_;
};

class WebRtcDetector final : public Detector {
public:
    WebRtcDetector(unsigned rateHz, size_t frameSize, webrtc::VoiceDetection::Likelihood likelihood)
        : apm_(webrtc::AudioProcessing::Create()), config_(static_cast<int>(rateHz), 1), out_(frameSize) {
        auto* vad = apm_ ? apm_->voice_detection() : nullptr;
        if (!vad || vad->set_likelihood(likelihood) != webrtc::AudioProcessing::kNoError ||
            vad->Enable(true) != webrtc::AudioProcessing::kNoError)
            throw std::runtime_error("WebRTC could not set up its voice detection");
    }

    float score(const float* frame) override {
        float* out = out_.data();
        if (apm_->ProcessStream(&frame, config_, config_, &out) != webrtc::AudioProcessing::kNoError)
            throw std::runtime_error("WebRTC failed on a frame");
        return apm_->voice_detection()->stream_has_voice() ? 1.0f : 0.0f;
    }

private:
    std::unique_ptr<webrtc::AudioProcessing> apm_;
    webrtc::StreamConfig config_;
    std::vector<float> out_;
};

class EnergyDetector final : public Detector {
public:
    explicit EnergyDetector(size_t frameSize) : frameSize_(frameSize) {}

    float score(const float* frame) override {
        double sum = 0.0;
        for (size_t i = 0; i < frameSize_; ++i) sum += static_cast<double>(frame[i]) * frame[i];
        return static_cast<float>(10.0 * std::log10(sum / static_cast<double>(frameSize_) + kEnergyFloor));
    }

private:
    size_t frameSize_;
};

std::unique_ptr<Detector> makeDetector(const std::string& system, unsigned rateHz) {
    const size_t frameSize = rateHz / 100;
    if (system == "sonel") return std::make_unique<SonelDetector>(rateHz, frameSize);
    if (system == "energy") return std::make_unique<EnergyDetector>(frameSize);
    if (system.rfind(kWebRtcPrefix, 0) == 0) {
        // The module takes 8, 16, 32 and 48 kHz; above 16 kHz its detector sees the 0 ... 8 kHz band.
        if (rateHz != 8000 && rateHz != 16000 && rateHz != 32000 && rateHz != 48000)
            throw std::invalid_argument("WebRTC does not run at " + std::to_string(rateHz) + " Hz");
        const std::string level = system.substr(kWebRtcPrefix.size());
        using L = webrtc::VoiceDetection::Likelihood;
        if (level == "high") return std::make_unique<WebRtcDetector>(rateHz, frameSize, L::kHighLikelihood);
        if (level == "moderate")
            return std::make_unique<WebRtcDetector>(rateHz, frameSize, L::kModerateLikelihood);
        if (level == "low") return std::make_unique<WebRtcDetector>(rateHz, frameSize, L::kLowLikelihood);
        if (level == "verylow")
            return std::make_unique<WebRtcDetector>(rateHz, frameSize, L::kVeryLowLikelihood);
    }
    throw std::invalid_argument("unknown system '" + system + "'");
}

std::vector<float> readRaw(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("cannot read " + path);
    const auto bytes = static_cast<size_t>(in.tellg());
    if (bytes % sizeof(float) != 0) throw std::runtime_error(path + " is not raw float32");
    std::vector<float> samples(bytes / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(bytes));
    return samples;
}

void writeRaw(const std::string& path, const std::vector<float>& samples) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(samples.data()),
              static_cast<std::streamsize>(samples.size() * sizeof(float)));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<float> scores(Detector& detector, std::vector<float> signal, size_t frameSize) {
    const size_t frames = (signal.size() + frameSize - 1) / frameSize;
    signal.resize(frames * frameSize, 0.0f);
    std::vector<float> out(frames);
    for (size_t f = 0; f < frames; ++f) out[f] = detector.score(&signal[f * frameSize]);
    return out;
}

double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Prints "SYSTEM <min> <median> us/frame (N frames, P passes)".
void time(const std::string& system, unsigned rateHz, const std::vector<float>& signal, int passes) {
    const size_t frameSize = rateHz / 100;
    const size_t frames = signal.size() / frameSize;
    if (frames == 0) throw std::runtime_error("the timing file is shorter than one frame");
    volatile float sink = 0.0f;
    std::vector<double> perFrameUs;
    for (int pass = 0; pass <= passes; ++pass) {
        // The detector is built outside the timed loop: construction is a set-up cost.
        auto detector = makeDetector(system, rateHz);
        const double start = cpuSeconds();
        for (size_t f = 0; f < frames; ++f) sink = sink + detector->score(&signal[f * frameSize]);
        const double seconds = cpuSeconds() - start;
        if (pass > 0) perFrameUs.push_back(seconds * 1e6 / static_cast<double>(frames));
    }
    std::sort(perFrameUs.begin(), perFrameUs.end());
    std::cout << system << " " << perFrameUs.front() << " " << perFrameUs[perFrameUs.size() / 2]
              << " us/frame (" << frames << " frames, " << passes << " passes)\n";
}

int usage() {
    std::cerr << "usage: sonel-eval-vad SYSTEM RATE LIST [--model PATH]\n"
                 "       sonel-eval-vad SYSTEM RATE --time FILE [--model PATH] [--passes N]\n"
                 "  SYSTEM: sonel, webrtc-vad-high, webrtc-vad-moderate, webrtc-vad-low, "
                 "webrtc-vad-verylow, energy\n";
    return kExitUsage;
}

// Registers the model with the library's global instance for as long as it lives.
class SonelLibrary {
public:
    explicit SonelLibrary(const std::string& path) {
        if (sonelAudioGlobalInit(nullptr) != SONEL_AUDIO_OK)
            throw std::runtime_error("Sonel could not start its global instance");
        const std::wstring widePath(path.begin(), path.end());
        if (sonelAudioSetModel(widePath.c_str(), kModelName) != SONEL_AUDIO_OK) {
            sonelAudioGlobalDestroy();
            throw std::runtime_error("Sonel could not load the model " + path);
        }
    }
    ~SonelLibrary() {
        sonelAudioRemoveModel(kModelName);
        sonelAudioGlobalDestroy();
    }
    SonelLibrary(const SonelLibrary&) = delete;
    SonelLibrary& operator=(const SonelLibrary&) = delete;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> positional;
    std::string modelPath;
    std::string timeFile;
    int passes = 5;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--model" && i + 1 < argc) {
            modelPath = argv[++i];
        } else if (arg == "--time" && i + 1 < argc) {
            timeFile = argv[++i];
        } else if (arg == "--passes" && i + 1 < argc) {
            passes = std::stoi(argv[++i]);
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != (timeFile.empty() ? 3u : 2u) || passes < 1) return usage();
    const std::string& system = positional[0];
    if (system == "sonel" && modelPath.empty()) {
        std::cerr << "sonel-eval-vad: the sonel system needs --model\n";
        return kExitUsage;
    }
    try {
        const auto rate = static_cast<unsigned>(std::stoul(positional[1]));
        std::unique_ptr<SonelLibrary> sonel;
        if (system == "sonel") sonel = std::make_unique<SonelLibrary>(modelPath);
        // An unknown system or rate fails here, even with an empty list.
        makeDetector(system, rate);
        if (!timeFile.empty()) {
            time(system, rate, readRaw(timeFile), passes);
            return 0;
        }
        std::ifstream list(positional[2]);
        if (!list) throw std::runtime_error("cannot read " + positional[2]);
        std::string line;
        while (std::getline(list, line)) {
            if (line.empty()) continue;
            const auto tab = line.find('\t');
            if (tab == std::string::npos) throw std::runtime_error("no tab in list line: " + line);
            auto detector = makeDetector(system, rate);
            writeRaw(line.substr(tab + 1), scores(*detector, readRaw(line.substr(0, tab)), rate / 100));
        }
    } catch (const std::exception& error) {
        std::cerr << "sonel-eval-vad: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
