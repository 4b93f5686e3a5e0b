// The layer-normalised cleaners, v0.0.6 and its separable-dense form v0.0.7: malformed models,
// which files cleaning sessions take, sessions at 16 and 48 kHz hosts without allocation per
// frame, reset, and their post-processing keys. Their numbers are held against the NumPy
// reference in reference_parity_test.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "noise_canceller/noise_cleaner_v0_0_6.h"
#include "noise_canceller/noise_cleaner_v0_0_7.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using SONEL::CONTAINERS::Matrix;
using SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_6;
using SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_7;
using SONEL::SONEL_AUDIO::SonelAudioSessionT;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

// A 16 kHz model: bins 1 … 160 at compress rate 3 (50 bands, not the default rate's 80), two past
// frames of context, an input layer of 16, a GRU of 12 and an output layer of 10.
constexpr unsigned kRate = 16000, kCompress = 3, kPreview = 2, kWidth = 16, kHidden = 12, kOut = 10;
const unsigned kBands =
    static_cast<unsigned>(SONEL::NOISE_CANCELLER::BandLayout(kRate / 100, kCompress).bandCount());
const unsigned kFeatures = (kPreview + 1) * kBands;

Records cleanerRecords(unsigned seed = 1) {
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
    return {{"Version", std::string("0.0.6")},
            {"SampleRate", kRate},
            {"FrameLength", 2 * kRate / 100},
            {"Step", kRate / 100},
            {"FiltrBegin", 1u},
            {"FiltrEnd", kRate / 100},
            {"PreviewFrames", kPreview},
            {"CoefficientNumber", kBands},
            {"FreezeLowEnThr", 0.0f},
            {"FreezeHighEnThr", 0.0f},
            {"LogPowerEpsilon", 1.0f},
            {"ModelName", std::string("v006-test")},
            {"TimeStamp", std::string("20261124")},
            {"CONTROL_VELTA_COMPRESS_RATE_v0_0_6", kCompress},
            {"MU", std::vector<float>(kFeatures, 8.0f)},
            {"SD", std::vector<float>(kFeatures, 3.0f)},
            {"WeightLinear", std::vector<Matrix>{matrix(kWidth, kFeatures)}},
            {"BiasLinear", Vectors{values(kWidth, 0)}},
            {"GainLinearNorm", Vectors{values(kWidth, 1)}},
            {"BiasLinearNorm", Vectors{values(kWidth, 0)}},
            {"WeightGRU", matrix(2 * kHidden, kWidth + kHidden)},
            {"BiasGRU", values(3 * kHidden, 0)},
            {"WeightGRU_reset", matrix(kHidden, kWidth + kHidden)},
            {"BiasGRU_reset", values(kHidden, 0)},
            {"WeightNonLinear", std::vector<Matrix>{matrix(kOut, kHidden), matrix(kBands, kOut, 2.0f)}},
            {"BiasNonLinear", Vectors{values(kOut, 0), values(kBands, 0.5f)}},
            {"GainNonLinearNorm", Vectors{values(kOut, 1)}},
            {"BiasNonLinearNorm", Vectors{values(kOut, 0)}}};
}

// The same model as a 0.0.7 file: the 0.0.7 filter records (the end one past the last bin) and
// compress-rate key, its GRU and first output layer in `groups` groups (their matrices cut to
// the columns each group reads).
Records v007Records(unsigned groups) {
    Records r = cleanerRecords();
    r["Version"] = std::string("0.0.7");
    r["FilterBegin"] = r["FiltrBegin"];
    r["FilterEnd"] = kRate / 100 + 1;
    r["CONTROL_SONEL_COMPRESS_RATE_v0_0_7"] = kCompress;
    for (const char* old : {"FiltrBegin", "FiltrEnd", "CONTROL_VELTA_COMPRESS_RATE_v0_0_6"}) r.erase(old);
    auto narrow = [](Matrix& m, unsigned columns) {
        Matrix cut(m.rows, columns);
        for (unsigned i = 0; i < m.rows; ++i)
            for (unsigned c = 0; c < columns; ++c) cut.at(i, c) = m.at(i, c);
        m = cut;
    };
    narrow(std::get<Matrix>(r["WeightGRU"]), (kWidth + kHidden) / groups);
    narrow(std::get<Matrix>(r["WeightGRU_reset"]), (kWidth + kHidden) / groups);
    narrow(std::get<std::vector<Matrix>>(r["WeightNonLinear"])[0], kHidden / groups);
    return r;
}

// A voiced tone with noise whose level moves, full scale ±1.
std::vector<float> noisyVoice(unsigned hz, double seconds, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> x(static_cast<size_t>(seconds * hz));
    for (size_t i = 0; i < x.size(); ++i) {
        const double t = static_cast<double>(i) / hz;
        const double voice = std::sin(2 * M_PI * 180 * t) + 0.5 * std::sin(2 * M_PI * 360 * t);
        x[i] = static_cast<float>(0.05 * (1.2 + std::sin(2 * M_PI * 2 * t)) * voice) + 0.02f * normal(rng);
    }
    return x;
}

// Output of a session at the model's rate fed `x` in 10 ms frames, the model alone in the
// registry (selection would otherwise pick any cleaner at the rate).
std::vector<float> cleanedBySession(const Records& model, const std::vector<float>& x) {
    Registry registry;
    registry.add(writerOf(model), "model");
    CaptureStdout();  // the volume increase's note that it brings the clip fix
    void* session = sonelAudioNcCreateSession(rate(kRate), rate(kRate), SONEL_AUDIO_FRAME_10MS, "model");
    GetCapturedStdout();
    EXPECT_NE(session, nullptr);
    if (!session) return {};
    const unsigned n = kRate / 100;
    std::vector<float> out(x.size());
    for (size_t pos = 0; pos + n <= x.size(); pos += n)
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, x.data() + pos, n, out.data() + pos, n), SONEL_AUDIO_OK);
    EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
    return out;
}

}  // namespace

TEST(NoiseCleanerV006, MalformedRecordsAreRefusedByName) {
    auto matrices = [](Records& r, const char* key) -> std::vector<Matrix>& {
        return std::get<std::vector<Matrix>>(r[key]);
    };
    auto vectors = [](Records& r, const char* key) -> Vectors& { return std::get<Vectors>(r[key]); };
    const std::string features = std::to_string(kFeatures), bands = std::to_string(kBands);
    const std::vector<std::tuple<const char*, std::function<void(Records&)>, std::string>> cases = {
        {"no front-end record", [](Records& r) { r.erase("Step"); }, "Step doesn't exists"},
        // Read under the v0.0.5 name the compress rate is the default 2: 80 bands, not 50.
        {"compress rate under the v0.0.5 name",
         [](Records& r) {
             r["CONTROL_VELTA_COMPRESS_RATE_v0_0_5"] = r["CONTROL_VELTA_COMPRESS_RATE_v0_0_6"];
             r.erase("CONTROL_VELTA_COMPRESS_RATE_v0_0_6");
         },
         "CoefficientNumber " + bands + " but 80 bands"},
        // One value per band, as a v0.0.5 model may hold, is not one per input.
        {"MU per band", [](Records& r) { r["MU"] = std::vector<float>(kBands, 8.0f); },
         "MU and SD need " + features + " values"},
        {"negative SD", [](Records& r) { std::get<std::vector<float>>(r["SD"])[7] = -1.0f; }, "SD[7] is -1"},
        {"no reset bias", [](Records& r) { r.erase("BiasGRU_reset"); }, "BiasGRU_reset doesn't exists"},
        {"input layer reads the current frame only",
         [&](Records& r) { matrices(r, "WeightLinear")[0] = Matrix(kWidth, kBands); },
         "WeightLinear[0] is 16 x " + bands + ", not (at least 1) x " + features},
        {"norm gain width", [&](Records& r) { vectors(r, "GainNonLinearNorm")[0].pop_back(); },
         "GainNonLinearNorm[0] and BiasNonLinearNorm[0] need 10 values"},
        {"one gain short",
         [&](Records& r) {
             matrices(r, "WeightNonLinear")[1] = Matrix(kBands - 1, kOut);
             vectors(r, "BiasNonLinear")[1].pop_back();
         },
         "WeightNonLinear has " + std::to_string(kBands - 1) + " rows, not one per band (" + bands + ")"},
    };
    for (const auto& [change, apply, message] : cases) {
        SCOPED_TRACE(change);
        Records records = cleanerRecords();
        apply(records);
        EXPECT_THAT(refusal<NoiseCleaner_v0_0_6>(modelOf(records), kRate), HasSubstr(message));
    }

    // Through the C interface: a malformed cleaner is refused with the reason, and a "0.0.6" file
    // with a ringtone version is a detector, which no cleaning session runs.
    Records bad = cleanerRecords(), detector = cleanerRecords();
    bad["BiasGRU"] = std::vector<float>(2 * kHidden);
    detector["RingtoneVersion"] = std::string("0.0.1");
    for (const auto& [records, message] : {std::pair{bad, "BiasGRU needs 36 values"},
                                           std::pair{detector, "Unsupported weight version"}}) {
        SCOPED_TRACE(message);
        Registry registry;
        registry.add(writerOf(records), "model");
        CaptureStderr();
        EXPECT_EQ(sonelAudioNcCreateSession(rate(kRate), rate(kRate), SONEL_AUDIO_FRAME_10MS, "model"), nullptr);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr(message));
    }
}

TEST(LayerNormCleaners, SessionsAt16And48kHzCleanWithoutAllocatingPerFrameAndResetToNew) {
    for (const auto& [records, v007] : {std::pair{cleanerRecords(), false}, std::pair{v007Records(2), true}}) {
        Registry registry;
        registry.add(writerOf(records), "layer-norm");
        for (unsigned host : {16000u, 48000u}) {
            SCOPED_TRACE(std::to_string(host) + (v007 ? " Hz, v0.0.7" : " Hz, v0.0.6"));
            void* session = sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "layer-norm");
            ASSERT_NE(session, nullptr);
            SONEL::NOISE_CANCELLER::NoiseCleaner& cleaner = static_cast<SonelAudioSessionT*>(session)->cleaner();
            EXPECT_EQ(dynamic_cast<NoiseCleaner_v0_0_7*>(&cleaner) != nullptr, v007);
            EXPECT_EQ(dynamic_cast<NoiseCleaner_v0_0_6*>(&cleaner) != nullptr, !v007);
            EXPECT_EQ(cleaner.sampleRate(), kRate);

            const std::vector<float> x = noisyVoice(host, 3.0, host);
            const unsigned n = host / 100;
            std::vector<float> out(n);
            size_t allocations = 0, nonFinite = 0;
            double in2 = 0.0, out2 = 0.0;
            for (size_t f = 0; (f + 1) * n <= x.size(); ++f) {
                const size_t before = allocationCount();
                ASSERT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, x.data() + f * n, n, out.data(), n),
                          SONEL_AUDIO_OK);
                if (f >= 10) allocations += allocationCount() - before;
                for (unsigned i = 0; i < n; ++i) {
                    nonFinite += std::isfinite(out[i]) ? 0 : 1;
                    in2 += static_cast<double>(x[f * n + i]) * x[f * n + i];
                    out2 += static_cast<double>(out[i]) * out[i];
                }
            }
            EXPECT_EQ(allocations, 0u);
            EXPECT_EQ(nonFinite, 0u);
            // The gains are below 1 and squared: the output is quieter than the input, but not silent.
            EXPECT_LT(out2, 0.9 * in2);
            EXPECT_GT(out2, 0.01 * in2);
            EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
        }
    }

    // After a reset the cleaner cleans as a new one: recurrent state, context and buffers restart.
    using Cleaner = SONEL::NOISE_CANCELLER::NoiseCleaner;
    const std::vector<float> first = noisyVoice(kRate, 0.5, 1), second = noisyVoice(kRate, 0.5, 2);
    // `x` in 10 ms frames at the 16-bit scale, cleaned in place.
    auto clean = [](Cleaner& cleaner, std::vector<float> x) {
        for (auto frame = x.begin(); frame + kRate / 100 <= x.end(); frame += kRate / 100) {
            std::vector<float> block(frame, frame + kRate / 100);
            for (float& v : block) v *= 32768.0f;
            cleaner.cleanNoise(block, nullptr, false);
            EXPECT_EQ(block.size(), kRate / 100);
            std::copy_n(block.begin(), std::min<size_t>(block.size(), kRate / 100), frame);
        }
        return x;
    };
    CaptureStdout();
    NoiseCleaner_v0_0_6 used6(modelOf(cleanerRecords()), kRate), fresh6(modelOf(cleanerRecords()), kRate);
    NoiseCleaner_v0_0_7 used7(modelOf(v007Records(2)), kRate), fresh7(modelOf(v007Records(2)), kRate);
    GetCapturedStdout();
    for (auto [used, fresh] : {std::pair<Cleaner*, Cleaner*>{&used6, &fresh6}, {&used7, &fresh7}}) {
        clean(*used, first);
        used->resetSession();
        EXPECT_TRUE(clean(*used, second) == clean(*fresh, second));
    }
}

TEST(NoiseCleanerV006, PostProcessingKeysTakeEffectUnderTheV006NamesOnly) {
    Records louder = cleanerRecords(), misnamed = cleanerRecords();
    louder["CONTROL_VELTA_VOLUME_UP_v0_0_6"] = std::string("t");
    louder["CONTROL_VELTA_VOLUME_UP_PERCENT_v0_0_6"] = 100.0f;
    misnamed["CONTROL_SONEL_VOLUME_UP_v0_0_5"] = std::string("t");
    misnamed["CONTROL_SONEL_VOLUME_UP_PERCENT_v0_0_5"] = 100.0f;
    // Quiet enough that twice the output stays far below the clip fix's point.
    const std::vector<float> x = noisyVoice(kRate, 1.0, 3);
    const std::vector<float> plain = cleanedBySession(cleanerRecords(), x), up = cleanedBySession(louder, x),
                             other = cleanedBySession(misnamed, x);
    ASSERT_EQ(plain.size(), x.size());
    ASSERT_EQ(up.size(), x.size());
    ASSERT_EQ(other.size(), x.size());
    double energy = 0.0;
    size_t notDoubled = 0, changed = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        energy += static_cast<double>(plain[i]) * plain[i];
        notDoubled += std::fabs(up[i] - 2.0f * plain[i]) > 1e-6f;
        changed += other[i] != plain[i];
    }
    EXPECT_GT(energy, 1e-3);
    EXPECT_EQ(notDoubled, 0u);
    EXPECT_EQ(changed, 0u);
}

TEST(NoiseCleanerV007, OneGroupIsTheV006NetworkAndNoTuningKeyIsRead) {
    // Tuning under either generation's pattern with the 0.0.7 tag changes nothing: the cleaner
    // reads the compress rate alone, and in one group its network is the 0.0.6 one.
    Records tuned = v007Records(1);
    for (const char* prefix : {"CONTROL_SONEL_", "CONTROL_VELTA_"}) {
        tuned[std::string(prefix) + "VOLUME_UP_v0_0_7"] = std::string("t");
        tuned[std::string(prefix) + "VOLUME_UP_PERCENT_v0_0_7"] = 100.0f;
        tuned[std::string(prefix) + "ENABLE_RESCALE_v0_0_7"] = std::string("f");
    }
    const std::vector<float> x = noisyVoice(kRate, 1.0, 4);
    const std::vector<float> v006 = cleanedBySession(cleanerRecords(), x), v007 = cleanedBySession(tuned, x),
                             grouped = cleanedBySession(v007Records(2), x);
    ASSERT_EQ(v007.size(), x.size());
    ASSERT_EQ(grouped.size(), x.size());
    size_t differing = 0, groupedDiffering = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        differing += v007[i] != v006[i];
        groupedDiffering += grouped[i] != v006[i];
    }
    EXPECT_EQ(differing, 0u);
    EXPECT_GT(groupedDiffering, x.size() / 2);
}

TEST(NoiseCleanerV007, MalformedRecordsAreRefusedByName) {
    auto matrices = [](Records& r, const char* key) -> std::vector<Matrix>& {
        return std::get<std::vector<Matrix>>(r[key]);
    };
    const std::vector<std::tuple<const char*, std::function<void(Records&)>, std::string>> cases = {
        {"v0.0.5 filter names",
         [](Records& r) {
             r["FiltrBegin"] = r["FilterBegin"];
             r.erase("FilterBegin");
         },
         "FilterBegin doesn't exists"},
        {"empty filter range", [](Records& r) { r["FilterEnd"] = 1u; }, "FilterEnd must lie above FilterBegin"},
        // Read under the 0.0.6 name the compress rate is the default 2: 80 bands, not 50.
        {"compress rate under the v0.0.6 name",
         [](Records& r) {
             r["CONTROL_VELTA_COMPRESS_RATE_v0_0_6"] = r["CONTROL_SONEL_COMPRESS_RATE_v0_0_7"];
             r.erase("CONTROL_SONEL_COMPRESS_RATE_v0_0_7");
         },
         "CoefficientNumber " + std::to_string(kBands) + " but 80 bands"},
        // 4 of the 16 input and 12 state columns would be 7 groups, which split neither part.
        {"GRU groups that split neither part", [](Records& r) { r["WeightGRU_reset"] = Matrix(kHidden, 4); },
         "WeightGRU_reset is 12 x 4"},
        {"update gate in other groups than the reset gate",
         [](Records& r) { r["WeightGRU"] = Matrix(2 * kHidden, kWidth + kHidden); },
         "WeightGRU is 24 x 28, not 24 x 14"},
        {"output rows its groups do not split",
         [&](Records& r) { matrices(r, "WeightNonLinear")[0] = Matrix(kOut, 3); },
         "WeightNonLinear[0] is 10 x 3"},
    };
    for (const auto& [change, apply, message] : cases) {
        SCOPED_TRACE(change);
        Records records = v007Records(2);
        apply(records);
        EXPECT_THAT(refusal<NoiseCleaner_v0_0_7>(modelOf(records), kRate), HasSubstr(message));
    }
}
