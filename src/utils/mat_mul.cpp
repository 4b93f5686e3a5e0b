#include "utils/mat_mul.h"

#include <cblas.h>

namespace SONEL::UTIL_FUNCTIONS {

namespace {

// y = W·x + y over the first y.size() rows of W. BLAS rejects lda = 0 with a console message, so
// an empty product leaves y at the bias.
void gemvPlus(const Matrix& W, const float* x, std::vector<float>& y) {
    if (y.empty() || W.columns == 0) return;
    cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<int>(y.size()),
                static_cast<int>(W.columns), 1.0f, W.data.data(),
                static_cast<int>(W.columns), x, 1, 1.0f, y.data(), 1);
}

// y = x·W + y, W of W.rows × y.size() used (its leading dimension stays W.columns).
void gemvTransPlus(const float* x, const Matrix& W, std::vector<float>& y) {
    if (y.empty() || W.rows == 0 || W.columns == 0) return;
    cblas_sgemv(CblasRowMajor, CblasTrans, static_cast<int>(W.rows),
                static_cast<int>(y.size()), 1.0f, W.data.data(),
                static_cast<int>(W.columns), x, 1, 1.0f, y.data(), 1);
}

}  // namespace

void matMulPlusB(const Matrix& W, const std::vector<float>& x, const Matrix& b,
                 std::vector<float>& y) {
    matMulPlusB(W, x.data(), x.size(), b.data, y);
}

void matMulPlusB(const Matrix& W, const std::vector<float>& x, const std::vector<float>& b,
                 std::vector<float>& y) {
    matMulPlusB(W, x.data(), x.size(), b, y);
}

void matMulPlusB(const Matrix& W, const float* x, size_t /*n*/, const std::vector<float>& b,
                 std::vector<float>& y) {
    y.assign(b.begin(), b.end());
    gemvPlus(W, x, y);
}

void groupedMatMulPlusB(const Matrix& W, const float* x, size_t groups, const std::vector<float>& b,
                        std::vector<float>& y) {
    y.assign(b.begin(), b.end());
    if (y.empty() || W.columns == 0 || groups == 0) return;
    const size_t rows = y.size() / groups;
    for (size_t g = 0; g < groups; ++g)
        cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<int>(rows), static_cast<int>(W.columns), 1.0f,
                    W.data.data() + g * rows * W.columns, static_cast<int>(W.columns), x + g * W.columns, 1, 1.0f,
                    y.data() + g * rows, 1);
}

void matMulPlusB(const std::vector<float>& x, const Matrix& W, const Matrix& b,
                 std::vector<float>& y) {
    matMulPlusB(x.data(), x.size(), W, b.data, y);
}

void matMulPlusB(const std::vector<float>& x, const Matrix& W, const std::vector<float>& b,
                 std::vector<float>& y) {
    matMulPlusB(x.data(), x.size(), W, b, y);
}

void matMulPlusB(const float* x, size_t /*n*/, const Matrix& W, const std::vector<float>& b,
                 std::vector<float>& y) {
    y.assign(b.begin(), b.end());
    gemvTransPlus(x, W, y);
}

void blockMatMulPlus(const float* W, size_t rows, size_t columns, size_t stride, const float* x, float* y) {
    if (rows == 0 || columns == 0) return;
    cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<int>(rows), static_cast<int>(columns), 1.0f, W,
                static_cast<int>(stride), x, 1, 1.0f, y, 1);
}

void matMulPlusB(const Matrix& A, const Matrix& B, const Matrix& C, Matrix& Y) {
    Y.rows = A.rows;
    Y.columns = B.columns;
    Y.data.assign(C.data.begin(), C.data.end());
    // A bias of the wrong size is the caller's error, but BLAS must never write past Y.
    Y.data.resize(static_cast<size_t>(Y.rows) * Y.columns);
    if (Y.data.empty() || A.columns == 0) return;
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, static_cast<int>(A.rows),
                static_cast<int>(B.columns), static_cast<int>(A.columns), 1.0f,
                A.data.data(), static_cast<int>(A.columns), B.data.data(),
                static_cast<int>(B.columns), 1.0f, Y.data.data(),
                static_cast<int>(Y.columns));
}

}  // namespace SONEL::UTIL_FUNCTIONS
