// Small helpers shared by the test suites.
#ifndef QVN_TESTS_TEST_SUPPORT_H
#define QVN_TESTS_TEST_SUPPORT_H

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace qvn_test {

inline uint64_t bits(double x) {
    uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

inline uint32_t bits(float x) {
    uint32_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

inline std::vector<double> random_doubles(size_t n, uint32_t seed, double lo = -1.0,
                                          double hi = 1.0) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> dist(lo, hi);
    std::vector<double> v(n);
    for (auto &x : v) x = dist(gen);
    return v;
}

inline std::vector<float> random_floats(size_t n, uint32_t seed, float lo = -1.0f,
                                        float hi = 1.0f) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(n);
    for (auto &x : v) x = dist(gen);
    return v;
}

}  // namespace qvn_test

#endif
