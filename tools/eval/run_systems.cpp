// sonel-eval-run: feeds raw audio files through one noise suppressor in 10 ms frames.
//
//   sonel-eval-run SYSTEM RATE LIST [--model PATH]... [--flush-ms MS]
//
// LIST holds one "INPUT<TAB>OUTPUT" pair per line; both are raw little-endian float32 mono at
// RATE Hz. Every file gets a fresh suppressor. The input is zero-padded to whole frames and
// followed by MS (default 100) of zeros, so the output also holds the last input samples however
// late the system delivers them; the output is that many samples long.
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "denoisers.h"

namespace {

constexpr int kExitUsage = 2;

std::vector<float> readRaw(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("cannot read " + path);
    const auto bytes = static_cast<size_t>(in.tellg());
    if (bytes % sizeof(float) != 0) throw std::runtime_error(path + " is not raw float32");
    std::vector<float> samples(bytes / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(bytes));
    return samples;
}

void writeRaw(const std::string& path, const std::vector<float>& samples) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(samples.data()),
              static_cast<std::streamsize>(samples.size() * sizeof(float)));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<float> denoise(sonel_eval::Denoiser& denoiser, std::vector<float> signal, size_t flushSamples) {
    const size_t frame = denoiser.frameSize();
    const size_t frames = (signal.size() + flushSamples + frame - 1) / frame;
    signal.resize(frames * frame, 0.0f);
    for (size_t f = 0; f < frames; ++f) denoiser.process(&signal[f * frame], &signal[f * frame]);
    return signal;
}

int usage() {
    std::cerr << "usage: sonel-eval-run SYSTEM RATE LIST [--model PATH]... [--flush-ms MS]\n"
                 "  SYSTEM: sonel";
    for (const auto& name : sonel_eval::peerSystems()) std::cerr << ", " << name;
    std::cerr << "\n";
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> positional;
    std::vector<std::string> modelPaths;
    double flushMs = 100.0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--model" && i + 1 < argc) {
            modelPaths.push_back(argv[++i]);
        } else if (arg == "--flush-ms" && i + 1 < argc) {
            flushMs = std::stod(argv[++i]);
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 3) return usage();
    const std::string& system = positional[0];
    if (system == sonel_eval::kSonelSystem && modelPaths.empty()) {
        std::cerr << "sonel-eval-run: the sonel system needs --model\n";
        return kExitUsage;
    }
    try {
        const auto rate = static_cast<unsigned>(std::stoul(positional[1]));
        const auto flushSamples = static_cast<size_t>(std::lround(flushMs * rate / 1000.0));
        std::unique_ptr<sonel_eval::SonelLibrary> sonel;
        if (system == sonel_eval::kSonelSystem) sonel = std::make_unique<sonel_eval::SonelLibrary>(modelPaths);
        // An unknown system or rate fails here, even with an empty list.
        sonel_eval::makeDenoiser(system, rate, sonel.get());
        std::ifstream list(positional[2]);
        if (!list) throw std::runtime_error("cannot read " + positional[2]);
        std::string line;
        while (std::getline(list, line)) {
            if (line.empty()) continue;
            const auto tab = line.find('\t');
            if (tab == std::string::npos) throw std::runtime_error("no tab in list line: " + line);
            auto denoiser = sonel_eval::makeDenoiser(system, rate, sonel.get());
            writeRaw(line.substr(tab + 1), denoise(*denoiser, readRaw(line.substr(0, tab)), flushSamples));
        }
    } catch (const std::exception& error) {
        std::cerr << "sonel-eval-run: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
