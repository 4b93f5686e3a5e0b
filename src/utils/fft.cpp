#include "utils/fft.h"

#include <kiss_fftr.h>

#include <cstdlib>

namespace SONEL::UTILS {

static_assert(sizeof(std::complex<float>) == sizeof(kiss_fft_cpx),
              "std::complex<float> and kiss_fft_cpx must share the (re, im) layout");

void FFT::KissFree::operator()(kiss_fftr_state* cfg) const { kiss_fftr_free(cfg); }

FFT::FFT(size_t n, Config forwardCfg, Config inverseCfg)
    : n_(n), forward_(std::move(forwardCfg)), inverse_(std::move(inverseCfg)) {}

std::shared_ptr<FFT> FFT::create(size_t n) {
    if (n == 0 || n % 2 != 0) return nullptr;
    Config fwd(kiss_fftr_alloc(static_cast<int>(n), 0, nullptr, nullptr));
    Config inv(kiss_fftr_alloc(static_cast<int>(n), 1, nullptr, nullptr));
    if (!fwd || !inv) return nullptr;
    return std::shared_ptr<FFT>(new FFT(n, std::move(fwd), std::move(inv)));
}

void FFT::forward(const float* in, std::complex<float>* out) const {
    kiss_fftr(forward_.get(), in, reinterpret_cast<kiss_fft_cpx*>(out));
}

void FFT::inverse(const std::complex<float>* in, float* out) const {
    kiss_fftri(inverse_.get(), reinterpret_cast<const kiss_fft_cpx*>(in), out);
    const float scale = 1.0f / static_cast<float>(n_);
    for (size_t i = 0; i < n_; ++i) out[i] *= scale;
}

}  // namespace SONEL::UTILS
