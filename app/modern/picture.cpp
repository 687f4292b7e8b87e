#include "app/modern/picture.h"

#include <cmath>
#include <cstdio>

#include "app/modern/options.h"
#include "laytran/summary.h"
#include "support/system_error.h"

namespace laytran::modern {

namespace {

view::Path to_path(const Contour &c, InputFormat format) {
    view::Path p;
    switch (c.kind) {
    case ContourKind::part:
        if (c.direction == direction_open) {
            p.kind = view::PathKind::polyline;
        } else if (format == InputFormat::cli && c.direction == direction_clockwise) {
            p.direction = view::Direction::clockwise;
        } else if (format == InputFormat::cli && c.direction == direction_counter_clockwise) {
            p.direction = view::Direction::counter_clockwise;
        }
        break;
    case ContourKind::hatches:
        p.kind = view::PathKind::hatches;
        break;
    case ContourKind::support:
    case ContourKind::web:
        p.kind = view::PathKind::support;
        break;
    }
    return p;
}

} // namespace

view::Document document_texts(const std::string &title, const Model &model) {
    view::Document doc;
    doc.title = title;
    for (const HeaderField &f : model.header.fields)
        doc.header.push_back({f.key, f.value});
    for (const Fact &f : summary_facts(summarize(model, false), false))
        doc.summary.push_back({f.key, f.value});
    return doc;
}

void add_layers(view::Document &doc, const Model &model) {
    const double unit = model.header.unit_mm;
    doc.layers.resize(model.layers.size());
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        const Layer &layer = model.layers[i];
        view::Layer &out = doc.layers[i];
        out.z = layer.z * unit;
        bool finite = std::isfinite(out.z);
        out.paths.reserve(layer.contours.size());
        for (const Contour &c : layer.contours) {
            out.paths.push_back(to_path(c, model.header.format));
            std::vector<view::Point> &points = out.paths.back().points;
            points.resize(c.points.size());
            for (std::size_t k = 0; k < c.points.size(); k++) {
                const Point p = c.points[k];
                if (is_gap_mark(p)) {
                    points[k] = view::break_mark;
                    continue;
                }
                points[k] = {static_cast<float>(p.x * unit), static_cast<float>(p.y * unit)};
                finite = finite && std::isfinite(points[k].x) && std::isfinite(points[k].y);
            }
        }
        if (!finite)
            throw view::Error("layer " + std::to_string(i + 1) +
                              ": a coordinate or the height is too large to draw in millimetres");
    }
}

std::uint64_t page_size(const view::Document &doc, const Model &model) {
    std::uint64_t paths = 0, points = 0;
    for (const Layer &layer : model.layers) {
        paths += layer.contours.size();
        for (const Contour &c : layer.contours)
            points += c.points.size();
    }
    // The texts' share: the estimate of the document as it is (without
    // layers), less that of an empty one.
    return view::estimate_html_size(model.layers.size(), paths, points) +
           view::estimate_html_size(doc) - view::estimate_html_size(view::Document{});
}

std::string picture_title(const std::string &input) {
    if (input == "-") return "<stdin>";
    const std::size_t slash = input.rfind('/');
    return slash == std::string::npos ? input : input.substr(slash + 1);
}

bool write_picture(Output &out, const std::string &out_name, const std::string &input,
                   const std::function<void(std::ostream &)> &write, Console &console) {
    bool ok = true;
    {
        StreamBuffer buffer(out.stream());
        std::ostream stream(&buffer);
        try {
            write(stream);
            if (!stream.flush()) throw view::Error("cannot write the output");
        } catch (const view::Error &e) {
            if (buffer.error_number())
                console.error("write error: " + system_error_text(buffer.error_number()),
                              out_name == "-" ? "<stdout>" : out_name);
            else
                console.error(e.what(), input == "-" ? "<stdin>" : input);
            ok = false;
        }
    }
    return out.close(ok, console);
}

std::string size_text(std::uint64_t bytes) {
    char text[32];
    if (bytes >= (1u << 20))
        std::snprintf(text, sizeof text, "%.0f MiB", bytes / 1048576.0);
    else if (bytes >= 1024)
        std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    return text;
}

} // namespace laytran::modern
