#include "utils/en_threshold.h"

#include <algorithm>

namespace SONEL::UTILS {

namespace {

// The gate opens fully once the recent sum reaches 1/15 of the mean loud energy and closes
// completely at 1/80 of it.
constexpr double kHighDivisor = 15.0;
constexpr double kLowDivisor = 80.0;

}  // namespace

void EnThreshold::MovingSum::push(double v) {
    if (values_.empty()) return;
    sum_ += v - values_[oldest_];
    values_[oldest_] = v;
    oldest_ = (oldest_ + 1) % values_.size();
}

void EnThreshold::MovingSum::reset() {
    std::fill(values_.begin(), values_.end(), 0.0);
    oldest_ = 0;
    sum_ = 0.0;
}

EnThreshold::EnThreshold(size_t length, size_t countLimit, double threshold, size_t recentLength,
                         size_t loudLength)
    : length_(length),
      countLimit_(countLimit),
      threshold_(threshold),
      recent_(recentLength),
      loud_(loudLength) {}

float EnThreshold::setCurrentData(const std::vector<float>& frame) {
    double e = 0.0;
    for (float s : frame) e += static_cast<double>(s) * s;
    e /= static_cast<double>(frame.size());
    const double r = e / static_cast<double>(length_);

    recent_.push(r);
    if (r >= threshold_) {
        if (loudCount_ < countLimit_) ++loudCount_;
        loud_.push(e);
    }

    if (loudCount_ == 0) {
        gain_ = 1.0f;
    } else {
        const double s = recent_.sum();
        const double c = static_cast<double>(loudCount_);
        const double high = loud_.sum() / (c * kHighDivisor);
        const double low = loud_.sum() / (c * kLowDivisor);
        if (low < s && s < high) {
            const double t = (s - low) / (high - low);
            gain_ = static_cast<float>(t * t);
        } else if (s <= low) {
            gain_ = 0.0f;
        } else {
            gain_ = 1.0f;
        }
    }
    return gain_;
}

bool EnThreshold::applyEnThreshold(std::vector<float>& frame) const {
    if (gain_ == 1.0f) return true;
    if (gain_ == 0.0f) {
        std::fill(frame.begin(), frame.end(), 0.0f);
    } else {
        for (float& s : frame) s *= gain_;
    }
    return true;
}

void EnThreshold::reset() {
    recent_.reset();
    loud_.reset();
    loudCount_ = 0;
    gain_ = 1.0f;
}

}  // namespace SONEL::UTILS
