#pragma once
// Running the built `sonel` tool as a user does, and the audio files its tests write and read.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <string>
#include <vector>

namespace sonel_test {

// Runs the tool; `output`, when given, receives what it printed on both streams.
inline int sonel(const std::string& arguments, std::string* output = nullptr) {
    const std::string command = "'" SONEL_TOOL "' " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe)) text += buffer;
    if (output) *output = text;
    return pclose(pipe);
}

inline void writeWav(const std::string& path, const std::vector<float>& interleaved, int channels, int rate,
              int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
    SF_INFO info{};
    info.channels = channels;
    info.samplerate = rate;
    info.format = format;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr);
    sf_writef_float(f, interleaved.data(), static_cast<sf_count_t>(interleaved.size() / channels));
    sf_close(f);
}

// What libsndfile can read of the file, which for a damaged one is less than its header declares
// and for an empty FLAC one has no declared length at all.
inline std::vector<float> readAudio(const std::string& path, SF_INFO& info) {
    info = SF_INFO{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) return {};
    std::vector<float> samples, block(4096 * static_cast<size_t>(info.channels));
    sf_count_t got;
    while ((got = sf_readf_float(f, block.data(), 4096)) > 0)
        samples.insert(samples.end(), block.begin(), block.begin() + got * info.channels);
    sf_close(f);
    return samples;
}

}  // namespace sonel_test
