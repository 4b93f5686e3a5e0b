// `sonel noise-level` end to end with the embedded cleaner: a stereo file whose channels carry
// noise at different levels reads as its louder channel frame by frame in both output formats,
// and bad options and models are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"
#include "tool_test_support.h"

using namespace sonel_test;

namespace {

// Stationary noise below 2 kHz at `level` dBFS (0 dBFS: a full-scale square wave).
std::vector<float> lowNoise(size_t n, int rate, double level, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    const double a = std::exp(-2.0 * M_PI * 1000.0 / rate);
    std::vector<double> x(n);
    double y1 = 0.0, y2 = 0.0, power = 0.0;
    for (size_t i = 0; i < n; ++i) {
        y1 = a * y1 + (1.0 - a) * normal(rng);
        y2 = a * y2 + (1.0 - a) * y1;
        x[i] = y2;
        power += y2 * y2;
    }
    const double gain = std::pow(10.0, level / 20.0) / std::sqrt(power / static_cast<double>(n));
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<float>(gain * x[i]);
    return out;
}

}  // namespace

TEST(NoiseLevelTool, StereoNoiseReadsAsItsLouderChannelInBothFormats) {
    // Left: noise at −50 dBFS throughout; right: noise at −30 dBFS for two seconds, then digital
    // silence. 48 kHz, the embedded 32 kHz cleaner behind the session's resampler.
    constexpr int rate = 48000;
    const size_t length = 4 * rate;
    const std::vector<float> left = lowNoise(length, rate, -50.0, 1), right = lowNoise(length / 2, rate, -30.0, 2);
    std::vector<float> stereo(2 * length, 0.0f);
    for (size_t i = 0; i < length; ++i) {
        stereo[2 * i] = left[i];
        if (i < right.size()) stereo[2 * i + 1] = right[i];
    }
    ScratchDir dir;
    const std::string wav = dir.file("noise.wav");
    writeWav(wav, stereo, 2, rate);

    std::string frames;
    ASSERT_EQ(sonel("noise-level " + wav, &frames), 0) << frames;
    std::istringstream lines(frames);
    std::vector<double> level;
    double seconds = 0.0, db = 0.0;
    while (lines >> seconds >> db) {
        EXPECT_NEAR(seconds, 0.01 * static_cast<double>(level.size()), 1e-9);
        level.push_back(db);
    }
    ASSERT_EQ(level.size(), 400u) << frames;
    for (size_t k = 100; k < 200; ++k) EXPECT_NEAR(level[k], -30.0, 2.0) << "frame " << k;
    for (size_t k = 300; k < 400; ++k) EXPECT_NEAR(level[k], -50.0, 2.0) << "frame " << k;

    // The summary is of the same frames: half near −30, half near −50.
    std::string json;
    ASSERT_EQ(sonel("noise-level " + wav + " --format json", &json), 0) << json;
    EXPECT_EQ(std::count(json.begin(), json.end(), ','), 5 + 399) << "five fields before 400 levels";
    double p10 = 0.0, p90 = 0.0;
    ASSERT_EQ(std::sscanf(json.c_str() + json.find("\"p10_dbfs\""), "\"p10_dbfs\": %lf", &p10), 1) << json;
    ASSERT_EQ(std::sscanf(json.c_str() + json.find("\"p90_dbfs\""), "\"p90_dbfs\": %lf", &p90), 1) << json;
    EXPECT_NEAR(p10, -50.0, 2.0);
    EXPECT_NEAR(p90, -30.0, 2.0);
}

TEST(NoiseLevelTool, BadOptionsAndModelsAreRefusedWithAMessage) {
    ScratchDir dir;
    const std::string wav = dir.file("quiet.wav");
    writeWav(wav, std::vector<float>(16000, 0.0f), 1, 16000);
    std::string text;
    EXPECT_EQ(sonel("noise-level " + wav + " --format segments", &text), 2 << 8) << text;
    EXPECT_NE(text.find("--format is frames or json"), std::string::npos) << text;
    EXPECT_EQ(sonel("noise-level --format json", &text), 2 << 8) << text;
    // A detector model measures no noise: the session cannot be made, and the tool says so.
    EXPECT_EQ(sonel("noise-level " + wav + " --model " SONEL_SOURCE_DIR "/models/sonel-vad.sw", &text), 1 << 8)
        << text;
    EXPECT_NE(text.find("must be a noise cleaner of version 0.0.5"), std::string::npos) << text;
    // Digital silence reads the floor in every frame.
    ASSERT_EQ(sonel("noise-level " + wav + " --model " SONEL_SOURCE_DIR "/models/sonel-nc-16k.sw", &text), 0) << text;
    std::istringstream lines(text);
    double seconds = 0.0, db = 0.0;
    size_t count = 0;
    for (; lines >> seconds >> db; ++count) EXPECT_EQ(db, -120.0) << "frame " << count;
    EXPECT_EQ(count, 100u);
}
