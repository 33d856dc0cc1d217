#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <memory>
#include <vector>

#include "diversify/diversify.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

namespace {

struct state_deleter {
    void operator()(qvni_diversify_state *s) const { qvni_diversify_state_destroy(s); }
};
using state_ptr = std::unique_ptr<qvni_diversify_state, state_deleter>;

state_ptr make_state(uint32_t window) {
    state_ptr s(qvni_diversify_state_create());
    if (s) s->params.dq_window = window;
    return s;
}

// One result row: its centroid is the row itself (weight 1, normaliser 1).
int32_t push_one(qvni_diversify_state *s, std::vector<double> row) {
    return qvni_dq_push(s, row.data(), 1, row.size());
}

// Plain reference: one minus the mean cosine over all pairs.
double reference_dq(const std::deque<std::vector<double>> &ring) {
    const size_t k = ring.size();
    double sum = 0.0;
    for (size_t i = 0; i < k; ++i)
        for (size_t j = i + 1; j < k; ++j) {
            double dot = 0, na = 0, nb = 0;
            for (size_t e = 0; e < ring[i].size(); ++e) {
                dot += ring[i][e] * ring[j][e];
                na += ring[i][e] * ring[i][e];
                nb += ring[j][e] * ring[j][e];
            }
            sum += dot / std::sqrt(na * nb);
        }
    return 1.0 - sum / (k * (k - 1) / 2.0);
}

}  // namespace

TEST(DqTracking, KnownCentroidPairs) {
    struct Case {
        const char *name;
        std::vector<double> a, b;
        double dq;
    };
    const Case cases[] = {
        {"orthogonal", {1, 0}, {0, 1}, 1.0},
        {"opposite", {1, 0}, {-1, 0}, 2.0},
        {"parallel, different length", {2, 0}, {0.5, 0}, 0.0},
        {"opposite, scaled", {0, -3, 0}, {0, 7, 0}, 2.0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto s = make_state(5);
        ASSERT_EQ(push_one(s.get(), c.a), 0);
        EXPECT_TRUE(std::isnan(s->dq_current)) << "one centroid has no pair";
        ASSERT_EQ(push_one(s.get(), c.b), 0);
        EXPECT_EQ(s->dq_current, c.dq);
        EXPECT_EQ(s->dq_count, 2u);
    }
}

TEST(DqTracking, CentroidWeightsRowsByRank) {
    // Two rows: weights 2 and 1, normaliser 3.
    auto s = make_state(5);
    const double two[] = {1, 0, 0, 1};
    ASSERT_EQ(qvni_dq_push(s.get(), two, 2, 2), 0);
    EXPECT_EQ(s->dq_history[0], 2.0 / 3.0);
    EXPECT_EQ(s->dq_history[1], 1.0 / 3.0);
    // Against (1, 0): cosine (2/3) / (sqrt(5)/3) = 2 / sqrt(5).
    ASSERT_EQ(push_one(s.get(), {1, 0}), 0);
    EXPECT_NEAR(s->dq_current, 1.0 - 2.0 / std::sqrt(5.0), 1e-15);

    // Three rows: weights 3, 2, 1, normaliser 6.
    const double three[] = {3, 0, 0, 3, 0, 0};
    ASSERT_EQ(qvni_dq_push(s.get(), three, 3, 2), 0);
    EXPECT_EQ(s->dq_history[2 * 2 + 0], 1.5);
    EXPECT_EQ(s->dq_history[2 * 2 + 1], 1.0);
}

TEST(DqTracking, OldestCentroidLeavesAfterWindowPlusOnePushes) {
    // A = (1, 0), then B = C = (0, 1). With a window of 2, A is gone after
    // the third push and the two equal centroids give 0; with a window of 3
    // it still counts: cosines 0, 0, 1 give 1 - 1/3.
    struct Case {
        uint32_t window;
        double dq;
    };
    for (const Case c : {Case{2, 0.0}, Case{3, 2.0 / 3.0}}) {
        SCOPED_TRACE(c.window);
        auto s = make_state(c.window);
        ASSERT_EQ(push_one(s.get(), {1, 0}), 0);
        ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
        ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
        EXPECT_NEAR(s->dq_current, c.dq, 1e-15);
        EXPECT_EQ(s->dq_count, std::min<uint64_t>(3, c.window));
        EXPECT_EQ(s->dq_next, 3u % c.window);
    }

    // Default window 5: after 5 pushes A still counts (6 of 10 pairs equal),
    // after the 6th it is out.
    auto s = make_state(5);
    ASSERT_EQ(push_one(s.get(), {1, 0}), 0);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
    EXPECT_NEAR(s->dq_current, 0.4, 1e-15);
    ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
    EXPECT_EQ(s->dq_current, 0.0);
}

TEST(DqTracking, WindowOfOneStaysNaN) {
    auto s = make_state(1);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(push_one(s.get(), {double(i), 1}), 0);
        EXPECT_TRUE(std::isnan(s->dq_current));
        EXPECT_EQ(s->dq_count, 1u);
        EXPECT_EQ(s->dq_next, 0u);
    }
}

TEST(DqTracking, RepeatedResultsGiveZeroNeverBelow) {
    // cos(a, a) computed as |a|^2 / (|a| |a|) can round either way of 1; a
    // value a hair below 0 must come back as exactly 0.
    int snapped = 0;
    for (uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        const auto rows = qvn_test::random_doubles(3 * 7, seed);
        auto s = make_state(5);
        ASSERT_EQ(qvni_dq_push(s.get(), rows.data(), 3, 7), 0);
        ASSERT_EQ(qvni_dq_push(s.get(), rows.data(), 3, 7), 0);
        double na = 0;
        for (int e = 0; e < 7; ++e) na += s->dq_history[e] * s->dq_history[e];
        const double ra = std::sqrt(na);
        if (na / (ra * ra) > 1.0) {
            ++snapped;
            EXPECT_EQ(qvn_test::bits(s->dq_current), qvn_test::bits(0.0));
        } else {
            EXPECT_GE(s->dq_current, 0.0);
            EXPECT_LE(s->dq_current, 1e-15);
        }
    }
    EXPECT_GT(snapped, 0) << "no case exercised the snap to 0";
}

TEST(DqTracking, DegenerateCentroidGivesNaNUntilItLeaves) {
    const double kInf = INFINITY;
    struct Case {
        const char *name;
        std::vector<double> bad;
    };
    const Case cases[] = {
        {"zero", {0, 0}}, {"NaN", {NAN, 1}}, {"infinite", {kInf, 1}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto s = make_state(2);
        ASSERT_EQ(push_one(s.get(), c.bad), 0);
        ASSERT_EQ(push_one(s.get(), {1, 0}), 0);
        EXPECT_TRUE(std::isnan(s->dq_current));
        ASSERT_EQ(push_one(s.get(), {0, 1}), 0);  // overwrites the bad one
        EXPECT_EQ(s->dq_current, 1.0);
    }
}

TEST(DqTracking, RefusalsLeaveStateUnchanged) {
    auto s = make_state(5);
    const double row[] = {1, 2, 3};
    EXPECT_EQ(qvni_dq_push(nullptr, row, 1, 3), -1);
    EXPECT_EQ(qvni_dq_push(s.get(), nullptr, 1, 3), -1);
    EXPECT_EQ(qvni_dq_push(s.get(), row, 0, 3), -1);
    EXPECT_EQ(qvni_dq_push(s.get(), row, 1, 0), -1);
    EXPECT_EQ(s->dq_history, nullptr);

    ASSERT_EQ(qvni_dq_push(s.get(), row, 1, 2), 0);
    ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
    const double before = s->dq_current;
    EXPECT_EQ(qvni_dq_push(s.get(), row, 1, 3), -1) << "dimension differs from the first push";
    EXPECT_EQ(s->dq_current, before);
    EXPECT_EQ(s->dq_count, 2u);
    EXPECT_EQ(s->dq_next, 2u);
    EXPECT_EQ(s->dq_dim, 2u);

    EXPECT_TRUE(std::isnan(qvni_dq_compute(nullptr)));
}

TEST(DqTracking, HistoryAllocationFailureChangesNothing) {
    auto s = make_state(5);
    const double row[] = {1, 0};
    {
        qvn_test::AllocFailGuard fail(1);
        EXPECT_EQ(qvni_dq_push(s.get(), row, 1, 2), QVN_ERR_NOMEM);
    }
    EXPECT_EQ(s->dq_history, nullptr);
    EXPECT_EQ(s->dq_count, 0u);
    EXPECT_EQ(qvni_dq_push(s.get(), row, 1, 2), 0);
    EXPECT_EQ(s->dq_rows_alloc, 5u);
}

// The ring follows dq_window changes made between pushes: it keeps the most
// recent min(count, window) centroids and never addresses a row it did not
// allocate (the sanitizer build checks the latter).
TEST(DqTracking, WindowChangesKeepTheNewestCentroids) {
    const uint32_t windows[] = {3, 3, 3, 3, 7, 7, 2, 2, 2, 5, 5, 5, 5, 5, 5, 1, 1,
                                4, 4, 4, 4, 4, 32, 6, 6, 6, 6, 6, 6, 6, 6, 3, 3};
    auto s = make_state(windows[0]);
    std::deque<std::vector<double>> model;
    uint32_t seed = 100;
    for (uint32_t w : windows) {
        SCOPED_TRACE(testing::Message() << "push " << seed - 100 << " window " << w);
        s->params.dq_window = w;
        auto row = qvn_test::random_doubles(4, seed++);
        while (model.size() > w) model.pop_front();
        model.push_back(row);
        if (model.size() > w) model.pop_front();
        ASSERT_EQ(push_one(s.get(), row), 0);

        ASSERT_EQ(s->dq_count, model.size());
        EXPECT_EQ(s->dq_rows_alloc, w);
        EXPECT_LT(s->dq_next, w);
        // Every centroid of the model sits in a filled row.
        for (const auto &m : model) {
            bool found = false;
            for (uint64_t r = 0; r < s->dq_count; ++r)
                found = found || std::equal(m.begin(), m.end(), s->dq_history + r * 4);
            EXPECT_TRUE(found);
        }
        if (model.size() < 2)
            EXPECT_TRUE(std::isnan(s->dq_current));
        else
            EXPECT_NEAR(s->dq_current, reference_dq(model), 1e-12);
    }
}

TEST(DqTracking, WindowGrowthFailureChangesNothing) {
    auto s = make_state(2);
    ASSERT_EQ(push_one(s.get(), {1, 0}), 0);
    ASSERT_EQ(push_one(s.get(), {0, 1}), 0);
    ASSERT_EQ(push_one(s.get(), {1, 1}), 0);  // ring full, oldest at slot 1
    const std::vector<double> before(s->dq_history, s->dq_history + 4);
    const double dq = s->dq_current;
    s->params.dq_window = 4;
    {
        qvn_test::AllocFailGuard fail(1);
        EXPECT_EQ(push_one(s.get(), {-1, 0}), QVN_ERR_NOMEM);
    }
    EXPECT_EQ(std::vector<double>(s->dq_history, s->dq_history + 4), before);
    EXPECT_EQ(s->dq_count, 2u);
    EXPECT_EQ(s->dq_next, 1u);
    EXPECT_EQ(s->dq_rows_alloc, 2u);
    EXPECT_EQ(s->dq_current, dq);
    // Retried with memory: (0, 1), (1, 1) and (-1, 0) remain.
    ASSERT_EQ(push_one(s.get(), {-1, 0}), 0);
    EXPECT_EQ(s->dq_count, 3u);
    EXPECT_NEAR(s->dq_current,
                reference_dq({{0, 1}, {1, 1}, {-1, 0}}), 1e-15);
}

TEST(DqTracking, WindowShrinkSurvivesRefusedRealloc) {
    // A refused shrink keeps the larger block; the ring still uses the
    // smaller window.
    auto s = make_state(6);
    for (int i = 0; i < 6; ++i) ASSERT_EQ(push_one(s.get(), {1, double(i)}), 0);
    s->params.dq_window = 2;
    {
        qvn_test::AllocFailGuard fail(1);
        EXPECT_EQ(push_one(s.get(), {1, 6}), 0);
    }
    EXPECT_EQ(s->dq_count, 2u);
    EXPECT_NEAR(s->dq_current, reference_dq({{1, 5}, {1, 6}}), 1e-15);
}
