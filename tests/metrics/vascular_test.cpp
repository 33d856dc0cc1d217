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

// Two tight clusters of four nodes, at x = 0 and x = 1 (box counting keeps
// nine scales; the far cluster varies in y and z only, since x = 1 is on a
// box boundary at every scale).
std::vector<double> vessel_nodes() {
    return {0, 0, 0, 0.001, 0, 0, 0, 0.001, 0, 0, 0, 0.001,
            1, 0, 0, 1, 0.001, 0, 1, 0, 0.001, 1, 0.001, 0.001};
}

struct Outputs {
    double tortuosity = kUnwritten, branches = kUnwritten, dimension = kUnwritten;
    bool untouched() const {
        return tortuosity == kUnwritten && branches == kUnwritten && dimension == kUnwritten;
    }
};

int32_t run(const std::vector<double> &nodes, const std::vector<uint64_t> &edges,
            const std::vector<double> &lengths, Outputs &o) {
    return qvn_vascular_network(nodes.data(), nodes.size() / 3, edges.data(), lengths.data(),
                                lengths.size(), &o.tortuosity, &o.branches, &o.dimension);
}

}  // namespace

TEST(Vascular, HandWorkedNetwork) {
    const auto nodes = vessel_nodes();
    // 0-1: chord 0.001, length 0.002 (tortuosity 2); 0-4: chord 1, length
    // 1.5 (1.5); 0-2: chord 0.001, length 0.0005, counted as the chord (1).
    // Node 0 has degree 3: one branch point over T = 0.002 + 1.5 + 0.001.
    const std::vector<uint64_t> edges = {0, 1, 0, 4, 2, 0};
    const std::vector<double> lengths = {0.002, 1.5, 0.0005};
    Outputs o;
    ASSERT_EQ(run(nodes, edges, lengths, o), 0);
    EXPECT_NEAR(o.tortuosity, (2.0 + 1.5 + 1.0) / 3.0, 1e-12);
    EXPECT_NEAR(o.branches, 1.0 / 1.503, 1e-12);
    double dim = 0.0;
    ASSERT_EQ(qvni_boxcount_dimension(nodes.data(), 8, 3, &dim), 0);
    EXPECT_EQ(bits(o.dimension), bits(dim));
}

TEST(Vascular, StraightSegmentsAndRepeatedEdges) {
    const auto nodes = vessel_nodes();
    // Every segment as long as its chord: tortuosity exactly 1. Edge 4-5 is
    // listed twice and counts twice; node 4 then has degree 3, node 0 has 2.
    const std::vector<uint64_t> edges = {0, 4, 4, 5, 5, 4, 0, 3};
    std::vector<double> lengths;
    for (size_t e = 0; e < edges.size() / 2; ++e) {
        const double *a = &nodes[3 * edges[2 * e]], *b = &nodes[3 * edges[2 * e + 1]];
        const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
        lengths.push_back(std::sqrt(dx * dx + dy * dy + dz * dz));
    }
    Outputs o;
    ASSERT_EQ(run(nodes, edges, lengths, o), 0);
    EXPECT_EQ(o.tortuosity, 1.0);
    const double total = lengths[0] + lengths[1] + lengths[2] + lengths[3];
    EXPECT_EQ(bits(o.branches), bits(1.0 / total));
}

TEST(Vascular, FailuresWriteNothing) {
    const auto nodes = vessel_nodes();
    auto moved = nodes;  // node 1 on top of node 0
    moved[3] = 0.0;
    const std::vector<double> seven(nodes.begin(), nodes.begin() + 21);
    struct Case {
        const char *what;
        std::vector<double> nodes;
        std::vector<uint64_t> edges;
        std::vector<double> lengths;
    };
    const Case cases[] = {
        {"no edges", nodes, {}, {}},
        {"one node", {0, 0, 0}, {0, 0}, {1.0}},
        {"index equal to n", nodes, {0, 4, 0, 8}, {1, 1}},
        {"edge from a node to itself after a good one", nodes, {0, 4, 3, 3}, {1, 1}},
        {"joined nodes at one position", moved, {0, 1}, {1.0}},
        {"zero segment length", nodes, {0, 4, 1, 5}, {1.0, 0.0}},
        {"negative segment length", nodes, {0, 4}, {-1.0}},
        {"fewer than eight nodes: box counting fails", seven, {0, 4}, {1.0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Outputs o;
        EXPECT_EQ(qvn_vascular_network(c.nodes.data(), c.nodes.size() / 3, c.edges.data(),
                                       c.lengths.data(), c.lengths.size(), &o.tortuosity,
                                       &o.branches, &o.dimension),
                  -1);
        EXPECT_TRUE(o.untouched());
    }
    const std::vector<uint64_t> e = {0, 4};
    const double l = 1.0;
    double x = 0;
    EXPECT_EQ(qvn_vascular_network(nullptr, 8, e.data(), &l, 1, &x, &x, &x), -1);
    EXPECT_EQ(qvn_vascular_network(nodes.data(), 8, nullptr, &l, 1, &x, &x, &x), -1);
    EXPECT_EQ(qvn_vascular_network(nodes.data(), 8, e.data(), nullptr, 1, &x, &x, &x), -1);
    EXPECT_EQ(qvn_vascular_network(nodes.data(), 8, e.data(), &l, 1, nullptr, &x, &x), -1);
    EXPECT_EQ(qvn_vascular_network(nodes.data(), 8, e.data(), &l, 1, &x, nullptr, &x), -1);
    EXPECT_EQ(qvn_vascular_network(nodes.data(), 8, e.data(), &l, 1, &x, &x, nullptr), -1);
}

TEST(Vascular, AllocationFailureIsOutOfMemory) {
    const auto nodes = vessel_nodes();
    const std::vector<uint64_t> edges = {0, 4, 1, 5};
    const std::vector<double> lengths = {2.0, 3.0};
    Outputs o;
    metrics_test::expect_oom_then_success([&] { return run(nodes, edges, lengths, o); }, -4);
}
