#include "sonel/audio_input.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <iostream>
#include <sstream>

#include "sonel-audio-sdk.h"
#include "sonel/command.h"
#include "utils/wide_string.h"

namespace sonel_cli {

namespace {

bool supportedRate(int rate) {
    for (int r : {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000})
        if (r == rate) return true;
    return false;
}

// The registry reports on standard output; the tool shows those lines only when loading fails.
class QuietStdout {
public:
    QuietStdout() : saved_(std::cout.rdbuf(captured_.rdbuf())) {}
    ~QuietStdout() { std::cout.rdbuf(saved_); }
    std::string text() const { return captured_.str(); }

private:
    std::ostringstream captured_;
    std::streambuf* saved_;
};

// Bytes per sample in a WAV data chunk for the encodings stored sample by sample; 0 for the
// block-coded ones (ADPCM, GSM), whose chunk size gives no frame count directly.
sf_count_t wavSampleBytes(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_ULAW:
        case SF_FORMAT_ALAW: return 1;
        case SF_FORMAT_PCM_16: return 2;
        case SF_FORMAT_PCM_24: return 3;
        case SF_FORMAT_PCM_32:
        case SF_FORMAT_FLOAT: return 4;
        case SF_FORMAT_DOUBLE: return 8;
        default: return 0;
    }
}

// Reads until the decoder stops, block by block rather than by the declared count: a FLAC stream
// may leave its length unknown, and a damaged one may end before it.
std::vector<float> readAll(SNDFILE* file, size_t channels) {
    constexpr sf_count_t kBlockFrames = 1 << 16;
    std::vector<float> samples;
    for (;;) {
        const size_t done = samples.size();
        samples.resize(done + kBlockFrames * channels);
        const sf_count_t got = sf_readf_float(file, samples.data() + done, kBlockFrames);
        samples.resize(done + static_cast<size_t>(got) * channels);
        if (got < kBlockFrames) return samples;
    }
}

// The frame count the file's header declares, 0 where it leaves the length unknown (libsndfile
// reports SF_COUNT_MAX for such a FLAC stream). libsndfile shortens a WAV whose data chunk claims
// more than the file holds to what is there, so a recording cut off mid-write reads without error;
// the chunk's own size still tells how long it was meant to be.
sf_count_t declaredFrames(SNDFILE* file, const SF_INFO& info) {
    if (info.frames == SF_COUNT_MAX) return 0;
    const int major = info.format & SF_FORMAT_TYPEMASK;
    const sf_count_t frameBytes = wavSampleBytes(info.format) * info.channels;
    if ((major != SF_FORMAT_WAV && major != SF_FORMAT_WAVEX) || frameBytes == 0) return info.frames;
    SF_CHUNK_INFO chunk{};
    std::strcpy(chunk.id, "data");
    chunk.id_size = 4;
    const SF_CHUNK_ITERATOR* data = sf_get_chunk_iterator(file, &chunk);
    if (!data || sf_get_chunk_size(data, &chunk) != SF_ERR_NO_ERROR) return info.frames;
    // Writers streaming to a pipe leave the size at its largest value: unknown, not cut off.
    if (chunk.datalen == 0xFFFFFFFFu) return info.frames;
    return std::max(info.frames, static_cast<sf_count_t>(chunk.datalen) / frameBytes);
}

}  // namespace

int readAudio(const std::string& path, AudioInput& out) {
    SndFile in(sf_open(path.c_str(), SFM_READ, &out.info));
    if (!in) return reportError("cannot read '" + path + "': " + sf_strerror(nullptr));
    if (!supportedRate(out.info.samplerate))
        return reportError("'" + path + "' is at " + std::to_string(out.info.samplerate) +
                           " Hz; supported rates are 8000, 16000, 24000, 32000, 44100, 48000, 88200 and 96000 Hz");
    // A recording cut off mid-write still holds audio worth processing: keep what could be read.
    out.channels = static_cast<size_t>(out.info.channels);
    out.interleaved = readAll(in.get(), out.channels);
    out.length = out.interleaved.size() / out.channels;
    if (const sf_count_t declared = declaredFrames(in.get(), out.info);
        static_cast<sf_count_t>(out.length) < declared)
        reportWarning("'" + path + "' is truncated: read " + std::to_string(out.length) + " of the " +
                      std::to_string(declared) + " frames its header declares; using those");
    const auto nonFinite = std::count_if(out.interleaved.begin(), out.interleaved.end(),
                                         [](float sample) { return !std::isfinite(sample); });
    if (nonFinite > 0)
        reportWarning("'" + path + "' holds " + std::to_string(nonFinite) +
                      " non-finite samples (NaN or infinity); they are taken as silence");
    return 0;
}

int largestOverChannels(const AudioInput& input,
                        const std::function<int(size_t, std::vector<float>&)>& channelValues,
                        std::vector<float>& out) {
    std::vector<float> channel;
    out.clear();
    for (size_t c = 0; c < input.channels; ++c) {
        if (int status = channelValues(c, channel)) return status;
        out.resize(channel.size(), std::numeric_limits<float>::lowest());
        for (size_t k = 0; k < channel.size(); ++k) out[k] = std::max(out[k], channel[k]);
    }
    return 0;
}

Library::Library() { ok_ = sonelAudioGlobalInit(nullptr) == SONEL_AUDIO_OK; }

Library::~Library() {
    if (ok_) sonelAudioGlobalDestroy();
}

int loadModel(const std::string& path, const char* name, const unsigned char* embedded,
              unsigned embeddedSize) {
    QuietStdout quiet;
    int32_t result;
    if (!path.empty()) {
        if (!std::filesystem::exists(path)) return reportError("model file '" + path + "' not found");
        // The command line carries the path as UTF-8; the library takes it as code points.
        result = sonelAudioSetModel(SONEL::UTILS::fromUtf8(path).c_str(), name);
    } else {
        if (embeddedSize == 0)
            return reportError("this build has no embedded model; pass --model FILE", kExitUsage);
        result = sonelAudioSetModelBlob(embedded, embeddedSize, name);
    }
    if (result == SONEL_AUDIO_OK) return 0;
    std::string details = quiet.text();
    std::replace(details.begin(), details.end(), '\n', ' ');
    return reportError("cannot load model '" + (path.empty() ? "embedded" : path) + "': " + details);
}

}  // namespace sonel_cli
