// The SLC module: reader, writer, layer source and sink, on bytes in memory.
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "formats/slc/slc_layers.h"
#include "layer_io_util.h"

using namespace laytran;
using layer_io::contour;

namespace {

std::string u32(uint32_t v) {
    std::string b;
    for (int i = 0; i < 4; i++)
        b += static_cast<char>((v >> (8 * i)) & 0xFF);
    return b;
}
std::string f32(float v) {
    uint32_t bits;
    memcpy(&bits, &v, 4);
    return u32(bits);
}
std::string boundary(const std::vector<Point> &pts, uint32_t gaps = 0) {
    std::string b = u32(static_cast<uint32_t>(pts.size())) + u32(gaps);
    for (const Point &p : pts)
        b += f32(p.x) + f32(p.y);
    return b;
}
// Header text, Ctrl-Z, reserved area and an empty sampling table.
std::string start(const std::string &text) {
    return text + '\x1a' + std::string(257, '\0');
}
std::string one_layer(const std::string &text) {
    return start(text) + f32(1) + u32(1) + boundary({{1, 2}, {3, 4}, {5, 6}}) + f32(1) +
           u32(slc_end_of_layers);
}
const std::string header_mm = "-SLCVER 2.0\n-UNIT MM \n-TYPE PART \n"
                              "-PACKAGE Vantorell/Plexo_Forge_3.3\n\r\n\x1a";

layer_io::Read read(const std::string &bytes, bool keep_empty = false, std::size_t block = 0) {
    return layer_io::read(make_slc_source, bytes, keep_empty, block);
}
layer_io::Written write(const std::vector<Layer> &layers, double unit_mm = 1.0) {
    return layer_io::write(make_slc_sink, layers, unit_mm);
}

// The module reader, which goes on after an error in the header text.
struct Scan {
    SlcHeader header;
    std::vector<SlcSample> samples;
    std::vector<std::vector<Point>> boundaries;
    StreamError error;
};
Scan scan(const std::string &bytes) {
    ByteInput in(bytes.data(), bytes.size());
    SlcReader reader(in);
    Scan s;
    float z;
    uint32_t count, gaps;
    while (reader.next_layer(z, count)) {
        for (uint32_t k = 0; k < count; k++) {
            s.boundaries.emplace_back();
            if (!reader.read_boundary(s.boundaries.back(), gaps)) break;
        }
    }
    s.header = reader.header();
    s.samples = reader.samples();
    s.error = reader.error();
    return s;
}

const std::vector<Point> square = {{0, 0}, {2, 0}, {2, 3.5f}, {0, 0}};

std::vector<Layer> layers_of(std::vector<float> levels,
                             std::vector<std::vector<Contour>> contours) {
    std::vector<Layer> layers(levels.size());
    for (size_t i = 0; i < levels.size(); i++) {
        layers[i].z = levels[i];
        layers[i].contours = contours[i];
    }
    return layers;
}

} // namespace

TEST(SlcModule, HeaderScannerHardCases) {
    using K = SlcKeyword;
    struct Case {
        std::string text;
        const char *version, *package;
        SlcKeyword unit, type;
        SlcError error;
    } cases[] = {
        {"-SLCVER 2.0\r\n-UNIT INCH\r\n-TYPE PART\r\n-PACKAGE x y\r\n", "2.0", "X Y", K::inch,
         K::part, SlcError::none},
        {"sLcVeR 2.0 uNiT mm", "2.0", "", K::mm, K::none, SlcError::none},
        {"SLCVER 2.0", "2.0", "", K::none, K::none, SlcError::none}, // ends at the Ctrl-Z
        {"", "", "", K::none, K::none, SlcError::none},
        // Digits are skipped while a keyword is sought.
        {"-UNIT 25 -TYPE PART", "", "", K::type, K::none, SlcError::none},
        {"-TYPE SUPPORT -SLCVER 12345", "123", "", K::none, K::support, SlcError::none},
        {"SLCVER 2.0\xffUNIT\xb0MM", "2.0", "", K::mm, K::none, SlcError::none}, // 0x80+ separate
        {"-PACKAGE a,b-c -UNIT MM", "", "A,B", K::none, K::none, SlcError::keyword}, // no C
        {"SLCVER 1.0 FOO UNIT MM", "1.0", "", K::none, K::none, SlcError::keyword},
        // Numbers that are not finite as floats are refused.
        {"-EXTENTS 0 1e39 0 1 0 1 -UNIT MM", "", "", K::none, K::none, SlcError::number},
        {"-CHORDDEV -inf", "", "", K::none, K::none, SlcError::number},
        {"-GAPTOL nan", "", "", K::none, K::none, SlcError::nan},
        // Only the first 2050 characters are scanned: the version is cut.
        {std::string(2040, ' ') + "-SLCVER 1.234 FOO" + std::string(943, 'x'), "1.", "", K::none,
         K::none, SlcError::none},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.text.substr(0, 60));
        Scan s = scan(one_layer(k.text));
        EXPECT_EQ(s.error.code, static_cast<int>(k.error));
        EXPECT_EQ(s.header.version, k.version);
        EXPECT_EQ(s.header.package, k.package);
        EXPECT_EQ(s.header.unit, k.unit);
        EXPECT_EQ(s.header.type, k.type);
        // The binary part is found after the Ctrl-Z even after a header error.
        ASSERT_EQ(s.boundaries.size(), 1u);
        EXPECT_EQ(s.boundaries[0][2].y, 6.0f);
        // The source fails on a header error; without a TYPE it gives part contours.
        layer_io::Read r = read(one_layer(k.text));
        ASSERT_EQ(r.layers.size(), k.error == SlcError::none ? 1u : 0u);
        EXPECT_EQ(r.error.code, static_cast<int>(k.error));
        if (!r.layers.empty()) {
            EXPECT_EQ(r.layers[0].contours[0].kind,
                      k.type == K::support ? ContourKind::support : ContourKind::part);
        }
    }
    Scan s = scan(one_layer("EXTENTS -1.5,2 -3,4 0,10 GAPTOL abc CHORDDEV 3.4028235e38"));
    const double extents[6] = {-1.5, 2, -3, 4, 0, 10};
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(s.header.extents[i], extents[i]);
    EXPECT_EQ(s.header.gap_tolerance, 0.0f);
    EXPECT_EQ(s.header.chord_deviation, 3.4028235e38f);
    EXPECT_FALSE(s.error);

    s = scan(one_layer("SLCVER 1.0 FOO UNIT MM"));
    EXPECT_EQ(s.error.offset, 11u);
    EXPECT_EQ(s.error.token, "FOO");
    EXPECT_STREQ(s.error.text, "illegal keyword");
    // The source gives the unit and the fields as the text has them.
    layer_io::Read r = read(one_layer("-SLCVER 2.0 -UNIT inch -TYPE web -PACKAGE a b, c\r\n"
                                      "-EXTENTS 1,2 3,4 5,6"));
    EXPECT_EQ(r.header.format, InputFormat::slc);
    EXPECT_EQ(r.header.variant, "version 2.0");
    EXPECT_EQ(r.header.unit_mm, 25.4);
    const std::vector<std::pair<std::string, std::string>> fields = {{"SLCVER", "2.0"},
                                                                     {"UNIT", "inch"},
                                                                     {"TYPE", "web"},
                                                                     {"PACKAGE", "a b, c"},
                                                                     {"EXTENTS", "1,2 3,4 5,6"}};
    ASSERT_EQ(r.header.fields.size(), fields.size());
    for (size_t i = 0; i < fields.size(); i++) {
        EXPECT_EQ(r.header.fields[i].key, fields[i].first);
        EXPECT_EQ(r.header.fields[i].value, fields[i].second);
    }
    EXPECT_EQ(r.layers[0].contours[0].kind, ContourKind::web);
}

TEST(SlcModule, LayersAndBoundariesWithAnyBlock) {
    const float G = gap_coordinate;
    std::string b = "-TYPE WEB\x1a" + std::string(256, '\0') + '\x01' + f32(0.5f) + f32(0.25f) +
                    f32(0) + f32(0) + f32(0.5f) + u32(3) + boundary({{1, 1}, {2, 2}}) +
                    boundary({}) + boundary({{-1, 7}, {G, G}, {8, 9}}, 1) + f32(0.75f) + u32(0) +
                    f32(1) + u32(1) + boundary({{3, 3}}) + f32(1) + u32(slc_end_of_layers);
    EXPECT_EQ(scan(b).samples.at(0).thickness, 0.25f);
    for (std::size_t block : {0, 1, 3, 7}) {
        for (bool keep_empty : {false, true}) {
            SCOPED_TRACE(block * 2 + keep_empty);
            layer_io::Read r = read(b, keep_empty, block);
            EXPECT_FALSE(r.error);
            // A layer without boundaries is a layer only when empty layers are kept.
            ASSERT_EQ(r.layers.size(), keep_empty ? 3u : 2u);
            EXPECT_EQ(r.layers[0].z, 0.5f);
            EXPECT_EQ(r.layers[0].thickness, 0.0f);
            ASSERT_EQ(r.layers[0].contours.size(), 3u);
            EXPECT_TRUE(r.layers[0].contours[1].points.empty());
            const Contour &c = r.layers[0].contours[2];
            EXPECT_EQ(c.kind, ContourKind::web);
            EXPECT_EQ(c.gaps, 1u);
            ASSERT_EQ(c.points.size(), 3u);
            EXPECT_TRUE(is_gap_mark(c.points[1]));
            EXPECT_EQ(c.points[2].y, 9.0f);
            EXPECT_EQ(r.layers[1].z, keep_empty ? 0.75f : 1.0f);
            EXPECT_EQ(r.layers.back().contours.size(), 1u);
        }
    }
}

// Missing bytes are a premature end wherever the file is cut: they must
// never read as the end record's 0xFFFFFFFF.
TEST(SlcModule, TruncatedForeignAndNonFiniteInput) {
    const std::string full = one_layer("");
    const size_t vertices = full.size() - 8 - 24; // the first vertex of the boundary
    for (std::size_t block : {0, 5}) {
        SCOPED_TRACE(block);
        for (size_t cut = 0; cut < full.size(); cut++) {
            layer_io::Read r = read(full.substr(0, cut), false, block);
            EXPECT_EQ(r.error.code, static_cast<int>(SlcError::eof)) << cut;
            EXPECT_EQ(r.error.offset, cut);
            EXPECT_EQ(r.layers.size(), cut < full.size() - 8 ? 0u : 1u); // a whole layer came
        }
        // Cut inside the second vertex: input of known size is known to be
        // short, so no point array is made; other input keeps the vertex read.
        // A count far beyond the input allocates no more than it holds.
        const std::string huge = start("") + f32(1) + u32(1) + u32(0xFFFFFFF0u) + u32(0) + f32(1);
        for (const std::string &bytes : {full.substr(0, vertices + 12), huge}) {
            std::string copy = bytes;
            FILE *f = fmemopen(&copy[0], copy.size(), "rb");
            std::unique_ptr<ByteInput> in(block ? new ByteInput(f, block)
                                                : new ByteInput(copy.data(), copy.size()));
            SlcReader reader(*in);
            float z;
            uint32_t count, gaps;
            std::vector<Point> points;
            ASSERT_TRUE(reader.next_layer(z, count));
            EXPECT_FALSE(reader.read_boundary(points, gaps));
            EXPECT_EQ(reader.error().code, static_cast<int>(SlcError::eof));
            EXPECT_EQ(points.size(), block && bytes != huge ? 1u : 0u);
            EXPECT_LE(points.capacity(), block ? 16u : 0u);
            fclose(f);
        }
    }
    const struct {
        uint32_t bits;
        size_t at;
        SlcError error;
    } bad[] = {{0x7F800000u, vertices, SlcError::number},
               {0xFF800000u, vertices - 16, SlcError::number}, // the layer's z
               {0x7FC00000u, vertices + 4, SlcError::nan}};
    for (const auto &k : bad) {
        layer_io::Read r = read(full.substr(0, k.at) + u32(k.bits) + full.substr(k.at + 4));
        EXPECT_EQ(r.error.code, static_cast<int>(k.error));
        EXPECT_EQ(r.error.offset, k.at);
    }
    // No Ctrl-Z in the first 64 KiB: no SLC file, even if one follows.
    for (size_t lead : {65535u, 65536u}) {
        layer_io::Read r = read(std::string(lead, '\0') + full, false, 4096);
        EXPECT_EQ(r.error.code, lead == 65535u ? 0 : static_cast<int>(SlcError::not_slc));
        EXPECT_EQ(r.layers.size(), lead == 65535u ? 1u : 0u);
    }
    EXPECT_STREQ(slc_error_text(1), "premature EOF (not an SLC file or truncated file?)");
    EXPECT_STREQ(slc_error_text(15), "not an SLC file");
    EXPECT_STREQ(slc_error_text(16), "<unknown>");
}

TEST(SlcModule, SinkWritesExactBytesThatReadBack) {
    const std::vector<Layer> layers =
        layers_of({0.1f, 0.2f, 0.3f}, {{contour(square)}, {contour(square)}, {contour(square)}});
    layer_io::Written w = write(layers);
    ASSERT_TRUE(w.ok);
    std::string expected = header_mm + std::string(256, '\0') + '\x01' + f32(0.1f) +
                           f32(0.2f - 0.1f) + f32(0) + f32(0);
    for (float z : {0.1f, 0.2f, 0.3f})
        expected += f32(z) + u32(1) + boundary(square);
    expected += f32(0.3f) + u32(slc_end_of_layers);
    EXPECT_EQ(w.bytes, expected);
    EXPECT_EQ(w.messages, "");

    layer_io::Read r = read(w.bytes);
    ASSERT_EQ(r.layers.size(), 3u);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(r.layers[i].z, layers[i].z);
        ASSERT_EQ(r.layers[i].contours.size(), 1u);
        EXPECT_EQ(memcmp(r.layers[i].contours[0].points.data(), square.data(), 32), 0);
    }
    EXPECT_EQ(r.header.unit_mm, 1.0);

    // Inch output says so; the unit is the reader's.
    w = write(layers, 25.4);
    EXPECT_EQ(w.bytes.substr(0, 24), "-SLCVER 2.0\n-UNIT INCH \n");
    EXPECT_EQ(read(w.bytes).header.unit_mm, 25.4);
}

// Part contours are written and the rest left out with one warning, while
// every layer keeps its record; a model of support or web contours alone is
// written whole under its TYPE. Gaps are counted in everything met.
TEST(SlcModule, SinkKeepsOneKindAndWarnsOfTheRest) {
    const float G = gap_coordinate;
    const Contour hatch = contour({{0, 0}, {1, 1}}, ContourKind::hatches);
    const Contour part = contour({{0, 0}, {G, G}, {1, 1}}, ContourKind::part, 1);
    const Contour support = contour(square, ContourKind::support, 2);
    layer_io::Written w =
        write(layers_of({1, 2, 3}, {{hatch, hatch}, {part, support, hatch}, {part}}));
    ASSERT_TRUE(w.ok);
    EXPECT_EQ(w.messages, "W the SLC format holds part contours only: 3 hatch blocks and 1 "
                          "support contour were left out\n");
    EXPECT_EQ(w.gaps, 4u);
    const std::string layers = f32(1) + u32(0) + f32(2) + u32(1) + boundary(part.points, 1) +
                               f32(3) + u32(1) + boundary(part.points, 1) + f32(3) +
                               u32(slc_end_of_layers);
    EXPECT_EQ(w.bytes.substr(w.bytes.size() - layers.size()), layers);

    w = write(layers_of({1, 2}, {{support}, {support, hatch}}));
    EXPECT_EQ(w.messages,
              "W the SLC format holds part contours only: 1 hatch block was left out\n");
    EXPECT_EQ(w.bytes.substr(0, 37), "-SLCVER 2.0\n-UNIT MM \n-TYPE -SUPPORT ");
    layer_io::Read r = read(w.bytes);
    ASSERT_EQ(r.layers.size(), 2u);
    EXPECT_EQ(r.layers[1].contours.at(0).kind, ContourKind::support);
    EXPECT_EQ(r.layers[1].contours[0].gaps, 2u);

    const Contour web = contour(square, ContourKind::web);
    w = write(layers_of({1, 2}, {{web}, {web}}));
    EXPECT_EQ(w.bytes.substr(22, 11), "-TYPE WEB \n");
    EXPECT_EQ(w.messages, "");
}

TEST(SlcModule, SamplingTableRefusalsAndLimits) {
    std::string bytes;
    ByteOutput out(&bytes);
    SlcWriter writer(out);
    ASSERT_TRUE(writer.set_levels({0.1f, 0.2f, 0.3f, 0.5f, 0.7f}));
    ASSERT_EQ(writer.samples().size(), 2u);
    EXPECT_EQ(writer.samples()[1].z, 0.5f);
    EXPECT_EQ(writer.samples()[1].thickness, 0.5f - 0.3f);
    EXPECT_FALSE(writer.set_levels({0.1f}));
    EXPECT_FALSE(writer.error()); // too few levels is no error
    for (int i = 2; i < 255; i++)
        ASSERT_TRUE(writer.add_sample({static_cast<float>(i), 1, 0, 0}));
    EXPECT_FALSE(writer.add_sample({1, 1, 0, 0}));
    EXPECT_STREQ(writer.error().text, "limit exceeded");
    EXPECT_FALSE(writer.finish()); // the first error stays
    EXPECT_EQ(bytes, "");          // and a writer that began no layer writes nothing

    // Levels 0.1 apart up to 300: the float spacing of the levels varies by
    // more than 1.5e-5 from about 256 on, yet the spacing is one.
    std::vector<float> tall;
    for (int k = 1; k <= 3000; k++)
        tall.push_back(static_cast<float>(k * 0.1));
    SlcWriter stack(out);
    ASSERT_TRUE(stack.set_levels(tall)) << stack.error().text;
    EXPECT_EQ(stack.samples().size(), 1u);
    for (int k = 1; k <= 100; k++)
        tall.push_back(static_cast<float>(300 + k * 0.2));
    SlcWriter changed(out);
    ASSERT_TRUE(changed.set_levels(tall));
    ASSERT_EQ(changed.samples().size(), 2u);
    EXPECT_EQ(changed.samples()[1].z, static_cast<float>(300.2));

    for (std::vector<float> bad : {std::vector<float>{0.2f, 0.2f}, {0.1f, 0.2f, 0.15f}}) {
        SlcWriter w(out);
        EXPECT_FALSE(w.set_levels(bad));
        EXPECT_EQ(w.error().code, static_cast<int>(SlcError::argument));
    }
    SlcWriter w(out);
    EXPECT_FALSE(w.begin_layer(1, slc_end_of_layers));
    EXPECT_EQ(w.error().code, static_cast<int>(SlcError::limit));

    // The sink refuses a model of one layer, and levels that do not rise.
    layer_io::Written one = write(layers_of({1}, {{contour(square)}}));
    EXPECT_FALSE(one.ok);
    EXPECT_EQ(one.error.code, static_cast<int>(SlcError::layers));
    EXPECT_EQ(one.error.detail, "the SLC format needs at least two layers");
    EXPECT_EQ(one.bytes, "");
    layer_io::Written down = write(layers_of({2, 1}, {{}, {}}));
    EXPECT_FALSE(down.ok);
    EXPECT_STREQ(down.error.text, "illegal argument (programming error?)");
}

TEST(SlcModule, WriteErrorsAreKept) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0) GTEST_SKIP() << "no /dev/full";
    ByteOutput out(fd, 64);
    layer_io::Written w = layer_io::write(
        make_slc_sink, layers_of({1, 2, 3}, {{contour(square)}, {}, {}}), 1.0, &out);
    close(fd);
    EXPECT_FALSE(w.ok);
    EXPECT_STREQ(w.error.text, "write error");
    EXPECT_EQ(w.error.system_error, ENOSPC);
}
