// qvn_search (text) and qvn_search_ptr (arrays): out-parameters cleared,
// arguments and input limits checked in a fixed order (first failure wins),
// text parsed, then the driver.
#include <cstdlib>

#include "search/search.h"

namespace {

struct freeing {
    double *p = nullptr;
    ~freeing() { std::free(p); }
};

}  // namespace

extern "C" {

QVN_API int32_t qvn_search(qvn_context *ctx, const char *corpus_text, size_t corpus_len,
                           const char *query_text, size_t query_len, int32_t k,
                           const char *params, size_t params_len, const char **out_json,
                           size_t *out_len) {
    if (out_json) *out_json = nullptr;
    if (out_len) *out_len = 0;
    if (!ctx) return QVN_ERR_INVALID;
    if (!query_text || !out_json || !out_len || query_len == 0) {
        set_err(ctx, "quorvane: invalid arguments");
        return QVN_ERR_INVALID;
    }
    if (k < 1) {
        set_err(ctx, "quorvane: k must be >= 1");
        return QVN_ERR_INVALID;
    }
    if (query_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: query_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", query_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }
    if (corpus_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: corpus_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", corpus_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }
    if (params_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: params_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", params_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }

    freeing query;
    size_t dim = 0;
    if (!parse_vector_csv(query_text, query_len, &query.p, &dim, ctx->errmsg)) {
        return QVN_ERR_PARSE;
    }
    freeing rows;
    size_t n_rows = 0;
    if (corpus_text && corpus_len != 0) {
        size_t corpus_dim = 0;
        if (!parse_corpus(corpus_text, corpus_len, dim, &rows.p, &n_rows, &corpus_dim,
                          ctx->errmsg)) {
            return QVN_ERR_PARSE;
        }
        if (n_rows != 0 && corpus_dim != dim) {
            set_err(ctx, "quorvane: corpus dim %zu != query dim %zu", corpus_dim, dim);
            return QVN_ERR_DIM;
        }
    }
    return run_search(ctx, query.p, dim, n_rows != 0 ? rows.p : nullptr, n_rows, k, params,
                      params_len, out_json, out_len);
}

QVN_API int32_t qvn_search_ptr(qvn_context *ctx, const double *corpus, size_t n_rows,
                               size_t dim, const double *query, size_t query_dim, int32_t k,
                               const char *params, size_t params_len, const char **out_json,
                               size_t *out_len) {
    if (out_json) *out_json = nullptr;
    if (out_len) *out_len = 0;
    if (!ctx) return QVN_ERR_INVALID;
    if (!query || !out_json || !out_len || query_dim == 0) {
        set_err(ctx, "quorvane: invalid arguments");
        return QVN_ERR_INVALID;
    }
    if (k < 1) {
        set_err(ctx, "quorvane: k must be >= 1");
        return QVN_ERR_INVALID;
    }
    if (query_dim > QVN_MAX_DIM) {
        set_err(ctx, "quorvane: query_dim %zu exceeds QVN_MAX_DIM %zu", query_dim, QVN_MAX_DIM);
        return QVN_ERR_INVALID;
    }
    if (dim > QVN_MAX_DIM) {
        set_err(ctx, "quorvane: dim %zu exceeds QVN_MAX_DIM %zu", dim, QVN_MAX_DIM);
        return QVN_ERR_INVALID;
    }
    if (n_rows > QVN_MAX_ROWS) {
        set_err(ctx, "quorvane: n_rows %zu exceeds QVN_MAX_ROWS %zu", n_rows, QVN_MAX_ROWS);
        return QVN_ERR_INVALID;
    }
    // Division form: the product could overflow.
    if (n_rows != 0 && dim != 0 && static_cast<uint64_t>(n_rows) > QVN_MAX_ELEMENTS / dim) {
        set_err(ctx, "quorvane: n_rows * dim exceeds QVN_MAX_ELEMENTS");
        return QVN_ERR_INVALID;
    }
    if (params_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: params_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", params_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }
    if (n_rows != 0) {
        if (!corpus) {
            set_err(ctx, "quorvane: corpus pointer NULL with n_rows=%zu", n_rows);
            return QVN_ERR_INVALID;
        }
        if (dim != query_dim) {
            set_err(ctx, "quorvane: corpus dim %zu != query dim %zu", dim, query_dim);
            return QVN_ERR_DIM;
        }
    }
    return run_search(ctx, query, query_dim, n_rows != 0 ? corpus : nullptr, n_rows, k, params,
                      params_len, out_json, out_len);
}

}  // extern "C"
