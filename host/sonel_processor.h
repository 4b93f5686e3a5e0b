// Sonel::SonelProcessor: the audio-processor bridge between a host pipeline and the C interface.
//
// The host hands it 10 ms blocks of float samples in the 16-bit range, split into bands of 160
// samples. It keeps one noise-cleaning session for the host's rate (recreated whenever the block
// size says the rate changed), cleans each block in place, and lets every failure pass the block
// through unchanged with a line in the system log (sonel_host_log.h). Nothing it does throws.
//
// The block handed to the session is always bands x 160 samples, so it matches the session's
// 10 ms frame only at 16000 Hz x bands (16 kHz with 1 band, 32 kHz with 2, 48 kHz with 3); at any
// other pairing every block is refused by the session, logged and passed through.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "sonel-audio-sdk.h"

namespace Sonel {

class SONEL_AUDIO_API SonelProcessor {
public:
    SonelProcessor() = default;
    // Closes the session and drops one reference to the process-wide instance, so a host pairs
    // each SonelGlobalInit with one processor (or one SonelGlobalDestroy).
    ~SonelProcessor();
    SonelProcessor(const SonelProcessor&) = delete;
    SonelProcessor& operator=(const SonelProcessor&) = delete;

    // Take one reference to the process-wide instance and register the model as "default", from
    // a weight or control file or from an enciphered blob (copied). 0 on success; -1 when the
    // instance could not be set up; -2 when the model was refused (the reference is kept).
    static int SonelGlobalInit(const char* weightFilePath);
    static int SonelGlobalInitBlob(const void* blob, unsigned int size);
    // Drops one reference: the result of sonelAudioGlobalDestroy.
    static int SonelGlobalDestroy();

    // Process-wide: while set, every processor's Process leaves the audio alone.
    static void SetBypassFlag(bool bypass);
    static bool GetBypassFlag();

    // Records the host's rate and channel count; creates the session on the first call only.
    void Initialize(int sample_rate_hz, int num_channels);
    // Makes the session for `rate` (48000 for a rate the library does not take) and keeps it;
    // null when it could not be made.
    void* createSession(int rate);
    // Replaces the session with one for `rate` and records `rate` as the host's rate, even when
    // the session had to be made at 48000.
    void Reset(int rate);
    // Cleans one block of bands x 160 samples in place. `frames` is the block's per-channel
    // sample count, so frames x 100 is the host's rate; a change resets the session first.
    // `bufferSize` is not used.
    void Process(int bands, int frames, int bufferSize, float* buffer);

    // For inspection: the live session handle (null when none) and the recorded host settings.
    void* session() const { return m_session; }
    int sampleRate() const { return m_sampleRate; }
    int numChannels() const { return m_numChannels; }

private:
    void* m_session = nullptr;
    int32_t m_sampleRate = 16000;
    int32_t m_numChannels = 1;
    // Scratch for one block in -1 ... 1 and its cleaned form; they grow with the largest block
    // seen and are reused, so a steady stream allocates nothing per block.
    std::vector<float> m_input;
    std::vector<float> m_output;

    // Written by a host's control thread while audio threads read it: atomic, relaxed.
    static std::atomic<bool> m_bypass;
};

}  // namespace Sonel
