// Detrended fluctuation analysis (first order) and its drift.
//
// Numeric contract: the mean is one running sum in index order divided by n;
// the profile is a running sum of (x[i] - mean). Segment sizes grow by
// repeated multiplication r *= 1.2 from 4.0, truncated, duplicates dropped.
// For each size, the non-overlapping segments start at index 0 (a tail of
// n mod s samples is unused); every segment is fitted by least squares in
// two passes (sums in local index order, then residuals), and R/s is added
// to one accumulator per size in segment order. F(s) = sqrt(acc / m) is kept
// only when F(s) > 0 (NaN is dropped). The exponent is the least-squares
// slope of ln F on ln s with sums in size order; a zero denominator is -1.
// All sums are double, left to right; nothing is reordered.
#include <cmath>

#include "core/scratch.h"
#include "core/status.h"
#include "metrics/metrics.h"

namespace {

constexpr double kLn12 = 0.1823215567939546;  // ln 1.2

// Mean fluctuation over the m = n / s segments of the profile.
double fluctuation(const double *profile, size_t n, size_t s) noexcept {
    const double sd = static_cast<double>(s);
    // The sums over t = 0..s-1 are the same for every segment.
    double st = 0.0, stt = 0.0;
    for (size_t t = 0; t < s; ++t) {
        const double td = static_cast<double>(t);
        st += td;
        stt += td * td;
    }
    const double den = sd * stt - st * st;
    const size_t m = n / s;
    double acc = 0.0;
    for (size_t k = 0; k < m; ++k) {
        const double *y = profile + k * s;
        double sy = 0.0, sty = 0.0;
        for (size_t t = 0; t < s; ++t) {
            sy += y[t];
            sty += static_cast<double>(t) * y[t];
        }
        const double b = den != 0.0 ? (sd * sty - sy * st) / den : 0.0;
        const double a = (sy - b * st) / sd;
        double r = 0.0;
        for (size_t t = 0; t < s; ++t) {
            const double e = y[t] - (b * static_cast<double>(t) + a);
            r += e * e;
        }
        acc += r / sd;
    }
    return std::sqrt(acc / static_cast<double>(m));
}

}  // namespace

int32_t qvni_dfa_alpha(const double *series, size_t n, double *alpha) noexcept {
    if (n < 16 || !series || !alpha) return qvn::kKernelInvalid;

    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) sum += series[i];
    const double mean = sum / static_cast<double>(n);

    auto profile = qvn::make_scratch<double>(n);
    if (!profile) return qvn::kKernelNoMem;
    double run = 0.0;
    for (size_t i = 0; i < n; ++i) {
        run += series[i] - mean;
        profile[i] = run;
    }
    if (n < 20) return qvn::kKernelInvalid;

    const size_t quarter = n / 4;
    const size_t c = static_cast<size_t>(
        std::floor(std::log(static_cast<double>(quarter) * 0.25) / kLn12));
    const size_t cap = c + 2;
    auto sizes = qvn::make_scratch<uint64_t>(cap);
    if (!sizes) return qvn::kKernelNoMem;

    size_t count = 0;
    double r = 4.0;
    uint64_t s = 4, prev = 0;
    bool have_prev = false;
    do {
        if (!have_prev || s != prev) {
            if (count == cap) break;  // cannot happen: cap bounds the schedule
            sizes[count++] = s;
        }
        prev = s;
        have_prev = true;
        r = r * 1.2;
        s = static_cast<uint64_t>(r);
    } while (s <= quarter);
    if (count < 3) return qvn::kKernelInvalid;

    auto lx = qvn::make_scratch<double>(count);
    auto ly = qvn::make_scratch<double>(count);
    if (!lx || !ly) return qvn::kKernelNoMem;

    size_t p = 0;
    for (size_t i = 0; i < count; ++i) {
        const double f = fluctuation(profile.get(), n, sizes[i]);
        if (f > 0.0) {
            lx[p] = std::log(static_cast<double>(sizes[i]));
            ly[p] = std::log(f);
            ++p;
        }
    }
    profile.reset();
    sizes.reset();
    if (p < 3) return qvn::kKernelInvalid;

    double slope;
    if (!qvn::ols_slope(lx.get(), ly.get(), p, &slope)) return qvn::kKernelInvalid;
    *alpha = slope;
    return 0;
}

int32_t qvni_dfa_drift(const double *series, size_t n, size_t w, double *drift,
                       double *alpha_recent, double *alpha_baseline) noexcept {
    if (!series || !drift || !alpha_recent || !alpha_baseline) return qvn::kKernelInvalid;
    // w + 16 > n, written so that it cannot wrap.
    if (w < 16 || n < 16 || w > n - 16) return qvn::kKernelInvalid;

    double recent = 0.0, baseline = 0.0;
    int32_t rc = qvni_dfa_alpha(series + (n - w), w, &recent);
    if (rc != 0) return rc;
    rc = qvni_dfa_alpha(series, n - w, &baseline);
    if (rc != 0) return rc;
    *alpha_recent = recent;
    *alpha_baseline = baseline;
    *drift = recent - baseline;
    return 0;
}

extern "C" {

QVN_API int32_t qvn_dimension_dfa(const double *series, size_t n, double *alpha) {
    if (!series || !alpha) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_dfa_alpha(series, n, alpha));
}

QVN_API int32_t qvn_dimension_drift(const double *series, size_t n, size_t w, double *drift,
                                    double *alpha_recent, double *alpha_baseline) {
    if (!series || !drift || !alpha_recent || !alpha_baseline) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(
        qvni_dfa_drift(series, n, w, drift, alpha_recent, alpha_baseline));
}

}  // extern "C"
