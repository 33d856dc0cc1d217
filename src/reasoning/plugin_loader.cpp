// Loading, replacing and unloading reasoning plug-ins.
//
// A plug-in is named by an absolute, canonical path: no traversal
// segments, no symbolic links, no doubled or trailing '/'. Every check
// that can fail runs before the Context is touched, so a failed load
// leaves the previous plug-in or host table in force.
#include <dlfcn.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "reasoning/reasoning.h"

namespace {

bool ends_with(const char *s, size_t len, const char *suffix) noexcept {
    const size_t n = std::strlen(suffix);
    return len >= n && std::memcmp(s + len - n, suffix, n) == 0;
}

// Path rules, in order; the file system is consulted only by realpath.
// Returns 0 or -1 with the message written.
int32_t check_plugin_path(qvn_context *ctx, const char *path) noexcept {
    if (path[0] != '/') {
        set_err(ctx, "quorvane: reasoning plugin path must be absolute (got '%s')", path);
        return QVN_ERR_INVALID;
    }
    if (std::strstr(path, "/../") || std::strstr(path, "/./")) {
        set_err(ctx, "quorvane: reasoning plugin path contains traversal segment (got '%s')",
                path);
        return QVN_ERR_INVALID;
    }
    const size_t len = std::strlen(path);
    if (ends_with(path, len, "/..") || ends_with(path, len, "/.")) {
        set_err(ctx, "quorvane: reasoning plugin path ends in traversal segment (got '%s')",
                path);
        return QVN_ERR_INVALID;
    }
    char canonical[PATH_MAX];
    if (!realpath(path, canonical)) {
        const int err = errno;
        set_err(ctx, "quorvane: path canonicalization of '%s' failed: %s", path,
                std::strerror(err));
        return QVN_ERR_INVALID;
    }
    if (std::strcmp(canonical, path) != 0) {
        set_err(ctx,
                "quorvane: reasoning plugin path is not canonical (got '%s', resolves to '%s')",
                path, canonical);
        return QVN_ERR_INVALID;
    }
    return QVN_OK;
}

// dlsym hands back a data pointer; POSIX guarantees it converts to a
// function pointer.
template <class Fn>
Fn lookup(void *handle, const char *name) noexcept {
    return reinterpret_cast<Fn>(dlsym(handle, name));
}

}  // namespace

void qvn_reasoning_call_fini_and_clear(qvn_context *ctx) noexcept {
    if (!ctx || !ctx->plugin_handle) return;
    if (ctx->plugin_fini) {
        try {
            ctx->plugin_fini(ctx->reasoning_vfs.state);
        } catch (...) {  // a throwing fini must not end the host
        }
    }
    dlclose(ctx->plugin_handle);
    ctx->has_reasoning = 0;
    ctx->plugin_handle = nullptr;
    ctx->plugin_fini = nullptr;
}

extern "C" {

QVN_API int32_t qvn_load_reasoning(qvn_context *ctx, const char *path) {
    if (!ctx || !path || path[0] == '\0') return QVN_ERR_INVALID;
    const int32_t path_rc = check_plugin_path(ctx, path);
    if (path_rc != QVN_OK) return path_rc;

    // Bind everything now, and keep the plug-in's symbols out of the
    // global scope of libraries loaded later.
    void *handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char *why = dlerror();
        set_err(ctx, "quorvane: dlopen('%s') failed: %s", path, why ? why : "unknown error");
        return QVN_ERR_EXTERNAL;
    }
    const auto init = lookup<qvn_reasoning_init_fn>(handle, "qvn_reasoning_init");
    if (!init) {
        set_err(ctx, "quorvane: plugin '%s' missing qvn_reasoning_init", path);
        dlclose(handle);
        return QVN_ERR_EXTERNAL;
    }
    reasoning_vfs table;
    std::memset(&table, 0, sizeof table);
    int32_t rc;
    try {
        rc = init(&table);
    } catch (...) {  // a throwing init is a failed init
        rc = -1;
    }
    if (rc != 0) {
        set_err(ctx, "quorvane: plugin qvn_reasoning_init returned %d", rc);
        dlclose(handle);
        return QVN_ERR_EXTERNAL;
    }
    if (table.abi_version != 1) {
        // The table was never accepted, so its fini is not called.
        set_err(ctx, "quorvane: plugin abi_version=%d expected %d", table.abi_version, 1);
        dlclose(handle);
        return QVN_ERR_EXTERNAL;
    }

    // Loading the same file again still finalises the old instance; the
    // loader's reference count keeps the library mapped.
    qvn_reasoning_call_fini_and_clear(ctx);
    ctx->plugin_fini = lookup<qvn_reasoning_fini_fn>(handle, "qvn_reasoning_fini");
    ctx->reasoning_vfs = table;
    ctx->has_reasoning = 1;
    ctx->plugin_handle = handle;
    return QVN_OK;
}

}  // extern "C"
