// The noise-level estimator through noise-level sessions: its dBFS scale on a model that removes
// everything, the shipped 16 kHz cleaner on stationary noise, under speech and across a level
// step, silence and reset, its return codes and its real-time discipline.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "noise_canceller/noise_db_cleaner_v0_0_1.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using SONEL::NOISE_CANCELLER::NoiseDBCleaner_v0_0_1;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

constexpr float kFloor = NoiseDBCleaner_v0_0_1::kFloorDbfs;

SonelAudioSamplingRate rate(unsigned hz) { return static_cast<SonelAudioSamplingRate>(hz); }

void registerFile(const std::string& path, const char* name) {
    CaptureStdout();
    ASSERT_EQ(sonelAudioSetModel(wide(path).c_str(), name), SONEL_AUDIO_OK);
    GetCapturedStdout();
}

void registerModel(const ScratchDir& dir, const SONEL::WEIGHTS::WeightWriter& writer, const char* name) {
    const std::string path = dir.file(std::string(name) + ".vlw");
    ASSERT_TRUE(writer.writeFile(path));
    registerFile(path, name);
}

// A v0.0.5 model whose mask is 0 everywhere: it removes the whole input, so the level it reports
// is that of the input itself.
CleanerModelSpec removesEverything(unsigned modelRate) {
    CleanerModelSpec spec;
    spec.rate = modelRate;
    spec.outputBias = -30.0f;
    return spec;
}

double dbfs(double meanSquare) { return 10.0 * std::log10(meanSquare); }

double meanSquare(const std::vector<float>& x, size_t from, size_t to) {
    double sum = 0.0;
    for (size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
    return sum / static_cast<double>(to - from);
}

// Stationary noise below 2 kHz (white noise through two one-pole low-passes at 1 kHz, well
// inside a 16 kHz model's band at any host rate), scaled to `level` dBFS over its length.
std::vector<float> rumble(size_t n, unsigned hz, double level, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    const double a = std::exp(-2.0 * M_PI * 1000.0 / hz);
    std::vector<float> x(n);
    double y1 = 0.0, y2 = 0.0;
    for (size_t i = 0; i < n + hz / 10; ++i) {  // 100 ms run-in for the filters
        y1 = a * y1 + (1.0 - a) * normal(rng);
        y2 = a * y2 + (1.0 - a) * y1;
        if (i >= hz / 10) x[i - hz / 10] = static_cast<float>(y2);
    }
    const double gain = std::pow(10.0, level / 20.0) / std::sqrt(meanSquare(x, 0, n));
    for (float& v : x) v = static_cast<float>(v * gain);
    return x;
}

// The level after each 10 ms frame of `x`, through the float path.
std::vector<float> levels(void* session, const std::vector<float>& x, unsigned hz) {
    const size_t frame = hz / 100;
    std::vector<float> out;
    for (size_t pos = 0; pos + frame <= x.size(); pos += frame)
        out.push_back(sonelAudioNoiseDbFrameFloat(session, x.data() + pos, static_cast<unsigned>(frame)));
    return out;
}

float lowest(const std::vector<float>& v, size_t from, size_t to) {
    return *std::min_element(v.begin() + static_cast<long>(from), v.begin() + static_cast<long>(to));
}
float highest(const std::vector<float>& v, size_t from, size_t to) {
    return *std::max_element(v.begin() + static_cast<long>(from), v.begin() + static_cast<long>(to));
}

const std::string kShippedModel = SONEL_SOURCE_DIR "/models/sonel-nc-16k.vlw";

std::vector<float> readMono48k(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) return {};
    std::vector<float> all(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, all.data(), info.frames);
    sf_close(f);
    if (info.samplerate != 48000) return {};
    std::vector<float> mono(static_cast<size_t>(info.frames));
    for (size_t i = 0; i < mono.size(); ++i) mono[i] = all[i * static_cast<size_t>(info.channels)];
    return mono;
}

}  // namespace

TEST(NoiseLevel, ScaleIsDbfsOfWhatTheCleanerRemovesInAnyFrameSize) {
    // 0 dBFS is a full-scale square wave, so a sine of amplitude A reads 20 log10(A) − 3.01 dB.
    // Frames of 15 ms and 40 ms at the model's own rate are measured in whole 10 ms hops.
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir, cleanerModel(removesEverything(16000)), "all");
    for (const auto duration : {SONEL_AUDIO_FRAME_10MS, static_cast<SonelAudioFrameDuration>(15),
                                static_cast<SonelAudioFrameDuration>(40)}) {
        SCOPED_TRACE(static_cast<int>(duration));
        void* session = sonelAudioNoiseDbCreateSession(rate(16000), duration, "all");
        ASSERT_NE(session, nullptr);
        const size_t frame = 16 * static_cast<size_t>(duration);
        std::vector<float> level;
        for (int f = 0; f < 3000 / static_cast<int>(duration); ++f) {
            std::vector<float> x(frame);
            for (size_t i = 0; i < frame; ++i)
                x[i] = 0.1f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * (f * frame + i) / 16000.0));
            level.push_back(sonelAudioNoiseDbFrameFloat(session, x.data(), static_cast<unsigned>(frame)));
        }
        EXPECT_NEAR(level.back(), -20.0 - 10.0 * std::log10(2.0), 0.01);
        EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
    }
}

TEST(NoiseLevel, StationaryNoiseIsReadWithinOneAndAHalfDecibelsAndSteadyAtBothHostRates) {
    GlobalInstance global;
    registerFile(kShippedModel, "nc16");
    for (unsigned hz : {16000u, 48000u}) {
        for (double level : {-50.0, -30.0}) {
            SCOPED_TRACE(std::to_string(hz) + " Hz, " + std::to_string(level) + " dBFS");
            void* session = sonelAudioNoiseDbCreateSession(rate(hz), SONEL_AUDIO_FRAME_10MS, "nc16");
            ASSERT_NE(session, nullptr);
            EXPECT_NE(dynamic_cast<NoiseDBCleaner_v0_0_1*>(
                          &static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(session)->cleaner()),
                      nullptr);
            const std::vector<float> level5s = levels(session, rumble(5 * hz, hz, level, hz), hz);
            // After one second of settling: every frame within 1.5 dB of the truth, and the
            // figure moving less than 1 dB in all.
            EXPECT_GT(lowest(level5s, 100, 500), level - 1.5);
            EXPECT_LT(highest(level5s, 100, 500), level + 1.5);
            EXPECT_LT(highest(level5s, 100, 500) - lowest(level5s, 100, 500), 1.0);
            EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
        }
    }
}

TEST(NoiseLevel, SpeechOverTheSameNoiseMovesTheLevelLittle) {
    constexpr unsigned hz = 48000;
    std::vector<float> speech = readMono48k(SONEL_TEST_DATA_DIR
                                            "/holdout/speech/ravdess_actor15_03-01-01-01-01-01-15.flac");
    if (speech.empty()) GTEST_SKIP() << "the held-out speech corpus is not beside the checkout";
    GlobalInstance global;
    registerFile(kShippedModel, "nc16");
    void* session = sonelAudioNoiseDbCreateSession(rate(hz), SONEL_AUDIO_FRAME_10MS, "nc16");
    ASSERT_NE(session, nullptr);
    // Two seconds of noise at −45 dBFS, then the utterance over the same noise with its loudest
    // 100 ms 20 dB above it.
    const double noiseDb = -45.0;
    const size_t lead = 2 * hz;
    std::vector<float> x = rumble(lead + speech.size(), hz, noiseDb, 3);
    double loudest = 0.0;
    for (size_t i = 0; i + hz / 10 <= speech.size(); i += hz / 10)
        loudest = std::max(loudest, meanSquare(speech, i, i + hz / 10));
    const auto gain = static_cast<float>(std::pow(10.0, (noiseDb + 20.0) / 20.0) / std::sqrt(loudest));
    for (size_t i = 0; i < speech.size(); ++i) x[lead + i] += gain * speech[i];
    const std::vector<float> reported = levels(session, x, hz);

    // Through the whole utterance the level stays within 3 dB of where the noise alone put it.
    // (Were every block weighed alike, what the cleaner removes under the voice would pull it
    // 7 dB down.)
    const size_t start = lead / (hz / 100);
    const float before = reported[start - 1];
    EXPECT_NEAR(before, noiseDb, 1.5);
    EXPECT_GT(lowest(reported, start, reported.size()), before - 3.0);
    EXPECT_LT(highest(reported, start, reported.size()), before + 3.0);
    EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
}

TEST(NoiseLevel, TwentyDecibelStepsAreFollowedWithinASecond) {
    // Up and down, through the shipped cleaner and through the model that removes everything
    // (where nothing but the smoothing shapes the response).
    ScratchDir dir;
    GlobalInstance global;
    registerFile(kShippedModel, "nc16");
    registerModel(dir, cleanerModel(removesEverything(24000)), "all");  // the better fit at 24 kHz
    struct Case {
        const char* model;
        unsigned hz;
    };
    for (const Case& c : {Case{"nc16", 16000}, Case{"all", 24000}}) {
        for (const auto& [from, to] : {std::pair{-50.0, -30.0}, std::pair{-30.0, -50.0}}) {
            SCOPED_TRACE(std::string(c.model) + ": " + std::to_string(from) + " to " + std::to_string(to));
            void* session = sonelAudioNoiseDbCreateSession(rate(c.hz), SONEL_AUDIO_FRAME_10MS, c.model);
            ASSERT_NE(session, nullptr);
            std::vector<float> x = rumble(3 * c.hz, c.hz, from, 11);
            const std::vector<float> after = rumble(3 * c.hz, c.hz, to, 12);
            x.insert(x.end(), after.begin(), after.end());
            const std::vector<float> level = levels(session, x, c.hz);
            // Steady, not jumping: 100 ms after the step it has not gone half way.
            EXPECT_LT(std::abs(level[310] - from), 10.0);
            // Within 2 dB of the new level one second after the step, and staying there.
            EXPECT_GT(lowest(level, 400, 600), to - 2.0);
            EXPECT_LT(highest(level, 400, 600), to + 2.0);
            EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
        }
    }
}

TEST(NoiseLevel, SilenceGivesTheFloorNonFiniteInputIsSilenceAndResetStartsOver) {
    GlobalInstance global;
    registerFile(kShippedModel, "nc16");
    constexpr unsigned hz = 48000;
    void* session = sonelAudioNoiseDbCreateSession(rate(hz), SONEL_AUDIO_FRAME_10MS, "nc16");
    ASSERT_NE(session, nullptr);
    const std::vector<float> silence(2 * hz, 0.0f);
    for (float level : levels(session, silence, hz)) EXPECT_EQ(level, kFloor);

    // Noise, then frames of NaN and infinities: they read as silence and leave the cleaner
    // working, so the noise that follows is read as before.
    const std::vector<float> noise = rumble(2 * hz, hz, -40.0, 5);
    const std::vector<float> first = levels(session, noise, hz);
    std::vector<float> broken(hz, NAN);
    for (size_t i = 0; i < broken.size(); i += 3) broken[i] = i % 2 ? INFINITY : -INFINITY;
    const std::vector<float> through = levels(session, broken, hz);
    EXPECT_LT(through.back(), -80.0f);
    const std::vector<float> again = levels(session, noise, hz);
    EXPECT_NEAR(again.back(), first.back(), 0.5);

    // Four seconds of digital silence bring any level to the floor (within 0.1 dB).
    const std::vector<float> quiet = levels(session, std::vector<float>(4 * hz, 0.0f), hz);
    EXPECT_NEAR(quiet.back(), kFloor, 0.1);

    // A reset session reads a stream exactly as a new session does.
    levels(session, noise, hz);
    EXPECT_EQ(sonelAudioNoiseDbResetSession(session), SONEL_AUDIO_OK);
    const std::vector<float> afterReset = levels(session, noise, hz);
    void* fresh = sonelAudioNoiseDbCreateSession(rate(hz), SONEL_AUDIO_FRAME_10MS, "nc16");
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(afterReset, levels(fresh, noise, hz));
    EXPECT_EQ(afterReset.front(), kFloor);
    EXPECT_EQ(sonelAudioNoiseDbCloseSession(fresh), SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
}

TEST(NoiseLevel, ReturnCodesOfTheNoiseLevelFunctions) {
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir, cleanerModel(removesEverything(16000)), "nc");
    void* db = sonelAudioNoiseDbCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, "nc");
    void* nc = sonelAudioNcCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, "nc");
    ASSERT_NE(db, nullptr);
    ASSERT_NE(nc, nullptr);
    std::vector<float> samples(160, 0.01f);
    std::vector<short> pcm(160, 300);
    EXPECT_EQ(sonelAudioNoiseDbFrameFloat(db, samples.data(), 160), kFloor);
    EXPECT_LT(sonelAudioNoiseDbFrameInt16(db, pcm.data(), 160), -4.5f);

    // Wrong size or no frame: the 16-bit form raises the session's exception (−3), the float
    // form returns −2.
    CaptureStderr();
    EXPECT_EQ(sonelAudioNoiseDbFrameInt16(db, pcm.data(), 159), -3.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameInt16(db, nullptr, 160), -3.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameFloat(db, samples.data(), 161), -2.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameFloat(db, nullptr, 160), -2.0f);
    const std::string sizeErrors = GetCapturedStderr();
    EXPECT_NE(sizeErrors.find("input size must be 160"), std::string::npos);
    EXPECT_NE(sizeErrors.find("ERROR in input values"), std::string::npos);

    // Not a noise-level session, or no session at all: −4 from the frame functions; reset and
    // close refuse it with the library's exception.
    int notASession = 0;
    CaptureStderr();
    EXPECT_EQ(sonelAudioNoiseDbFrameFloat(nc, samples.data(), 160), -4.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameInt16(&notASession, pcm.data(), 160), -4.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameFloat(nullptr, samples.data(), 160), -4.0f);
    EXPECT_EQ(sonelAudioNoiseDbResetSession(nc), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(sonelAudioNoiseDbCloseSession(nc), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(db, samples.data(), 160, samples.data(), 160),
              SONEL_AUDIO_WRONG_SESSION);
    GetCapturedStderr();
    EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNoiseDbCloseSession(db), SONEL_AUDIO_OK);

    // Only a cleaner of version 0.0.5 measures noise: the same network labelled 0.0.6 is refused.
    const SONEL::WEIGHTS::WeightWriter original = cleanerModel(removesEverything(16000));
    SONEL::WEIGHTS::WeightWriter newer;
    for (const auto& record : original.records())
        newer.add(record.name, record.name == "Version" ? SONEL::WEIGHTS::WeightWriter::Value(std::string("0.0.6")) : record.value);
    ASSERT_EQ(sonelAudioRemoveModel("nc"), SONEL_AUDIO_OK);
    registerModel(dir, newer, "newer");
    CaptureStderr();
    EXPECT_EQ(sonelAudioNoiseDbCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, "newer"), nullptr);
    EXPECT_NE(GetCapturedStderr().find("Unsupported weight version"), std::string::npos);
}

TEST(NoiseLevel, NoAllocationPerFrameAfterWarmUp) {
    ScratchDir dir;
    GlobalInstance global;
    CleanerModelSpec spec;
    spec.weightScale = 1.0f;  // a random network: masks between 0 and 1
    spec.outputBias = 0.0f;
    registerModel(dir, cleanerModel(spec), "random");
    for (unsigned hz : {16000u, 48000u}) {
        SCOPED_TRACE(hz);
        void* session = sonelAudioNoiseDbCreateSession(rate(hz), SONEL_AUDIO_FRAME_10MS, "random");
        ASSERT_NE(session, nullptr);
        const std::vector<float> x = rumble(3 * hz, hz, -30.0, 9);
        const size_t frame = hz / 100;
        for (size_t f = 0; f < 300; ++f) {
            const size_t before = allocationCount();
            const float level = sonelAudioNoiseDbFrameFloat(session, x.data() + f * frame, static_cast<unsigned>(frame));
            if (f >= 10) ASSERT_EQ(allocationCount(), before) << "frame " << f;
            ASSERT_LE(level, NoiseDBCleaner_v0_0_1::kCeilingDbfs);
        }
        EXPECT_EQ(sonelAudioNoiseDbCloseSession(session), SONEL_AUDIO_OK);
    }
}
