#include <gtest/gtest.h>

#include <cmath>

#include "sfs/sfs.h"

TEST(Prng, PublishedStateAndOutputs) {
    qvn_prng_state s;
    qvn_prng_seed(&s, 0.0);
    EXPECT_EQ(s.z1, 0xa0d277570a345b8cULL);
    EXPECT_EQ(s.z2, 0x764a296c5d4aa64fULL);
    EXPECT_EQ(s.z3, 0x51220704070adeaaULL);
    EXPECT_EQ(s.z4, 0x2a2717b5a7b7b927ULL);
    for (double want : {0.794206292431241, 0.698852465637164, 0.5901037417281034})
        EXPECT_EQ(qvn_prng_double(&s), want);
    qvn_prng_seed(&s, 1.0);
    for (double want : {0.3238105623786367, 0.013613396334358319, 0.9127221110258319})
        EXPECT_EQ(qvn_prng_double(&s), want);
}

// Outputs are multiples of 2^-52 in [0, 1) and spread over it, whatever the
// seed; a word that starts at zero would stay zero, so it is lifted.
TEST(Prng, EverySeedGivesAWorkingState) {
    const double zero_first = -0.8652559794322651;  // zero_first * pi + e == +0.0
    ASSERT_EQ(zero_first * 3.141592653589793 + 2.718281828459045, 0.0);
    for (double seed : {zero_first, -3.5, 1e300, std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        SCOPED_TRACE(seed);
        qvn_prng_state s;
        qvn_prng_seed(&s, seed);
        EXPECT_TRUE(s.z1 && s.z2 && s.z3 && s.z4);
        double lo = 1.0, hi = 0.0;
        for (int i = 0; i < 10000; ++i) {
            const double x = qvn_prng_double(&s), scaled = std::ldexp(x, 52);
            ASSERT_TRUE(x >= 0.0 && x < 1.0 && scaled == std::floor(scaled)) << x;
            lo = std::min(lo, x), hi = std::max(hi, x);
        }
        EXPECT_TRUE(lo < 0.01 && hi > 0.99);
    }
}
