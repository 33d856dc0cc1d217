// run_search: parameters, one of three ways to a best point (exact
// retrieval, MMR scout population, stochastic fractal search over
// [-1, 1]^dim), the exact top-k list, the diversification bookkeeping of an
// ostrany Context, and the result document.
//
// Every working buffer is call-local scratch released on every path; a
// failure leaves one message and the Context's previous result in place.
#include <cmath>
#include <cstring>
#include <ctime>

#include "core/scratch.h"
#include "diversify/diversify.h"
#include "search/search.h"
#include "sfs/sfs.h"

namespace {

constexpr uint64_t kScoutCapDoubles = 0xc80000;  // 100 MiB of doubles
constexpr uint64_t kFirstDocumentCap = 1024;

using qvn::make_scratch;
using qvn::scratch;

enum class path { retrieval, scout, optimizer };

struct search_params {
    int32_t iterations;
    int32_t population_size;
    int32_t diffusion_factor;
    double walk;
    bool debug;
    double seed;
    bool return_population;
    bool no_corpus;
};

search_params read_params(const char *text, size_t len) noexcept {
    search_params p;
    p.iterations = json_get_int(text, len, "iterations", 30);
    p.population_size = json_get_int(text, len, "population_size", 50);
    p.diffusion_factor = json_get_int(text, len, "diffusion_factor", 2);
    p.walk = json_get_double(text, len, "walk", 0.5);
    p.debug = json_get_bool(text, len, "debug");
    p.seed = json_get_double(text, len, "seed", 0.0);
    p.return_population = json_get_bool(text, len, "return_population");
    p.no_corpus = json_get_bool(text, len, "no_corpus");
    return p;
}

bool diversify_enabled(const qvn_context *ctx) noexcept {
    return ctx->ostrany_mode && ctx->diversify && ctx->diversify->enabled;
}

bool shadow_active(const qvn_context *ctx) noexcept {
    return diversify_enabled(ctx) && ctx->shadow && qvni_shadow_count(ctx->shadow) != 0;
}

// One repulsion source per shadow entry naming a row of this corpus, in
// table order. Returns how many were built; 0 when memory is short.
size_t build_sources(const qvn_context *ctx, const double *corpus, size_t n_rows, size_t dim,
                     scratch<qvni_repulsion_source> &sources) noexcept {
    const size_t count = qvni_shadow_count(ctx->shadow);
    sources = make_scratch<qvni_repulsion_source>(count);
    if (!sources) return 0;
    size_t j = 0;
    for (size_t e = 0; e < count; ++e) {
        const qvni_shadow_entry &entry = ctx->shadow->entries[e];
        if (entry.id >= n_rows) continue;
        sources[j++] = qvni_repulsion_source{corpus + static_cast<size_t>(entry.id) * dim,
                                             entry.weight, entry.amplitude, entry.sigma};
    }
    return j;
}

struct search_state {
    size_t dim = 0;
    int32_t dim32 = 0;
    const double *query = nullptr;
    const double *corpus = nullptr;
    size_t n_rows = 0;
    path route = path::retrieval;
    double best_fit = 0.0;
    scratch<double> best_point;
    size_t pop = 0;
    scratch<double> population;
    scratch<double> population_fits;
    // The retrieval path's candidates; they double as the document's top-k
    // list when they are exactly the k_eff nearest rows.
    scratch<int32_t> cand_idx;
    scratch<double> cand_dist;
    size_t cand_count = 0;
    bool cand_is_topk = false;
    scratch<int32_t> topk_idx;
    scratch<double> topk_dist;
    size_t topk_count = 0;
};

void fill_population_with_query(search_state &s) noexcept {
    for (size_t p = 0; p < s.pop; ++p) {
        std::memcpy(s.population.get() + p * s.dim, s.query, s.dim * sizeof(double));
        s.population_fits[p] = 0.0;
    }
}

void best_is_query(search_state &s) noexcept {
    std::memcpy(s.best_point.get(), s.query, s.dim * sizeof(double));
    s.best_fit = 0.0;
}

int32_t retrieve(qvn_context *ctx, search_state &s, uint32_t k_eff) noexcept {
    const size_t m = k_eff < s.n_rows ? k_eff : s.n_rows;
    const bool shadow = shadow_active(ctx);
    uint64_t r = shadow ? 4 * static_cast<uint64_t>(m) : k_eff;
    if (r > s.n_rows) r = s.n_rows;
    const size_t count = static_cast<size_t>(r);
    s.cand_idx = make_scratch<int32_t>(count);
    s.cand_dist = make_scratch<double>(count);
    if (!s.cand_idx || !s.cand_dist) {
        set_err(ctx, "quorvane: oom allocating retrieval candidates");
        return QVN_ERR_NOMEM;
    }
    s.cand_count = count;
    s.cand_is_topk = !shadow && count == k_eff;
    topk_by_distance(s.corpus, s.n_rows, s.dim32, s.query, static_cast<int32_t>(count),
                     s.cand_idx.get(), s.cand_dist.get());

    size_t best = 0;
    if (shadow) {
        scratch<qvni_repulsion_source> sources;
        const size_t j = build_sources(ctx, s.corpus, s.n_rows, s.dim, sources);
        const double strength = ctx->diversify->params.repulsion_strength;
        auto scores = make_scratch<double>(count);
        if (scores) {
            for (size_t i = 0; i < count; ++i) {
                double score = 1.0 - s.cand_dist[i];
                if (j > 0) {
                    const double *row =
                        s.corpus + static_cast<size_t>(s.cand_idx[i]) * s.dim;
                    score = qvni_repulsion_adjust(row, s.dim, sources.get(), j, score, strength);
                }
                scores[i] = score;
            }
            for (size_t i = 1; i < count; ++i) {
                if (scores[i] > scores[best]) best = i;
            }
        }
    }
    const double *row = s.corpus + static_cast<size_t>(s.cand_idx[best]) * s.dim;
    std::memcpy(s.best_point.get(), row, s.dim * sizeof(double));
    s.best_fit = s.cand_dist[best];
    return QVN_OK;
}

void scout(qvn_context *ctx, search_state &s, const char *params, size_t params_len) noexcept {
    double lambda = json_get_double(params, params_len, "mmr_lambda", 0.5);
    if (lambda < 0.0) lambda = 0.0;
    if (lambda > 1.0) lambda = 1.0;
    const size_t n = s.n_rows;
    const size_t m = s.pop < n ? s.pop : n;
    // The entry points keep n_rows within QVN_MAX_ROWS; saying so here also
    // bounds the allocation sizes for the compiler.
    if (n > QVN_MAX_ROWS) {
        best_is_query(s);
        fill_population_with_query(s);
        return;
    }
    auto relevance = make_scratch<double>(n);
    auto rows = make_scratch<int32_t>(n);
    auto selection = make_scratch<size_t>(m);
    if (!relevance || !rows || !selection) {
        best_is_query(s);
        fill_population_with_query(s);
        return;
    }
    scan_distances(s.corpus, n, s.dim32, s.query, relevance.get());
    for (size_t i = 0; i < n; ++i) {
        relevance[i] = 1.0 - relevance[i];
        rows[i] = static_cast<int32_t>(i);
    }
    if (shadow_active(ctx)) {
        scratch<qvni_repulsion_source> sources;
        const size_t j = build_sources(ctx, s.corpus, n, s.dim, sources);
        const double strength = ctx->diversify->params.repulsion_strength;
        if (j > 0) {
            for (size_t i = 0; i < n; ++i) {
                relevance[i] = qvni_repulsion_adjust(s.corpus + i * s.dim, s.dim, sources.get(),
                                                     j, relevance[i], strength);
            }
        }
    }
    const size_t cnt =
        mmr_select(s.corpus, s.dim32, rows.get(), relevance.get(), n, m, selection.get(), lambda);
    if (cnt == 0) {
        fill_population_with_query(s);
        best_is_query(s);
        return;
    }
    for (size_t p = 0; p < s.pop; ++p) {
        const size_t sel = selection[p < cnt ? p : cnt - 1];
        std::memcpy(s.population.get() + p * s.dim, s.corpus + sel * s.dim,
                    s.dim * sizeof(double));
        s.population_fits[p] = 1.0 - relevance[sel];
    }
    std::memcpy(s.best_point.get(), s.corpus + selection[0] * s.dim, s.dim * sizeof(double));
    s.best_fit = 1.0 - relevance[selection[0]];
}

int32_t optimize(qvn_context *ctx, search_state &s, const search_params &p) noexcept {
    auto lower = make_scratch<double>(s.dim);
    auto upper = make_scratch<double>(s.dim);
    if (!lower || !upper) {
        set_err(ctx, "quorvane: oom allocating bounds");
        return QVN_ERR_NOMEM;
    }
    for (size_t d = 0; d < s.dim; ++d) {
        lower[d] = -1.0;
        upper[d] = 1.0;
    }
    double sum_sq = 0.0;
    for (size_t d = 0; d < s.dim; ++d) sum_sq += s.query[d] * s.query[d];
    double query_norm = std::sqrt(sum_sq);
    if (query_norm == 0.0) query_norm = 1.0;
    qvn_sfs_cosine_ctx fitness_ctx{s.query, query_norm};

    qvn_sfs_params sp;
    sp.lower = lower.get();
    sp.upper = upper.get();
    sp.dim = s.dim;
    sp.iterations = p.iterations;
    sp.population_size = p.population_size;
    sp.diffusion_factor = p.diffusion_factor;
    sp.walk = p.walk;
    sp.bounded = 1;
    sp.opposition = 0;
    sp.walk_mode = 0;
    sp.seed = p.seed != 0.0 ? p.seed : ctx->seed;

    qvn_sfs_result result{s.best_point.get(), 0.0, nullptr, nullptr};
    const int32_t rc = qvn_sfs_run(&sp, qvn_sfs_cosine_fitness, &fitness_ctx, &result);
    if (rc != 0) {
        set_err(ctx, "quorvane: sfs_core_c failed (rc=%d)", rc);
        return rc == -2 ? QVN_ERR_NOMEM : QVN_ERR_EXTERNAL;
    }
    s.best_fit = result.best_fit;
    return QVN_OK;
}

int32_t document_topk(qvn_context *ctx, search_state &s, uint32_t k_eff) noexcept {
    s.topk_idx = make_scratch<int32_t>(k_eff);
    s.topk_dist = make_scratch<double>(k_eff);
    if (!s.topk_idx || !s.topk_dist) {
        set_err(ctx, "quorvane: oom allocating top-k");
        return QVN_ERR_NOMEM;
    }
    s.topk_count = k_eff;
    if (s.cand_is_topk && s.cand_count == k_eff) {
        std::memcpy(s.topk_idx.get(), s.cand_idx.get(), k_eff * sizeof(int32_t));
        std::memcpy(s.topk_dist.get(), s.cand_dist.get(), k_eff * sizeof(double));
    } else {
        topk_by_distance(s.corpus, s.n_rows, s.dim32, s.query, static_cast<int32_t>(k_eff),
                         s.topk_idx.get(), s.topk_dist.get());
    }
    return QVN_OK;
}

// Feeds the result rows into the dq ring and the time this takes into the
// overhead ring. Allocation failures only skip the dq push.
void bookkeeping(qvn_context *ctx, const search_state &s) noexcept {
    timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    const size_t dim = s.dim;
    scratch<double> block;
    size_t count = 0;
    if (s.route == path::scout) {
        auto order = make_scratch<size_t>(s.pop);
        if (order) {
            for (size_t p = 0; p < s.pop; ++p) {
                const double fit = s.population_fits[p];
                size_t t = p;
                while (t > 0 && s.population_fits[order[t - 1]] > fit) {
                    order[t] = order[t - 1];
                    --t;
                }
                order[t] = p;
            }
            count = s.pop;
            block = make_scratch<double>(count * dim);
            if (block) {
                for (size_t p = 0; p < count; ++p) {
                    std::memcpy(block.get() + p * dim, s.population.get() + order[p] * dim,
                                dim * sizeof(double));
                }
            }
        }
    } else {
        for (size_t i = 0; i < s.topk_count; ++i) count += s.topk_idx[i] != -1 ? 1 : 0;
        block = make_scratch<double>(count * dim);
        if (block) {
            size_t w = 0;
            for (size_t i = 0; i < s.topk_count; ++i) {
                if (s.topk_idx[i] == -1) continue;
                std::memcpy(block.get() + w * dim,
                            s.corpus + static_cast<size_t>(s.topk_idx[i]) * dim,
                            dim * sizeof(double));
                ++w;
            }
        }
    }
    if (count > 0 && block) qvni_dq_push(ctx->diversify, block.get(), count, dim);
    block.reset();
    timespec t1;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    qvni_overhead_push(ctx->diversify, elapsed_us(t0, t1));
}

bool append_coords(qvn_context *ctx, uint64_t *pos, const double *v, size_t dim) noexcept {
    for (size_t d = 0; d < dim; ++d) {
        if (!append_num(ctx, pos, d == 0 ? nullptr : ",", v[d])) return false;
    }
    return true;
}

bool write_document(qvn_context *ctx, const search_state &s, bool debug, uint64_t *pos) noexcept {
    if (ctx->result_cap < kFirstDocumentCap && !ensure_result_cap(ctx, kFirstDocumentCap)) {
        return false;
    }
    if (!append_fmt(ctx, pos, "{\"dim\":%d,\"n_corpus\":%zu,\"best_fit\":", s.dim32, s.n_rows) ||
        !append_num(ctx, pos, nullptr, s.best_fit) || !append_fmt(ctx, pos, ",\"best_point\":[") ||
        !append_coords(ctx, pos, s.best_point.get(), s.dim) || !append_fmt(ctx, pos, "]")) {
        return false;
    }
    if (s.topk_count > 0) {
        if (!append_fmt(ctx, pos, ",\"top_k\":[")) return false;
        bool first = true;
        for (size_t i = 0; i < s.topk_count; ++i) {
            if (s.topk_idx[i] == -1) continue;
            if (!append_fmt(ctx, pos, "%s{\"idx\":%d,\"dist\":", first ? "" : ",", s.topk_idx[i]) ||
                !append_num(ctx, pos, nullptr, s.topk_dist[i]) || !append_fmt(ctx, pos, "}")) {
                return false;
            }
            first = false;
        }
        if (!append_fmt(ctx, pos, "]")) return false;
    }
    if (s.route == path::scout) {
        if (!append_fmt(ctx, pos, ",\"population\":[")) return false;
        for (size_t p = 0; p < s.pop; ++p) {
            if (!append_fmt(ctx, pos, "%s[", p == 0 ? "" : ",") ||
                !append_coords(ctx, pos, s.population.get() + p * s.dim, s.dim) ||
                !append_fmt(ctx, pos, "]")) {
                return false;
            }
        }
        if (!append_fmt(ctx, pos, "],\"population_fits\":[") ||
            !append_coords(ctx, pos, s.population_fits.get(), s.pop) ||
            !append_fmt(ctx, pos, "]")) {
            return false;
        }
    }
    if (debug) {
        if (!append_fmt(ctx, pos, ",\"trace\":{\"best_point\":[") ||
            !append_coords(ctx, pos, s.best_point.get(), s.dim) ||
            !append_fmt(ctx, pos, "],\"best_fit\":") || !append_num(ctx, pos, nullptr, s.best_fit) ||
            !append_fmt(ctx, pos, ",\"edition\":\"%s\"}", qvn_edition())) {
            return false;
        }
    }
    return append_fmt(ctx, pos, "}");
}

}  // namespace

double elapsed_us(const timespec &t0, const timespec &t1) noexcept {
    const int64_t us = (static_cast<int64_t>(t1.tv_sec) - static_cast<int64_t>(t0.tv_sec)) *
                           1000000 +
                       (t1.tv_nsec / 1000 - t0.tv_nsec / 1000);
    return static_cast<double>(static_cast<uint64_t>(us));
}

int32_t run_search(qvn_context *ctx, const double *query, size_t dim, const double *corpus,
                   size_t n_rows, int32_t k, const char *params, size_t params_len,
                   const char **out_json, size_t *out_len) noexcept {
    const search_params p = read_params(params, params_len);
    if (p.iterations < 1 || p.iterations > 100000 || p.population_size < 2 ||
        p.population_size > 10000 || p.diffusion_factor < 1 || p.diffusion_factor > 100) {
        set_err(ctx, "quorvane: params out of range (iterations=%d pop=%d diff=%d)", p.iterations,
                p.population_size, p.diffusion_factor);
        return QVN_ERR_INVALID;
    }

    search_state s;
    s.dim = dim;
    s.dim32 = static_cast<int32_t>(dim);
    s.query = query;
    const bool has_corpus = corpus != nullptr && n_rows != 0;
    s.corpus = has_corpus ? corpus : nullptr;
    s.n_rows = has_corpus ? n_rows : 0;
    const uint32_t k_eff = has_corpus && static_cast<uint64_t>(k) > n_rows
                               ? static_cast<uint32_t>(n_rows)
                               : static_cast<uint32_t>(k);

    if (p.return_population &&
        static_cast<uint64_t>(p.population_size) * static_cast<uint64_t>(dim) > kScoutCapDoubles) {
        set_err(ctx, "quorvane: scout population too large (pop=%d * dim=%zu exceeds cap)",
                p.population_size, dim);
        return QVN_ERR_INVALID;
    }

    s.best_point = make_scratch<double>(dim);
    if (!s.best_point) {
        set_err(ctx, "quorvane: oom allocating best_point");
        return QVN_ERR_NOMEM;
    }

    int32_t rc = QVN_OK;
    if (p.return_population) {
        s.route = path::scout;
        s.pop = static_cast<size_t>(p.population_size);
        s.population = make_scratch<double>(s.pop * dim);
        s.population_fits = make_scratch<double>(s.pop);
        if (!s.population || !s.population_fits) {
            set_err(ctx, "quorvane: oom allocating scout population");
            return QVN_ERR_NOMEM;
        }
    } else if (p.no_corpus) {
        s.route = path::optimizer;
    }

    if (s.route == path::optimizer) {
        rc = optimize(ctx, s, p);
    } else if (!has_corpus) {
        best_is_query(s);
        if (s.route == path::scout) fill_population_with_query(s);
    } else if (s.route == path::scout) {
        scout(ctx, s, params, params_len);
    } else {
        rc = retrieve(ctx, s, k_eff);
    }
    if (rc != QVN_OK) return rc;

    if (has_corpus) {
        rc = document_topk(ctx, s, k_eff);
        if (rc != QVN_OK) return rc;
    }
    s.cand_idx.reset();
    s.cand_dist.reset();

    if (has_corpus && diversify_enabled(ctx)) bookkeeping(ctx, s);

    uint64_t pos = 0;
    if (!write_document(ctx, s, p.debug, &pos) || !ensure_result_cap(ctx, pos + 1)) {
        set_err(ctx, "quorvane: oom emitting result JSON");
        return QVN_ERR_NOMEM;
    }
    ctx->result_buf[pos] = '\0';
    ctx->result_len = pos;
    *out_json = ctx->result_buf;
    *out_len = static_cast<size_t>(pos);
    ctx->errmsg[0] = '\0';
    return QVN_OK;
}
