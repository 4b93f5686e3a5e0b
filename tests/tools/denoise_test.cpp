// `sonel denoise` end to end: alignment and length through a pass-through model at host rates
// other than the model's, several channels, and clean failures that leave no output behind.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "test_support.h"

using namespace sonel_test;

namespace {

int sonel(const std::string& arguments) {
    const std::string command = "'" SONEL_TOOL "' " + arguments + " >/dev/null 2>&1";
    return std::system(command.c_str());
}

void writeWav(const std::string& path, const std::vector<float>& interleaved, int channels, int rate) {
    SF_INFO info{};
    info.channels = channels;
    info.samplerate = rate;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr);
    sf_writef_float(f, interleaved.data(), static_cast<sf_count_t>(interleaved.size() / channels));
    sf_close(f);
}

std::vector<float> readAudio(const std::string& path, SF_INFO& info) {
    info = SF_INFO{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) return {};
    std::vector<float> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, samples.data(), info.frames);
    sf_close(f);
    return samples;
}

}  // namespace

TEST(Denoise, OutputIsAlignedWithTheInputAndAsLong) {
    ScratchDir dir;
    CleanerModelSpec spec;
    spec.rate = 32000;
    ASSERT_TRUE(cleanerModel(spec).writeFile(dir.file("pass.sw")));
    for (int rate : {16000, 44100, 48000}) {
        SCOPED_TRACE(rate);
        // Two channels of different noise bursts: any misalignment or channel mix-up shows.
        const size_t length = static_cast<size_t>(rate) * 3 / 2 + 77;  // not a whole frame
        std::vector<float> in(length * 2);
        std::srand(static_cast<unsigned>(rate));
        for (size_t i = 0; i < length; ++i) {
            const float noise = static_cast<float>(std::rand()) / RAND_MAX - 0.5f;
            in[2 * i] = (i / (rate / 10)) % 2 ? 0.5f * noise : 0.0f;
            in[2 * i + 1] = 0.3f * std::sin(2 * M_PI * 300.0 * i / rate);
        }
        writeWav(dir.file("in.wav"), in, 2, rate);
        ASSERT_EQ(sonel("denoise " + dir.file("in.wav") + " " + dir.file("out.wav") + " --model " + dir.file("pass.sw")), 0);
        SF_INFO info;
        const std::vector<float> out = readAudio(dir.file("out.wav"), info);
        ASSERT_EQ(info.frames, static_cast<sf_count_t>(length));
        ASSERT_EQ(info.channels, 2);
        EXPECT_EQ(info.samplerate, rate);
        // The tone channel, well inside the pass-through model's band, must line up with the
        // input: no whole-sample lag fits clearly better than none. Resampling to and from the model's
        // rate can leave half a sample (a 300 Hz tone then still keeps about 25 dB).
        auto snrAtLag = [&](int lag) {
            double error = 0, power = 0;
            for (size_t i = rate / 50; i < length - rate / 50; ++i) {
                const double d = out[2 * (i + lag) + 1] - in[2 * i + 1];
                error += d * d;
                power += in[2 * i + 1] * in[2 * i + 1];
            }
            return 10 * std::log10(power / error);
        };
        for (int lag : {-2, -1, 1, 2}) EXPECT_GT(snrAtLag(0) + 0.5, snrAtLag(lag)) << "lag " << lag;
        EXPECT_GT(snrAtLag(0), 20.0);
    }
}

TEST(Denoise, BadInputFailsCleanlyWithoutOutput) {
    ScratchDir dir;
    ASSERT_TRUE(cleanerModel(CleanerModelSpec{}).writeFile(dir.file("model.vlw")));
    writeWav(dir.file("odd.wav"), std::vector<float>(2205, 0.1f), 1, 22050);
    writeWav(dir.file("ok.wav"), std::vector<float>(1600, 0.1f), 1, 16000);
    std::filesystem::create_directories(dir.path() / "readonly");
    const std::string out = dir.file("out.wav");
    for (const std::string& args : {
             "denoise " + dir.file("missing.wav") + " " + out + " --model " + dir.file("model.vlw"),
             "denoise " + dir.file("odd.wav") + " " + out + " --model " + dir.file("model.vlw"),
             "denoise " + dir.file("ok.wav") + " " + out + " --model " + dir.file("missing.vlw"),
             "denoise " + dir.file("ok.wav") + " " + out + " --model " + dir.file("ok.wav"),
             "denoise " + dir.file("ok.wav") + " " + dir.file("out.mp3") + " --model " + dir.file("model.vlw"),
             "denoise " + dir.file("ok.wav") + " " + dir.file("no/such/folder.wav") + " --model " + dir.file("model.vlw"),
             "denoise " + dir.file("ok.wav"),
         }) {
        SCOPED_TRACE(args);
        EXPECT_NE(sonel(args), 0);
        EXPECT_FALSE(std::filesystem::exists(out));
    }
    EXPECT_EQ(sonel("denoise " + dir.file("ok.wav") + " " + out + " --model " + dir.file("model.vlw")), 0);
    EXPECT_TRUE(std::filesystem::exists(out));
}
