#include "translate/translation.h"

#include <cmath>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "support/number_text.h"
#include "support/system_error.h"
#include "translate/model_ops.h"

namespace laytran {

namespace {

constexpr double cli_output_unit = 0.01;
constexpr double inch_mm = 25.4;
// Tolerance of the platform test: the spacing of 32-bit floats at 1.0.
constexpr double unit_tolerance = 1.1920928955078125e-07;
// The error code every module's table gives "no more memory".
constexpr int no_memory_code = 11;
// Bytes read or written between two progress reports.
constexpr std::uint64_t progress_step = std::uint64_t(1) << 20;

StreamError no_memory() {
    StreamError e;
    e.code = no_memory_code;
    e.text = "no more memory";
    return e;
}

// printf's "%g" of v.
std::string g(double v) {
    char text[NUMBER_TEXT_MAX];
    return std::string(text, format_g(v, text));
}

const char *input_name(InputFormat f) {
    switch (f) {
    case InputFormat::slc:
        return "SLC";
    case InputFormat::fdm:
        return "FDM";
    default:
        return "CLI";
    }
}

const char *output_name(OutputForm f) {
    if (f == OutputForm::slc) return "SLC";
    if (f == OutputForm::fdm) return "FDM";
    return "CLI";
}

bool holds_contours(const Model &model) {
    for (const Layer &layer : model.layers) {
        if (!layer.contours.empty()) return true;
    }
    return false;
}

} // namespace

// InputBytes

InputBytes InputBytes::descriptor(int fd, std::string name) {
    InputBytes in;
    in.fd_ = fd;
    in.name_ = std::move(name);
    return in;
}

InputBytes InputBytes::stream(std::FILE *stream, std::string name) {
    InputBytes in;
    in.stream_ = stream;
    in.name_ = std::move(name);
    return in;
}

InputBytes InputBytes::memory(const void *data, std::size_t size, std::string name) {
    InputBytes in;
    in.data_ = data;
    in.size_ = size;
    in.name_ = std::move(name);
    return in;
}

std::unique_ptr<ByteInput> InputBytes::open() {
    if (!stream_ && fd_ < 0) return std::make_unique<ByteInput>(data_, size_);
    const int fd = stream_ ? fileno(stream_) : fd_;
    if (!opened_) {
        opened_ = true;
        struct stat st;
        start_ = stream_ ? ftello(stream_) : lseek(fd, 0, SEEK_CUR);
        rereadable_ = start_ >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    } else if (!rereadable_ || (stream_ ? fseeko(stream_, start_, SEEK_SET) != 0
                                        : lseek(fd, start_, SEEK_SET) != start_)) {
        return nullptr;
    }
    if (stream_) return std::make_unique<ByteInput>(stream_);
    return std::make_unique<ByteInput>(fd_);
}

// Translation

Translation::Translation(const TranslateOptions &options, DiagnosticSink sink,
                         FormatFactories formats)
    : options_(options), sink_(std::move(sink)), formats_(std::move(formats)) {}

bool Translation::options_valid() {
    if (options_.unit_mm >= 0.0 && !std::isinf(options_.unit_mm)) return true;
    reporter_.error("the output unit must be a positive number of millimetres, not " +
                    g(options_.unit_mm));
    return false;
}

std::unique_ptr<LayerSource> Translation::open_source(ByteInput &in) {
    SourceOptions so;
    so.keep_empty_layers = options_.keep_empty_layers;
    so.verbosity = options_.verbosity;
    so.file_name = input_name_;
    std::unique_ptr<LayerSource> source;
    try {
        source = formats_.source(options_.input, in, reporter_, so);
    } catch (const std::bad_alloc &) {
    }
    if (!source)
        reporter_.error(std::string("failed to initialize the ") + input_name(options_.input) +
                        " input.");
    return source;
}

std::unique_ptr<LayerSink> Translation::open_sink(ByteOutput &out) {
    std::unique_ptr<LayerSink> sink;
    try {
        sink = formats_.sink(options_.output, out, reporter_);
    } catch (const std::bad_alloc &) {
    }
    if (!sink)
        reporter_.error(std::string("failed to initialize the ") + output_name(options_.output) +
                        " output.");
    return sink;
}

void Translation::progress(const ByteInput *in, const ByteOutput *out, bool force) {
    if (!options_.progress) return;
    const std::uint64_t read = in ? in->offset() : 0, written = out ? out->offset() : 0;
    if (!force && read + written < progress_mark_ + progress_step) return;
    progress_mark_ = read + written;
    options_.progress(read, in && in->size_known() ? in->size() : 0, written);
}

bool Translation::load(LayerSource &source, ByteInput &in, const ByteOutput *out) {
    model_ = Model{};
    bool ok = true;
    try {
        Layer layer;
        while (source.next_layer(layer)) {
            model_.layers.push_back(std::move(layer));
            layer = Layer{};
            progress(&in, out, false);
        }
    } catch (const std::bad_alloc &) {
        input_failure_ = no_memory();
        ok = false;
    }
    try {
        model_.header = source.header();
    } catch (const std::bad_alloc &) {
        input_failure_ = no_memory();
        ok = false;
    }
    progress(&in, out, true);
    return ok;
}

double Translation::output_unit(double input_unit) const {
    if (options_.unit_mm > 0.0) return options_.unit_mm;
    if (is_cli(options_.output)) return cli_output_unit;
    if (options_.output == OutputForm::slc) return input_unit == inch_mm ? inch_mm : 1.0;
    return inch_mm;
}

// Warns about negative coordinates and, when asked, moves the model. False
// (after the message) when the move takes a value beyond float range.
bool Translation::place(Bounds &b) {
    reporter_.warning("model is not entirely in the positive quadrant");
    if (!options_.move_positive && !needs_positive(options_.output)) {
        reporter_.info("the minimum xyz-coordinates are " + g(b.xmin) + ", " + g(b.ymin) +
                       ", and " + g(b.zmin));
        reporter_.info("the option -P can be used to move the model");
        return true;
    }
    const double dx = b.xmin < 0.0 ? -b.xmin : 0.0;
    const double dy = b.ymin < 0.0 ? -b.ymin : 0.0;
    const double dz = b.zmin < 0.0 ? -b.zmin : 0.0;
    const std::size_t bad = move(model_, dx, dy, dz);
    reporter_.info("moving the model by XYZ=+" + g(dx) + ",+" + g(dy) + ",+" + g(dz));
    if (bad < model_.layers.size()) {
        reporter_.error("moving the model makes a coordinate of layer " + std::to_string(bad + 1) +
                        " infinite");
        return false;
    }
    b.xmin += dx;
    b.xmax += dx;
    b.ymin += dy;
    b.ymax += dy;
    b.zmin += dz;
    b.zmax += dz;
    if (b.zmin <= unit_tolerance)
        reporter_.info("min. z-coordinate places the part close to, or on the platform");
    return true;
}

OutputPlan Translation::plan(const Model &model, const Bounds &bounds, double unit) const {
    OutputPlan plan;
    plan.layer_count = model.layers.size();
    plan.levels.reserve(model.layers.size());
    for (const Layer &layer : model.layers)
        plan.levels.push_back(layer.z);
    plan.bounds = bounds;
    plan.counts = count(model);
    plan.unit_mm = unit;
    plan.unit_given = options_.unit_mm > 0.0;
    plan.source = &model.header;
    plan.cli_header = options_.cli_header;
    return plan;
}

// Hands the layers to the sink, each multiplied by `factor` first unless it
// is 1, then the sink's remarks. False when the sink stopped.
bool Translation::write_layers(LayerSink &sink, const OutputPlan &plan, const Model &model,
                               double factor, const ByteInput *in, ByteOutput &out) {
    bool ok = false;
    try {
        if (sink.begin(plan)) {
            Layer scaled;
            Bounds unused = empty_bounds();
            ok = true;
            for (std::size_t i = 0; ok && i < model.layers.size(); i++) {
                if (factor == 1.0) {
                    ok = sink.write_layer(model.layers[i]);
                } else {
                    scaled = model.layers[i];
                    scale(scaled, factor, unused);
                    ok = sink.write_layer(scaled);
                }
                progress(in, &out, false);
            }
            if (ok) sink.report_run_end(reporter_);
        }
    } catch (const std::bad_alloc &) {
        output_failure_ = no_memory();
        ok = false;
    }
    // A sink that stopped without saying why ran out of memory.
    if (!ok && !sink.error() && !output_failure_) output_failure_ = no_memory();
    return ok;
}

void Translation::report_stream_error(const char *what, const StreamError &e,
                                      const std::string &file, bool located) {
    std::string text = !e.detail.empty() ? e.detail : e.text ? e.text : "<unknown>";
    if (e.system_error != 0) text += ": " + system_error_text(e.system_error);
    Diagnostic d;
    d.severity = Severity::error;
    d.text = std::string("error ") + what + " file (" + text + ")";
    d.file = file;
    if (located) d.offset = static_cast<std::int64_t>(e.offset);
    d.token = e.token;
    reporter_.report(std::move(d));
}

// The error lines of the input and then of the output; true when neither
// has one.
bool Translation::check(const LayerSource *source, const LayerSink *sink) {
    bool ok = true;
    if (source && source->error()) {
        report_stream_error("reading input", source->error(), input_name_, true);
        ok = false;
    } else if (input_failure_) {
        report_stream_error("reading input", input_failure_, input_name_, false);
        ok = false;
    }
    if (sink && sink->error()) {
        report_stream_error("writing output", sink->error(), output_name_, true);
        ok = false;
    } else if (output_failure_) {
        report_stream_error("writing output", output_failure_, output_name_, false);
        ok = false;
    }
    return ok;
}

bool Translation::run(InputBytes &input, ByteOutput &out, const std::string &output_name) {
    input_name_ = input.name();
    output_name_ = output_name;
    if (!options_valid()) return false;
    std::unique_ptr<ByteInput> in = input.open();
    if (!in) {
        reporter_.error("error reading input file (read error)");
        return false;
    }
    std::unique_ptr<LayerSource> source = open_source(*in);
    if (!source) return false;
    std::unique_ptr<LayerSink> sink = open_sink(out);
    if (!sink) return false;

    bool loaded = load(*source, *in, &out);
    if (loaded) source->report_read_end(reporter_);
    // An SLC or FDM input that failed to read is reported now, and nothing
    // is written; a CLI input writes what was read and is reported at the
    // end.
    const bool cli_input = options_.input == InputFormat::cli;
    if (loaded && !cli_input) loaded = check(source.get(), sink.get());

    bool placed = true, begun = false;
    if (loaded) {
        if (!holds_contours(model_) && !(cli_input && source->error()))
            reporter_.warning("the input holds no geometry");
        const double unit = output_unit(model_.header.unit_mm);
        const double factor = model_.header.unit_mm / unit;
        Bounds bounds;
        const std::size_t bad = scale(model_, factor, bounds);
        if (bad < model_.layers.size()) {
            reporter_.error("scaling by " + g(factor) +
                            " to the output unit makes a coordinate of layer " +
                            std::to_string(bad + 1) + " infinite (choose a larger unit with -U)");
            placed = false;
        } else if (is_negative(bounds)) {
            placed = place(bounds);
        }
        if (placed && options_.reverse) reverse(model_, options_.reverse_directions);
        if (placed) {
            begun = true;
            write_layers(*sink, plan(model_, bounds, unit), model_, 1.0, in.get(), out);
        }
    }
    // End the output now, so that a failure of its last write is reported
    // like any other.
    if (begun && !sink->finish() && !sink->error() && !output_failure_)
        output_failure_ = no_memory();
    if (!begun) out.finish();
    gaps_ = sink->gaps();
    progress(in.get(), &out, true);
    source->report_run_end(reporter_);
    return check(source.get(), sink.get()) && placed;
}

bool Translation::read(InputBytes &input) {
    input_name_ = input.name();
    std::unique_ptr<ByteInput> in = input.open();
    if (!in) {
        reporter_.error("error reading input file (read error)");
        return false;
    }
    std::unique_ptr<LayerSource> source = open_source(*in);
    if (!source) return false;
    if (load(*source, *in, nullptr)) source->report_read_end(reporter_);
    source->report_run_end(reporter_);
    return check(source.get(), nullptr);
}

bool Translation::write(const Model &model, ByteOutput &out, const std::string &output_name) {
    output_name_ = output_name;
    if (!options_valid()) return false;
    std::unique_ptr<LayerSink> sink = open_sink(out);
    if (!sink) return false;
    const double unit = output_unit(model.header.unit_mm);
    const double factor = model.header.unit_mm / unit;
    Bounds bounds;
    const std::size_t bad = scaled_bounds(model, factor, bounds);
    bool ready = false;
    if (bad < model.layers.size()) {
        reporter_.error("scaling by " + g(factor) +
                        " to the output unit makes a coordinate of layer " +
                        std::to_string(bad + 1) + " infinite (choose a larger unit)");
    } else if (needs_positive(options_.output) && is_negative(bounds)) {
        reporter_.error("the output form holds non-negative values only, but the minimum "
                        "xyz-coordinates are " +
                        g(bounds.xmin) + ", " + g(bounds.ymin) + ", and " + g(bounds.zmin));
    } else {
        ready = true;
        write_layers(*sink, plan(model, bounds, unit), model, factor, nullptr, out);
        if (!sink->finish() && !sink->error() && !output_failure_) output_failure_ = no_memory();
    }
    if (!ready) out.finish();
    gaps_ = sink->gaps();
    return check(nullptr, sink.get()) && ready;
}

} // namespace laytran
