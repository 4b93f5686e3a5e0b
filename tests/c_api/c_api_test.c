/* A plain C99 host: includes only the public header, links the shared library, registers a
 * model in every form ("vlw", "sw", "cfg", blob) and checks the return codes a host relies on.
 *
 *   c_api_test --write-vlw DIR   writes DIR/c_host_model.vlw (then packed to .sw by the sonel tool)
 *   c_api_test DIR               runs the checks against DIR/c_host_model.{vlw,sw}
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "sonel-audio-sdk.h"

static int failures = 0;
#define CHECK(cond)                                                        \
    do {                                                                   \
        if (!(cond)) {                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                    \
        }                                                                  \
    } while (0)

static void putU32(FILE* f, uint32_t v) {
    unsigned char b[4] = {(unsigned char)v, (unsigned char)(v >> 8), (unsigned char)(v >> 16),
                          (unsigned char)(v >> 24)};
    fwrite(b, 1, 4, f);
}
static void putName(FILE* f, const char* name, uint32_t type) {
    putU32(f, (uint32_t)strlen(name));
    fwrite(name, 1, strlen(name), f);
    putU32(f, type);
}
static void putString(FILE* f, const char* name, const char* value) {
    putName(f, name, 2);
    putU32(f, (uint32_t)strlen(value));
    fwrite(value, 1, strlen(value), f);
}
static void putUInt(FILE* f, const char* name, uint32_t value) {
    putName(f, name, 1);
    putU32(f, value);
}

static int writeVlw(const char* dir) {
    char path[4096];
    snprintf(path, sizeof path, "%s/c_host_model.vlw", dir);
    FILE* f = fopen(path, "wb");
    if (!f) return 1;
    /* A version no model class handles: registration works, session creation must refuse it. */
    putString(f, "Version", "9.9.9");
    putUInt(f, "SampleRate", 16000);
    putUInt(f, "FrameLength", 160);
    putString(f, "ModelName", "c-host");
    putString(f, "TimeStamp", "20261122");
    return fclose(f) == 0 ? 0 : 1;
}

static wchar_t* widen(const char* s) {
    size_t n = strlen(s);
    wchar_t* w = malloc((n + 1) * sizeof(wchar_t));
    for (size_t i = 0; i <= n; ++i) w[i] = (wchar_t)(unsigned char)s[i];
    return w;
}

static int registerPath(const char* path, const char* name) {
    wchar_t* w = widen(path);
    int32_t r = sonelAudioSetModel(w, name);
    free(w);
    return r;
}

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "--write-vlw") == 0) return writeVlw(argv[2]);
    if (argc != 2) return 2;
    const char* dir = argv[1];
    char vlw[4096], sw[4096], cfg[4096];
    snprintf(vlw, sizeof vlw, "%s/c_host_model.vlw", dir);
    snprintf(sw, sizeof sw, "%s/c_host_model.sw", dir);
    snprintf(cfg, sizeof cfg, "%s/c_host_model.cfg", dir);
    FILE* c = fopen(cfg, "w");
    if (!c) return 1;
    fprintf(c, "# host tuning\nWEIGHT   c_host_model.vlw\nsonel_env_low_noise 30\n");
    fclose(c);

    SonelAudioVersionInfo version;
    CHECK(sonelAudioGetVersion(&version) == SONEL_AUDIO_SONEL_EXCEPTION); /* before init */
    CHECK(sonelAudioNcCloseSession(NULL) == SONEL_AUDIO_SONEL_EXCEPTION);
    CHECK(sonelAudioGlobalInit(NULL) == SONEL_AUDIO_OK);
    CHECK(sonelAudioGetVersion(&version) == SONEL_AUDIO_OK);
    CHECK(version.major == 7 && version.minor == 0 && version.patch == 1 && version.build == 40);
    CHECK(sonelAudioGetVersion(NULL) == SONEL_AUDIO_UNKNOWN_EXCEPTION);

    CHECK(registerPath(vlw, "plain") == SONEL_AUDIO_OK);
    CHECK(registerPath(sw, "enciphered") == SONEL_AUDIO_OK);
    CHECK(registerPath(cfg, "controlled") == SONEL_AUDIO_OK);
    CHECK(registerPath(vlw, "plain") == SONEL_AUDIO_MODEL_NOT_LOADED); /* name taken */
    CHECK(sonelAudioSetModel(NULL, "x") == SONEL_AUDIO_MODEL_NOT_LOADED);

    FILE* s = fopen(sw, "rb");
    CHECK(s != NULL);
    if (s) {
        static unsigned char blob[1 << 16];
        size_t size = fread(blob, 1, sizeof blob, s);
        fclose(s);
        CHECK(sonelAudioSetModelBlob(blob, (unsigned int)size, "from-memory") == SONEL_AUDIO_OK);
        CHECK(sonelAudioSetModelBlob(blob, 31, "short") == SONEL_AUDIO_MODEL_NOT_LOADED);
    }
    CHECK(sonelAudioSetModelBlob(NULL, 0, "none") == SONEL_AUDIO_MODEL_NOT_LOADED);

    /* No class handles this version, and 22050 Hz is not a supported rate. */
    CHECK(sonelAudioNcCreateSession(SONEL_AUDIO_RATE_16000, SONEL_AUDIO_RATE_16000,
                                    SONEL_AUDIO_FRAME_10MS, "plain") == NULL);
    CHECK(sonelAudioNcCreateSession((SonelAudioSamplingRate)22050, SONEL_AUDIO_RATE_16000,
                                    SONEL_AUDIO_FRAME_10MS, "plain") == NULL);

    short frame[160] = {0};
    float samples[160] = {0};
    int dummy;
    CHECK(sonelAudioNcCleanAmbientNoiseInt16(&dummy, frame, 160, frame, 160) ==
          SONEL_AUDIO_WRONG_SESSION);
    CHECK(sonelAudioVadFrameFloat(&dummy, samples, 160) == -4.0f);
    CHECK(sonelAudioNcBackgroundSpeakerFixOnOff(&dummy, true) == SONEL_AUDIO_FAILED);
    CHECK(sonelAudioNcCloseSession(&dummy) == SONEL_AUDIO_SONEL_EXCEPTION);
    CHECK(sonelAudioGetFrameEnergyInt16(frame, 160) == 0);

    CHECK(sonelAudioRemoveModel("plain") == SONEL_AUDIO_OK);
    CHECK(sonelAudioRemoveModel("plain") == SONEL_AUDIO_SONEL_EXCEPTION);
    CHECK(sonelAudioGlobalDestroy() == SONEL_AUDIO_OK);
    CHECK(sonelAudioGlobalDestroy() == SONEL_AUDIO_SONEL_EXCEPTION);

    return failures == 0 ? 0 : 1;
}
