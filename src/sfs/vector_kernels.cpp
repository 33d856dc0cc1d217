// Single-precision vector kernels.
//
// Numeric contract: every sum is one float accumulator starting at +0.0f
// that adds its terms in index order; each term (product, squared
// difference, square) is rounded to float before it is added. No partial
// sums, no widening to double, no fused multiply-add (the build sets
// -ffp-contract=off). The cosine pair keeps three such sums in one pass and
// divides by the product of two separate square roots; a denominator that
// is not > 0 (zero vector or NaN) gives similarity 0 and distance 1.
// Element-wise kernels read element i and then write element i, so out may
// be the very array of an input.
#include <cmath>

#include "quorvane.h"
#include "sfs/sfs.h"

int32_t qvni_vector_dot(const float *a, const float *b, size_t n, float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    float s = 0.0f;
    for (size_t i = 0; i < n; ++i) {
        const float t = a[i] * b[i];
        s += t;
    }
    *out = s;
    return 0;
}

int32_t qvni_vector_l2_sq(const float *a, const float *b, size_t n, float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    float s = 0.0f;
    for (size_t i = 0; i < n; ++i) {
        const float d = a[i] - b[i];
        const float t = d * d;
        s += t;
    }
    *out = s;
    return 0;
}

int32_t qvni_vector_l2(const float *a, const float *b, size_t n, float *out) noexcept {
    float s;
    if (!out || qvni_vector_l2_sq(a, b, n, &s) != 0) return -1;
    *out = std::sqrt(s);
    return 0;
}

namespace {

// One pass, three sequential float sums: a.b, a.a, b.b.
void cosine_sums(const float *a, const float *b, size_t n, float *dot, float *aa,
                 float *bb) noexcept {
    float d = 0.0f, sa = 0.0f, sb = 0.0f;
    for (size_t i = 0; i < n; ++i) {
        const float ab = a[i] * b[i];
        const float a2 = a[i] * a[i];
        const float b2 = b[i] * b[i];
        d += ab;
        sa += a2;
        sb += b2;
    }
    *dot = d;
    *aa = sa;
    *bb = sb;
}

}  // namespace

int32_t qvni_vector_cosine_similarity(const float *a, const float *b, size_t n,
                                      float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    float dot, aa, bb;
    cosine_sums(a, b, n, &dot, &aa, &bb);
    const float den = std::sqrt(aa) * std::sqrt(bb);
    *out = den > 0.0f ? dot / den : 0.0f;
    return 0;
}

int32_t qvni_vector_cosine_distance(const float *a, const float *b, size_t n,
                                    float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    float dot, aa, bb;
    cosine_sums(a, b, n, &dot, &aa, &bb);
    const float den = std::sqrt(aa) * std::sqrt(bb);
    *out = den > 0.0f ? 1.0f - dot / den : 1.0f;
    return 0;
}

int32_t qvni_vector_norm(const float *v, size_t n, float *out) noexcept {
    if (!v || !out || n == 0) return -1;
    float s = 0.0f;
    for (size_t i = 0; i < n; ++i) {
        const float t = v[i] * v[i];
        s += t;
    }
    *out = std::sqrt(s);
    return 0;
}

int32_t qvni_vector_normalize(const float *v, size_t n, float *out) noexcept {
    if (!v || !out || n == 0) return -1;
    float norm;
    qvni_vector_norm(v, n, &norm);
    if (norm > 0.0f) {
        for (size_t i = 0; i < n; ++i) out[i] = v[i] / norm;  // divide, not * 1/norm
    } else {
        for (size_t i = 0; i < n; ++i) out[i] = 0.0f;
    }
    return 0;
}

int32_t qvni_vector_add(const float *a, const float *b, size_t n, float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    for (size_t i = 0; i < n; ++i) out[i] = a[i] + b[i];
    return 0;
}

int32_t qvni_vector_sub(const float *a, const float *b, size_t n, float *out) noexcept {
    if (!a || !b || !out || n == 0) return -1;
    for (size_t i = 0; i < n; ++i) out[i] = a[i] - b[i];
    return 0;
}

int32_t qvni_vector_scale(const float *v, size_t n, float *out, float factor) noexcept {
    if (!v || !out || n == 0) return -1;
    for (size_t i = 0; i < n; ++i) out[i] = v[i] * factor;
    return 0;
}

int32_t qvni_vector_weighted_concat(const float *a, size_t na, const float *b,
                                    size_t nb, float *out, float wa,
                                    float wb) noexcept {
    if (!a || !b || !out || na == 0 || nb == 0) return -1;
    for (size_t i = 0; i < na; ++i) out[i] = a[i] * wa;
    for (size_t j = 0; j < nb; ++j) out[na + j] = b[j] * wb;
    return 0;
}

// Exported wrappers: 0 when the kernel returned 0, else -1.
extern "C" {
#define QVN_WRAP(expr) return (expr) == 0 ? 0 : -1
QVN_API int32_t qvn_vector_dot(const float *a, const float *b, size_t n, float *out) {
    QVN_WRAP(qvni_vector_dot(a, b, n, out));
}
QVN_API int32_t qvn_vector_l2_sq(const float *a, const float *b, size_t n, float *out) {
    QVN_WRAP(qvni_vector_l2_sq(a, b, n, out));
}
QVN_API int32_t qvn_vector_l2(const float *a, const float *b, size_t n, float *out) {
    QVN_WRAP(qvni_vector_l2(a, b, n, out));
}
QVN_API int32_t qvn_vector_cosine_similarity(const float *a, const float *b, size_t n,
                                             float *out) {
    QVN_WRAP(qvni_vector_cosine_similarity(a, b, n, out));
}
QVN_API int32_t qvn_vector_cosine_distance(const float *a, const float *b, size_t n,
                                           float *out) {
    QVN_WRAP(qvni_vector_cosine_distance(a, b, n, out));
}
QVN_API int32_t qvn_vector_norm(const float *v, size_t n, float *out) {
    QVN_WRAP(qvni_vector_norm(v, n, out));
}
QVN_API int32_t qvn_vector_normalize(const float *v, size_t n, float *out) {
    QVN_WRAP(qvni_vector_normalize(v, n, out));
}
QVN_API int32_t qvn_vector_add(const float *a, const float *b, size_t n, float *out) {
    QVN_WRAP(qvni_vector_add(a, b, n, out));
}
QVN_API int32_t qvn_vector_sub(const float *a, const float *b, size_t n, float *out) {
    QVN_WRAP(qvni_vector_sub(a, b, n, out));
}
QVN_API int32_t qvn_vector_scale(const float *v, size_t n, float *out, float factor) {
    QVN_WRAP(qvni_vector_scale(v, n, out, factor));
}
QVN_API int32_t qvn_vector_weighted_concat(const float *a, size_t na, const float *b,
                                           size_t nb, float *out, float wa, float wb) {
    QVN_WRAP(qvni_vector_weighted_concat(a, na, b, nb, out, wa, wb));
}
#undef QVN_WRAP
}
