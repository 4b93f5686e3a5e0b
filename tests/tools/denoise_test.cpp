// `sonel denoise` end to end: alignment and length through a pass-through model at host rates
// other than the model's, several channels, clean failures that leave no output behind, and damaged,
// empty or unusually named files that are still handled.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"
#include "tool_test_support.h"

using namespace sonel_test;

namespace {

void cutBytesOffTheEnd(const std::string& path, std::uintmax_t bytes) {
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - bytes);
}

}  // namespace

TEST(Denoise, OutputIsAlignedWithTheInputAndAsLong) {
    ScratchDir dir;
    CleanerModelSpec spec;
    spec.rate = 32000;
    // A model path outside ASCII reaches the file system intact through the tool's wide path.
    const std::string model = dir.file("modèle-ß-模型.sw");
    ASSERT_TRUE(cleanerModel(spec).writeFile(model));
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
        ASSERT_EQ(sonel("denoise " + dir.file("in.wav") + " " + dir.file("out.wav") + " --model '" + model + "'"), 0);
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

TEST(Denoise, DamagedInputIsCleanedAsFarAsItReads) {
    ScratchDir dir;
    ASSERT_TRUE(cleanerModel(CleanerModelSpec{}).writeFile(dir.file("pass.vlw")));
    const int rate = 16000;
    std::vector<float> tone(rate);
    for (size_t i = 0; i < tone.size(); ++i) tone[i] = 0.3f * std::sin(2 * M_PI * 440.0 * i / rate);

    // A WAV cut mid-sample, which libsndfile reads as shorter without error, and a FLAC stream
    // whose decoder stops early: each output holds all that could be read, up to its last sample.
    for (const auto& [name, format] : {std::pair<std::string, int>{"cut.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
                                       {"cut.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16}}) {
        SCOPED_TRACE(name);
        writeWav(dir.file(name), tone, 1, rate, format);
        cutBytesOffTheEnd(dir.file(name), 1001);
        SF_INFO info;
        const std::vector<float> readable = readAudio(dir.file(name), info);
        ASSERT_GT(readable.size(), tone.size() / 2);
        ASSERT_LT(readable.size(), tone.size());
        std::string output;
        ASSERT_EQ(sonel("denoise " + dir.file(name) + " " + dir.file("out.wav") + " --model " + dir.file("pass.vlw"), &output), 0);
        EXPECT_NE(output.find("truncated: read " + std::to_string(readable.size()) + " of the 16000 frames"),
                  std::string::npos) << output;
        const std::vector<float> out = readAudio(dir.file("out.wav"), info);
        ASSERT_EQ(out.size(), readable.size());
        double error = 0, power = 0;
        for (size_t i = out.size() - rate / 20; i < out.size(); ++i) {
            error += (out[i] - readable[i]) * (out[i] - readable[i]);
            power += readable[i] * readable[i];
        }
        EXPECT_GT(10 * std::log10(power / error), 20.0);
    }

    // Non-finite samples are counted, and neither a float nor a 16-bit output receives them: NaN
    // would stay NaN in the one and become a full-scale click in the other.
    std::vector<float> broken = tone;
    broken[100] = NAN;
    broken[5000] = INFINITY;
    broken[5001] = -INFINITY;
    writeWav(dir.file("broken.wav"), broken, 1, rate);
    for (const std::string out : {"out.wav", "out.flac"}) {
        SCOPED_TRACE(out);
        std::string output;
        ASSERT_EQ(sonel("denoise " + dir.file("broken.wav") + " " + dir.file(out) + " --model " + dir.file("pass.vlw"), &output), 0);
        EXPECT_NE(output.find("holds 3 non-finite samples"), std::string::npos) << output;
        SF_INFO info;
        const std::vector<float> cleaned = readAudio(dir.file(out), info);
        ASSERT_EQ(cleaned.size(), broken.size());
        EXPECT_TRUE(std::all_of(cleaned.begin(), cleaned.end(), [](float s) { return std::abs(s) < 0.9f; }));
    }
}

TEST(Denoise, EmptyInputGivesAnEmptyOutputOfTheSameFormat) {
    ScratchDir dir;
    ASSERT_TRUE(cleanerModel(CleanerModelSpec{}).writeFile(dir.file("pass.vlw")));
    // An empty FLAC file has its header only when forced out, and reads back with its length
    // unknown rather than zero.
    for (const auto& [name, format] : {std::pair<std::string, int>{"empty.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
                                       {"empty.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24}}) {
        SCOPED_TRACE(name);
        SF_INFO info{};
        info.channels = 2;
        info.samplerate = 48000;
        info.format = format;
        SNDFILE* f = sf_open(dir.file(name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(f, nullptr);
        sf_command(f, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        sf_close(f);
        const std::string out = dir.file("out" + std::filesystem::path(name).extension().string());
        std::string output;
        ASSERT_EQ(sonel("denoise " + dir.file(name) + " " + out + " --model " + dir.file("pass.vlw"), &output), 0);
        EXPECT_NE(output.find("holds no audio"), std::string::npos) << output;
        SF_INFO written;
        EXPECT_TRUE(readAudio(out, written).empty());
        EXPECT_EQ(written.format, format);
        EXPECT_EQ(written.channels, 2);
        EXPECT_EQ(written.samplerate, 48000);
    }
}
