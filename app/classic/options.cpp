#include "app/classic/options.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "app/classic/scanner.h"
#include "laytran/version.h"
#include "support/number_text.h"

namespace laytran::classic {

const char help_text[] =
    "  ----------------------------------------------------------------------\n"
    "  Short Description of Available Options (in alphabetical order):\n"
    "\n"
    "  option  arg.type        description                      default\n"
    "  ------  --------    -------------------             -----------------\n"
    "    f     path        the input file name             stdin\n"
    "    o     path        the output file name            stdout\n"
    "    F     string      the format of the input file    C\n"
    "                      one of {C,F,S}\n"
    "    H                 this message                    Off\n"
    "    O     string      the format of the output file   A\n"
    "                      a valid combination of {A,a,b,s}\n"
    "                      or {S}\n"
    "    P      -          move model to positive quadrant\n"
    "    R     flag        reverse the dir.of contours     Depends on type\n"
    "                                                      of conversion\n"
    "    U     real        units for the output file (CLI only)\n"
    "    V     int         the verbosity level\n"
    "  ----------------------------------------------------------------------\n";

namespace {

constexpr char option_letters[] = "f:o:F:O:HPR:U:V:W:";
constexpr double unit_tolerance = 1.1920928955078125e-07;

struct UnitWord {
    const char *word;
    double millimetres;
};

// Searched in this order: a prefix finds the first word it begins.
constexpr UnitWord unit_words[] = {
    {"inches", 25.4},       {"mm", 1.0},        {"feet", 304.8},
    {"miles", 1609344.0},   {"meters", 1000.0}, {"km", 1000000.0},
    {"mils", 0.0254},       {"microns", 0.001}, {"cm", 10.0},
    {"minches", 0.0000254},
};

void print(const std::string &line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void argument_error(const char *argument, char letter) {
    print(std::string(program_name) + ": error in argument \"" + argument + "\" in option -" +
          letter + ".\n");
}

// A decimal integer as strtol reads it, followed by nothing or a space.
std::optional<int> option_int(const char *argument, char letter) {
    long value = 0;
    const char *end = argument + scan_long(argument, argument + std::strlen(argument), &value);
    if (*end != '\0' && *end != ' ') {
        argument_error(argument, letter);
        return std::nullopt;
    }
    // The value is a 32-bit integer; clamp what a wider long holds.
    return static_cast<int>(value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : value);
}

// -U: a number (text after it ignored), else a unit word. The translation
// divides by the value, so it must be a positive finite number.
std::optional<double> option_units(const char *argument) {
    double value = 0.0;
    std::optional<double> units;
    if (scan_double(argument, argument + std::strlen(argument), &value) != 0)
        units = value;
    else
        units = unit_word_factor(argument);
    if (!units || !(*units > 0.0) || std::isinf(*units)) {
        argument_error(argument, 'U');
        return std::nullopt;
    }
    return units;
}

bool option_window(ClassicOptions &o, const char *argument) {
    for (const char *p = argument; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'C':
        case 'c':
            o.no_window = *p == 'C';
            break;
        case 'N':
        case 'n':
            o.no_message_box = *p == 'N';
            break;
        default:
            argument_error(argument, 'W');
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<double> unit_word_factor(const char *word) {
    std::string lower = word;
    for (char &c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    for (const UnitWord &unit : unit_words) {
        if (std::strncmp(unit.word, lower.c_str(), lower.size()) == 0) return unit.millimetres;
    }
    return std::nullopt;
}

bool parse_input_letters(ClassicOptions &o, const char *letters) {
    for (const char *p = letters; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'C':
            o.input_format = InputFormat::cli;
            break;
        case 'F':
            o.input_format = InputFormat::fdm;
            break;
        case 'S':
            o.input_format = InputFormat::slc;
            break;
        default:
            argument_error(p, 'F');
            return false;
        }
    }
    return true;
}

bool parse_output_letters(ClassicOptions &o, const char *letters) {
    using Kind = OutputLetters::Kind;
    OutputLetters &out = o.output;
    for (const char *p = letters; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'A': // each of these three ends any binary variant
        case 'F':
        case 'S':
            out.kind = *p == 'A' ? Kind::ascii : *p == 'F' ? Kind::fdm : Kind::slc;
            out.aligned = out.short_form = false;
            break;
        case 'a':
            out.kind = Kind::binary;
            out.aligned = true;
            break;
        case 'b':
            out.kind = Kind::binary;
            break;
        case 's':
            out.kind = Kind::binary;
            out.short_form = true;
            break;
        default:
            argument_error(p, 'O');
            return false;
        }
    }
    return true;
}

ScanResult scan_options(int argc, char **argv, ClassicOptions &o) {
    OptionScanner scanner(argc, argv, option_letters);
    for (int letter; (letter = scanner.next()) != -1;) {
        const char *argument = scanner.argument();
        switch (letter) {
        case 'f':
            o.input_path = argument;
            break;
        case 'o':
            o.output_path = argument;
            break;
        case 'F':
            if (!parse_input_letters(o, argument)) return ScanResult::stop;
            o.input_format_set = true;
            break;
        case 'O':
            if (!parse_output_letters(o, argument)) return ScanResult::stop;
            o.output_format_set = true;
            break;
        case 'H':
            return ScanResult::help;
        case 'P':
            o.positive = true;
            break;
        case 'R':
            if (auto value = option_int(argument, 'R'))
                o.reverse = *value;
            else
                return ScanResult::stop;
            break;
        case 'U':
            if (!(o.units = option_units(argument))) return ScanResult::stop;
            break;
        case 'V':
            if (!(o.verbosity_given = option_int(argument, 'V'))) return ScanResult::stop;
            break;
        case 'W':
            if (!option_window(o, argument)) return ScanResult::stop;
            break;
        default: // '?': the scanner has printed its message
            break;
        }
    }
    return ScanResult::run;
}

bool finish_verbosity(ClassicOptions &o, const char *started_as) {
    o.verbosity = o.verbosity_given ? *o.verbosity_given : 3;
    if (o.verbosity < 0) {
        print(std::string(program_name) + ": argument used with -V must be positive.\n");
        return false;
    }
    if (o.verbosity == 1 || o.verbosity == 2) {
        print(std::string(program_name) + "(info): id = LAYTRAN " LAYTRAN_VERSION_STRING "\n" +
              program_name + "(info): apparently running from " + started_as + "\n");
    }
    return true;
}

bool check_output_units(const ClassicOptions &o) {
    if (!o.units) return true;
    const double units = *o.units;
    bool allowed = true;
    if (o.output.kind == OutputLetters::Kind::slc)
        allowed =
            std::fabs(units - 1.0) < unit_tolerance || std::fabs(units - 25.4) < unit_tolerance;
    else if (o.output.kind == OutputLetters::Kind::fdm)
        allowed = std::fabs(units - 25.4) < unit_tolerance;
    if (allowed) return true;
    char value[NUMBER_TEXT_MAX];
    print(std::string(program_name) + ": output file format does not allow such units, " +
          std::string(value, format_g(units, value)) + " MM.\n");
    return false;
}

InputFormat input_format(const ClassicOptions &o) {
    return o.input_format.value_or(InputFormat::fdm);
}

OutputForm output_form(const ClassicOptions &o) {
    using Kind = OutputLetters::Kind;
    switch (o.output.kind) {
    case Kind::ascii:
        return OutputForm::cli_ascii;
    case Kind::binary:
        if (o.output.aligned)
            return o.output.short_form ? OutputForm::cli_aligned_short : OutputForm::cli_aligned;
        return o.output.short_form ? OutputForm::cli_short : OutputForm::cli_binary;
    case Kind::slc:
        return OutputForm::slc;
    default:
        return OutputForm::fdm;
    }
}

const char *input_extension(const ClassicOptions &o) {
    if (o.input_format == InputFormat::slc) return ".slc";
    if (o.input_format == InputFormat::fdm) return ".ssl";
    return ".cli";
}

const char *output_extension(const ClassicOptions &o) {
    if (o.output.kind == OutputLetters::Kind::slc) return ".slc";
    if (o.output.kind == OutputLetters::Kind::fdm) return ".ssl";
    return ".cli";
}

} // namespace laytran::classic
