#include <cfloat>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "formats/slc/slc_internal.h"
#include "test_util.h"

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
std::string boundary(const std::vector<SlicePoint> &pts, uint32_t gaps = 0) {
    std::string b = u32(static_cast<uint32_t>(pts.size())) + u32(gaps);
    for (const SlicePoint &p : pts)
        b += f32(p.x) + f32(p.y);
    return b;
}
// Header text, Ctrl-Z, reserved area and an empty sampling table.
std::string start(const std::string &text) {
    return text + '\x1a' + std::string(257, '\0');
}
std::string one_layer(const std::string &text) {
    return start(text) + f32(1) + u32(1) + boundary({{1, 2}, {3, 4}, {5, 6}}) + f32(1) +
           u32(SLC_END_OF_LAYERS);
}

SlcStream *open_stream(FILE *f, uint32_t mode, uint32_t unit = 0) {
    SlcStream *s = slc_create();
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    slc_set_option(s, SLC_OPT_UNIT, &unit);
    return s;
}

// A regular temporary file, or with regular false input of unknown size.
FILE *input(std::string &bytes, bool regular) {
    if (!regular) return fmemopen(&bytes[0], bytes.size(), "rb");
    FILE *f = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

struct Read {
    std::vector<int> results;
    std::vector<SliceContour> contours; // the last one from the call that gave 0
    std::vector<SlcLayerInfo> layers;
    SlcHeader header = {};
    bool has_header = false;
    uint32_t error = 0;
    ~Read() {
        for (SliceContour &c : contours)
            contour_free_points(&c);
    }
};

void read_slc(Read &r, std::string bytes, bool regular = true, uint32_t buffer_size = 0) {
    FILE *f = input(bytes, regular);
    SlcStream *s = open_stream(f, SLC_MODE_READ);
    s->buffer_size = buffer_size;
    SliceContour c = {};
    do {
        r.results.push_back(slc_read_boundary(s, &c));
        r.contours.push_back(c);
        c = {};
        r.layers.emplace_back();
        slc_get_option(s, SLC_OPT_LAYER, &r.layers.back());
    } while (r.results.back() != 0);
    r.results.push_back(slc_read_boundary(s, &c)); // stays at the end
    SlcHeader *h = nullptr;
    slc_get_option(s, SLC_OPT_HEADER, &h);
    if (h) r.header = *h, r.has_header = true;
    r.error = slc_stream_error(s);
    EXPECT_EQ(slc_stream_error_text(s) == nullptr, r.error == 0);
    slc_destroy(s);
    fclose(f);
}

std::string file_bytes(FILE *f) {
    std::string b(static_cast<size_t>(ftell(f)), '\0');
    rewind(f);
    EXPECT_EQ(fread(&b[0], 1, b.size(), f), b.size());
    rewind(f);
    return b;
}

SlicePoint square[4] = {{0, 0}, {2, 0}, {2, 3.5f}, {0, 0}};
const SliceContour part = {CONTOUR_PART, 4, 0, 4, 4, square, 0, 0};

void write_three_layers(SlcStream *s, uint32_t kind = CONTOUR_PART) {
    const float levels[] = {0.1f, 0.2f, 0.3f, FLT_MAX};
    ASSERT_TRUE(slc_set_sampling_levels(s, levels, nullptr));
    SliceContour c = part;
    c.kind = kind;
    for (int i = 0; i < 3; i++) {
        SlcLayerInfo layer = {levels[i], 0, 1};
        ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &layer));
        ASSERT_TRUE(slc_write_entity(s, &c));
    }
}

} // namespace

TEST(SlcRead, HeaderScannerHardCases) {
    struct Case {
        std::string text;
        const char *version, *package;
        uint32_t unit, type, error;
    } cases[] = {
        {"-SLCVER 2.0\r\n-UNIT INCH\r\n-TYPE PART\r\n-PACKAGE x y\r\n", "2.0", "X Y", 6, 10, 0},
        {"sLcVeR 2.0 uNiT mm", "2.0", "", 8, 0, 0},
        {"SLCVER 2.0", "2.0", "", 0, 0, 0}, // the value ends at the Ctrl-Z
        {"", "", "", 0, 0, 0},
        {"-UNIT 25 -TYPE PART", "", "", 14, 0, 0}, // digits are skipped while a keyword is sought
        {"-TYPE SUPPORT -SLCVER 12345", "123", "", 0, 12, 0},
        {"SLCVER 2.0\xffUNIT\xb0MM", "2.0", "", 8, 0, 0}, // bytes above 0x7F separate words
        {"-PACKAGE a,b-c -UNIT MM", "", "A,B", 0, 0, SLC_E_KEYWORD}, // C is no keyword
        {"SLCVER 1.0 FOO UNIT MM", "1.0", "", 0, 0, SLC_E_KEYWORD},
        // Numbers that are not finite as floats are refused.
        {"-EXTENTS 0 1e39 0 1 0 1 -UNIT MM", "", "", 0, 0, SLC_E_NUMBER},
        {"-CHORDDEV -inf", "", "", 0, 0, SLC_E_NUMBER},
        {"-GAPTOL nan", "", "", 0, 0, SLC_E_NAN},
        // Only the first 2050 characters are scanned: the version is cut.
        {std::string(2040, ' ') + "-SLCVER 1.234 FOO" + std::string(943, 'x'), "1.", "", 0, 0, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.text.substr(0, 60));
        Read r;
        read_slc(r, one_layer(k.text));
        EXPECT_EQ(r.error, k.error);
        EXPECT_STREQ(r.header.version, k.version);
        EXPECT_STREQ(r.header.package, k.package);
        EXPECT_EQ(r.header.unit, k.unit);
        EXPECT_EQ(r.header.type, k.type);
        // The binary part is found after the Ctrl-Z even after a header error.
        ASSERT_EQ(r.results, (std::vector<int>{2, 0, 0}));
        // Without a TYPE the contours are part contours.
        EXPECT_EQ(r.contours[0].kind, k.type ? k.type : CONTOUR_PART);
        EXPECT_EQ(r.contours[0].points[2].y, 6.0f);
    }
    Read r;
    read_slc(r, one_layer("EXTENTS -1.5,2 -3,4 0,10 GAPTOL abc CHORDDEV 3.4028235e38"));
    const double extents[6] = {-1.5, 2, -3, 4, 0, 10};
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(r.header.extents[i], extents[i]);
    EXPECT_EQ(r.header.gap_tolerance, 0.0f);
    EXPECT_EQ(r.header.chord_deviation, FLT_MAX);
    EXPECT_EQ(r.error, 0u);
}

TEST(SlcRead, LayersAndBoundariesWithAnyBuffer) {
    std::string b = "-TYPE WEB\x1a" + std::string(256, '\0') + '\x01' + f32(0.5f) + f32(0.25f) +
                    f32(0) + f32(0) + f32(0.5f) + u32(3) + boundary({{1, 1}, {2, 2}}) +
                    boundary({}) + boundary({{-1, 7}, {GAP_MARK, GAP_MARK}, {8, 9}}, 1) +
                    f32(0.75f) + u32(0) + // a layer without boundaries is passed over
                    f32(1) + u32(1) + boundary({{3, 3}}) + f32(1) + u32(SLC_END_OF_LAYERS);
    for (uint32_t size : {0u, 1u, 3u, 7u}) {
        for (bool regular : {true, false}) {
            SCOPED_TRACE(size * 2 + regular);
            Read r;
            read_slc(r, b, regular, size);
            EXPECT_EQ(r.error, 0u);
            ASSERT_EQ(r.results, (std::vector<int>{2, 1, 1, 2, 0, 0}));
            EXPECT_EQ(r.layers[0].z, 0.5f);
            EXPECT_EQ(r.layers[0].count, 3u);
            EXPECT_EQ(r.layers[3].count, 1u);
            EXPECT_EQ(r.contours[1].count, 0u);
            const SliceContour &c = r.contours[2];
            EXPECT_EQ(c.kind, CONTOUR_WEB);
            EXPECT_EQ(c.held + c.gaps, 4u);
            EXPECT_TRUE(point_is_gap_mark(c.points[1]));
            EXPECT_EQ(c.points[2].y, 9.0f);
        }
    }
}

// Missing bytes are a premature end wherever the file is cut: they must
// never read as the end record's 0xFFFFFFFF.
TEST(SlcRead, TruncatedForeignAndNonFiniteInput) {
    const std::string full = one_layer("");
    const size_t vertices = full.size() - 8 - 24; // the first vertex of the boundary
    std::string huge = start("") + f32(1) + u32(1) + u32(0xFFFFFFF0u) + u32(0) + f32(1);
    for (bool regular : {true, false}) {
        SCOPED_TRACE(regular);
        for (size_t cut = 0; cut < full.size(); cut++) {
            Read r;
            read_slc(r, full.substr(0, cut), regular || cut == 0);
            EXPECT_EQ(r.error, SLC_E_EOF) << cut;
            EXPECT_EQ(r.results.back(), 0) << cut;
        }
        Read in_vertices, too_many;
        // Cut inside the second vertex: a regular file is known to be short,
        // so its point array is never grown.
        read_slc(in_vertices, full.substr(0, vertices + 12), regular);
        EXPECT_EQ(in_vertices.contours[0].held, regular ? 0u : 1u);
        EXPECT_EQ(in_vertices.contours[0].capacity, regular ? 0u : 3u);
        // A count far beyond the input allocates no more than it holds.
        read_slc(too_many, huge, regular);
        EXPECT_EQ(too_many.error, SLC_E_EOF);
        EXPECT_LE(too_many.contours[0].capacity, 16u);
    }
    const struct {
        uint32_t bits;
        size_t at;
        uint32_t error;
    } bad[] = {{0x7F800000u, vertices, SLC_E_NUMBER},
               {0xFF800000u, vertices - 16, SLC_E_NUMBER}, // the layer's z
               {0x7FC00000u, vertices + 4, SLC_E_NAN}};
    for (const auto &k : bad) {
        Read r;
        read_slc(r, full.substr(0, k.at) + u32(k.bits) + full.substr(k.at + 4));
        EXPECT_EQ(r.error, k.error);
    }
    // No Ctrl-Z in the first 64 KiB: no SLC file, even if one follows.
    for (size_t lead : {65535u, 65536u}) {
        Read r;
        read_slc(r, std::string(lead, '\0') + full, false);
        EXPECT_EQ(r.error, lead == 65535u ? 0u : SLC_E_NOT_SLC);
        EXPECT_EQ(r.results.size(), lead == 65535u ? 3u : 2u);
    }
}

TEST(SlcWrite, ThreeLayersExactBytesAndReadBack) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    write_three_layers(s);
    EXPECT_TRUE(slc_finish(s));
    slc_destroy(s); // adds nothing after finishing

    std::string expected = "-SLCVER 2.0\n-UNIT MM \n-TYPE PART \n"
                           "-PACKAGE Vantorell/Plexo_Forge_3.3\n\r\n\x1a";
    ASSERT_EQ(expected.size(), 72u);
    expected += std::string(256, '\0') + '\x01' + f32(0.1f) + f32(0.2f - 0.1f) + f32(0) + f32(0);
    for (float z : {0.1f, 0.2f, 0.3f}) {
        expected += f32(z) + u32(1) + boundary({square[0], square[1], square[2], square[3]});
    }
    expected += f32(0.3f) + u32(SLC_END_OF_LAYERS);
    const std::string written = file_bytes(f);
    EXPECT_EQ(written, expected);
    fclose(f);

    Read r;
    read_slc(r, written);
    ASSERT_EQ(r.results, (std::vector<int>{2, 2, 2, 0, 0}));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(r.layers[i].z, 0.1f * (i + 1));
        ASSERT_EQ(r.contours[i].count, 4u);
        EXPECT_EQ(memcmp(r.contours[i].points, square, sizeof square), 0);
    }
}

TEST(SlcWrite, SamplingTableAndRefusals) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    const float two_steps[] = {0.1f, 0.2f, 0.3f, 0.5f, 0.7f, FLT_MAX};
    ASSERT_TRUE(slc_set_sampling_levels(s, two_steps, nullptr));
    ASSERT_EQ(s->sample_count, 2u);
    EXPECT_EQ(s->samples[1].z, 0.5f);
    EXPECT_EQ(s->samples[1].thickness, 0.5f - 0.3f);
    const float one[] = {0.1f, FLT_MAX};
    EXPECT_FALSE(slc_set_sampling_levels(s, one, nullptr));
    EXPECT_EQ(slc_stream_error(s), 0u); // too few levels is no error
    for (int i = 2; i < 255; i++) {
        SlcSample e = {static_cast<float>(i), 1, 0, 0};
        ASSERT_TRUE(slc_set_option(s, SLC_OPT_SAMPLE, &e));
    }
    SlcSample e = {1, 1, 0, 0};
    EXPECT_FALSE(slc_set_option(s, SLC_OPT_SAMPLE, &e));
    EXPECT_STREQ(slc_stream_error_text(s), "limit exceeded");

    SlcLayerInfo layer = {0.5f, 0.5f, 2}, same = {0.5f, 0, 7}, got;
    EXPECT_FALSE(slc_write_entity(s, &part)); // no layer yet
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &layer));
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &same)); // the same z keeps the first count
    slc_get_option(s, SLC_OPT_LAYER, &got);
    EXPECT_EQ(got.count, 2u);
    same.z = std::nextafter(0.5f, 1.0f); // the next float is another layer
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &same));
    slc_get_option(s, SLC_OPT_LAYER, &got);
    EXPECT_EQ(got.count, 7u);
    ASSERT_TRUE(slc_write_entity(s, &part));
    SliceContour support = part, broken = part;
    support.kind = CONTOUR_SUPPORT;
    broken.count = 5; // more points than the array holds
    const uint32_t pos = s->pos;
    EXPECT_FALSE(slc_write_entity(s, &support));
    EXPECT_FALSE(slc_write_entity(s, &broken));
    EXPECT_EQ(s->pos, pos);
    EXPECT_EQ(slc_stream_error(s), SLC_E_LIMIT); // the first error stays
    SlcHeader h = {};
    EXPECT_FALSE(slc_set_option(s, SLC_OPT_HEADER, &h)); // the stream made its own
    slc_destroy(s);
    fclose(f);

    for (std::vector<float> bad :
         {std::vector<float>{0.2f, 0.2f, FLT_MAX}, {0.1f, 0.2f, 0.15f, FLT_MAX}}) {
        f = tmpfile();
        s = open_stream(f, SLC_MODE_WRITE);
        EXPECT_FALSE(slc_set_sampling_levels(s, bad.data(), nullptr));
        EXPECT_EQ(slc_stream_error(s), SLC_E_ARGUMENT);
        slc_destroy(s);
        EXPECT_EQ(ftell(f), 0); // a stream without a boundary writes nothing
        fclose(f);
    }
    EXPECT_STREQ(slc_error_text(15), "not an SLC file");
    EXPECT_STREQ(slc_error_text(16), "<unknown>");
}

TEST(SlcWrite, HeaderRecordUnitFactorAndWriteErrors) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE, SLC_KW_INCH);
    SlcHeader h = {};
    h.type = SLC_KW_SUPPORT;
    strcpy(h.package, "pkg, with spaces");
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_HEADER, &h));
    write_three_layers(s, CONTOUR_SUPPORT);
    slc_destroy(s);
    const std::string text =
        "-SLCVER 2.0\n-UNIT MM \n-TYPE -SUPPORT \n-PACKAGE pkg, with spaces\n\r\n\x1a";
    std::string bytes = file_bytes(f);
    fclose(f);
    ASSERT_EQ(bytes.substr(0, text.size()), text);
    // Inches to the header's millimetres from the sampling table on.
    EXPECT_EQ(bytes.substr(text.size() + 257, 4), f32(0.1f * 25.4f));
    EXPECT_EQ(bytes.substr(bytes.size() - 8, 4), f32(0.3f * 25.4f));

    // Read back in inches: the caller's values come back.
    f = input(bytes, true);
    s = open_stream(f, SLC_MODE_READ, SLC_KW_INCH);
    SliceContour c = {};
    ASSERT_EQ(slc_read_boundary(s, &c), 2);
    EXPECT_EQ(c.kind, CONTOUR_SUPPORT);
    for (int i = 0; i < 4; i++)
        EXPECT_FLOAT_EQ(c.points[i].y, square[i].y);
    contour_free_points(&c);
    slc_destroy(s);
    fclose(f);

    TempDir dir;
    write_file(dir.file("ro.slc"), "");
    f = fopen(dir.file("ro.slc").c_str(), "rb"); // every fwrite fails
    s = open_stream(f, SLC_MODE_WRITE);
    write_three_layers(s);
    EXPECT_FALSE(slc_finish(s));
    EXPECT_EQ(slc_stream_error(s), SLC_E_WRITE);
    EXPECT_NE(slc_stream_system_error(s), 0);
    slc_destroy(s);
    fclose(f);
}
