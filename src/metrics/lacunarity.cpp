// Fixed-grid lacunarity of a point cloud: Lambda = variance / mean^2 + 1 of
// the point counts of every box (empty ones included) of one grid.
//
// Numeric contract: the scale search is that of box counting (extent with
// strictly-greater replacement, eps = exp2(-k) * L, keys floor(x / eps),
// keep when 3 * N < n); the grid uses eps* = accepted[m / 2], the finer of
// the two middle sizes when m is even. Axis 0 varies fastest in the counter
// index. mu = n / T; the squared deviations are summed in counter order.
// A grid of more than 2^24 boxes is -1, tested before each multiplication so
// that the product never overflows. Keys that are NaN or outside the signed
// 64-bit range reject the input with -1, as in box counting.
#include <cmath>

#include "core/scratch.h"
#include "core/status.h"
#include "metrics/metrics.h"

namespace {
constexpr uint64_t kMaxBoxes = 16777216;  // 2^24
}

int32_t qvni_lacunarity_fixed_grid(const double *points, size_t n, size_t d,
                                   double *lacunarity) noexcept {
    if (d == 0 || n < 8 || !points || !lacunarity) return qvn::kKernelInvalid;

    auto lo = qvn::make_scratch<double>(d);
    auto hi = qvn::make_scratch<double>(d);
    if (!lo || !hi) return qvn::kKernelNoMem;
    const double extent = qvn::bounding_extent(points, n, d, lo.get(), hi.get());
    if (extent <= 0.0) return qvn::kKernelInvalid;

    double accepted[12];
    size_t boxes[12], m = 0;
    const int32_t rc = qvn::kept_scales(points, n, d, extent, accepted, boxes, &m);
    if (rc != 0) return rc;
    if (m < 3) return qvn::kKernelInvalid;
    const double eps = accepted[m / 2];

    auto origin = qvn::make_scratch<int64_t>(d);
    auto cells = qvn::make_scratch<uint64_t>(d);
    if (!origin || !cells) return qvn::kKernelNoMem;
    uint64_t total = 1;
    for (size_t j = 0; j < d; ++j) {
        int64_t first = 0, last = 0;
        // Every coordinate's key at eps was computed in the scale search,
        // so these succeed; the check keeps the conversion defined anyway.
        if (!qvn::cell_key(lo[j], eps, &first) || !qvn::cell_key(hi[j], eps, &last))
            return qvn::kKernelInvalid;
        origin[j] = first;
        // last >= first, and both lie within 2^12 or so of each other, so the
        // difference is computed without overflow in unsigned arithmetic.
        cells[j] = static_cast<uint64_t>(last) - static_cast<uint64_t>(first) + 1;
        if (cells[j] == 0 || total > kMaxBoxes / cells[j]) return qvn::kKernelInvalid;
        total *= cells[j];
    }
    lo.reset();
    hi.reset();

    auto counts = qvn::make_zeroed_scratch<uint64_t>(total);
    if (!counts) return qvn::kKernelNoMem;
    for (size_t i = 0; i < n; ++i) {
        const double *x = points + i * d;
        uint64_t index = 0, stride = 1;
        for (size_t j = 0; j < d; ++j) {
            int64_t key = 0;
            if (!qvn::cell_key(x[j], eps, &key)) return qvn::kKernelInvalid;
            const uint64_t c = static_cast<uint64_t>(key) - static_cast<uint64_t>(origin[j]);
            if (c >= cells[j]) return qvn::kKernelInvalid;  // not reached: x in [min, max]
            index += c * stride;
            stride *= cells[j];
        }
        ++counts[index];
    }
    origin.reset();
    cells.reset();

    const double td = static_cast<double>(total);
    const double mu = static_cast<double>(n) / td;
    double s = 0.0;
    for (uint64_t b = 0; b < total; ++b) {
        const double dev = static_cast<double>(counts[b]) - mu;
        s += dev * dev;
    }
    counts.reset();
    *lacunarity = (s / td) / (mu * mu) + 1.0;
    return 0;
}
