// Checking a whole file (include/laytran/check.h): the sources' check mode
// reports what they read past; the layer checks here look at each layer as
// it comes, with the places the source recorded.
#include "laytran/check.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <vector>

#include "laytran/detect.h"
#include "support/line_locator.h"
#include "support/number_text.h"
#include "support/system_error.h"
#include "translate/format_io.h"

namespace laytran {

namespace {

// Neighbouring 16-bit values this far apart mark a value that wrapped.
constexpr double wrap_jump = 32768.0;
constexpr std::uint64_t progress_step = std::uint64_t(1) << 20;

std::string g(double v) {
    char text[NUMBER_TEXT_MAX];
    return std::string(text, format_g(v, text));
}

std::string point(Point p) {
    return "(" + g(p.x) + ", " + g(p.y) + ")";
}

class Checker {
  public:
    Checker(const std::string &path, const CheckOptions &options, const DiagnosticSink &sink)
        : path_(path), options_(options), sink_(sink), lines_(path) {}

    CheckResult run();

  private:
    // A problem (or note) of the current layer, sent once the layer was
    // looked at, in the order of the offsets. `place`: the offset is where
    // something begins (possibly in front of blanks), not where a reader
    // stopped.
    void add(Diagnostic d, bool place = false) {
        if (d.file.empty()) d.file = path_;
        if (d.offset >= 0 && static_cast<std::uint64_t>(d.offset) < text_end_)
            d.line = place ? lines_.line_after_blanks(static_cast<std::uint64_t>(d.offset))
                           : lines_.line(static_cast<std::uint64_t>(d.offset));
        pending_.push_back(std::move(d));
    }
    void problem(std::int64_t offset, std::string text, bool place = true) {
        Diagnostic d;
        d.severity = Severity::warning;
        d.text = std::move(text);
        d.offset = offset;
        add(std::move(d), place);
    }
    void send() {
        std::stable_sort(
            pending_.begin(), pending_.end(), [](const Diagnostic &a, const Diagnostic &b) {
                return static_cast<std::uint64_t>(a.offset) < static_cast<std::uint64_t>(b.offset);
            });
        for (const Diagnostic &d : pending_) {
            if (d.severity != Severity::info) result_.problems++;
            if (sink_) sink_(d);
        }
        pending_.clear();
    }
    void check_layer(const Layer &layer, const LayerPlaces *places);
    void check_contour(const Contour &c, std::size_t k, std::int64_t at, bool short_form);
    void find_text_end(int fd);
    std::string layer_name() const { return "layer " + std::to_string(index_); }

    const std::string &path_;
    const CheckOptions &options_;
    const DiagnosticSink &sink_;
    LineLocator lines_;
    std::uint64_t text_end_ = 0; // offsets below are text
    std::vector<Diagnostic> pending_;
    CheckResult result_;
    std::uint64_t index_ = 0; // the current layer, from 1
    float previous_z_ = 0.0f;
};

void Checker::find_text_end(int fd) {
    if (options_.format == InputFormat::slc) return;
    text_end_ = UINT64_MAX;
    if (options_.format != InputFormat::cli) return;
    std::vector<unsigned char> head(detect_window);
    const ssize_t n = ::pread(fd, head.data(), head.size(), 0);
    if (n <= 0) return;
    const auto size = static_cast<std::size_t>(n);
    if (detect_format(head.data(), size) == Detected::cli_binary)
        text_end_ = cli_header_end(head.data(), size);
}

void Checker::check_contour(const Contour &c, std::size_t k, std::int64_t at, bool short_form) {
    const std::vector<Point> &p = c.points;
    const std::string what = options_.format == InputFormat::cli
                                 ? (c.kind == ContourKind::hatches ? "$$HATCHES" : "$$POLYLINE") +
                                       std::string(" ") + std::to_string(c.id)
                                 : "boundary " + std::to_string(k + 1);
    if (c.kind != ContourKind::hatches && c.direction != direction_open && c.gaps == 0 &&
        p.size() >= 2 && (p.front().x != p.back().x || p.front().y != p.back().y)) {
        const char *dir = c.direction == direction_counter_clockwise ? "counter-clockwise"
                          : c.direction == direction_clockwise       ? "clockwise"
                                                                     : nullptr;
        problem(
            at,
            what + " of " + layer_name() + " is marked closed" +
                (dir && options_.format == InputFormat::cli ? std::string(" (") + dir + ")" : "") +
                " but ends at " + point(p.back()) + ", not at its first point " + point(p.front()));
    }
    if (!short_form) return;
    for (std::size_t i = 1; i < p.size(); i++) {
        const bool x = std::fabs(double(p[i].x) - p[i - 1].x) >= wrap_jump;
        if (!x && std::fabs(double(p[i].y) - p[i - 1].y) < wrap_jump) continue;
        problem(at, "16-bit overflow: in " + what + " of " + layer_name() + ", " + (x ? "x" : "y") +
                        " jumps from " + g(x ? p[i - 1].x : p[i - 1].y) + " to " +
                        g(x ? p[i].x : p[i].y) + " between points " + std::to_string(i) + " and " +
                        std::to_string(i + 1) + " (a value that wrapped)");
        break;
    }
}

void Checker::check_layer(const Layer &layer, const LayerPlaces *places) {
    const std::int64_t at = places ? static_cast<std::int64_t>(places->layer) : -1;
    if (index_ > 1 && !(layer.z > previous_z_)) {
        problem(at, layer_name() + " at z " + g(layer.z) + " does not rise above layer " +
                        std::to_string(index_ - 1) + " at z " + g(previous_z_));
    }
    if (index_ > 1 && places && places->layer_short &&
        std::fabs(double(layer.z) - previous_z_) >= wrap_jump) {
        problem(at, "16-bit overflow: the height of " + layer_name() + " jumps from " +
                        g(previous_z_) + " to " + g(layer.z) + " (a value that wrapped)");
    }
    for (std::size_t k = 0; k < layer.contours.size(); k++) {
        const bool known = places && k < places->contours.size();
        check_contour(layer.contours[k], k,
                      known ? static_cast<std::int64_t>(places->contours[k]) : at,
                      known && k < places->contour_short.size() && places->contour_short[k]);
    }
    previous_z_ = layer.z;
}

CheckResult Checker::run() {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Diagnostic d;
        d.severity = Severity::error;
        d.text = "error reading input file (open error: " + system_error_text(errno) + ")";
        d.file = path_;
        if (sink_) sink_(d);
        return result_;
    }
    result_.opened = true;
    find_text_end(fd);
    try {
        ByteInput in(fd);
        DiagnosticSink collect = [this](const Diagnostic &d) { add(d); };
        Reporter reporter(collect);
        SourceOptions so;
        so.keep_empty_layers = true;
        so.verbosity = 0;
        so.file_name = path_;
        so.check = true;
        std::unique_ptr<LayerSource> source = make_source(options_.format, in, reporter, so);
        Layer layer;
        std::uint64_t mark = 0;
        while (source->next_layer(layer)) {
            index_++;
            check_layer(layer, source->places());
            send();
            if (options_.progress && in.offset() >= mark + progress_step) {
                mark = in.offset();
                options_.progress(mark, in.size_known() ? in.size() : 0, 0);
            }
        }
        result_.layers = index_;
        source->report_read_end(reporter);
        const std::uint32_t declared = source->header().declared_layers;
        if (declared != 0 && index_ > declared && !source->error())
            problem(-1, std::to_string(index_) + " layers were read, but $$LAYERS declares " +
                            std::to_string(declared));
        // Commands other tools write, passed over: facts, not problems.
        DiagnosticSink note = [this](const Diagnostic &d) {
            Diagnostic n = d;
            n.severity = Severity::info;
            add(std::move(n));
        };
        Reporter notes(note);
        source->report_run_end(notes);
        send();
        const StreamError &e = source->error();
        if (e) {
            Diagnostic d;
            d.severity = Severity::error;
            std::string text = !e.detail.empty() ? e.detail : e.text ? e.text : "<unknown>";
            if (e.system_error != 0) text += ": " + system_error_text(e.system_error);
            d.text = "error reading input file (" + text + ")";
            d.offset = static_cast<std::int64_t>(e.offset);
            d.token = e.token;
            add(std::move(d));
            send();
        } else {
            result_.complete = true;
        }
        if (options_.progress) options_.progress(in.offset(), in.size_known() ? in.size() : 0, 0);
    } catch (const std::bad_alloc &) {
        pending_.clear();
        Diagnostic d;
        d.severity = Severity::error;
        d.text = "error reading input file (no more memory)";
        d.file = path_;
        result_.problems++;
        if (sink_) sink_(d);
        result_.complete = false;
    }
    ::close(fd);
    return result_;
}

} // namespace

CheckResult check_file(const std::string &path, const CheckOptions &options,
                       const DiagnosticSink &sink) {
    Checker checker(path, options, sink);
    return checker.run();
}

} // namespace laytran
