#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "diversify/diversify.h"

namespace {
struct state_deleter {
    void operator()(qvni_diversify_state *s) const { qvni_diversify_state_destroy(s); }
};
using state_ptr = std::unique_ptr<qvni_diversify_state, state_deleter>;
}  // namespace

TEST(Overhead, PercentileNeedsAFullRing) {
    state_ptr s(qvni_diversify_state_create());
    ASSERT_TRUE(s);
    for (int i = 1; i <= 999; ++i) qvni_overhead_push(s.get(), i);
    EXPECT_TRUE(std::isnan(qvni_overhead_p99(s.get())));
    qvni_overhead_push(s.get(), 1000);
    EXPECT_EQ(qvni_overhead_p99(s.get()), 991.0);
    EXPECT_TRUE(std::isnan(qvni_overhead_p99(nullptr)));
    qvni_overhead_push(nullptr, 1.0);  // ignored
}

TEST(Overhead, PercentileIsThe991stSmallestWhateverTheOrder) {
    std::vector<double> samples(1000);
    std::iota(samples.begin(), samples.end(), 1.0);
    std::mt19937 gen(7);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        std::shuffle(samples.begin(), samples.end(), gen);
        state_ptr s(qvni_diversify_state_create());
        for (double x : samples) qvni_overhead_push(s.get(), x);
        EXPECT_EQ(qvni_overhead_p99(s.get()), 991.0);
        // The ring itself keeps arrival order.
        EXPECT_TRUE(std::equal(samples.begin(), samples.end(), s->overhead_ring));
    }
}

TEST(Overhead, OldestSamplesAreOverwritten) {
    state_ptr s(qvni_diversify_state_create());
    for (int i = 1; i <= 1500; ++i) qvni_overhead_push(s.get(), i);
    EXPECT_EQ(s->overhead_count, 1000u);
    EXPECT_EQ(s->overhead_next, 500u);
    EXPECT_EQ(*std::min_element(s->overhead_ring, s->overhead_ring + 1000), 501.0);
    EXPECT_EQ(qvni_overhead_p99(s.get()), 1491.0);
}

TEST(Overhead, NonFiniteSamplesAreDropped) {
    state_ptr s(qvni_diversify_state_create());
    qvni_overhead_push(s.get(), 3.0);
    for (double bad : {NAN, INFINITY, -INFINITY}) {
        qvni_overhead_push(s.get(), bad);
        EXPECT_EQ(s->overhead_next, 1u);
        EXPECT_EQ(s->overhead_count, 1u);
    }
    // 999 more finite samples fill the ring; the dropped ones left no trace.
    for (int i = 0; i < 999; ++i) qvni_overhead_push(s.get(), 1.0);
    EXPECT_EQ(qvni_overhead_p99(s.get()), 1.0);
    for (int i = 0; i < 11; ++i) qvni_overhead_push(s.get(), 2.0);
    EXPECT_EQ(qvni_overhead_p99(s.get()), 2.0) << "11 of 1000 samples above 1";
}

TEST(Overhead, CompareIsThreeWay) {
    const double one = 1.0, two = 2.0, zero = 0.0, neg_zero = -0.0;
    EXPECT_EQ(cmp_double(&one, &two), -1);
    EXPECT_EQ(cmp_double(&two, &one), 1);
    EXPECT_EQ(cmp_double(&one, &one), 0);
    EXPECT_EQ(cmp_double(&zero, &neg_zero), 0);
}
