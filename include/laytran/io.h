// Reading, writing and translating slice files.
//
// Every function here is re-entrant: it keeps no state between calls and
// touches nothing global, so translations may run on several threads at
// once. Messages go to the sink given with the call (see diagnostics.h); a
// function that fails has sent at least one message of severity `error`.
//
// Paths are written safely: the output goes to a temporary file beside the
// target, which replaces the target only when everything was written, so a
// failed call leaves an existing file as it was. An output path that names
// the input file is refused before anything is opened.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "laytran/diagnostics.h"
#include "laytran/formats.h"
#include "laytran/model.h"

namespace laytran {

// What a CLI output header says.
enum class CliHeaderStyle {
    // Both styles say version 200 and carry the input's $$DATE when the
    // input is a CLI file that gives one (its last, when it gives several),
    // today's date otherwise.
    //
    // $$DIMENSION from the model's real bounds (minimum corner first),
    // $$LABEL entries carried over.
    faithful,
    // The header of the classic command line: a fixed 0..60000 frame for
    // $$DIMENSION, no labels.
    classic,
};

// Called now and then during a long run with the bytes read so far, the
// input's size (0 when unknown) and the bytes written so far. A run that
// reads its input twice (see memory_budget) counts both readings: `read`
// goes up to twice the size, which it then gives as `total`.
using ProgressFn =
    std::function<void(std::uint64_t read, std::uint64_t total, std::uint64_t written)>;

struct ReadOptions {
    InputFormat format = InputFormat::cli;
    // Keep layers that hold no contour (a CLI $$LAYER with no element
    // behind it). The classic command line drops them.
    bool keep_empty_layers = true;
    // Called now and then while reading (written stays 0).
    ProgressFn progress;
};

struct WriteOptions {
    OutputForm form = OutputForm::cli_binary;
    // Millimetres per output coordinate unit; 0 picks the form's default
    // (CLI 0.01, SLC the model's unit when it is the inch and 1 otherwise,
    // FDM the inch). The model is converted from `model.header.unit_mm`.
    double unit_mm = 0.0;
    CliHeaderStyle cli_header = CliHeaderStyle::faithful;
};

struct TranslateOptions {
    InputFormat input = InputFormat::cli;
    OutputForm output = OutputForm::cli_binary;
    double unit_mm = 0.0;       // as in WriteOptions
    bool move_positive = false; // move the model into the positive quadrant
    bool reverse = false;       // reverse the direction of every contour
    // With `reverse`: a polyline's direction value (clockwise or
    // counter-clockwise) swaps with its point order, so that it stays true.
    // Without, only the points are reversed (the classic command line).
    bool reverse_directions = false;
    CliHeaderStyle cli_header = CliHeaderStyle::faithful;
    bool keep_empty_layers = true;
    // 0 keeps the engine's information lines about the input quiet; the
    // warnings and errors always come.
    int verbosity = 3;
    // A model larger than this many bytes is translated in two passes,
    // holding one layer at a time (regular input files only; the input is
    // read twice, the output and the messages are the same; a binary input
    // file of 32 MiB or more is read so in any case). 0 picks the
    // default: LAYTRAN_MEMORY when set (bytes, or with K, M, G or T: "256M"),
    // else half the physical memory.
    std::uint64_t memory_budget = 0;
    // The output stream is a new file that nothing else writes (such as a
    // temporary file that is to replace the target). A large output then
    // goes to the disk around the system's cache: no copy into the cache,
    // no pile of pages waiting for a slower disk. Never set it for a stream
    // that another program may write too, such as a redirected standard
    // output. (The path form of `translate` needs no such word.)
    bool private_output = false;
    ProgressFn progress;
};

struct TranslateResult {
    bool ok = false;
    std::uint64_t gaps = 0; // gaps met in the contours written
};

// Reads a whole file into `model` (replacing what it held). True on success.
bool read_model(const std::string &path, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink = {});
// The same from an open stream, read from its current position to its end.
// The stream stays open and is the caller's.
bool read_model(std::FILE *stream, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink = {});
// The same from bytes in memory.
bool read_model(const void *data, std::size_t size, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink = {});

// Writes `model` in the given form. Coordinates are converted to the output
// unit; nothing is moved, so a form that holds only non-negative values
// refuses a model with negative coordinates (see `needs_positive`).
bool write_model(const Model &model, const std::string &path, const WriteOptions &options,
                 const DiagnosticSink &sink = {});
// The same into an open stream, which is flushed but stays open.
bool write_model(const Model &model, std::FILE *stream, const WriteOptions &options,
                 const DiagnosticSink &sink = {});

// Reads, converts units, places, reverses and writes in one call.
TranslateResult translate(const std::string &input_path, const std::string &output_path,
                          const TranslateOptions &options, const DiagnosticSink &sink = {});
TranslateResult translate(std::FILE *input, std::FILE *output, const TranslateOptions &options,
                          const DiagnosticSink &sink = {});

// The library's version, e.g. "3.0a".
const char *version();

} // namespace laytran
