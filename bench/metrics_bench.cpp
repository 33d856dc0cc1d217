// Timings of the metric kernels: box counting and DFA over long inputs, and
// the incremental hull over points on a sphere.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "metrics/metrics.h"

namespace {

std::vector<double> uniform(size_t n, uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> v(n);
    for (auto &x : v) x = u(gen);
    return v;
}

std::vector<double> gaussian(size_t n, uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<double> v(n);
    for (auto &x : v) x = g(gen);
    return v;
}

std::vector<double> sphere(size_t n, uint64_t seed) {
    auto g = gaussian(3 * n, seed);
    for (size_t i = 0; i < n; ++i) {
        double *p = &g[3 * i];
        const double r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        p[0] /= r;
        p[1] /= r;
        p[2] /= r;
    }
    return g;
}

// Points uniform in the unit square (d = 2) or on [0, 1] (d = 1).
void BM_BoxCount(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const size_t d = static_cast<size_t>(state.range(1));
    const auto p = uniform(n * d, 1);
    for (auto _ : state) {
        double dim = 0.0;
        benchmark::DoNotOptimize(qvni_boxcount_dimension(p.data(), n, d, &dim));
        benchmark::DoNotOptimize(dim);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
// The coarse scales put many points in one box: the three-way row sort
// keeps them at one pass per box, so time grows as n log n.
BENCHMARK(BM_BoxCount)
    ->Args({10000, 2})
    ->Args({100000, 2})
    ->Args({1000000, 2})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3);

// Random walk: the running sum of Gaussian noise.
void BM_Dfa(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    auto x = gaussian(n, 2);
    for (size_t i = 1; i < n; ++i) x[i] += x[i - 1];
    for (auto _ : state) {
        double alpha = 0.0;
        benchmark::DoNotOptimize(qvni_dfa_alpha(x.data(), n, &alpha));
        benchmark::DoNotOptimize(alpha);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Dfa)->Arg(1000000)->Unit(benchmark::kMillisecond)->Repetitions(5);

// Sphere of radius 100: the visibility threshold (1e-9 on the unnormalised
// triple product) is absolute, and on a dense unit sphere (some 6,000 points
// and more) sliver faces make the visible set inconsistent and the hull
// degenerates; at radius 100 it stays far below the triangles' scale.
void BM_HullSphere(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    auto p = sphere(n, 3);
    for (auto &x : p) x *= 100.0;
    for (auto _ : state) {
        double area = 0.0;
        benchmark::DoNotOptimize(qvni_hull3d_surface_area(p.data(), n, &area));
        benchmark::DoNotOptimize(area);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(BM_HullSphere)->Arg(2000)->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK(BM_HullSphere)->Arg(20000)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);

}  // namespace
