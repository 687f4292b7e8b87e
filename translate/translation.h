// The translation context: one translation's options, its messages, its
// model and its counters, and the steps that read, convert and write.
//
// A Translation holds everything a run needs; nothing is shared between two
// of them, so translations may run on several threads at once. It reads
// through a LayerSource and writes through a LayerSink (format_io.h), made
// by the format modules' factories.
//
// Messages go to the caller's sink in the order the run meets them. The
// run keeps the classic program's rules: the "no geometry" warning, the
// output unit of each form, the scaling and placement lines, the end-of-run
// remarks in the order format_io.h gives, and the error lines at the end,
// input before output. A read error of a CLI input still writes what was
// read; an SLC or FDM input that fails to read is reported when the load
// ends and again at the end, and nothing is written.
//
// Every run holds the whole model for now (TranslateOptions::memory_budget
// is not used yet). A run over an input too large for memory fits the same
// interface: a first pass with one source gathers the OutputPlan (layer
// count, levels, bounds, counts), and a second source over the same input
// (InputBytes::open again) feeds the sink one layer at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

#include "laytran/io.h"
#include "translate/format_io.h"

namespace laytran {

// Where a translation reads its bytes: a descriptor or a C stream (each the
// caller's, read from its position when the translation starts) or memory.
// A regular file and memory can be read once more from the same start,
// which a run in two passes needs.
class InputBytes {
  public:
    static InputBytes descriptor(int fd, std::string name = {});
    static InputBytes stream(std::FILE *stream, std::string name = {});
    static InputBytes memory(const void *data, std::size_t size, std::string name = {});

    // A reader from where the bytes begin. A later call rewinds a regular
    // file to that place; null when the input cannot be read again (a pipe,
    // a terminal) or the rewind failed.
    std::unique_ptr<ByteInput> open();
    // The name diagnostics give the input ("" when unknown).
    const std::string &name() const { return name_; }

  private:
    InputBytes() = default;

    int fd_ = -1;
    std::FILE *stream_ = nullptr;
    const void *data_ = nullptr;
    std::size_t size_ = 0;
    std::string name_;
    bool opened_ = false;
    bool rereadable_ = false;
    off_t start_ = 0;
};

// How a translation makes its sources and sinks: the format modules'
// factories, unless a test gives others.
struct FormatFactories {
    std::function<std::unique_ptr<LayerSource>(InputFormat, ByteInput &, Reporter &,
                                               const SourceOptions &)>
        source = make_source;
    std::function<std::unique_ptr<LayerSink>(OutputForm, ByteOutput &, Reporter &)> sink =
        make_sink;
};

class Translation {
  public:
    Translation(const TranslateOptions &options, DiagnosticSink sink, FormatFactories formats = {});
    Translation(const Translation &) = delete;
    Translation &operator=(const Translation &) = delete;

    // The whole run: reads the input, converts it to the output unit,
    // places and reverses it as the options say, and writes it. True when
    // the run completed; false after at least one error message.
    // `output_name` names the output in diagnostics.
    bool run(InputBytes &input, ByteOutput &output, const std::string &output_name = {});

    // Reads the whole input into model() as it stands in the file (the
    // input format and empty-layer rule of the options). True when it read
    // without error; the model then holds what was read before the error.
    bool read(InputBytes &input);

    // Writes `model` in the output form of the options, converted from
    // `model.header.unit_mm` to the output unit; nothing is moved, so a
    // form that holds only non-negative values refuses negative values.
    bool write(const Model &model, ByteOutput &output, const std::string &output_name = {});

    // The model read (by run or read); after run, converted and placed.
    const Model &model() const { return model_; }
    Model &model() { return model_; }
    // Gaps met in the contours written.
    std::uint64_t gaps() const { return gaps_; }
    // Error messages sent so far.
    std::uint64_t errors() const { return reporter_.errors(); }

  private:
    bool options_valid();
    std::unique_ptr<LayerSource> open_source(ByteInput &in);
    std::unique_ptr<LayerSink> open_sink(ByteOutput &out);
    bool load(LayerSource &source, ByteInput &in, const ByteOutput *out);
    double output_unit(double input_unit) const;
    bool place(Bounds &bounds);
    OutputPlan plan(const Model &model, const Bounds &bounds, double unit) const;
    bool write_layers(LayerSink &sink, const OutputPlan &plan, const Model &model, double factor,
                      const ByteInput *in, ByteOutput &out);
    bool check(const LayerSource *source, const LayerSink *sink);
    void report_stream_error(const char *what, const StreamError &e, const std::string &file,
                             bool located);
    void progress(const ByteInput *in, const ByteOutput *out, bool force);

    TranslateOptions options_;
    DiagnosticSink sink_;
    Reporter reporter_{sink_};
    FormatFactories formats_;
    Model model_;
    std::uint64_t gaps_ = 0;
    std::string input_name_, output_name_;
    // Failures the driver met itself (memory, or a sink that stopped
    // without saying why), reported like the streams' own errors.
    StreamError input_failure_, output_failure_;
    std::uint64_t progress_mark_ = 0;
};

} // namespace laytran
