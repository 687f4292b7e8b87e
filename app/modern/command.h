// The modern command line: `laytran COMMAND [ARGS]`.
//
// Each subcommand is one file here defining a Command (`extern const
// Command NAME_command = {...}`); adding one is that file and its entry in
// the table of commands.cpp (its declaration and its line in the list).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace laytran::modern {

// Exit statuses of the modern surface.
enum : int {
    exit_ok = 0,     // success (check: no problem found)
    exit_failed = 1, // bad input, a failed run, a refused output (check: problems found)
    exit_usage = 2,  // a usage error: nothing was read
};

class Console;

struct Command {
    const char *name;
    const char *synopsis; // "convert IN OUT [options]"
    const char *summary;  // one line for `laytran --help`
    const char *help;     // `laytran help NAME`: everything after the synopsis
    // Runs with the words after the command's name; returns the exit status.
    int (*run)(const std::vector<std::string> &args, Console &console);
};

// The commands in the order `laytran --help` lists them.
const std::vector<const Command *> &commands();
const Command *find_command(const std::string &name);

// Whether the modern surface takes this command line: the first argument
// is a word not beginning with '-', or exactly --help or --version.
bool applies(int argc, char **argv);
// Runs the modern command line; the exit status.
int run(int argc, char **argv);

// The full help of a command (synopsis, then its help text).
std::string command_help(const Command &command);
// The overview `laytran --help` prints.
std::string overview();

} // namespace laytran::modern
