// What a host can throw at a session: samples that are not numbers, frame durations that do not
// fit the model's hops, and model files whose numbers would size allocations without bound.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

const unsigned kHostRates[] = {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000};

// A random network: its recurrent state carries every input into later frames.
CleanerModelSpec randomNetwork(unsigned modelRate, unsigned hopMs = 10) {
    CleanerModelSpec spec;
    spec.rate = modelRate;
    spec.hopMs = hopMs;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    spec.hidden = 16;
    return spec;
}

// `input` through a new session of `frame`-sample frames; empty when the session is refused.
std::vector<float> cleaned(unsigned host, SonelAudioFrameDuration duration, const char* model,
                           const std::vector<float>& input, size_t frame) {
    CaptureStderr();
    void* session = sonelAudioNcCreateSession(rate(host), rate(host), duration, model);
    GetCapturedStderr();
    if (!session) return {};
    if (frame == 0) {
        ADD_FAILURE() << "a session of empty frames was created";
        sonelAudioNcCloseSession(session);
        return {};
    }
    std::vector<float> out(input.size());
    for (size_t pos = 0; pos + frame <= input.size(); pos += frame)
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, input.data() + pos, static_cast<unsigned>(frame),
                                                     out.data() + pos, static_cast<unsigned>(frame)),
                  SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
    return out;
}

}  // namespace

TEST(SessionRobustness, NonFiniteAndHugeSamplesAreSilenceAndTheStreamRecovers) {
    Registry registry;
    registry.add(cleanerModel(randomNetwork(16000)), "default");
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    for (unsigned host : {16000u, 48000u}) {
        const unsigned frame = host / 100;
        const std::vector<float> audio = gaussianNoise(frame * 60, 0.05f, host);
        for (float bad : {nan, inf, -inf, 1e35f, -3e38f}) {
            SCOPED_TRACE(std::to_string(host) + " Hz, bad sample " + std::to_string(bad));
            // Frame 10 holds bad samples among good ones; the reference has silence there.
            std::vector<float> damaged = audio, silenced = audio;
            for (size_t i = 10 * frame; i < 11 * frame; ++i) {
                silenced[i] = 0.0f;
                damaged[i] = i % 3 == 0 ? bad : 0.0f;
            }
            if (std::isfinite(bad)) {
                // A finite but absurd sample is limited like any sample beyond full scale, not
                // zeroed.
                for (size_t i = 10 * frame; i < 11 * frame; ++i)
                    if (i % 3 == 0) silenced[i] = bad > 0 ? 1.0f : -1.0f;
            }
            void* session = sonelAudioNcWithStatsCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "default");
            void* reference = sonelAudioNcWithStatsCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "default");
            ASSERT_NE(session, nullptr);
            size_t mismatches = 0, nonFinite = 0;
            for (size_t f = 0; f < 60; ++f) {
                std::vector<float> out(frame), expected(frame);
                SonelAudioNcFrameInfo info{}, expectedInfo{};
                ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseFloat(session, damaged.data() + f * frame, frame,
                                                                      out.data(), frame, &info),
                          SONEL_AUDIO_OK);
                ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseFloat(reference, silenced.data() + f * frame, frame,
                                                                      expected.data(), frame, &expectedInfo),
                          SONEL_AUDIO_OK);
                for (size_t i = 0; i < frame; ++i) {
                    nonFinite += !std::isfinite(out[i]) || std::fabs(out[i]) > 1.0f;
                    // Without a resampler a limited sample is clamped to full scale like the
                    // reference's; with one, the two differ in that frame and its neighbours.
                    mismatches += (!std::isfinite(bad) || host == 16000) && out[i] != expected[i];
                }
                EXPECT_LE(info.voiceLevel, 100u);
                EXPECT_LE(info.noiseLevel, 100u);
                if (!std::isfinite(bad)) EXPECT_EQ(info.voiceLevel, expectedInfo.voiceLevel);
            }
            EXPECT_EQ(nonFinite, 0u);
            EXPECT_EQ(mismatches, 0u);
            SonelAudioNcStats stats{}, expectedStats{};
            EXPECT_EQ(sonelAudioNcWithStatsRetrieveStats(session, &stats), SONEL_AUDIO_OK);
            EXPECT_EQ(sonelAudioNcWithStatsRetrieveStats(reference, &expectedStats), SONEL_AUDIO_OK);
            if (!std::isfinite(bad)) EXPECT_EQ(stats.talkTimeMs, expectedStats.talkTimeMs);
            sonelAudioNcWithStatsCloseSession(session);
            sonelAudioNcWithStatsCloseSession(reference);
        }
    }
}

TEST(SessionRobustness, EveryFrameDurationIsExactOrRefused) {
    const SonelAudioFrameDuration durations[] = {
        SonelAudioFrameDuration(0),  SonelAudioFrameDuration(5),  SONEL_AUDIO_FRAME_10MS, SonelAudioFrameDuration(15),
        SONEL_AUDIO_FRAME_20MS,      SONEL_AUDIO_FRAME_30MS,      SONEL_AUDIO_FRAME_40MS, SonelAudioFrameDuration(50)};
    size_t accepted = 0, refused = 0;
    // Models are chosen by rate among all registered ones, so each model is tried on its own.
    for (auto [modelRate, hopMs] : {std::pair{16000u, 10u}, std::pair{32000u, 10u}, std::pair{16000u, 15u}}) {
        Registry registry;
        registry.add(cleanerModel(randomNetwork(modelRate, hopMs)), "default");
        // The stream in frames of one hop (10 ms), or of two for the 15 ms model, is the reference.
        const SonelAudioFrameDuration base = hopMs == 15 ? SONEL_AUDIO_FRAME_30MS : SONEL_AUDIO_FRAME_10MS;
        for (unsigned host : kHostRates) {
            const std::vector<float> input = gaussianNoise(host * 12 / 10, 0.05f, host);  // 1.2 s: whole frames of each
            const std::vector<float> reference = cleaned(host, base, "default", input, host * base / 1000);
            for (SonelAudioFrameDuration duration : durations) {
                SCOPED_TRACE(std::to_string(modelRate) + " Hz model with " + std::to_string(hopMs) + " ms hops, " +
                             std::to_string(host) + " Hz host, " + std::to_string(duration) + " ms");
                const size_t frame = static_cast<size_t>(host) * duration / 1000;
                const std::vector<float> out = cleaned(host, duration, "default", input, frame);
                if (out.empty()) {
                    ++refused;
                    continue;
                }
                ++accepted;
                ASSERT_FALSE(reference.empty());
                const size_t whole = input.size() / frame * frame;
                size_t differing = 0;
                for (size_t i = 0; i < whole; ++i) differing += out[i] != reference[i];
                EXPECT_EQ(differing, 0u);
            }
        }
        if (hopMs != 10) continue;
        // A refusal says why.
        CaptureStderr();
        EXPECT_EQ(sonelAudioNcCreateSession(rate(modelRate), rate(modelRate), SonelAudioFrameDuration(50), "default"),
                  nullptr);
        EXPECT_NE(GetCapturedStderr().find("hops"), std::string::npos);
    }
    // Both outcomes occur: same-rate sessions of whole hops work, the rest are refused.
    EXPECT_GT(accepted, 8u);
    EXPECT_GT(refused, 8u);
}

TEST(SessionRobustness, DetectorSessionsAtEveryDurationDetectOrAreRefused) {
    GlobalInstance global;
    registerModelFile(SONEL_SOURCE_DIR "/models/sonel-vad.vlw", "detector");
    size_t accepted = 0, refused = 0;
    for (unsigned host : kHostRates) {
        const std::vector<float> input = gaussianNoise(host * 12 / 10, 0.05f, host);
        for (unsigned ms : {0u, 5u, 10u, 15u, 20u, 25u, 30u, 40u, 50u}) {
            SCOPED_TRACE(std::to_string(host) + " Hz host, " + std::to_string(ms) + " ms");
            CaptureStderr();
            CaptureStdout();
            void* session = sonelAudioVadCreateSession(rate(host), SonelAudioFrameDuration(ms), "detector");
            GetCapturedStdout();
            const std::string why = GetCapturedStderr();
            if (!session) {
                ++refused;
                if (ms % 10 != 0) EXPECT_NE(why.find("10 ms blocks"), std::string::npos) << why;
                continue;
            }
            ++accepted;
            const size_t frame = static_cast<size_t>(host) * ms / 1000;
            for (size_t pos = 0; pos + frame <= input.size(); pos += frame) {
                const float p = sonelAudioVadFrameFloat(session, input.data() + pos, static_cast<unsigned>(frame));
                ASSERT_TRUE(p >= 0.0f && p <= 1.0f) << p << " at sample " << pos;
            }
            EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
        }
    }
    EXPECT_GT(accepted, 8u);
    EXPECT_GT(refused, 8u);
}

TEST(SessionRobustness, HostileNumbersInAModelAreRefusedOrBounded) {
    Registry registry;
    const std::string key = "CONTROL_SONEL_BACKGROUND_SPEAKER_FIX_RUN_FRAME_COUNT_v0_0_5";
    // A history of 1e8 blocks would take 400 MB in every session, switched on or not.
    for (float count : {1e8f, -1.0f, 0.0f}) {
        SCOPED_TRACE(count);
        SONEL::WEIGHTS::WeightWriter writer = cleanerModel(randomNetwork(16000));
        writer.add(key, count);
        // Models are chosen by rate among all registered ones: one at a time, each removed after.
        const std::string name = "hostile" + std::to_string(static_cast<long long>(count));
        registry.add(writer, name);
        CaptureStdout();
        const size_t before = allocatedBytes();
        void* session = sonelAudioNcCreateSession(SONEL_AUDIO_RATE_16000, SONEL_AUDIO_RATE_16000,
                                                  SONEL_AUDIO_FRAME_10MS, name.c_str());
        const size_t cost = allocatedBytes() - before;
        ASSERT_NE(session, nullptr);
        EXPECT_EQ(sonelAudioNcBackgroundSpeakerFixOnOff(session, true), SONEL_AUDIO_OK);
        const std::string said = GetCapturedStdout();
        EXPECT_NE(said.find("RUN_FRAME_COUNT"), std::string::npos) << said;
        EXPECT_LT(cost, 1u << 20);
        std::vector<float> frame = gaussianNoise(160, 0.05f, 3);
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, frame.data(), 160, frame.data(), 160), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioRemoveModel(name.c_str()), SONEL_AUDIO_OK);
    }
    // Numbers a feature would be divided by, or take the log of, are refused at session creation.
    for (const char* record : {"LogPowerEpsilon", "SD"}) {
        SCOPED_TRACE(record);
        CleanerModelSpec spec = randomNetwork(16000);
        (std::string(record) == "SD" ? spec.sd : spec.logEpsilon) = 0.0f;
        const std::string name = std::string("zero-") + record;
        registry.add(cleanerModel(spec), name);
        CaptureStderr();
        EXPECT_EQ(sonelAudioNcCreateSession(SONEL_AUDIO_RATE_16000, SONEL_AUDIO_RATE_16000, SONEL_AUDIO_FRAME_10MS,
                                            name.c_str()),
                  nullptr);
        EXPECT_NE(GetCapturedStderr().find(record), std::string::npos);
        EXPECT_EQ(sonelAudioRemoveModel(name.c_str()), SONEL_AUDIO_OK);
    }
}
