// Vessel network summary: mean tortuosity of the segments, branch points
// (degree >= 3) per unit of total vessel length, and the box-counting
// dimension of the node positions.
//
// Numeric contract: edges are walked in order; the chord is
// sqrt(dx*dx + dy*dy + dz*dz) with d = node a - node b; the path is the
// segment length unless the chord is larger (no tortuosity below 1). The
// total length T and the tortuosity sum S are running sums in edge order.
// The first bad edge ends the call with -1.
#include <cmath>

#include "core/scratch.h"
#include "core/status.h"
#include "metrics/metrics.h"

int32_t qvni_vascular_network_metrics(const double *nodes, size_t n, const uint64_t *edges,
                                      const double *segment_lengths, size_t m,
                                      double *mean_tortuosity, double *branch_density,
                                      double *dimension) noexcept {
    if (m == 0 || n < 2 || !nodes || !edges || !segment_lengths || !mean_tortuosity ||
        !branch_density || !dimension)
        return qvn::kKernelInvalid;

    auto degree = qvn::make_zeroed_scratch<uint64_t>(n);
    if (!degree) return qvn::kKernelNoMem;

    double total = 0.0, tortuosity = 0.0;
    for (size_t e = 0; e < m; ++e) {
        const uint64_t a = edges[2 * e], b = edges[2 * e + 1];
        if (a >= n || b >= n || a == b) return qvn::kKernelInvalid;
        ++degree[a];
        ++degree[b];
        const double dx = nodes[3 * a] - nodes[3 * b];
        const double dy = nodes[3 * a + 1] - nodes[3 * b + 1];
        const double dz = nodes[3 * a + 2] - nodes[3 * b + 2];
        const double chord = std::sqrt(dx * dx + dy * dy + dz * dz);
        if (chord <= 0.0) return qvn::kKernelInvalid;
        const double len = segment_lengths[e];
        if (len <= 0.0) return qvn::kKernelInvalid;
        const double path = len > chord ? len : chord;
        total += path;
        tortuosity += path / chord;
    }
    if (total <= 0.0) return qvn::kKernelInvalid;

    uint64_t branches = 0;
    for (size_t i = 0; i < n; ++i)
        if (degree[i] >= 3) ++branches;
    degree.reset();

    double dim = 0.0;
    const int32_t rc = qvni_boxcount_dimension(nodes, n, 3, &dim);
    if (rc != 0) return rc;
    *mean_tortuosity = tortuosity / static_cast<double>(m);
    *branch_density = static_cast<double>(branches) / total;
    *dimension = dim;
    return 0;
}

extern "C" {

QVN_API int32_t qvn_vascular_network(const double *nodes, size_t n, const uint64_t *edges,
                                     const double *segment_lengths, size_t m,
                                     double *mean_tortuosity, double *branch_density,
                                     double *dimension) {
    if (!nodes || !edges || !segment_lengths || !mean_tortuosity || !branch_density ||
        !dimension)
        return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_vascular_network_metrics(
        nodes, n, edges, segment_lengths, m, mean_tortuosity, branch_density, dimension));
}

}  // extern "C"
