// The slice model: a stack of layers, each holding contours of points.
//
// A Model is what a file reads into and what a writer writes from. It is a
// plain value: copy it, move it, change it; its containers own everything.
// Coordinates and layer heights are kept in the unit of the file they came
// from (`header.unit_mm` millimetres per unit) as 32-bit floats, exactly as
// read; the query functions below can give them in millimetres.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "laytran/formats.h"

namespace laytran {

struct Point {
    float x;
    float y;
};

// A point with both coordinates at the largest float marks a gap in a
// contour (SLC boundaries carry them). Gap marks are never moved or scaled
// and stay out of the bounds; writers split a contour at them.
constexpr float gap_coordinate = 3.4028235e38f;
constexpr bool is_gap_mark(Point p) {
    return p.x == gap_coordinate && p.y == gap_coordinate;
}

enum class ContourKind : std::uint8_t {
    part,    // a part contour (CLI polyline, SLC/FDM boundary)
    hatches, // CLI hatches: independent segments, two points (start, end) each
    support, // support structure (SLC type SUPPORT)
    web,     // web support (SLC type WEB)
};

// Direction values as CLI stores them; FDM input gives 1 (closed) or 2 (open).
enum : std::uint32_t {
    direction_clockwise = 0,
    direction_counter_clockwise = 1,
    direction_open = 2,
};

struct Contour {
    ContourKind kind = ContourKind::part;
    std::uint32_t id = 0;        // CLI element identifier (0 when the format has none)
    std::uint32_t direction = 0; // see the direction values above
    std::uint32_t gaps = 0;      // gap marks among the points
    std::vector<Point> points;
};

struct Layer {
    float z = 0.0f;         // height of the layer
    float thickness = 0.0f; // 0 when the input gives none
    std::vector<Contour> contours;
};

// One header field as it stood in the file, e.g. {"UNITS", "1"},
// {"LABEL", "1,plate"}, {"-UNIT", "MM"}. Kept for display; the engine does
// not interpret these.
struct HeaderField {
    std::string key;
    std::string value;
};

struct Label {
    std::uint32_t id = 0;
    std::string text;
};

// What the input file said about itself.
struct ModelHeader {
    InputFormat format = InputFormat::cli;
    std::string variant;               // e.g. "ASCII", "binary, short form, aligned"
    double unit_mm = 1.0;              // millimetres per coordinate unit
    std::uint32_t declared_layers = 0; // CLI $$LAYERS; 0 when not given
    std::vector<Label> labels;         // CLI $$LABEL entries
    std::vector<HeaderField> fields;   // every header field, in file order
};

struct Model {
    ModelHeader header;
    std::vector<Layer> layers;
};

// Bounds of every point and layer height, gap marks left out. An empty model
// (no points) has min > max on every axis (see `empty`).
struct Bounds {
    double xmin = 0, xmax = 0, ymin = 0, ymax = 0, zmin = 0, zmax = 0;
    bool empty() const { return xmin > xmax; }
};

// Counts by kind; a "polyline" counts as open when its direction says so.
struct Counts {
    std::uint64_t layers = 0;
    std::uint64_t empty_layers = 0;
    std::uint64_t part_contours = 0;  // closed part contours
    std::uint64_t open_polylines = 0; // part contours with direction_open
    std::uint64_t hatch_blocks = 0;
    std::uint64_t hatches = 0; // segments in all hatch blocks
    std::uint64_t support_contours = 0;
    std::uint64_t web_contours = 0;
    std::uint64_t points = 0; // gap marks not counted
    std::uint64_t gaps = 0;
};

// Bounds in the model's own unit, and in millimetres.
Bounds bounds(const Model &model);
Bounds bounds_mm(const Model &model);
Counts count(const Model &model);
Counts count(const Layer &layer);

} // namespace laytran
