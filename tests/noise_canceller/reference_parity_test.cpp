// The C++ cleaner against the independent NumPy reference on the same random model and audio.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "test_support.h"

using namespace sonel_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::vector<float> readFloats(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::vector<float> v(static_cast<size_t>(in.tellg()) / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(v.size() * sizeof(float)));
    return v;
}

bool referenceAvailable() {
    return std::system("/usr/bin/python3 -c 'import numpy' >/dev/null 2>&1") == 0;
}

}  // namespace

TEST(ReferenceParity, CleanerMatchesTheNumpyReferenceWithinOneThousandthOfFullScale) {
    if (!referenceAvailable()) GTEST_SKIP() << "/usr/bin/python3 with numpy is needed for the reference cleaner";
    for (unsigned rate : {8000u, 16000u, 24000u, 32000u}) {
        for (const char* mode : {"", " --defaults"}) {
            SCOPED_TRACE(std::to_string(rate) + " Hz" + mode);
            ScratchDir dir;
            const std::string command = "/usr/bin/python3 " SONEL_SOURCE_DIR "/tools/reference/make_parity_case.py " +
                                        dir.path().string() + " --rate " + std::to_string(rate) + " --seed " +
                                        std::to_string(rate / 8000) + mode;
            ASSERT_EQ(std::system(command.c_str()), 0) << command;
            const std::vector<float> input = readFloats(dir.file("input.f32"));
            const std::vector<float> expected = readFloats(dir.file("expected.f32"));
            ASSERT_EQ(input.size(), expected.size());

            GlobalInstance global;
            CaptureStdout();
            ASSERT_EQ(sonelAudioSetModel(wide(dir.file("model.vlw")).c_str(), "parity"), SONEL_AUDIO_OK);
            void* session = sonelAudioNcCreateSession(static_cast<SonelAudioSamplingRate>(rate),
                                                      static_cast<SonelAudioSamplingRate>(rate),
                                                      SONEL_AUDIO_FRAME_10MS, "parity");
            GetCapturedStdout();
            ASSERT_NE(session, nullptr);
            const unsigned frame = rate / 100;
            std::vector<float> in(frame), out(frame);
            float worst = 0.0f;
            for (size_t pos = 0; pos + frame <= input.size(); pos += frame) {
                for (unsigned i = 0; i < frame; ++i) in[i] = input[pos + i] / 32768.0f;
                ASSERT_EQ(sonelAudioNcCleanAmbientNoiseFloat(session, in.data(), frame, out.data(), frame), SONEL_AUDIO_OK);
                for (unsigned i = 0; i < frame; ++i)
                    worst = std::max(worst, std::fabs(out[i] - expected[pos + i] / 32768.0f));
            }
            EXPECT_LT(worst, 1e-3f);
            EXPECT_EQ(sonelAudioNcCloseSession(session), SONEL_AUDIO_OK);
        }
    }
}
