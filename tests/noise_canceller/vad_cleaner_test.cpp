// The voice activity detector: its front end, network, calibration and watchdog observed through
// small hand-made networks, its real-time discipline, malformed models, and VAD sessions through
// the C interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <vector>

#include "noise_canceller/noise_cleaner_v0_0_5.h"
#include "noise_canceller/vad_cleaner_v0_0_1.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using SONEL::CONTAINERS::Matrix;
using SONEL::NOISE_CANCELLER::VadCleaner_v0_0_1;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// The shipped layout: 8 kHz, 240-sample frames (121 bins, 61 bands), 10 ms blocks of 80.
constexpr unsigned kRate = 8000, kFrame = 240, kBlock = 80;
constexpr unsigned kState = 94, kFeatures = 61, kContext = 4;
constexpr unsigned kInput = kState + kContext * kFeatures;
// Column of the newest frame's first feature in x = state ‖ context.
constexpr unsigned kNewest = kState + (kContext - 1) * kFeatures;


struct Network {
    Matrix gate{kState, kInput};
    std::vector<float> gateBias = std::vector<float>(kState, 0.0f);
    std::vector<Matrix> linear, nonLinear;
    std::vector<std::vector<float>> linearBias, nonLinearBias;
};

// No hidden layer: the output is bias + Σ weight · x[column].
Network readout(const std::vector<std::pair<unsigned, float>>& taps, float bias) {
    Network net;
    Matrix out(1, kInput);
    for (const auto& [column, weight] : taps) out.at(0, column) = weight;
    net.linear = {out};
    net.linearBias = {{bias}};
    return net;
}

// A network that counts blocks in state[0] and reports the count: the gate is fully open (the
// state becomes y), y[0] = state[0] + 1, and raw = −10 − 0.001 · y[0]. Every block is then
// silent for the watchdog, and raw shows how many blocks passed since the state was last zero.
Network blockCounter() {
    Network net;
    net.gateBias.assign(kState, 100.0f);  // logistic(100) is 1.0f
    Matrix linear0(kState, kInput), nonLinear0(kState, kInput), out(1, kState);
    linear0.at(0, 0) = 1.0f;
    out.at(0, 0) = -0.001f;
    std::vector<float> bias0(kState, 0.0f);
    bias0[0] = 1.0f;
    net.nonLinear = {nonLinear0};
    net.nonLinearBias = {std::vector<float>(kState, -1.0f)};  // rectified path always off
    net.linear = {linear0, out};
    net.linearBias = {bias0, {-10.0f}};
    return net;
}

Records vadRecords(const Network& net, std::vector<float> mu = std::vector<float>(kFeatures, 0.0f),
                   std::vector<float> sd = std::vector<float>(kFeatures, 1.0f)) {
    return {{"Version", std::string("VAD_0.0.1")},
            {"SampleRate", kRate},
            {"FrameLength", kFrame},
            {"ModelName", std::string("vad-test")},
            {"TimeStamp", std::string("20261122T000000")},
            {"MU", std::move(mu)},
            {"SD", std::move(sd)},
            {"WeightGRU", net.gate},
            {"BaesGRU", net.gateBias},
            {"WeightLinear", net.linear},
            {"BaesLinear", net.linearBias},
            {"WeightNonLinear", net.nonLinear},
            {"BaesNonLinear", net.nonLinearBias}};
}

Records withThresholds(Records r, float low, float best, float high) {
    r["Test_MINMAX"] = std::vector<float>{low, high};
    r["Test_BestF1"] = std::vector<float>{best};
    return r;
}

float runBlock(VadCleaner_v0_0_1& vad, std::vector<float> block) {
    EXPECT_TRUE(vad.cleanNoise(block, nullptr, false));
    EXPECT_EQ(block.size(), 1u);
    return block.empty() ? NAN : block[0];
}

}  // namespace

TEST(VadBands, HundredTwentyOneBinsMergeIntoThirtyOneSinglesFifteenPairsAndFifteenQuads) {
    std::vector<float> power(121);
    for (size_t k = 0; k < power.size(); ++k) power[k] = static_cast<float>(k * k);
    std::vector<float> merged(61, -1.0f);
    ASSERT_EQ(VadCleaner_v0_0_1::mergeBands(power.data(), 121, merged.data()), 61u);
    auto mean = [&](size_t first, size_t width) {
        double sum = 0.0;
        for (size_t k = first; k < first + width; ++k) sum += power[k];
        return sum / width;
    };
    for (size_t j = 0; j < 31; ++j) EXPECT_EQ(merged[j], power[j]) << j;
    for (size_t j = 0; j < 15; ++j) EXPECT_NEAR(merged[31 + j], mean(31 + 2 * j, 2), 1e-3) << j;
    for (size_t j = 0; j < 15; ++j) EXPECT_NEAR(merged[46 + j], mean(61 + 4 * j, 4), 1e-3) << j;

    // 480- and 320-sample frames tile the same way; 202 samples (102 bins) would need a last
    // pair that runs past the Nyquist bin.
    EXPECT_EQ(VadCleaner_v0_0_1::mergeBands(nullptr, 241, nullptr), 121u);
    EXPECT_EQ(VadCleaner_v0_0_1::mergeBands(nullptr, 161, nullptr), 81u);
    EXPECT_EQ(VadCleaner_v0_0_1::mergeBands(nullptr, 102, nullptr), 0u);
}

TEST(VadFrontEnd, SilenceGivesThePrefilledFeaturesAndOnlyLoudBlocksMoveTheLevel) {
    // Silence: every one of the 4 × 61 inputs is (0 − MU) / sqrt(SD + 1e-7), SD = 0 included.
    std::vector<float> mu(kFeatures), sd(kFeatures);
    double silence = 0.0;
    for (unsigned i = 0; i < kFeatures; ++i) {
        mu[i] = 0.01f * i - 0.2f;
        sd[i] = 0.5f * (i % 5);
        silence += -static_cast<double>(mu[i]) / std::sqrt(static_cast<double>(sd[i]) + 1e-7);
    }
    std::vector<std::pair<unsigned, float>> all;
    for (unsigned c = kState; c < kInput; ++c) all.push_back({c, 1.0f});
    VadCleaner_v0_0_1 quiet(modelOf(vadRecords(readout(all, 0.0f), mu, sd)), kRate);
    for (int b = 0; b < 3; ++b)
        EXPECT_NEAR(runBlock(quiet, std::vector<float>(kBlock, 0.0f)), 4 * silence,
                    1e-5 * std::fabs(4 * silence));

    // Level: the output is the newest frame's DC feature ln(P0 + 1) with MU 0 and SD 1, so
    // S = sqrt(e^raw − 1) is the windowed sum Σ w[i] · x[i] · gain of the analysed frame.
    VadCleaner_v0_0_1 vad(modelOf(vadRecords(readout({{kNewest, 1.0f}}, 0.0f))), kRate);
    std::vector<double> w(kFrame);
    for (unsigned i = 0; i < kFrame; ++i) w[i] = 0.54 - 0.46 * std::cos(2 * M_PI * i / (kFrame - 1));
    const double a = 0.954992586021436;
    std::vector<double> frame(kFrame, 0.0);  // the analysed frame, after gain
    double level = 4000000.0;
    auto feed = [&](float value, bool loud) {
        if (loud) {
            const double e = static_cast<double>(value) * value;
            level = e > 2 * level ? a * e + (1 - a) * level : a * level + (1 - a) * e;
        }
        const double gain = 2000.0 / (std::sqrt(level) + 1e-7);
        frame.erase(frame.begin(), frame.begin() + kBlock);
        frame.insert(frame.end(), kBlock, value * gain);
        double expected = 0.0;
        for (unsigned i = 0; i < kFrame; ++i) expected += w[i] * frame[i];
        const float raw = runBlock(vad, std::vector<float>(kBlock, value));
        const double measured = std::sqrt(std::exp(raw * std::sqrt(1.0 + 1e-7)) - 1.0);
        EXPECT_NEAR(measured, std::fabs(expected), std::max(2e-5 * std::fabs(expected), 1e-3))
            << "block of " << value;
    };
    feed(0.0f, false);
    for (int b = 0; b < 3; ++b) feed(99.0f, false);  // mean square 9801: the level stays 2000²
    feed(4000.0f, true);                             // more than twice the level: fast rise
    for (int b = 0; b < 2; ++b) feed(99.0f, false);  // quiet again: the new level holds
    feed(2000.0f, true);                             // loud but below twice the level: slow
    for (int b = 0; b < 3; ++b) feed(-99.0f, false);
    feed(100.0f, true);  // exactly the floor of 10000 counts as loud
    // An empty block changes nothing: the previous frame is analysed again.
    EXPECT_FLOAT_EQ(runBlock(vad, {}), runBlock(vad, {}));
}

TEST(VadNetwork, StateBlendsAfterTheFirstLayerWhileLaterLayersReadItsOutput) {
    // Gate 0.5; layer 0: y[0] = 2 + state[0] (linear path only); layer 1: 0.5 + y[0] (both
    // paths); output: its single value. The state goes 1, 2, 3, … after blocks 1, 2, 3, so raw
    // is 2.5, 3.5, 4.5, …; a layer 1 that read the new state instead of y would give 1.5, 2.5,
    // 3.5, …, and a state that took y without the blend 2.5, 4.5, 8.5, ….
    Network net;
    Matrix linear0(kState, kInput), nonLinear0(kState, kInput), linear1(1, kState), nonLinear1(1, kState);
    linear0.at(0, 0) = 1.0f;
    linear1.at(0, 0) = 1.0f;
    std::vector<float> bias0(kState, 0.0f);
    bias0[0] = 2.0f;
    net.nonLinear = {nonLinear0, nonLinear1};
    net.nonLinearBias = {std::vector<float>(kState, -1.0f), {0.5f}};
    net.linear = {linear0, linear1, Matrix(1, 1, {1.0f})};
    net.linearBias = {bias0, {0.0f}, {0.0f}};
    VadCleaner_v0_0_1 vad(modelOf(vadRecords(net)), kRate);
    for (int b = 1; b <= 6; ++b) EXPECT_FLOAT_EQ(runBlock(vad, gaussianNoise(kBlock, 500.0f, b)), b + 1.5f) << b;
}

TEST(VadCalibration, ThresholdsMapMinimumBestF1AndMaximumToZeroHalfAndOne) {
    struct Case {
        float raw;
        float expected;
    };
    // Thresholds −2, 1, 5.
    for (const Case& c : {Case{1.0f, 0.5f}, Case{-0.5f, 0.25f}, Case{3.0f, 0.75f}, Case{-2.0f, 1e-5f},
                          Case{5.0f, 0.99999f}, Case{50.0f, 0.99999f}, Case{-50.0f, 1e-5f}}) {
        SCOPED_TRACE(c.raw);
        VadCleaner_v0_0_1 vad(modelOf(withThresholds(vadRecords(readout({}, c.raw)), -2.0f, 1.0f, 5.0f)),
                              kRate);
        EXPECT_FLOAT_EQ(runBlock(vad, gaussianNoise(kBlock, 300.0f, 1)), c.expected);
    }
    EXPECT_EQ(
        VadCleaner_v0_0_1(modelOf(withThresholds(vadRecords(readout({}, 1.0f)), -2.0f, 1.0f, 5.0f)), kRate)
            .params()
            .thresholds,
        (std::vector<float>{-2.0f, 1.0f, 5.0f}));

    // Without a full set of thresholds the raw output passes as it is, outside [0, 1] too.
    Records oneBound = vadRecords(readout({}, 7.5f));
    oneBound["Test_MINMAX"] = std::vector<float>{-2.0f};
    oneBound["Test_BestF1"] = std::vector<float>{1.0f};
    Records noBest = withThresholds(vadRecords(readout({}, -3.0f)), -2.0f, 1.0f, 5.0f);
    noBest["Test_BestF1"] = std::vector<float>{};
    for (const auto& [records, raw] : {std::pair{vadRecords(readout({}, 7.5f)), 7.5f},
                                       std::pair{oneBound, 7.5f}, std::pair{noBest, -3.0f}}) {
        VadCleaner_v0_0_1 vad(modelOf(records), kRate);
        EXPECT_TRUE(vad.params().thresholds.empty());
        EXPECT_FLOAT_EQ(runBlock(vad, gaussianNoise(kBlock, 300.0f, 2)), raw);
    }
}

TEST(VadWatchdog, StuckAtNoSpeechClearsTheStateAtBlocks301And601And901WhenSwitchedOn) {
    struct Setting {
        const char* label;
        std::vector<std::pair<std::string, std::string>> env;
        bool weightFlag;
        bool on;
    };
    const std::string key = "VELTA_VAD_ENABLE_STATE_RESET_v0_0_1";
    for (const Setting& s :
         {Setting{"off by default", {}, false, false}, Setting{"weight flag", {}, true, true},
          Setting{"environment flag", {{key, "TRUE"}}, false, true},
          Setting{"environment decides alone", {{key, "true"}}, true, false}}) {
        SCOPED_TRACE(s.label);
        Records records = vadRecords(blockCounter());
        if (s.weightFlag) records["CONTROL_" + key] = std::string("t");
        VadCleaner_v0_0_1 vad(modelOf(records, s.env), kRate);
        EXPECT_EQ(vad.params().stateResetEnabled, s.on);
        unsigned lastReset = 0;
        for (unsigned b = 1; b <= 1000; ++b) {
            const float raw = runBlock(vad, gaussianNoise(kBlock, 1000.0f, b));
            ASSERT_NEAR(raw, -10.0f - 0.001f * static_cast<float>(b - lastReset), 2e-5f) << "block " << b;
            // The reset clears the state after block 301's output, so block 302 counts from 1.
            if (s.on && (b == 301 || b == 601 || b == 901)) lastReset = b;
        }
    }
}

TEST(VadRealTime, NoAllocationPerBlockAfterWarmUp) {
    Records records = withThresholds(vadRecords(blockCounter()), -12.0f, -10.1f, -9.0f);
    records["CONTROL_VELTA_VAD_ENABLE_STATE_RESET_v0_0_1"] = std::string("t");
    VadCleaner_v0_0_1 vad(modelOf(records), kRate);
    const std::vector<float> input = gaussianNoise(kBlock * 1100, 3000.0f, 7);
    std::vector<float> block;
    block.reserve(kBlock);
    size_t allocations = 0;
    // 1,100 blocks: past the watchdog's full ring and several compactions of both histories.
    for (size_t b = 0; b < 1100; ++b) {
        block.assign(input.begin() + b * kBlock, input.begin() + (b + 1) * kBlock);
        const size_t before = allocationCount();
        vad.cleanNoise(block, nullptr, false);
        if (b >= 2) allocations += allocationCount() - before;
    }
    EXPECT_EQ(allocations, 0u);

    // Through the C interface, with resampling from 48 kHz and the bandwidth record.
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir,
                  writerOf(withThresholds(vadRecords(readout({{kNewest, 1.0f}}, 0.0f)), 0.0f, 10.0f, 40.0f)),
                  "vad");
    void* session = sonelAudioVadCreateSession(rate(48000), SONEL_AUDIO_FRAME_10MS, "vad");
    ASSERT_NE(session, nullptr);
    const std::vector<float> host = gaussianNoise(480 * 300, 0.1f, 8);
    SonelAudioBandWidthInfo_t info{0, 0, 50};
    for (int f = 0; f < 300; ++f) {
        const size_t before = allocationCount();
        const float p = f % 2 ? sonelAudioVadFrameFloat(session, host.data() + f * 480, 480)
                              : sonelAudioVadFrameFloatEx(session, host.data() + f * 480, 480, &info);
        ASSERT_GE(p, 0.0f);
        if (f >= 10) ASSERT_EQ(allocationCount(), before) << "frame " << f;
    }
    EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
}

TEST(VadModel, MalformedModelsAreRefusedWithTheReason) {
    const Records good = vadRecords(blockCounter());
    struct Case {
        const char* change;
        std::function<void(Records&)> apply;
        std::string message;
    };
    auto matrixList = [](Records& r, const char* key) -> std::vector<Matrix>& {
        return std::get<std::vector<Matrix>>(r[key]);
    };
    const std::vector<Case> cases = {
        {"no frame", [](Records& r) { r["FrameLength"] = 0u; }, "FrameLength 0 is not an even number"},
        {"odd frame", [](Records& r) { r["FrameLength"] = 241u; }, "FrameLength 241 is not an even number"},
        {"huge frame", [](Records& r) { r["FrameLength"] = 4000000000u; }, "FrameLength 4000000000 is not"},
        {"partial band", [](Records& r) { r["FrameLength"] = 202u; }, "do not merge into whole bands"},
        {"short MU", [](Records& r) { r["MU"] = std::vector<float>(60, 0.0f); }, "MU and SD need 61 values"},
        {"negative SD", [](Records& r) { std::get<std::vector<float>>(r["SD"])[7] = -1.0f; },
         "SD[7] is a variance"},
        {"state of 93", [](Records& r) { r["WeightGRU"] = Matrix(93, 93 + kContext * kFeatures); },
         "WeightGRU is 93 x 337, not 94 x 338"},
        {"gate bias", [](Records& r) { r["BaesGRU"] = std::vector<float>(3, 0.0f); },
         "BaesGRU needs 94 values"},
        {"no layers",
         [&](Records& r) {
             matrixList(r, "WeightLinear").clear();
             std::get<std::vector<std::vector<float>>>(r["BaesLinear"]).clear();
         },
         "one entry per layer"},
        {"extra rectified path",
         [&](Records& r) { matrixList(r, "WeightNonLinear").push_back(Matrix(1, 1)); },
         "one per hidden layer"},
        {"first layer not the state",
         [&](Records& r) {
             matrixList(r, "WeightLinear")[0] = Matrix(90, kInput);
             matrixList(r, "WeightNonLinear")[0] = Matrix(90, kInput);
             std::get<std::vector<std::vector<float>>>(r["BaesLinear"])[0].resize(90);
             std::get<std::vector<std::vector<float>>>(r["BaesNonLinear"])[0].resize(90);
         },
         "needs 94 rows"},
        {"layer reads the wrong width",
         [&](Records& r) { matrixList(r, "WeightNonLinear")[0] = Matrix(kState, kInput - 1); },
         "WeightNonLinear[0] and WeightLinear[0] need 338 columns"},
        {"output width", [&](Records& r) { matrixList(r, "WeightLinear")[1] = Matrix(1, 10); },
         "the output layer"},
        {"thresholds out of order",
         [](Records& r) {
             r["Test_MINMAX"] = std::vector<float>{1.0f, -1.0f};
             r["Test_BestF1"] = std::vector<float>{0.0f};
         },
         "minimum < best-F1 point < maximum"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.change);
        Records records = good;
        c.apply(records);
        try {
            VadCleaner_v0_0_1 vad(modelOf(records), kRate);
            ADD_FAILURE() << "accepted";
        } catch (const SONEL::UTILS::SonelException& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }

    // A session on such a model is refused with the reason on standard error.
    ScratchDir dir;
    GlobalInstance global;
    Records bad = good;
    bad["MU"] = std::vector<float>(60, 0.0f);
    registerModel(dir, writerOf(bad), "bad");
    CaptureStderr();
    EXPECT_EQ(sonelAudioVadCreateSession(rate(8000), SONEL_AUDIO_FRAME_10MS, "bad"), nullptr);
    EXPECT_NE(GetCapturedStderr().find("MU and SD need 61 values"), std::string::npos);
}

TEST(VadSession, EachKindOfSessionGetsItsKindOfModelAndFrameFunctionsReturnTheirCodes) {
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir, writerOf(vadRecords(readout({}, 0.25f))), "vad");
    for (unsigned host : {8000u, 16000u, 48000u}) {
        SCOPED_TRACE(host);
        // Only a detector model is registered: a noise-cleaning session finds none.
        CaptureStderr();
        EXPECT_EQ(sonelAudioNcCreateSession(rate(host), rate(host), SONEL_AUDIO_FRAME_10MS, "vad"), nullptr);
        EXPECT_NE(GetCapturedStderr().find("Weight not found "), std::string::npos);
        void* session = sonelAudioVadCreateSession(rate(host), SONEL_AUDIO_FRAME_10MS, "vad");
        ASSERT_NE(session, nullptr);
        EXPECT_NE(dynamic_cast<VadCleaner_v0_0_1*>(
                      &static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(session)->cleaner()),
                  nullptr);
        const std::vector<float> frame = gaussianNoise(host / 100, 0.05f, host);
        EXPECT_FLOAT_EQ(sonelAudioVadFrameFloat(session, frame.data(), host / 100), 0.25f);
        EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
    }
    // With a cleaner registered too (under any name), each kind of session takes its own kind.
    registerModel(dir, cleanerModel(CleanerModelSpec{}), "nc");
    std::vector<float> samples(160, 0.01f);
    std::vector<short> pcm(160, 300);
    SonelAudioBandWidthInfo_t info{0, 0, 100};
    for (const char* name : {"vad", "nc"}) {
        SCOPED_TRACE(name);
        void* nc = sonelAudioNcCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, name);
        void* vad = sonelAudioVadCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, name);
        ASSERT_NE(nc, nullptr);
        ASSERT_NE(vad, nullptr);
        using SONEL::SONEL_AUDIO::SonelAudioSessionT;
        EXPECT_NE(dynamic_cast<SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_5*>(
                      &static_cast<SonelAudioSessionT*>(nc)->cleaner()),
                  nullptr);
        EXPECT_NE(dynamic_cast<VadCleaner_v0_0_1*>(&static_cast<SonelAudioSessionT*>(vad)->cleaner()),
                  nullptr);
        EXPECT_FLOAT_EQ(sonelAudioVadFrameFloat(vad, samples.data(), 160), 0.25f);
        EXPECT_FLOAT_EQ(sonelAudioVadFrameFloatEx(vad, samples.data(), 160, &info), 0.25f);
        EXPECT_FLOAT_EQ(sonelAudioVadFrameInt16(vad, pcm.data(), 160), 0.25f);
        EXPECT_FLOAT_EQ(sonelAudioVadFrameInt16Ex(vad, pcm.data(), 160, &info), 0.25f);

        // Wrong size or no frame. A 16-bit frame raises the session's exception (−3). A float
        // frame gets the session's −2, which is then outside [0, 1] and reported as −4.
        CaptureStderr();
        EXPECT_EQ(sonelAudioVadFrameInt16(vad, pcm.data(), 80), -3.0f);
        EXPECT_EQ(sonelAudioVadFrameInt16Ex(vad, nullptr, 160, &info), -3.0f);
        const std::string pcmErrors = GetCapturedStderr();
        EXPECT_NE(pcmErrors.find("input size must be 160"), std::string::npos);
        EXPECT_NE(pcmErrors.find("ERROR in input values"), std::string::npos);
        for (const float* frame :
             {static_cast<const float*>(samples.data()), static_cast<const float*>(nullptr)}) {
            CaptureStderr();
            EXPECT_EQ(frame ? sonelAudioVadFrameFloat(vad, frame, 159)
                            : sonelAudioVadFrameFloatEx(vad, frame, 160, &info),
                      -4.0f);
            EXPECT_EQ(GetCapturedStderr(),
                      "ERROR input dataSize or output dataSize is wrong \n input size must be 160\n"
                      " output size must be 0\nTHE CLEANING ERROR OUTPUT result -2\n"
                      "The Session pointer is wrong insert existing session pointer\n");
        }

        // Not a VAD session, or no session at all: −4.
        int notASession = 0;
        CaptureStderr();
        EXPECT_EQ(sonelAudioVadFrameFloat(nc, samples.data(), 160), -4.0f);
        EXPECT_EQ(sonelAudioVadFrameFloatEx(&notASession, samples.data(), 160, &info), -4.0f);
        EXPECT_EQ(sonelAudioVadFrameInt16(nc, pcm.data(), 160), -4.0f);
        EXPECT_EQ(sonelAudioVadFrameInt16Ex(nullptr, pcm.data(), 160, &info), -4.0f);
        EXPECT_EQ(sonelAudioNcCleanAmbientNoiseFloat(vad, samples.data(), 160, samples.data(), 160),
                  SONEL_AUDIO_WRONG_SESSION);
        EXPECT_EQ(sonelAudioNcCloseSession(vad), SONEL_AUDIO_SONEL_EXCEPTION);
        GetCapturedStderr();
        EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioVadCloseSession(vad), SONEL_AUDIO_OK);
    }
}

TEST(VadSession, UncalibratedResultOutsideZeroToOneIsReportedAsMinusFour) {
    // A model without calibration: the raw value is reported on standard error.
    ScratchDir dir;
    GlobalInstance global;
    registerModel(dir, writerOf(vadRecords(readout({}, 7.5f))), "raw");
    std::vector<float> samples(160, 0.01f);
    void* raw = sonelAudioVadCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, "raw");
    ASSERT_NE(raw, nullptr);
    CaptureStderr();
    EXPECT_EQ(sonelAudioVadFrameFloat(raw, samples.data(), 160), -4.0f);
    EXPECT_EQ(GetCapturedStderr(),
              "THE CLEANING ERROR OUTPUT result 7.5\n"
              "The Session pointer is wrong insert existing session pointer\n");
    EXPECT_EQ(sonelAudioVadCloseSession(raw), SONEL_AUDIO_OK);
}

TEST(VadSession, LongerFramesGiveTheMeanOfTheirTenMillisecondBlocks) {
    ScratchDir dir;
    GlobalInstance global;
    // Probability from the newest frame's DC feature, spread over (0, 1) by the thresholds.
    registerModel(dir,
                  writerOf(withThresholds(vadRecords(readout({{kNewest, 1.0f}}, 0.0f)), 0.0f, 20.0f, 40.0f)),
                  "vad");
    std::vector<float> input = gaussianNoise(kBlock * 48, 0.05f, 3);
    for (size_t i = 0; i < input.size(); ++i)
        input[i] *= static_cast<float>(1 + (i / kBlock) % 5) + 0.02f * (i % 7);
    void* reference = sonelAudioVadCreateSession(rate(kRate), SONEL_AUDIO_FRAME_10MS, "vad");
    ASSERT_NE(reference, nullptr);
    std::vector<float> blocks;
    for (size_t pos = 0; pos < input.size(); pos += kBlock)
        blocks.push_back(sonelAudioVadFrameFloat(reference, input.data() + pos, kBlock));
    EXPECT_GT(
        *std::max_element(blocks.begin(), blocks.end()) - *std::min_element(blocks.begin(), blocks.end()),
        0.05f);

    for (unsigned ms : {20u, 30u, 40u}) {
        SCOPED_TRACE(ms);
        void* session =
            sonelAudioVadCreateSession(rate(kRate), static_cast<SonelAudioFrameDuration>(ms), "vad");
        ASSERT_NE(session, nullptr);
        const unsigned n = ms / 10, size = n * kBlock;
        for (size_t f = 0; f + 1 <= blocks.size() / n; ++f) {
            float mean = 0.0f;
            for (unsigned k = 0; k < n; ++k) mean += blocks[f * n + k];
            ASSERT_NEAR(sonelAudioVadFrameFloat(session, input.data() + f * size, size), mean / n, 1e-6f)
                << f;
        }
        EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
    }
    EXPECT_EQ(sonelAudioVadCloseSession(reference), SONEL_AUDIO_OK);
}

TEST(VadSession, ExFunctionsReportTheBandwidthOnceSpeechIsDetected) {
    struct Case {
        float probability;
        unsigned host;
        bool lowTone;  // a 500 Hz tone (nothing above 4 kHz) instead of full-band noise
        int expected;
    };
    for (const Case& c : {Case{0.9f, 16000, true, 1}, Case{0.9f, 16000, false, 2},
                          Case{0.9f, 48000, false, 3}, Case{0.2f, 48000, false, 0}}) {
        SCOPED_TRACE(std::to_string(c.probability) + " " + std::to_string(c.host) +
                     (c.lowTone ? " tone" : " noise"));
        // The registry picks the detector by rate, not by name, so each case has its own.
        ScratchDir dir;
        GlobalInstance global;
        registerModel(dir, writerOf(vadRecords(readout({}, c.probability))), "vad");
        void* session = sonelAudioVadCreateSession(rate(c.host), SONEL_AUDIO_FRAME_10MS, "vad");
        ASSERT_NE(session, nullptr);
        const unsigned frame = c.host / 100;
        std::vector<float> x = gaussianNoise(frame, 0.2f, 5);
        std::vector<short> pcm(frame);
        for (unsigned f = 1; f <= 10; ++f) {
            if (c.lowTone)
                for (unsigned i = 0; i < frame; ++i)
                    x[i] = 0.3f * static_cast<float>(std::sin(2 * M_PI * 500.0 * i / c.host));
            for (unsigned i = 0; i < frame; ++i) pcm[i] = static_cast<short>(x[i] * 32767.0f);
            SonelAudioBandWidthInfo_t info{0, 0, 100};  // no start delay, decide after 100 ms
            const float p = f % 2 ? sonelAudioVadFrameFloatEx(session, x.data(), frame, &info)
                                  : sonelAudioVadFrameInt16Ex(session, pcm.data(), frame, &info);
            EXPECT_FLOAT_EQ(p, c.probability);
            EXPECT_EQ(info.bandwidthClass, f == 10 ? c.expected : 0) << "frame " << f;
        }
        EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
    }
}
