#pragma once
// What the audio subcommands share: reading a whole input file, holding the library for the
// length of a command and registering a model file or the embedded default.
#include <sndfile.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sonel-audio-sdk.h"

namespace sonel_cli {

struct SndFileCloser {
    void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndFile = std::unique_ptr<SNDFILE, SndFileCloser>;

struct AudioInput {
    SF_INFO info{};
    size_t channels = 0;
    size_t length = 0;               // frames read
    std::vector<float> interleaved;  // length × channels samples
};

// Feeds one channel of `input` to `perFrame` (a const std::vector<float>& of 10 ms of samples,
// the last frame padded with zeros), frame by frame, until it returns false. Returns the first
// sample of the frame it refused, or input.length when every frame went through.
template <typename PerFrame>
size_t forEachFrame(const AudioInput& input, size_t channel, PerFrame perFrame) {
    std::vector<float> samples(static_cast<size_t>(input.info.samplerate) / 100);
    for (size_t pos = 0; pos < input.length; pos += samples.size()) {
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = pos + i < input.length ? input.interleaved[(pos + i) * input.channels + channel] : 0.0f;
        if (!perFrame(samples)) return pos;
    }
    return input.length;
}

// Reads `path` at a rate the library takes, keeping what a damaged or cut-off file holds, with a
// warning for truncation and for non-finite samples. Returns 0, or the status of the error it
// reported.
int readAudio(const std::string& path, AudioInput& out);

// Holds one global reference for the length of the command.
class Library {
public:
    Library();
    ~Library();
    bool ok() const { return ok_; }

private:
    bool ok_;
};

// Registers the model file at `path` (UTF-8), or the embedded bytes when `path` is empty, under
// `name`. Returns 0, or the status of the error it reported.
int loadModel(const std::string& path, const char* name, const unsigned char* embedded,
              unsigned embeddedSize);

// Per 10 ms frame, the largest of the channels' values, where `channelValues(c, out)` fills
// channel c's (returning 0, or the status of the error it reported). Returns 0 or that status.
int largestOverChannels(const AudioInput& input,
                        const std::function<int(size_t, std::vector<float>&)>& channelValues,
                        std::vector<float>& out);

// A detector of the library: the voice activity detector or the ringtone detector, each a
// probability per frame through its own session functions.
struct Detector {
    const char* modelName;  // the registry key of its model, and the subcommand's name
    const char* what;       // "voice activity", "ringtone": for messages
    const char* found;      // what a detected frame holds: "speech", "ring"
    double hangoverMs;      // how long a segment is held after its last detected frame, by default
    const unsigned char* embedded;
    unsigned embeddedSize;
    void* (*create)(SonelAudioSamplingRate, SonelAudioFrameDuration, const char*);
    float (*frame)(void*, const float*, unsigned);
    int32_t (*close)(void*);
};
extern const Detector kVoiceDetector;
extern const Detector kRingtoneDetector;

// Registers the detector's model file at `path`, or its embedded one when `path` is empty.
int registerDetectorModel(const Detector& detector, const std::string& path);

// The detector's probability for every 10 ms frame of one channel (the last frame padded with
// silence), with its registered model. Returns 0, or the status of the error it reported.
int detectorProbabilities(const Detector& detector, const AudioInput& input, size_t channel,
                          std::vector<float>& out);

// The noise-level estimator's level (dBFS) for every 10 ms frame of one channel, with the
// registered cleaner model `modelName`. Returns 0, or the status of the error it reported.
int channelLevels(const AudioInput& input, size_t channel, const char* modelName, std::vector<float>& out);

}  // namespace sonel_cli
