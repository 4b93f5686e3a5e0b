#pragma once
// The voice activity detector: one speech probability per block of samples, from a small
// recurrent network over log band powers of a gain-normalised signal. It never alters audio; a
// VAD session reads the probability from the front of the vector. An optional watchdog clears
// the recurrent state when the detector has said "no speech" for a long time.
#include <complex>
#include <cstdint>
#include <memory>
#include <vector>

#include "noise_canceller/noise_cleaner.h"
#include "utils/cyclic_block_data.h"
#include "utils/mat_mul.h"
#include "utils/matrix.h"

namespace SONEL::UTILS {
class FFT;
}

namespace SONEL::NOISE_CANCELLER {

class VadCleaner_v0_0_1 : public NoiseCleaner {
public:
    // Everything the detector reads from its model, checked once so the block path can trust
    // every size. Network records are referenced in the weight, which the base class keeps alive.
    struct Params {
        uint64_t frameLength;                 // "FrameLength": samples per analysis frame
        uint64_t hop = 80;                    // the block size is the real hop; kept for the record
        uint64_t contextFrames = 4;           // feature frames the network sees at once
        uint64_t binCount;                    // frameLength / 2 + 1
        uint64_t sampleRate;                  // "SampleRate"
        uint64_t featureCount;                // merged bands per frame: 61 for 240-sample frames
        uint64_t stateSize = 94;              // recurrent state length
        float featureEpsilon = 1e-7f;         // keeps sqrt(variance) away from 0
        std::vector<float> thresholds;        // [min, best-F1 point, max], or empty
        const std::vector<float>& mean;       // "MU"
        const std::vector<float>& deviation;  // "SD": a variance, used under a square root
        const std::vector<CONTAINERS::Matrix>& linearWeights;     // "WeightLinear", L entries
        const std::vector<CONTAINERS::Matrix>& nonLinearWeights;  // "WeightNonLinear", L − 1
        const std::vector<std::vector<float>>& linearBiases;      // "BaesLinear"
        const std::vector<std::vector<float>>& nonLinearBiases;   // "BaesNonLinear"
        const CONTAINERS::Matrix& gateWeight;                     // "WeightGRU"
        const std::vector<float>& gateBias;                       // "BaesGRU"
        bool stateResetEnabled;
        uint64_t resetHistoryLength = 200;           // blocks the watchdog remembers
        float resetProbabilityThreshold = 0.75f;     // below this a block counts as silent
        float resetRatio = 0.95f;                    // share of silent blocks that triggers a reset
        uint64_t resetMinInterval = 300;             // blocks between two resets, at least
        std::shared_ptr<std::vector<float>> window;  // Hamming, frameLength values
        std::shared_ptr<UTILS::FFT> fft;             // real forward transform of frameLength

        // Throws SonelException naming the first record that is missing or out of shape.
        explicit Params(const WEIGHTS::ModelPair& model);
    };

    // `sampleRate` is the rate the registry read from the model; the base class hands it to the
    // session, which feeds blocks at that rate. The detector itself needs nothing from it.
    VadCleaner_v0_0_1(WEIGHTS::ModelPtr model, unsigned long sampleRate);

    // One block of samples in the 16-bit range in, one value out: the speech probability (the
    // raw network output when the model has no calibration thresholds). Always true.
    bool cleanNoise(std::vector<float>& samples, ncAudioInfo_t* info, bool flag) override;

    // Features and network on one analysis frame (`length` samples, frameLength expected; a
    // shorter frame is taken as zero-padded). Returns the raw network output.
    float probabilityCalc(const float* frame, unsigned long length);
    // The watchdog step for one block's raw output.
    void state_reset_functionality(float raw);

    const Params& params() const { return params_; }

    // Band merging of `bins` power bins: the lowest quarter kept bin by bin, then groups of 2, 4,
    // … bins averaged, the width doubling at every octave. Writes the merged values to `out`
    // and returns their count; 0 when the groups do not end exactly at the last bin (such a
    // layout has no defined last band). With null pointers only the count is computed.
    static size_t mergeBands(const float* power, size_t bins, float* out);

private:
    float network(const float* context);

    Params params_;

    // Input-level tracker, in double: the gain pulls every block towards an RMS of 2000.
    double level_ = 4000000.0;  // 2000², so the first blocks pass at unit gain

    CONTAINERS::CyclicBlockData samples_;   // 5 frames; the newest frameLength are analysed
    CONTAINERS::CyclicBlockData features_;  // (5 × context + 5) frames of normalised features
    std::vector<float> deviationRoot_;      // sqrt(SD + epsilon), per feature
    std::vector<float> state_;
    UTILS::SigmoidOperator sigmoid_;

    // Watchdog.
    std::vector<uint8_t> silentFlags_;  // grows to resetHistoryLength, then a ring
    uint64_t ringPosition_ = 0;
    uint64_t silentCount_ = 0;  // unsigned on purpose: see state_reset_functionality
    uint64_t blocksSinceReset_ = 0;

    // Per-block scratch, sized in the constructor.
    std::vector<float> windowed_;
    std::vector<std::complex<float>> spectrum_;
    std::vector<float> power_;
    std::vector<float> merged_;
    std::vector<float> x_;  // [state ; context features]
    std::vector<float> gate_;
    std::vector<float> rectified_;
    std::vector<float> linear_;
    std::vector<float> hidden_[2];
    std::vector<float> output_;
};

}  // namespace SONEL::NOISE_CANCELLER
