// Per-frame cost of the DSP stages a cleaner runs every 10 ms.
#include <benchmark/benchmark.h>

#include <complex>
#include <random>
#include <vector>

#include "utils/fft.h"
#include "utils/mat_mul.h"
#include "utils/resampler.h"

namespace {

using SONEL::CONTAINERS::Matrix;

// One recurrent-layer product: input = context frames × bands of features plus the hidden state.
constexpr unsigned kContextFrames = 3;
constexpr unsigned kBands16k = 50;
constexpr unsigned kHidden16k = 192;
constexpr unsigned kBands32k = 60;
constexpr unsigned kHidden32k = 256;

std::vector<float> randomVector(size_t n) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) x = dist(rng);
    return v;
}

void BM_MatMulPlusB(benchmark::State& state) {
    const auto bands = static_cast<unsigned>(state.range(0));
    const auto hidden = static_cast<unsigned>(state.range(1));
    const unsigned inputs = kContextFrames * bands + hidden;
    const Matrix W(hidden, inputs, randomVector(size_t(hidden) * inputs));
    const std::vector<float> x = randomVector(inputs), b = randomVector(hidden);
    std::vector<float> y;
    for (auto _ : state) {
        SONEL::UTIL_FUNCTIONS::matMulPlusB(W, x, b, y);
        benchmark::DoNotOptimize(y.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(hidden) * inputs);  // multiply-adds
}
BENCHMARK(BM_MatMulPlusB)
    ->ArgNames({"bands", "hidden"})
    ->Args({kBands16k, kHidden16k})
    ->Args({kBands32k, kHidden32k});

void BM_FftForwardInverse(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const auto fft = SONEL::UTILS::FFT::create(n);
    std::vector<float> block = randomVector(n);
    std::vector<std::complex<float>> spectrum(n / 2 + 1);
    for (auto _ : state) {
        fft->forward(block.data(), spectrum.data());
        fft->inverse(spectrum.data(), block.data());
        benchmark::DoNotOptimize(block.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(n));  // samples
}
BENCHMARK(BM_FftForwardInverse)->ArgName("n")->Arg(320)->Arg(640)->Arg(960);

void BM_ResampleFrame(benchmark::State& state) {
    const auto inRate = static_cast<size_t>(state.range(0));
    const auto outRate = static_cast<size_t>(state.range(1));
    SONEL::UTILS::Resampler resampler(inRate, outRate);
    const std::vector<float> in = randomVector(inRate / 100);  // 10 ms
    std::vector<float> out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(resampler.resample(in, out));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t(in.size()));  // input samples
}
BENCHMARK(BM_ResampleFrame)
    ->ArgNames({"in", "out"})
    ->Args({48000, 16000})
    ->Args({48000, 32000})
    ->Args({16000, 48000})
    ->Args({32000, 48000});

}  // namespace
