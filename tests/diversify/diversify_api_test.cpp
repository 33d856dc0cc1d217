#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
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

qvn_diversify_params defaults() {
    qvn_diversify_params p;
    qvni_diversify_params_set_defaults(&p);
    return p;
}

bool same(const qvn_diversify_params &a, const qvn_diversify_params &b) {
    return a.dq_window == b.dq_window && a.dq_target == b.dq_target &&
           a.shadow_sigma == b.shadow_sigma && a.repulsion_strength == b.repulsion_strength &&
           a.shadow_capacity == b.shadow_capacity && a.aux_capacity == b.aux_capacity;
}

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

}  // namespace

TEST(DiversifyParams, DefaultsAndFreshContext) {
    const qvn_diversify_params d = defaults();
    EXPECT_EQ(d.dq_window, 5u);
    EXPECT_EQ(d.dq_target, 0.15);
    EXPECT_EQ(d.shadow_sigma, 0.0);
    EXPECT_EQ(d.repulsion_strength, 1.0);
    EXPECT_EQ(d.shadow_capacity, 64u);
    EXPECT_EQ(d.aux_capacity, 256u);
    EXPECT_EQ(qvni_diversify_params_validate(&d), 0);
    qvni_diversify_params_set_defaults(nullptr);

    auto ctx = ostrany();
    qvn_diversify_params got;
    std::memset(&got, 0xab, sizeof got);
    ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &got), 0);
    EXPECT_TRUE(same(got, d));
    EXPECT_EQ(ctx->diversify, nullptr) << "reading the parameters creates no state";
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx.get())));
    EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(ctx.get())));
}

TEST(DiversifyParams, StateStartsDisabledWithDefaults) {
    qvni_diversify_state *s = qvni_diversify_state_create();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->enabled, 0u);
    EXPECT_TRUE(same(s->params, defaults()));
    EXPECT_TRUE(std::isnan(s->dq_current));
    EXPECT_EQ(s->dq_history, nullptr);
    EXPECT_EQ(s->dq_count, 0u);
    EXPECT_EQ(s->overhead_count, 0u);
    qvni_diversify_state_destroy(s);
    qvni_diversify_state_destroy(nullptr);
}

TEST(DiversifyParams, OutOfRangeFieldsAreRefusedAndChangeNothing) {
    struct Case {
        const char *name;
        void (*edit)(qvn_diversify_params &);
        bool valid;
    };
    const Case cases[] = {
        {"dq_window 0", [](qvn_diversify_params &p) { p.dq_window = 0; }, false},
        {"dq_window 33", [](qvn_diversify_params &p) { p.dq_window = 33; }, false},
        {"dq_window top bit", [](qvn_diversify_params &p) { p.dq_window = 0x80000001u; }, false},
        {"dq_target 0", [](qvn_diversify_params &p) { p.dq_target = 0.0; }, false},
        {"dq_target 2", [](qvn_diversify_params &p) { p.dq_target = 2.0; }, false},
        {"dq_target -0.1", [](qvn_diversify_params &p) { p.dq_target = -0.1; }, false},
        {"dq_target NaN", [](qvn_diversify_params &p) { p.dq_target = kNaN; }, false},
        {"dq_target -inf", [](qvn_diversify_params &p) { p.dq_target = -kInf; }, false},
        {"shadow_sigma -0.5", [](qvn_diversify_params &p) { p.shadow_sigma = -0.5; }, false},
        {"shadow_sigma NaN", [](qvn_diversify_params &p) { p.shadow_sigma = kNaN; }, false},
        {"shadow_sigma inf", [](qvn_diversify_params &p) { p.shadow_sigma = kInf; }, false},
        {"strength inf", [](qvn_diversify_params &p) { p.repulsion_strength = kInf; }, false},
        {"strength NaN", [](qvn_diversify_params &p) { p.repulsion_strength = kNaN; }, false},
        {"strength -1e-300", [](qvn_diversify_params &p) { p.repulsion_strength = -1e-300; }, false},
        {"shadow_capacity 0", [](qvn_diversify_params &p) { p.shadow_capacity = 0; }, false},
        {"shadow_capacity 1025", [](qvn_diversify_params &p) { p.shadow_capacity = 1025; }, false},
        {"aux_capacity 0", [](qvn_diversify_params &p) { p.aux_capacity = 0; }, false},
        {"aux_capacity 1025", [](qvn_diversify_params &p) { p.aux_capacity = 1025; }, false},
        {"dq_window 1", [](qvn_diversify_params &p) { p.dq_window = 1; }, true},
        {"dq_window 32", [](qvn_diversify_params &p) { p.dq_window = 32; }, true},
        {"dq_target 1.999", [](qvn_diversify_params &p) { p.dq_target = 1.999; }, true},
        {"dq_target tiny", [](qvn_diversify_params &p) { p.dq_target = 5e-324; }, true},
        {"sigma and strength 0",
         [](qvn_diversify_params &p) { p.shadow_sigma = 0.0; p.repulsion_strength = 0.0; }, true},
        {"-0.0 strength", [](qvn_diversify_params &p) { p.repulsion_strength = -0.0; }, true},
        {"capacities 1", [](qvn_diversify_params &p) { p.shadow_capacity = p.aux_capacity = 1; }, true},
        {"capacities 1024",
         [](qvn_diversify_params &p) { p.shadow_capacity = p.aux_capacity = 1024; }, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        qvn_diversify_params p = defaults();
        c.edit(p);
        EXPECT_EQ(qvni_diversify_params_validate(&p), c.valid ? 0 : -1);

        // Without a state: a refusal creates none.
        auto fresh = ostrany();
        EXPECT_EQ(qvn_diversify_set_params(fresh.get(), &p), c.valid ? 0 : -1);
        EXPECT_EQ(fresh->diversify != nullptr, c.valid);

        // With a state: a refusal keeps the stored record.
        auto ctx = ostrany();
        qvn_diversify_params stored = defaults();
        stored.dq_window = 9;
        stored.repulsion_strength = 0.5;
        ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &stored), 0);
        EXPECT_EQ(qvn_diversify_set_params(ctx.get(), &p), c.valid ? 0 : -1);
        qvn_diversify_params got;
        ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &got), 0);
        EXPECT_TRUE(same(got, c.valid ? p : stored));
        EXPECT_EQ(ctx->errmsg[0], '\0');
    }
    EXPECT_EQ(qvni_diversify_params_validate(nullptr), -1);
}

TEST(DiversifyApi, RefusesNullAndMinimalContexts) {
    ctx_ptr minimal(qvn_new_minimal());
    ASSERT_TRUE(minimal);
    qvn_diversify_params p = defaults();
    for (qvn_context *ctx : {static_cast<qvn_context *>(nullptr), minimal.get()}) {
        SCOPED_TRACE(ctx ? "minimal" : "null");
        EXPECT_EQ(qvn_diversify_enable(ctx), QVN_ERR_INVALID);
        EXPECT_EQ(qvn_diversify_disable(ctx), QVN_ERR_INVALID);
        EXPECT_EQ(qvn_diversify_set_params(ctx, &p), QVN_ERR_INVALID);
        EXPECT_EQ(qvn_diversify_get_params(ctx, &p), QVN_ERR_INVALID);
        EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx)));
        EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(ctx)));
        EXPECT_EQ(qvn_feedback_report(ctx, 1, QVN_FEEDBACK_FULL, 0), QVN_ERR_INVALID);
        EXPECT_EQ(qvn_feedback_report(ctx, 1, QVN_FEEDBACK_NEGATIVE, 0), QVN_ERR_INVALID);
    }
    EXPECT_EQ(minimal->diversify, nullptr);
    EXPECT_EQ(minimal->truth, nullptr);
    EXPECT_EQ(minimal->shadow, nullptr);
    EXPECT_STREQ(qvn_last_error(minimal.get()), "");
    // A minimal Context carrying state (which no call gives it) still refuses.
    minimal->diversify = qvni_diversify_state_create();
    minimal->diversify->enabled = 1;
    minimal->diversify->dq_current = 0.5;
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(minimal.get())));

    auto ctx = ostrany();
    EXPECT_EQ(qvn_diversify_set_params(ctx.get(), nullptr), QVN_ERR_INVALID);
    EXPECT_EQ(qvn_diversify_get_params(ctx.get(), nullptr), QVN_ERR_INVALID);
    EXPECT_EQ(ctx->diversify, nullptr);
}

TEST(DiversifyApi, DisableWithoutStateCreatesNothing) {
    auto ctx = ostrany();
    EXPECT_EQ(qvn_diversify_disable(ctx.get()), 0);
    EXPECT_EQ(ctx->diversify, nullptr);
}

TEST(DiversifyApi, SetParamsCreatesADisabledState) {
    auto ctx = ostrany();
    qvn_diversify_params p = defaults();
    p.dq_window = 2;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    ASSERT_NE(ctx->diversify, nullptr);
    EXPECT_EQ(ctx->diversify->enabled, 0u);
    // Bookkeeping done while disabled is not visible until enabled.
    const double a[] = {1, 0}, b[] = {0, 1};
    qvni_dq_push(ctx->diversify, a, 1, 2);
    qvni_dq_push(ctx->diversify, b, 1, 2);
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx.get())));
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 1.0);
}

TEST(DiversifyApi, TogglingKeepsHistorySamplesAndTables) {
    auto ctx = ostrany();
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    qvni_diversify_state *s = ctx->diversify;
    const double a[] = {1, 0}, b[] = {-1, 0};
    qvni_dq_push(s, a, 1, 2);
    qvni_dq_push(s, b, 1, 2);
    for (int i = 1; i <= 1000; ++i) qvni_overhead_push(s, i);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 3, QVN_FEEDBACK_NEGATIVE, 0), 0);
    EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 2.0);
    EXPECT_EQ(qvn_diversify_overhead_p99_us(ctx.get()), 991.0);

    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(qvn_diversify_disable(ctx.get()), 0);
        EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx.get())));
        EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(ctx.get())));
        ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
        EXPECT_EQ(ctx->diversify, s) << "the state is never replaced";
        EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 2.0);
        EXPECT_EQ(qvn_diversify_overhead_p99_us(ctx.get()), 991.0);
        EXPECT_EQ(qvni_shadow_count(ctx->shadow), 1u);
    }

    // New parameters leave history, dq value, samples and tables alone.
    qvn_diversify_params p = defaults();
    p.dq_window = 3;
    p.shadow_capacity = 7;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    EXPECT_EQ(s->dq_count, 2u);
    EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 2.0);
    EXPECT_EQ(qvn_diversify_overhead_p99_us(ctx.get()), 991.0);
    EXPECT_EQ(ctx->shadow->capacity, 64u);
    EXPECT_EQ(ctx->errmsg[0], '\0');
}

TEST(DiversifyApi, AllocationFailureLeavesNoState) {
    {
        auto ctx = ostrany();
        {
            qvn_test::AllocFailGuard fail(1);
            EXPECT_EQ(qvn_diversify_enable(ctx.get()), QVN_ERR_NOMEM);
        }
        EXPECT_EQ(ctx->diversify, nullptr);
        EXPECT_EQ(qvn_diversify_enable(ctx.get()), 0);
        EXPECT_EQ(ctx->diversify->enabled, 1u);
    }
    {
        auto ctx = ostrany();
        qvn_diversify_params p = defaults();
        p.dq_window = 7;
        {
            qvn_test::AllocFailGuard fail(1);
            EXPECT_EQ(qvn_diversify_set_params(ctx.get(), &p), QVN_ERR_NOMEM);
        }
        EXPECT_EQ(ctx->diversify, nullptr);
        qvn_diversify_params got;
        ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &got), 0);
        EXPECT_TRUE(same(got, defaults()));
        EXPECT_EQ(ctx->errmsg[0], '\0');
    }
}
