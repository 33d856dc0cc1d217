#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "search/search.h"

namespace {

// Exact-size, unterminated copy of the text.
struct Text {
    explicit Text(const std::string &s) : len(s.size()), data(new char[s.size() + 1]) {
        std::memcpy(data.get(), s.data(), s.size());
        data[s.size()] = '#';  // not a NUL: the scanners must stop at len
    }
    size_t len;
    std::unique_ptr<char[]> data;
};

int32_t get_int(const std::string &s, const char *key, int32_t def) {
    Text t(s);
    return json_get_int(t.data.get(), t.len, key, def);
}
double get_double(const std::string &s, const char *key, double def) {
    Text t(s);
    return json_get_double(t.data.get(), t.len, key, def);
}
bool get_bool(const std::string &s, const char *key) {
    Text t(s);
    return json_get_bool(t.data.get(), t.len, key);
}

}  // namespace

TEST(JsonFindKey, ReportsTheValuePosition) {
    struct Case {
        const char *text;
        bool found;
        size_t pos;
    };
    const Case cases[] = {
        {R"({"seed":5})", true, 8},
        {"{\"seed\" \t\r\n: \n 5}", true, 15},
        {R"({"seed":)", true, 8},           // value position may equal len
        {R"({"seed":   )", true, 11},
        {R"({"seed" 5, "seed": 6})", true, 19},  // no colon: next occurrence
        {R"({"seed"})", false, 0},
        {R"({"see":1})", false, 0},
        {R"({"Seed":1})", false, 0},
        {R"({" seed":1})", false, 0},
        {R"({"se\ed":1})", false, 0},
        {R"("seed")", false, 0},            // shorter than the key plus 3 bytes
        {R"({"seeds":1})", false, 0},
        {"", false, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        Text t(c.text);
        size_t pos = 12345;
        EXPECT_EQ(json_find_key(t.data.get(), t.len, "seed", &pos), c.found);
        EXPECT_EQ(pos, c.found ? c.pos : 12345u);
    }
    size_t pos = 0;
    EXPECT_FALSE(json_find_key(nullptr, 100, "seed", &pos));
}

TEST(JsonFindKey, FirstOccurrenceAnywhereWins) {
    size_t pos = 0;
    const std::string text = R"({"a":{"seed":1},"seed":2})";
    ASSERT_TRUE(json_find_key(text.data(), text.size(), "seed", &pos));
    EXPECT_EQ(text[pos], '1');
    // A string value equal to the key is skipped only for want of a colon.
    const std::string value_first = R"({"note":"seed","seed":4})";
    ASSERT_TRUE(json_find_key(value_first.data(), value_first.size(), "seed", &pos));
    EXPECT_EQ(value_first[pos], '4');
    const std::string colon_after = R"({"note":"seed":3,"seed":4})";
    ASSERT_TRUE(json_find_key(colon_after.data(), colon_after.size(), "seed", &pos));
    EXPECT_EQ(colon_after[pos], '3');
}

TEST(JsonFindKey, KeyLengthIsCountedUpToSixtyFourBytes) {
    const std::string long_key(70, 'k');
    const std::string text = "{\"" + long_key.substr(0, 64) + "\":1}";
    size_t pos = 0;
    EXPECT_TRUE(json_find_key(text.data(), text.size(), long_key.c_str(), &pos));
}

TEST(JsonIntegers, ReadTheLeadingSignedDigits) {
    struct Case {
        const char *text;
        int32_t expect;
    };
    const Case cases[] = {
        {R"({"iterations":200})", 200},
        {R"({"iterations":"200"})", 30},
        {R"({"iterations":2e2})", 2},
        {R"({"iterations":30.9})", 30},
        {R"({"iterations":-5})", -5},
        {R"({"iterations":+7})", 7},
        {R"({"iterations":+-5})", 0},
        {R"({"iterations":-})", 0},
        {R"({"iterations":true})", 30},
        {R"({"iterations":)", 30},
        {R"({"iterations": 12)", 12},
        {R"({"iterations":99999999999})", INT32_MAX},
        {R"({"iterations":-99999999999})", INT32_MIN},
        {R"({"iterations":4294967326})", INT32_MAX},  // never wraps into range
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(get_int(c.text, "iterations", 30), c.expect);
    }
}

TEST(JsonIntegers, CopyIsCutAtThirtyOneBytes) {
    EXPECT_EQ(get_int("{\"iterations\":" + std::string(29, '0') + "42}", "iterations", 30), 42);
    EXPECT_EQ(get_int("{\"iterations\":" + std::string(30, '0') + "42}", "iterations", 30), 4);
}

TEST(JsonReals, ReadTheLeadingNumberBytes) {
    struct Case {
        const char *text;
        double expect;
    };
    const Case cases[] = {
        {R"({"walk":.25})", 0.25},
        {R"({"walk":"fast"})", 0.5},
        {R"({"walk":-1.5e-1})", -0.15},
        {R"({"walk":-})", 0.0},
        {R"({"walk":e})", 0.0},
        {R"({"walk":1.5.5})", 1.5},
        {R"({"walk":12,"x":1})", 12},
        {R"({"walk":nan})", 0.5},
        {R"({"walk":0x10})", 0.0},  // 'x' is not copied
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(get_double(c.text, "walk", 0.5), c.expect);
    }
    EXPECT_EQ(get_double(R"({"walk":1e999})", "walk", 0.5), HUGE_VAL);
    EXPECT_EQ(json_get_double(nullptr, 0, "walk", 0.5), 0.5);
}

TEST(JsonReals, CopyIsCutAtSixtyThreeBytes) {
    const std::string digits = "1" + std::string(62, '0') + "5";  // 64 bytes
    EXPECT_EQ(get_double("{\"seed\":" + digits + "}", "seed", 0.0), 1e62);
}

TEST(JsonBooleans, OnlyTheFourBytesTrueCount) {
    struct Case {
        const char *text;
        bool expect;
    };
    const Case cases[] = {
        {R"({"debug":true})", true},
        {R"({"debug": true})", true},
        {R"({"debug":truely})", true},
        {R"({"debug":True})", false},
        {R"({"debug":"true"})", false},
        {R"({"debug":1})", false},
        {R"({"debug":false})", false},
        {R"({"debug":tru)", false},
        {R"({"x":{"debug":true}})", true},
        {"{}", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(get_bool(c.text, "debug"), c.expect);
    }
    // "true" ending exactly at len.
    EXPECT_TRUE(get_bool(R"("debug":true)", "debug"));
}
