#pragma once
// The 0 ... 100 level scale of frame energies and frame info: 15 log10(2k m + 1) with
// k = 10^(20/3) - 1, so a full-scale sine (mean square 0.5) lands exactly on 100 and silence on 0.
#include <cmath>

namespace SONEL::UTILS {

inline double energyLevel(double meanSquare) {
    const double k = std::pow(10.0, 6.666666666666667) - 1.0;
    const double level = 15.0 * std::log10(meanSquare * 2.0 * k + 1.0);
    return std::isnan(level) || level < 100.0 ? level : 100.0;  // NaN (empty frame) passes through
}

}  // namespace SONEL::UTILS
