#pragma once
// Freezes analysis through digital silence and remembers the level of recent active blocks.
// Learning from silence would make every sound look loud once it returns, so frozen blocks
// neither run the network nor update its state; quiet blocks between the thresholds have their
// features scaled by the recent active level instead of their own.
#include <array>
#include <cstddef>

namespace SONEL::NOISE_CANCELLER {

class EnergyGate {
public:
    // Mean-square thresholds in 16-bit units; both must be positive for the gate to act.
    EnergyGate(float lowThreshold, float highThreshold);

    bool enabled() const { return enabled_; }
    // Feeds one block's mean-square energy; true when the block is frozen (not analysed).
    bool frozen(double energy);
    // The energy the features are normalised by for an analysed block of this energy.
    double levelEnergy(double energy);
    void reset();

private:
    static constexpr size_t kHistory = 8;  // 80 ms of active blocks at a 10 ms hop

    float low_;
    float high_;
    bool enabled_;
    bool frozen_ = false;
    std::array<double, kHistory> history_{};
    size_t stored_ = 0;
    size_t next_ = 0;
};

}  // namespace SONEL::NOISE_CANCELLER
