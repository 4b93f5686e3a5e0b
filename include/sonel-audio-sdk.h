/*
 * Sonel audio SDK: real-time speech noise cancellation.
 *
 * One process-wide instance holds the loaded models; each audio stream gets its own session,
 * handed out as an opaque handle. All calls run on the caller's thread; the library starts no
 * threads. A session must be driven by one thread at a time and must not be closed while another
 * thread uses it. No C++ exception ever leaves these functions: failures come back as the codes
 * below, with a message on standard output or standard error.
 *
 * Samples: the Int16 forms take 16-bit samples; the Float forms take samples in -1 ... 1.
 * Frame sizes: a session made for rate R and duration D (ms) takes exactly D * R / 1000 samples
 * per call (441 at 44100 Hz and 10 ms).
 */
#ifndef SONEL_AUDIO_SDK_H
#define SONEL_AUDIO_SDK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(_WIN32)
#define SONEL_AUDIO_API __declspec(dllexport)
#else
#define SONEL_AUDIO_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Return codes of every integer-returning function; float-returning functions use the same
 * negative values as floats (-1.0 ... -4.0). */
typedef enum SonelAudioResult {
    SONEL_AUDIO_OK = 0,
    SONEL_AUDIO_FAILED = 1,             /* the operation reported failure (e.g. wrong frame size) */
    SONEL_AUDIO_MODEL_NOT_LOADED = 2,   /* null path or blob, or the registry refused the model */
    SONEL_AUDIO_UNKNOWN_EXCEPTION = -1, /* "UNDEFINED EXCEPTION" was printed */
    SONEL_AUDIO_STD_EXCEPTION = -2,     /* a standard exception; its text was printed */
    SONEL_AUDIO_SONEL_EXCEPTION = -3,   /* a library exception; its text was printed */
    SONEL_AUDIO_WRONG_SESSION = -4      /* not a live session of the expected type */
} SonelAudioResult;

/* Sampling rates: the value is the rate in Hz. */
typedef enum SonelAudioSamplingRate {
    SONEL_AUDIO_RATE_8000 = 8000,
    SONEL_AUDIO_RATE_16000 = 16000,
    SONEL_AUDIO_RATE_24000 = 24000,
    SONEL_AUDIO_RATE_32000 = 32000,
    SONEL_AUDIO_RATE_44100 = 44100,
    SONEL_AUDIO_RATE_48000 = 48000,
    SONEL_AUDIO_RATE_88200 = 88200,
    SONEL_AUDIO_RATE_96000 = 96000
} SonelAudioSamplingRate;

/* Frame duration: the value is the length in milliseconds. Sessions that resample need 10. */
typedef enum SonelAudioFrameDuration {
    SONEL_AUDIO_FRAME_10MS = 10,
    SONEL_AUDIO_FRAME_20MS = 20,
    SONEL_AUDIO_FRAME_30MS = 30,
    SONEL_AUDIO_FRAME_40MS = 40
} SonelAudioFrameDuration;

/* The kind of a session, fixed at creation. */
typedef enum SonelAudioSessionType {
    SONEL_AUDIO_SESSION_NC = 1,            /* noise cleaning */
    SONEL_AUDIO_SESSION_NC_WITH_STATS = 2, /* noise cleaning with per-frame info and statistics */
    SONEL_AUDIO_SESSION_VAD = 3,           /* voice activity probability */
    SONEL_AUDIO_SESSION_RINGTONE = 4,      /* ringtone probability */
    SONEL_AUDIO_SESSION_NOISE_DB = 5       /* noise level */
} SonelAudioSessionType;

typedef struct SonelAudioVersionInfo {
    uint16_t major;
    uint16_t minor;
    uint16_t patch;
    uint16_t build;
} SonelAudioVersionInfo;

/* Bandwidth record of the Ex VAD functions: the detector writes bandwidthClass (1 narrow,
 * 2 wide, 3 super-wide; 0 while undecided); the caller sets the two inputs in milliseconds. */
typedef struct SonelAudioBandWidthInfo_t {
    int32_t bandwidthClass;
    int32_t startDelayMs;
    int32_t averagingPeriodMs;
} SonelAudioBandWidthInfo_t;

/* Per-frame levels (0 ... 100) and ringtone state of an NC-with-statistics session:
 * ringtoneState is 0 when not evaluated, 1 at or above the CSD threshold, 2 below it. */
typedef struct SonelAudioNcFrameInfo {
    uint32_t voiceLevel;
    uint32_t noiseLevel;
    uint32_t ringtoneState;
} SonelAudioNcFrameInfo;

/* Accumulated talk time and time spent in each noise class, in milliseconds. */
typedef struct SonelAudioNcStats {
    uint32_t talkTimeMs;
    uint32_t noNoiseMs;
    uint32_t lowNoiseMs;
    uint32_t mediumNoiseMs;
    uint32_t highNoiseMs;
} SonelAudioNcStats;

/* Global lifetime: reference-counted; pair every init with one destroy. */
SONEL_AUDIO_API int32_t sonelAudioGlobalInit(const wchar_t* workingPath);
SONEL_AUDIO_API int32_t sonelAudioGlobalDestroy(void);
SONEL_AUDIO_API int32_t sonelAudioGetVersion(SonelAudioVersionInfo* out);

/* Models: a "sw", "vlw" or "cfg" file, or an enciphered blob (copied; the caller keeps it). */
SONEL_AUDIO_API int32_t sonelAudioSetModel(const wchar_t* weightFilePath, const char* modelName);
SONEL_AUDIO_API int32_t sonelAudioSetModelBlob(const void* blob, unsigned int blobSize,
                                               const char* modelName);
SONEL_AUDIO_API int32_t sonelAudioRemoveModel(const char* modelName);

/* Sessions: a handle, or NULL on any failure. */
SONEL_AUDIO_API void* sonelAudioNcCreateSession(SonelAudioSamplingRate inputRate,
                                                SonelAudioSamplingRate outputRate,
                                                SonelAudioFrameDuration frameDuration,
                                                const char* modelName);
SONEL_AUDIO_API void* sonelAudioNcWithStatsCreateSession(SonelAudioSamplingRate inputRate,
                                                         SonelAudioSamplingRate outputRate,
                                                         SonelAudioFrameDuration frameDuration,
                                                         const char* modelName);
SONEL_AUDIO_API void* sonelAudioVadCreateSession(SonelAudioSamplingRate rate,
                                                 SonelAudioFrameDuration frameDuration,
                                                 const char* modelName);
SONEL_AUDIO_API void* sonelAudioRingtoneCreateSession(SonelAudioSamplingRate rate,
                                                      SonelAudioFrameDuration frameDuration,
                                                      const char* modelName);
SONEL_AUDIO_API void* sonelAudioNoiseDbCreateSession(SonelAudioSamplingRate rate,
                                                     SonelAudioFrameDuration frameDuration,
                                                     const char* modelName);

SONEL_AUDIO_API int32_t sonelAudioNcCloseSession(void* session);
SONEL_AUDIO_API int32_t sonelAudioNcWithStatsCloseSession(void* session);
SONEL_AUDIO_API int32_t sonelAudioVadCloseSession(void* session);
SONEL_AUDIO_API int32_t sonelAudioRingtoneCloseSession(void* session);
SONEL_AUDIO_API int32_t sonelAudioNoiseDbCloseSession(void* session);
SONEL_AUDIO_API int32_t sonelAudioNoiseDbResetSession(void* session);

/* Noise cleaning: one frame in, one frame out (the two buffers may be the same). */
SONEL_AUDIO_API int32_t sonelAudioNcCleanAmbientNoiseInt16(void* session, const short* input,
                                                           unsigned int inputSize, short* output,
                                                           unsigned int outputSize);
SONEL_AUDIO_API int32_t sonelAudioNcCleanAmbientNoiseWithRingtoneInt16(
    void* session, const short* input, unsigned int inputSize, short* output,
    unsigned int outputSize, bool ringtone);
SONEL_AUDIO_API int32_t sonelAudioNcWithStatsCleanAmbientNoiseInt16(
    void* session, const short* input, unsigned int inputSize, short* output,
    unsigned int outputSize, SonelAudioNcFrameInfo* info);
SONEL_AUDIO_API int32_t sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneInt16(
    void* session, const short* input, unsigned int inputSize, short* output,
    unsigned int outputSize, bool ringtone, SonelAudioNcFrameInfo* info);
SONEL_AUDIO_API int32_t sonelAudioNcCleanAmbientNoiseFloat(void* session, const float* input,
                                                           unsigned int inputSize, float* output,
                                                           unsigned int outputSize);
SONEL_AUDIO_API int32_t sonelAudioNcCleanAmbientNoiseWithRingtoneFloat(
    void* session, const float* input, unsigned int inputSize, float* output,
    unsigned int outputSize, bool ringtone);
SONEL_AUDIO_API int32_t sonelAudioNcWithStatsCleanAmbientNoiseFloat(
    void* session, const float* input, unsigned int inputSize, float* output,
    unsigned int outputSize, SonelAudioNcFrameInfo* info);
SONEL_AUDIO_API int32_t sonelAudioNcWithStatsCleanAmbientNoiseWithRingtoneFloat(
    void* session, const float* input, unsigned int inputSize, float* output,
    unsigned int outputSize, bool ringtone, SonelAudioNcFrameInfo* info);

SONEL_AUDIO_API int32_t sonelAudioNcWithStatsRetrieveStats(void* session, SonelAudioNcStats* stats);

/* Voice activity: the mean speech probability of the frame (0 ... 1), or a negative code. */
SONEL_AUDIO_API float sonelAudioVadFrameInt16(void* session, const short* frame,
                                              unsigned int frameSize);
SONEL_AUDIO_API float sonelAudioVadFrameInt16Ex(void* session, const short* frame,
                                                unsigned int frameSize,
                                                SonelAudioBandWidthInfo_t* info);
SONEL_AUDIO_API float sonelAudioVadFrameFloat(void* session, const float* frame,
                                              unsigned int frameSize);
SONEL_AUDIO_API float sonelAudioVadFrameFloatEx(void* session, const float* frame,
                                                unsigned int frameSize,
                                                SonelAudioBandWidthInfo_t* info);
SONEL_AUDIO_API float _sonelAudioVadFrameInt16Helper(void* session, const short* frame,
                                                     unsigned int frameSize,
                                                     SonelAudioBandWidthInfo_t* info);
SONEL_AUDIO_API float _sonelAudioVadFrameFloatHelper(void* session, const float* frame,
                                                     unsigned int frameSize,
                                                     SonelAudioBandWidthInfo_t* info);

/* Switches the background speaker fix of an NC session: 0 done, 1 on any failure. */
SONEL_AUDIO_API int32_t sonelAudioNcBackgroundSpeakerFixOnOff(void* session, bool enable);

SONEL_AUDIO_API float sonelAudioDetectRingtoneFrameInt16(void* session, const short* frame,
                                                         unsigned int frameSize);
SONEL_AUDIO_API float sonelAudioDetectRingtoneFrameFloat(void* session, const float* frame,
                                                         unsigned int frameSize);
SONEL_AUDIO_API float sonelAudioNoiseDbFrameInt16(void* session, const short* frame,
                                                  unsigned int frameSize);
SONEL_AUDIO_API float sonelAudioNoiseDbFrameFloat(void* session, const float* frame,
                                                  unsigned int frameSize);

/* Frame energy on a 0 ... 100 scale; needs no instance. */
SONEL_AUDIO_API unsigned int sonelAudioGetFrameEnergyFloat(const float* frame,
                                                           unsigned int frameSize);
SONEL_AUDIO_API unsigned int sonelAudioGetFrameEnergyInt16(const short* frame,
                                                           unsigned int frameSize);

#ifdef __cplusplus
}
#endif

#endif /* SONEL_AUDIO_SDK_H */
