// The search pipeline behind qvn_search and qvn_search_ptr: text parsers,
// the JSON key scanner, candidate selection, the result document writer and
// the driver.
#ifndef QVN_SEARCH_SEARCH_H
#define QVN_SEARCH_SEARCH_H

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "core/context.h"

// ---- Text parsers -------------------------------------------------------
// Both take a byte range that need not be NUL-terminated and write their
// failure message into msg (QVN_ERRMSG_SIZE bytes). On success the caller
// owns the returned array (free()); on failure nothing is returned.

// One vector of at least one number.
bool parse_vector_csv(const char *text, size_t len, double **out_values, size_t *out_count,
                      char *msg) noexcept;

// Rows separated by ';' or, inside one outer pair of brackets, by the rows'
// own brackets. expected_dim 0 lets the first row set the dimension. No
// rows: *out_rows NULL, *out_n_rows 0, *out_dim expected_dim.
bool parse_corpus(const char *text, size_t len, size_t expected_dim, double **out_rows,
                  size_t *out_n_rows, size_t *out_dim, char *msg) noexcept;

// ---- Search parameters --------------------------------------------------
// Finds "key" followed by ':' anywhere in the text (first match wins) and
// stores the index of its value, which may equal len.
bool json_find_key(const char *text, size_t len, const char *key, size_t *out_pos) noexcept;
// Value readers: a missing or unreadable value gives the default.
int32_t json_get_int(const char *text, size_t len, const char *key,
                     int32_t default_value) noexcept;
double json_get_double(const char *text, size_t len, const char *key,
                       double default_value) noexcept;
bool json_get_bool(const char *text, size_t len, const char *key) noexcept;

// ---- Candidate selection ------------------------------------------------
// 1 - dot / (sqrt(nb) * sqrt(na)) with the three sums in index order; 1.0
// for dim <= 0, a zero vector or a non-finite result.
double search_cosine_distance(const double *a, const double *b, int32_t dim) noexcept;

// Search cosine distances of n_rows consecutive rows to the query, each
// bit-identical to search_cosine_distance(row, query, dim); query_sq is
// the query's sum of squares in index order. The AVX2 variant (x86 only)
// keeps four rows per register, one sequential sum per lane; scan_distances
// picks it per call when the processor has AVX2.
void scan_distances_scalar(const double *rows, size_t n_rows, int32_t dim, const double *query,
                           double query_sq, double *out) noexcept;
#if defined(__x86_64__) || defined(__i386__)
#define QVN_SEARCH_HAS_AVX2_SCAN 1
void scan_distances_avx2(const double *rows, size_t n_rows, int32_t dim, const double *query,
                         double query_sq, double *out) noexcept;
#endif
void scan_distances(const double *rows, size_t n_rows, int32_t dim, const double *query,
                    double *out) noexcept;
// Finishes one distance from its sums (zero vectors and non-finite results
// give 1.0).
double finish_cosine_distance(double dot, double na, double nb) noexcept;

// The k nearest rows by search cosine distance, ascending; unused slots hold
// (-1, +inf). Ties keep the earlier row. Allocates nothing.
void topk_by_distance(const double *corpus, size_t n_rows, int32_t dim, const double *query,
                      int32_t k, int32_t *idx_out, double *dist_out) noexcept;

// Maximal marginal relevance: up to min(m, n) candidate positions in
// selection order. Returns the number selected (0 when scratch memory is
// not available).
size_t mmr_select(const double *corpus, int32_t dim, const int32_t *candidate_rows,
                  const double *relevance, size_t n, size_t m, size_t *sel_out,
                  double lambda) noexcept;

// ---- Result document writer ---------------------------------------------
constexpr uint64_t QVN_RESULT_CAP_CEILING = 0x6400000;  // 100 MiB

bool ensure_result_cap(qvn_context *ctx, uint64_t need) noexcept;
bool append_fmt(qvn_context *ctx, uint64_t *pos, const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));
// Optional prefix, then "%.17g" of value, or "null" for NaN and infinities.
bool append_num(qvn_context *ctx, uint64_t *pos, const char *prefix, double value) noexcept;

// ---- Driver -------------------------------------------------------------
// Microseconds from t0 to t1: whole seconds times 10^6 plus the difference
// of the truncated microsecond parts, as an unsigned 64-bit count.
double elapsed_us(const timespec &t0, const timespec &t1) noexcept;

// query: dim >= 1 doubles; corpus: n_rows x dim doubles, NULL exactly when
// n_rows is 0; k >= 1. Returns 0, -1, -4 or -5 with a message on failure.
int32_t run_search(qvn_context *ctx, const double *query, size_t dim, const double *corpus,
                   size_t n_rows, int32_t k, const char *params, size_t params_len,
                   const char **out_json, size_t *out_len) noexcept;

#endif
