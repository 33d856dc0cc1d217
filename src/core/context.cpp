// Context construction and destruction, the message buffer and the
// process-wide numeric-locale pin.
#include "core/context.h"

#include <pthread.h>

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// The one piece of library-wide mutable state.
pthread_once_t g_qvn_locale_once = PTHREAD_ONCE_INIT;

// Seed word: (time << 32) ^ clock ^ address, low 53 bits, so that the
// conversion to double is exact; never 0.
double make_seed_word(const qvn_context *ctx) noexcept {
    const uint64_t t = static_cast<uint64_t>(std::time(nullptr)) << 32;
    const uint64_t x = t ^ static_cast<uint64_t>(std::clock()) ^
                       static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ctx));
    const uint64_t v = x != 0 ? (x & 0x1fffffffffffffULL) : 0x1779b97f4a7c15ULL;
    return v != 0 ? static_cast<double>(v) : 1.0;
}

qvn_context *allocate_context() noexcept {
    pthread_once(&g_qvn_locale_once, qvn_do_locale_pin_posix);
    auto *ctx = static_cast<qvn_context *>(std::calloc(1, sizeof(qvn_context)));
    if (ctx) ctx->seed = make_seed_word(ctx);
    return ctx;
}

}  // namespace

void qvn_do_locale_pin_posix() noexcept { std::setlocale(LC_NUMERIC, "C"); }

void set_err(qvn_context *ctx, const char *format, ...) noexcept {
    if (!ctx) return;
    va_list args;
    va_start(args, format);
    std::vsnprintf(ctx->errmsg, QVN_ERRMSG_SIZE, format, args);
    va_end(args);
}

void qvni_epoch_init(uint64_t *epoch) noexcept {
    if (epoch) *epoch = 1;
}

uint64_t qvni_epoch_get(const uint64_t *epoch) noexcept { return epoch ? *epoch : 0; }

extern "C" {

QVN_API qvn_context *qvn_new_minimal(void) { return allocate_context(); }

QVN_API qvn_context *qvn_new_ostrany(const storage_vfs *storage,
                                     const reasoning_vfs *reasoning) {
    qvn_context *ctx = allocate_context();
    if (!ctx) return nullptr;
    if (storage) {
        ctx->storage_vfs = *storage;
        ctx->has_storage = 1;
    }
    if (reasoning) {
        if (reasoning->abi_version != 1) {
            set_err(ctx, "quorvane: reasoning_vfs abi_version=%d expected %d",
                    reasoning->abi_version, 1);
            qvn_free(ctx);  // calls the storage table's release
            return nullptr;
        }
        ctx->reasoning_vfs = *reasoning;
        ctx->has_reasoning = 1;
    }
    ctx->ostrany_mode = 1;
    qvni_entropy_init(&ctx->entropy, 0, 0);
    qvni_epoch_init(&ctx->epoch);
    return ctx;
}

QVN_API void qvn_free(qvn_context *ctx) {
    if (!ctx) return;
    if (ctx->has_storage && ctx->storage_vfs.release) {
        try {
            ctx->storage_vfs.release(ctx->storage_vfs.state);
        } catch (...) {  // host code must not unwind through qvn_free
        }
    }
    qvn_reasoning_call_fini_and_clear(ctx);
    qvni_diversify_state_destroy(ctx->diversify);
    qvni_truth_destroy(ctx->truth);
    qvni_shadow_destroy(ctx->shadow);
    std::free(ctx->result_buf);
    std::free(ctx);
}

QVN_API void qvn_release(qvn_context *ctx) {
    if (!ctx) return;
    std::free(ctx->result_buf);
    ctx->result_buf = nullptr;
    ctx->result_cap = 0;
    ctx->result_len = 0;
}

QVN_API void qvn_free_string(char *s) { std::free(s); }

QVN_API const char *qvn_last_error(qvn_context *ctx) {
    static const char empty[] = "";
    if (!ctx) return empty;
    // Control bytes other than TAB would let a message forge log lines.
    for (char *p = ctx->errmsg; *p; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (c < 0x20 && c != 0x09) *p = '?';
    }
    return ctx->errmsg;
}

}  // extern "C"
