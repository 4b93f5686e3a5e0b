#include "noise_canceller/vad_cleaner_v0_0_1.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "utils/fft.h"
#include "utils/sonel_exception.h"
#include "utils/windows.h"
#include "weights/model_parameters.h"

namespace SONEL::NOISE_CANCELLER {

using CONTAINERS::Matrix;
using UTIL_FUNCTIONS::matMulPlusB;

namespace {

// Input-level tracker. Blocks quieter than the floor (an RMS of 100, about −50 dBFS) say nothing
// about the talker's level and leave it alone; a block more than twice as energetic as the level
// (+3 dB) is followed at once instead of over the usual 50-block time constant.
constexpr double kLevelSmoothing = 0.954992586021436;  // 10^(−1/50)
constexpr double kLevelFloor = 10000.0;
constexpr double kLevelAttack = 2.0;
// A slower coefficient, 10^(−1/150), that belongs with the tracker's constants; this model's
// tracker does not use it.
[[maybe_unused]] constexpr double kSlowLevelSmoothing = 0.9847666521101581;
constexpr double kTargetLevel = 2000.0;
constexpr double kGainEpsilon = 1e-7;

// Calibrated probabilities stay inside (0, 1), so a host that takes a logarithm or an odds
// ratio of them never meets 0 or 1.
constexpr float kProbabilityCeiling = 0.99999f;
constexpr float kProbabilityFloor = 1e-5f;

// Frame lengths the detector accepts. Every buffer is sized from the frame length, and the
// longest model frame any session uses is 1280 samples (40 ms at 32 kHz).
constexpr uint64_t kMinFrameLength = 8;
constexpr uint64_t kMaxFrameLength = 8192;
// Sample history in frames: one frame of history plus up to four frames of new block. A block
// longer than that cannot change the analysed frame beyond its newest samples.
constexpr uint64_t kSampleHistoryFrames = 5;

const char* const kFile = "src/noise_canceller/vad_cleaner_v0_0_1";

void require(bool ok, const std::string& what) {
    if (!ok) throw UTILS::SonelException("ERROR VAD model: " + what, kFile, __LINE__, "Params");
}

std::string layerName(const char* record, size_t k) {
    return std::string(record) + "[" + std::to_string(k) + "]";
}

}  // namespace

size_t VadCleaner_v0_0_1::mergeBands(const float* power, size_t bins, float* out) {
    size_t quarter = bins / 4;
    const size_t odd = bins % 8 == 1 ? 1 : 0;
    size_t count = 0;
    size_t pos = 0;
    for (; pos < quarter + odd && pos < bins; ++pos, ++count)
        if (out) out[count] = power[pos];
    size_t width = 2;
    while (pos < bins) {
        if (pos - odd == 2 * quarter) {
            quarter *= 2;
            width *= 2;
        }
        if (pos + width > bins) return 0;
        if (out) {
            float sum = 0.0f;
            for (size_t j = 0; j < width; ++j) sum += power[pos + j];
            out[count] = sum / static_cast<float>(width);
        }
        ++count;
        pos += width;
    }
    return count;
}

VadCleaner_v0_0_1::Params::Params(const WEIGHTS::ModelPair& model)
    : frameLength(model.first->get<unsigned>("FrameLength")),
      sampleRate(model.first->get<unsigned>("SampleRate")),
      mean(model.first->get<std::vector<float>>("MU")),
      deviation(model.first->get<std::vector<float>>("SD")),
      linearWeights(model.first->get<std::vector<Matrix>>("WeightLinear")),
      nonLinearWeights(model.first->get<std::vector<Matrix>>("WeightNonLinear")),
      linearBiases(model.first->get<std::vector<std::vector<float>>>("BaesLinear")),
      nonLinearBiases(model.first->get<std::vector<std::vector<float>>>("BaesNonLinear")),
      gateWeight(model.first->get<Matrix>("WeightGRU")),
      gateBias(model.first->get<std::vector<float>>("BaesGRU")),
      stateResetEnabled(WEIGHTS::lookupParameter<bool>(model, "VELTA_VAD_ENABLE_STATE_RESET_v0_0_1", false)) {
    const WEIGHTS::Weight& weight = *model.first;

    // Front end. Kiss FFT's real transform needs an even length, and the band groups must end
    // exactly at the Nyquist bin.
    require(frameLength >= kMinFrameLength && frameLength <= kMaxFrameLength && frameLength % 2 == 0,
            "FrameLength " + std::to_string(frameLength) + " is not an even number of samples from " +
                std::to_string(kMinFrameLength) + " to " + std::to_string(kMaxFrameLength));
    binCount = frameLength / 2 + 1;
    featureCount = mergeBands(nullptr, binCount, nullptr);
    require(featureCount > 0, "the " + std::to_string(binCount) + " spectrum bins of FrameLength " +
                                  std::to_string(frameLength) + " do not merge into whole bands");
    require(mean.size() == featureCount && deviation.size() == featureCount,
            "MU and SD need " + std::to_string(featureCount) + " values (one per band), not " +
                std::to_string(mean.size()) + " and " + std::to_string(deviation.size()));
    for (size_t i = 0; i < featureCount; ++i)
        require(deviation[i] >= 0.0f, "SD[" + std::to_string(i) + "] is a variance and cannot be negative");

    // Network: x = state ‖ context, the gate and the first hidden layer as wide as the state,
    // every later layer fed by the one before, one or more outputs of which the first is used.
    const size_t inputWidth = stateSize + contextFrames * featureCount;
    require(gateWeight.rows == stateSize && gateWeight.columns == inputWidth,
            "WeightGRU is " + std::to_string(gateWeight.rows) + " x " + std::to_string(gateWeight.columns) +
                ", not " + std::to_string(stateSize) + " x " + std::to_string(inputWidth) +
                " (state x (state + " + std::to_string(contextFrames) + " frames of " +
                std::to_string(featureCount) + " features))");
    require(gateBias.size() == stateSize, "BaesGRU needs " + std::to_string(stateSize) + " values");
    const size_t layers = linearWeights.size();
    require(layers >= 1 && linearBiases.size() == layers && nonLinearWeights.size() == layers - 1 &&
                nonLinearBiases.size() == layers - 1,
            "WeightLinear and BaesLinear need one entry per layer (at least the output layer), "
            "WeightNonLinear and BaesNonLinear one per hidden layer; got " +
                std::to_string(linearWeights.size()) + ", " + std::to_string(linearBiases.size()) + ", " +
                std::to_string(nonLinearWeights.size()) + ", " + std::to_string(nonLinearBiases.size()));
    size_t in = inputWidth;
    for (size_t k = 0; k + 1 < layers; ++k) {
        const Matrix& a = nonLinearWeights[k];
        const Matrix& b = linearWeights[k];
        require(a.columns == in && b.columns == in, layerName("WeightNonLinear", k) + " and " +
                                                        layerName("WeightLinear", k) + " need " +
                                                        std::to_string(in) + " columns");
        require(a.rows == b.rows && nonLinearBiases[k].size() == a.rows && linearBiases[k].size() == a.rows,
                "hidden layer " + std::to_string(k) + " has paths or biases of different sizes");
        require(k != 0 || a.rows == stateSize,
                "the first hidden layer updates the state and needs " + std::to_string(stateSize) + " rows");
        in = a.rows;
    }
    const Matrix& output = linearWeights[layers - 1];
    require(output.rows >= 1 && output.columns == in && linearBiases[layers - 1].size() == output.rows,
            "the output layer " + layerName("WeightLinear", layers - 1) + " needs " + std::to_string(in) +
                " columns, at least one row and a bias per row");

    // Calibration points: the minimum maps to 0, the best-F1 point to 0.5, the maximum to 1.
    const auto* minMax = weight.find<std::vector<float>>("Test_MINMAX");
    const auto* bestF1 = weight.find<std::vector<float>>("Test_BestF1");
    if (minMax && minMax->size() >= 2 && bestF1 && !bestF1->empty()) {
        thresholds = {(*minMax)[0], (*bestF1)[0], (*minMax)[1]};
        require(thresholds[0] < thresholds[1] && thresholds[1] < thresholds[2],
                "Test_MINMAX and Test_BestF1 must give minimum < best-F1 point < maximum");
    }

    window = std::make_shared<std::vector<float>>(frameLength);
    UTIL_FUNCTIONS::generateHammingWindowVector(frameLength, window->data(), frameLength);
    fft = UTILS::FFT::create(frameLength);
    require(fft != nullptr, "no transform for FrameLength " + std::to_string(frameLength));
}

VadCleaner_v0_0_1::VadCleaner_v0_0_1(WEIGHTS::ModelPtr modelPair, unsigned long sampleRate)
    : NoiseCleaner(modelPair, static_cast<unsigned>(sampleRate)),
      params_(*modelPair),
      samples_(kSampleHistoryFrames * params_.frameLength),
      features_((params_.contextFrames * 5 + 5) * params_.featureCount),
      deviationRoot_(params_.featureCount),
      state_(params_.stateSize, 0.0f),
      windowed_(params_.frameLength),
      spectrum_(params_.binCount),
      power_(params_.binCount),
      merged_(params_.featureCount),
      x_(params_.gateWeight.columns),
      gate_(params_.stateSize) {
    for (size_t i = 0; i < params_.featureCount; ++i)
        deviationRoot_[i] = std::sqrt(params_.deviation[i] + params_.featureEpsilon);

    // The stream starts after a frame of digital silence: its samples are zero and its features
    // are those of silence, (ln(0 + 1) − mean) / sqrt(SD + ε).
    samples_.push_backNULL(params_.frameLength);
    for (size_t i = 0; i < params_.featureCount; ++i)
        merged_[i] = (0.0f - params_.mean[i]) / deviationRoot_[i];
    for (uint64_t k = 0; k < params_.contextFrames; ++k)
        features_.push_back(merged_.data(), params_.featureCount);

    silentFlags_.reserve(params_.resetHistoryLength);
    size_t widest = params_.stateSize;
    for (const Matrix& w : params_.linearWeights) widest = std::max<size_t>(widest, w.rows);
    for (std::vector<float>* v : {&rectified_, &linear_, &hidden_[0], &hidden_[1], &output_})
        v->reserve(widest);
}

bool VadCleaner_v0_0_1::cleanNoise(std::vector<float>& samples, ncAudioInfo_t* /*info*/, bool /*flag*/) {
    const size_t n = samples.size();
    double energy = 0.0;
    for (float x : samples) energy += static_cast<double>(x) * x;
    if (n > 0) energy /= static_cast<double>(n);
    if (energy >= kLevelFloor) {
        level_ = energy > kLevelAttack * level_ ? kLevelSmoothing * energy + (1.0 - kLevelSmoothing) * level_
                                                : kLevelSmoothing * level_ + (1.0 - kLevelSmoothing) * energy;
    }
    const double gain = kTargetLevel / (std::sqrt(level_) + kGainEpsilon);

    // The block is the hop. Only its newest samples can reach the analysed frame, so a block
    // longer than the history keeps just those and the history never overflows.
    const size_t room = (kSampleHistoryFrames - 1) * params_.frameLength;
    const size_t kept = std::min(n, room);
    samples_.push_back(samples.data() + (n - kept), kept);
    float* fresh = samples_.data() + samples_.writeCount() - kept;
    for (size_t i = 0; i < kept; ++i) fresh[i] = static_cast<float>(fresh[i] * gain);
    samples_.advance(kept);

    float result = probabilityCalc(samples_.readPtr(), params_.frameLength);
    const std::vector<float>& t = params_.thresholds;
    if (t.size() >= 3) {
        result = result < t[1] ? (result - t[0]) * 0.5f / (t[1] - t[0])
                               : (result - t[1]) * 0.5f / (t[2] - t[1]) + 0.5f;
        if (result > kProbabilityCeiling) result = kProbabilityCeiling;
        if (result < kProbabilityFloor) result = kProbabilityFloor;
    }
    samples.resize(1);
    samples[0] = result;
    return true;
}

float VadCleaner_v0_0_1::probabilityCalc(const float* frame, unsigned long length) {
    const size_t n = params_.frameLength;
    const std::vector<float>& window = *params_.window;
    const size_t available = std::min<size_t>(length, n);
    for (size_t i = 0; i < available; ++i) windowed_[i] = frame[i] * window[i];
    std::fill(windowed_.begin() + static_cast<std::ptrdiff_t>(available), windowed_.end(), 0.0f);
    params_.fft->forward(windowed_.data(), spectrum_.data());
    for (size_t k = 0; k < params_.binCount; ++k)
        power_[k] = spectrum_[k].real() * spectrum_[k].real() + spectrum_[k].imag() * spectrum_[k].imag();

    mergeBands(power_.data(), params_.binCount, merged_.data());
    for (size_t i = 0; i < params_.featureCount; ++i)
        merged_[i] = (std::log(merged_[i] + 1.0f) - params_.mean[i]) / deviationRoot_[i];

    features_.advance(params_.featureCount);
    features_.push_back(merged_.data(), params_.featureCount);
    const float raw = network(features_.readPtr());
    if (params_.stateResetEnabled) state_reset_functionality(raw);
    return raw;
}

float VadCleaner_v0_0_1::network(const float* context) {
    std::copy(state_.begin(), state_.end(), x_.begin());
    std::copy_n(context, params_.contextFrames * params_.featureCount,
                x_.begin() + static_cast<std::ptrdiff_t>(state_.size()));
    matMulPlusB(params_.gateWeight, x_, params_.gateBias, gate_);
    for (float& z : gate_) z = sigmoid_(z);

    const size_t layers = params_.linearWeights.size();
    const std::vector<float>* in = &x_;
    for (size_t k = 0; k + 1 < layers; ++k) {
        std::vector<float>& y = hidden_[k % 2];
        matMulPlusB(params_.nonLinearWeights[k], *in, params_.nonLinearBiases[k], rectified_);
        matMulPlusB(params_.linearWeights[k], *in, params_.linearBiases[k], linear_);
        y.resize(rectified_.size());
        for (size_t i = 0; i < y.size(); ++i)
            y[i] = rectified_[i] < 0.0f ? linear_[i] : rectified_[i] + linear_[i];
        // The state takes the gated blend, but the next layer reads y itself, not the new
        // state: that is the forward pass this model format defines.
        if (k == 0)
            for (size_t i = 0; i < state_.size(); ++i)
                state_[i] = gate_[i] * y[i] + (1.0f - gate_[i]) * state_[i];
        in = &y;
    }
    matMulPlusB(params_.linearWeights[layers - 1], *in, params_.linearBiases[layers - 1], output_);
    return output_[0];
}

void VadCleaner_v0_0_1::state_reset_functionality(float raw) {
    const bool silent = params_.resetProbabilityThreshold > sigmoid_(raw);
    const uint64_t history = params_.resetHistoryLength;
    if (silentFlags_.size() < history) {
        silentFlags_.push_back(silent);
        silentCount_ += silent;
    } else {
        // Once the ring is full the count loses both the new and the replaced flag, so it only
        // falls, and 100 silent blocks later it wraps to a huge value; from then on the ratio
        // test always passes and the state is cleared every resetMinInterval blocks. That reset
        // schedule is this detector's defined behaviour, so the arithmetic is kept as it is.
        const auto old = static_cast<int8_t>(silentFlags_[ringPosition_]);
        silentFlags_[ringPosition_] = silent;
        silentCount_ += static_cast<uint64_t>(-static_cast<int64_t>(silent) - old);
    }
    ringPosition_ = (ringPosition_ + 1) % history;
    ++blocksSinceReset_;
    if (params_.resetRatio * static_cast<float>(silentFlags_.size()) < static_cast<float>(silentCount_) &&
        blocksSinceReset_ >= params_.resetMinInterval) {
        state_.assign(params_.stateSize, 0.0f);
        blocksSinceReset_ = 0;
    }
}

}  // namespace SONEL::NOISE_CANCELLER
