#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <string>

#include "core/context.h"
#include "quorvane.h"
#include "support/alloc_fail.h"

namespace {

struct ReleaseLog {
    int calls = 0;
    void *last_state = nullptr;
};
ReleaseLog g_release;
void count_release(void *state) {
    ++g_release.calls;
    g_release.last_state = state;
}

int32_t no_prompt(void *, const char *, size_t, const char *, size_t, const char **,
                  size_t *) {
    return 0;
}

}  // namespace

TEST(Context, MinimalStartsEmptyWithExactSeedWord) {
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    // A 53-bit integer, never 0, so the double holds it exactly.
    EXPECT_GE(ctx->seed, 1.0);
    EXPECT_LT(ctx->seed, 9007199254740992.0);
    EXPECT_EQ(ctx->seed, std::floor(ctx->seed));
    EXPECT_EQ(ctx->ostrany_mode, 0);
    EXPECT_EQ(ctx->epoch, 0u);
    EXPECT_EQ(ctx->entropy.is_ready, 0u);
    EXPECT_EQ(ctx->result_buf, nullptr);
    EXPECT_STREQ(qvn_last_error(ctx), "");
    qvn_free(ctx);
}

TEST(Context, SeedWordMixesTimeClockAndAddress) {
    // seed = low 53 bits of (time << 32) ^ clock ^ address. Undo the time
    // and address terms and the rest must be a clock reading taken during
    // the call.
    const uint64_t mask = 0x1fffffffffffffULL;
    const uint64_t t0 = static_cast<uint64_t>(std::time(nullptr));
    const uint64_t c0 = static_cast<uint64_t>(std::clock());
    qvn_context *ctx = qvn_new_minimal();
    const uint64_t c1 = static_cast<uint64_t>(std::clock());
    const uint64_t t1 = static_cast<uint64_t>(std::time(nullptr));
    ASSERT_NE(ctx, nullptr);
    const auto seed = static_cast<uint64_t>(ctx->seed);
    const auto addr = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ctx));
    bool matched = false;
    for (uint64_t t = t0; t <= t1 && !matched; ++t) {
        const uint64_t c = (seed ^ (t << 32) ^ addr) & mask;
        matched = c >= (c0 & mask) && c <= (c1 & mask);
    }
    EXPECT_TRUE(matched) << "seed " << seed;
    qvn_free(ctx);
}

TEST(Context, OstranyCopiesTablesByValue) {
    int storage_state = 0, reasoning_state = 0;
    storage_vfs storage{&storage_state, (void *)0x1, (void *)0x2, count_release};
    reasoning_vfs reasoning{&reasoning_state, 1, 0, no_prompt, nullptr};
    g_release = {};
    qvn_context *ctx = qvn_new_ostrany(&storage, &reasoning);
    ASSERT_NE(ctx, nullptr);
    // Changing the caller's copies afterwards does not reach the Context.
    storage.state = nullptr;
    reasoning.state = nullptr;
    EXPECT_EQ(ctx->storage_vfs.state, &storage_state);
    EXPECT_EQ(ctx->storage_vfs.slot1, (void *)0x1);
    EXPECT_EQ(ctx->reasoning_vfs.state, &reasoning_state);
    EXPECT_EQ(ctx->reasoning_vfs.format_prompt, no_prompt);
    EXPECT_EQ(ctx->has_storage, 1);
    EXPECT_EQ(ctx->has_reasoning, 1);
    EXPECT_EQ(ctx->ostrany_mode, 1);
    EXPECT_EQ(ctx->epoch, 1u);
    EXPECT_EQ(g_release.calls, 0);
    qvn_free(ctx);
    EXPECT_EQ(g_release.calls, 1);
    EXPECT_EQ(g_release.last_state, &storage_state);
}

TEST(Context, OstranyWithoutTables) {
    qvn_context *ctx = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->has_storage, 0);
    EXPECT_EQ(ctx->has_reasoning, 0);
    EXPECT_EQ(ctx->epoch, 1u);
    EXPECT_EQ(qvni_epoch_get(&ctx->epoch), 1u);
    EXPECT_EQ(qvni_epoch_get(nullptr), 0u);
    qvn_free(ctx);
}

TEST(Context, WrongReasoningAbiDestroysContextAndReleasesStorage) {
    int storage_state = 0;
    const storage_vfs storage{&storage_state, nullptr, nullptr, count_release};
    for (int32_t abi : {0, 2, -1}) {
        SCOPED_TRACE(abi);
        const reasoning_vfs reasoning{nullptr, abi, 0, nullptr, nullptr};
        g_release = {};
        EXPECT_EQ(qvn_new_ostrany(&storage, &reasoning), nullptr);
        EXPECT_EQ(g_release.calls, 1);
        EXPECT_EQ(g_release.last_state, &storage_state);
        EXPECT_EQ(qvn_new_ostrany(nullptr, &reasoning), nullptr);
    }
    // A storage table without a release operation is simply dropped.
    const storage_vfs no_release{&storage_state, nullptr, nullptr, nullptr};
    const reasoning_vfs bad{nullptr, 2, 0, nullptr, nullptr};
    EXPECT_EQ(qvn_new_ostrany(&no_release, &bad), nullptr);
}

TEST(Context, ConstructorsReturnNullWhenMemoryRunsOut) {
    qvn_test::AllocFailGuard guard(1);
    EXPECT_EQ(qvn_new_minimal(), nullptr);
    qvn_test::fail_allocation(1);
    g_release = {};
    const storage_vfs storage{nullptr, nullptr, nullptr, count_release};
    EXPECT_EQ(qvn_new_ostrany(&storage, nullptr), nullptr);
    EXPECT_EQ(g_release.calls, 0);  // no Context was built to own it
}

TEST(Context, NullAndRepeatedReleaseAreHarmless) {
    qvn_free(nullptr);
    qvn_release(nullptr);
    qvn_free_string(nullptr);
    EXPECT_STREQ(qvn_last_error(nullptr), "");
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    ctx->result_buf = static_cast<char *>(std::malloc(64));
    ctx->result_cap = 64;
    ctx->result_len = 10;
    qvn_release(ctx);
    EXPECT_EQ(ctx->result_buf, nullptr);
    EXPECT_EQ(ctx->result_cap, 0u);
    EXPECT_EQ(ctx->result_len, 0u);
    qvn_release(ctx);
    qvn_free(ctx);
    qvn_free_string(strdup("owned by the caller"));
}

TEST(Context, MessagesAreCutAt511Characters) {
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    const std::string tail(600, 'x');
    set_err(ctx, "quorvane: %s", tail.c_str());
    const std::string msg = qvn_last_error(ctx);
    EXPECT_EQ(msg.size(), 511u);
    EXPECT_EQ(msg.rfind("quorvane: xxx", 0), 0u);
    set_err(ctx, "quorvane: short %d", 7);
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: short 7");
    set_err(nullptr, "ignored");
    qvn_free(ctx);
}

TEST(Context, LastErrorReplacesControlBytesExceptTab) {
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    set_err(ctx, "quorvane: a\nb\tc\x01\x1f d\x7f\xc3\xa9");
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: a?b\tc?? d\x7f\xc3\xa9");
    // The rewrite is in place and stable.
    EXPECT_STREQ(ctx->errmsg, "quorvane: a?b\tc?? d\x7f\xc3\xa9");
    EXPECT_STREQ(qvn_last_error(ctx), ctx->errmsg);
    qvn_free(ctx);
}
