// sonelAudioSetModelBlob on the bytes as a host would hand them over: the plain header, its magic,
// then an enciphered body whose pad count and records only the cipher's key makes readable.
// Mutations of the seeds' cipher text reach the parser as damaged blocks of a real model.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sonel_fuzz::initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sonelAudioSetModelBlob(data, static_cast<unsigned>(size), "fuzz") != SONEL_AUDIO_OK)
        return 0;
    sonel_fuzz::cleanWithModel("fuzz");
    sonel_fuzz::check(sonelAudioRemoveModel("fuzz") == SONEL_AUDIO_OK,
                      "remove the registered model");
    return 0;
}
