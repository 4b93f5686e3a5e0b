#pragma once
// Internal per-frame and per-session records exchanged between the C interface, the session and
// the cleaners. Their public counterparts live in sonel-audio-sdk.h.
#include <cstdint>
#include <unordered_map>

#include "sonel-audio-sdk.h"

namespace SONEL {

struct ncAudioInfo_t {
    double voiceLevel;
    double noiseLevel;
    double ringtoneProbability;  // exactly -1.0 when the cleaner did not evaluate it
};

// Same fields as SonelAudioBandWidthInfo_t with the two inputs in the opposite order.
struct bandWidthInfo_t {
    int32_t bandwidthClass;
    int32_t averagingPeriodMs;
    int32_t startDelayMs;
};

struct NoiseVoiceStats {
    uint32_t talkTime = 0;
    std::unordered_map<uint32_t, uint32_t> noiseTimeByLevel;  // class 0..3 -> ms
};

// Samples in one frame: duration x rate / 1000, truncated (441 at 44100 Hz and 10 ms).
inline unsigned getSampleCount(unsigned durationMs, unsigned rateHz) {
    return static_cast<unsigned>(static_cast<double>(durationMs) * rateHz / 1000.0);
}

namespace SONEL_AUDIO {
using SonelAudioSessionType = ::SonelAudioSessionType;
}

}  // namespace SONEL
