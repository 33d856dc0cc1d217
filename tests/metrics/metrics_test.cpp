// Hand-worked values and references, then each metric call spoiled one way at a time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "metrics/metrics.h"
#include "quorvane.h"
#include "support/alloc_fail.h"
#include "support/test_support.h"

using qvn_test::random_doubles;
using Reals = std::vector<double>;

namespace {

constexpr double kU = -12345.625;  // an output still holding it was not written

// Four points at the origin and four at (1, 0, ..., 0), or at (1, ..., 1).
Reals two_clusters(size_t d, bool all_axes = false) {
    Reals p(8 * d, 0.0);
    for (size_t i = 4 * d; i < 8 * d; ++i) p[i] = (i % d == 0 || all_axes) ? 1.0 : 0.0;
    return p;
}

// First-order DFA over the given sizes, the residual sum in closed form.
double reference_alpha(const Reals &x, const std::vector<size_t> &sizes) {
    const size_t n = x.size();
    double mean = 0, run = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (double v : x) mean += v / double(n);
    Reals y;
    for (double v : x) y.push_back(run += v - mean);
    for (size_t s : sizes) {
        double acc = 0;
        for (size_t k = 0; k < n / s; ++k) {
            double st = 0, stt = 0, s_y = 0, sty = 0, syy = 0;
            for (size_t t = 0; t < s; ++t) {
                const double v = y[k * s + t];
                st += double(t), stt += double(t * t), s_y += v, sty += double(t) * v, syy += v * v;
            }
            const double b = (double(s) * sty - s_y * st) / (double(s) * stt - st * st);
            acc += (syy - (s_y - b * st) / double(s) * s_y - b * sty) / double(s);
        }
        const double lx = std::log(double(s)), ly = 0.5 * std::log(acc / double(n / s));
        sx += lx, sy += ly, sxx += lx * lx, sxy += lx * ly;
    }
    const double p = double(sizes.size());
    return (p * sxy - sx * sy) / (p * sxx - sx * sx);
}

// For points in general position: a triple is a facet when every other
// point lies on one side of its plane.
double brute_force_hull_area(const Reals &p) {
    const size_t n = p.size() / 3;
    double area = 0.0;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = i + 1; j < n; ++j)
            for (size_t k = j + 1; k < n; ++k) {
                auto d = [&](size_t a, int c) { return p[3 * a + c] - p[3 * i + c]; };
                const double nx = d(j, 1) * d(k, 2) - d(j, 2) * d(k, 1);
                const double ny = d(j, 2) * d(k, 0) - d(j, 0) * d(k, 2);
                const double nz = d(j, 0) * d(k, 1) - d(j, 1) * d(k, 0);
                size_t side[2] = {0, 0};
                for (size_t l = 0; l < n; ++l)
                    side[nx * d(l, 0) + ny * d(l, 1) + nz * d(l, 2) > 0] +=
                        l != i && l != j && l != k;
                if (!side[0] || !side[1]) area += 0.5 * std::sqrt(nx * nx + ny * ny + nz * nz);
            }
    return area;
}

double hull(const Reals &p) {
    double area = kU;
    EXPECT_EQ(qvni_hull3d_surface_area(p.data(), p.size() / 3, &area), 0);
    return area;
}

// The inputs of any metric call (d: dimension, drift's w or folding's t).
struct In { const double *p; size_t n, d; const uint64_t *e; size_t m; const double *l; };
using Out = double *const *;
enum { kDfa = 1, kDrift = 2, kBox = 4, kMorph = 8, kLac = 16, kHull = 32, kFold = 64,
       kVasc = 128, kPlex = 256 };

const Reals x = random_doubles(300, 9), c2 = two_clusters(2, true), c3 = two_clusters(3, true);
const Reals c4 = two_clusters(4, true), plane = two_clusters(3), flat(100, 1.0), same(24, .25);
const Reals k3 = {0, 0, 0, 0, 1, 1, 1, 1, 0.2}, line = {0, 0, 0, 1, 1, 1, 2, 2, 2, 5, 5, 5};
const Reals tiny = {0, 0, 0, 1e-10, 0, 0, 0, 1e-10, 0, 0, 0, 1e-10};
const Reals cube = {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0, 0, 0, 1, 1, 0, 1, 0, 1, 1, 1, 1, 1};
const uint64_t past[] = {0, 4, 0, 8}, loop[] = {0, 4, 3, 3}, joined[] = {0, 4, 0, 1},
               tri[] = {0, 1, 3, 0, 2, 3, 0, 1, 3, 0, 8, 1, 0, 1, 3, 0, 1, 8}, dot[] = {2, 2, 2};
const Reals ball = [] {  // 300 points on a sphere and one far out: every hull array grows
    auto b = random_doubles(903, 8);
    for (size_t i = 0; i < 900; ++i)
        b[i] /= std::hypot(b[i - i % 3], b[i - i % 3 + 1], b[i - i % 3 + 2]);
    b[900] = 100.0, b[901] = b[902] = 0.0;
    return b;
}();
// Vessels between the clusters of plane (chord 1): paths 2, 1.5, 1 (0.5 is
// shorter than the chord), 2, 2; nodes 0 and 4 have degree 3, node 1 degree 2.
const uint64_t vessels[] = {0, 4, 0, 5, 0, 6, 1, 4, 4, 1};
const Reals vessel_len = {2, 1.5, 0.5, 2, 2}, zero_len = {2, 0, 1, 1, 1};
// Fibres between (0, 0) and (2, 1.5): V = 3, diagonals 2.5, one edge of
// length 0; node 0 has degree 3, node 4 degree 2.
const Reals fibre_nodes = {0, 0, 0, 0, 0, 0, 0, 0, 2, 1.5, 2, 1.5, 2, 1.5, 2, 1.5};
const uint64_t fibres[] = {0, 4, 0, 1, 0, 5, 4, 6};

// Each call on a valid input, its outputs (NaN: not checked), how many it
// writes, and its out-of-memory status.
struct Metric { int id; In in; double want[3]; int outs, oom; int32_t (*call)(In, Out); };
const Metric metrics[] = {
    {kDfa, {&x[0], 300, 0, nullptr, 0, nullptr}, {NAN, NAN, NAN}, 1, -4,
     [](In a, Out o) { return qvn_dimension_dfa(a.p, a.n, o[0]); }},
    {kDrift, {&x[0], 300, 100, nullptr, 0, nullptr}, {NAN, NAN, NAN}, 3, -4,
     [](In a, Out o) { return qvn_dimension_drift(a.p, a.n, a.d, o[0], o[1], o[2]); }},
    {kBox, {&c2[0], 8, 2, nullptr, 0, nullptr}, {0, NAN, NAN}, 1, -4,
     [](In a, Out o) { return qvn_dimension_boxcount(a.p, a.n, a.d, o[0]); }},
    {kMorph, {&c3[0], 8, 3, nullptr, 0, nullptr}, {129 * 129 * 129 / 2.0, 0, NAN}, 2, -4,
     [](In a, Out o) { return qvn_morphological_complexity(a.p, a.n, a.d, o[1], o[0]); }},
    {kLac, {&c3[0], 8, 3, nullptr, 0, nullptr}, {129 * 129 * 129 / 2.0, NAN, NAN}, 1, -2,
     [](In a, Out o) { return qvni_lacunarity_fixed_grid(a.p, a.n, a.d, o[0]); }},
    {kHull, {&ball[0], 301, 0, nullptr, 0, nullptr}, {NAN, NAN, NAN}, 1, -2,
     [](In a, Out o) { return qvni_hull3d_surface_area(a.p, a.n, o[0]); }},
    {kFold, {&cube[0], 8, 2, tri, 0, nullptr}, {1, 6, 1 / 6.0}, 3, -4,  // one face, both ways
     [](In a, Out o) { return qvn_cortical_folding(a.p, a.n, a.e, a.d, o[0], o[1], o[2]); }},
    {kVasc, {&plane[0], 8, 0, vessels, 5, &vessel_len[0]}, {8.5 / 5, 2 / 8.5, 0}, 3, -4,
     [](In a, Out o) {
         return qvn_vascular_network(a.p, a.n, a.e, a.l, a.m, o[0], o[1], o[2]); }},
    {kPlex, {&fibre_nodes[0], 8, 2, fibres, 4, nullptr}, {5 / 3.0, 1 / 3.0, 0}, 3, -4,
     [](In a, Out o) {
         return qvn_nerve_plexus_metric(a.p, a.n, a.d, a.e, a.m, o[0], o[1], o[2]); }},
};

}  // namespace

TEST(CellSort, MatchesStdSortWithManyEqualRows) {
    std::mt19937_64 gen(42);
    const int64_t extremes[] = {INT64_MIN, -1, 0, INT64_MAX};
    for (size_t d : {1, 2, 3})
        for (size_t n : {0, 1, 2, 3, 7, 1000})
            for (uint64_t v : {1, 2, 4, 1000}) {  // 1: all rows equal; 4: the signed extremes
                std::vector<int64_t> keys(n * d);
                for (auto &k : keys) k = v == 4 ? extremes[gen() % 4] : int64_t(gen() % v) - 500;
                std::vector<std::vector<int64_t>> want, got;
                for (size_t i = 0; i < n; ++i) want.emplace_back(&keys[i * d], &keys[i * d] + d);
                const size_t lo = n > 2, end = n - (n > 2);  // the first and last rows stay put
                std::sort(want.begin() + lo, want.begin() + end);
                cell_sort(keys.data(), d, int64_t(lo), int64_t(end) - 1);
                for (size_t i = 0; i < n; ++i) got.emplace_back(&keys[i * d], &keys[i * d] + d);
                EXPECT_EQ(got, want) << "d=" << d << " n=" << n << " v=" << v;
            }
}

// Two clusters: N = 2 at all twelve scales; eps* = 2^-7 gives 129 boxes on
// axis 0, two of them holding four points. Lattice (centred on the origin,
// so keys must be floored): N = (2^k + 1)^2 for k = 1..5; eps* = 1/8, 9 x 9.
TEST(MorphologicalComplexity, HandWorkedClouds) {
    Reals lattice(20000);
    for (size_t i = 0; i < 20000; ++i) lattice[i] = (i % 2 ? i / 200 : i / 2 % 100) / 99.0 - 0.5;
    const struct { Reals p; double dim, dim_tol, lac, lac_tol; } cases[] = {
        {two_clusters(2), 0, 1e-12, 64.5, 1e-9}, {lattice, 1.7369, 1e-4, 1.2215, 1e-4}};
    double dim = kU, lac = kU;
    for (const auto &c : cases) {
        ASSERT_EQ(qvn_morphological_complexity(c.p.data(), c.p.size() / 2, 2, &dim, &lac), 0);
        EXPECT_NEAR(dim, c.dim, c.dim_tol) << &c - cases;
        EXPECT_NEAR(lac, c.lac, c.lac_tol) << &c - cases;
    }
    dim = lac = kU;  // 129^4 boxes are over the limit; the dimension is kept
    EXPECT_EQ(qvn_morphological_complexity(&c4[0], 8, 4, &dim, &lac), -1);
    EXPECT_TRUE(std::fabs(dim) < 1e-12 && lac == kU);
}

// A constant axis at y has key y * 2^k at scale k = 1..12: -2^63 is the
// smallest valid key, 2^63 is out of range, and non-finite keys do not exist.
TEST(BoxCount, KeysOutsideSigned64BitAreRejected) {
    Reals p(2000);
    for (double y : {-0x1p51, 0x1p51, -1e30, double(NAN), double(INFINITY), -double(INFINITY)}) {
        for (size_t i = 0; i < 1000; ++i) p[2 * i] = double(i) / 999.0, p[2 * i + 1] = y;
        const int32_t want = y == -0x1p51 ? 0 : -1;
        double dim = kU, lac = kU;
        EXPECT_EQ(qvn_dimension_boxcount(p.data(), 1000, 2, &dim), want) << y;
        EXPECT_EQ(qvni_lacunarity_fixed_grid(p.data(), 1000, 2, &lac), want) << y;
        EXPECT_EQ((dim == kU) + (lac == kU), want ? 2 : 0) << y;
    }
}

// Sizes 4, 5, 6, 8, 9, 11, ... up to floor(n / 4); drift: the last w samples against
// all before them; white noise (uniform here) scales with 1/2, its running sum 3/2.
TEST(Dfa, SegmentSizesDriftAndKnownExponents) {
    auto x = random_doubles(4096, 1);
    double a = kU, b = kU, out[3];
    ASSERT_EQ(qvn_dimension_dfa(x.data(), 100, &a), 0);
    const std::vector<size_t> sizes = {4, 5, 6, 8, 9, 11, 14, 17, 20, 24};
    EXPECT_NEAR(a, reference_alpha(Reals(&x[0], &x[100]), sizes), 1e-9);
    EXPECT_EQ(qvn_dimension_dfa(x.data(), 24, &a), 0);  // sizes 4, 5, 6
    ASSERT_EQ(qvn_dimension_drift(x.data(), 100, 40, out, out + 1, out + 2), 0);
    ASSERT_EQ(qvn_dimension_dfa(x.data() + 60, 40, &a), 0);
    ASSERT_EQ(qvn_dimension_dfa(x.data(), 60, &b), 0);
    EXPECT_TRUE(out[0] == a - b && out[1] == a && out[2] == b);
    ASSERT_EQ(qvn_dimension_dfa(x.data(), x.size(), &a), 0);
    for (size_t i = 1; i < x.size(); ++i) x[i] += x[i - 1];
    ASSERT_EQ(qvn_dimension_dfa(x.data(), x.size(), &b), 0);
    EXPECT_NEAR(a, 0.5, 0.1);
    EXPECT_NEAR(b, 1.5, 0.1);
}

// Points within 1e-9 of point 0 are skipped by the start search. The cube's
// corners come after interior points (the start), then again, with a face
// centre: none of those changes the hull. Random points: as brute force.
TEST(HullArea, HandWorkedSolidsAndRandomPoints) {
    const double tetra = 1.5 + std::sqrt(3.0) / 2.0;
    EXPECT_NEAR(hull({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}), tetra, 1e-15);
    EXPECT_NEAR(hull({0, 0, 0, 1e-10, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}), tetra, 1e-15);
    auto p = random_doubles(3 * 30, 7, 0.01, 0.99);
    for (int r = 0; r < 2; ++r) p.insert(p.end(), cube.begin(), cube.end());
    p.insert(p.end(), {0.5, 0.5, 0.0, 1.0, 0.5, 0.5});
    EXPECT_NEAR(hull(p), 6.0, 1e-12);
    for (size_t n : {4, 5, 8, 13, 25, 40})
        for (uint32_t seed = 1; seed <= 3; ++seed) {
            auto box = random_doubles(3 * n, seed, -2.0, 5.0), sphere = box;
            for (size_t i = 0; i < 3 * n; ++i)  // every point a vertex of the hull
                sphere[i] /= std::hypot(box[i - i % 3], box[i - i % 3 + 1], box[i - i % 3 + 2]);
            for (const Reals &q : {box, sphere})
                EXPECT_NEAR(hull(q), brute_force_hull_area(q), 1e-12 * hull(q))
                    << "n=" << n << " seed=" << seed;
        }
}

TEST(MetricCalls, FailuresReturnMinusOneAndWriteNothing) {
    const struct Row { int ids; const char *what; void (*spoil)(In &); } rows[] = {
        {kDfa, "n = 15", [](In &a) { a.n = 15; }},
        {kDfa, "n = 19", [](In &a) { a.n = 19; }},
        {kDfa, "n = 23: two sizes", [](In &a) { a.n = 23; }},
        {kDfa, "constant: every F(s) = 0", [](In &a) { a.p = &flat[0], a.n = 100; }},
        {kDrift, "w < 16", [](In &a) { a.d = 15; }},
        {kDrift, "w + 16 > n", [](In &a) { a.d = 285; }},
        {kDrift, "w + 16 wraps", [](In &a) { a.d = SIZE_MAX - 4; }},
        {kDrift, "n < 16", [](In &a) { a.n = 10, a.d = 16; }},
        {kDrift, "recent stretch of 16", [](In &a) { a.n = 100, a.d = 16; }},
        {kDrift, "baseline of 20", [](In &a) { a.n = 60, a.d = 40; }},
        {kBox | kMorph | kLac, "7 points", [](In &a) { a.n = 7; }},
        {kBox | kMorph | kLac, "d = 0", [](In &a) { a.d = 0; }},
        {kBox | kMorph | kLac, "all points equal", [](In &a) { a.p = &same[0]; }},
        {kBox | kMorph | kLac, "3N = n from k = 3", [](In &a) { a.p = &k3[0], a.n = 9, a.d = 1; }},
        {kLac, "grid of 129^4 boxes", [](In &a) { a.p = &c4[0], a.d = 4; }},
        {kHull | kFold, "3 points", [](In &a) { a.n = 3; }},
        {kHull, "collinear", [](In &a) { a.p = &line[0], a.n = 4; }},
        {kHull, "all points equal", [](In &a) { a.p = &same[0], a.n = 8; }},
        {kHull, "within 1e-9", [](In &a) { a.p = &tiny[0], a.n = 4; }},
        {kHull | kFold, "coplanar", [](In &a) { a.p = &cube[0], a.n = 4, a.e = tri, a.d = 1; }},
        {kFold, "t = 0", [](In &a) { a.d = 0; }},
        {kFold, "area 0", [](In &a) { a.e = dot, a.d = 1; }},
        {kFold, "index n", [](In &a) { a.e = tri + 6; }},
        {kFold, "third index n", [](In &a) { a.e = tri + 12; }},
        {kVasc | kPlex, "m = 0", [](In &a) { a.m = 0; }},
        {kVasc | kPlex, "n = 1", [](In &a) { a.n = 1; }},
        {kVasc | kPlex, "index n", [](In &a) { a.e = past, a.m = 2; }},
        {kVasc | kPlex, "self-loop", [](In &a) { a.e = loop, a.m = 2; }},
        {kVasc | kPlex, "7 nodes: no box counting", [](In &a) { a.n = 7; }},
        {kVasc, "joined nodes at one place", [](In &a) { a.e = joined, a.m = 2; }},
        {kVasc, "zero segment length", [](In &a) { a.l = &zero_len[0]; }},
        {kPlex, "d = 0", [](In &a) { a.d = 0; }},
        {kPlex, "zero extent", [](In &a) { a.p = &plane[0], a.d = 3; }},
    };
    for (const Row &row : rows)
        for (const Metric &metric : metrics) {
            if (!(row.ids & metric.id)) continue;
            double o[3] = {kU, kU, kU}, *const out[3] = {o, o + 1, o + 2};
            In in = metric.in;
            row.spoil(in);
            EXPECT_EQ(metric.call(in, out), -1) << metric.id << ": " << row.what;
            EXPECT_TRUE(o[0] == kU && o[1] == kU && o[2] == kU) << metric.id << ": " << row.what;
        }
}

// On out of memory morph may keep its dimension (o[1]), never its lacunarity.
TEST(MetricCalls, HandWorkedValuesAllocationFailuresAndNullPointers) {
    for (const Metric &metric : metrics) {
        SCOPED_TRACE(metric.id);
        double got[3];
        const size_t runs = qvn_test::for_each_allocation_failure([&](size_t step) {
            double o[3] = {kU, kU, kU}, *const out[3] = {o, o + 1, o + 2};
            const int32_t rc = metric.call(metric.in, out);
            if (qvn_test::allocation_failed()) { EXPECT_EQ(rc, metric.oom) << "at " << step; }
            const bool kept = o[0] == kU && (metric.id == kMorph || (o[1] == kU && o[2] == kU));
            EXPECT_TRUE(rc == 0 || kept) << "at " << step;
            std::copy(o, o + 3, got);
            return rc == 0;
        });
        EXPECT_TRUE(runs > 0 && runs != SIZE_MAX);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(std::isnan(metric.want[i]) || std::fabs(got[i] - metric.want[i]) <=
                        1e-9 * std::fabs(metric.want[i]) + 1e-12) << i << ": " << got[i];
        for (int i = 0; i < 3 + metric.outs; ++i) {  // null: p, e, l, then each output
            double o[3] = {kU, kU, kU}, *out[3] = {o, o + 1, o + 2};
            In in = metric.in;
            if ((i == 1 && !in.e) || (i == 2 && !in.l)) continue;
            in.p = i == 0 ? nullptr : in.p, in.e = i == 1 ? nullptr : in.e;
            in.l = i == 2 ? nullptr : in.l;
            if (i > 2) out[i - 3] = nullptr;
            EXPECT_EQ(metric.call(in, out), -1) << "null pointer " << i;
            EXPECT_TRUE(o[0] == kU && o[1] == kU && o[2] == kU) << "null pointer " << i;
        }
    }
}
