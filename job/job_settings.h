// The job-settings record: everything a run needs to know, filled from the
// command line and read by every later step.
#pragma once

#include <cstdint>
#include <cstdio>

struct CliStream;
struct SlcStream;
struct FdmStream;

// Flag byte 0.
enum : uint8_t {
    JOB_IN_FILE = 0x01,
    JOB_OUT_FILE = 0x02,
    JOB_IN_CLI = 0x04,
    JOB_IN_FDM = 0x08,
    JOB_IN_SLC = 0x10,
    JOB_OUT_CLI_ASCII = 0x20,
    JOB_OUT_CLI_BINARY = 0x40,
    JOB_OUT_CLI_ALIGNED = 0x80,
};
// Flag byte 1.
enum : uint8_t {
    JOB_OUT_CLI_SHORT = 0x01,
    JOB_OUT_SLC = 0x02,
    JOB_OUT_FDM = 0x04,
    JOB_POSITIVE = 0x08,
    JOB_REVERSE_SET = 0x10,
    JOB_UNITS_SET = 0x20,
    JOB_VERBOSITY_SET = 0x40,
};
// Flag byte 2.
enum : uint8_t {
    JOB_IN_FORMAT_SET = 0x01,
    JOB_OUT_FORMAT_SET = 0x02,
};
// Flag byte 3.
enum : uint8_t {
    JOB_NO_MESSAGE_BOX = 0x01,
    JOB_NO_WINDOW = 0x02,
};

struct JobSettings {
    const char *program_name;  // head of every message; not owned
    uint8_t flags[4];
    FILE *in;
    FILE *out;
    int32_t verbosity;
    char *in_path;   // owned
    char *out_path;  // owned
    CliStream *cli_in;
    CliStream *cli_out;
    SlcStream *slc_in;
    SlcStream *slc_out;
    FdmStream *fdm_in;
    FdmStream *fdm_out;
    void *current_in;
    void *current_out;
    double units;     // -U: millimetres per output coordinate unit
    int32_t reverse;  // -R: non-zero reverses every contour
};

extern JobSettings job;
// Gaps counted while writing the output.
extern int64_t gap_total;

// The name every message carries once the options are parsed.
extern const char *const JOB_PROGRAM_NAME;
// The identification printed at verbosity 1 and 2.
extern const char *const JOB_ID;

// Zeroes the record, then: input = stdin, output = stdout, verbosity 3,
// gap_total 0.
void job_reset();

// The output is CLI: any of the four CLI output bits is set.
inline bool job_out_is_cli(const JobSettings &s) {
    return (s.flags[0] & (JOB_OUT_CLI_ASCII | JOB_OUT_CLI_BINARY | JOB_OUT_CLI_ALIGNED)) ||
           (s.flags[1] & JOB_OUT_CLI_SHORT);
}
