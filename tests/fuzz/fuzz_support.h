#pragma once
// Shared by the fuzz targets: quiet library logs, checks that end the run as a finding, and the
// session run every target gives a model once it is registered.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "sonel-audio-sdk.h"
#include "sonel_audio_sdk/instance.h"

namespace sonel_fuzz {

// A broken promise of the C interface: abort, which libFuzzer records as a crash with its input.
inline void check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "sonel fuzz check failed: %s\n", what);
    std::abort();
}

// The library reports every refusal on standard output or standard error; at fuzzing rates the
// text costs more than the work. Sanitizer and libFuzzer reports go to the descriptor directly.
inline void initialise() {
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
    check(sonelAudioGlobalInit(nullptr) == SONEL_AUDIO_OK, "global init");
}

// Float output is promised in -1 ... 1, which rules out NaN and the infinities too.
inline void checkFloatOutput(const float* samples, size_t count) {
    for (size_t i = 0; i < count; ++i)
        check(samples[i] >= -1.0f && samples[i] <= 1.0f, "float output outside -1 ... 1");
}

inline void checkFrameInfo(const SonelAudioNcFrameInfo& info) {
    check(info.voiceLevel <= 100 && info.noiseLevel <= 100, "frame level above 100");
    check(info.ringtoneState <= 2, "ringtone state outside 0 ... 2");
}

// Talk and noise time are parts of the audio cleaned so far.
inline void checkStats(void* session, uint64_t cleanedMs) {
    SonelAudioNcStats stats{};
    check(sonelAudioNcWithStatsRetrieveStats(session, &stats) == SONEL_AUDIO_OK,
          "stats of a live session");
    const uint64_t noiseMs = static_cast<uint64_t>(stats.noNoiseMs) + stats.lowNoiseMs +
                             stats.mediumNoiseMs + stats.highNoiseMs;
    check(stats.talkTimeMs <= cleanedMs && noiseMs <= cleanedMs, "stats exceed the audio cleaned");
}

// A speech-like test signal in -1 ... 1: two tones and noise.
inline std::vector<float> testSignal(size_t samples, unsigned rate) {
    constexpr double kTwoPi = 6.283185307179586;
    std::vector<float> out(samples);
    uint32_t noise = 12345;
    for (size_t i = 0; i < samples; ++i) {
        noise = noise * 1664525u + 1013904223u;
        const double t = static_cast<double>(i) / rate;
        const double value = 0.3 * std::sin(kTwoPi * 220 * t) + 0.1 * std::sin(kTwoPi * 1500 * t) +
                             0.2 * (static_cast<double>(noise >> 8) / (1u << 24) - 0.5);
        out[i] = static_cast<float>(value);
    }
    return out;
}

// The sampling rate of a registered model, or 16 kHz when it has none a session could run at.
inline SonelAudioSamplingRate modelRate(const char* name) {
    using SONEL::SONEL_AUDIO::SonelAudioInstanceT;
    const auto& models = SonelAudioInstanceT::Instance(SONEL::SONEL_AUDIO::GET)->models();
    const auto model = models.find(name);
    const unsigned* rate =
        model == models.end() ? nullptr : model->second->first->find<unsigned>("SampleRate");
    if (rate && (*rate == 8000 || *rate == 16000 || *rate == 24000 || *rate == 32000))
        return static_cast<SonelAudioSamplingRate>(*rate);
    return SONEL_AUDIO_RATE_16000;
}

// What a host does with a model it registered: an NC session with float frames and an NC session
// with statistics with 16-bit frames, both at the model's own rate, a few frames each. The
// second frame is at full scale (the clip paths), the third silent (the energy gate). No
// resampler: opening one costs more than everything else an input does (its filter tables), the
// model plays no part in it, and clean_frames drives every rate pair. Creation may refuse a
// model; a session once made must clean every frame of the right size to valid output.
inline void cleanWithModel(const char* name) {
    constexpr unsigned kFrames = 4;
    const SonelAudioSamplingRate rate = modelRate(name);
    const unsigned size = rate / 100;
    if (void* nc = sonelAudioNcCreateSession(rate, rate, SONEL_AUDIO_FRAME_10MS, name)) {
        const std::vector<float> signal = testSignal(kFrames * size, rate);
        std::vector<float> in(size), out(size);
        for (unsigned f = 0; f < kFrames; ++f) {
            std::copy_n(signal.begin() + f * size, size, in.begin());
            if (f == 1)
                for (float& s : in) s = s < 0 ? -1.0f : 1.0f;
            if (f == 2) std::fill(in.begin(), in.end(), 0.0f);
            check(sonelAudioNcCleanAmbientNoiseFloat(nc, in.data(), size, out.data(), size) ==
                      SONEL_AUDIO_OK,
                  "NC session refused a float frame at the model's rate");
            checkFloatOutput(out.data(), out.size());
        }
        check(sonelAudioNcCloseSession(nc) == SONEL_AUDIO_OK, "close NC session");
    }
    if (void* stats = sonelAudioNcWithStatsCreateSession(rate, rate, SONEL_AUDIO_FRAME_10MS, name)) {
        const std::vector<float> signal = testSignal(kFrames * size, rate);
        std::vector<short> in(size), out(size);
        for (unsigned f = 0; f < kFrames; ++f) {
            for (size_t i = 0; i < in.size(); ++i)
                in[i] = static_cast<short>(signal[f * size + i] * (f == 1 ? 32767 : 8000));
            SonelAudioNcFrameInfo info{};
            check(sonelAudioNcWithStatsCleanAmbientNoiseInt16(stats, in.data(), size, out.data(),
                                                              size, &info) == SONEL_AUDIO_OK,
                  "NC session with statistics refused a 16-bit frame at the model's rate");
            checkFrameInfo(info);
        }
        checkStats(stats, kFrames * 10);
        check(sonelAudioNcWithStatsCloseSession(stats) == SONEL_AUDIO_OK,
              "close NC session with statistics");
    }
}

}  // namespace sonel_fuzz
