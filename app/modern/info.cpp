// laytran info FILE [--json] [--layers]
#include <cstdio>

#include "app/modern/args.h"
#include "app/modern/command.h"
#include "app/modern/console.h"
#include "app/modern/input.h"
#include "app/modern/json.h"
#include "app/modern/options.h"
#include "laytran/summary.h"

namespace laytran::modern {

namespace {

std::string g(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

std::string n(std::uint64_t v) {
    return std::to_string(v);
}

const char *format_title(InputFormat f) {
    return f == InputFormat::slc ? "SLC" : f == InputFormat::fdm ? "FDM slice file (.ssl)" : "CLI";
}

std::string range(double a, double b) {
    return a == b ? g(a) : g(a) + " to " + g(b);
}

} // namespace

std::vector<Fact> summary_facts(const Summary &s, bool header) {
    std::vector<Fact> f;
    f.push_back({"format", format_title(s.format) + (s.variant.empty() ? "" : ", " + s.variant)});
    f.push_back({"unit", g(s.unit_mm) + " mm"});
    if (header) {
        if (!s.units.empty()) f.push_back({"units (header)", s.units});
        if (!s.version.empty()) f.push_back({"version", s.version});
        if (!s.date.empty()) f.push_back({"date", s.date});
        for (const Label &l : s.labels)
            f.push_back({"label", n(l.id) + " " + l.text});
        if (!s.dimension.empty()) f.push_back({"dimension", s.dimension});
    }
    f.push_back(
        {"layers",
         n(s.layer_count) + (s.declared_layers ? " (declared " + n(s.declared_layers) + ")" : "")});
    if (s.layer_count > 0) f.push_back({"z", range(s.z_first_mm, s.z_last_mm) + " mm"});
    if (s.layer_count > 1)
        f.push_back({"spacing", (s.spacing_uniform ? g(s.spacing_min_mm)
                                                   : range(s.spacing_min_mm, s.spacing_max_mm)) +
                                    " mm"});
    if (!s.bounds_mm.empty())
        f.push_back({"bounds", "x " + range(s.bounds_mm.xmin, s.bounds_mm.xmax) + ", y " +
                                   range(s.bounds_mm.ymin, s.bounds_mm.ymax) + ", z " +
                                   range(s.bounds_mm.zmin, s.bounds_mm.zmax) + " mm"});
    const Counts &c = s.counts;
    f.push_back({"empty layers", n(c.empty_layers)});
    f.push_back({"part contours", n(c.part_contours)});
    f.push_back({"open polylines", n(c.open_polylines)});
    f.push_back({"hatch blocks", n(c.hatch_blocks) + " (" + n(c.hatches) + " hatches)"});
    f.push_back({"support contours", n(c.support_contours)});
    f.push_back({"web contours", n(c.web_contours)});
    f.push_back({"points", n(c.points)});
    f.push_back({"gaps", n(c.gaps)});
    return f;
}

namespace {

std::string render_text(const std::string &name, const Summary &s, bool layers) {
    std::string t;
    std::vector<Fact> facts = summary_facts(s, true);
    facts.insert(facts.begin(), {"file", name});
    for (Fact &f : facts) {
        f.key.resize(18, ' ');
        t += f.key + f.value + "\n";
    }
    if (layers) {
        char row[200];
        std::snprintf(row, sizeof row, "\n%8s %12s %9s %9s %8s %9s %8s %8s %10s %6s\n", "layer",
                      "z mm", "contours", "polylines", "hatch bl", "hatches", "support", "web",
                      "points", "gaps");
        t += row;
        for (std::size_t i = 0; i < s.layers.size(); i++) {
            const Counts &k = s.layers[i].counts;
            std::snprintf(
                row, sizeof row, "%8zu %12s %9llu %9llu %8llu %9llu %8llu %8llu %10llu %6llu\n",
                i + 1, g(s.layers[i].z_mm).c_str(),
                static_cast<unsigned long long>(k.part_contours),
                static_cast<unsigned long long>(k.open_polylines),
                static_cast<unsigned long long>(k.hatch_blocks),
                static_cast<unsigned long long>(k.hatches),
                static_cast<unsigned long long>(k.support_contours),
                static_cast<unsigned long long>(k.web_contours),
                static_cast<unsigned long long>(k.points), static_cast<unsigned long long>(k.gaps));
            t += row;
        }
    }
    return t;
}

std::string text_or_null(const std::string &s) {
    return s.empty() ? "null" : json_string(s);
}

std::string json_counts(const Counts &c) {
    return "{\"layers\": " + n(c.layers) + ", \"empty_layers\": " + n(c.empty_layers) +
           ", \"part_contours\": " + n(c.part_contours) +
           ", \"open_polylines\": " + n(c.open_polylines) +
           ", \"hatch_blocks\": " + n(c.hatch_blocks) + ", \"hatches\": " + n(c.hatches) +
           ", \"support_contours\": " + n(c.support_contours) +
           ", \"web_contours\": " + n(c.web_contours) + ", \"points\": " + n(c.points) +
           ", \"gaps\": " + n(c.gaps) + "}";
}

std::string json_bounds(const Bounds &b, bool z) {
    if (b.empty()) return "null";
    std::string s = "{\"xmin\": " + json_number(b.xmin) + ", \"xmax\": " + json_number(b.xmax) +
                    ", \"ymin\": " + json_number(b.ymin) + ", \"ymax\": " + json_number(b.ymax);
    if (z) s += ", \"zmin\": " + json_number(b.zmin) + ", \"zmax\": " + json_number(b.zmax);
    return s + "}";
}

std::string render_json(const std::string &name, const Summary &s, bool layers) {
    std::string j = "{\n";
    j += "  \"file\": " + json_string(name) + ",\n";
    j += std::string("  \"format\": \"") + format_name(s.format) + "\",\n";
    j += "  \"variant\": " + json_string(s.variant) + ",\n";
    j += "  \"unit_mm\": " + json_number(s.unit_mm) + ",\n";
    j += "  \"header\": {\"units\": " + text_or_null(s.units) +
         ", \"version\": " + text_or_null(s.version) + ", \"date\": " + text_or_null(s.date) +
         ", \"dimension\": " + text_or_null(s.dimension) +
         ", \"declared_layers\": " + (s.declared_layers ? n(s.declared_layers) : "null") +
         ",\n    \"labels\": [";
    for (std::size_t i = 0; i < s.labels.size(); i++)
        j += std::string(i ? ", " : "") + "{\"id\": " + n(s.labels[i].id) +
             ", \"text\": " + json_string(s.labels[i].text) + "}";
    j += "],\n    \"fields\": [";
    for (std::size_t i = 0; i < s.fields.size(); i++)
        j += std::string(i ? ",\n      " : "\n      ") +
             "{\"key\": " + json_string(s.fields[i].key) +
             ", \"value\": " + json_string(s.fields[i].value) + "}";
    j += "]},\n";
    j += "  \"layer_count\": " + n(s.layer_count) + ",\n";
    j += "  \"z_mm\": " +
         (s.layer_count ? "{\"first\": " + json_number(s.z_first_mm) + ", \"last\": " +
                              json_number(s.z_last_mm) + ", \"min\": " + json_number(s.z_min_mm) +
                              ", \"max\": " + json_number(s.z_max_mm) + "}"
                        : std::string("null")) +
         ",\n";
    j += "  \"spacing_mm\": " +
         (s.layer_count > 1 ? "{\"min\": " + json_number(s.spacing_min_mm) +
                                  ", \"max\": " + json_number(s.spacing_max_mm) +
                                  ", \"uniform\": " + (s.spacing_uniform ? "true" : "false") + "}"
                            : std::string("null")) +
         ",\n";
    j += "  \"bounds_mm\": " + json_bounds(s.bounds_mm, true) + ",\n";
    j += "  \"counts\": " + json_counts(s.counts);
    if (layers) {
        j += ",\n  \"layers\": [";
        for (std::size_t i = 0; i < s.layers.size(); i++) {
            const LayerSummary &l = s.layers[i];
            j += std::string(i ? "," : "") + "\n    {\"index\": " + n(i + 1) +
                 ", \"z_mm\": " + json_number(l.z_mm) +
                 ", \"thickness_mm\": " + json_number(l.thickness_mm) +
                 ", \"bounds_mm\": " + json_bounds(l.bounds_mm, false) +
                 ", \"counts\": " + json_counts(l.counts) + "}";
        }
        j += s.layers.empty() ? "]" : "\n  ]";
    }
    return j + "\n}\n";
}

int run_info(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(words, {{"json", false},
                                      {"layers", false},
                                      {"from", true},
                                      {"quiet", false},
                                      {"verbose", false},
                                      {"progress", true}});
    if (a.help) return print_help("info", console);
    expect_operands(a, {"FILE"});
    const auto [from, when] = reading_options(a, console);

    Input in;
    if (!in.open(a.operands[0], from, console)) return exit_failed;
    Model model;
    if (!in.read(model, when, console)) return exit_failed;
    const bool layers = a.has("layers");
    const Summary s = summarize(model, layers);
    const std::string name = in.name == "-" ? "<stdin>" : in.name;
    console.print(a.has("json") ? render_json(name, s, layers) : render_text(name, s, layers));
    return console.finish_output() ? exit_ok : exit_failed;
}

} // namespace

extern const Command info_command = {
    "info",
    "info FILE [--json] [--layers]",
    "show what a slice file holds",
    R"(Reads FILE ('-': standard input) and prints what it holds: the format and
variant, the header fields as written (units, version, date, labels,
dimension), the layer count, the z range and spacing, the bounds in
millimetres, and the counts of part contours, open polylines, hatch blocks
and hatches, support and web contours, points and gaps.

Options:
  --json           print one JSON document instead (its keys: see laytran(1))
  --layers         add the counts of every layer
  --from FORMAT    read FILE as FORMAT: cli, slc or ssl (else from its contents,
                   then its extension)
  --progress WHEN  a progress bar on standard error: auto, always, never
  --quiet          print errors only (no warnings about the input)
  --verbose        print notes too
  -h, --help       print this help

Exit status: 0 when FILE was read; 1 when it could not be read (nothing is
printed on standard output); 2 for a usage error.

Examples:
  laytran info part.cli
  laytran info part.slc --json --layers | jq '.counts'
)",
    run_info,
};

} // namespace laytran::modern
