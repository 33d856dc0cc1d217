#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"

using metrics_test::kUnwritten;

namespace {

// Lambda of the 2-D points over the grid of boxes of size eps that covers
// [0, cells * eps) on both axes: sum of squared counts * T / n^2, which
// equals variance / mean^2 + 1.
double grid_lacunarity(const std::vector<double> &p, double eps, size_t cells) {
    std::vector<double> counts(cells * cells, 0.0);
    const size_t n = p.size() / 2;
    for (size_t i = 0; i < n; ++i) {
        const auto cx = static_cast<size_t>(std::floor(p[2 * i] / eps));
        const auto cy = static_cast<size_t>(std::floor(p[2 * i + 1] / eps));
        counts[cy * cells + cx] += 1.0;
    }
    double sq = 0.0;
    for (double c : counts) sq += c * c;
    const double t = static_cast<double>(counts.size());
    return sq * t / (static_cast<double>(n) * static_cast<double>(n));
}

}  // namespace

// Four points at 0 and four at 1 on axis 0: every scale holds two boxes, so
// eps* = 2^-7 and the grid has 129 boxes along axis 0 (one along the
// others), two of them holding four points each: Lambda = 32 T / 64 = T / 2.
TEST(Lacunarity, TwoClustersOnGridsOf129Boxes) {
    double lac = kUnwritten;
    const auto line = metrics_test::two_clusters(2, false);
    ASSERT_EQ(qvni_lacunarity_fixed_grid(line.data(), 8, 2, &lac), 0);
    EXPECT_NEAR(lac, 64.5, 1e-9);

    const auto cube = metrics_test::two_clusters(3, true);
    ASSERT_EQ(qvni_lacunarity_fixed_grid(cube.data(), 8, 3, &lac), 0);
    EXPECT_NEAR(lac, 129.0 * 129.0 * 129.0 / 2.0, 1e-9 * lac);
}

// 129^4 boxes exceed the 2^24 limit: invalid input, not out of memory.
TEST(Lacunarity, GridOverTheLimitIsInvalid) {
    const auto p = metrics_test::two_clusters(4, true);
    double lac = kUnwritten;
    EXPECT_EQ(qvni_lacunarity_fixed_grid(p.data(), 8, 4, &lac), -1);
    EXPECT_EQ(lac, kUnwritten);
}

TEST(Lacunarity, LatticeAndDiagonal) {
    const size_t side = 100, n = side * side;
    std::vector<double> lattice(2 * n), diag(2 * n);
    for (size_t i = 0; i < n; ++i) {
        lattice[2 * i] = static_cast<double>(i % side) / 99.0;
        lattice[2 * i + 1] = static_cast<double>(i / side) / 99.0;
        diag[2 * i] = diag[2 * i + 1] = static_cast<double>(i) / 9999.0;
    }
    double lac = 0.0;
    // Five scales accepted: eps* = 1/8, a 9 x 9 grid.
    ASSERT_EQ(qvni_lacunarity_fixed_grid(lattice.data(), n, 2, &lac), 0);
    EXPECT_NEAR(lac, 1.22, 0.01);
    EXPECT_NEAR(lac, grid_lacunarity(lattice, 0.125, 9), 1e-12);
    // Eleven scales accepted: eps* = 2^-6, a 65 x 65 grid.
    ASSERT_EQ(qvni_lacunarity_fixed_grid(diag.data(), n, 2, &lac), 0);
    EXPECT_NEAR(lac, 66.0, 0.5);
    EXPECT_NEAR(lac, grid_lacunarity(diag, 0x1p-6, 65), 1e-9);
}

// The grid is laid from floor(min / eps*): a cloud shifted to negative
// coordinates by whole boxes sees the same counts.
TEST(Lacunarity, NegativeCoordinatesGiveTheSameGrid) {
    const size_t side = 129, n = side * side;  // extent exactly 1: dyadic boxes
    std::vector<double> lattice(2 * n), moved(2 * n);
    for (size_t i = 0; i < n; ++i) {
        lattice[2 * i] = static_cast<double>(i % side) / 128.0;
        lattice[2 * i + 1] = static_cast<double>(i / side) / 128.0;
        moved[2 * i] = lattice[2 * i] - 5.0;
        moved[2 * i + 1] = lattice[2 * i + 1] - 2.0;
    }
    double a = 0.0, b = 0.0;
    ASSERT_EQ(qvni_lacunarity_fixed_grid(lattice.data(), n, 2, &a), 0);
    ASSERT_EQ(qvni_lacunarity_fixed_grid(moved.data(), n, 2, &b), 0);
    EXPECT_EQ(a, b);
}

TEST(Lacunarity, FailuresWriteNothing) {
    const auto clusters = metrics_test::two_clusters(2, false);
    const std::vector<double> same(16, -3.0);
    std::vector<double> spread(2 * 8);  // 8 points, 3 or more boxes at every scale
    for (size_t i = 0; i < 8; ++i) spread[2 * i] = static_cast<double>(i);
    std::vector<double> row24(24);  // 24 points at 0..23: only scales 1 and 2 kept
    for (size_t i = 0; i < 24; ++i) row24[i] = static_cast<double>(i);
    std::vector<double> with_nan = clusters, with_inf = clusters, far = clusters;
    with_nan[5] = std::nan("");
    with_inf[14] = std::numeric_limits<double>::infinity();
    for (size_t i = 0; i < 8; ++i) far[2 * i + 1] = 1e300;  // key far beyond 2^63
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
        {"NaN coordinate", with_nan.data(), 8, 2},
        {"infinite coordinate", with_inf.data(), 8, 2},
        {"key beyond the signed 64-bit range", far.data(), 8, 2},
        {"null points", nullptr, 8, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        double lac = kUnwritten;
        EXPECT_EQ(qvni_lacunarity_fixed_grid(c.p, c.n, c.d, &lac), -1);
        EXPECT_EQ(lac, kUnwritten);
    }
    EXPECT_EQ(qvni_lacunarity_fixed_grid(clusters.data(), 8, 2, nullptr), -1);
}

TEST(Lacunarity, AllocationFailureIsReported) {
    const auto p = metrics_test::two_clusters(3, true);
    double lac = kUnwritten;
    metrics_test::expect_oom_then_success(
        [&] { return qvni_lacunarity_fixed_grid(p.data(), 8, 3, &lac); }, -2);
}
