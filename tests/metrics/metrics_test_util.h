// Point sets and checks shared by the metric tests.
#ifndef QVN_TESTS_METRICS_TEST_UTIL_H
#define QVN_TESTS_METRICS_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "support/alloc_fail.h"

namespace metrics_test {

// A value no metric produces: outputs still holding it were not written.
constexpr double kUnwritten = -12345.625;

// Four points at the origin and four at (1, 0, ..., 0) or (1, 1, ..., 1).
inline std::vector<double> two_clusters(size_t d, bool all_axes) {
    std::vector<double> p(8 * d, 0.0);
    for (size_t i = 4; i < 8; ++i)
        for (size_t j = 0; j < d; ++j) p[i * d + j] = (j == 0 || all_axes) ? 1.0 : 0.0;
    return p;
}

// n points spread uniformly over the unit sphere (normalised Gaussians).
inline std::vector<double> sphere_points(size_t n, uint32_t seed, double radius = 1.0) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<double> p(3 * n);
    for (size_t i = 0; i < n; ++i) {
        double x = g(gen), y = g(gen), z = g(gen);
        const double r = std::sqrt(x * x + y * y + z * z);
        p[3 * i] = radius * x / r;
        p[3 * i + 1] = radius * y / r;
        p[3 * i + 2] = radius * z / r;
    }
    return p;
}

// Runs call() with the 1st, 2nd, ... allocation failing: every failing run
// must return oom_code, and the final run (no failure) must return 0. At
// least one allocation must have been made. Leaks show up under ASan.
template <class F>
void expect_oom_then_success(F call, int32_t oom_code) {
    const size_t failures = qvn_test::for_each_allocation_failure([&](size_t step) {
        const int32_t rc = call();
        if (qvn_test::allocation_failed()) {
            EXPECT_EQ(rc, oom_code) << "allocation " << step << " failed";
        } else {
            EXPECT_EQ(rc, 0) << "after " << step - 1 << " failing runs";
        }
        return rc == 0;
    });
    EXPECT_GT(failures, 0u);
}

}  // namespace metrics_test

#endif
