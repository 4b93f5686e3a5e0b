// The voice activity detector: its front end, network, calibration and watchdog observed through
// small hand-made networks, its real-time discipline, malformed models, and VAD sessions through
// the C interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "noise_canceller/noise_cleaner_v0_0_5.h"
#include "noise_canceller/vad_cleaner_v0_0_1.h"
#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "utils/alloc_counter.h"

using namespace sonel_test;
using SONEL::CONTAINERS::Matrix;
using SONEL::NOISE_CANCELLER::VadCleaner_v0_0_1;
using testing::HasSubstr;
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

// A registry holding the detector `records` alone, under "vad": the registry picks a detector by
// rate, not by name.
struct OneDetector : Registry {
    explicit OneDetector(const Records& records) { add(writerOf(records), "vad"); }
    void* open(unsigned host, unsigned ms = 10) {
        void* session = sonelAudioVadCreateSession(rate(host), SonelAudioFrameDuration(ms), "vad");
        EXPECT_NE(session, nullptr) << host << " Hz, " << ms << " ms";
        return session;
    }
};

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

TEST(VadCalibration, ThresholdsMapMinimumBestF1AndMaximumToZeroHalfAndOneElseTheRawValuePasses) {
    const auto calibrated = [](float raw) {
        return withThresholds(vadRecords(readout({}, raw)), -2.0f, 1.0f, 5.0f);
    };
    // Without a full set of thresholds the raw output passes as it is, outside [0, 1] too.
    Records oneBound = vadRecords(readout({}, 7.5f)), noBest = calibrated(-3.0f);
    oneBound["Test_MINMAX"] = std::vector<float>{-2.0f};
    oneBound["Test_BestF1"] = std::vector<float>{1.0f};
    noBest["Test_BestF1"] = std::vector<float>{};
    const std::pair<Records, float> cases[] = {
        {calibrated(1.0f), 0.5f},          {calibrated(-0.5f), 0.25f},  {calibrated(3.0f), 0.75f},
        {calibrated(-2.0f), 1e-5f},        {calibrated(5.0f), 0.99999f}, {calibrated(50.0f), 0.99999f},
        {calibrated(-50.0f), 1e-5f},       {vadRecords(readout({}, 7.5f)), 7.5f},
        {oneBound, 7.5f},                  {noBest, -3.0f}};
    for (const auto& [records, expected] : cases) {
        VadCleaner_v0_0_1 vad(modelOf(records), kRate);
        EXPECT_FLOAT_EQ(runBlock(vad, gaussianNoise(kBlock, 300.0f, 1)), expected);
    }

    // A session reports a value outside [0, 1] as −4, and the value on standard error.
    OneDetector detector(vadRecords(readout({}, 7.5f)));
    void* raw = detector.open(16000);
    const std::vector<float> samples(160, 0.01f);
    CaptureStderr();
    EXPECT_EQ(sonelAudioVadFrameFloat(raw, samples.data(), 160), -4.0f);
    EXPECT_EQ(GetCapturedStderr(),
              "THE CLEANING ERROR OUTPUT result 7.5\n"
              "The Session pointer is wrong insert existing session pointer\n");
    EXPECT_EQ(sonelAudioVadCloseSession(raw), SONEL_AUDIO_OK);
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
    // The counting network with the watchdog on and calibration, from a 48 kHz host through the
    // resampler and the bandwidth record: 1,100 blocks take the watchdog past its full ring and
    // both histories through several compactions.
    Records records = withThresholds(vadRecords(blockCounter()), -12.0f, -10.1f, -9.0f);
    records["CONTROL_VELTA_VAD_ENABLE_STATE_RESET_v0_0_1"] = std::string("t");
    OneDetector detector(records);
    void* session = detector.open(48000);
    const std::vector<float> host = gaussianNoise(480 * 1100, 0.1f, 8);
    SonelAudioBandWidthInfo_t info{0, 0, 50};
    for (int f = 0; f < 1100; ++f) {
        const size_t before = allocationCount();
        const float p = f % 2 ? sonelAudioVadFrameFloat(session, host.data() + f * 480, 480)
                              : sonelAudioVadFrameFloatEx(session, host.data() + f * 480, 480, &info);
        ASSERT_GE(p, 0.0f);
        if (f >= 10) ASSERT_EQ(allocationCount(), before) << "frame " << f;
    }
    EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
}

TEST(VadModel, MalformedModelsAreRefusedWithTheReason) {
    auto matrices = [](Records& r, const char* key) -> std::vector<Matrix>& {
        return std::get<std::vector<Matrix>>(r[key]);
    };
    auto vectors = [](Records& r, const char* key) -> Vectors& { return std::get<Vectors>(r[key]); };
    const std::vector<std::pair<std::function<void(Records&)>, std::string>> cases = {
        {[](Records& r) { r["FrameLength"] = 0u; }, "FrameLength 0 is not an even number"},
        {[](Records& r) { r["FrameLength"] = 241u; }, "FrameLength 241 is not an even number"},
        {[](Records& r) { r["FrameLength"] = 4000000000u; }, "FrameLength 4000000000 is not"},
        {[](Records& r) { r["FrameLength"] = 202u; }, "do not merge into whole bands"},
        {[](Records& r) { r["MU"] = std::vector<float>(60, 0.0f); }, "MU and SD need 61 values"},
        {[](Records& r) { std::get<std::vector<float>>(r["SD"])[7] = -1.0f; }, "SD[7] is a variance"},
        {[](Records& r) { r["WeightGRU"] = Matrix(93, 93 + kContext * kFeatures); },
         "WeightGRU is 93 x 337, not 94 x 338"},
        {[](Records& r) { r["BaesGRU"] = std::vector<float>(3, 0.0f); }, "BaesGRU needs 94 values"},
        {[&](Records& r) { matrices(r, "WeightLinear").clear(), vectors(r, "BaesLinear").clear(); },
         "one entry per layer"},
        {[&](Records& r) { matrices(r, "WeightNonLinear").push_back(Matrix(1, 1)); }, "one per hidden layer"},
        // The first layer's output is the state.
        {[&](Records& r) {
             matrices(r, "WeightLinear")[0] = matrices(r, "WeightNonLinear")[0] = Matrix(90, kInput);
             vectors(r, "BaesLinear")[0].resize(90), vectors(r, "BaesNonLinear")[0].resize(90);
         },
         "needs 94 rows"},
        {[&](Records& r) { matrices(r, "WeightNonLinear")[0] = Matrix(kState, kInput - 1); },
         "WeightNonLinear[0] and WeightLinear[0] need 338 columns"},
        {[&](Records& r) { matrices(r, "WeightLinear")[1] = Matrix(1, 10); }, "the output layer"},
        {[](Records& r) {
             r["Test_MINMAX"] = std::vector<float>{1.0f, -1.0f};
             r["Test_BestF1"] = std::vector<float>{0.0f};
         },
         "minimum < best-F1 point < maximum"},
    };
    for (const auto& [apply, message] : cases) {
        Records records = vadRecords(blockCounter());
        apply(records);
        EXPECT_THAT(refusal<VadCleaner_v0_0_1>(modelOf(records), kRate), HasSubstr(message));
    }
}

TEST(VadSession, EachKindOfSessionGetsItsKindOfModelAndFrameFunctionsReturnTheirCodes) {
    OneDetector registry(vadRecords(readout({}, 0.25f)));
    // Only a detector model is registered: a noise-cleaning session finds none.
    CaptureStderr();
    EXPECT_EQ(sonelAudioNcCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, "vad"), nullptr);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("Weight not found "));
    // With a cleaner registered too (under any name), each kind of session takes its own kind.
    registry.add(cleanerModel(CleanerModelSpec{}), "nc");
    std::vector<float> samples(160, 0.01f);
    std::vector<short> pcm(160, 300);
    SonelAudioBandWidthInfo_t info{0, 0, 100};
    for (const char* name : {"vad", "nc"}) {
        SCOPED_TRACE(name);
        void* nc = sonelAudioNcCreateSession(rate(16000), rate(16000), SONEL_AUDIO_FRAME_10MS, name);
        void* vad = sonelAudioVadCreateSession(rate(16000), SONEL_AUDIO_FRAME_10MS, name);
        ASSERT_NE(nc, nullptr);
        EXPECT_NE(dynamic_cast<SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_5*>(
                      &static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(nc)->cleaner()),
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
        EXPECT_THAT(GetCapturedStderr(), testing::AllOf(HasSubstr("input size must be 160"),
                                                        HasSubstr("ERROR in input values")));
        for (const float* frame : {samples.data(), static_cast<float*>(nullptr)}) {
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
        GetCapturedStderr();
        EXPECT_EQ(sonelAudioNcCloseSession(nc), SONEL_AUDIO_OK);
        EXPECT_EQ(sonelAudioVadCloseSession(vad), SONEL_AUDIO_OK);
    }
}

TEST(VadSession, LongerFramesGiveTheMeanOfTheirTenMillisecondBlocks) {
    // Probability from the newest frame's DC feature, spread over (0, 1) by the thresholds.
    OneDetector detector(withThresholds(vadRecords(readout({{kNewest, 1.0f}}, 0.0f)), 0.0f, 20.0f, 40.0f));
    std::vector<float> input = gaussianNoise(kBlock * 48, 0.05f, 3);
    for (size_t i = 0; i < input.size(); ++i)
        input[i] *= static_cast<float>(1 + (i / kBlock) % 5) + 0.02f * (i % 7);
    void* reference = detector.open(kRate);
    std::vector<float> blocks;
    for (size_t pos = 0; pos < input.size(); pos += kBlock)
        blocks.push_back(sonelAudioVadFrameFloat(reference, input.data() + pos, kBlock));
    EXPECT_EQ(sonelAudioVadCloseSession(reference), SONEL_AUDIO_OK);
    const auto [low, high] = std::minmax_element(blocks.begin(), blocks.end());
    EXPECT_GT(*high - *low, 0.05f);

    for (unsigned n : {2u, 3u, 4u}) {
        void* session = detector.open(kRate, 10 * n);
        for (size_t f = 0; f < blocks.size() / n; ++f) {
            float mean = 0.0f;
            for (unsigned k = 0; k < n; ++k) mean += blocks[f * n + k];
            ASSERT_NEAR(sonelAudioVadFrameFloat(session, input.data() + f * n * kBlock, n * kBlock), mean / n, 1e-6f)
                << 10 * n << " ms frame " << f;
        }
        EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
    }
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
        OneDetector detector(vadRecords(readout({}, c.probability)));
        void* session = detector.open(c.host);
        const unsigned frame = c.host / 100;
        const std::vector<float> x = c.lowTone ? sine(frame, 500.0, c.host, 0.3f) : gaussianNoise(frame, 0.2f, 5);
        std::vector<short> pcm(frame);
        for (unsigned i = 0; i < frame; ++i) pcm[i] = static_cast<short>(x[i] * 32767.0f);
        for (unsigned f = 1; f <= 10; ++f) {
            SonelAudioBandWidthInfo_t info{0, 0, 100};  // no start delay, decide after 100 ms
            const float p = f % 2 ? sonelAudioVadFrameFloatEx(session, x.data(), frame, &info)
                                  : sonelAudioVadFrameInt16Ex(session, pcm.data(), frame, &info);
            EXPECT_FLOAT_EQ(p, c.probability);
            EXPECT_EQ(info.bandwidthClass, f == 10 ? c.expected : 0) << "frame " << f;
        }
        EXPECT_EQ(sonelAudioVadCloseSession(session), SONEL_AUDIO_OK);
    }
}
