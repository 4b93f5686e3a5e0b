#pragma once
// Energy gate: fades out frames that are quiet relative to the recent loud level. Each frame's
// gain comes from two moving sums, one over the recent frame energies and one over the energies
// of recent loud frames, with a squared ramp between the two derived thresholds.
#include <cstddef>
#include <vector>

namespace SONEL::UTILS {

class EnThreshold {
public:
    // length divides the per-frame energy before it is compared with threshold; countLimit caps
    // the loud-frame counter; recentLength and loudLength are the lengths of the two moving sums.
    EnThreshold(size_t length, size_t countLimit, double threshold, size_t recentLength,
                size_t loudLength);

    // Feeds one non-empty frame; returns the new gain in [0, 1].
    float setCurrentData(const std::vector<float>& frame);
    // Scales the frame by the last gain in place; returns true.
    bool applyEnThreshold(std::vector<float>& frame) const;
    // Back to the constructed state: both lists zero, counter 0, gain 1.
    void reset();

    float gain() const { return gain_; }

private:
    // Fixed-length first-in first-out list with a running sum. Storage is sized once; pushing
    // overwrites the oldest entry, so the length never changes.
    class MovingSum {
    public:
        explicit MovingSum(size_t length) : values_(length, 0.0) {}
        void push(double v);
        double sum() const { return sum_; }
        void reset();

    private:
        std::vector<double> values_;
        size_t oldest_ = 0;
        double sum_ = 0.0;
    };

    size_t length_;
    size_t countLimit_;
    double threshold_;
    MovingSum recent_;
    MovingSum loud_;
    size_t loudCount_ = 0;
    float gain_ = 1.0f;
};

}  // namespace SONEL::UTILS
