#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "quorvane.h"
#include "support/test_support.h"

using qvn_test::bits;
using Pair = int32_t (*)(const float *, const float *, size_t, float *);
using Unary = int32_t (*)(const float *, size_t, float *);

namespace {
int32_t norm(const float *a, const float *, size_t n, float *out) {
    return qvn_vector_norm(a, n, out);
}
}  // namespace

// Hand-worked results. Float sums run left to right: 1e8 + 1 rounds back to
// 1e8, so reordered, pairwise or double sums keep ones the contract drops.
// c * c rounds before it is added (a fused multiply-add keeps 2^-24 and breaks
// the tie in (1 + 2^-23) + c * c); the cosine divides by two separate roots.
TEST(VectorKernels, HandWorkedResults) {
    const float c = 1.0f + std::ldexp(1.0f, -12), m = -(1.0f + std::ldexp(1.0f, -11));
    const float nan = std::nanf(""), t = std::ldexp(1.0f, -12);
    const float r = std::sqrt(2.0f + std::ldexp(1.0f, -11));  // |(t, t, 1, c)|
    const float cos_14_30 = 3.0f / (std::sqrt(17.0f) * std::sqrt(9.0f));  // unlike both below
    ASSERT_NE(cos_14_30, 3.0f / std::sqrt(17.0f * 9.0f));
    ASSERT_NE(cos_14_30, 3.0f * (1.0f / (std::sqrt(17.0f) * 3.0f)));
    std::vector<float> big9(9, 1.0f), big17(17, 1.0f), e17(17, 0.0f);
    big9[0] = big17[0] = 1e4f, e17[0] = 1.0f;
    struct Case { Pair f; std::vector<float> a, b; float want; };
    const std::vector<Case> cases = {
        {qvn_vector_dot, {1e8f, 1.0f, -1e8f, 1.0f}, {1, 1, 1, 1}, 1.0f},
        {qvn_vector_dot, {m, c}, {1.0f, c}, 0.0f},
        {qvn_vector_cosine_similarity, {m, c}, {1.0f, c}, 0.0f},
        {qvn_vector_l2_sq, big9, std::vector<float>(9, 0.0f), 1e8f},
        {qvn_vector_l2, {t, t, 1.0f, c}, {0, 0, 0, 0}, r},
        {norm, {t, t, 1.0f, c}, {}, r},
        {norm, big17, {}, 1e4f},
        {qvn_vector_cosine_similarity, e17, big17, 1.0f},
        {qvn_vector_cosine_similarity, {3.0f}, {-3.0f}, -1.0f},
        {qvn_vector_cosine_similarity, {1.0f, 4.0f}, {3.0f, 0.0f}, cos_14_30},
        {qvn_vector_cosine_distance, {1.0f, 4.0f}, {3.0f, 0.0f}, 1.0f - cos_14_30},
        // A zero or NaN vector has similarity 0 and distance 1; other sums keep NaN.
        {qvn_vector_cosine_similarity, {0.0f, 0.0f}, {1.0f, 2.0f}, 0.0f},
        {qvn_vector_cosine_distance, {1.0f, 2.0f}, {0.0f, 0.0f}, 1.0f},
        {qvn_vector_cosine_similarity, {1.0f, nan}, {1.0f, 2.0f}, 0.0f},
        {qvn_vector_cosine_distance, {1.0f, 2.0f}, {nan, 1.0f}, 1.0f},
        {qvn_vector_dot, {nan, 1.0f}, {1.0f, 2.0f}, nan},
        {qvn_vector_l2_sq, {1.0f, 2.0f}, {1.0f, nan}, nan},
        {norm, {1.0f, nan}, {}, nan},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        float out = -7.0f;
        ASSERT_EQ(cases[i].f(cases[i].a.data(), cases[i].b.data(), cases[i].a.size(), &out), 0);
        if (std::isnan(cases[i].want)) EXPECT_TRUE(std::isnan(out));
        else EXPECT_EQ(bits(out), bits(cases[i].want)) << out;
    }
}

// Normalize divides by the norm (not times its reciprocal) and maps zero and
// NaN vectors to +0; element-wise kernels may write over an input.
TEST(VectorKernels, ElementWiseAndAliasing) {
    const auto a = qvn_test::random_floats(257, 11, -3.0f, 3.0f);
    const auto b = qvn_test::random_floats(257, 2);
    float n;
    ASSERT_EQ(qvn_vector_norm(a.data(), a.size(), &n), 0);
    std::vector<float> x = a;
    ASSERT_EQ(qvn_vector_normalize(x.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(bits(x[i]), bits(a[i] / n)) << i;
    for (std::vector<float> v : {std::vector<float>{0.0f, -0.0f}, {1.0f, std::nanf("")}}) {
        ASSERT_EQ(qvn_vector_normalize(v.data(), 2, v.data()), 0);
        EXPECT_TRUE(bits(v[0]) == 0 && bits(v[1]) == 0);
    }
    x = a;
    ASSERT_EQ(qvn_vector_add(x.data(), b.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], a[i] + b[i]) << i;
    x = b;
    ASSERT_EQ(qvn_vector_sub(a.data(), x.data(), x.size(), x.data()), 0);
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], a[i] - b[i]) << i;
    x = a;
    ASSERT_EQ(qvn_vector_scale(x.data(), x.size(), x.data(), -2.5f), 0);
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], a[i] * -2.5f) << i;
    const float p[] = {1.0f, 2.0f}, q[] = {3.0f, 4.0f, 5.0f};
    std::vector<float> out(5);
    ASSERT_EQ(qvn_vector_weighted_concat(p, 2, q, 3, out.data(), 0.5f, -1.0f), 0);
    EXPECT_EQ(out, std::vector<float>({0.5f, 1.0f, -3.0f, -4.0f, -5.0f}));
}

TEST(VectorKernels, RejectionsLeaveOutputUntouched) {
    const float a[] = {1.0f}, b[] = {2.0f};
    float out[2] = {42.0f, 42.0f};
    for (Pair f : {qvn_vector_dot, qvn_vector_l2_sq, qvn_vector_l2, qvn_vector_cosine_similarity,
                   qvn_vector_cosine_distance, qvn_vector_add, qvn_vector_sub}) {
        EXPECT_EQ(f(a, b, 0, out) + f(nullptr, b, 1, out) + f(a, nullptr, 1, out), -3);
        EXPECT_EQ(f(a, b, 1, nullptr), -1);
    }
    const Unary scale = [](const float *v, size_t n, float *o) {
        return qvn_vector_scale(v, n, o, 2.0f);
    };
    for (Unary f : {Unary(qvn_vector_norm), Unary(qvn_vector_normalize), scale})
        EXPECT_EQ(f(a, 0, out) + f(nullptr, 1, out) + f(a, 1, nullptr), -3);
    const auto concat = [&](const float *x, size_t nx, const float *y, size_t ny, float *o) {
        return qvn_vector_weighted_concat(x, nx, y, ny, o, 1.0f, 1.0f);
    };
    EXPECT_EQ(concat(a, 0, b, 1, out) + concat(a, 1, b, 0, out) + concat(nullptr, 1, b, 1, out) +
                  concat(a, 1, nullptr, 1, out) + concat(a, 1, b, 1, nullptr), -5);
    EXPECT_TRUE(out[0] == 42.0f && out[1] == 42.0f);
}
