// The SLC layer source and sink.
#include "formats/slc/slc_layers.h"

#include <algorithm>
#include <new>

namespace laytran {

namespace {

constexpr double inch_mm = 25.4;
// A boundary takes at least its two counts.
constexpr std::uint64_t boundary_bytes_min = 8;
constexpr std::uint64_t contours_reserved_unknown = 1024;

StreamError memory_error(const StreamError &kept) {
    if (kept) return kept;
    StreamError e;
    e.code = static_cast<int>(SlcError::memory);
    e.text = slc_error_text(e.code);
    return e;
}

} // namespace

SlcSource::SlcSource(ByteInput &in, const SourceOptions &options, Reporter *reporter)
    : in_(in), reader_(in), keep_empty_(options.keep_empty_layers),
      check_(options.check && reporter) {
    header_.format = InputFormat::slc;
    if (!check_) return;
    reader_.set_check([reporter, file = options.file_name](SlcError code, std::uint64_t offset,
                                                           const std::string &token) {
        Diagnostic d;
        d.severity = Severity::warning;
        d.text = slc_error_text(static_cast<int>(code));
        d.file = file;
        d.offset = static_cast<std::int64_t>(offset);
        d.token = token;
        reporter->report(std::move(d));
    });
}

bool SlcSource::stop() {
    if (!error_) error_ = reader_.error();
    done_ = true;
    return false;
}

void SlcSource::take_header() {
    const SlcHeader &h = reader_.header();
    header_.variant = h.version.empty() ? std::string() : "version " + h.version;
    header_.unit_mm = h.unit == SlcKeyword::inch ? inch_mm : 1.0;
    header_.fields = h.fields;
    kind_ = h.type == SlcKeyword::support ? ContourKind::support
            : h.type == SlcKeyword::web   ? ContourKind::web
                                          : ContourKind::part;
}

bool SlcSource::next_layer(Layer &layer) {
    if (done_) return false;
    try {
        if (!started_) {
            started_ = true;
            bool reached = reader_.read_header();
            take_header();
            // An error in the header text fails the read: no layer is given.
            if (!reached || reader_.error()) return stop();
        }
        float z = 0;
        std::uint32_t count = 0;
        do {
            if (check_) places_.layer = in_.offset();
            if (!reader_.next_layer(z, count)) return stop();
        } while (count == 0 && !keep_empty_);
        if (check_) places_.contours.clear();
        layer.z = z;
        layer.thickness = 0.0f;
        const std::uint64_t room =
            in_.size_known() ? in_.remaining() / boundary_bytes_min : contours_reserved_unknown;
        layer.contours.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(count, room)));
        std::size_t used = 0;
        for (; used < count; used++) {
            if (used == layer.contours.size()) layer.contours.emplace_back();
            Contour &c = layer.contours[used];
            c.kind = kind_;
            c.id = 0;
            c.direction = 0;
            if (check_) places_.contours.push_back(in_.offset());
            if (used == extremes_.size()) extremes_.emplace_back();
            if (!reader_.read_boundary(c.points, c.gaps, &extremes_[used])) break;
        }
        layer.contours.resize(used);
        if (check_) places_.contours.resize(used);
        if (used == count) return true;
        // A layer cut short by an error is given when it holds a boundary.
        stop();
        return used > 0;
    } catch (const std::bad_alloc &) {
        error_ = memory_error(reader_.error());
        done_ = true;
        return false;
    }
}

bool SlcSink::fail() {
    if (!error_ && writer_) error_ = writer_->error();
    failed_ = true;
    return false;
}

bool SlcSink::refuse() {
    if (!error_) {
        error_.code = static_cast<int>(SlcError::layers);
        error_.text = slc_error_text(error_.code);
        error_.detail = "the SLC format needs at least two layers";
    }
    failed_ = true;
    return false;
}

bool SlcSink::begin(const OutputPlan &plan) {
    if (plan.layer_count < 2) return refuse();
    const Counts &n = plan.counts;
    SlcWriterOptions options;
    options.unit = plan.unit_mm == inch_mm ? SlcUnit::inch : SlcUnit::mm;
    if (n.part_contours + n.open_polylines == 0 && n.support_contours != 0) {
        kind_ = ContourKind::support;
        options.type = SlcType::support;
    } else if (n.part_contours + n.open_polylines == 0 && n.web_contours != 0) {
        kind_ = ContourKind::web;
        options.type = SlcType::web;
    }
    try {
        writer_.emplace(out_, options);
        if (!writer_->set_levels(plan.levels)) return writer_->error() ? fail() : refuse();
    } catch (const std::bad_alloc &) {
        error_ = memory_error(error_);
        return fail();
    }
    return true;
}

bool SlcSink::write_layer(const Layer &layer) {
    if (failed_ || !writer_) return false;
    std::uint64_t count = 0;
    for (const Contour &c : layer.contours)
        count += c.kind == kind_;
    if (!writer_->begin_layer(layer.z, count)) return fail();
    for (const Contour &c : layer.contours) {
        gaps_ += c.gaps; // the gap report speaks of the whole input
        if (c.kind != kind_) {
            left_out_.add(c.kind);
        } else if (!writer_->write_boundary(c.points.data(), c.points.size(), c.gaps)) {
            return fail();
        }
    }
    return true;
}

bool SlcSink::finish() {
    bool ok = writer_ ? writer_->finish() : out_.finish();
    if (writer_ && !error_) error_ = writer_->error();
    return ok && !error_;
}

void SlcSink::report_run_end(Reporter &reporter) {
    std::string text = left_out_.warning("SLC");
    if (!failed_ && !text.empty()) reporter.warning(std::move(text));
}

std::unique_ptr<LayerSource> make_slc_source(ByteInput &in, Reporter &reporter,
                                             const SourceOptions &options) {
    return std::make_unique<SlcSource>(in, options, &reporter);
}

std::unique_ptr<LayerSink> make_slc_sink(ByteOutput &out, Reporter &) {
    return std::make_unique<SlcSink>(out);
}

} // namespace laytran
