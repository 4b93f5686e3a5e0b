// The ringtone detector and its network: malformed models, ringtone sessions at every rate and
// frame duration, selection among models of several kinds, and the cleaning sessions' ringtone
// flag. Its numbers are held against the NumPy reference in reference_parity_test.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "noise_canceller/noise_cleaner_v0_0_5.h"
#include "noise_canceller/noise_db_cleaner_v0_0_1.h"
#include "noise_canceller/ringtone_cleaner_v0_0_1.h"
#include "sonel_audio_sdk/instance.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using SONEL::CONTAINERS::Matrix;
using SONEL::NOISE_CANCELLER::RingtoneCleaner_v0_0_1;
using SONEL::SONEL_AUDIO::SonelAudioSessionT;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr unsigned kFeatures = 127, kWidth = 16, kHidden = 12, kOut = 8;
const unsigned kRates[] = {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000};

// A random detector: one input layer of 16, a GRU of 12, output layers 12 → 8 → 1.
Records ringtoneRecords(unsigned seed = 1, const std::string& version = "0.0.6") {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    auto matrix = [&](unsigned r, unsigned c, float scale = 1.0f) {
        Matrix m(r, c);
        for (float& v : m.data) v = scale * normal(rng) / std::sqrt(static_cast<float>(c));
        return m;
    };
    auto values = [&](unsigned n, float base) {
        std::vector<float> v(n);
        for (float& x : v) x = base + 0.1f * normal(rng);
        return v;
    };
    std::vector<float> mu(kFeatures, 0.0f);
    mu.back() = 5.0f;  // the level feature
    return {{"Version", version},
            {"RingtoneVersion", std::string("0.0.1")},
            {"SampleRate", 8000u},
            {"FrameLength", 80u},
            {"ModelName", std::string("ring-test")},
            {"TimeStamp", std::string("20261124")},
            {"MU", mu},
            {"SD", std::vector<float>(kFeatures, 3.0f)},
            {"WeightLinear", std::vector<Matrix>{matrix(kWidth, kFeatures)}},
            {"BiasLinear", Vectors{values(kWidth, 0)}},
            {"GainLinearNorm", Vectors{values(kWidth, 1)}},
            {"BiasLinearNorm", Vectors{values(kWidth, 0)}},
            {"WeightGRU", matrix(2 * kHidden, kWidth + kHidden)},
            {"BiasGRU", values(3 * kHidden, 0)},
            {"WeightGRU_reset", matrix(kHidden, kWidth + kHidden)},
            {"BiasGRU_reset", values(kHidden, 0)},
            {"WeightNonLinear", std::vector<Matrix>{matrix(kOut, kHidden), matrix(1, kOut, 3.0f)}},
            {"BiasNonLinear", Vectors{values(kOut, 0), {0.0f}}},
            {"GainNonLinearNorm", Vectors{values(kOut, 1)}},
            {"BiasNonLinearNorm", Vectors{values(kOut, 0)}}};
}

// Noise with a 440 + 480 Hz ring that is on for 0.4 s of every 0.6 s, full scale ±1.
std::vector<float> ringing(unsigned hz, double seconds, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 0.03f);
    std::vector<float> x(static_cast<size_t>(seconds * hz));
    for (size_t i = 0; i < x.size(); ++i) {
        const double t = static_cast<double>(i) / hz;
        const bool on = std::fmod(t, 0.6) < 0.4;
        x[i] = normal(rng) +
               (on ? 0.2f * static_cast<float>(std::sin(2 * M_PI * 440 * t) + std::sin(2 * M_PI * 480 * t)) : 0.0f);
    }
    return x;
}

SonelAudioSessionT& sessionOf(void* handle) { return *static_cast<SonelAudioSessionT*>(handle); }

}  // namespace

TEST(RingtoneModel, MalformedRecordsAreRefusedByName) {
    auto matrices = [](Records& r, const char* key) -> std::vector<Matrix>& {
        return std::get<std::vector<Matrix>>(r[key]);
    };
    auto vectors = [](Records& r, const char* key) -> Vectors& { return std::get<Vectors>(r[key]); };
    const std::vector<std::pair<std::function<void(Records&)>, std::string>> cases = {
        {[](Records& r) { r["RingtoneVersion"] = std::string(); }, "RingtoneVersion is missing"},
        {[](Records& r) { r["MU"] = std::vector<float>(126, 0.0f); }, "MU and SD need 127 values"},
        {[](Records& r) { std::get<std::vector<float>>(r["SD"])[126] = 0.0f; }, "SD[126] is 0"},
        {[](Records& r) { r.erase("BiasGRU_reset"); }, "BiasGRU_reset doesn't exists"},
        {[&](Records& r) { matrices(r, "WeightLinear")[0] = Matrix(kWidth, 100); },
         "WeightLinear[0] is 16 x 100, not (at least 1) x 127"},
        {[&](Records& r) { vectors(r, "GainLinearNorm")[0].pop_back(); },
         "GainLinearNorm[0] and BiasLinearNorm[0] need 16 values"},
        {[](Records& r) { r["WeightGRU_reset"] = Matrix(kHidden, kWidth + kHidden + 1); }, "WeightGRU_reset is 12 x 29"},
        {[](Records& r) { r["WeightGRU"] = Matrix(3 * kHidden, kWidth + kHidden); }, "WeightGRU is 36 x 28, not 24 x 28"},
        {[](Records& r) { r["BiasGRU"] = std::vector<float>(2 * kHidden); }, "BiasGRU needs 36 values"},
        // No normalisation on the logistic layer.
        {[&](Records& r) { vectors(r, "GainNonLinearNorm").push_back({1.0f}); },
         "GainNonLinearNorm and BiasNonLinearNorm need 1 entries each, not 2 and 1"},
        {[&](Records& r) { matrices(r, "WeightNonLinear")[1] = Matrix(1, kOut + 1); }, "WeightNonLinear[1] is 1 x 9"},
        {[&](Records& r) {
             matrices(r, "WeightNonLinear")[1] = Matrix(2, kOut);
             vectors(r, "BiasNonLinear")[1] = {0.0f, 0.0f};
         },
         "a detector gives one probability"},
    };
    for (const auto& [apply, message] : cases) {
        Records records = ringtoneRecords();
        apply(records);
        EXPECT_THAT(refusal<RingtoneCleaner_v0_0_1>(modelOf(records), 16000), HasSubstr(message));
    }
    EXPECT_THAT(refusal<RingtoneCleaner_v0_0_1>(modelOf(ringtoneRecords()), 7999),
                HasSubstr("sample rate 7999 Hz is outside"));

    // Other record names: the same network under them runs the same.
    Records renamed;
    for (const auto& [name, value] : ringtoneRecords())
        renamed[name == "SampleRate" || name == "Version" ? name : "Ring" + name] = value;
    SONEL::NOISE_CANCELLER::LayerNormGru::Keys keys;
    for (std::string* key : {&keys.mean, &keys.deviation, &keys.inputWeights, &keys.inputBiases, &keys.inputGains,
                             &keys.inputNormBiases, &keys.gruWeight, &keys.gruBias, &keys.resetWeight, &keys.resetBias,
                             &keys.outputWeights, &keys.outputBiases, &keys.outputGains, &keys.outputNormBiases})
        *key = "Ring" + *key;
    SONEL::NOISE_CANCELLER::LayerNormGru plain(*modelOf(ringtoneRecords()), kFeatures),
        named(*modelOf(renamed), kFeatures, keys);
    std::vector<float> features(kFeatures);
    for (int step = 0; step < 5; ++step) {
        for (unsigned i = 0; i < kFeatures; ++i) features[i] = std::sin(0.1f * i * (step + 1));
        float a = -1.0f, b = -2.0f;
        plain.calcRMForwardProp_GRU_Layernorm(features.data(), &a);
        named.calcRMForwardProp_GRU_Layernorm(features.data(), &b);
        EXPECT_EQ(a, b);
    }
}

TEST(RingtoneSession, EveryRateAndDurationGivesTheMeanOfItsHopsWithoutAllocating) {
    Registry registry;
    registry.add(writerOf(ringtoneRecords()), "ring");
    size_t allocations = 0;
    for (unsigned host : kRates) {
        const size_t hop = host / 100;
        const std::vector<float> x = ringing(host, 1.3, host);
        // One value per hop from 10 ms frames, which at every rate are one hop.
        void* tens = sonelAudioRingtoneCreateSession(rate(host), SONEL_AUDIO_FRAME_10MS, "ring");
        ASSERT_NE(tens, nullptr);
        EXPECT_EQ(sessionOf(tens).cleaner().sampleRate(), host);  // no converter
        std::vector<float> perHop;
        for (size_t pos = 0; pos + hop <= x.size(); pos += hop)
            perHop.push_back(sonelAudioDetectRingtoneFrameFloat(tens, x.data() + pos, static_cast<unsigned>(hop)));
        EXPECT_EQ(sonelAudioRingtoneCloseSession(tens), SONEL_AUDIO_OK);
        ASSERT_GT(*std::max_element(perHop.begin(), perHop.end()) - *std::min_element(perHop.begin(), perHop.end()),
                  0.1f);

        for (unsigned ms : {0u, 5u, 15u, 25u, 32u, 40u, 50u}) {
            SCOPED_TRACE(std::to_string(host) + " Hz, " + std::to_string(ms) + " ms");
            CaptureStderr();
            void* session =
                sonelAudioRingtoneCreateSession(rate(host), static_cast<SonelAudioFrameDuration>(ms), "ring");
            const std::string why = GetCapturedStderr();
            if (ms == 0) {
                EXPECT_EQ(session, nullptr);
                EXPECT_NE(why.find("holds no samples"), std::string::npos) << why;
                continue;
            }
            ASSERT_NE(session, nullptr);
            const size_t frame = sessionOf(session).inputFrameSize();
            // A frame's value is the mean of the hops it completes, or the last value.
            float expected = 0.0f;
            for (size_t f = 0; (f + 1) * frame <= x.size(); ++f) {
                const size_t first = f * frame / hop, end = (f + 1) * frame / hop;
                if (end > first) {
                    double sum = 0.0;
                    for (size_t h = first; h < end; ++h) sum += perHop[h];
                    expected = static_cast<float>(sum / static_cast<double>(end - first));
                }
                const size_t before = allocationCount();
                const float p =
                    sonelAudioDetectRingtoneFrameFloat(session, x.data() + f * frame, static_cast<unsigned>(frame));
                if (f >= 2) allocations += allocationCount() - before;
                ASSERT_NEAR(p, expected, 1e-6f) << "frame " << f;
            }
            EXPECT_EQ(sonelAudioRingtoneCloseSession(session), SONEL_AUDIO_OK);
        }
    }
    EXPECT_EQ(allocations, 0u);
}

TEST(RingtoneSession, ReturnCodesSelectionByKindAndRefusedModels) {
    {
        Registry registry;
        CleanerModelSpec spec;
        registry.add(cleanerModel(spec), "a16");
        spec.rate = 32000;
        registry.add(cleanerModel(spec), "b32");
        registry.add(writerOf(ringtoneRecords()), "ring");
        // Whatever the name, ringtone sessions get the detector at their own rate and cleaning
        // sessions a cleaner by the usual rule: at 8 kHz, below both, the last cleaner.
        for (unsigned host : {8000u, 16000u, 44100u, 48000u}) {
            SCOPED_TRACE(host);
            void* ring = sonelAudioRingtoneCreateSession(rate(host), SONEL_AUDIO_FRAME_10MS, "a16");
            void* nc = sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "ring");
            void* level = sonelAudioNoiseDbCreateSession(rate(host), SONEL_AUDIO_FRAME_10MS, "ring");
            ASSERT_TRUE(ring && nc && level);
            EXPECT_NE(dynamic_cast<RingtoneCleaner_v0_0_1*>(&sessionOf(ring).cleaner()), nullptr);
            EXPECT_EQ(sessionOf(ring).cleaner().sampleRate(), host);
            EXPECT_NE(dynamic_cast<SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_5*>(&sessionOf(nc).cleaner()), nullptr);
            EXPECT_EQ(sessionOf(nc).cleaner().sampleRate(), host == 16000 ? 16000u : 32000u);
            EXPECT_NE(dynamic_cast<SONEL::NOISE_CANCELLER::NoiseDBCleaner_v0_0_1*>(&sessionOf(level).cleaner()),
                      nullptr);

            const unsigned n = host / 100;
            std::vector<float> samples = ringing(host, 0.01, 1);
            std::vector<short> pcm(n);
            for (unsigned i = 0; i < n; ++i) pcm[i] = static_cast<short>(samples[i] * 32768.0f);
            const float p = sonelAudioDetectRingtoneFrameInt16(ring, pcm.data(), n);
            EXPECT_TRUE(p >= 0.0f && p <= 1.0f) << p;
            CaptureStderr();
            EXPECT_EQ(sonelAudioDetectRingtoneFrameFloat(ring, samples.data(), n - 1), -4.0f);  // the session's −2
            EXPECT_EQ(sonelAudioDetectRingtoneFrameFloat(ring, nullptr, n), -4.0f);
            EXPECT_EQ(sonelAudioDetectRingtoneFrameInt16(ring, pcm.data(), n + 1), -3.0f);  // its exception
            EXPECT_EQ(sonelAudioDetectRingtoneFrameInt16(ring, nullptr, n), -3.0f);
            EXPECT_EQ(sonelAudioDetectRingtoneFrameFloat(nc, samples.data(), n), -4.0f);
            EXPECT_EQ(sonelAudioDetectRingtoneFrameInt16(nullptr, pcm.data(), n), -4.0f);
            EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(ring, samples.data(), n, samples.data(), n),
                      SONEL_AUDIO_WRONG_SESSION);
            EXPECT_EQ(sonelAudioNcCloseSession(ring), SONEL_AUDIO_SONEL_EXCEPTION);
            EXPECT_EQ(sonelAudioRingtoneCloseSession(nc), SONEL_AUDIO_SONEL_EXCEPTION);
            GetCapturedStderr();
            EXPECT_EQ(sonelAudioRingtoneCloseSession(ring), SONEL_AUDIO_OK);
            EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
            EXPECT_EQ(sonelAudioNoiseDbCloseSession(level), SONEL_AUDIO_OK);
        }
    }

    // A model alone of a later generation, detector or cleaner, refuses a ringtone session.
    Records cleaner07;
    for (const char* key : {"SampleRate", "FrameLength", "ModelName", "TimeStamp"})
        cleaner07[key] = ringtoneRecords()[key];
    cleaner07["Version"] = std::string("0.0.7");
    for (const Records& model : {ringtoneRecords(1, "0.0.7"), cleaner07}) {
        Registry registry;
        registry.add(writerOf(model), "refused");
        CaptureStderr();
        EXPECT_EQ(sonelAudioRingtoneCreateSession(rate(48000), SONEL_AUDIO_FRAME_10MS, "refused"), nullptr);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr("Unsupported weight version"));
    }
}

TEST(RingtoneFlag, CleaningSessionsReportTheDetectorWithoutChangingTheirOutput) {
    // A random cleaner, so its output depends on every sample and its state.
    CleanerModelSpec spec;
    spec.weightScale = 1.0f;
    spec.outputBias = 0.0f;
    const std::vector<float> x = ringing(48000, 2.0, 7);
    for (unsigned host : {16000u, 48000u}) {
        SCOPED_TRACE(host);
        Registry registry;
        registry.add(cleanerModel(spec), "nc");
        const unsigned n = host / 100, frames = static_cast<unsigned>(x.size() / 480);
        auto stats = [&] {
            return sonelAudioNcWithStatsCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "nc");
        };
        void* before = stats();  // made while no detector is registered
        registry.add(writerOf(ringtoneRecords()), "ring");
        // The threshold is the median of what a ringtone session at the cleaner's rate reports, so
        // both states occur.
        void* ring = sonelAudioRingtoneCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, "ring");
        std::vector<float> modelRate(160), reference;
        for (unsigned f = 0; f < frames; ++f) {
            for (unsigned i = 0; i < 160; ++i) modelRate[i] = x[f * 480 + i * 3];
            reference.push_back(sonelAudioDetectRingtoneFrameFloat(ring, modelRate.data(), 160));
        }
        std::vector<float> sorted = reference;
        std::nth_element(sorted.begin(), sorted.begin() + frames / 2, sorted.end());
        void* plain = stats();
        void* nc = sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "nc");
        // The threshold is process-wide and set by the latest statistics session's creation.
        setenv("sonel_env_csd_threshold", std::to_string(sorted[frames / 2]).c_str(), 1);
        void* flagged = stats();
        unsetenv("sonel_env_csd_threshold");
        const float threshold = SONEL::SONEL_AUDIO::SonelAudioInstanceT::csdThreshold_;
        ASSERT_TRUE(before && flagged && plain && nc);

        size_t differing = 0, allocations = 0;
        unsigned states[3] = {0, 0, 0};
        std::vector<float> in(n), a(n), b(n), c(n), d(n);
        for (unsigned f = 0; f < frames; ++f) {
            // The host's frame holds the same 10 ms as the reference's.
            for (unsigned i = 0; i < n; ++i) in[i] = x[f * 480 + i * 48000 / host];
            SonelAudioNcFrameInfo withFlag{}, without{}, early{};
            const size_t count = allocationCount();
            ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(flagged, in.data(), n, a.data(), n, true,
                                                                              &withFlag),
                      0);
            if (f >= 10) allocations += allocationCount() - count;
            ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(plain, in.data(), n, b.data(), n, false,
                                                                              &without),
                      0);
            ASSERT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(before, in.data(), n, c.data(), n, true,
                                                                              &early),
                      0);
            ASSERT_EQ(sonelAudioNcCleanAmbientNoiseWithRingtoneFloat(nc, in.data(), n, d.data(), n, true), 0);
            for (unsigned i = 0; i < n; ++i) differing += a[i] != b[i] || c[i] != b[i] || d[i] != b[i];
            EXPECT_EQ(without.ringtoneState, 0u);
            EXPECT_EQ(early.ringtoneState, 0u);
            ASSERT_LE(withFlag.ringtoneState, 2u);
            ++states[withFlag.ringtoneState];
            // At the model's rate the detector reads the frames the ringtone session read.
            if (host == 16000) EXPECT_EQ(withFlag.ringtoneState, reference[f] >= threshold ? 1u : 2u) << f;
        }
        EXPECT_EQ(differing, 0u);
        EXPECT_EQ(allocations, 0u);
        EXPECT_EQ(states[0], 0u);
        EXPECT_GT(states[1], frames / 4);
        EXPECT_GT(states[2], frames / 4);
        for (void* s : {before, flagged, plain}) EXPECT_EQ(sonelAudioNcWithStatsCloseSession(s), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioRingtoneCloseSession(ring), SONEL_AUDIO_OK);
    }

    // A detector that cannot be built is reported once; the flag then reports nothing.
    Registry registry;
    registry.add(cleanerModel(spec), "nc");
    Records bad = ringtoneRecords();
    bad["MU"] = std::vector<float>(3, 0.0f);
    registry.add(writerOf(bad), "bad");
    void* session = sonelAudioNcWithStatsCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, "nc");
    ASSERT_NE(session, nullptr);
    CaptureStderr();
    for (unsigned f = 0; f < 5; ++f) {
        std::vector<float> frame(x.begin() + f * 160, x.begin() + (f + 1) * 160);
        SonelAudioNcFrameInfo info{};
        EXPECT_EQ(sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(session, frame.data(), 160, frame.data(), 160,
                                                                          true, &info),
                  0);
        EXPECT_EQ(info.ringtoneState, 0u);
    }
    const std::string said = GetCapturedStderr();
    EXPECT_THAT(said, HasSubstr("MU and SD need 127 values"));
    EXPECT_EQ(said.find("MU and SD"), said.rfind("MU and SD"));
    EXPECT_EQ(sonelAudioNcWithStatsCloseSession(session), SONEL_AUDIO_OK);
}
