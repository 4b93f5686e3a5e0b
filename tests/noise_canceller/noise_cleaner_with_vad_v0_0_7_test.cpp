// The v0.0.7 cleaner gated by its own voice detector: sessions from a gated file, the detector's
// decision at, above and below 0.5, the output's pre-fill and the durations it refuses. Its
// numbers are held against the NumPy reference in reference_parity_test.cpp.
#include <gtest/gtest.h>

#include <vector>

#include "noise_canceller/noise_cleaner_with_vad_v0_0_7.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"
#include "utils/energy_level.h"

using namespace sonel_test;
using Gated = SONEL::NOISE_CANCELLER::NoiseCleanerWithVad_v0_0_7;

namespace {

constexpr unsigned kRate = kLayerNormRate, kVadRate = kLayerNormVadRate;

// A session's output for `x` in frames of `frameMs` at the model's rate, the model alone in the
// registry; empty when the session is refused.
std::vector<float> cleaned(const Records& records, const std::vector<float>& x, unsigned frameMs = 10,
                           unsigned host = kRate, size_t* allocations = nullptr) {
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir, writerOf(records), "model");
    const auto hz = static_cast<SonelAudioSamplingRate>(host);
    void* session = sonelAudioNcCreateSession(hz, hz, static_cast<SonelAudioFrameDuration>(frameMs), "model");
    if (!session) return {};
    const size_t n = host * frameMs / 1000;
    std::vector<float> out(x.size());
    for (size_t pos = 0; pos + n <= x.size(); pos += n) {
        const size_t before = allocationCount();
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, x.data() + pos, n, out.data() + pos, n), SONEL_AUDIO_OK);
        if (allocations && pos >= 10 * n) *allocations += allocationCount() - before;
    }
    EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
    return out;
}

}  // namespace

TEST(NoiseCleanerWithVadV007, TheDetectorDecidesPerHopWhetherTheV007CleanerRuns) {
    const std::vector<float> x = gaussianNoise(kRate, 0.1f, 1);
    // Speech (and a probability of exactly 0.5) runs the v0.0.7 cleaning step on every hop: the
    // plain cleaner's output, one 10 ms hop late like it, sample for sample.
    const std::vector<float> plain = cleaned(layerNormCleanerModel(20, 0.3f, false), x);
    for (float vadBias : {20.0f, 0.0f}) {
        SCOPED_TRACE(vadBias);
        const std::vector<float> gated = cleaned(layerNormCleanerModel(20, 0.3f, true, vadBias), x);
        ASSERT_EQ(gated.size(), x.size());
        size_t differing = 0;
        for (size_t i = 0; i < x.size(); ++i) differing += gated[i] != plain[i];
        EXPECT_EQ(differing, 0u);
    }
    // No speech: silence, also through the session's converters at a 48 kHz host, where no frame
    // allocates; everything counts as noise, the hops' mean square at full scale 1.
    size_t allocations = 0, nonZero = 0;
    const std::vector<float> loud = gaussianNoise(48000, 0.2f, 2);
    for (float v : cleaned(layerNormCleanerModel(20, 0.3f, true, -20.0f), loud, 10, 48000, &allocations)) nonZero += v != 0.0f;
    EXPECT_EQ(nonZero, 0u);
    EXPECT_EQ(allocations, 0u);

    testing::internal::CaptureStdout();
    Gated silent(modelFrom(writerOf(layerNormCleanerModel(20, 0.3f, true, -20.0f))), 10);
    testing::internal::GetCapturedStdout();
    const std::vector<float> tone = sine(kRate, 500.0, kRate, 8192.0f);
    SONEL::ncAudioInfo_t info{};
    std::vector<float> frame(kRate / 100);
    for (size_t pos = 0; pos + frame.size() <= tone.size(); pos += frame.size()) {
        frame.assign(tone.begin() + static_cast<long>(pos), tone.begin() + static_cast<long>(pos + frame.size()));
        ASSERT_TRUE(silent.cleanNoise(frame, &info, false));
    }
    EXPECT_EQ(info.voiceLevel, 0.0);
    EXPECT_NEAR(info.noiseLevel, SONEL::UTILS::energyLevel(0.5 * 0.25 * 0.25), 0.05);
    EXPECT_EQ(info.ringtoneProbability, -1.0);
}

TEST(NoiseCleanerWithVadV007, OutputPrefillFollowsTheDurationsAndMismatchedDurationsAreRefused) {
    // A 30 ms cleaner fed 40 ms frames puts 25 ms of silence ahead of its output: the plain
    // cleaner's output (one 15 ms hop late, the same in any frames of whole hops) 10 ms later.
    const std::vector<float> x = gaussianNoise(kRate, 0.1f, 3);
    const std::vector<float> plain = cleaned(layerNormCleanerModel(30, 0.3f, false), x, 30),
                             gated = cleaned(layerNormCleanerModel(30, 0.3f, true, 20.0f), x, 40);
    ASSERT_EQ(gated.size(), x.size());
    ASSERT_EQ(plain.size(), x.size());
    const size_t later = kRate * 10 / 1000;
    size_t differing = 0;
    for (size_t i = 0; i + 2 * kRate / 25 < x.size(); ++i) differing += gated[i] != (i < later ? 0.0f : plain[i - later]);
    EXPECT_EQ(differing, 0u);

    // A detector whose frames last longer than the cleaner's.
    Records mismatched = layerNormCleanerModel(20, 0.3f, true, 20.0f);
    mismatched["VadFrameLength"] = 4 * kVadRate / 100;
    try {
        Gated refused(modelFrom(writerOf(mismatched)), 10);
        ADD_FAILURE() << "built";
    } catch (const SONEL::UTILS::SonelException& e) {
        EXPECT_EQ(e.message(), "Working and input frame durations for vad model and nc model should match.");
        EXPECT_NE(std::string(e.what()).find("noise_cleaner_with_vad_v0_0_7"), std::string::npos) << e.what();
    }
    // Through the C interface: a refused session, the reason on standard error, no exception.
    testing::internal::CaptureStderr();
    EXPECT_TRUE(cleaned(mismatched, x).empty());
    EXPECT_NE(testing::internal::GetCapturedStderr().find("should match"), std::string::npos);
}
