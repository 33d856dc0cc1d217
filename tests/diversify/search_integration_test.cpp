// Diversification and feedback seen through whole searches.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/context.h"
#include "diversify/diversify.h"
#include "quorvane.h"
#include "support/alloc_fail.h"

namespace {

struct ctx_deleter {
    void operator()(qvn_context *c) const { qvn_free(c); }
};
using ctx_ptr = std::unique_ptr<qvn_context, ctx_deleter>;

ctx_ptr ostrany() { return ctx_ptr(qvn_new_ostrany(nullptr, nullptr)); }

struct Corpus {
    std::vector<double> data;
    size_t dim;
    size_t rows() const { return data.size() / dim; }
    const double *row(size_t i) const { return data.data() + i * dim; }
};

struct Result {
    int32_t rc = -99;
    std::string json;
    std::vector<double> best_point;
    double best_fit = NAN;
    std::vector<int> top_idx;
};

// Numbers following `key` ("...":[a,b,...] or "...":x) in the document.
std::vector<double> numbers_after(const std::string &json, const std::string &key) {
    std::vector<double> out;
    size_t pos = json.find("\"" + key + "\":");
    if (pos == std::string::npos) return out;
    const char *p = json.c_str() + pos + key.size() + 3;
    const bool list = *p == '[';
    if (list) ++p;
    for (;;) {
        char *end = nullptr;
        out.push_back(std::strtod(p, &end));
        if (end == p || !list || *end != ',') break;
        p = end + 1;
    }
    return out;
}

Result search(qvn_context *ctx, const Corpus &c, std::vector<double> query, int32_t k,
              const std::string &params = "") {
    Result r;
    const char *json = nullptr;
    size_t len = 0;
    r.rc = qvn_search_ptr(ctx, c.rows() ? c.data.data() : nullptr, c.rows(), c.dim,
                          query.data(), query.size(), k, params.c_str(), params.size(),
                          &json, &len);
    if (r.rc != 0) return r;
    r.json.assign(json, len);
    r.best_point = numbers_after(r.json, "best_point");
    r.best_fit = numbers_after(r.json, "best_fit").at(0);
    for (size_t pos = r.json.find("\"idx\":"); pos != std::string::npos;
         pos = r.json.find("\"idx\":", pos + 1))
        r.top_idx.push_back(std::atoi(r.json.c_str() + pos + 6));
    return r;
}

bool is_row(const Result &r, const Corpus &c, size_t i) {
    return r.best_point == std::vector<double>(c.row(i), c.row(i) + c.dim);
}

// Cosine distance of two 2-vectors, for expected best fits.
double cos_dist(const double *a, const double *b) {
    return 1.0 - (a[0] * b[0] + a[1] * b[1]) /
                     (std::hypot(a[0], a[1]) * std::hypot(b[0], b[1]));
}

// Rows of norm 10 at growing angles from the query (1, 0); far enough apart
// (Euclidean) that one rejected row repels only itself under width 1.
const Corpus kSpread{{10, 0, 10, 4, 0, 10, -10, 1}, 2};
const std::vector<double> kQuery{1, 0};

}  // namespace

TEST(SearchDiversify, RejectingTheBestRowPromotesAnother) {
    auto ctx = ostrany();
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    const Result before = search(ctx.get(), kSpread, kQuery, 2);
    ASSERT_EQ(before.rc, 0) << qvn_last_error(ctx.get());
    EXPECT_TRUE(is_row(before, kSpread, 0));
    EXPECT_EQ(before.best_fit, 0.0);

    ASSERT_EQ(qvn_feedback_report(ctx.get(), before.top_idx.at(0), QVN_FEEDBACK_NEGATIVE, 0), 0);
    const Result after = search(ctx.get(), kSpread, kQuery, 2);
    ASSERT_EQ(after.rc, 0);
    EXPECT_TRUE(is_row(after, kSpread, 1)) << after.json;
    // The best fit is the plain distance of the chosen row, not its score.
    EXPECT_NEAR(after.best_fit, cos_dist(kSpread.row(1), kQuery.data()), 1e-15);
    // The top-k list stays the exact nearest rows.
    EXPECT_EQ(after.top_idx, before.top_idx);
    EXPECT_EQ(after.top_idx, (std::vector<int>{0, 1}));
}

TEST(SearchDiversify, RetrievalConsidersFourCandidatesPerResult) {
    // Rows 0-3 sit close together near the query; row 4 is the fifth
    // nearest, well away from them. With all four rejected (width 0.1), a
    // search for k = 1 looks at 4 candidates and must stay in the cluster;
    // k = 2 looks at 8 (capped at 6 rows) and reaches row 4.
    Corpus c{{}, 2};
    for (double angle : {0.0, 0.01, 0.02, 0.03, 0.5, 1.5}) {
        c.data.push_back(std::cos(angle));
        c.data.push_back(std::sin(angle));
    }
    auto ctx = ostrany();
    qvn_diversify_params p;
    ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &p), 0);
    p.shadow_sigma = 0.1;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    for (uint64_t id = 0; id < 4; ++id)
        ASSERT_EQ(qvn_feedback_report(ctx.get(), id, QVN_FEEDBACK_NEGATIVE, 0), 0);

    const Result one = search(ctx.get(), c, kQuery, 1);
    ASSERT_EQ(one.rc, 0);
    bool in_cluster = false;
    for (size_t i = 0; i < 4; ++i) in_cluster = in_cluster || is_row(one, c, i);
    EXPECT_TRUE(in_cluster) << one.json;
    EXPECT_EQ(one.top_idx, (std::vector<int>{0}));

    const Result two = search(ctx.get(), c, kQuery, 2);
    ASSERT_EQ(two.rc, 0);
    EXPECT_TRUE(is_row(two, c, 4)) << two.json;
    EXPECT_NEAR(two.best_fit, 1.0 - std::cos(0.5), 1e-15);
}

TEST(SearchDiversify, EntriesBeyondTheCorpusAreIgnored) {
    auto ctx = ostrany();
    ctx_ptr plain(qvn_new_minimal());
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 4, QVN_FEEDBACK_NEGATIVE, 0), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 1u << 31, QVN_FEEDBACK_NEGATIVE, 0), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), ~0ull, QVN_FEEDBACK_NEGATIVE, 0), 0);
    const Result r = search(ctx.get(), kSpread, kQuery, 2);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.json, search(plain.get(), kSpread, kQuery, 2).json);
    EXPECT_EQ(qvni_shadow_count(ctx->shadow), 3u) << "ignored, not removed";

    // Mixed with a valid entry, only the valid one repels.
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 0, QVN_FEEDBACK_NEGATIVE, 0), 0);
    EXPECT_TRUE(is_row(search(ctx.get(), kSpread, kQuery, 2), kSpread, 1));
    // A larger corpus brings entry 4 into play: row 4, nearer the query than
    // row 1 and far from row 0, would win were it not rejected itself.
    Corpus bigger = kSpread;
    bigger.data.insert(bigger.data.end(), {100, 5});
    EXPECT_TRUE(is_row(search(ctx.get(), bigger, kQuery, 2), bigger, 1));
}

TEST(SearchDiversify, DisabledOrEmptyFeedbackChangesNoResult) {
    ctx_ptr plain(qvn_new_minimal());
    const std::string reference = search(plain.get(), kSpread, kQuery, 3).json;
    ASSERT_FALSE(reference.empty());

    {
        SCOPED_TRACE("disabled, with a rejected row");
        auto ctx = ostrany();
        qvn_diversify_params p;
        ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &p), 0);
        ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 0, QVN_FEEDBACK_NEGATIVE, 0), 0);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(search(ctx.get(), kSpread, kQuery, 3).json, reference);
        EXPECT_EQ(ctx->diversify->dq_history, nullptr);
        EXPECT_EQ(ctx->diversify->overhead_count, 0u);
        // Enabling brings the rejection into effect.
        ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
        EXPECT_TRUE(is_row(search(ctx.get(), kSpread, kQuery, 3), kSpread, 1));
    }
    {
        SCOPED_TRACE("enabled, no shadow entries");
        auto ctx = ostrany();
        ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
        ASSERT_EQ(qvn_feedback_report(ctx.get(), 0, QVN_FEEDBACK_FULL, 0), 0);
        EXPECT_EQ(search(ctx.get(), kSpread, kQuery, 3).json, reference);
        EXPECT_EQ(ctx->diversify->dq_count, 1u);
        EXPECT_EQ(ctx->diversify->overhead_count, 1u);
    }
}

TEST(SearchDiversify, OneBookkeepingPushPerSearchWithACorpus) {
    auto ctx = ostrany();
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    const Corpus axes{{1, 0, 0, 1}, 2};
    const Corpus none{{}, 2};

    // Searches without a corpus push nothing.
    for (int i = 0; i < 3; ++i) ASSERT_EQ(search(ctx.get(), none, kQuery, 1).rc, 0);
    EXPECT_EQ(ctx->diversify->overhead_count, 0u);
    EXPECT_EQ(ctx->diversify->dq_history, nullptr);

    ASSERT_EQ(search(ctx.get(), axes, {1, 0}, 1).rc, 0);
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx.get())));
    ASSERT_EQ(search(ctx.get(), axes, {0, 1}, 1).rc, 0);
    EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 1.0) << "centroids (1,0) and (0,1)";

    for (int i = 2; i < 999; ++i) ASSERT_EQ(search(ctx.get(), axes, {1, 0}, 1).rc, 0);
    EXPECT_EQ(ctx->diversify->overhead_count, 999u);
    EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(ctx.get())));
    ASSERT_EQ(search(ctx.get(), axes, {1, 0}, 1).rc, 0);
    const double p99 = qvn_diversify_overhead_p99_us(ctx.get());
    EXPECT_FALSE(std::isnan(p99));
    EXPECT_GE(p99, 0.0);
    EXPECT_EQ(p99, std::floor(p99)) << "whole microseconds";
    EXPECT_EQ(ctx->diversify->dq_count, 5u);
    EXPECT_EQ(qvn_diversify_current_dq(ctx.get()), 0.0) << "five equal centroids";

    // A failed search pushes nothing.
    const uint64_t next = ctx->diversify->overhead_next;
    EXPECT_EQ(search(ctx.get(), axes, {1, 0}, 1, "{\"iterations\":0}").rc, QVN_ERR_INVALID);
    EXPECT_EQ(ctx->diversify->overhead_next, next);
}

TEST(SearchDiversify, CentroidComesFromRankedResultRows) {
    const Corpus axes{{1, 0, 0, 1}, 2};
    struct Case {
        const char *name;
        std::string params;
    };
    const Case cases[] = {
        {"retrieval, k = 2", ""},
        {"scout, two slots", "{\"return_population\":true,\"population_size\":2}"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto ctx = ostrany();
        ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
        ASSERT_EQ(search(ctx.get(), axes, {1, 0}, 2, c.params).rc, 0);
        ASSERT_NE(ctx->diversify->dq_history, nullptr);
        // Rows (1, 0) then (0, 1): weights 2 and 1 over 3.
        EXPECT_EQ(ctx->diversify->dq_history[0], 2.0 / 3.0);
        EXPECT_EQ(ctx->diversify->dq_history[1], 1.0 / 3.0);
    }
}

TEST(SearchDiversify, ScoutPathAvoidsRejectedRows) {
    auto ctx = ostrany();
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    const std::string params = "{\"return_population\":true,\"population_size\":2}";
    EXPECT_TRUE(is_row(search(ctx.get(), kSpread, kQuery, 1, params), kSpread, 0));
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 0, QVN_FEEDBACK_NEGATIVE, 0), 0);
    const Result r = search(ctx.get(), kSpread, kQuery, 1, params);
    ASSERT_EQ(r.rc, 0);
    EXPECT_TRUE(is_row(r, kSpread, 1)) << r.json;
}

TEST(SearchDiversify, RepulsionOutOfMemoryIsAbsorbedOrReported) {
    // Every allocation of a search with repulsion in play fails in turn:
    // the search either reports -4 or succeeds with a corpus row as best
    // point; nothing leaks (checked by the sanitizer build).
    auto ctx = ostrany();
    ASSERT_EQ(qvn_diversify_enable(ctx.get()), 0);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 0, QVN_FEEDBACK_NEGATIVE, 0), 0);
    ASSERT_TRUE(is_row(search(ctx.get(), kSpread, kQuery, 2), kSpread, 1));
    const size_t failures = qvn_test::for_each_allocation_failure([&](size_t n) {
        SCOPED_TRACE(n);
        const Result r = search(ctx.get(), kSpread, kQuery, 2);
        if (r.rc != 0) {
            EXPECT_EQ(r.rc, QVN_ERR_NOMEM);
            return false;
        }
        bool row = false;
        for (size_t i = 0; i < kSpread.rows(); ++i) row = row || is_row(r, kSpread, i);
        EXPECT_TRUE(row) << r.json;
        return true;
    });
    EXPECT_GT(failures, 0u);
}
