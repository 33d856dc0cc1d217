// qvn_feedback_report: positive reports go to the truth table, negative
// ones to the shadow table; each table is created by the first report of
// its kind. No message is written.
#include "diversify/diversify.h"

namespace {
constexpr size_t kTruthCapacity = 64;
constexpr size_t kShadowCapacityWithoutState = 64;
}  // namespace

extern "C" {

QVN_API int32_t qvn_feedback_report(qvn_context *ctx, uint64_t id, uint32_t kind,
                                    uint32_t value) {
    if (!ctx || kind > QVN_FEEDBACK_NEGATIVE || !ctx->ostrany_mode) return QVN_ERR_INVALID;
    const double gumption = qvni_gumption(value, kind);
    const uint64_t epoch = qvni_epoch_get(&ctx->epoch);

    if (kind != QVN_FEEDBACK_NEGATIVE) {
        if (!ctx->truth) {
            ctx->truth = qvni_truth_create(kTruthCapacity);
            if (!ctx->truth) return QVN_ERR_NOMEM;
        }
        (void)qvni_truth_insert(ctx->truth, id, epoch, gumption);
        return QVN_OK;
    }

    const qvni_diversify_state *state = ctx->diversify;
    if (!ctx->shadow) {
        const size_t capacity =
            state ? state->params.shadow_capacity : kShadowCapacityWithoutState;
        ctx->shadow = qvni_shadow_create(capacity);
        if (!ctx->shadow) return QVN_ERR_NOMEM;
    }
    // Amplitude and width are those in force now; the entry keeps them.
    double amplitude = 1.0, sigma = 1.0;
    if (state) {
        amplitude = state->params.repulsion_strength;
        if (state->params.shadow_sigma > 0.0) sigma = state->params.shadow_sigma;
    }
    (void)qvni_shadow_insert(ctx->shadow, id, epoch, 1.0, amplitude, sigma);
    return QVN_OK;
}

}  // extern "C"
