// sonelAudioSetModelBlob on a blob whose deciphered body is the fuzz input: the target enciphers
// it with the build's key, so every mutation reaches the pad count and the record parser as
// written instead of as a scrambled cipher block.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "utils/crypto.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sonel_fuzz::initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The writer's layout: a 16-byte plain header starting "SMW\0", then the body padded with
    // zeros to whole 8-byte cipher blocks.
    constexpr size_t kHeaderBytes = 16;
    std::vector<uint32_t> words((size + 7) / 8 * 2);
    if (size) std::memcpy(words.data(), data, size);
    SONEL::UTILS::Crypto(SONEL::UTILS::TEA)
        .encrypt(words.data(), static_cast<uint32_t>(words.size()));
    std::vector<uint8_t> blob(kHeaderBytes + words.size() * 4, 0);
    std::memcpy(blob.data(), "SMW", 4);
    if (!words.empty()) std::memcpy(blob.data() + kHeaderBytes, words.data(), words.size() * 4);

    if (sonelAudioSetModelBlob(blob.data(), static_cast<unsigned>(blob.size()), "fuzz") !=
        SONEL_AUDIO_OK)
        return 0;
    sonel_fuzz::cleanWithModel("fuzz");
    sonel_fuzz::check(sonelAudioRemoveModel("fuzz") == SONEL_AUDIO_OK,
                      "remove the registered model");
    return 0;
}
