// The FDM module: reader, writer, layer source and sink, on bytes in memory.
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <unistd.h>

#include "formats/fdm/fdm_layers.h"
#include "layer_io_util.h"

using namespace laytran;
using layer_io::contour;

namespace {

std::string num(double v, const char *format = "%g") {
    char t[64];
    snprintf(t, sizeof t, format, v);
    return t;
}

// Every item: "2@z/thickness" where a layer begins (shown with its first
// contour), the terminator and the points per contour; then "err=" and the
// reader's error code.
std::string read_all(std::string bytes, std::size_t block = 0, const char *format = "%g") {
    FILE *f = block && !bytes.empty() ? fmemopen(&bytes[0], bytes.size(), "rb") : nullptr;
    std::unique_ptr<ByteInput> in(f ? new ByteInput(f, block)
                                    : new ByteInput(bytes.data(), bytes.size()));
    FdmReader reader(*in);
    std::vector<Point> points;
    bool closed = false, layer = false;
    std::string out;
    for (FdmReader::Item item; (item = reader.next(points, closed)) != FdmReader::Item::end;) {
        if (item == FdmReader::Item::layer) {
            layer = true;
            continue;
        }
        out += layer ? "2@" + num(reader.z()) + "/" + num(reader.thickness()) : "1";
        out += closed ? " C" : " O";
        for (const Point &p : points)
            out += " " + num(p.x, format) + "," + num(p.y, format);
        out += " | ";
        layer = false;
    }
    if (f) fclose(f);
    return out + "err=" + std::to_string(reader.error().code);
}

layer_io::Written write(const std::vector<Layer> &layers) {
    return layer_io::write(make_fdm_sink, layers, 25.4);
}

Layer layer(float z, std::vector<Contour> contours, float thickness = 0) {
    Layer l;
    l.z = z;
    l.thickness = thickness;
    l.contours = std::move(contours);
    return l;
}

} // namespace

TEST(FdmModule, ReaderHardCases) {
    const std::string square = "SLICE V0\nSLICES ()\nZ 0.005 .005\n1 2\n3 2\n3 4\nC\n";
    const std::string square_read = "2@0.005/0.005 C 1,2 3,2 3,4 | err=0";
    const struct {
        std::string in, out;
    } cases[] = {
        {square, square_read},
        {square + "END\n", square_read},
        {square + "END\n garbage ( C 1", square_read},
        // Case, comments anywhere, dropped bytes, commas inside numbers.
        {"# lead\nslice v0 slices\t(x) z 1\r\n2 c 1.5,2.5 -3\n#c\n 4 .5\n# 9 9\n6 6 o end",
         "2@1/2 O 1.52,-3 4,0.5 6,6 | err=0"},
        {"SL\x01IC\xe9"
         "E FILE (a b) Z 1 2 -1 .5 C 7 8 O Z 3 4 Z 5 6 9 9 C Z 7 8",
         "2@1/2 C -1,0.5 | 1 O 7,8 | 2@5/6 C 9,9 | err=0"},
        {"SLICE Z 1 2 C C 5 5 C", "2@1/2 C | 1 C 5,5 | err=0"}, // two C in a row
        {"SLICE Z 1 2 1 1 X", "err=8"},
        // A missing terminator, also after a lone C, is a wrong keyword.
        {"SLICE Z 1 2 1 1", "err=8"},
        {"SLICE Z 1 2 C", "err=8"},
        {"SLICE Z 1 2 C\n", "err=8"},
        {"SLICE Z 1 2 1 1 C C", "2@1/2 C 1,1 | err=8"},
        {"SLICE Z 1 2 1 x C", "err=6"},
        {"SLICE Z 1 2 1 nan C", "err=5"},
        {"SLICE V x Z 1 2", "err=6"},
        {"SLICE Z 1", "err=1"},
        // A number longer than 49 characters, or beyond float range, is illegal.
        {"SLICE Z 1 2 " + std::string(48, '0') + "1 2 C", "2@1/2 C 1,2 | err=0"},
        {"SLICE Z 1 2 " + std::string(49, '0') + "1 2 C", "err=6"},
        {"SLICE Z 1 2 1 -1e39 C", "err=6"},
        {"SLICE Z inf 1", "err=6"},
        {"SLICE Z 1 2 1 3.4028235e38 C", "2@1/2 C 1,3.40282e+38 | err=0"},
        // Nothing to start with in the first 64 KiB.
        {std::string(65536, '\0') + "SLICE Z 1 2 1 1 C", "err=14"},
        {std::string(65535, ' ') + "SLICE Z 1 2 1 1 C", "2@1/2 C 1,1 | err=0"},
        {"Z 1 2 3 4 C", "err=9"},
        {"", "err=8"},
        {"SLICE V0\n", "err=1"},
        {"SLICE FOO Z 1 2", "err=8"},
        // Version 11: counts before the points, lines skipped after the
        // terminator, unknown words tolerated.
        {"SLICE V11 rest\nFILE (f)\nZ 0.1 0.005 O skip\n3 4\n1 2\n3 4\nC skip\n9 9\n"
         "FOO 2 0 5 6\nO\nskipped\nEND",
         "2@0.1/0.005 C 1,2 3,4 | 1 O 5,6 | err=0"},
        {"SLICE V11\nZ 1 2\n1 1 5 5\nC\n", "err=1"},
    };
    for (const auto &t : cases) {
        EXPECT_EQ(read_all(t.in), t.out) << t.in;
        EXPECT_EQ(read_all(t.in, 1), t.out) << "one-byte blocks: " << t.in;
    }
    EXPECT_STREQ(fdm_error_text(14), "not an FDM file");
    EXPECT_STREQ(fdm_error_text(15), "<unknown>");
}

// Runs of points read straight from the input block against the
// character-by-character path (a stream read five bytes at a time), on
// long random contours of every spelling, with a rare text that stops the
// reading.
TEST(FdmModule, PointRunsReadWhatTheCharacterPathReads) {
    // Plain numbers; from "1e" on odd ones that read on (every 50th value);
    // from "4e38" on those that stop the reading (rarely).
    const char *numbers[] = {"1",
                             "-2.5",
                             "+3.",
                             ".25",
                             "0007.50",
                             "1e3",
                             "-4.5E-2",
                             "-0",
                             "3e38",
                             "1e-45",
                             "1e",
                             "1.5mm",
                             "0x1p3",
                             "1,5",
                             "#c\n1",
                             "C",
                             "12345678901234567890123",
                             "4e38",
                             "nan",
                             "abc"};
    const char *delimiters[] = {" ", " ", "\n", "  ", "\t", "\r\n", " (", ") ", " , "};
    std::mt19937 rng(8);
    for (int round = 0; round < 30; round++) {
        std::string text = "SLICE V0\nZ 0.005 0.005\n";
        while (text.size() < 60000) {
            text += "C\n";
            for (int v = 2 * static_cast<int>(rng() % 300); v > 0; v--) {
                const std::size_t pick = rng() % 20000 == 0 ? 17 + rng() % 3
                                         : rng() % 50 == 0  ? 10 + rng() % 7
                                                            : rng() % 10;
                text += numbers[pick];
                text += delimiters[rng() % 9];
            }
            text += "C\n";
        }
        EXPECT_EQ(read_all(text, 0, "%a"), read_all(text, 5, "%a")) << round;
    }
}

// Layers of many points are formatted on two threads: the bytes the writer
// gives contour by contour.
TEST(FdmModule, SinkFormatsLargeLayersOnTwoThreads) {
    std::mt19937 rng(4);
    std::vector<Layer> layers;
    std::string expected;
    ByteOutput out(&expected);
    FdmWriter writer(out);
    for (int l = 0; l < 3; l++) {
        layers.push_back(layer(0.005f * static_cast<float>(l + 1), {}));
        writer.layer(layers.back().z, 0.0f);
        for (int c = 0; c < 12; c++) {
            std::vector<Point> p;
            for (int i = static_cast<int>(rng() % 900) + 1; i > 0; i--)
                p.push_back({static_cast<float>(rng() % 100000) / 7, static_cast<float>(i)});
            if (c % 4 == 1) p.push_back(p[0]); // closed
            layers.back().contours.push_back(
                contour(p, c % 5 == 3 ? ContourKind::hatches : ContourKind::part));
            if (c % 5 != 3) writer.contour(p.data(), p.size());
        }
    }
    writer.finish();
    layer_io::Written w = write(layers);
    EXPECT_TRUE(w.ok);
    EXPECT_EQ(w.bytes, expected);
    EXPECT_EQ(w.messages,
              "W the FDM format holds part contours only: 6 hatch blocks were left out\n");
}

TEST(FdmModule, SourceGivesLayersOfPartContoursInInches) {
    const std::string text = "SLICE V0 FILE (part.stl) SLICES ()\nZ 0.005 .005\n1 2\n3 2\n3 4\nC\n"
                             "Z 0.01 0\nZ 0.015 .005\n5 5\n6 6\nO\n";
    for (bool keep_empty : {false, true}) {
        layer_io::Read r = layer_io::read(make_fdm_source, text, keep_empty);
        EXPECT_FALSE(r.error);
        EXPECT_EQ(r.header.format, InputFormat::fdm);
        EXPECT_EQ(r.header.variant, "version 0");
        EXPECT_EQ(r.header.unit_mm, 25.4);
        ASSERT_EQ(r.header.fields.size(), 3u);
        EXPECT_EQ(r.header.fields[1].key + "=" + r.header.fields[1].value, "FILE=part.stl");
        ASSERT_EQ(r.layers.size(), keep_empty ? 3u : 2u);
        const Layer &first = r.layers[0], &last = r.layers.back();
        EXPECT_EQ(first.z, 0.005f);
        EXPECT_EQ(first.thickness, 0.005f);
        ASSERT_EQ(first.contours.size(), 1u);
        // A closed contour ends at its first point again.
        const Contour &c = first.contours[0];
        EXPECT_EQ(c.kind, ContourKind::part);
        EXPECT_EQ(c.direction, direction_counter_clockwise);
        ASSERT_EQ(c.points.size(), 4u);
        EXPECT_EQ(c.points[3].x, 1.0f);
        EXPECT_EQ(c.points[3].y, 2.0f);
        EXPECT_EQ(last.z, 0.015f);
        EXPECT_EQ(last.contours.at(0).direction, direction_open);
        EXPECT_EQ(last.contours[0].points.size(), 2u);
        EXPECT_TRUE(r.layers[1].contours.empty() || !keep_empty);
    }
    // A layer cut short by an error is still given; one without a contour is not.
    layer_io::Read r = layer_io::read(make_fdm_source, "SLICE Z 1 2 1 1 C 3 3 C 1 x C");
    EXPECT_STREQ(r.error.text, "illegal number");
    ASSERT_EQ(r.layers.size(), 1u);
    EXPECT_EQ(r.layers[0].contours.size(), 2u);
    r = layer_io::read(make_fdm_source, "SLICE Z 1 2 Z 2 2 1 x C", true);
    ASSERT_EQ(r.layers.size(), 1u);
    EXPECT_EQ(r.layers[0].z, 1.0f);
}

TEST(FdmModule, WriterExactBytes) {
    std::string bytes;
    ByteOutput out(&bytes);
    FdmWriter w(out);
    EXPECT_TRUE(w.layer(9, 9)); // replaced by the next before the header
    EXPECT_TRUE(w.layer(0.005f, 0));
    const std::vector<Point> closed = {{1, 2}, {3, 2}, {3, 4}, {1, 4}, {1, 2}};
    EXPECT_TRUE(w.contour(closed.data(), closed.size()));
    EXPECT_TRUE(w.layer(100, 0.01f));
    const std::vector<Point> open = {{-0.5f, 0}, {123.25f, 2.5f}, {0.005f, 1}};
    EXPECT_TRUE(w.contour(open.data(), open.size()));
    EXPECT_TRUE(w.layer(0, 0.01f)); // a layer without contours keeps its line
    EXPECT_TRUE(w.contour(open.data(), 1));
    EXPECT_FALSE(w.contour(nullptr, 0));
    EXPECT_STREQ(w.error().text, "illegal argument (programming error?)");
    EXPECT_FALSE(w.finish());
    EXPECT_EQ(bytes, "SLICE V0\nSLICES ()\nZ   0.005 .005\n"
                     "  1.   2.\n  3.   2.\n  3.   4.\n  1.   4.\nC\n"
                     "Z 100.  0.01\n -0.5   0.\n123.25   2.5\n  0.005   1.\nO\n"
                     "Z   0.  0.01\nC\nEND\n");
    bytes.clear();
    FdmWriter empty(out);
    EXPECT_TRUE(empty.finish());
    EXPECT_EQ(bytes, "END\n");
}

TEST(FdmModule, NumberTextMatchesPrintf) {
    std::mt19937 rng(99);
    std::vector<float> values = {0.0f, -0.0f,   -1e-9f,  1e-9f,
                                 9e9f, -8.9e9f, 3.4e38f, -std::numeric_limits<float>::infinity()};
    for (int i = 1; i < 400; i += 2)
        values.push_back(static_cast<float>(i) / 128.0f); // ties of the sixth decimal
    for (float edge : {999.9999995f, 999.999999f, 1000.0f, 99.9999995f, 9.9999995f, 0.0000005f})
        values.insert(values.end(), {edge, std::nextafter(edge, 0.0f), std::nextafter(edge, 1e4f)});
    std::uniform_real_distribution<float> wide(-20000.0f, 20000.0f), near(-1000.0f, 1000.0f);
    for (int i = 0; i < 1200000; i++) {
        uint32_t bits = static_cast<uint32_t>(rng());
        float f;
        memcpy(&f, &bits, sizeof f);
        values.push_back(i % 4 == 1 && !std::isnan(f) ? f : i % 4 == 2 ? wide(rng) : near(rng));
    }
    for (size_t i = 0, n = values.size(); i < n; i++)
        values.push_back(-values[i]);
    // Whole lines as the writer makes them, in the scalar and the vector form.
    std::vector<Point> points(values.size() / 2);
    memcpy(points.data(), values.data(), points.size() * sizeof(Point));
    std::vector<char> lines(points.size() * 130), scalar(points.size() * 130);
    for (size_t i = 0, run = 1; i < points.size(); i += run, run = run % 67 + 1) {
        const size_t n = std::min(run, points.size() - i);
        ASSERT_EQ(
            std::string(lines.data(), FdmWriter::points_function()(&points[i], n, lines.data())),
            std::string(scalar.data(),
                        FdmWriter::format_points_scalar(&points[i], n, scalar.data())))
            << i;
    }
    char fast[64], slow[64];
    for (float v : values) {
        size_t n = FdmWriter::format_fixed(v, fast);
        snprintf(slow, sizeof slow, "%10f", static_cast<double>(v));
        ASSERT_EQ(std::string(fast, n), slow) << v;
        std::string trimmed = slow;
        if (trimmed.find('.') != std::string::npos)
            trimmed.erase(trimmed.find_last_not_of('0') + 1);
        ASSERT_EQ(std::string(fast, FdmWriter::format_trimmed(v, fast)), trimmed) << v;
    }
}

// The sink writes part contours split at their gap marks, checks the layer
// spacing, and leaves the rest out with one warning.
TEST(FdmModule, SinkThicknessGapsAndLeftOut) {
    const float G = gap_coordinate;
    const Contour square = contour({{1, 1}, {2, 1}, {2, 2}, {1, 1}});
    // Gap pieces of one point are written before a gap, not at the end.
    const Contour gapped =
        contour({{0, 0}, {1, 0}, {G, G}, {5, 5}, {G, G}, {G, G}, {2, 0}, {3, 0}, {G, G}, {4, 4}},
                ContourKind::part, 4);
    const Contour hatch = contour({{0, 0}, {1, 1}}, ContourKind::hatches, 1);
    layer_io::Written w = write({layer(0.005f, {square}, 0.02f), layer(0.01f, {gapped, hatch}),
                                 layer(0.015f, {contour({{7, 7}}), contour({})}, 0.005f)});
    ASSERT_TRUE(w.ok);
    EXPECT_EQ(w.bytes, "SLICE V0\nSLICES ()\nZ   0.005  0.02\n  1.   1.\n  2.   1.\n  2.   2.\nC\n"
                       "Z   0.01 .005\n  0.   0.\n  1.   0.\nO\nC\n  2.   0.\n  3.   0.\nO\n"
                       "Z   0.015 .005\nEND\n");
    EXPECT_EQ(w.gaps, 5u);
    EXPECT_EQ(w.messages,
              "W the FDM format holds part contours only: 1 hatch block was left out\n");

    // Other spacing: one warning for the run, the thickness as it is.
    w = write({layer(1, {square}), layer(2, {square}), layer(3, {}, 0.5f)});
    EXPECT_EQ(w.messages, "W layer thickness must be 0.005\n");
    EXPECT_NE(w.bytes.find("Z   2.  1.\n"), std::string::npos);
    EXPECT_NE(w.bytes.find("Z   3.  0.5\nEND\n"), std::string::npos);

    // Without part contours the header still goes out, with the last level.
    const Contour support = contour({{0, 0}, {1, 1}}, ContourKind::support);
    w = write({layer(0.03937f, {support}), layer(0.07874f, {support})});
    EXPECT_EQ(w.bytes, "SLICE V0\nSLICES ()\nZ   0.07874  0.03937\nEND\n");
    EXPECT_EQ(w.messages, "W layer thickness must be 0.005\nW the FDM format holds part "
                          "contours only: 2 support contours were left out\n");
    EXPECT_EQ(write({}).bytes, "SLICE V0\nSLICES ()\nZ   0. .005\nEND\n");
}

TEST(FdmModule, WriteErrorsAreKept) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0) GTEST_SKIP() << "no /dev/full";
    ByteOutput out(fd, 16);
    std::vector<Layer> layers;
    for (int i = 0; i < 100; i++)
        layers.push_back(layer(0.005f * i, {contour({{1, 1}, {2, 2}})}));
    layer_io::Written w = layer_io::write(make_fdm_sink, layers, 25.4, &out);
    close(fd);
    EXPECT_FALSE(w.ok);
    EXPECT_STREQ(w.error.text, "write error");
    EXPECT_EQ(w.error.system_error, ENOSPC);
    EXPECT_EQ(w.messages, ""); // nothing is said about a failed output
}

TEST(FdmModule, RoundTripWithinSixDecimals) {
    std::mt19937 rng(4711);
    std::uniform_real_distribution<float> coord(-9.0f, 9.0f);
    std::vector<Layer> layers;
    for (int i = 0; i < 20; i++) {
        layers.push_back(layer(0.005f * (i + 1), {}, i % 2 ? 0.0f : 0.0125f));
        for (int k = 0; k < 3; k++) {
            std::vector<Point> pts(2 + rng() % 300);
            for (Point &p : pts)
                p = {coord(rng), coord(rng)};
            if (k == 1) pts.push_back(pts[0]);
            layers.back().contours.push_back(contour(pts));
        }
    }
    layer_io::Written w = write(layers);
    ASSERT_TRUE(w.ok);
    layer_io::Read r = layer_io::read(make_fdm_source, w.bytes);
    EXPECT_FALSE(r.error);
    ASSERT_EQ(r.layers.size(), layers.size());
    for (size_t i = 0; i < layers.size(); i++) {
        EXPECT_NEAR(r.layers[i].z, layers[i].z, 5e-7);
        EXPECT_NEAR(r.layers[i].thickness, i % 2 ? 0.005 : 0.0125, 5e-7);
        ASSERT_EQ(r.layers[i].contours.size(), 3u);
        for (size_t k = 0; k < 3; k++) {
            const auto &got = r.layers[i].contours[k], &want = layers[i].contours[k];
            EXPECT_EQ(got.direction, k == 1 ? direction_counter_clockwise : direction_open);
            ASSERT_EQ(got.points.size(), want.points.size());
            for (size_t j = 0; j < got.points.size(); j++) {
                // Six decimals, then the float nearest to them.
                EXPECT_NEAR(got.points[j].x, want.points[j].x, 5e-7 + 4.8e-7);
                EXPECT_NEAR(got.points[j].y, want.points[j].y, 5e-7 + 4.8e-7);
            }
        }
    }
}
