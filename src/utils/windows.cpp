#include "utils/windows.h"

#include <cmath>

namespace SONEL::UTIL_FUNCTIONS {

namespace {

constexpr double kPi = 3.14159265358979323846;

void generateRaisedCosine(size_t n, float* out, double a0, double a1) {
    const double step = 2.0 * kPi / static_cast<double>(n - 1);
    for (size_t i = 0; i < n; ++i) {
        out[i] = static_cast<float>(a0 - a1 * std::cos(step * static_cast<double>(i)));
    }
}

}  // namespace

void generateHanningWindowVector(size_t n, float* out, size_t) {
    generateRaisedCosine(n, out, 0.5, 0.5);
}

void generateHammingWindowVector(size_t n, float* out, size_t) {
    generateRaisedCosine(n, out, 0.54, 0.46);
}

void generateVorbisWindowVector(size_t n, float* out, size_t) {
    for (size_t i = 0; i < n; ++i) {
        const double s = std::sin(kPi * static_cast<double>(i) / static_cast<double>(n));
        out[i] = static_cast<float>(std::sin(kPi / 2.0 * s * s));
    }
}

size_t generateTriangularWindowVector(size_t n, float* out, size_t) {
    if (n == 1) out[0] = 0.0f;
    if (n < 2) return n;
    const size_t half = n / 2;
    const double len = static_cast<double>(n);
    for (size_t i = 0; i < half; ++i) {
        out[i] = static_cast<float>(2.0 * static_cast<double>(i) / len);
        out[half + i] = static_cast<float>(1.0 - 2.0 * static_cast<double>(i) / len);
    }
    if (n % 2 == 1) out[n - 1] = 0.0f;
    return n;
}

double applyWindow(const float* frame, const float* window, size_t n, float* out) {
    double energy = 0.0;
    for (size_t i = 0; i < n; ++i) {
        out[i] = frame[i] * window[i];
        energy += static_cast<double>(frame[i]) * frame[i];
    }
    return n ? energy / static_cast<double>(n) : 0.0;
}

}  // namespace SONEL::UTIL_FUNCTIONS
