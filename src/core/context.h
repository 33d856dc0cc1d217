// The Context record and the core services every subsystem uses: the
// message buffer, the feedback epoch and the entropy-source record.
//
// core includes no other folder: the later state a Context owns is only
// forward-declared here, and its destroy operations are defined by the
// folders that create it (diversify/, reasoning/).
#ifndef QVN_CORE_CONTEXT_H
#define QVN_CORE_CONTEXT_H

#include <cstddef>
#include <cstdint>

#include "quorvane.h"

// Entropy-source setting of an ostrany Context.
struct qvn_entropy_record {
    uint32_t requested_source;  // last source asked for, even if rejected
    uint32_t active_source;     // 1, 2 or 3; 0 when none
    uint64_t fixed_value;       // caller's value for source 3
    uint32_t is_fixed;          // 1 when source 3 is in force
    uint32_t is_ready;          // 1 once a valid source was set
};

struct qvni_diversify_state;
struct qvni_truth_table;
struct qvni_shadow_table;

constexpr size_t QVN_ERRMSG_SIZE = 512;

struct qvn_context {
    double seed;                 // seed word, fixed at construction
    char *result_buf;            // last result document, NUL-terminated
    uint64_t result_cap;
    uint64_t result_len;
    char errmsg[QVN_ERRMSG_SIZE];
    ::storage_vfs storage_vfs;       // copy of the host's table
    ::reasoning_vfs reasoning_vfs;   // copy of the host's or plug-in's table
    int32_t has_storage;
    int32_t has_reasoning;
    int32_t ostrany_mode;
    qvn_entropy_record entropy;
    qvni_diversify_state *diversify;
    qvni_truth_table *truth;
    qvni_shadow_table *shadow;
    uint64_t epoch;
    void *plugin_handle;
    qvn_reasoning_fini_fn plugin_fini;
};

// Formats a message into ctx->errmsg, cut at 511 characters.
void set_err(qvn_context *ctx, const char *format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

void qvni_epoch_init(uint64_t *epoch) noexcept;
uint64_t qvni_epoch_get(const uint64_t *epoch) noexcept;

int32_t qvni_entropy_init(qvn_entropy_record *record, uint32_t source,
                          uint64_t value) noexcept;
uint32_t qvni_entropy_active(const qvn_entropy_record *record) noexcept;

// Runs the process-wide numeric-locale pin exactly once.
void qvn_do_locale_pin_posix() noexcept;

// Destroy operations for state owned by a Context; each accepts NULL.
// Defined in diversify/ and reasoning/.
void qvni_diversify_state_destroy(qvni_diversify_state *state) noexcept;
void qvni_truth_destroy(qvni_truth_table *table) noexcept;
void qvni_shadow_destroy(qvni_shadow_table *table) noexcept;
void qvn_reasoning_call_fini_and_clear(qvn_context *ctx) noexcept;

#endif
