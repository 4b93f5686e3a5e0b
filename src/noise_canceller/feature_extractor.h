#pragma once
// The cleaners' front end: the windowed block's spectrum, rescaled band log powers, the feature
// context of the last frames and its normalisation into the network input. The NumPy reference
// under tools/reference computes the same features for training.
#include <complex>
#include <memory>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "utils/cyclic_block_data.h"
#include "weights/weight.h"

namespace SONEL::UTILS {
class FFT;
}

namespace SONEL::NOISE_CANCELLER {

// Geometry and normalisation of a spectral model, read from its weight.
struct FrontEndParams {
    unsigned sampleRate = 0;
    unsigned step = 0;         // hop H in samples
    unsigned frameLength = 0;  // block length N = 2 H
    unsigned filtrBegin = 0;
    unsigned filtrEnd = 0;
    unsigned previewFrames = 0;
    unsigned coefficientNumber = 0;
    float freezeLowEnThr = 0.0f;
    float freezeHighEnThr = 0.0f;
    std::vector<float> mu;
    std::vector<float> sd;
    float logEpsilon = 0.0f;

    // Names of the filter range's records: "FiltrBegin" and "FiltrEnd", the last bin, through
    // v0.0.6; "FilterBegin" and "FilterEnd", one past the last bin, from 0.0.7 on.
    struct FilterRecords {
        const char* begin = "FiltrBegin";
        const char* end = "FiltrEnd";
        bool endIsPastLast = false;
    };

    // Throws SonelException for a missing record or an inconsistent geometry.
    static FrontEndParams read(const WEIGHTS::Weight& weight, const FilterRecords& filter);
};

// What the feature context holds before the first block: silence in every band (the log of the
// epsilon), or zeros, as the cleaner inside a model with its own voice detector starts.
enum class ContextStart { Silence, Zero };

class FeatureExtractor {
public:
    // normalise: the network input is the context scaled by MU and SD (v0.0.5); without it the
    // context's log powers go to the network as they are, for networks that scale them as their
    // own first step (the 0.0.6 form).
    FeatureExtractor(const FrontEndParams& params, unsigned compressRate,
                     std::shared_ptr<UTILS::FFT> fft, bool normalise,
                     ContextStart start = ContextStart::Silence);

    // Transforms the windowed block and appends its features to the context; gain scales the
    // spectrum magnitudes before the power is taken (the level normalisation).
    void analyse(const float* windowedBlock, float gain);
    const std::vector<std::complex<float>>& spectrum() const { return spectrum_; }
    // The context as the network reads it, oldest frame first.
    const std::vector<float>& networkInput() const { return input_; }
    const BandLayout& bands() const { return bands_; }
    void reset();

private:
    const FrontEndParams& params_;
    BandLayout bands_;
    std::shared_ptr<UTILS::FFT> fft_;
    std::vector<std::complex<float>> spectrum_;
    std::vector<float> power_;
    std::vector<float> bandLog_;
    CONTAINERS::CyclicBlockData context_;
    size_t contextLength_;
    bool normalise_;
    ContextStart start_;
    std::vector<float> input_;
};

}  // namespace SONEL::NOISE_CANCELLER
