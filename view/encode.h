// Building blocks shared by the HTML and SVG writers: the viewer's binary
// layer record, base64, JSON text and number formatting, model bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "view/view.h"

namespace laytran::view::detail {

// One layer as the viewer decodes it, every field little-endian:
//   u32 path count P
//   P times: u32 info (bits 0-7 PathKind, bits 8-15 Direction), u32 point count
//   then the points of every path in order, each x then y as float32;
//   a break is a NaN pair and counts as a point.
void encode_layer(const Layer &layer, std::vector<unsigned char> &out);
std::uint64_t encoded_layer_size(std::uint64_t paths, std::uint64_t points);

// Standard base64 (RFC 4648, with padding), appended to out.
void base64_append(const unsigned char *data, std::size_t size, std::string &out);
inline std::uint64_t base64_size(std::uint64_t size) {
    return (size + 2) / 3 * 4;
}

// text as valid UTF-8: bytes that do not form UTF-8 are taken as Latin-1.
std::string to_utf8(std::string_view text);
// A JSON string literal of text (made valid UTF-8), safe inside a <script>
// element: '<' is written as \u003c.
void append_json_string(std::string &out, std::string_view text);
// text escaped for HTML or XML character data and attribute values.
void append_markup_text(std::string &out, std::string_view text);
// The shortest text that reads back as v; a value that is exactly a float
// gets the float's shortest text (0.05f gives "0.05").
void append_number(std::string &out, double v);
void append_number(std::string &out, float v);

struct Bounds {
    double xmin = 0, xmax = 0, ymin = 0, ymax = 0;
    bool empty = true;
};
// The bounds of every point of every layer, breaks left out.
Bounds model_bounds(const Document &doc);

// Stroke colours by PathKind, shared by the viewer and the SVG.
inline constexpr const char *kind_colors[4] = {"#1f5bd6", "#e07b00", "#1d9a3c", "#c0208f"};
inline constexpr const char *kind_names[4] = {"part contour", "open polyline", "hatches",
                                              "support / web"};

} // namespace laytran::view::detail
