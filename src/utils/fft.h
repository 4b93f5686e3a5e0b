#pragma once
// Real FFT of one fixed even size over Kiss FFT. Convention shared by every model's features and
// synthesis: forward() writes n/2 + 1 bins (DC .. Nyquist) unscaled, inverse() reads n/2 + 1 bins
// and writes n samples scaled by 1/n, so inverse(forward(x)) == x up to float rounding. Both
// directions run without allocating; all Kiss FFT state is made by create().
#include <complex>
#include <cstddef>
#include <memory>

struct kiss_fftr_state;

namespace SONEL::UTILS {

class FFT {
public:
    // Null for n = 0 or odd n: the real transform needs an even size.
    static std::shared_ptr<FFT> create(size_t n);

    void forward(const float* in, std::complex<float>* out) const;
    void inverse(const std::complex<float>* in, float* out) const;
    size_t size() const { return n_; }

private:
    struct KissFree {
        void operator()(kiss_fftr_state* cfg) const;
    };
    using Config = std::unique_ptr<kiss_fftr_state, KissFree>;

    FFT(size_t n, Config forwardCfg, Config inverseCfg);

    size_t n_;
    Config forward_;
    Config inverse_;
};

}  // namespace SONEL::UTILS
