// Writes the viewer test fixtures (developer tool, not installed):
//   view_fixture DIR              sample.html, sample.json (the model the
//                                 page must decode to) and sample-0.svg
//   view_fixture --big MB LAYERS OUT.html
//                                 a generated model of MB megabytes of
//                                 binary-CLI points (8 bytes a point) in
//                                 LAYERS layers, with the time it took
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "fixture.h"
#include "view/encode.h"

using namespace laytran::view;

namespace {

void write_file(const std::string &path, void (*fill)(const Document &, std::ostream &),
                const Document &doc) {
    std::ofstream out(path, std::ios::binary);
    fill(doc, out);
    out.close();
    if (!out) throw Error("cannot write " + path);
}

// The model as JSON, breaks as null, for the decoding test.
void write_json(const Document &doc, std::ostream &out) {
    std::string j = "{\"title\":";
    detail::append_json_string(j, doc.title);
    j += ",\"header\":[";
    for (const Field &f : doc.header) {
        j += &f == doc.header.data() ? "[" : ",[";
        detail::append_json_string(j, f.key);
        j += ',';
        detail::append_json_string(j, f.value);
        j += ']';
    }
    j += "],\"layers\":[";
    for (const Layer &layer : doc.layers) {
        j += &layer == doc.layers.data() ? "{\"z\":" : ",{\"z\":";
        detail::append_number(j, layer.z);
        j += ",\"paths\":[";
        for (const Path &path : layer.paths) {
            j += &path == layer.paths.data() ? "{" : ",{";
            j += "\"kind\":" + std::to_string(int(path.kind)) +
                 ",\"dir\":" + std::to_string(int(path.direction)) + ",\"points\":[";
            for (const Point &p : path.points) {
                if (&p != path.points.data()) j += ',';
                if (is_break(p)) {
                    j += "null";
                    continue;
                }
                j += '[';
                detail::append_number(j, p.x);
                j += ',';
                detail::append_number(j, p.y);
                j += ']';
            }
            j += "]}";
        }
        j += "]}";
    }
    j += "]}\n";
    out << j;
}

// Per layer: ten round contours of 400 points and hatches taking the rest of
// the layer's share of points, on a 200 mm square plate.
Document big_document(double megabytes, unsigned layers) {
    const double pi = 3.14159265358979;
    auto points = static_cast<std::uint64_t>(megabytes * 1e6 / 8);
    std::uint64_t per_layer = points / layers;
    Document doc;
    doc.title = "generated-" + std::to_string(int(megabytes)) + "MB.cli";
    doc.summary = {{"points", std::to_string(per_layer * layers)}};
    doc.layers.resize(layers);
    for (unsigned i = 0; i < layers; i++) {
        Layer &layer = doc.layers[i];
        layer.z = 0.05 * (i + 1);
        std::uint64_t left = per_layer;
        for (int c = 0; c < 10 && left >= 400; c++, left -= 400) {
            Path p{PathKind::contour, Direction::counter_clockwise, {}};
            double cx = 20 + 40 * (c % 5), cy = 60 + 80 * (c / 5), r = 15 + 3 * std::sin(i * 0.01);
            for (int k = 0; k < 400; k++) {
                double a = 2 * pi * (k % 399) / 399;
                p.points.push_back({float(cx + r * std::cos(a)), float(cy + r * std::sin(a))});
            }
            layer.paths.push_back(std::move(p));
        }
        // Hatches of 1.8 mm in rows of a hundred across the plate, as a
        // dense fill of many small parts would give.
        Path h{PathKind::hatches, Direction::unknown, {}};
        std::uint64_t hatches = left / 2, rows = (hatches + 99) / 100;
        for (std::uint64_t k = 0; k < hatches; k++) {
            float x = float(2 * (k % 100) + 0.1 * (i % 2)), y = float(200.0 * (k / 100) / rows);
            h.points.push_back({x, y});
            h.points.push_back({x + 1.8f, y});
        }
        layer.paths.push_back(std::move(h));
    }
    return doc;
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (argc == 2) {
            std::string dir = argv[1];
            std::filesystem::create_directories(dir);
            Document doc = viewer_fixture::sample_document();
            write_file(dir + "/sample.html", write_html, doc);
            write_file(dir + "/sample.json", write_json, doc);
            write_file(
                dir + "/sample-0.svg",
                [](const Document &d, std::ostream &o) { write_svg(d, 0, o); }, doc);
            return 0;
        }
        if (argc == 5 && std::string(argv[1]) == "--big") {
            Document doc = big_document(std::stod(argv[2]), unsigned(std::stoul(argv[3])));
            auto t0 = std::chrono::steady_clock::now();
            write_file(argv[4], write_html, doc);
            double secs =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            std::ifstream in(argv[4], std::ios::binary | std::ios::ate);
            std::printf("html_bytes %lld\nestimate_bytes %llu\nwrite_seconds %.3f\n",
                        static_cast<long long>(in.tellg()),
                        static_cast<unsigned long long>(estimate_html_size(doc)), secs);
            return 0;
        }
        std::cerr << "usage: view_fixture DIR | view_fixture --big MB LAYERS OUT.html\n";
        return 2;
    } catch (const std::exception &e) {
        std::cerr << "view_fixture: " << e.what() << "\n";
        return 1;
    }
}
