// The CLI source and sink: between the engine's layers and the CLI reader
// and writer.
#include "formats/cli/cli_layers.h"

#include <charconv>
#include <cmath>
#include <string>

#include "formats/cli/cli_reader.h"
#include "formats/cli/cli_writer.h"
#include "formats/layer_helper.h"
#include "support/number_text.h"

namespace laytran {

namespace {

// The spacing of floats at 1.0: units closer than this to 0.01 are 0.01.
constexpr double unit_tolerance = 1.1920928955078125e-07;
// The $$DIMENSION of the classic header, maximum corner first.
constexpr double classic_frame = 60000.0;
// Points of an ASCII layer from which two threads format it.
constexpr std::size_t parallel_points = 4096;

std::string g_text(double v) {
    char buf[NUMBER_TEXT_MAX];
    return std::string(buf, format_g(v, buf));
}

// The shortest text that reads back as the float v.
std::string float_text(double v) {
    char buf[NUMBER_TEXT_MAX];
    const float f = static_cast<float>(v) == 0.0f ? 0.0f : static_cast<float>(v);
    auto r = std::to_chars(buf, buf + sizeof buf, f);
    return std::string(buf, r.ptr);
}

void tell(Reporter &reporter, const std::string &file, Severity severity, std::string text) {
    Diagnostic d;
    d.severity = severity;
    d.text = std::move(text);
    d.file = file;
    reporter.report(std::move(d));
}

class CliSource final : public LayerSource {
  public:
    CliSource(ByteInput &in, Reporter &reporter, const SourceOptions &options)
        : reader_(in), options_(options) {
        header_.format = InputFormat::cli;
        if (options.check) {
            reader_.set_check([this, &reporter](const CliProblem &p) {
                Diagnostic d;
                d.severity = Severity::warning;
                d.text = !p.detail.empty() ? p.detail : cli_error_text(p.code);
                d.file = options_.file_name;
                d.offset = static_cast<std::int64_t>(p.offset);
                d.token = p.token;
                reporter.report(std::move(d));
            });
        }
    }

    bool next_layer(Layer &layer) override {
        // The contours of the layer given before are filled anew, so that
        // their memory serves again.
        std::size_t used = 0;
        layer.thickness = 0.0f;
        while (!done_) {
            // What opens the layer: a $$LAYER, or an element before any.
            CliReader::Event event = pending_layer_ ? CliReader::Event::layer : read();
            pending_layer_ = false;
            if (event == CliReader::Event::end) break;
            if (options_.check) open_places(event);
            layer.z = reader_.layer_z();
            if (event == CliReader::Event::element) add(layer, used);
            while ((event = read()) == CliReader::Event::element)
                add(layer, used);
            pending_layer_ = event == CliReader::Event::layer;
            update_variant();
            if (used > 0 || options_.keep_empty_layers) {
                layer.contours.resize(used);
                layers_out_++;
                return true;
            }
        }
        layer.contours.clear();
        update_variant();
        return false;
    }

    const ModelHeader &header() const override { return header_; }
    const StreamError &error() const override { return error_; }
    const LayerPlaces *places() const override { return options_.check ? &places_ : nullptr; }
    const PointExtremes *extremes() const override { return extremes_.data(); }

    void report_read_end(Reporter &reporter) override {
        if (reader_.error() != CliError::none) return;
        const std::string early = "input ends early: ";
        const CliHeaderInfo &h = reader_.header();
        // One warning for an early end, whichever way it shows.
        if (!reader_.ended_cleanly()) {
            warn(reporter,
                 early + "data after layer " + std::to_string(layers_out_) + " could not be read");
        } else if (h.layers > reader_.layers_read()) {
            warn(reporter, early + std::to_string(reader_.layers_read()) + " of the " +
                               std::to_string(h.layers) + " layers declared by $$LAYERS were read");
        } else if (h.geometry != CliGeometry::binary && !reader_.end_seen()) {
            warn(reporter,
                 early + "$$GEOMETRYEND is missing after layer " + std::to_string(layers_out_));
        }
        if (reader_.signed_short() && options_.verbosity >= 1 && options_.verbosity <= 5) {
            tell(reporter, options_.file_name, Severity::info,
                 "$$DIMENSION declares a negative minimum: 16-bit coordinates are read as signed "
                 "values");
        }
    }

    void report_run_end(Reporter &reporter) override {
        for (const CliSkipped &s : reader_.skipped()) {
            const std::string count = std::to_string(s.count) + " ";
            if (!s.name.empty())
                warn(reporter, count + "$$" + s.name +
                                   (s.count == 1 ? " command was" : " commands were") +
                                   " skipped (not held by the output)");
            else
                warn(reporter, count +
                                   (s.count == 1 ? "command of another keyword was"
                                                 : "commands of other keywords were") +
                                   " skipped (not held by the output)");
        }
    }

  private:
    CliReader::Event read() {
        const CliReader::Event event = reader_.next(element_);
        if (options_.check && event == CliReader::Event::layer) {
            next_layer_at_ = reader_.command_offset();
            next_layer_short_ = reader_.command_short();
        }
        if (!header_taken_) take_header();
        if (event == CliReader::Event::end) {
            done_ = true;
            if (reader_.error() != CliError::none) {
                error_.code = static_cast<int>(reader_.error());
                error_.text = cli_error_text(reader_.error());
                error_.system_error = reader_.system_error();
                error_.offset = reader_.error_offset();
                error_.token = reader_.error_token();
            }
        }
        return event;
    }

    // Check mode: the places of a layer opened by `event`.
    void open_places(CliReader::Event event) {
        const bool element = event == CliReader::Event::element;
        places_.layer = element ? reader_.command_offset() : next_layer_at_;
        places_.layer_short = !element && next_layer_short_;
        places_.contours.clear();
        places_.contour_short.clear();
    }

    void add(Layer &layer, std::size_t &used) {
        if (options_.check) {
            places_.contours.push_back(reader_.command_offset());
            places_.contour_short.push_back(reader_.command_short());
        }
        if (used == layer.contours.size()) layer.contours.emplace_back();
        Contour &c = layer.contours[used++];
        c.kind =
            element_.kind == CliElementKind::hatches ? ContourKind::hatches : ContourKind::part;
        c.id = element_.id;
        c.direction = element_.direction;
        c.gaps = 0;
        // The element takes the contour's old memory for the next one.
        c.points.swap(element_.points);
        if (extremes_.size() < used) extremes_.resize(used);
        extremes_[used - 1] = element_.extremes;
    }

    void take_header() {
        header_taken_ = true;
        const CliHeaderInfo &h = reader_.header();
        header_.unit_mm = h.units != 0.0f ? static_cast<double>(h.units) : 1.0;
        header_.declared_layers = h.layers;
        header_.labels = h.labels;
        header_.fields = h.fields;
    }

    void update_variant() {
        const CliHeaderInfo &h = reader_.header();
        const int seen = 1 | reader_.long_form_seen() << 1 | reader_.short_form_seen() << 2;
        if (seen == variant_seen_) return;
        variant_seen_ = seen;
        std::string v;
        if (h.geometry != CliGeometry::binary) {
            v = "ASCII";
        } else {
            v = "binary";
            const bool l = reader_.long_form_seen(), s = reader_.short_form_seen();
            if (l || s) v += l && s ? ", long and short form" : l ? ", long form" : ", short form";
            if (h.aligned) v += ", aligned";
        }
        header_.variant = v;
    }

    void warn(Reporter &reporter, std::string text) {
        tell(reporter, options_.file_name, Severity::warning, std::move(text));
    }

    CliReader reader_;
    SourceOptions options_;
    ModelHeader header_;
    StreamError error_;
    CliElement element_;
    std::vector<PointExtremes> extremes_; // of the contours handed out last
    std::uint64_t layers_out_ = 0;
    int variant_seen_ = 0; // the forms the variant text was made for
    bool header_taken_ = false;
    bool pending_layer_ = false; // a $$LAYER was read that opens the next layer
    bool done_ = false;
    // Check mode.
    LayerPlaces places_;
    std::uint64_t next_layer_at_ = 0;
    bool next_layer_short_ = false;
};

// The input's $$DATE, when it is a CLI file that gives one; else 0.
std::uint32_t source_date(const ModelHeader *h) {
    if (!h || h->format != InputFormat::cli) return 0;
    for (auto f = h->fields.rbegin(); f != h->fields.rend(); ++f) {
        if (f->key != "DATE") continue;
        long v = 0;
        scan_long(f->value.data(), f->value.data() + f->value.size(), &v);
        return static_cast<std::uint32_t>(v);
    }
    return 0;
}

// A label's text as the format can hold it: the bytes that would end it
// become blanks.
std::string label_text(std::string text) {
    for (char &c : text) {
        if (c == '$' || c == '/' || c == ',' || c == '\0' || c == '\n' || c == '\r') c = ' ';
    }
    return text;
}

class CliSink final : public LayerSink {
  public:
    CliSink(OutputForm form, ByteOutput &out, Reporter &reporter)
        : writer_(out, form), out_(out), reporter_(reporter),
          ascii_(form == OutputForm::cli_ascii) {}

    bool begin(const OutputPlan &plan) override {
        if (writer_.error() != CliError::none) return writer_failed(nullptr);
        const float units = static_cast<float>(plan.unit_mm);
        if (units != 0.0f && std::fabs(static_cast<double>(units) - 0.01) > unit_tolerance) {
            reporter_.warning("units different from 0.01(MM) may cause the conversion");
            reporter_.warning("  to SLI to fail.");
        }
        if (plan.layer_count > UINT32_MAX) return refuse(CliError::argument);
        CliWriteHeader h;
        h.units = units;
        h.date = source_date(plan.source);
        h.layers = static_cast<std::uint32_t>(plan.layer_count);
        faithful_ = plan.cli_header == CliHeaderStyle::faithful;
        if (!faithful_) {
            const std::string max = g_text(classic_frame), min = g_text(0.0);
            h.dimension = max + "," + max + "," + max + "," + min + "," + min + "," + min;
        } else {
            const Bounds &b = plan.bounds;
            if (!b.empty()) {
                for (double v : {b.xmin, b.ymin, b.zmin, b.xmax, b.ymax, b.zmax})
                    h.dimension += (h.dimension.empty() ? "" : ",") + float_text(v);
            }
            if (plan.source) {
                for (const Label &label : plan.source->labels)
                    h.labels.push_back({label.id, label_text(label.text)});
            }
        }
        writer_.set_header(std::move(h));
        begun_ = true;
        return true;
    }

    bool write_layer(const Layer &layer) override {
        if (error_) return false;
        if (!writer_.set_layer(layer.z)) return writer_failed(nullptr);
        // The faithful header goes out with the first layer, which keeps
        // layers without elements.
        if (faithful_ && !writer_.write_header(true)) return writer_failed(nullptr);
        const std::vector<Contour> &contours = layer.contours;
        if (!share(layer)) {
            for (const Contour &c : contours) {
                gaps_ += c.gaps;
                if (!write_contour(writer_, c)) return false;
            }
            return true;
        }
        // This thread writes contours from the front while the helper
        // formats them from the back; where the two met, the helper's texts
        // follow in order, or (when it could not make them) its contours
        // are written here.
        bool ok = true;
        for (std::size_t i = 0; ok && helper_.take_front(i);) {
            gaps_ += contours[i].gaps;
            ok = write_contour(writer_, contours[i]);
        }
        bool formatted = false;
        const std::size_t split = helper_.finish(formatted);
        if (!ok) return false;
        for (std::size_t i = split; i < contours.size(); i++)
            gaps_ += contours[i].gaps;
        if (formatted) {
            helper_.append_to(out_);
            return writer_.check_output() || writer_failed(nullptr);
        }
        for (std::size_t i = split; i < contours.size(); i++) {
            if (!write_contour(writer_, contours[i])) return false;
        }
        return true;
    }

    bool finish() override {
        if (finished_) return !error_;
        finished_ = true;
        // A model without elements still makes a whole file: the header
        // and an empty geometry.
        if (begun_ && !error_ && !writer_.write_header(!faithful_)) writer_failed(nullptr);
        if (!writer_.finish() && !error_) writer_failed(nullptr);
        return !error_;
    }

    const StreamError &error() const override { return error_; }
    std::uint64_t gaps() const override { return gaps_; }

  private:
    // ASCII geometry of many points is formatted on two threads: whether
    // the helper was handed the layer's contours to take from the back.
    bool share(const Layer &layer) {
        const std::vector<Contour> &contours = layer.contours;
        if (!ascii_ || !writer_.header_written() || contours.size() < 2 ||
            contours.size() > UINT32_MAX)
            return false;
        std::size_t points = 0;
        for (const Contour &c : contours)
            points += c.points.size();
        if (points < parallel_points) return false;
        return helper_.start(
            contours,
            [](ByteOutput &out) {
                std::unique_ptr<CliWriter> w(new CliWriter(out, OutputForm::cli_ascii));
                w->continue_geometry();
                return w;
            },
            [this](CliWriter &writer, const Contour &c) { return write_contour(writer, c); });
    }

    // A contour as one element, or split at its gap marks: each piece
    // before a mark as it is, what follows the last mark when it holds two
    // points or more.
    bool write_contour(CliWriter &writer, const Contour &c) {
        const CliElementKind kind =
            c.kind == ContourKind::part ? CliElementKind::polyline : CliElementKind::hatches;
        const Point *p = c.points.data();
        std::size_t n = c.points.size();
        if (c.gaps != 0) {
            std::size_t start = 0;
            for (std::size_t i = 0; i < n; i++) {
                if (!is_gap_mark(p[i])) continue;
                if (!write_piece(writer, kind, c, p + start, i - start)) return false;
                start = i + 1;
            }
            p += start;
            n -= start;
        }
        return n <= 1 || write_piece(writer, kind, c, p, n);
    }

    bool write_piece(CliWriter &writer, CliElementKind kind, const Contour &c, const Point *p,
                     std::size_t n) {
        if (writer.write_element(kind, c.id, c.direction, p, n)) return true;
        if (&writer != &writer_) return false; // the helper's: written here again
        const Piece piece = {kind, c.id};
        return writer_failed(&piece);
    }

    struct Piece {
        CliElementKind kind;
        std::uint32_t id;
    };

    bool refuse(CliError code) {
        if (!error_) {
            error_.code = static_cast<int>(code);
            error_.text = cli_error_text(code);
        }
        return false;
    }

    // Takes the writer's error; a value that did not fit its field is named
    // with where it is (piece null: the layer height) and what helps.
    bool writer_failed(const Piece *piece) {
        if (error_ || writer_.error() == CliError::none) return false;
        error_.code = static_cast<int>(writer_.error());
        error_.text = cli_error_text(writer_.error());
        error_.system_error = writer_.system_error();
        error_.offset = writer_.error_offset();
        if (writer_.error() == CliError::field) error_.detail = field_detail(piece);
        return false;
    }

    std::string field_detail(const Piece *piece) const {
        const CliFieldFault &f = writer_.fault();
        const bool hatches = piece && piece->kind == CliElementKind::hatches;
        const bool real =
            f.field == CliField::layer_height || f.field == CliField::x || f.field == CliField::y;
        const char *what = "value";
        switch (f.field) {
        case CliField::layer_height:
            what = "layer height";
            break;
        case CliField::id:
            what = "id";
            break;
        case CliField::direction:
            what = "direction";
            break;
        case CliField::count:
            what = hatches ? "hatch count" : "point count";
            break;
        case CliField::x:
            what = "x coordinate";
            break;
        case CliField::y:
            what = "y coordinate";
            break;
        case CliField::none:
            break;
        }
        std::string where;
        if (piece)
            where = std::string(hatches ? "hatches " : "polyline ") + std::to_string(piece->id) +
                    ", layer " + g_text(static_cast<double>(writer_.layer_z())) + ": ";
        std::string range = "0 to 65535";
        if (real) range += ", unit " + g_text(static_cast<double>(writer_.units())) + " mm";
        const char *remedy;
        if (real && f.value < 0.0)
            remedy = "try -P to move the model";
        else if (real)
            remedy = hatches ? "try -U with a larger unit or ASCII output -O A"
                             : "try -U with a larger unit or the long form -O b";
        else
            remedy =
                hatches ? "try ASCII output -O A" : "try the long form -O b or ASCII output -O A";
        return where + what + " " + g_text(f.value) + " does not fit a 16-bit field (" + range +
               "); " + remedy;
    }

    CliWriter writer_;
    ByteOutput &out_;
    Reporter &reporter_;
    StreamError error_;
    // The second thread of ASCII geometry and what it formats into.
    bool ascii_;
    LayerHelper<CliWriter> helper_;
    std::uint64_t gaps_ = 0;
    bool faithful_ = false;
    bool begun_ = false;
    bool finished_ = false;
};

} // namespace

std::unique_ptr<LayerSource> make_cli_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options) {
    return std::make_unique<CliSource>(in, reporter, options);
}

std::unique_ptr<LayerSink> make_cli_sink(OutputForm form, ByteOutput &out, Reporter &reporter) {
    return std::make_unique<CliSink>(form, out, reporter);
}

} // namespace laytran
