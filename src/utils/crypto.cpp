#include "utils/crypto.h"

#include "utils/sonel_exception.h"

#ifndef SONEL_TEA_KEY_WORDS
#error "SONEL_TEA_KEY_WORDS must come from the build (CMake cache variable SONEL_TEA_KEY)"
#endif

namespace SONEL::UTILS {

namespace {

// The reported location is part of the message hosts log and support tooling matches on, so it
// stays fixed however this file is laid out.
constexpr int kBadAlgoLine = 17;
constexpr uint32_t kDelta = 0x9E3779B9u;
constexpr uint32_t kCycles = 32;
constexpr CryptoAlgoTea::Key kBuiltInKey = {SONEL_TEA_KEY_WORDS};

}  // namespace

CryptoAlgoTea::CryptoAlgoTea() : CryptoAlgoTea(kBuiltInKey) {}

CryptoAlgoTea::CryptoAlgoTea(const Key& key) : cycles_(kCycles), key_(key) {}

void CryptoAlgoTea::encrypt(uint32_t* data, uint32_t words) {
    for (uint64_t i = 0; i < words; i += 2) encipher(data + i);
}

void CryptoAlgoTea::decrypt(uint32_t* data, uint32_t words) {
    for (uint64_t i = 0; i < words; i += 2) decipher(data + i);
}

void CryptoAlgoTea::encipher(uint32_t* block) const {
    uint32_t y = block[0];
    uint32_t z = block[1];
    uint32_t sum = kDelta;
    for (uint32_t n = 0; n < cycles_; ++n) {
        y += ((z << 4) + key_[0]) ^ (z + sum) ^ ((z >> 5) + key_[1]);
        z += ((y << 4) + key_[2]) ^ (y + sum) ^ ((y >> 5) + key_[3]);
        sum += kDelta;
    }
    block[0] = y;
    block[1] = z;
}

void CryptoAlgoTea::decipher(uint32_t* block) const {
    uint32_t y = block[0];
    uint32_t z = block[1];
    uint32_t sum = kDelta * cycles_;  // 0xC6EF3720 for 32 cycles
    for (uint32_t n = 0; n < cycles_; ++n) {
        z -= ((y << 4) + key_[2]) ^ (y + sum) ^ ((y >> 5) + key_[3]);
        y -= ((z << 4) + key_[0]) ^ (z + sum) ^ ((z >> 5) + key_[1]);
        sum -= kDelta;
    }
    block[0] = y;
    block[1] = z;
}

Crypto::Crypto(AlgoTypes type) {
    if (type != TEA)
        throw SonelException("Incorrect crypto algo type...", "src/utils/crypto", kBadAlgoLine,
                             "Crypto");
    algo_ = std::make_unique<CryptoAlgoTea>();
}

}  // namespace SONEL::UTILS
