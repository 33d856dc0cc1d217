// Fuzz target for qvn_search: the input is split at the first two 0x01
// bytes into corpus text, query text and parameter text; k comes from the
// first byte. Every call must return a status of the library's table, keep
// the out-parameters consistent and leave a message on failure.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "quorvane.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *p = reinterpret_cast<const char *>(data);
    const char *end = p + size;
    int32_t k = size ? static_cast<int32_t>(data[0] % 8) : 1;
    const char *parts[3] = {p, end, end};
    size_t lens[3] = {size, 0, 0};
    if (const char *s1 = static_cast<const char *>(std::memchr(p, 1, size))) {
        lens[0] = s1 - p;
        parts[1] = s1 + 1;
        lens[1] = end - parts[1];
        if (const char *s2 = static_cast<const char *>(std::memchr(parts[1], 1, lens[1]))) {
            lens[1] = s2 - parts[1];
            parts[2] = s2 + 1;
            lens[2] = end - parts[2];
        }
    }
    qvn_context *ctx = qvn_new_minimal();
    if (!ctx) return 0;
    const char *json = nullptr;
    size_t len = 0;
    const int32_t rc = qvn_search(ctx, parts[0], lens[0], parts[1], lens[1], k, parts[2],
                                  lens[2], &json, &len);
    if (rc == 0) {
        if (!json || std::strlen(json) != len || json[0] != '{') std::abort();
    } else {
        if (json || len) std::abort();
        if (rc != -1 && rc != -2 && rc != -3 && rc != -4 && rc != -5) std::abort();
        if (std::strncmp(qvn_last_error(ctx), "quorvane: ", 10) != 0) std::abort();
    }
    qvn_free(ctx);
    return 0;
}
