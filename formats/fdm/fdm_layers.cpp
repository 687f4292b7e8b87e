// The FDM layer source and sink.
#include "formats/fdm/fdm_layers.h"

#include <cmath>
#include <new>

namespace laytran {

namespace {

constexpr double inch_mm = 25.4;
constexpr double standard_thickness = 0.005;
// The tolerance of the thickness test: the spacing of floats at 1.0.
constexpr double thickness_tolerance = 1.1920928955078125e-07;
// Points of a layer from which two threads format it.
constexpr std::size_t parallel_points = 4096;

} // namespace

FdmSource::FdmSource(ByteInput &in, const SourceOptions &options, Reporter *reporter)
    : reader_(in), keep_empty_(options.keep_empty_layers), in_(in),
      check_(options.check && reporter) {
    header_.format = InputFormat::fdm;
    header_.unit_mm = inch_mm;
    if (!check_) return;
    reader_.set_check([reporter, file = options.file_name](FdmError code, std::uint64_t offset,
                                                           const std::string &token) {
        Diagnostic d;
        d.severity = Severity::warning;
        d.text = code == FdmError::keyword ? "unknown header keyword"
                                           : fdm_error_text(static_cast<int>(code));
        d.file = file;
        d.offset = static_cast<std::int64_t>(offset);
        d.token = token;
        reporter->report(std::move(d));
    });
}

FdmReader::Item FdmSource::next() {
    if (check_) item_at_ = in_.offset();
    FdmReader::Item item = reader_.next(points_, closed_);
    if (check_ && item == FdmReader::Item::layer) layer_at_ = item_at_;
    if (!started_) {
        started_ = true;
        header_.variant = "version " + std::to_string(reader_.version());
        header_.fields = reader_.fields();
    }
    if (item == FdmReader::Item::end) {
        if (!error_) error_ = reader_.error();
        done_ = true;
    }
    return item;
}

bool FdmSource::next_layer(Layer &layer) {
    using Item = FdmReader::Item;
    try {
        while (!done_) {
            // The first item after the header is its Z line's layer; a
            // contour without one would go into a layer at level 0.
            bool have_contour = false;
            if (!pending_) {
                Item item = next();
                if (item == Item::end) return false;
                have_contour = item == Item::contour;
            }
            pending_ = false;
            if (check_) {
                places_.layer = have_contour ? item_at_ : layer_at_;
                places_.contours.clear();
                if (have_contour) places_.contours.push_back(item_at_);
            }
            layer.z = have_contour ? 0.0f : static_cast<float>(reader_.z());
            layer.thickness = have_contour ? 0.0f : static_cast<float>(reader_.thickness());
            std::size_t used = 0;
            for (;;) {
                if (!have_contour) {
                    Item item = next();
                    if (item == Item::layer) pending_ = true;
                    if (item != Item::contour) break;
                    if (check_) places_.contours.push_back(item_at_);
                }
                have_contour = false;
                if (used == layer.contours.size()) layer.contours.emplace_back();
                Contour &c = layer.contours[used++];
                c.kind = ContourKind::part;
                c.id = 0;
                c.gaps = 0;
                c.direction = closed_ ? direction_counter_clockwise : direction_open;
                // A closed contour ends at its first point again.
                const bool repeat = closed_ && !points_.empty();
                c.points.clear();
                c.points.reserve(points_.size() + repeat);
                c.points.assign(points_.begin(), points_.end());
                if (repeat) c.points.push_back(points_[0]);
            }
            layer.contours.resize(used);
            // A layer cut short by an error is given when it holds a contour.
            if (used > 0 || (keep_empty_ && !error_)) return true;
        }
        return false;
    } catch (const std::bad_alloc &) {
        if (!error_) {
            error_.code = static_cast<int>(FdmError::memory);
            error_.text = fdm_error_text(error_.code);
        }
        done_ = true;
        return false;
    }
}

// The pieces between gap marks are contours of their own.
bool FdmSink::write_contour(FdmWriter &writer, const Contour &c) {
    const std::vector<Point> &p = c.points;
    const std::size_t n = p.size();
    std::size_t start = 0;
    for (std::size_t i = 0; i < n; i++) {
        if (!is_gap_mark(p[i])) continue;
        if (i > start && !writer.contour(&p[start], i - start)) return false;
        start = i + 1;
    }
    return n - start > 1 ? writer.contour(&p[start], n - start) : true;
}

// A layer of many points is formatted on two threads: whether the helper
// was handed the layer's contours to take from the back.
bool FdmSink::share(const Layer &layer) {
    const std::vector<Contour> &contours = layer.contours;
    if (!writer_.header_written() || contours.size() < 2 || contours.size() > UINT32_MAX)
        return false;
    std::size_t points = 0;
    for (const Contour &c : contours)
        points += c.kind == ContourKind::part ? c.points.size() : 0;
    if (points < parallel_points) return false;
    return helper_.start(
        contours,
        [](ByteOutput &out) {
            std::unique_ptr<FdmWriter> w(new FdmWriter(out));
            w->continue_contours();
            return w;
        },
        [this](FdmWriter &writer, const Contour &c) {
            return c.kind != ContourKind::part || write_contour(writer, c);
        });
}

bool FdmSink::write_layer(const Layer &layer) {
    if (failed_) return false;
    float thickness = layer.thickness;
    if (layers_ > 0) {
        if (thickness == 0.0f) thickness = static_cast<float>(layer.z - previous_z_);
        if (std::fabs(thickness - standard_thickness) > thickness_tolerance) {
            // The warning comes only while every byte so far got out, as it
            // would were the output written as it goes.
            if (!warned_ && !writer_.settle()) {
                failed_ = true;
                return false;
            }
            if (!warned_) reporter_.warning("layer thickness must be 0.005");
            warned_ = true;
        } else {
            thickness = 0.0f;
        }
    }
    previous_z_ = layer.z;
    layers_++;
    bool ok = writer_.layer(layer.z, thickness);
    const std::vector<Contour> &contours = layer.contours;
    // The contours the helper formats are counted here, once its text is in.
    auto write = [this](const Contour &c, bool here) {
        gaps_ += c.gaps;
        if (c.kind != ContourKind::part) {
            left_out_.add(c.kind);
            return true;
        }
        return !here || write_contour(writer_, c);
    };
    if (!ok || !share(layer)) {
        for (std::size_t i = 0; ok && i < contours.size(); i++)
            ok = write(contours[i], true);
        failed_ = !ok;
        return ok;
    }
    // This thread writes contours from the front while the helper formats
    // them from the back; where the two met, the helper's texts follow in
    // order, or (when it could not make them) its contours are written here.
    for (std::size_t i = 0; ok && helper_.take_front(i);)
        ok = write(contours[i], true);
    bool formatted = false;
    const std::size_t split = helper_.finish(formatted);
    if (ok && formatted) {
        helper_.append_to(out_);
        ok = writer_.check();
    }
    for (std::size_t i = split; ok && i < contours.size(); i++)
        ok = write(contours[i], !formatted);
    failed_ = !ok;
    return ok;
}

bool FdmSink::finish() {
    // The header goes out even when no contour did, so that the file is whole.
    if (!failed_) writer_.write_header();
    return writer_.finish();
}

void FdmSink::report_run_end(Reporter &reporter) {
    std::string text = left_out_.warning("FDM");
    if (!failed_ && !text.empty()) reporter.warning(std::move(text));
}

std::unique_ptr<LayerSource> make_fdm_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options) {
    return std::make_unique<FdmSource>(in, options, &reporter);
}

std::unique_ptr<LayerSink> make_fdm_sink(ByteOutput &out, Reporter &reporter) {
    return std::make_unique<FdmSink>(out, reporter);
}

} // namespace laytran
