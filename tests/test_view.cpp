// The layer viewer's geometry encoding, text escaping, layer statistics,
// refusals and the SVG drawing; `laytran view` and `laytran svg` end to
// end. The pages themselves are checked by the node and browser tests in
// tests/viewer.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <regex>
#include <sstream>

#include "test_util.h"
#include "view/encode.h"
#include "viewer/fixture.h"

using namespace laytran::view;
using namespace laytran::view::detail;

TEST(ViewEncoding, Base64AndTheLayerRecordLayout) {
    const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"\xFB\xFF\xBF", "+/+/"}};
    for (const auto &[in, want] : vectors) {
        std::string out = ">";
        base64_append(reinterpret_cast<const unsigned char *>(in.data()), in.size(), out);
        EXPECT_EQ(out, ">" + want);
        EXPECT_EQ(base64_size(in.size()), want.size());
    }

    Layer layer{1.0,
                {{PathKind::hatches, Direction::unknown, {{1.5f, -2}, {3, 4}}},
                 {PathKind::contour, Direction::clockwise, {{0.1f, 0}, break_mark, {1, 1}}}}};
    std::vector<unsigned char> record;
    encode_layer(layer, record);
    const std::vector<unsigned char> want = {
        2,    0,    0,    0,                   // paths
        2,    0,    0,    0,    2, 0, 0,    0, // hatches, 2 points
        0,    1,    0,    0,    3, 0, 0,    0, // contour clockwise, 3 points
        0,    0,    0xC0, 0x3F, 0, 0, 0,    0xC0, 0, 0, 0x40, 0x40, 0, 0, 0x80, 0x40, // 1.5 -2 3 4
        0xCD, 0xCC, 0xCC, 0x3D, 0, 0, 0,    0,                                        // 0.1 0
        0,    0,    0xC0, 0x7F, 0, 0, 0xC0, 0x7F,  // NaN NaN (break)
        0,    0,    0x80, 0x3F, 0, 0, 0x80, 0x3F}; // 1 1
    EXPECT_EQ(record, want);
    EXPECT_EQ(encoded_layer_size(2, 5), want.size());
}

TEST(ViewEncoding, TextAndNumbers) {
    EXPECT_EQ(to_utf8("caf\xE9"), "caf\xC3\xA9"); // Latin-1
    EXPECT_EQ(to_utf8("\xE2\x82\xAC \xF0\x9F\x99\x82"), "\xE2\x82\xAC \xF0\x9F\x99\x82");
    EXPECT_EQ(to_utf8("\xC0\xAF"), "\xC3\x80\xC2\xAF");             // overlong: not UTF-8
    EXPECT_EQ(to_utf8("\xED\xA0\x80"), "\xC3\xAD\xC2\xA0\xC2\x80"); // a surrogate
    EXPECT_EQ(to_utf8("\xE2\x82"), "\xC3\xA2\xC2\x82");             // cut short

    std::string s;
    append_json_string(s, "a\"\\\n</script>\x01");
    EXPECT_EQ(s, R"("a\"\\\u000a\u003c/script>\u0001")");
    s.clear();
    append_markup_text(s, "<a href='x'>&\"\x01");
    EXPECT_EQ(s, "&lt;a href=&#39;x&#39;&gt;&amp;&quot; ");

    s.clear();
    for (double v : {double(0.05f), 0.1, -2800.0, 1e-7, 123456789.123})
        append_number(s, v), s += ' ';
    EXPECT_EQ(s, "0.05 0.1 -2800 1e-07 123456789.123 ");
}

TEST(ViewStats, CountsAreaAndDirectionMismatches) {
    Document doc = viewer_fixture::sample_document();
    LayerStats s = layer_stats(doc.layers[0]);
    EXPECT_EQ(s.contours, 2u);
    EXPECT_EQ(s.polylines, 1u);
    EXPECT_EQ(s.hatches, 2u);
    EXPECT_EQ(s.supports, 1u);
    EXPECT_EQ(s.points, 21u);
    EXPECT_EQ(s.breaks, 1u);
    EXPECT_EQ(s.mismatches, 0u);
    EXPECT_DOUBLE_EQ(s.area, 80 * 40 - 20 * 20); // the hole subtracts
    s = layer_stats(doc.layers[1]);
    EXPECT_EQ(s.mismatches, 1u);                 // declared clockwise, runs counter-clockwise
    EXPECT_DOUBLE_EQ(s.area, 80 * 40 + 10 * 10); // the gap is bridged
    EXPECT_EQ(layer_stats(doc.layers[3]).points, 0u);

    // Far from the origin the area keeps its precision.
    Layer far{0,
              {{PathKind::contour,
                Direction::clockwise,
                {{100000, 100000}, {100000, 100001}, {100001, 100001}, {100001, 100000}}}}};
    EXPECT_DOUBLE_EQ(layer_stats(far).area, -1);
}

namespace {

// An output that takes `room` bytes and then fails.
class FullDisk : public std::streambuf {
  public:
    explicit FullDisk(std::size_t room) : room_(room) {}

  protected:
    int_type overflow(int_type c) override { return room_ ? (room_--, c) : traits_type::eof(); }
    std::streamsize xsputn(const char *, std::streamsize n) override {
        auto k = std::min<std::streamsize>(n, static_cast<std::streamsize>(room_));
        room_ -= static_cast<std::size_t>(k);
        return k;
    }

  private:
    std::size_t room_;
};

} // namespace

TEST(ViewWriters, RefuseBadModelsAndFailedOutput) {
    const std::pair<std::function<void(Document &)>, std::string> cases[] = {
        {[](Document &d) { d.layers[2].z = NAN; }, "layer 2: z is not finite"},
        {[](Document &d) { d.layers[0].paths[1].points[2].y = INFINITY; },
         "layer 0, path 1, point 2: coordinate is not finite"},
        {[](Document &d) { d.layers[0].paths[3].points[2].x = 0; },
         "layer 0, path 3, point 2: coordinate is not finite"}, // half a break
        {[](Document &d) { d.layers[0].paths[2].points.pop_back(); },
         "layer 0, path 2: hatches need an even number of points"},
        {[](Document &d) { d.layers[0].paths[2].points[1] = break_mark; },
         "layer 0, path 2, point 1: hatches cannot have a break"},
        {[](Document &d) { d.layers[1].paths[0].kind = PathKind(4); },
         "layer 1, path 0: unknown kind or direction"},
    };
    for (const auto &[spoil, message] : cases) {
        Document doc = viewer_fixture::sample_document();
        spoil(doc);
        std::ostringstream html, svg;
        try {
            write_html(doc, html);
            ADD_FAILURE() << "accepted: " << message;
        } catch (const Error &e) {
            EXPECT_EQ(e.what(), message);
        }
        EXPECT_THROW(write_svg(doc, 3, svg), Error);
        EXPECT_EQ(html.str() + svg.str(), ""); // nothing written before the refusal
    }

    Document doc = viewer_fixture::sample_document();
    std::ostringstream out;
    EXPECT_THROW(write_svg(doc, 4, out), Error);
    for (std::size_t room : {0, 100, 20000}) {
        FullDisk disk(room);
        std::ostream o(&disk);
        EXPECT_THROW(write_html(doc, o), Error) << room;
        EXPECT_THROW(write_svg(doc, 0, o), Error) << room;
    }
}

TEST(ViewWriters, HtmlSizeEstimateAndEscaping) {
    Document doc = viewer_fixture::sample_document();
    Layer big{1, {{PathKind::polyline, Direction::unknown, {}}}};
    for (int k = 0; k < 30000; k++)
        big.paths[0].points.push_back({float(k), float(k % 7)});
    for (int k = 0; k < 20; k++)
        doc.layers.push_back(big);
    std::ostringstream out;
    write_html(doc, out);
    const std::string html = out.str();
    EXPECT_LE(html.size(), estimate_html_size(doc));
    EXPECT_GE(html.size() + 16384, estimate_html_size(doc));

    // Header texts never close the element they are in; the title is markup-escaped.
    EXPECT_EQ(html.find("</script><b>"), std::string::npos);
    EXPECT_NE(html.find("<title>plaque-\xC3\xA9 &lt;demo&gt; &amp; &quot;sample&quot;.cli"),
              std::string::npos);
}

namespace {

// The runs of points a <g class="..."> group of the SVG draws, each path's
// "M x y L x y x y ..." split at every M.
std::vector<std::vector<Point>> svg_runs(const std::string &svg, const std::string &group) {
    std::vector<std::vector<Point>> runs;
    std::size_t at = svg.find("<g class=\"" + group + "\"");
    std::size_t end = svg.find("</g>", at);
    while ((at = svg.find("<path d=\"", at)) < end) {
        std::istringstream d(svg.substr(at + 9, svg.find('"', at + 9) - at - 9));
        std::string token;
        while (d >> token) {
            if (token[0] == 'M') runs.emplace_back();
            std::string y;
            d >> y;
            float x = std::stof(token[0] == 'M' || token[0] == 'L' ? token.substr(1) : token);
            runs.back().push_back({x, std::stof(y)});
        }
        at++;
    }
    return runs;
}

} // namespace

TEST(ViewWriters, SvgDrawsTheLayersPointsRightWayUp) {
    Document doc = viewer_fixture::sample_document();
    const char *groups[] = {"contour", "polyline", "hatches", "support"};
    for (std::size_t i = 0; i < doc.layers.size(); i++) {
        std::ostringstream out;
        write_svg(doc, i, out);
        const std::string svg = out.str();
        // Model bounds x -5.5..100.125, y -2.25..60, with a 2% margin; the
        // viewBox's y is flipped along with the drawing.
        EXPECT_NE(svg.find("width=\"109.85mm\" height=\"66.475mm\" "
                           "viewBox=\"-7.6125 -62.1125 109.85 66.475\""),
                  std::string::npos);
        EXPECT_NE(svg.find("<g transform=\"scale(1 -1)\""), std::string::npos);
        EXPECT_NE(svg.find("layer " + std::to_string(i + 1) + " of 4 at z = "), std::string::npos);
        for (int kind = 0; kind < 4; kind++) {
            std::vector<std::vector<Point>> want;
            for (const Path &path : doc.layers[i].paths) {
                if (int(path.kind) != kind) continue;
                want.emplace_back();
                for (std::size_t k = 0; k < path.points.size(); k++) {
                    bool split = is_break(path.points[k]) ||
                                 (path.kind == PathKind::hatches && k % 2 == 0 && k > 0);
                    if (split && !want.back().empty()) want.emplace_back();
                    if (!is_break(path.points[k])) want.back().push_back(path.points[k]);
                }
            }
            auto got = svg_runs(svg, groups[kind]);
            ASSERT_EQ(got.size(), want.size()) << "layer " << i << " " << groups[kind];
            for (std::size_t r = 0; r < want.size(); r++) {
                ASSERT_EQ(got[r].size(), want[r].size());
                for (std::size_t k = 0; k < want[r].size(); k++) {
                    EXPECT_EQ(got[r][k].x, want[r][k].x);
                    EXPECT_EQ(got[r][k].y, want[r][k].y);
                }
            }
        }
    }
}

// `laytran view` and `laytran svg`, end to end through the executable.
namespace {

// Three layers of 0.5 mm units at z 1, 2 and 3 mm: a counter-clockwise
// contour, an open polyline and two hatches; an empty layer; a triangle.
const char MODEL[] = "$$HEADERSTART\n$$ASCII\n$$UNITS/0.5\n$$LABEL/1,part\n$$HEADEREND\n"
                     "$$GEOMETRYSTART\n$$LAYER/2\n$$POLYLINE/1,1,5,2,2,10,2,10,8,2,8,2,2\n"
                     "$$POLYLINE/1,2,3,4,4,6,4,6,6\n$$HATCHES/1,2,3,3,9,3,3,5,9,5\n$$LAYER/4\n"
                     "$$LAYER/6\n$$POLYLINE/1,0,4,2,2,2,8,10,2,2,2\n$$GEOMETRYEND\n";

using Runs = std::vector<std::vector<Point>>;

void expect_runs(const std::string &svg, const std::string &group, const Runs &want) {
    const Runs got = svg_runs(svg, group);
    ASSERT_EQ(got.size(), want.size()) << group << "\n" << svg;
    for (std::size_t r = 0; r < want.size(); r++) {
        ASSERT_EQ(got[r].size(), want[r].size()) << group;
        for (std::size_t k = 0; k < want[r].size(); k++)
            EXPECT_TRUE(got[r][k].x == want[r][k].x && got[r][k].y == want[r][k].y)
                << group << " run " << r << " point " << k;
    }
}

// A usage error: status 2, the message and the hint, nothing read or written.
void expect_usage(const std::vector<std::string> &args, const std::string &message,
                  const std::string &dir) {
    const RunResult r = run_laytran(args, dir);
    EXPECT_EQ(r.status, 2) << args[1];
    EXPECT_EQ(r.err,
              "laytran " + args[0] + ": " + message + "\ntry 'laytran " + args[0] + " --help'\n");
}

} // namespace

TEST(ViewCommand, SvgDrawsTheChosenLayerInMillimetres) {
    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    RunResult r = run_laytran({"svg", "m.cli", "--layer", "1", "-o", "-"}, d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("<title>m.cli, layer 1 of 3 at z = 1 mm</title>"), std::string::npos);
    expect_runs(r.out, "contour", {{{1, 1}, {5, 1}, {5, 4}, {1, 4}, {1, 1}}});
    expect_runs(r.out, "polyline", {{{2, 2}, {3, 2}, {3, 3}}});
    expect_runs(r.out, "hatches", {{{1.5, 1.5}, {4.5, 1.5}}, {{1.5, 2.5}, {4.5, 2.5}}});
    // --z within 0.0005 mm; the default name carries the layer drawn.
    r = run_laytran({"svg", "m.cli", "--z", "3.0004"}, d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    expect_runs(read_file(d.file("m-layer3.svg")), "contour", {{{1, 1}, {1, 4}, {5, 1}, {1, 1}}});
    EXPECT_EQ(run_laytran({"svg", "m.cli", "--layer=2", "-o", "-"}, d.path()).out.find("<path"),
              std::string::npos); // the empty layer
    // Layers that do not exist, an existing output without --force.
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"--layer", "4"},
         "laytran: m.cli: error: there is no layer 4: the file has 3 layers (1 "
         "to 3)\n"},
        {{"--z", "2.5"},
         "laytran: m.cli: error: no layer at z 2.5 mm (within 0.0005 mm): the file "
         "has 3 layers (1 to 3)\nlaytran: hint: the nearest: layer 2 at z 2 mm "
         "and layer 3 at z 3 mm\n"},
        {{"--z", "3"},
         "laytran: m-layer3.svg: error: exists (not overwritten)\n"
         "laytran: hint: use --force to overwrite it\n"},
    };
    for (const auto &[args, message] : refused) {
        std::vector<std::string> all = {"svg", "m.cli"};
        all.insert(all.end(), args.begin(), args.end());
        r = run_laytran(all, d.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, message);
    }

    // SLC gap marks are breaks in the path.
    const auto f32 = [](float v) { return std::string(reinterpret_cast<const char *>(&v), 4); };
    const auto u32 = [](std::uint32_t v) {
        return std::string(reinterpret_cast<const char *>(&v), 4);
    };
    const float gap = 3.4028235e38f;
    write_file(d.file("gap.slc"), "-SLCVER 2.0 -UNIT MM\r\n\x1a" + std::string(256, '\0') + "\1" +
                                      f32(0) + f32(0.1f) + f32(0) + f32(0) + f32(0.1f) + u32(1) +
                                      u32(5) + u32(1) + f32(0) + f32(0) + f32(10) + f32(0) +
                                      f32(gap) + f32(gap) + f32(10) + f32(10) + f32(0) + f32(0) +
                                      f32(0.2f) + u32(0xFFFFFFFF));
    r = run_laytran({"svg", "gap.slc", "--layer", "1", "-o", "-"}, d.path());
    EXPECT_EQ(r.status, 0) << r.err;
    expect_runs(r.out, "contour", {{{0, 0}, {10, 0}}, {{10, 10}, {0, 0}}});

#ifdef LAYTRAN_XMLLINT
    // A name that needs escaping in the title still gives well-formed XML.
    write_file(d.file("a&b <\"c\">.cli"), MODEL);
    ASSERT_EQ(
        run_laytran({"svg", "a&b <\"c\">.cli", "--layer", "1", "-o", "p.svg"}, d.path()).status, 0);
    r = run_program(LAYTRAN_XMLLINT, {"--noout", "p.svg"}, d.path(), "", "xmllint");
    EXPECT_EQ(r.status, 0) << r.err;
#endif
}

TEST(ViewCommand, ViewWritesThePageOrRefusesIt) {
    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    RunResult r = run_laytran({"view", "m.cli"}, d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string html = read_file(d.file("m.html"));
    for (const char *part : {"<title>m.cli &#183; laytran viewer</title>", R"(["LABEL","1,part"])",
                             R"(["format","CLI, ASCII"])",
                             R"(["part contours","2"],["open polylines","1"])", "id=\"L2\">"})
        EXPECT_NE(html.find(part), std::string::npos) << part;
    // An existing page needs --force; a page over the size limit is refused
    // and leaves it as it was.
    r = run_laytran({"view", "m.cli"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "laytran: m.html: error: exists (not overwritten)\n"
                     "laytran: hint: use --force to overwrite it\n");
    r = run_laytran({"view", "m.cli", "--force"}, d.path(), "", "laytran",
                    {"LAYTRAN_VIEW_SIZE_LIMIT=20000"});
    EXPECT_EQ(r.status, 1);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        r.err, m,
        std::regex("laytran: m.cli: error: the viewer would take about ([0-9.]+) KiB, over its "
                   "limit of 19.5 KiB \\(the size that still opens in a few seconds\\)\n"
                   "laytran: hint: 'laytran svg m.cli --layer N' draws one layer at a time\n")))
        << r.err;
    EXPECT_GE(std::stod(m[1]) * 1024 + 52, html.size()); // the estimate is an upper bound
    EXPECT_EQ(read_file(d.file("m.html")), html);
    EXPECT_EQ(run_program("/bin/sh", {"-c", "ls -A"}, d.path()).out, "m.cli\nm.html\n");
    // Standard input to standard output.
    r = run_laytran({"view", "-", "-o", "-", "--from", "cli"}, d.path(), MODEL);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("<title>&lt;stdin&gt; &#183;"), std::string::npos);

    expect_usage({"view"}, "missing operand FILE", d.path());
    expect_usage({"view", "-"}, "name the output with -o when reading standard input", d.path());
    expect_usage({"view", "m.cli", "-o"}, "option '-o' needs a value", d.path());
    expect_usage({"svg", "m.cli"}, "name the layer: --layer N (from 1) or --z Z (in mm)", d.path());
    expect_usage({"svg", "m.cli", "--layer", "1", "--z", "1"}, "--layer and --z cannot go together",
                 d.path());
    for (const char *bad : {"0", "-1", "1.5", "x", ""})
        expect_usage({"svg", "m.cli", "--layer", bad},
                     std::string("bad --layer '") + bad +
                         "' (a layer number from 1, as 'laytran info --layers' counts)",
                     d.path());
    for (const char *bad : {"nan", "inf", "1mm", ""})
        expect_usage({"svg", "missing.cli", "--z", bad},
                     std::string("bad --z '") + bad + "' (a height in millimetres)", d.path());
    EXPECT_EQ(run_program("/bin/sh", {"-c", "ls -A"}, d.path()).out, "m.cli\nm.html\n");
}
