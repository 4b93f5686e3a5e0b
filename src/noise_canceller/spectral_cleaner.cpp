#include "noise_canceller/spectral_cleaner.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <string>

#include "utils/energy_level.h"
#include "utils/fft.h"
#include "utils/windows.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

constexpr double kFullScaleSquared = 32768.0 * 32768.0;
// The longest session frame a cleaner accepts: 40 ms, i.e. four hops.
constexpr size_t kMaxFrameHops = 4;

std::vector<float> vorbisWindow(unsigned n) {
    std::vector<float> w(n);
    UTIL_FUNCTIONS::generateVorbisWindowVector(n, w.data(), n);
    return w;
}

double sumOfSquares(const std::vector<float>& v) {
    double sum = 0.0;
    for (float x : v) sum += static_cast<double>(x) * x;
    return sum;
}

}  // namespace

SpectralCleaner::SpectralCleaner(WEIGHTS::ModelPtr modelPair, unsigned sampleRate,
                                 const ParameterKeys& keys, FeatureScaling scaling,
                                 const FrontEndParams::FilterRecords& filter, ContextStart contextStart)
    : NoiseCleaner(modelPair, sampleRate),
      frontEnd_(FrontEndParams::read(*modelPair->first, filter)),
      maskParams_(MaskParams::read(*modelPair, keys)),
      window_(vorbisWindow(frontEnd_.frameLength)),
      windowEnergy_(sumOfSquares(window_)),
      transform_(getFftPtr(frontEnd_.frameLength)),
      features_(frontEnd_, static_cast<unsigned>(maskParams_.compressRate), transform_,
                scaling == FeatureScaling::FrontEnd, contextStart),
      gate_(frontEnd_.freezeLowEnThr, frontEnd_.freezeHighEnThr),
      post_(maskParams_, frontEnd_.frameLength / 2 + 1, window_,
            frontEnd_.step * 1000 / frontEnd_.sampleRate),
      maxFrame_(kMaxFrameHops * frontEnd_.step),
      input_(2 * frontEnd_.step + maxFrame_),
      output_(3 * frontEnd_.step + maxFrame_),
      windowed_(frontEnd_.frameLength),
      block_(frontEnd_.frameLength),
      bandGains_(features_.bands().bandCount()),
      binGains_(frontEnd_.frameLength / 2 + 1),
      masked_(frontEnd_.frameLength / 2 + 1) {
    primeBuffers();
}

// One hop of silence ahead of the stream in both buffers: the first block overlaps it, and the
// output is the input delayed by exactly one hop.
void SpectralCleaner::primeBuffers() {
    input_.reset();
    output_.reset();
    input_.push_backNULL(frontEnd_.step);
    output_.push_backNULL(frontEnd_.step);
}

bool SpectralCleaner::acceptsFrame(size_t samples) const {
    return samples > 0 && samples % frontEnd_.step == 0 && samples <= maxFrame_;
}

std::string SpectralCleaner::frameRule() const {
    return "a whole number of its " + std::to_string(frontEnd_.step) + "-sample hops up to " +
           std::to_string(maxFrame_);
}

bool SpectralCleaner::beginFrame(const std::vector<float>& frame) {
    const MaskParams& params = maskParams_;
    const auto [low, high] = std::minmax_element(frame.begin(), frame.end());
    const float peak = std::max(std::fabs(*low), std::fabs(*high));
    skipCurrentFrame_ = params.skipFrame && peak <= params.skipFrameLevel;
    voiceEnergy_ = noiseEnergy_ = 0.0;
    blocksInFrame_ = 0;
    return peak <= params.clipFixPoint;
}

void SpectralCleaner::countUncleanedBlock(double removed) {
    noiseEnergy_ += removed;
    ++blocksInFrame_;
}

void SpectralCleaner::reportFrame(ncAudioInfo_t* info, size_t frameSamples, double ringtone) {
    if (!info) return;
    const double blocks = blocksInFrame_ ? blocksInFrame_ : 1;
    info->voiceLevel = UTILS::energyLevel(voiceEnergy_ / blocks);
    info->noiseLevel = UTILS::energyLevel(noiseEnergy_ / blocks);
    info->ringtoneProbability = ringtone;
    const unsigned long durationMs = frameSamples * 1000 / frontEnd_.sampleRate;
    noiseStatsUpdate(info->noiseLevel, durationMs);
    voiceStatsUpdate(info->voiceLevel, durationMs);
}

void SpectralCleaner::overlapAdd(CONTAINERS::CyclicBlockData& output, const std::vector<float>& block) const {
    const size_t hop = frontEnd_.step;
    output.push_backNULL(hop);
    // Samples already handed out take no further part; a cleaner that runs whole hops never
    // hands out one whose second block is still to come.
    const size_t overlap = std::min(2 * hop, output.unread());
    float* tail = output.data() + output.writeCount() - overlap;
    for (size_t i = 0; i < overlap; ++i) tail[i] += block[2 * hop - overlap + i];
}

bool SpectralCleaner::cleanNoise(std::vector<float>& frame, ncAudioInfo_t* info, bool flag) {
    if (frame.empty() || frame.size() > maxFrame_) return false;
    // The ringtone flag only reports: the detector reads the frame as it came, before cleaning,
    // and nothing of it reaches the cleaner.
    const double ringtone = flag && info ? ringtoneProbability(frame.data(), frame.size()) : -1.0;
    const bool notClipped = beginFrame(frame);
    input_.push_back(frame.data(), frame.size());
    const size_t hop = frontEnd_.step;
    while (input_.unread() >= 2 * hop) {
        mainCleaner(input_.readPtr(), block_, info, notClipped);
        input_.advance(hop);
        overlapAdd(output_, block_);
    }
    std::copy_n(output_.readPtr(), frame.size(), frame.begin());
    output_.advance(frame.size());
    reportFrame(info, frame.size(), ringtone);
    return true;
}

bool SpectralCleaner::mainCleaner(const float* block, std::vector<float>& out,
                                  ncAudioInfo_t* /*info*/, bool notClipped) {
    const size_t n = frontEnd_.frameLength;
    const double rawEnergy = UTIL_FUNCTIONS::applyWindow(block, window_.data(), n, windowed_.data());
    post_.observeBlock(windowed_);
    ++blocksInFrame_;

    if (gate_.frozen(rawEnergy)) {
        std::fill(out.begin(), out.end(), 0.0f);
        noiseEnergy_ += sumOfSquares(windowed_) / static_cast<double>(n) / kFullScaleSquared;
        return true;
    }

    const MaskParams& params = maskParams_;
    const double level = gate_.levelEnergy(rawEnergy);
    const float gain = params.rescaleEnabled && level > 1e-6
                           ? static_cast<float>(params.rescaleRefAmpl / std::sqrt(level))
                           : 1.0f;
    features_.analyse(windowed_.data(), gain);

    if (skipCurrentFrame_)
        std::fill(bandGains_.begin(), bandGains_.end(), 1.0f);
    else
        computeBandGains(features_.networkInput(), bandGains_);
    // Finite weights can still overflow (a product of two 1e30s): a gain that is not a number
    // closes its band rather than turning the output and the frame's levels into NaN.
    for (float& g : bandGains_) g = g >= 0.0f ? std::min(g, 1.0f) : 0.0f;

    std::fill(binGains_.begin(), binGains_.end(), 0.0f);
    features_.bands().expand(bandGains_.data(), binGains_.data() + frontEnd_.filtrBegin);
    post_.shapeMask(binGains_);

    const auto& spectrum = features_.spectrum();
    for (size_t k = 0; k < masked_.size(); ++k) masked_[k] = spectrum[k] * binGains_[k];
    transform_->inverse(masked_.data(), out.data());
    for (size_t i = 0; i < n; ++i) out[i] *= window_[i];
    post_.processBlock(out, notClipped);

    double voice = 0.0, removed = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double y = out[i];
        const double d = static_cast<double>(windowed_[i]) * window_[i] - y;
        voice += y * y;
        removed += d * d;
    }
    voiceEnergy_ += voice / windowEnergy_ / kFullScaleSquared;
    noiseEnergy_ += removed / windowEnergy_ / kFullScaleSquared;
    return true;
}

bool SpectralCleaner::resetSession() {
    primeBuffers();
    features_.reset();
    gate_.reset();
    post_.reset();
    resetNetwork();
    return true;
}

bool SpectralCleaner::background_speaker_fix_switch(bool on) {
    post_.setSpeakerFix(on);
    std::cout << "Parameter env_enable_background_speaker_fix set to: " << (on ? 1 : 0) << std::endl;
    return true;
}

}  // namespace SONEL::NOISE_CANCELLER
