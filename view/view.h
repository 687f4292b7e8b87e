// Pictures of a layer stack: a self-contained HTML layer viewer and an SVG
// drawing of one layer.
//
// The writers take a plain description of the model (Document below), not
// the engine's own records, so any reader can feed them: fill a Document with
// millimetre coordinates, then call write_html or write_svg.
//
// Coordinates are millimetres in the model's frame: x to the right, y up,
// z up. Contour orientation is judged in that frame (counter-clockwise =
// positive enclosed area).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace laytran::view {

enum class PathKind : std::uint8_t {
    contour = 0,  // part contour (a boundary of the part's section)
    polyline = 1, // open polyline
    hatches = 2,  // independent segments: points 0-1, 2-3, ...
    support = 3,  // support or web
};

// The orientation a file declares for a contour; the viewer compares it with
// the orientation of the points themselves.
enum class Direction : std::uint8_t { unknown = 0, clockwise = 1, counter_clockwise = 2 };

struct Point {
    float x;
    float y;
};

// A point whose x and y are both NaN is a break: the path is interrupted
// there (a gap) and goes on from the next point. Any other non-finite
// coordinate is an error. Hatches take no breaks.
inline constexpr Point break_mark{std::numeric_limits<float>::quiet_NaN(),
                                  std::numeric_limits<float>::quiet_NaN()};
inline bool is_break(Point p) {
    return p.x != p.x && p.y != p.y;
}

// Points are drawn in the order given and a contour is not closed for you: a
// closed contour repeats its first point at the end, as the files store it.
struct Path {
    PathKind kind = PathKind::contour;
    Direction direction = Direction::unknown; // meaningful for contours only
    std::vector<Point> points;
};

struct Layer {
    double z = 0; // millimetres
    std::vector<Path> paths;
};

// Header fields are shown as the file writes them; summary facts are what
// the caller knows about the whole model (format, counts, bounds, ...).
struct Field {
    std::string key;
    std::string value;
};

// Text is UTF-8; bytes that are not valid UTF-8 are read as Latin-1.
struct Document {
    std::string title; // usually the input file name
    std::vector<Field> header;
    std::vector<Field> summary;
    std::string notice; // shown prominently when not empty (e.g. "every 2nd layer shown")
    std::vector<Layer> layers;
};

// An input the writers refuse (a non-finite coordinate, an odd number of
// hatch points, a layer index out of range, ...) or a failed output stream.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws Error for the first thing the writers would refuse. The writers
// call it before they write anything.
void validate(const Document &doc);

// What the viewer shows for a layer. Breaks are not points; a hatch is one
// segment; area is the sum of the part contours' signed areas in mm², so
// holes running against their outer contour subtract and a negative total
// says the outer contours run clockwise. A mismatch is a part contour whose
// declared direction disagrees with its points.
struct LayerStats {
    std::uint64_t contours = 0;
    std::uint64_t polylines = 0;
    std::uint64_t hatches = 0;
    std::uint64_t supports = 0;
    std::uint64_t points = 0;
    std::uint64_t breaks = 0;
    std::uint64_t mismatches = 0;
    double area = 0;
};
LayerStats layer_stats(const Layer &layer);

// An upper bound of write_html's output size in bytes for a model of this
// many layers, paths and points (breaks count as points), with header and
// summary texts of text_bytes in total. Callers check it against
// html_size_limit before building a Document.
std::uint64_t estimate_html_size(std::uint64_t layers, std::uint64_t paths, std::uint64_t points,
                                 std::uint64_t text_bytes = 0);
std::uint64_t estimate_html_size(const Document &doc);

// The largest viewer we promise opens in a few seconds in a current browser
// on an ordinary machine: about 37 million points (a page takes 32/3 bytes
// a point), so every variant of a 100 MB CLI file fits. Headless Chromium
// on two cores shows a 133 MB page's first layer after about 0.8 s and a
// 400 MB page's after about 2.5 s, needing about twice the page's size in
// memory. Callers refuse larger models or subsample them (and say so in
// Document::notice).
inline constexpr std::uint64_t html_size_limit = 384ull << 20;

// Writes the viewer as one HTML file: scripts, styles and geometry inline,
// nothing fetched when it opens. Throws Error for an invalid document and
// when out fails (it stops writing at once then); flushing and closing the
// file and checking that stay with the caller.
void write_html(const Document &doc, std::ostream &out);

// Writes layer `layer` (an index into doc.layers) as a standalone SVG in the
// viewer's colours. The viewBox spans the whole model's bounds (so drawings
// of different layers line up) in millimetres; the path data holds the model
// coordinates unchanged inside a group flipped by scale(1 -1), so the
// drawing is the right way up and the viewBox's y runs from -ymax to -ymin.
// The width and height are given in mm, so it prints at real size. Throws
// like write_html.
void write_svg(const Document &doc, std::size_t layer, std::ostream &out);

} // namespace laytran::view
