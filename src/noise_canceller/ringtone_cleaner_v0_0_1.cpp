#include "noise_canceller/ringtone_cleaner_v0_0_1.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "utils/fft.h"
#include "utils/sonel_exception.h"

namespace SONEL::NOISE_CANCELLER {

namespace {

const char* const kFile = "src/noise_canceller/ringtone_cleaner_v0_0_1";

void require(bool ok, const std::string& what) {
    if (!ok) throw UTILS::SonelException("ERROR ringtone model: " + what, kFile, __LINE__, "Params");
}

bool factorsTwoThreeFive(size_t n) {
    for (size_t p : {2, 3, 5})
        while (n % p == 0) n /= p;
    return n == 1;
}

}  // namespace

size_t RingtoneCleaner_v0_0_1::frameLength(unsigned rate) {
    size_t n = (static_cast<size_t>(kFrameMs) * rate + 999) / 1000;
    while (n % 2 != 0 || !factorsTwoThreeFive(n)) ++n;
    return n;
}

RingtoneCleaner_v0_0_1::Params::Params(const WEIGHTS::ModelPair& model, unsigned rate)
    : sampleRate(rate),
      hop(rate / 100),
      frameLength(RingtoneCleaner_v0_0_1::frameLength(rate)),
      binCount(frameLength / 2 + 1) {
    // A 0.0.6 file is a detector only with this record; a cleaner of the same generation has none.
    const std::string* version = model.first->find<std::string>("RingtoneVersion");
    require(version && !version->empty(), "RingtoneVersion is missing or empty: not a ringtone detector");
    require(rate >= kMinRate && rate <= kMaxRate, "sample rate " + std::to_string(rate) + " Hz is outside " +
                                                      std::to_string(kMinRate) + " … " + std::to_string(kMaxRate) +
                                                      " Hz");

    // At the exact rates every grid point is a bin; at 44.1 and 88.2 kHz it falls between two.
    for (size_t k = kGridFirst; k <= kGridLast; ++k) {
        const double position = static_cast<double>(k) * kGridStepHz * static_cast<double>(frameLength) / rate;
        const double low = std::floor(position);
        lowBin.push_back(static_cast<size_t>(low));
        highShare.push_back(position - low);
    }

    // The symmetric Hann of the window library ends in two zeros; the analysis here uses the
    // periodic form the detector was trained with.
    window.resize(frameLength);
    for (size_t i = 0; i < frameLength; ++i)
        window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * M_PI * static_cast<double>(i) / frameLength));
    fft = UTILS::FFT::create(frameLength);
    require(fft != nullptr, "no transform of " + std::to_string(frameLength) + " samples");
}

RingtoneCleaner_v0_0_1::RingtoneCleaner_v0_0_1(WEIGHTS::ModelPtr modelPair, unsigned sampleRate)
    : NoiseCleaner(modelPair, sampleRate),
      params_(*modelPair, sampleRate),
      network_(*modelPair, kFeatureCount),
      history_(params_.frameLength, 0.0f),  // zeros before the stream's start
      windowed_(params_.frameLength),
      spectrum_(params_.binCount),
      logs_(kGridPoints),
      features_(kFeatureCount) {
    require(network_.outputCount() == 1, "the last layer of WeightNonLinear has " +
                                             std::to_string(network_.outputCount()) +
                                             " rows; a detector gives one probability");
}

bool RingtoneCleaner_v0_0_1::cleanNoise(std::vector<float>& samples, ncAudioInfo_t* /*info*/, bool /*flag*/) {
    const float result = detect(samples.data(), samples.size());
    samples.resize(1);
    samples[0] = result;
    return true;
}

float RingtoneCleaner_v0_0_1::detect(const float* samples, size_t count) {
    const size_t n = params_.frameLength, hop = params_.hop;
    double sum = 0.0;
    size_t hops = 0;
    for (size_t i = 0; i < count; ++i) {
        // The session already turns non-finite samples into silence; a caller that builds the
        // detector directly gets the same, since one NaN would stay in the recurrent state.
        const float s = samples[i];
        history_[n - hop + gathered_] = std::isfinite(s) ? std::clamp(s, -32768.0f, 32768.0f) : 0.0f;
        if (++gathered_ < hop) continue;
        sum += analyseHop();
        ++hops;
        gathered_ = 0;
        // The oldest hop leaves the frame; the next hop is gathered in its place at the end.
        std::copy(history_.begin() + static_cast<std::ptrdiff_t>(hop), history_.end(), history_.begin());
    }
    if (hops > 0) value_ = static_cast<float>(sum / static_cast<double>(hops));
    return value_;
}

float RingtoneCleaner_v0_0_1::analyseHop() {
    const size_t n = params_.frameLength;
    for (size_t i = 0; i < n; ++i) windowed_[i] = history_[i] * params_.window[i];
    params_.fft->forward(windowed_.data(), spectrum_.data());

    // Power divided by N², so a tone or a noise of one level gives one power at every rate; read
    // between the two nearest bins at each grid point.
    const double scale = 1.0 / (static_cast<double>(n) * static_cast<double>(n));
    auto power = [&](size_t k) {
        const double re = spectrum_[k].real(), im = spectrum_[k].imag();
        return (re * re + im * im) * scale;
    };
    double level = 0.0;
    for (size_t j = 0; j < kGridPoints; ++j) {
        const size_t low = params_.lowBin[j], high = std::min(low + 1, params_.binCount - 1);
        const double share = params_.highShare[j];
        logs_[j] = std::log(power(low) * (1.0 - share) + power(high) * share + kPowerEpsilon);
        level += logs_[j];
    }
    level /= static_cast<double>(kGridPoints);
    // The spectrum's shape, independent of the level, then the level itself.
    for (size_t j = 0; j < kGridPoints; ++j) features_[j] = static_cast<float>(logs_[j] - level);
    features_[kGridPoints] = static_cast<float>(level);

    float probability = 0.0f;
    network_.calcRMForwardProp_GRU_Layernorm(features_.data(), &probability);
    return probability;
}

}  // namespace SONEL::NOISE_CANCELLER
