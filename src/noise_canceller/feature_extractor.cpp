#include "noise_canceller/feature_extractor.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "utils/fft.h"
#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

constexpr unsigned kMaxFrameLength = 8192;

void require(bool condition, const std::string& what) {
    if (!condition)
        throw UTILS::SonelException("ERROR model geometry: " + what,
                                    "src/noise_canceller/feature_extractor", __LINE__, "read");
}

}  // namespace

FrontEndParams FrontEndParams::read(const WEIGHTS::Weight& weight, const FilterRecords& filter) {
    FrontEndParams p;
    p.sampleRate = weight.get<unsigned>("SampleRate");
    p.step = weight.get<unsigned>("Step");
    p.frameLength = weight.get<unsigned>("FrameLength");
    p.filtrBegin = weight.get<unsigned>(filter.begin);
    const unsigned end = weight.get<unsigned>(filter.end);
    p.previewFrames = weight.get<unsigned>("PreviewFrames");
    p.coefficientNumber = weight.get<unsigned>("CoefficientNumber");
    p.freezeLowEnThr = weight.get<float>("FreezeLowEnThr");
    p.freezeHighEnThr = weight.get<float>("FreezeHighEnThr");
    p.mu = weight.get<std::vector<float>>("MU");
    p.sd = weight.get<std::vector<float>>("SD");
    p.logEpsilon = weight.get<float>("LogPowerEpsilon");
    require(p.sampleRate >= 8000 && p.sampleRate <= 96000, "SampleRate outside 8000 ... 96000");
    // Step is bounded first: twice a Step near 2^31 wraps to a small FrameLength.
    require(p.step > 0 && p.step <= kMaxFrameLength / 2 && p.frameLength == 2 * p.step,
            "FrameLength must be twice Step");
    // Every buffer of a session is sized from FrameLength; 8192 is 85 ms at the highest rate.
    require(p.frameLength <= kMaxFrameLength, "FrameLength above " + std::to_string(kMaxFrameLength));
    // Kept as the last bin used, whichever way the file counts it.
    require(!filter.endIsPastLast || end > p.filtrBegin,
            std::string(filter.end) + " must lie above " + filter.begin + " (one past the last bin)");
    p.filtrEnd = filter.endIsPastLast ? end - 1 : end;
    require(p.filtrBegin <= p.filtrEnd && p.filtrEnd <= p.frameLength / 2,
            std::string(filter.begin) + ".." + filter.end + " must lie within the spectrum");
    require(!p.mu.empty() && !p.sd.empty(), "MU and SD must not be empty");
    // Features are divided by SD and the log floor keeps empty bands finite.
    require(std::none_of(p.sd.begin(), p.sd.end(), [](float v) { return v == 0.0f; }), "SD holds a zero");
    require(p.logEpsilon > 0.0f, "LogPowerEpsilon must be positive");
    require(p.previewFrames < 64, "PreviewFrames above 63");
    return p;
}

FeatureExtractor::FeatureExtractor(const FrontEndParams& params, unsigned compressRate,
                                   std::shared_ptr<UTILS::FFT> fft, bool normalise, ContextStart start)
    : params_(params),
      bands_(params.filtrEnd - params.filtrBegin + 1, compressRate),
      fft_(std::move(fft)),
      spectrum_(params.frameLength / 2 + 1),
      power_(bands_.binCount()),
      bandLog_(bands_.bandCount()),
      context_((params.previewFrames + 2) * bands_.bandCount()),
      contextLength_((params.previewFrames + 1) * bands_.bandCount()),
      normalise_(normalise),
      start_(start),
      input_(contextLength_) {
    require(params.coefficientNumber == bands_.bandCount(),
            "CoefficientNumber " + std::to_string(params.coefficientNumber) + " but " +
                std::to_string(bands_.bandCount()) + " bands");
    require(fft_ && fft_->size() == params.frameLength, "no transform for FrameLength");
    reset();
}

void FeatureExtractor::reset() {
    context_.reset();
    bandLog_.assign(bandLog_.size(), start_ == ContextStart::Zero ? 0.0f : std::log(params_.logEpsilon));
    for (unsigned f = 0; f <= params_.previewFrames; ++f)
        context_.push_back(bandLog_.data(), bandLog_.size());
}

void FeatureExtractor::analyse(const float* windowedBlock, float gain) {
    fft_->forward(windowedBlock, spectrum_.data());
    for (size_t k = 0; k < power_.size(); ++k) {
        const std::complex<float>& bin = spectrum_[params_.filtrBegin + k];
        const float magnitude = std::hypot(bin.real(), bin.imag()) * gain;
        power_[k] = magnitude * magnitude;
    }
    bands_.compress(power_.data(), bandLog_.data());
    for (float& v : bandLog_) v = std::log(v + params_.logEpsilon);

    context_.advance(bandLog_.size());
    context_.push_back(bandLog_.data(), bandLog_.size());
    const float* span = context_.readPtr();
    if (!normalise_) {
        std::copy_n(span, contextLength_, input_.begin());
        return;
    }
    const size_t nMu = params_.mu.size(), nSd = params_.sd.size();
    for (size_t i = 0; i < contextLength_; ++i)
        input_[i] = (span[i] - params_.mu[i % nMu]) / params_.sd[i % nSd];
}

}  // namespace SONEL::NOISE_CANCELLER
