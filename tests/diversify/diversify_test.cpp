#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "diversify/diversify.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

namespace {

using ctx_ptr = std::unique_ptr<qvn_context, decltype(&qvn_free)>;
using state_ptr = std::unique_ptr<qvni_diversify_state, decltype(&qvni_diversify_state_destroy)>;
using Rows = std::vector<std::vector<double>>;

ctx_ptr ostrany() { return ctx_ptr(qvn_new_ostrany(nullptr, nullptr), qvn_free); }
state_ptr state(uint32_t window) {
    state_ptr s(qvni_diversify_state_create(), qvni_diversify_state_destroy);
    s->params.dq_window = window;
    return s;
}
// One result row: the centroid is the row itself.
int32_t push(qvni_diversify_state *s, std::vector<double> row) {
    return qvni_dq_push(s, row.data(), 1, row.size());
}
void expect_exact(double got, double want) {
    EXPECT_TRUE(std::isnan(want) ? std::isnan(got) : qvn_test::bits(got) == qvn_test::bits(want))
        << got << " vs " << want;
}

// Every number in the value of "key": a scalar, or lists of numbers or objects.
std::vector<double> numbers(const std::string &json, const std::string &key) {
    std::vector<double> out;
    const char *p = json.c_str() + json.find("\"" + key + "\":") + key.size() + 3;
    for (int depth = 0;;) {
        char *end = nullptr;
        if (*p == '-' || (*p >= '0' && *p <= '9')) out.push_back(std::strtod(p, &end));
        depth += (*p == '[') - (*p == ']');
        p = end ? end : p + 1;
        if (depth == 0) return out;
    }
}
std::string search(qvn_context *ctx, const Rows &rows, std::vector<double> query, int32_t k,
                   const std::string &params = "", int32_t *rc = nullptr) {
    std::vector<double> flat;
    for (const auto &row : rows) flat.insert(flat.end(), row.begin(), row.end());
    const char *json = nullptr;
    size_t len = 0, dim = query.size();
    const int32_t status = qvn_search_ptr(ctx, flat.data(), rows.size(), dim, query.data(), dim, k,
                                          params.data(), params.size(), &json, &len);
    if (rc) *rc = status;
    return status == 0 ? std::string(json, len) : "";
}
// The search cosine distance, 1 - dot / (sqrt(|q|^2) * sqrt(|row|^2)).
double distance(const std::vector<double> &row, const std::vector<double> &q) {
    double dot = 0, nr = 0, nq = 0;
    for (size_t i = 0; i < row.size(); ++i) dot += row[i] * q[i], nr += row[i] * row[i];
    for (double x : q) nq += x * x;
    return 1.0 - dot / (std::sqrt(nq) * std::sqrt(nr));
}
// Enabled, with the given rows reported negative under the default parameters.
ctx_ptr rejecting(std::vector<uint64_t> ids) {
    auto ctx = ostrany();
    qvn_diversify_enable(ctx.get());
    for (uint64_t id : ids) qvn_feedback_report(ctx.get(), id, QVN_FEEDBACK_NEGATIVE, 0);
    return ctx;
}

// Norm-10 rows over 3 widths apart; rows 1 and 2 are equally near the query.
const Rows kSpread{{10, 0}, {10, 4}, {10, -4}, {-10, 1}};
const std::vector<double> kQuery{1, 0};

}  // namespace

TEST(DiversifyParams, ValidationBoundaries) {
#define C(f, value, ok) {#f " " #value, [](qvn_diversify_params &p) { p.f = value; }, ok}
    const std::tuple<const char *, void (*)(qvn_diversify_params &), int> cases[] = {
        C(dq_window, 0, 0), C(dq_window, 33, 0), C(dq_window, 1, 1), C(dq_window, 32, 1),
        C(dq_target, 0.0, 0), C(dq_target, 2.0, 0), C(dq_target, NAN, 0), C(dq_target, 1.999, 1),
        C(shadow_sigma, -0.5, 0), C(shadow_sigma, NAN, 0), C(shadow_sigma, INFINITY, 0),
        C(shadow_sigma, 0.0, 1), C(repulsion_strength, INFINITY, 0), C(repulsion_strength, NAN, 0),
        C(repulsion_strength, 0.0, 1), C(repulsion_strength, -1e-300, 0), C(shadow_capacity, 0, 0),
        C(shadow_capacity, 1025, 0), C(shadow_capacity, 1024, 1), C(aux_capacity, 0, 0),
        C(aux_capacity, 1025, 0), C(aux_capacity, 1024, 1)};
#undef C
    for (const auto &[name, edit, valid] : cases) {
        SCOPED_TRACE(name);
        qvn_diversify_params p;
        qvni_diversify_params_set_defaults(&p);
        edit(p);
        auto ctx = ostrany();
        EXPECT_EQ(qvn_diversify_set_params(ctx.get(), &p), valid ? 0 : -1);
        EXPECT_EQ(ctx->diversify != nullptr, valid != 0) << "a refusal creates no state";
    }
}

TEST(DiversifyApi, RefusalsAndAllocationFailuresLeaveNoState) {
    ctx_ptr minimal(qvn_new_minimal(), qvn_free), ctx = ostrany();
    qvn_diversify_params p{};
    for (qvn_context *c : {static_cast<qvn_context *>(nullptr), minimal.get()}) {
        SCOPED_TRACE(c ? "minimal" : "null");
        EXPECT_TRUE(qvn_diversify_enable(c) == -1 && qvn_diversify_disable(c) == -1);
        EXPECT_TRUE(qvn_diversify_set_params(c, &p) == -1 && qvn_diversify_get_params(c, &p) == -1);
        EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(c)));
        EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(c)));
        EXPECT_TRUE(qvn_feedback_report(c, 1, 1, 0) == -1 && qvn_feedback_report(c, 1, 2, 0) == -1);
    }
    EXPECT_TRUE(!minimal->diversify && !minimal->truth && !minimal->shadow);
    EXPECT_STREQ(qvn_last_error(minimal.get()), "");
    EXPECT_EQ(qvn_diversify_disable(ctx.get()), 0);
    ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &p), 0);
    EXPECT_TRUE(p.dq_window == 5 && p.dq_target == 0.15 && p.shadow_sigma == 0 &&
                p.repulsion_strength == 1 && p.shadow_capacity == 64 && p.aux_capacity == 256);
    qvn_test::fail_allocation(1, true);
    EXPECT_EQ(qvn_diversify_enable(ctx.get()), QVN_ERR_NOMEM);
    EXPECT_EQ(qvn_diversify_set_params(ctx.get(), &p), QVN_ERR_NOMEM);
    qvn_test::fail_allocation(0);
    EXPECT_EQ(ctx->diversify, nullptr);
    for (uint32_t kind : {QVN_FEEDBACK_GRADED, QVN_FEEDBACK_NEGATIVE}) {
        EXPECT_EQ(qvn_test::for_each_allocation_failure([&](size_t) {
            const int32_t rc = qvn_feedback_report(ctx.get(), 3, kind, 0);
            const bool made = kind == QVN_FEEDBACK_NEGATIVE ? !!ctx->shadow : !!ctx->truth;
            EXPECT_EQ(rc, made ? 0 : QVN_ERR_NOMEM);
            return rc == 0;
        }), 2u) << "header and entries of table kind " << kind;
    }
    const qvni_shadow_entry &e = ctx->shadow->entries[0];  // made without a diversify state
    EXPECT_TRUE(ctx->truth->count == 1 && ctx->shadow->count == 1 && ctx->shadow->capacity == 64);
    EXPECT_TRUE(e.id == 3 && e.epoch == 1 && e.weight == 1 && e.amplitude == 1 && e.sigma == 1);
    EXPECT_TRUE(ctx->errmsg[0] == '\0' && qvn_diversify_enable(ctx.get()) == 0);
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(ctx.get()))) << "until two pushes";
}

TEST(Overhead, P99IsThe991stSmallestOfAFullRing) {
    auto s = state(5), t = state(5);
    for (int i = 0; i < 999; ++i) qvni_overhead_push(s.get(), i * 7 % 1000 + 1);  // 1..1000 mixed
    for (double bad : {NAN, INFINITY, -INFINITY}) qvni_overhead_push(s.get(), bad);
    EXPECT_TRUE(std::isnan(qvni_overhead_p99(s.get()))) << "999 samples";
    qvni_overhead_push(s.get(), 999 * 7 % 1000 + 1);
    EXPECT_EQ(qvni_overhead_p99(s.get()), 991.0);
    for (int i = 1; i <= 1500; ++i) qvni_overhead_push(t.get(), i);
    EXPECT_EQ(qvni_overhead_p99(t.get()), 1491.0);
}

TEST(Dq, KnownCentroids) {
    const std::tuple<const char *, uint32_t, Rows, double> cases[] = {
        {"orthogonal", 5, {{1, 0}, {0, 1}}, 1.0},
        {"opposite", 5, {{1, 0}, {-1, 0}}, 2.0},
        {"two roots", 5, {{1, 1, 1}, {1, 1, 0}}, 1 - 2 / (std::sqrt(3.0) * std::sqrt(2.0))},
        {"cosine above 1 snaps to 0", 5, {{0.1, 0.6}, {0.1, 0.6}}, 0.0},
        {"oldest gone after window + 1", 2, {{1, 0}, {0, 1}, {0, 1}}, 0.0},
        {"oldest kept within the window", 3, {{1, 0}, {0, 1}, {0, 1}}, 1 - 1 / 3.0},
        {"zero centroid", 3, {{1, 0}, {0, 0}, {0, 1}}, NAN},
        {"zero centroid left the ring", 2, {{0, 0}, {1, 0}, {0, 1}}, 1.0},
        {"window 1", 1, {{1, 0}, {0, 1}, {1, 1}}, NAN},
    };
    for (const auto &[name, window, pushes, dq] : cases) {
        SCOPED_TRACE(name);
        auto s = state(window);
        for (const auto &row : pushes) ASSERT_EQ(push(s.get(), row), 0);
        expect_exact(s->dq_current, dq);
        EXPECT_EQ(push(s.get(), {1, 1, 1, 1, 1}), -1) << "dimension of the first push";
        expect_exact(s->dq_current, dq);
    }
}

// Every other push fails its first allocation: growing then fails, shrinking does not.
TEST(Dq, WindowChangesKeepTheNewestCentroids) {
    const uint32_t ws[] = {3, 3, 3, 3, 7, 7, 2, 2, 2, 5, 5, 5, 5, 5, 5, 1, 4, 4, 4, 4, 32, 6, 6, 3};
    auto s = state(3);
    std::deque<std::vector<double>> model;
    const auto check = [&] {
        auto ref = state(32);
        for (const auto &m : model) push(ref.get(), m);
        EXPECT_EQ(s->dq_count, model.size());
        if (model.size() > 1) { EXPECT_NEAR(s->dq_current, ref->dq_current, 1e-12); }
    };
    for (uint32_t i = 0, rows = 0; i < sizeof ws / sizeof ws[0]; ++i) {
        const uint32_t w = s->params.dq_window = ws[i];
        SCOPED_TRACE(testing::Message() << "push " << i << " window " << w);
        const auto row = qvn_test::random_doubles(4, i + 1);
        qvn_test::fail_allocation(i % 2 == 0 ? 1 : 0);
        int32_t rc = push(s.get(), row);
        qvn_test::fail_allocation(0);
        if (i % 2 == 0 && w > rows) {
            EXPECT_EQ(rc, QVN_ERR_NOMEM);
            check();
            rc = push(s.get(), row);
        }
        ASSERT_EQ(rc, 0);
        rows = w;
        model.push_back(row);
        while (model.size() > w) model.pop_front();
        check();
    }
}

TEST(Repulsion, GaussianLossWithinThreeWidths) {
    const double o[] = {0, 0}, base = 0.75;
    const std::tuple<double, double, std::vector<qvni_repulsion_source>, double, double> cases[] = {
        {0, 0, {{o, 1, 1, 1}}, 1, base - 1.0},
        {1.5, 0, {{o, 1, 1, 0.5}}, 1, base},  // exactly 3 sigma away
        {0, 1, {{o, 2, 1.5, 0.5}}, 0.5, base - std::exp(-2.0) * 3.0 * 0.5},
        {0, 0, {{nullptr, 1, 1, 1}, {o, 1, 1, 0}, {o, 0, 1, 1}, {o, 1, 0, 1}}, 1, base},
        {0, 0, {{o, 1, 1, 1}, {o, 2, 1, 1}}, 2, base - 3.0 * 2},  // sources add, no clamp
    };
    for (const auto &[x, y, src, strength, want] : cases) {
        SCOPED_TRACE(testing::Message() << x << ", " << y << ", " << src.size());
        const double v[] = {x, y};
        expect_exact(qvni_repulsion_adjust(v, 2, src.data(), src.size(), base, strength), want);
        expect_exact(qvni_repulsion_adjust(v, 2, src.data(), 0, base, 1), base);
    }
}

TEST(Feedback, TablesAccumulateAndEvictTheFirstWeakestEntry) {
    auto ctx = ostrany();
    qvn_diversify_params p;
    ASSERT_EQ(qvn_diversify_get_params(ctx.get(), &p), 0);
    p.shadow_sigma = 0.25, p.repulsion_strength = 2, p.shadow_capacity = 2;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    EXPECT_EQ(ctx->diversify->enabled, 0u);
    ASSERT_EQ(qvn_feedback_report(ctx.get(), 1, QVN_FEEDBACK_NEGATIVE, 0), 0);
    p.shadow_sigma = 0, p.repulsion_strength = 3, p.shadow_capacity = 10;
    ASSERT_EQ(qvn_diversify_set_params(ctx.get(), &p), 0);
    p.aux_capacity = 0, p.repulsion_strength = 5;  // refused: the record in force stays
    EXPECT_EQ(qvn_diversify_set_params(ctx.get(), &p), QVN_ERR_INVALID);
    for (uint64_t id : {1, 1, 2}) ASSERT_EQ(qvn_feedback_report(ctx.get(), id, 2, 0), 0);
    EXPECT_EQ(qvn_feedback_report(ctx.get(), 1, 3, 0), QVN_ERR_INVALID);
    const qvni_shadow_entry &a = ctx->shadow->entries[0], &b = ctx->shadow->entries[1];
    EXPECT_TRUE(a.id == 1 && a.weight == 3 && a.amplitude == 2 && a.sigma == 0.25);
    EXPECT_TRUE(b.id == 2 && b.weight == 1 && b.amplitude == 3 && b.sigma == 1);
    EXPECT_TRUE(ctx->shadow->capacity == 2 && !ctx->truth);
    for (auto [id, kind, value] : {std::tuple<uint64_t, uint32_t, uint32_t>{4, 0, 5000},
                                   {4, 1, 7}, {4, 1, 0}, {5, 0, 20000}, {6, 0, 1}})
        ASSERT_EQ(qvn_feedback_report(ctx.get(), id, kind, value), 0);
    const qvni_truth_entry *t = ctx->truth->entries;
    EXPECT_TRUE(ctx->truth->capacity == 64 && ctx->truth->count == 3 && ctx->shadow->count == 2);
    EXPECT_TRUE(t[0].weight == 2.0 && t[1].weight == 1.0 && t[2].weight == 1e-4);
    // Full tables: the repeat of id 2 evicts nothing; 8 and 9 replace the two 0.2 in turn.
    qvni_truth_table *truth = qvni_truth_create(4);
    for (auto [id, w] : {std::pair<uint64_t, double>{0, 0.7}, {1, 0.2}, {2, 0.9}, {3, 0.2},
                         {2, 0.05}, {8, 0.4}, {9, 1.0}})
        qvni_truth_insert(truth, id, 1, w);
    t = truth->entries;
    EXPECT_TRUE(truth->count == 4 && t[0].id == 0 && t[1].id == 8 && t[2].id == 2 && t[3].id == 9);
    EXPECT_EQ(t[2].weight, 0.9 + 0.05);
    qvni_truth_destroy(truth);
    // Entry 7 has (amplitude, sigma, weight) as given, entry 8 (1, 1, 1); then 9 evicts one.
    const double cases[][4] = {{1, 1, 1, 0}, {2, 1, 1, 1}, {1, 2, 1, 1}, {1, 1, 2, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c[0] << " " << c[1] << " " << c[2]);
        qvni_shadow_table *s = qvni_shadow_create(2);
        qvni_shadow_insert(s, 7, 1, c[2], c[0], c[1]);
        for (uint64_t id : {8, 9}) qvni_shadow_insert(s, id, 1, 1, 1, 1);
        EXPECT_TRUE(s->count == 2 && s->entries[c[3] == 1].id == 9) << s->entries[0].id;
        qvni_shadow_destroy(s);
    }
}

// Also: entries beyond the corpus, one push per search with a corpus, none while disabled.
TEST(SearchDiversify, RejectingTheTopRowPromotesAnother) {
    ctx_ptr plain(qvn_new_minimal(), qvn_free), owner = rejecting({4, 1ull << 31, ~0ull});
    qvn_context *c = owner.get();
    const std::string before = search(c, kSpread, kQuery, 2);
    EXPECT_EQ(before, search(plain.get(), kSpread, kQuery, 2));
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(c)));
    ASSERT_EQ(numbers(before, "best_point"), kSpread[0]);
    ASSERT_EQ(qvn_feedback_report(c, 0, QVN_FEEDBACK_NEGATIVE, 0), 0);
    const std::string after = search(c, kSpread, kQuery, 2);
    EXPECT_EQ(numbers(after, "best_point"), kSpread[1]);
    EXPECT_EQ(numbers(after, "best_fit")[0], distance(kSpread[1], kQuery)) << "not the score";
    EXPECT_EQ(numbers(after, "top_k"), numbers(before, "top_k"));
    for (int i = 0; i < 3; ++i) ASSERT_NE(search(c, {}, kQuery, 1), "");
    for (int i = 2; i < 999; ++i) ASSERT_NE(search(c, kSpread, kQuery, 1), "");
    EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(c)));
    ASSERT_NE(search(c, kSpread, kQuery, 1), "");
    EXPECT_GE(qvn_diversify_overhead_p99_us(c), 0.0);
    ASSERT_EQ(qvn_diversify_disable(c), 0);
    EXPECT_EQ(search(c, kSpread, kQuery, 2), before);
    EXPECT_TRUE(c->diversify->overhead_next == 0 && c->diversify->dq_next == 0);
    EXPECT_TRUE(std::isnan(qvn_diversify_current_dq(c)));
    EXPECT_TRUE(std::isnan(qvn_diversify_overhead_p99_us(c)));
    ASSERT_EQ(qvn_diversify_enable(c), 0);
    EXPECT_FALSE(std::isnan(qvn_diversify_current_dq(c) + qvn_diversify_overhead_p99_us(c)));
}

// Rows 0-3 lie within one width of each other, row 4 far from them.
TEST(SearchDiversify, RetrievalScoresFourCandidatesPerResult) {
    Rows arc;
    for (double a : {0.0, 0.01, 0.02, 0.03, 0.5, 1.5})
        arc.push_back({10 * std::cos(a), 10 * std::sin(a)});
    const std::tuple<std::vector<uint64_t>, int32_t, size_t> cases[] = {
        {{0, 1, 2}, 1, 3}, {{0, 1, 2, 3}, 1, 0}, {{0, 1, 2, 3}, 2, 4}};
    for (const auto &[rejected, k, best] : cases) {
        SCOPED_TRACE(testing::Message() << rejected.size() << " rejected, k " << k);
        const std::string json = search(rejecting(rejected).get(), arc, kQuery, k);
        EXPECT_EQ(numbers(json, "best_point"), arc[best]);
        EXPECT_EQ(numbers(json, "best_fit")[0], distance(arc[best], kQuery));
    }
}

TEST(SearchDiversify, ScoutFitsAreOneMinusTheAdjustedRelevance) {
    const std::string json = search(rejecting({0, 3}).get(), kSpread, kQuery, 1,
                                    "{\"return_population\":true,\"population_size\":4}");
    const auto fit = [](size_t r, double l) { return 1 - (1 - distance(kSpread[r], kQuery) - l); };
    // MMR picks rows 1, 2, 0, 3; rejected rows lose 1, so row 0 has fit 1 - (1 - 0 - 1) = 1.
    const std::vector<double> fits{fit(1, 0), fit(2, 0), fit(0, 1), fit(3, 1)};
    EXPECT_EQ(numbers(json, "population_fits"), fits);
    EXPECT_EQ(numbers(json, "best_point"), kSpread[1]);
    EXPECT_EQ(numbers(json, "best_fit")[0], fits[0]);
}

TEST(SearchDiversify, PushedCentroidWeighsRowsInFitOrder) {
    const std::string scout = "{\"return_population\":true,\"mmr_lambda\":0,\"population_size\":";
    // Rows, parameters, centroid: weights n, n - 1, ... over (1 + n) n / 2 in ascending fit.
    const std::tuple<Rows, std::string, double, double> cases[] = {
        {{{1, 0}, {0, 1}}, "", 2 / 3.0, 1 / 3.0},                        // top-k order
        {{{1, 0}, {1, 0.01}, {0, 1}}, scout + "3}", 5 / 6.0, 1.02 / 6},  // MMR picks 0, 2, 1
        {{{1, 1}, {1, -1}}, scout + "2}", 1.0, 1 / 3.0},                 // equal fits stay
    };
    for (const auto &[rows, params, x, y] : cases) {
        SCOPED_TRACE(params);
        auto ctx = rejecting({});
        ASSERT_NE(search(ctx.get(), rows, kQuery, 2, params), "");
        EXPECT_NEAR(ctx->diversify->dq_history[0], x, 1e-15);
        EXPECT_NEAR(ctx->diversify->dq_history[1], y, 1e-15);
    }
}

TEST(SearchDiversify, OutOfMemoryAroundRepulsionIsAbsorbed) {
    enum Outcome { oom, nearest, repelled, unpushed };
    // Allocations in order: best point, candidate indices and distances, repulsion sources,
    // scores, top-k indices and distances, dq rows, dq history, result document.
    const Outcome table[] = {oom, oom, oom, nearest, nearest, oom, oom, unpushed, unpushed, oom};
    const size_t n = sizeof table / sizeof table[0];
    std::vector<ctx_ptr> ctxs;
    for (size_t i = 0; i <= n; ++i) ctxs.push_back(rejecting({0}));
    EXPECT_EQ(qvn_test::for_each_allocation_failure([&](size_t run) {
        SCOPED_TRACE(run);
        int32_t rc;
        const std::string json = search(ctxs[run - 1].get(), kSpread, kQuery, 2, "", &rc);
        const Outcome want = run <= n ? table[run - 1] : repelled;
        EXPECT_EQ(rc, want == oom ? QVN_ERR_NOMEM : 0);
        if (rc != 0) return false;
        EXPECT_EQ(numbers(json, "best_point"), kSpread[want == nearest ? 0 : 1]);
        EXPECT_EQ(ctxs[run - 1]->diversify->dq_count, want == unpushed ? 0u : 1u);
        return true;
    }, n + 1), n) << "one table row per allocation";
}

// The strength in force at search time scales every entry: 0 switches repulsion off.
TEST(SearchDiversify, StrengthAtSearchTimeScalesRepulsion) {
    auto owner = rejecting({0});
    qvn_diversify_params p;
    ASSERT_EQ(qvn_diversify_get_params(owner.get(), &p), 0);
    EXPECT_EQ(numbers(search(owner.get(), kSpread, kQuery, 1), "best_point"), kSpread[1]);
    p.repulsion_strength = 0.0;
    ASSERT_EQ(qvn_diversify_set_params(owner.get(), &p), 0);
    EXPECT_EQ(numbers(search(owner.get(), kSpread, kQuery, 1), "best_point"), kSpread[0]);
}
