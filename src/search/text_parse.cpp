// Query and corpus text: numbers in strtod syntax (signs, exponents, hex
// floats, inf and nan words) between blanks, commas and brackets; corpus
// rows split on ';' or on the rows' own brackets inside one outer pair.
//
// Neither parser needs a terminated input: the vector parser works on a
// private terminated copy (so a NUL inside the range ends the vector), the
// corpus splitter on index bounds. No finiteness check: inf and nan values
// pass through. Every failure frees what was allocated and leaves one
// message in msg.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "search/search.h"

namespace {

constexpr size_t kFirstVectorCap = 16;
constexpr size_t kFirstCorpusRows = 16;

inline void put_msg(char *msg, const char *text) noexcept {
    std::snprintf(msg, QVN_ERRMSG_SIZE, "%s", text);
}

inline bool is_vector_separator(char c) noexcept {
    return c == '\t' || c == '\n' || c == '\r' || c == ' ' || c == ',';
}

inline bool is_white(char c) noexcept { return c == '\t' || c == '\n' || c == '\r' || c == ' '; }

}  // namespace

bool parse_vector_csv(const char *text, size_t len, double **out_values, size_t *out_count,
                      char *msg) noexcept {
    char *copy = len < SIZE_MAX ? static_cast<char *>(std::malloc(len + 1)) : nullptr;
    auto *values = static_cast<double *>(std::malloc(kFirstVectorCap * sizeof(double)));
    if (!copy || !values) {
        std::free(copy);
        std::free(values);
        put_msg(msg, "quorvane: oom parsing vector");
        return false;
    }
    if (len > 0) std::memcpy(copy, text, len);
    copy[len] = '\0';

    size_t count = 0;
    size_t cap = kFirstVectorCap;
    const char *p = copy;
    while (*p != '\0') {
        const char c = *p;
        if (is_vector_separator(c) || c == '[' || c == ']') {
            ++p;
            continue;
        }
        char *stop = nullptr;
        errno = 0;
        const double v = std::strtod(p, &stop);
        if (stop == p) {
            std::snprintf(msg, QVN_ERRMSG_SIZE, "quorvane: invalid number near '%.20s'", p);
            std::free(copy);
            std::free(values);
            return false;
        }
        if (errno == ERANGE) {
            put_msg(msg, "quorvane: value out of range");
            std::free(copy);
            std::free(values);
            return false;
        }
        if (count == cap) {
            void *grown = cap <= SIZE_MAX / (2 * sizeof(double))
                              ? std::realloc(values, 2 * cap * sizeof(double))
                              : nullptr;
            if (!grown) {
                put_msg(msg, "quorvane: oom growing vector");
                std::free(copy);
                std::free(values);
                return false;
            }
            values = static_cast<double *>(grown);
            cap *= 2;
        }
        values[count++] = v;
        p = stop;
    }
    std::free(copy);
    if (count == 0) {
        put_msg(msg, "quorvane: vector must have at least one element");
        std::free(values);
        return false;
    }
    *out_values = values;
    *out_count = count;
    return true;
}

bool parse_corpus(const char *text, size_t len, size_t expected_dim, double **out_rows,
                  size_t *out_n_rows, size_t *out_dim, char *msg) noexcept {
    const auto no_rows = [&]() noexcept {
        *out_rows = nullptr;
        *out_n_rows = 0;
        *out_dim = expected_dim;
        return true;
    };
    if (len == 0) return no_rows();

    size_t first = 0;
    while (first < len && is_white(text[first])) ++first;
    if (first == len) return no_rows();

    size_t start = first;
    size_t end = len;
    bool outer = false;
    if (text[first] == '[') {
        size_t next = first + 1;
        while (next < len && is_white(text[next])) ++next;
        outer = next < len && text[next] == '[';
    }
    if (outer) {
        while (end > first && is_white(text[end - 1])) --end;
        if (end > first && text[end - 1] == ']') --end;
        start = first + 1;
        if (start >= end) return no_rows();
    }

    bool any_value_byte = false;
    for (size_t i = start; i < end && !any_value_byte; ++i) {
        const char c = text[i];
        any_value_byte = !(is_white(c) || c == '[' || c == ']');
    }
    if (!any_value_byte) return no_rows();

    double *block = nullptr;
    size_t n_rows = 0;
    size_t row_cap = 0;
    size_t dim = expected_dim;
    const auto fail = [&]() noexcept {
        std::free(block);
        return false;
    };

    size_t seg = start;
    for (size_t p = start; p <= end; ++p) {
        const bool boundary = p == end || text[p] == ';' || (outer && text[p] == '[' && p != seg);
        if (!boundary) continue;

        size_t lo = seg;
        size_t hi = p;
        while (hi > lo && (is_vector_separator(text[hi - 1]) || text[hi - 1] == ']')) --hi;
        while (lo < hi && (is_white(text[lo]) || text[lo] == '[')) ++lo;
        seg = (p < end && text[p] == '[') ? p : p + 1;
        if (lo == hi) continue;

        double *row = nullptr;
        size_t count = 0;
        if (!parse_vector_csv(text + lo, hi - lo, &row, &count, msg)) return fail();
        if (dim != 0 && count != dim) {
            std::snprintf(msg, QVN_ERRMSG_SIZE,
                          "quorvane: corpus row %zu has dim %zu, expected %zu", n_rows, count,
                          dim);
            std::free(row);
            return fail();
        }
        dim = count;
        if (n_rows == row_cap) {
            const size_t new_cap = row_cap == 0 ? kFirstCorpusRows : row_cap * 2;
            void *grown = nullptr;
            if (new_cap <= SIZE_MAX / sizeof(double) / dim) {
                grown = std::realloc(block, new_cap * dim * sizeof(double));
            }
            if (!grown) {
                put_msg(msg, "quorvane: oom growing corpus");
                std::free(row);
                return fail();
            }
            block = static_cast<double *>(grown);
            row_cap = new_cap;
        }
        std::memcpy(block + n_rows * dim, row, dim * sizeof(double));
        std::free(row);
        ++n_rows;
    }

    if (n_rows == 0) return no_rows();  // only ';', ',' and brackets
    *out_rows = block;
    *out_n_rows = n_rows;
    *out_dim = dim;
    return true;
}
