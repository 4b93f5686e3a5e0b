// Every trained cleaner in models/ (the shipped ones and the candidates in models/generations)
// loads through the C interface, builds the class its file names and removes noise from a noisy
// mixture the test builds: held-out speech and noise from the corpus when it is beside the
// checkout, else a harmonic voice-like signal in white noise.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "noise_canceller/noise_cleaner_v0_0_5.h"
#include "noise_canceller/noise_cleaner_v0_0_6.h"
#include "noise_canceller/noise_cleaner_v0_0_7.h"
#include "noise_canceller/noise_cleaner_with_vad_v0_0_7.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"

using namespace sonel_test;

namespace {

constexpr int kRate = 48000;

std::vector<float> readMono(const std::filesystem::path& path, int rate) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f || info.samplerate != rate) {
        if (f) sf_close(f);
        return {};
    }
    std::vector<float> all(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, all.data(), info.frames);
    sf_close(f);
    std::vector<float> mono(static_cast<size_t>(info.frames));
    for (size_t i = 0; i < mono.size(); ++i) mono[i] = all[i * info.channels];
    return mono;
}

// Speech-like: a 150 Hz harmonic series with a syllable-rate envelope and pauses.
std::vector<float> voiceLike(size_t n) {
    std::vector<float> x(n);
    for (size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double envelope = std::max(0.0, std::sin(2 * M_PI * 2.5 * t));
        double v = 0;
        for (int h = 1; h <= 20; ++h) v += std::sin(2 * M_PI * 150.0 * h * t) / h;
        x[i] = static_cast<float>(0.05 * envelope * v);
    }
    return x;
}

double power(const std::vector<float>& x, size_t from, size_t to) {
    double p = 0;
    for (size_t i = from; i < to; ++i) p += static_cast<double>(x[i]) * x[i];
    return p / static_cast<double>(to - from);
}

// Scale-invariant signal-to-distortion ratio of `estimate` against `reference`, in dB.
double siSdr(const std::vector<float>& reference, const std::vector<float>& estimate) {
    double dot = 0, energy = 0;
    for (size_t i = 0; i < reference.size(); ++i) dot += reference[i] * estimate[i], energy += reference[i] * reference[i];
    const double alpha = dot / energy;
    double target = 0, error = 0;
    for (size_t i = 0; i < reference.size(); ++i) {
        const double t = alpha * reference[i];
        target += t * t;
        error += (estimate[i] - t) * (estimate[i] - t);
    }
    return 10 * std::log10(target / error);
}

template <typename Cleaner>
bool isA(SONEL::NOISE_CANCELLER::NoiseCleaner& cleaner) {
    return dynamic_cast<Cleaner*>(&cleaner) != nullptr;
}

}  // namespace

TEST(ShippedModels, EveryModelRemovesNoiseFromANoisyMixture) {
    const std::filesystem::path models = SONEL_SOURCE_DIR "/models";
    const std::filesystem::path holdout = SONEL_TEST_DATA_DIR "/holdout";
    std::vector<float> speech = readMono(holdout / "speech/ravdess_actor15_03-01-01-01-01-01-15.flac", kRate);
    std::vector<float> noise;
    if (speech.empty()) {
        std::cout << "corpus not found at " << holdout << ": using a synthetic voice in white noise\n";
        speech = voiceLike(3 * kRate);
    }
    std::mt19937 rng(5);
    std::normal_distribution<float> white(0.0f, 1.0f);
    noise.resize(speech.size());
    for (float& v : noise) v = white(rng);
    // 0 dB SNR over the whole file, then one second of noise alone in front.
    const double gain = std::sqrt(power(speech, 0, speech.size()) / power(noise, 0, noise.size()));
    const size_t lead = kRate;
    std::vector<float> clean(lead, 0.0f), noisy(lead);
    clean.insert(clean.end(), speech.begin(), speech.end());
    for (size_t i = 0; i < lead; ++i) noisy[i] = static_cast<float>(gain * noise[(i * 7) % noise.size()]);
    for (size_t i = 0; i < speech.size(); ++i) noisy.push_back(speech[i] + static_cast<float>(gain * noise[i]));

    // The cleaners (the detectors beside them clean nothing) and the class each file builds.
    using namespace SONEL::NOISE_CANCELLER;
    const std::map<std::string, bool (*)(NoiseCleaner&)> classOf = {
        {"sonel-nc-16k.sw", isA<NoiseCleaner_v0_0_5>},
        {"sonel-nc-32k.sw", isA<NoiseCleaner_v0_0_7>},
        {"sonel-noise-level.sw", isA<NoiseCleaner_v0_0_5>},
        {"sonel-nc-32k-v0.0.6.vlw", isA<NoiseCleaner_v0_0_6>},
        {"sonel-nc-32k-v0.0.7-gated.vlw", isA<NoiseCleanerWithVad_v0_0_7>},
    };
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(models)) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() == ".sw" && (name.rfind("sonel-nc-", 0) == 0 || name == "sonel-noise-level.sw"))
            files.push_back(entry.path());
    }
    for (const auto& entry : std::filesystem::directory_iterator(models / "generations")) files.push_back(entry.path());

    size_t tested = 0;
    for (const auto& path : files) {
        const std::string name = path.filename().string();
        SCOPED_TRACE(name);
        ++tested;
        GlobalInstance global;
        registerModelFile(path.string(), "shipped");
        void* handle = sonelAudioNcCreateSession(SONEL_AUDIO_RATE_48000, SONEL_AUDIO_RATE_48000,
                                                 SONEL_AUDIO_FRAME_10MS, "shipped");
        ASSERT_NE(handle, nullptr);
        auto& cleaner = static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(handle)->cleaner();
        ASSERT_TRUE(classOf.count(name)) << "a trained cleaner with no class listed here";
        EXPECT_TRUE(classOf.at(name)(cleaner));
        const unsigned frame = kRate / 100;
        std::vector<float> out(noisy.size() + 4 * frame), padded = noisy;
        padded.resize(out.size(), 0.0f);
        for (size_t pos = 0; pos + frame <= padded.size(); pos += frame)
            ASSERT_EQ(sonelAudioNcCleanAmbientNoiseFloat(handle, padded.data() + pos, frame, out.data() + pos, frame),
                      SONEL_AUDIO_OK);
        const auto delay = static_cast<size_t>(
            std::lround(static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(handle)->latencySamples()));
        const std::vector<float> aligned(out.begin() + delay, out.begin() + delay + noisy.size());

        // Noise alone: at least 10 dB quieter after the first 200 ms of adaptation.
        const size_t settle = kRate / 5;
        EXPECT_GT(10 * std::log10(power(noisy, settle, lead) / power(aligned, settle, lead)), 10.0);
        // Speech in noise: clearly closer to the clean speech than the input was.
        const std::vector<float> speechPart(clean.begin() + lead, clean.end());
        const std::vector<float> noisyPart(noisy.begin() + lead, noisy.end());
        const std::vector<float> cleanedPart(aligned.begin() + lead, aligned.end());
        EXPECT_GT(siSdr(speechPart, cleanedPart) - siSdr(speechPart, noisyPart), 3.0);
        EXPECT_EQ(sonelAudioNcCloseSession(handle), SONEL_AUDIO_OK);
    }
    EXPECT_GT(tested, 0u) << "no model in " << models;
}
