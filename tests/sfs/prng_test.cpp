#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "sfs/sfs.h"
#include "support/test_support.h"

using qvn_test::bits;

TEST(Prng, SeedZeroMatchesPublishedStateAndOutputs) {
    qvn_prng_state s;
    qvn_prng_seed(&s, 0.0);
    EXPECT_EQ(s.z1, 0xa0d277570a345b8cULL);
    EXPECT_EQ(s.z2, 0x764a296c5d4aa64fULL);
    EXPECT_EQ(s.z3, 0x51220704070adeaaULL);
    EXPECT_EQ(s.z4, 0x2a2717b5a7b7b927ULL);
    EXPECT_EQ(qvn_prng_double(&s), 0.794206292431241);
    EXPECT_EQ(qvn_prng_double(&s), 0.698852465637164);
    EXPECT_EQ(qvn_prng_double(&s), 0.5901037417281034);
}

TEST(Prng, SeedOneMatchesPublishedOutputs) {
    qvn_prng_state s;
    qvn_prng_seed(&s, 1.0);
    EXPECT_EQ(qvn_prng_double(&s), 0.3238105623786367);
    EXPECT_EQ(qvn_prng_double(&s), 0.013613396334358319);
    EXPECT_EQ(qvn_prng_double(&s), 0.9127221110258319);
}

TEST(Prng, EqualSeedsGiveEqualSequencesInUnitInterval) {
    for (double seed : {0.0, -3.5, 1e300, 6607762075843605.0}) {
        SCOPED_TRACE(seed);
        qvn_prng_state a, b;
        qvn_prng_seed(&a, seed);
        qvn_prng_seed(&b, seed);
        for (int i = 0; i < 10000; ++i) {
            const double x = qvn_prng_double(&a);
            ASSERT_EQ(bits(x), bits(qvn_prng_double(&b)));
            ASSERT_GE(x, 0.0);
            ASSERT_LT(x, 1.0);
            // A multiple of 2^-52.
            ASSERT_EQ(std::ldexp(x, 52), std::floor(std::ldexp(x, 52)));
        }
    }
}

TEST(Prng, NonFiniteSeedsGiveWorkingStates) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (double seed : {nan, inf, -inf}) {
        qvn_prng_state s;
        qvn_prng_seed(&s, seed);
        double lo = 1.0, hi = 0.0;
        for (int i = 0; i < 1000; ++i) {
            const double x = qvn_prng_double(&s);
            lo = std::min(lo, x);
            hi = std::max(hi, x);
        }
        // A working state spreads over the interval rather than sticking.
        EXPECT_LT(lo, 0.05);
        EXPECT_GT(hi, 0.95);
    }
}
