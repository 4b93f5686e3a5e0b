// Services every cleaner shares (bandwidth prediction, statistics, environment keys) and the
// v0.0.5 frame loop's own state: the energy gate and session reset.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "test_support.h"
#include "noise_canceller/noise_cleaner_v0_0_5.h"

using namespace sonel_test;
using SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_5;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// A 10 ms frame at 48 kHz of tones centred on FFT bins, one per listed band of 6 kHz.
std::vector<float> bandTones(std::initializer_list<int> bands) {
    std::vector<float> frame(480, 0.0f);
    for (int b : bands)
        for (int k = 1; k < 60; k += 7) {
            const double hz = (b * 60 + k) * 100.0;
            for (size_t i = 0; i < frame.size(); ++i) frame[i] += 300.0f * std::sin(2 * M_PI * hz * i / 48000.0);
        }
    return frame;
}

}  // namespace

TEST(CleanerBase, BandwidthDecisionAfterTheAveragingPeriod) {
    NoiseCleaner_v0_0_5 cleaner(modelFrom(cleanerModel(CleanerModelSpec{})), 16000);
    struct Case {
        std::initializer_list<int> bands;
        int expected;
    };
    for (const Case& c : {Case{{0}, 1}, Case{{0, 1}, 2}, Case{{0, 1, 2, 3}, 3}}) {
        SCOPED_TRACE(c.expected);
        SONEL::bandWidthInfo_t info{0, 100, 20};  // decide every 100 ms after a 20 ms start delay
        std::vector<float> frame = bandTones(c.bands);
        for (int f = 1; f <= 12; ++f) {
            cleaner.predictBandwidth(frame, SONEL_AUDIO_FRAME_10MS, &info);
            EXPECT_EQ(info.bandwidthClass, f == 12 ? c.expected : 0) << "frame " << f;
        }
    }
}

TEST(CleanerBase, TalkAndNoiseStatisticsAndTheirEnvironmentKeys) {
    CaptureStdout();
    NoiseCleaner_v0_0_5 cleaner(modelFrom(cleanerModel(CleanerModelSpec{}), {{"sonel_env_stats_accumulation_count", "2"},
                                                               {"sonel_env_low_noise", "30"}}),
                                16000);
    EXPECT_EQ(GetCapturedStdout(), "### sonel_env_low_noise: 30\n### sonel_env_stats_accumulation_count : 2\n");

    SONEL::NoiseVoiceStats stats;
    auto talkAfter = [&](double energy) {
        cleaner.voiceStatsUpdate(energy, 10);
        cleaner.voiceStatsUpdate(energy, 10);
        cleaner.getNcStats(&stats);
        return stats.talkTime;
    };
    EXPECT_EQ(talkAfter(50), 20u);
    // Up to four quiet blocks after talk still count as talk; the fifth does not.
    for (uint32_t k = 1; k <= 4; ++k) EXPECT_EQ(talkAfter(10), 20u + 20u * k);
    EXPECT_EQ(talkAfter(10), 100u);
    EXPECT_EQ(talkAfter(40), 120u);

    for (double level : {1.0, 2.0, 20.0, 30.0, 45.0, 80.0}) {
        cleaner.noiseStatsUpdate(level, 10);
        cleaner.noiseStatsUpdate(level, 10);
    }
    cleaner.getNcStats(&stats);
    EXPECT_EQ(stats.noiseTimeByLevel[0], 40u);  // not above 2
    EXPECT_EQ(stats.noiseTimeByLevel[1], 40u);  // not above 30 (the environment's)
    EXPECT_EQ(stats.noiseTimeByLevel[2], 20u);
    EXPECT_EQ(stats.noiseTimeByLevel[3], 20u);
}

TEST(CleanerV005, EnergyGateFreezesThroughSilenceAndResetRestarts) {
    CleanerModelSpec spec;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    spec.freezeLow = 1.0f;
    spec.freezeHigh = 100.0f;
    NoiseCleaner_v0_0_5 cleaner(modelFrom(cleanerModel(spec)), 16000);
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.0f, 1000.0f);
    std::vector<float> signal(160 * 60);
    for (size_t i = 0; i < signal.size(); ++i) {
        const bool silent = i >= 160 * 20 && i < 160 * 40;  // 200 ms of digital silence
        const bool faint = i >= 160 * 40 && i < 160 * 45;   // between the two thresholds
        signal[i] = silent ? 0.0f : faint ? noise(rng) * 0.005f : noise(rng);
    }
    auto run = [&] {
        std::vector<float> out;
        for (size_t pos = 0; pos < signal.size(); pos += 160) {
            std::vector<float> frame(signal.begin() + pos, signal.begin() + pos + 160);
            EXPECT_TRUE(cleaner.cleanNoise(frame, nullptr, false));
            out.insert(out.end(), frame.begin(), frame.end());
        }
        return out;
    };
    const std::vector<float> first = run();
    // Silence froze the analysis; the faint stretch (below the high threshold) stayed frozen
    // and came out as silence; the loud noise afterwards unfroze it.
    for (size_t i = 160 * 22; i < 160 * 45; ++i) ASSERT_EQ(first[i], 0.0f) << i;
    double tail = 0;
    for (size_t i = 160 * 47; i < first.size(); ++i) tail += std::fabs(first[i]);
    EXPECT_GT(tail, 0.0);

    // A reset returns the cleaner to its constructed state.
    EXPECT_TRUE(cleaner.resetSession());
    EXPECT_EQ(run(), first);
}
