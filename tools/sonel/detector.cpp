// `sonel vad` and `sonel ringtone`: a detector over an audio file, through the library's public
// detector functions, as the segments it found or per-frame probabilities. The two commands differ
// only in the session functions, the embedded model and the words they print.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sonel-audio-sdk.h"
#include "sonel/audio_input.h"
#include "sonel/command.h"
#include "sonel/embedded_model.h"

namespace sonel_cli {

namespace {

constexpr unsigned kFrameMs = 10;

enum class Format { Segments, Frames, Json };

struct Segment {
    double start;
    double end;
};

bool parseNumber(const std::string& text, double& out) {
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && end == text.c_str() + text.size();
}

// Runs of frames at or above the threshold, each held for `hangoverFrames` after its last such
// frame, in seconds and cut at the end of the file.
std::vector<Segment> segments(const std::vector<float>& probabilities, double threshold,
                              size_t hangoverFrames, double seconds) {
    std::vector<Segment> out;
    size_t holdUntil = 0;  // one past the last frame the current segment covers
    for (size_t k = 0; k < probabilities.size(); ++k) {
        if (probabilities[k] < threshold) continue;
        const double start = static_cast<double>(k * kFrameMs) / 1000.0;
        if (out.empty() || k > holdUntil) out.push_back({start, start});
        holdUntil = k + 1 + hangoverFrames;
        out.back().end = std::min(static_cast<double>(holdUntil * kFrameMs) / 1000.0, seconds);
    }
    return out;
}

}  // namespace

const Detector kVoiceDetector{"vad",           "voice activity", "speech", 200.0,
                               kEmbeddedVadModel, kEmbeddedVadModelSize,
                               sonelAudioVadCreateSession, sonelAudioVadFrameFloat, sonelAudioVadCloseSession};
const Detector kRingtoneDetector{"ringtone", "ringtone", "ring", 300.0,
                                 kEmbeddedRingtoneModel, kEmbeddedRingtoneModelSize,
                                 sonelAudioRingtoneCreateSession, sonelAudioDetectRingtoneFrameFloat,
                                 sonelAudioRingtoneCloseSession};

int registerDetectorModel(const Detector& detector, const std::string& path) {
    return loadModel(path, detector.modelName, detector.embedded, detector.embeddedSize);
}

int detectorProbabilities(const Detector& detector, const AudioInput& input, size_t channel,
                          std::vector<float>& out) {
    const auto rate = static_cast<SonelAudioSamplingRate>(input.info.samplerate);
    void* session = detector.create(rate, SONEL_AUDIO_FRAME_10MS, detector.modelName);
    if (!session)
        return reportError(std::string("the ") + detector.what + " model cannot run at " +
                           std::to_string(input.info.samplerate) + " Hz");
    out.clear();
    float p = 0.0f;
    const size_t failed = forEachFrame(input, channel, [&](const std::vector<float>& samples) {
        p = detector.frame(session, samples.data(), static_cast<unsigned>(samples.size()));
        if (p >= 0.0f) out.push_back(p);
        return p >= 0.0f;
    });
    detector.close(session);
    if (failed < input.length)
        return reportError(std::string(detector.what) + " detection failed at sample " + std::to_string(failed) +
                           " (code " + std::to_string(static_cast<int>(p)) + ")");
    return 0;
}

int runDetector(const Detector& detector, const Args& args) {
    std::string inPath, modelPath;
    double threshold = 0.5, hangoverMs = detector.hangoverMs;
    Format format = Format::Segments;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--model" && hasValue) {
            modelPath = args[++i];
        } else if (args[i] == "--threshold" && hasValue) {
            if (!parseNumber(args[++i], threshold) || !(threshold >= 0.0 && threshold <= 1.0))
                return reportError("--threshold takes a probability from 0 to 1", kExitUsage);
        } else if (args[i] == "--hangover" && hasValue) {
            if (!parseNumber(args[++i], hangoverMs) || !(hangoverMs >= 0.0 && hangoverMs <= 10000.0))
                return reportError("--hangover takes milliseconds from 0 to 10000", kExitUsage);
        } else if (args[i] == "--format" && hasValue) {
            const std::string& name = args[++i];
            if (name == "segments") format = Format::Segments;
            else if (name == "frames") format = Format::Frames;
            else if (name == "json") format = Format::Json;
            else return reportError("--format is segments, frames or json", kExitUsage);
        } else if (args[i].rfind("--", 0) == 0 || !inPath.empty()) {
            return reportError("unexpected argument '" + args[i] + "'", kExitUsage);
        } else {
            inPath = args[i];
        }
    }
    if (inPath.empty()) return reportError(std::string(detector.modelName) + " needs an IN file", kExitUsage);

    AudioInput input;
    if (int status = readAudio(inPath, input)) return status;
    Library library;
    if (!library.ok()) return reportError("the library could not be initialised");
    if (int status = registerDetectorModel(detector, modelPath)) return status;

    // A frame holds speech, or a ring, when any channel does.
    std::vector<float> probabilities;
    if (int status = largestOverChannels(
            input, [&](size_t c, std::vector<float>& out) { return detectorProbabilities(detector, input, c, out); },
            probabilities))
        return status;
    const double seconds = static_cast<double>(input.length) / input.info.samplerate;
    const auto hangoverFrames = static_cast<size_t>(hangoverMs / kFrameMs + 0.5);
    const std::vector<Segment> found = segments(probabilities, threshold, hangoverFrames, seconds);

    switch (format) {
        case Format::Segments:
            for (const Segment& s : found) std::printf("%.2f\t%.2f\n", s.start, s.end);
            break;
        case Format::Frames:
            for (size_t k = 0; k < probabilities.size(); ++k)
                std::printf("%.2f\t%.4f\n", static_cast<double>(k * kFrameMs) / 1000.0, probabilities[k]);
            break;
        case Format::Json: {
            double foundSeconds = 0.0;
            for (const Segment& s : found) foundSeconds += s.end - s.start;
            std::printf("{\"seconds\": %.2f, \"frame_ms\": %u, \"threshold\": %g, \"hangover_ms\": %g, "
                        "\"%s_seconds\": %.2f, \"segments\": [",
                        seconds, kFrameMs, threshold, hangoverMs, detector.found, foundSeconds);
            for (size_t i = 0; i < found.size(); ++i)
                std::printf("%s[%.2f, %.2f]", i ? ", " : "", found[i].start, found[i].end);
            std::printf("], \"probabilities\": [");
            for (size_t k = 0; k < probabilities.size(); ++k)
                std::printf("%s%.4f", k ? ", " : "", probabilities[k]);
            std::printf("]}\n");
            break;
        }
    }
    return 0;
}

int runVad(const Args& args) { return runDetector(kVoiceDetector, args); }
int runRingtone(const Args& args) { return runDetector(kRingtoneDetector, args); }

}  // namespace sonel_cli
