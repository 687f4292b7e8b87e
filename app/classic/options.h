// The classic command line: -f -o -F -O -H -P -R -U -V -W, read into a
// typed record, with every message of today's program.
#pragma once

#include <optional>
#include <string>

#include "laytran/formats.h"

namespace laytran::classic {

// The name every message carries once the options are read.
constexpr const char program_name[] = "laytran";

// What the -O letters (or the output file's extension) chose. The letters
// act in order and their effects accumulate: 'b' keeps an earlier 'a' or
// 's', "as" and "sa" both give the aligned short form, "Ab" plain binary.
struct OutputLetters {
    enum class Kind { none, ascii, binary, slc, fdm };
    Kind kind = Kind::none;
    bool aligned = false;
    bool short_form = false;
};

struct ClassicOptions {
    std::optional<std::string> input_path;  // -f
    std::optional<std::string> output_path; // -o
    // -F: set once given, even when its letters chose nothing (then the
    // input is read as FDM, under the CLI default extension).
    bool input_format_set = false;
    std::optional<InputFormat> input_format;
    bool output_format_set = false; // -O, likewise (an output chosen by
    OutputLetters output;           // no letter is written as FDM)
    bool positive = false;          // -P, or forced by the output form
    int reverse = 0;                // -R
    std::optional<double> units;    // -U, millimetres per output unit
    std::optional<int> verbosity_given;
    int verbosity = 3;          // -V, after the verbosity step
    bool no_window = false;     // -W C / c
    bool no_message_box = true; // -W N / n
};

enum class ScanResult {
    run,  // go on: verbosity, files, units
    help, // -H: print the help text and end with status 0
    stop, // an option error, its message printed: end with status 0
};

// Scans the options into `o`. Stops at the first faulty argument and at
// -H; the scanner's own errors are printed and scanning goes on.
ScanResult scan_options(int argc, char **argv, ClassicOptions &o);
// The help text -H prints (to standard error).
extern const char help_text[];

// The -F and -O letters; false (after the message) at the first unknown
// letter, the letters before it staying applied.
bool parse_input_letters(ClassicOptions &o, const char *letters);
bool parse_output_letters(ClassicOptions &o, const char *letters);
// The size in millimetres of the first unit word that begins with `word`
// (ASCII case ignored), or nothing.
std::optional<double> unit_word_factor(const char *word);

// The verbosity step: the default, the refusal of a negative value, and the
// id lines at 1 and 2 naming `started_as`. False after the message.
bool finish_verbosity(ClassicOptions &o, const char *started_as);
// Refuses a -U value the output form cannot hold (SLC: 1 or 25.4, FDM:
// 25.4). False after the message.
bool check_output_units(const ClassicOptions &o);

// The formats a run uses once the options and file names have chosen.
InputFormat input_format(const ClassicOptions &o);
OutputForm output_form(const ClassicOptions &o);
// The default extensions, ".cli", ".slc" or ".ssl".
const char *input_extension(const ClassicOptions &o);
const char *output_extension(const ClassicOptions &o);

} // namespace laytran::classic
