/* A program built against an installed Sonel, found through pkg-config or find_package: prints
 * the version; given a model file, registers it and cleans a second of noise with it. */
#include <sonel-audio-sdk.h>
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

static int cleanWith(const char* modelPath) {
    wchar_t path[4096];
    if (mbstowcs(path, modelPath, 4096) >= 4096 || sonelAudioSetModel(path, "installed") != SONEL_AUDIO_OK)
        return 2;
    void* session = sonelAudioNcCreateSession(SONEL_AUDIO_RATE_48000, SONEL_AUDIO_RATE_48000, SONEL_AUDIO_FRAME_10MS,
                                              "installed");
    if (!session) return 3;
    static float frame[480];
    double in = 0.0, out = 0.0;
    unsigned seed = 1;
    for (int f = 0; f < 100; ++f) {
        for (int i = 0; i < 480; ++i) {
            seed = seed * 1103515245u + 12345u;
            frame[i] = (float)((int)(seed >> 16 & 0x7fff) - 16384) / 16384.0f * 0.05f;
            if (f >= 50) in += (double)frame[i] * frame[i];
        }
        if (sonelAudioNcCleanAmbientNoiseFloat(session, frame, 480, frame, 480) != SONEL_AUDIO_OK) return 4;
        for (int i = 0; f >= 50 && i < 480; ++i) out += (double)frame[i] * frame[i];
    }
    sonelAudioNcCloseSession(session);
    /* White noise alone: the second half must come out well below what went in. */
    return out < 0.1 * in ? 0 : 5;
}

int main(int argc, char** argv) {
    SonelAudioVersionInfo v;
    if (sonelAudioGlobalInit(NULL) != SONEL_AUDIO_OK || sonelAudioGetVersion(&v) != SONEL_AUDIO_OK) return 1;
    printf("%u.%u.%u.%u\n", v.major, v.minor, v.patch, v.build);
    const int result = argc > 1 ? cleanWith(argv[1]) : 0;
    sonelAudioGlobalDestroy();
    return result;
}
