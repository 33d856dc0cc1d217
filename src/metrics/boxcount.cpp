// Box-counting dimension of a point cloud, and the row sort of cell keys
// that box counting and lacunarity share.
//
// Numeric contract: the extent L is the largest per-axis (max - min), with
// strictly-greater replacement from 0.0 in axis order (a NaN extent never
// wins). Scale k = 1..12 uses eps = exp2(-k) * L; a point's cell key on
// axis j is floor(x_j / eps), so the grid is anchored at the origin. N is
// counted by sorting the key rows and counting adjacent differing rows. A
// scale is kept when 3 * N < n; it contributes ln(1.0 / eps) and ln N. The
// dimension is the least-squares slope with sums in scale order; a zero
// denominator is -1.
//
// The row sort partitions three ways (below, equal to, above the pivot): the
// rows of a box holding m points are settled in one pass, where a two-way
// split would cost m^2 / 2 comparisons. Rows that compare equal are
// identical, so the sorted keys, and with them every count and result, are
// exactly those of any other correct sort.
//
// Keys that do not exist: when floor(x / eps) is NaN (a NaN or infinite
// coordinate) or lies outside the signed 64-bit range, the call is rejected
// with -1 rather than clamped. A clamped key would silently merge distant
// boxes and bias N; rejecting keeps every reported dimension meaningful.
#include <cmath>
#include <utility>

#include "core/scratch.h"
#include "core/status.h"
#include "metrics/metrics.h"

namespace {

// -1, 0 or 1 as row a is lexicographically below, equal to or above row b.
inline int row_compare(const int64_t *a, const int64_t *b, size_t d) noexcept {
    for (size_t j = 0; j < d; ++j) {
        if (a[j] < b[j]) return -1;
        if (a[j] > b[j]) return 1;
    }
    return 0;
}

inline void row_swap(int64_t *a, int64_t *b, size_t d) noexcept {
    if (a == b) return;
    for (size_t j = 0; j < d; ++j) std::swap(a[j], b[j]);
}

}  // namespace

// Quicksort on rows: median of three, then one left-to-right three-way
// partition (Dijkstra's) into rows below, equal to and above the pivot.
// Only the outer parts are sorted further: the smaller by recursion, the
// larger by the loop, so the stack stays logarithmic.
void cell_sort(int64_t *keys, size_t d, int64_t lo, int64_t hi) noexcept {
    auto row = [keys, d](int64_t r) { return keys + static_cast<size_t>(r) * d; };
    while (hi > lo) {
        const int64_t mid = lo + (hi - lo) / 2;
        if (row_compare(row(mid), row(lo), d) < 0) row_swap(row(mid), row(lo), d);
        if (row_compare(row(hi), row(lo), d) < 0) row_swap(row(hi), row(lo), d);
        if (row_compare(row(hi), row(mid), d) < 0) row_swap(row(hi), row(mid), d);
        row_swap(row(mid), row(hi), d);

        // Rows lo..lt-1 are below the pivot, lt..r-1 equal to it, gt+1..hi-1
        // above it; the pivot stays in row hi until the scan ends.
        const int64_t *pivot = row(hi);
        int64_t lt = lo, r = lo, gt = hi - 1;
        while (r <= gt) {
            const int c = row_compare(row(r), pivot, d);
            if (c < 0) {
                row_swap(row(lt++), row(r++), d);
            } else if (c > 0) {
                row_swap(row(r), row(gt--), d);
            } else {
                ++r;
            }
        }
        row_swap(row(gt + 1), row(hi), d);
        const int64_t below = lt - 1, above = gt + 2;  // equal rows: lt..gt+1

        if (below - lo >= hi - above) {
            if (hi > above) cell_sort(keys, d, above, hi);
            hi = below;
        } else {
            if (below > lo) cell_sort(keys, d, lo, below);
            lo = above;
        }
    }
}

double qvn::bounding_extent(const double *points, size_t n, size_t d, double *lo,
                            double *hi) noexcept {
    for (size_t j = 0; j < d; ++j) lo[j] = hi[j] = points[j];
    for (size_t i = 1; i < n; ++i) {
        const double *x = points + i * d;
        for (size_t j = 0; j < d; ++j) {
            if (x[j] < lo[j]) lo[j] = x[j];
            if (x[j] > hi[j]) hi[j] = x[j];
        }
    }
    double extent = 0.0;
    for (size_t j = 0; j < d; ++j) {
        const double e = hi[j] - lo[j];
        if (e > extent) extent = e;
    }
    return extent;
}

bool qvn::ols_slope(const double *x, const double *y, size_t m, double *slope) noexcept {
    double sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
    for (size_t i = 0; i < m; ++i) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    const double md = static_cast<double>(m);
    const double den = md * sxx - sx * sx;
    if (den == 0.0) return false;
    *slope = (md * sxy - sx * sy) / den;
    return true;
}

int32_t qvn::kept_scales(const double *points, size_t n, size_t d, double extent,
                         double eps_out[12], size_t boxes_out[12], size_t *m) noexcept {
    if (n > SIZE_MAX / d) return kKernelNoMem;
    auto keys = make_scratch<int64_t>(n * d);
    if (!keys) return kKernelNoMem;
    *m = 0;
    for (int k = 1; k <= 12; ++k) {
        const double eps = std::exp2(-static_cast<double>(k)) * extent;
        if (eps <= 0.0) continue;
        for (size_t i = 0; i < n * d; ++i)
            if (!cell_key(points[i], eps, &keys[i])) return kKernelInvalid;
        cell_sort(keys.get(), d, 0, static_cast<int64_t>(n - 1));
        size_t boxes = 1;
        for (size_t r = 1; r < n; ++r)
            if (row_compare(&keys[(r - 1) * d], &keys[r * d], d) != 0) ++boxes;
        if (3 * boxes < n) {
            eps_out[*m] = eps;
            boxes_out[*m] = boxes;
            ++*m;
        }
    }
    return 0;
}

int32_t qvni_boxcount_dimension(const double *points, size_t n, size_t d,
                                double *dimension) noexcept {
    if (d == 0 || n < 8 || !points || !dimension) return qvn::kKernelInvalid;

    double extent = 0.0;
    {
        auto lo = qvn::make_scratch<double>(d);
        auto hi = qvn::make_scratch<double>(d);
        if (!lo || !hi) return qvn::kKernelNoMem;
        extent = qvn::bounding_extent(points, n, d, lo.get(), hi.get());
    }
    if (extent <= 0.0) return qvn::kKernelInvalid;

    double eps[12];
    size_t boxes[12], m = 0;
    const int32_t rc = qvn::kept_scales(points, n, d, extent, eps, boxes, &m);
    if (rc != 0) return rc;
    if (m < 3) return qvn::kKernelInvalid;
    double xs[12], ys[12];
    for (size_t i = 0; i < m; ++i) {
        xs[i] = std::log(1.0 / eps[i]);
        ys[i] = std::log(static_cast<double>(boxes[i]));
    }
    double slope;
    if (!qvn::ols_slope(xs, ys, m, &slope)) return qvn::kKernelInvalid;
    *dimension = slope;
    return 0;
}

extern "C" {

QVN_API int32_t qvn_dimension_boxcount(const double *points, size_t n, size_t d,
                                       double *dimension) {
    if (!points || !dimension) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_boxcount_dimension(points, n, d, dimension));
}

}  // extern "C"
