// Fibre network summary in d dimensions: total straight edge length and
// branch points (degree >= 3) per unit volume of the nodes' bounding box,
// and the box-counting dimension of the nodes.
//
// Numeric contract: V is 1.0 times each axis extent (max - min) in axis
// order; an extent <= 0 is -1. An edge's length is the square root of the
// sum, in axis order, of squared differences (node a - node b); lengths are
// added to L in edge order. Coincident distinct nodes add 0.
#include <cmath>

#include "core/scratch.h"
#include "core/status.h"
#include "metrics/metrics.h"

int32_t qvni_nerve_plexus_metric(const double *nodes, size_t n, size_t d,
                                 const uint64_t *edges, size_t m, double *length_density,
                                 double *branch_density, double *dimension) noexcept {
    if (d == 0 || m == 0 || n < 2 || !nodes || !edges || !length_density || !branch_density ||
        !dimension)
        return qvn::kKernelInvalid;

    double volume = 1.0;
    {
        auto lo = qvn::make_scratch<double>(d);
        auto hi = qvn::make_scratch<double>(d);
        if (!lo || !hi) return qvn::kKernelNoMem;
        qvn::bounding_extent(nodes, n, d, lo.get(), hi.get());
        for (size_t j = 0; j < d; ++j) {
            const double e = hi[j] - lo[j];
            if (e <= 0.0) return qvn::kKernelInvalid;
            volume *= e;
        }
    }

    auto degree = qvn::make_zeroed_scratch<uint64_t>(n);
    if (!degree) return qvn::kKernelNoMem;
    double length = 0.0;
    for (size_t e = 0; e < m; ++e) {
        const uint64_t a = edges[2 * e], b = edges[2 * e + 1];
        if (a >= n || b >= n || a == b) return qvn::kKernelInvalid;
        ++degree[a];
        ++degree[b];
        const double *xa = nodes + a * d, *xb = nodes + b * d;
        double sq = 0.0;
        for (size_t j = 0; j < d; ++j) {
            const double diff = xa[j] - xb[j];
            sq += diff * diff;
        }
        length += std::sqrt(sq);
    }
    uint64_t branches = 0;
    for (size_t i = 0; i < n; ++i)
        if (degree[i] >= 3) ++branches;
    degree.reset();

    double dim = 0.0;
    const int32_t rc = qvni_boxcount_dimension(nodes, n, d, &dim);
    if (rc != 0) return rc;
    *length_density = length / volume;
    *branch_density = static_cast<double>(branches) / volume;
    *dimension = dim;
    return 0;
}

extern "C" {

QVN_API int32_t qvn_nerve_plexus_metric(const double *nodes, size_t n, size_t d,
                                        const uint64_t *edges, size_t m,
                                        double *length_density, double *branch_density,
                                        double *dimension) {
    if (!nodes || !edges || !length_density || !branch_density || !dimension)
        return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_nerve_plexus_metric(nodes, n, d, edges, m,
                                                           length_density, branch_density,
                                                           dimension));
}

}  // extern "C"
