// Shape of a point cloud as two figures: box-counting dimension, then
// fixed-grid lacunarity, computed one after the other on the same input.
// The dimension is written straight to the caller's output, so it stays
// there when the lacunarity step then fails; when box counting fails,
// neither output is written.
#include "core/status.h"
#include "metrics/metrics.h"

int32_t qvni_morphological_complexity(const double *points, size_t n, size_t d,
                                      double *dimension, double *lacunarity) noexcept {
    if (!points || !dimension || !lacunarity) return qvn::kKernelInvalid;
    const int32_t rc = qvni_boxcount_dimension(points, n, d, dimension);
    if (rc != 0) return rc;
    return qvni_lacunarity_fixed_grid(points, n, d, lacunarity);
}

extern "C" {

QVN_API int32_t qvn_morphological_complexity(const double *points, size_t n, size_t d,
                                             double *dimension, double *lacunarity) {
    if (!points || !dimension || !lacunarity) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(
        qvni_morphological_complexity(points, n, d, dimension, lacunarity));
}

}  // extern "C"
