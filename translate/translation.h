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
// read; an SLC or FDM input that fails to read is reported when the reading
// ends and again at the end, and nothing is written.
//
// A run reads the input once through, converting every layer to the output
// unit as it comes and gathering what the output needs up front (the
// OutputPlan: layer count, levels, bounds, counts, the input's header).
// The converted layers are kept in a LayerStore while the model fits the
// memory budget (TranslateOptions::memory_budget, else LAYTRAN_MEMORY, else
// half the physical memory), and the writing takes them from there. An
// input that can be read again (a regular file) whose model would not fit
// (an estimate from its size decides up front, the store's real size on
// the way) is read a second time instead, and each layer goes from the
// source to the sink alone, so that the run holds one layer at a time. So
// is a large binary input file (CLI or SLC), whose second reading costs
// less than the fresh memory that keeping its layers would take. Both
// ways send the same bytes and the same messages in the same order: the
// messages of the input come from the first reading, and the second must
// give the same layers again (a changed input fails the run). Standard
// input and pipes keep every layer in memory.
//
// An output whose first bytes depend only on the layer count (CLI, binary
// long form or ASCII, with the classic header, not moved) into an own file
// is written during the first reading, with the count the input declares
// or one guessed once 8 MiB of the input were read; its messages wait until
// the reading is over. When the count is known, the header is written again
// in place. Should the count's text come out longer or shorter than the
// guess's, or anything but a plain reading happen (an error, a coordinate
// out of range), what was written is dropped and the run goes on as above:
// a second reading writes the layers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

#include "laytran/io.h"
#include "translate/format_io.h"
#include "translate/layer_store.h"

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
    // Whether open() may be called again (memory and regular files); known
    // once open() was called.
    bool rereadable() const { return !stream_ && fd_ < 0 ? true : rereadable_; }
    // Whether a regular file's size or modification time differs from what
    // they were at the first open() (a file still being written, say).
    bool changed() const;
    // The name diagnostics give the input ("" when unknown).
    const std::string &name() const { return name_; }

  private:
    InputBytes() = default;
    int descriptor() const { return stream_ ? fileno(stream_) : fd_; }

    int fd_ = -1;
    std::FILE *stream_ = nullptr;
    const void *data_ = nullptr;
    std::size_t size_ = 0;
    std::string name_;
    bool opened_ = false;
    bool rereadable_ = false;
    off_t start_ = 0;
    off_t file_size_ = 0;
    struct timespec modified_ = {};
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

    // The model read by read() (run() keeps its layers elsewhere).
    const Model &model() const { return model_; }
    Model &model() { return model_; }
    // Gaps met in the contours written.
    std::uint64_t gaps() const { return gaps_; }
    // Error messages sent so far.
    std::uint64_t errors() const { return reporter_.errors(); }

  private:
    struct Survey;
    class Replay;
    struct Speculation;

    bool options_valid();
    std::uint64_t memory_budget();
    std::unique_ptr<LayerSource> open_source(ByteInput &in);
    std::unique_ptr<LayerSink> open_sink(ByteOutput &out);
    bool load(LayerSource &source, ByteInput &in);
    bool survey(LayerSource &source, ByteInput &in, const ByteOutput &out, LayerStore *store,
                std::uint64_t budget, Survey &s, Speculation *spec = nullptr);
    bool may_speculate(const ByteOutput &out, const ByteInput &in, bool again) const;
    void speculate(Speculation &spec, Layer &layer, const Survey &s, const ByteInput &in,
                   const LayerSource &source);
    void begin_speculation(Speculation &spec, const Survey &s, const LayerSource &source,
                           std::uint64_t layers);
    void write_speculated(Speculation &spec, Layer &layer);
    bool header_patch(Speculation &spec, const Survey &s);
    std::unique_ptr<Replay> replay(InputBytes &input, LayerStore *store, double factor);
    double output_unit(double input_unit) const;
    bool place(Survey &s, InputBytes &input, LayerStore *store);
    OutputPlan plan(const Survey &s) const;
    bool write_layers(LayerSink &sink, const OutputPlan &plan, Replay &layers, const Survey &s,
                      bool verify, const ByteInput *in, ByteOutput &out);
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
    // Progress: bytes of earlier readings of the input, and how many
    // readings the run makes.
    std::uint64_t read_before_ = 0;
    int readings_ = 1;
    std::uint64_t progress_mark_ = 0;
};

} // namespace laytran
