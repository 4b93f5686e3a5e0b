// `sonel noise-level`: the background noise level of an audio file through the library's public
// noise-level functions, per 10 ms frame or as a JSON summary.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "sonel-audio-sdk.h"
#include "sonel/audio_input.h"
#include "sonel/command.h"
#include "sonel/embedded_model.h"

namespace sonel_cli {

namespace {

constexpr const char* kModelName = "noise-level";
constexpr unsigned kFrameMs = 10;

enum class Format { Frames, Json };

// Percentile with linear interpolation between the closest ranks, of sorted values.
double percentile(const std::vector<float>& sorted, double p) {
    const double position = p / 100.0 * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<size_t>(position);
    const size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (position - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

}  // namespace

int channelLevels(const AudioInput& input, size_t channel, const char* modelName, std::vector<float>& out) {
    const auto rate = static_cast<SonelAudioSamplingRate>(input.info.samplerate);
    void* session = sonelAudioNoiseDbCreateSession(rate, SONEL_AUDIO_FRAME_10MS, modelName);
    if (!session)
        return reportError("no noise-level session at " + std::to_string(input.info.samplerate) +
                           " Hz: the model must be a noise cleaner of version 0.0.5");
    out.clear();
    float level = 0.0f;
    const size_t failed = forEachFrame(input, channel, [&](const std::vector<float>& samples) {
        level = sonelAudioNoiseDbFrameFloat(session, samples.data(), static_cast<unsigned>(samples.size()));
        // Levels stay at or below −5 dBFS; −1 … −4 are the interface's failure codes.
        if (level <= -4.5f) out.push_back(level);
        return level <= -4.5f;
    });
    sonelAudioNoiseDbCloseSession(session);
    if (failed < input.length)
        return reportError("the noise level failed at sample " + std::to_string(failed) + " (code " +
                           std::to_string(static_cast<int>(level)) + ")");
    return 0;
}

int runNoiseLevel(const Args& args) {
    std::string inPath, modelPath;
    Format format = Format::Frames;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--model" && hasValue) {
            modelPath = args[++i];
        } else if (args[i] == "--format" && hasValue) {
            const std::string& name = args[++i];
            if (name == "frames") format = Format::Frames;
            else if (name == "json") format = Format::Json;
            else return reportError("--format is frames or json", kExitUsage);
        } else if (args[i].rfind("--", 0) == 0 || !inPath.empty()) {
            return reportError("unexpected argument '" + args[i] + "'", kExitUsage);
        } else {
            inPath = args[i];
        }
    }
    if (inPath.empty()) return reportError("noise-level needs an IN file", kExitUsage);

    AudioInput input;
    if (int status = readAudio(inPath, input)) return status;
    Library library;
    if (!library.ok()) return reportError("the library could not be initialised");
    if (int status = loadModel(modelPath, kModelName, kEmbeddedNoiseLevelModel, kEmbeddedNoiseLevelModelSize))
        return status;

    // Each channel has its own session; a frame's level is that of its noisiest channel, the
    // noise a listener of the mix hears most.
    std::vector<float> levels;
    if (int status = largestOverChannels(
            input, [&](size_t c, std::vector<float>& out) { return channelLevels(input, c, kModelName, out); }, levels))
        return status;

    switch (format) {
        case Format::Frames:
            for (size_t k = 0; k < levels.size(); ++k)
                std::printf("%.2f\t%.2f\n", static_cast<double>(k * kFrameMs) / 1000.0, levels[k]);
            break;
        case Format::Json: {
            std::vector<float> sorted = levels;
            std::sort(sorted.begin(), sorted.end());
            std::printf("{\"seconds\": %.2f, \"frame_ms\": %u, ",
                        static_cast<double>(input.length) / input.info.samplerate, kFrameMs);
            if (sorted.empty())  // a file with no audio has no level to sum up
                std::printf("\"median_dbfs\": null, \"p10_dbfs\": null, \"p90_dbfs\": null, ");
            else
                std::printf("\"median_dbfs\": %.2f, \"p10_dbfs\": %.2f, \"p90_dbfs\": %.2f, ",
                            percentile(sorted, 50.0), percentile(sorted, 10.0), percentile(sorted, 90.0));
            std::printf("\"levels_dbfs\": [");
            for (size_t k = 0; k < levels.size(); ++k) std::printf("%s%.2f", k ? ", " : "", levels[k]);
            std::printf("]}\n");
            break;
        }
    }
    return 0;
}

}  // namespace sonel_cli
