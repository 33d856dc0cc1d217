// Surface area of the convex hull of points in three dimensions, by
// incremental construction: a starting tetrahedron, then each further point
// in index order removes the faces it sees and fans new faces from itself to
// the horizon.
//
// Numeric contract: orientation of q against face (a, b, c) is
// ((b - a) x (c - a)) . (q - a), cross product components as
// (uy*vz - uz*vy, uz*vx - ux*vz, ux*vy - uy*vx), dot product summed x, y, z.
// Thresholds are absolute: 1e-18 on squared lengths and squared cross
// norms, 1e-12 on the starting triple product, 1e-9 for visibility (a point
// on a face or inside is never visible; NaN is never visible). The area is
// the sum of 0.5 * |(b - a) x (c - a)| over the final face list in list
// order. Faces surviving a point keep their order; new faces are appended in
// horizon-edge order.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/status.h"
#include "metrics/metrics.h"

namespace {

struct face {
    uint64_t a, b, c;
};

struct vec3 {
    double x, y, z;
};

inline vec3 at(const double *p, uint64_t i) noexcept {
    return {p[3 * i], p[3 * i + 1], p[3 * i + 2]};
}
inline vec3 sub(vec3 u, vec3 v) noexcept { return {u.x - v.x, u.y - v.y, u.z - v.z}; }
inline vec3 cross(vec3 u, vec3 v) noexcept {
    return {u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
}
inline double dot(vec3 u, vec3 v) noexcept { return u.x * v.x + u.y * v.y + u.z * v.z; }

inline double orientation(const double *p, const face &f, uint64_t q) noexcept {
    const vec3 a = at(p, f.a);
    return dot(cross(sub(at(p, f.b), a), sub(at(p, f.c), a)), sub(at(p, q), a));
}

// The four growable arrays of one construction; all freed on destruction.
struct hull_arrays {
    face *faces = nullptr;
    size_t n_faces = 0, faces_cap = 0;
    face *visible = nullptr;
    size_t n_visible = 0, visible_cap = 0;
    uint64_t *edge_from = nullptr, *edge_to = nullptr;
    size_t n_edges = 0, edges_cap = 0;

    ~hull_arrays() {
        std::free(faces);
        std::free(visible);
        std::free(edge_from);
        std::free(edge_to);
    }
};

// Doubles a face array when it is full. False when the reallocation fails
// (the old block stays owned by the caller).
bool reserve_face(face *&arr, size_t count, size_t &cap) noexcept {
    if (count < cap) return true;
    if (cap > SIZE_MAX / 2 / sizeof(face)) return false;
    void *grown = std::realloc(arr, 2 * cap * sizeof(face));
    if (!grown) return false;
    arr = static_cast<face *>(grown);
    cap *= 2;
    return true;
}

// Doubles both edge arrays together when three more edges might not fit.
bool reserve_edges(hull_arrays &h) noexcept {
    if (h.n_edges + 3 <= h.edges_cap) return true;
    if (h.edges_cap > SIZE_MAX / 2 / sizeof(uint64_t)) return false;
    const size_t cap = 2 * h.edges_cap;
    void *from = std::realloc(h.edge_from, cap * sizeof(uint64_t));
    if (!from) return false;
    h.edge_from = static_cast<uint64_t *>(from);
    void *to = std::realloc(h.edge_to, cap * sizeof(uint64_t));
    if (!to) return false;
    h.edge_to = static_cast<uint64_t *>(to);
    h.edges_cap = cap;
    return true;
}

}  // namespace

int32_t qvni_hull3d_surface_area(const double *points, size_t n, double *area) noexcept {
    if (n < 4 || !points || !area) return qvn::kKernelInvalid;

    const vec3 p0 = at(points, 0);
    uint64_t i1 = 0, i2 = 0, i3 = 0;
    for (i1 = 1; i1 < n; ++i1) {
        const vec3 e = sub(at(points, i1), p0);
        if (dot(e, e) > 1e-18) break;
    }
    if (i1 == n) return qvn::kKernelInvalid;
    const vec3 e1 = sub(at(points, i1), p0);
    for (i2 = 1; i2 < n; ++i2) {
        if (i2 == i1) continue;
        const vec3 c = cross(e1, sub(at(points, i2), p0));
        if (dot(c, c) > 1e-18) break;
    }
    if (i2 == n) return qvn::kKernelInvalid;
    const vec3 normal = cross(e1, sub(at(points, i2), p0));
    for (i3 = 1; i3 < n; ++i3) {
        if (i3 == i1 || i3 == i2) continue;
        if (std::fabs(dot(sub(at(points, i3), p0), normal)) > 1e-12) break;
    }
    if (i3 == n) return qvn::kKernelInvalid;

    hull_arrays h;
    h.faces = static_cast<face *>(std::malloc(64 * sizeof(face)));
    if (!h.faces) return qvn::kKernelNoMem;
    h.faces_cap = 64;
    const face start[4] = {{0, i1, i2}, {0, i1, i3}, {0, i2, i3}, {i1, i2, i3}};
    const uint64_t opposite[4] = {i3, i2, i1, 0};
    for (int f = 0; f < 4; ++f) {
        const face &s = start[f];
        h.faces[h.n_faces++] =
            orientation(points, s, opposite[f]) > 0.0 ? face{s.a, s.c, s.b} : s;
    }

    h.visible = static_cast<face *>(std::malloc(64 * sizeof(face)));
    h.edge_from = static_cast<uint64_t *>(std::malloc(192 * sizeof(uint64_t)));
    h.edge_to = static_cast<uint64_t *>(std::malloc(192 * sizeof(uint64_t)));
    if (!h.visible || !h.edge_from || !h.edge_to) return qvn::kKernelNoMem;
    h.visible_cap = 64;
    h.edges_cap = 192;

    for (uint64_t q = 1; q < n; ++q) {
        if (q == i1 || q == i2 || q == i3) continue;
        // One pass collects the visible faces in list order and compacts the
        // rest in place, which is the same as removing every face equal to a
        // visible one afterwards: equal faces have equal orientation.
        h.n_visible = 0;
        size_t kept = 0;
        for (size_t f = 0; f < h.n_faces; ++f) {
            const face cur = h.faces[f];
            if (orientation(points, cur, q) > 1e-9) {
                if (!reserve_face(h.visible, h.n_visible, h.visible_cap))
                    return qvn::kKernelNoMem;
                h.visible[h.n_visible++] = cur;
            } else {
                h.faces[kept++] = cur;
            }
        }
        if (h.n_visible == 0) continue;
        h.n_faces = kept;

        h.n_edges = 0;
        for (size_t v = 0; v < h.n_visible; ++v) {
            if (!reserve_edges(h)) return qvn::kKernelNoMem;
            const face &f = h.visible[v];
            h.edge_from[h.n_edges] = f.a, h.edge_to[h.n_edges++] = f.b;
            h.edge_from[h.n_edges] = f.b, h.edge_to[h.n_edges++] = f.c;
            h.edge_from[h.n_edges] = f.c, h.edge_to[h.n_edges++] = f.a;
        }
        for (size_t e = 0; e < h.n_edges; ++e) {
            const uint64_t u = h.edge_from[e], v = h.edge_to[e];
            bool inner = false;
            for (size_t o = 0; o < h.n_edges && !inner; ++o)
                inner = h.edge_from[o] == v && h.edge_to[o] == u;
            if (inner) continue;
            if (!reserve_face(h.faces, h.n_faces, h.faces_cap)) return qvn::kKernelNoMem;
            h.faces[h.n_faces++] = face{u, v, q};
        }
    }

    double total = 0.0;
    for (size_t f = 0; f < h.n_faces; ++f) {
        const face &s = h.faces[f];
        const vec3 a = at(points, s.a);
        const vec3 c = cross(sub(at(points, s.b), a), sub(at(points, s.c), a));
        total += 0.5 * std::sqrt(dot(c, c));
    }
    *area = total;
    return 0;
}
