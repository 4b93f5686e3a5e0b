#include "noise_canceller/energy_gate.h"

#include <numeric>

namespace SONEL::NOISE_CANCELLER {

EnergyGate::EnergyGate(float lowThreshold, float highThreshold)
    : low_(lowThreshold), high_(highThreshold), enabled_(lowThreshold > 0 && highThreshold > 0) {}

bool EnergyGate::frozen(double energy) {
    if (!enabled_) return false;
    if (!frozen_ && energy <= low_) frozen_ = true;
    else if (frozen_ && energy >= high_) frozen_ = false;
    return frozen_;
}

double EnergyGate::levelEnergy(double energy) {
    if (!enabled_) return energy;
    if (energy >= high_) {
        history_[next_] = energy;
        next_ = (next_ + 1) % kHistory;
        if (stored_ < kHistory) ++stored_;
        return energy;
    }
    if (stored_ == 0) return energy;
    return std::accumulate(history_.begin(), history_.begin() + stored_, 0.0) / stored_;
}

void EnergyGate::reset() {
    frozen_ = false;
    history_.fill(0.0);
    stored_ = 0;
    next_ = 0;
}

}  // namespace SONEL::NOISE_CANCELLER
