// laytran svg FILE (--layer N | --z Z) [-o OUT.svg] [options]
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "app/modern/args.h"
#include "app/modern/command.h"
#include "app/modern/console.h"
#include "app/modern/input.h"
#include "app/modern/options.h"
#include "app/modern/output.h"
#include "app/modern/picture.h"

namespace laytran::modern {

namespace {

// How far from --z a layer's height may lie and still be the one meant:
// more than float rounding and unit conversion move a height, less than
// any real layer spacing.
constexpr double z_tolerance_mm = 0.0005;

std::string g(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

std::string layer_at(std::size_t index, double z_mm) {
    return "layer " + std::to_string(index + 1) + " at z " + g(z_mm) + " mm";
}

// The index of the layer --layer or --z names; false after an error message.
bool select_layer(const Model &model, const Args &a, std::size_t &index, Console &console,
                  const std::string &file) {
    const std::size_t count = model.layers.size();
    const std::string has = count == 0   ? "the file has no layers"
                            : count == 1 ? "the file has 1 layer"
                                         : "the file has " + std::to_string(count) +
                                               " layers (1 to " + std::to_string(count) + ")";
    if (const std::string *n = a.value("layer")) {
        const unsigned long long number = std::strtoull(n->c_str(), nullptr, 10);
        if (number > count) {
            console.error("there is no layer " + *n + ": " + has, file);
            return false;
        }
        index = static_cast<std::size_t>(number - 1);
        return true;
    }
    const double z = std::strtod(a.value("z")->c_str(), nullptr);
    const double unit = model.header.unit_mm;
    std::size_t matches = 0, below = count, above = count;
    for (std::size_t i = 0; i < count; i++) {
        const double zi = model.layers[i].z * unit;
        if (std::fabs(zi - z) <= z_tolerance_mm) {
            if (matches++ == 0) index = i;
        } else if (zi < z && (below == count || zi > model.layers[below].z * unit)) {
            below = i;
        } else if (zi > z && (above == count || zi < model.layers[above].z * unit)) {
            above = i;
        }
    }
    if (matches > 1)
        console.warning(std::to_string(matches) + " layers lie at z " + g(z) + " mm: drawing " +
                            layer_at(index, model.layers[index].z * unit) +
                            ", the first; --layer picks another",
                        file);
    if (matches > 0) return true;
    console.error("no layer at z " + g(z) + " mm (within " + g(z_tolerance_mm) + " mm): " + has,
                  file);
    std::string nearest;
    for (std::size_t i : {below, above}) {
        if (i == count) continue;
        nearest +=
            (nearest.empty() ? "the nearest: " : " and ") + layer_at(i, model.layers[i].z * unit);
    }
    if (!nearest.empty()) console.hint(nearest);
    return false;
}

int run_svg(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(words, {{"layer", true},
                                      {"z", true},
                                      {"output", true, 'o'},
                                      {"from", true},
                                      {"force", false},
                                      {"quiet", false},
                                      {"verbose", false},
                                      {"progress", true}});
    if (a.help) return print_help("svg", console);
    expect_operands(a, {"FILE"});
    const auto [from, when] = reading_options(a, console);
    const std::string *layer = a.value("layer"), *z = a.value("z");
    if (layer && z) throw UsageError("--layer and --z cannot go together");
    if (!layer && !z) throw UsageError("name the layer: --layer N (from 1) or --z Z (in mm)");
    errno = 0;
    if (layer && (layer->empty() || layer->find_first_not_of("0123456789") != std::string::npos ||
                  std::strtoull(layer->c_str(), nullptr, 10) == 0 || errno == ERANGE))
        throw UsageError("bad --layer '" + *layer +
                         "' (a layer number from 1, as 'laytran info --layers' counts)");
    if (z) {
        char *end = nullptr;
        const double v = std::strtod(z->c_str(), &end);
        if (z->empty() || *end != '\0' || !std::isfinite(v))
            throw UsageError("bad --z '" + *z + "' (a height in millimetres)");
    }
    const std::string &file = a.operands[0];
    const std::string *given = a.value("output");
    if (given && given->empty()) throw UsageError("-o needs a file name");
    if (!given && file == "-")
        throw UsageError("name the output with -o when reading standard input");

    Input in;
    if (!in.open(file, from, console)) return exit_failed;
    Model model;
    if (!in.read(model, when, console)) return exit_failed;
    std::size_t index = 0;
    if (!select_layer(model, a, index, console, file)) return exit_failed;
    const std::string out_name =
        given ? *given : replace_extension(file, "-layer" + std::to_string(index + 1) + ".svg");
    console.set_output(out_name);
    Output out;
    if (!out.open(out_name, in.path, a.has("force"), console)) return exit_failed;
    view::Document doc;
    doc.title = picture_title(file);
    const bool ok = write_picture(
        out, out_name, file,
        [&](std::ostream &stream) {
            add_layers(doc, model);
            view::write_svg(doc, index, stream);
        },
        console);
    return ok ? exit_ok : exit_failed;
}

} // namespace

extern const Command svg_command = {
    "svg",
    "svg FILE (--layer N | --z Z) [-o OUT.svg] [options]",
    "draw one layer as an SVG picture",
    R"(Reads FILE and draws one layer as a standalone SVG picture in the viewer's
colours: part contours, open polylines, hatches and support/web, gaps as
breaks. Its coordinates are the model's in millimetres (the viewBox spans
the whole model's bounds, so pictures of different layers line up, and
width and height are given in mm, so it prints at real size).

The layer: --layer N counts from 1, as 'laytran info --layers' and the
viewer count; --z Z takes the layer whose height lies within 0.0005 mm of
Z millimetres (the first of several; none is an error that names the
nearest layers).

OUT defaults to FILE with its extension replaced by -layerN.svg, N the
layer drawn (part.cli -> part-layer3.svg), beside FILE; '-' is standard
output. It is written as a temporary file that replaces OUT only when
everything was written.

Options:
  --layer N         draw layer N (from 1)
  --z Z             draw the layer at height Z (mm)
  -o, --output OUT  the picture to write (needed for standard input)
  --from FORMAT     read FILE as FORMAT: cli, slc or ssl (else from its
                    contents, then its extension)
  --force           overwrite an existing OUT
  --progress WHEN   a progress bar while reading: auto, always, never
  --quiet           print errors only
  --verbose         print notes too
  -h, --help        print this help

Exit status: 0 when OUT was written; 1 for bad input, a layer that does not
exist, a failed run or an existing OUT without --force (OUT is then left as
it was); 2 for a usage error (nothing is read).

Examples:
  laytran svg part.cli --layer 1              # writes part-layer1.svg
  laytran svg part.slc --z 2.5 -o - > z2.5.svg
)",
    run_svg,
};

} // namespace laytran::modern
