#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "sfs/sfs.h"
#include "support/test_support.h"

using qvn_test::bits;

namespace {

using Point = std::vector<double>;

// One run's buffers. The fitness records every point it is given and
// returns script[call] while the script lasts, then the sum of squares.
struct Problem {
    Point lower, upper, best, population, fits, script;
    std::vector<Point> points;
    qvn_sfs_params params;
    qvn_sfs_result result;

    Problem(size_t dim, double lo, double hi, int32_t pop, int32_t iters, int32_t diff)
        : lower(dim, lo), upper(dim, hi), best(dim), population(dim * pop), fits(pop),
          params{lower.data(), upper.data(), dim, iters, pop, diff, 0.5, 1, 0, 0, 0.0},
          result{best.data(), 0.0, population.data(), fits.data()} {}
    static double fitness(const double *x, uint64_t dim, void *ctx) {
        auto *p = static_cast<Problem *>(ctx);
        p->points.emplace_back(x, x + dim);
        double s = 0.0;
        for (uint64_t i = 0; i < dim; ++i) s += x[i] * x[i];
        return p->points.size() <= p->script.size() ? p->script[p->points.size() - 1] : s;
    }
    int32_t run(Point s = {}) {
        script = s;
        return qvn_sfs_run(&params, fitness, this, &result);
    }
};

double gaussian_ref(qvn_prng_state *s) {
    const double r1 = qvn_prng_double(s), r2 = qvn_prng_double(s);
    return std::cos(6.283185307179586 * r2) * std::sqrt(-2.0 * std::log(std::fmax(r1, 1e-300)));
}

}  // namespace

TEST(SfsRun, ZeroIterationsReturnsTheBestOfTheInitialPopulation) {
    Problem p(1, -1.0, 1.0, 3, 0, 1);
    ASSERT_EQ(p.run(), 0);
    EXPECT_EQ(p.points.size(), 3u);
    EXPECT_EQ(p.population, (Point{0.5884125848624819, 0.39770493127432793, 0.18020748345620685}));
    EXPECT_EQ(p.best[0], 0.18020748345620685);
    EXPECT_EQ(p.result.best_fit, 0.03247473709361907);
}

// A constant fitness replaces nothing, so every trial comes from an initial
// row and best row 0: this pins both walks and the order of the draws.
TEST(SfsRun, PointsFollowTheSeededDrawOrder) {
    for (int32_t mode : {0, 1}) {
        for (double walk : {0.0, double(NAN), 0.75}) {
            SCOPED_TRACE(testing::Message() << "mode=" << mode << " walk=" << walk);
            Problem p(3, -1.0, 2.0, 3, 1, 1);
            p.params = {p.lower.data(), p.upper.data(), 3, 1, 3, 1, walk, 0, 0, mode, 7.0};
            ASSERT_EQ(p.run(Point(6, 1.0)), 0);
            qvn_prng_state s;
            qvn_prng_seed(&s, 7.0);
            for (int j = 0; j < 9; ++j) qvn_prng_double(&s);  // the initial population
            for (size_t j = 0; j < 9; ++j) {
                const double b = p.points[0][j % 3], x = p.points[j / 3][j % 3];
                double r = gaussian_ref(&s);
                if (mode == 1) {
                    const double v = std::fabs(gaussian_ref(&s));
                    const double w = v < 1e-12 ? 1e-12 : v;
                    r = r * 0.6965745025576967 / std::pow(w, 0.6666666666666666);
                }
                const double t = walk > 0 ? b + (b - x) * (r * walk) : x + 3.0 * (r * 0.01);
                EXPECT_EQ(bits(p.points[3 + j / 3][j % 3]), bits(t)) << j;
            }
        }
    }
}

TEST(SfsRun, ScriptedDecisions) {
    // Individual 1 becomes the best at its first step; its second step is
    // still centred on row 0, the best row when its turn began.
    Problem p(1, -1.0, 1.0, 2, 1, 2);
    p.params.bounded = 0;
    ASSERT_EQ(p.run({1, 2, 5, 5, 0, 5}), 0);
    qvn_prng_state s;
    qvn_prng_seed(&s, 0.0);
    for (int i = 0; i < 2 + 3 * 2; ++i) qvn_prng_double(&s);
    const double b = p.points[0][0], x = p.points[4][0];
    EXPECT_EQ(bits(p.points[5][0]), bits(b + (b - x) * (gaussian_ref(&s) * 0.5)));
    EXPECT_EQ(p.best, p.points[4]);
    EXPECT_EQ(p.result.best_fit, 0.0);
    // Equal fitness replaces no individual and moves no best; the trial
    // gives way to its opposite (-T in this box) only when strictly worse.
    Problem t(1, -1.0, 1.0, 2, 1, 1);
    t.params.opposition = 1;
    t.params.walk = 0.0;
    ASSERT_EQ(t.run({1, 2, 1, 1, 1, 1}), 0);
    EXPECT_EQ(t.points[5][0], -t.points[4][0]);
    EXPECT_EQ(t.population, (Point{t.points[0][0], t.points[4][0]}));
    EXPECT_EQ(t.best, t.points[0]);
    EXPECT_EQ(t.fits, (Point{1, 1}));
}

// A NaN individual is never replaced, a NaN best never displaced and a NaN
// trial never taken.
TEST(SfsRun, NaNFitnessNeverWins) {
    Problem p(1, -1.0, 1.0, 2, 1, 1);
    ASSERT_EQ(p.run({NAN, 1, 0, NAN}), 0);
    EXPECT_EQ(p.population, (Point{p.points[0][0], p.points[1][0]}));
    EXPECT_EQ(p.best, p.points[0]);
    EXPECT_TRUE(std::isnan(p.result.best_fit) && p.fits[1] == 1.0);
}

// Clamping raises to lower, then cuts to upper: in an inverted box every
// trial and opposite coordinate ends at upper.
TEST(SfsRun, InvertedBoxSendsClampedPointsToUpper) {
    Problem p(3, 1.0, -1.0, 4, 3, 2);
    p.params.opposition = 1;
    ASSERT_EQ(p.run(), 0);
    ASSERT_EQ(p.points.size(), 4u + 4 * 2 * 3 * 2);
    for (size_t c = 4; c < p.points.size(); ++c) EXPECT_EQ(p.points[c], Point(3, -1.0));
}

// Out of memory is covered through the search driver.
TEST(SfsRun, InvalidArgumentsCallNoFitness) {
    Problem p(3, -1.0, 1.0, 4, 2, 2);
    qvn_sfs_params bad[] = {p.params, p.params, p.params, p.params, p.params};
    bad[0].lower = nullptr, bad[1].dim = 0, bad[2].population_size = 1, bad[3].iterations = -1;
    bad[4].diffusion_factor = 0;
    for (const auto &b : bad) EXPECT_EQ(qvn_sfs_run(&b, Problem::fitness, &p, &p.result), -1);
    EXPECT_EQ(qvn_sfs_run(&p.params, nullptr, &p, &p.result), -1);
    EXPECT_TRUE(p.points.empty());
}

TEST(SfsCosineFitness, HandWorkedDistances) {
    const double q[] = {1, 1, 1}, zero[] = {0, 0, 0}, x[] = {1, 1, 0};
    qvn_sfs_cosine_ctx ctx{q, std::sqrt(3.0)};
    // n * query_norm is formed first; dividing twice rounds differently here.
    const double expect = 1.0 - 2.0 / (std::sqrt(2.0) * std::sqrt(3.0));
    ASSERT_NE(expect, 1.0 - 2.0 / std::sqrt(2.0) / std::sqrt(3.0));
    EXPECT_EQ(bits(qvn_sfs_cosine_fitness(x, 3, &ctx)), bits(expect));
    EXPECT_EQ(qvn_sfs_cosine_fitness(zero, 3, &ctx), 1.0);
}
