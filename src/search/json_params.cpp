// Search parameters from JSON text without a JSON parser: a key is found by
// a byte search for "key" followed by ':' (first match anywhere wins,
// nesting ignored, no escapes), and its value is read by a scanner that
// copies the bytes its type may hold and converts the copy. A missing or
// unreadable value keeps the caller's default; ranges are the driver's job.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "search/search.h"

namespace {

constexpr size_t kMaxKeyLen = 64;
constexpr size_t kMaxIntBytes = 31;
constexpr size_t kMaxRealBytes = 63;

inline bool is_white(char c) noexcept { return c == '\t' || c == '\n' || c == '\r' || c == ' '; }
inline bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
inline bool is_int_byte(char c) noexcept { return is_digit(c) || c == '+' || c == '-'; }
inline bool is_real_byte(char c) noexcept {
    return is_int_byte(c) || c == '.' || c == 'e' || c == 'E';
}

// Copies the value's leading bytes accepted by `accept` (at most max_bytes)
// into buf and NUL-terminates it; returns the number copied.
template <class Accept>
size_t copy_value(const char *text, size_t len, const char *key, char *buf, size_t max_bytes,
                  Accept accept) noexcept {
    size_t pos = 0;
    if (!json_find_key(text, len, key, &pos) || pos >= len) return 0;
    size_t n = 0;
    while (pos + n < len && n < max_bytes && accept(text[pos + n])) {
        buf[n] = text[pos + n];
        ++n;
    }
    buf[n] = '\0';
    return n;
}

}  // namespace

bool json_find_key(const char *text, size_t len, const char *key, size_t *out_pos) noexcept {
    const size_t n = strnlen(key, kMaxKeyLen);
    if (!text || len < n + 3) return false;
    for (size_t i = 0; i + n + 2 < len; ++i) {
        if (text[i] != '"' || std::memcmp(text + i + 1, key, n) != 0 || text[i + n + 1] != '"') {
            continue;
        }
        size_t p = i + n + 2;
        while (p < len && is_white(text[p])) ++p;
        if (p >= len || text[p] != ':') continue;
        ++p;
        while (p < len && is_white(text[p])) ++p;
        *out_pos = p;
        return true;
    }
    return false;
}

// Decimal integer with optional sign, as atoi reads it, except that text
// beyond the 32-bit range saturates instead of wrapping, so a huge value
// fails the driver's range check rather than landing inside the range.
int32_t json_get_int(const char *text, size_t len, const char *key,
                     int32_t default_value) noexcept {
    char buf[kMaxIntBytes + 1];
    if (copy_value(text, len, key, buf, kMaxIntBytes, is_int_byte) == 0) return default_value;
    errno = 0;
    const long long v = std::strtoll(buf, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

double json_get_double(const char *text, size_t len, const char *key,
                       double default_value) noexcept {
    char buf[kMaxRealBytes + 1];
    if (copy_value(text, len, key, buf, kMaxRealBytes, is_real_byte) == 0) return default_value;
    return std::strtod(buf, nullptr);
}

bool json_get_bool(const char *text, size_t len, const char *key) noexcept {
    size_t pos = 0;
    if (!json_find_key(text, len, key, &pos)) return false;
    return pos + 4 <= len && std::memcmp(text + pos, "true", 4) == 0;
}
