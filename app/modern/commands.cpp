// The table of subcommands, the dispatch, the overview and `laytran help`.
#include <cstring>
#include <new>
#include <sys/stat.h>

#include "app/modern/args.h"
#include "app/modern/command.h"
#include "app/modern/console.h"
#include "app/modern/input.h"
#include "app/modern/options.h"
#include "laytran/io.h"

namespace laytran::modern {

extern const Command convert_command, info_command, check_command, view_command, svg_command,
    help_command;

const std::vector<const Command *> &commands() {
    // One line a subcommand, in the order of the overview.
    static const std::vector<const Command *> table = {
        &convert_command, &info_command, &check_command, &view_command, &svg_command, &help_command,
    };
    return table;
}

const Command *find_command(const std::string &name) {
    for (const Command *c : commands()) {
        if (name == c->name) return c;
    }
    return nullptr;
}

bool applies(int argc, char **argv) {
    if (argc < 2 || !argv[1]) return false;
    const char *first = argv[1];
    return first[0] != '-' || std::strcmp(first, "--help") == 0 ||
           std::strcmp(first, "--version") == 0;
}

std::string command_help(const Command &c) {
    return std::string("Usage: laytran ") + c.synopsis + "\n\n" + c.help;
}

std::string overview() {
    std::string text = "Usage: laytran COMMAND [ARGS...]\n"
                       "       laytran --help | --version\n"
                       "       laytran -f IN -o OUT [-F C|F|S] [-O A|a|b|s|as|S|F] [-P] [-R n] "
                       "[-U units] [-V n] [-W letters] [-H]\n"
                       "\n"
                       "Translates, describes, checks and draws layer (\"slice\") files: CLI\n"
                       "(ASCII; binary long, short and aligned), SLC and FDM (.ssl).\n"
                       "\n"
                       "Commands:\n";
    for (const Command *c : commands())
        text += "  " + std::string(c->synopsis) + "\n      " + c->summary + "\n";
    text += "\n"
            "Options:\n"
            "  --help       print this help ('laytran help COMMAND' for a command's)\n"
            "  --version    print the version\n"
            "\n"
            "Exit status: 0 success; 1 bad input or a failed run (check: problems found);\n"
            "2 usage error.\n"
            "\n"
            "A first argument that begins with '-' (other than --help and --version), or\n"
            "none, runs the classic command line as it always has: 'laytran -H' prints its\n"
            "option summary.\n";
    return text;
}

int print_help(const char *name, Console &console) {
    console.print(command_help(*find_command(name)));
    return console.finish_output() ? exit_ok : exit_failed;
}

void set_level(const Args &args, Console &console) {
    if (args.has("quiet") && args.has("verbose"))
        throw UsageError("--quiet and --verbose cannot go together");
    if (args.has("quiet")) console.level = Level::quiet;
    if (args.has("verbose")) console.level = Level::verbose;
}

ProgressBar::When progress_when(const Args &args) {
    const std::string *v = args.value("progress");
    if (!v || *v == "auto") return ProgressBar::When::auto_;
    if (*v == "always") return ProgressBar::When::always;
    if (*v == "never") return ProgressBar::When::never;
    throw UsageError("bad --progress '" + *v + "' (auto, always or never)");
}

Reading reading_options(const Args &args, Console &console) {
    set_level(args, console);
    const std::string *from = args.value("from");
    if (from) parse_input_name(*from);
    return {from, progress_when(args)};
}

namespace {

void usage_error(const std::string &command, const std::string &text) {
    const std::string lead = command.empty() ? "laytran: " : "laytran " + command + ": ";
    const std::string hint =
        command.empty() ? "try 'laytran --help'" : "try 'laytran " + command + " --help'";
    std::fprintf(stderr, "%s%s\n%s\n", lead.c_str(), text.c_str(), hint.c_str());
}

// An unknown first word: what was probably meant.
std::string unknown_command(const std::string &word) {
    std::string text = "unknown command '" + word + "'";
    struct stat st;
    if (!word.empty() && stat(word.c_str(), &st) == 0)
        text += " (a file: 'laytran info " + word + "', 'laytran convert " + word +
                " OUT', or the classic 'laytran -f " + word + "')";
    return text;
}

int run_help(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(words, {});
    if (a.help || a.operands.empty()) {
        console.print(overview());
        return console.finish_output() ? exit_ok : exit_failed;
    }
    if (a.operands.size() > 1) throw UsageError("too many operands: '" + a.operands[1] + "'");
    const Command *c = find_command(a.operands[0]);
    if (!c) throw UsageError("unknown command '" + a.operands[0] + "'");
    return print_help(c->name, console);
}

} // namespace

extern const Command help_command = {
    "help",
    "help [COMMAND]",
    "print this overview, or a command's options",
    "Prints the overview of the commands, or the help of COMMAND (the same as\n"
    "'laytran COMMAND --help'), on standard output.\n",
    run_help,
};

int run(int argc, char **argv) {
    Console console;
    std::vector<std::string> words(argv + 1, argv + argc);
    const std::string first = words[0];
    words.erase(words.begin());
    if (first == "--version") {
        if (!words.empty()) {
            usage_error("", "--version takes no operands");
            return exit_usage;
        }
        console.print(std::string("laytran ") + version() + "\n");
        return console.finish_output() ? exit_ok : exit_failed;
    }
    const Command *command = first == "--help" ? &help_command : find_command(first);
    if (!command) {
        usage_error("", unknown_command(first));
        return exit_usage;
    }
    try {
        return command->run(words, console);
    } catch (const UsageError &e) {
        usage_error(command == &help_command ? "help" : command->name, e.what());
        return exit_usage;
    } catch (const std::bad_alloc &) {
        console.error("out of memory");
        return exit_failed;
    }
}

} // namespace laytran::modern
