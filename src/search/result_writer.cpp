// Appending to the Context's result buffer. Growth: start from the current
// capacity (512 when none), double until the need is met, cap at 100 MiB;
// a failed reallocation leaves buffer and capacity as they were. Numbers
// are "%.17g" (the locale pin guarantees '.'), NaN and infinities "null".
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "search/search.h"

namespace {

bool grow_to(qvn_context *ctx, uint64_t need) noexcept {
    uint64_t c = ctx->result_cap != 0 ? ctx->result_cap : 512;
    while (c < need && c < QVN_RESULT_CAP_CEILING) c *= 2;
    if (c > QVN_RESULT_CAP_CEILING) c = QVN_RESULT_CAP_CEILING;
    if (c < need) return false;  // the need is above the ceiling
    void *grown = std::realloc(ctx->result_buf, static_cast<size_t>(c));
    if (!grown) return false;
    ctx->result_buf = static_cast<char *>(grown);
    ctx->result_cap = c;
    return true;
}

}  // namespace

bool ensure_result_cap(qvn_context *ctx, uint64_t need) noexcept {
    if (ctx->result_cap >= need) return true;
    if (need > QVN_RESULT_CAP_CEILING) return false;
    return grow_to(ctx, need);
}

bool append_fmt(qvn_context *ctx, uint64_t *pos, const char *format, ...) noexcept {
    for (;;) {
        const uint64_t room = ctx->result_cap > *pos ? ctx->result_cap - *pos : 0;
        char *at = room != 0 ? ctx->result_buf + *pos : nullptr;
        va_list args;
        va_start(args, format);
        const int n = std::vsnprintf(at, static_cast<size_t>(room), format, args);
        va_end(args);
        if (n < 0) return false;
        if (static_cast<uint64_t>(n) < room) {
            *pos += static_cast<uint64_t>(n);
            return true;
        }
        const uint64_t needed = ctx->result_cap + static_cast<uint64_t>(n) + 64;
        if (needed > QVN_RESULT_CAP_CEILING) return false;
        if (!grow_to(ctx, needed)) return false;
    }
}

bool append_num(qvn_context *ctx, uint64_t *pos, const char *prefix, double value) noexcept {
    if (prefix && prefix[0] != '\0' && !append_fmt(ctx, pos, "%s", prefix)) return false;
    if (std::isnan(value) || std::isinf(value)) return append_fmt(ctx, pos, "null");
    return append_fmt(ctx, pos, "%.17g", value);
}
