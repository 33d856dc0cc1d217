// The entropy-source setting of an ostrany Context. It is a setting only:
// nothing in the library draws from it.
#include <cstring>

#include "core/context.h"

int32_t qvni_entropy_init(qvn_entropy_record *record, uint32_t source,
                          uint64_t value) noexcept {
    if (!record) return -1;
    std::memset(record, 0, sizeof *record);
    record->requested_source = source;
    if (source > 3) return -1;
    if (source == 3) {
        record->fixed_value = value;
        record->is_fixed = 1;
        record->active_source = 3;
    } else {
        record->active_source = source == 2 ? 2 : 1;
    }
    record->is_ready = 1;
    return 0;
}

uint32_t qvni_entropy_active(const qvn_entropy_record *record) noexcept {
    if (!record || !record->is_ready) return 0;
    return record->active_source;
}

extern "C" {

QVN_API int32_t qvn_entropy_set_source(qvn_context *ctx, uint32_t source,
                                       uint64_t value) {
    if (!ctx || !ctx->ostrany_mode) return QVN_ERR_INVALID;
    return qvni_entropy_init(&ctx->entropy, source, value);
}

QVN_API uint32_t qvn_entropy_active_source(const qvn_context *ctx) {
    if (!ctx || !ctx->ostrany_mode) return 0;
    return qvni_entropy_active(&ctx->entropy);
}

}  // extern "C"
