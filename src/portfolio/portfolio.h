// Cardinality-constrained, long-only portfolio optimization driven by the
// stochastic fractal search optimizer.
#ifndef QVN_PORTFOLIO_PORTFOLIO_H
#define QVN_PORTFOLIO_PORTFOLIO_H

#include <cstddef>
#include <cstdint>

// Fitness context: the caller's inputs plus scratch that every evaluation
// reuses, so the fitness allocates nothing.
struct portfolio_ctx {
    const double *expected_returns;  // n_assets
    const double *covariance;        // n_assets x n_assets, row-major
    uint64_t n_assets;
    uint64_t k;
    double *clipped;   // n_assets: the point clipped at zero
    double *weights;   // n_assets: portfolio of the last evaluated point
    uint64_t *picks;   // k: held assets in order of selection
    unsigned char *picked;  // n_assets: 1 for a held asset
};

// Negated return / risk of the portfolio that holds the k largest clipped
// coordinates of point in proportion to them; leaves it in ctx->weights.
// dim is ignored (the context's n_assets is used).
double portfolio_fitness(const double *point, uint64_t dim, void *ctx);

// 0, -1 (null pointer, k = 0 or k > n_assets, or the optimizer's -1) or -2
// (allocation failure). Outputs are written only on success.
int32_t portfolio_optimize_impl(const double *expected_returns, const double *covariance,
                                size_t n_assets, size_t k, uint64_t seed, int32_t opposition,
                                int32_t walk_mode, double *weights_out,
                                double *sharpe_out) noexcept;

int32_t qvni_portfolio_optimize(const double *expected_returns, const double *covariance,
                                size_t n_assets, size_t k, uint64_t seed, double *weights_out,
                                double *sharpe_out) noexcept;
int32_t qvni_portfolio_optimize_ex(const double *expected_returns, const double *covariance,
                                   size_t n_assets, size_t k, uint64_t seed,
                                   int32_t opposition, int32_t walk_mode, double *weights_out,
                                   double *sharpe_out) noexcept;

#endif
