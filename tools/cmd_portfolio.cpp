// Cardinality-constrained portfolio optimization on the command line.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "quorvane.h"

namespace {

bool parse_u64(const char *text, uint64_t *out) {
    if (!text || !*text || *text == '-' || *text == '+') return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 0);
    if (*end != '\0' || errno == ERANGE) return false;
    *out = static_cast<uint64_t>(v);
    return true;
}

void print_help() {
    std::printf(
        "usage: quorvane portfolio --returns FILE --cov FILE -k K [--seed S]\n"
        "                          [--opposition] [--levy] [--raw]\n\n"
        "Long-only weights on K of the n assets that maximise expected return over\n"
        "risk, found by stochastic fractal search (80 generations of 40).\n"
        "  --returns FILE  n expected returns\n"
        "  --cov FILE      n x n covariance matrix, row-major\n"
        "  -k K            number of assets held, 1 to n\n"
        "  --seed S        unsigned 64-bit seed (default 0); only its low 53 bits count\n"
        "  --opposition    also try the opposite point of every trial\n"
        "  --levy          Levy walk instead of the Gaussian walk\n"
        "  --raw           inputs are raw little-endian float64\n"
        "Prints: sharpe <ratio>, then weights <w_0> ... <w_(n-1)>.\n"
        "Equal inputs and seed give identical output.\n");
}

int cmd_portfolio(int argc, char **argv) {
    const char *cmd = "portfolio";
    std::string returns_path, cov_path;
    uint64_t k = 0, seed = 0;
    bool have_k = false, raw = false;
    int32_t opposition = 0, walk_mode = 0;
    for (int i = 1; i < argc; ++i) {
        const char *s = argv[i];
        const bool has_value = i + 1 < argc;
        if (!std::strcmp(s, "--help") || !std::strcmp(s, "-h")) {
            print_help();
            return 0;
        } else if (!std::strcmp(s, "--returns") && has_value) {
            returns_path = argv[++i];
        } else if (!std::strcmp(s, "--cov") && has_value) {
            cov_path = argv[++i];
        } else if (!std::strcmp(s, "-k")) {
            if (!has_value || !parse_u64(argv[++i], &k) || k == 0)
                return cli::usage_error(cmd, "-k needs a positive whole number");
            have_k = true;
        } else if (!std::strcmp(s, "--seed")) {
            if (!has_value || !parse_u64(argv[++i], &seed))
                return cli::usage_error(cmd, "--seed needs an unsigned 64-bit number");
        } else if (!std::strcmp(s, "--opposition")) {
            opposition = 1;
        } else if (!std::strcmp(s, "--levy")) {
            walk_mode = 1;
        } else if (!std::strcmp(s, "--raw")) {
            raw = true;
        } else {
            return cli::usage_error(cmd, std::string("unexpected argument '") + s + "'");
        }
    }
    if (returns_path.empty() || cov_path.empty() || !have_k)
        return cli::usage_error(cmd, "--returns, --cov and -k are required");

    std::vector<double> returns, cov;
    std::string err;
    if (!cli::read_numbers(returns_path, raw, returns, err)) return cli::fail(cmd, err);
    if (!cli::read_numbers(cov_path, raw, cov, err)) return cli::fail(cmd, err);
    const size_t n = returns.size();
    if (n == 0) return cli::fail(cmd, "'" + returns_path + "' holds no returns");
    if (cov.size() != n * n)
        return cli::fail(cmd, "'" + cov_path + "' holds " + std::to_string(cov.size()) +
                                  " numbers; " + std::to_string(n) + " assets need " +
                                  std::to_string(n * n));
    if (k > n)
        return cli::fail(cmd, "-k " + std::to_string(k) + " exceeds the " + std::to_string(n) +
                                  " assets");

    std::vector<double> weights(n);
    double sharpe = 0.0;
    const int32_t rc = qvn_optimize_portfolio_ex(returns.data(), cov.data(), n, k, seed,
                                                 opposition, walk_mode, weights.data(),
                                                 &sharpe);
    if (rc != 0) {
        char buf[256];
        std::snprintf(buf, sizeof buf, "optimization failed (status %d: %s)",
                      static_cast<int>(rc), cli::status_text(rc));
        return cli::fail(cmd, buf);
    }
    std::printf("sharpe %.17g\nweights", sharpe);
    for (double w : weights) std::printf(" %.17g", w);
    std::printf("\n");
    return 0;
}

const cli::registrar reg_portfolio{
    {"portfolio", "long-only weights on k assets maximising return over risk",
     cmd_portfolio}};

}  // namespace
