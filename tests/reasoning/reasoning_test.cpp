// Plug-in loading and AI dispatch, through test_plugin.c modules and a host table.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "core/context.h"
#include "quorvane.h"
#include "test_plugin.h"

namespace {

constexpr size_t kMax = QVN_MAX_INPUT_BYTES;

std::string canonical(const char *path) {
    char buf[PATH_MAX];
    return realpath(path, buf) ? buf : "";
}
bool is_mapped(const std::string &path) {
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    return h && dlclose(h) == 0;
}

// Keeps a plug-in mapped, so its counters outlive the library's dlclose.
struct Pin {
    explicit Pin(const char *p) : path(canonical(p)), h(dlopen(path.c_str(), RTLD_NOW)) {}
    ~Pin() { if (h) dlclose(h); }
    std::string path;
    void *h;
    plugin_stats *s = h ? static_cast<plugin_stats *>(dlsym(h, "qvn_test_stats")) : nullptr;
};

bool all_bytes(const qvn_ai_response &r, int byte) {
    qvn_ai_response want;
    std::memset(&want, byte, sizeof want);
    return std::memcmp(&r, &want, sizeof r) == 0;
}

// One request with a NULL context; the text, or "" on failure. Frees are idempotent.
std::string ask(qvn_context *ctx) {
    qvn_ai_response r{};
    const bool ok = qvn_dispatch_ai(ctx, "q", 1, nullptr, SIZE_MAX, &r) == 0;
    const std::string text = ok ? std::string(r.text, r.text_len) : "";
    qvn_ai_response_free(&r);
    qvn_ai_response_free(&r);
    qvn_ai_response_free(nullptr);
    return text;
}

// A host's table with scripted results; records what it gets, reads no bytes.
struct Host {
    int32_t format_rc = 0, generate_rc = 0;
    bool give_prompt = true, give_text = true;
    int throw_in = 0;  // 1: format_prompt throws, 2: generate throws
    int formats = 0, generates = 0, releases = 0;
    const char *context = nullptr, *prompt = nullptr;
    size_t context_len = 0, prompt_len = 0;
    char prompt_buf[8] = "prompt", text[8] = "fixed";  // text is not heap memory
};
void host_release(qvn_ai_response *r) {
    ++reinterpret_cast<Host *>(r->text - offsetof(Host, text))->releases;
}
int32_t host_format(void *state, const char *, size_t, const char *c, size_t c_len,
                    const char **prompt, size_t *prompt_len) {
    auto *h = static_cast<Host *>(state);
    if (++h->formats, h->throw_in == 1) throw 1;
    h->context = c, h->context_len = c_len;
    if (h->give_prompt) *prompt = h->prompt_buf, *prompt_len = 6;
    return h->format_rc;
}
int32_t host_generate(void *state, const char *prompt, size_t len, char **text,
                      size_t *text_len, qvn_response_free_fn *free_fn) {
    auto *h = static_cast<Host *>(state);
    if (++h->generates, h->throw_in == 2) throw 2;
    h->prompt = prompt, h->prompt_len = len;
    if (h->give_text) *text = h->text, *text_len = 5, *free_fn = host_release;
    return h->generate_rc;
}
reasoning_vfs table_of(Host *h) { return reasoning_vfs{h, 1, 0, host_format, host_generate}; }
void throwing_release(void *count) { if (++*static_cast<int *>(count) == 1) throw 3; }

}  // namespace

// Checks run in a fixed order and leave the record alone; limits are
// inclusive; success fills the record and keeps the last message.
TEST(DispatchAi, ChecksThenSuccess) {
    Host host;
    const reasoning_vfs t = table_of(&host);
    qvn_context *with = qvn_new_ostrany(nullptr, &t), *none = qvn_new_minimal();
    ASSERT_TRUE(with && none);
    const std::string bad = "quorvane: invalid arguments to qvn_dispatch_ai";
    const std::string over = " exceeds QVN_MAX_INPUT_BYTES 1073741824";
    const std::string q = "quorvane: query_len ";
    struct Case { qvn_context *c; const char *q; size_t qn, cn; bool r; int rc; std::string m; };
    const std::vector<Case> cases = {
        {nullptr, "q", 1, 1, true, -1, ""},
        {none, nullptr, 1, 1, true, -1, bad},
        {with, "q", 0, 1, true, -1, bad},
        {with, "q", 1, 1, false, -1, bad},
        {none, "q", kMax + 1, kMax + 1, true, -46, "quorvane: no reasoning VFS attached to ctx"},
        {with, "q", kMax + 1, kMax + 1, true, -1, q + "1073741825" + over},
        {with, "q", SIZE_MAX, 1, true, -1, q + "18446744073709551615" + over},
        {with, "q", kMax, kMax + 1, true, -1, "quorvane: context_len 1073741825" + over},
    };
    qvn_ai_response r;
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const Case &k = cases[i];
        std::memset(&r, 0xA5, sizeof r);
        EXPECT_EQ(qvn_dispatch_ai(k.c, k.q, k.qn, "c", k.cn, k.r ? &r : nullptr), k.rc);
        EXPECT_EQ(qvn_last_error(k.c), k.m);
        EXPECT_TRUE(all_bytes(r, 0xA5));
    }
    EXPECT_EQ(host.formats, 0);
    ASSERT_EQ(qvn_dispatch_ai(with, "q", kMax, "c", kMax, &r), 0);
    EXPECT_EQ(qvn_last_error(with), cases.back().m);
    EXPECT_TRUE(host.context_len == kMax && host.prompt == host.prompt_buf && host.prompt_len == 6);
    EXPECT_TRUE(r.text == host.text && r.text_len == 5 && r.reserved == 0);
    EXPECT_EQ(r.free_fn, host_release);
    qvn_ai_response_free(&r);
    qvn_ai_response_free(&r);
    EXPECT_TRUE(host.releases == 1 && all_bytes(r, 0));
    qvn_free(with);
    qvn_free(none);
}

// Past the checks the record is zeroed and stays zero on failure; text a
// failed generate handed out stays the host's.
TEST(DispatchAi, OperationFailuresZeroTheRecord) {
    const std::string fmt = "quorvane: reasoning_vfs.format_prompt failed (rc=";
    const std::string gen = "quorvane: reasoning_vfs.generate failed (rc=";
    struct Case { void (*setup)(Host &, reasoning_vfs &); int generates; std::string msg; };
    const std::vector<Case> cases = {
        {[](Host &h, reasoning_vfs &) { h.format_rc = 4; }, 0, fmt + "4)"},
        {[](Host &h, reasoning_vfs &) { h.give_prompt = false; }, 0, fmt + "0)"},
        {[](Host &h, reasoning_vfs &) { h.throw_in = 1; }, 0, fmt + "-1)"},
        {[](Host &h, reasoning_vfs &) { h.generate_rc = -6; }, 1, gen + "-6)"},
        {[](Host &h, reasoning_vfs &) { h.give_text = false; }, 1, gen + "0)"},
        {[](Host &h, reasoning_vfs &) { h.throw_in = 2; }, 1, gen + "-1)"},
        {[](Host &, reasoning_vfs &t) { t.generate = nullptr; }, 0, gen + "0)"},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        Host host;
        reasoning_vfs t = table_of(&host);
        cases[i].setup(host, t);
        qvn_context *ctx = qvn_new_ostrany(nullptr, &t);
        qvn_ai_response r;
        std::memset(&r, 0xA5, sizeof r);
        EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, "c", 1, &r), QVN_ERR_EXTERNAL);
        EXPECT_EQ(qvn_last_error(ctx), cases[i].msg);
        EXPECT_EQ(host.formats * 10 + host.generates, 10 + cases[i].generates);
        EXPECT_TRUE(all_bytes(r, 0));
        qvn_ai_response_free(&r);
        EXPECT_EQ(host.releases, 0);
        qvn_free(ctx);
    }
}

// A failed load reports exactly and leaves the previous table in force; a
// successful one finalises the previous plug-in once, with its own state. A
// host's table is never finalised; storage is released once.
TEST(LoadReasoning, Lifecycle) {
    Pin a(QVN_PLUGIN_A), b(QVN_PLUGIN_B), bad_rc(QVN_PLUGIN_INIT_FAILS), bad_abi(QVN_PLUGIN_ABI2);
    ASSERT_TRUE(a.s && b.s && bad_rc.s && bad_abi.s);
    const std::string dir = a.path.substr(0, a.path.rfind('/')), sym = dir + "/link_A.so";
    const std::string none = dir + "/no.so", no_init = canonical(QVN_PLUGIN_NO_INIT);
    const std::string not_dl = dlopen("/", RTLD_NOW) ? "" : dlerror();
    const std::string p = "quorvane: reasoning plugin path ";
    const std::string rp = "quorvane: path canonicalization of '";
    struct Case { const char *path; int32_t rc; std::string msg; };
    const std::vector<Case> cases = {
        {nullptr, -1, ""},
        {"", -1, ""},
        {"lib/r.so", -1, p + "must be absolute (got 'lib/r.so')"},
        {"/opt/p/../r.so", -1, p + "contains traversal segment (got '/opt/p/../r.so')"},
        {"/opt/./r.so", -1, p + "contains traversal segment (got '/opt/./r.so')"},
        {"/opt/p/..", -1, p + "ends in traversal segment (got '/opt/p/..')"},
        {"/opt/p/.", -1, p + "ends in traversal segment (got '/opt/p/.')"},
        {none.c_str(), -1, rp + none + "' failed: " + std::strerror(ENOENT)},
        {sym.c_str(), -1, p + "is not canonical (got '" + sym + "', resolves to '" + a.path + "')"},
        {"/", -5, "quorvane: dlopen('/') failed: " + not_dl},
        {no_init.c_str(), -5, "quorvane: plugin '" + no_init + "' missing qvn_reasoning_init"},
        {bad_rc.path.c_str(), -5, "quorvane: plugin qvn_reasoning_init returned 7"},
        {bad_abi.path.c_str(), -5, "quorvane: plugin abi_version=2 expected 1"},
    };
    EXPECT_EQ(qvn_load_reasoning(nullptr, a.path.c_str()), QVN_ERR_INVALID);
    Host host;
    const reasoning_vfs t = table_of(&host);
    int releases = 0;
    const storage_vfs storage{&releases, nullptr, nullptr, throwing_release};
    qvn_context *ctx = qvn_new_ostrany(&storage, &t);
    qvn_reasoning_call_fini_and_clear(ctx);
    EXPECT_EQ(ask(ctx), "fixed");
    EXPECT_TRUE(host.context && !*host.context && host.context_len == 0);
    ASSERT_EQ(qvn_load_reasoning(ctx, canonical(QVN_PLUGIN_NO_FINI).c_str()), 0);
    ASSERT_EQ(qvn_load_reasoning(ctx, a.path.c_str()), 0);
    void *const state_a = a.s->init_state;
    for (const Case &k : cases) {
        SCOPED_TRACE(k.msg);
        EXPECT_EQ(qvn_load_reasoning(ctx, k.path), k.rc);
        EXPECT_EQ(qvn_last_error(ctx), k.msg);
        EXPECT_EQ(ask(ctx), "A:q");
        EXPECT_EQ(a.s->init * 10 + a.s->fini, 10);
    }
    EXPECT_EQ(bad_rc.s->init + bad_abi.s->init * 10 + bad_rc.s->fini + bad_abi.s->fini, 11);
    ASSERT_EQ(qvn_load_reasoning(ctx, b.path.c_str()), 0);
    EXPECT_EQ(qvn_last_error(ctx), cases.back().msg);
    EXPECT_TRUE(a.s->fini == 1 && a.s->fini_state == state_a);
    EXPECT_EQ(ask(ctx), "B:q");
    void *const state_b = b.s->init_state;  // the same file again: a new instance
    ASSERT_EQ(qvn_load_reasoning(ctx, b.path.c_str()), 0);
    EXPECT_TRUE(b.s->init_state != state_b && b.s->fini == 1 && b.s->fini_state == state_b);
    qvn_reasoning_call_fini_and_clear(ctx);
    EXPECT_TRUE(b.s->fini == 2 && b.s->fini_state == b.s->init_state);
    EXPECT_EQ(ask(ctx), "");
    qvn_free(ctx);
    EXPECT_EQ(a.s->fini * 10 + b.s->fini, 12);
    EXPECT_EQ(host.formats * 10 + releases, 11);
}

// Every dlopen is matched by one dlclose: after failures, replacement, free.
TEST(LoadReasoning, EveryHandleIsClosedAgain) {
    for (auto p : {QVN_PLUGIN_NO_INIT, QVN_PLUGIN_INIT_FAILS, QVN_PLUGIN_ABI2, QVN_PLUGIN_A}) {
        const std::string path = canonical(p);
        SCOPED_TRACE(path);
        qvn_context *ctx = qvn_new_minimal();
        const int32_t rc = qvn_load_reasoning(ctx, path.c_str());
        EXPECT_EQ(qvn_load_reasoning(ctx, path.c_str()), rc);
        EXPECT_EQ(is_mapped(path), rc == 0);
        qvn_free(ctx);
        EXPECT_FALSE(is_mapped(path));
    }
}
