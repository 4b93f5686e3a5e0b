// The parameter rule every model uses: environment over weight over default, then range check.
#include <gtest/gtest.h>

#include "weights/model_parameters.h"

using SONEL::WEIGHTS::lookupParameter;
using SONEL::WEIGHTS::ModelPair;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char* const kSmoothWarning =
    "WARNING OF SMOOTH COEF NUMBER VALUE. IT MUST BE iIN INTERVALK (0,1] \\n DEFAULT VALUE 1.f";

float smoothCoef(const ModelPair& model) {
    return lookupParameter(model, "SONEL_SMOOT_COEF_v0_0_5", 1.0f,
                           [](float v) { return v > 0.0f && v <= 1.0f; }, kSmoothWarning);
}

}  // namespace

TEST(ParameterLookup, EnvironmentOverWeightOverDefaultWithRangeFallback) {
    ModelPair model{std::make_shared<SONEL::WEIGHTS::Weight>(), {}};
    EXPECT_EQ(smoothCoef(model), 1.0f);  // nothing anywhere: default

    model.first->set("CONTROL_SONEL_SMOOT_COEF_v0_0_5", 0.25f);
    EXPECT_EQ(smoothCoef(model), 0.25f);
    model.second.set<std::string>("SONEL_SMOOT_COEF_v0_0_5", "0.75");
    EXPECT_EQ(smoothCoef(model), 0.75f);  // the control file wins

    for (const char* bad : {"0", "1.5", "not a number"}) {
        SCOPED_TRACE(bad);
        model.second.set<std::string>("SONEL_SMOOT_COEF_v0_0_5", bad);
        CaptureStdout();
        EXPECT_EQ(smoothCoef(model), 1.0f);
        EXPECT_EQ(GetCapturedStdout(), std::string(kSmoothWarning) + "\n");
    }

    // A weight record of another type than the parameter's is not a value for it.
    model.first->set("CONTROL_SONEL_RM_THRESHOLD_v0_0_5", 7u);
    EXPECT_EQ(lookupParameter(model, "SONEL_RM_THRESHOLD_v0_0_5", 0.5f), 0.5f);
    model.first->set("CONTROL_VELTA_COMPRESS_RATE_v0_0_5", 3u);
    EXPECT_EQ(lookupParameter<uint64_t>(model, "VELTA_COMPRESS_RATE_v0_0_5", 2), 3u);
    model.second.set<std::string>("VELTA_COMPRESS_RATE_v0_0_5", "4");
    EXPECT_EQ(lookupParameter<uint64_t>(model, "VELTA_COMPRESS_RATE_v0_0_5", 2), 4u);
}

TEST(ParameterLookup, FlagsAreTrueOnlyAsUpperCaseTrueOrWeightT) {
    ModelPair model{std::make_shared<SONEL::WEIGHTS::Weight>(), {}};
    const std::string key = "SONEL_VOLUME_UP_v0_0_5";
    auto flag = [&] { return lookupParameter(model, key, false); };

    model.first->set("CONTROL_" + key, std::string("TRUE"));
    EXPECT_FALSE(flag());  // in the weight only "t" means true
    model.first->set("CONTROL_" + key, std::string("t"));
    EXPECT_TRUE(flag());
    // A present environment key decides alone, even against the weight's "t".
    model.second.set<std::string>(key, "true");
    EXPECT_FALSE(flag());
    model.second.set<std::string>(key, "TRUE");
    EXPECT_TRUE(flag());
    EXPECT_TRUE(lookupParameter(ModelPair{nullptr, model.second}, key, false));
}
