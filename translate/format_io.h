// The seam between the translation engine and the format modules.
//
// Each input format provides a LayerSource: it reads a file layer by layer
// into the model's Layer records. Each output form provides a LayerSink: it
// is told up front what the whole output will hold (an OutputPlan), then
// takes the layers in order, already converted to the output's unit and
// placed, and writes them. Sources and sinks hold all their state; nothing
// is shared between two of them, so translations may run on several threads.
//
// The engine uses them the same way whether the whole model is in memory
// (read every layer, convert, write every layer) or the input is too large
// for that (a first pass with one source gathers the plan, a second source
// over the same file feeds the sink one layer at a time).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "laytran/diagnostics.h"
#include "laytran/io.h"
#include "laytran/model.h"
#include "support/byte_input.h"
#include "support/byte_output.h"
#include "translate/model_ops.h"

namespace laytran {

// The engine's side of the caller's diagnostic sink: one place that turns
// texts into Diagnostics and remembers whether an error went out.
class Reporter {
  public:
    explicit Reporter(const DiagnosticSink &sink) : sink_(sink) {}
    void report(Diagnostic d) {
        if (d.severity == Severity::error) errors_++;
        if (sink_) sink_(d);
    }
    void info(std::string text) { report(make(Severity::info, std::move(text))); }
    void warning(std::string text) { report(make(Severity::warning, std::move(text))); }
    void error(std::string text) { report(make(Severity::error, std::move(text))); }
    std::uint64_t errors() const { return errors_; }

  private:
    static Diagnostic make(Severity s, std::string text) {
        Diagnostic d;
        d.severity = s;
        d.text = std::move(text);
        return d;
    }
    const DiagnosticSink &sink_;
    std::uint64_t errors_ = 0;
};

// The first error a source or sink recorded. `text` is the module's own
// text for `code` ("premature end of file", "write error", ...), exact.
struct StreamError {
    int code = 0;               // the module's code; 0 = none recorded
    const char *text = nullptr; // the module's text for the code
    int system_error = 0;       // errno kept with read, write and open errors
    std::uint64_t offset = 0;   // byte offset in the file where it happened
    std::string token;          // the offending text, when there is one
    std::string detail;         // a fuller sentence, when the module has one
                                // (the classic message prints it instead of `text`)
    explicit operator bool() const { return code != 0; }
};

struct SourceOptions {
    bool keep_empty_layers = true;
    // Information lines about the input print at verbosity 1 to 5.
    int verbosity = 3;
    // Shown in diagnostics as the file's name.
    std::string file_name;
    // Check mode (laytran check): a problem the source can read past (a
    // NaN, an unknown command, a count that does not match) goes to the
    // reporter as a warning with its byte offset and token, and reading
    // goes on where the format allows; the source records where each layer
    // and contour begins (places()). A problem it cannot read past still
    // ends the reading as error(). Off, reading is exactly as without it.
    bool check = false;
};

// Where the last layer a source handed out begins in its file, and each of
// its contours (check mode).
struct LayerPlaces {
    std::uint64_t layer = 0;             // the layer's command or record
    std::vector<std::uint64_t> contours; // each contour's, in layer order
    // CLI: the layer's height, and each contour, came in a 16-bit (short
    // form) binary command.
    bool layer_short = false;
    std::vector<bool> contour_short;
};

class LayerSource {
  public:
    virtual ~LayerSource() = default;
    // Reads the next layer into `layer` (replacing what it held). True when
    // a layer came; false at the end of the geometry or after an error
    // (see error()). A layer cut short by an error is still handed out with
    // true; the next call gives false.
    virtual bool next_layer(Layer &layer) = 0;
    // The input's header; complete once next_layer has been called.
    virtual const ModelHeader &header() const = 0;
    virtual const StreamError &error() const = 0;
    // Remarks that only the end of the input can tell (an early end),
    // sent once, right after the last layer was read.
    virtual void report_read_end(Reporter &) {}
    // Remarks for the end of the run (commands that were skipped), sent
    // once, after the output was finished and the sink's remarks, and
    // before any error line.
    virtual void report_run_end(Reporter &) {}
    // Check mode: the places of the last layer handed out; null otherwise.
    virtual const LayerPlaces *places() const { return nullptr; }
    // The extremes of each contour of the last layer handed out, as far as
    // the source took them while reading; null when it takes none.
    virtual const PointExtremes *extremes() const { return nullptr; }
};

// What a sink needs to know before the first layer.
struct OutputPlan {
    std::uint64_t layer_count = 0;
    std::vector<float> levels;           // every layer's z in order (SLC's sampling table)
    Bounds bounds;                       // of the converted, placed model, in output units
    Counts counts;                       // of the whole model, by kind
    double unit_mm = 1.0;                // millimetres per output unit
    bool unit_given = false;             // the unit was chosen by the caller (-U)
    const ModelHeader *source = nullptr; // the input's header (labels, date, ...)
    CliHeaderStyle cli_header = CliHeaderStyle::classic;
};

class LayerSink {
  public:
    virtual ~LayerSink() = default;
    virtual bool begin(const OutputPlan &plan) = 0;
    virtual bool write_layer(const Layer &layer) = 0;
    // Ends the file (end record, last flush). True when every byte got out.
    virtual bool finish() = 0;
    virtual const StreamError &error() const = 0;
    // Gaps met in the contours written so far.
    virtual std::uint64_t gaps() const = 0;
    // Remarks about what the output could not hold, sent once when the
    // last layer was written.
    virtual void report_run_end(Reporter &) {}
};

// One factory per module (formats/<name>/<name>_layers.h) and the engine's
// dispatch over them (translate/format_io.cpp).
std::unique_ptr<LayerSource> make_cli_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options);
std::unique_ptr<LayerSource> make_slc_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options);
std::unique_ptr<LayerSource> make_fdm_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options);
std::unique_ptr<LayerSink> make_cli_sink(OutputForm form, ByteOutput &out, Reporter &reporter);
std::unique_ptr<LayerSink> make_slc_sink(ByteOutput &out, Reporter &reporter);
std::unique_ptr<LayerSink> make_fdm_sink(ByteOutput &out, Reporter &reporter);

std::unique_ptr<LayerSource> make_source(InputFormat format, ByteInput &in, Reporter &reporter,
                                         const SourceOptions &options);
std::unique_ptr<LayerSink> make_sink(OutputForm form, ByteOutput &out, Reporter &reporter);

} // namespace laytran
