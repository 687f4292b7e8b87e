// Validation, layer statistics and the HTML viewer writer.
#include "view/view.h"

#include <cmath>
#include <ostream>
#include <string_view>

#include "view/encode.h"
#include "view/view_assets.h" // generated from viewer.html, viewer.css, decode.js, viewer.js

namespace laytran::view {

using namespace detail;

namespace {

std::string where(std::size_t layer, std::size_t path) {
    return "layer " + std::to_string(layer) + ", path " + std::to_string(path);
}

void write_bytes(std::ostream &out, std::string_view bytes) {
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())))
        throw Error("cannot write the output");
}

// Shoelace sum of a path's points, breaks skipped, in mm² (counter-clockwise
// positive). Coordinates are taken relative to the first point to keep the
// products small.
double signed_area(const std::vector<Point> &points) {
    const Point *first = nullptr, *prev = nullptr;
    double sum = 0;
    for (const Point &p : points) {
        if (is_break(p)) continue;
        if (!first) {
            first = prev = &p;
            continue;
        }
        double x0 = double(prev->x) - first->x, y0 = double(prev->y) - first->y;
        double x1 = double(p.x) - first->x, y1 = double(p.y) - first->y;
        sum += x0 * y1 - x1 * y0;
        prev = &p;
    }
    return sum / 2;
}

} // namespace

void validate(const Document &doc) {
    for (std::size_t i = 0; i < doc.layers.size(); i++) {
        const Layer &layer = doc.layers[i];
        if (!std::isfinite(layer.z))
            throw Error("layer " + std::to_string(i) + ": z is not finite");
        if (layer.paths.size() > UINT32_MAX)
            throw Error("layer " + std::to_string(i) + ": too many paths");
        for (std::size_t j = 0; j < layer.paths.size(); j++) {
            const Path &path = layer.paths[j];
            if (static_cast<unsigned>(path.kind) > 3 || static_cast<unsigned>(path.direction) > 2)
                throw Error(where(i, j) + ": unknown kind or direction");
            if (path.points.size() > UINT32_MAX) throw Error(where(i, j) + ": too many points");
            bool hatches = path.kind == PathKind::hatches;
            if (hatches && path.points.size() % 2 != 0)
                throw Error(where(i, j) + ": hatches need an even number of points");
            for (std::size_t k = 0; k < path.points.size(); k++) {
                Point p = path.points[k];
                if (std::isfinite(p.x) && std::isfinite(p.y)) continue;
                if (!is_break(p))
                    throw Error(where(i, j) + ", point " + std::to_string(k) +
                                ": coordinate is not finite");
                if (hatches)
                    throw Error(where(i, j) + ", point " + std::to_string(k) +
                                ": hatches cannot have a break");
            }
        }
    }
}

LayerStats layer_stats(const Layer &layer) {
    LayerStats s;
    for (const Path &path : layer.paths) {
        std::uint64_t breaks = 0;
        for (const Point &p : path.points)
            breaks += is_break(p);
        s.breaks += breaks;
        s.points += path.points.size() - breaks;
        switch (path.kind) {
        case PathKind::contour: {
            s.contours++;
            double a = signed_area(path.points);
            s.area += a;
            if ((path.direction == Direction::clockwise && a > 0) ||
                (path.direction == Direction::counter_clockwise && a < 0))
                s.mismatches++;
            break;
        }
        case PathKind::polyline:
            s.polylines++;
            break;
        case PathKind::hatches:
            s.hatches += path.points.size() / 2;
            break;
        case PathKind::support:
            s.supports++;
            break;
        }
    }
    return s;
}

namespace {

// The page around the data; markers split it into the pieces written
// between the generated parts.
template <std::size_t N>
std::string_view asset(const unsigned char (&bytes)[N]) {
    return {reinterpret_cast<const char *>(bytes), N - 1};
}

constexpr std::string_view markers[] = {"@TITLE@",  "@CSS@", "@META@",
                                        "@DECODE@", "@JS@",  "@LAYERS@"};
constexpr std::size_t marker_count = sizeof markers / sizeof markers[0];

std::string_view template_piece(std::size_t k) {
    std::string_view page = asset(viewer_html);
    std::size_t begin = 0;
    for (std::size_t m = 0; m < k; m++)
        begin = page.find(markers[m], begin) + markers[m].size();
    std::size_t end = k < marker_count ? page.find(markers[k], begin) : page.size();
    return page.substr(begin, end - begin);
}

// Fixed parts of every page: the template, styles and scripts.
constexpr std::uint64_t asset_bytes =
    sizeof viewer_html + sizeof viewer_css + sizeof decode_js + sizeof viewer_js;
// Per layer: its statistics in the metadata (numbers of at most 24
// characters) and the element around its data.
constexpr std::uint64_t layer_overhead = 9 * 25 + 80;
// JSON-escaping a byte takes at most 6 bytes (Latin-1 bytes become 2-byte
// UTF-8, control characters \u00XX).
constexpr std::uint64_t text_expansion = 6;

std::string metadata(const Document &doc) {
    std::string m = "{\"title\":";
    append_json_string(m, doc.title);
    m += ",\"notice\":";
    append_json_string(m, doc.notice);
    for (auto [name, fields] : {std::pair{"header", &doc.header}, {"summary", &doc.summary}}) {
        m += ",\"";
        m += name;
        m += "\":[";
        for (const Field &f : *fields) {
            m += &f == fields->data() ? "[" : ",[";
            append_json_string(m, f.key);
            m += ',';
            append_json_string(m, f.value);
            m += ']';
        }
        m += ']';
    }
    m += ",\"kinds\":[";
    for (int k = 0; k < 4; k++) {
        m += k ? ",[" : "[";
        append_json_string(m, kind_names[k]);
        m += ',';
        append_json_string(m, kind_colors[k]);
        m += ']';
    }
    m += "],\"bounds\":";
    Bounds b = model_bounds(doc);
    if (b.empty) {
        m += "null";
    } else {
        const char *sep = "[";
        for (double v : {b.xmin, b.ymin, b.xmax, b.ymax}) {
            m += sep;
            append_number(m, v);
            sep = ",";
        }
        m += ']';
    }
    // Per layer: z, contours, polylines, hatches, supports, points, breaks,
    // mismatches, area.
    m += ",\"layers\":[";
    for (const Layer &layer : doc.layers) {
        LayerStats s = layer_stats(layer);
        m += &layer == doc.layers.data() ? "[" : ",[";
        append_number(m, layer.z);
        for (std::uint64_t n :
             {s.contours, s.polylines, s.hatches, s.supports, s.points, s.breaks, s.mismatches}) {
            m += ',';
            m += std::to_string(n);
        }
        m += ',';
        append_number(m, s.area);
        m += ']';
    }
    m += "]}";
    return m;
}

} // namespace

std::uint64_t estimate_html_size(std::uint64_t layers, std::uint64_t paths, std::uint64_t points,
                                 std::uint64_t text_bytes) {
    // Each layer's base64 rounds up by at most 3 bytes, counted in the overhead.
    return asset_bytes + 1024 + text_bytes * text_expansion +
           layers * (layer_overhead + base64_size(4)) + base64_size(8 * paths + 8 * points);
}

std::uint64_t estimate_html_size(const Document &doc) {
    std::uint64_t paths = 0, points = 0;
    std::uint64_t text = 2 * doc.title.size() + doc.notice.size();
    for (const Layer &layer : doc.layers) {
        paths += layer.paths.size();
        for (const Path &path : layer.paths)
            points += path.points.size();
    }
    for (const auto *fields : {&doc.header, &doc.summary})
        for (const Field &f : *fields)
            text += f.key.size() + f.value.size() + 6;
    return estimate_html_size(doc.layers.size(), paths, points, text);
}

void write_html(const Document &doc, std::ostream &out) {
    validate(doc);
    std::string title;
    append_markup_text(title, doc.title.empty() ? std::string_view("layers") : doc.title);
    std::string meta = metadata(doc);
    const std::string_view generated[] = {
        title, asset(viewer_css), meta, asset(decode_js), asset(viewer_js),
    };
    for (std::size_t k = 0; k < marker_count - 1; k++) {
        write_bytes(out, template_piece(k));
        write_bytes(out, generated[k]);
    }
    write_bytes(out, template_piece(marker_count - 1));

    std::vector<unsigned char> record;
    std::string text;
    for (std::size_t i = 0; i < doc.layers.size(); i++) {
        encode_layer(doc.layers[i], record);
        text = "<script type=\"application/octet-stream\" id=\"L" + std::to_string(i) + "\">";
        base64_append(record.data(), record.size(), text);
        text += "</script>\n";
        write_bytes(out, text);
    }
    write_bytes(out, template_piece(marker_count));
}

} // namespace laytran::view
