#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "portfolio/portfolio.h"
#include "quorvane.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

using Reals = std::vector<double>;

namespace {

constexpr double kU = -12345.625;  // an output still holding it was not written

// The fitness of one point; *w gets the portfolio it makes of it.
double fitness(const Reals &point, uint64_t k, const Reals &r, const Reals &cov, Reals *w) {
    const size_t n = point.size();
    Reals clipped(n);
    std::vector<uint64_t> picks(k);
    std::vector<unsigned char> picked(n);
    w->resize(n);
    portfolio_ctx c{&r[0], &cov[0], n, k, &clipped[0], &(*w)[0], &picks[0], &picked[0]};
    return portfolio_fitness(point.data(), n, &c);
}

}  // namespace

TEST(PortfolioFitness, HoldsTheKLargestClippedCoordinates) {
    const Reals r = {0.1, 0.2, 0.3, 0.4}, cov(16, 0.0);
    const struct Case { Reals point; uint64_t k; Reals want; } cases[] = {
        {{0.125, 0.75, 0.25, 0.0}, 2, {0, 0.75, 0.25, 0}},  // in proportion
        {{0.5, 0.5, 0.5, 0.25}, 2, {0.5, 0.5, 0, 0}},        // ties: the lower index
        {{NAN, -1.0, 0.5, 0.5}, 2, {0, 0, 0.5, 0.5}},        // clipped to 0
        {{0, 0, 0, 0}, 3, {1 / 3.0, 1 / 3.0, 1 / 3.0, 0}},   // all 0: the first k, equally
        {{-1, -2, -0.5, -3}, 2, {0.5, 0.5, 0, 0}},           // all negative: the same
        {{1e-13, 0, 4e-13, 2e-13}, 2, {0, 0, 0.5, 0.5}},     // sum <= 1e-12: 1/k each
        {{0.5, 0.0, 0.25, 0.25}, 4, {0.5, 0, 0.25, 0.25}},   // k = n
    };
    Reals w;
    for (const Case &c : cases) {
        fitness(c.point, c.k, r, cov, &w);
        EXPECT_EQ(w, c.want) << &c - cases;
    }
    // Weights 3/4 and 1/4: the larger is picked first, so its row comes first.
    const Reals r2 = {0.1, 0.2}, cov2 = {0.04, 0.01, 0.01, 0.09};
    const double var = 0.75 * (0.09 * 0.75 + 0.01 * 0.25) + 0.25 * (0.01 * 0.75 + 0.04 * 0.25);
    EXPECT_EQ(fitness({0.25, 0.75}, 2, r2, cov2, &w), -(0.2 * 0.75 + 0.1 * 0.25) / std::sqrt(var));
    EXPECT_TRUE(std::isnan(fitness({0.5, 0.5}, 2, r2, {0.04, NAN, NAN, 0.09}, &w)));
    EXPECT_EQ(fitness({1, 0}, 2, r2, {0.04, 0, NAN, NAN}, &w), -0.1 / 0.2);  // weight 0: no row
}

// n = k = 1: weight 1, ratio r / sigma (variance floored at 1e-12). Uncorrelated
// assets, r / sigma = 0.5, 0.6, 0.8, 0.1: asset 2 alone is best for k = 1; no mix
// beats sqrt(sum (r / sigma)^2). Seeds count by their low 53 bits; _ex(0, 0) = plain.
TEST(Portfolio, KnownOptimaValidWeightsAndDeterminism) {
    for (const double var : {0.09, 2e-12, 5e-13}) {
        const double r = 0.3;
        double w = kU, sharpe = kU;
        ASSERT_EQ(qvn_optimize_portfolio(&r, &var, 1, 1, 7, &w, &sharpe), 0);
        EXPECT_TRUE(w == 1.0 && sharpe == 0.3 / std::sqrt(std::max(var, 1e-12))) << var;
    }
    const Reals r = {0.05, 0.12, 0.08, 0.02}, var = {0.01, 0.04, 0.01, 0.04};
    Reals cov(16, 0.0);
    for (size_t i = 0; i < 4; ++i) cov[5 * i] = var[i];
    const double best = std::sqrt(0.25 + 0.36 + 0.64 + 0.01), *rp = &r[0], *cp = &cov[0];
    const uint64_t seed = 11 | 1ULL << 53 | 1ULL << 63;
    for (size_t k = 1; k <= 4; ++k)
        for (int32_t mode = 0; mode < 4; ++mode) {  // opposition and Levy walk on or off
            const int32_t o = mode & 1, walk = mode >> 1;
            SCOPED_TRACE(testing::Message() << "k=" << k << " o=" << o << " walk=" << walk);
            Reals w(5, kU), again(5, kU);
            double *a = &again[0];
            ASSERT_EQ(qvn_optimize_portfolio_ex(rp, cp, 4, k, 11, o, walk, &w[0], &w[4]), 0);
            ASSERT_EQ(mode ? qvn_optimize_portfolio_ex(rp, cp, 4, k, seed, o, walk, a, a + 4)
                           : qvn_optimize_portfolio(rp, cp, 4, k, seed, a, a + 4), 0);
            EXPECT_EQ(w, again);
            double held = 0, sum = 0, ret = 0, v = 0;
            for (size_t i = 0; i < 4; ++i)
                held += w[i] > 0, sum += w[i], ret += r[i] * w[i], v += var[i] * w[i] * w[i];
            EXPECT_EQ(held, k);  // the rest exactly 0
            EXPECT_NEAR(sum, 1.0, 1e-12);
            EXPECT_NEAR(w[4], ret / std::sqrt(v), 1e-12);
            EXPECT_TRUE(w[4] <= best * (1 + 1e-12) && (k < 4 || w[4] > 0.99 * best));
            EXPECT_TRUE(k > 1 || w == (Reals{0, 0, 1, 0, 0.08 / std::sqrt(0.01)}));
        }
}

// Every null pointer, k = 0 and k > n, including SIZE_MAX (k - 1 wraps);
// then allocation failures: -4 and nothing written.
TEST(Portfolio, FailuresWriteNothing) {
    const Reals r = {0.1, 0.2, 0.3}, cov = {0.1, 0, 0, 0, 0.2, 0, 0, 0, 0.3};
    Reals w(3, kU);
    double sharpe = kU;
    auto z = [](auto *p, int null, int i) { return null == i ? nullptr : p; };
    for (size_t k : {size_t(0), size_t(1), size_t(4), SIZE_MAX})
        for (int i = k == 1 ? 0 : -1; i < 4; ++i) {  // pointer i is null
            const double *rp = z(&r[0], i, 0), *cp = z(&cov[0], i, 1);
            double *wp = z(&w[0], i, 2), *sp = z(&sharpe, i, 3);
            SCOPED_TRACE(testing::Message() << "k=" << k << " null=" << i);
            EXPECT_EQ(qvn_optimize_portfolio(rp, cp, 3, k, 1, wp, sp), -1);
            EXPECT_EQ(qvn_optimize_portfolio_ex(rp, cp, 3, k, 1, 1, 1, wp, sp), -1);
            EXPECT_EQ(qvni_portfolio_optimize(rp, cp, 3, k, 1, wp, sp), -1);
            EXPECT_TRUE(w == Reals(3, kU) && sharpe == kU);
        }
    const size_t runs = qvn_test::for_each_allocation_failure([&](size_t step) {
        const int32_t rc = qvn_optimize_portfolio(&r[0], &cov[0], 3, 2, 3, &w[0], &sharpe);
        if (qvn_test::allocation_failed()) { EXPECT_EQ(rc, -4) << "at " << step; }
        if (rc != 0) { EXPECT_TRUE(w == Reals(3, kU) && sharpe == kU) << "at " << step; }
        return rc == 0;
    });
    EXPECT_TRUE(runs >= 11 && runs != SIZE_MAX);  // seven buffers here, four in the optimizer
}
