/* A program built against an installed Sonel, found through pkg-config or find_package. */
#include <sonel-audio-sdk.h>
#include <stdio.h>

int main(void) {
    SonelAudioVersionInfo v;
    if (sonelAudioGlobalInit(NULL) != SONEL_AUDIO_OK || sonelAudioGetVersion(&v) != SONEL_AUDIO_OK) return 1;
    printf("%u.%u.%u.%u\n", v.major, v.minor, v.patch, v.build);
    return sonelAudioGlobalDestroy();
}
