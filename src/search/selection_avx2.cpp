// AVX2 row scan for the search cosine distance.
//
// Numeric contract: identical bits to the scalar scan. Four rows share a
// register, one row per lane: each lane keeps its row's dot and na sums and
// adds a[i] * q[i] and a[i] * a[i] strictly in index order, with separate
// multiply and add (no FMA; the unit is built with -mno-fma). Rows are read
// four elements at a time and transposed so that one register holds element
// i of four rows. Two such groups (eight rows) run interleaved to hide the
// add latency. The query's sum of squares comes from the caller. Finishing
// uses the scalar's operations lane-wise (sqrt, multiply, divide, subtract
// are each correctly rounded) and masks zero rows and non-finite results.
// Off x86 this unit is empty and the scalar scan serves.
#include "search/search.h"

#ifdef QVN_SEARCH_HAS_AVX2_SCAN
#include <immintrin.h>

namespace {

constexpr size_t kShortRow = 512;  // doubles; longer rows prefetch well by themselves

struct group {
    __m256d dot = _mm256_setzero_pd();
    __m256d na = _mm256_setzero_pd();

    inline void add(__m256d a, __m256d q) noexcept {
        dot = _mm256_add_pd(dot, _mm256_mul_pd(a, q));
        na = _mm256_add_pd(na, _mm256_mul_pd(a, a));
    }

    // Elements i .. i + 3 of rows r[0..3], in index order.
    inline void add4(const double *const r[4], size_t i, const double *query) noexcept {
        const __m256d a0 = _mm256_loadu_pd(r[0] + i);
        const __m256d a1 = _mm256_loadu_pd(r[1] + i);
        const __m256d a2 = _mm256_loadu_pd(r[2] + i);
        const __m256d a3 = _mm256_loadu_pd(r[3] + i);
        const __m256d lo01 = _mm256_unpacklo_pd(a0, a1);  // r0[i] r1[i] r0[i+2] r1[i+2]
        const __m256d hi01 = _mm256_unpackhi_pd(a0, a1);  // r0[i+1] r1[i+1] r0[i+3] r1[i+3]
        const __m256d lo23 = _mm256_unpacklo_pd(a2, a3);
        const __m256d hi23 = _mm256_unpackhi_pd(a2, a3);
        add(_mm256_permute2f128_pd(lo01, lo23, 0x20), _mm256_broadcast_sd(query + i));
        add(_mm256_permute2f128_pd(hi01, hi23, 0x20), _mm256_broadcast_sd(query + i + 1));
        add(_mm256_permute2f128_pd(lo01, lo23, 0x31), _mm256_broadcast_sd(query + i + 2));
        add(_mm256_permute2f128_pd(hi01, hi23, 0x31), _mm256_broadcast_sd(query + i + 3));
    }

    inline void add1(const double *const r[4], size_t i, const double *query) noexcept {
        add(_mm256_set_pd(r[3][i], r[2][i], r[1][i], r[0][i]), _mm256_broadcast_sd(query + i));
    }

    // 1 - dot / (sqrt(nb) * sqrt(na)) per lane with the scalar's operations
    // (each correctly rounded, so the same bits); 1.0 where na or nb is 0
    // or the result is not finite.
    inline void finish(double nb, double *out) const noexcept {
        const __m256d one = _mm256_set1_pd(1.0);
        if (nb == 0.0) {
            _mm256_storeu_pd(out, one);
            return;
        }
        const __m256d zero = _mm256_setzero_pd();
        const __m256d denom = _mm256_mul_pd(_mm256_set1_pd(__builtin_sqrt(nb)), _mm256_sqrt_pd(na));
        const __m256d d = _mm256_sub_pd(one, _mm256_div_pd(dot, denom));
        const __m256d finite = _mm256_cmp_pd(_mm256_sub_pd(d, d), zero, _CMP_EQ_OQ);
        const __m256d nonzero = _mm256_cmp_pd(na, zero, _CMP_NEQ_UQ);
        _mm256_storeu_pd(out, _mm256_blendv_pd(one, d, _mm256_and_pd(finite, nonzero)));
    }
};

}  // namespace

void scan_distances_avx2(const double *rows, size_t n_rows, int32_t dim, const double *query,
                         double query_sq, double *out) noexcept {
    if (dim <= 0) {
        scan_distances_scalar(rows, n_rows, dim, query, query_sq, out);
        return;
    }
    const size_t stride = static_cast<size_t>(dim);
    const size_t body = stride & ~static_cast<size_t>(3);
    const bool short_rows = stride <= kShortRow;
    size_t r = 0;
    for (; r + 8 <= n_rows; r += 8) {
        const double *const base = rows + r * stride;
        const double *const ra[4] = {base, base + stride, base + 2 * stride, base + 3 * stride};
        const double *const rb[4] = {base + 4 * stride, base + 5 * stride, base + 6 * stride,
                                     base + 7 * stride};
        group a, b;
        size_t i = 0;
        // Short rows are too short for the hardware's stream prefetcher to
        // follow eight at once. The next eight rows are one contiguous block:
        // fetch it at the pace this block is consumed (four 64-byte lines per
        // four elements).
        const char *const next = reinterpret_cast<const char *>(base + 8 * stride);
        const bool fetch = short_rows && r + 16 <= n_rows;
        for (; i < body; i += 4) {
            if (fetch) {
                const char *p = next + i * 64;
                _mm_prefetch(p, _MM_HINT_T0);
                _mm_prefetch(p + 64, _MM_HINT_T0);
                _mm_prefetch(p + 128, _MM_HINT_T0);
                _mm_prefetch(p + 192, _MM_HINT_T0);
            }
            a.add4(ra, i, query);
            b.add4(rb, i, query);
        }
        for (; i < stride; ++i) {
            a.add1(ra, i, query);
            b.add1(rb, i, query);
        }
        a.finish(query_sq, out + r);
        b.finish(query_sq, out + r + 4);
    }
    if (r + 4 <= n_rows) {
        const double *const base = rows + r * stride;
        const double *const ra[4] = {base, base + stride, base + 2 * stride, base + 3 * stride};
        group a;
        size_t i = 0;
        for (; i < body; i += 4) a.add4(ra, i, query);
        for (; i < stride; ++i) a.add1(ra, i, query);
        a.finish(query_sq, out + r);
        r += 4;
    }
    if (r < n_rows) scan_distances_scalar(rows + r * stride, n_rows - r, dim, query, query_sq, out + r);
}

#endif  // QVN_SEARCH_HAS_AVX2_SCAN
