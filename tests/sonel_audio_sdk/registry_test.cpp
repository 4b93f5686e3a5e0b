// Instance lifetime, the model registry and the messages a host sees through the C interface.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <vector>

#include "sonel_audio_sdk/instance.h"
#include "test_support.h"

using SONEL::SONEL_AUDIO::GET;
using SONEL::SONEL_AUDIO::SonelAudioInstanceT;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
using namespace sonel_test;

namespace {

std::string exceptionText(int line, const std::string& function, const std::string& message,
                          const std::string& file = "src/sonel_audio_sdk/instance") {
    return "Sonel_Exception in file " + file + " Line " + std::to_string(line) + " Function " +
           function + "\n messege " + message + "\n";
}

int32_t setModel(const std::string& path, const char* name) {
    return sonelAudioSetModel(wide(path).c_str(), name);
}

const SONEL::WEIGHTS::ModelPtr& model(const std::string& name) {
    return SonelAudioInstanceT::Instance(GET)->models().at(name);
}

}  // namespace

TEST(RegistryLifetime, ReferenceCountedInitAndDestroyAndTheWorkingFolderOfRelativePaths) {
    SonelAudioVersionInfo version{1, 1, 1, 1};
    CaptureStderr();
    EXPECT_EQ(sonelAudioGetVersion(&version), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(GetCapturedStderr(),
              exceptionText(38, "Instance", "TRY TO GET NULL INSTANCE,ISN'T INITIALIZED"));
    EXPECT_EQ(version.major + version.minor + version.patch + version.build, 0);

    ASSERT_EQ(sonelAudioGlobalInit(nullptr), SONEL_AUDIO_OK);
    ASSERT_EQ(sonelAudioGlobalInit(L"/models"), SONEL_AUDIO_OK);
    EXPECT_EQ(SonelAudioInstanceT::Instance(GET)->workingFolder(), L"");  // first init's path
    EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_OK);
    ASSERT_EQ(sonelAudioGetVersion(&version), SONEL_AUDIO_OK);  // one reference left
    EXPECT_EQ(std::vector<int>({version.major, version.minor, version.patch, version.build}),
              std::vector<int>({7, 0, 1, 40}));
    EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_OK);

    CaptureStderr();
    EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(GetCapturedStderr(), exceptionText(64, "Instance", "DESTROYING WITHOUT INTIALIZATION"));
    CaptureStderr();
    EXPECT_EQ(sonelAudioGetVersion(nullptr), SONEL_AUDIO_UNKNOWN_EXCEPTION);
    EXPECT_EQ(GetCapturedStderr(), "Null pointer received\n");

    // A relative model path is taken from the working folder the first init named.
    ScratchDir dir;
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160).writeFile(dir.file("model.vlw")));
    ASSERT_EQ(sonelAudioGlobalInit(wide(dir.path().string()).c_str()), SONEL_AUDIO_OK);
    EXPECT_EQ(SonelAudioInstanceT::Instance(GET)->workingFolder(), wide(dir.path().string() + "/"));
    CaptureStdout();
    EXPECT_EQ(setModel("model.vlw", "relative"), SONEL_AUDIO_OK);
    EXPECT_EQ(GetCapturedStdout(), "WEIGHT " + dir.file("model.vlw") + "\n");
    EXPECT_EQ(sonelAudioGlobalDestroy(), SONEL_AUDIO_OK);
}

TEST(RegistryMessages, EverySessionCallBeforeInitFailsWithTheInstanceException) {
    const std::string text = exceptionText(38, "Instance", "TRY TO GET NULL INSTANCE,ISN'T INITIALIZED");
    short pcm[160] = {};
    float samples[160] = {};
    SonelAudioNcStats stats;
    CaptureStderr();
    EXPECT_EQ(sonelAudioNcCleanAmbientNoiseInt16(pcm, pcm, 160, pcm, 160), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(sonelAudioNcWithStatsRetrieveStats(pcm, &stats), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(sonelAudioVadFrameFloat(pcm, samples, 160), -3.0f);
    EXPECT_EQ(sonelAudioNoiseDbFrameInt16(pcm, pcm, 160), -3.0f);
    EXPECT_EQ(sonelAudioVadCloseSession(pcm), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(sonelAudioSetModel(L"a.vlw", "a"), SONEL_AUDIO_SONEL_EXCEPTION);
    std::string expected;
    for (int i = 0; i < 6; ++i) expected += text;
    EXPECT_EQ(GetCapturedStderr(), expected);

    // Rates are checked before the instance is consulted.
    CaptureStderr();
    EXPECT_EQ(sonelAudioVadCreateSession(static_cast<SonelAudioSamplingRate>(22050),
                                         SONEL_AUDIO_FRAME_10MS, "default"),
              nullptr);
    EXPECT_EQ(sonelAudioNcCreateSession(SONEL_AUDIO_RATE_16000, static_cast<SonelAudioSamplingRate>(11025),
                                        SONEL_AUDIO_FRAME_10MS, "default"),
              nullptr);
    EXPECT_EQ(GetCapturedStderr(), "Unsupported Sampling rates!\nUnsupported Sampling rates!\n");

    // The speaker-fix switch keeps its own two-valued result.
    CaptureStderr();
    EXPECT_EQ(sonelAudioNcBackgroundSpeakerFixOnOff(pcm, true), SONEL_AUDIO_FAILED);
    GetCapturedStderr();
}

TEST(ModelRegistry, FileFormsNamesAndRefusals) {
    ScratchDir dir;
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160).writeFile(dir.file("model.vlw")));
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160).writeFile(dir.file("model.sw")));
    GlobalInstance global;

    CaptureStdout();
    EXPECT_EQ(setModel(dir.file("model.vlw"), "plain"), SONEL_AUDIO_OK);
    EXPECT_EQ(GetCapturedStdout(), "WEIGHT " + dir.file("model.vlw") + "\n");

    struct Refusal {
        std::string path;
        const char* name;
        std::string stdoutText;
    };
    const std::vector<Refusal> refusals = {
        {dir.file("model.vlw"), "", "WARNING model name is empaty\n"},
        {dir.file("model.sw"), "plain", "WARNING model name exists\n"},
        {dir.file("model.VLW"), "upper", "ERROR INVALID EXTENSION\n"},
        {dir.file("model.txt"), "text", "ERROR INVALID EXTENSION\n"},
        {dir.file("m.vlw"), "short", "WEIGHT " + dir.file("m.vlw") + "\nERROR WEIGHT NAME ISNT LONG ENOUGHT\n\n"},
        {dir.file("absent.sw"), "absent",
         "WEIGHT " + dir.file("absent.sw") + "\nWARNING weight isn't loaded \n weigth file: " +
             dir.file("absent.sw") + "\n"},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.path + " as '" + r.name + "'");
        CaptureStdout();
        EXPECT_EQ(setModel(r.path, r.name), SONEL_AUDIO_MODEL_NOT_LOADED);
        EXPECT_EQ(GetCapturedStdout(), r.stdoutText);
    }
    CaptureStdout();
    EXPECT_EQ(sonelAudioSetModel(nullptr, "null"), SONEL_AUDIO_MODEL_NOT_LOADED);
    EXPECT_EQ(sonelAudioSetModelBlob(nullptr, 10, "null"), SONEL_AUDIO_MODEL_NOT_LOADED);
    EXPECT_EQ(GetCapturedStdout(),
              "WARRNING sonelAudioSetModel FUNCTION CALL with nullptr\n"
              "WARRNING Vlt_SDK_SetModel_Blob FUNCTION CALL with nullptr\n");

    EXPECT_EQ(SonelAudioInstanceT::Instance(GET)->models().size(), 1u);

    CaptureStdout();
    EXPECT_EQ(sonelAudioRemoveModel("plain"), SONEL_AUDIO_OK);
    CaptureStderr();
    EXPECT_EQ(sonelAudioRemoveModel("plain"), SONEL_AUDIO_SONEL_EXCEPTION);
    EXPECT_EQ(GetCapturedStdout(), "WARNING model name doesn't exist\n");
    EXPECT_NE(GetCapturedStderr().find("messege ERROR Remove model."), std::string::npos);
}

TEST(ModelRegistry, WeightCacheSharesOneReadPerBaseNameOrBlobIdentity) {
    ScratchDir dir;
    std::filesystem::create_directories(dir.path() / "a");
    std::filesystem::create_directories(dir.path() / "b");
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160, "first").writeFile(dir.file("a/shared.vlw")));
    ASSERT_TRUE(headerRecords("9.9.9", 32000, 320, "second").writeFile(dir.file("b/shared.vlw")));
    const std::vector<uint8_t> blob = headerRecords("9.9.9", 16000, 160, "blob").toEnciphered();
    GlobalInstance global;

    CaptureStdout();
    ASSERT_EQ(setModel(dir.file("a/shared.vlw"), "one"), SONEL_AUDIO_OK);
    ASSERT_EQ(setModel(dir.file("b/shared.vlw"), "two"), SONEL_AUDIO_OK);
    ASSERT_EQ(sonelAudioSetModelBlob(blob.data(), blob.size(), "m1"), SONEL_AUDIO_OK);
    ASSERT_EQ(sonelAudioSetModelBlob(blob.data(), blob.size(), "m2"), SONEL_AUDIO_OK);
    GetCapturedStdout();
    // Same base name: the second registration gets the first file's weight.
    EXPECT_EQ(model("one")->first, model("two")->first);
    EXPECT_EQ(*model("two")->first->find<std::string>("ModelName"), "first");
    EXPECT_EQ(model("m1")->first, model("m2")->first);
    // A blob's identity joins its version, frame duration in ms, rate in kHz, name and time stamp.
    EXPECT_EQ(SonelAudioInstanceT::vlwUniqueIdGenerator(model("m1")->first), "9.9.9" "10" "16" "blob" "20261122T000000");

    // Once no model uses a cached weight, the next registration reads the file again.
    CaptureStdout();
    ASSERT_EQ(sonelAudioRemoveModel("one"), SONEL_AUDIO_OK);
    ASSERT_EQ(sonelAudioRemoveModel("two"), SONEL_AUDIO_OK);
    ASSERT_EQ(setModel(dir.file("b/shared.vlw"), "three"), SONEL_AUDIO_OK);
    GetCapturedStdout();
    EXPECT_EQ(*model("three")->first->find<std::string>("ModelName"), "second");

    // A blob whose header values are incomplete has no identity and is refused.
    SONEL::WEIGHTS::WeightWriter anonymous;
    anonymous.add("Version", std::string("9.9.9"));
    const std::vector<uint8_t> bare = anonymous.toEnciphered();
    CaptureStdout();
    EXPECT_EQ(sonelAudioSetModelBlob(bare.data(), bare.size(), "bare"), SONEL_AUDIO_MODEL_NOT_LOADED);
    EXPECT_EQ(GetCapturedStdout(),
              "ERROR INVALID WEIGHT\n\nERROR WEIGHT NAME ISNT LONG ENOUGHT\n\n"
              "Warning Weight name isn't included or weight has been included before \n\n");
}

TEST(ControlFile, SyntaxEarlyStopAndReservedKeys) {
    ScratchDir dir;
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160, "first").writeFile(dir.file("first.vlw")));
    ASSERT_TRUE(headerRecords("9.9.9", 16000, 160, "second").writeFile(dir.file("second.sw")));
    auto writeCfg = [&](const std::string& name, const std::string& text) {
        std::ofstream(dir.file(name)) << text;
        return dir.file(name);
    };
    GlobalInstance global;

    const std::string full = writeCfg("full.cfg",
                                      "# a comment line, WEIGHT second.sw\n"
                                      "   \n"
                                      "WEIGHT \t  first.vlw  \n"
                                      "CONTROLFILE other.cfg\n"
                                      "WEIGHT second.sw\n"
                                      "  SONEL_SMOOT_COEF_v0_0_5   0.5 and more  \n"
                                      "KEY_WITHOUT_VALUE\n"
                                      "AFTER_STOP 1\n");
    CaptureStdout();
    ASSERT_EQ(setModel(full, "full"), SONEL_AUDIO_OK);
    EXPECT_EQ(GetCapturedStdout(),
              "WEIGHT first.vlw\n"
              "WARNING there are CONTROLFILE parameter inside of controlFile, skipped\n"
              "WARNING multiple weight including, weight exists.\n"
              "ENVIRONMENT KEY-\"SONEL_SMOOT_COEF_v0_0_5\" VALUE-\"0.5 and more\"\n");
    const auto& env = model("full")->second;
    EXPECT_EQ(*model("full")->first->find<std::string>("ModelName"), "first");
    EXPECT_EQ(env.size(), 1u);
    EXPECT_EQ(env.getReference<std::string>("SONEL_SMOOT_COEF_v0_0_5"), "0.5 and more");
    EXPECT_THROW(env.getReference<std::string>("AFTER_STOP"), SONEL::UTILS::SonelException);

    // A key without a value before the weight line leaves the model without a weight.
    const std::string early = writeCfg("early.cfg", "sonel_env_low_noise\nWEIGHT first.vlw\n");
    CaptureStdout();
    EXPECT_EQ(setModel(early, "early"), SONEL_AUDIO_MODEL_NOT_LOADED);
    GetCapturedStdout();
    EXPECT_EQ(SonelAudioInstanceT::Instance(GET)->models().count("early"), 0u);
}
