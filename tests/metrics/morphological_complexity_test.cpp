#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"
#include "support/test_support.h"

using metrics_test::kUnwritten;
using qvn_test::bits;

TEST(MorphologicalComplexity, DimensionAndLacunarityOfTwoClusters) {
    const auto p = metrics_test::two_clusters(2, false);
    double dim = kUnwritten, lac = kUnwritten;
    ASSERT_EQ(qvn_morphological_complexity(p.data(), 8, 2, &dim, &lac), 0);
    EXPECT_NEAR(dim, 0.0, 1e-12);
    EXPECT_NEAR(lac, 64.5, 1e-9);
}

TEST(MorphologicalComplexity, EqualsItsTwoKernels) {
    const auto p = qvn_test::random_doubles(3 * 2000, 6, 0.0, 1.0);
    double dim = 0, lac = 0, want_dim = 0, want_lac = 0;
    ASSERT_EQ(qvn_morphological_complexity(p.data(), 2000, 3, &dim, &lac), 0);
    ASSERT_EQ(qvni_boxcount_dimension(p.data(), 2000, 3, &want_dim), 0);
    ASSERT_EQ(qvni_lacunarity_fixed_grid(p.data(), 2000, 3, &want_lac), 0);
    EXPECT_EQ(bits(dim), bits(want_dim));
    EXPECT_EQ(bits(lac), bits(want_lac));
}

// The one metric that writes on failure: a dimension already computed
// stays when the lacunarity grid (129^4 boxes) is over its limit.
TEST(MorphologicalComplexity, KeepsTheDimensionWhenLacunarityFails) {
    const auto four = metrics_test::two_clusters(4, true);
    double dim = kUnwritten, lac = kUnwritten;
    EXPECT_EQ(qvn_morphological_complexity(four.data(), 8, 4, &dim, &lac), -1);
    EXPECT_NEAR(dim, 0.0, 1e-12);
    EXPECT_EQ(lac, kUnwritten);

    const auto three = metrics_test::two_clusters(3, true);
    ASSERT_EQ(qvn_morphological_complexity(three.data(), 8, 3, &dim, &lac), 0);
    EXPECT_NEAR(lac, 129.0 * 129.0 * 129.0 / 2.0, 1e-9 * lac);
}

TEST(MorphologicalComplexity, BoxCountingFailureWritesNothing) {
    const auto p = metrics_test::two_clusters(2, false);
    double dim = kUnwritten, lac = kUnwritten;
    EXPECT_EQ(qvn_morphological_complexity(p.data(), 7, 2, &dim, &lac), -1);
    EXPECT_EQ(qvn_morphological_complexity(p.data(), 8, 0, &dim, &lac), -1);
    EXPECT_EQ(qvn_morphological_complexity(nullptr, 8, 2, &dim, &lac), -1);
    EXPECT_EQ(qvn_morphological_complexity(p.data(), 8, 2, nullptr, &lac), -1);
    EXPECT_EQ(qvn_morphological_complexity(p.data(), 8, 2, &dim, nullptr), -1);
    EXPECT_EQ(dim, kUnwritten);
    EXPECT_EQ(lac, kUnwritten);
}

TEST(MorphologicalComplexity, AllocationFailureIsOutOfMemory) {
    const auto p = metrics_test::two_clusters(3, true);
    double dim = kUnwritten, lac = kUnwritten;
    metrics_test::expect_oom_then_success(
        [&] { return qvn_morphological_complexity(p.data(), 8, 3, &dim, &lac); }, -4);
}
