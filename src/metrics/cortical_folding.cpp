// Gyrification of a triangulated surface: its own area, the area of the
// convex hull of all its vertices, and their ratio.
//
// Numeric contract: the surface area is the sum, in triangle order, of
// 0.5 * |(v_b - v_a) x (v_c - v_a)| (cross product and norm as in the hull
// kernel); degenerate triangles add 0 and orientation does not matter. The
// index checks run per triangle, a then b then c, before its area is added.
#include <cmath>

#include "core/status.h"
#include "metrics/metrics.h"

int32_t qvni_cortical_folding(const double *vertices, size_t n, const uint64_t *triangles,
                              size_t t, double *surface_area, double *hull_area,
                              double *ratio) noexcept {
    if (t == 0 || n < 4 || !vertices || !triangles || !surface_area || !hull_area || !ratio)
        return qvn::kKernelInvalid;

    double area = 0.0;
    for (size_t i = 0; i < t; ++i) {
        const uint64_t a = triangles[3 * i], b = triangles[3 * i + 1], c = triangles[3 * i + 2];
        if (a >= n || b >= n || c >= n) return qvn::kKernelInvalid;
        const double *va = vertices + 3 * a, *vb = vertices + 3 * b, *vc = vertices + 3 * c;
        const double ux = vb[0] - va[0], uy = vb[1] - va[1], uz = vb[2] - va[2];
        const double wx = vc[0] - va[0], wy = vc[1] - va[1], wz = vc[2] - va[2];
        const double cx = uy * wz - uz * wy;
        const double cy = uz * wx - ux * wz;
        const double cz = ux * wy - uy * wx;
        area += 0.5 * std::sqrt(cx * cx + cy * cy + cz * cz);
    }
    if (area <= 0.0) return qvn::kKernelInvalid;

    double hull = 0.0;
    const int32_t rc = qvni_hull3d_surface_area(vertices, n, &hull);
    if (rc != 0) return rc;
    if (hull <= 1e-12) return qvn::kKernelInvalid;
    *surface_area = area;
    *hull_area = hull;
    *ratio = area / hull;
    return 0;
}

extern "C" {

QVN_API int32_t qvn_cortical_folding(const double *vertices, size_t n,
                                     const uint64_t *triangles, size_t t,
                                     double *surface_area, double *hull_area, double *ratio) {
    if (!vertices || !triangles || !surface_area || !hull_area || !ratio)
        return QVN_ERR_INVALID;
    return qvn::map_kernel_status(
        qvni_cortical_folding(vertices, n, triangles, t, surface_area, hull_area, ratio));
}

}  // extern "C"
