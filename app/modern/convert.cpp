// laytran convert IN OUT [options]
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "app/classic/options.h"
#include "app/modern/args.h"
#include "app/modern/command.h"
#include "app/modern/console.h"
#include "app/modern/input.h"
#include "app/modern/options.h"
#include "app/modern/output.h"
#include "laytran/io.h"
#include "support/memory_budget.h"
#include "support/system_error.h"

namespace laytran::modern {

namespace {

constexpr double inch_mm = 25.4;

struct OutputName {
    const char *name;
    OutputForm form;
};

const OutputName output_names[] = {
    {"cli", OutputForm::cli_ascii},
    {"cli-binary", OutputForm::cli_binary},
    {"cli-long", OutputForm::cli_binary},
    {"cli-short", OutputForm::cli_short},
    {"cli-aligned", OutputForm::cli_aligned},
    {"cli-aligned-short", OutputForm::cli_aligned_short},
    {"slc", OutputForm::slc},
    {"ssl", OutputForm::fdm},
};

OutputForm parse_output_name(const std::string &name) {
    std::string n = name;
    for (char &c : n) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    for (const OutputName &o : output_names) {
        if (n == o.name) return o.form;
    }
    throw UsageError("unknown output format '" + name +
                     "' (cli, cli-binary, cli-long, cli-short, cli-aligned, cli-aligned-short, "
                     "slc or ssl)");
}

OutputForm output_form(const Args &a, const std::string &out) {
    if (const std::string *to = a.value("to")) return parse_output_name(*to);
    if (out == "-") return OutputForm::cli_ascii;
    InputFormat f;
    if (!format_from_extension(out, f))
        throw UsageError("cannot tell the output format from '" + out +
                         "': name it with --to (or use .cli, .slc or .ssl)");
    return f == InputFormat::slc   ? OutputForm::slc
           : f == InputFormat::fdm ? OutputForm::fdm
                                   : OutputForm::cli_binary;
}

// --units: a positive number of millimetres, or a unit word.
double parse_units(const std::string &text, OutputForm form) {
    double v = 0.0;
    if (!text.empty()) {
        char *end = nullptr;
        errno = 0;
        v = std::strtod(text.c_str(), &end);
        if (end == text.c_str() || *end != '\0') {
            const auto word = classic::unit_word_factor(text.c_str());
            v = word ? *word : 0.0;
        }
    }
    if (!(v > 0.0) || !std::isfinite(v))
        throw UsageError("bad --units '" + text +
                         "' (a positive number of millimetres, or mm, cm, inches, mils, microns, "
                         "meters, feet, ...)");
    const bool inch = std::fabs(v - inch_mm) <= inch_mm * 1e-7;
    const bool mm = std::fabs(v - 1.0) <= 1e-7;
    if (form == OutputForm::slc && !inch && !mm)
        throw UsageError("the SLC format holds millimetres or inches: --units mm or --units inch");
    if (form == OutputForm::fdm && !inch)
        throw UsageError("the FDM format holds inches only: --units inch");
    return inch ? inch_mm : mm ? 1.0 : v;
}

// --memory: bytes, with K, M, G or T (powers of 1024) and an optional B or iB.
std::uint64_t parse_size(const std::string &text) {
    const auto bytes = parse_memory_size(text.c_str());
    if (!bytes || *bytes == 0)
        throw UsageError("bad --memory '" + text + "' (a size such as 512M or 4G)");
    return *bytes;
}

int run_convert(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(words, {{"from", true},
                                      {"to", true},
                                      {"units", true},
                                      {"move-positive", false},
                                      {"reverse", false},
                                      {"force", false},
                                      {"quiet", false},
                                      {"verbose", false},
                                      {"progress", true},
                                      {"memory", true}});
    if (a.help) return print_help("convert", console);
    expect_operands(a, {"IN", "OUT"});
    const std::string &in_name = a.operands[0], &out_name = a.operands[1];
    set_level(a, console);
    const std::string *from = a.value("from");
    if (from) parse_input_name(*from);
    TranslateOptions t;
    t.output = output_form(a, out_name);
    if (const std::string *u = a.value("units")) t.unit_mm = parse_units(*u, t.output);
    if (const std::string *m = a.value("memory")) t.memory_budget = parse_size(*m);
    const ProgressBar::When when = progress_when(a);
    t.move_positive = a.has("move-positive");
    t.reverse = t.reverse_directions = a.has("reverse");
    t.cli_header = CliHeaderStyle::faithful;
    t.keep_empty_layers = true;

    Input in;
    if (!in.open(in_name, from, console)) return exit_failed;
    t.input = in.format;
    console.set_input(in.place());
    console.set_output(out_name);

    // The output: standard output, or a temporary file beside the target
    // that replaces it only when everything was written.
    Output out;
    if (!out.open(out_name, in.path, a.has("force"), console)) return exit_failed;
    std::FILE *source = in.stream;
    std::FILE *opened = nullptr;
    if (!source) {
        source = opened = std::fopen(in.path.c_str(), "rb");
        if (!source) {
            console.error("cannot open: " + system_error_text(errno), in_name);
            return exit_failed;
        }
    }

    console.start_progress(when);
    t.progress = [&console](std::uint64_t r, std::uint64_t total, std::uint64_t w) {
        console.progress()->update(r, total, w);
    };
    t.private_output = out.temporary();
    TranslateResult result = translate(source, out.stream(), t, console.sink());
    if (opened) std::fclose(opened);
    const bool ok = out.close(result.ok, console);
    console.finish_progress();
    if (!ok) {
        const std::string hint = format_hint(in.sniffed, in.format);
        if (!hint.empty()) console.hint(hint);
        return exit_failed;
    }
    if (result.gaps != 0)
        console.note(std::to_string(result.gaps) + " gap(s) in the contours", in_name);
    return exit_ok;
}

} // namespace

extern const Command convert_command = {
    "convert",
    "convert IN OUT [options]",
    "translate a slice file into another format or variant",
    R"(Reads IN and writes the same layers to OUT in another format or variant.
'-' as IN is standard input, as OUT standard output.

The input format comes from IN's first bytes (CLI ASCII or binary, SLC,
FDM), else from its extension (.cli, .slc, .ssl, letters in any case);
--from overrides both. The output format comes from --to, else from OUT's
extension: .cli binary CLI (long form), .slc SLC, .ssl FDM; standard
output is ASCII CLI.

The output is true to the input: $$DIMENSION holds the model's bounds
(minimum corner first), labels and element ids are carried over, layers
without elements are kept. OUT is written as a temporary file beside it
that replaces OUT only when everything was written.

Options:
  --from FORMAT       read IN as FORMAT: cli (any CLI variant), slc, ssl
  --to FORMAT         write OUT as FORMAT:
                        cli                 ASCII CLI
                        cli-binary          binary CLI, long form (32-bit values)
                        cli-long            the same as cli-binary
                        cli-short           binary CLI, short form (16-bit values)
                        cli-aligned         binary CLI, long form, 4-byte aligned
                        cli-aligned-short   binary CLI, short form, 4-byte aligned
                        slc                 SLC (part contours; mm or inch)
                        ssl                 FDM slice file (part contours; inches)
  --units VALUE|WORD  millimetres per output unit: a number, or a unit word
                      (mm, cm, meters, km, inches, feet, miles, mils,
                      microns, minches); default CLI 0.01, SLC the input's
                      (mm or inch), FDM inches
  --move-positive     move the model into the positive quadrant (always
                      done for cli-short, cli-aligned and cli-aligned-short)
  --reverse           reverse every contour: its point order and its
                      direction (clockwise <-> counter-clockwise)
  --force             overwrite an existing OUT
  --memory SIZE       hold at most SIZE bytes of model in memory (512M, 4G,
                      ...); a larger input file is translated in two passes
  --progress WHEN     a progress bar on standard error: auto (on a terminal,
                      once a run takes more than a second), always, never
  --quiet             print errors only
  --verbose           print notes too
  -h, --help          print this help

Exit status: 0 when OUT was written; 1 for bad input, a failed run or an
existing OUT without --force (OUT is then left as it was); 2 for a usage
error (nothing is read).

Examples:
  laytran convert part.cli part.slc
  laytran convert part.slc part.cli --to cli --move-positive --force
  laytran convert scan.dat - --from slc | less
)",
    run_convert,
};

} // namespace laytran::modern
