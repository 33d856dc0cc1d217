#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "support/test_support.h"

using metrics_test::kUnwritten;

namespace {

struct P {
    double x, y, z;
};

P at(const std::vector<double> &p, size_t i) { return {p[3 * i], p[3 * i + 1], p[3 * i + 2]}; }
P minus(P a, P b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
P cross(P a, P b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
double dot(P a, P b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

// Hull area by brute force, for points in general position (no four
// coplanar): a triple is a facet exactly when every other point lies on
// one side of its plane.
double brute_force_hull_area(const std::vector<double> &p) {
    const size_t n = p.size() / 3;
    double area = 0.0;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = i + 1; j < n; ++j)
            for (size_t k = j + 1; k < n; ++k) {
                const P nrm = cross(minus(at(p, j), at(p, i)), minus(at(p, k), at(p, i)));
                size_t above = 0, below = 0;
                for (size_t l = 0; l < n; ++l) {
                    if (l == i || l == j || l == k) continue;
                    const double s = dot(nrm, minus(at(p, l), at(p, i)));
                    (s > 0 ? above : below) += 1;
                }
                if (above == 0 || below == 0) area += 0.5 * std::sqrt(dot(nrm, nrm));
            }
    return area;
}

std::vector<double> cube_corners() {
    std::vector<double> p;
    for (int i = 0; i < 8; ++i) {
        p.push_back(i & 1);
        p.push_back((i >> 1) & 1);
        p.push_back((i >> 2) & 1);
    }
    return p;
}

double hull_area(const std::vector<double> &p) {
    double area = kUnwritten;
    EXPECT_EQ(qvni_hull3d_surface_area(p.data(), p.size() / 3, &area), 0);
    return area;
}

}  // namespace

TEST(HullArea, HandWorkedSolids) {
    const double tetra_area = 1.5 + std::sqrt(3.0) / 2.0;
    const std::vector<double> tetra = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_NEAR(hull_area(tetra), tetra_area, 1e-15);
    // Coincident points are skipped by the start search and never visible.
    const std::vector<double> origins = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_NEAR(hull_area(origins), tetra_area, 1e-15);
    // A point on a face or inside never changes the hull.
    auto tetra_plus = tetra;
    for (double v : {0.25, 0.25, 0.0, 0.1, 0.1, 0.1, 1.0 / 3, 1.0 / 3, 1.0 / 3})
        tetra_plus.push_back(v);
    EXPECT_NEAR(hull_area(tetra_plus), tetra_area, 1e-15);

    EXPECT_NEAR(hull_area(cube_corners()), 6.0, 1e-15);
}

TEST(HullArea, CubeKeepsItsAreaWithInteriorAndRepeatedPoints) {
    const auto corners = cube_corners();
    std::mt19937_64 gen(1);
    for (int trial = 0; trial < 20; ++trial) {
        SCOPED_TRACE(trial);
        std::vector<double> p = corners;
        const auto inside = qvn_test::random_doubles(3 * 30, 100 + trial, 0.01, 0.99);
        p.insert(p.end(), inside.begin(), inside.end());
        for (int r = 0; r < 10; ++r) {  // repeated corners and face centres
            const size_t c = gen() % 8;
            p.insert(p.end(), corners.begin() + 3 * c, corners.begin() + 3 * c + 3);
        }
        for (double v : {0.5, 0.5, 0.0, 1.0, 0.5, 0.5}) p.push_back(v);
        // Shuffle whole points, so the start and the insertion order vary.
        std::vector<size_t> order(p.size() / 3);
        for (size_t i = 0; i < order.size(); ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), gen);
        std::vector<double> q;
        for (size_t i : order) q.insert(q.end(), p.begin() + 3 * i, p.begin() + 3 * i + 3);
        EXPECT_NEAR(hull_area(q), 6.0, 1e-12);
    }
}

TEST(HullArea, AgreesWithBruteForceOnRandomPoints) {
    for (size_t n : {4, 5, 8, 13, 25, 40}) {
        for (uint32_t seed = 1; seed <= 5; ++seed) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " seed=" << seed);
            const auto sphere = metrics_test::sphere_points(n, seed, 3.0);
            EXPECT_NEAR(hull_area(sphere), brute_force_hull_area(sphere),
                        1e-12 * brute_force_hull_area(sphere));
            const auto box = qvn_test::random_doubles(3 * n, seed, -2.0, 5.0);
            EXPECT_NEAR(hull_area(box), brute_force_hull_area(box),
                        1e-12 * brute_force_hull_area(box));
        }
    }
}

TEST(HullArea, SphereApproachesFourPi) {
    const auto p = metrics_test::sphere_points(2000, 99);
    const double area = hull_area(p);
    EXPECT_LT(area, 4.0 * M_PI);
    EXPECT_GT(area, 12.4);
}

TEST(HullArea, DegenerateInputsWriteNothing) {
    std::vector<double> flat;
    for (int i = 0; i < 20; ++i) {
        flat.push_back(std::cos(i));
        flat.push_back(std::sin(3 * i));
        flat.push_back(0.0);
    }
    const std::vector<double> line = {0, 0, 0, 1, 1, 1, 2, 2, 2, -5, -5, -5};
    const std::vector<double> same(3 * 6, 0.5);
    const std::vector<double> nan_points(3 * 6, std::nan(""));
    // Within 1e-9 of point 0 on every axis: squared distance <= 1e-18.
    const std::vector<double> tiny = {0, 0, 0, 1e-10, 0, 0, 0, 1e-10, 0, 0, 0, 1e-10};
    struct Case {
        const char *what;
        const double *p;
        size_t n;
    };
    const Case cases[] = {
        {"three points", flat.data(), 3},
        {"twenty coplanar points", flat.data(), 20},
        {"four collinear points", line.data(), 4},
        {"coincident points", same.data(), 6},
        {"all NaN", nan_points.data(), 6},
        {"points closer than 1e-9", tiny.data(), 4},
        {"null points", nullptr, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        double area = kUnwritten;
        EXPECT_EQ(qvni_hull3d_surface_area(c.p, c.n, &area), -1);
        EXPECT_EQ(area, kUnwritten);
    }
    EXPECT_EQ(qvni_hull3d_surface_area(line.data(), 4, nullptr), -1);
}

// A far point that sees about half of a 300-point hull grows the face,
// visible and edge arrays past their first capacities.
TEST(HullArea, AllocationFailureAtEveryGrowthIsReported) {
    auto p = metrics_test::sphere_points(300, 5);
    for (double v : {100.0, 0.0, 0.0}) p.push_back(v);
    const double clean = hull_area(p);
    double area = kUnwritten;
    metrics_test::expect_oom_then_success(
        [&] {
            const double before = area;
            const int32_t rc = qvni_hull3d_surface_area(p.data(), p.size() / 3, &area);
            if (rc != 0) {
                EXPECT_EQ(qvn_test::bits(area), qvn_test::bits(before));
            }
            return rc;
        },
        -2);
    EXPECT_EQ(area, clean);
}
