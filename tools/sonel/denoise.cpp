// `sonel denoise`: cleans an audio file through the library's public float path, one session per
// channel, with the output aligned to the input and exactly as long.
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <vector>

#include "sonel-audio-sdk.h"
#include "sonel/audio_input.h"
#include "sonel/command.h"
#include "sonel/embedded_model.h"
#include "sonel_audio_sdk/instance.h"
#include "sonel_audio_sdk/session.h"

namespace sonel_cli {

namespace {

constexpr const char* kModelName = "default";

// Major format for the output from its extension; the input's sample encoding is kept when the
// output format can hold it, else 16-bit PCM.
int outputFormat(const std::string& path, int inputFormat, int channels, int rate) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    int major = 0;
    if (ext == ".wav") major = SF_FORMAT_WAV;
    else if (ext == ".flac") major = SF_FORMAT_FLAC;
    else return 0;
    SF_INFO probe{};
    probe.channels = channels;
    probe.samplerate = rate;
    probe.format = major | (inputFormat & SF_FORMAT_SUBMASK);
    if (sf_format_check(&probe)) return probe.format;
    return major | SF_FORMAT_PCM_16;
}

void printProgress(double done) {
    const int width = 40;
    const int filled = static_cast<int>(done * width);
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(filled, '#').c_str(),
                 std::string(width - filled, ' ').c_str(), static_cast<int>(done * 100));
}

// What --stats prints per channel beside the session's statistics, each left out (negative or
// empty) when the build has no model for it.
struct ChannelFigures {
    double speechSeconds = -1.0;  // the voice detector's speech time
    double ringSeconds = -1.0;    // frames whose ringtone state was "ringing", in seconds
    std::vector<float> levels;    // the noise-level estimator's level per 10 ms frame
};

void printStats(const std::vector<void*>& sessions, const std::vector<ChannelFigures>& figures) {
    for (size_t c = 0; c < sessions.size(); ++c) {
        SonelAudioNcStats stats{};
        if (sonelAudioNcWithStatsRetrieveStats(sessions[c], &stats) != SONEL_AUDIO_OK) continue;
        std::printf("channel %zu: talk %.2f s; noise none %.2f s, low %.2f s, medium %.2f s, high %.2f s",
                    c + 1, stats.talkTimeMs / 1000.0, stats.noNoiseMs / 1000.0, stats.lowNoiseMs / 1000.0,
                    stats.mediumNoiseMs / 1000.0, stats.highNoiseMs / 1000.0);
        const ChannelFigures& f = figures[c];
        if (!f.levels.empty()) {
            std::vector<float> sorted = f.levels;
            std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
            std::printf("; noise level median %.1f dBFS", sorted[sorted.size() / 2]);
        }
        if (f.speechSeconds >= 0.0) std::printf("; voice detector: speech %.2f s", f.speechSeconds);
        if (f.ringSeconds >= 0.0) std::printf("; ringtone %.2f s", f.ringSeconds);
        std::printf("\n");
    }
}

// Speech time and noise level per channel, each from its own session over the whole input.
int detectorFigures(const AudioInput& input, std::vector<ChannelFigures>& figures) {
    // The estimator's 0.0.5 cleaner joins the registry only now, after the cleaning sessions took
    // their model: at a rate where it fits better than the --model file it would replace it there.
    // Noise-level sessions take a 0.0.5 cleaner, this one or a 0.0.5 --model file.
    if (kEmbeddedNoiseLevelModelSize != 0)
        if (int status = loadModel("", "noise-level", kEmbeddedNoiseLevelModel, kEmbeddedNoiseLevelModelSize))
            return status;
    const bool voice = kEmbeddedVadModelSize != 0;
    if (voice)
        if (int status = registerDetectorModel(kVoiceDetector, "")) return status;
    std::vector<float> probabilities;
    for (size_t c = 0; c < input.channels; ++c) {
        if (voice) {
            if (int status = detectorProbabilities(kVoiceDetector, input, c, probabilities)) return status;
            const auto frames = std::count_if(probabilities.begin(), probabilities.end(), [](float p) { return p >= 0.5f; });
            figures[c].speechSeconds = static_cast<double>(frames) * 0.01;
        }
        // Without a 0.0.5 cleaner registered there is no estimator; the level is then left out.
        if (channelLevels(input, c, kModelName, figures[c].levels) != 0) figures[c].levels.clear();
    }
    return 0;
}

}  // namespace

int runDenoise(const Args& args) {
    std::vector<std::string> files;
    std::string modelPath;
    bool withStats = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--model" && i + 1 < args.size()) modelPath = args[++i];
        else if (args[i] == "--stats") withStats = true;
        else if (args[i].rfind("--", 0) == 0) return reportError("unknown option '" + args[i] + "'", kExitUsage);
        else files.push_back(args[i]);
    }
    if (files.size() != 2) return reportError("denoise needs IN and OUT files", kExitUsage);
    const std::string& inPath = files[0];
    const std::string& outPath = files[1];

    AudioInput input;
    if (int status = readAudio(inPath, input)) return status;
    const SF_INFO& info = input.info;
    const int format = outputFormat(outPath, info.format, info.channels, info.samplerate);
    if (format == 0) return reportError("'" + outPath + "': the output must be a .wav or .flac file", kExitUsage);
    const size_t channels = input.channels, length = input.length;
    const std::vector<float>& interleaved = input.interleaved;

    Library library;
    if (!library.ok()) return reportError("the library could not be initialised");
    if (int status = loadModel(modelPath, kModelName, kEmbeddedModel, kEmbeddedModelSize)) return status;
    // The ringtone detector is registered before the sessions are made: a cleaning session takes
    // the one registered at its creation for the frames cleaned with the ringtone flag.
    const bool ringtone = withStats && kEmbeddedRingtoneModelSize != 0;
    if (ringtone)
        if (int status = registerDetectorModel(kRingtoneDetector, "")) return status;

    const auto rate = static_cast<SonelAudioSamplingRate>(info.samplerate);
    std::vector<void*> sessions;
    for (size_t c = 0; c < channels; ++c) {
        void* s = withStats ? sonelAudioNcWithStatsCreateSession(rate, rate, SONEL_AUDIO_FRAME_10MS, kModelName)
                            : sonelAudioNcCreateSession(rate, rate, SONEL_AUDIO_FRAME_10MS, kModelName);
        if (!s) return reportError("the model cannot run at " + std::to_string(info.samplerate) + " Hz");
        sessions.push_back(s);
    }

    // Process each channel as a stream of 10 ms frames, the last one padded with silence, and go
    // on until the delayed output covers the whole input.
    const unsigned frame = SONEL::getSampleCount(10, static_cast<unsigned>(info.samplerate));
    const bool showProgress = isatty(STDERR_FILENO) && length > static_cast<size_t>(info.samplerate) * 10;
    std::vector<float> cleaned(length * channels, 0.0f);
    std::vector<float> frameIn(frame), out(frame);
    std::vector<ChannelFigures> figures(channels);
    size_t nonFiniteOut = 0;
    const auto start = std::chrono::steady_clock::now();
    for (size_t c = 0; c < channels; ++c) {
        auto* session = static_cast<SONEL::SONEL_AUDIO::SonelAudioSessionT*>(sessions[c]);
        // Output sample `produced` of the stream is input sample `produced - delay`: written
        // straight to its place, so memory stays one copy of the file whatever its length.
        size_t delay = 0, produced = 0;
        for (size_t pos = 0; pos == 0 || produced < length + delay; pos += frame) {
            for (unsigned i = 0; i < frame; ++i)
                frameIn[i] = pos + i < length ? interleaved[(pos + i) * channels + c] : 0.0f;
            SonelAudioNcFrameInfo frameInfo;
            const int32_t result =
                withStats ? sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(session, frameIn.data(), frame, out.data(),
                                                                                   frame, ringtone, &frameInfo)
                          : sonelAudioNcCleanAmbientNoiseFloat(session, frameIn.data(), frame, out.data(), frame);
            if (result != SONEL_AUDIO_OK) return reportError("cleaning failed at sample " + std::to_string(pos));
            if (ringtone && pos < length) {
                if (figures[c].ringSeconds < 0.0) figures[c].ringSeconds = 0.0;
                figures[c].ringSeconds += frameInfo.ringtoneState == 1 ? 0.01 : 0.0;
            }
            if (pos == 0) delay = static_cast<size_t>(std::lround(session->latencySamples()));
            // Non-finite output would pass into a float file as it is and into a PCM one as
            // full-scale clicks; silence is the least harmful stand-in.
            for (unsigned i = 0; i < frame; ++i, ++produced) {
                if (produced < delay || produced - delay >= length) continue;
                const bool finite = std::isfinite(out[i]);
                nonFiniteOut += finite ? 0 : 1;
                cleaned[(produced - delay) * channels + c] = finite ? out[i] : 0.0f;
            }
            if (showProgress && (pos / frame) % 100 == 0)
                printProgress((static_cast<double>(c) + std::min(1.0, static_cast<double>(pos) / length)) / channels);
        }
    }
    if (nonFiniteOut > 0)
        reportWarning("cleaning produced " + std::to_string(nonFiniteOut) +
                      " non-finite samples; they are written as silence");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (showProgress) std::fprintf(stderr, "\r%60s\r", "");

    // Write next to the destination and rename, so a failure never leaves a partial file.
    const std::string partial = outPath + ".partial";
    SF_INFO outInfo{};
    outInfo.channels = info.channels;
    outInfo.samplerate = info.samplerate;
    outInfo.format = format;
    {
        SndFile out(sf_open(partial.c_str(), SFM_WRITE, &outInfo));
        if (!out) return reportError("cannot write '" + outPath + "': " + sf_strerror(nullptr));
        sf_command(out.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
        // libsndfile writes a FLAC header along with the first frame; an empty output needs it now.
        if (length == 0) sf_command(out.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
        if (static_cast<size_t>(sf_writef_float(out.get(), cleaned.data(), static_cast<sf_count_t>(length))) != length) {
            const std::string reason = sf_strerror(out.get());
            out.reset();
            std::filesystem::remove(partial);
            return reportError("cannot write '" + outPath + "': " + reason);
        }
    }
    std::error_code renamed;
    std::filesystem::rename(partial, outPath, renamed);
    if (renamed) {
        std::filesystem::remove(partial);
        return reportError("cannot write '" + outPath + "': " + renamed.message());
    }

    if (withStats) {
        if (int status = detectorFigures(input, figures)) return status;
        printStats(sessions, figures);
    }
    for (void* s : sessions) withStats ? sonelAudioNcWithStatsCloseSession(s) : sonelAudioNcCloseSession(s);
    if (length == 0) {
        std::printf("'%s' holds no audio; wrote an empty '%s'\n", inPath.c_str(), outPath.c_str());
        return 0;
    }
    const double audioSeconds = static_cast<double>(length) / info.samplerate;
    std::printf("cleaned %.2f s of audio (%zu channel%s, %d Hz) in %.2f s: %.0fx real time\n", audioSeconds,
                channels, channels == 1 ? "" : "s", info.samplerate, seconds,
                seconds > 0 ? audioSeconds * channels / seconds : 0.0);
    return 0;
}

}  // namespace sonel_cli
