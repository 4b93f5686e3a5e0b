#pragma once
// Analysis and synthesis windows named by a model's "GEN_*Window" entries. Values are computed in
// double and stored as float; nothing is written for n = 0. The third argument is accepted for
// call compatibility with the model code and never changes the values.
#include <cstddef>

namespace SONEL::UTIL_FUNCTIONS {

// Symmetric Hann window 0.5 − 0.5·cos(2πi/(n−1)); both ends are 0. n = 1 divides by zero.
void generateHanningWindowVector(size_t n, float* out, size_t unused = 0);

// Symmetric Hamming window 0.54 − 0.46·cos(2πi/(n−1)); both ends are 0.08. n = 1 divides by zero.
void generateHammingWindowVector(size_t n, float* out, size_t unused = 0);

// sin(π/2·sin²(πi/n)), periodic: w[0] = 0 and w[i]² + w[i + n/2]² = 1 for even n, so the same
// window for analysis and synthesis reconstructs exactly at 50 % overlap.
void generateVorbisWindowVector(size_t n, float* out, size_t unused = 0);

// Rising 2i/n over the first n/2 values, falling 1 − 2j/n over the next n/2; for odd n the last
// value is 0, for n = 1 the single value is 0. Returns n.
size_t generateTriangularWindowVector(size_t n, float* out, size_t unused = 0);

// out[i] = frame[i] · window[i] for i < n, and the mean square of the frame as it came (in
// double): the level a front end normalises by, taken in the same pass.
double applyWindow(const float* frame, const float* window, size_t n, float* out);

}  // namespace SONEL::UTIL_FUNCTIONS
