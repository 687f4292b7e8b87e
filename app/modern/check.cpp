// laytran check FILE
#include "laytran/check.h"
#include "app/modern/args.h"
#include "app/modern/command.h"
#include "app/modern/console.h"
#include "app/modern/input.h"
#include "app/modern/options.h"

namespace laytran::modern {

namespace {

// One line a problem on standard output: "FILE:LINE: TEXT" (text) or
// "FILE: byte N: TEXT" (binary); a note says so, a problem that stopped the
// reading is an error.
std::string problem_line(const std::string &name, const Diagnostic &d) {
    std::string line = name;
    if (d.line >= 0)
        line += ":" + std::to_string(d.line);
    else if (d.offset >= 0)
        line += ": byte " + std::to_string(d.offset);
    line += ": ";
    if (d.severity == Severity::error) line += "error: ";
    if (d.severity == Severity::info) line += "note: ";
    std::string text = d.text;
    const std::string wrapper = "error reading input file (";
    if (text.compare(0, wrapper.size(), wrapper) == 0 && text.back() == ')')
        text = text.substr(wrapper.size(), text.size() - wrapper.size() - 1);
    line += text;
    if (!d.token.empty()) {
        std::string token;
        for (unsigned char c : d.token)
            token += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
        line += " near '" + token + "'";
    }
    return line + "\n";
}

int run_check(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(
        words, {{"from", true}, {"quiet", false}, {"verbose", false}, {"progress", true}});
    if (a.help) return print_help("check", console);
    expect_operands(a, {"FILE"});
    const auto [from, when] = reading_options(a, console);
    if (a.operands[0] == "-")
        throw UsageError("check reads a file, not standard input (its places are given in it)");

    Input in;
    if (!in.open(a.operands[0], from, console)) return exit_failed;
    console.set_input(in.place());
    CheckOptions options;
    options.format = in.format;
    console.start_progress(when);
    options.progress = [&console](std::uint64_t r, std::uint64_t total, std::uint64_t w) {
        console.progress()->update(r, total, w);
    };
    const bool quiet = console.level == Level::quiet, verbose = console.level == Level::verbose;
    const CheckResult r = check_file(in.path, options, [&](const Diagnostic &d) {
        if (d.severity == Severity::info && !verbose) return;
        if (console.progress()) console.progress()->clear();
        if (!quiet) console.print(problem_line(in.name, d));
    });
    console.finish_progress();
    if (!r.opened) return exit_failed;
    if (!quiet) {
        const std::string layers =
            std::to_string(r.layers) + (r.layers == 1 ? " layer" : " layers");
        if (r.problems == 0)
            console.print(in.name + ": no problems found (" + layers + ")\n");
        else
            console.print(in.name + ": " + std::to_string(r.problems) +
                          (r.problems == 1 ? " problem" : " problems") + " found (" + layers +
                          (r.complete ? "" : " read before reading stopped") + ")\n");
    }
    if (!console.finish_output()) return exit_failed;
    if (r.problems != 0) {
        const std::string hint = format_hint(in.sniffed, in.format);
        if (!hint.empty()) console.hint(hint);
    }
    return r.problems == 0 ? exit_ok : exit_failed;
}

} // namespace

extern const Command check_command = {
    "check",
    "check FILE",
    "list every problem in a slice file",
    R"(Reads the whole of FILE and lists every problem found, not only the first,
one a line on standard output: "FILE:LINE: ..." where the bytes are text
(ASCII CLI, the header of a binary CLI file, FDM), "FILE: byte N: ..."
where they are binary (SLC, binary CLI geometry). Reading goes on past a
problem wherever the format allows; a problem that stops it is marked
"error:".

The problems: the file ending early (truncated; the end record,
$$GEOMETRYEND or layers that $$LAYERS declares missing); unknown commands
and keywords; counts that do not match (an element with fewer numbers than
it declares, more layers than $$LAYERS); NaN and infinite values; layers
that do not rise above the one before; contours marked closed whose last
point is not their first; and 16-bit overflows: in short-form (16-bit)
binary CLI commands, neighbouring coordinates or layer heights that lie
32768 or more apart, the mark of a value that wrapped (the other forms and
formats hold 32-bit floats, which do not wrap). Process parameters other
tools write into CLI geometry ($$POWER/100.0 and the like) are no problem:
--verbose lists them as notes.

Options:
  --from FORMAT    read FILE as FORMAT: cli, slc or ssl (else from its contents,
                   then its extension)
  --progress WHEN  a progress bar on standard error: auto, always, never
  --quiet          print nothing; the exit status tells
  --verbose        list notes too
  -h, --help       print this help

Exit status: 0 when FILE is clean; 1 when problems were found (or FILE
could not be opened); 2 for a usage error.

Example:
  laytran check part.cli
)",
    run_check,
};

} // namespace laytran::modern
