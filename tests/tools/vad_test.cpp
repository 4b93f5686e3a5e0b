// `sonel vad` end to end with the embedded detector: recorded speech framed by silence is found
// where it is and nowhere else, every output format describes the same frames, and bad options
// are refused.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"
#include "tool_test_support.h"

using namespace sonel_test;

namespace {

struct Segment {
    double start, end;
};

std::vector<Segment> parseSegments(const std::string& text) {
    std::vector<Segment> out;
    std::istringstream lines(text);
    Segment s{};
    while (lines >> s.start >> s.end) out.push_back(s);
    return out;
}

}  // namespace

TEST(Vad, RecordedSpeechIsFoundBetweenItsSilencesInEveryFormat) {
    const std::filesystem::path speechDir = SONEL_TEST_DATA_DIR "/holdout/speech";
    if (!std::filesystem::is_directory(speechDir))
        GTEST_SKIP() << "needs the recorded corpus at " << speechDir;
    SF_INFO info{};
    const std::vector<float> speech =
        readAudio((speechDir / "so762_spk0005_000050003.ogg").string(), info);
    ASSERT_FALSE(speech.empty());
    ASSERT_EQ(info.channels, 1);

    // Two channels at the recording's 48 kHz (the detector runs at 8 kHz behind the resampler):
    // 1.5 s of digital silence, the speech on the right channel only, 1.5 s of silence.
    const int rate = info.samplerate;
    const double before = 1.5, speechSeconds = static_cast<double>(speech.size()) / rate;
    std::vector<float> stereo(2 * (speech.size() + 3 * rate / 2 * 2), 0.0f);
    for (size_t i = 0; i < speech.size(); ++i) stereo[2 * (i + 3 * rate / 2) + 1] = speech[i];
    ScratchDir dir;
    const std::string wav = dir.file("talk.wav");
    writeWav(wav, stereo, 2, rate);

    std::string text;
    ASSERT_EQ(sonel("vad " + wav + " --hangover 100", &text), 0) << text;
    const std::vector<Segment> found = parseSegments(text);
    ASSERT_FALSE(found.empty()) << text;
    double covered = 0.0;
    for (const Segment& s : found) {
        EXPECT_GE(s.start, before - 0.05) << text;                        // nothing in the silence before
        EXPECT_LE(s.end, before + speechSeconds + 0.1 + 0.05) << text;  // nor after, hangover aside
        covered += s.end - s.start;
    }
    EXPECT_GT(covered, 0.5 * speechSeconds) << text;

    // Frames: one line per 10 ms of the file; json: the same segments and probabilities.
    std::string frames, json;
    ASSERT_EQ(sonel("vad " + wav + " --hangover 100 --format frames", &frames), 0);
    const size_t lines = static_cast<size_t>(std::count(frames.begin(), frames.end(), '\n'));
    EXPECT_EQ(lines, (stereo.size() / 2 + rate / 100 - 1) / (rate / 100));
    ASSERT_EQ(sonel("vad " + wav + " --hangover 100 --format json", &json), 0);
    char first[64];
    std::snprintf(first, sizeof first, "[%.2f, %.2f]", found[0].start, found[0].end);
    EXPECT_NE(json.find(std::string("\"segments\": [") + first), std::string::npos) << json;
    EXPECT_EQ(static_cast<size_t>(std::count(json.begin(), json.end(), ',')),
              lines - 1 + 2 * found.size() - 1 + 6)
        << "one value per frame, two per segment, seven fields";
}

TEST(Vad, BadOptionsAndFilesAreRefusedWithAMessage) {
    ScratchDir dir;
    const std::string wav = dir.file("quiet.wav");
    writeWav(wav, std::vector<float>(16000, 0.0f), 1, 16000);
    std::string text;
    EXPECT_EQ(sonel("vad " + wav + " --threshold 1.5", &text), 2 << 8) << text;
    EXPECT_NE(text.find("--threshold takes a probability"), std::string::npos) << text;
    EXPECT_EQ(sonel("vad " + wav + " --format xml", &text), 2 << 8) << text;
    EXPECT_EQ(sonel("vad " + wav + " --hangover -5", &text), 2 << 8) << text;
    // A cleaning model is no detector: the session cannot be made, and the tool says so.
    EXPECT_EQ(sonel("vad " + wav + " --model " SONEL_SOURCE_DIR "/models/sonel-nc-16k.sw", &text), 1 << 8) << text;
    EXPECT_NE(text.find("voice activity model cannot run"), std::string::npos) << text;
    writeWav(wav, std::vector<float>(22050, 0.0f), 1, 22050);
    EXPECT_EQ(sonel("vad " + wav, &text), 1 << 8) << text;
    EXPECT_NE(text.find("supported rates"), std::string::npos) << text;
}
