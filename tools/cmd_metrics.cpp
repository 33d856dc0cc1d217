// Fractal and morphology metrics on the command line: dfa, drift, boxcount,
// morph, hull, folding, vascular and plexus. Inputs are text numbers
// (blanks, commas, semicolons, brackets; '#' comments) or, with --raw, raw
// little-endian float64 values; index files (edges, triangles) hold
// non-negative whole numbers in the same formats. Results are printed one
// per line as "name value" with "%.17g".
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "quorvane.h"

namespace {

// Options shared by the metric commands.
struct args {
    std::vector<std::string> files;
    bool raw = false;
    bool help = false;
    size_t dim = 0;     // --dim, 0 when not given
    size_t window = 0;  // --window, 0 when not given
};

bool parse_size(const char *text, size_t *out) {
    if (!text || !*text || *text == '-' || *text == '+') return false;
    char *end = nullptr;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (*end != '\0' || v == 0) return false;
    *out = static_cast<size_t>(v);
    return true;
}

// Parses argv after the command name. Returns 0 to go on, or an exit status.
int parse_args(const char *cmd, int argc, char **argv, bool want_dim, bool want_window,
               args &a) {
    for (int i = 1; i < argc; ++i) {
        const char *s = argv[i];
        if (!std::strcmp(s, "--help") || !std::strcmp(s, "-h")) {
            a.help = true;
        } else if (!std::strcmp(s, "--raw")) {
            a.raw = true;
        } else if (want_dim && !std::strcmp(s, "--dim")) {
            if (i + 1 >= argc || !parse_size(argv[++i], &a.dim))
                return cli::usage_error(cmd, "--dim needs a positive whole number");
        } else if (want_window && !std::strcmp(s, "--window")) {
            if (i + 1 >= argc || !parse_size(argv[++i], &a.window))
                return cli::usage_error(cmd, "--window needs a positive whole number");
        } else if (s[0] == '-' && s[1] != '\0') {
            return cli::usage_error(cmd, std::string("unknown option '") + s + "'");
        } else {
            a.files.push_back(s);
        }
    }
    return 0;
}

int wrong_files(const char *cmd, size_t want) {
    return cli::usage_error(cmd, "expected " + std::to_string(want) + " input file" +
                                     (want == 1 ? "" : "s"));
}

// The opening every metric command shares: options, --help, the number of
// input files. Returns -1 to go on, else the exit status.
int prologue(const char *cmd, int argc, char **argv, bool want_dim, bool want_window,
             size_t n_files, const char *help, args &a) {
    if (int rc = parse_args(cmd, argc, argv, want_dim, want_window, a)) return rc;
    if (a.help) {
        std::fputs(help, stdout);
        return 0;
    }
    if (a.files.size() != n_files) return wrong_files(cmd, n_files);
    return -1;
}

bool load(const char *cmd, const std::string &path, bool raw, std::vector<double> &out,
          int &status) {
    std::string err;
    if (cli::read_numbers(path, raw, out, err)) return true;
    status = cli::fail(cmd, err);
    return false;
}

// Index files: every value a whole number in [0, 2^64).
bool load_indices(const char *cmd, const std::string &path, bool raw, size_t group,
                  std::vector<uint64_t> &out, int &status) {
    std::vector<double> v;
    if (!load(cmd, path, raw, v, status)) return false;
    if (v.size() % group != 0) {
        status = cli::fail(cmd, "'" + path + "' holds " + std::to_string(v.size()) +
                                    " indices, not a multiple of " + std::to_string(group));
        return false;
    }
    out.resize(v.size());
    for (size_t i = 0; i < v.size(); ++i) {
        if (!(v[i] >= 0.0 && v[i] < 0x1p64 && v[i] == std::floor(v[i]))) {
            status = cli::fail(cmd, "'" + path + "': value " + std::to_string(i) +
                                        " is not a non-negative whole number");
            return false;
        }
        out[i] = static_cast<uint64_t>(v[i]);
    }
    return true;
}

bool split_points(const char *cmd, const std::string &path, size_t count, size_t dim,
                  int &status) {
    if (count % dim == 0) return true;
    status = cli::fail(cmd, "'" + path + "' holds " + std::to_string(count) +
                                " numbers, not a multiple of the dimension " +
                                std::to_string(dim));
    return false;
}

int metric_failed(const char *cmd, int32_t status, const char *why) {
    char buf[512];
    std::snprintf(buf, sizeof buf, "%s (status %d: %s)", why, static_cast<int>(status),
                  cli::status_text(status));
    return cli::fail(cmd, buf);
}

void print(const char *name, double v) { std::printf("%s %.17g\n", name, v); }

int cmd_dfa(int argc, char **argv) {
    const char *cmd = "dfa";
    args a;
    const int pre = prologue(cmd, argc, argv, false, false, 1,
            "usage: quorvane dfa FILE [--raw]\n\n"
            "Scaling exponent alpha of detrended fluctuation analysis (first order)\n"
            "of the series in FILE ('-' for standard input). Needs at least 24\n"
            "samples that are not all equal. Prints: alpha <value>\n", a);
    if (pre >= 0) return pre;
    std::vector<double> x;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, x, status)) return status;
    double alpha = 0.0;
    const int32_t rc = qvn_dimension_dfa(x.data(), x.size(), &alpha);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no exponent: the series needs at least 24 samples and must not "
                             "be constant");
    print("alpha", alpha);
    return 0;
}

int cmd_drift(int argc, char **argv) {
    const char *cmd = "drift";
    args a;
    const int pre = prologue(cmd, argc, argv, false, true, 1,
            "usage: quorvane drift FILE --window W [--raw]\n\n"
            "DFA exponent of the last W samples (recent) against that of all samples\n"
            "before them (baseline). Both stretches need at least 24 samples.\n"
            "Prints: drift, alpha_recent and alpha_baseline.\n", a);
    if (pre >= 0) return pre;
    if (a.window == 0) return cli::usage_error(cmd, "--window W is required");
    std::vector<double> x;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, x, status)) return status;
    double drift = 0.0, recent = 0.0, baseline = 0.0;
    const int32_t rc =
        qvn_dimension_drift(x.data(), x.size(), a.window, &drift, &recent, &baseline);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no drift: the window and the samples before it each need at "
                             "least 24 samples that are not constant");
    print("drift", drift);
    print("alpha_recent", recent);
    print("alpha_baseline", baseline);
    return 0;
}

int cmd_boxcount(int argc, char **argv) {
    const char *cmd = "boxcount";
    args a;
    const int pre = prologue(cmd, argc, argv, true, false, 1,
            "usage: quorvane boxcount FILE --dim D [--raw]\n\n"
            "Box-counting dimension of the points in FILE, D coordinates per point\n"
            "(row-major). Needs at least 8 points, clumped enough that three of the\n"
            "twelve scales hold more than three points per box. Prints: dimension\n", a);
    if (pre >= 0) return pre;
    if (a.dim == 0) return cli::usage_error(cmd, "--dim D is required");
    std::vector<double> p;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, p, status)) return status;
    if (!split_points(cmd, a.files[0], p.size(), a.dim, status)) return status;
    double dim = 0.0;
    const int32_t rc = qvn_dimension_boxcount(p.data(), p.size() / a.dim, a.dim, &dim);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no dimension: too few, coincident, too sparse or non-finite "
                             "points");
    print("dimension", dim);
    return 0;
}

int cmd_morph(int argc, char **argv) {
    const char *cmd = "morph";
    args a;
    const int pre = prologue(cmd, argc, argv, true, false, 1,
            "usage: quorvane morph FILE --dim D [--raw]\n\n"
            "Morphological complexity of the points in FILE (D coordinates each):\n"
            "box-counting dimension and fixed-grid lacunarity. When only the\n"
            "lacunarity fails (a grid over 2^24 boxes), the dimension is still\n"
            "printed before the error. Prints: dimension, lacunarity\n", a);
    if (pre >= 0) return pre;
    if (a.dim == 0) return cli::usage_error(cmd, "--dim D is required");
    std::vector<double> p;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, p, status)) return status;
    if (!split_points(cmd, a.files[0], p.size(), a.dim, status)) return status;
    double dim = std::nan(""), lac = 0.0;
    const int32_t rc =
        qvn_morphological_complexity(p.data(), p.size() / a.dim, a.dim, &dim, &lac);
    if (rc != 0) {
        if (std::isnan(dim))
            return metric_failed(cmd, rc,
                                 "no dimension: too few, coincident, too sparse or "
                                 "non-finite points");
        print("dimension", dim);
        return metric_failed(cmd, rc,
                             "no lacunarity: its grid would exceed 16777216 boxes");
    }
    print("dimension", dim);
    print("lacunarity", lac);
    return 0;
}

// The hull kernel is reached through qvn_cortical_folding, which needs a
// mesh of positive area: the first non-degenerate triangle of the points
// serves, and its area is ignored.
int cmd_hull(int argc, char **argv) {
    const char *cmd = "hull";
    args a;
    const int pre = prologue(cmd, argc, argv, false, false, 1,
            "usage: quorvane hull FILE [--raw]\n\n"
            "Surface area of the convex hull of the 3-D points in FILE (x y z per\n"
            "point). Computed through the cortical folding metric with one\n"
            "non-degenerate triangle of the points as its mesh. Needs four points\n"
            "that are not coplanar. Prints: hull_area\n", a);
    if (pre >= 0) return pre;
    std::vector<double> p;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, p, status)) return status;
    if (!split_points(cmd, a.files[0], p.size(), 3, status)) return status;
    const size_t n = p.size() / 3;
    // Triangle (0, i, j): i the first point away from point 0, j the first
    // point off the line through both, with the area test the library uses.
    uint64_t tri[3] = {0, 0, 0};
    bool found = false;
    size_t i = 1;
    while (i < n && p[3 * i] == p[0] && p[3 * i + 1] == p[1] && p[3 * i + 2] == p[2]) ++i;
    for (size_t j = i + 1; j < n && !found; ++j) {
        const double ux = p[3 * i] - p[0], uy = p[3 * i + 1] - p[1], uz = p[3 * i + 2] - p[2];
        const double vx = p[3 * j] - p[0], vy = p[3 * j + 1] - p[1], vz = p[3 * j + 2] - p[2];
        const double cx = uy * vz - uz * vy, cy = uz * vx - ux * vz, cz = ux * vy - uy * vx;
        if (cx * cx + cy * cy + cz * cz > 0.0) {
            tri[1] = i;
            tri[2] = j;
            found = true;
        }
    }
    if (!found)
        return metric_failed(cmd, QVN_ERR_INVALID,
                             "no hull: fewer than four points, or all of them on one line");
    double surface = 0.0, hull = 0.0, ratio = 0.0;
    const int32_t rc = qvn_cortical_folding(p.data(), n, tri, 1, &surface, &hull, &ratio);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no hull: fewer than four points, or all of them in one plane");
    print("hull_area", hull);
    return 0;
}

int cmd_folding(int argc, char **argv) {
    const char *cmd = "folding";
    args a;
    const int pre = prologue(cmd, argc, argv, false, false, 2,
            "usage: quorvane folding VERTS TRIS [--raw]\n\n"
            "Cortical folding of a triangulated surface: VERTS holds x y z per vertex,\n"
            "TRIS three vertex indices (from 0) per triangle. Prints surface_area,\n"
            "hull_area (convex hull of all vertices) and ratio (surface / hull).\n", a);
    if (pre >= 0) return pre;
    std::vector<double> v;
    std::vector<uint64_t> t;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, v, status)) return status;
    if (!split_points(cmd, a.files[0], v.size(), 3, status)) return status;
    if (!load_indices(cmd, a.files[1], a.raw, 3, t, status)) return status;
    double surface = 0.0, hull = 0.0, ratio = 0.0;
    const int32_t rc =
        qvn_cortical_folding(v.data(), v.size() / 3, t.data(), t.size() / 3, &surface, &hull,
                             &ratio);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no folding figure: needs a triangle, four vertices not in one "
                             "plane, indices below the vertex count and a positive area");
    print("surface_area", surface);
    print("hull_area", hull);
    print("ratio", ratio);
    return 0;
}

int cmd_vascular(int argc, char **argv) {
    const char *cmd = "vascular";
    args a;
    const int pre = prologue(cmd, argc, argv, false, false, 3,
            "usage: quorvane vascular NODES EDGES LENGTHS [--raw]\n\n"
            "Vessel network metrics: NODES holds x y z per node, EDGES two node\n"
            "indices (from 0) per edge, LENGTHS one positive segment length per edge.\n"
            "Prints mean_tortuosity, branch_density (nodes of degree 3 or more per\n"
            "unit of vessel length) and dimension (box counting of the nodes).\n", a);
    if (pre >= 0) return pre;
    std::vector<double> nodes, lengths;
    std::vector<uint64_t> edges;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, nodes, status)) return status;
    if (!split_points(cmd, a.files[0], nodes.size(), 3, status)) return status;
    if (!load_indices(cmd, a.files[1], a.raw, 2, edges, status)) return status;
    if (!load(cmd, a.files[2], a.raw, lengths, status)) return status;
    if (lengths.size() != edges.size() / 2)
        return cli::fail(cmd, std::to_string(edges.size() / 2) + " edges but " +
                                  std::to_string(lengths.size()) + " segment lengths");
    double tortuosity = 0.0, branches = 0.0, dim = 0.0;
    const int32_t rc =
        qvn_vascular_network(nodes.data(), nodes.size() / 3, edges.data(), lengths.data(),
                             lengths.size(), &tortuosity, &branches, &dim);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no vessel metrics: check for an edge index out of range, a "
                             "self-loop, joined nodes at one position, a length <= 0, or "
                             "nodes too few or too sparse for box counting");
    print("mean_tortuosity", tortuosity);
    print("branch_density", branches);
    print("dimension", dim);
    return 0;
}

int cmd_plexus(int argc, char **argv) {
    const char *cmd = "plexus";
    args a;
    const int pre = prologue(cmd, argc, argv, true, false, 2,
            "usage: quorvane plexus NODES EDGES --dim D [--raw]\n\n"
            "Nerve plexus metric: NODES holds D coordinates per node, EDGES two node\n"
            "indices (from 0) per straight edge. Prints length_density and\n"
            "branch_density (per unit volume of the nodes' bounding box) and\n"
            "dimension (box counting of the nodes).\n", a);
    if (pre >= 0) return pre;
    if (a.dim == 0) return cli::usage_error(cmd, "--dim D is required");
    std::vector<double> nodes;
    std::vector<uint64_t> edges;
    int status = 0;
    if (!load(cmd, a.files[0], a.raw, nodes, status)) return status;
    if (!split_points(cmd, a.files[0], nodes.size(), a.dim, status)) return status;
    if (!load_indices(cmd, a.files[1], a.raw, 2, edges, status)) return status;
    double length = 0.0, branches = 0.0, dim = 0.0;
    const int32_t rc =
        qvn_nerve_plexus_metric(nodes.data(), nodes.size() / a.dim, a.dim, edges.data(),
                                edges.size() / 2, &length, &branches, &dim);
    if (rc != 0)
        return metric_failed(cmd, rc,
                             "no plexus metrics: check for an edge index out of range, a "
                             "self-loop, an axis on which all nodes agree, or nodes too few "
                             "or too sparse for box counting");
    print("length_density", length);
    print("branch_density", branches);
    print("dimension", dim);
    return 0;
}

const cli::registrar reg_dfa{{"dfa", "DFA scaling exponent of a series", cmd_dfa}};
const cli::registrar reg_drift{
    {"drift", "DFA exponent of a recent window against the rest", cmd_drift}};
const cli::registrar reg_boxcount{
    {"boxcount", "box-counting dimension of a point cloud", cmd_boxcount}};
const cli::registrar reg_morph{
    {"morph", "box-counting dimension and lacunarity of a point cloud", cmd_morph}};
const cli::registrar reg_hull{{"hull", "convex hull surface area of 3-D points", cmd_hull}};
const cli::registrar reg_folding{
    {"folding", "cortical folding of a triangle mesh", cmd_folding}};
const cli::registrar reg_vascular{
    {"vascular", "tortuosity, branch density, dimension of a vessel graph", cmd_vascular}};
const cli::registrar reg_plexus{
    {"plexus", "length and branch densities, dimension of a fibre graph", cmd_plexus}};

}  // namespace
