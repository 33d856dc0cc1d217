#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "core/context.h"
#include "quorvane.h"
#include "reasoning_support.h"

using qvn_test::basename_of;
using qvn_test::canonical;
using qvn_test::dirname_of;
using qvn_test::HostState;
using qvn_test::is_mapped;
using qvn_test::PinnedPlugin;
using qvn_test::text_of;

namespace {

// Runs one request and returns the response text ("" on failure).
std::string ask(qvn_context *ctx, const std::string &query, const std::string &context) {
    qvn_ai_response r{};
    const int32_t rc = qvn_dispatch_ai(ctx, query.data(), query.size(), context.data(),
                                       context.size(), &r);
    std::string text = rc == 0 ? text_of(r) : std::string();
    qvn_ai_response_free(&r);
    return text;
}

std::string got(const char *format, const std::string &path) {
    char buf[QVN_ERRMSG_SIZE];
    std::snprintf(buf, sizeof buf, format, path.c_str());
    return buf;
}

// A fresh directory below the canonical temporary directory, removed with
// everything the test put in it.
class TempDir {
public:
    TempDir() {
        std::string tmpl = canonical("/tmp") + "/qvn-reasoning-XXXXXX";
        if (mkdtemp(tmpl.data())) path_ = tmpl;
    }
    ~TempDir() {
        for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) unlink(it->c_str());
        if (!path_.empty()) rmdir(path_.c_str());
    }
    // Symbolic link `name` in this directory pointing at `target`.
    std::string link(const std::string &name, const std::string &target) {
        const std::string p = path_ + "/" + name;
        if (symlink(target.c_str(), p.c_str()) != 0) return std::string();
        entries_.push_back(p);
        return p;
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
    std::vector<std::string> entries_;
};

}  // namespace

TEST(LoadReasoning, MissingArgumentsFailWithoutMessage) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(a.ok());
    EXPECT_EQ(qvn_load_reasoning(nullptr, a.c_path()), QVN_ERR_INVALID);
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(qvn_load_reasoning(ctx, nullptr), QVN_ERR_INVALID);
    EXPECT_EQ(qvn_load_reasoning(ctx, ""), QVN_ERR_INVALID);
    EXPECT_STREQ(qvn_last_error(ctx), "");
    EXPECT_EQ(a.stats().init_calls, 0);
    qvn_free(ctx);
}

// Every kind of failed load: exact code and message, and the plug-in that
// was loaded before stays in force, unfinalised.
TEST(LoadReasoning, FailedLoadsReportAndKeepThePreviousPlugin) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(a.ok());
    const std::string plugin = a.path();
    const std::string dir = dirname_of(plugin);
    const std::string base = basename_of(plugin);
    const std::string parent = dirname_of(dir);
    const std::string leaf = basename_of(dir);

    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    const std::string file_link = tmp.link("plugin.so", plugin);
    const std::string dir_link = tmp.link("plugins", dir);
    ASSERT_FALSE(file_link.empty());
    ASSERT_FALSE(dir_link.empty());

    // The loader's text for a directory comes from the system; ask it.
    const auto dlopen_text = [](const std::string &path) {
        if (dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return std::string("opened?");
        return std::string(dlerror());
    };

    const std::string no_init = canonical(QVN_PLUGIN_NO_INIT);
    const std::string init_fails = canonical(QVN_PLUGIN_INIT_FAILS);
    const std::string abi2 = canonical(QVN_PLUGIN_ABI2);

    const char *absolute = "quorvane: reasoning plugin path must be absolute (got '%s')";
    const char *inside = "quorvane: reasoning plugin path contains traversal segment (got '%s')";
    const char *at_end = "quorvane: reasoning plugin path ends in traversal segment (got '%s')";
    const auto not_canonical = [](const std::string &given, const std::string &resolved) {
        return "quorvane: reasoning plugin path is not canonical (got '" + given +
               "', resolves to '" + resolved + "')";
    };
    const auto canon_failed = [](const std::string &given, int err) {
        return "quorvane: path canonicalization of '" + given + "' failed: " +
               std::strerror(err);
    };

    struct Case {
        std::string path;
        int32_t rc;
        std::string message;
    };
    const std::vector<Case> cases = {
        // Rejected by the text alone: several of these would resolve to a
        // real plug-in, or fail differently, if the file system were asked.
        {"plugins/r.so", -1, got(absolute, "plugins/r.so")},
        {"./" + base, -1, got(absolute, "./" + base)},
        {"/opt/p/../r.so", -1, got(inside, "/opt/p/../r.so")},
        {"/opt/./r.so", -1, got(inside, "/opt/./r.so")},
        {dir + "/./" + base, -1, got(inside, dir + "/./" + base)},
        {dir + "/../" + leaf + "/" + base, -1, got(inside, dir + "/../" + leaf + "/" + base)},
        {"/opt/p/..", -1, got(at_end, "/opt/p/..")},
        {"/opt/p/.", -1, got(at_end, "/opt/p/.")},
        {"/..", -1, got(at_end, "/..")},
        {"/.", -1, got(at_end, "/.")},
        {dir + "/..", -1, got(at_end, dir + "/..")},
        // realpath fails.
        {dir + "/no-such-plugin.so", -1, canon_failed(dir + "/no-such-plugin.so", ENOENT)},
        {plugin + "/inner.so", -1, canon_failed(plugin + "/inner.so", ENOTDIR)},
        // realpath succeeds elsewhere.
        {file_link, -1, not_canonical(file_link, plugin)},
        {dir_link + "/" + base, -1, not_canonical(dir_link + "/" + base, plugin)},
        {dir + "//" + base, -1, not_canonical(dir + "//" + base, plugin)},
        {"/" + plugin, -1, not_canonical("/" + plugin, plugin)},
        {dir + "/", -1, not_canonical(dir + "/", dir)},
        // Loader and plug-in failures.
        {"/", -5, "quorvane: dlopen('/') failed: " + dlopen_text("/")},
        {parent, -5, "quorvane: dlopen('" + parent + "') failed: " + dlopen_text(parent)},
        {no_init, -5, "quorvane: plugin '" + no_init + "' missing qvn_reasoning_init"},
        {init_fails, -5, "quorvane: plugin qvn_reasoning_init returned 7"},
        {abi2, -5, "quorvane: plugin abi_version=2 expected 1"},
    };

    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
    void *const state = ctx->reasoning_vfs.state;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(qvn_load_reasoning(ctx, c.path.c_str()), c.rc);
        EXPECT_EQ(qvn_last_error(ctx), c.message);
        EXPECT_EQ(ctx->reasoning_vfs.state, state);
        EXPECT_EQ(ask(ctx, "q", "c"), "A:q|c");
        EXPECT_EQ(a.stats().init_calls, 1);
        EXPECT_EQ(a.stats().fini_calls, 0);
    }
    qvn_free(ctx);
    EXPECT_EQ(a.stats().fini_calls, 1);
    EXPECT_EQ(a.stats().last_fini_state, state);
}

TEST(LoadReasoning, FailedLoadsCloseTheLibraryAgain) {
    for (const char *build_path : {QVN_PLUGIN_NO_INIT, QVN_PLUGIN_INIT_FAILS, QVN_PLUGIN_ABI2}) {
        const std::string path = canonical(build_path);
        SCOPED_TRACE(path);
        ASSERT_FALSE(is_mapped(path));
        qvn_context *ctx = qvn_new_minimal();
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(qvn_load_reasoning(ctx, path.c_str()), QVN_ERR_EXTERNAL);
        EXPECT_FALSE(is_mapped(path));
        EXPECT_EQ(ctx->plugin_handle, nullptr);
        EXPECT_EQ(ctx->has_reasoning, 0);
        qvn_free(ctx);
    }
}

TEST(LoadReasoning, RejectedTablesAreNotFinalised) {
    for (const char *build_path : {QVN_PLUGIN_INIT_FAILS, QVN_PLUGIN_ABI2}) {
        PinnedPlugin p(build_path);
        ASSERT_TRUE(p.ok());
        SCOPED_TRACE(p.path());
        qvn_context *ctx = qvn_new_minimal();
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(qvn_load_reasoning(ctx, p.c_path()), QVN_ERR_EXTERNAL);
        qvn_free(ctx);
        EXPECT_EQ(p.stats().init_calls, 1);
        EXPECT_EQ(p.stats().fini_calls, 0);
    }
}

TEST(LoadReasoning, LoadAndFreeFinaliseOnceWithTheInitState) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(a.ok());
    for (bool ostrany : {false, true}) {
        SCOPED_TRACE(ostrany ? "ostrany" : "minimal");
        qvn_context *ctx = ostrany ? qvn_new_ostrany(nullptr, nullptr) : qvn_new_minimal();
        ASSERT_NE(ctx, nullptr);
        // A successful load leaves an earlier message alone.
        qvn_ai_response r{};
        ASSERT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), QVN_ERR_NO_REASONING);
        const int fini_before = a.stats().fini_calls;

        ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
        EXPECT_STREQ(qvn_last_error(ctx), "quorvane: no reasoning VFS attached to ctx");
        EXPECT_EQ(a.stats().fini_calls, fini_before);
        EXPECT_EQ(ask(ctx, "hello", "world"), "A:hello|world");
        void *const state = a.stats().last_init_state;
        qvn_free(ctx);
        EXPECT_EQ(a.stats().fini_calls, fini_before + 1);
        EXPECT_EQ(a.stats().last_fini_state, state);
    }
}

TEST(LoadReasoning, ReplacementFinalisesThePreviousPluginFirst) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    PinnedPlugin b(QVN_PLUGIN_GOOD_B);
    ASSERT_TRUE(a.ok() && b.ok());
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);

    ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
    void *const state_a = a.stats().last_init_state;
    ASSERT_EQ(qvn_load_reasoning(ctx, b.c_path()), 0);
    void *const state_b = b.stats().last_init_state;
    EXPECT_EQ(a.stats().fini_calls, 1);
    EXPECT_EQ(a.stats().last_fini_state, state_a);
    EXPECT_EQ(b.stats().init_calls, 1);
    EXPECT_EQ(b.stats().fini_calls, 0);
    EXPECT_EQ(ctx->reasoning_vfs.state, state_b);
    EXPECT_EQ(ask(ctx, "x", "y"), "B:x|y");
    EXPECT_EQ(a.stats().format_calls, 0);

    qvn_free(ctx);
    EXPECT_EQ(a.stats().fini_calls, 1);
    EXPECT_EQ(b.stats().fini_calls, 1);
    EXPECT_EQ(b.stats().last_fini_state, state_b);
}

// Loading the file that is already loaded starts a second instance and
// finalises the first; each dlopen reference is dropped again.
TEST(LoadReasoning, ReloadingTheSameFileFinalisesTheOldInstance) {
    {
        PinnedPlugin a(QVN_PLUGIN_GOOD_A);
        ASSERT_TRUE(a.ok());
        qvn_context *ctx = qvn_new_minimal();
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
        void *const first = a.stats().last_init_state;
        ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
        void *const second = a.stats().last_init_state;
        ASSERT_NE(first, second);
        EXPECT_EQ(a.stats().init_calls, 2);
        EXPECT_EQ(a.stats().fini_calls, 1);
        EXPECT_EQ(a.stats().last_fini_state, first);
        EXPECT_EQ(ask(ctx, "q", ""), "A:q|");
        qvn_free(ctx);
        EXPECT_EQ(a.stats().fini_calls, 2);
        EXPECT_EQ(a.stats().last_fini_state, second);
    }
    const std::string path = canonical(QVN_PLUGIN_GOOD_A);
    ASSERT_FALSE(is_mapped(path));
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(qvn_load_reasoning(ctx, path.c_str()), 0);
    ASSERT_EQ(qvn_load_reasoning(ctx, path.c_str()), 0);
    EXPECT_TRUE(is_mapped(path));
    qvn_free(ctx);
    EXPECT_FALSE(is_mapped(path));
}

TEST(LoadReasoning, PluginWithoutFiniLoadsAndUnloads) {
    PinnedPlugin n(QVN_PLUGIN_NO_FINI);
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(n.ok() && a.ok());
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(qvn_load_reasoning(ctx, n.c_path()), 0);
    EXPECT_EQ(ctx->plugin_fini, nullptr);
    EXPECT_EQ(ask(ctx, "q", "c"), "N:q|c");
    ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
    EXPECT_EQ(ask(ctx, "q", "c"), "A:q|c");
    ASSERT_EQ(qvn_load_reasoning(ctx, n.c_path()), 0);
    EXPECT_EQ(a.stats().fini_calls, 1);
    qvn_free(ctx);
    EXPECT_EQ(a.stats().fini_calls, 1);
    EXPECT_EQ(n.stats().init_calls, 2);
}

TEST(LoadReasoning, UnloadingReturnsTheContextToNoTable) {
    const std::string path = canonical(QVN_PLUGIN_GOOD_A);
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    {
        PinnedPlugin a(QVN_PLUGIN_GOOD_A);
        ASSERT_TRUE(a.ok());
        ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
        qvn_reasoning_call_fini_and_clear(ctx);
        qvn_reasoning_call_fini_and_clear(ctx);
        EXPECT_EQ(a.stats().fini_calls, 1);
        EXPECT_EQ(ctx->plugin_handle, nullptr);
        EXPECT_EQ(ctx->plugin_fini, nullptr);
        qvn_ai_response r{};
        EXPECT_EQ(qvn_dispatch_ai(ctx, "q", 1, nullptr, 0, &r), QVN_ERR_NO_REASONING);
    }
    EXPECT_FALSE(is_mapped(path));
    qvn_free(ctx);
}

// A host's table has no plug-in behind it: nothing finalises it, neither
// unloading, nor replacement, nor destruction.
TEST(LoadReasoning, HostTableIsReplacedButNeverFinalised) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(a.ok());
    HostState host;
    const reasoning_vfs table = qvn_test::host_table(&host);

    qvn_context *kept = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(kept, nullptr);
    qvn_reasoning_call_fini_and_clear(kept);
    EXPECT_EQ(kept->has_reasoning, 1);
    EXPECT_EQ(ask(kept, "q", "c"), "generated");
    qvn_free(kept);
    EXPECT_EQ(host.format_calls, 1);
    EXPECT_EQ(host.generate_calls, 1);

    qvn_context *ctx = qvn_new_ostrany(nullptr, &table);
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
    EXPECT_EQ(ask(ctx, "q", "c"), "A:q|c");
    qvn_free(ctx);
    EXPECT_EQ(host.format_calls, 1);
    EXPECT_EQ(host.generate_calls, 1);
    EXPECT_EQ(a.stats().fini_calls, 1);
    EXPECT_EQ(a.stats().last_fini_state, a.stats().last_init_state);
}

namespace {

struct StorageState {
    int releases = 0;
    void *seen = nullptr;
    const test_plugin_stats *plugin = nullptr;
    int plugin_fini_at_release = -1;
};

void count_release(void *state) {
    auto *s = static_cast<StorageState *>(state);
    ++s->releases;
    s->seen = state;
    if (s->plugin) s->plugin_fini_at_release = s->plugin->fini_calls;
}

}  // namespace

TEST(LoadReasoning, StorageReleaseRunsOnceOnEveryDestructionPath) {
    PinnedPlugin a(QVN_PLUGIN_GOOD_A);
    ASSERT_TRUE(a.ok());
    enum class Path { storage_only, host_table, plugin, host_then_plugin, bad_abi };
    for (Path path : {Path::storage_only, Path::host_table, Path::plugin,
                      Path::host_then_plugin, Path::bad_abi}) {
        SCOPED_TRACE(static_cast<int>(path));
        StorageState s;
        s.plugin = &a.stats();
        storage_vfs storage{&s, nullptr, nullptr, count_release};
        HostState host;
        reasoning_vfs table = qvn_test::host_table(&host);
        const bool with_table = path != Path::storage_only && path != Path::plugin;
        if (path == Path::bad_abi) table.abi_version = 2;
        const int fini_before = a.stats().fini_calls;

        qvn_context *ctx = qvn_new_ostrany(&storage, with_table ? &table : nullptr);
        if (path == Path::bad_abi) {
            EXPECT_EQ(ctx, nullptr);
        } else {
            ASSERT_NE(ctx, nullptr);
            if (path == Path::plugin || path == Path::host_then_plugin) {
                ASSERT_EQ(qvn_load_reasoning(ctx, a.c_path()), 0);
            }
            EXPECT_EQ(s.releases, 0);
            qvn_free(ctx);
        }
        EXPECT_EQ(s.releases, 1);
        EXPECT_EQ(s.seen, &s);
        EXPECT_EQ(host.format_calls + host.generate_calls, 0);
        if (path == Path::plugin || path == Path::host_then_plugin) {
            // Storage goes first, then the plug-in is finalised.
            EXPECT_EQ(s.plugin_fini_at_release, fini_before);
            EXPECT_EQ(a.stats().fini_calls, fini_before + 1);
        }
    }
}
