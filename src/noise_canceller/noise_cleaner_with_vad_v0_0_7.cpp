#include "noise_canceller/noise_cleaner_with_vad_v0_0_7.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "noise_canceller/noise_cleaner_v0_0_7.h"
#include "utils/fft.h"
#include "utils/resampler.h"
#include "utils/sonel_exception.h"
#include "utils/windows.h"
#include "weights/model_parameters.h"
#include "weights/weight.h"

namespace SONEL::NOISE_CANCELLER {

using UTILS::SonelException;

namespace {

const char* const kFile = "src/noise_canceller/noise_cleaner_with_vad_v0_0_7";
const char* const kDurationsDiffer = "Working and input frame durations for vad model and nc model should match.";
constexpr unsigned kMaxFrameLength = 8192;
constexpr float kProbabilityOfSpeech = 0.5f;
constexpr double kInt16ToFloat = 3.0517578e-5;  // 1 / 32768

void require(bool ok, const std::string& what) {
    if (!ok) throw SonelException("ERROR voice detector: " + what, kFile, __LINE__, "VadParams");
}

// Silence ahead of the output, in milliseconds, for working duration W and input duration I:
// enough that a frame never leaves before the blocks that complete it have been added.
unsigned outputPrefillMs(unsigned w, unsigned i) {
    struct Row {
        unsigned w, i, d;
    };
    static const Row kTable[] = {
        {32, 32, 16}, {32, 30, 28}, {32, 20, 30}, {32, 15, 30}, {32, 40, 30}, {32, 10, 31},
        {30, 10, 25}, {30, 20, 25}, {30, 40, 25}, {30, 30, 15}, {30, 15, 15}, {30, 32, 29},
        {20, 10, 10}, {20, 20, 10}, {20, 30, 10}, {20, 40, 10}, {20, 32, 18}, {20, 15, 15},
    };
    for (const Row& row : kTable)
        if (row.w == w && row.i == i) return row.d;
    return 0;
}

size_t samplesIn(unsigned long ms, unsigned rate) { return static_cast<size_t>(ms * rate / 1000); }

}  // namespace

const char* const NoiseCleanerWithVad_v0_0_7::kCleanerNetworkPrefix = "Nc";

LayerNormGru::Keys NoiseCleanerWithVad_v0_0_7::detectorKeys() {
    LayerNormGru::Keys keys;
    keys.mean = "VadMU";
    keys.deviation = "VadSD";
    keys.inputGains = "VadGainLinearNorm";
    keys.inputNormBiases = "VadBiasLinearNorm";
    keys.outputGains = "VadGainNonLinearNorm";
    keys.outputNormBiases = "VadBiasNonLinearNorm";
    return keys;
}

NoiseCleanerWithVad_v0_0_7::VadParams NoiseCleanerWithVad_v0_0_7::VadParams::read(const WEIGHTS::ModelPair& model) {
    const WEIGHTS::Weight& w = *model.first;
    // The network's records are the detector network's to check; a missing one is named here
    // first, in the order the detector's records are listed.
    using Vectors = std::vector<std::vector<float>>;
    const LayerNormGru::Keys keys = detectorKeys();
    w.get<std::vector<float>>(keys.mean);
    w.get<std::vector<float>>(keys.deviation);
    w.get<std::vector<CONTAINERS::Matrix>>(keys.inputWeights);
    w.get<std::vector<CONTAINERS::Matrix>>(keys.outputWeights);
    for (const std::string* name : {&keys.inputBiases, &keys.outputBiases}) w.get<Vectors>(*name);
    w.get<CONTAINERS::Matrix>(keys.gruWeight);
    w.get<std::vector<float>>(keys.gruBias);
    w.get<CONTAINERS::Matrix>(keys.resetWeight);
    w.get<std::vector<float>>(keys.resetBias);
    for (const std::string* name :
         {&keys.inputNormBiases, &keys.outputNormBiases, &keys.inputGains, &keys.outputGains})
        w.get<Vectors>(*name);
    VadParams p;
    p.sampleRate = w.get<unsigned>("VadSampleRate");
    p.step = w.get<unsigned>("VadStep");
    p.filtrBegin = w.get<unsigned>("VadFiltrBegin");
    p.filtrEnd = w.get<unsigned>("VadFiltrEnd");
    p.frameLength = w.get<unsigned>("VadFrameLength");
    p.previewFrames = w.get<unsigned>("VadPreviewFrames");
    p.coefficientNumber = w.get<unsigned>("VadCoefficientNumber");
    // Zero means "not set"; anything else, NaN included, is the file's epsilon.
    if (const float* eps = w.find<float>("VadLpsEps"); eps && *eps != 0.0f) p.lpsEps = *eps;
    p.compressRate = WEIGHTS::lookupParameter(
        model, "VELTA_COMPRESS_RATE_VAD", p.compressRate, [](uint64_t v) { return v <= 16; },
        "WARNING OF COMPRESS_RATE VALUE. IT MUST BE IN INTERVAL [0,16] \\n DEFAULT VALUE 3");

    require(p.sampleRate >= 8000 && p.sampleRate <= 96000, "VadSampleRate outside 8000 ... 96000");
    // The real transform needs an even length; every buffer of the detector is sized from it.
    require(p.frameLength >= 2 && p.frameLength <= kMaxFrameLength && p.frameLength % 2 == 0,
            "VadFrameLength must be even and 2 ... " + std::to_string(kMaxFrameLength));
    require(p.step >= 1 && p.step <= p.frameLength, "VadStep must be 1 ... VadFrameLength");
    require(p.filtrBegin < p.filtrEnd && p.filtrEnd <= p.frameLength / 2 + 1,
            "VadFiltrBegin ... VadFiltrEnd - 1 must be bins of the VadFrameLength spectrum");
    require(p.previewFrames >= 1 && p.previewFrames < 64, "VadPreviewFrames must be 1 ... 63");
    // The log of an empty band: a negative epsilon would make it not a number.
    require(p.lpsEps > 0.0f, "VadLpsEps must be above 0");
    return p;
}

NoiseCleanerWithVad_v0_0_7::NoiseCleanerWithVad_v0_0_7(WEIGHTS::ModelPtr modelPair, unsigned long inputDurationMs)
    : LayerNormCleaner(modelPair, WEIGHTS::getWeightInfo(*modelPair->first).first,
                       NoiseCleaner_v0_0_7::kParameterKeys, NoiseCleaner_v0_0_7::kFilterRecords,
                       NoiseCleaner_v0_0_7::networkKeys(kCleanerNetworkPrefix), kFile,
                       "NoiseCleanerWithVad_v0_0_7", ContextStart::Zero),
      vad_(VadParams::read(*modelPair)),
      cleanerDurationMs_(frontEnd().frameLength * 1000 / frontEnd().sampleRate),
      inputFrame_(samplesIn(inputDurationMs, frontEnd().sampleRate)),
      vadInputFrame_(samplesIn(inputDurationMs, vad_.sampleRate)),
      outputPrefill_(samplesIn(outputPrefillMs(cleanerDurationMs_, static_cast<unsigned>(inputDurationMs)),
                               frontEnd().sampleRate)),
      vadBands_(vad_.filtrEnd - vad_.filtrBegin, static_cast<unsigned>(vad_.compressRate)),
      vadNetwork_(*modelPair, vad_.previewFrames * vadBands_.bandCount(), detectorKeys()),
      vadWindow_(vad_.frameLength),
      vadTransform_(UTILS::FFT::create(vad_.frameLength)),
      cleanerInput_(2 * frontEnd().step + inputFrame_),
      vadInput_(vad_.frameLength + vad_.step + vadInputFrame_),
      vadFeatures_((vad_.previewFrames + 1) * vadBands_.bandCount()),
      output_(outputPrefill_ + inputFrame_ + 4 * frontEnd().step),
      resampled_(vadInputFrame_),
      block_(frontEnd().frameLength),
      silence_(frontEnd().frameLength, 0.0f),
      vadWindowed_(vad_.frameLength),
      vadSpectrum_(vad_.frameLength / 2 + 1),
      vadPower_(vadBands_.binCount()),
      vadBandLog_(vadBands_.bandCount()),
      probability_(1) {
    const FrontEndParams& nc = frontEnd();
    const std::string function = "NoiseCleanerWithVad_v0_0_7";
    // The detector judges the hop the cleaner is about to clean: its frames and hops must last
    // exactly as long as the cleaner's, or the two histories drift apart.
    const bool sameFrames = static_cast<uint64_t>(vad_.frameLength) * nc.sampleRate ==
                            static_cast<uint64_t>(nc.frameLength) * vad_.sampleRate;
    const bool sameHops = static_cast<uint64_t>(vad_.step) * nc.sampleRate ==
                          static_cast<uint64_t>(nc.step) * vad_.sampleRate;
    if (vad_.frameDurationMs() != cleanerDurationMs_ || !sameFrames || !sameHops)
        throw SonelException(kDurationsDiffer, kFile, __LINE__, function);
    if (inputFrame_ == 0 || inputDurationMs * nc.sampleRate % 1000 != 0 ||
        inputDurationMs * vad_.sampleRate % 1000 != 0)
        throw SonelException("ERROR frame duration " + std::to_string(inputDurationMs) +
                                 " ms is no whole number of samples at the cleaner's and the detector's rates",
                             kFile, __LINE__, function);
    if (vad_.coefficientNumber != vadBands_.bandCount())
        throw SonelException("ERROR voice detector: VadCoefficientNumber " + std::to_string(vad_.coefficientNumber) +
                                 " but " + std::to_string(vadBands_.bandCount()) + " bands",
                             kFile, __LINE__, function);
    if (vadNetwork_.outputCount() != 1)
        throw SonelException("ERROR voice detector: the last layer of WeightNonLinear has " +
                                 std::to_string(vadNetwork_.outputCount()) + " rows, not one (the speech probability)",
                             kFile, __LINE__, function);
    if (!vadTransform_) throw SonelException("ERROR voice detector: no transform for VadFrameLength", kFile, __LINE__,
                                             function);
    UTIL_FUNCTIONS::generateHanningWindowVector(vad_.frameLength, vadWindow_.data(), vad_.frameLength);
    if (nc.sampleRate != vad_.sampleRate) {
        resampler_ = std::make_unique<UTILS::Resampler>(inputFrame_, vadInputFrame_);
        // The converter's frame is its factor times the input, truncated: it must be the
        // detector's frame exactly, or the detector's history would drift from the cleaner's.
        if (static_cast<size_t>(resampler_->factor() * static_cast<double>(inputFrame_)) != vadInputFrame_)
            throw SonelException("ERROR frame duration " + std::to_string(inputDurationMs) + " ms: " +
                                     std::to_string(inputFrame_) + " samples do not convert to " +
                                     std::to_string(vadInputFrame_) + " at the detector's rate",
                                 kFile, __LINE__, function);
    }
    primeHistories();
}

NoiseCleanerWithVad_v0_0_7::~NoiseCleanerWithVad_v0_0_7() = default;

// Each input history starts with its frame's overlap of zeros, so the first hop's frame ends with
// the first input; the detector's context with its preview frames of zeros; the output with the
// silence that keeps every frame complete when it leaves.
void NoiseCleanerWithVad_v0_0_7::primeHistories() {
    cleanerInput_.reset();
    vadInput_.reset();
    vadFeatures_.reset();
    output_.reset();
    cleanerInput_.push_backNULL(frontEnd().frameLength - frontEnd().step);
    vadInput_.push_backNULL(vad_.frameLength - vad_.step);
    vadFeatures_.push_backNULL(vad_.previewFrames * vadBands_.bandCount());
    output_.push_backNULL(outputPrefill_);
}

std::string NoiseCleanerWithVad_v0_0_7::frameRule() const {
    return "the " + std::to_string(inputFrame_) + " samples of the duration it was built for";
}

bool NoiseCleanerWithVad_v0_0_7::resetSession() {
    LayerNormCleaner::resetSession();
    vadNetwork_.resetState();
    if (resampler_) resampler_->reset();
    primeHistories();
    return true;
}

bool NoiseCleanerWithVad_v0_0_7::cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool /*flag*/) {
    if (frame.size() != inputFrame_) return false;
    cleanerInput_.push_back(frame.data(), frame.size());
    if (resampler_) {
        if (resampler_->resample(frame, resampled_) < 1)
            throw SonelException("Resample failed.", kFile, __LINE__, "cleanNoise");
        vadInput_.push_back(resampled_.data(), resampled_.size());
    } else {
        vadInput_.push_back(frame.data(), frame.size());
    }

    const bool notClipped = beginFrame(frame);
    const size_t hop = frontEnd().step;
    while (cleanerInput_.unread() >= 2 * hop && vadInput_.unread() >= vad_.frameLength) {
        vadCleaner(vadInput_.readPtr(), probability_);
        vadInput_.advance(vad_.step);
        const float* block = cleanerInput_.readPtr();
        if (probability_[0] >= kProbabilityOfSpeech) {
            mainCleaner(block, block_, info, notClipped);
            overlapAdd(output_, block_);
        } else {
            // What a hop without speech removes is all of it.
            double removed = 0.0;
            for (size_t i = 0; i < 2 * hop; ++i) {
                const double x = block[i] * kInt16ToFloat;
                removed += x * x;
            }
            countUncleanedBlock(removed / static_cast<double>(2 * hop));
            overlapAdd(output_, silence_);
        }
        cleanerInput_.advance(hop);
    }

    // A pair of durations without a pre-fill can run short at the start; the missing samples
    // leave as silence rather than as samples not yet written.
    const size_t ready = std::min(output_.unread(), frame.size());
    std::copy_n(output_.readPtr(), ready, frame.begin());
    std::fill(frame.begin() + static_cast<long>(ready), frame.end(), 0.0f);
    output_.advance(ready);
    reportFrame(info, frame.size(), -1.0);
    return true;
}

void NoiseCleanerWithVad_v0_0_7::vadCleaner(const float* frame, std::vector<float>& out) {
    const double energy = UTIL_FUNCTIONS::applyWindow(frame, vadWindow_.data(), vad_.frameLength, vadWindowed_.data());
    vadTransform_->forward(vadWindowed_.data(), vadSpectrum_.data());
    const float gain = energy > 1e-6 ? static_cast<float>(vad_.targetLevel / std::sqrt(energy)) : 1.0f;
    for (size_t k = 0; k < vadPower_.size(); ++k) {
        const std::complex<float>& bin = vadSpectrum_[vad_.filtrBegin + k];
        const float magnitude = gain * std::hypot(bin.real(), bin.imag());
        vadPower_[k] = magnitude * magnitude;
    }
    vadBands_.compress(vadPower_.data(), vadBandLog_.data());
    for (float& v : vadBandLog_) v = std::log(v + vad_.lpsEps);

    vadFeatures_.advance(vadBandLog_.size());
    vadFeatures_.push_back(vadBandLog_.data(), vadBandLog_.size());
    out.resize(1);
    vadNetwork_.calcRMForwardProp_GRU_Layernorm(vadFeatures_.readPtr(), out.data());
}

}  // namespace SONEL::NOISE_CANCELLER
