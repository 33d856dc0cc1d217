// Seeded generator, stochastic fractal search optimizer with its cosine
// fitness, and the single-precision vector kernels.
#ifndef QVN_SFS_SFS_H
#define QVN_SFS_SFS_H

#include <cstddef>
#include <cstdint>

// Four-component combined Tausworthe generator over 64-bit words.
struct qvn_prng_state {
    uint64_t z1, z2, z3, z4;
};

void qvn_prng_seed(qvn_prng_state *state, double seed) noexcept;
double qvn_prng_double(qvn_prng_state *state) noexcept;

// Fitness callback: lower is better. It must not keep or write through x.
typedef double (*qvn_sfs_fitness_fn)(const double *x, uint64_t dim, void *ctx);

struct qvn_sfs_params {
    const double *lower;
    const double *upper;
    uint64_t dim;
    int32_t iterations;
    int32_t population_size;
    int32_t diffusion_factor;
    double walk;
    int32_t bounded;
    int32_t opposition;
    int32_t walk_mode;   // 1: Levy walk, otherwise Gaussian
    double seed;
};

struct qvn_sfs_result {
    double *best_point;       // dim doubles, required
    double best_fit;
    double *population;       // population_size * dim doubles, optional
    double *population_fits;  // population_size doubles, optional
};

struct qvn_sfs_cosine_ctx {
    const double *query;
    double query_norm;  // Euclidean norm of query, 1.0 in place of 0
};

// 0 success, -1 invalid arguments, -2 allocation failure.
int32_t qvn_sfs_run(const qvn_sfs_params *params, qvn_sfs_fitness_fn fitness,
                    void *fitness_ctx, qvn_sfs_result *result) noexcept;
double qvn_sfs_cosine_fitness(const double *x, uint64_t dim, void *ctx);

// Vector kernels behind the exported qvn_vector_* functions: 0 or -1.
int32_t qvni_vector_dot(const float *a, const float *b, size_t n, float *out) noexcept;
int32_t qvni_vector_l2_sq(const float *a, const float *b, size_t n, float *out) noexcept;
int32_t qvni_vector_l2(const float *a, const float *b, size_t n, float *out) noexcept;
int32_t qvni_vector_cosine_similarity(const float *a, const float *b, size_t n,
                                      float *out) noexcept;
int32_t qvni_vector_cosine_distance(const float *a, const float *b, size_t n,
                                    float *out) noexcept;
int32_t qvni_vector_norm(const float *v, size_t n, float *out) noexcept;
int32_t qvni_vector_normalize(const float *v, size_t n, float *out) noexcept;
int32_t qvni_vector_add(const float *a, const float *b, size_t n, float *out) noexcept;
int32_t qvni_vector_sub(const float *a, const float *b, size_t n, float *out) noexcept;
int32_t qvni_vector_scale(const float *v, size_t n, float *out, float factor) noexcept;
int32_t qvni_vector_weighted_concat(const float *a, size_t na, const float *b,
                                    size_t nb, float *out, float wa,
                                    float wb) noexcept;

#endif
