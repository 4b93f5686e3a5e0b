#include "utils/resampler.h"

#include <libresample.h>

#include <algorithm>

#include "utils/sonel_exception.h"

namespace SONEL::UTILS {

namespace {

void* openHandle(double factor) {
    void* handle = resample_open(1, factor, factor);
    if (handle == nullptr) {
        throw SonelException("Resampler can't be opened", __FILE__, __LINE__, "Resampler");
    }
    return handle;
}

}  // namespace

Resampler::Resampler(size_t inRate, size_t outRate)
    : handle_(nullptr),
      factor_(static_cast<double>(outRate) / static_cast<double>(inRate)),
      inRate_(static_cast<double>(inRate)),
      outRate_(static_cast<double>(outRate)) {
    handle_ = openHandle(factor_);
}

Resampler::~Resampler() {
    // Null only when a reset failed to reopen the library.
    if (handle_ != nullptr) resample_close(handle_);
}

bool Resampler::reset() {
    resample_close(handle_);
    handle_ = nullptr;
    handle_ = openHandle(factor_);
    pending_ = 0;
    first_ = true;
    head_ = 0;
    return true;
}

int Resampler::resample(float* in, int inLength, float* out, int outCapacity) {
    int used = 0;
    int produced = 0;
    for (;;) {
        int consumed = 0;
        const int result = resample_process(handle_, factor_, in + used, inLength - used, 0,
                                            &consumed, out + produced, outCapacity - produced);
        used += consumed;
        if (result > 0) produced += result;
        // The library may stop short of the input end while its output window fills, so call
        // again until it has nothing more to give. A call that neither consumed nor produced
        // would repeat forever (no output room left), so it ends the loop too.
        if (result < 0 || (result == 0 && (used >= inLength || consumed == 0))) break;
    }
    return produced;
}

int Resampler::resample(const std::vector<float>& in, std::vector<float>& out) {
    if (factor_ == 1.0) {
        out.assign(in.begin(), in.end());
        return static_cast<int>(out.size());
    }
    const size_t expected = static_cast<size_t>(factor_ * static_cast<double>(in.size()));
    out.resize(expected);
    carry_.resize(spareRoom_ + expected);

    // libresample takes a non-const input pointer but does not write through it.
    const size_t produced = static_cast<size_t>(
        resample(const_cast<float*>(in.data()), static_cast<int>(in.size()),
                 carry_.data() + pending_, static_cast<int>(carry_.size() - pending_)));
    const size_t available = pending_ + produced;

    size_t shown;
    if (first_) {
        // The filter's look-ahead makes the first call come up short; pad the head with silence
        // and hold the last sample back as slack for a later call that produces one too few.
        first_ = false;
        shown = std::min(available > 0 ? available - 1 : 0, expected);
        const size_t head = expected - shown;
        head_ = head;
        std::fill(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(head), 0.0f);
        std::copy(carry_.begin(), carry_.begin() + static_cast<std::ptrdiff_t>(shown),
                  out.begin() + static_cast<std::ptrdiff_t>(head));
    } else {
        shown = std::min(available, expected);
        std::copy(carry_.begin(), carry_.begin() + static_cast<std::ptrdiff_t>(shown),
                  out.begin());
        std::fill(out.begin() + static_cast<std::ptrdiff_t>(shown), out.end(), 0.0f);
    }
    pending_ = available - shown;
    std::copy(carry_.begin() + static_cast<std::ptrdiff_t>(shown),
              carry_.begin() + static_cast<std::ptrdiff_t>(available), carry_.begin());
    return static_cast<int>(produced);
}

}  // namespace SONEL::UTILS
