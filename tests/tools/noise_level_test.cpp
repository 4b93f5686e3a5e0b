// `sonel noise-level` end to end with the embedded cleaner: a stereo file reads as its louder
// channel frame by frame in both output formats, silence reads the floor, and bad options and
// models are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"
#include "tool_test_support.h"

using namespace sonel_test;

namespace {

// Per-frame levels printed by `--format frames`, each line's time checked against its index.
std::vector<double> frameLevels(const std::string& text) {
    std::istringstream lines(text);
    std::vector<double> levels;
    for (double seconds, db; lines >> seconds >> db; levels.push_back(db))
        EXPECT_NEAR(seconds, 0.01 * static_cast<double>(levels.size()), 1e-9);
    return levels;
}

}  // namespace

TEST(NoiseLevelTool, StereoReadsAsItsLouderChannelSilenceAsTheFloorAndBadOptionsAreRefused) {
    // Left: noise below 2 kHz at −50 dBFS throughout; right: the same noise 20 dB louder for two
    // seconds, then digital silence. 48 kHz, the embedded 32 kHz cleaner behind the session's
    // resampler.
    constexpr int rate = 48000;
    const std::vector<float> left = rumble(4 * rate, rate, -50.0, 1);
    std::vector<float> stereo(2 * left.size(), 0.0f);
    for (size_t i = 0; i < left.size(); ++i) {
        stereo[2 * i] = left[i];
        if (i < 2 * rate) stereo[2 * i + 1] = 10.0f * left[i];
    }
    ScratchDir dir;
    const std::string wav = dir.file("noise.wav");
    writeWav(wav, stereo, 2, rate);

    std::string text;
    ASSERT_EQ(sonel("noise-level " + wav, &text), 0) << text;
    const std::vector<double> level = frameLevels(text);
    ASSERT_EQ(level.size(), 400u) << text;
    for (size_t k = 100; k < 200; ++k) EXPECT_NEAR(level[k], -30.0, 2.0) << "frame " << k;
    for (size_t k = 300; k < 400; ++k) EXPECT_NEAR(level[k], -50.0, 2.0) << "frame " << k;
    // The summary is of the same 400 frames, half near −30, half near −50.
    ASSERT_EQ(sonel("noise-level " + wav + " --format json", &text), 0) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), ','), 5 + 399) << "five fields before 400 levels";
    double p10 = 0.0, p90 = 0.0;
    ASSERT_EQ(std::sscanf(text.c_str() + text.find("\"p10_dbfs\""), "\"p10_dbfs\": %lf, \"p90_dbfs\": %lf", &p10, &p90), 2);
    EXPECT_NEAR(p10, -50.0, 2.0);
    EXPECT_NEAR(p90, -30.0, 2.0);

    // One second of digital silence at 16 kHz through the 16 kHz model: the floor in every frame.
    writeWav(wav, std::vector<float>(16000, 0.0f), 1, 16000);
    ASSERT_EQ(sonel("noise-level " + wav + " --model " SONEL_SOURCE_DIR "/models/sonel-nc-16k.sw", &text), 0);
    EXPECT_EQ(frameLevels(text), std::vector<double>(100, -120.0));

    EXPECT_EQ(sonel("noise-level " + wav + " --format segments", &text), 2 << 8) << text;
    EXPECT_NE(text.find("--format is frames or json"), std::string::npos) << text;
    EXPECT_EQ(sonel("noise-level --format json", &text), 2 << 8) << text;
    // A detector model measures no noise: the session cannot be made, and the tool says so.
    EXPECT_EQ(sonel("noise-level " + wav + " --model " SONEL_SOURCE_DIR "/models/sonel-vad.sw", &text), 1 << 8);
    EXPECT_NE(text.find("must be a noise cleaner of version 0.0.5"), std::string::npos) << text;
}
