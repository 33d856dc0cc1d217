#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "sfs/sfs.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

using qvn_test::bits;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Records every point the optimizer evaluates; the value is chosen by `fn`.
struct Recorder {
    using value_fn = double (*)(const double *x, uint64_t dim, size_t call);
    explicit Recorder(value_fn f) : fn(f) {}
    value_fn fn;
    std::vector<std::vector<double>> points;
    std::vector<double> values;
};

double recording_fitness(const double *x, uint64_t dim, void *ctx) {
    auto *r = static_cast<Recorder *>(ctx);
    const double v = r->fn(x, dim, r->points.size());
    r->points.emplace_back(x, x + dim);
    r->values.push_back(v);
    return v;
}

double sum_squares(const double *x, uint64_t dim, size_t) {
    double s = 0.0;
    for (uint64_t i = 0; i < dim; ++i) s += x[i] * x[i];
    return s;
}

double constant_one(const double *, uint64_t, size_t) { return 1.0; }

struct Problem {
    std::vector<double> lower, upper;
    qvn_sfs_params params{};
    std::vector<double> best, population, fits;
    qvn_sfs_result result{};

    Problem(size_t dim, double lo, double hi, int32_t pop, int32_t iters, int32_t diff)
        : lower(dim, lo), upper(dim, hi), best(dim), population(dim * pop), fits(pop) {
        params.lower = lower.data();
        params.upper = upper.data();
        params.dim = dim;
        params.iterations = iters;
        params.population_size = pop;
        params.diffusion_factor = diff;
        params.walk = 0.5;
        params.bounded = 1;
        params.opposition = 0;
        params.walk_mode = 0;
        params.seed = 0.0;
        result.best_point = best.data();
        result.population = population.data();
        result.population_fits = fits.data();
    }
    int32_t run(Recorder &rec) { return qvn_sfs_run(&params, recording_fitness, &rec, &result); }
};

double gaussian_ref(qvn_prng_state *s) {
    const double r1 = qvn_prng_double(s);
    const double r2 = qvn_prng_double(s);
    return std::cos(6.283185307179586 * r2) * std::sqrt(-2.0 * std::log(std::max(r1, 1e-300)));
}

}  // namespace

TEST(SfsRun, ZeroIterationsReturnsBestOfInitialPopulation) {
    Problem p(1, -1.0, 1.0, 3, 0, 1);
    Recorder rec{sum_squares};
    ASSERT_EQ(p.run(rec), 0);
    ASSERT_EQ(rec.points.size(), 3u);
    EXPECT_EQ(p.population[0], 0.5884125848624819);
    EXPECT_EQ(p.population[1], 0.39770493127432793);
    EXPECT_EQ(p.population[2], 0.18020748345620685);
    EXPECT_EQ(p.best[0], 0.18020748345620685);
    EXPECT_EQ(p.result.best_fit, 0.03247473709361907);
    EXPECT_EQ(p.fits[2], 0.03247473709361907);
}

TEST(SfsRun, FitnessCallCountFollowsPopulationDiffusionAndOpposition) {
    struct Case { int32_t pop, iters, diff, opposition, walk_mode; };
    for (const Case c : {Case{2, 1, 1, 0, 0}, Case{5, 3, 2, 0, 0}, Case{5, 3, 2, 1, 0},
                         Case{4, 2, 3, 1, 1}, Case{7, 0, 9, 1, 1}}) {
        SCOPED_TRACE(testing::Message() << "pop=" << c.pop << " iters=" << c.iters
                                        << " diff=" << c.diff << " opp=" << c.opposition);
        Problem p(3, -2.0, 2.0, c.pop, c.iters, c.diff);
        p.params.opposition = c.opposition;
        p.params.walk_mode = c.walk_mode;
        Recorder rec{sum_squares};
        ASSERT_EQ(p.run(rec), 0);
        const size_t per_gen = static_cast<size_t>(c.pop) * c.diff * (c.opposition ? 2 : 1);
        EXPECT_EQ(rec.points.size(), static_cast<size_t>(c.pop) + per_gen * c.iters);
    }
}

TEST(SfsRun, InitialPopulationDrawsRowByRowFromTheSeededGenerator) {
    Problem p(3, -2.0, 5.0, 4, 0, 1);
    p.params.seed = 42.5;
    Recorder rec{sum_squares};
    ASSERT_EQ(p.run(rec), 0);
    qvn_prng_state s;
    qvn_prng_seed(&s, 42.5);
    for (size_t j = 0; j < 4; ++j)
        for (size_t d = 0; d < 3; ++d) {
            const double expect = 7.0 * qvn_prng_double(&s) + -2.0;
            EXPECT_EQ(bits(rec.points[j][d]), bits(expect)) << j << "," << d;
            EXPECT_EQ(bits(p.population[j * 3 + d]), bits(expect));
        }
}

// With a constant fitness nothing is ever replaced, so each trial is built
// from the initial row; this pins the draw order of both walks.
TEST(SfsRun, TrialPointsFollowTheDocumentedDrawOrder) {
    for (int32_t mode : {0, 1}) {
        for (double walk : {0.0, 0.75}) {
            SCOPED_TRACE(testing::Message() << "mode=" << mode << " walk=" << walk);
            Problem p(2, -1.0, 3.0, 2, 1, 1);
            p.params.walk_mode = mode;
            p.params.walk = walk;
            p.params.bounded = 0;
            p.params.seed = 7.0;
            Recorder rec{constant_one};
            ASSERT_EQ(p.run(rec), 0);
            ASSERT_EQ(rec.points.size(), 4u);
            qvn_prng_state s;
            qvn_prng_seed(&s, 7.0);
            for (int i = 0; i < 4; ++i) qvn_prng_double(&s);
            const auto &best = rec.points[0];  // ties keep index 0
            for (size_t i = 0; i < 2; ++i) {
                const auto &x = rec.points[i];
                for (size_t d = 0; d < 2; ++d) {
                    double r;
                    if (mode == 1) {
                        const double u = gaussian_ref(&s) * 0.6965745025576967;
                        const double v = gaussian_ref(&s);
                        const double w = std::fabs(v) < 1e-12 ? 1e-12 : std::fabs(v);
                        r = u / std::pow(w, 0.6666666666666666);
                    } else {
                        r = gaussian_ref(&s);
                    }
                    const double expect = walk > 0 ? best[d] + (best[d] - x[d]) * (r * walk)
                                                   : x[d] + 4.0 * (r * 0.01);
                    EXPECT_EQ(bits(rec.points[2 + i][d]), bits(expect)) << i << "," << d;
                }
            }
        }
    }
}

TEST(SfsRun, BestIndividualProducesTrialsEqualToItself) {
    Problem p(4, -1.0, 1.0, 3, 2, 2);
    Recorder rec{constant_one};
    ASSERT_EQ(p.run(rec), 0);
    // Each generation: individual 0 (the best on ties) takes 2 steps first.
    for (size_t gen = 0; gen < 2; ++gen)
        for (size_t step = 0; step < 2; ++step)
            EXPECT_EQ(rec.points[3 + gen * 6 + step], rec.points[0]);
}

TEST(SfsRun, NaNFitnessNeverReplacesAndNaNBestIsNeverDisplaced) {
    {
        SCOPED_TRACE("first individual NaN");
        Problem p(2, -1.0, 1.0, 4, 5, 2);
        Recorder rec{[](const double *x, uint64_t d, size_t call) {
            return call == 0 ? kNaN : sum_squares(x, d, call);
        }};
        ASSERT_EQ(p.run(rec), 0);
        EXPECT_TRUE(std::isnan(p.result.best_fit));
        EXPECT_EQ(p.best, rec.points[0]);
        EXPECT_EQ(std::vector<double>(p.population.begin(), p.population.begin() + 2),
                  rec.points[0]);
    }
    {
        SCOPED_TRACE("every fitness NaN");
        Problem p(2, -1.0, 1.0, 4, 3, 2);
        Recorder rec{[](const double *, uint64_t, size_t) { return kNaN; }};
        ASSERT_EQ(p.run(rec), 0);
        EXPECT_TRUE(std::isnan(p.result.best_fit));
        EXPECT_EQ(p.best, rec.points[0]);
        for (size_t j = 0; j < 4; ++j)
            EXPECT_EQ(std::vector<double>(p.population.begin() + 2 * j,
                                          p.population.begin() + 2 * j + 2),
                      rec.points[j]);
    }
    {
        SCOPED_TRACE("NaN trials are rejected");
        Problem p(2, -1.0, 1.0, 4, 3, 2);
        Recorder rec{[](const double *x, uint64_t d, size_t call) {
            return call < 4 ? sum_squares(x, d, call) : kNaN;
        }};
        ASSERT_EQ(p.run(rec), 0);
        for (size_t j = 0; j < 4; ++j) EXPECT_EQ(p.fits[j], rec.values[j]);
    }
}

TEST(SfsRun, EqualFitnessKeepsLowestIndexAndIncumbent) {
    Problem p(2, -1.0, 1.0, 5, 4, 3);
    Recorder rec{constant_one};
    ASSERT_EQ(p.run(rec), 0);
    EXPECT_EQ(p.best, rec.points[0]);
    for (size_t j = 0; j < 5; ++j)
        EXPECT_EQ(std::vector<double>(p.population.begin() + 2 * j,
                                      p.population.begin() + 2 * j + 2),
                  rec.points[j]);
}

TEST(SfsRun, BestFitIsTheSmallestFitnessEverEvaluated) {
    for (int32_t opposition : {0, 1}) {
        for (int32_t mode : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "opp=" << opposition << " mode=" << mode);
            Problem p(3, -1.0, 2.0, 6, 10, 2);
            p.params.opposition = opposition;
            p.params.walk_mode = mode;
            p.params.seed = 3.0;
            Recorder rec{[](const double *x, uint64_t d, size_t) {
                double s = 0.0;
                for (uint64_t i = 0; i < d; ++i) s += (x[i] - 0.3) * (x[i] - 0.3);
                return s;
            }};
            ASSERT_EQ(p.run(rec), 0);
            double min_seen = rec.values[0];
            for (double v : rec.values) min_seen = std::min(min_seen, v);
            EXPECT_EQ(p.result.best_fit, min_seen);
            for (double f : p.fits) EXPECT_GE(f, p.result.best_fit);
        }
    }
}

TEST(SfsRun, BoundedRunsKeepEveryIndividualInTheBox) {
    for (int32_t mode : {0, 1}) {
        SCOPED_TRACE(mode);
        Problem p(4, -0.5, 0.25, 8, 20, 2);
        p.params.walk = 3.0;  // large steps leave the box often
        p.params.walk_mode = mode;
        Recorder rec{[](const double *x, uint64_t d, size_t) { return -sum_squares(x, d, 0); }};
        ASSERT_EQ(p.run(rec), 0);
        for (const auto &pt : rec.points)
            for (double v : pt) {
                EXPECT_GE(v, -0.5);
                EXPECT_LE(v, 0.25);
            }
    }
}

TEST(SfsRun, InvertedBoxSendsEveryClampedTrialCoordinateToUpper) {
    Problem p(3, 1.0, -1.0, 4, 3, 2);
    Recorder rec{sum_squares};
    ASSERT_EQ(p.run(rec), 0);
    for (size_t c = 4; c < rec.points.size(); ++c)
        for (double v : rec.points[c]) EXPECT_EQ(v, -1.0);
}

TEST(SfsRun, OppositePointMirrorsTheTrialInASymmetricBox) {
    Problem p(3, -2.0, 2.0, 4, 3, 2);
    p.params.opposition = 1;
    p.params.walk = 0.0;
    Recorder rec{[](const double *x, uint64_t, size_t) { return x[0]; }};
    ASSERT_EQ(p.run(rec), 0);
    ASSERT_EQ((rec.points.size() - 4) % 2, 0u);
    for (size_t c = 4; c < rec.points.size(); c += 2)
        for (size_t d = 0; d < 3; ++d) EXPECT_EQ(rec.points[c + 1][d], -rec.points[c][d]);
}

TEST(SfsRun, WalkZeroStaysWithinAGaussianSpreadOfTheIndividual) {
    Problem p(2, -3.0, 5.0, 3, 10, 2);
    p.params.walk = 0.0;
    p.params.bounded = 0;
    Recorder rec{constant_one};
    ASSERT_EQ(p.run(rec), 0);
    // |g| <= sqrt(-2 ln 2^-52) unless r1 is exactly 0 (floored at 1e-300).
    const double bound = 8.0 * 0.01 * std::sqrt(-2.0 * std::log(1e-300));
    for (size_t c = 3; c < rec.points.size(); ++c) {
        const auto &x = rec.points[((c - 3) / 2) % 3];
        for (size_t d = 0; d < 2; ++d) EXPECT_LE(std::fabs(rec.points[c][d] - x[d]), bound);
    }
}

TEST(SfsRun, EqualInputsGiveBitIdenticalResults) {
    for (int32_t mode : {0, 1}) {
        Problem a(5, -1.0, 1.0, 7, 6, 3), b(5, -1.0, 1.0, 7, 6, 3);
        for (Problem *p : {&a, &b}) {
            p->params.walk_mode = mode;
            p->params.opposition = 1;
            p->params.seed = 123.25;
        }
        Recorder ra{sum_squares}, rb{sum_squares};
        ASSERT_EQ(a.run(ra), 0);
        ASSERT_EQ(b.run(rb), 0);
        EXPECT_EQ(bits(a.result.best_fit), bits(b.result.best_fit));
        for (size_t i = 0; i < a.best.size(); ++i) EXPECT_EQ(bits(a.best[i]), bits(b.best[i]));
        for (size_t i = 0; i < a.population.size(); ++i)
            EXPECT_EQ(bits(a.population[i]), bits(b.population[i]));
        for (size_t i = 0; i < a.fits.size(); ++i) EXPECT_EQ(bits(a.fits[i]), bits(b.fits[i]));
    }
}

TEST(SfsRun, OptionalOutputsMayBeNull) {
    Problem p(2, -1.0, 1.0, 3, 2, 1);
    p.result.population = nullptr;
    p.result.population_fits = nullptr;
    Recorder rec{sum_squares};
    ASSERT_EQ(p.run(rec), 0);
    EXPECT_EQ(p.result.best_fit, sum_squares(p.best.data(), 2, 0));
}

TEST(SfsRun, InvalidArgumentsReturnMinusOneWithoutCallingFitness) {
    struct Case {
        const char *name;
        void (*breaks)(Problem &);
    };
    const Case cases[] = {
        {"best_point null", [](Problem &p) { p.result.best_point = nullptr; }},
        {"lower null", [](Problem &p) { p.params.lower = nullptr; }},
        {"upper null", [](Problem &p) { p.params.upper = nullptr; }},
        {"dim 0", [](Problem &p) { p.params.dim = 0; }},
        {"population 1", [](Problem &p) { p.params.population_size = 1; }},
        {"population -3", [](Problem &p) { p.params.population_size = -3; }},
        {"iterations -1", [](Problem &p) { p.params.iterations = -1; }},
        {"diffusion 0", [](Problem &p) { p.params.diffusion_factor = 0; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Problem p(2, -1.0, 1.0, 3, 1, 1);
        p.result.best_fit = 77.0;
        p.best.assign(2, 5.0);
        c.breaks(p);
        Recorder rec{sum_squares};
        EXPECT_EQ(p.run(rec), -1);
        EXPECT_TRUE(rec.points.empty());
        EXPECT_EQ(p.result.best_fit, 77.0);
        EXPECT_EQ(p.best, std::vector<double>(2, 5.0));
    }
    Problem p(2, -1.0, 1.0, 3, 1, 1);
    Recorder rec{sum_squares};
    EXPECT_EQ(qvn_sfs_run(nullptr, recording_fitness, &rec, &p.result), -1);
    EXPECT_EQ(qvn_sfs_run(&p.params, nullptr, &rec, &p.result), -1);
    EXPECT_EQ(qvn_sfs_run(&p.params, recording_fitness, &rec, nullptr), -1);
    EXPECT_TRUE(rec.points.empty());
}

TEST(SfsRun, AllocationFailureReturnsMinusTwoBeforeAnyFitnessCall) {
    Problem p(3, -1.0, 1.0, 4, 2, 2);
    size_t failures = qvn_test::for_each_allocation_failure([&](size_t) {
        Recorder rec{sum_squares};
        p.result.best_fit = 77.0;
        const int32_t rc = p.run(rec);
        if (qvn_test::allocation_failed()) {
            EXPECT_EQ(rc, -2);
            EXPECT_TRUE(rec.points.empty());
            EXPECT_EQ(p.result.best_fit, 77.0);
        }
        return rc == 0;
    });
    // Recorder's own vectors use operator new, not malloc: only the run's
    // four working buffers are counted.
    EXPECT_EQ(failures, 4u);
}

TEST(SfsCosineFitness, MatchesHandWorkedDistances) {
    const double q[3] = {1.0, 2.0, 2.0};
    qvn_sfs_cosine_ctx ctx{q, 3.0};
    const double zero[3] = {0.0, 0.0, 0.0};
    EXPECT_EQ(qvn_sfs_cosine_fitness(zero, 3, &ctx), 1.0);
    const double same[3] = {2.0, 4.0, 4.0};
    EXPECT_NEAR(qvn_sfs_cosine_fitness(same, 3, &ctx), 0.0, 1e-15);
    const double opposite[3] = {-0.5, -1.0, -1.0};
    EXPECT_NEAR(qvn_sfs_cosine_fitness(opposite, 3, &ctx), 2.0, 1e-15);
    const double orthogonal[3] = {2.0, -1.0, 0.0};
    EXPECT_EQ(qvn_sfs_cosine_fitness(orthogonal, 3, &ctx), 1.0);
    // 1 - 3/(sqrt(2)*3) with the product formed first.
    const double x[3] = {1.0, 1.0, 0.0};
    EXPECT_EQ(qvn_sfs_cosine_fitness(x, 3, &ctx), 1.0 - 3.0 / (std::sqrt(2.0) * 3.0));
}
