// Shared pieces of the quorvane command-line tool.
#ifndef QVN_TOOLS_CLI_H
#define QVN_TOOLS_CLI_H

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// A subcommand: argv[0] is the subcommand name. Returns the exit status.
using command_fn = int (*)(int argc, char **argv);

struct command {
    const char *name;
    const char *summary;  // one line for the tool's --help
    command_fn run;
};

// Each cmd_*.cpp registers its commands at start-up:
//   static const cli::registrar reg{{"dfa", "DFA exponent of a series", cmd_dfa}};
struct registrar {
    explicit registrar(command c);
};
const std::vector<command> &commands();

// Reads a whole file ("-" for standard input) into out. False with a
// message in err on failure.
bool read_file(const std::string &path, std::string &out, std::string &err);

// Parses numbers separated by blanks, commas, semicolons, brackets and line
// breaks (strtod syntax). False with a message on a bad token.
bool parse_numbers(const std::string &text, std::vector<double> &out, std::string &err);

// Reads raw little-endian float64 values; the size must be a multiple of 8.
bool parse_raw_f64(const std::string &bytes, std::vector<double> &out, std::string &err);

// Reads numbers from a file: raw float64 when raw is true, text otherwise.
bool read_numbers(const std::string &path, bool raw, std::vector<double> &out,
                  std::string &err);

// Prints "quorvane <cmd>: <message>" to stderr and returns 1 (usage: 2).
int fail(const char *cmd, const std::string &message);
int usage_error(const char *cmd, const std::string &message);

// Text of a status code ("invalid argument", "out of memory", ...).
const char *status_text(int32_t status);

}  // namespace cli

#endif
