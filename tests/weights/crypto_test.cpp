// The weight cipher: published TEA behaviour, inversion over buffers, and the odd-count rule.
#include "utils/crypto.h"

#include <gtest/gtest.h>

#include <random>

#include "weight_test_support.h"

using SONEL::UTILS::Crypto;
using SONEL::UTILS::CryptoAlgoTea;

TEST(Crypto, TeaMatchesPublishedVector) {
    // Widely published TEA vector: all-zero key and block encipher to 41ea3a0a 94baa940
    // (also reproduced long-hand in Python while writing this test).
    CryptoAlgoTea tea(CryptoAlgoTea::Key{0, 0, 0, 0});
    uint32_t block[2] = {0, 0};
    tea.encipher(block);
    EXPECT_EQ(block[0], 0x41ea3a0au);
    EXPECT_EQ(block[1], 0x94baa940u);
    tea.decipher(block);
    EXPECT_EQ(block[0], 0u);
    EXPECT_EQ(block[1], 0u);
}

TEST(Crypto, DecryptUndoesEncryptAndStaysInsideOneSpareWord) {
    std::mt19937 rng(7);
    for (uint32_t words : {0u, 1u, 2u, 5u, 64u, 1001u}) {
        SCOPED_TRACE(words);
        // Two words beyond the count: the first is the spare an odd count may touch, the second
        // must never change.
        std::vector<uint32_t> plain(words + 2);
        for (auto& word : plain) word = rng();
        std::vector<uint32_t> buffer = plain;
        Crypto(SONEL::UTILS::TEA).encrypt(buffer.data(), words);
        if (words >= 2) EXPECT_NE(buffer, plain);
        EXPECT_EQ(buffer[words + 1], plain[words + 1]);
        if (words % 2 == 0) EXPECT_EQ(buffer[words], plain[words]);
        Crypto(SONEL::UTILS::TEA).decrypt(buffer.data(), words);
        EXPECT_EQ(buffer, plain);
    }
}

TEST(Crypto, RejectsUnknownAlgorithm) {
    weight_test::expectSonelException(
        [] { Crypto crypto(static_cast<SONEL::UTILS::AlgoTypes>(1)); },
        "Incorrect crypto algo type...", "src/utils/crypto Line 17 Function Crypto");
}
