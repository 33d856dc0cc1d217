// Four-component combined Tausworthe generator (L'Ecuyer's LFSR113 family
// widened to 64-bit words) with components (k, q, s) = (63, 31, 18),
// (58, 19, 28), (55, 24, 7), (47, 21, 8). Output: the low 52 bits of the
// XOR of the words as the mantissa of a double in [1, 2), minus 1.
#include <cstring>

#include "sfs/sfs.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kE = 2.718281828459045;

inline void step(qvn_prng_state *s) noexcept {
    s->z1 = ((s->z1 & 0xFFFFFFFFFFFFFFFEULL) << 18) ^ (((s->z1 << 31) ^ s->z1) >> 45);
    s->z2 = ((s->z2 & 0xFFFFFFFFFFFFFFC0ULL) << 28) ^ (((s->z2 << 19) ^ s->z2) >> 30);
    s->z3 = ((s->z3 & 0xFFFFFFFFFFFFFE00ULL) << 7) ^ (((s->z3 << 24) ^ s->z3) >> 48);
    s->z4 = ((s->z4 & 0xFFFFFFFFFFFE0000ULL) << 8) ^ (((s->z4 << 21) ^ s->z4) >> 39);
}

inline uint64_t bits_of(double x) noexcept {
    uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

// x * pi + e with the product rounded before the sum (no fused multiply-add;
// the build disables contraction).
inline double chain(double x) noexcept {
    const double p = x * kPi;
    return p + kE;
}

}  // namespace

void qvn_prng_seed(qvn_prng_state *state, double seed) noexcept {
    const double x1 = chain(seed);
    const double x2 = chain(x1);
    const double x3 = chain(x2);
    const double x4 = chain(x3);
    // Lower limits keep each word non-zero in the bits its mask keeps.
    uint64_t z = bits_of(x1);
    state->z1 = z < 2 ? z + 2 : z;
    z = bits_of(x2);
    state->z2 = z < 64 ? z + 64 : z;
    z = bits_of(x3);
    state->z3 = z < 512 ? z + 512 : z;
    z = bits_of(x4);
    state->z4 = z < 131072 ? z + 131072 : z;
    for (int i = 0; i < 10; ++i) step(state);
}

double qvn_prng_double(qvn_prng_state *state) noexcept {
    step(state);
    const uint64_t m = (state->z1 ^ state->z2 ^ state->z3 ^ state->z4) & 0x000FFFFFFFFFFFFFULL;
    const uint64_t pattern = 0x3FF0000000000000ULL | m;
    double d;
    std::memcpy(&d, &pattern, sizeof d);
    return d - 1.0;
}
