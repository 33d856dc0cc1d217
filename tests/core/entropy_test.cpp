#include <gtest/gtest.h>

#include "core/context.h"
#include "quorvane.h"

TEST(Entropy, NewOstranyContextReportsDefaultSource) {
    qvn_context *ctx = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(qvn_entropy_active_source(ctx), 1u);
    EXPECT_EQ(ctx->entropy.requested_source, 0u);
    qvn_free(ctx);
}

TEST(Entropy, SourcesAndRejection) {
    qvn_context *ctx = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_NE(ctx, nullptr);
    struct Case {
        uint32_t source;
        uint64_t value;
        int32_t rc;
        uint32_t active;
    } cases[] = {{7, 5, -1, 0}, {2, 0, 0, 2}, {0, 9, 0, 1}, {1, 0, 0, 1},
                 {3, 42, 0, 3}, {0xffffffffu, 1, -1, 0}, {4, 0, -1, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.source);
        EXPECT_EQ(qvn_entropy_set_source(ctx, c.source, c.value), c.rc);
        EXPECT_EQ(qvn_entropy_active_source(ctx), c.active);
        EXPECT_EQ(ctx->entropy.requested_source, c.source);
        EXPECT_EQ(ctx->entropy.is_fixed, c.source == 3 ? 1u : 0u);
        EXPECT_EQ(ctx->entropy.fixed_value, c.source == 3 ? c.value : 0u);
    }
    EXPECT_STREQ(qvn_last_error(ctx), "");  // no message for any of these
    qvn_free(ctx);
}

TEST(Entropy, RefusesMinimalAndNullContexts) {
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(qvn_entropy_set_source(ctx, 1, 0), -1);
    EXPECT_EQ(qvn_entropy_active_source(ctx), 0u);
    EXPECT_EQ(ctx->entropy.is_ready, 0u);  // untouched
    EXPECT_EQ(qvn_entropy_set_source(nullptr, 1, 0), -1);
    EXPECT_EQ(qvn_entropy_active_source(nullptr), 0u);
    qvn_free(ctx);
}

TEST(Entropy, KernelRejectsNullRecord) {
    EXPECT_EQ(qvni_entropy_init(nullptr, 1, 0), -1);
    EXPECT_EQ(qvni_entropy_active(nullptr), 0u);
}
