// The search driver through its two entry points, and its document writer.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "search/search.h"
#include "sfs/sfs.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

namespace {

const double kQ[] = {1, 0}, kQ2[] = {2, 0}, kRows[] = {1, 0, 0, 1, 1, 1};
const std::string kD2 = "0.29289321881345254",
                  kPop = R"({"return_population":true,"population_size":)",
                  kHead = R"({"dim":2,"n_corpus":3,"best_fit":0,"best_point":[1,0],)"
                          R"("top_k":[{"idx":0,"dist":0})",
                  kWorked = kHead + R"(,{"idx":2,"dist":)" + kD2 + "}]}";

// Arguments of qvn_search (text) or qvn_search_ptr; empty params pass NULL.
struct Call {
    bool text = false;
    const char *ctext = nullptr, *qtext = "1,0";
    size_t clen = 0, qlen = 3;
    const double *corpus = kRows, *query = kQ;
    size_t n_rows = 3, dim = 2, qdim = 2;
    int32_t k = 1;
    std::string params;
    size_t plen = 0;  // 0: the length of params
    bool no_json = false, no_len = false;
};

template <class Edit> Call P(Edit edit, const std::string &params = "") {
    Call c;
    c.params = params;
    edit(c);
    return c;
}
template <class Edit> Call T(Edit edit) { return P([&](Call &c) { c.text = true, edit(c); }); }
Call J(const std::string &params, int32_t k = 1) { return P([k](Call &c) { c.k = k; }, params); }
Call T(const char *corpus, const char *query, int32_t k = 1, const std::string &params = "") {
    return T([&](Call &c) {
        c.ctext = corpus, c.qtext = query, c.k = k, c.params = params;
        c.clen = corpus ? std::strlen(corpus) : 0, c.qlen = std::strlen(query);
    });
}

// The document on success, else "<status> <message>" without the message's
// "quorvane: ". Failures clear the out-parameters and keep the previous
// document; success clears the message.
std::string run(qvn_context *ctx, const Call &c) {
    const char *json = "poison", *params = c.params.empty() ? nullptr : c.params.data();
    size_t len = 12345, plen = c.plen ? c.plen : c.params.size();
    const char **j = c.no_json ? nullptr : &json;
    size_t *l = c.no_len ? nullptr : &len;
    const std::string before = ctx ? std::string(ctx->result_buf, ctx->result_len) : "";
    if (ctx) std::strcpy(ctx->errmsg, "stale");
    const int32_t rc = c.text ? qvn_search(ctx, c.ctext, c.clen, c.qtext, c.qlen, c.k, params,
                                           plen, j, l)
                              : qvn_search_ptr(ctx, c.corpus, c.n_rows, c.dim, c.query, c.qdim,
                                               c.k, params, plen, j, l);
    if (rc == 0 && ctx->errmsg[0] == '\0' && json[len] == '\0') {
        EXPECT_TRUE(len >= 1024 || ctx->result_cap == 1024);  // the first capacity
        return {json, len};
    }
    const std::string msg = qvn_last_error(ctx), prefix = ctx ? "quorvane: " : "";
    EXPECT_TRUE((!j || !json) && (!l || !len) && msg.substr(0, prefix.size()) == prefix);
    EXPECT_TRUE(!ctx || std::string(ctx->result_buf, ctx->result_len) == before);
    return std::to_string(rc) + " " + msg.substr(prefix.size());
}

}  // namespace

// Expected texts: a leading ',' means "contains", a final ',' or '[' "starts with".
TEST(Search, DocumentsChecksAndLimits) {
    constexpr size_t kMax = QVN_MAX_INPUT_BYTES, kOver = kMax + 1;
    const std::string inv = "-1 invalid arguments", bad_k = "-1 k must be >= 1",
                      over = " 1073741825 exceeds QVN_MAX_INPUT_BYTES 1073741824",
                      range = "-1 params out of range ",
                      nc = R"({"dim":2,"n_corpus":0,"best_fit":)",
                      opt = R"({"iterations":1,"population_size":2,"diffusion_factor":1,)"
                            R"("no_corpus":)",
                      picks = R"(,"population":[[1,1,0],[1,-1,1]])";
    const char *clamp = "1,1,0;1,0,2;0.1,1,0;1,-1,1;0,0.1,1";
    const std::vector<double> wide(16384, 0.5), zeros(4096, 0.0);
    const auto zero_query = [&](size_t dim) {
        return [&zeros, dim](Call &c) { c.query = zeros.data(), c.qdim = dim, c.n_rows = 0; };
    };
    const std::pair<Call, std::string> cases[] = {
        {T("1,0;0,1;1,1", "[1, 0]", 2), kWorked},
        {J("{}", 1000), kHead + R"(,{"idx":2,"dist":)" + kD2 + R"(},{"idx":1,"dist":1}]})"},
        {J(R"({"debug":true})"),
         kHead + R"(],"trace":{"best_point":[1,0],"best_fit":0,"edition":"Ambrel"}})"},
        {T(nullptr, "0.1,1e21,-0,nan,inf,-inf"),
         R"({"dim":6,"n_corpus":0,"best_fit":0,"best_point":[0.10000000000000001,1e+21,-0,)"
         R"(null,null,null]})"},
        {T(nullptr, "1,0", 3, kPop + "3}"),
         nc + R"(0,"best_point":[1,0],"population":[[1,0],[1,0],[1,0]],)"
              R"("population_fits":[0,0,0]})"},
        {J(kPop + R"(5,"mmr_lambda":1,"no_corpus":true})"),
         kHead + R"(],"population":[[1,0],[1,1],[0,1],[0,1],[0,1]],"population_fits":[0,)" + kD2 +
             ",1,1,1]}"},
        {J(kPop + R"(3,"mmr_lambda":0})"),
         kHead + R"(],"population":[[1,0],[0,1],[1,1]],"population_fits":[0,1,)" + kD2 + "]}"},
        // Clamped, both pick row 3 after row 0, as lambda 0 and 1 do; unclamped, -3
        // would pick row 4 and 7e3 row 2.
        {T(clamp, "1,0,0", 1, kPop + R"(2,"mmr_lambda":-3})"), picks},
        {T(clamp, "1,0,0", 1, kPop + R"(2,"mmr_lambda":7e3})"), picks},
        // A zero query has norm 1.0 for the fitness, which is then 1 everywhere.
        {T(nullptr, "0,0", 1, opt + "true}"), nc + "1,"},
        {J(opt + "false}"), kHead + "]}"},
        {J(R"({"iterations":100000,"population_size":10000,"diffusion_factor":100})"),
         kHead + "]}"},
        {J(R"({"iterations":0})"), range + "(iterations=0 pop=50 diff=2)"},
        {J(R"({"iterations":100001})"), range + "(iterations=100001 pop=50 diff=2)"},
        {J(R"({"population_size":1})"), range + "(iterations=30 pop=1 diff=2)"},
        {J(R"({"population_size":10001,"iterations":7})"),
         range + "(iterations=7 pop=10001 diff=2)"},
        {J(R"({"diffusion_factor":0})"), range + "(iterations=30 pop=50 diff=0)"},
        {J(R"({"diffusion_factor":101})"), range + "(iterations=30 pop=50 diff=101)"},
        {T([](Call &c) { c.qtext = nullptr; }), inv},
        {T([](Call &c) { c.qlen = 0, c.k = 0; }), inv},
        {T([](Call &c) { c.k = 0, c.qlen = kOver; }), bad_k},
        {T([](Call &c) { c.qlen = c.clen = kOver; }), "-1 query_len" + over},
        {T([](Call &c) { c.clen = c.plen = kOver; }), "-1 corpus_len" + over},
        {T([](Call &c) { c.plen = kOver; }), "-1 params_len" + over},
        {T("", "[1, 2, x]"), "-2 invalid number near 'x]'"},
        {T("1,2,3", "1,2"), "-2 corpus row 0 has dim 3, expected 2"},
        {T([](Call &c) { c.clen = c.plen = kMax; }), nc + "0,\"best_point\":[1,0]}"},  // NULL texts
        {T(" \n[ ] ; , ;\t[[ ]]", "1 0"), nc + "0,\"best_point\":[1,0]}"},
        // Only the given bytes count: three rows, a query of two, debug "tru".
        {T([](Call &c) {
             c.ctext = "1,0;0,1;1,1;9", c.clen = 11, c.qtext = "1,0,5", c.k = 2;
             c.params = R"({"debug":true})", c.plen = 12;
         }), kWorked},
        {P([](Call &c) { c.qdim = 0, c.no_len = true; }), inv},
        {P([](Call &c) { c.no_json = true; }), inv},
        {P([](Call &c) { c.qdim = c.dim = 16385; }),
         "-1 query_dim 16385 exceeds QVN_MAX_DIM 16384"},
        {P([](Call &c) { c.dim = 16385, c.n_rows = 0; }), "-1 dim 16385 exceeds QVN_MAX_DIM 16384"},
        {P([](Call &c) { c.n_rows = 1000000001, c.corpus = nullptr; }),
         "-1 n_rows 1000000001 exceeds QVN_MAX_ROWS 1000000000"},
        {P([](Call &c) { c.n_rows = 1000000000, c.dim = 1001, c.plen = kOver; }),
         "-1 n_rows * dim exceeds QVN_MAX_ELEMENTS"},
        {P([](Call &c) { c.n_rows = 1000000000, c.dim = 1000, c.corpus = nullptr; }),  // 1e12
         "-1 corpus pointer NULL with n_rows=1000000000"},
        {P([](Call &c) { c.dim = 4, c.qdim = 5; }), "-3 corpus dim 4 != query dim 5"},
        {P([](Call &c) { c.n_rows = 0, c.dim = 7; }), nc + "0,\"best_point\":[1,0]}"},
        {P(zero_query(1311), kPop + "10000}"),
         "-1 scout population too large (pop=10000 * dim=1311 exceeds cap)"},
        {P(zero_query(1311), R"({"population_size":10000})"), R"({"dim":1311,"n_corpus":0,)"},
        {P([&](Call &c) { c.corpus = c.query = &wide[0], c.dim = c.qdim = 16384, c.n_rows = 1; }),
         R"({"dim":16384,"n_corpus":1,)"},
    };
    qvn_context *ctx = qvn_new_minimal();
    for (const auto &[call, expect] : cases) {
        const std::string got = run(ctx, call);
        const bool prefix = expect.back() == ',' || expect.back() == '[';
        if (expect[0] == ',') {
            EXPECT_NE(got.find(expect), std::string::npos) << got;
        } else {
            EXPECT_EQ(prefix ? got.substr(0, expect.size()) : got, expect);
        }
        EXPECT_EQ(run(nullptr, call), "-1 ");
    }
    qvn_test::AllocFailGuard guard(1);  // 3200 x 4096 is exactly the cap: accepted
    EXPECT_EQ(run(ctx, P(zero_query(4096), kPop + "3200}")), "-4 oom allocating best_point");
    qvn_free(ctx);
}

// By failing allocation; "" is the scout path's selection scratch, whose
// failure makes the query the best point. The text entry first parses the
// query (a copy and an array), row 0, the block and rows 1 and 2.
TEST(Search, AllocationFailuresReportTheirStep) {
    const std::string oom = "-4 oom allocating ", best = oom + "best_point", topk = oom + "top-k",
                      cand = oom + "retrieval candidates", pop = oom + "scout population",
                      bounds = oom + "bounds", json = "-4 oom emitting result JSON",
                      pv = "-2 oom parsing vector", sfs = "-4 sfs_core_c failed (rc=-2)";
    const auto to_q2 = [](Call &c) { c.query = kQ2, c.k = 2; };
    const std::pair<Call, std::vector<std::string>> cases[] = {
        {T("[[1,0],[0,1],[1,1]]", "2,0", 2), {pv, pv, pv, pv, "-2 oom growing corpus", pv,
                                              pv, pv, pv, best, cand, cand, topk, topk, json}},
        {P(to_q2, kPop + "4}"), {best, pop, pop, "", "", "", "", "", topk, topk, json}},
        {P(to_q2, R"({"no_corpus":true,"iterations":2})"),
         {best, bounds, bounds, sfs, sfs, sfs, sfs, topk, topk, json}},
    };
    qvn_context *ctx = qvn_new_minimal();
    for (const auto &[call, expect] : cases) {
        std::vector<std::string> got;
        const size_t failures = qvn_test::for_each_allocation_failure([&](size_t) {
            qvn_release(ctx);
            const std::string out = run(ctx, call);
            const bool query_best = out.find(R"("best_point":[2,0])") != std::string::npos;
            if (qvn_test::allocation_failed()) got.push_back(query_best ? "" : out);
            return out[0] == '{';
        });
        EXPECT_EQ(got, expect);
        EXPECT_EQ(failures, expect.size());
    }
    qvn_free(ctx);
}

// The document holds the optimizer's result for the search parameters and
// the exact top-k list; the Context's seed serves when "seed" is absent or 0.
TEST(Search, OptimizerPathMinimisesTheCosineFitnessOverTheUnitBox) {
    const double q[] = {0.2, -0.7, 0.4, 1.5}, lower[] = {-1, -1, -1, -1}, upper[] = {1, 1, 1, 1};
    qvn_sfs_cosine_ctx fc{q, std::sqrt(((0.2 * 0.2 + 0.7 * 0.7) + 0.4 * 0.4) + 1.5 * 1.5)};
    qvn_sfs_params sp{lower, upper, 4, 12, 9, 3, -1.0, 1, 0, 0, 5.5};
    double b[4];
    qvn_sfs_result res{b, 0.0, nullptr, nullptr};
    ASSERT_EQ(qvn_sfs_run(&sp, qvn_sfs_cosine_fitness, &fc, &res), 0);
    char head[256];
    std::snprintf(head, sizeof head, R"({"dim":4,"n_corpus":3,"best_fit":%.17g,"best_point":)"
                  "[%.17g,%.17g,%.17g,%.17g]", res.best_fit, b[0], b[1], b[2], b[3]);
    const char *rows = "1,0,0,0;0,1,0,1;1,1,1,1", *query = "0.2,-0.7,0.4,1.5";
    const std::string opt = R"({"no_corpus":true,"iterations":12,"population_size":9,)"
                            R"("diffusion_factor":3,"walk":-1)";
    qvn_context *ctx = qvn_new_minimal();
    const std::string exact = run(ctx, T(rows, query, 2));
    const std::string top = exact.substr(exact.find(",\"top_k\""));
    for (auto [seed, word] : {std::pair(",\"seed\":5.5}", 9.), {"}", 5.5}, {",\"seed\":0}", 5.5}}) {
        ctx->seed = word;
        EXPECT_EQ(run(ctx, T(rows, query, 2, opt + seed)), head + top) << seed;
        EXPECT_EQ(run(ctx, T(rows, query, 2, opt + seed)), head + top) << seed;
    }
    qvn_free(ctx);
}

TEST(ElapsedUs, TruncatesEachMicrosecondPartBeforeSubtracting) {
    EXPECT_EQ(elapsed_us({5, 1500}, {5, 2499}), 1.0);
    EXPECT_EQ(elapsed_us({1, 999999999}, {2, 0}), 1.0);
    EXPECT_EQ(elapsed_us({7, 0}, {10, 250999}), 3000250.0);
}

// Growth starts at 512 and doubles; append_fmt asks for the capacity plus
// the text plus 64 bytes; nothing grows past the ceiling or on a failure.
TEST(ResultWriter, GrowthRules) {
    qvn_context *ctx = qvn_new_minimal();
    for (auto [need, cap] : {std::pair<uint64_t, uint64_t>{1, 512}, {513, 1024}, {5000, 8192}})
        EXPECT_TRUE(ensure_result_cap(ctx, need) && ctx->result_cap == cap) << need;
    qvn_release(ctx);
    ASSERT_TRUE(ensure_result_cap(ctx, 1));
    const std::string text(460, 'z');
    uint64_t pos = 100;
    ASSERT_TRUE(append_fmt(ctx, &pos, "%s", text.c_str()));
    EXPECT_EQ(ctx->result_cap, 2048u);
    EXPECT_EQ(std::string(ctx->result_buf + 100), text);
    pos = 2036;  // 12 bytes leave no room for the NUL
    ASSERT_TRUE(append_fmt(ctx, &pos, "%s", "0123456789ab"));
    EXPECT_EQ(ctx->result_cap, 4096u);
    EXPECT_EQ(std::string(ctx->result_buf + 2036), "0123456789ab");
    EXPECT_EQ(pos, 2048u);
    // A field width gives a text beyond the ceiling without a large buffer.
    EXPECT_FALSE(append_fmt(ctx, &pos, "%*d", int(QVN_RESULT_CAP_CEILING), 7));
    EXPECT_FALSE(ensure_result_cap(ctx, QVN_RESULT_CAP_CEILING + 1));
    qvn_test::fail_allocation(1, true);
    EXPECT_FALSE(append_fmt(ctx, &pos, "%5000d", 7));
    EXPECT_FALSE(ensure_result_cap(ctx, 5000));
    qvn_test::fail_allocation(0);
    EXPECT_EQ(pos, 2048u);
    EXPECT_EQ(ctx->result_cap, 4096u);
    EXPECT_EQ(std::string(ctx->result_buf + 2036, 12), "0123456789ab");
    EXPECT_TRUE(ensure_result_cap(ctx, QVN_RESULT_CAP_CEILING - 5));  // 4096 doubled, then capped
    EXPECT_EQ(ctx->result_cap, QVN_RESULT_CAP_CEILING);
    qvn_free(ctx);
}
