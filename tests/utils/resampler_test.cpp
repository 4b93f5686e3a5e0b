#include "utils/resampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "utils/alloc_counter.h"

namespace {

using SONEL::UTILS::Resampler;

constexpr double kPi = 3.14159265358979323846;
const size_t kRates[] = {8000, 16000, 24000, 32000, 44100, 48000, 88200, 96000};

size_t frameSize(size_t rate) { return 10 * rate / 1000; }

double tone(double hz, double t) { return std::sin(2.0 * kPi * hz * t); }

// Streams a 440 Hz tone from inRate to outRate in 10 ms frames. Checks on every call that out has
// exactly the frame size, that the stream neither underruns nor builds a backlog (the samples held
// back stay between 0 and 16; the widest wobble, 8 -> 96 kHz, holds 13), and that out is the input
// tone delayed by the constant head of silence the first call put in front.
void streamTone(size_t inRate, size_t outRate, double seconds) {
    SCOPED_TRACE(testing::Message() << inRate << " -> " << outRate << " Hz");
    const size_t n = frameSize(inRate), e = frameSize(outRate);
    Resampler r(inRate, outRate);
    std::vector<float> in(n), out;
    long produced = 0, head = 0, maxHeld = 0;
    double maxError = 0.0;
    size_t allocations = 0;
    const long calls = static_cast<long>(seconds * 100);
    for (long k = 0; k < calls; ++k) {
        for (size_t i = 0; i < n; ++i) in[i] = float(tone(440.0, double(k * n + i) / inRate));
        const size_t before = sonel_test::allocationCount();
        const int p = r.resample(in, out);
        if (k > 0) allocations += sonel_test::allocationCount() - before;
        ASSERT_EQ(out.size(), e);
        if (k == 0) head = long(e) - p + 1;
        produced += p;
        // Produced but not yet delivered; negative would mean zeros were padded mid-stream.
        const long held = produced - ((k + 1) * long(e) - head);
        ASSERT_GE(held, 0) << "underrun at call " << k;
        maxHeld = std::max(maxHeld, held);
        if (k < 2) continue;  // the filter is still filling
        for (size_t j = 0; j < e; ++j) {
            const double t = double(k * long(e) + long(j) - head) / outRate;
            maxError = std::max(maxError, std::fabs(out[j] - tone(440.0, t)));
        }
    }
    EXPECT_LE(maxHeld, 16);
    // High-quality filtering keeps a 440 Hz tone within about -66 dB of the ideal.
    EXPECT_LT(maxError, 2e-3);
    EXPECT_EQ(allocations, 0u);
}

struct RoundTrip {
    std::vector<float> out;
    double expectedDelay;  // both heads of silence, in samples at the outer rate
};

// x at 48 kHz to mid and back in 10 ms frames, as a session around a model at rate mid.
RoundTrip roundTrip(const std::vector<float>& x, size_t mid) {
    const size_t outer = 48000, n = frameSize(outer), m = frameSize(mid);
    Resampler down(outer, mid), up(mid, outer);
    RoundTrip rt{{}, 0.0};
    std::vector<float> frame(n), low, back;
    for (size_t k = 0; k + n <= x.size(); k += n) {
        frame.assign(x.begin() + long(k), x.begin() + long(k + n));
        const int pDown = down.resample(frame, low);
        const int pUp = up.resample(low, back);
        if (k == 0) rt.expectedDelay = double(m - pDown + 1) * outer / mid + double(n - pUp + 1);
        rt.out.insert(rt.out.end(), back.begin(), back.end());
    }
    return rt;
}

// Lag of y behind x over [from, from + len), refined between samples by a parabola through the
// cross-correlation peak and its neighbours.
double measureDelay(const std::vector<float>& x, const std::vector<float>& y, size_t from,
                    size_t len, int maxLag) {
    std::vector<double> c(size_t(maxLag) + 1);
    for (int lag = 0; lag <= maxLag; ++lag) {
        for (size_t i = from; i < from + len; ++i) c[size_t(lag)] += double(x[i]) * y[i + size_t(lag)];
    }
    const int peak = int(std::max_element(c.begin() + 1, c.end() - 1) - c.begin());
    const double l = c[size_t(peak - 1)], m = c[size_t(peak)], r = c[size_t(peak + 1)];
    return peak + 0.5 * (l - r) / (l - 2.0 * m + r);
}

}  // namespace

TEST(Resampler, EqualRatesPassThrough) {
    Resampler r(48000, 48000);
    const std::vector<float> in = {1.0f, -2.0f, 3.5f, 0.0f};
    std::vector<float> out;
    EXPECT_EQ(r.resample(in, out), 4);
    EXPECT_EQ(out, in);
}

TEST(Resampler, FirstCallStartsWithSilenceAndResetRestartsIt) {
    Resampler r(16000, 8000);
    std::vector<float> in(160, 1000.0f), first, out;
    r.resample(in, first);
    ASSERT_EQ(first.size(), 80u);
    EXPECT_EQ(first[0], 0.0f);
    EXPECT_GT(std::fabs(first[79]), 100.0f);
    for (int k = 0; k < 5; ++k) {
        r.resample(in, out);
        EXPECT_EQ(out.size(), 80u);
        EXPECT_NE(out[0], 0.0f);
    }
    EXPECT_TRUE(r.reset());
    r.resample(in, out);
    EXPECT_EQ(out, first);

    // No room for output: the plain form must give up instead of spinning.
    std::vector<float> none(1);
    EXPECT_EQ(r.resample(in.data(), 160, none.data(), 0), 0);
}

TEST(Resampler, EveryRatePairKeepsFrameSizeAndContinuity) {
    for (size_t a : kRates) {
        for (size_t b : kRates) {
            if (a != b) streamTone(a, b, 5.0);
        }
    }
}

TEST(Resampler, LongStreamsNeverUnderrun) {
    // The pairs whose output count wobbles most, and the conferencing host's everyday pair.
    streamTone(8000, 96000, 60.0);
    streamTone(8000, 88200, 60.0);
    streamTone(44100, 48000, 60.0);
    streamTone(48000, 44100, 60.0);
}

TEST(Resampler, RoundTripHasConstantDelayAndKeepsTone) {
    // Broadband noise pins the delay down unambiguously; a tone alone would repeat every period.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> noise(48000 * 3);
    for (float& v : noise) v = dist(rng);
    for (size_t mid : {16000u, 32000u}) {
        SCOPED_TRACE(mid);
        const RoundTrip rt = roundTrip(noise, mid);
        for (size_t from : {12000u, 48000u, 96000u}) {
            EXPECT_NEAR(measureDelay(noise, rt.out, from, 24000, 400), rt.expectedDelay, 0.05)
                << "segment at " << from;
        }
    }

    std::vector<float> sine(48000 * 2);
    for (size_t i = 0; i < sine.size(); ++i) sine[i] = float(tone(1000.0, i / 48000.0));
    const RoundTrip rt = roundTrip(sine, 16000);
    const auto delay = size_t(std::lround(rt.expectedDelay));
    ASSERT_NEAR(rt.expectedDelay, double(delay), 1e-9) << "16 kHz round trip is whole samples";
    double signal = 0.0, error = 0.0;
    for (size_t i = 4800; i + delay < rt.out.size(); ++i) {
        signal += double(sine[i]) * sine[i];
        error += std::pow(double(rt.out[i + delay]) - sine[i], 2);
    }
    EXPECT_GE(10.0 * std::log10(signal / error), 40.0);
}
