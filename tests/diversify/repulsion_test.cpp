#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "diversify/diversify.h"

TEST(Repulsion, GaussianKernelValues) {
    const double origin[] = {0, 0};
    struct Case {
        const char *name;
        double x, y;                    // candidate
        double weight, amplitude, sigma, strength;
        double base, expected;
    };
    const Case cases[] = {
        {"at the centre, unit everything", 0, 0, 1, 1, 1, 1, 0.75, 0.75 - 1.0},
        {"at the centre, scaled", 0, 0, 2, 0.5, 3, 4, 1.0, 1.0 - 1.0 * 4},
        {"exactly 3 sigma away", 1.5, 0, 1, 1, 0.5, 1, 0.25, 0.25},
        {"beyond 3 sigma", 0, 2, 5, 5, 0.5, 1, 0.25, 0.25},
        {"2 sigma away", 0, 1, 2, 0.5, 0.5, 3, 0.5, 0.5 - std::exp(-2.0) * 1.0 * 3},
        {"1 sigma away", 0.6, 0.8, 1, 1, 1, 1, 0.0, -std::exp(-0.5)},
        {"strength 0", 0, 0, 1, 1, 1, 0, 0.3, 0.3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const double v[] = {c.x, c.y};
        const qvni_repulsion_source src{origin, c.weight, c.amplitude, c.sigma};
        EXPECT_DOUBLE_EQ(qvni_repulsion_adjust(v, 2, &src, 1, c.base, c.strength),
                         c.expected);
    }
}

TEST(Repulsion, LossAtTheCentreIsExact) {
    const double row[] = {0.3, -0.7, 0.1};
    const qvni_repulsion_source src{row, 1.0, 1.0, 1.0};
    EXPECT_EQ(qvni_repulsion_adjust(row, 3, &src, 1, 0.8, 1.0), 0.8 - 1.0);
}

TEST(Repulsion, RuledOutSourcesContributeNothing) {
    const double c[] = {0, 0};
    const double v[] = {0.1, 0};
    const qvni_repulsion_source cases[] = {
        {nullptr, 1, 1, 1}, {c, 1, 1, 0}, {c, 1, 1, -1}, {c, 0, 1, 1}, {c, 1, 0, 1},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(qvni_repulsion_adjust(v, 2, &cases[i], 1, 0.5, 1.0), 0.5);
    }
}

TEST(Repulsion, DegenerateCallsReturnBase) {
    const double c[] = {0, 0};
    const qvni_repulsion_source src{c, 1, 1, 1};
    EXPECT_EQ(qvni_repulsion_adjust(c, 2, &src, 0, 0.5, 1.0), 0.5);
    EXPECT_EQ(qvni_repulsion_adjust(nullptr, 2, &src, 1, 0.5, 1.0), 0.5);
    EXPECT_EQ(qvni_repulsion_adjust(c, 2, nullptr, 1, 0.5, 1.0), 0.5);
    EXPECT_EQ(qvni_repulsion_adjust(c, 0, &src, 1, 0.5, 1.0), 0.5);
}

TEST(Repulsion, SourcesAddUpAndScoresAreNotClamped) {
    const double a[] = {0, 0}, b[] = {1, 0};
    const double v[] = {0, 0};
    const qvni_repulsion_source two[] = {{a, 1, 1, 1}, {b, 2, 1, 1}};
    // Centre a: 1; b at distance 1: 2 * exp(-1/2). Strength 2 doubles both.
    const double expected = 0.5 - (1.0 + 2.0 * std::exp(-0.5)) * 2.0;
    EXPECT_DOUBLE_EQ(qvni_repulsion_adjust(v, 2, two, 2, 0.5, 2.0), expected);
    EXPECT_LT(expected, 0.0);
    // Only the first n_sources records count.
    EXPECT_EQ(qvni_repulsion_adjust(v, 2, two, 1, 0.5, 2.0), 0.5 - 2.0);
}
