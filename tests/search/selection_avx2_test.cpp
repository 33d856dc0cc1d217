#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "search/search.h"
#include "support/test_support.h"

using qvn_test::bits;

namespace {

double sum_sq(const std::vector<double> &q) {
    double s = 0.0;
    for (double v : q) s += v * v;
    return s;
}

}  // namespace

// Every row's distance equals the plain per-row function, bit for bit, for
// dims that hit every element tail and row counts that hit every row tail.
TEST(RowScan, ScalarMatchesThePerRowDistance) {
    for (int32_t dim : {1, 2, 3, 5, 8, 17, 128}) {
        const size_t n = 13;
        const auto rows = qvn_test::random_doubles(n * dim, 3 + dim);
        const auto q = qvn_test::random_doubles(dim, 4);
        std::vector<double> got(n);
        scan_distances_scalar(rows.data(), n, dim, q.data(), sum_sq(q), got.data());
        for (size_t r = 0; r < n; ++r)
            EXPECT_EQ(bits(got[r]), bits(search_cosine_distance(rows.data() + r * dim, q.data(), dim)))
                << "dim=" << dim << " row=" << r;
    }
}

TEST(RowScan, Avx2MatchesScalarBitForBit) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    for (int32_t dim : {1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 31, 128, 129, 1536}) {
        for (size_t n : {0u, 1u, 3u, 4u, 5u, 7u, 8u, 9u, 12u, 13u, 37u}) {
            // Wide value ranges make rounding differences visible.
            auto rows = qvn_test::random_doubles(n * dim, 7 + dim + n, -1e3, 1e3);
            const auto q = qvn_test::random_doubles(dim, 11 + dim, -1e-2, 1e2);
            for (size_t r = 0; r < n; r += 5) rows[r * dim] *= 1e-9;
            std::vector<double> ref(n + 1, -7.0), got(n + 1, -7.0);
            scan_distances_scalar(rows.data(), n, dim, q.data(), sum_sq(q), ref.data());
            scan_distances_avx2(rows.data(), n, dim, q.data(), sum_sq(q), got.data());
            for (size_t r = 0; r <= n; ++r)
                ASSERT_EQ(bits(got[r]), bits(ref[r])) << "dim=" << dim << " n=" << n << " row=" << r;
        }
    }
}

TEST(RowScan, Avx2KeepsZeroAndNonFiniteRowsAtOne) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const int32_t dim = 5;
    std::vector<double> rows = qvn_test::random_doubles(9 * dim, 1);
    for (int i = 0; i < dim; ++i) rows[1 * dim + i] = 0.0;
    rows[3 * dim + 2] = nan;
    rows[6 * dim + 4] = inf;
    rows[8 * dim] = 1e200;
    const auto q = qvn_test::random_doubles(dim, 2);
    std::vector<double> got(9);
    scan_distances_avx2(rows.data(), 9, dim, q.data(), sum_sq(q), got.data());
    for (size_t r : {1u, 3u, 6u, 8u}) EXPECT_EQ(got[r], 1.0) << r;
    const std::vector<double> zero_q(dim, 0.0);
    scan_distances_avx2(rows.data(), 9, dim, zero_q.data(), 0.0, got.data());
    for (double d : got) EXPECT_EQ(d, 1.0);
}
