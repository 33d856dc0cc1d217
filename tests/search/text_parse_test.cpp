// The text inputs: query and corpus text, and the JSON parameters.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "search/search.h"
#include "support/alloc_fail.h"

namespace {

// Parses text, followed by a '9' that must not be read, as a vector (dim < 0)
// or a corpus of that expected dimension. Renders "%g" values, rows split by
// ';', then '|' and the dimension for a corpus; or the message without its
// "quorvane: ".
std::string parse(const std::string &text, int dim) {
    const std::string bytes = text + "9";
    char msg[QVN_ERRMSG_SIZE] = "";
    double *v = nullptr;
    size_t n = 1, got_dim = 0;
    if (!(dim < 0 ? parse_vector_csv(bytes.data(), text.size(), &v, &got_dim, msg)
                  : parse_corpus(bytes.data(), text.size(), dim, &v, &n, &got_dim, msg)))
        return v == nullptr && std::string(msg, 10) == "quorvane: " ? msg + 10 : "bad failure";
    std::string out;
    for (size_t i = 0; i < n * got_dim; ++i) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%s%g", i == 0 ? "" : i % got_dim ? " " : ";", v[i]);
        out += buf;
    }
    std::free(v);
    return dim < 0 ? out : out + "|" + std::to_string(got_dim);
}

}  // namespace

TEST(ParseText, ToleratesLayoutAndRejectsWhatTheConversionCannotRead) {
    const std::string none = "vector must have at least one element", range = "value out of range",
                      near = "invalid number near ", two = "1 2;3 4|2";
    struct Case { std::string text; int dim; std::string expect; };
    const Case cases[] = {
        {"[1 2 3]", -1, "1 2 3"}, {"]]1[2[[3", -1, "1 2 3"}, {" ,1,,2\r\n3,]\t", -1, "1 2 3"},
        {"1-2", -1, "1 -2"}, {"1.5.5", -1, "1.5 0.5"}, {"+3e2,-.25E-1", -1, "300 -0.025"},
        {"0x1p3 0x.8", -1, "8 0.5"}, {"\v7", -1, "7"}, {"\f-1,\v\f2", -1, "-1 2"},
        {"inf,-Infinity,NaN,nan(7),INF", -1, "inf -inf nan nan inf"},
        {std::string("1,2\0,3,x", 8), -1, "1 2"}, {"", -1, none}, {"[ , ]\t\n", -1, none},
        {std::string("\0 1", 3), -1, none}, {"1e999", -1, range}, {"1e-400", -1, range},
        {"0x1p99999", -1, range}, {"1;2", -1, near + "';2'"}, {"[1, 2, x]", -1, near + "'x]'"},
        {"in", -1, near + "'in'"}, {"1,\v", -1, near + "'\v'"}, {"- 1", -1, near + "'- 1'"},
        {"1 abcdefghijklmnopqrstuvwxyz", -1, near + "'abcdefghijklmnopqrst'"},
        {"[[1,2],[3,4]]", 0, two}, {"1,2;;3,4;", 2, two}, {"[[1 2][3 4]]", 0, two},
        {" \n[ [1,2] , [3,4] ] \n", 0, two}, {"[[1,2],[3,4]", 0, two}, {"[1,2];[3,4]", 0, two},
        {"[[[1,2]],[[3,4]]]", 0, two}, {"[[1,,2,],[,3,4]]", 0, two},
        {std::string("1,2\0 9;3,4", 10), 2, two}, {"[1,2],[3,4]", 0, "1 2 3 4|4"},
        {"1,2\n3,4", 0, "1 2 3 4|4"}, {"1;2;3", 0, "1;2;3|1"}, {"", 3, "|3"}, {" \t\r\n", 3, "|3"},
        {"[ ] [[ ]]", 3, "|3"}, {"[[", 3, "|3"}, {" ; ;; ", 3, "|3"}, {"[[],[]]", 3, "|3"},
        {"1,2;3", 2, "corpus row 1 has dim 1, expected 2"},
        {"1,2;;3,4;5,6,7", 0, "corpus row 2 has dim 3, expected 2"},
        {"[[1],[2,3]]", 0, "corpus row 1 has dim 2, expected 1"}, {"1,2;a,b", 2, near + "'a,b'"},
        {"1; ,[ ]", 1, none}, {std::string("1,2;\0 9;3,4", 11), 2, none},  // commas stay in rows
    };
    for (const Case &c : cases) EXPECT_EQ(parse(c.text, c.dim), c.expect) << c.text;
}

// Both arrays double from 16: 70 values grow three times; 70 rows take a
// first block after row 0 and grow after rows 16, 32 and 64, each row costing
// a copy and an array. Run n fails the n-th allocation.
TEST(ParseText, GrowthDoublesAndFailedAllocationsSayWhich) {
    std::string values, rows = "[", expect;
    for (int i = 0; i < 70; ++i) {
        values += std::to_string(i) + ",";
        rows += "[" + std::to_string(i) + "," + std::to_string(-i) + ",0.5]";
        expect += (i ? ";" : "") + std::to_string(i) + " " + std::to_string(-i) + " 0.5";
    }
    rows += "]";
    EXPECT_EQ(parse(rows, 0), expect + "|3");
    for (int dim : {-1, 3}) {
        std::vector<size_t> growth;
        const size_t failures = qvn_test::for_each_allocation_failure([&](size_t n) {
            const std::string out = parse(dim < 0 ? values : rows, dim);
            if (out.find("oom growing") != std::string::npos) growth.push_back(n);
            EXPECT_TRUE(!qvn_test::allocation_failed() || out.rfind("oom ", 0) == 0);
            return !qvn_test::allocation_failed();
        });
        using Runs = std::vector<size_t>;
        EXPECT_EQ(growth, (dim < 0 ? Runs{3, 4, 5} : Runs{3, 36, 69, 134}));
        EXPECT_EQ(failures, dim < 0 ? 5u : 144u);
    }
}

// kind p: the value position of "seed" (-1: not found); i, r, b: the value of
// the integer (default 30), real (default 0.5) and boolean scanners. A text
// not starting with '{' or '"' follows {"seed":.
TEST(JsonParams, ScannersFollowTheByteRules) {
    struct Case { std::string text; char kind; double expect; };
    const Case cases[] = {
        {"5}", 'p', 8}, {"{\"seed\" \t\r\n: \n 5}", 'p', 15}, {"", 'p', 8}, {"   ", 'p', 11},
        {R"({"seed" 5, "seed": 6})", 'p', 19}, {R"({"a":{"seed":1},"seed":2})", 'p', 13},
        {R"({"n":"seed":3})", 'p', 12}, {R"({"seed"})", 'p', -1}, {R"({"Seed":1})", 'p', -1},
        {R"({" seed":1})", 'p', -1}, {R"({"se\ed":1})", 'p', -1}, {R"("seed")", 'p', -1},
        {"200}", 'i', 200}, {"\"200\"}", 'i', 30}, {"2e2}", 'i', 2}, {"30.9}", 'i', 30},
        {"-5}", 'i', -5}, {"+-5}", 'i', 0}, {"true}", 'i', 30}, {" 12", 'i', 12}, {"", 'i', 30},
        {"99999999999}", 'i', INT32_MAX}, {"-99999999999}", 'i', INT32_MIN},
        {std::string(29, '0') + "42}", 'i', 42}, {std::string(30, '0') + "42}", 'i', 4},
        {".25}", 'r', 0.25}, {"\"x\"}", 'r', 0.5}, {"-1.5e-1}", 'r', -0.15}, {"-}", 'r', 0},
        {"1.5.5}", 'r', 1.5}, {"nan}", 'r', 0.5}, {"0x10}", 'r', 0}, {"1e999}", 'r', INFINITY},
        {"12", 'r', 12}, {"1" + std::string(62, '0') + "5}", 'r', 1e62},
        {"true}", 'b', 1}, {" truely}", 'b', 1}, {R"({"x":{"seed":true}})", 'b', 1},
        {R"("seed":true)", 'b', 1}, {"True}", 'b', 0}, {"\"true\"}", 'b', 0}, {"1}", 'b', 0},
        {"tru", 'b', 0},
    };
    for (const Case &c : cases) {
        const bool whole = !c.text.empty() && (c.text[0] == '{' || c.text[0] == '"');
        const std::string text = (whole ? "" : R"({"seed":)") + c.text;
        const std::string bytes = text + "9";  // a digit past the end must not be read
        const char *s = bytes.data();
        const size_t n = text.size();
        size_t pos = 0;
        const double got = c.kind == 'i'   ? json_get_int(s, n, "seed", 30)
                           : c.kind == 'r' ? json_get_double(s, n, "seed", 0.5)
                           : c.kind == 'b' ? json_get_bool(s, n, "seed")
                           : json_find_key(s, n, "seed", &pos) ? double(pos) : -1.0;
        EXPECT_EQ(got, c.expect) << text;
    }
    const std::string key(70, 'k'), text = "{\"" + key.substr(0, 64) + "\":7}";  // 64 bytes count
    EXPECT_EQ(json_get_int(text.data(), text.size(), key.c_str(), 30), 7);
    EXPECT_EQ(json_get_double(nullptr, 100, "seed", 0.5), 0.5);
}
