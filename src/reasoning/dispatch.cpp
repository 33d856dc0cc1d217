// One request through the Context's reasoning table: format_prompt, then
// generate; and the release of the response record it fills.
#include <cstdlib>
#include <cstring>

#include "reasoning/reasoning.h"

extern "C" {

QVN_API int32_t qvn_dispatch_ai(qvn_context *ctx, const char *query, size_t query_len,
                                const char *context, size_t context_len,
                                qvn_ai_response *response) {
    if (!ctx) return QVN_ERR_INVALID;
    if (query_len == 0 || !query || !response) {
        set_err(ctx, "quorvane: invalid arguments to qvn_dispatch_ai");
        return QVN_ERR_INVALID;
    }
    if (!ctx->has_reasoning) {
        set_err(ctx, "quorvane: no reasoning VFS attached to ctx");
        return QVN_ERR_NO_REASONING;
    }
    if (query_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: query_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", query_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }
    // context_len means nothing without a context.
    if (context && context_len > QVN_MAX_INPUT_BYTES) {
        set_err(ctx, "quorvane: context_len %zu exceeds QVN_MAX_INPUT_BYTES %zu", context_len,
                QVN_MAX_INPUT_BYTES);
        return QVN_ERR_INVALID;
    }

    // From here on every failure leaves the record zeroed.
    std::memset(response, 0, sizeof *response);
    const reasoning_vfs &table = ctx->reasoning_vfs;

    const char *prompt = nullptr;
    size_t prompt_len = 0;
    // A missing operation produces nothing, like one that yields no output.
    int32_t rc = 0;
    // Host and plug-in code may be C++: an exception from it is a failed
    // operation (rc -1) and never unwinds through this C entry point.
    if (table.format_prompt) {
        try {
            rc = table.format_prompt(table.state, query, query_len, context ? context : "",
                                     context ? context_len : 0, &prompt, &prompt_len);
        } catch (...) {
            rc = -1;
            prompt = nullptr;
        }
    }
    if (rc != 0 || !prompt) {
        set_err(ctx, "quorvane: reasoning_vfs.format_prompt failed (rc=%d)", rc);
        return QVN_ERR_EXTERNAL;
    }

    char *text = nullptr;
    size_t text_len = 0;
    qvn_response_free_fn free_fn = nullptr;
    rc = 0;
    if (table.generate) {
        try {
            rc = table.generate(table.state, prompt, prompt_len, &text, &text_len, &free_fn);
        } catch (...) {
            rc = -1;
            text = nullptr;
        }
    }
    if (rc != 0 || !text) {
        // Whatever generate allocated before failing stays the plug-in's.
        set_err(ctx, "quorvane: reasoning_vfs.generate failed (rc=%d)", rc);
        return QVN_ERR_EXTERNAL;
    }

    response->text = text;
    response->text_len = text_len;
    response->reserved = 0;
    response->free_fn = free_fn;
    return QVN_OK;
}

QVN_API void qvn_ai_response_free(qvn_ai_response *response) {
    if (!response) return;
    if (response->free_fn) {
        try {
            response->free_fn(response);
        } catch (...) {
        }
    } else if (response->text) {
        std::free(response->text);
    }
    // Cleared afterwards, so a second call releases nothing.
    response->free_fn = nullptr;
    response->text = nullptr;
    response->text_len = 0;
    response->reserved = 0;
}

}  // extern "C"
