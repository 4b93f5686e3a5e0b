#include "utils/en_threshold.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using SONEL::UTILS::EnThreshold;

// A constant frame of amplitude sqrt(e) has mean-square energy e.
std::vector<float> frameOfEnergy(double e) {
    return std::vector<float>(64, static_cast<float>(std::sqrt(e)));
}

}  // namespace

TEST(EnThreshold, PassesFramesUntilTheFirstLoudOne) {
    EnThreshold gate(2, 10, 100.0, 4, 4);
    for (double e : {0.0, 10.0, 199.0, 50.0}) {
        SCOPED_TRACE(e);
        EXPECT_EQ(gate.setCurrentData(frameOfEnergy(e)), 1.0f);
        std::vector<float> frame = {3.0f, -7.25f, 1e-3f};
        const auto copy = frame;
        EXPECT_TRUE(gate.applyEnThreshold(frame));
        EXPECT_EQ(frame, copy);
    }
}

TEST(EnThreshold, SilenceAfterLoudFramesClosesTheGate) {
    EnThreshold gate(1, 10, 100.0, 4, 4);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(gate.setCurrentData(frameOfEnergy(400.0)), 1.0f);
    // Each silent frame pushes one loud entry out of the recent sum; the gain can only fall, and
    // once all four entries are silent S = 0 ≤ L / (c·80) shuts the frame off.
    float last = 1.0f;
    for (int i = 0; i < 4; ++i) {
        const float g = gate.setCurrentData(frameOfEnergy(0.0));
        EXPECT_LE(g, last);
        last = g;
    }
    EXPECT_EQ(last, 0.0f);
    std::vector<float> frame = {5.0f, -5.0f};
    EXPECT_TRUE(gate.applyEnThreshold(frame));
    EXPECT_EQ(frame, std::vector<float>({0.0f, 0.0f}));

    gate.reset();
    EXPECT_EQ(gate.setCurrentData(frameOfEnergy(0.0)), 1.0f) << "reset forgets the loud frames";
}

TEST(EnThreshold, RampIsQuadraticAndCounterStopsAtLimit) {
    // One-entry lists make S the current frame's energy and L the last loud energy.
    const double loud = 1000.0;
    const size_t limit = 2;
    EnThreshold gate(1, limit, 500.0, 1, 1);
    for (int i = 0; i < 6; ++i) gate.setCurrentData(frameOfEnergy(loud));
    // With the counter capped at 2 (not 6) the thresholds are L/30 and L/160.
    const double high = loud / (limit * 15.0), low = loud / (limit * 80.0);
    for (double t : {0.5, 0.25, 0.9}) {
        SCOPED_TRACE(t);
        const float g = gate.setCurrentData(frameOfEnergy(low + t * (high - low)));
        EXPECT_NEAR(g, t * t, 1e-5);
        std::vector<float> frame = {2.0f, -4.0f};
        gate.applyEnThreshold(frame);
        EXPECT_FLOAT_EQ(frame[1], -4.0f * g);
    }
}
