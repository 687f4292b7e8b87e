#include "translate/translation.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "support/memory_budget.h"
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

const char *output_name(OutputForm f) {
    if (f == OutputForm::slc) return "SLC";
    if (f == OutputForm::fdm) return "FDM";
    return "CLI";
}

StreamError read_error(int system_error, const char *text = "read error") {
    StreamError e;
    e.code = 2; // every module's code of its read errors
    e.text = text;
    e.system_error = system_error;
    return e;
}

// The memory a model read from `size` bytes is taken to need, for the
// decision to keep it: twice the bytes. The densest texts ("1,2," a point)
// and the 16-bit binary forms take 8 bytes of memory for 4 of the file;
// everything else less. What the layers really take is watched as they are
// kept, so that a file denser still falls back to a second reading.
std::uint64_t estimated_model(std::uint64_t size) {
    return size > UINT64_MAX / 2 ? UINT64_MAX : 2 * size;
}

// A binary input file from this size on is read twice rather than kept:
// its layers come again from the system's cache for little more than a
// copy, while keeping them takes as much fresh memory, which the system
// must find, clear and map page by page.
constexpr std::uint64_t reread_binary_size = std::uint64_t(32) << 20;

// An output written during the first reading starts with the layer count
// its input declares, or else once this much of the input was read, with
// the count guessed from it (or at the end of a smaller input, with the
// count known).
constexpr std::uint64_t speculation_start = std::uint64_t(8) << 20;

StreamError write_error(int system_error) {
    StreamError e;
    e.code = 3; // every module's code of its write errors
    e.text = "write error";
    e.system_error = system_error;
    return e;
}

// Whether the input read so far is binary (its points cheap to read again).
bool binary_input(const ModelHeader &h) {
    return h.format == InputFormat::slc ||
           (h.format == InputFormat::cli && h.variant.compare(0, 6, "binary") == 0);
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
    const int fd = descriptor();
    if (!opened_) {
        opened_ = true;
        struct stat st;
        start_ = stream_ ? ftello(stream_) : lseek(fd, 0, SEEK_CUR);
        rereadable_ = start_ >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
        if (rereadable_) {
            file_size_ = st.st_size;
            modified_ = st.st_mtim;
        }
    } else if (!rereadable_ || (stream_ ? fseeko(stream_, start_, SEEK_SET) != 0
                                        : lseek(fd, start_, SEEK_SET) != start_)) {
        return nullptr;
    }
    if (stream_) return std::make_unique<ByteInput>(stream_);
    return std::make_unique<ByteInput>(fd_);
}

bool InputBytes::changed() const {
    if (!rereadable_) return false;
    struct stat st;
    if (fstat(descriptor(), &st) != 0) return false;
    return st.st_size != file_size_ || st.st_mtim.tv_sec != modified_.tv_sec ||
           st.st_mtim.tv_nsec != modified_.tv_nsec;
}

// Translation

// What the first reading learns: the converted model's levels, bounds and
// counts, the input's header, and the conversion.
struct Translation::Survey {
    std::vector<float> levels;
    Bounds bounds = empty_bounds();
    Counts counts;
    ModelHeader header;
    double unit = 1.0, factor = 1.0;
    std::size_t bad_layer = SIZE_MAX; // the first layer that left the float range
    bool kept = false;                // every layer is in the store
    bool reread_binary = false;       // a large binary input is read twice
    bool moving = false;
    double dx = 0, dy = 0, dz = 0;
};

// Writing during the first reading (see translation.h): the sink, whose
// messages wait here; the layers held until the count is guessed; the
// bytes of the header to write again once the count is known.
struct Translation::Speculation {
    explicit Speculation(ByteOutput &out) : out(out) {}
    ByteOutput &out;
    std::vector<Diagnostic> messages;
    DiagnosticSink collect = [this](const Diagnostic &d) { messages.push_back(d); };
    Reporter reporter{collect};
    std::unique_ptr<LayerSink> sink;
    std::vector<Layer> held;
    std::uint64_t guess = 0;
    bool begun = false, failed = false;
    std::uint64_t patch_at = 0;
    std::string patch;
};

// The converted layers once more, in order: from the store, from a model
// (converted on the way), or read again from the input (converted anew).
class Translation::Replay {
  public:
    explicit Replay(const LayerStore &store) : store_(&store) {}
    Replay(const Model &model, double factor) : model_(&model), factor_(factor) {}
    Replay(std::unique_ptr<ByteInput> in, std::unique_ptr<LayerSource> source, double factor)
        : in_(std::move(in)), source_(std::move(source)), factor_(factor) {}

    // The next layer into `layer`; false at the end.
    bool next(Layer &layer) {
        if (store_) {
            if (next_ == store_->size()) return false;
            store_->get(next_++, layer);
            return true;
        }
        if (model_) {
            if (next_ == model_->layers.size()) return false;
            layer = model_->layers[next_++];
        } else if (!source_->next_layer(layer)) {
            return false;
        }
        if (factor_ != 1.0) {
            Bounds unused = empty_bounds();
            scale(layer, factor_, unused);
        }
        return true;
    }
    // The source of a second reading (null otherwise) and its input.
    const LayerSource *source() const { return source_.get(); }
    const ByteInput *input() const { return in_.get(); }

  private:
    const LayerStore *store_ = nullptr;
    const Model *model_ = nullptr;
    std::unique_ptr<ByteInput> in_;
    std::unique_ptr<LayerSource> source_;
    double factor_ = 1.0;
    std::size_t next_ = 0;
};

Translation::Translation(const TranslateOptions &options, DiagnosticSink sink,
                         FormatFactories formats)
    : options_(options), sink_(std::move(sink)), formats_(std::move(formats)) {}

bool Translation::options_valid() {
    if (options_.unit_mm >= 0.0 && !std::isinf(options_.unit_mm)) return true;
    reporter_.error("the output unit must be a positive number of millimetres, not " +
                    g(options_.unit_mm));
    return false;
}

std::uint64_t Translation::memory_budget() {
    if (options_.memory_budget != 0) return options_.memory_budget;
    const char *text = std::getenv("LAYTRAN_MEMORY");
    if (text && *text) {
        if (std::optional<std::uint64_t> v = parse_memory_size(text)) return *v;
        reporter_.warning(std::string("LAYTRAN_MEMORY is not a size in bytes (K, M, G or T may "
                                      "follow the number): ") +
                          text + "; half the physical memory is used");
    }
    return default_memory_budget();
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
        reporter_.error(std::string("failed to initialize the ") + format_label(options_.input) +
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
    const std::uint64_t read = read_before_ + (in ? in->offset() : 0),
                        written = out ? out->offset() : 0;
    if (!force && read + written < progress_mark_ + progress_step) return;
    progress_mark_ = read + written;
    const std::uint64_t total = in && in->size_known() ? in->size() * readings_ : 0;
    options_.progress(read, total, written);
}

bool Translation::load(LayerSource &source, ByteInput &in) {
    model_ = Model{};
    bool ok = true;
    try {
        Layer layer;
        while (source.next_layer(layer)) {
            model_.layers.push_back(std::move(layer));
            layer = Layer{};
            progress(&in, nullptr, false);
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
    progress(&in, nullptr, true);
    return ok;
}

// The first reading: every layer converted to the output unit, its level,
// bounds and counts taken, and the layer kept in `store` (when given) while
// the store stays within `budget`; past it the store is emptied and the
// layers are to be read again. False when memory ran out.
bool Translation::survey(LayerSource &source, ByteInput &in, const ByteOutput &out,
                         LayerStore *store, std::uint64_t budget, Survey &s, Speculation *spec) {
    bool ok = true;
    s.kept = store != nullptr;
    try {
        Layer layer;
        while (source.next_layer(layer)) {
            if (s.counts.layers == 0) {
                // The unit is known with the first layer.
                s.unit = output_unit(source.header().unit_mm);
                s.factor = source.header().unit_mm / s.unit;
                if (s.kept && s.reread_binary && binary_input(source.header())) {
                    s.kept = false;
                    readings_ = 2;
                }
            }
            if (!scale(layer, s.factor, s.bounds, s.kept || spec, source.extremes()) &&
                s.bad_layer == SIZE_MAX)
                s.bad_layer = s.counts.layers;
            add_counts(s.counts, layer);
            s.levels.push_back(layer.z);
            if (s.kept && (!store->append(layer) || store->bytes() > budget)) {
                store->clear();
                s.kept = false;
                readings_ = 2;
                if (budget == UINT64_MAX) throw std::bad_alloc();
            }
            if (spec) speculate(*spec, layer, s, in, source);
            progress(&in, &out, false);
        }
        s.header = source.header();
        if (s.counts.layers == 0) {
            s.unit = output_unit(s.header.unit_mm);
            s.factor = s.header.unit_mm / s.unit;
        }
    } catch (const std::bad_alloc &) {
        input_failure_ = no_memory();
        ok = false;
    }
    progress(&in, &out, true);
    return ok;
}

// Whether the output may be written during the first reading: an own file
// from its start, in a form whose first bytes need only the layer count,
// from an input that can be read again.
bool Translation::may_speculate(const ByteOutput &out, const ByteInput &in, bool again) const {
    const OutputForm f = options_.output;
    return again && in.size_known() && out.rewritable() && out.offset() == 0 &&
           (f == OutputForm::cli_binary || f == OutputForm::cli_ascii) &&
           options_.cli_header == CliHeaderStyle::classic && !options_.move_positive;
}

// One layer of the first reading, converted: held until the count can be
// guessed, then written.
void Translation::speculate(Speculation &spec, Layer &layer, const Survey &s, const ByteInput &in,
                            const LayerSource &source) {
    if (spec.failed) return;
    try {
        if (!spec.begun) {
            spec.held.push_back(std::move(layer));
            layer = Layer{};
            // The count the input declares, else as many layers as the whole
            // input holds at the density so far.
            std::uint64_t guess = source.header().declared_layers;
            if (guess == 0) {
                if (in.offset() < speculation_start) return;
                const double whole = static_cast<double>(spec.held.size()) *
                                     static_cast<double>(in.size()) /
                                     static_cast<double>(in.offset());
                guess = std::max<std::uint64_t>(spec.held.size(),
                                                static_cast<std::uint64_t>(whole + 0.5));
            }
            begin_speculation(spec, s, source, guess);
            return;
        }
        write_speculated(spec, layer);
    } catch (const std::bad_alloc &) {
        spec.failed = true;
        spec.held.clear();
    }
}

// Starts the speculative output for `layers` layers and writes the layers
// held so far.
void Translation::begin_speculation(Speculation &spec, const Survey &s, const LayerSource &source,
                                    std::uint64_t layers) {
    spec.begun = true;
    spec.guess = layers;
    OutputPlan p = plan(s);
    p.layer_count = layers;
    p.source = &source.header();
    spec.sink = formats_.sink(options_.output, spec.out, spec.reporter);
    spec.failed = !spec.sink || !spec.sink->begin(p);
    for (Layer &layer : spec.held)
        write_speculated(spec, layer);
    spec.held.clear();
    spec.held.shrink_to_fit();
}

// One layer to the speculative output, reversed as the options say.
void Translation::write_speculated(Speculation &spec, Layer &layer) {
    if (spec.failed) return;
    if (options_.reverse) reverse(layer, options_.reverse_directions);
    spec.failed = !spec.sink->write_layer(layer);
}

// The bytes to write over the speculative header: those where the header
// for the true count differs from the guessed one. False when the two
// differ in length (the layers would have to move).
bool Translation::header_patch(Speculation &spec, const Survey &s) {
    auto head = [&](std::uint64_t layers, std::string &bytes) {
        ByteOutput mem(&bytes);
        const DiagnosticSink none;
        Reporter quiet(none);
        std::unique_ptr<LayerSink> sink = formats_.sink(options_.output, mem, quiet);
        OutputPlan p = plan(s);
        p.layer_count = layers;
        return sink && sink->begin(p) && sink->finish() && mem.finish();
    };
    std::string guessed, real;
    if (!head(spec.guess, guessed) || !head(s.counts.layers, real) || guessed.size() != real.size())
        return false;
    std::size_t first = 0, last = real.size();
    while (first < last && guessed[first] == real[first])
        first++;
    while (last > first && guessed[last - 1] == real[last - 1])
        last--;
    spec.patch_at = first;
    spec.patch = real.substr(first, last - first);
    return true;
}

// The layers once more: from the store when they were kept, else from a
// second reading of the input. Null (after the failure was noted) when the
// input cannot be read again.
std::unique_ptr<Translation::Replay> Translation::replay(InputBytes &input, LayerStore *store,
                                                         double factor) {
    if (store) return std::make_unique<Replay>(*store);
    std::unique_ptr<ByteInput> in = input.open();
    if (!in) {
        input_failure_ = read_error(errno);
        return nullptr;
    }
    std::unique_ptr<LayerSource> source = open_source(*in);
    if (!source) return nullptr;
    return std::make_unique<Replay>(std::move(in), std::move(source), factor);
}

double Translation::output_unit(double input_unit) const {
    if (options_.unit_mm > 0.0) return options_.unit_mm;
    if (is_cli(options_.output)) return cli_output_unit;
    if (options_.output == OutputForm::slc) return input_unit == inch_mm ? inch_mm : 1.0;
    return inch_mm;
}

// Warns about negative coordinates and, when asked, plans the move. False
// (after the message) when the move takes a value beyond float range.
bool Translation::place(Survey &s, InputBytes &input, LayerStore *store) {
    Bounds &b = s.bounds;
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
    reporter_.info("moving the model by XYZ=+" + g(dx) + ",+" + g(dy) + ",+" + g(dz));
    if (!movable(b, dx, dy, dz)) {
        // Which layer: the first whose move fails.
        std::size_t bad = 0;
        if (std::unique_ptr<Replay> layers = replay(input, store, s.factor)) {
            Layer layer;
            while (layers->next(layer) && move(layer, dx, dy, dz))
                bad++;
        }
        reporter_.error("moving the model makes a coordinate of layer " + std::to_string(bad + 1) +
                        " infinite");
        return false;
    }
    s.moving = true;
    s.dx = dx;
    s.dy = dy;
    s.dz = dz;
    move(s.levels, dz);
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

OutputPlan Translation::plan(const Survey &s) const {
    OutputPlan plan;
    plan.layer_count = s.counts.layers;
    plan.levels = s.levels;
    plan.bounds = s.bounds;
    plan.counts = s.counts;
    plan.unit_mm = s.unit;
    plan.unit_given = options_.unit_mm > 0.0;
    plan.source = &s.header;
    plan.cli_header = options_.cli_header;
    return plan;
}

// Hands the layers to the sink, moved as `s` says and reversed as the
// options say, then the sink's remarks. With `verify`, the layers come from
// a second reading, which must give those of the first (`s`): a difference
// stops the writing and fails the run. False when the writing stopped.
bool Translation::write_layers(LayerSink &sink, const OutputPlan &plan, Replay &layers,
                               const Survey &s, bool verify, const ByteInput *in, ByteOutput &out) {
    bool ok = false, same = true;
    try {
        if (sink.begin(plan)) {
            Layer layer;
            Counts seen;
            ok = true;
            for (std::size_t i = 0; ok && layers.next(layer); i++) {
                if (verify) add_counts(seen, layer);
                if (s.moving) move(layer, s.dx, s.dy, s.dz);
                if (options_.reverse) reverse(layer, options_.reverse_directions);
                if (verify && (i >= plan.levels.size() || layer.z != plan.levels[i])) {
                    same = ok = false;
                    break;
                }
                ok = sink.write_layer(layer);
                progress(in, &out, false);
            }
            if (ok && verify) {
                const Counts &n = s.counts;
                same = ok = seen.layers == n.layers && seen.points == n.points &&
                            seen.part_contours == n.part_contours &&
                            seen.open_polylines == n.open_polylines &&
                            seen.hatch_blocks == n.hatch_blocks &&
                            seen.support_contours == n.support_contours &&
                            seen.web_contours == n.web_contours;
            }
            if (ok) sink.report_run_end(reporter_);
        }
    } catch (const std::bad_alloc &) {
        output_failure_ = no_memory();
        ok = false;
    }
    if (!same) {
        input_failure_ = read_error(0, "the input file changed while it was read");
    } else if (!ok && !sink.error() && !output_failure_) {
        // A sink that stopped without saying why ran out of memory.
        output_failure_ = no_memory();
    }
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
    const std::uint64_t budget = memory_budget();
    std::unique_ptr<ByteInput> in = input.open();
    if (!in) {
        reporter_.error("error reading input file (read error)");
        return false;
    }
    std::unique_ptr<LayerSource> source = open_source(*in);
    if (!source) return false;
    std::unique_ptr<LayerSink> sink = open_sink(out);
    if (!sink) return false;

    // The layers are kept for the writing unless an input that can be read
    // again would not fit the budget.
    const bool again = input.rereadable();
    const bool keep = !again || !in->size_known() || estimated_model(in->size()) <= budget;
    LayerStore store;
    Survey s;
    s.reread_binary = again && in->size_known() && in->size() >= reread_binary_size;
    std::unique_ptr<Speculation> spec;
    if (may_speculate(out, *in, again)) spec = std::make_unique<Speculation>(out);
    readings_ = keep || spec ? 1 : 2;
    bool loaded = survey(*source, *in, out, keep && !spec ? &store : nullptr,
                         again ? budget : UINT64_MAX, s, spec.get());
    if (loaded) source->report_read_end(reporter_);
    // An SLC or FDM input that failed to read is reported now, and nothing
    // is written; a CLI input writes what was read and is reported at the
    // end.
    const bool cli_input = options_.input == InputFormat::cli;
    if (loaded && !cli_input) loaded = check(source.get(), sink.get());

    LayerStore *kept = s.kept ? &store : nullptr;
    const LayerSource *reading = source.get(); // whose errors the run reports
    const ByteInput *last_in = in.get();       // the input as read last
    LayerSink *writer = sink.get();            // the sink the output went through
    std::unique_ptr<Replay> layers;            // the layers for the writing
    bool placed = true, begun = false, streamed = false;
    if (loaded) {
        if (s.counts.layers == s.counts.empty_layers && !(cli_input && source->error()))
            reporter_.warning("the input holds no geometry");
        if (s.bad_layer != SIZE_MAX) {
            reporter_.error(
                "scaling by " + g(s.factor) + " to the output unit makes a coordinate of layer " +
                std::to_string(s.bad_layer + 1) + " infinite (choose a larger unit with -U)");
            placed = false;
        } else if (is_negative(s.bounds)) {
            placed = place(s, input, kept);
        }
        // What was written during the reading stands when the reading went
        // through plainly and the true count's header takes the room of the
        // guessed one.
        if (placed && spec && !spec->failed && !s.moving && !source->error() && !input_failure_) {
            try {
                if (!spec->begun) begin_speculation(*spec, s, *source, s.counts.layers);
                if (!spec->failed && header_patch(*spec, s)) {
                    writer = spec->sink.get();
                    streamed = begun = true;
                    for (const Diagnostic &d : spec->messages)
                        reporter_.report(d);
                    writer->report_run_end(reporter_);
                }
            } catch (const std::bad_alloc &) {
            }
        }
    }
    // Otherwise what was written goes, and the run goes on without it.
    bool writable = true;
    if (spec && !streamed) {
        spec->sink.reset();
        if (spec->begun && !out.restart()) {
            output_failure_ = write_error(errno);
            writable = false;
        }
    }
    if (loaded && placed && writable && !streamed) {
        if (!kept) {
            read_before_ = in->offset();
            readings_ = 2;
        }
        layers = replay(input, kept, s.factor);
        if (layers) {
            begun = true;
            if (layers->input()) last_in = layers->input();
            if (!write_layers(*sink, plan(s), *layers, s, !kept, last_in, out) && !kept &&
                input_failure_)
                reading = layers->source(); // the second reading failed
        } else {
            reading = nullptr;
        }
    }
    // A file written to while it was read (by a tool still writing it, say)
    // gave a mix of two files, even where the counts agree.
    if (begun && !input_failure_ && input.changed())
        input_failure_ = read_error(0, "the input file changed while it was read");
    // End the output now, so that a failure of its last write is reported
    // like any other.
    if (begun && !writer->finish() && !writer->error() && !output_failure_)
        output_failure_ = no_memory();
    // The header of the true count over the guessed one.
    if (streamed && !writer->error() && !output_failure_ && !spec->patch.empty() &&
        !out.patch(spec->patch_at, spec->patch.data(), spec->patch.size()))
        output_failure_ = write_error(out.error_number());
    if (!begun) out.finish();
    gaps_ = writer->gaps();
    progress(last_in, &out, true);
    source->report_run_end(reporter_);
    return check(reading, writer) && placed;
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
    if (load(*source, *in)) source->report_read_end(reporter_);
    source->report_run_end(reporter_);
    return check(source.get(), nullptr);
}

bool Translation::write(const Model &model, ByteOutput &out, const std::string &output_name) {
    output_name_ = output_name;
    if (!options_valid()) return false;
    std::unique_ptr<LayerSink> sink = open_sink(out);
    if (!sink) return false;
    Survey s;
    s.unit = output_unit(model.header.unit_mm);
    s.factor = model.header.unit_mm / s.unit;
    const std::size_t bad = scaled_bounds(model, s.factor, s.bounds);
    bool ready = false;
    if (bad < model.layers.size()) {
        reporter_.error("scaling by " + g(s.factor) +
                        " to the output unit makes a coordinate of layer " +
                        std::to_string(bad + 1) + " infinite (choose a larger unit)");
    } else if (needs_positive(options_.output) && is_negative(s.bounds)) {
        reporter_.error("the output form holds non-negative values only, but the minimum "
                        "xyz-coordinates are " +
                        g(s.bounds.xmin) + ", " + g(s.bounds.ymin) + ", and " + g(s.bounds.zmin));
    } else {
        ready = true;
        OutputPlan p;
        try {
            s.counts = count(model);
            for (const Layer &layer : model.layers)
                s.levels.push_back(static_cast<float>(layer.z * s.factor));
            p = plan(s);
            p.source = &model.header;
        } catch (const std::bad_alloc &) {
            output_failure_ = no_memory();
        }
        Replay layers(model, s.factor);
        if (!output_failure_) write_layers(*sink, p, layers, s, false, nullptr, out);
        if (!sink->finish() && !sink->error() && !output_failure_) output_failure_ = no_memory();
    }
    if (!ready) out.finish();
    gaps_ = sink->gaps();
    return check(nullptr, sink.get()) && ready;
}

} // namespace laytran
