// The audio-processor bridge. Its log lines are the ones a host's support staff search for, so
// their wording, blank runs included, stays exactly as it has always been.
#include "sonel_processor.h"

#include <cstddef>
#include <string>

#include "host_log.h"

namespace Sonel {
namespace {

constexpr const char* kModelName = "default";
constexpr int kBandSamples = 160;
constexpr int kBlockMs = 10;
constexpr int kFallbackRate = 48000;
// The host's 16-bit range to the C interface's -1 ... 1 and back; both are powers of two, so the
// round trip is exact.
constexpr float kHostToUnit = 3.0517578e-5f;
constexpr float kUnitToHost = 32768.0f;

bool libraryTakesRate(int rate) {
    for (int r : {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000})
        if (r == rate) return true;
    return false;
}

}  // namespace

std::atomic<bool> SonelProcessor::m_bypass{false};

SonelProcessor::~SonelProcessor() {
    hostLog("SONEL-CIT: Sonel Global Destroy");
    sonelAudioNcCloseSession(m_session);
    sonelAudioGlobalDestroy();
}

int SonelProcessor::SonelGlobalInit(const char* weightFilePath) {
    if (sonelAudioGlobalInit(nullptr) != SONEL_AUDIO_OK) {
        hostLog("SONEL-CIT: Failed to initialize Sonel globals");
        return -1;
    }
    int32_t result = SONEL_AUDIO_MODEL_NOT_LOADED;
    try {
        // Byte by byte, each byte's signed value one wide character, as the bridge has always
        // widened paths. The library reads wide paths as code points, so an ASCII path arrives as
        // it is and one with UTF-8 bytes does not name the file (hosts pass the bundle's blob).
        std::wstring widePath;
        if (weightFilePath)
            for (const char* c = weightFilePath; *c; ++c)
                widePath.push_back(static_cast<wchar_t>(static_cast<signed char>(*c)));
        result = sonelAudioSetModel(weightFilePath ? widePath.c_str() : nullptr, kModelName);
    } catch (...) {
        // Only the wide copy can throw (out of memory): the model is then not registered.
    }
    if (result == SONEL_AUDIO_OK) {
        hostLog("SONEL-CIT: Sonel initialized");
        return 0;
    }
    hostLog("SONEL-CIT: Sonel failed to set wt file %s", weightFilePath ? weightFilePath : "(null)");
    return -2;
}

int SonelProcessor::SonelGlobalInitBlob(const void* blob, unsigned int size) {
    if (sonelAudioGlobalInit(nullptr) != SONEL_AUDIO_OK) {
        hostLog("SONEL-CIT: Failed to initialize Sonel globals");
        return -1;
    }
    if (sonelAudioSetModelBlob(blob, size, kModelName) == SONEL_AUDIO_OK) {
        hostLog("SONEL-CIT: Sonel initialized");
        return 0;
    }
    hostLog("SONEL-CIT: Sonel failed to set wt file");
    return -2;
}

int SonelProcessor::SonelGlobalDestroy() { return sonelAudioGlobalDestroy(); }

void SonelProcessor::SetBypassFlag(bool bypass) { m_bypass.store(bypass, std::memory_order_relaxed); }

bool SonelProcessor::GetBypassFlag() { return m_bypass.load(std::memory_order_relaxed); }

void SonelProcessor::Initialize(int sample_rate_hz, int num_channels) {
    hostLog("SONEL-CIT: SonelProcessor Init sample_rate_hz: %i             num_channels: %i",
            sample_rate_hz, num_channels);
    m_sampleRate = sample_rate_hz;
    m_numChannels = num_channels;
    if (!m_session) createSession(sample_rate_hz);
}

void* SonelProcessor::createSession(int rate) {
    if (!libraryTakesRate(rate)) {
        hostLog("SONEL-CIT: The input sampling rate: %zu              is not supported. Using default 48khz.",
                static_cast<size_t>(rate));
        rate = kFallbackRate;
    }
    const auto sessionRate = static_cast<SonelAudioSamplingRate>(rate);
    m_session = sonelAudioNcCreateSession(sessionRate, sessionRate, SONEL_AUDIO_FRAME_10MS, kModelName);
    return m_session;
}

void SonelProcessor::Reset(int rate) {
    sonelAudioNcCloseSession(m_session);
    m_session = nullptr;
    createSession(rate);
    m_sampleRate = rate;
}

void SonelProcessor::Process(int bands, int frames, int /*bufferSize*/, float* buffer) {
    if (m_bypass.load(std::memory_order_relaxed)) {
        hostLog("SONEL-CIT: Bypassing NoiseSuppressor::Process");
        return;
    }
    // A block's length is the host's rate: a new length means the stream was reconfigured, and a
    // session keeps resampler and network state that belongs to the old rate. (Computed wide, as
    // no real block overflows an int but a corrupt frame count must not.)
    const long long blockRate = static_cast<long long>(frames) * (1000 / kBlockMs);
    if (blockRate != m_sampleRate) Reset(static_cast<int>(blockRate));
    if (!m_session) {
        hostLog("SONEL-CIT: Session creation failed");
        return;
    }
    if (!buffer) {
        hostLog("SONEL-CIT: Sonel noise cleanup error");
        return;
    }
    try {
        const size_t n = bands > 0 ? static_cast<size_t>(bands) * kBandSamples : 0;
        m_input.resize(n);
        m_output.assign(n, 0.0f);
        for (size_t i = 0; i < n; ++i) m_input[i] = buffer[i] * kHostToUnit;
        const auto count = static_cast<unsigned int>(n);
        if (sonelAudioNcCleanAmbientNoiseFloat(m_session, m_input.data(), count, m_output.data(), count) !=
            SONEL_AUDIO_OK) {
            hostLog("SONEL-CIT: Sonel noise cleanup error");
            return;
        }
        for (size_t i = 0; i < n; ++i) buffer[i] = m_output[i] * kUnitToHost;
    } catch (...) {
        // Growing the scratch for a larger block than any before can run out of memory.
        hostLog("SONEL-CIT: Sonel noise cleanup error");
    }
}

}  // namespace Sonel
