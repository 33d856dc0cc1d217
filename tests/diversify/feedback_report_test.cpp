#include <gtest/gtest.h>

#include <memory>

#include "core/context.h"
#include "diversify/diversify.h"
#include "quorvane.h"
#include "support/alloc_fail.h"

namespace {
struct ctx_deleter {
    void operator()(qvn_context *c) const { qvn_free(c); }
};
using ctx_ptr = std::unique_ptr<qvn_context, ctx_deleter>;

ctx_ptr ostrany() { return ctx_ptr(qvn_new_ostrany(nullptr, nullptr)); }

qvn_diversify_params params(double sigma, double strength, uint32_t capacity = 64) {
    qvn_diversify_params p;
    qvni_diversify_params_set_defaults(&p);
    p.shadow_sigma = sigma;
    p.repulsion_strength = strength;
    p.shadow_capacity = capacity;
    return p;
}
}  // namespace

TEST(FeedbackReport, UnknownKindIsRefused) {
    auto ctx = ostrany();
    EXPECT_EQ(qvn_feedback_report(ctx.get(), 1, 3, 0), QVN_ERR_INVALID);
    EXPECT_EQ(qvn_feedback_report(ctx.get(), 1, 0xffffffffu, 0), QVN_ERR_INVALID);
    EXPECT_EQ(ctx->truth, nullptr);
    EXPECT_EQ(ctx->shadow, nullptr);
}

TEST(FeedbackReport, PositiveReportsFillTheTruthTable) {
    auto ctx = ostrany();
    qvn_diversify_params p = params(0, 1, 2);
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 4, QVN_FEEDBACK_GRADED, 5000), 0);
    ASSERT_NE(ctx->truth, nullptr);
    EXPECT_EQ(ctx->truth->capacity, 64u) << "the truth table ignores shadow_capacity";
    EXPECT_EQ(ctx->shadow, nullptr);
    EXPECT_EQ(ctx->truth->entries[0].weight, 0.5);
    EXPECT_EQ(ctx->truth->entries[0].epoch, 1u);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 4, QVN_FEEDBACK_FULL, 0), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 4, QVN_FEEDBACK_FULL, 0), 0);
    EXPECT_EQ(ctx->truth->entries[0].weight, 2.0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 5, QVN_FEEDBACK_GRADED, 20000), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 6, QVN_FEEDBACK_GRADED, 0), 0);
    EXPECT_EQ(ctx->truth->count, 3u);
    EXPECT_EQ(ctx->truth->entries[1].weight, 1.0);
    EXPECT_EQ(ctx->truth->entries[2].weight, 0.0);
}

TEST(FeedbackReport, NegativeReportsTakeTheParametersInForce) {
    {
        SCOPED_TRACE("no diversify state");
        auto ctx = ostrany();
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 8, QVN_FEEDBACK_NEGATIVE, 123), 0);
        ASSERT_NE(ctx->shadow, nullptr);
        EXPECT_EQ(ctx->shadow->capacity, 64u);
        EXPECT_EQ(ctx->diversify, nullptr) << "a report creates no diversify state";
        const qvni_shadow_entry &e = ctx->shadow->entries[0];
        EXPECT_EQ(e.id, 8u);
        EXPECT_EQ(e.epoch, 1u);
        EXPECT_EQ(e.weight, 1.0);
        EXPECT_EQ(e.amplitude, 1.0);
        EXPECT_EQ(e.sigma, 1.0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 8, QVN_FEEDBACK_NEGATIVE, 0), 0);
        EXPECT_EQ(qvni_shadow_count(ctx->shadow), 1u);
        EXPECT_EQ(ctx->shadow->entries[0].weight, 2.0);
    }
    {
        SCOPED_TRACE("parameters set, diversification disabled");
        auto ctx = ostrany();
        qvn_diversify_params p = params(0.25, 2.0);
        ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 1, QVN_FEEDBACK_NEGATIVE, 0), 0);
        // Later parameters shape only later entries.
        p = params(0.0, 3.0);
        ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 1, QVN_FEEDBACK_NEGATIVE, 0), 0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 2, QVN_FEEDBACK_NEGATIVE, 0), 0);
        ASSERT_EQ(qvni_shadow_count(ctx->shadow), 2u);
        const qvni_shadow_entry &first = ctx->shadow->entries[0];
        EXPECT_EQ(first.sigma, 0.25);
        EXPECT_EQ(first.amplitude, 2.0);
        EXPECT_EQ(first.weight, 2.0);
        const qvni_shadow_entry &second = ctx->shadow->entries[1];
        EXPECT_EQ(second.sigma, 1.0) << "shadow_sigma 0 means width 1";
        EXPECT_EQ(second.amplitude, 3.0);
    }
}

TEST(FeedbackReport, ShadowCapacityIsFixedWhenTheTableIsMade) {
    auto ctx = ostrany();
    qvn_diversify_params p = params(0, 1, 2);
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    for (uint64_t id : {7, 8, 9}) ASSERT_EQ(qvn_feedback_report(ctx.get(), id, 2, 0), 0);
    EXPECT_EQ(qvni_shadow_count(ctx->shadow), 2u);
    EXPECT_EQ(ctx->shadow->entries[0].id, 9u);
    EXPECT_EQ(ctx->shadow->entries[1].id, 8u);
    p.shadow_capacity = 10;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 10, 2, 0), 0);
    EXPECT_EQ(ctx->shadow->capacity, 2u);
    EXPECT_EQ(qvni_shadow_count(ctx->shadow), 2u);
}

TEST(FeedbackReport, TableCreationFailureLeavesNoTable) {
    for (uint32_t kind : {QVN_FEEDBACK_GRADED, QVN_FEEDBACK_NEGATIVE}) {
        SCOPED_TRACE(kind);
        auto ctx = ostrany();
        const size_t failures = qvn_test::for_each_allocation_failure([&](size_t) {
            const int32_t rc = qvn_feedback_report(ctx.get(), 3, kind, 10000);
            if (qvn_test::allocation_failed()) {
                EXPECT_EQ(rc, QVN_ERR_NOMEM);
                EXPECT_EQ(ctx->truth, nullptr);
                EXPECT_EQ(ctx->shadow, nullptr);
            }
            return rc == 0;
        });
        EXPECT_EQ(failures, 2u) << "header and entries";
        qvni_truth_table *truth = ctx->truth;
        qvni_shadow_table *shadow = ctx->shadow;
        EXPECT_EQ(truth != nullptr, kind == QVN_FEEDBACK_GRADED);
        EXPECT_EQ(shadow != nullptr, kind == QVN_FEEDBACK_NEGATIVE);
        const uint64_t count = truth ? truth->count : shadow->count;
        EXPECT_EQ(count, 1u) << "failed attempts inserted nothing";
        EXPECT_EQ(ctx->errmsg[0], '\0');
    }
}
