// Creation and release of the per-Context diversification state.
#include <cstdlib>

#include "diversify/diversify.h"

void qvni_diversify_state_destroy(qvni_diversify_state *state) noexcept {
    if (!state) return;
    std::free(state->dq_history);
    std::free(state);
}
