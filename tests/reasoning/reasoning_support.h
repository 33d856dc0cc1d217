// Helpers for the reasoning tests: canonical build paths, a pin that keeps
// a test plug-in mapped so its counters survive the library's dlclose, a
// residency probe, and a host reasoning table with scripted results.
#ifndef QVN_TESTS_REASONING_REASONING_SUPPORT_H
#define QVN_TESTS_REASONING_REASONING_SUPPORT_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quorvane.h"
#include "test_plugin.h"

namespace qvn_test {

// The build tree may sit below a symbolic link; the loader wants the
// resolved path.
inline std::string canonical(const char *path) {
    char buf[PATH_MAX];
    if (!realpath(path, buf)) return std::string();
    return buf;
}

inline std::string dirname_of(const std::string &path) {
    return path.substr(0, path.rfind('/'));
}

inline std::string basename_of(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// True while some reference keeps the library at `path` mapped.
inline bool is_mapped(const std::string &path) {
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (!h) return false;
    dlclose(h);
    return true;
}

// Holds its own reference to a test plug-in, zeroes its counters and
// exposes them. The library's dlopen of the same path shares the mapping.
class PinnedPlugin {
public:
    explicit PinnedPlugin(const char *build_path) : path_(canonical(build_path)) {
        handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle_) return;
        auto fn = reinterpret_cast<test_plugin_stats_fn>(dlsym(handle_, "test_plugin_stats"));
        if (fn) stats_ = fn();
        if (stats_) *stats_ = test_plugin_stats{};
    }
    ~PinnedPlugin() {
        if (handle_) dlclose(handle_);
    }
    PinnedPlugin(const PinnedPlugin &) = delete;
    PinnedPlugin &operator=(const PinnedPlugin &) = delete;

    bool ok() const { return !path_.empty() && stats_ != nullptr; }
    const std::string &path() const { return path_; }
    const char *c_path() const { return path_.c_str(); }
    const test_plugin_stats &stats() const { return *stats_; }

private:
    std::string path_;
    void *handle_ = nullptr;
    test_plugin_stats *stats_ = nullptr;
};

// Response text as a string; the record holds no NUL.
inline std::string text_of(const qvn_ai_response &r) {
    return r.text ? std::string(r.text, r.text_len) : std::string();
}

// A host's reasoning operations. format_prompt records its arguments
// without reading the bytes, so lengths far beyond the buffers are safe.
struct HostState {
    int32_t format_rc = 0;
    bool give_prompt = true;
    int32_t generate_rc = 0;
    bool give_text = true;
    bool with_free_fn = false;  // text in fixed_text, released by host_release

    int format_calls = 0;
    int generate_calls = 0;
    int release_calls = 0;
    const char *seen_query = nullptr;
    size_t seen_query_len = 0;
    const char *seen_context = nullptr;
    size_t seen_context_len = 0;
    const char *seen_prompt = nullptr;
    size_t seen_prompt_len = 0;
    const qvn_ai_response *released_record = nullptr;
    const char *released_text = nullptr;

    char prompt[8] = "prompt";
    char fixed_text[8] = "fixed";  // not heap memory: free() on it is invalid
};

inline void host_release(qvn_ai_response *response) {
    auto *s = reinterpret_cast<HostState *>(response->text - offsetof(HostState, fixed_text));
    ++s->release_calls;
    s->released_record = response;
    s->released_text = response->text;
}

inline int32_t host_format(void *state, const char *query, size_t query_len,
                           const char *context, size_t context_len, const char **prompt_out,
                           size_t *prompt_len_out) {
    auto *s = static_cast<HostState *>(state);
    ++s->format_calls;
    s->seen_query = query;
    s->seen_query_len = query_len;
    s->seen_context = context;
    s->seen_context_len = context_len;
    if (s->give_prompt) {
        *prompt_out = s->prompt;
        *prompt_len_out = std::strlen(s->prompt);
    }
    return s->format_rc;
}

inline int32_t host_generate(void *state, const char *prompt, size_t prompt_len,
                             char **text_out, size_t *text_len_out,
                             qvn_response_free_fn *free_out) {
    auto *s = static_cast<HostState *>(state);
    ++s->generate_calls;
    s->seen_prompt = prompt;
    s->seen_prompt_len = prompt_len;
    if (s->give_text) {
        if (s->with_free_fn) {
            *text_out = s->fixed_text;
            *text_len_out = std::strlen(s->fixed_text);
            *free_out = host_release;
        } else {
            char *text = static_cast<char *>(std::malloc(9));
            if (!text) return 12;
            std::memcpy(text, "generated", 9);
            *text_out = text;
            *text_len_out = 9;
        }
    }
    return s->generate_rc;
}

inline reasoning_vfs host_table(HostState *state) {
    reasoning_vfs t{};
    t.state = state;
    t.abi_version = 1;
    t.format_prompt = host_format;
    t.generate = host_generate;
    return t;
}

}  // namespace qvn_test

#endif
