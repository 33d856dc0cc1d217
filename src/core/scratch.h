// Call-local scratch memory that is released on every path.
#ifndef QVN_CORE_SCRATCH_H
#define QVN_CORE_SCRATCH_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "quorvane.h"

namespace qvn {

struct free_deleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
template <class T>
using scratch = std::unique_ptr<T[], free_deleter>;

// Trivial T only. Null when n * sizeof(T) overflows or malloc fails.
template <class T>
scratch<T> make_scratch(size_t n) noexcept {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    return scratch<T>(static_cast<T *>(std::malloc(n ? n * sizeof(T) : 1)));
}

// Zero-filled variant.
template <class T>
scratch<T> make_zeroed_scratch(size_t n) noexcept {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    return scratch<T>(static_cast<T *>(std::calloc(n ? n : 1, sizeof(T))));
}

// Entry-point guard for code that uses standard containers: only
// allocation may throw in here.
template <class F>
int32_t guarded(F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        return QVN_ERR_NOMEM;
    }
}

}  // namespace qvn

#endif
