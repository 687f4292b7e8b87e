// One layer as a standalone SVG drawing.
#include <algorithm>
#include <cstdio>
#include <ostream>

#include "view/encode.h"
#include "view/view.h"

namespace laytran::view {

using namespace detail;

namespace {

// Kinds in drawing order: part contours last, on top.
constexpr PathKind draw_order[] = {PathKind::support, PathKind::hatches, PathKind::polyline,
                                   PathKind::contour};
constexpr const char *class_names[] = {"contour", "polyline", "hatches", "support"};

// "M x y L x y x y ..." per run of points (the lineto repeats implicitly);
// every hatch is a run of its own.
void append_path_data(std::string &d, const Path &path) {
    bool hatches = path.kind == PathKind::hatches;
    std::size_t run = 0;
    for (std::size_t k = 0; k < path.points.size(); k++) {
        Point p = path.points[k];
        if (is_break(p)) {
            run = 0;
            continue;
        }
        if (hatches && k % 2 == 0) run = 0;
        if (!d.empty()) d += ' ';
        if (run == 0)
            d += 'M';
        else if (run == 1)
            d += 'L';
        append_number(d, p.x);
        d += ' ';
        append_number(d, p.y);
        run++;
    }
}

} // namespace

void write_svg(const Document &doc, std::size_t index, std::ostream &out) {
    if (index >= doc.layers.size())
        throw Error("layer " + std::to_string(index) + " does not exist (the model has " +
                    std::to_string(doc.layers.size()) + " layers)");
    validate(doc);
    const Layer &layer = doc.layers[index];

    Bounds b = model_bounds(doc);
    if (b.empty) b = {0, 1, 0, 1, false};
    double span = std::max(b.xmax - b.xmin, b.ymax - b.ymin);
    double margin = span > 0 ? span * 0.02 : 1;
    double width = b.xmax - b.xmin + 2 * margin, height = b.ymax - b.ymin + 2 * margin;

    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"";
    // The frame and the level to a float's precision, as the points are
    // given: 20.8, not 20.80000991821289.
    append_number(s, static_cast<float>(width));
    s += "mm\" height=\"";
    append_number(s, static_cast<float>(height));
    s += "mm\" viewBox=\"";
    for (double v : {b.xmin - margin, -(b.ymax + margin), width, height}) {
        append_number(s, static_cast<float>(v));
        s += ' ';
    }
    s.back() = '"';
    s += ">\n<title>";
    append_markup_text(s, doc.title);
    // Layers are numbered from 1 for people, as the viewer shows them.
    s += doc.title.empty() ? "layer " : ", layer ";
    s += std::to_string(index + 1) + " of " + std::to_string(doc.layers.size()) + " at z = ";
    append_number(s, static_cast<float>(layer.z));
    s += " mm</title>\n<g transform=\"scale(1 -1)\" fill=\"none\" stroke-width=\"";
    char width_text[32]; // a line width of about a 600th of the drawing, 3 digits
    std::snprintf(width_text, sizeof width_text, "%.3g", span > 0 ? span / 600 : 0.1);
    s += width_text;
    s += "\" stroke-linecap=\"round\" stroke-linejoin=\"round\">\n";

    std::string d;
    for (PathKind kind : draw_order) {
        auto k = static_cast<unsigned>(kind);
        s += "<g class=\"";
        s += class_names[k];
        s += "\" stroke=\"";
        s += kind_colors[k];
        s += "\">\n";
        for (const Path &path : layer.paths) {
            if (path.kind != kind) continue;
            d.clear();
            append_path_data(d, path);
            if (d.empty()) continue;
            s += "<path d=\"" + d + "\"/>\n";
            if (s.size() > (1 << 20)) {
                if (!out.write(s.data(), static_cast<std::streamsize>(s.size())))
                    throw Error("cannot write the output");
                s.clear();
            }
        }
        s += "</g>\n";
    }
    s += "</g>\n</svg>\n";
    if (!out.write(s.data(), static_cast<std::streamsize>(s.size())))
        throw Error("cannot write the output");
}

} // namespace laytran::view
