// Creation, defaults, validation and release of the per-Context
// diversification state.
#include <cmath>
#include <cstdlib>
#include <limits>

#include "diversify/diversify.h"

void qvni_diversify_params_set_defaults(qvn_diversify_params *params) noexcept {
    if (!params) return;
    params->dq_window = 5;
    params->dq_target = 0.15;
    params->shadow_sigma = 0.0;
    params->repulsion_strength = 1.0;
    params->shadow_capacity = 64;
    params->aux_capacity = 256;
}

// Fields are checked in record order; the first failure decides.
int32_t qvni_diversify_params_validate(const qvn_diversify_params *params) noexcept {
    if (!params) return -1;
    if (params->dq_window < 1 || params->dq_window > 32) return -1;
    const double target = params->dq_target;
    if (std::isnan(target) || std::isinf(target) || target >= 2.0 || target <= 0.0)
        return -1;
    const double sigma = params->shadow_sigma;
    if (std::isnan(sigma) || std::isinf(sigma) || sigma < 0.0) return -1;
    const double strength = params->repulsion_strength;
    if (std::isnan(strength) || std::isinf(strength) || strength < 0.0) return -1;
    if (params->shadow_capacity < 1 || params->shadow_capacity > 1024) return -1;
    if (params->aux_capacity < 1 || params->aux_capacity > 1024) return -1;
    return 0;
}

qvni_diversify_state *qvni_diversify_state_create() noexcept {
    auto *state =
        static_cast<qvni_diversify_state *>(std::calloc(1, sizeof(qvni_diversify_state)));
    if (!state) return nullptr;
    qvni_diversify_params_set_defaults(&state->params);
    state->dq_current = std::numeric_limits<double>::quiet_NaN();
    return state;
}

void qvni_diversify_state_destroy(qvni_diversify_state *state) noexcept {
    if (!state) return;
    std::free(state->dq_history);
    std::free(state);
}
