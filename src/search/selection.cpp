// Candidate selection over double-precision rows: the search cosine
// distance, the exact top-k scan and maximal marginal relevance.
//
// Numeric contract:
// - Distance: dot, na and nb are three running sums in index order; the
//   result is 1 - dot / (sqrt(nb) * sqrt(na)), the product of two separate
//   roots. 1.0 for dim <= 0, for a zero vector (na or nb == 0) and for a NaN
//   or infinite result; no clamping into [0, 2]. The row scan computes the
//   query's sum once (the same sequence of additions, so the same bits) and
//   keeps each row's dot and na sums in index order; the AVX2 scan holds
//   four rows per register, one lane per row, never splitting a row's sum.
// - Top-k: the worst slot is the first slot holding the largest distance; a
//   row replaces it only when strictly nearer, so among equal distances the
//   earlier row survives. Final order: stable insertion sort by distance
//   (a slot moves before its predecessor only while that one is strictly
//   farther). Distances are never NaN, so every comparison is total.
// - MMR: score = relevance at the first pick, else
//   relevance * lambda - max_sim * (1 - lambda); the first strictly best
//   candidate wins; max_sim starts at 0 and only rises.
#include <cmath>
#include <limits>

#include "core/scratch.h"
#include "search/search.h"

double finish_cosine_distance(double dot, double na, double nb) noexcept {
    if (na == 0.0 || nb == 0.0) return 1.0;
    const double d = 1.0 - dot / (std::sqrt(nb) * std::sqrt(na));
    return std::isfinite(d) ? d : 1.0;
}

double search_cosine_distance(const double *a, const double *b, int32_t dim) noexcept {
    if (dim <= 0) return 1.0;
    double dot = 0.0;
    double na = 0.0;
    double nb = 0.0;
    for (int32_t i = 0; i < dim; ++i) {
        dot += a[i] * b[i];
        na += a[i] * a[i];
        nb += b[i] * b[i];
    }
    return finish_cosine_distance(dot, na, nb);
}

void scan_distances_scalar(const double *rows, size_t n_rows, int32_t dim, const double *query,
                           double query_sq, double *out) noexcept {
    if (dim <= 0) {
        for (size_t r = 0; r < n_rows; ++r) out[r] = 1.0;
        return;
    }
    const size_t stride = static_cast<size_t>(dim);
    for (size_t r = 0; r < n_rows; ++r) {
        const double *a = rows + r * stride;
        double dot = 0.0;
        double na = 0.0;
        for (int32_t i = 0; i < dim; ++i) {
            dot += a[i] * query[i];
            na += a[i] * a[i];
        }
        out[r] = finish_cosine_distance(dot, na, query_sq);
    }
}

namespace {

using row_scan = void (*)(const double *, size_t, int32_t, const double *, double,
                          double *) noexcept;

// Chosen per call: no state is kept between calls.
row_scan pick_row_scan() noexcept {
#ifdef QVN_SEARCH_HAS_AVX2_SCAN
    if (__builtin_cpu_supports("avx2")) return scan_distances_avx2;
#endif
    return scan_distances_scalar;
}

}  // namespace

void scan_distances(const double *rows, size_t n_rows, int32_t dim, const double *query,
                    double *out) noexcept {
    double query_sq = 0.0;
    for (int32_t i = 0; i < dim; ++i) query_sq += query[i] * query[i];
    pick_row_scan()(rows, n_rows, dim, query, query_sq, out);
}

void topk_by_distance(const double *corpus, size_t n_rows, int32_t dim, const double *query,
                      int32_t k, int32_t *idx_out, double *dist_out) noexcept {
    if (k < 1) return;
    const size_t slots = static_cast<size_t>(k);
    const size_t stride = dim > 0 ? static_cast<size_t>(dim) : 0;
    for (size_t s = 0; s < slots; ++s) {
        idx_out[s] = -1;
        dist_out[s] = std::numeric_limits<double>::infinity();
    }
    // Distances come in blocks of rows from the row scan. The worst slot is
    // tracked between rows and searched again only after it was
    // overwritten; the result is the same as a search per row.
    constexpr size_t kBlock = 256;
    double block[kBlock];
    double query_sq = 0.0;
    for (int32_t i = 0; i < dim; ++i) query_sq += query[i] * query[i];
    const row_scan scan = pick_row_scan();
    size_t worst = 0;
    for (size_t base = 0; base < n_rows; base += kBlock) {
        const size_t m = n_rows - base < kBlock ? n_rows - base : kBlock;
        scan(corpus + base * stride, m, dim, query, query_sq, block);
        for (size_t j = 0; j < m; ++j) {
            const double d = block[j];
            if (!(dist_out[worst] > d)) continue;
            idx_out[worst] = static_cast<int32_t>(base + j);
            dist_out[worst] = d;
            worst = 0;
            for (size_t s = 1; s < slots; ++s) {
                if (dist_out[s] > dist_out[worst]) worst = s;
            }
        }
    }
    for (size_t s = 1; s < slots; ++s) {
        const int32_t idx = idx_out[s];
        const double dist = dist_out[s];
        size_t t = s;
        while (t > 0 && dist_out[t - 1] > dist) {
            idx_out[t] = idx_out[t - 1];
            dist_out[t] = dist_out[t - 1];
            --t;
        }
        idx_out[t] = idx;
        dist_out[t] = dist;
    }
}

size_t mmr_select(const double *corpus, int32_t dim, const int32_t *candidate_rows,
                  const double *relevance, size_t n, size_t m, size_t *sel_out,
                  double lambda) noexcept {
    const size_t picks = m < n ? m : n;
    auto max_sim = qvn::make_zeroed_scratch<double>(n);
    auto chosen = qvn::make_zeroed_scratch<unsigned char>(n);
    if (!max_sim || !chosen || picks == 0) return 0;
    const size_t stride = dim > 0 ? static_cast<size_t>(dim) : 0;
    const auto row = [&](size_t candidate) {
        return corpus + static_cast<size_t>(candidate_rows[candidate]) * stride;
    };

    for (size_t t = 0; t < picks; ++t) {
        size_t best = n;
        double best_score = -std::numeric_limits<double>::infinity();
        for (size_t i = 0; i < n; ++i) {
            if (chosen[i]) continue;
            const double score =
                t == 0 ? relevance[i] : relevance[i] * lambda - max_sim[i] * (1.0 - lambda);
            if (score > best_score) {
                best = i;
                best_score = score;
            }
        }
        if (best == n) return t;
        sel_out[t] = best;
        chosen[best] = 1;
        const double *picked = row(best);
        for (size_t j = 0; j < n; ++j) {
            if (chosen[j]) continue;
            const double s = 1.0 - search_cosine_distance(row(j), picked, dim);
            if (s > max_sim[j]) max_sim[j] = s;
        }
    }
    return picks;
}
