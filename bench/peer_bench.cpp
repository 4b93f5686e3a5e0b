// One 10 ms frame through the peers the evaluation compares with (SpeexDSP's preprocessor and
// WebRTC's noise suppressor), at 16 and 48 kHz: the yardstick for BM_NcFrame in session_bench.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "denoisers.h"

namespace {

void BM_PeerFrame(benchmark::State& state, const char* system) {
    const auto rate = static_cast<unsigned>(state.range(0));
    auto denoiser = sonel_eval::makeDenoiser(system, rate, nullptr);
    const size_t frame = denoiser->frameSize();
    // Speech-level tone plus noise: a suppressor's cost may depend on whether it sees signal.
    std::vector<float> in(frame), out(frame);
    for (size_t i = 0; i < frame; ++i)
        in[i] = 0.1f * std::sin(0.05f * static_cast<float>(i)) +
                0.001f * static_cast<float>((i * 7919) % 13) - 0.006f;
    for (auto _ : state) {
        denoiser->process(in.data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["x_realtime"] =
        benchmark::Counter(0.01 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(BM_PeerFrame, speexdsp_15, "speexdsp-15")->ArgName("host_hz")->Arg(16000)->Arg(48000);
BENCHMARK_CAPTURE(BM_PeerFrame, speexdsp_30, "speexdsp-30")->ArgName("host_hz")->Arg(16000)->Arg(48000);
BENCHMARK_CAPTURE(BM_PeerFrame, webrtc_high, "webrtc-high")->ArgName("host_hz")->Arg(16000)->Arg(48000);
BENCHMARK_CAPTURE(BM_PeerFrame, webrtc_veryhigh, "webrtc-veryhigh")
    ->ArgName("host_hz")
    ->Arg(16000)
    ->Arg(48000);

}  // namespace
