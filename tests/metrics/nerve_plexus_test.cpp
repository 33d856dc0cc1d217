#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "metrics/metrics.h"
#include "metrics_test_util.h"
#include "quorvane.h"
#include "support/test_support.h"

using metrics_test::kUnwritten;
using qvn_test::bits;

namespace {

// Nodes 0-3 at (0, 0) and 4-7 at (s, s): the bounding box is s x s and box
// counting sees two boxes at every scale.
std::vector<double> square_nodes(double s) {
    std::vector<double> p(16, 0.0);
    for (size_t i = 4; i < 8; ++i) p[2 * i] = p[2 * i + 1] = s;
    return p;
}

struct Outputs {
    double length = kUnwritten, branches = kUnwritten, dimension = kUnwritten;
    bool untouched() const {
        return length == kUnwritten && branches == kUnwritten && dimension == kUnwritten;
    }
};

int32_t run(const std::vector<double> &nodes, size_t d, const std::vector<uint64_t> &edges,
            Outputs &o) {
    return qvn_nerve_plexus_metric(nodes.data(), nodes.size() / d, d, edges.data(),
                                   edges.size() / 2, &o.length, &o.branches, &o.dimension);
}

}  // namespace

TEST(NervePlexus, DensitiesOverTheBoundingBox) {
    // Node 0: three diagonals of length s*sqrt(2) and one edge to its twin
    // at the same position (length 0); node 0 is one branch point.
    const std::vector<uint64_t> edges = {0, 4, 0, 1, 0, 5, 6, 0};
    for (double s : {1.0, 2.0, 0.5}) {
        SCOPED_TRACE(s);
        Outputs o;
        ASSERT_EQ(run(square_nodes(s), 2, edges, o), 0);
        const double diag = std::sqrt(2.0) * s;
        EXPECT_NEAR(o.length, 3.0 * diag / (s * s), 1e-12);
        EXPECT_NEAR(o.branches, 1.0 / (s * s), 1e-12);
        EXPECT_NEAR(o.dimension, 0.0, 1e-12);
    }
}

TEST(NervePlexus, BranchPointsAndDimensionInThreeDimensions) {
    std::vector<double> nodes = qvn_test::random_doubles(3 * 5000, 4, 0.0, 1.0);
    // Node 0 gets five edges, node 1 three, node 2 two: two branch points.
    const std::vector<uint64_t> edges = {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 1, 2, 1, 6};
    Outputs o;
    ASSERT_EQ(run(nodes, 3, edges, o), 0);
    double lo[3] = {1, 1, 1}, hi[3] = {0, 0, 0};
    for (size_t i = 0; i < 5000; ++i)
        for (size_t j = 0; j < 3; ++j) {
            lo[j] = std::min(lo[j], nodes[3 * i + j]);
            hi[j] = std::max(hi[j], nodes[3 * i + j]);
        }
    const double volume = (hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]);
    double total = 0.0;
    for (size_t e = 0; e < edges.size(); e += 2) {
        double sq = 0.0;
        for (size_t j = 0; j < 3; ++j) {
            const double diff = nodes[3 * edges[e] + j] - nodes[3 * edges[e + 1] + j];
            sq += diff * diff;
        }
        total += std::sqrt(sq);
    }
    EXPECT_NEAR(o.length, total / volume, 1e-12 * o.length);
    EXPECT_NEAR(o.branches, 2.0 / volume, 1e-12 * o.branches);
    double dim = 0.0;
    ASSERT_EQ(qvni_boxcount_dimension(nodes.data(), 5000, 3, &dim), 0);
    EXPECT_EQ(bits(o.dimension), bits(dim));
}

TEST(NervePlexus, FailuresWriteNothing) {
    const auto sq = square_nodes(1.0);
    std::vector<double> planar;  // 3-D nodes with z = 0 throughout
    for (size_t i = 0; i < 8; ++i) planar.insert(planar.end(), {double(i), double(i % 3), 0});
    const std::vector<double> seven(sq.begin(), sq.begin() + 14);
    struct Case {
        const char *what;
        std::vector<double> nodes;
        size_t d;
        std::vector<uint64_t> edges;
    };
    const Case cases[] = {
        {"d = 0", sq, 0, {0, 4}},
        {"no edges", sq, 2, {}},
        {"one node", {0, 0}, 2, {0, 0}},
        {"a zero extent: nodes in one plane", planar, 3, {0, 1}},
        {"index equal to n", sq, 2, {0, 4, 8, 1}},
        {"edge from a node to itself", sq, 2, {0, 4, 2, 2}},
        {"fewer than eight nodes: box counting fails", seven, 2, {0, 4}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Outputs o;
        const size_t n = c.d ? c.nodes.size() / c.d : 8;
        EXPECT_EQ(qvn_nerve_plexus_metric(c.nodes.data(), n, c.d, c.edges.data(),
                                          c.edges.size() / 2, &o.length, &o.branches,
                                          &o.dimension),
                  -1);
        EXPECT_TRUE(o.untouched());
    }
    const std::vector<uint64_t> e = {0, 4};
    double x = 0;
    EXPECT_EQ(qvn_nerve_plexus_metric(nullptr, 8, 2, e.data(), 1, &x, &x, &x), -1);
    EXPECT_EQ(qvn_nerve_plexus_metric(sq.data(), 8, 2, nullptr, 1, &x, &x, &x), -1);
    EXPECT_EQ(qvn_nerve_plexus_metric(sq.data(), 8, 2, e.data(), 1, nullptr, &x, &x), -1);
    EXPECT_EQ(qvn_nerve_plexus_metric(sq.data(), 8, 2, e.data(), 1, &x, nullptr, &x), -1);
    EXPECT_EQ(qvn_nerve_plexus_metric(sq.data(), 8, 2, e.data(), 1, &x, &x, nullptr), -1);
}

TEST(NervePlexus, AllocationFailureIsOutOfMemory) {
    const auto nodes = square_nodes(1.0);
    const std::vector<uint64_t> edges = {0, 4, 1, 5};
    Outputs o;
    metrics_test::expect_oom_then_success([&] { return run(nodes, 2, edges, o); }, -4);
}
