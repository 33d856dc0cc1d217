#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "portfolio/portfolio.h"
#include "quorvane.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

using qvn_test::bits;

namespace {

constexpr double kUnwritten = -12345.625;

// A fitness context that owns copies of its inputs and its scratch.
struct Fitness {
    std::vector<double> r, cov, clipped, weights;
    std::vector<uint64_t> picks;
    std::vector<unsigned char> picked;
    portfolio_ctx ctx;
    Fitness(std::vector<double> returns, std::vector<double> covariance, uint64_t k)
        : r(std::move(returns)), cov(std::move(covariance)), clipped(r.size()),
          weights(r.size()), picks(k), picked(r.size()) {
        ctx = {r.data(), cov.data(), r.size(), k,
               clipped.data(), weights.data(), picks.data(), picked.data()};
    }
    Fitness(const Fitness &) = delete;
    Fitness &operator=(const Fitness &) = delete;
    double operator()(const std::vector<double> &point) {
        return portfolio_fitness(point.data(), point.size(), &ctx);
    }
};

std::vector<double> diagonal(const std::vector<double> &variances) {
    const size_t n = variances.size();
    std::vector<double> cov(n * n, 0.0);
    for (size_t i = 0; i < n; ++i) cov[i * n + i] = variances[i];
    return cov;
}

// A covariance B B^T + diag, positive definite, from seeded factors.
std::vector<double> random_covariance(size_t n, uint32_t seed) {
    const auto b = qvn_test::random_doubles(n * 3, seed, -0.2, 0.2);
    std::vector<double> cov(n * n);
    for (size_t i = 0; i < n; ++i)
        for (size_t j = 0; j < n; ++j) {
            double s = i == j ? 0.01 : 0.0;
            for (size_t f = 0; f < 3; ++f) s += b[i * 3 + f] * b[j * 3 + f];
            cov[i * n + j] = s;
        }
    return cov;
}

// Return / risk of a weight vector, with the held assets taken in the order
// the fitness selects them: largest weight first, lower index on ties.
double ratio_of(const std::vector<double> &w, const std::vector<double> &r,
                const std::vector<double> &cov) {
    const size_t n = w.size();
    std::vector<size_t> held;
    for (size_t i = 0; i < n; ++i)
        if (w[i] != 0.0) held.push_back(i);
    std::stable_sort(held.begin(), held.end(), [&](size_t a, size_t b) { return w[a] > w[b]; });
    double ret = 0.0, var = 0.0;
    for (size_t p : held) ret += r[p] * w[p];
    for (size_t p : held) {
        double inner = 0.0;
        for (size_t q : held) inner += cov[p * n + q] * w[q];
        var += w[p] * inner;
    }
    return ret / std::sqrt(std::max(var, 1e-12));
}

// Exactly k assets are held, but a held asset whose coordinate the search
// clamped to the lower bound 0 has weight 0.0: at most k are non-zero.
void expect_k_assets_summing_to_one(const std::vector<double> &w, size_t k) {
    size_t nonzero = 0;
    double sum = 0.0;
    for (double x : w) {
        EXPECT_GE(x, 0.0);
        if (x != 0.0) ++nonzero;
        sum += x;
    }
    EXPECT_GE(nonzero, 1u);
    EXPECT_LE(nonzero, k);
    EXPECT_NEAR(sum, 1.0, 1e-12);
}

}  // namespace

TEST(PortfolioFitness, HandWorkedTwoAssets) {
    const std::vector<double> r = {0.1, 0.2};
    const std::vector<double> cov = {0.04, 0.01, 0.01, 0.09};
    Fitness f(r, cov, 2);
    // Weights 0.25 and 0.75: return 0.175, variance
    // 0.25 * (0.04 * 0.25 + 0.01 * 0.75) + 0.75 * (0.01 * 0.25 + 0.09 * 0.75).
    // The larger coordinate is picked first, so its row is added first.
    const double fit = f({0.25, 0.75});
    const double var = 0.75 * (0.09 * 0.75 + 0.01 * 0.25) + 0.25 * (0.01 * 0.75 + 0.04 * 0.25);
    EXPECT_EQ(bits(fit), bits(-(0.2 * 0.75 + 0.1 * 0.25) / std::sqrt(var)));
    EXPECT_EQ(f.weights, (std::vector<double>{0.25, 0.75}));
    EXPECT_EQ(f.picks, (std::vector<uint64_t>{1, 0}));
}

TEST(PortfolioFitness, HoldsTheKLargestClippedCoordinates) {
    const std::vector<double> r = {0.1, 0.2, 0.3, 0.4};
    const auto cov = diagonal({0.1, 0.1, 0.1, 0.1});
    struct Case {
        const char *what;
        std::vector<double> point;
        uint64_t k;
        std::vector<double> weights;
    };
    const Case cases[] = {
        {"two largest in proportion", {0.125, 0.75, 0.25, 0.0}, 2, {0, 0.75, 0.25, 0}},
        {"ties go to the lower index", {0.5, 0.5, 0.5, 0.25}, 2, {0.5, 0.5, 0, 0}},
        {"NaN and negatives clip to 0", {NAN, -1.0, 0.5, 0.5}, 2, {0, 0, 0.5, 0.5}},
        {"all zeros: assets 0..k-1 equally", {0, 0, 0, 0}, 3, {1 / 3.0, 1 / 3.0, 1 / 3.0, 0}},
        {"all negative: assets 0..k-1 equally", {-1, -2, -0.5, -3}, 2, {0.5, 0.5, 0, 0}},
        {"k largest sum to 1e-12 or less: 1/k each", {1e-13, 0, 4e-13, 2e-13}, 2,
         {0, 0, 0.5, 0.5}},
        {"k = n with one zero coordinate", {0.5, 0.0, 0.25, 0.25}, 4, {0.5, 0, 0.25, 0.25}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Fitness f(r, cov, c.k);
        f(c.point);
        EXPECT_EQ(f.weights, c.weights);
    }
}

TEST(PortfolioFitness, RiskFloorZeroWeightsAndNan) {
    const std::vector<double> r = {0.5, 0.25};
    // Zero covariance: risk is 1e-6.
    Fitness flat(r, std::vector<double>(4, 0.0), 1);
    EXPECT_EQ(flat({0.0, 0.0}), -0.5 / 1e-6);
    // A held asset of weight 0 adds no row: its NaN row is never read, and
    // its column meets a weight of 0.
    const std::vector<double> cov = {0.04, 0.0, NAN, NAN};
    Fitness skip(r, cov, 2);
    EXPECT_EQ(skip({0.7, 0.0}), -0.5 / std::sqrt(0.04));
    // A NaN variance gives a NaN ratio.
    Fitness nan(r, cov, 2);
    EXPECT_TRUE(std::isnan(nan({0.5, 0.5})));
}

TEST(Portfolio, SingleAsset) {
    const std::vector<double> r = {0.3};
    for (double var : {0.09, 1e-13}) {
        SCOPED_TRACE(var);
        const std::vector<double> cov = {var};
        double w = kUnwritten, sharpe = kUnwritten;
        ASSERT_EQ(qvn_optimize_portfolio(r.data(), cov.data(), 1, 1, 7, &w, &sharpe), 0);
        EXPECT_EQ(w, 1.0);
        EXPECT_EQ(sharpe, 0.3 / (var > 1e-12 ? std::sqrt(var) : 1e-6));
    }
}

// Uncorrelated assets: holding one, the best is the largest r / sigma;
// holding all, the long-only optimum weights r / sigma^2 give the ratio
// sqrt(sum (r / sigma)^2).
TEST(Portfolio, ReachesKnownOptima) {
    const std::vector<double> r = {0.05, 0.12, 0.08, 0.02};
    const std::vector<double> var = {0.01, 0.04, 0.01, 0.04};  // r/sigma 0.5 0.6 0.8 0.1
    const auto cov = diagonal(var);
    std::vector<double> w(4, kUnwritten);
    double sharpe = kUnwritten;
    ASSERT_EQ(qvn_optimize_portfolio(r.data(), cov.data(), 4, 1, 11, w.data(), &sharpe), 0);
    EXPECT_EQ(w, (std::vector<double>{0, 0, 1, 0}));
    EXPECT_EQ(sharpe, 0.08 / std::sqrt(0.01));

    double best = 0.0;
    for (size_t i = 0; i < 4; ++i) best += r[i] * r[i] / var[i];
    best = std::sqrt(best);
    ASSERT_EQ(qvn_optimize_portfolio(r.data(), cov.data(), 4, 4, 11, w.data(), &sharpe), 0);
    EXPECT_LE(sharpe, best * (1 + 1e-12));
    EXPECT_GT(sharpe, best * 0.99);
    expect_k_assets_summing_to_one(w, 4);
}

TEST(Portfolio, WeightsHoldExactlyKAssetsAndReproduceTheRatio) {
    const size_t n = 12;
    const auto r = qvn_test::random_doubles(n, 3, -0.05, 0.2);
    const auto cov = random_covariance(n, 4);
    for (size_t k : {1, 3, 7, 12}) {
        for (int32_t opposition : {0, 1}) {
            for (int32_t walk_mode : {0, 1}) {
                SCOPED_TRACE(testing::Message() << "k=" << k << " opposition=" << opposition
                                                << " walk_mode=" << walk_mode);
                std::vector<double> w(n, kUnwritten);
                double sharpe = kUnwritten;
                ASSERT_EQ(qvn_optimize_portfolio_ex(r.data(), cov.data(), n, k, 99, opposition,
                                                    walk_mode, w.data(), &sharpe),
                          0);
                expect_k_assets_summing_to_one(w, k);
                EXPECT_NEAR(sharpe, ratio_of(w, r, cov), 1e-12 * std::fabs(sharpe));
            }
        }
    }
}

TEST(Portfolio, DeterministicAndSeededByTheLow53Bits) {
    const size_t n = 6, k = 3;
    const auto r = qvn_test::random_doubles(n, 8, 0.0, 0.2);
    const auto cov = random_covariance(n, 9);
    auto run = [&](uint64_t seed, bool ex) {
        std::vector<double> w(n + 1, kUnwritten);
        int32_t rc = ex ? qvn_optimize_portfolio_ex(r.data(), cov.data(), n, k, seed, 0, 0,
                                                    w.data(), &w[n])
                        : qvn_optimize_portfolio(r.data(), cov.data(), n, k, seed, w.data(),
                                                 &w[n]);
        EXPECT_EQ(rc, 0);
        std::vector<uint64_t> out;
        for (double x : w) out.push_back(bits(x));
        return out;
    };
    const uint64_t seed = 0x0012345678abcdefULL;
    const auto first = run(seed, false);
    EXPECT_EQ(run(seed, false), first);
    EXPECT_EQ(run(seed, true), first);
    EXPECT_EQ(run(seed | (uint64_t{1} << 53) | (uint64_t{1} << 63), false), first);
    EXPECT_EQ(run(0, false), run(uint64_t{0xffe} << 52, false));
}

TEST(Portfolio, NegativeReturnsGiveANegativeRatio) {
    const std::vector<double> r = {-0.1, -0.3, -0.2};
    const auto cov = diagonal({0.04, 0.01, 0.09});
    std::vector<double> w(3);
    double sharpe = 0.0;
    ASSERT_EQ(qvn_optimize_portfolio(r.data(), cov.data(), 3, 2, 5, w.data(), &sharpe), 0);
    EXPECT_LT(sharpe, 0.0);
    expect_k_assets_summing_to_one(w, 2);
}

TEST(Portfolio, InvalidArgumentsWriteNothing) {
    const std::vector<double> r = {0.1, 0.2, 0.3};
    const auto cov = diagonal({0.1, 0.2, 0.3});
    struct Case {
        const char *what;
        const double *r, *cov;
        size_t n, k;
        bool null_weights, null_sharpe;
    };
    const Case cases[] = {
        {"k = 0", r.data(), cov.data(), 3, 0, false, false},
        {"k > n", r.data(), cov.data(), 3, 4, false, false},
        {"n = 0", r.data(), cov.data(), 0, 0, false, false},
        {"k = SIZE_MAX", r.data(), cov.data(), 3, SIZE_MAX, false, false},
        {"null returns", nullptr, cov.data(), 3, 1, false, false},
        {"null covariance", r.data(), nullptr, 3, 1, false, false},
        {"null weights", r.data(), cov.data(), 3, 1, true, false},
        {"null sharpe", r.data(), cov.data(), 3, 1, false, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<double> w(3, kUnwritten);
        double sharpe = kUnwritten;
        double *wp = c.null_weights ? nullptr : w.data();
        double *sp = c.null_sharpe ? nullptr : &sharpe;
        EXPECT_EQ(qvn_optimize_portfolio(c.r, c.cov, c.n, c.k, 1, wp, sp), -1);
        EXPECT_EQ(qvn_optimize_portfolio_ex(c.r, c.cov, c.n, c.k, 1, 1, 1, wp, sp), -1);
        EXPECT_EQ(qvni_portfolio_optimize(c.r, c.cov, c.n, c.k, 1, wp, sp), -1);
        EXPECT_EQ(w, std::vector<double>(3, kUnwritten));
        EXPECT_EQ(sharpe, kUnwritten);
    }
}

TEST(Portfolio, AllocationFailureIsOutOfMemory) {
    const size_t n = 5;
    const auto r = qvn_test::random_doubles(n, 1, 0.0, 0.2);
    const auto cov = random_covariance(n, 2);
    for (bool internal : {false, true}) {
        SCOPED_TRACE(internal ? "internal" : "exported");
        const size_t failures = qvn_test::for_each_allocation_failure([&](size_t step) {
            std::vector<double> w(n, kUnwritten);
            double sharpe = kUnwritten;
            const int32_t rc =
                internal ? qvni_portfolio_optimize(r.data(), cov.data(), n, 2, 3, w.data(),
                                                   &sharpe)
                         : qvn_optimize_portfolio(r.data(), cov.data(), n, 2, 3, w.data(),
                                                  &sharpe);
            if (qvn_test::allocation_failed()) {
                EXPECT_EQ(rc, internal ? -2 : -4) << "allocation " << step;
                EXPECT_EQ(w, std::vector<double>(n, kUnwritten));
                EXPECT_EQ(sharpe, kUnwritten);
            } else {
                EXPECT_EQ(rc, 0);
            }
            return rc == 0;
        });
        EXPECT_GE(failures, 11u);  // seven buffers here, four in the optimizer
    }
}
