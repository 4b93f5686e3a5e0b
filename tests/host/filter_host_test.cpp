// The example host end to end: SonelNoiseFilter driven in 10 ms blocks of three 160-sample bands
// at 48 kHz gives, sample for sample, what the library gives `sonel denoise` for the same file in
// 10 ms frames. The tool shifts its output back by the session's delay; the host does not.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "sonel_audio_sdk/session.h"
#include "test_support.h"
#include "tools/tool_test_support.h"

using namespace sonel_test;

namespace {

const std::string kModel = SONEL_SOURCE_DIR "/models/sonel-nc-32k.sw";
const std::string kNoisySample = SONEL_SOURCE_DIR "/models/demo/noisy-sample.flac";

std::vector<float> readMono(const std::string& path, int* rate) {
    SF_INFO info;
    const std::vector<float> samples = readAudio(path, info);
    *rate = info.samplerate;
    return info.channels == 1 ? samples : std::vector<float>{};
}

// The delay a 48 kHz session on the shipped model adds, which `sonel denoise` takes off.
long sessionDelay() {
    GlobalInstance global;
    EXPECT_EQ(sonelAudioSetModel(wide(kModel).c_str(), "default"), SONEL_AUDIO_OK);
    void* session = sonelAudioNcCreateSession(SONEL_AUDIO_RATE_48000, SONEL_AUDIO_RATE_48000,
                                              SONEL_AUDIO_FRAME_10MS, "default");
    if (!session) return -1;
    std::vector<float> frame(480, 0.0f);
    sonelAudioNcCleanAmbientNoiseFloat(session, frame.data(), 480, frame.data(), 480);
    const long delay = std::lround(static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(session)->latencySamples());
    sonelAudioNcCloseSession(session);
    return delay;
}

double energy(const std::vector<float>& x) {
    double sum = 0;
    for (float v : x) sum += static_cast<double>(v) * v;
    return sum;
}

}  // namespace

TEST(FilterHost, CleansLikeSonelDenoiseAt48kInThreeBands) {
    int rate = 0;
    const std::vector<float> noisy = readMono(kNoisySample, &rate);
    ASSERT_EQ(rate, 48000);
    ASSERT_GT(noisy.size(), 48000u);
    ScratchDir dir;
    const std::string in = dir.file("noisy.wav"), host = dir.file("host.wav"), tool = dir.file("tool.wav");
    writeWav(in, noisy, 1, rate);

    ASSERT_EQ(std::system(("'" SONEL_FILTER_HOST "' '" + in + "' '" + host + "'").c_str()), 0);
    ASSERT_EQ(sonel("denoise '" + in + "' '" + tool + "' --model '" + kModel + "'"), 0);
    int hostRate = 0, toolRate = 0;
    const std::vector<float> hostOut = readMono(host, &hostRate), toolOut = readMono(tool, &toolRate);
    ASSERT_EQ(hostOut.size(), noisy.size());
    ASSERT_EQ(toolOut.size(), noisy.size());

    const long delay = sessionDelay();
    ASSERT_GT(delay, 0);
    ASSERT_LT(static_cast<size_t>(delay), noisy.size());
    float maxDifference = 0.0f;
    const size_t compared = noisy.size() - static_cast<size_t>(delay);
    for (size_t k = 0; k < compared; ++k)
        maxDifference = std::max(maxDifference, std::fabs(hostOut[k + static_cast<size_t>(delay)] - toolOut[k]));
    std::cout << "compared " << compared << " samples at a delay of " << delay
              << " samples: largest difference " << maxDifference << "\n";
    EXPECT_EQ(maxDifference, 0.0f);
    EXPECT_LT(energy(hostOut), energy(noisy)) << "the café noise is taken out";
}
