// Context life cycle, messages, the entropy setting and the identity strings.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <string>

#include "core/context.h"
#include "quorvane.h"
#include "support/alloc_fail.h"

namespace {
struct { int calls = 0; void *state = nullptr; } g_release;
void count_release(void *state) { ++g_release.calls, g_release.state = state; }
}  // namespace

// seed = low 53 bits of (time << 32) ^ clock ^ address: undoing the time and
// address terms must leave a clock reading taken during the call.
TEST(Context, MinimalContextAndSeedWord) {
    const uint64_t mask = 0x1fffffffffffffULL, t0 = std::time(nullptr), c0 = std::clock();
    qvn_context *ctx = qvn_new_minimal();
    const uint64_t c1 = std::clock(), t1 = std::time(nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(ctx->seed >= 1 && ctx->seed < 0x1p53 && ctx->seed == std::floor(ctx->seed));
    const auto seed = static_cast<uint64_t>(ctx->seed), addr = uint64_t(uintptr_t(ctx));
    bool matched = false;
    for (uint64_t t = t0; t <= t1 && !matched; ++t) {
        const uint64_t c = (seed ^ (t << 32) ^ addr) & mask;
        matched = c >= (c0 & mask) && c <= (c1 & mask);
    }
    EXPECT_TRUE(matched) << seed;
    EXPECT_TRUE(ctx->ostrany_mode == 0 && ctx->epoch == 0 && ctx->entropy.is_ready == 0);
    EXPECT_TRUE(qvn_entropy_set_source(ctx, 1, 0) == -1 && qvn_entropy_active_source(ctx) == 0);
    EXPECT_STREQ(qvn_last_error(ctx), "");
    qvn_free(ctx);
}

// Tables are copied by value; storage is released once, with its state, when
// the Context goes or a wrong reasoning ABI refuses it, never without one.
TEST(Context, OstranyTablesAndStorageRelease) {
    int s_state = 0, r_state = 0;
    storage_vfs storage{&s_state, nullptr, nullptr, count_release};
    reasoning_vfs reasoning{&r_state, 1, 0, nullptr, nullptr};
    qvn_context *ctx = qvn_new_ostrany(&storage, &reasoning);
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(ctx->storage_vfs.state == &s_state && ctx->reasoning_vfs.state == &r_state);
    EXPECT_TRUE(ctx->has_storage && ctx->has_reasoning && ctx->ostrany_mode && ctx->epoch == 1);
    EXPECT_EQ(g_release.calls, 0);
    qvn_free(ctx);
    EXPECT_TRUE(g_release.calls == 1 && g_release.state == &s_state);
    for (int32_t abi : {0, 2}) {
        reasoning.abi_version = abi, g_release = {};
        EXPECT_EQ(qvn_new_ostrany(&storage, &reasoning), nullptr);
        EXPECT_TRUE(g_release.calls == 1 && g_release.state == &s_state) << abi;
    }
    g_release = {};
    qvn_test::AllocFailGuard guard(1);
    EXPECT_EQ(qvn_new_ostrany(&storage, nullptr), nullptr);
    EXPECT_EQ(g_release.calls, 0);
    qvn_test::fail_allocation(1);
    EXPECT_EQ(qvn_new_minimal(), nullptr);
    storage.release = nullptr;  // a table without release is simply dropped
    EXPECT_EQ(qvn_new_ostrany(&storage, &reasoning), nullptr);
}

// qvn_release empties the result; messages are cut at 511 characters and
// control bytes but TAB become '?' in place; NULL arguments are harmless.
TEST(Context, ReleaseMessagesAndNullArguments) {
    qvn_free(nullptr);
    qvn_release(nullptr);
    qvn_free_string(nullptr);
    set_err(nullptr, "ignored");
    EXPECT_STREQ(qvn_last_error(nullptr), "");
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    ctx->result_buf = static_cast<char *>(std::malloc(64));
    ctx->result_cap = 64, ctx->result_len = 10;
    qvn_release(ctx);
    EXPECT_TRUE(ctx->result_buf == nullptr && ctx->result_cap == 0 && ctx->result_len == 0);
    qvn_release(ctx);
    set_err(ctx, "quorvane: %s", std::string(600, 'x').c_str());
    EXPECT_EQ(qvn_last_error(ctx), "quorvane: " + std::string(501, 'x'));
    set_err(ctx, "quorvane: a\nb\tc\x01\x1f d\x7f\xc3\xa9");
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: a?b\tc?? d\x7f\xc3\xa9");
    EXPECT_STREQ(ctx->errmsg, "quorvane: a?b\tc?? d\x7f\xc3\xa9");
    qvn_free(ctx);
    qvn_free_string(strdup("owned by the caller"));
}

// A refused request is still recorded and leaves no source; only 3 keeps its value.
TEST(Entropy, SourcesAndRefusals) {
    EXPECT_TRUE(qvn_entropy_set_source(nullptr, 1, 0) == -1 && !qvn_entropy_active_source(nullptr));
    qvn_context *ctx = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(qvn_entropy_active_source(ctx), 1u);
    struct Case { uint32_t source; uint64_t value; int32_t rc; uint32_t active; };
    for (const Case &c : {Case{0xffffffffu, 1, -1, 0}, Case{2, 7, 0, 2}, Case{0, 9, 0, 1},
                          Case{3, 42, 0, 3}, Case{4, 5, -1, 0}, Case{1, 8, 0, 1}}) {
        SCOPED_TRACE(c.source);
        EXPECT_EQ(qvn_entropy_set_source(ctx, c.source, c.value), c.rc);
        EXPECT_EQ(qvn_entropy_active_source(ctx), c.active);
        EXPECT_EQ(ctx->entropy.requested_source, c.source);
        EXPECT_EQ(ctx->entropy.fixed_value, c.source == 3 ? c.value : 0u);
    }
    EXPECT_STREQ(qvn_last_error(ctx), "");
    qvn_free(ctx);
}

TEST(Identity, StringsAreFixed) {
    EXPECT_STREQ(qvn_edition(), "Ambrel");
    EXPECT_STREQ(qvn_storage(), "Ostrany");
    EXPECT_STREQ(qvn_version(), "2.0.0");
    EXPECT_STREQ(qvn_abi_version(), qvn_version());
}
