// Loading, replacing and unloading reasoning plug-ins.
#include <dlfcn.h>

#include "reasoning/reasoning.h"

void qvn_reasoning_call_fini_and_clear(qvn_context *ctx) noexcept {
    if (!ctx || !ctx->plugin_handle) return;
    if (ctx->plugin_fini) ctx->plugin_fini(ctx->reasoning.state);
    dlclose(ctx->plugin_handle);
    ctx->has_reasoning = 0;
    ctx->plugin_handle = nullptr;
    ctx->plugin_fini = nullptr;
}
