#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"

using metrics_test::kUnwritten;

namespace {

// Corner i of the unit cube is (i & 1, i >> 1 & 1, i >> 2 & 1).
std::vector<double> cube_vertices() {
    std::vector<double> p;
    for (int i = 0; i < 8; ++i)
        for (int axis = 0; axis < 3; ++axis) p.push_back((i >> axis) & 1);
    return p;
}

// Two triangles per face, orientations mixed on purpose.
const std::vector<uint64_t> kCubeTriangles = {
    0, 1, 3, 0, 3, 2,  // z = 0
    4, 5, 7, 4, 7, 6,  // z = 1
    0, 1, 5, 5, 4, 0,  // y = 0
    2, 3, 7, 2, 7, 6,  // y = 1
    0, 2, 6, 0, 6, 4,  // x = 0
    1, 3, 7, 1, 7, 5,  // x = 1
};

struct Outputs {
    double area = kUnwritten, hull = kUnwritten, ratio = kUnwritten;
    bool untouched() const {
        return area == kUnwritten && hull == kUnwritten && ratio == kUnwritten;
    }
};

}  // namespace

TEST(CorticalFolding, CubeSurfaceAndOneFace) {
    const auto v = cube_vertices();
    Outputs o;
    ASSERT_EQ(qvn_cortical_folding(v.data(), 8, kCubeTriangles.data(), 12, &o.area, &o.hull,
                                   &o.ratio),
              0);
    EXPECT_NEAR(o.area, 6.0, 1e-15);
    EXPECT_NEAR(o.hull, 6.0, 1e-15);
    EXPECT_NEAR(o.ratio, 1.0, 1e-15);

    // Only the two triangles of z = 0 listed: the hull still covers all
    // eight vertices.
    ASSERT_EQ(qvn_cortical_folding(v.data(), 8, kCubeTriangles.data(), 2, &o.area, &o.hull,
                                   &o.ratio),
              0);
    EXPECT_NEAR(o.area, 1.0, 1e-15);
    EXPECT_NEAR(o.hull, 6.0, 1e-15);
    EXPECT_NEAR(o.ratio, 1.0 / 6.0, 1e-15);
}

// A folded sheet: a zig-zag strip has more area than the hull around it.
TEST(CorticalFolding, FoldedSurfaceHasRatioAboveOne) {
    std::vector<double> v;
    std::vector<uint64_t> tri;
    for (int i = 0; i <= 8; ++i) {  // ridge heights alternate 0, 4, 0, ...
        for (double y : {0.0, 1.0}) {
            v.push_back(0.25 * i);
            v.push_back(y);
            v.push_back(4.0 * (i % 2));
        }
    }
    for (uint64_t i = 0; i < 8; ++i) {
        const uint64_t a = 2 * i, b = 2 * i + 1, c = 2 * i + 2, d = 2 * i + 3;
        tri.insert(tri.end(), {a, b, d, a, d, c});
    }
    Outputs o;
    ASSERT_EQ(qvn_cortical_folding(v.data(), v.size() / 3, tri.data(), tri.size() / 3, &o.area,
                                   &o.hull, &o.ratio),
              0);
    // Eight slopes of width 1 and length sqrt(0.25^2 + 4^2). The hull is a
    // prism over the trapezoid (0, 0), (2, 0), (1.75, 4), (0.25, 4) of area
    // 7: two ends, a floor of 2, a top of 1.5 and two slopes.
    const double slope = std::sqrt(16.0625);
    EXPECT_NEAR(o.area, 8.0 * slope, 1e-12);
    EXPECT_NEAR(o.hull, 14.0 + 2.0 + 1.5 + 2.0 * slope, 1e-12);
    EXPECT_EQ(o.ratio, o.area / o.hull);
    EXPECT_GT(o.ratio, 1.0);
}

TEST(CorticalFolding, FailuresWriteNothing) {
    const auto cube = cube_vertices();
    std::vector<double> flat;
    for (int i = 0; i < 6; ++i) flat.insert(flat.end(), {double(i % 3), double(i / 3), 0.0});
    const std::vector<uint64_t> flat_tris = {0, 1, 3, 1, 4, 3};
    const std::vector<uint64_t> repeated = {2, 2, 2, 5, 5, 5};
    const std::vector<uint64_t> past_end = {0, 1, 3, 0, 8, 1};
    const std::vector<uint64_t> past_end_c = {0, 1, 3, 0, 1, 8};
    struct Case {
        const char *what;
        const std::vector<double> *v;
        size_t n;
        const std::vector<uint64_t> *tri;
        size_t t;
    };
    const Case cases[] = {
        {"no triangles", &cube, 8, &kCubeTriangles, 0},
        {"three vertices", &cube, 3, &repeated, 1},
        {"flat mesh: the hull fails", &flat, 6, &flat_tris, 2},
        {"every triangle degenerate", &cube, 8, &repeated, 2},
        {"index equal to n after a good triangle", &cube, 8, &past_end, 2},
        {"third index equal to n", &cube, 8, &past_end_c, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Outputs o;
        EXPECT_EQ(qvn_cortical_folding(c.v->data(), c.n, c.tri->data(), c.t, &o.area, &o.hull,
                                       &o.ratio),
                  -1);
        EXPECT_TRUE(o.untouched());
    }
    const auto &t = kCubeTriangles;
    double x = 0;
    EXPECT_EQ(qvn_cortical_folding(nullptr, 8, t.data(), 12, &x, &x, &x), -1);
    EXPECT_EQ(qvn_cortical_folding(cube.data(), 8, nullptr, 12, &x, &x, &x), -1);
    EXPECT_EQ(qvn_cortical_folding(cube.data(), 8, t.data(), 12, nullptr, &x, &x), -1);
    EXPECT_EQ(qvn_cortical_folding(cube.data(), 8, t.data(), 12, &x, nullptr, &x), -1);
    EXPECT_EQ(qvn_cortical_folding(cube.data(), 8, t.data(), 12, &x, &x, nullptr), -1);
}

TEST(CorticalFolding, AllocationFailureIsOutOfMemory) {
    auto v = metrics_test::sphere_points(300, 8);
    const std::vector<uint64_t> tri = {0, 1, 2};
    Outputs o;
    metrics_test::expect_oom_then_success(
        [&] {
            return qvn_cortical_folding(v.data(), 300, tri.data(), 1, &o.area, &o.hull,
                                        &o.ratio);
        },
        -4);
}
