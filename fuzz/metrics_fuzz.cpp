// Fuzz target for the point-cloud metrics: the input bytes are read as
// doubles (any bit pattern, NaN and infinities included), the first byte
// picks the dimension. No call may fault, whatever the values.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quorvane.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t d = 1 + data[0] % 4;
    std::vector<double> v((size - 1) / 8);
    if (!v.empty()) std::memcpy(v.data(), data + 1, v.size() * 8);
    const size_t n = v.size() / d;
    double a = 0, b = 0, c = 0;
    qvn_dimension_boxcount(v.data(), n, d, &a);
    qvn_morphological_complexity(v.data(), n, d, &a, &b);
    qvn_dimension_dfa(v.data(), v.size(), &a);
    qvn_dimension_drift(v.data(), v.size(), v.size() / 3, &a, &b, &c);
    if (v.size() >= 12) {
        std::vector<uint64_t> tris;
        for (size_t i = 0; i + 2 < v.size() / 3; ++i) tris.insert(tris.end(), {i, i + 1, i + 2});
        qvn_cortical_folding(v.data(), v.size() / 3, tris.data(), tris.size() / 3, &a, &b, &c);
        std::vector<uint64_t> edges;
        for (size_t i = 0; i + 1 < n; ++i) edges.insert(edges.end(), {i, i + 1});
        qvn_nerve_plexus_metric(v.data(), n, d, edges.data(), edges.size() / 2, &a, &b, &c);
    }
    return 0;
}
