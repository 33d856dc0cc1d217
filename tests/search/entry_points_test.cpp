#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "quorvane.h"
#include "support/alloc_fail.h"

namespace {

struct Ctx {
    Ctx() : p(qvn_new_minimal()) {}
    ~Ctx() { qvn_free(p); }
    qvn_context *p;
};

const char *const kPoison = "poison";

struct Outcome {
    int32_t rc;
    std::string doc;
    std::string msg;
    bool out_cleared;
};

struct TextCall {
    const char *corpus = nullptr;
    size_t corpus_len = 0;
    const char *query = "1,0";
    size_t query_len = 3;
    int32_t k = 1;
    const char *params = nullptr;
    size_t params_len = 0;
    bool null_out_json = false;
    bool null_out_len = false;

    Outcome run(qvn_context *ctx) const {
        const char *json = kPoison;
        size_t len = 12345;
        Outcome o;
        o.rc = qvn_search(ctx, corpus, corpus_len, query, query_len, k, params, params_len,
                          null_out_json ? nullptr : &json, null_out_len ? nullptr : &len);
        o.out_cleared = (null_out_json || json == nullptr) && (null_out_len || len == 0);
        if (o.rc == 0 && json) o.doc.assign(json, len);
        o.msg = ctx ? qvn_last_error(ctx) : "";
        return o;
    }
};

TextCall text(const std::string &corpus, const char *query) {
    static std::list<std::string> keep;  // the calls point into these; never moved
    keep.push_back(corpus);
    TextCall c;
    c.corpus = keep.back().data();
    c.corpus_len = keep.back().size();
    c.query = query;
    c.query_len = std::strlen(query);
    return c;
}

struct PtrCall {
    const double *corpus = nullptr;
    size_t n_rows = 0;
    size_t dim = 0;
    const double *query = nullptr;
    size_t query_dim = 0;
    int32_t k = 1;
    const char *params = nullptr;
    size_t params_len = 0;
    bool null_out_json = false;
    bool null_out_len = false;

    Outcome run(qvn_context *ctx) const {
        const char *json = kPoison;
        size_t len = 12345;
        Outcome o;
        o.rc = qvn_search_ptr(ctx, corpus, n_rows, dim, query, query_dim, k, params, params_len,
                              null_out_json ? nullptr : &json, null_out_len ? nullptr : &len);
        o.out_cleared = (null_out_json || json == nullptr) && (null_out_len || len == 0);
        if (o.rc == 0 && json) o.doc.assign(json, len);
        o.msg = ctx ? qvn_last_error(ctx) : "";
        return o;
    }
};

const double kQ2[] = {1, 0};
const double kRows3x2[] = {1, 0, 0, 1, 1, 1};

PtrCall ptr_call() {
    PtrCall c;
    c.corpus = kRows3x2;
    c.n_rows = 3;
    c.dim = 2;
    c.query = kQ2;
    c.query_dim = 2;
    return c;
}

const char *const kWorkedExample =
    "{\"dim\":2,\"n_corpus\":3,\"best_fit\":0,\"best_point\":[1,0],\"top_k\":[{\"idx\":0,"
    "\"dist\":0},{\"idx\":2,\"dist\":0.29289321881345254}]}";

constexpr size_t kOverBytes = QVN_MAX_INPUT_BYTES + 1;

}  // namespace

TEST(QvnSearch, WorkedExampleFromText) {
    Ctx ctx;
    auto c = text("1,0;0,1;1,1", "[1, 0]");
    c.k = 2;
    const auto o = c.run(ctx.p);
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, kWorkedExample);
}

TEST(QvnSearch, NullContextTouchesOnlyTheOutParameters) {
    const auto o = TextCall{}.run(nullptr);
    EXPECT_EQ(o.rc, QVN_ERR_INVALID);
    EXPECT_TRUE(o.out_cleared);
}

TEST(QvnSearch, ArgumentAndLimitChecksInOrder) {
    const char *invalid = "quorvane: invalid arguments";
    const char *bad_k = "quorvane: k must be >= 1";
    struct Case {
        const char *name;
        TextCall call;
        const char *msg;
    };
    std::vector<Case> cases;
    const auto add = [&](const char *name, const char *msg, auto edit) {
        TextCall c;
        edit(c);
        cases.push_back({name, c, msg});
    };
    add("query NULL", invalid, [](TextCall &c) { c.query = nullptr; });
    add("query_len 0", invalid, [](TextCall &c) { c.query_len = 0; });
    add("out_json NULL", invalid, [](TextCall &c) { c.null_out_json = true; });
    add("out_len NULL", invalid, [](TextCall &c) { c.null_out_len = true; });
    add("NULL query before k", invalid, [](TextCall &c) { c.query = nullptr; c.k = 0; });
    add("k 0", bad_k, [](TextCall &c) { c.k = 0; });
    add("k negative", bad_k, [](TextCall &c) { c.k = INT32_MIN; });
    add("k before sizes", bad_k, [](TextCall &c) { c.k = 0; c.query_len = kOverBytes; });
    add("query_len", "quorvane: query_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824",
        [](TextCall &c) { c.query_len = kOverBytes; c.corpus_len = kOverBytes; });
    add("corpus_len with NULL text",
        "quorvane: corpus_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824",
        [](TextCall &c) { c.corpus_len = kOverBytes; c.params_len = kOverBytes; });
    add("params_len", "quorvane: params_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824",
        [](TextCall &c) { c.params = "{}"; c.params_len = kOverBytes; });
    add("params_len max", "quorvane: params_len 18446744073709551615 exceeds "
                          "QVN_MAX_INPUT_BYTES 1073741824",
        [](TextCall &c) { c.params_len = SIZE_MAX; });
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Ctx ctx;
        const auto o = c.call.run(ctx.p);
        EXPECT_EQ(o.rc, QVN_ERR_INVALID);
        EXPECT_EQ(o.msg, c.msg);
        EXPECT_TRUE(o.out_cleared);
    }
}

TEST(QvnSearch, LengthsAtTheLimitPassTheChecks) {
    // Lengths equal to QVN_MAX_INPUT_BYTES pass; with NULL texts nothing is
    // read (no corpus, default parameters), so no large buffer is needed.
    Ctx ctx;
    TextCall c;
    c.corpus_len = QVN_MAX_INPUT_BYTES;
    c.params_len = QVN_MAX_INPUT_BYTES;
    const auto o = c.run(ctx.p);
    EXPECT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, "{\"dim\":2,\"n_corpus\":0,\"best_fit\":0,\"best_point\":[1,0]}");
}

TEST(QvnSearch, TextFailuresComeFromTheParsers) {
    struct Case {
        TextCall call;
        int32_t rc;
        const char *msg;
    };
    const Case cases[] = {
        {text("", "[1, 2, x]"), QVN_ERR_PARSE, "quorvane: invalid number near 'x]'"},
        {text("", "[]"), QVN_ERR_PARSE, "quorvane: vector must have at least one element"},
        {text("1,2;3", "1,2"), QVN_ERR_PARSE, "quorvane: corpus row 1 has dim 1, expected 2"},
        {text("1,2,3", "1,2"), QVN_ERR_PARSE, "quorvane: corpus row 0 has dim 3, expected 2"},
        {text("1,2;3,nope", "1,2"), QVN_ERR_PARSE, "quorvane: invalid number near 'nope'"},
        {text("1e999", "1"), QVN_ERR_PARSE, "quorvane: value out of range"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.msg);
        Ctx ctx;
        const auto o = c.call.run(ctx.p);
        EXPECT_EQ(o.rc, c.rc);
        EXPECT_EQ(o.msg, c.msg);
        EXPECT_TRUE(o.out_cleared);
    }
}

TEST(QvnSearch, CorpusWithoutNumbersSearchesWithoutCorpus) {
    for (const char *corpus : {" \n[ ] ; , ;\t[[ ]]", "", ",,;"}) {
        SCOPED_TRACE(corpus);
        Ctx ctx;
        const auto o = text(corpus, "2,3").run(ctx.p);
        ASSERT_EQ(o.rc, 0) << o.msg;
        EXPECT_EQ(o.doc, "{\"dim\":2,\"n_corpus\":0,\"best_fit\":0,\"best_point\":[2,3]}");
    }
}

TEST(QvnSearch, ReadsOnlyTheGivenBytes) {
    Ctx ctx;
    const std::string corpus = "1,0;0,1;1,1;9,9,9";
    const std::string query = "1,0,5";
    TextCall c;
    c.corpus = corpus.data();
    c.corpus_len = 11;
    c.query = query.data();
    c.query_len = 3;
    c.k = 2;
    const std::string params = R"({"debug":true})";
    c.params = params.data();
    c.params_len = params.size() - 2;  // cuts "true}" to "tru": debug stays off
    const auto o = c.run(ctx.p);
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, kWorkedExample);
}

TEST(QvnSearch, AllocationFailuresLeaveNoResultAndNoLeak) {
    Ctx ctx;
    auto c = text("[[1,0],[0,1],[1,1]]", "1,0");
    c.k = 2;
    const std::set<std::string> parse_msgs{"quorvane: oom parsing vector",
                                           "quorvane: oom growing corpus"};
    const std::set<std::string> driver_msgs{
        "quorvane: oom allocating best_point", "quorvane: oom allocating retrieval candidates",
        "quorvane: oom allocating top-k", "quorvane: oom emitting result JSON"};
    const size_t failures = qvn_test::for_each_allocation_failure([&](size_t n) {
        qvn_release(ctx.p);
        const auto o = c.run(ctx.p);
        if (!qvn_test::allocation_failed()) return o.rc == 0;
        SCOPED_TRACE(n);
        EXPECT_TRUE(o.out_cleared);
        if (o.rc == QVN_ERR_PARSE) {
            EXPECT_TRUE(parse_msgs.count(o.msg)) << o.msg;
        } else {
            EXPECT_EQ(o.rc, QVN_ERR_NOMEM);
            EXPECT_TRUE(driver_msgs.count(o.msg)) << o.msg;
        }
        return false;
    });
    // Query: 2; rows: 3 * 2 and the block; driver: 6.
    EXPECT_EQ(failures, 2u + 7u + 6u);
    const auto ok = c.run(ctx.p);
    ASSERT_EQ(ok.rc, 0);
    EXPECT_EQ(ok.doc, kWorkedExample);
}

TEST(QvnSearchPtr, NullContextTouchesOnlyTheOutParameters) {
    const auto o = ptr_call().run(nullptr);
    EXPECT_EQ(o.rc, QVN_ERR_INVALID);
    EXPECT_TRUE(o.out_cleared);
}

TEST(QvnSearchPtr, ArgumentAndLimitChecksInOrder) {
    struct Case {
        const char *name;
        PtrCall call;
        int32_t rc;
        const char *msg;
    };
    std::vector<Case> cases;
    const auto add = [&](const char *name, int32_t rc, const char *msg, auto edit) {
        PtrCall c = ptr_call();
        edit(c);
        cases.push_back({name, c, rc, msg});
    };
    const int32_t inv = QVN_ERR_INVALID;
    add("query NULL", inv, "quorvane: invalid arguments", [](PtrCall &c) { c.query = nullptr; });
    add("query_dim 0", inv, "quorvane: invalid arguments", [](PtrCall &c) { c.query_dim = 0; });
    add("out_json NULL", inv, "quorvane: invalid arguments",
        [](PtrCall &c) { c.null_out_json = true; });
    add("out_len NULL", inv, "quorvane: invalid arguments",
        [](PtrCall &c) { c.null_out_len = true; });
    add("k 0 before limits", inv, "quorvane: k must be >= 1",
        [](PtrCall &c) { c.k = 0; c.query_dim = 99999; c.n_rows = SIZE_MAX; });
    add("query_dim", inv, "quorvane: query_dim 16385 exceeds QVN_MAX_DIM 16384",
        [](PtrCall &c) { c.query_dim = 16385; c.dim = 16385; });
    add("dim without rows", inv, "quorvane: dim 16385 exceeds QVN_MAX_DIM 16384",
        [](PtrCall &c) { c.dim = 16385; c.n_rows = 0; });
    add("n_rows", inv, "quorvane: n_rows 1000000001 exceeds QVN_MAX_ROWS 1000000000",
        [](PtrCall &c) { c.n_rows = 1000000001; c.corpus = nullptr; });
    add("elements", inv, "quorvane: n_rows * dim exceeds QVN_MAX_ELEMENTS",
        [](PtrCall &c) { c.n_rows = 1000000000; c.dim = 1001; c.params_len = SIZE_MAX; });
    add("elements just above", inv, "quorvane: n_rows * dim exceeds QVN_MAX_ELEMENTS",
        [](PtrCall &c) { c.n_rows = 999001000; c.dim = 1001; });
    // Accepted by the element limit: the NULL corpus check after it reports.
    add("elements exactly 1e12", inv, "quorvane: corpus pointer NULL with n_rows=1000000000",
        [](PtrCall &c) { c.n_rows = 1000000000; c.dim = 1000; c.corpus = nullptr; });
    add("elements just below", inv, "quorvane: corpus pointer NULL with n_rows=999000999",
        [](PtrCall &c) { c.n_rows = 999000999; c.dim = 1001; c.corpus = nullptr; });
    add("max dim and rows", inv, "quorvane: n_rows * dim exceeds QVN_MAX_ELEMENTS",
        [](PtrCall &c) { c.n_rows = 1000000000; c.dim = 16384; });
    add("params_len", inv, "quorvane: params_len 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824",
        [](PtrCall &c) { c.params_len = kOverBytes; c.corpus = nullptr; });
    add("corpus NULL", inv, "quorvane: corpus pointer NULL with n_rows=3",
        [](PtrCall &c) { c.corpus = nullptr; c.dim = 5; });
    add("dim mismatch", QVN_ERR_DIM, "quorvane: corpus dim 4 != query dim 5",
        [](PtrCall &c) { c.dim = 4; c.query_dim = 5; });
    add("dim 0 with rows", QVN_ERR_DIM, "quorvane: corpus dim 0 != query dim 2",
        [](PtrCall &c) { c.dim = 0; });
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Ctx ctx;
        const auto o = c.call.run(ctx.p);
        EXPECT_EQ(o.rc, c.rc);
        EXPECT_EQ(o.msg, c.msg);
        EXPECT_TRUE(o.out_cleared);
    }
}

TEST(QvnSearchPtr, DimensionsAtTheLimitAreAccepted) {
    Ctx ctx;
    std::vector<double> row(16384, 0.0), q(16384, 0.0);
    row[5] = 1.0;
    q[5] = 2.0;
    PtrCall c;
    c.corpus = row.data();
    c.n_rows = 1;
    c.dim = 16384;
    c.query = q.data();
    c.query_dim = 16384;
    const auto o = c.run(ctx.p);
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_NE(o.doc.find("\"top_k\":[{\"idx\":0,\"dist\":0}]"), std::string::npos);
}

TEST(QvnSearchPtr, NoRowsIgnoresTheCorpusPointerAndItsDim) {
    Ctx ctx;
    PtrCall c = ptr_call();
    c.n_rows = 0;
    c.dim = 7;
    const auto o = c.run(ctx.p);
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, "{\"dim\":2,\"n_corpus\":0,\"best_fit\":0,\"best_point\":[1,0]}");
}

TEST(QvnSearchPtr, WorkedExampleAndMessageClearedBySuccess) {
    Ctx ctx;
    PtrCall bad = ptr_call();
    bad.k = 0;
    ASSERT_EQ(bad.run(ctx.p).rc, QVN_ERR_INVALID);
    EXPECT_STRNE(qvn_last_error(ctx.p), "");
    PtrCall c = ptr_call();
    c.k = 2;
    const auto o = c.run(ctx.p);
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, kWorkedExample);
    EXPECT_EQ(o.msg, "");
}

TEST(QvnSearchPtr, ResultPointerIsTheContextBuffer) {
    Ctx ctx;
    const char *json = nullptr;
    size_t len = 0;
    ASSERT_EQ(qvn_search_ptr(ctx.p, kRows3x2, 3, 2, kQ2, 2, 2, nullptr, 0, &json, &len), 0);
    EXPECT_EQ(std::strlen(json), len);  // NUL-terminated
    qvn_release(ctx.p);
    ASSERT_EQ(qvn_search_ptr(ctx.p, kRows3x2, 3, 2, kQ2, 2, 2, nullptr, 0, &json, &len), 0);
    EXPECT_EQ(std::string(json, len), kWorkedExample);
}
