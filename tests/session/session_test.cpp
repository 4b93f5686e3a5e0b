// Sessions through the C interface: frame sizes at every host rate, conversions, perfect
// reconstruction, model selection, frame info and statistics, and the real-time discipline.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "test_support.h"
#include "noise_canceller/noise_cleaner.h"
#include "sonel_audio_sdk/instance.h"
#include "sonel_audio_sdk/session.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

const std::vector<unsigned> kHostRates = {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000};

// Runs `input` through an NC session in 10 ms frames; every call must succeed.
std::vector<float> runSession(void* session, const std::vector<float>& input, unsigned frame) {
    std::vector<float> output(input.size());
    for (size_t pos = 0; pos + frame <= input.size(); pos += frame)
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, input.data() + pos, frame,
                                                     output.data() + pos, frame),
                  SONEL_AUDIO_OK);
    return output;
}

}  // namespace

TEST(SessionFrames, ExactSizesAndNoClicksAtEveryHostRate) {
    for (unsigned modelRate : {16000u, 32000u}) {
        Registry registry;
        CleanerModelSpec spec;
        spec.rate = modelRate;
        registry.add(cleanerModel(spec), "default");
        for (unsigned host : kHostRates) {
            SCOPED_TRACE("model " + std::to_string(modelRate) + " Hz, host " + std::to_string(host) + " Hz");
            void* session = sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "default");
            ASSERT_NE(session, nullptr);
            const unsigned frame = host / 100;
            const double tone = 440.0;
            const float amplitude = 0.5f;
            const std::vector<float> in = sine(frame * 100, tone, host, amplitude);
            const std::vector<float> out = runSession(session, in, frame);

            // After the resamplers' and the cleaner's start-up, the largest step between
            // neighbouring samples stays within that of the sine itself (plus resampler ripple):
            // a click at a frame border would be a step of the order of the amplitude.
            const double sineStep = amplitude * 2 * M_PI * tone / host;
            float largestStep = 0.0f;
            for (size_t i = frame * 10; i < out.size(); ++i)
                largestStep = std::max(largestStep, std::fabs(out[i] - out[i - 1]));
            EXPECT_LT(largestStep, 1.05 * sineStep + 2e-3);
            // The pass-through model keeps the level (resampler pass band).
            double inPower = 0, outPower = 0;
            for (size_t i = frame * 20; i < out.size(); ++i) inPower += in[i] * in[i], outPower += out[i] * out[i];
            EXPECT_NEAR(10 * std::log10(outPower / inPower), 0.0, 0.3);

            std::vector<float> wrong(frame - 1);
            CaptureStderr();
            EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, wrong.data(), frame - 1, wrong.data(), frame - 1),
                      SONEL_AUDIO_FAILED);
            EXPECT_EQ(GetCapturedStderr(),
                      "ERROR input dataSize or output dataSize or pointers of inputData output Data is wrong\n"
                      " input size must be " + std::to_string(frame) + "\n output size must be " +
                          std::to_string(frame) + "\n");
            EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
        }
    }
}

TEST(SessionConversions, ScalingClampingAndPerfectReconstruction) {
    for (unsigned modelRate : {8000u, 16000u, 24000u, 32000u}) {
        for (unsigned compress : {0u, 2u}) {
            SCOPED_TRACE("model " + std::to_string(modelRate) + " Hz, compress rate " + std::to_string(compress));
            Registry registry;
            CleanerModelSpec spec;
            spec.rate = modelRate;
            spec.compressRate = compress;
            registry.add(cleanerModel(spec), "default");
            void* session = sonelAudioNcCreateSession(rate(modelRate), rate(modelRate), SONEL_AUDIO_FRAME_10MS, "default");
            ASSERT_NE(session, nullptr);
            const unsigned hop = modelRate / 100;
            std::mt19937 rng(modelRate + compress);
            std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
            std::vector<float> in(hop * 50);
            for (float& x : in) x = uniform(rng);
            in[hop * 20] = 1.0f;  // 32768 is clamped to 32767 on the way in
            const std::vector<float> out = runSession(session, in, hop);

            // A mask of ones with every switch neutral gives the input back one hop later.
            float worst = 0.0f;
            for (size_t i = 0; i < hop; ++i) worst = std::max(worst, std::fabs(out[i]));
            for (size_t i = hop; i < out.size(); ++i)
                worst = std::max(worst, std::fabs(out[i] - std::min(in[i - hop], 32767.0f / 32768.0f)));
            EXPECT_LT(worst, 1e-3f);
            EXPECT_LE(*std::max_element(out.begin(), out.end()), 0.99996948f);

            // The 16-bit path keeps sample values unscaled and truncates on the way out.
            std::vector<short> pcm(hop, 1000), back(hop);
            for (int k = 0; k < 3; ++k)
                ASSERT_EQ(sonelAudioNcCleanAmbientNoiseInt16(session, pcm.data(), hop, back.data(), hop), SONEL_AUDIO_OK);
            EXPECT_NEAR(back[hop / 2], 1000, 1);
            EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
        }
    }
}

TEST(SessionCreation, ModelSelectionByRateAndRefusals) {
    Registry registry;
    CleanerModelSpec spec;
    spec.rate = 16000;
    registry.add(cleanerModel(spec), "a16");
    spec.rate = 32000;
    registry.add(cleanerModel(spec), "b32");
    auto modelRateFor = [](unsigned host) {
        SONEL::SONEL_AUDIO::SonelAudioSessionT session(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "a16",
                                                       SONEL_AUDIO_SESSION_NC);
        return session.cleaner().sampleRate();
    };
    EXPECT_EQ(modelRateFor(48000), 32000u);  // closest at or below the host rate
    EXPECT_EQ(modelRateFor(24000), 16000u);
    EXPECT_EQ(modelRateFor(8000), 32000u);   // none at or below: the last candidate

    struct Refusal {
        const char* name;
        SonelAudioSessionType type;
        SonelAudioFrameDuration duration;
        unsigned host;
        std::string message;
    };
    const std::vector<Refusal> refusals = {
        {"missing", SONEL_AUDIO_SESSION_NC, SONEL_AUDIO_FRAME_10MS, 16000, "Weight with this name isn't found"},
        {"a16", SONEL_AUDIO_SESSION_RINGTONE, SONEL_AUDIO_FRAME_10MS, 16000, "Unsupported weight version"},
        {"a16", SONEL_AUDIO_SESSION_VAD, SONEL_AUDIO_FRAME_10MS, 16000, "Weight not found "},
        {"a16", SONEL_AUDIO_SESSION_NC, SONEL_AUDIO_FRAME_20MS, 24000, "RESAMPLER WORKS WITH WRONG FRAMEDURATION "},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.message);
        CaptureStderr();
        void* session = r.type == SONEL_AUDIO_SESSION_NC
                            ? sonelAudioNcCreateSession(rate(r.host), rate(r.host), r.duration, r.name)
                        : r.type == SONEL_AUDIO_SESSION_VAD
                            ? sonelAudioVadCreateSession(rate(r.host), r.duration, r.name)
                            : sonelAudioRingtoneCreateSession(rate(r.host), r.duration, r.name);
        EXPECT_EQ(session, nullptr);
        const std::string text = GetCapturedStderr();
        EXPECT_NE(text.find("\n messege " + r.message + "\n"), std::string::npos) << text;
    }
    // Without resampling, longer frames are fine; 44.1 kHz takes exactly 441 samples.
    void* wide20 = sonelAudioNcCreateSession(rate(32000), rate(32000), SONEL_AUDIO_FRAME_20MS, "b32");
    ASSERT_NE(wide20, nullptr);
    std::vector<float> frame(640, 0.1f);
    EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(wide20, frame.data(), 640, frame.data(), 640), SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNcCloseSession(wide20), SONEL_AUDIO_OK);
    void* cd = sonelAudioNcCreateSession(rate(44100), rate(44100), SONEL_AUDIO_FRAME_10MS, "b32");
    ASSERT_NE(cd, nullptr);
    EXPECT_EQ(static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(cd)->inputFrameSize(), 441u);
    EXPECT_EQ(sonelAudioVadCloseSession(cd), SONEL_AUDIO_SONEL_EXCEPTION);  // wrong type stays alive
    EXPECT_EQ(sonelAudioNcCloseSession(cd), SONEL_AUDIO_OK);
}

TEST(NcWithStats, FrameInfoStatisticsAndSpeakerFixSwitch) {
    Registry registry;
    registry.add(cleanerModel(CleanerModelSpec{}), "default");
    setenv("sonel_env_csd_threshold", "0.7", 1);
    void* stats = sonelAudioNcWithStatsCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, "default");
    unsetenv("sonel_env_csd_threshold");
    ASSERT_NE(stats, nullptr);
    EXPECT_FLOAT_EQ(SONEL::SONEL_AUDIO::SonelAudioInstanceT::csdThreshold_, 0.7f);

    // Loud speech-level input through a pass-through model: all voice, nothing removed.
    const std::vector<float> loud = sine(160 * 40, 300.0, 16000, 0.3f);
    SonelAudioNcFrameInfo info{};
    std::vector<float> out(160);
    SonelAudioNcStats totals{};
    for (int f = 0; f < 40; ++f) {
        ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseFloat(stats, loud.data() + f * 160, 160, out.data(), 160, &info),
                  SONEL_AUDIO_OK);
        ASSERT_EQ(sonelAudioNcWithStatsRetrieveStats(stats, &totals), SONEL_AUDIO_OK);
        // Talk time moves in blocks of 20 frames × 10 ms.
        EXPECT_EQ(totals.talkTimeMs, (f + 1) / 20 * 200u);
    }
    // The voice level is the cleaned block's energy on the frame-energy scale.
    EXPECT_NEAR(info.voiceLevel, sonelAudioGetFrameEnergyFloat(loud.data() + 160 * 39, 160), 1.0);
    EXPECT_EQ(info.noiseLevel, 0u);
    EXPECT_EQ(info.ringtoneState, 0u);  // this cleaner does not judge ringtones
    EXPECT_EQ(totals.noNoiseMs, 400u);
    EXPECT_EQ(totals.lowNoiseMs + totals.mediumNoiseMs + totals.highNoiseMs, 0u);

    CaptureStderr();
    EXPECT_EQ(sonelAudioNcWithStatsRetrieveStats(stats, nullptr), SONEL_AUDIO_WRONG_SESSION);
    EXPECT_EQ(GetCapturedStderr(), "Invalid NC stats pointer\n");
    EXPECT_EQ(sonelAudioNcBackgroundSpeakerFixOnOff(stats, true), SONEL_AUDIO_FAILED);

    void* nc = sonelAudioNcCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, "default");
    CaptureStdout();
    EXPECT_EQ(sonelAudioNcBackgroundSpeakerFixOnOff(nc, true), SONEL_AUDIO_OK);
    EXPECT_EQ(GetCapturedStdout(), "Parameter env_enable_background_speaker_fix set to: 1\n");
    CaptureStderr();
    EXPECT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseFloat(nc, out.data(), 160, out.data(), 160, &info),
              SONEL_AUDIO_WRONG_SESSION);
    EXPECT_EQ(GetCapturedStderr(), "The Session pointer is wrong insert existing session pointer\n");
    EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNcWithStatsCloseSession(stats), SONEL_AUDIO_OK);
}

TEST(RealTime, NoAllocationAfterTheFirstFrames) {
    Registry registry;
    CleanerModelSpec spec;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    registry.add(cleanerModel(spec), "default");
    for (unsigned host : {16000u, 48000u}) {
        SCOPED_TRACE(host);
        void* session = sonelAudioNcWithStatsCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "default");
        ASSERT_NE(session, nullptr);
        const unsigned frame = host / 100;
        const std::vector<float> in = sine(frame * 1010, 500.0, host, 0.2f);
        std::vector<float> out(frame);
        SonelAudioNcFrameInfo info;
        for (int f = 0; f < 10; ++f)
            sonelAudioNcWithStatsCleanAmbientNoiseFloat(session, in.data() + f * frame, frame, out.data(), frame, &info);
        const size_t before = allocationCount();
        for (int f = 10; f < 1010; ++f)
            ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseFloat(session, in.data() + f * frame, frame, out.data(),
                                                                  frame, &info),
                      SONEL_AUDIO_OK);
        EXPECT_EQ(allocationCount() - before, 0u);
        EXPECT_EQ(sonelAudioNcWithStatsCloseSession(session), SONEL_AUDIO_OK);
    }
}
