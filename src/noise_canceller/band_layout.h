#pragma once
// Groups the analysed spectrum bins into the network's bands: the lowest n >> c bins one to one,
// then bands of width 2, 4, 8 ... that double at every octave above. The same layout expands the
// band gains back to one gain per bin.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace SONEL::NOISE_CANCELLER {

class BandLayout {
public:
    // n analysed bins, compress rate c. Throws SonelException when n >> c is 0.
    BandLayout(size_t bins, unsigned compressRate);

    size_t binCount() const { return start_.back(); }
    size_t bandCount() const { return start_.size() - 1; }
    // bands[j] = sum of power over band j's bins.
    void compress(const float* power, float* bands) const;
    // Every bin gets the gain of the band that holds it.
    void expand(const float* bandGains, float* binGains) const;

private:
    std::vector<uint32_t> start_;  // first bin of each band, then the bin count
};

}  // namespace SONEL::NOISE_CANCELLER
