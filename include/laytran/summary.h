// What a model holds, in the terms a person asks about: the file's format
// and header as written, the layer stack's heights and spacing, the bounds
// in millimetres and the counts by kind, for the whole model and per layer.
// `laytran info` prints it; a viewer's side panel shows the same facts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "laytran/model.h"

namespace laytran {

struct LayerSummary {
    double z_mm = 0.0;
    double thickness_mm = 0.0; // 0 when the file gives none
    Bounds bounds_mm; // of the layer's points (z the layer's height); empty() without points
    Counts counts;    // of this layer alone (layers = 1)
};

struct Summary {
    InputFormat format = InputFormat::cli;
    std::string variant;  // e.g. "ASCII", "binary, long form", "version 2.0"
    double unit_mm = 1.0; // millimetres per coordinate unit of the file

    // Header fields as the file writes them; empty when it does not give
    // them. CLI: $$UNITS, $$VERSION, $$DATE, $$DIMENSION (its six numbers
    // as written), $$LABEL. SLC: UNIT, SLCVER, EXTENTS. FDM: V.
    std::string units, version, date, dimension;
    std::vector<Label> labels;
    std::uint32_t declared_layers = 0; // CLI $$LAYERS; 0 when not given
    std::vector<HeaderField> fields;   // every header field, in file order

    std::uint64_t layer_count = 0;
    // Heights of the first and last layer, the lowest and highest, and the
    // steps between neighbouring layers (meaningful with two layers or
    // more): the smallest and largest step, and whether every step is the
    // same within float resolution.
    double z_first_mm = 0.0, z_last_mm = 0.0;
    double z_min_mm = 0.0, z_max_mm = 0.0;
    double spacing_min_mm = 0.0, spacing_max_mm = 0.0;
    bool spacing_uniform = false;
    Bounds bounds_mm; // whole model; empty() without points and layers
    Counts counts;    // whole model
    std::vector<LayerSummary> layers;
};

// Everything above from a model read by read_model. `per_layer` fills
// Summary::layers.
Summary summarize(const Model &model, bool per_layer = true);

} // namespace laytran
