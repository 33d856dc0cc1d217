#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "search/search.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct TopK {
    std::vector<int32_t> idx;
    std::vector<double> dist;
};

TopK topk(const std::vector<double> &corpus, size_t dim, const std::vector<double> &q, int32_t k) {
    TopK r{std::vector<int32_t>(k, 42), std::vector<double>(k, 42.0)};
    topk_by_distance(corpus.data(), corpus.size() / dim, static_cast<int32_t>(dim), q.data(), k,
                     r.idx.data(), r.dist.data());
    return r;
}

}  // namespace

TEST(SearchCosineDistance, HandWorkedValuesAndDegenerateInputs) {
    const double a[] = {1, 0}, b[] = {0, 1}, c[] = {1, 1}, m[] = {-2, 0}, z[] = {0, 0};
    EXPECT_EQ(search_cosine_distance(a, a, 2), 0.0);
    EXPECT_EQ(search_cosine_distance(a, b, 2), 1.0);
    EXPECT_EQ(search_cosine_distance(c, a, 2), 0.29289321881345254);
    EXPECT_EQ(search_cosine_distance(a, c, 2), 0.29289321881345254);
    EXPECT_EQ(search_cosine_distance(a, m, 2), 2.0);
    EXPECT_EQ(search_cosine_distance(z, a, 2), 1.0);
    EXPECT_EQ(search_cosine_distance(a, z, 2), 1.0);
    EXPECT_EQ(search_cosine_distance(a, a, 0), 1.0);
    EXPECT_EQ(search_cosine_distance(a, a, -3), 1.0);
    const double n[] = {kNaN, 1}, i[] = {kInf, 1}, big[] = {1e200, 1e200};
    EXPECT_EQ(search_cosine_distance(n, a, 2), 1.0);
    EXPECT_EQ(search_cosine_distance(i, a, 2), 1.0);
    EXPECT_EQ(search_cosine_distance(big, a, 2), 1.0);  // the squares overflow
}

TEST(SearchCosineDistance, DividesByTheProductOfTwoSeparateRoots) {
    // sqrt(2) * sqrt(3) and sqrt(6) differ in the last bit.
    const double a[] = {1, 1, 1}, b[] = {1, 1, 0};
    const double expect = 1.0 - 2.0 / (std::sqrt(2.0) * std::sqrt(3.0));
    EXPECT_EQ(qvn_test::bits(search_cosine_distance(a, b, 3)), qvn_test::bits(expect));
    EXPECT_NE(expect, 1.0 - 2.0 / std::sqrt(6.0));
}

TEST(TopKByDistance, MatchesAFullSortWhenDistancesAreDistinct) {
    for (size_t dim : {2u, 3u, 16u}) {  // dim 1 would only give distances 0 and 2
        for (int32_t k : {1, 5, 40}) {
            SCOPED_TRACE(testing::Message() << "dim=" << dim << " k=" << k);
            const size_t n = 200;
            const auto corpus = qvn_test::random_doubles(n * dim, 7 + dim);
            const auto q = qvn_test::random_doubles(dim, 99);
            std::vector<double> d(n);
            for (size_t r = 0; r < n; ++r)
                d[r] = search_cosine_distance(corpus.data() + r * dim, q.data(), int32_t(dim));
            std::vector<int32_t> order(n);
            std::iota(order.begin(), order.end(), 0);
            std::stable_sort(order.begin(), order.end(),
                             [&](int32_t x, int32_t y) { return d[x] < d[y]; });
            const auto got = topk(corpus, dim, q, k);
            for (int32_t s = 0; s < k; ++s) {
                EXPECT_EQ(got.idx[s], order[s]) << s;
                EXPECT_EQ(got.dist[s], d[order[s]]) << s;
            }
        }
    }
}

TEST(TopKByDistance, ZeroQueryListsTheFirstRowsInOrder) {
    const auto corpus = qvn_test::random_doubles(10 * 4, 3);
    const auto got = topk(corpus, 4, {0, 0, 0, 0}, 4);
    EXPECT_EQ(got.idx, (std::vector<int32_t>{0, 1, 2, 3}));
    EXPECT_EQ(got.dist, (std::vector<double>(4, 1.0)));
}

TEST(TopKByDistance, NonFiniteRowsHaveDistanceOne) {
    const std::vector<double> corpus{kNaN, 0, 2, 0, kInf, 1, 0, 1};
    const auto got = topk(corpus, 2, {1, 0}, 4);
    EXPECT_EQ(got.idx, (std::vector<int32_t>{1, 0, 2, 3}));
    EXPECT_EQ(got.dist, (std::vector<double>{0, 1, 1, 1}));
}

TEST(TopKByDistance, TiesKeepTheEarlierRowInItsSlot) {
    const std::vector<double> q{1, 0};
    {
        SCOPED_TRACE("identical rows compete for the last place");
        const std::vector<double> corpus{1, 0, 0, 1, 5, 0, 3, 0};
        const auto got = topk(corpus, 2, q, 2);
        EXPECT_EQ(got.idx, (std::vector<int32_t>{0, 2}));  // row 3 equals row 2: dropped
    }
    {
        SCOPED_TRACE("a later row that displaced a farther one takes its slot");
        // Row 0 (far) fills slot 0, row 1 slot 1; row 2 ties row 1 and
        // displaces row 0 in slot 0, so it is listed first.
        const std::vector<double> corpus{0, 1, 1, 0, 2, 0};
        const auto got = topk(corpus, 2, q, 2);
        EXPECT_EQ(got.idx, (std::vector<int32_t>{2, 1}));
        EXPECT_EQ(got.dist, (std::vector<double>{0, 0}));
    }
}

TEST(TopKByDistance, UnusedSlotsTrailWhenKExceedsTheRows) {
    const std::vector<double> corpus{0, 1, 1, 1, 1, 0};
    const auto got = topk(corpus, 2, {1, 0}, 5);
    EXPECT_EQ(got.idx, (std::vector<int32_t>{2, 1, 0, -1, -1}));
    EXPECT_EQ(got.dist[1], 0.29289321881345254);
    EXPECT_EQ(got.dist[3], kInf);
    EXPECT_EQ(got.dist[4], kInf);
    const auto none = topk({}, 2, {1, 0}, 2);
    EXPECT_EQ(none.idx, (std::vector<int32_t>{-1, -1}));
}

namespace {

std::vector<size_t> mmr(const std::vector<double> &corpus, int32_t dim,
                        const std::vector<double> &relevance, size_t m, double lambda) {
    std::vector<int32_t> rows(relevance.size());
    std::iota(rows.begin(), rows.end(), 0);
    std::vector<size_t> sel(m + 1, 777);
    const size_t cnt = mmr_select(corpus.data(), dim, rows.data(), relevance.data(),
                                  relevance.size(), m, sel.data(), lambda);
    EXPECT_EQ(sel[m], 777u) << "wrote past m";
    sel.resize(cnt);
    return sel;
}

// r0 and r1 nearly coincide, r2 is orthogonal to both.
const std::vector<double> kTriple{1, 0, 1, 0.01, 0, 1};

}  // namespace

TEST(MmrSelect, LambdaOneIsPureRelevanceOrderWithTiesToTheLowerPosition) {
    const auto corpus = qvn_test::random_doubles(6 * 3, 5);
    EXPECT_EQ(mmr(corpus, 3, {0.2, 0.9, 0.5, 0.9, -1, 0.5}, 6, 1.0),
              (std::vector<size_t>{1, 3, 2, 5, 0, 4}));
}

TEST(MmrSelect, LambdaZeroPicksTheLeastSimilarAfterTheFirst) {
    EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 3, 0.0), (std::vector<size_t>{0, 2, 1}));
    EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 3, 1.0), (std::vector<size_t>{0, 1, 2}));
}

TEST(MmrSelect, NegativeSimilarityCarriesNoBonus) {
    // r1 is orthogonal to r0 (similarity 0) and r2 opposite (-1): with
    // max_sim floored at 0 both score 0 at lambda 0 and the lower wins.
    const std::vector<double> corpus{1, 0, 0, 1, -1, 0};
    EXPECT_EQ(mmr(corpus, 2, {0.9, 0.5, 0.5}, 2, 0.0), (std::vector<size_t>{0, 1}));
}

TEST(MmrSelect, CountIsBoundedByMAndN) {
    EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 10, 0.5).size(), 3u);
    EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 2, 0.5).size(), 2u);
    EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 0, 0.5).size(), 0u);
    EXPECT_EQ(mmr({}, 2, {}, 4, 0.5).size(), 0u);
}

TEST(MmrSelect, StopsWhenNoScoreQualifies) {
    EXPECT_EQ(mmr(kTriple, 2, {kNaN, kNaN, kNaN}, 3, 0.5).size(), 0u);
    EXPECT_EQ(mmr(kTriple, 2, {kNaN, 0.3, kNaN}, 3, 0.5), (std::vector<size_t>{1}));
}

TEST(MmrSelect, ScratchFailureSelectsNothing) {
    for (size_t n : {1u, 2u}) {
        qvn_test::AllocFailGuard guard(n);
        EXPECT_EQ(mmr(kTriple, 2, {0.9, 0.8, 0.1}, 3, 0.5).size(), 0u);
        EXPECT_TRUE(qvn_test::allocation_failed());
    }
}
