// Runs a module's LayerSource or LayerSink on bytes in memory.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "translate/format_io.h"

namespace layer_io {

using namespace laytran;

struct Read {
    std::vector<Layer> layers;
    ModelHeader header;
    StreamError error;
};

// Every layer `make` (a make_*_source) gives. With block > 0 the bytes come
// from a stream of unknown size, `block` bytes at a time.
template <class Make>
Read read(Make make, std::string bytes, bool keep_empty = false, std::size_t block = 0) {
    FILE *f = block && !bytes.empty() ? fmemopen(&bytes[0], bytes.size(), "rb") : nullptr;
    std::unique_ptr<ByteInput> in(f ? new ByteInput(f, block)
                                    : new ByteInput(bytes.data(), bytes.size()));
    DiagnosticSink none;
    Reporter reporter(none);
    SourceOptions options;
    options.keep_empty_layers = keep_empty;
    auto source = make(*in, reporter, options);
    Read r;
    for (Layer layer; source->next_layer(layer); layer = Layer())
        r.layers.push_back(std::move(layer));
    r.header = source->header();
    r.error = source->error();
    if (f) fclose(f);
    return r;
}

struct Written {
    bool ok = false;
    std::string bytes;
    StreamError error;
    std::uint64_t gaps = 0;
    std::string messages; // "W text\n" per warning, "I text\n" per information
};

inline Counts count_kinds(const std::vector<Layer> &layers) {
    Counts n;
    n.layers = layers.size();
    for (const Layer &l : layers) {
        for (const Contour &c : l.contours) {
            if (c.kind == ContourKind::part)
                (c.direction == direction_open ? n.open_polylines : n.part_contours)++;
            n.hatch_blocks += c.kind == ContourKind::hatches;
            n.support_contours += c.kind == ContourKind::support;
            n.web_contours += c.kind == ContourKind::web;
        }
    }
    return n;
}

// Writes the layers through `make` (a make_*_sink) as the engine does; the
// plan's count, levels and counts come from the layers.
template <class Make>
Written write(Make make, const std::vector<Layer> &layers, double unit_mm = 1.0,
              ByteOutput *output = nullptr) {
    Written w;
    ByteOutput memory(&w.bytes);
    ByteOutput &out = output ? *output : memory;
    DiagnosticSink sink = [&w](const Diagnostic &d) {
        w.messages += (d.severity == Severity::warning ? "W " : "I ") + d.text + "\n";
    };
    Reporter reporter(sink);
    auto s = make(out, reporter);
    OutputPlan plan;
    plan.layer_count = layers.size();
    for (const Layer &l : layers)
        plan.levels.push_back(l.z);
    plan.counts = count_kinds(layers);
    plan.unit_mm = unit_mm;
    w.ok = s->begin(plan);
    for (std::size_t i = 0; w.ok && i < layers.size(); i++)
        w.ok = s->write_layer(layers[i]);
    s->report_run_end(reporter);
    w.ok = s->finish() && w.ok;
    w.error = s->error();
    w.gaps = s->gaps();
    return w;
}

inline Contour contour(std::vector<Point> points, ContourKind kind = ContourKind::part,
                       std::uint32_t gaps = 0) {
    Contour c;
    c.kind = kind;
    c.gaps = gaps;
    c.points = std::move(points);
    return c;
}

} // namespace layer_io
