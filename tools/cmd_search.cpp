// quorvane search: nearest rows of a corpus to a query vector, printed as the
// library's JSON result document.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "quorvane.h"

#ifndef QVN_DEMO_DATA_SOURCE_DIR
#define QVN_DEMO_DATA_SOURCE_DIR ""
#endif
#ifndef QVN_DEMO_DATA_INSTALL_DIR
#define QVN_DEMO_DATA_INSTALL_DIR ""
#endif

namespace {

const char *const kCmd = "search";

void print_help() {
    std::printf(
        "usage: quorvane search [options] [QUERY]\n"
        "\n"
        "Finds the k corpus rows nearest to QUERY by cosine distance and prints the\n"
        "result document (JSON) on standard output. On failure the library's message\n"
        "goes to standard error and the exit status is 1 (2 for a usage error).\n"
        "\n"
        "QUERY is a vector in the library's text format: numbers separated by commas,\n"
        "blanks or brackets, e.g. 0.9,0,0,0,0,0,0,0.5 or \"[1 2 3]\".\n"
        "\n"
        "input:\n"
        "  -q, --query TEXT        the query vector (instead of the QUERY argument)\n"
        "      --query-file PATH   read the query text from a file ('-': standard input)\n"
        "  -c, --corpus PATH       corpus file ('-': standard input); text rows separated\n"
        "                          by ';' or written as [[...],[...]]. /dev/null searches\n"
        "                          without a corpus. Default: the bundled demo corpus\n"
        "      --raw               the corpus file is raw little-endian float64, row-major\n"
        "      --dim N             row length of a raw corpus (default: the query's length)\n"
        "      --labels PATH       one label per corpus row: list the nearest rows with\n"
        "                          their labels on standard error\n"
        "\n"
        "search:\n"
        "  -k N                    number of nearest rows to list (default 5)\n"
        "      --params JSON       search parameters as JSON text, e.g. '{\"seed\":7}'\n"
        "      --iterations N      optimizer iterations (1..100000, default 30)\n"
        "      --population N      optimizer or scout population (2..10000, default 50)\n"
        "      --diffusion N       optimizer diffusion steps (1..100, default 2)\n"
        "      --walk X            optimizer walk factor (default 0.5)\n"
        "      --seed X            optimizer seed (default: the Context's own)\n"
        "      --mmr-lambda X      scout relevance weight in [0, 1] (default 0.5)\n"
        "      --scout             return a diversified population (MMR) of rows\n"
        "      --no-corpus         choose the best point by the optimizer over [-1, 1]^dim\n"
        "      --debug             add the trace member to the document\n"
        "The flags above are written into the parameter JSON ahead of --params, so\n"
        "they take precedence over the same keys there.\n"
        "\n"
        "demo corpus: 320 rows of 8 taste features (sweet, sour, salty, bitter, umami,\n"
        "spicy, crunchy, creamy) around 8 labelled kinds (dessert, citrus, snack, coffee,\n"
        "broth, curry, pickle, cheese). Try:\n"
        "  quorvane search 1,0,0,0,0,0,0,0.6\n");
}

bool file_exists(const std::string &path) {
    if (path.empty()) return false;
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    std::fclose(f);
    return true;
}

// The bundled demo data: the source tree of this build, else the installed
// copy. Empty when neither is there.
std::string demo_path(const char *name) {
    for (const char *dir : {QVN_DEMO_DATA_SOURCE_DIR, QVN_DEMO_DATA_INSTALL_DIR}) {
        const std::string path = std::string(dir) + "/" + name;
        if (dir[0] != '\0' && file_exists(path)) return path;
    }
    return "";
}

bool parse_long(const std::string &text, long long lo, long long hi, long long &out) {
    if (text.empty()) return false;
    errno = 0;
    char *end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    out = v;
    return true;
}

// Finite values only: the library's parameter scanner cannot read nan or
// inf back, so they would silently fall back to the defaults.
bool parse_real(const std::string &text, double &out) {
    if (text.empty()) return false;
    errno = 0;
    char *end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(out);
}

// An argument that starts like a negative number is a query, not an option.
bool looks_numeric(const char *arg) {
    return arg[0] == '-' && (arg[1] == '.' || (arg[1] >= '0' && arg[1] <= '9'));
}

struct options {
    std::string query;
    bool have_query = false;
    std::string query_file;
    std::string corpus_path;
    bool raw = false;
    long long dim = 0;
    std::string labels_path;
    long long k = 5;
    std::string params;
    std::string flag_json;  // "key":value pairs from the convenience flags
};

void add_flag(options &o, const std::string &key, const std::string &value) {
    if (!o.flag_json.empty()) o.flag_json += ",";
    o.flag_json += "\"" + key + "\":" + value;
}

// Parses argv; returns -1 to go on, otherwise the exit status.
int parse_args(int argc, char **argv, options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool has_inline = false;
        if (arg.rfind("--", 0) == 0) {
            const size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                value = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                has_inline = true;
            }
        }
        const auto take = [&](std::string &dst) {
            if (has_inline) {
                dst = value;
                return true;
            }
            if (i + 1 >= argc) return false;
            dst = argv[++i];
            return true;
        };
        const auto missing = [&]() { return cli::usage_error(kCmd, arg + " needs a value"); };
        const auto number = [&](const char *key, long long lo, long long hi) {
            std::string v;
            long long n = 0;
            if (!take(v)) return missing();
            if (!parse_long(v, lo, hi, n))
                return cli::usage_error(kCmd, arg + " expects an integer in " +
                                                  std::to_string(lo) + ".." + std::to_string(hi));
            add_flag(o, key, std::to_string(n));
            return -1;
        };
        const auto real = [&](const char *key) {
            std::string v;
            double x = 0;
            if (!take(v)) return missing();
            if (!parse_real(v, x)) return cli::usage_error(kCmd, arg + " expects a finite number");
            char buf[64];
            std::snprintf(buf, sizeof buf, "%.17g", x);
            add_flag(o, key, buf);
            return -1;
        };

        int rc = -1;
        if (arg == "-h" || arg == "--help") {
            print_help();
            return 0;
        } else if (arg == "-q" || arg == "--query") {
            if (!take(o.query)) return missing();
            o.have_query = true;
        } else if (arg == "--query-file") {
            if (!take(o.query_file)) return missing();
        } else if (arg == "-c" || arg == "--corpus") {
            if (!take(o.corpus_path)) return missing();
        } else if (arg == "--raw") {
            o.raw = true;
        } else if (arg == "--dim") {
            std::string v;
            if (!take(v)) return missing();
            if (!parse_long(v, 1, 1LL << 40, o.dim))
                return cli::usage_error(kCmd, "--dim expects a positive integer");
        } else if (arg == "--labels") {
            if (!take(o.labels_path)) return missing();
        } else if (arg == "-k" || arg == "--k") {
            std::string v;
            if (!take(v)) return missing();
            if (!parse_long(v, INT32_MIN, INT32_MAX, o.k))
                return cli::usage_error(kCmd, "-k expects an integer");
        } else if (arg == "--params") {
            if (!take(o.params)) return missing();
        } else if (arg == "--iterations") {
            rc = number("iterations", INT32_MIN, INT32_MAX);
        } else if (arg == "--population") {
            rc = number("population_size", INT32_MIN, INT32_MAX);
        } else if (arg == "--diffusion") {
            rc = number("diffusion_factor", INT32_MIN, INT32_MAX);
        } else if (arg == "--walk") {
            rc = real("walk");
        } else if (arg == "--seed") {
            rc = real("seed");
        } else if (arg == "--mmr-lambda") {
            rc = real("mmr_lambda");
        } else if (arg == "--scout") {
            add_flag(o, "return_population", "true");
        } else if (arg == "--no-corpus") {
            add_flag(o, "no_corpus", "true");
        } else if (arg == "--debug") {
            add_flag(o, "debug", "true");
        } else if (arg == "--") {
            if (i + 1 < argc) {
                if (o.have_query) return cli::usage_error(kCmd, "more than one query");
                o.query = argv[++i];
                o.have_query = true;
            }
            if (i + 1 < argc) return cli::usage_error(kCmd, "unexpected argument after the query");
        } else if (arg[0] == '-' && !looks_numeric(arg.c_str())) {
            return cli::usage_error(kCmd, "unknown option '" + arg + "'");
        } else {
            if (o.have_query) return cli::usage_error(kCmd, "more than one query");
            o.query = arg;
            o.have_query = true;
        }
        if (rc != -1) return rc;
    }
    return -1;
}

// Lists the top_k entries of the document with their labels.
void print_labelled(const std::string &doc, const std::vector<std::string> &labels) {
    size_t at = doc.find("\"top_k\":[");
    if (at == std::string::npos) return;
    std::fprintf(stderr, "nearest rows (cosine distance):\n");
    int rank = 0;
    while ((at = doc.find("{\"idx\":", at)) != std::string::npos) {
        const long idx = std::strtol(doc.c_str() + at + 7, nullptr, 10);
        const size_t d = doc.find("\"dist\":", at);
        if (d == std::string::npos) break;
        const double dist = std::strtod(doc.c_str() + d + 7, nullptr);
        const char *label = idx >= 0 && static_cast<size_t>(idx) < labels.size()
                                ? labels[static_cast<size_t>(idx)].c_str()
                                : "";
        std::fprintf(stderr, "%4d. row %-6ld %.6f  %s\n", ++rank, idx, dist, label);
        at = d;
    }
}

bool read_labels(const std::string &path, std::vector<std::string> &labels, std::string &err) {
    std::string text;
    if (!cli::read_file(path, text, err)) return false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        labels.push_back(line);
        start = end + 1;
    }
    return true;
}

int cmd_search(int argc, char **argv) {
    options o;
    const int early = parse_args(argc, argv, o);
    if (early != -1) return early;

    std::string err;
    if (!o.query_file.empty()) {
        if (o.have_query) return cli::usage_error(kCmd, "give the query or --query-file, not both");
        if (!cli::read_file(o.query_file, o.query, err)) return cli::fail(kCmd, err);
        o.have_query = true;
    }
    if (!o.have_query) return cli::usage_error(kCmd, "no query vector given");
    if (o.query_file == "-" && o.corpus_path == "-")
        return cli::usage_error(kCmd, "query and corpus cannot both come from standard input");
    if (o.dim != 0 && !o.raw) return cli::usage_error(kCmd, "--dim applies to a --raw corpus");

    bool demo = false;
    if (o.corpus_path.empty()) {
        if (o.raw) return cli::usage_error(kCmd, "--raw needs --corpus");
        o.corpus_path = demo_path("demo_corpus.txt");
        if (o.corpus_path.empty())
            return cli::fail(kCmd, "no --corpus given and the demo corpus is not installed");
        demo = true;
        if (o.labels_path.empty()) o.labels_path = demo_path("demo_corpus.labels");
    }
    std::vector<std::string> labels;
    if (!o.labels_path.empty() && !read_labels(o.labels_path, labels, err))
        return cli::fail(kCmd, err);

    std::string corpus;
    if (!cli::read_file(o.corpus_path, corpus, err)) return cli::fail(kCmd, err);

    std::string params = o.flag_json.empty() ? o.params : "{" + o.flag_json + "}" + o.params;
    const int32_t k = static_cast<int32_t>(o.k);

    qvn_context *ctx = qvn_new_minimal();
    if (!ctx) return cli::fail(kCmd, "out of memory");
    const char *json = nullptr;
    size_t len = 0;
    int32_t rc;
    if (o.raw) {
        std::vector<double> query, rows;
        if (!cli::parse_numbers(o.query, query, err) ||
            !cli::parse_raw_f64(corpus, rows, err)) {
            qvn_free(ctx);
            return cli::fail(kCmd, err);
        }
        const size_t dim = o.dim != 0 ? static_cast<size_t>(o.dim) : query.size();
        if (dim == 0 || rows.size() % dim != 0) {
            qvn_free(ctx);
            return cli::fail(kCmd, "raw corpus holds " + std::to_string(rows.size()) +
                                       " values, not a multiple of the row length " +
                                       std::to_string(dim));
        }
        rc = qvn_search_ptr(ctx, rows.data(), rows.size() / dim, dim, query.data(), query.size(),
                            k, params.data(), params.size(), &json, &len);
    } else {
        rc = qvn_search(ctx, corpus.data(), corpus.size(), o.query.data(), o.query.size(), k,
                        params.data(), params.size(), &json, &len);
    }
    if (rc != QVN_OK) {
        std::fprintf(stderr, "%s\n", qvn_last_error(ctx));
        qvn_free(ctx);
        return 1;
    }
    const std::string doc(json, len);
    qvn_free(ctx);
    std::fwrite(doc.data(), 1, doc.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    if (!labels.empty()) {
        if (demo) std::fprintf(stderr, "demo corpus: %s\n", o.corpus_path.c_str());
        print_labelled(doc, labels);
    }
    return 0;
}

const cli::registrar reg{{"search", "nearest corpus rows to a query vector (JSON)", cmd_search}};

}  // namespace
