#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "utils/alloc_counter.h"
#include "utils/cyclic_block_data.h"
#include "utils/fft.h"
#include "utils/sonel_exception.h"
#include "utils/windows.h"

namespace {

using SONEL::CONTAINERS::CyclicBlockData;
using SONEL::UTILS::FFT;
namespace UF = SONEL::UTIL_FUNCTIONS;

constexpr double kPi = 3.14159265358979323846;
const size_t kModelFftSizes[] = {160, 240, 320, 480, 640, 960, 1280, 1920};

std::vector<float> randomBlock(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& s : v) s = dist(rng);
    return v;
}

}  // namespace

TEST(Windows, ShapesFollowTheirDefinitions) {
    for (size_t n : {2u, 3u, 7u, 160u, 321u, 640u}) {
        SCOPED_TRACE(n);
        std::vector<float> hann(n), hamming(n), vorbis(n), tri(n + 1, -1.0f);
        UF::generateHanningWindowVector(n, hann.data(), n);
        UF::generateHammingWindowVector(n, hamming.data());
        UF::generateVorbisWindowVector(n, vorbis.data());
        EXPECT_EQ(UF::generateTriangularWindowVector(n, tri.data()), n);
        EXPECT_EQ(tri[n], -1.0f) << "wrote past n";
        for (size_t i = 0; i < n; ++i) {
            EXPECT_NEAR(hann[i], hann[n - 1 - i], 1e-6f);
            EXPECT_NEAR(hamming[i], 0.08f + 0.92f * hann[i], 1e-6f);
            EXPECT_TRUE(vorbis[i] >= 0.0f && vorbis[i] <= 1.0f);
        }
        EXPECT_EQ(hann[0], 0.0f);
        EXPECT_NEAR(hamming[n - 1], 0.08f, 1e-7f);
        if (n % 2 == 1) EXPECT_FLOAT_EQ(hann[n / 2], 1.0f);
        // Periodic, not symmetric about the middle: w[0] = 0 and w[i] = w[n − i].
        EXPECT_EQ(vorbis[0], 0.0f);
        for (size_t i = 1; i < n; ++i) EXPECT_NEAR(vorbis[i], vorbis[n - i], 1e-6f);
        if (n % 2 == 0) EXPECT_FLOAT_EQ(vorbis[n / 2], 1.0f);
        const size_t h = n / 2;
        EXPECT_EQ(tri[0], 0.0f);
        EXPECT_FLOAT_EQ(tri[h], 1.0f);
        EXPECT_FLOAT_EQ(tri[h - 1], 2.0f * (h - 1) / n);
        EXPECT_FLOAT_EQ(tri[n - 1], n % 2 ? 0.0f : 2.0f / n);
    }
    float single = -1.0f;
    EXPECT_EQ(UF::generateTriangularWindowVector(1, &single), 1u);
    EXPECT_EQ(single, 0.0f);
    EXPECT_EQ(UF::generateTriangularWindowVector(0, &single), 0u);
}

TEST(CyclicBlockData, AppendsCompactsAndResets) {
    CyclicBlockData buf(6);
    ASSERT_EQ(buf.size(), 7u);
    const float f[] = {1.5f, -2.0f, 3.0f};
    const short s[] = {-32768, 32767};
    buf.push_back(f, 3);
    buf.push_back(s, 2);
    EXPECT_EQ(buf.writeCount(), 5u);
    EXPECT_EQ(buf.data()[3], -32768.0f) << "16-bit samples are not scaled";
    EXPECT_EQ(buf.data()[4], 32767.0f);

    // 5 + 3 > 7: the unread {3, -32768, 32767} moves to the front before the zeros are appended.
    buf.advance(2);
    buf.push_backNULL(3);
    EXPECT_EQ(buf.readIndex(), 0u);
    ASSERT_EQ(buf.unread(), 6u);
    const std::vector<float> want = {3.0f, -32768.0f, 32767.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_EQ(std::vector<float>(buf.readPtr(), buf.readPtr() + 6), want);

    // Fully read: the next push that does not fit compacts to an empty buffer first.
    buf.advance(6);
    EXPECT_EQ(buf.unread(), 0u);
    buf.push_back(f, 3);
    EXPECT_EQ(buf.readIndex(), 0u);
    EXPECT_EQ(buf.writeCount(), 3u);
    EXPECT_EQ(buf.data()[0], 1.5f);

    // An unread span plus a push larger than the buffer cannot be honoured.
    EXPECT_THROW(buf.push_backNULL(5), SONEL::UTILS::SonelException);

    buf.reset();
    EXPECT_EQ(buf.writeCount(), 0u);
    EXPECT_EQ(buf.readIndex(), 0u);
    EXPECT_EQ(std::vector<float>(buf.data(), buf.data() + buf.size()), std::vector<float>(7, 0.0f));
}

TEST(FFT, MatchesNaiveDftAndRoundTripsWithoutAllocating) {
    EXPECT_EQ(FFT::create(0), nullptr);  // only even sizes have a real-input plan
    EXPECT_EQ(FFT::create(441), nullptr);
    for (size_t n : kModelFftSizes) {
        SCOPED_TRACE(n);
        const auto fft = FFT::create(n);
        ASSERT_NE(fft, nullptr);
        EXPECT_EQ(fft->size(), n);
        const std::vector<float> x = randomBlock(n, static_cast<unsigned>(n));
        std::vector<std::complex<float>> X(n / 2 + 1);
        std::vector<float> back(n);
        const size_t before = sonel_test::allocationCount();
        fft->forward(x.data(), X.data());
        fft->inverse(X.data(), back.data());
        EXPECT_EQ(sonel_test::allocationCount(), before);

        double signal = 0.0, noise = 0.0;
        for (size_t k = 0; k <= n / 2; ++k) {
            std::complex<double> ref = 0.0;
            for (size_t i = 0; i < n; ++i) ref += double(x[i]) * std::polar(1.0, -2.0 * kPi * double(k * i % n) / n);
            signal += std::norm(ref);
            noise += std::norm(ref - std::complex<double>(X[k]));
        }
        EXPECT_GT(10.0 * std::log10(signal / noise), 100.0);
        for (size_t i = 0; i < n; ++i) EXPECT_NEAR(back[i], x[i], 1e-6f) << "at " << i;
    }
}

TEST(FFT, ToneLandsInItsBinUnscaled) {
    for (size_t n : kModelFftSizes) {
        SCOPED_TRACE(n);
        const size_t bin = n / 10;
        std::vector<float> x(n);
        for (size_t i = 0; i < n; ++i) x[i] = 0.25f + std::cos(2.0 * kPi * double(bin * i) / n);
        std::vector<std::complex<float>> X(n / 2 + 1);
        FFT::create(n)->forward(x.data(), X.data());
        const float tol = 1e-4f * n;
        EXPECT_NEAR(X[0].real(), 0.25f * n, tol);
        EXPECT_NEAR(X[bin].real(), n / 2.0f, tol);
        for (size_t k = 1; k <= n / 2; ++k) {
            if (k != bin) EXPECT_LT(std::abs(X[k]), tol) << "leak at bin " << k;
        }
    }
}

TEST(Windows, VorbisAnalysisSynthesisReconstructsAtHalfOverlap) {
    for (size_t n : kModelFftSizes) {
        SCOPED_TRACE(n);
        const size_t hop = n / 2;
        std::vector<float> w(n);
        UF::generateVorbisWindowVector(n, w.data());
        for (size_t i = 0; i < hop; ++i) EXPECT_NEAR(w[i] * w[i] + w[i + hop] * w[i + hop], 1.0f, 2e-7f);

        // The cleaners' loop: window, transform, back, window again, overlap-add with one hop
        // of zeros appended per block; every hop after the first comes out unchanged.
        const auto fft = FFT::create(n);
        const std::vector<float> x = randomBlock(12 * hop, 99);
        CyclicBlockData out(2 * n);
        out.push_backNULL(hop);
        std::vector<float> block(n);
        std::vector<std::complex<float>> spectrum(n / 2 + 1);
        for (size_t start = 0; start + n <= x.size(); start += hop) {
            for (size_t i = 0; i < n; ++i) block[i] = x[start + i] * w[i];
            fft->forward(block.data(), spectrum.data());
            fft->inverse(spectrum.data(), block.data());
            out.push_backNULL(hop);
            float* tail = out.data() + out.writeCount() - n;
            for (size_t i = 0; i < n; ++i) tail[i] += block[i] * w[i];
            if (start > 0) {
                for (size_t i = 0; i < hop; ++i) ASSERT_NEAR(out.readPtr()[i], x[start + i], 1e-5f);
            }
            out.advance(hop);
        }
    }
}
