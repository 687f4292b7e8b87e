// Queries and transformations of the slice model.
#include <algorithm>
#include <cfloat>
#include <cmath>

#include "laytran/model.h"
#include "translate/model_ops.h"

namespace laytran {

namespace {

// Doubles below this in magnitude round to a finite float.
constexpr double f32_limit = 0x1.ffffffp+127;

// v as a float; a value that does not fit (or NaN) clears `finite` and is
// stored as 0.
inline float to_float(double v, bool &finite) {
    if (std::fabs(v) < f32_limit) return static_cast<float>(v);
    finite = false;
    return 0.0f;
}

inline void take_z(Bounds &b, double z) {
    if (z < b.zmin) b.zmin = z;
    if (z > b.zmax) b.zmax = z;
}

inline void take_point(Bounds &b, Point p) {
    if (p.x < b.xmin) b.xmin = p.x;
    if (p.x > b.xmax) b.xmax = p.x;
    if (p.y < b.ymin) b.ymin = p.y;
    if (p.y > b.ymax) b.ymax = p.y;
}

void add_counts(Counts &n, const Layer &layer) {
    n.layers++;
    n.empty_layers += layer.contours.empty();
    for (const Contour &c : layer.contours) {
        std::uint64_t points = c.points.size();
        if (c.gaps != 0) {
            for (Point p : c.points)
                points -= is_gap_mark(p);
        }
        n.points += points;
        n.gaps += c.gaps;
        switch (c.kind) {
        case ContourKind::part:
            if (c.direction == direction_open)
                n.open_polylines++;
            else
                n.part_contours++;
            break;
        case ContourKind::hatches:
            n.hatch_blocks++;
            n.hatches += points / 2;
            break;
        case ContourKind::support:
            n.support_contours++;
            break;
        case ContourKind::web:
            n.web_contours++;
            break;
        }
    }
}

} // namespace

Bounds empty_bounds() {
    Bounds b;
    b.xmin = b.ymin = b.zmin = DBL_MAX;
    b.xmax = b.ymax = b.zmax = -DBL_MAX;
    return b;
}

Bounds bounds(const Model &model) {
    Bounds b = empty_bounds();
    for (const Layer &layer : model.layers) {
        take_z(b, layer.z);
        for (const Contour &c : layer.contours) {
            for (Point p : c.points) {
                if (!is_gap_mark(p)) take_point(b, p);
            }
        }
    }
    return b;
}

Bounds bounds_mm(const Model &model) {
    Bounds b = bounds(model);
    const double u = model.header.unit_mm;
    // An axis without values keeps its empty marks.
    if (b.xmin <= b.xmax) b.xmin *= u, b.xmax *= u;
    if (b.ymin <= b.ymax) b.ymin *= u, b.ymax *= u;
    if (b.zmin <= b.zmax) b.zmin *= u, b.zmax *= u;
    return b;
}

Counts count(const Layer &layer) {
    Counts n;
    add_counts(n, layer);
    return n;
}

Counts count(const Model &model) {
    Counts n;
    for (const Layer &layer : model.layers)
        add_counts(n, layer);
    return n;
}

bool scale(Layer &layer, double factor, Bounds &b) {
    bool finite = true;
    layer.z = to_float(layer.z * factor, finite);
    take_z(b, layer.z);
    for (Contour &c : layer.contours) {
        for (Point &p : c.points) {
            if (is_gap_mark(p)) continue;
            p.x = to_float(p.x * factor, finite);
            p.y = to_float(p.y * factor, finite);
            take_point(b, p);
        }
    }
    return finite;
}

std::size_t scale(Model &model, double factor, Bounds &bounds) {
    bounds = empty_bounds();
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        if (!scale(model.layers[i], factor, bounds) && first_bad == model.layers.size())
            first_bad = i;
    }
    return first_bad;
}

std::size_t scaled_bounds(const Model &model, double factor, Bounds &b) {
    b = empty_bounds();
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        const Layer &layer = model.layers[i];
        bool finite = true;
        take_z(b, to_float(layer.z * factor, finite));
        for (const Contour &c : layer.contours) {
            for (Point p : c.points) {
                if (is_gap_mark(p)) continue;
                take_point(b, {to_float(p.x * factor, finite), to_float(p.y * factor, finite)});
            }
        }
        if (!finite && first_bad == model.layers.size()) first_bad = i;
    }
    return first_bad;
}

bool move(Layer &layer, double dx, double dy, double dz) {
    bool finite = true;
    layer.z = to_float(layer.z + dz, finite);
    for (Contour &c : layer.contours) {
        for (Point &p : c.points) {
            if (is_gap_mark(p)) continue;
            p.x = to_float(p.x + dx, finite);
            p.y = to_float(p.y + dy, finite);
        }
    }
    return finite;
}

std::size_t move(Model &model, double dx, double dy, double dz) {
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        if (!move(model.layers[i], dx, dy, dz) && first_bad == model.layers.size()) first_bad = i;
    }
    return first_bad;
}

void reverse(Layer &layer, bool directions) {
    for (Contour &c : layer.contours) {
        std::reverse(c.points.begin(), c.points.end());
        if (!directions || c.kind != ContourKind::part) continue;
        if (c.direction == direction_clockwise)
            c.direction = direction_counter_clockwise;
        else if (c.direction == direction_counter_clockwise)
            c.direction = direction_clockwise;
    }
}

void reverse(Model &model, bool directions) {
    for (Layer &layer : model.layers)
        reverse(layer, directions);
}

} // namespace laytran
