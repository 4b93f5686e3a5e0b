#include "utils/mat_mul.h"

#include <gtest/gtest.h>

#include <cmath>
#include <dirent.h>
#include <random>

#include "utils/alloc_counter.h"

namespace {

using SONEL::CONTAINERS::Matrix;
using SONEL::UTIL_FUNCTIONS::matMulPlusB;

Matrix randomMatrix(unsigned rows, unsigned columns, std::mt19937& rng) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Matrix m(rows, columns);
    for (float& v : m.data) v = dist(rng);
    return m;
}

// Reference product in double: Y = A·B + C with A r×k, B k×c.
std::vector<float> naive(const Matrix& A, const Matrix& B, const std::vector<float>& bias) {
    std::vector<float> y(bias.size());
    for (unsigned r = 0; r < A.rows; ++r) {
        for (unsigned c = 0; c < B.columns; ++c) {
            double acc = bias[static_cast<size_t>(r) * B.columns + c];
            for (unsigned k = 0; k < A.columns; ++k) acc += double(A.at(r, k)) * B.at(k, c);
            y[static_cast<size_t>(r) * B.columns + c] = static_cast<float>(acc);
        }
    }
    return y;
}

void expectClose(const std::vector<float>& got, const std::vector<float>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], 1e-4f) << "at " << i;
}

size_t threadCount() {
    size_t n = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
    return n;
}

}  // namespace

TEST(MatMulPlusB, AllOverloadsMatchNaiveProductAndReuseOutput) {
    std::mt19937 rng(7);
    // Outputs are reused across shapes, as the models reuse theirs across frames.
    std::vector<float> y;
    Matrix Y;
    // {3, 2, 1} and {2, 3, 1} are the smallest shapes the network layers are checked with.
    const unsigned shapes[][3] = {{3, 2, 1}, {2, 3, 1}, {1, 1, 1}, {96, 246, 3}, {128, 308, 2},
                                  {17, 5, 9}, {5, 17, 4}};
    for (const auto& s : shapes) {
        const unsigned rows = s[0], cols = s[1], batch = s[2];
        SCOPED_TRACE(testing::Message() << rows << "x" << cols << " batch " << batch);
        const Matrix W = randomMatrix(rows, cols, rng);
        const Matrix xCol = randomMatrix(cols, 1, rng), xRow = randomMatrix(1, rows, rng);
        const Matrix b = randomMatrix(rows, 1, rng), bT = randomMatrix(1, cols, rng);

        const auto want = naive(W, xCol, b.data);
        for (int form = 0; form < 3; ++form) {
            y.assign(rows + 5, 42.0f);  // a stale, longer output must be cut to the bias length
            if (form == 0) matMulPlusB(W, xCol.data, b, y);
            if (form == 1) matMulPlusB(W, xCol.data, b.data, y);
            if (form == 2) matMulPlusB(W, xCol.data.data(), cols, b.data, y);
            expectClose(y, want);
        }
        const auto wantT = naive(xRow, W, bT.data);
        for (int form = 0; form < 3; ++form) {
            if (form == 0) matMulPlusB(xRow.data, W, bT, y);
            if (form == 1) matMulPlusB(xRow.data, W, bT.data, y);
            if (form == 2) matMulPlusB(xRow.data.data(), rows, W, bT.data, y);
            expectClose(y, wantT);
        }
        const Matrix B = randomMatrix(cols, batch, rng), C = randomMatrix(rows, batch, rng);
        matMulPlusB(W, B, C, Y);
        EXPECT_EQ(Y.rows, rows);
        EXPECT_EQ(Y.columns, batch);
        expectClose(Y.data, naive(W, B, C.data));

        const size_t before = sonel_test::allocationCount();
        matMulPlusB(W, xCol.data, b.data, y);
        matMulPlusB(W, B, C, Y);
        EXPECT_EQ(sonel_test::allocationCount(), before) << "steady-state call allocated";
    }
}

TEST(MatMulPlusB, StartsNoThreads) {
    // A threaded BLAS starts its pool when loaded or on the first large product; the library
    // must run everything on the caller's thread.
    const size_t before = threadCount();
    std::mt19937 rng(3);
    const Matrix W = randomMatrix(512, 512, rng), B = randomMatrix(512, 64, rng);
    const Matrix x = randomMatrix(512, 1, rng), C = randomMatrix(512, 64, rng);
    std::vector<float> y;
    Matrix Y;
    for (int i = 0; i < 50; ++i) {
        matMulPlusB(W, x.data, x.data, y);
        matMulPlusB(W, B, C, Y);
    }
    EXPECT_EQ(threadCount(), before);
    EXPECT_EQ(before, 1u);
}

TEST(SigmoidOperator, MatchesLogisticAndSaturates) {
    const SONEL::UTILS::SigmoidOperator sigmoid;
    for (float x = -20.0f; x <= 20.0f; x += 0.37f) {
        SCOPED_TRACE(x);
        EXPECT_NEAR(sigmoid(x), 1.0 / (1.0 + std::exp(-double(x))), 2e-7);
        EXPECT_NEAR(sigmoid(x) + sigmoid(-x), 1.0f, 1e-6f);
    }
    EXPECT_EQ(sigmoid(-200.0f), 0.0f);
    EXPECT_EQ(sigmoid(200.0f), 1.0f);
}
