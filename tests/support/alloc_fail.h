// Makes the library's allocations fail on demand, for out-of-memory tests.
// Test executables link with -Wl,--wrap=malloc,calloc,realloc, so calls to
// those functions from the library objects (and from test code) come here.
#ifndef QVN_TESTS_ALLOC_FAIL_H
#define QVN_TESTS_ALLOC_FAIL_H

#include <cstddef>
#include <cstdint>

namespace qvn_test {

// Fail the n-th allocation from now on (1 = the next one), and every later
// one while `sticky` is true. n = 0 disarms.
void fail_allocation(size_t n, bool sticky = false);
// Number of allocations seen since the last fail_allocation() call.
size_t allocations_seen();
// True when an armed failure has been triggered.
bool allocation_failed();

// RAII form: disarms on scope exit.
struct AllocFailGuard {
    explicit AllocFailGuard(size_t n, bool sticky = false) { fail_allocation(n, sticky); }
    ~AllocFailGuard() { fail_allocation(0); }
    AllocFailGuard(const AllocFailGuard &) = delete;
    AllocFailGuard &operator=(const AllocFailGuard &) = delete;
};

// Runs body with the 1st, 2nd, ... allocation failing, until a run
// triggers no failure at all; that run must report success (body returns
// true). Returns the number of runs in which an allocation failed, or
// SIZE_MAX when the clean run failed or max_steps ran out. Callers assert
// that the result is neither 0 (nothing was exercised) nor SIZE_MAX.
template <class F>
size_t for_each_allocation_failure(F &&body, size_t max_steps = 10000) {
    for (size_t n = 1; n <= max_steps; ++n) {
        fail_allocation(n);
        const bool ok = body(n);
        const bool failed = allocation_failed();
        fail_allocation(0);
        if (!failed) return ok ? n - 1 : SIZE_MAX;
    }
    return SIZE_MAX;
}

}  // namespace qvn_test

#endif
