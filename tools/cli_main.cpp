// Entry point of the quorvane tool: dispatches to registered subcommands.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "cli.h"
#include "quorvane.h"

namespace cli {

namespace {
std::vector<command> &registry() {
    static std::vector<command> r;
    return r;
}
}  // namespace

registrar::registrar(command c) { registry().push_back(c); }
const std::vector<command> &commands() { return registry(); }

bool read_file(const std::string &path, std::string &out, std::string &err) {
    if (path == "-") {
        std::ostringstream ss;
        ss << std::cin.rdbuf();
        out = ss.str();
        return true;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        err = "cannot open '" + path + "': " + std::strerror(errno);
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        err = "cannot read '" + path + "'";
        return false;
    }
    return true;
}

bool parse_numbers(const std::string &text, std::vector<double> &out, std::string &err) {
    out.clear();
    const char *p = text.c_str();
    const char *end = p + text.size();
    while (p < end) {
        const char c = *p;
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ',' || c == ';' ||
            c == '[' || c == ']') {
            ++p;
            continue;
        }
        if (c == '#') {  // comment to end of line
            while (p < end && *p != '\n') ++p;
            continue;
        }
        char *stop = nullptr;
        errno = 0;
        const double v = std::strtod(p, &stop);
        if (stop == p) {
            err = "invalid number near '" + std::string(p, std::min<size_t>(20, end - p)) + "'";
            return false;
        }
        if (errno == ERANGE && (v > 1.0 || v < -1.0)) {
            err = "number out of range near '" + std::string(p, static_cast<const char *>(stop)) + "'";
            return false;
        }
        out.push_back(v);
        p = stop;
    }
    return true;
}

bool parse_raw_f64(const std::string &bytes, std::vector<double> &out, std::string &err) {
    if (bytes.size() % 8 != 0) {
        err = "raw float64 input has " + std::to_string(bytes.size()) +
              " bytes, not a multiple of 8";
        return false;
    }
    out.resize(bytes.size() / 8);
    for (size_t i = 0; i < out.size(); ++i) {
        uint64_t u = 0;
        for (int b = 7; b >= 0; --b) u = (u << 8) | static_cast<unsigned char>(bytes[i * 8 + b]);
        std::memcpy(&out[i], &u, sizeof u);
    }
    return true;
}

bool read_numbers(const std::string &path, bool raw, std::vector<double> &out,
                  std::string &err) {
    std::string bytes;
    if (!read_file(path, bytes, err)) return false;
    return raw ? parse_raw_f64(bytes, out, err) : parse_numbers(bytes, out, err);
}

int fail(const char *cmd, const std::string &message) {
    std::fprintf(stderr, "quorvane %s: %s\n", cmd, message.c_str());
    return 1;
}

int usage_error(const char *cmd, const std::string &message) {
    std::fprintf(stderr, "quorvane %s: %s (see 'quorvane %s --help')\n", cmd, message.c_str(),
                 cmd);
    return 2;
}

const char *status_text(int32_t status) {
    switch (status) {
        case QVN_OK: return "success";
        case QVN_ERR_INVALID: return "invalid argument or degenerate input";
        case QVN_ERR_PARSE: return "unparsable input text";
        case QVN_ERR_DIM: return "dimension mismatch";
        case QVN_ERR_NOMEM: return "out of memory";
        case QVN_ERR_EXTERNAL: return "external operation failed";
        case QVN_ERR_NO_REASONING: return "no reasoning table attached";
        default: return "unknown status";
    }
}

}  // namespace cli

namespace {
void print_help() {
    std::printf(
        "usage: quorvane <command> [options]\n\n"
        "Nearest-vector search and numerical metrics of libquorvane %s.\n\n"
        "commands:\n",
        qvn_version());
    for (const auto &c : cli::commands()) std::printf("  %-12s %s\n", c.name, c.summary);
    std::printf("\n'quorvane <command> --help' describes a command.\n");
}
}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") ||
        !std::strcmp(argv[1], "help")) {
        print_help();
        return argc < 2 ? 2 : 0;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("quorvane %s (%s, %s)\n", qvn_version(), qvn_edition(), qvn_storage());
        return 0;
    }
    for (const auto &c : cli::commands())
        if (!std::strcmp(argv[1], c.name)) return c.run(argc - 1, argv + 1);
    std::fprintf(stderr, "quorvane: unknown command '%s' (see 'quorvane --help')\n", argv[1]);
    return 2;
}
