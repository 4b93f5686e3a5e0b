#pragma once
// Model files for tests, benchmarks and fuzz targets: the header records every model carries, a
// pass-through v0.0.5 cleaner (every gain 1), random networks of a chosen size, and small v0.0.7
// cleaners with and without their voice detector.
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "noise_canceller/noise_cleaner_v0_0_7.h"
#include "noise_canceller/noise_cleaner_with_vad_v0_0_7.h"
#include "weights/weight_writer.h"

namespace sonel_test {

// A model's records by name, as the tests write them, and a list-of-vectors record's value.
using Records = std::map<std::string, SONEL::WEIGHTS::WeightWriter::Value>;
using Vectors = std::vector<std::vector<float>>;

// A writer holding `records`, in name order.
inline SONEL::WEIGHTS::WeightWriter writerOf(const Records& records) {
    SONEL::WEIGHTS::WeightWriter writer;
    for (const auto& [name, value] : records) writer.add(name, value);
    return writer;
}

// The records every model carries: what selection, caching and session set-up read.
inline SONEL::WEIGHTS::WeightWriter headerRecords(const std::string& version, unsigned rate,
                                                  unsigned frameLength,
                                                  const std::string& name = "test-model") {
    SONEL::WEIGHTS::WeightWriter writer;
    writer.add("Version", version);
    writer.add("SampleRate", rate);
    writer.add("FrameLength", frameLength);
    writer.add("ModelName", name);
    writer.add("TimeStamp", std::string("20261122T000000"));
    return writer;
}

struct CleanerModelSpec {
    unsigned rate = 16000;
    unsigned compressRate = 2;
    unsigned previewFrames = 1;
    unsigned hidden = 8;
    unsigned layers = 2;
    float outputBias = 30.0f;  // logistic(30) rounds to 1.0f: a mask of ones
    float weightScale = 0.0f;  // 0: every weight zero
    unsigned seed = 1;
    bool fullBand = true;      // FiltrBegin 0 .. FiltrEnd N/2; else bins 1 .. N/2
    float freezeLow = 0.0f;
    float freezeHigh = 0.0f;
    unsigned hopMs = 10;
    float logEpsilon = 1e-3f;
    float sd = 3.0f;
};

inline SONEL::WEIGHTS::WeightWriter cleanerModel(const CleanerModelSpec& s) {
    using SONEL::CONTAINERS::Matrix;
    const unsigned step = s.rate * s.hopMs / 1000, frame = 2 * step;
    const unsigned begin = s.fullBand ? 0 : 1, end = frame / 2;
    const unsigned bands = static_cast<unsigned>(
        SONEL::NOISE_CANCELLER::BandLayout(end - begin + 1, s.compressRate).bandCount());
    const unsigned features = bands * (s.previewFrames + 1);
    std::mt19937 rng(s.seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    auto matrix = [&](unsigned r, unsigned c) {
        Matrix m(r, c);
        for (float& v : m.data) v = s.weightScale * normal(rng) / std::sqrt(static_cast<float>(c));
        return m;
    };
    auto vec = [&](unsigned n, float base) {
        std::vector<float> v(n);
        for (float& x : v) x = base + s.weightScale * 0.1f * normal(rng);
        return v;
    };

    SONEL::WEIGHTS::WeightWriter w = headerRecords("0.0.5", s.rate, frame, "cleaner-test");
    w.add("Step", step);
    w.add("FiltrBegin", begin);
    w.add("FiltrEnd", end);
    w.add("PreviewFrames", s.previewFrames);
    w.add("CoefficientNumber", bands);
    w.add("FreezeLowEnThr", s.freezeLow);
    w.add("FreezeHighEnThr", s.freezeHigh);
    w.add("MU", std::vector<float>(bands, 5.0f));
    w.add("SD", std::vector<float>(bands, s.sd));
    w.add("LogPowerEpsilon", s.logEpsilon);
    w.add("CONTROL_VELTA_COMPRESS_RATE_v0_0_5", s.compressRate);
    w.add("WeightGRU", matrix(s.hidden, s.hidden + features));
    w.add("BaesGRU", vec(s.hidden, 0.0f));
    std::vector<Matrix> rectified, linear;
    std::vector<std::vector<float>> rectifiedBias, linearBias;
    unsigned in = s.hidden + features;
    for (unsigned k = 0; k < s.layers; ++k) {
        rectified.push_back(matrix(s.hidden, in));
        linear.push_back(matrix(s.hidden, in));
        rectifiedBias.push_back(vec(s.hidden, 0.0f));
        linearBias.push_back(vec(s.hidden, 0.0f));
        in = s.hidden;
    }
    rectified.push_back(matrix(bands, in));
    rectifiedBias.push_back(vec(bands, s.outputBias));
    w.add("WeightNonLinear", rectified);
    w.add("BaesNonLinear", rectifiedBias);
    w.add("WeightLinear", linear);
    w.add("BaesLinear", linearBias);
    return w;
}

// A small layer-normalised network under `keys` whose last layer gives `outputs` values from zero
// weights and a bias of `lastBias`: a constant, so a detector's decision and a cleaner's gains
// are chosen.
inline void addLayerNormNetwork(Records& r, const SONEL::NOISE_CANCELLER::LayerNormGru::Keys& keys,
                                unsigned features, unsigned outputs, float lastBias) {
    using SONEL::CONTAINERS::Matrix;
    std::mt19937 rng(features);
    std::normal_distribution<float> normal(0.0f, 0.3f);
    auto matrix = [&](unsigned rows, unsigned columns) {
        Matrix m(rows, columns);
        for (float& v : m.data) v = normal(rng);
        return m;
    };
    const unsigned width = 8, hidden = 6;
    r[keys.mean] = std::vector<float>(features, 1.0f);
    r[keys.deviation] = std::vector<float>(features, 4.0f);
    r[keys.inputWeights] = std::vector<Matrix>{matrix(width, features)};
    r[keys.inputBiases] = Vectors{std::vector<float>(width, 0.1f)};
    r[keys.inputGains] = Vectors{std::vector<float>(width, 1.0f)};
    r[keys.inputNormBiases] = Vectors{std::vector<float>(width, 0.0f)};
    r[keys.gruWeight] = matrix(2 * hidden, width + hidden);
    r[keys.gruBias] = std::vector<float>(3 * hidden, 0.0f);
    r[keys.resetWeight] = matrix(hidden, width + hidden);
    r[keys.resetBias] = std::vector<float>(hidden, 0.0f);
    r[keys.outputWeights] = std::vector<Matrix>{Matrix(outputs, hidden)};
    r[keys.outputBiases] = Vectors{std::vector<float>(outputs, lastBias)};
    r[keys.outputGains] = Vectors{};
    r[keys.outputNormBiases] = Vectors{};
}

constexpr unsigned kLayerNormRate = 16000, kLayerNormVadRate = 8000;

// A 16 kHz v0.0.7 cleaner of working duration `workMs` (hop workMs / 2) with band gains
// sigmoid(gainBias); with a detector (8 kHz, the same durations) whose probability is
// sigmoid(vadBias) it is a gated file, without one a plain v0.0.7 file. LogPowerEpsilon 1 makes
// the plain cleaner's silent context the gated one's zeros.
inline Records layerNormCleanerModel(unsigned workMs, float gainBias, bool gated, float vadBias = 0.0f) {
    using SONEL::NOISE_CANCELLER::BandLayout;
    using Gated = SONEL::NOISE_CANCELLER::NoiseCleanerWithVad_v0_0_7;
    const unsigned hop = kLayerNormRate * workMs / 2000;
    const unsigned bands = static_cast<unsigned>(BandLayout(hop, 3).bandCount());
    Records r{{"Version", std::string("0.0.7")}, {"SampleRate", kLayerNormRate}, {"FrameLength", 2 * hop},
              {"Step", hop}, {"FilterBegin", 1u}, {"FilterEnd", hop + 1}, {"PreviewFrames", 1u},
              {"CoefficientNumber", bands}, {"FreezeLowEnThr", 0.0f}, {"FreezeHighEnThr", 0.0f},
              {"LogPowerEpsilon", 1.0f}, {"CONTROL_SONEL_COMPRESS_RATE_v0_0_7", 3u},
              // Named apart: the registry's cache tells files apart by name, rate and duration.
              {"ModelName", std::string(gated ? "gated-test" : "layer-norm-test")},
              {"TimeStamp", std::string("20261124T000000")}};
    addLayerNormNetwork(r, SONEL::NOISE_CANCELLER::NoiseCleaner_v0_0_7::networkKeys(
                               gated ? Gated::kCleanerNetworkPrefix : ""),
                        2 * bands, bands, gainBias);
    if (!gated) return r;
    const unsigned frame = kLayerNormVadRate * workMs / 1000;
    const unsigned vadBands = static_cast<unsigned>(BandLayout(frame / 2, 3).bandCount());
    for (const auto& [key, value] :
         Records{{"VadVersion", std::string("0.0.1")}, {"VadSampleRate", kLayerNormVadRate},
                 {"VadFrameLength", frame}, {"VadStep", frame / 2}, {"VadFiltrBegin", 1u},
                 {"VadFiltrEnd", frame / 2 + 1}, {"VadPreviewFrames", 2u}, {"VadCoefficientNumber", vadBands}})
        r[key] = value;
    addLayerNormNetwork(r, Gated::detectorKeys(), 2 * vadBands, 1, vadBias);
    return r;
}

}  // namespace sonel_test
