// Portfolio optimization: the optimizer searches the unit box, one
// coordinate per asset; a point becomes the portfolio of its k largest
// coordinates (clipped at zero) in proportion to them, scored by the
// negated ratio of expected return to risk.
//
// Numeric contract:
// - Clipping maps NaN and values <= 0 to 0.0; a point whose clipped sum is
//   exactly 0.0 counts as all ones.
// - Selection takes the largest clipped value k times, the lowest index on
//   ties. Held weights are the clipped values divided by their sum (added in
//   selection order), or 1/k each when that sum is 1e-12 or less.
// - Expected return: sum over picks in selection order of r[p] * w[p].
//   Variance: for each pick p with w[p] != 0.0, in selection order, add
//   w[p] * (sum over picks q in selection order of cov[p * n + q] * w[q]).
// - Risk is sqrt(max(variance, 1e-12)), so 1e-6 at the floor; a NaN
//   variance stays NaN.
// - The optimizer runs 80 generations of 40 individuals, one diffusion step,
//   walk 0.5, clamped to [0, 1], seeded with the seed's low 53 bits as a
//   double (exact). Its best point is evaluated once more for the outputs.
#include <cmath>
#include <cstring>

#include "core/scratch.h"
#include "core/status.h"
#include "portfolio/portfolio.h"
#include "sfs/sfs.h"

double portfolio_fitness(const double *point, uint64_t dim, void *ctx) {
    (void)dim;
    portfolio_ctx *c = static_cast<portfolio_ctx *>(ctx);
    const uint64_t n = c->n_assets, k = c->k;
    double *clipped = c->clipped, *w = c->weights;

    double sum = 0.0;
    for (uint64_t i = 0; i < n; ++i) {
        clipped[i] = point[i] > 0.0 ? point[i] : 0.0;
        sum += clipped[i];
    }
    if (sum == 0.0)
        for (uint64_t i = 0; i < n; ++i) clipped[i] = 1.0;

    std::memset(c->picked, 0, n);
    for (uint64_t s = 0; s < k; ++s) {
        double best = -1.0;
        uint64_t index = 0;
        for (uint64_t i = 0; i < n; ++i) {
            if (!c->picked[i] && clipped[i] > best) {
                best = clipped[i];
                index = i;
            }
        }
        c->picks[s] = index;
        c->picked[index] = 1;
    }

    for (uint64_t i = 0; i < n; ++i) w[i] = 0.0;
    double held = 0.0;
    for (uint64_t s = 0; s < k; ++s) {
        const uint64_t p = c->picks[s];
        w[p] = clipped[p];
        held += w[p];
    }
    if (held <= 1e-12) {
        const double equal = 1.0 / static_cast<double>(k);
        for (uint64_t s = 0; s < k; ++s) w[c->picks[s]] = equal;
    } else {
        for (uint64_t s = 0; s < k; ++s) w[c->picks[s]] /= held;
    }

    double ret = 0.0;
    for (uint64_t s = 0; s < k; ++s) {
        const uint64_t p = c->picks[s];
        ret += c->expected_returns[p] * w[p];
    }
    double var = 0.0;
    for (uint64_t s = 0; s < k; ++s) {
        const uint64_t p = c->picks[s];
        if (w[p] == 0.0) continue;
        const double *row = c->covariance + p * n;
        double inner = 0.0;
        for (uint64_t t = 0; t < k; ++t) {
            const uint64_t q = c->picks[t];
            inner += row[q] * w[q];
        }
        var += w[p] * inner;
    }
    const double floored = (var > 1e-12 || std::isnan(var)) ? var : 1e-12;
    const double risk = std::sqrt(floored);
    return -ret / risk;
}

int32_t portfolio_optimize_impl(const double *expected_returns, const double *covariance,
                                size_t n_assets, size_t k, uint64_t seed, int32_t opposition,
                                int32_t walk_mode, double *weights_out,
                                double *sharpe_out) noexcept {
    if (!(k - 1 < n_assets) || !expected_returns || !covariance || !weights_out ||
        !sharpe_out)
        return qvn::kKernelInvalid;

    auto lower = qvn::make_scratch<double>(n_assets);
    auto upper = qvn::make_scratch<double>(n_assets);
    auto clipped = qvn::make_scratch<double>(n_assets);
    auto weights = qvn::make_scratch<double>(n_assets);
    auto best = qvn::make_scratch<double>(n_assets);
    auto picks = qvn::make_scratch<uint64_t>(k);
    auto picked = qvn::make_scratch<unsigned char>(n_assets);
    if (!lower || !upper || !clipped || !weights || !best || !picks || !picked)
        return qvn::kKernelNoMem;
    for (size_t i = 0; i < n_assets; ++i) {
        lower[i] = 0.0;
        upper[i] = 1.0;
    }

    portfolio_ctx ctx{expected_returns, covariance, n_assets, k,
                      clipped.get(), weights.get(), picks.get(), picked.get()};

    qvn_sfs_params params{};
    params.lower = lower.get();
    params.upper = upper.get();
    params.dim = n_assets;
    params.iterations = 80;
    params.population_size = 40;
    params.diffusion_factor = 1;
    params.walk = 0.5;
    params.bounded = 1;
    params.opposition = opposition;
    params.walk_mode = walk_mode;
    params.seed = static_cast<double>(seed & ((uint64_t{1} << 53) - 1));

    qvn_sfs_result result{};
    result.best_point = best.get();
    result.population = nullptr;
    result.population_fits = nullptr;

    const int32_t rc = qvn_sfs_run(&params, portfolio_fitness, &ctx, &result);
    if (rc != 0) return rc;

    const double fit = portfolio_fitness(best.get(), n_assets, &ctx);
    std::memcpy(weights_out, weights.get(), n_assets * sizeof(double));
    *sharpe_out = -fit;
    return 0;
}

int32_t qvni_portfolio_optimize(const double *expected_returns, const double *covariance,
                                size_t n_assets, size_t k, uint64_t seed, double *weights_out,
                                double *sharpe_out) noexcept {
    return portfolio_optimize_impl(expected_returns, covariance, n_assets, k, seed, 0, 0,
                                   weights_out, sharpe_out);
}

int32_t qvni_portfolio_optimize_ex(const double *expected_returns, const double *covariance,
                                   size_t n_assets, size_t k, uint64_t seed,
                                   int32_t opposition, int32_t walk_mode, double *weights_out,
                                   double *sharpe_out) noexcept {
    return portfolio_optimize_impl(expected_returns, covariance, n_assets, k, seed, opposition,
                                   walk_mode, weights_out, sharpe_out);
}

extern "C" {

QVN_API int32_t qvn_optimize_portfolio(const double *expected_returns,
                                       const double *covariance, size_t n_assets, size_t k,
                                       uint64_t seed, double *weights_out, double *sharpe_out) {
    if (!expected_returns || !covariance || !weights_out || !sharpe_out) return QVN_ERR_INVALID;
    if (k == 0 || k > n_assets) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_portfolio_optimize(
        expected_returns, covariance, n_assets, k, seed, weights_out, sharpe_out));
}

QVN_API int32_t qvn_optimize_portfolio_ex(const double *expected_returns,
                                          const double *covariance, size_t n_assets, size_t k,
                                          uint64_t seed, int32_t opposition, int32_t walk_mode,
                                          double *weights_out, double *sharpe_out) {
    if (!expected_returns || !covariance || !weights_out || !sharpe_out) return QVN_ERR_INVALID;
    if (k == 0 || k > n_assets) return QVN_ERR_INVALID;
    return qvn::map_kernel_status(qvni_portfolio_optimize_ex(expected_returns, covariance,
                                                             n_assets, k, seed, opposition,
                                                             walk_mode, weights_out, sharpe_out));
}

}  // extern "C"
