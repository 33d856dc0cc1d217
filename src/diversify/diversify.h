// Diversification state, dq and overhead tracking, repulsion scoring and
// the truth and shadow feedback tables of an ostrany Context.
#ifndef QVN_DIVERSIFY_DIVERSIFY_H
#define QVN_DIVERSIFY_DIVERSIFY_H

#include <cstddef>
#include <cstdint>

#include "core/context.h"
#include "quorvane.h"

constexpr size_t QVNI_OVERHEAD_RING = 1000;

struct qvni_diversify_state {
    uint32_t enabled;
    qvn_diversify_params params;
    double *dq_history;          // ring of dq_rows_alloc centroids of dq_dim doubles
    uint64_t dq_dim;
    uint64_t dq_count;
    uint64_t dq_next;
    double dq_current;
    double overhead_ring[QVNI_OVERHEAD_RING];
    uint64_t overhead_next;
    uint64_t overhead_count;
    uint64_t dq_rows_alloc;      // rows of the ring; dq_history holds at least
                                 // this many, and the ring never reads beyond
};

struct qvni_truth_entry {
    uint64_t id;
    uint64_t epoch;
    double weight;
};

struct qvni_shadow_entry {
    uint64_t id;
    uint64_t epoch;
    double weight;
    double amplitude;
    double sigma;
};

struct qvni_truth_table {
    qvni_truth_entry *entries;
    uint64_t count;
    uint64_t capacity;
};

struct qvni_shadow_table {
    qvni_shadow_entry *entries;
    uint64_t count;
    uint64_t capacity;
};

// One rejected row as the search driver hands it to the repulsion scorer.
struct qvni_repulsion_source {
    const double *center;
    double weight;
    double amplitude;
    double sigma;
};

void qvni_diversify_params_set_defaults(qvn_diversify_params *params) noexcept;
int32_t qvni_diversify_params_validate(const qvn_diversify_params *params) noexcept;
qvni_diversify_state *qvni_diversify_state_create() noexcept;
// qvni_diversify_state_destroy is declared in core/context.h.

int32_t qvni_dq_push(qvni_diversify_state *state, const double *rows,
                     size_t n_rows, size_t dim) noexcept;
double qvni_dq_compute(const qvni_diversify_state *state) noexcept;

void qvni_overhead_push(qvni_diversify_state *state, double microseconds) noexcept;
double qvni_overhead_p99(const qvni_diversify_state *state) noexcept;
int cmp_double(const void *a, const void *b) noexcept;

double qvni_repulsion_adjust(const double *vector, size_t dim,
                             const qvni_repulsion_source *sources,
                             size_t n_sources, double base,
                             double strength) noexcept;

double qvni_gumption(uint32_t value, uint32_t kind) noexcept;
qvni_truth_table *qvni_truth_create(size_t capacity) noexcept;
int32_t qvni_truth_insert(qvni_truth_table *table, uint64_t id, uint64_t epoch,
                          double weight) noexcept;
qvni_shadow_table *qvni_shadow_create(size_t capacity) noexcept;
int32_t qvni_shadow_insert(qvni_shadow_table *table, uint64_t id,
                           uint64_t epoch, double weight, double amplitude,
                           double sigma) noexcept;
size_t qvni_shadow_count(const qvni_shadow_table *table) noexcept;
// qvni_truth_destroy and qvni_shadow_destroy are declared in core/context.h.

#endif
