#pragma once
// Block cipher for enciphered weight files and blobs. The key is fixed at build time
// (SONEL_TEA_KEY), so a model enciphered with another build's key deciphers to garbage and is
// rejected by the reader as corrupted.
#include <array>
#include <cstdint>
#include <memory>

namespace SONEL::UTILS {

enum AlgoTypes : uint32_t {
    TEA = 0,
};

// One cipher algorithm working on 32-bit words in place.
class CryptoAlgo {
public:
    virtual void encrypt(uint32_t* data, uint32_t words) = 0;
    virtual void decrypt(uint32_t* data, uint32_t words) = 0;
    virtual ~CryptoAlgo() = default;
};

// TEA: 64-bit blocks of two words (y = lower-addressed word, z), 128-bit key, 32 cycles.
class CryptoAlgoTea : public CryptoAlgo {
public:
    using Key = std::array<uint32_t, 4>;

    // Uses the key built into this library.
    CryptoAlgoTea();
    explicit CryptoAlgoTea(const Key& key);

    // Walk the buffer in blocks of two words from word 0 while the index is below `words`. An odd
    // count also reads and writes word `words`, so the caller must own one spare word there.
    void encrypt(uint32_t* data, uint32_t words) override;
    void decrypt(uint32_t* data, uint32_t words) override;

    void encipher(uint32_t* block) const;
    void decipher(uint32_t* block) const;

private:
    uint32_t cycles_;
    Key key_;
};

class Crypto {
public:
    // Throws SonelException "Incorrect crypto algo type..." for any type but TEA.
    explicit Crypto(AlgoTypes type);

    void encrypt(uint32_t* data, uint32_t words) { algo_->encrypt(data, words); }
    void decrypt(uint32_t* data, uint32_t words) { algo_->decrypt(data, words); }

private:
    std::unique_ptr<CryptoAlgo> algo_;
};

}  // namespace SONEL::UTILS
