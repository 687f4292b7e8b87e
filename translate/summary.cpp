// The model summary (include/laytran/summary.h).
#include "laytran/summary.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace laytran {

namespace {

const std::string *field(const Model &model, const char *key) {
    for (const HeaderField &f : model.header.fields) {
        if (f.key == key) return &f.value;
    }
    return nullptr;
}

void take(std::string &to, const Model &model, const char *key) {
    if (const std::string *v = field(model, key)) to = *v;
}

// A layer's bounds in millimetres; the x and y ranges stay empty (min >
// max) without points.
Bounds layer_bounds_mm(const Layer &layer, double unit) {
    Bounds b;
    b.xmin = b.ymin = DBL_MAX;
    b.xmax = b.ymax = -DBL_MAX;
    for (const Contour &c : layer.contours) {
        for (Point p : c.points) {
            if (is_gap_mark(p)) continue;
            b.xmin = std::min<double>(b.xmin, p.x);
            b.xmax = std::max<double>(b.xmax, p.x);
            b.ymin = std::min<double>(b.ymin, p.y);
            b.ymax = std::max<double>(b.ymax, p.y);
        }
    }
    if (b.xmin <= b.xmax) b.xmin *= unit, b.xmax *= unit, b.ymin *= unit, b.ymax *= unit;
    b.zmin = b.zmax = layer.z * unit;
    return b;
}

// Two steps between layers that are the same: within float resolution of
// the heights they were taken from.
bool same_step(double a, double b, double height) {
    const double tolerance = 4.0 * FLT_EPSILON * std::max(1.0, height);
    return std::fabs(a - b) <= tolerance;
}

} // namespace

Summary summarize(const Model &model, bool per_layer) {
    Summary s;
    const ModelHeader &h = model.header;
    s.format = h.format;
    s.variant = h.variant;
    s.unit_mm = h.unit_mm;
    s.declared_layers = h.declared_layers;
    s.labels = h.labels;
    s.fields = h.fields;
    switch (h.format) {
    case InputFormat::cli:
        take(s.units, model, "UNITS");
        take(s.version, model, "VERSION");
        take(s.date, model, "DATE");
        take(s.dimension, model, "DIMENSION");
        break;
    case InputFormat::slc:
        take(s.units, model, "UNIT");
        take(s.version, model, "SLCVER");
        take(s.dimension, model, "EXTENTS");
        break;
    case InputFormat::fdm:
        take(s.version, model, "V");
        break;
    }

    const double u = h.unit_mm;
    s.layer_count = model.layers.size();
    s.counts = count(model);
    s.bounds_mm = bounds_mm(model);
    if (!model.layers.empty()) {
        s.z_first_mm = model.layers.front().z * u;
        s.z_last_mm = model.layers.back().z * u;
        s.z_min_mm = s.z_max_mm = s.z_first_mm;
    }
    double height = 0.0;
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        const double z = model.layers[i].z * u;
        s.z_min_mm = std::min(s.z_min_mm, z);
        s.z_max_mm = std::max(s.z_max_mm, z);
        height = std::max(height, std::fabs(z));
        if (i == 0) continue;
        const double step = z - model.layers[i - 1].z * u;
        if (i == 1) {
            s.spacing_min_mm = s.spacing_max_mm = step;
            s.spacing_uniform = true;
            continue;
        }
        s.spacing_min_mm = std::min(s.spacing_min_mm, step);
        s.spacing_max_mm = std::max(s.spacing_max_mm, step);
    }
    if (model.layers.size() > 1)
        s.spacing_uniform = same_step(s.spacing_min_mm, s.spacing_max_mm, height);

    if (per_layer) {
        s.layers.reserve(model.layers.size());
        for (const Layer &layer : model.layers) {
            LayerSummary l;
            l.z_mm = layer.z * u;
            l.thickness_mm = layer.thickness * u;
            l.bounds_mm = layer_bounds_mm(layer, u);
            l.counts = count(layer);
            s.layers.push_back(l);
        }
    }
    return s;
}

} // namespace laytran
