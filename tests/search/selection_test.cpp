#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "search/search.h"
#include "support/test_support.h"

using qvn_test::bits;
using Vec = std::vector<double>;
using Idx = std::vector<int32_t>;
constexpr double kInf = INFINITY, kNaN = NAN;

std::vector<uint64_t> all_bits(const Vec &v) {
    std::vector<uint64_t> b;
    for (double x : v) b.push_back(bits(x));
    return b;
}

// The scalar scan matches the per-row distance and the AVX2 scan the scalar
// one, bit for bit, over every element and row tail, with special values in
// rows 0-7 (AVX2 lanes, not the scalar tail) and with a zero query.
TEST(RowScan, MatchesThePerRowDistanceBitForBit) {
    const double a[] = {1, 1, 1}, b[] = {1, 1, 0};  // sqrt(2) * sqrt(3) is not sqrt(6)
    const double two_roots = 1.0 - 2.0 / (std::sqrt(2.0) * std::sqrt(3.0));
    ASSERT_NE(two_roots, 1.0 - 2.0 / std::sqrt(6.0));
    EXPECT_EQ(bits(search_cosine_distance(a, b, 3)), bits(two_roots));
    const double body[] = {kNaN, kInf, -kInf, 0, -0.0, 4.9e-324, 0, 1e200},
                 tail[] = {0.5, -0.25, 1e-310, 0, kNaN, 1e200, 0, -kInf};
    for (int32_t dim : {1, 3, 4, 5, 8, 9, 17, 129}) {
        for (size_t n : {0u, 1u, 4u, 5u, 8u, 9u, 13u, 37u}) {
            Vec rows = qvn_test::random_doubles(n * dim, 7 + dim + n, -1e3, 1e3), one(n + 1, -7.0);
            for (size_t r = 0; r < std::min<size_t>(n, 8); ++r) {
                double *row = &rows[r * dim];
                row[(r * 5) % dim] = body[r];
                row[dim - 1] = tail[r];
                if (r == 3 || r == 6) std::fill(row, row + dim, r == 3 ? 0.0 : 1e-310);
            }
            for (const Vec &q : {qvn_test::random_doubles(dim, dim, -1e-2, 1e2), Vec(dim, 0.0)}) {
                SCOPED_TRACE(testing::Message() << "dim " << dim << " n " << n);
                double q_sq = 0.0;
                for (double v : q) q_sq += v * v;
                Vec ref(n + 1, -7.0), got = ref;  // the slot past n stays -7
                for (size_t r = 0; r < n; ++r)
                    one[r] = search_cosine_distance(&rows[r * dim], q.data(), dim);
                scan_distances_scalar(rows.data(), n, dim, q.data(), q_sq, ref.data());
                EXPECT_EQ(all_bits(ref), all_bits(one));
#ifdef QVN_SEARCH_HAS_AVX2_SCAN
                if (!__builtin_cpu_supports("avx2")) continue;
                scan_distances_avx2(rows.data(), n, dim, q.data(), q_sq, got.data());
                EXPECT_EQ(all_bits(got), all_bits(ref));
#endif
            }
        }
    }
}

TEST(TopKByDistance, NearestRowsWithTiesAndUnusedSlots) {
    const auto topk = [](const Vec &rows, int32_t dim, const Vec &q, int32_t k) {
        std::pair<Idx, Vec> r{Idx(k, 42), Vec(k, 42.0)};
        topk_by_distance(&rows[0], rows.size() / dim, dim, &q[0], k, &r.first[0], &r.second[0]);
        return r;
    };
    struct Case { Vec rows, q; int32_t k; Idx idx; Vec dist; };
    const Case cases[] = {
        {{1, 0, 0, 1, 5, 0, 3, 0}, {1, 0}, 2, {0, 2}, {0, 0}},  // row 3 ties row 2 for place 2
        {{0, 1, 1, 0, 2, 0}, {1, 0}, 2, {2, 1}, {0, 0}},        // row 2 takes the slot of row 0
        {{0.3, 1, 2, 5, 7, 1, 4, 4}, {0, 0}, 3, {0, 1, 2}, {1, 1, 1}},  // zero query
        {{kNaN, 0, 2, 0, kInf, 1, 0, 1}, {1, 0}, 4, {1, 0, 2, 3}, {0, 1, 1, 1}},
        {{0, 1, 1, 1, 1, 0}, {1, 0}, 5, {2, 1, 0, -1, -1}, {0, 0.29289321881345254, 1, kInf, kInf}},
    };
    for (const Case &c : cases) EXPECT_EQ(topk(c.rows, 2, c.q, c.k), std::pair(c.idx, c.dist));
    Vec many(600, 1.0);
    many[581] = 0.0;  // row 290, (1, 0), lies in the second block of the row scan
    EXPECT_EQ(topk(many, 2, {1, 0}, 1).first, Idx{290});
}

// Scratch failures are covered through the search driver.
TEST(MmrSelect, SelectionOrder) {
    const auto mmr = [](const Vec &rows, const Vec &relevance, size_t m, double lambda) {
        Idx ids(relevance.size());
        std::iota(ids.begin(), ids.end(), 0);
        std::vector<size_t> sel(m);
        sel.resize(
            mmr_select(&rows[0], 2, &ids[0], &relevance[0], ids.size(), m, sel.data(), lambda));
        return sel;
    };
    // Rows 0 and 1 of triple nearly coincide, row 2 is orthogonal to both.
    const Vec triple{1, 0, 1, 0.01, 0, 1}, axes{1, 0, 0, 1, -1, 0};
    const Vec any = qvn_test::random_doubles(12, 5);
    struct Case { Vec rows, relevance; size_t m; double lambda; std::vector<size_t> sel; };
    const Case cases[] = {
        {any, {0.2, 0.9, 0.5, 0.9, -1, 0.5}, 6, 1.0, {1, 3, 2, 5, 0, 4}},
        {triple, {0.1, 0.9, 0.5}, 3, 0.0, {1, 2, 0}},  // the first pick is by relevance alone
        {triple, {0.9, 0.8, 0.1}, 10, 0.5, {0, 2, 1}},
        {axes, {0.9, 0.5, 0.5}, 3, 0.0, {0, 1, 2}},  // a negative similarity is no bonus
        {triple, {0.9, 0.8, 0.1}, 0, 0.5, {}},
        {triple, {kNaN, 0.3, kNaN}, 3, 0.5, {1}},
    };
    for (const Case &c : cases) EXPECT_EQ(mmr(c.rows, c.relevance, c.m, c.lambda), c.sel);
}
