// Whole-stream benchmark: a long recording through one instance, frame by frame, as a host would
// run it. Sonel and the SpeexDSP and WebRTC suppressors go through the same loop.
//
//   sonel_stream_bench SYSTEM RATE FILE [--model PATH]... [--sessions K]
//
// FILE is raw float32 mono audio at RATE Hz (tools/eval/sonel_eval.py speed builds 10 minutes of
// holdout mixtures and runs every system in its own process, so no instance reuses heap pages
// another one freed). Prints one JSON object: nanoseconds per 10 ms frame (median, p99, mean),
// the real-time factor (processing time / audio time), heap allocations per frame after the
// first second, and what each of K further instances (default 8), alive together and run for one
// second each, adds to the peak resident memory and to the heap in use.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "denoisers.h"

// Every heap allocation in the process goes through these (glibc's own entry points do the
// work), so library code that calls malloc directly is counted as well as operator new.
namespace {
std::atomic<unsigned long long> gAllocations{0};
}
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(pointer, size);
}
void* memalign(size_t alignment, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
    *out = memalign(alignment, size);
    return *out ? 0 : ENOMEM;
}
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kWarmUpFrames = 100;  // 1 s: first-call set-up and the resamplers' priming

// Resident and peak resident memory in KiB, from /proc/self/status.
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    throw std::runtime_error("no " + field + " in /proc/self/status");
}

void resetPeakResident() {
    // Writing 5 to clear_refs resets VmHWM to the current resident size (Linux 4.0 and later).
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
}

std::vector<float> readRaw(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::vector<float> samples(static_cast<size_t>(in.tellg()) / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(samples.data()),
            static_cast<std::streamsize>(samples.size() * sizeof(float)));
    return samples;
}

double percentile(std::vector<long long> values, double fraction) {
    const auto at = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return static_cast<double>(values[at]);
}

// Heap bytes in use (main arena and separately mapped blocks).
double heapKiB() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / 1024.0;
}

template <typename Make>
void measure(const std::string& system, unsigned rateHz, Make make, const std::vector<float>& audio,
             unsigned extraInstances) {
    auto denoiser = make();
    const size_t frame = denoiser->frameSize();
    const size_t frames = audio.size() / frame;
    if (frames <= kWarmUpFrames) throw std::runtime_error("input shorter than the warm-up");
    std::vector<float> out(frame);
    std::vector<long long> ns(frames);

    // Memory first, while the heap holds nothing freed by a long run. One frame through the
    // first instance beforehand, so process-wide set-up on first use (the BLAS makes its tables
    // on its first product) is not counted against the added instances.
    denoiser->process(audio.data(), out.data());
    std::vector<std::unique_ptr<sonel_eval::Denoiser>> more;
    resetPeakResident();
    const long residentBefore = statusKiB("VmRSS");
    const double heapBefore = heapKiB();
    for (unsigned i = 0; i < extraInstances; ++i) {
        more.push_back(make());
        for (size_t f = 0; f < kWarmUpFrames; ++f) more.back()->process(&audio[f * frame], out.data());
    }
    const double residentPerInstance =
        static_cast<double>(statusKiB("VmHWM") - residentBefore) / extraInstances;
    const double heapPerInstance = (heapKiB() - heapBefore) / extraInstances;
    more.clear();

    unsigned long long allocationsAfterWarmUp = 0;
    for (size_t f = 0; f < frames; ++f) {
        if (f == kWarmUpFrames) allocationsAfterWarmUp = gAllocations.load();
        const auto start = Clock::now();
        denoiser->process(&audio[f * frame], out.data());
        ns[f] = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    }
    allocationsAfterWarmUp = gAllocations.load() - allocationsAfterWarmUp;
    double totalNs = 0.0;
    for (long long t : ns) totalNs += static_cast<double>(t);
    ns.erase(ns.begin(), ns.begin() + kWarmUpFrames);

    const double audioNs = static_cast<double>(frames) * 1e7;  // 10 ms per frame
    std::printf("{\"system\": \"%s\", \"rate_hz\": %u, \"frames\": %zu, \"median_ns\": %.0f, "
                "\"p99_ns\": %.0f, \"mean_ns\": %.1f, \"real_time_factor\": %.6f, "
                "\"allocations_per_frame\": %.6f, \"resident_kib_per_instance\": %.1f, \"heap_kib_per_instance\": %.1f}\n",
                system.c_str(), rateHz, frames, percentile(ns, 0.5), percentile(ns, 0.99),
                totalNs / static_cast<double>(frames), totalNs / audioNs,
                static_cast<double>(allocationsAfterWarmUp) / static_cast<double>(ns.size()),
                residentPerInstance, heapPerInstance);
}

int usage() {
    std::cerr << "usage: sonel_stream_bench SYSTEM RATE FILE [--model PATH]... [--sessions K]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> positional;
    std::vector<std::string> modelPaths;
    unsigned extraInstances = 8;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--model" && i + 1 < argc) {
            modelPaths.push_back(argv[++i]);
        } else if (arg == "--sessions" && i + 1 < argc) {
            extraInstances = static_cast<unsigned>(std::stoul(argv[++i]));
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 3 || extraInstances == 0) return usage();
    const std::string& system = positional[0];
    try {
        const auto rate = static_cast<unsigned>(std::stoul(positional[1]));
        std::unique_ptr<sonel_eval::SonelLibrary> sonel;
        if (system == sonel_eval::kSonelSystem) {
            if (modelPaths.empty()) return usage();
            sonel = std::make_unique<sonel_eval::SonelLibrary>(modelPaths);
        }
        const std::vector<float> audio = readRaw(positional[2]);
        measure(system, rate, [&] { return sonel_eval::makeDenoiser(system, rate, sonel.get()); }, audio,
                extraInstances);
    } catch (const std::exception& error) {
        std::cerr << "sonel_stream_bench: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
