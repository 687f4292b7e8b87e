// The translation driver: stream set-up and tear-down, loading the input
// into the slice model, placement and the output steps.
#pragma once

#include "translate/slice_model.h"

struct CliStream;
struct CliHeader;
struct CliElement;
struct SlcStream;
struct FdmStream;
struct FdmContour;

// Creates and configures the input and output streams on the job's files.
// 1 when both exist; 0 after a "failed to" message.
int streams_open();
// 1 when neither stream has recorded an error; 0 after the messages.
int streams_check();
// The error text of the output stream, or null when it has recorded none.
const char *streams_output_error_text();
// Destroys the streams (finishing the output file) and closes both files.
void streams_close();

// Loads, converts, places, reverses and writes the whole model; 1 on
// success, 0 when the run failed (the messages are printed).
int translate_job();

// Loaders: each fills the stack from its input stream; the SLC and FDM
// loaders also report the input's unit in millimetres.
int load_cli(CliStream *cli_in, SliceStack *stack, CliHeader *header_block);
int contour_from_cli(const CliElement *element, SliceLayer *layer);
// After a CLI input was read without error: the warning when it ended
// early and the info line on signed 16-bit values. layers: layers loaded.
void report_cli_input(CliStream *cli_in, uint32_t layers);
// One warning per keyword of the unknown commands the CLI input skipped.
void report_cli_skipped(const CliStream *cli_in);
int load_slc(SlcStream *slc_in, SliceStack *stack, double *unit);
int load_fdm(SliceStack *stack, double *unit);
int contour_from_fdm(const FdmContour *f, SliceLayer *layer);

// Writers. On a failure that leaves no error in the output stream, *cause
// names it.
void cli_frame(SliceBounds *bounds);
int write_cli(const SliceStack *stack, CliHeader *header, const char **cause);
int write_cli_contour(CliStream *cli_out, const SliceContour *c, CliElement *e);
int write_slc(const SliceStack *stack, double out_unit, const char **cause);
int write_fdm(const SliceStack *stack, const char **cause);
int write_fdm_contour(FdmStream *fdm_out, const SliceContour *c, FdmContour *f);

// Tolerance of the units, thickness and platform tests: the spacing of
// 32-bit floats at 1.0.
constexpr double UNIT_TOLERANCE = 1.1920928955078125e-07;
