#pragma once
// Model files for tests and benchmarks: the header records every model carries, a pass-through
// v0.0.5 cleaner (every gain 1) and random networks of a chosen size.
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "noise_canceller/band_layout.h"
#include "weights/weight_writer.h"

namespace sonel_test {

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

}  // namespace sonel_test
