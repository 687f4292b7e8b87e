// The layer viewer's geometry encoding, text escaping, layer statistics,
// refusals and the SVG drawing. The page itself is checked by the node and
// browser tests in tests/viewer.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <sstream>

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
