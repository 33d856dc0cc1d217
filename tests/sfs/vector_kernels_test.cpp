#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "quorvane.h"
#include "support/test_support.h"

using qvn_test::bits;

namespace {
const float kNaN = std::numeric_limits<float>::quiet_NaN();
}

TEST(VectorKernels, DotAccumulatesLeftToRight) {
    // 1e8 + 1 rounds back to 1e8 in float; a reordered or widened sum would
    // keep the ones and give 2.
    const float a[] = {1e8f, 1.0f, -1e8f, 1.0f};
    const float b[] = {1.0f, 1.0f, 1.0f, 1.0f};
    float out = -7.0f;
    ASSERT_EQ(qvn_vector_dot(a, b, 4, &out), 0);
    EXPECT_EQ(out, 1.0f);
}

TEST(VectorKernels, DotIsNotContractedIntoFusedMultiplyAdd) {
    // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 rounds to 1 + 2^-11 in float. Adding
    // it to -(1 + 2^-11) gives exactly 0 when the product is rounded first;
    // a fused multiply-add would keep 2^-24.
    const float c = 1.0f + std::ldexp(1.0f, -12);
    const float a[] = {-(1.0f + std::ldexp(1.0f, -11)), c};
    const float b[] = {1.0f, c};
    float out = -7.0f;
    ASSERT_EQ(qvn_vector_dot(a, b, 2, &out), 0);
    EXPECT_EQ(bits(out), bits(0.0f));
    ASSERT_EQ(qvn_vector_l2_sq(a, a, 2, &out), 0);
    EXPECT_EQ(out, 0.0f);
}

TEST(VectorKernels, SingleElementResults) {
    const float a[] = {3.0f}, b[] = {-2.0f}, same[] = {3.0f}, opp[] = {-3.0f};
    float out;
    ASSERT_EQ(qvn_vector_dot(a, b, 1, &out), 0);
    EXPECT_EQ(out, -6.0f);
    ASSERT_EQ(qvn_vector_l2_sq(a, b, 1, &out), 0);
    EXPECT_EQ(out, 25.0f);
    ASSERT_EQ(qvn_vector_l2(a, b, 1, &out), 0);
    EXPECT_EQ(out, 5.0f);
    ASSERT_EQ(qvn_vector_norm(b, 1, &out), 0);
    EXPECT_EQ(out, 2.0f);
    ASSERT_EQ(qvn_vector_cosine_similarity(a, same, 1, &out), 0);
    EXPECT_EQ(out, 1.0f);
    ASSERT_EQ(qvn_vector_cosine_similarity(a, opp, 1, &out), 0);
    EXPECT_EQ(out, -1.0f);
    ASSERT_EQ(qvn_vector_cosine_distance(a, opp, 1, &out), 0);
    EXPECT_EQ(out, 2.0f);
}

TEST(VectorKernels, CosineUsesProductOfSeparateRoots) {
    // a = (1, 4), b = (3, 0): dot 3, |a|^2 17, |b|^2 9. The two separate
    // float roots multiply to a value that differs from sqrtf(17 * 9), and
    // dividing by it differs from multiplying by its reciprocal.
    const float a[] = {1.0f, 4.0f}, b[] = {3.0f, 0.0f};
    const float den = std::sqrt(17.0f) * std::sqrt(9.0f);
    const float want_sim = 3.0f / den;
    ASSERT_NE(want_sim, 3.0f / std::sqrt(17.0f * 9.0f));  // the case discriminates
    ASSERT_NE(want_sim, 3.0f * (1.0f / den));
    float sim, dist;
    ASSERT_EQ(qvn_vector_cosine_similarity(a, b, 2, &sim), 0);
    ASSERT_EQ(qvn_vector_cosine_distance(a, b, 2, &dist), 0);
    EXPECT_EQ(bits(sim), bits(want_sim));
    EXPECT_EQ(bits(dist), bits(1.0f - want_sim));
}

TEST(VectorKernels, SquaredSumsStayInSinglePrecision) {
    // 1e8 + 1 rounds back to 1e8 in float, so eight (or sixteen) unit terms
    // after a large one vanish; a double accumulator would keep them.
    std::vector<float> big(9, 1.0f), zero(9, 0.0f);
    big[0] = 1e4f;
    float out;
    ASSERT_EQ(qvn_vector_l2_sq(big.data(), zero.data(), big.size(), &out), 0);
    EXPECT_EQ(out, 1e8f);
    std::vector<float> v(17, 1.0f);
    v[0] = 1e4f;
    ASSERT_EQ(qvn_vector_norm(v.data(), v.size(), &out), 0);
    EXPECT_EQ(out, 1e4f);
    std::vector<float> ones(17, 0.0f);
    ones[0] = 1.0f;
    float sim;
    // Sum of b^2 is 1e8 (not 1e8 + 16), so the denominator is exactly 1e4.
    ASSERT_EQ(qvn_vector_cosine_similarity(ones.data(), v.data(), v.size(), &sim), 0);
    EXPECT_EQ(sim, 1.0f);
}

TEST(VectorKernels, ZeroAndNaNVectors) {
    const float zero[] = {0.0f, 0.0f, 0.0f}, v[] = {1.0f, 2.0f, 3.0f};
    const float with_nan[] = {1.0f, kNaN, 3.0f};
    float out;
    for (const float *x : {zero, with_nan}) {
        ASSERT_EQ(qvn_vector_cosine_similarity(x, v, 3, &out), 0);
        EXPECT_EQ(bits(out), bits(0.0f));
        ASSERT_EQ(qvn_vector_cosine_distance(v, x, 3, &out), 0);
        EXPECT_EQ(out, 1.0f);
        float normed[3] = {9, 9, 9};
        ASSERT_EQ(qvn_vector_normalize(x, 3, normed), 0);
        for (float f : normed) EXPECT_EQ(bits(f), bits(0.0f));
    }
    ASSERT_EQ(qvn_vector_dot(with_nan, v, 3, &out), 0);
    EXPECT_TRUE(std::isnan(out));
    ASSERT_EQ(qvn_vector_l2_sq(with_nan, v, 3, &out), 0);
    EXPECT_TRUE(std::isnan(out));
    ASSERT_EQ(qvn_vector_l2(v, with_nan, 3, &out), 0);
    EXPECT_TRUE(std::isnan(out));
    ASSERT_EQ(qvn_vector_norm(with_nan, 3, &out), 0);
    EXPECT_TRUE(std::isnan(out));
}

TEST(VectorKernels, NormalizeDividesEachElement) {
    // Division by the norm, not multiplication by its reciprocal: the two
    // differ for some elements, so compare against per-element division.
    auto v = qvn_test::random_floats(257, 11, -3.0f, 3.0f);
    float norm;
    ASSERT_EQ(qvn_vector_norm(v.data(), v.size(), &norm), 0);
    std::vector<float> out(v.size());
    ASSERT_EQ(qvn_vector_normalize(v.data(), v.size(), out.data()), 0);
    for (size_t i = 0; i < v.size(); ++i) ASSERT_EQ(bits(out[i]), bits(v[i] / norm)) << i;
    // And in place, since element i is read before it is written.
    ASSERT_EQ(qvn_vector_normalize(v.data(), v.size(), v.data()), 0);
    for (size_t i = 0; i < v.size(); ++i) ASSERT_EQ(bits(v[i]), bits(out[i])) << i;
}

TEST(VectorKernels, ElementwiseOpsAllowExactAliasing) {
    const auto a = qvn_test::random_floats(33, 1), b = qvn_test::random_floats(33, 2);
    std::vector<float> x = a;
    ASSERT_EQ(qvn_vector_add(x.data(), b.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) EXPECT_EQ(x[i], a[i] + b[i]);
    x = a;
    ASSERT_EQ(qvn_vector_sub(x.data(), b.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) EXPECT_EQ(x[i], a[i] - b[i]);
    x = b;
    ASSERT_EQ(qvn_vector_sub(a.data(), x.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) EXPECT_EQ(x[i], a[i] - b[i]);
    x = a;
    ASSERT_EQ(qvn_vector_scale(x.data(), x.size(), x.data(), -2.5f), 0);
    for (size_t i = 0; i < x.size(); ++i) EXPECT_EQ(x[i], a[i] * -2.5f);
}

TEST(VectorKernels, WeightedConcatPlacesBothParts) {
    const float a[] = {1.0f, 2.0f}, b[] = {3.0f, 4.0f, 5.0f};
    float out[5];
    ASSERT_EQ(qvn_vector_weighted_concat(a, 2, b, 3, out, 0.5f, -1.0f), 0);
    const float want[] = {0.5f, 1.0f, -3.0f, -4.0f, -5.0f};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(out[i], want[i]);
}

TEST(VectorKernels, RejectionsLeaveOutputUntouched) {
    const float a[] = {1.0f}, b[] = {2.0f};
    float out = 42.0f, arr[2] = {42.0f, 42.0f};
    using Pair = int32_t (*)(const float *, const float *, size_t, float *);
    for (Pair f : {Pair(qvn_vector_dot), Pair(qvn_vector_l2_sq), Pair(qvn_vector_l2),
                   Pair(qvn_vector_cosine_similarity), Pair(qvn_vector_cosine_distance),
                   Pair(qvn_vector_add), Pair(qvn_vector_sub)}) {
        EXPECT_EQ(f(a, b, 0, &out), -1);
        EXPECT_EQ(f(nullptr, b, 1, &out), -1);
        EXPECT_EQ(f(a, nullptr, 1, &out), -1);
        EXPECT_EQ(f(a, b, 1, nullptr), -1);
    }
    EXPECT_EQ(qvn_vector_norm(a, 0, &out), -1);
    EXPECT_EQ(qvn_vector_norm(nullptr, 1, &out), -1);
    EXPECT_EQ(qvn_vector_norm(a, 1, nullptr), -1);
    EXPECT_EQ(qvn_vector_normalize(a, 0, arr), -1);
    EXPECT_EQ(qvn_vector_normalize(nullptr, 1, arr), -1);
    EXPECT_EQ(qvn_vector_normalize(a, 1, nullptr), -1);
    EXPECT_EQ(qvn_vector_scale(a, 0, arr, 2.0f), -1);
    EXPECT_EQ(qvn_vector_scale(nullptr, 1, arr, 2.0f), -1);
    EXPECT_EQ(qvn_vector_scale(a, 1, nullptr, 2.0f), -1);
    EXPECT_EQ(qvn_vector_weighted_concat(a, 1, b, 0, arr, 1, 1), -1);
    EXPECT_EQ(qvn_vector_weighted_concat(a, 0, b, 1, arr, 1, 1), -1);
    EXPECT_EQ(qvn_vector_weighted_concat(nullptr, 1, b, 1, arr, 1, 1), -1);
    EXPECT_EQ(qvn_vector_weighted_concat(a, 1, nullptr, 1, arr, 1, 1), -1);
    EXPECT_EQ(qvn_vector_weighted_concat(a, 1, b, 1, nullptr, 1, 1), -1);
    EXPECT_EQ(out, 42.0f);
    EXPECT_EQ(arr[0], 42.0f);
    EXPECT_EQ(arr[1], 42.0f);
}
