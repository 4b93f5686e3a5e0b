// Mask post-processing switches, the background speaker fix and the band layout.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "noise_canceller/mask_post_processor.h"

using namespace SONEL::NOISE_CANCELLER;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const ParameterKeys kKeys{"SONEL_", "_v0_0_5", "VELTA_COMPRESS_RATE_v0_0_5"};

// Parameters read from a model whose control file holds `entries`.
MaskParams readParams(const std::vector<std::pair<std::string, std::string>>& entries, std::string* printed = nullptr) {
    SONEL::WEIGHTS::ModelPair model{std::make_shared<SONEL::WEIGHTS::Weight>(), {}};
    for (const auto& [key, value] : entries) model.second.set<std::string>(key, value);
    CaptureStdout();
    MaskParams params = MaskParams::read(model, kKeys);
    const std::string out = GetCapturedStdout();
    if (printed) *printed = out;
    return params;
}

std::vector<float> shaped(const MaskParams& params, std::vector<float> mask) {
    MaskPostProcessor post(params, mask.size(), std::vector<float>(8, 1.0f), 10);
    post.shapeMask(mask);
    return mask;
}

}  // namespace

TEST(MaskPostProcessing, ShapingSwitchesInOrder) {
    // By default the mask is squared and rescaled.
    std::string printed;
    const MaskParams defaults = readParams({}, &printed);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(defaults.rescaleEnabled);
    EXPECT_EQ(defaults.compressRate, 2u);
    EXPECT_THAT(shaped(defaults, {0.0f, 0.5f, 0.9f, 1.0f}),
                testing::Pointwise(testing::FloatNear(1e-6f), std::vector<float>({0.0f, 0.25f, 0.81f, 1.0f})));

    // Soft modification: below the 0.05 knee a gain is only softened (kept far above its
    // square), well above it the gain is squared.
    const MaskParams soft = readParams({{"SONEL_SMOOT_RM_MODIFY_v0_0_5", "TRUE"}});
    const std::vector<float> m = shaped(soft, {0.001f, 0.9f});
    EXPECT_GT(m[0], 0.5e-3f);
    EXPECT_LT(m[0], 1e-3f);
    EXPECT_NEAR(m[1], 0.81f, 1e-4f);

    const MaskParams high = readParams({{"SONEL_HIGH_FREQ_SMOOT_v0_0_5", "TRUE"}});
    EXPECT_EQ(shaped(high, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f}),
              std::vector<float>({0.25f, 0.25f, 0.0625f, 0.0625f, 0.0625f}));

    const MaskParams threshold = readParams({{"SONEL_ENABLE_RM_THRESHOLD_v0_0_5", "TRUE"},
                                             {"SONEL_RM_THRESHOLD_v0_0_5", "0.5"}});
    // Squared gains 0.25 and 0.5: below the threshold 0.25 * 0.25 / 0.5, at it unchanged.
    EXPECT_THAT(shaped(threshold, {0.5f, std::sqrt(0.5f)}),
                testing::Pointwise(testing::FloatNear(1e-6f), std::vector<float>({0.125f, 0.5f})));

    // Temporal smoothing mixes in the previous block's mask (zeros before the first).
    const MaskParams smooth = readParams({{"SONEL_SMOOT_COEF_v0_0_5", "0.5"}});
    MaskPostProcessor post(smooth, 2, std::vector<float>(8, 1.0f), 10);
    std::vector<float> block1 = {1.0f, 0.0f}, block2 = {1.0f, 1.0f};
    post.shapeMask(block1);
    post.shapeMask(block2);
    EXPECT_EQ(block1, std::vector<float>({0.5f, 0.0f}));
    EXPECT_EQ(block2, std::vector<float>({0.75f, 0.5f}));
}

TEST(MaskPostProcessing, RangeChecksFallBackWithTheirWarnings) {
    struct Case {
        std::string key, value, warning;
    };
    const std::vector<Case> cases = {
        {"SONEL_SMOOT_COEF_v0_0_5", "0",
         "WARNING OF SMOOTH COEF NUMBER VALUE. IT MUST BE iIN INTERVALK (0,1] \\n DEFAULT VALUE 1.f\n"},
        {"SONEL_CLIP_FIX_POINT_v0_0_5", "40000",
         "WARNING OF CLIP_FIX_POINT NUMBER VALUE. IT MUST BE IN INTERVALK (1,32768) \\n DEFAULT VALUE 25000\n"},
        {"SONEL_THRESH_CUT_REF_EN_v0_0_5", "0.5",
         "WARNING OF THRESH_CUT_REF VALUE. IT MUST BE iIN INTERVALK [1,1000] \\n DEFAULT VALUE 100\n"},
        {"SONEL_RM_THRESHOLD_v0_0_5", "1.5",
         "WARNING OF RM_THRESHOLD VALUE. IT MUST BE iIN INTERVALK [0.0,1.0] \\n DEFAULT VALUE 0.5\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        std::string printed;
        const MaskParams p = readParams({{c.key, c.value}}, &printed);
        EXPECT_EQ(printed, c.warning);
        EXPECT_EQ(p.smoothCoef, 1.0f);
        EXPECT_EQ(p.clipFixPoint, 25000.0f);
        EXPECT_EQ(p.threshCutRefEn, 100.0f);
        EXPECT_EQ(p.rmThreshold, 0.5f);
    }
    EXPECT_EQ(readParams({{"SONEL_SMOOT_COEF_v0_0_5", "1.0"}}).smoothCoef, 1.0f);
    EXPECT_EQ(readParams({{"SONEL_VOLUME_UP_PERCENT_v0_0_5", "250"}}).volumeUpPercent, 0.0f);
}

TEST(MaskPostProcessing, VolumeUpForcesClipFixOnThePositivePeak) {
    std::string printed;
    const MaskParams params = readParams(
        {{"SONEL_VOLUME_UP_v0_0_5", "TRUE"}, {"SONEL_VOLUME_UP_PERCENT_v0_0_5", "20"}}, &printed);
    EXPECT_EQ(printed, "WARNING: Enabled Clip fix, because VolumeUp is Enabled\n");
    MaskPostProcessor post(params, 4, std::vector<float>(4, 1.0f), 10);

    std::vector<float> quiet = {100.0f, -100.0f, 50.0f, 0.0f};
    post.processBlock(quiet, true);
    EXPECT_THAT(quiet, testing::Pointwise(testing::FloatNear(1e-3f), std::vector<float>({120.0f, -120.0f, 60.0f, 0.0f})));

    std::vector<float> loud = {25000.0f, -10000.0f, 5000.0f, 0.0f};  // 30000 after the gain
    post.processBlock(loud, true);
    EXPECT_FLOAT_EQ(loud[0], 25000.0f);
    EXPECT_FLOAT_EQ(loud[1], -10000.0f);

    // Only the positive peak is tested; an input that was already beyond the limit is left alone.
    std::vector<float> negative = {-30000.0f, 800.0f}, clippedInput = {25000.0f, 0.0f};
    post.processBlock(negative, true);
    post.processBlock(clippedInput, false);
    EXPECT_FLOAT_EQ(negative[0], -36000.0f);
    EXPECT_FLOAT_EQ(clippedInput[0], 30000.0f);
}

TEST(BackgroundSpeakerFix, CutsBlocksFarBelowTheMainTalker) {
    SpeakerFixParams params;
    params.enabled = true;
    params.runFrameCount = 1;       // the level is the current block's
    params.utteranceLen = 0.005f;   // 1 - 10 / (2000 * 0.005) = 0: the talker level jumps to it
    params.variableWindow = false;
    BackgroundSpeakerFix fix(params, std::vector<float>(4, 1.0f), 10);

    const float talker = 1e6f;
    std::vector<float> main(4, std::sqrt(talker));
    fix.process(main);
    EXPECT_FLOAT_EQ(main[0], std::sqrt(talker));  // within reach: passed and learnt

    for (auto [belowDb, gain] : {std::pair{12.5f, 1e-3f}, std::pair{15.0f, 1e-6f}, std::pair{5.0f, 1.0f}}) {
        SCOPED_TRACE(belowDb);
        const float level = talker / std::pow(10.0f, belowDb / 10.0f) - 1.0f;
        std::vector<float> block(4, std::sqrt(level));
        fix.process(block);
        EXPECT_NEAR(block[0] / std::sqrt(level), gain, gain * 1e-3f);
        if (belowDb < 10.0f) {  // the talker level followed that block: restore it
            std::vector<float> again(4, std::sqrt(talker));
            fix.process(again);
        }
    }
    std::vector<float> silence(4, 0.0f);
    BackgroundSpeakerFix fresh(SpeakerFixParams{}, std::vector<float>(4, 1.0f), 10);
    fresh.setEnabled(true);
    fresh.process(silence);  // d = 0 against the starting level: nothing cut, no NaN
    EXPECT_EQ(silence, std::vector<float>(4, 0.0f));
}

TEST(BandLayout, CompressionAndExpansionAreInverse) {
    for (auto [bins, rate] : {std::pair{160u, 3u}, std::pair{161u, 2u}, std::pair{320u, 4u}, std::pair{7u, 0u}}) {
        SCOPED_TRACE(std::to_string(bins) + " bins, rate " + std::to_string(rate));
        BandLayout layout(bins, rate);
        if (rate > 0 && bins % (1u << (rate + 1)) == 0)
            EXPECT_EQ(layout.bandCount(), (bins >> rate) * (rate + 2) / 2);
        std::vector<float> ones(bins, 1.0f), widths(layout.bandCount());
        layout.compress(ones.data(), widths.data());
        EXPECT_EQ(std::accumulate(widths.begin(), widths.end(), 0.0f), static_cast<float>(bins));
        // Widths start at 1, never shrink going up (but for a cut-short last band) and stay
        // within 2^rate.
        for (size_t j = 1; j + 1 < widths.size(); ++j) EXPECT_LE(widths[j - 1], widths[j]);
        EXPECT_EQ(widths[0], 1.0f);
        EXPECT_LE(*std::max_element(widths.begin(), widths.end()), static_cast<float>(1u << rate));

        std::vector<float> index(layout.bandCount()), perBin(bins);
        std::iota(index.begin(), index.end(), 0.0f);
        layout.expand(index.data(), perBin.data());
        std::vector<float> counted(layout.bandCount(), 0.0f);
        for (float band : perBin) counted[static_cast<size_t>(band)] += 1.0f;
        EXPECT_EQ(counted, widths);  // each bin lands in the band that summed it
        EXPECT_TRUE(std::is_sorted(perBin.begin(), perBin.end()));
    }
    EXPECT_THROW(BandLayout(3, 2), SONEL::UTILS::SonelException);
}
