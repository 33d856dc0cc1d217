// Fractal and morphology kernels behind the exported metric calls.
// Every kernel returns 0, -1 (invalid or degenerate input) or -2 (allocation
// failure) and writes its out-parameters only when it returns 0, except
// qvni_morphological_complexity, which keeps a dimension it has written when
// the lacunarity step then fails.
#ifndef QVN_METRICS_METRICS_H
#define QVN_METRICS_METRICS_H

#include <cmath>
#include <cstddef>
#include <cstdint>

// DFA (first order) scaling exponent of n samples, and the exponent of the
// last w samples minus that of the n - w before them.
int32_t qvni_dfa_alpha(const double *series, size_t n, double *alpha) noexcept;
int32_t qvni_dfa_drift(const double *series, size_t n, size_t w, double *drift,
                       double *alpha_recent, double *alpha_baseline) noexcept;

// Box-counting dimension of n points of d coordinates (row-major).
int32_t qvni_boxcount_dimension(const double *points, size_t n, size_t d,
                                double *dimension) noexcept;

// Sorts rows lo..hi (inclusive) of a row-major matrix of d signed 64-bit keys
// into ascending lexicographic order, in place; hi <= lo does nothing.
void cell_sort(int64_t *keys, size_t d, int64_t lo, int64_t hi) noexcept;

// Fixed-grid lacunarity (variance / mean^2 + 1 of the box counts).
int32_t qvni_lacunarity_fixed_grid(const double *points, size_t n, size_t d,
                                   double *lacunarity) noexcept;

// Surface area of the convex hull of n points in three dimensions.
int32_t qvni_hull3d_surface_area(const double *points, size_t n, double *area) noexcept;

int32_t qvni_vascular_network_metrics(const double *nodes, size_t n, const uint64_t *edges,
                                      const double *segment_lengths, size_t m,
                                      double *mean_tortuosity, double *branch_density,
                                      double *dimension) noexcept;

int32_t qvni_cortical_folding(const double *vertices, size_t n, const uint64_t *triangles,
                              size_t t, double *surface_area, double *hull_area,
                              double *ratio) noexcept;

int32_t qvni_nerve_plexus_metric(const double *nodes, size_t n, size_t d,
                                 const uint64_t *edges, size_t m, double *length_density,
                                 double *branch_density, double *dimension) noexcept;

int32_t qvni_morphological_complexity(const double *points, size_t n, size_t d,
                                      double *dimension, double *lacunarity) noexcept;

namespace qvn {

// Per-axis minimum and maximum of n points (strict comparisons) into lo and
// hi, and the largest axis extent, replaced only when strictly greater,
// starting from 0.0 (a NaN extent never wins).
double bounding_extent(const double *points, size_t n, size_t d, double *lo,
                       double *hi) noexcept;

// Ordinary least-squares slope of y on x over m pairs, sums accumulated in
// pair order: (m*Sxy - Sx*Sy) / (m*Sxx - Sx^2). False when the denominator
// is exactly 0.
bool ols_slope(const double *x, const double *y, size_t m, double *slope) noexcept;

// The scale search of box counting and lacunarity: for k = 1..12, eps =
// exp2(-k) * extent and N = occupied boxes; the (eps, N) of every scale with
// 3 * N < n, in scale order, with their count in *m. 0, -1 (a key that does
// not exist), -2.
int32_t kept_scales(const double *points, size_t n, size_t d, double extent,
                    double eps_out[12], size_t boxes_out[12], size_t *m) noexcept;

// floor(x / eps) as a cell key. False, with *key untouched, when the floor
// is NaN or outside the signed 64-bit range; the range is tested on the
// double before converting, since an out-of-range conversion is undefined.
inline bool cell_key(double x, double eps, int64_t *key) noexcept {
    const double q = std::floor(x / eps);
    if (!(q >= -0x1p63 && q < 0x1p63)) return false;
    *key = static_cast<int64_t>(q);
    return true;
}

}  // namespace qvn

#endif
