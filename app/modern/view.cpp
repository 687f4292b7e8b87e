// laytran view FILE [-o OUT.html] [options]
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

// The largest page `view` writes. LAYTRAN_VIEW_SIZE_LIMIT (bytes) can only
// lower it: the tests refuse small models that way.
std::uint64_t page_limit() {
    std::uint64_t limit = view::html_size_limit;
    if (const char *text = std::getenv("LAYTRAN_VIEW_SIZE_LIMIT")) {
        char *end = nullptr;
        const unsigned long long v = std::strtoull(text, &end, 10);
        if (end != text && *end == '\0' && v > 0 && v < limit) limit = v;
    }
    return limit;
}

int run_view(const std::vector<std::string> &words, Console &console) {
    const Args a = parse_args(words, {{"output", true, 'o'},
                                      {"from", true},
                                      {"force", false},
                                      {"quiet", false},
                                      {"verbose", false},
                                      {"progress", true}});
    if (a.help) return print_help("view", console);
    expect_operands(a, {"FILE"});
    const auto [from, when] = reading_options(a, console);
    const std::string &file = a.operands[0];
    const std::string *given = a.value("output");
    if (given && given->empty()) throw UsageError("-o needs a file name");
    if (!given && file == "-")
        throw UsageError("name the output with -o when reading standard input");
    const std::string out_name = given ? *given : replace_extension(file, ".html");

    Input in;
    if (!in.open(file, from, console)) return exit_failed;
    console.set_output(out_name);
    Output out;
    if (!out.open(out_name, in.path, a.has("force"), console)) return exit_failed;
    Model model;
    if (!in.read(model, when, console)) return exit_failed;

    view::Document doc = document_texts(picture_title(file), model);
    const std::uint64_t size = page_size(doc, model), limit = page_limit();
    if (size > limit) {
        console.error("the viewer would take about " + size_text(size) + ", over its limit of " +
                          size_text(limit) + " (the size that still opens in a few seconds)",
                      file);
        console.hint("'laytran svg " + file + " --layer N' draws one layer at a time");
        return exit_failed;
    }
    const bool ok = write_picture(
        out, out_name, file,
        [&](std::ostream &stream) {
            add_layers(doc, model);
            model = Model(); // the document holds the layers now
            view::write_html(doc, stream);
        },
        console);
    if (!ok) return exit_failed;
    console.note("written: " + std::to_string(doc.layers.size()) + " layers", out_name);
    return exit_ok;
}

} // namespace

extern const Command view_command = {
    "view",
    "view FILE [-o OUT.html] [options]",
    "write a layer viewer: one HTML page to open in a browser",
    R"(Reads FILE ('-': standard input, with -o) and writes a layer viewer: one
HTML page, to open in any current browser, that needs nothing else (no
network; scripts and geometry are inside). It draws one layer at a time in
millimetres, with part contours, open polylines, hatches and support/web in
their own colours and gaps as breaks; a slider and the keys step through
the layers (arrows, Page Up/Down, Home/End), the wheel zooms, dragging
pans. Layers are numbered from 1, as 'laytran info --layers' counts them. A
side panel shows the header fields as written and the facts 'laytran info'
prints, and the current layer's z, counts and enclosed area; the layer
below and the contours' directions can be shown too.

OUT defaults to FILE with its extension replaced by .html (part.cli ->
part.html), beside FILE; '-' is standard output. It is written as a
temporary file that replaces OUT only when everything was written. A model
whose page would exceed 384 MiB (about 37 million points, more than any
100 MB CLI file holds) is refused: a larger page no longer opens in a few
seconds. 'laytran svg' draws single layers of any model.

Options:
  -o, --output OUT  the page to write (needed for standard input)
  --from FORMAT     read FILE as FORMAT: cli, slc or ssl (else from its
                    contents, then its extension)
  --force           overwrite an existing OUT
  --progress WHEN   a progress bar while reading: auto, always, never
  --quiet           print errors only
  --verbose         print notes too
  -h, --help        print this help

Exit status: 0 when OUT was written; 1 for bad input, a model over the size
limit, a failed run or an existing OUT without --force (OUT is then left
as it was); 2 for a usage error (nothing is read).

Examples:
  laytran view part.cli                 # writes part.html
  laytran view scan.slc -o /tmp/scan.html --force
)",
    run_view,
};

} // namespace laytran::modern
