// Arguments of a modern subcommand: operands and long options
// (`--name value`, `--name=value`, flags without a value) in any order, a
// few of them also with a one-letter name (`-o value`); `--` ends the
// options and `-` is an operand (standard input or output).
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace laytran::modern {

// A usage error: the message, printed with the command's hint.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct OptionSpec {
    const char *name; // without "--"
    bool value;       // takes a value
    char letter = 0;  // the one-letter name (`-o`), if any
};

struct Args {
    std::vector<std::string> operands;
    std::map<std::string, std::string> options; // name -> value ("" for a flag); the last wins
    bool help = false;                          // --help or -h was given

    bool has(const std::string &name) const { return options.count(name) != 0; }
    const std::string *value(const std::string &name) const {
        auto it = options.find(name);
        return it == options.end() ? nullptr : &it->second;
    }
};

// Parses `words` against `specs`; throws UsageError for an unknown option, a
// missing value or a value given to a flag. --help and -h are always known.
Args parse_args(const std::vector<std::string> &words, const std::vector<OptionSpec> &specs);

// Throws UsageError unless there are exactly `n` operands, naming them.
void expect_operands(const Args &args, const std::vector<const char *> &names);

} // namespace laytran::modern
