// One 10 ms frame through the public float path, at 16 and 48 kHz host rates, with the shipped
// 16 and 32 kHz cleaners, the noise-level estimator on the shipped 0.0.5 cleaners, and the
// shipped voice and ringtone detectors.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "sonel-audio-sdk.h"

namespace {

// The shipped cleaner for a model rate: the default, or the 0.0.5 one noise levels run on.
std::wstring shippedCleaner(unsigned rate, bool forNoiseLevel) {
    const std::string name = rate == 16000 ? "sonel-nc-16k" : forNoiseLevel ? "sonel-noise-level" : "sonel-nc-32k";
    const std::string path = SONEL_SOURCE_DIR "/models/" + name + ".vlw";
    return std::wstring(path.begin(), path.end());
}

void BM_NcFrame(benchmark::State& state) {
    const auto hostRate = static_cast<unsigned>(state.range(0));
    const auto modelRate = static_cast<unsigned>(state.range(1));
    sonelAudioGlobalInit(nullptr);
    sonelAudioSetModel(shippedCleaner(modelRate, false).c_str(), "bench");
    void* session = sonelAudioNcCreateSession(static_cast<SonelAudioSamplingRate>(hostRate),
                                              static_cast<SonelAudioSamplingRate>(hostRate),
                                              SONEL_AUDIO_FRAME_10MS, "bench");
    if (!session) {
        state.SkipWithError("session could not be created");
        return;
    }
    const unsigned frame = hostRate / 100;
    std::vector<float> in(frame), out(frame);
    for (unsigned i = 0; i < frame; ++i) in[i] = 0.1f * std::sin(0.05f * i) + 0.01f * ((i * 7919) % 13 - 6);
    for (auto _ : state) {
        sonelAudioNcCleanAmbientNoiseFloat(session, in.data(), frame, out.data(), frame);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
    // Real-time factor: audio time per processing time (10 ms per frame).
    state.counters["x_realtime"] =
        benchmark::Counter(0.01 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    sonelAudioNcCloseSession(session);
    sonelAudioRemoveModel("bench");
    sonelAudioGlobalDestroy();
}

BENCHMARK(BM_NcFrame)
    ->ArgNames({"host_hz", "model_hz"})
    ->Args({16000, 16000})
    ->Args({48000, 16000})
    ->Args({16000, 32000})
    ->Args({48000, 32000});

// A shipped detector's session, one 10 ms frame at a time: the voice detector runs at 8 kHz, so
// other hosts add the session's resampler; the ringtone detector runs at the host's rate.
struct DetectorBench {
    const char* model;  // under models/
    void* (*create)(SonelAudioSamplingRate, SonelAudioFrameDuration, const char*);
    float (*frame)(void*, const float*, unsigned);
    int32_t (*close)(void*);
};

void detectorFrames(benchmark::State& state, const DetectorBench& detector) {
    const auto hostRate = static_cast<unsigned>(state.range(0));
    const std::string path = std::string(SONEL_SOURCE_DIR "/models/") + detector.model;
    sonelAudioGlobalInit(nullptr);
    const std::wstring widePath(path.begin(), path.end());
    void* session = nullptr;
    if (sonelAudioSetModel(widePath.c_str(), "detector") == SONEL_AUDIO_OK)
        session = detector.create(static_cast<SonelAudioSamplingRate>(hostRate), SONEL_AUDIO_FRAME_10MS, "detector");
    if (!session) {
        sonelAudioGlobalDestroy();
        state.SkipWithError(("no detector session (models/" + std::string(detector.model) + " missing?)").c_str());
        return;
    }
    const unsigned frame = hostRate / 100;
    std::vector<float> in(frame);
    for (unsigned i = 0; i < frame; ++i) in[i] = 0.1f * std::sin(0.05f * i) + 0.01f * ((i * 7919) % 13 - 6);
    for (auto _ : state) benchmark::DoNotOptimize(detector.frame(session, in.data(), frame));
    state.SetItemsProcessed(state.iterations());
    detector.close(session);
    sonelAudioRemoveModel("detector");
    sonelAudioGlobalDestroy();
}

void BM_VadFrame(benchmark::State& state) {
    detectorFrames(state, {"sonel-vad.vlw", sonelAudioVadCreateSession, sonelAudioVadFrameFloat,
                           sonelAudioVadCloseSession});
}

BENCHMARK(BM_VadFrame)->ArgName("host_hz")->Arg(8000)->Arg(16000)->Arg(48000);

void BM_RingtoneFrame(benchmark::State& state) {
    detectorFrames(state, {"sonel-ringtone.vlw", sonelAudioRingtoneCreateSession,
                           sonelAudioDetectRingtoneFrameFloat, sonelAudioRingtoneCloseSession});
}

BENCHMARK(BM_RingtoneFrame)->ArgName("host_hz")->Arg(16000)->Arg(44100)->Arg(48000);

// The noise-level estimator runs the cleaner on a copy of each frame: beside BM_NcFrame at the
// same rates this shows what measuring and smoothing add.
void BM_NoiseDbFrame(benchmark::State& state) {
    const auto hostRate = static_cast<unsigned>(state.range(0));
    const auto modelRate = static_cast<unsigned>(state.range(1));
    sonelAudioGlobalInit(nullptr);
    sonelAudioSetModel(shippedCleaner(modelRate, true).c_str(), "bench");
    void* session = sonelAudioNoiseDbCreateSession(static_cast<SonelAudioSamplingRate>(hostRate),
                                                   SONEL_AUDIO_FRAME_10MS, "bench");
    if (!session) {
        sonelAudioGlobalDestroy();
        state.SkipWithError("session could not be created");
        return;
    }
    const unsigned frame = hostRate / 100;
    std::vector<float> in(frame);
    for (unsigned i = 0; i < frame; ++i) in[i] = 0.1f * std::sin(0.05f * i) + 0.01f * ((i * 7919) % 13 - 6);
    for (auto _ : state) benchmark::DoNotOptimize(sonelAudioNoiseDbFrameFloat(session, in.data(), frame));
    state.SetItemsProcessed(state.iterations());
    sonelAudioNoiseDbCloseSession(session);
    sonelAudioRemoveModel("bench");
    sonelAudioGlobalDestroy();
}

BENCHMARK(BM_NoiseDbFrame)
    ->ArgNames({"host_hz", "model_hz"})
    ->Args({16000, 16000})
    ->Args({48000, 16000})
    ->Args({48000, 32000});

}  // namespace
