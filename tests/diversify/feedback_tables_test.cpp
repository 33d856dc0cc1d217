#include <gtest/gtest.h>

#include <memory>

#include "diversify/diversify.h"
#include "support/alloc_fail.h"

namespace {
struct truth_deleter {
    void operator()(qvni_truth_table *t) const { qvni_truth_destroy(t); }
};
struct shadow_deleter {
    void operator()(qvni_shadow_table *t) const { qvni_shadow_destroy(t); }
};
using truth_ptr = std::unique_ptr<qvni_truth_table, truth_deleter>;
using shadow_ptr = std::unique_ptr<qvni_shadow_table, shadow_deleter>;
}  // namespace

TEST(Gumption, GradedIsValueOverTenThousandCappedAtOne) {
    struct Case {
        uint32_t value, kind;
        double expected;
    };
    const Case cases[] = {
        {5000, 0, 0.5}, {10000, 0, 1.0}, {20000, 0, 1.0}, {0, 0, 0.0},
        {0xffffffffu, 0, 1.0}, {1, 0, 1e-4}, {0, 1, 1.0}, {7, 1, 1.0},
        {7, 2, 0.0}, {7, 3, 0.0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.value << " kind " << c.kind);
        EXPECT_EQ(qvni_gumption(c.value, c.kind), c.expected);
    }
}

TEST(FeedbackTables, CreationTakesCapacityOrSixtyFour) {
    truth_ptr t(qvni_truth_create(0));
    shadow_ptr s(qvni_shadow_create(3));
    ASSERT_TRUE(t && s);
    EXPECT_EQ(t->capacity, 64u);
    EXPECT_EQ(t->count, 0u);
    EXPECT_EQ(s->capacity, 3u);
    EXPECT_EQ(qvni_shadow_count(s.get()), 0u);
    EXPECT_EQ(qvni_shadow_count(nullptr), 0u);
    EXPECT_EQ(qvni_truth_insert(nullptr, 1, 1, 1.0), -1);
    EXPECT_EQ(qvni_shadow_insert(nullptr, 1, 1, 1.0, 1.0, 1.0), -1);
    qvni_truth_destroy(nullptr);
    qvni_shadow_destroy(nullptr);
}

TEST(FeedbackTables, FailedCreationLeavesNothingBehind) {
    // Either allocation failing gives null; the sanitizer build checks that
    // the header allocated before a failing entry array is released.
    const size_t truth_failures = qvn_test::for_each_allocation_failure([](size_t) {
        truth_ptr t(qvni_truth_create(8));
        EXPECT_EQ(t == nullptr, qvn_test::allocation_failed());
        return t != nullptr;
    });
    EXPECT_EQ(truth_failures, 2u);
    const size_t shadow_failures = qvn_test::for_each_allocation_failure([](size_t) {
        shadow_ptr s(qvni_shadow_create(8));
        EXPECT_EQ(s == nullptr, qvn_test::allocation_failed());
        return s != nullptr;
    });
    EXPECT_EQ(shadow_failures, 2u);
}

TEST(TruthTable, WeightsAccumulateUpToTwo) {
    truth_ptr t(qvni_truth_create(4));
    ASSERT_EQ(qvni_truth_insert(t.get(), 9, 1, 0.5), 0);
    ASSERT_EQ(qvni_truth_insert(t.get(), 9, 5, 1.0), 0);
    EXPECT_EQ(t->entries[0].weight, 1.5);
    ASSERT_EQ(qvni_truth_insert(t.get(), 9, 5, 1.0), 0);
    EXPECT_EQ(t->count, 1u);
    EXPECT_EQ(t->entries[0].weight, 2.0);
    EXPECT_EQ(t->entries[0].epoch, 1u) << "epoch of the first report stays";
}

TEST(TruthTable, FullTableEvictsFirstSmallestWeight) {
    truth_ptr t(qvni_truth_create(4));
    const double weights[] = {0.7, 0.2, 0.9, 0.2};
    for (uint64_t id = 0; id < 4; ++id) qvni_truth_insert(t.get(), 10 + id, 1, weights[id]);
    // A repeat report never evicts, even into a full table.
    ASSERT_EQ(qvni_truth_insert(t.get(), 12, 1, 0.05), 0);
    EXPECT_EQ(t->entries[2].weight, 0.9 + 0.05);
    EXPECT_EQ(t->count, 4u);
    // New id: positions 1 and 3 tie at 0.2; position 1 goes.
    ASSERT_EQ(qvni_truth_insert(t.get(), 99, 2, 0.4), 0);
    EXPECT_EQ(t->count, 4u);
    EXPECT_EQ(t->entries[1].id, 99u);
    EXPECT_EQ(t->entries[1].epoch, 2u);
    EXPECT_EQ(t->entries[1].weight, 0.4);
    EXPECT_EQ(t->entries[3].id, 13u);
    // Next eviction takes the remaining 0.2 at position 3.
    ASSERT_EQ(qvni_truth_insert(t.get(), 100, 2, 1.0), 0);
    EXPECT_EQ(t->entries[3].id, 100u);
}

TEST(TruthTable, SixtyFifthIdEvictsInADefaultTable) {
    truth_ptr t(qvni_truth_create(0));
    for (uint64_t id = 0; id < 64; ++id)
        qvni_truth_insert(t.get(), id, 1, id == 40 || id == 50 ? 0.1 : 1.0);
    ASSERT_EQ(t->count, 64u);
    qvni_truth_insert(t.get(), 64, 1, 1.0);
    EXPECT_EQ(t->count, 64u);
    EXPECT_EQ(t->entries[40].id, 64u);
    EXPECT_EQ(t->entries[50].id, 50u);
}

TEST(ShadowTable, RepeatsAddWeightAndKeepFirstShape) {
    shadow_ptr s(qvni_shadow_create(4));
    ASSERT_EQ(qvni_shadow_insert(s.get(), 5, 1, 1.0, 2.0, 0.25), 0);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(qvni_shadow_insert(s.get(), 5, 9, 1.0, 7.0, 3.0), 0);
    ASSERT_EQ(qvni_shadow_count(s.get()), 1u);
    const qvni_shadow_entry &e = s->entries[0];
    EXPECT_EQ(e.weight, 5.0) << "no cap on shadow weights";
    EXPECT_EQ(e.amplitude, 2.0);
    EXPECT_EQ(e.sigma, 0.25);
    EXPECT_EQ(e.epoch, 1u);
}

TEST(ShadowTable, FullTableEvictsSmallestProduct) {
    {
        SCOPED_TRACE("equal products: the lowest position goes");
        shadow_ptr s(qvni_shadow_create(2));
        qvni_shadow_insert(s.get(), 7, 1, 1.0, 1.0, 1.0);
        qvni_shadow_insert(s.get(), 8, 1, 1.0, 1.0, 1.0);
        qvni_shadow_insert(s.get(), 9, 1, 1.0, 1.0, 1.0);
        EXPECT_EQ(qvni_shadow_count(s.get()), 2u);
        EXPECT_EQ(s->entries[0].id, 9u);
        EXPECT_EQ(s->entries[1].id, 8u);
    }
    {
        SCOPED_TRACE("amplitude * sigma * weight decides, not weight alone");
        shadow_ptr s(qvni_shadow_create(3));
        qvni_shadow_insert(s.get(), 1, 1, 1.0, 4.0, 0.25);  // 1.0
        qvni_shadow_insert(s.get(), 2, 1, 1.0, 1.0, 1.0);   // 1.0 -> 3.0 below
        qvni_shadow_insert(s.get(), 3, 1, 1.0, 0.5, 1.0);   // 0.5 -> 1.5 below
        qvni_shadow_insert(s.get(), 2, 1, 2.0, 9.0, 9.0);
        qvni_shadow_insert(s.get(), 3, 1, 2.0, 9.0, 9.0);
        qvni_shadow_insert(s.get(), 4, 1, 1.0, 2.0, 2.0);
        EXPECT_EQ(s->entries[0].id, 4u);
        EXPECT_EQ(s->entries[0].amplitude, 2.0);
        EXPECT_EQ(s->entries[0].sigma, 2.0);
        EXPECT_EQ(s->entries[0].weight, 1.0);
        EXPECT_EQ(s->entries[1].id, 2u);
        EXPECT_EQ(s->entries[2].id, 3u);
        // Now 4 (4.0), 2 (3.0), 3 (1.5): id 3 goes.
        qvni_shadow_insert(s.get(), 5, 1, 1.0, 1.0, 1.0);
        EXPECT_EQ(s->entries[2].id, 5u);
    }
}
