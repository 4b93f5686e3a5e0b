#pragma once
// Frame-by-frame sample-rate conversion over libresample (high quality, fixed factor). The frame
// form returns exactly factor × input length samples per call: a carry buffer absorbs the ±1
// sample jitter of the library's output count, and the first call right-aligns its output behind
// leading silence so the stream has a constant delay from then on.
#include <cstddef>
#include <vector>

namespace SONEL::UTILS {

class Resampler {
public:
    // Only the ratio outRate / inRate matters, so frame sizes may be passed in place of rates.
    Resampler(size_t inRate, size_t outRate);
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    // Drops the pending samples and the filter history; the next call behaves like the first.
    bool reset();

    // out gets factor × in.size() samples (truncated). Returns the count libresample produced in
    // this call (in.size() for equal rates).
    int resample(const std::vector<float>& in, std::vector<float>& out);
    // Converts as much of in as the library accepts into at most outCapacity samples; returns
    // the count written.
    int resample(float* in, int inLength, float* out, int outCapacity);

    // Silence the first call put ahead of the stream: the constant delay, in output samples, of
    // everything delivered since construction or reset (0 before the first call).
    size_t leadingSilence() const { return head_; }
    double factor() const { return factor_; }
    double inRate() const { return inRate_; }
    double outRate() const { return outRate_; }

private:
    void* handle_;
    double factor_;
    double inRate_;
    double outRate_;
    // Room beyond one frame for the samples held back between calls.
    const size_t spareRoom_ = 1024;
    size_t pending_ = 0;
    bool first_ = true;
    size_t head_ = 0;
    std::vector<float> carry_;
};

}  // namespace SONEL::UTILS
