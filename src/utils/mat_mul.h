#pragma once
// Affine layers of the speech models: every call sets the output to a copy of the bias and lets
// BLAS accumulate the product into it (alpha = 1, beta = 1), row-major, unit strides. The output
// takes the bias length; a caller that reuses its output vector across frames never allocates.
// The shapes of the matrix and the input are the caller's responsibility and are not checked.
#include <cmath>
#include <cstddef>
#include <vector>

#include "utils/matrix.h"

namespace SONEL::UTIL_FUNCTIONS {

using CONTAINERS::Matrix;

// y = W·x + b
void matMulPlusB(const Matrix& W, const std::vector<float>& x, const Matrix& b,
                 std::vector<float>& y);
void matMulPlusB(const Matrix& W, const std::vector<float>& x, const std::vector<float>& b,
                 std::vector<float>& y);
void matMulPlusB(const Matrix& W, const float* x, size_t n, const std::vector<float>& b,
                 std::vector<float>& y);

// y = x·W + b, x taken as a row vector of length W.rows
void matMulPlusB(const std::vector<float>& x, const Matrix& W, const Matrix& b,
                 std::vector<float>& y);
void matMulPlusB(const std::vector<float>& x, const Matrix& W, const std::vector<float>& b,
                 std::vector<float>& y);
void matMulPlusB(const float* x, size_t n, const Matrix& W, const std::vector<float>& b,
                 std::vector<float>& y);

// Grouped (block-diagonal) layer: W holds `groups` blocks of W.rows / groups rows stacked, and
// block g reads x[g·W.columns …] (x holds groups × W.columns values) and writes its rows of y.
// One group is matMulPlusB.
void groupedMatMulPlusB(const Matrix& W, const float* x, size_t groups, const std::vector<float>& b,
                        std::vector<float>& y);

// y += W·x over a block of a larger row-major matrix: `rows` rows of `columns` values each, row r
// starting at W + r·stride. Lets a layer read part of a record in place instead of a copy.
void blockMatMulPlus(const float* W, size_t rows, size_t columns, size_t stride, const float* x, float* y);

// Y = A·B + C; Y becomes A.rows × B.columns
void matMulPlusB(const Matrix& A, const Matrix& B, const Matrix& C, Matrix& Y);

}  // namespace SONEL::UTIL_FUNCTIONS

namespace SONEL::UTILS {

// Logistic gate of the recurrent layers, 1 / (1 + e^(−x)) in single precision. For x below
// about −88 e^(−x) overflows to +inf and the result is exactly 0, which is the correct limit.
struct SigmoidOperator {
    float operator()(float x) const { return 1.0f / (1.0f + std::exp(-x)); }
};

// tanh(x) = 1 − 2 / (1 + e^(2x)), within 2e-7 of the exact value: the C library's tanhf goes through
// expm1f for its relative precision near 0, which a layer's outputs do not need, and costs
// three times as much; in the layer-normalised networks it was a sixth of a frame's time. Large
// |x| gives exactly ±1 (e^(2x) overflows to +inf or underflows to 0).
struct TanhOperator {
    float operator()(float x) const { return 1.0f - 2.0f / (1.0f + std::exp(2.0f * x)); }
};

}  // namespace SONEL::UTILS
