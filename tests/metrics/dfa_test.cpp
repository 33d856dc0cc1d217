#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"
#include "support/test_support.h"

using metrics_test::kUnwritten;
using qvn_test::bits;

namespace {

std::vector<double> white_noise(size_t n, uint32_t seed) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<double> x(n);
    for (auto &v : x) v = g(gen);
    return x;
}

// DFA written out plainly for a given list of segment sizes: the profile,
// a least-squares line per segment with its sums recomputed each time, and
// the slope of ln F against ln s.
double reference_alpha(const std::vector<double> &x, const std::vector<size_t> &sizes) {
    const size_t n = x.size();
    double sum = 0.0;
    for (double v : x) sum += v;
    const double mean = sum / static_cast<double>(n);
    std::vector<double> y(n);
    double run = 0.0;
    for (size_t i = 0; i < n; ++i) y[i] = run += x[i] - mean;

    std::vector<double> lx, ly;
    for (size_t s : sizes) {
        const double sd = static_cast<double>(s);
        const size_t m = n / s;
        double acc = 0.0;
        for (size_t k = 0; k < m; ++k) {
            double st = 0, stt = 0, sy = 0, sty = 0;
            for (size_t t = 0; t < s; ++t) {
                const double td = static_cast<double>(t), v = y[k * s + t];
                st += td;
                stt += td * td;
                sy += v;
                sty += td * v;
            }
            const double den = sd * stt - st * st;
            const double b = (sd * sty - sy * st) / den;
            const double a = (sy - b * st) / sd;
            double r = 0;
            for (size_t t = 0; t < s; ++t) {
                const double e = y[k * s + t] - (b * static_cast<double>(t) + a);
                r += e * e;
            }
            acc += r / sd;
        }
        const double f = std::sqrt(acc / static_cast<double>(m));
        if (f > 0) {
            lx.push_back(std::log(sd));
            ly.push_back(std::log(f));
        }
    }
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < lx.size(); ++i) {
        sx += lx[i];
        sy += ly[i];
        sxx += lx[i] * lx[i];
        sxy += lx[i] * ly[i];
    }
    const double p = static_cast<double>(lx.size());
    return (p * sxy - sx * sy) / (p * sxx - sx * sx);
}

}  // namespace

// The size schedule 4, 5, 6, 8, 9, 11, 14, ... stops at floor(n / 4); the
// exponent must match a plain computation over exactly those sizes.
TEST(Dfa, SegmentSizesFollowTheSchedule) {
    struct Case {
        size_t n;
        std::vector<size_t> sizes;
    };
    const std::vector<Case> cases = {
        {24, {4, 5, 6}},
        {27, {4, 5, 6}},
        {32, {4, 5, 6, 8}},
        {100, {4, 5, 6, 8, 9, 11, 14, 17, 20, 24}},
        {1000, {4, 5, 6, 8, 9, 11, 14, 17, 20, 24, 29, 35, 42, 51, 61, 73, 88, 106, 127,
                153, 184, 220}},
        {1059, {4, 5, 6, 8, 9, 11, 14, 17, 20, 24, 29, 35, 42, 51, 61, 73, 88, 106, 127,
                153, 184, 220, 264}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.n);
        const auto x = white_noise(c.n, static_cast<uint32_t>(c.n));
        double alpha = kUnwritten;
        ASSERT_EQ(qvn_dimension_dfa(x.data(), c.n, &alpha), 0);
        EXPECT_EQ(bits(alpha), bits(reference_alpha(x, c.sizes)));
    }
}

TEST(Dfa, ShortOrFlatSeriesAreRejectedWithoutWriting) {
    const auto noise = white_noise(100, 7);
    const std::vector<double> flat(100, 1.0);
    auto with_nan = white_noise(200, 3);
    with_nan[17] = std::nan("");
    struct Case {
        const char *what;
        const double *x;
        size_t n;
    };
    const Case cases[] = {
        {"n = 0", noise.data(), 0},
        {"n = 15", noise.data(), 15},
        {"n = 19: profile only", noise.data(), 19},
        {"n = 23: sizes 4 and 5 only", noise.data(), 23},
        {"constant series: every F(s) is 0", flat.data(), 100},
        {"a NaN sample: no F(s) > 0", with_nan.data(), 200},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        double alpha = kUnwritten;
        EXPECT_EQ(qvni_dfa_alpha(c.x, c.n, &alpha), -1);
        EXPECT_EQ(qvn_dimension_dfa(c.x, c.n, &alpha), -1);
        EXPECT_EQ(alpha, kUnwritten);
    }
    double alpha = kUnwritten;
    EXPECT_EQ(qvn_dimension_dfa(nullptr, 100, &alpha), -1);
    EXPECT_EQ(qvn_dimension_dfa(noise.data(), 100, nullptr), -1);
    EXPECT_EQ(qvni_dfa_alpha(noise.data(), 24, &alpha), 0);
}

// White noise has exponent 1/2, its running sum (a random walk) 3/2, and
// a straight ramp 2.
TEST(Dfa, KnownScalingExponents) {
    const auto noise = white_noise(4096, 2024);
    std::vector<double> walk(noise.size());
    double run = 0.0;
    for (size_t i = 0; i < noise.size(); ++i) walk[i] = run += noise[i];
    std::vector<double> ramp(100);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<double>(i);

    double a = 0.0;
    ASSERT_EQ(qvn_dimension_dfa(noise.data(), noise.size(), &a), 0);
    EXPECT_NEAR(a, 0.5, 0.1);
    ASSERT_EQ(qvn_dimension_dfa(walk.data(), walk.size(), &a), 0);
    EXPECT_NEAR(a, 1.5, 0.1);
    ASSERT_EQ(qvn_dimension_dfa(ramp.data(), ramp.size(), &a), 0);
    EXPECT_NEAR(a, 2.0, 0.1);
}

// ln F shifts by ln c when the series is scaled by c and is blind to an
// added constant, so the slope does not change.
TEST(Dfa, ExponentIgnoresScaleAndOffset) {
    const auto x = white_noise(1500, 11);
    std::vector<double> y(x.size());
    for (size_t i = 0; i < x.size(); ++i) y[i] = 8.0 * x[i] + 1000.0;
    double ax = 0.0, ay = 0.0;
    ASSERT_EQ(qvn_dimension_dfa(x.data(), x.size(), &ax), 0);
    ASSERT_EQ(qvn_dimension_dfa(y.data(), y.size(), &ay), 0);
    EXPECT_NEAR(ax, ay, 1e-9);
}

TEST(DfaDrift, RecentAgainstEverythingBefore) {
    const auto x = white_noise(100, 5);
    double drift = kUnwritten, recent = kUnwritten, base = kUnwritten;
    ASSERT_EQ(qvn_dimension_drift(x.data(), 100, 40, &drift, &recent, &base), 0);
    double want_recent = 0.0, want_base = 0.0;
    ASSERT_EQ(qvni_dfa_alpha(x.data() + 60, 40, &want_recent), 0);
    ASSERT_EQ(qvni_dfa_alpha(x.data(), 60, &want_base), 0);
    EXPECT_EQ(bits(recent), bits(want_recent));
    EXPECT_EQ(bits(base), bits(want_base));
    EXPECT_EQ(bits(drift), bits(want_recent - want_base));
}

TEST(DfaDrift, FailuresWriteNothing) {
    const auto x = white_noise(100, 9);
    struct Case {
        const char *what;
        size_t n, w;
    };
    const Case cases[] = {
        {"w < 16", 100, 15},
        {"w + 16 > n", 100, 85},
        {"w near SIZE_MAX must not wrap", 100, SIZE_MAX - 4},
        {"n < 16", 10, 16},
        {"recent stretch of 16 fails although the baseline of 84 would pass", 100, 16},
        {"baseline of 20 samples fails (fewer than 3 sizes)", 60, 40},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        double drift = kUnwritten, recent = kUnwritten, base = kUnwritten;
        EXPECT_EQ(qvn_dimension_drift(x.data(), c.n, c.w, &drift, &recent, &base), -1);
        EXPECT_EQ(drift, kUnwritten);
        EXPECT_EQ(recent, kUnwritten);
        EXPECT_EQ(base, kUnwritten);
    }
    double d = 0, r = 0, b = 0;
    EXPECT_EQ(qvn_dimension_drift(nullptr, 100, 40, &d, &r, &b), -1);
    EXPECT_EQ(qvn_dimension_drift(x.data(), 100, 40, nullptr, &r, &b), -1);
    EXPECT_EQ(qvn_dimension_drift(x.data(), 100, 40, &d, nullptr, &b), -1);
    EXPECT_EQ(qvn_dimension_drift(x.data(), 100, 40, &d, &r, nullptr), -1);
}

TEST(Dfa, AllocationFailureIsOutOfMemory) {
    const auto x = white_noise(300, 13);
    double alpha = kUnwritten;
    metrics_test::expect_oom_then_success(
        [&] { return qvn_dimension_dfa(x.data(), x.size(), &alpha); }, -4);
    double d = 0, r = 0, b = 0;
    metrics_test::expect_oom_then_success(
        [&] { return qvn_dimension_drift(x.data(), x.size(), 100, &d, &r, &b); }, -4);
    metrics_test::expect_oom_then_success(
        [&] { return qvni_dfa_alpha(x.data(), x.size(), &alpha); }, -2);
}
