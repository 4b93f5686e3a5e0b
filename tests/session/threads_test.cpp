// Sessions as a conferencing client drives them: one stream per thread, cleaned and its speech
// detected, while other threads register and remove models and open and close their own sessions.
// Every stream must come out bit-identical to the same input processed alone, and nothing may race (this binary also runs
// under ThreadSanitizer in CI).
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

using namespace sonel_test;

namespace {

// Speech-like test signal: a gliding harmonic tone over white noise, different per seed.
std::vector<float> testSignal(unsigned host, unsigned frames, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 0.02f);
    std::vector<float> x(static_cast<size_t>(frames) * (host / 100));
    double phase = 0.0;
    for (size_t i = 0; i < x.size(); ++i) {
        phase += 2 * M_PI * (150.0 + 50.0 * std::sin(i * 3.0 / host)) / host;
        x[i] = 0.1f * static_cast<float>(std::sin(phase) + 0.5 * std::sin(3 * phase)) + noise(rng);
    }
    return x;
}

// A stream as a host with noise cleaning and voice detection runs it: each frame cleaned, then its
// speech probability taken; the cleaned samples followed by the probabilities.
std::vector<float> process(unsigned host, const char* model, const std::vector<float>& in) {
    const unsigned frame = host / 100;
    void* nc = sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, model);
    void* vad = sonelAudioVadCreateSession(rate(host), SONEL_AUDIO_FRAME_10MS, model);
    std::vector<float> out(in.size());
    bool ok = nc && vad;
    for (size_t pos = 0; ok && pos + frame <= in.size(); pos += frame) {
        ok = sonelAudioNcCleanAmbientNoiseFloat(nc, in.data() + pos, frame, out.data() + pos, frame) ==
             SONEL_AUDIO_OK;
        out.push_back(sonelAudioVadFrameFloat(vad, in.data() + pos, frame));
    }
    sonelAudioNcCloseSession(nc);
    sonelAudioVadCloseSession(vad);
    return ok ? out : std::vector<float>{};
}

std::vector<char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

TEST(SessionThreads, StreamsOnEightThreadsMatchTheSameStreamsAlone) {
    const std::string models = std::string(SONEL_SOURCE_DIR) + "/models/";
    GlobalInstance global;
    registerModelFile(models + "sonel-nc-32k.vlw", "wide");
    registerModelFile(models + "sonel-nc-16k.vlw", "narrow");
    registerModelFile(models + "sonel-vad.vlw", "detector");
    const std::vector<char> churnBlob = readFile(models + "sonel-nc-16k.sw");
    ASSERT_FALSE(churnBlob.empty());

    // Host rate and model per thread: resampled and same-rate paths, both network sizes.
    struct Stream {
        unsigned host;
        const char* model;
    };
    const Stream streams[8] = {{48000, "wide"},   {16000, "narrow"}, {44100, "wide"},   {32000, "wide"},
                               {16000, "narrow"}, {48000, "wide"},   {8000, "narrow"},  {96000, "wide"}};
    constexpr unsigned kFrames = 400;
    std::vector<std::vector<float>> inputs, alone;
    for (unsigned t = 0; t < 8; ++t) {
        inputs.push_back(testSignal(streams[t].host, kFrames, t + 1));
        alone.push_back(process(streams[t].host, streams[t].model, inputs[t]));
        ASSERT_EQ(alone[t].size(), inputs[t].size() + kFrames);
    }

    testing::internal::CaptureStdout();
    std::atomic<bool> streaming{true};
    std::atomic<int> churned{0};
    // Registers and removes a model and opens and closes short-lived sessions on it, all the
    // time the streams run: the handle checks of the streams walk the table these change.
    std::thread churn([&] {
        while (streaming.load()) {
            if (sonelAudioSetModelBlob(churnBlob.data(), static_cast<unsigned>(churnBlob.size()), "churn") !=
                SONEL_AUDIO_OK)
                continue;
            void* session = sonelAudioNcCreateSession(SONEL_AUDIO_RATE_48000, SONEL_AUDIO_RATE_48000,
                                                      SONEL_AUDIO_FRAME_10MS, "churn");
            std::vector<float> frame(480, 0.01f);
            if (session) sonelAudioNcCleanAmbientNoiseFloat(session, frame.data(), 480, frame.data(), 480);
            sonelAudioNcCloseSession(session);
            sonelAudioRemoveModel("churn");
            ++churned;
        }
    });
    std::vector<std::vector<float>> together(8);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([&, t] { together[t] = process(streams[t].host, streams[t].model, inputs[t]); });
    for (auto& thread : threads) thread.join();
    streaming = false;
    churn.join();
    testing::internal::GetCapturedStdout();

    EXPECT_GT(churned.load(), 0);
    for (unsigned t = 0; t < 8; ++t) {
        SCOPED_TRACE(streams[t].host);
        ASSERT_EQ(together[t].size(), alone[t].size());
        size_t differing = 0;
        for (size_t i = 0; i < alone[t].size(); ++i) differing += together[t][i] != alone[t][i];
        EXPECT_EQ(differing, 0u);
    }
}
