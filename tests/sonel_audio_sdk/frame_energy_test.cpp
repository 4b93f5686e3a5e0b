// The 0 ... 100 frame energy scale: anchored at silence and full scale, logarithmic between.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "sonel-audio-sdk.h"

TEST(FrameEnergy, AnchorsAndDecibelSlope) {
    const unsigned n = 480;
    std::vector<float> sine(n);
    std::vector<short> pcm(n);
    for (unsigned i = 0; i < n; ++i) sine[i] = static_cast<float>(std::sin(2 * M_PI * 1000.0 * i / 48000.0));
    // A full-scale sine (mean square 0.5 up to float rounding) sits at the top of the scale;
    // anything louder is capped there.
    EXPECT_GE(sonelAudioGetFrameEnergyFloat(sine.data(), n), 99u);
    std::vector<float> square(n);
    for (unsigned i = 0; i < n; ++i) square[i] = i % 48 < 24 ? 1.0f : -1.0f;
    EXPECT_EQ(sonelAudioGetFrameEnergyFloat(square.data(), n), 100u);

    std::vector<short> loud(n, 32767), silent(n, 0);
    EXPECT_EQ(sonelAudioGetFrameEnergyInt16(loud.data(), n), 100u);
    EXPECT_EQ(sonelAudioGetFrameEnergyInt16(silent.data(), n), 0u);

    // Far above the +1 offset the scale rises 15 points per decade of mean square, so a frame
    // 10 dB quieter scores 15 points less; the Int16 and Float forms agree on the same audio.
    for (float level : {1.0f, 0.1f, 0.01f}) {
        SCOPED_TRACE(level);
        std::vector<float> scaled(n);
        for (unsigned i = 0; i < n; ++i) scaled[i] = sine[i] * level * 0.3162278f;  // -10 dB
        for (unsigned i = 0; i < n; ++i) pcm[i] = static_cast<short>(sine[i] * level * 32767.0f);
        const unsigned louder = sonelAudioGetFrameEnergyInt16(pcm.data(), n);
        const unsigned quieter = sonelAudioGetFrameEnergyFloat(scaled.data(), n);
        EXPECT_NEAR(static_cast<double>(louder) - quieter, 15.0, 1.01);
        std::vector<float> same(n);
        for (unsigned i = 0; i < n; ++i) same[i] = pcm[i] / 32768.0f;
        EXPECT_EQ(sonelAudioGetFrameEnergyFloat(same.data(), n), louder);
    }
}
