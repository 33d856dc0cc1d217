#include "support/alloc_fail.h"

#include <cstdlib>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
}

namespace {
size_t g_countdown = 0;  // 0: disarmed
size_t g_seen = 0;
bool g_sticky = false;
bool g_failed = false;

bool should_fail() {
    ++g_seen;
    if (g_countdown == 0) return false;
    if (g_failed && g_sticky) return true;
    if (--g_countdown == 0) {
        g_failed = true;
        if (g_sticky) g_countdown = 1;  // keep failing
        return true;
    }
    return false;
}
}  // namespace

namespace qvn_test {
void fail_allocation(size_t n, bool sticky) {
    g_countdown = n;
    g_sticky = sticky;
    g_seen = 0;
    g_failed = false;
}
size_t allocations_seen() { return g_seen; }
bool allocation_failed() { return g_failed; }
}  // namespace qvn_test

extern "C" {
void *__wrap_malloc(size_t size) { return should_fail() ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t n, size_t size) {
    return should_fail() ? nullptr : __real_calloc(n, size);
}
void *__wrap_realloc(void *p, size_t size) {
    return should_fail() ? nullptr : __real_realloc(p, size);
}
}
