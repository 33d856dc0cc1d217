#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorvane.h"
#include "reasoning_support.h"

using qvn_test::HostState;
using qvn_test::PinnedPlugin;
using qvn_test::text_of;

namespace {

constexpr size_t kMax = 1073741824;  // 2^30

bool all_bytes(const qvn_ai_response &r, unsigned char value) {
    unsigned char raw[sizeof r];
    std::memcpy(raw, &r, sizeof r);
    for (unsigned char b : raw)
        if (b != value) return false;
    return true;
}

qvn_ai_response filled_with(unsigned char value) {
    qvn_ai_response r;
    std::memset(&r, value, sizeof r);
    return r;
}

}  // namespace

// Argument and size checks come before anything else, in a fixed order,
// and leave the response record as the caller left it.
TEST(DispatchAi, ChecksRunInOrderAndLeaveTheRecordAlone) {
    HostState host;
    const reasoning_vfs table = qvn_test::host_table(&host);
    qvn_context *with_table = qvn_new_ostrany(nullptr, &table);
    qvn_context *minimal = qvn_new_minimal();
    qvn_context *bare_ostrany = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_TRUE(with_table && minimal && bare_ostrany);

    const char q[] = "q";
    const char c[] = "c";
    const std::string invalid = "quorvane: invalid arguments to qvn_dispatch_ai";
    const std::string none = "quorvane: no reasoning VFS attached to ctx";
    struct Case {
        const char *name;
        qvn_context *ctx;
        const char *query;
        size_t query_len;
        const char *context;
        size_t context_len;
        bool response;
        int32_t rc;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"null query", with_table, nullptr, 1, c, 1, true, -1, invalid},
        {"empty query", with_table, q, 0, c, 1, true, -1, invalid},
        {"null response", with_table, q, 1, c, 1, false, -1, invalid},
        {"null query before missing table", minimal, nullptr, 1, nullptr, 0, true, -1, invalid},
        {"no table", minimal, q, 1, c, 1, true, -46, none},
        {"no table on ostrany", bare_ostrany, q, 1, nullptr, 0, true, -46, none},
        {"missing table before size", minimal, q, kMax + 1, c, kMax + 1, true, -46, none},
        {"query one over", with_table, q, kMax + 1, c, kMax + 1, true, -1,
         "quorvane: query_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824"},
        {"query far over", with_table, q, SIZE_MAX, nullptr, 0, true, -1,
         "quorvane: query_len 18446744073709551615 exceeds QVN_MAX_INPUT_BYTES 1073741824"},
        {"context one over", with_table, q, kMax, c, kMax + 1, true, -1,
         "quorvane: context_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        qvn_ai_response r = filled_with(0xA5);
        const int32_t rc = qvn_dispatch_ai(k.ctx, k.query, k.query_len, k.context,
                                           k.context_len, k.response ? &r : nullptr);
        EXPECT_EQ(rc, k.rc);
        EXPECT_EQ(qvn_last_error(k.ctx), k.message);
        EXPECT_TRUE(all_bytes(r, 0xA5));
    }
    EXPECT_EQ(host.format_calls, 0);

    qvn_ai_response r = filled_with(0xA5);
    EXPECT_EQ(qvn_dispatch_ai(nullptr, q, 1, c, 1, &r), QVN_ERR_INVALID);
    EXPECT_TRUE(all_bytes(r, 0xA5));

    qvn_free(with_table);
    qvn_free(minimal);
    qvn_free(bare_ostrany);
}

// The limits are inclusive. format_prompt only records what it receives,
// so a one-byte buffer can stand for 2^30 bytes.
TEST(DispatchAi, LimitsAreInclusiveAndContextDefaultsToEmpty) {
    const char q[] = "q";
    const char c[] = "c";
    struct Case {
        const char *name;
        size_t query_len;
        const char *context;
        size_t context_len;
        const char *seen_context;  // nullptr: expect the empty string
        size_t seen_context_len;
    };
    const std::vector<Case> cases = {
        {"query at limit", kMax, c, 1, c, 1},
        {"context at limit", 1, c, kMax, c, kMax},
        {"both at limit", kMax, c, kMax, c, kMax},
        {"null context, huge length", 1, nullptr, SIZE_MAX, nullptr, 0},
        {"null context, over limit", kMax, nullptr, kMax + 1, nullptr, 0},
        {"given empty context", 1, c, 0, c, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        HostState host;
        const reasoning_vfs table = qvn_test::host_table(&host);
        qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
        ASSERT_NE(ctx, nullptr);
        qvn_ai_response r{};
        EXPECT_EQ(qvn_dispatch_ai(ctx, q, k.query_len, k.context, k.context_len, &r), 0);
        EXPECT_EQ(host.seen_query, q);
        EXPECT_EQ(host.seen_query_len, k.query_len);
        if (k.seen_context) {
            EXPECT_EQ(host.seen_context, k.seen_context);
        } else {
            ASSERT_NE(host.seen_context, nullptr);
            EXPECT_EQ(host.seen_context[0], '\0');
        }
        EXPECT_EQ(host.seen_context_len, k.seen_context_len);
        EXPECT_EQ(text_of(r), "generated");
        qvn_ai_response_free(&r);
        qvn_free(ctx);
    }
}

TEST(DispatchAi, SuccessFillsTheRecordAndKeepsTheMessage) {
    HostState host;
    host.with_free_fn = true;
    const reasoning_vfs table = qvn_test::host_table(&host);
    qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(ctx, nullptr);
    qvn_ai_response r = filled_with(0xA5);
    ASSERT_EQ(qvn_dispatch_ai(ctx, nullptr, 0, nullptr, 0, &r), QVN_ERR_INVALID);

    ASSERT_EQ(qvn_dispatch_ai(ctx, "query", 5, "ctx", 3, &r), 0);
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: invalid arguments to qvn_dispatch_ai");
    // generate receives exactly the prompt format_prompt produced.
    EXPECT_EQ(host.seen_prompt, host.prompt);
    EXPECT_EQ(host.seen_prompt_len, std::strlen(host.prompt));
    EXPECT_EQ(r.text, host.fixed_text);
    EXPECT_EQ(r.text_len, std::strlen(host.fixed_text));
    EXPECT_EQ(r.reserved, 0);
    EXPECT_EQ(r.free_fn, &qvn_test::host_release);
    qvn_ai_response_free(&r);
    qvn_free(ctx);
}

// Past the checks the record is zeroed first, and stays zero on failure.
TEST(DispatchAi, OperationFailuresZeroTheRecord) {
    struct Case {
        const char *name;
        int32_t format_rc;
        bool give_prompt;
        int32_t generate_rc;
        bool give_text;
        int generate_calls;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"format fails", 4, true, 0, true, 0,
         "quorvane: reasoning_vfs.format_prompt failed (rc=4)"},
        {"format fails without prompt", -9, false, 0, true, 0,
         "quorvane: reasoning_vfs.format_prompt failed (rc=-9)"},
        {"format yields no prompt", 0, false, 0, true, 0,
         "quorvane: reasoning_vfs.format_prompt failed (rc=0)"},
        {"generate fails, keeping its text", 0, true, 6, true, 1,
         "quorvane: reasoning_vfs.generate failed (rc=6)"},
        {"generate fails without text", 0, true, -2, false, 1,
         "quorvane: reasoning_vfs.generate failed (rc=-2)"},
        {"generate yields no text", 0, true, 0, false, 1,
         "quorvane: reasoning_vfs.generate failed (rc=0)"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        HostState host;
        host.format_rc = k.format_rc;
        host.give_prompt = k.give_prompt;
        host.generate_rc = k.generate_rc;
        host.give_text = k.give_text;
        host.with_free_fn = true;  // text the library must never free()
        const reasoning_vfs table = qvn_test::host_table(&host);
        qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
        ASSERT_NE(ctx, nullptr);
        qvn_ai_response r = filled_with(0xA5);
        EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, "c", 1, &r), QVN_ERR_EXTERNAL);
        EXPECT_EQ(qvn_last_error(ctx), k.message);
        EXPECT_EQ(host.format_calls, 1);
        EXPECT_EQ(host.generate_calls, k.generate_calls);
        EXPECT_TRUE(all_bytes(r, 0));
        qvn_ai_response_free(&r);
        EXPECT_EQ(host.release_calls, 0);
        qvn_free(ctx);
    }
}

TEST(DispatchAi, TableWithoutOperationsFailsCleanly) {
    reasoning_vfs table{};
    table.abi_version = 1;
    qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(ctx, nullptr);
    qvn_ai_response r = filled_with(0xA5);
    EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), QVN_ERR_EXTERNAL);
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: reasoning_vfs.format_prompt failed (rc=0)");
    EXPECT_TRUE(all_bytes(r, 0));
    qvn_free(ctx);
}

TEST(AiResponseFree, ReleaseFunctionRunsOnceAndReplacesFree) {
    HostState host;
    host.with_free_fn = true;
    const reasoning_vfs table = qvn_test::host_table(&host);
    qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(ctx, nullptr);
    qvn_ai_response r{};
    ASSERT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), 0);

    qvn_ai_response_free(&r);
    EXPECT_EQ(host.release_calls, 1);
    EXPECT_EQ(host.released_record, &r);
    EXPECT_EQ(host.released_text, host.fixed_text);
    EXPECT_TRUE(all_bytes(r, 0));
    qvn_ai_response_free(&r);
    EXPECT_EQ(host.release_calls, 1);
    qvn_free(ctx);
}

TEST(AiResponseFree, TextWithoutReleaseFunctionGoesToFree) {
    HostState host;
    const reasoning_vfs table = qvn_test::host_table(&host);
    qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(ctx, nullptr);
    qvn_ai_response r{};
    ASSERT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), 0);
    EXPECT_EQ(r.free_fn, nullptr);
    // The sanitizer build reports the text as leaked if it is not freed,
    // and a second free() as a double free.
    qvn_ai_response_free(&r);
    EXPECT_EQ(r.text, nullptr);
    EXPECT_EQ(r.text_len, 0u);
    qvn_ai_response_free(&r);
    qvn_ai_response_free(nullptr);
    qvn_free(ctx);
}

// The same paths through real plug-ins: their own release function or the
// standard free, and their failures.
TEST(DispatchAi, ThroughLoadedPlugins) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    PinnedPlugin b(QVN_PLUGIN_GOOD_B);
    PinnedPlugin gen(QVN_PLUGIN_GENERATE_FAILS);
    PinnedPlugin fmt(QVN_PLUGIN_FORMAT_NO_PROMPT);
    ASSERT_TRUE(a.ok() && b.ok() && gen.ok() && fmt.ok());
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);

    ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
    qvn_ai_response r{};
    ASSERT_EQ(qvn_dispatch_ai(ctx, "hello", 5, "world", 5, &r), 0);
    EXPECT_EQ(text_of(r), "A:hello|world");
    EXPECT_NE(r.free_fn, nullptr);
    qvn_ai_response_free(&r);
    qvn_ai_response_free(&r);
    EXPECT_EQ(a.stats().free_calls, 1);

    ASSERT_EQ(qvn_load_reasoning(ctx, b.c_path()), 0);
    ASSERT_EQ(qvn_dispatch_ai(ctx, "hello", 5, nullptr, SIZE_MAX, &r), 0);
    EXPECT_EQ(text_of(r), "B:hello|");
    EXPECT_EQ(b.stats().last_context_len, 0u);
    EXPECT_EQ(b.stats().last_context_was_empty, 1);
    EXPECT_EQ(r.free_fn, nullptr);
    qvn_ai_response_free(&r);

    ASSERT_EQ(qvn_load_reasoning(ctx, gen.c_path()), 0);
    r = filled_with(0xA5);
    EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), QVN_ERR_EXTERNAL);
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: reasoning_vfs.generate failed (rc=3)");
    EXPECT_EQ(gen.stats().generate_calls, 1);
    EXPECT_TRUE(all_bytes(r, 0));
    qvn_ai_response_free(&r);

    ASSERT_EQ(qvn_load_reasoning(ctx, fmt.c_path()), 0);
    r = filled_with(0xA5);
    EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, "c", 1, &r), QVN_ERR_EXTERNAL);
    EXPECT_STREQ(qvn_last_error(ctx), "quorvane: reasoning_vfs.format_prompt failed (rc=0)");
    EXPECT_EQ(fmt.stats().format_calls, 1);
    EXPECT_EQ(fmt.stats().generate_calls, 0);
    EXPECT_TRUE(all_bytes(r, 0));
    qvn_free(ctx);
}

// A host table written in C++ may throw; the exception must end as a -5
// with the operation's message, never unwind through the C entry point.
TEST(DispatchAi, ThrowingHostOperationsBecomeFailures) {
    struct Throwing {
        static int32_t format(void *, const char *, size_t, const char *, size_t,
                              const char **, size_t *) {
            throw std::runtime_error("format");
        }
        static int32_t format_ok(void *, const char *q, size_t n, const char *, size_t,
                                 const char **p, size_t *pn) {
            *p = q;
            *pn = n;
            return 0;
        }
        static int32_t generate(void *, const char *, size_t, char **, size_t *,
                                qvn_response_free_fn *) {
            throw 42;
        }
        static void release(void *) { throw std::runtime_error("release"); }
    };
    const storage_vfs storage{nullptr, nullptr, nullptr, Throwing::release};
    for (bool fail_in_format : {true, false}) {
        SCOPED_TRACE(fail_in_format);
        const reasoning_vfs table{nullptr, 1, 0,
                                  fail_in_format ? Throwing::format : Throwing::format_ok,
                                  Throwing::generate};
        qvn_context *ctx = qvn_new_ostrany(&storage, &table);
        ASSERT_NE(ctx, nullptr);
        qvn_ai_response r;
        EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), QVN_ERR_EXTERNAL);
        EXPECT_STREQ(qvn_last_error(ctx),
                     fail_in_format ? "quorvane: reasoning_vfs.format_prompt failed (rc=-1)"
                                    : "quorvane: reasoning_vfs.generate failed (rc=-1)");
        EXPECT_EQ(r.text, nullptr);
        qvn_free(ctx);  // the throwing release is contained
    }
}
