#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "search/search.h"
#include "support/alloc_fail.h"

namespace {

// An exact-size heap copy with no terminator, so a read past the range is
// caught by the address sanitizer.
struct Bytes {
    explicit Bytes(const std::string &s) : len(s.size()), data(new char[s.size() ? s.size() : 1]) {
        std::memcpy(data.get(), s.data(), s.size());
    }
    size_t len;
    std::unique_ptr<char[]> data;
};

struct VectorResult {
    bool ok = false;
    std::vector<double> values;
    std::string msg;
};

VectorResult parse_vector(const std::string &text) {
    Bytes b(text);
    char msg[QVN_ERRMSG_SIZE] = "untouched";
    double *values = nullptr;
    size_t count = 0;
    VectorResult r;
    r.ok = parse_vector_csv(b.data.get(), b.len, &values, &count, msg);
    if (r.ok) {
        r.values.assign(values, values + count);
        std::free(values);
    }
    r.msg = msg;
    return r;
}

struct CorpusResult {
    bool ok = false;
    std::vector<std::vector<double>> rows;
    size_t dim = 0;
    bool rows_null = false;
    std::string msg;
};

CorpusResult parse_rows(const std::string &text, size_t expected_dim) {
    Bytes b(text);
    char msg[QVN_ERRMSG_SIZE] = "untouched";
    double *rows = reinterpret_cast<double *>(&msg);  // must be overwritten on success
    size_t n = 99, dim = 99;
    CorpusResult r;
    r.ok = parse_corpus(b.data.get(), b.len, expected_dim, &rows, &n, &dim, msg);
    if (r.ok) {
        r.rows_null = rows == nullptr;
        for (size_t i = 0; i < n; ++i) r.rows.emplace_back(rows + i * dim, rows + (i + 1) * dim);
        r.dim = dim;
        std::free(rows);
    }
    r.msg = msg;
    return r;
}

using Rows = std::vector<std::vector<double>>;

}  // namespace

TEST(ParseVector, AcceptsSeparatorsAndBracketsAnywhere) {
    const std::vector<double> one_two_three{1, 2, 3};
    for (const char *text : {"1,2,3", "[1 2 3]", "1\t2\n3", "[[1],[2],[3]]", " ,1,,2\r\n3,]",
                             "]]1[2[3[", "1 ,\t2 ] [ 3"}) {
        SCOPED_TRACE(text);
        const auto r = parse_vector(text);
        ASSERT_TRUE(r.ok) << r.msg;
        EXPECT_EQ(r.values, one_two_three);
    }
}

TEST(ParseVector, NumbersFollowTheConversionNotTheSeparators) {
    struct Case {
        const char *text;
        std::vector<double> expect;
    };
    const Case cases[] = {
        {"1-2", {1, -2}},
        {"1.5.5", {1.5, 0.5}},
        {"+3e2,-.25E-1", {300, -0.025}},
        {"0x1p3 0x.8", {8, 0.5}},
        {"\v7", {7}},           // leading vertical tab is absorbed by the conversion
        {"\f-1,\v\f2", {-1, 2}},
        {"1e308", {1e308}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const auto r = parse_vector(c.text);
        ASSERT_TRUE(r.ok) << r.msg;
        EXPECT_EQ(r.values, c.expect);
    }
}

TEST(ParseVector, InfinityAndNanWordsPassThroughInAnyCase) {
    const auto r = parse_vector("inf,-Infinity,NaN,nan(7),INF");
    ASSERT_TRUE(r.ok) << r.msg;
    ASSERT_EQ(r.values.size(), 5u);
    EXPECT_EQ(r.values[0], std::numeric_limits<double>::infinity());
    EXPECT_EQ(r.values[1], -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(r.values[2]));
    EXPECT_TRUE(std::isnan(r.values[3]));
    EXPECT_EQ(r.values[4], std::numeric_limits<double>::infinity());
}

TEST(ParseVector, FailuresReportTheirMessage) {
    struct Case {
        std::string text;
        const char *msg;
    };
    const Case cases[] = {
        {"", "quorvane: vector must have at least one element"},
        {"[ , ]\t\n", "quorvane: vector must have at least one element"},
        {std::string("\0 1", 3), "quorvane: vector must have at least one element"},
        {"1e999", "quorvane: value out of range"},
        {"1,-1e999", "quorvane: value out of range"},
        {"1e-400", "quorvane: value out of range"},
        {"0x1p99999", "quorvane: value out of range"},
        {"1;2", "quorvane: invalid number near ';2'"},
        {"[1, 2, x]", "quorvane: invalid number near 'x]'"},
        {"1 abcdefghijklmnopqrstuvwxyz", "quorvane: invalid number near 'abcdefghijklmnopqrst'"},
        {"in", "quorvane: invalid number near 'in'"},
        {"1,\v", "quorvane: invalid number near '\v'"},
        {"2 \f;", "quorvane: invalid number near '\f;'"},
        {"- 1", "quorvane: invalid number near '- 1'"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const auto r = parse_vector(c.text);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.msg, c.msg);
    }
}

TEST(ParseVector, NulInsideTheRangeEndsTheVector) {
    const auto r = parse_vector(std::string("1,2\0,3,x", 8));
    ASSERT_TRUE(r.ok) << r.msg;
    EXPECT_EQ(r.values, (std::vector<double>{1, 2}));
}

TEST(ParseVector, ReadsOnlyTheGivenBytes) {
    const char text[] = "1,2,39";
    double *values = nullptr;
    size_t count = 0;
    char msg[QVN_ERRMSG_SIZE];
    ASSERT_TRUE(parse_vector_csv(text, 5, &values, &count, msg));
    EXPECT_EQ(std::vector<double>(values, values + count), (std::vector<double>{1, 2, 3}));
    std::free(values);
}

TEST(ParseVector, GrowsPastTheFirstCapacity) {
    std::string text;
    std::vector<double> expect;
    for (int i = 0; i < 100; ++i) {
        text += std::to_string(i * 0.5) + (i % 3 ? "," : " ");
        expect.push_back(i * 0.5);
    }
    const auto r = parse_vector(text);
    ASSERT_TRUE(r.ok) << r.msg;
    EXPECT_EQ(r.values, expect);
}

TEST(ParseVector, AllocationFailuresFreeEverythingAndSayWhich) {
    std::string text;
    for (int i = 0; i < 40; ++i) text += "1,";
    const char *expected[] = {"quorvane: oom parsing vector", "quorvane: oom parsing vector",
                              "quorvane: oom growing vector", "quorvane: oom growing vector"};
    Bytes b(text);
    const size_t failing_runs = qvn_test::for_each_allocation_failure([&](size_t n) {
        char msg[QVN_ERRMSG_SIZE] = "";
        double *values = nullptr;
        size_t count = 7;
        const bool ok = parse_vector_csv(b.data.get(), b.len, &values, &count, msg);
        if (qvn_test::allocation_failed()) {
            EXPECT_FALSE(ok);
            EXPECT_STREQ(msg, expected[n - 1]);
            EXPECT_EQ(values, nullptr);
            EXPECT_EQ(count, 7u);
        } else {
            std::free(values);
        }
        return ok;
    });
    EXPECT_EQ(failing_runs, 4u);  // copy, first array, growth to 32, growth to 64
}

TEST(ParseCorpus, SplitsRowsOnSemicolonsOrOuterBrackets) {
    struct Case {
        const char *text;
        Rows expect;
    };
    const Case cases[] = {
        {"[[1,2],[3,4]]", {{1, 2}, {3, 4}}},
        {"1,2;3,4", {{1, 2}, {3, 4}}},
        {"1,2;;3,4;", {{1, 2}, {3, 4}}},
        {" \n[ [1,2] , [3,4] ] \n", {{1, 2}, {3, 4}}},
        {"[[1 2][3 4]]", {{1, 2}, {3, 4}}},
        {"[[1,2];[3,4]]", {{1, 2}, {3, 4}}},
        {"[[1,2],[3,4]", {{1, 2}, {3, 4}}},
        {"[[[1,2]],[[3,4]]]", {{1, 2}, {3, 4}}},
        {"[1,2],[3,4]", {{1, 2, 3, 4}}},
        {"1,2\n3,4", {{1, 2, 3, 4}}},
        {"[1,2];[3,4]", {{1, 2}, {3, 4}}},
        {"1;2;3", {{1}, {2}, {3}}},
        {"[[1,,2,],[,3,4]]", {{1, 2}, {3, 4}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const auto r = parse_rows(c.text, 0);
        ASSERT_TRUE(r.ok) << r.msg;
        EXPECT_EQ(r.rows, c.expect);
        EXPECT_EQ(r.dim, c.expect[0].size());
    }
}

TEST(ParseCorpus, TextWithoutNumbersGivesNoRows) {
    for (const char *text : {"", " \t\r\n", "[]", "[ ] [[ ]]", "[[", "]]", ";", " ; ;; ",
                             "[[;]]", ",,,", "[[],[]]"}) {
        SCOPED_TRACE(text);
        const auto r = parse_rows(text, 3);
        ASSERT_TRUE(r.ok) << r.msg;
        EXPECT_TRUE(r.rows.empty());
        EXPECT_TRUE(r.rows_null);
        EXPECT_EQ(r.dim, 3u);
    }
}

TEST(ParseCorpus, RowDimensionMustMatch) {
    struct Case {
        const char *text;
        size_t expected_dim;
        const char *msg;
    };
    const Case cases[] = {
        {"1,2;3", 2, "quorvane: corpus row 1 has dim 1, expected 2"},
        {"1,2,3", 2, "quorvane: corpus row 0 has dim 3, expected 2"},
        {"1,2;;3,4;5,6,7", 0, "quorvane: corpus row 2 has dim 3, expected 2"},
        {"[[1],[2,3]]", 0, "quorvane: corpus row 1 has dim 2, expected 1"},
        {"1,2;a,b", 2, "quorvane: invalid number near 'a,b'"},
        {"1,2;3,1e999", 2, "quorvane: value out of range"},
        {"[[1,2],[3;4]]", 2, "quorvane: corpus row 1 has dim 1, expected 2"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const auto r = parse_rows(c.text, c.expected_dim);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.msg, c.msg);
    }
}

TEST(ParseCorpus, NulInsideARowEndsThatRowOnly) {
    const auto r = parse_rows(std::string("1,2\0 9;3,4", 10), 2);
    ASSERT_TRUE(r.ok) << r.msg;
    EXPECT_EQ(r.rows, (Rows{{1, 2}, {3, 4}}));
    const auto empty = parse_rows(std::string("1,2;\0 9;3,4", 11), 2);
    EXPECT_FALSE(empty.ok);
    EXPECT_EQ(empty.msg, "quorvane: vector must have at least one element");
}

TEST(ParseCorpus, GrowsThroughManyRows) {
    std::string text = "[";
    Rows expect;
    for (int i = 0; i < 70; ++i) {
        text += "[" + std::to_string(i) + "," + std::to_string(-i) + ",0.5]";
        expect.push_back({double(i), double(-i), 0.5});
    }
    text += "]";
    const auto r = parse_rows(text, 3);
    ASSERT_TRUE(r.ok) << r.msg;
    EXPECT_EQ(r.rows, expect);
}

TEST(ParseCorpus, AllocationFailuresFreeEverythingAndSayWhich) {
    std::string text;
    for (int i = 0; i < 20; ++i) text += "1,2;";
    Bytes b(text);
    size_t failing_runs = qvn_test::for_each_allocation_failure([&](size_t n) {
        char msg[QVN_ERRMSG_SIZE] = "";
        double *rows = nullptr;
        size_t count = 5, dim = 5;
        const bool ok = parse_corpus(b.data.get(), b.len, 2, &rows, &count, &dim, msg);
        if (qvn_test::allocation_failed()) {
            EXPECT_FALSE(ok);
            // Each row costs two allocations (copy and values); the block
            // follows row 0 (the 3rd) and row 16 (the 3 + 15 * 2 + 3 = 36th).
            const bool block = n == 3 || n == 36;
            EXPECT_STREQ(msg, block ? "quorvane: oom growing corpus" : "quorvane: oom parsing vector")
                << n;
            EXPECT_EQ(rows, nullptr);
            EXPECT_EQ(count, 5u);
        } else {
            std::free(rows);
        }
        return ok;
    });
    // 20 rows * 2 + the initial block + one growth.
    EXPECT_EQ(failing_runs, 42u);
}
