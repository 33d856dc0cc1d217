// Gaussian repulsion of a candidate from rejected corpus rows.
//
// Numeric contract: for each source in array order, d2 = sum of squared
// differences in ascending element order; sources with a null centre,
// sigma <= 0, weight 0 or amplitude 0 contribute nothing (and cost no
// distance); d2 >= (3 sigma)^2 contributes nothing; otherwise the
// contribution is exp(-d2 / ((sigma + sigma) * sigma)) * (weight *
// amplitude). Contributions are summed in source order and the result is
// base - total * strength, not clamped. NaN inputs propagate.
#include <cmath>

#include "diversify/diversify.h"

double qvni_repulsion_adjust(const double *vector, size_t dim,
                             const qvni_repulsion_source *sources, size_t n_sources,
                             double base, double strength) noexcept {
    if (!vector || !sources || dim == 0 || n_sources == 0) return base;
    double total = 0.0;
    for (size_t s = 0; s < n_sources; ++s) {
        const qvni_repulsion_source &src = sources[s];
        if (!src.center || src.sigma <= 0.0) continue;
        if (src.weight == 0.0 || src.amplitude == 0.0) continue;
        double d2 = 0.0;
        for (size_t j = 0; j < dim; ++j) {
            const double diff = vector[j] - src.center[j];
            d2 += diff * diff;
        }
        const double cutoff = 3.0 * src.sigma;
        if (d2 >= cutoff * cutoff) continue;
        total += std::exp(-d2 / ((src.sigma + src.sigma) * src.sigma)) *
                 (src.weight * src.amplitude);
    }
    return base - total * strength;
}
