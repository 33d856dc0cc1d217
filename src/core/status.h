// Internal status codes and the mapping from kernel codes to exported ones.
#ifndef QVN_CORE_STATUS_H
#define QVN_CORE_STATUS_H

#include <cstdint>

#include "quorvane.h"

namespace qvn {

// Kernels (qvni_*) report only these two failures.
constexpr int32_t kKernelInvalid = -1;
constexpr int32_t kKernelNoMem = -2;

// Exported wrappers: kernel -1 stays -1, -2 becomes -4, anything else is 0.
inline int32_t map_kernel_status(int32_t rc) noexcept {
    if (rc == kKernelInvalid) return QVN_ERR_INVALID;
    if (rc == kKernelNoMem) return QVN_ERR_NOMEM;
    return QVN_OK;
}

}  // namespace qvn

#endif
