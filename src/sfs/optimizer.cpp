// Stochastic fractal search: a population minimises a fitness over a box.
//
// Numeric contract:
// - Every random number comes from one generator seeded with params->seed,
//   drawn in a fixed order: the initial population row by row, coordinate by
//   coordinate (row j + 1 is drawn after the fitness call of row j); then per
//   generation, per individual, per diffusion step, per coordinate in index
//   order, 2 draws (Gaussian) or 4 draws (Levy) per coordinate.
// - Gaussian number (Box-Muller, cosine branch):
//   g = cos(2*pi*r2) * sqrt(log(max(r1, 1e-300)) * -2).
//   Levy step (Mantegna, beta = 1.5): s = u / pow(max(|v|, 1e-12), 2/3) with
//   u = g(r1, r2) * sigma_u and v = g(r3, r4); a NaN v stays NaN.
// - Trial coordinates group the random factor with its scale first:
//   B + (B - X) * (g * walk), or X + (upper - lower) * (g * 0.01) when walk
//   is not > 0 (NaN included).
// - Comparisons are strict "greater than": ties keep the lower index and the
//   incumbent; any comparison with NaN is false, so a NaN trial never replaces
//   and a NaN individual is never replaced.
// - The cosine fitness sums x*x and x*q in one pass, index order, each a
//   single running double sum.
#include <cmath>
#include <cstring>

#include "core/scratch.h"
#include "sfs/sfs.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kMantegnaSigmaU = 0.6965745025576967;  // beta = 1.5
constexpr double kTwoThirds = 0.6666666666666666;
constexpr double kLogFloor = 1e-300;

double gaussian(qvn_prng_state *state) noexcept {
    const double r1 = qvn_prng_double(state);
    const double r2 = qvn_prng_double(state);
    const double radius = std::sqrt(std::log(std::fmax(r1, kLogFloor)) * -2.0);
    return std::cos(kTwoPi * r2) * radius;
}

double levy(qvn_prng_state *state) noexcept {
    const double u = gaussian(state) * kMantegnaSigmaU;
    const double v = gaussian(state);
    const double av = std::fabs(v);
    const double w = av < 1e-12 ? 1e-12 : av;
    return u / std::pow(w, kTwoThirds);
}

// Clamps into [lower, upper]: first up to lower, then down to upper, so an
// inverted box sends a low coordinate to upper. NaN stays NaN.
void clamp_into(double *x, const double *lower, const double *upper, uint64_t dim) noexcept {
    for (uint64_t d = 0; d < dim; ++d) {
        if (lower[d] > x[d]) x[d] = lower[d];
        if (x[d] > upper[d]) x[d] = upper[d];
    }
}

void build_trial(const qvn_sfs_params *p, const double *x, const double *best, double *trial,
                 qvn_prng_state *state) noexcept {
    const bool levy_walk = p->walk_mode == 1;
    const bool centred_on_best = p->walk > 0.0;
    for (uint64_t d = 0; d < p->dim; ++d) {
        const double r = levy_walk ? levy(state) : gaussian(state);
        if (centred_on_best) {
            trial[d] = best[d] + (best[d] - x[d]) * (r * p->walk);
        } else {
            trial[d] = x[d] + (p->upper[d] - p->lower[d]) * (r * 0.01);
        }
    }
}

bool valid(const qvn_sfs_params *p, qvn_sfs_fitness_fn fitness, const qvn_sfs_result *r) noexcept {
    if (!p || !fitness || !r) return false;
    if (!r->best_point) return false;
    if (!p->lower || !p->upper) return false;
    if (p->dim == 0) return false;
    if (p->population_size < 2) return false;
    if (p->iterations < 0) return false;
    if (p->diffusion_factor < 1) return false;
    return true;
}

}  // namespace

int32_t qvn_sfs_run(const qvn_sfs_params *params, qvn_sfs_fitness_fn fitness,
                    void *fitness_ctx, qvn_sfs_result *result) noexcept {
    if (!valid(params, fitness, result)) return -1;
    const uint64_t dim = params->dim;
    const size_t pop = static_cast<size_t>(params->population_size);
    const double *lower = params->lower;
    const double *upper = params->upper;

    // make_scratch returns null when the byte count overflows.
    auto population = pop <= SIZE_MAX / dim ? qvn::make_scratch<double>(pop * dim) : nullptr;
    auto fits = qvn::make_scratch<double>(pop);
    auto trial_buf = qvn::make_scratch<double>(dim);
    auto opposite_buf = qvn::make_scratch<double>(dim);
    if (!population || !fits || !trial_buf || !opposite_buf) return -2;

    double *P = population.get();
    double *F = fits.get();
    double *trial = trial_buf.get();
    double *opposite = opposite_buf.get();

    qvn_prng_state state;
    qvn_prng_seed(&state, params->seed);

    for (size_t j = 0; j < pop; ++j) {
        double *row = P + j * dim;
        for (uint64_t d = 0; d < dim; ++d) {
            row[d] = (upper[d] - lower[d]) * qvn_prng_double(&state) + lower[d];
        }
        F[j] = fitness(row, dim, fitness_ctx);
    }

    size_t b = 0;
    for (size_t j = 1; j < pop; ++j) {
        if (F[b] > F[j]) b = j;
    }

    for (int32_t g = 0; g < params->iterations; ++g) {
        for (size_t i = 0; i < pop; ++i) {
            // The best row is fixed for this individual's steps; its contents
            // change only when it is row i itself.
            const double *best_row = P + b * dim;
            double *x = P + i * dim;
            for (int32_t step = 0; step < params->diffusion_factor; ++step) {
                build_trial(params, x, best_row, trial, &state);
                if (params->bounded) clamp_into(trial, lower, upper, dim);
                double f = fitness(trial, dim, fitness_ctx);
                if (params->opposition) {
                    for (uint64_t d = 0; d < dim; ++d) {
                        opposite[d] = (lower[d] + upper[d]) - trial[d];
                    }
                    if (params->bounded) clamp_into(opposite, lower, upper, dim);
                    const double fo = fitness(opposite, dim, fitness_ctx);
                    if (f > fo) {
                        double *t = trial;
                        trial = opposite;
                        opposite = t;
                        f = fo;
                    }
                }
                if (F[i] > f) {
                    std::memcpy(x, trial, dim * sizeof(double));
                    F[i] = f;
                    if (F[b] > f) b = i;
                }
            }
        }
    }

    std::memcpy(result->best_point, P + b * dim, dim * sizeof(double));
    result->best_fit = F[b];
    if (result->population) std::memcpy(result->population, P, pop * dim * sizeof(double));
    if (result->population_fits) std::memcpy(result->population_fits, F, pop * sizeof(double));
    return 0;
}

double qvn_sfs_cosine_fitness(const double *x, uint64_t dim, void *ctx) {
    const auto *c = static_cast<const qvn_sfs_cosine_ctx *>(ctx);
    double xx = 0.0;
    double xq = 0.0;
    for (uint64_t i = 0; i < dim; ++i) {
        xx += x[i] * x[i];
        xq += x[i] * c->query[i];
    }
    double n = std::sqrt(xx);
    if (n == 0.0) n = 1.0;
    const double denom = n * c->query_norm;
    return 1.0 - xq / denom;
}
