#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "search/search.h"
#include "support/alloc_fail.h"

namespace {

struct Ctx {
    Ctx() : p(qvn_new_minimal()) {}
    ~Ctx() { qvn_free(p); }
    qvn_context *p;
    std::string text(uint64_t len) const { return std::string(p->result_buf, len); }
};

}  // namespace

TEST(AppendNum, UsesSeventeenSignificantDigitsAndNullForNonFinite) {
    struct Case {
        double value;
        const char *text;
    };
    const Case cases[] = {
        {0.1, "0.10000000000000001"},
        {1.0, "1"},
        {1e21, "1e+21"},
        {-0.0, "-0"},
        {0.0, "0"},
        {123456789012345678.0, "1.2345678901234568e+17"},
        {std::numeric_limits<double>::quiet_NaN(), "null"},
        {-std::numeric_limits<double>::quiet_NaN(), "null"},
        {std::numeric_limits<double>::infinity(), "null"},
        {-std::numeric_limits<double>::infinity(), "null"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        Ctx ctx;
        uint64_t pos = 0;
        ASSERT_TRUE(append_num(ctx.p, &pos, nullptr, c.value));
        EXPECT_EQ(ctx.text(pos), c.text);
    }
}

TEST(AppendNum, WritesThePrefixFirstUnlessEmpty) {
    Ctx ctx;
    uint64_t pos = 0;
    ASSERT_TRUE(append_num(ctx.p, &pos, "", 1.5));
    ASSERT_TRUE(append_num(ctx.p, &pos, ",", 2.0));
    ASSERT_TRUE(append_num(ctx.p, &pos, ", ", std::nan("")));
    EXPECT_EQ(ctx.text(pos), "1.5,2, null");
}

TEST(EnsureResultCap, DoublesFrom512AndStopsAtTheCeiling) {
    Ctx ctx;
    EXPECT_TRUE(ensure_result_cap(ctx.p, 0));
    EXPECT_EQ(ctx.p->result_cap, 0u);
    EXPECT_TRUE(ensure_result_cap(ctx.p, 1));
    EXPECT_EQ(ctx.p->result_cap, 512u);
    EXPECT_TRUE(ensure_result_cap(ctx.p, 513));
    EXPECT_EQ(ctx.p->result_cap, 1024u);
    EXPECT_TRUE(ensure_result_cap(ctx.p, 1000));
    EXPECT_EQ(ctx.p->result_cap, 1024u);
    EXPECT_TRUE(ensure_result_cap(ctx.p, 5000));
    EXPECT_EQ(ctx.p->result_cap, 8192u);
    char *before = ctx.p->result_buf;
    EXPECT_FALSE(ensure_result_cap(ctx.p, QVN_RESULT_CAP_CEILING + 1));
    EXPECT_EQ(ctx.p->result_cap, 8192u);
    EXPECT_EQ(ctx.p->result_buf, before);
    // 8192 doubled past the need would be 128 MiB: capped at 100 MiB.
    EXPECT_TRUE(ensure_result_cap(ctx.p, QVN_RESULT_CAP_CEILING - 5));
    EXPECT_EQ(ctx.p->result_cap, QVN_RESULT_CAP_CEILING);
}

TEST(EnsureResultCap, FailedGrowthKeepsTheOldBuffer) {
    Ctx ctx;
    ASSERT_TRUE(ensure_result_cap(ctx.p, 10));
    ctx.p->result_buf[0] = 'x';
    char *before = ctx.p->result_buf;
    {
        qvn_test::AllocFailGuard guard(1);
        EXPECT_FALSE(ensure_result_cap(ctx.p, 600));
    }
    EXPECT_EQ(ctx.p->result_buf, before);
    EXPECT_EQ(ctx.p->result_cap, 512u);
    EXPECT_EQ(ctx.p->result_buf[0], 'x');
}

TEST(AppendFmt, GrowsByTheCapacityPlusTextPlusSlack) {
    Ctx ctx;
    uint64_t pos = 0;
    ASSERT_TRUE(append_fmt(ctx.p, &pos, "%s", "ab"));  // 0 + 2 + 64 -> 512
    EXPECT_EQ(ctx.p->result_cap, 512u);
    const std::string long_text(600, 'z');
    ASSERT_TRUE(append_fmt(ctx.p, &pos, "%s", long_text.c_str()));  // 512 + 600 + 64 -> 2048
    EXPECT_EQ(ctx.p->result_cap, 2048u);
    EXPECT_EQ(pos, 602u);
    EXPECT_EQ(ctx.text(pos), "ab" + long_text);
    EXPECT_EQ(ctx.p->result_buf[pos], '\0');
}

TEST(AppendFmt, TextThatExactlyFillsTheRoomStillGrows) {
    Ctx ctx;
    ASSERT_TRUE(ensure_result_cap(ctx.p, 1));
    uint64_t pos = 500;
    // 12 bytes leave no room for the NUL in 512: grow to 512 + 12 + 64 -> 1024.
    ASSERT_TRUE(append_fmt(ctx.p, &pos, "%s", "0123456789ab"));
    EXPECT_EQ(ctx.p->result_cap, 1024u);
    EXPECT_EQ(pos, 512u);
    EXPECT_EQ(std::string(ctx.p->result_buf + 500, 12), "0123456789ab");
}

TEST(AppendFmt, TextBeyondTheCeilingFailsWithoutGrowing) {
    Ctx ctx;
    uint64_t pos = 0;
    ASSERT_TRUE(append_fmt(ctx.p, &pos, "{"));
    // A field width makes the text longer than 100 MiB without a large buffer.
    EXPECT_FALSE(append_fmt(ctx.p, &pos, "%*d", int(QVN_RESULT_CAP_CEILING), 7));
    EXPECT_EQ(pos, 1u);
    EXPECT_EQ(ctx.p->result_cap, 512u);
}

TEST(AppendFmt, FailedGrowthReportsFailure) {
    Ctx ctx;
    uint64_t pos = 0;
    {
        qvn_test::AllocFailGuard guard(1);
        EXPECT_FALSE(append_fmt(ctx.p, &pos, "%d", 5));
    }
    EXPECT_EQ(pos, 0u);
    EXPECT_EQ(ctx.p->result_buf, nullptr);
    EXPECT_EQ(ctx.p->result_cap, 0u);
    const std::string text(700, 'q');
    ASSERT_TRUE(append_fmt(ctx.p, &pos, "%s", "abc"));
    {
        qvn_test::AllocFailGuard guard(1);
        EXPECT_FALSE(append_num(ctx.p, &pos, text.c_str(), 1.0));
    }
    EXPECT_EQ(pos, 3u);
    EXPECT_EQ(ctx.text(3), "abc");
}
