// Diversity quality (dq): a ring of rank-weighted result centroids and one
// minus the mean pairwise cosine of the centroids in it.
//
// Numeric contract:
// - Centroid: element j is the sum over results i = 0, 1, ... (best first)
//   of (n - i) * row[i][j], added in ascending i, then divided by the
//   normaliser (1 + n) * n * 0.5.
// - dq: pairs (a, b) of filled slots with a < b in slot order; for each
//   pair one pass over the elements, ascending, accumulates dot, |a|^2 and
//   |b|^2; cosine = dot / (sqrt(|a|^2) * sqrt(|b|^2)); cosines summed in
//   pair order; dq = 1 - (2 / ((K - 1) K)) * sum.
// - NaN: fewer than two centroids, a zero or NaN norm, an infinite norm
//   product or a NaN cosine makes the value NaN.
// - Rounding noise within 1e-12 below 0 snaps to 0, within 1e-12 above 2
//   snaps to 2.
//
// Ring layout: the ring has dq_rows_alloc rows. While it is not full the
// filled rows are slots 0 .. dq_count - 1 and dq_next == dq_count; once
// full, every row is filled and dq_next names the oldest.
//
// A dq_window change after the history exists is applied at the next push.
// The filled rows are first put in age order from slot 0 (an in-place
// rotation), then the ring is resized to the new window: a larger window
// reallocates the rows and keeps every centroid; a smaller one keeps the
// newest dq_window centroids and shrinks the block. Either way the ring
// continues as if it had always had the new window, holding the most
// recent centroids, and no slot beyond the allocated rows is ever
// addressed. If growing cannot allocate, the push fails with -4 and the
// state is unchanged.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "diversify/diversify.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

double *alloc_rows(size_t rows, size_t dim) noexcept {
    if (dim > SIZE_MAX / sizeof(double) / rows) return nullptr;
    return static_cast<double *>(std::malloc(rows * dim * sizeof(double)));
}

// Puts the filled rows in age order, oldest at slot 0; afterwards
// dq_next == dq_count unless the ring is full.
void rotate_to_age_order(qvni_diversify_state *state) noexcept {
    const size_t dim = state->dq_dim;
    if (state->dq_count == state->dq_rows_alloc && state->dq_next != 0) {
        double *h = state->dq_history;
        std::rotate(h, h + state->dq_next * dim, h + state->dq_rows_alloc * dim);
    }
    state->dq_next = state->dq_count % state->dq_rows_alloc;
}

// Makes the ring hold exactly `window` rows, keeping the newest centroids.
int32_t resize_ring(qvni_diversify_state *state, uint64_t window) noexcept {
    const uint64_t rows = state->dq_rows_alloc;
    const size_t dim = state->dq_dim;
    if (window == rows) return 0;
    if (window > rows) {
        if (dim > SIZE_MAX / sizeof(double) / window) return QVN_ERR_NOMEM;
        void *grown = std::realloc(state->dq_history, window * dim * sizeof(double));
        if (!grown) return QVN_ERR_NOMEM;
        state->dq_history = static_cast<double *>(grown);
        rotate_to_age_order(state);  // within the old rows
        state->dq_next = state->dq_count;
        state->dq_rows_alloc = window;
        return 0;
    }
    rotate_to_age_order(state);
    if (state->dq_count > window) {
        const uint64_t drop = state->dq_count - window;
        std::memmove(state->dq_history, state->dq_history + drop * dim,
                     window * dim * sizeof(double));
        state->dq_count = window;
    }
    state->dq_next = state->dq_count % window;
    // Shrinking in place cannot fail; a refused shrink keeps the larger block.
    void *shrunk = std::realloc(state->dq_history, window * dim * sizeof(double));
    if (shrunk) state->dq_history = static_cast<double *>(shrunk);
    state->dq_rows_alloc = window;
    return 0;
}

}  // namespace

int32_t qvni_dq_push(qvni_diversify_state *state, const double *rows, size_t n_rows,
                     size_t dim) noexcept {
    if (!state || !rows || n_rows == 0 || dim == 0) return QVN_ERR_INVALID;
    const uint64_t window = state->params.dq_window;
    if (window == 0) return QVN_ERR_INVALID;
    if (state->dq_history) {
        if (dim != state->dq_dim) return QVN_ERR_INVALID;
        const int32_t rc = resize_ring(state, window);
        if (rc != 0) return rc;
    } else {
        double *history = alloc_rows(window, dim);
        if (!history) return QVN_ERR_NOMEM;
        state->dq_history = history;
        state->dq_rows_alloc = window;
        state->dq_dim = dim;
        state->dq_count = 0;
        state->dq_next = 0;
    }

    const double normaliser = (1.0 + static_cast<double>(n_rows)) *
                              static_cast<double>(n_rows) * 0.5;
    double *centroid = state->dq_history + state->dq_next * dim;
    for (size_t j = 0; j < dim; ++j) centroid[j] = 0.0;
    for (size_t i = 0; i < n_rows; ++i) {
        const double w = static_cast<double>(n_rows - i);
        const double *row = rows + i * dim;
        for (size_t j = 0; j < dim; ++j) centroid[j] += w * row[j];
    }
    for (size_t j = 0; j < dim; ++j) centroid[j] /= normaliser;

    state->dq_next = (state->dq_next + 1) % window;
    if (state->dq_count < window) ++state->dq_count;
    state->dq_current = qvni_dq_compute(state);
    return 0;
}

double qvni_dq_compute(const qvni_diversify_state *state) noexcept {
    if (!state || !state->dq_history || state->dq_count < 2) return kNaN;
    const uint64_t count = state->dq_count;
    const size_t dim = state->dq_dim;
    const double scale =
        2.0 / (static_cast<double>(count - 1) * static_cast<double>(count));
    double sum = 0.0;
    for (uint64_t i = 0; i < count; ++i) {
        const double *a = state->dq_history + i * dim;
        for (uint64_t j = i + 1; j < count; ++j) {
            const double *b = state->dq_history + j * dim;
            double dot = 0.0, na = 0.0, nb = 0.0;
            for (size_t e = 0; e < dim; ++e) {
                dot += a[e] * b[e];
                na += a[e] * a[e];
                nb += b[e] * b[e];
            }
            if (std::isnan(na) || std::isnan(nb) || !(na > 0.0) || !(nb > 0.0)) return kNaN;
            const double ra = std::sqrt(na), rb = std::sqrt(nb);
            const double denom = ra * rb;
            if (!(denom > 0.0) || std::isinf(denom)) return kNaN;
            if (std::isnan(dot / denom)) return kNaN;
            sum += dot / (ra * rb);
        }
    }
    const double dq = 1.0 - scale * sum;
    if (dq < 0.0 && dq > -1e-12) return 0.0;
    if (dq > 2.0 && dq < 2.000000000001) return 2.0;
    return dq;
}

extern "C" {

QVN_API double qvn_diversify_current_dq(const qvn_context *ctx) {
    if (!ctx || !ctx->ostrany_mode || !ctx->diversify || !ctx->diversify->enabled)
        return kNaN;
    return ctx->diversify->dq_current;
}

}  // extern "C"
