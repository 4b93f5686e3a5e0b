#include "noise_canceller/band_layout.h"

#include <algorithm>

#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

BandLayout::BandLayout(size_t bins, unsigned compressRate) {
    const size_t kept = compressRate < 32 ? bins >> compressRate : 0;
    if (kept == 0)
        throw UTILS::SonelException("ERROR band layout: too few bins for the compress rate",
                                    "src/noise_canceller/band_layout", __LINE__, "BandLayout");
    for (size_t k = 0; k < kept; ++k) start_.push_back(static_cast<uint32_t>(k));
    size_t width = 2;
    size_t boundary = kept;
    // A last band that would run past the analysed bins holds only the bins that exist.
    for (size_t pos = kept; pos < bins; pos += width) {
        if (pos >= 2 * boundary) {
            width *= 2;
            boundary = pos;
        }
        start_.push_back(static_cast<uint32_t>(pos));
    }
    start_.push_back(static_cast<uint32_t>(bins));
}

void BandLayout::compress(const float* power, float* bands) const {
    for (size_t j = 0; j + 1 < start_.size(); ++j) {
        float sum = 0.0f;
        for (uint32_t k = start_[j]; k < start_[j + 1]; ++k) sum += power[k];
        bands[j] = sum;
    }
}

void BandLayout::expand(const float* bandGains, float* binGains) const {
    for (size_t j = 0; j + 1 < start_.size(); ++j)
        std::fill(binGains + start_[j], binGains + start_[j + 1], bandGains[j]);
}

}  // namespace SONEL::NOISE_CANCELLER
