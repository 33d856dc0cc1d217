#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"
#include "support/test_support.h"

using metrics_test::kUnwritten;
using qvn_test::bits;

namespace {

using Row = std::vector<int64_t>;

std::vector<Row> to_rows(const std::vector<int64_t> &keys, size_t d) {
    std::vector<Row> rows;
    for (size_t i = 0; i < keys.size(); i += d) rows.emplace_back(keys.begin() + i, keys.begin() + i + d);
    return rows;
}

// 1000 points spread over [0, 1] on axis 0, all with the same axis 1.
std::vector<double> line_with_constant_axis(double axis1) {
    auto x = qvn_test::random_doubles(1000, 8, 0.0, 1.0);
    x[0] = 0.0;
    x[1] = 1.0;
    std::vector<double> p(2 * 1000);
    for (size_t i = 0; i < 1000; ++i) {
        p[2 * i] = x[i];
        p[2 * i + 1] = axis1;
    }
    return p;
}

// Box counting with the occupied boxes collected in a std::set: 12 scales
// of L / 2^k, keys floor(x / eps), kept when 3N < n, least-squares slope.
double reference_dimension(const std::vector<double> &p, size_t d) {
    const size_t n = p.size() / d;
    double extent = 0.0;
    for (size_t j = 0; j < d; ++j) {
        double lo = p[j], hi = p[j];
        for (size_t i = 1; i < n; ++i) {
            lo = std::min(lo, p[i * d + j]);
            hi = std::max(hi, p[i * d + j]);
        }
        extent = std::max(extent, hi - lo);
    }
    std::vector<double> xs, ys;
    for (int k = 1; k <= 12; ++k) {
        const double eps = std::exp2(-k) * extent;
        std::set<Row> boxes;
        for (size_t i = 0; i < n; ++i) {
            Row key(d);
            for (size_t j = 0; j < d; ++j)
                key[j] = static_cast<int64_t>(std::floor(p[i * d + j] / eps));
            boxes.insert(key);
        }
        if (3 * boxes.size() < n) {
            xs.push_back(std::log(1.0 / eps));
            ys.push_back(std::log(static_cast<double>(boxes.size())));
        }
    }
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < xs.size(); ++i) {
        sx += xs[i];
        sy += ys[i];
        sxx += xs[i] * xs[i];
        sxy += xs[i] * ys[i];
    }
    const double m = static_cast<double>(xs.size());
    return (m * sxy - sx * sy) / (m * sxx - sx * sx);
}

}  // namespace

TEST(CellSort, MatchesLexicographicStdSort) {
    std::mt19937_64 gen(42);
    for (size_t d : {1, 2, 3, 5}) {
        for (size_t n : {0, 1, 2, 3, 4, 7, 64, 1000}) {
            for (int64_t range : {2, 4, 1000}) {  // small ranges: many duplicate rows
                SCOPED_TRACE(testing::Message() << "d=" << d << " n=" << n << " range=" << range);
                std::uniform_int_distribution<int64_t> dist(-range / 2, range / 2);
                std::vector<int64_t> keys(n * d);
                for (auto &k : keys) k = dist(gen);
                auto want = to_rows(keys, d);
                std::sort(want.begin(), want.end());  // vector's < is lexicographic
                cell_sort(keys.data(), d, 0, static_cast<int64_t>(n) - 1);
                EXPECT_EQ(to_rows(keys, d), want);
            }
        }
    }
}

TEST(CellSort, ComparesAsSigned64BitAndSortsOnlyTheGivenRange) {
    const int64_t lo = std::numeric_limits<int64_t>::min();
    const int64_t hi = std::numeric_limits<int64_t>::max();
    // Rows of width 2; rows 0 and 5 lie outside the range 1..4.
    std::vector<int64_t> keys = {9, 9, hi, 0, -1, hi, lo, 5, -1, lo, -9, -9};
    cell_sort(keys.data(), 2, 1, 4);
    const std::vector<int64_t> want = {9, 9, lo, 5, -1, lo, -1, hi, hi, 0, -9, -9};
    EXPECT_EQ(keys, want);

    std::vector<int64_t> same = keys;
    cell_sort(same.data(), 2, 3, 3);
    cell_sort(same.data(), 2, 4, 1);
    EXPECT_EQ(same, keys);
}

TEST(BoxCount, TwoClustersHaveDimensionZero) {
    const auto p = metrics_test::two_clusters(2, false);
    double dim = kUnwritten;
    ASSERT_EQ(qvn_dimension_boxcount(p.data(), 8, 2, &dim), 0);
    EXPECT_NEAR(dim, 0.0, 1e-12);
}

TEST(BoxCount, LineAndSquareReachTheirDimensions) {
    const size_t n = 10000;
    std::vector<double> diag(2 * n);
    for (size_t i = 0; i < n; ++i) diag[2 * i] = diag[2 * i + 1] = i / 9999.0;
    const auto square = qvn_test::random_doubles(2 * n, 77, 0.0, 1.0);
    double dim = 0.0;
    ASSERT_EQ(qvn_dimension_boxcount(diag.data(), n, 2, &dim), 0);
    EXPECT_NEAR(dim, 0.955, 0.01);
    EXPECT_EQ(bits(dim), bits(reference_dimension(diag, 2)));
    // Five coarse scales; boxes past the far edge of the origin-anchored
    // grid pull the slope below 2.
    ASSERT_EQ(qvn_dimension_boxcount(square.data(), n, 2, &dim), 0);
    EXPECT_GT(dim, 1.7);
    EXPECT_LT(dim, 2.0);
    EXPECT_EQ(bits(dim), bits(reference_dimension(square, 2)));
}

TEST(BoxCount, MatchesSetBasedCountingOnRandomClouds) {
    for (size_t d : {1, 2, 3, 5}) {
        for (uint32_t seed : {1u, 2u}) {
            SCOPED_TRACE(testing::Message() << "d=" << d << " seed=" << seed);
            // Clustered: points near a few centres, so many scales are kept.
            auto p = qvn_test::random_doubles(3000 * d, seed, -0.05, 0.05);
            const auto centres = qvn_test::random_doubles(4 * d, seed + 10, -4.0, 4.0);
            for (size_t i = 0; i < 3000; ++i)
                for (size_t j = 0; j < d; ++j) p[i * d + j] += centres[(i % 4) * d + j];
            double dim = kUnwritten;
            ASSERT_EQ(qvn_dimension_boxcount(p.data(), 3000, d, &dim), 0);
            EXPECT_EQ(bits(dim), bits(reference_dimension(p, d)));
        }
    }
}

// Cells are floor(x / eps) on a grid anchored at the origin, with signed
// keys. Moving a dyadic cloud by whole multiples of its extent keeps every
// box count and so the bits of the result; truncating instead of flooring
// would merge the two boxes either side of zero and change it.
TEST(BoxCount, NegativeCoordinatesUseFlooredSignedKeys) {
    std::mt19937_64 gen(3);
    std::uniform_int_distribution<int> grid(0, 1024);
    std::vector<double> p(2 * 500);
    for (auto &v : p) v = grid(gen) / 1024.0;
    p[0] = 0.0;
    p[1] = 1.0;  // extent exactly 1
    std::vector<double> moved(p.size());
    for (size_t i = 0; i < p.size(); i += 2) {
        moved[i] = p[i] - 3.0;
        moved[i + 1] = p[i + 1] - 1.0;
    }
    double a = 0.0, b = 0.0;
    ASSERT_EQ(qvn_dimension_boxcount(p.data(), 500, 2, &a), 0);
    ASSERT_EQ(qvn_dimension_boxcount(moved.data(), 500, 2, &b), 0);
    EXPECT_EQ(bits(a), bits(b));
}

// -2^51 * 4096 = -2^63 is the smallest signed 64-bit key and still valid;
// the constant axis then adds nothing to the box counts.
TEST(BoxCount, SmallestSigned64BitKeyIsAccepted) {
    const auto p = line_with_constant_axis(-0x1p51);
    std::vector<double> axis0(1000);
    for (size_t i = 0; i < 1000; ++i) axis0[i] = p[2 * i];
    double two = 0.0, one = 0.0;
    ASSERT_EQ(qvn_dimension_boxcount(p.data(), 1000, 2, &two), 0);
    ASSERT_EQ(qvn_dimension_boxcount(axis0.data(), 1000, 1, &one), 0);
    EXPECT_EQ(bits(two), bits(one));
}

TEST(BoxCount, FailuresWriteNothing) {
    const auto clusters = metrics_test::two_clusters(2, false);
    const std::vector<double> same(16, 0.25);
    std::vector<double> spread(2 * 8);  // 8 points, 3 or more boxes at every scale
    for (size_t i = 0; i < 8; ++i) spread[2 * i] = static_cast<double>(i);
    std::vector<double> row24(24);  // 24 points at 0..23: only scales 1 and 2 kept
    for (size_t i = 0; i < 24; ++i) row24[i] = static_cast<double>(i);
    auto with_nan = qvn_test::random_doubles(2 * 100, 5);
    with_nan[37] = std::nan("");
    auto with_inf = qvn_test::random_doubles(2 * 100, 6);
    with_inf[0] = std::numeric_limits<double>::infinity();
    auto with_ninf = qvn_test::random_doubles(2 * 100, 6);
    with_ninf[51] = -std::numeric_limits<double>::infinity();
    // Axis 1 is constant and far from the origin: at the finest scale
    // (eps = L / 4096, L = 1) its key would be 2^51 * 4096 = 2^63, one past
    // the signed 64-bit range; 1e30 is far beyond it.
    auto edge = line_with_constant_axis(0x1p51);
    auto far = line_with_constant_axis(-1e30);
    struct Case {
        const char *what;
        const double *p;
        size_t n, d;
    };
    const Case cases[] = {
        {"seven points", clusters.data(), 7, 2},
        {"d = 0", clusters.data(), 8, 0},
        {"all points identical", same.data(), 8, 2},
        {"no scale with 3N < n", spread.data(), 8, 2},
        {"two scales with 3N < n", row24.data(), 24, 1},
        {"NaN coordinate", with_nan.data(), 100, 2},
        {"infinite coordinate", with_inf.data(), 100, 2},
        {"negative infinite coordinate", with_ninf.data(), 100, 2},
        {"key 2^63 at the finest scale", edge.data(), 1000, 2},
        {"keys far beyond the signed 64-bit range", far.data(), 1000, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        double dim = kUnwritten;
        EXPECT_EQ(qvni_boxcount_dimension(c.p, c.n, c.d, &dim), -1);
        EXPECT_EQ(qvn_dimension_boxcount(c.p, c.n, c.d, &dim), -1);
        EXPECT_EQ(dim, kUnwritten);
    }
    double dim = 0.0;
    EXPECT_EQ(qvn_dimension_boxcount(nullptr, 8, 2, &dim), -1);
    EXPECT_EQ(qvn_dimension_boxcount(clusters.data(), 8, 2, nullptr), -1);
}

TEST(BoxCount, AllocationFailureIsOutOfMemory) {
    const auto p = qvn_test::random_doubles(3 * 2000, 21, 0.0, 1.0);
    double dim = kUnwritten;
    metrics_test::expect_oom_then_success(
        [&] { return qvn_dimension_boxcount(p.data(), 2000, 3, &dim); }, -4);
    metrics_test::expect_oom_then_success(
        [&] { return qvni_boxcount_dimension(p.data(), 2000, 3, &dim); }, -2);
}
