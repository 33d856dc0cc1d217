// Retrieval path: the top-k scan alone and the whole qvn_search_ptr call
// (parameters, scan, document) over corpora of doubles. Bytes processed are
// the corpus bytes one scan reads.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quorvane.h"
#include "search/search.h"

namespace {

struct Data {
    size_t n_rows, dim;
    std::vector<double> corpus, query;
    Data(size_t n, size_t d) : n_rows(n), dim(d), corpus(n * d), query(d) {
        std::mt19937_64 gen(12345);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (double &x : corpus) x = u(gen);
        for (double &x : query) x = u(gen);
    }
};

// Built once per shape and shared by both benchmarks.
const Data &data_for(int64_t n_rows, int64_t dim) {
    static const Data small(100000, 128);
    static const Data wide(20000, 1536);
    return n_rows == 100000 && dim == 128 ? small : wide;
}

void BM_TopKByDistance(benchmark::State &state) {
    const Data &d = data_for(state.range(0), state.range(1));
    const int32_t k = 10;
    std::vector<int32_t> idx(k);
    std::vector<double> dist(k);
    for (auto _ : state) {
        topk_by_distance(d.corpus.data(), d.n_rows, static_cast<int32_t>(d.dim), d.query.data(),
                         k, idx.data(), dist.data());
        benchmark::DoNotOptimize(idx.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(d.corpus.size() * 8));
}

// The distance scan alone, per ISA, over the whole corpus in blocks.
template <bool Avx2>
void BM_RowScan(benchmark::State &state) {
#ifdef QVN_SEARCH_HAS_AVX2_SCAN
    if (Avx2 && !__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
#else
    if (Avx2) {
        state.SkipWithError("no AVX2 scan on this architecture");
        return;
    }
#endif
    const Data &d = data_for(state.range(0), state.range(1));
    const int32_t dim = static_cast<int32_t>(d.dim);
    double query_sq = 0.0;
    for (double v : d.query) query_sq += v * v;
    std::vector<double> out(256);
    for (auto _ : state) {
        for (size_t base = 0; base < d.n_rows; base += 256) {
            const size_t m = d.n_rows - base < 256 ? d.n_rows - base : 256;
#ifdef QVN_SEARCH_HAS_AVX2_SCAN
            (Avx2 ? scan_distances_avx2 : scan_distances_scalar)(
                d.corpus.data() + base * d.dim, m, dim, d.query.data(), query_sq, out.data());
#else
            scan_distances_scalar(d.corpus.data() + base * d.dim, m, dim, d.query.data(),
                                  query_sq, out.data());
#endif
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(d.corpus.size() * 8));
}

void BM_SearchPtr(benchmark::State &state) {
    const Data &d = data_for(state.range(0), state.range(1));
    qvn_context *ctx = qvn_new_minimal();
    const char *json = nullptr;
    size_t len = 0;
    for (auto _ : state) {
        const int32_t rc = qvn_search_ptr(ctx, d.corpus.data(), d.n_rows, d.dim, d.query.data(),
                                          d.dim, 10, nullptr, 0, &json, &len);
        if (rc != 0) state.SkipWithError("search failed");
        benchmark::DoNotOptimize(json);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(d.corpus.size() * 8));
    qvn_free(ctx);
}

}  // namespace

BENCHMARK(BM_TopKByDistance)->Args({100000, 128})->Args({20000, 1536})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RowScan, false)->Args({100000, 128})->Args({20000, 1536})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RowScan, true)->Args({100000, 128})->Args({20000, 1536})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SearchPtr)->Args({100000, 128})->Args({20000, 1536})->Unit(benchmark::kMillisecond);
