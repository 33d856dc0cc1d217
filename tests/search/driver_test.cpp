#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "search/search.h"
#include "sfs/sfs.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

namespace {

struct Ctx {
    explicit Ctx(bool ostrany = false)
        : p(ostrany ? qvn_new_ostrany(nullptr, nullptr) : qvn_new_minimal()) {}
    ~Ctx() { qvn_free(p); }
    qvn_context *p;
};

struct Outcome {
    int32_t rc;
    std::string doc;
    std::string msg;
    bool out_cleared;
};

// Runs the driver as the entry points do: out-parameters cleared first.
Outcome run(qvn_context *ctx, const std::vector<double> &query, const std::vector<double> &corpus,
            int32_t k, const std::string &params) {
    const char *json = nullptr;
    size_t len = 0;
    const size_t dim = query.size();
    const size_t n_rows = corpus.size() / dim;
    Outcome o;
    o.rc = run_search(ctx, query.data(), dim, n_rows ? corpus.data() : nullptr, n_rows, k,
                      params.empty() ? nullptr : params.data(), params.size(), &json, &len);
    o.out_cleared = json == nullptr && len == 0;
    if (json) o.doc.assign(json, len);
    o.msg = ctx->errmsg;
    return o;
}

// Numbers of a flat JSON array member, e.g. "best_point":[...].
std::vector<double> numbers_of(const std::string &doc, const std::string &member) {
    std::vector<double> out;
    size_t at = doc.find("\"" + member + "\":");
    if (at == std::string::npos) return out;
    at += member.size() + 3;
    if (doc[at] != '[') return {std::strtod(doc.c_str() + at, nullptr)};
    const size_t end = doc.find(']', at);
    const char *p = doc.c_str() + at + 1;
    while (p < doc.c_str() + end) {
        char *stop = nullptr;
        out.push_back(std::strtod(p, &stop));
        p = *stop == ',' ? stop + 1 : stop;
    }
    return out;
}

size_t count_of(const std::string &doc, const std::string &needle) {
    size_t n = 0;
    for (size_t at = doc.find(needle); at != std::string::npos; at = doc.find(needle, at + 1)) ++n;
    return n;
}

const std::vector<double> kQuery{1, 0};
const std::vector<double> kCorpus{1, 0, 0, 1, 1, 1};

}  // namespace

TEST(RunSearch, WritesTheWorkedExampleDocument) {
    Ctx ctx;
    const auto o = run(ctx.p, kQuery, kCorpus, 2, "");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc,
              "{\"dim\":2,\"n_corpus\":3,\"best_fit\":0,\"best_point\":[1,0],\"top_k\":[{\"idx\":0,"
              "\"dist\":0},{\"idx\":2,\"dist\":0.29289321881345254}]}");
    EXPECT_EQ(ctx.p->result_len, o.doc.size());
    EXPECT_EQ(ctx.p->result_buf[o.doc.size()], '\0');
    EXPECT_EQ(ctx.p->result_cap, 1024u);
}

TEST(RunSearch, RetrievalTakesTheNearestRowAsBestPoint) {
    Ctx ctx;
    const std::vector<double> corpus{0, 1, 3, 1, -1, 0, 2, 0.1};
    const auto o = run(ctx.p, kQuery, corpus, 1, "{}");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(numbers_of(o.doc, "best_point"), (std::vector<double>{2, 0.1}));
    const double expect = search_cosine_distance(&corpus[6], kQuery.data(), 2);
    EXPECT_EQ(numbers_of(o.doc, "best_fit")[0], expect);
    EXPECT_NE(o.doc.find("\"top_k\":[{\"idx\":3,"), std::string::npos);
}

TEST(RunSearch, ParametersOutOfRangeNameAllThreeValues) {
    struct Case {
        const char *params;
        const char *msg;
    };
    const Case cases[] = {
        {R"({"iterations":0})", "quorvane: params out of range (iterations=0 pop=50 diff=2)"},
        {R"({"iterations":100001})",
         "quorvane: params out of range (iterations=100001 pop=50 diff=2)"},
        {R"({"population_size":1})", "quorvane: params out of range (iterations=30 pop=1 diff=2)"},
        {R"({"population_size":10001,"iterations":7})",
         "quorvane: params out of range (iterations=7 pop=10001 diff=2)"},
        {R"({"population_size":-5})", "quorvane: params out of range (iterations=30 pop=-5 diff=2)"},
        {R"({"diffusion_factor":0})", "quorvane: params out of range (iterations=30 pop=50 diff=0)"},
        {R"({"diffusion_factor":101})",
         "quorvane: params out of range (iterations=30 pop=50 diff=101)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.params);
        Ctx ctx;
        const auto o = run(ctx.p, kQuery, kCorpus, 2, c.params);
        EXPECT_EQ(o.rc, QVN_ERR_INVALID);
        EXPECT_EQ(o.msg, c.msg);
        EXPECT_TRUE(o.out_cleared);
    }
    for (const char *ok : {R"({"iterations":1,"population_size":2,"diffusion_factor":1})",
                           R"({"iterations":100000,"population_size":10000,"diffusion_factor":100})"}) {
        SCOPED_TRACE(ok);
        Ctx ctx;
        EXPECT_EQ(run(ctx.p, kQuery, kCorpus, 2, ok).rc, 0);
    }
}

TEST(RunSearch, ScoutPopulationCapCountsPopulationTimesDim) {
    Ctx ctx;
    const std::vector<double> wide(1311, 0.0);
    auto o = run(ctx.p, wide, {}, 1, R"({"return_population":true,"population_size":10000})");
    EXPECT_EQ(o.rc, QVN_ERR_INVALID);
    EXPECT_EQ(o.msg, "quorvane: scout population too large (pop=10000 * dim=1311 exceeds cap)");
    EXPECT_TRUE(o.out_cleared);

    o = run(ctx.p, wide, {}, 1, R"({"return_population":false,"population_size":10000})");
    EXPECT_EQ(o.rc, 0) << o.msg;

    // Exactly 13,107,200 doubles passes the cap: the next step, the best
    // point's allocation, is reached (made to fail to keep the test small).
    const std::vector<double> at_cap(4096, 0.0);
    qvn_test::AllocFailGuard guard(1);
    o = run(ctx.p, at_cap, {}, 1, R"({"return_population":true,"population_size":3200})");
    EXPECT_EQ(o.rc, QVN_ERR_NOMEM);
    EXPECT_EQ(o.msg, "quorvane: oom allocating best_point");
}

TEST(RunSearch, KLargerThanTheCorpusListsEveryRow) {
    Ctx ctx;
    const auto o = run(ctx.p, kQuery, kCorpus, 1000, "");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(count_of(o.doc, "\"idx\":"), 3u);
    EXPECT_NE(o.doc.find("{\"idx\":1,\"dist\":1}]"), std::string::npos);
}

TEST(RunSearch, WithoutCorpusTheQueryIsTheBestPoint) {
    Ctx ctx;
    const std::vector<double> q{0.5, -2, 1e21};
    const auto o = run(ctx.p, q, {}, 5, "");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc, "{\"dim\":3,\"n_corpus\":0,\"best_fit\":0,\"best_point\":[0.5,-2,1e+21]}");
}

TEST(RunSearch, NonFiniteValuesAreWrittenAsNull) {
    Ctx ctx;
    const std::vector<double> q{NAN, INFINITY, -INFINITY, -0.0};
    const auto o = run(ctx.p, q, {}, 1, "");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_NE(o.doc.find("\"best_point\":[null,null,null,-0]"), std::string::npos);
}

TEST(RunSearch, DebugAddsTheTraceAsTheLastMember) {
    Ctx ctx;
    const auto o = run(ctx.p, kQuery, kCorpus, 1, R"({"debug":true})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc,
              "{\"dim\":2,\"n_corpus\":3,\"best_fit\":0,\"best_point\":[1,0],\"top_k\":[{\"idx\":0,"
              "\"dist\":0}],\"trace\":{\"best_point\":[1,0],\"best_fit\":0,\"edition\":\"Ambrel\"}}");
}

TEST(RunSearch, OptimizerPathStaysInTheBoxAndStillListsTheExactTopK) {
    Ctx ctx;
    const std::vector<double> q{3, -4, 0.5};
    const auto corpus = qvn_test::random_doubles(30 * 3, 11, -5, 5);
    const auto exact = run(ctx.p, q, corpus, 4, "");
    ASSERT_EQ(exact.rc, 0) << exact.msg;
    const auto o = run(ctx.p, q, corpus, 4, R"({"no_corpus":true,"iterations":5,"seed":2.5})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    for (double v : numbers_of(o.doc, "best_point")) {
        EXPECT_GE(v, -1.0);
        EXPECT_LE(v, 1.0);
    }
    const size_t top = exact.doc.find("\"top_k\"");
    EXPECT_EQ(o.doc.substr(o.doc.find("\"top_k\"")), exact.doc.substr(top));
}

TEST(RunSearch, OptimizerPathRunsTheOptimizerOnTheCosineFitness) {
    const std::vector<double> q{0.2, -0.7, 0.4, 1.5};
    for (const char *seed_param : {",\"seed\":5.5", ""}) {
        SCOPED_TRACE(seed_param);
        Ctx ctx;
        ctx.p->seed = 5.5;  // used when the parameter is absent or 0
        const std::string params = std::string("{\"no_corpus\":true,\"iterations\":12,"
                                               "\"population_size\":9,\"diffusion_factor\":3,"
                                               "\"walk\":0.75") +
                                   seed_param + "}";
        const auto o = run(ctx.p, q, {}, 1, params);
        ASSERT_EQ(o.rc, 0) << o.msg;

        const std::vector<double> lower(4, -1.0), upper(4, 1.0);
        double nq = 0;
        for (double v : q) nq += v * v;
        qvn_sfs_cosine_ctx fc{q.data(), std::sqrt(nq)};
        qvn_sfs_params sp{lower.data(), upper.data(), 4, 12, 9, 3, 0.75, 1, 0, 0, 5.5};
        std::vector<double> best(4);
        qvn_sfs_result res{best.data(), 0.0, nullptr, nullptr};
        ASSERT_EQ(qvn_sfs_run(&sp, qvn_sfs_cosine_fitness, &fc, &res), 0);
        EXPECT_EQ(numbers_of(o.doc, "best_point"), best);
        EXPECT_EQ(numbers_of(o.doc, "best_fit")[0], res.best_fit);
        EXPECT_EQ(o.doc.find("top_k"), std::string::npos);
    }
}

TEST(RunSearch, OptimizerPathIsDeterministicOnOneContext) {
    Ctx ctx;
    const std::vector<double> q{1, 2, 3, 4, 5};
    const auto corpus = qvn_test::random_doubles(20 * 5, 4);
    const auto a = run(ctx.p, q, corpus, 3, R"({"no_corpus":true,"iterations":8})");
    const auto b = run(ctx.p, q, corpus, 3, R"({"no_corpus":true,"iterations":8})");
    ASSERT_EQ(a.rc, 0) << a.msg;
    ASSERT_EQ(b.rc, 0) << b.msg;
    EXPECT_EQ(a.doc, b.doc);
}

TEST(RunSearch, ReturnPopulationWinsOverNoCorpus) {
    Ctx ctx;
    const auto o = run(ctx.p, kQuery, kCorpus, 1,
                       R"({"no_corpus":true,"return_population":true,"population_size":2})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_NE(o.doc.find("\"population\":[[1,0],[0,1]],\"population_fits\":[0,1]"),
              std::string::npos)
        << o.doc;
}

TEST(RunSearch, ScoutRepeatsTheLastSelectionWhenRowsRunOut) {
    Ctx ctx;
    // Relevances to (1, 0): row 0 = 1, row 1 = 0, row 2 = 1 - 0.2928...
    const auto o = run(ctx.p, kQuery, kCorpus, 1,
                       R"({"return_population":true,"population_size":5,"mmr_lambda":1})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_NE(o.doc.find("\"best_fit\":0,\"best_point\":[1,0],"), std::string::npos) << o.doc;
    EXPECT_NE(o.doc.find("\"population\":[[1,0],[1,1],[0,1],[0,1],[0,1]],"
                         "\"population_fits\":[0,0.29289321881345254,1,1,1]}"),
              std::string::npos)
        << o.doc;
}

TEST(RunSearch, ScoutLambdaIsClampedIntoTheUnitInterval) {
    // Lambda below 0 acts as 0: after row 0 the least similar row (1) wins.
    for (const char *lambda : {"-3", "0"}) {
        SCOPED_TRACE(lambda);
        Ctx ctx;
        const auto o = run(ctx.p, kQuery, kCorpus, 1,
                           std::string(R"({"return_population":true,"population_size":3,)") +
                               "\"mmr_lambda\":" + lambda + "}");
        ASSERT_EQ(o.rc, 0) << o.msg;
        EXPECT_NE(o.doc.find("\"population\":[[1,0],[0,1],[1,1]]"), std::string::npos) << o.doc;
    }
    Ctx ctx;
    const auto o = run(ctx.p, kQuery, kCorpus, 1,
                       R"({"return_population":true,"population_size":3,"mmr_lambda":7e3})");
    EXPECT_NE(o.doc.find("\"population\":[[1,0],[1,1],[0,1]]"), std::string::npos) << o.doc;
}

TEST(RunSearch, ScoutWithoutCorpusCopiesTheQuery) {
    Ctx ctx;
    const auto o = run(ctx.p, {0.5, 2}, {}, 3, R"({"return_population":true,"population_size":3})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_EQ(o.doc,
              "{\"dim\":2,\"n_corpus\":0,\"best_fit\":0,\"best_point\":[0.5,2],\"population\":[[0.5,"
              "2],[0.5,2],[0.5,2]],\"population_fits\":[0,0,0]}");
}

TEST(RunSearch, OstranyContextWithoutDiversificationMatchesMinimal) {
    const auto corpus = qvn_test::random_doubles(40 * 3, 21);
    const std::vector<double> q{0.3, 0.1, -0.9};
    for (const char *params : {"", R"({"return_population":true,"population_size":6})",
                               R"({"no_corpus":true,"iterations":3,"seed":1})"}) {
        SCOPED_TRACE(params);
        Ctx minimal, ostrany(true);
        const auto a = run(minimal.p, q, corpus, 4, params);
        const auto b = run(ostrany.p, q, corpus, 4, params);
        ASSERT_EQ(a.rc, 0) << a.msg;
        EXPECT_EQ(a.doc, b.doc);
    }
}

TEST(RunSearch, SuccessClearsTheMessageAndFailureKeepsThePreviousResult) {
    Ctx ctx;
    ASSERT_EQ(run(ctx.p, kQuery, kCorpus, 1, "").rc, 0);
    const uint64_t len = ctx.p->result_len;
    const auto bad = run(ctx.p, kQuery, kCorpus, 1, R"({"iterations":0})");
    EXPECT_EQ(bad.rc, QVN_ERR_INVALID);
    EXPECT_EQ(ctx.p->result_len, len);
    const auto good = run(ctx.p, kQuery, kCorpus, 1, "");
    EXPECT_EQ(good.rc, 0);
    EXPECT_STREQ(qvn_last_error(ctx.p), "");
}

TEST(RunSearch, DocumentBeyondOneHundredMiBFailsAsOutOfMemory) {
    Ctx ctx;
    ASSERT_EQ(run(ctx.p, kQuery, kCorpus, 1, "").rc, 0);
    const uint64_t len = ctx.p->result_len;
    // 3200 copies of 4096 values of about 20 bytes each: about 250 MiB.
    const std::vector<double> q(4096, 0.1);
    const auto o = run(ctx.p, q, {}, 1, R"({"return_population":true,"population_size":3200})");
    EXPECT_EQ(o.rc, QVN_ERR_NOMEM);
    EXPECT_EQ(o.msg, "quorvane: oom emitting result JSON");
    EXPECT_TRUE(o.out_cleared);
    EXPECT_EQ(ctx.p->result_len, len);
    EXPECT_EQ(ctx.p->result_cap, QVN_RESULT_CAP_CEILING);
}

TEST(RunSearch, AllocationFailuresReportTheirStep) {
    struct Case {
        const char *params;
        std::vector<const char *> messages;  // by failing allocation, 1-based
    };
    const char *best = "quorvane: oom allocating best_point";
    const char *cand = "quorvane: oom allocating retrieval candidates";
    const char *topk = "quorvane: oom allocating top-k";
    const char *json = "quorvane: oom emitting result JSON";
    const char *scout = "quorvane: oom allocating scout population";
    const char *bounds = "quorvane: oom allocating bounds";
    const char *sfs = "quorvane: sfs_core_c failed (rc=-2)";
    const Case cases[] = {
        {"", {best, cand, cand, topk, topk, json}},
        // Scout: allocations 4-8 (selection scratch) are absorbed.
        {R"({"return_population":true,"population_size":4})",
         {best, scout, scout, nullptr, nullptr, nullptr, nullptr, nullptr, topk, topk, json}},
        {R"({"no_corpus":true,"iterations":2})",
         {best, bounds, bounds, sfs, sfs, sfs, sfs, topk, topk, json}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.params);
        Ctx ctx;
        const size_t failures = qvn_test::for_each_allocation_failure([&](size_t n) {
            qvn_release(ctx.p);  // every run starts without a result buffer
            const auto o = run(ctx.p, kQuery, kCorpus, 2, c.params);
            if (!qvn_test::allocation_failed()) return o.rc == 0;
            SCOPED_TRACE(n);
            if (n > c.messages.size()) {
                ADD_FAILURE() << "unexpected allocation";
                return false;
            }
            if (c.messages[n - 1] == nullptr) {
                EXPECT_EQ(o.rc, 0) << o.msg;
            } else {
                EXPECT_EQ(o.rc, QVN_ERR_NOMEM);
                EXPECT_EQ(o.msg, c.messages[n - 1]);
                EXPECT_TRUE(o.out_cleared);
                EXPECT_EQ(ctx.p->result_len, 0u);
            }
            return o.rc == 0;
        });
        EXPECT_EQ(failures, c.messages.size());
    }
}

TEST(RunSearch, ScoutSelectionFailureFallsBackToTheQuery) {
    Ctx ctx;
    qvn_test::AllocFailGuard guard(4);  // the relevance array
    const auto o = run(ctx.p, {0, 1}, kCorpus, 1, R"({"return_population":true,"population_size":2})");
    ASSERT_EQ(o.rc, 0) << o.msg;
    EXPECT_NE(o.doc.find("\"best_fit\":0,\"best_point\":[0,1],"), std::string::npos) << o.doc;
    EXPECT_NE(o.doc.find("\"population\":[[0,1],[0,1]],\"population_fits\":[0,0]"),
              std::string::npos)
        << o.doc;
}
