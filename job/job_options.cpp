#include <cmath>
#include <cstdlib>
#include <cstring>

#include "job/job.h"
#include "support/mm.h"
#include "support/opt.h"
#include "support/parse.h"

namespace {

const char OPTION_LETTERS[] = "f:o:F:O:HPR:U:V:W:";
const double UNIT_TOLERANCE = 1.1920928955078125e-07;

struct UnitWord {
    const char *word;
    double millimetres;
};

// Searched in this order: a prefix finds the first word it begins.
const UnitWord UNIT_WORDS[] = {
    {"inches", 25.4},       {"mm", 1.0},        {"feet", 304.8},
    {"miles", 1609344.0},   {"meters", 1000.0}, {"km", 1000000.0},
    {"mils", 0.0254},       {"microns", 0.001}, {"cm", 10.0},
    {"minches", 0.0000254},
};

const char HELP_TEXT[] =
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

void argument_error(const char *argument, int letter) {
    fprintf(stderr, "%s: error in argument \"%s\" in option -%c.\n", JOB_PROGRAM_NAME, argument,
            letter);
}

// An integer option argument: digits, then nothing or a space.
int option_int(const char *argument, int letter, int32_t *out) {
    int value = 0;
    if (!parse_int(argument, &value)) {
        argument_error(argument, letter);
        return 0;
    }
    *out = value;
    return 1;
}

// -U: a number (text after it ignored), else a unit word. The translation
// divides by the value, so it must be a positive finite number.
int option_units(const char *argument, double *out) {
    double value = 0.0;
    if (!parse_double(argument, &value) && !unit_word_factor(argument, &value)) {
        argument_error(argument, 'U');
        return 0;
    }
    if (!(value > 0.0) || std::isinf(value)) {
        argument_error(argument, 'U');
        return 0;
    }
    *out = value;
    return 1;
}

int option_window(JobSettings *settings, const char *argument) {
    for (const char *p = argument; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'C':
            settings->flags[3] |= JOB_NO_WINDOW;
            break;
        case 'c':
            settings->flags[3] &= static_cast<uint8_t>(~JOB_NO_WINDOW);
            break;
        case 'N':
            settings->flags[3] |= JOB_NO_MESSAGE_BOX;
            break;
        case 'n':
            settings->flags[3] &= static_cast<uint8_t>(~JOB_NO_MESSAGE_BOX);
            break;
        default:
            argument_error(argument, 'W');
            return 0;
        }
    }
    return 1;
}

inline void clear_bits(uint8_t *byte, unsigned bits) {
    *byte = static_cast<uint8_t>(*byte & ~bits);
}

} // namespace

int unit_word_factor(const char *word, double *factor) {
    if (!word) return 0;
    size_t size = strlen(word) + 1;
    char *lower = static_cast<char *>(mm_malloc(size));
    if (!lower) return 0;
    memcpy(lower, word, size);
    str_to_lower(lower);
    size_t length = size - 1;
    int found = 0;
    for (const UnitWord &unit : UNIT_WORDS) {
        if (strncmp(unit.word, lower, length) == 0) {
            *factor = unit.millimetres;
            found = 1;
            break;
        }
    }
    mm_free(lower, size, 0);
    return found;
}

int parse_input_format(JobSettings *settings, const char *letters) {
    uint8_t *f0 = &settings->flags[0];
    for (const char *p = letters; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'C':
            clear_bits(f0, JOB_IN_FDM | JOB_IN_SLC);
            *f0 |= JOB_IN_CLI;
            break;
        case 'F':
            clear_bits(f0, JOB_IN_CLI | JOB_IN_SLC);
            *f0 |= JOB_IN_FDM;
            break;
        case 'S':
            clear_bits(f0, JOB_IN_CLI | JOB_IN_FDM);
            *f0 |= JOB_IN_SLC;
            break;
        default:
            argument_error(p, 'F');
            return 0;
        }
    }
    return 1;
}

int parse_output_format(JobSettings *settings, const char *letters) {
    uint8_t *f0 = &settings->flags[0];
    uint8_t *f1 = &settings->flags[1];
    const unsigned cli_bits = JOB_OUT_CLI_ASCII | JOB_OUT_CLI_BINARY | JOB_OUT_CLI_ALIGNED;
    for (const char *p = letters; *p; p++) {
        switch (*p) {
        case ' ':
            break;
        case 'A':
            clear_bits(f1, JOB_OUT_CLI_SHORT | JOB_OUT_SLC | JOB_OUT_FDM);
            clear_bits(f0, cli_bits);
            *f0 |= JOB_OUT_CLI_ASCII;
            break;
        case 'F':
            clear_bits(f1, JOB_OUT_CLI_SHORT | JOB_OUT_SLC);
            clear_bits(f0, cli_bits);
            *f1 |= JOB_OUT_FDM;
            break;
        case 'S':
            clear_bits(f1, JOB_OUT_CLI_SHORT | JOB_OUT_FDM);
            clear_bits(f0, cli_bits);
            *f1 |= JOB_OUT_SLC;
            break;
        case 'a':
            clear_bits(f1, JOB_OUT_SLC | JOB_OUT_FDM);
            clear_bits(f0, JOB_OUT_CLI_ASCII);
            *f0 |= JOB_OUT_CLI_BINARY | JOB_OUT_CLI_ALIGNED;
            break;
        case 'b':
            clear_bits(f1, JOB_OUT_SLC | JOB_OUT_FDM);
            clear_bits(f0, JOB_OUT_CLI_ASCII);
            *f0 |= JOB_OUT_CLI_BINARY;
            break;
        case 's':
            clear_bits(f1, JOB_OUT_SLC | JOB_OUT_FDM);
            clear_bits(f0, JOB_OUT_CLI_ASCII);
            *f0 |= JOB_OUT_CLI_BINARY;
            *f1 |= JOB_OUT_CLI_SHORT;
            break;
        default:
            argument_error(p, 'O');
            return 0;
        }
    }
    return 1;
}

int job_finish_verbosity(JobSettings *settings) {
    if (!(settings->flags[1] & JOB_VERBOSITY_SET)) settings->verbosity = 3;
    if (settings->verbosity < 0) {
        fprintf(stderr, "%s: argument used with -%c must be positive.\n", JOB_PROGRAM_NAME, 'V');
        return 0;
    }
    if (settings->verbosity == 1 || settings->verbosity == 2) {
        fprintf(stderr, "%s(info): id = %s\n", JOB_PROGRAM_NAME, JOB_ID);
        fprintf(stderr, "%s(info): apparently running from %s\n", JOB_PROGRAM_NAME,
                settings->program_name ? settings->program_name : JOB_PROGRAM_NAME);
    }
    settings->program_name = JOB_PROGRAM_NAME;
    return 1;
}

int job_check_output_units(JobSettings *settings) {
    if (!(settings->flags[1] & JOB_UNITS_SET)) return 1;
    double units = settings->units;
    int allowed = 1;
    if (settings->flags[1] & JOB_OUT_SLC) {
        allowed = fabs(units - 1.0) < UNIT_TOLERANCE || fabs(units - 25.4) < UNIT_TOLERANCE;
    } else if (settings->flags[1] & JOB_OUT_FDM) {
        allowed = fabs(units - 25.4) < UNIT_TOLERANCE;
    }
    if (!allowed) {
        fprintf(stderr, "%s: output file format does not allow such units, %g MM.\n",
                JOB_PROGRAM_NAME, units);
        return 0;
    }
    return 1;
}

int job_parse_options(int argc, char **argv, JobSettings *settings) {
    opt_reset();
    settings->flags[3] |= JOB_NO_MESSAGE_BOX;
    for (;;) {
        int letter = opt_next(argc, argv, OPTION_LETTERS);
        if (letter == -1) break;
        const char *argument = opt_arg;
        switch (letter) {
        case 'f':
            if (!job_set_path(&settings->in_path, argument)) return 0;
            settings->flags[0] |= JOB_IN_FILE;
            break;
        case 'o':
            if (!job_set_path(&settings->out_path, argument)) return 0;
            settings->flags[0] |= JOB_OUT_FILE;
            break;
        case 'F':
            if (!parse_input_format(settings, argument)) return 0;
            settings->flags[2] |= JOB_IN_FORMAT_SET;
            break;
        case 'O':
            if (!parse_output_format(settings, argument)) return 0;
            settings->flags[2] |= JOB_OUT_FORMAT_SET;
            break;
        case 'H':
            fputs(HELP_TEXT, stderr);
            fflush(stderr);
            exit(0);
        case 'P':
            settings->flags[1] |= JOB_POSITIVE;
            break;
        case 'R':
            if (!option_int(argument, 'R', &settings->reverse)) return 0;
            settings->flags[1] |= JOB_REVERSE_SET;
            break;
        case 'U':
            if (!option_units(argument, &settings->units)) return 0;
            settings->flags[1] |= JOB_UNITS_SET;
            break;
        case 'V':
            if (!option_int(argument, 'V', &settings->verbosity)) return 0;
            settings->flags[1] |= JOB_VERBOSITY_SET;
            break;
        case 'W':
            if (!option_window(settings, argument)) return 0;
            break;
        default: // '?': the scanner has printed its message
            break;
        }
    }
    if (!job_finish_verbosity(settings)) return 0;
    int files = job_resolve_files(settings);
    if (files <= 0) return files;
    return job_check_output_units(settings);
}
