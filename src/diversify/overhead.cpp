// Overhead of the diversification bookkeeping: a ring of the last 1000
// samples (microseconds) and its 99th percentile.
//
// Numeric contract: NaN and infinite samples are dropped. The percentile is
// the element at zero-based position 990 of the 1000 samples sorted
// ascending (the 991st smallest), without interpolation; it is NaN until
// the ring holds 1000 samples.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "diversify/diversify.h"

int cmp_double(const void *a, const void *b) noexcept {
    const double x = *static_cast<const double *>(a);
    const double y = *static_cast<const double *>(b);
    if (y > x) return -1;
    if (x > y) return 1;
    return 0;
}

void qvni_overhead_push(qvni_diversify_state *state, double microseconds) noexcept {
    if (!state || !std::isfinite(microseconds)) return;
    state->overhead_ring[state->overhead_next] = microseconds;
    state->overhead_next = (state->overhead_next + 1) % QVNI_OVERHEAD_RING;
    if (state->overhead_count < QVNI_OVERHEAD_RING) ++state->overhead_count;
}

double qvni_overhead_p99(const qvni_diversify_state *state) noexcept {
    if (!state || state->overhead_count < QVNI_OVERHEAD_RING)
        return std::numeric_limits<double>::quiet_NaN();
    double sorted[QVNI_OVERHEAD_RING];  // the ring keeps arrival order
    std::memcpy(sorted, state->overhead_ring, sizeof sorted);
    std::qsort(sorted, QVNI_OVERHEAD_RING, sizeof(double), cmp_double);
    return sorted[990];
}

extern "C" {

QVN_API double qvn_diversify_overhead_p99_us(const qvn_context *ctx) {
    if (!ctx || !ctx->ostrany_mode || !ctx->diversify || !ctx->diversify->enabled)
        return std::numeric_limits<double>::quiet_NaN();
    return qvni_overhead_p99(ctx->diversify);
}

}  // extern "C"
