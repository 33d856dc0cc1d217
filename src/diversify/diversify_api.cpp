// The exported switch and parameter exchange of diversification. Every call
// refuses NULL and minimal Contexts and writes no message.
#include "diversify/diversify.h"

namespace {

bool is_ostrany(const qvn_context *ctx) noexcept { return ctx && ctx->ostrany_mode; }

// Creates the state on first use; false when memory runs out.
bool ensure_state(qvn_context *ctx) noexcept {
    if (!ctx->diversify) ctx->diversify = qvni_diversify_state_create();
    return ctx->diversify != nullptr;
}

}  // namespace

extern "C" {

QVN_API int32_t qvn_diversify_enable(qvn_context *ctx) {
    if (!is_ostrany(ctx)) return QVN_ERR_INVALID;
    if (!ensure_state(ctx)) return QVN_ERR_NOMEM;
    ctx->diversify->enabled = 1;
    return QVN_OK;
}

QVN_API int32_t qvn_diversify_disable(qvn_context *ctx) {
    if (!is_ostrany(ctx)) return QVN_ERR_INVALID;
    if (ctx->diversify) ctx->diversify->enabled = 0;
    return QVN_OK;
}

// Validates before creating anything, so a refused record leaves the
// Context exactly as it was. The history, dq value, overhead samples and
// feedback tables are left alone.
QVN_API int32_t qvn_diversify_set_params(qvn_context *ctx,
                                         const qvn_diversify_params *params) {
    if (!params || !is_ostrany(ctx)) return QVN_ERR_INVALID;
    const qvn_diversify_params copy = *params;
    if (qvni_diversify_params_validate(&copy) != 0) return QVN_ERR_INVALID;
    if (!ensure_state(ctx)) return QVN_ERR_NOMEM;
    ctx->diversify->params = copy;
    return QVN_OK;
}

QVN_API int32_t qvn_diversify_get_params(qvn_context *ctx, qvn_diversify_params *params) {
    if (!params || !is_ostrany(ctx)) return QVN_ERR_INVALID;
    if (ctx->diversify)
        *params = ctx->diversify->params;
    else
        qvni_diversify_params_set_defaults(params);
    return QVN_OK;
}

}  // extern "C"
