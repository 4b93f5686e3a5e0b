// Soak: one session run for a long time as a host runs it, one 10 ms frame every 10 ms, to show
// that nothing grows with the length of a stream (memory, per-frame time, output level).
//
//   sonel_soak RATE FILE SECONDS [--model PATH]... [--unpaced]
//
// FILE is raw float32 mono audio at RATE Hz, looped for SECONDS of stream. Frames are paced in
// real time unless --unpaced. Prints one JSON object: resident memory at the start, middle and
// end, per-frame processing time (median, p99, max) of each third of the run, and every frame
// that took longer than the 10 ms a host has for it, with when it came (the first 1000).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "denoisers.h"

namespace {

// Resident set size in KiB, from the proc file system (Linux; 0 where it is absent).
long residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    if (!(statm >> pages >> resident)) return 0;
    return resident * 4;
}

struct Third {
    std::vector<double> micros;
    double outputPower = 0.0;
};

std::string summary(Third& t) {
    std::sort(t.micros.begin(), t.micros.end());
    const auto at = [&](double q) { return t.micros[static_cast<size_t>(q * (t.micros.size() - 1))]; };
    char text[200];
    std::snprintf(text, sizeof text,
                  "{\"frames\": %zu, \"median_us\": %.2f, \"p99_us\": %.2f, \"max_us\": %.2f, \"output_dbfs\": %.2f}",
                  t.micros.size(), at(0.5), at(0.99), t.micros.back(),
                  10.0 * std::log10(t.outputPower / static_cast<double>(t.micros.size()) + 1e-20));
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: sonel_soak RATE FILE SECONDS [--model PATH]... [--unpaced]\n";
        return 2;
    }
    const unsigned rate = static_cast<unsigned>(std::stoul(argv[1]));
    const double seconds = std::stod(argv[3]);
    std::vector<std::string> models;
    bool paced = true;
    for (int i = 4; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--model" && i + 1 < argc)
            models.push_back(argv[++i]);
        else if (arg == "--unpaced")
            paced = false;
        else {
            std::cerr << "unknown argument " << arg << "\n";
            return 2;
        }
    }
    std::ifstream file(argv[2], std::ios::binary);
    std::vector<float> audio;
    for (float x; file.read(reinterpret_cast<char*>(&x), sizeof x);) audio.push_back(x);
    if (audio.size() < rate / 100) {
        std::cerr << "no audio in " << argv[2] << "\n";
        return 1;
    }

    const sonel_eval::SonelLibrary library(models);
    auto session = sonel_eval::makeDenoiser(sonel_eval::kSonelSystem, rate, &library);
    const size_t frame = session->frameSize();
    const size_t frames = static_cast<size_t>(seconds * 100.0);
    std::vector<float> out(frame);
    // The soak's own records are written through before the stream starts, so that resident
    // memory during the stream is the session's alone: a reserved vector's pages would be
    // faulted in as it fills, 2.7 MiB over an hour, and read as growth.
    Third thirds[3];
    for (Third& t : thirds) {
        t.micros.assign(frames / 3 + 1, 0.0);
        t.micros.clear();
    }
    // (stream second, microseconds) of each frame over its 10 ms budget.
    std::vector<std::pair<double, double>> late(1000);
    late.clear();
    long rss[3] = {0, 0, 0};
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    size_t position = 0;
    for (size_t f = 0; f < frames; ++f) {
        if (position + frame > audio.size()) position = 0;
        const Clock::time_point before = Clock::now();
        session->process(audio.data() + position, out.data());
        const double micros = std::chrono::duration<double, std::micro>(Clock::now() - before).count();
        position += frame;
        Third& third = thirds[std::min<size_t>(3 * f / frames, 2)];
        third.micros.push_back(micros);
        if (micros > 10000.0 && late.size() < late.capacity()) late.emplace_back(f / 100.0, micros);
        for (float y : out) third.outputPower += static_cast<double>(y) * y / static_cast<double>(frame);
        // After one second (buffers at their steady size), halfway, and at the end.
        if (f == 100) rss[0] = residentKiB();
        if (f == frames / 2) rss[1] = residentKiB();
        if (paced) std::this_thread::sleep_until(start + std::chrono::milliseconds(10 * (f + 1)));
    }
    rss[2] = residentKiB();
    std::string lateList;
    for (const auto& [second, micros] : late) {
        char item[64];
        std::snprintf(item, sizeof item, "%s[%.2f, %.0f]", lateList.empty() ? "" : ", ", second, micros);
        lateList += item;
    }
    std::printf("{\"rate\": %u, \"seconds\": %.0f, \"paced\": %s, \"rss_kib\": [%ld, %ld, %ld], \"thirds\": [%s, %s, %s], "
                "\"late_frames\": [%s]}\n",
                rate, seconds, paced ? "true" : "false", rss[0], rss[1], rss[2], summary(thirds[0]).c_str(),
                summary(thirds[1]).c_str(), summary(thirds[2]).c_str(), lateList.c_str());
    return 0;
}
