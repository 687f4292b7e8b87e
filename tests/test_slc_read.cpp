#include <cfloat>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "formats/slc/slc_internal.h"

namespace {

void put_u32(std::string &b, uint32_t v) {
    for (int i = 0; i < 4; i++)
        b += static_cast<char>((v >> (8 * i)) & 0xFF);
}
void put_f32(std::string &b, float v) {
    uint32_t bits;
    memcpy(&bits, &v, 4);
    put_u32(b, bits);
}
void put_boundary(std::string &b, std::vector<SlicePoint> pts, uint32_t gaps = 0) {
    put_u32(b, static_cast<uint32_t>(pts.size()));
    put_u32(b, gaps);
    for (const SlicePoint &p : pts)
        put_f32(b, p.x), put_f32(b, p.y);
}
// Header text, Ctrl-Z, reserved area and an empty sampling table.
std::string start(const std::string &text) {
    return text + '\x1a' + std::string(256, '\0') + '\0';
}
// A file with one layer at z 1 holding one triangle, then the end record.
std::string with_one_layer(const std::string &text) {
    std::string b = start(text);
    put_f32(b, 1.0f), put_u32(b, 1);
    put_boundary(b, {{1, 2}, {3, 4}, {5, 6}});
    put_f32(b, 1.0f), put_u32(b, SLC_END_OF_LAYERS);
    return b;
}

struct Read {
    std::vector<int> results;
    std::vector<SliceContour> contours; // owned copies
    std::vector<SlcLayerInfo> layers;
    SlcHeader header = {};
    bool has_header = false;
    uint32_t error = 0;
    ~Read() {
        for (SliceContour &c : contours)
            contour_free_points(&c);
    }
};

// Reads every boundary of bytes from a regular temporary file or, with
// regular false, from memory (input of unknown size).
void read_slc(Read &r, const std::string &bytes, bool regular = true, uint32_t unit = 0,
              uint32_t buffer_size = 0) {
    FILE *f = regular ? tmpfile() : fmemopen(const_cast<char *>(bytes.data()), bytes.size(), "rb");
    ASSERT_NE(f, nullptr);
    if (regular) fwrite(bytes.data(), 1, bytes.size(), f), rewind(f);
    SlcStream *s = slc_create();
    uint32_t mode = SLC_MODE_READ;
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    slc_set_option(s, SLC_OPT_UNIT, &unit);
    s->buffer_size = buffer_size;
    SliceContour c = {};
    int k;
    while ((k = slc_read_boundary(s, &c)) != 0) {
        r.results.push_back(k);
        r.contours.push_back(c);
        c = {};
        SlcLayerInfo info;
        slc_get_option(s, SLC_OPT_LAYER, &info);
        r.layers.push_back(info);
    }
    r.results.push_back(0);
    r.results.push_back(slc_read_boundary(s, &c)); // stays at the end
    if (c.capacity) r.contours.push_back(c);
    SlcHeader *h = nullptr;
    slc_get_option(s, SLC_OPT_HEADER, &h);
    if (h) r.header = *h, r.has_header = true;
    r.error = slc_stream_error(s);
    EXPECT_EQ(slc_stream_error_text(s) == nullptr, r.error == 0);
    slc_destroy(s);
    fclose(f);
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
        {"-UNIT XYZ -TYPE PART", "", "", 0, 0, SLC_E_KEYWORD},
        // Only the first 2050 characters are scanned: the version is cut.
        {std::string(2040, ' ') + "-SLCVER 1.234 FOO" + std::string(943, 'x'), "1.", "", 0, 0, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.text.substr(0, 60));
        Read r;
        read_slc(r, with_one_layer(k.text));
        EXPECT_EQ(r.error, k.error);
        EXPECT_STREQ(r.header.version, k.version);
        EXPECT_STREQ(r.header.package, k.package);
        EXPECT_EQ(r.header.unit, k.unit);
        EXPECT_EQ(r.header.type, k.type);
        // The binary part is found after the Ctrl-Z even after a header error.
        ASSERT_EQ(r.results, (std::vector<int>{2, 0, 0}));
        EXPECT_EQ(r.contours[0].kind, k.type);
        EXPECT_EQ(r.contours[0].points[2].y, 6.0f);
    }

    Read r;
    read_slc(r, with_one_layer("EXTENTS -1.5,2 -3,4 0,10 GAPTOL abc CHORDDEV 1e-3 SURFTOL -2"));
    const double extents[6] = {-1.5, 2, -3, 4, 0, 10};
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(r.header.extents[i], extents[i]);
    EXPECT_EQ(r.header.gap_tolerance, 0.0f);
    EXPECT_EQ(r.header.chord_deviation, 1e-3f);
    EXPECT_EQ(r.header.surface_tolerance, -2.0f);
    EXPECT_EQ(r.error, 0u);
}

TEST(SlcRead, LayersBoundariesAndBufferRefills) {
    std::string b = "-TYPE WEB\r\n\x1a" + std::string(256, '\0') + '\x01';
    for (float v : {0.5f, 0.25f, 0.0f, 0.0f})
        put_f32(b, v);
    put_f32(b, 0.5f), put_u32(b, 3);
    put_boundary(b, {{1, 1}, {2, 2}});
    put_boundary(b, {}, 0);
    put_boundary(b, {{-1, 7}, {GAP_MARK, GAP_MARK}, {8, 9}}, 1);
    put_f32(b, 0.75f), put_u32(b, 0); // a layer without boundaries is passed over
    put_f32(b, 1.0f), put_u32(b, 1);
    put_boundary(b, {{3, 3}});
    put_f32(b, 1.0f), put_u32(b, SLC_END_OF_LAYERS);

    // Every buffer size and both kinds of input give the same boundaries.
    for (uint32_t size : {0u, 1u, 3u, 7u}) {
        for (bool regular : {true, false}) {
            SCOPED_TRACE(size * 2 + regular);
            Read r;
            read_slc(r, b, regular, 0, size);
            EXPECT_EQ(r.error, 0u);
            ASSERT_EQ(r.results, (std::vector<int>{2, 1, 1, 2, 0, 0}));
            EXPECT_EQ(r.layers[0].z, 0.5f);
            EXPECT_EQ(r.layers[0].count, 3u);
            EXPECT_EQ(r.layers[3].z, 1.0f);
            EXPECT_EQ(r.layers[3].count, 1u);
            EXPECT_EQ(r.contours[1].count, 0u);
            const SliceContour &c = r.contours[2];
            EXPECT_EQ(c.kind, CONTOUR_WEB);
            EXPECT_EQ(c.count, 3u);
            EXPECT_EQ(c.held, 3u);
            EXPECT_EQ(c.gaps, 1u);
            EXPECT_EQ(c.points[0].x, -1.0f);
            EXPECT_TRUE(point_is_gap_mark(c.points[1]));
            EXPECT_EQ(c.points[2].y, 9.0f);
        }
    }
}

TEST(SlcRead, TruncatedAndForeignInput) {
    std::string full = with_one_layer("-UNIT MM");
    const size_t table_end = std::string("-UNIT MM").size() + 1 + 256 + 1;
    for (bool regular : {true, false}) {
        SCOPED_TRACE(regular);
        Read empty;
        read_slc(empty, "", regular);
        EXPECT_EQ(empty.error, SLC_E_EOF);
        EXPECT_FALSE(empty.has_header);
        EXPECT_EQ(empty.results, (std::vector<int>{0, 0}));

        Read no_ctrl_z;
        read_slc(no_ctrl_z, "-SLCVER 2.0\r\n", regular);
        EXPECT_EQ(no_ctrl_z.error, SLC_E_EOF);

        Read after_table; // the missing z reads as NaN
        read_slc(after_table, full.substr(0, table_end), regular);
        EXPECT_EQ(after_table.error, SLC_E_NAN);
        EXPECT_TRUE(after_table.has_header);

        Read in_vertices; // cut after the second vertex
        read_slc(in_vertices, full.substr(0, table_end + 8 + 8 + 16 + 3), regular);
        EXPECT_EQ(in_vertices.error, SLC_E_NAN);
        EXPECT_EQ(in_vertices.results, (std::vector<int>{0, 0}));
        // A regular file is known to be short: the array is never grown.
        ASSERT_EQ(in_vertices.contours.size(), regular ? 0u : 1u);
        if (!regular) {
            EXPECT_EQ(in_vertices.contours[0].held, 2u);
        }

        // A vertex count far beyond the input allocates no more than it holds.
        std::string huge = start("");
        put_f32(huge, 1.0f), put_u32(huge, 1);
        put_u32(huge, 0xFFFFFFF0u), put_u32(huge, 0);
        put_f32(huge, 1.0f), put_f32(huge, 2.0f);
        Read r;
        read_slc(r, huge, regular);
        EXPECT_EQ(r.error, SLC_E_NAN);
        if (!regular) {
            EXPECT_LE(r.contours[0].capacity, 16u);
        }
    }
}

TEST(SlcRead, UnitFactorConvertsFileUnitToCallerUnit) {
    const float to_inch = static_cast<float>(1.0 / 25.4);
    struct Case {
        const char *file_unit;
        uint32_t caller;
        float factor;
    } cases[] = {{"MM", SLC_KW_INCH, to_inch},
                 {"INCH", SLC_KW_MM, 25.4f},
                 {"MM", SLC_KW_MM, 1.0f},
                 {"INCH", 0, 1.0f}};
    for (const Case &k : cases) {
        SCOPED_TRACE(k.file_unit);
        Read r;
        read_slc(r, with_one_layer(std::string("UNIT ") + k.file_unit + " EXTENTS 0 2 0 0 0 0"),
                 true, k.caller);
        ASSERT_EQ(r.results.size(), 3u);
        EXPECT_EQ(r.layers[0].z, 1.0f * k.factor);
        EXPECT_EQ(r.contours[0].points[2].x, 5.0f * k.factor);
        EXPECT_EQ(r.header.extents[1], 2.0 * static_cast<double>(k.factor));
        EXPECT_EQ(r.header.unit, k.file_unit[0] == 'M' ? SLC_KW_MM : SLC_KW_INCH);
    }
}

TEST(SlcStreamBytes, PushbackAndEndOfInput) {
    char data[] = "ab";
    FILE *f = fmemopen(data, 2, "rb");
    SlcStream *s = slc_create();
    uint32_t mode = SLC_MODE_READ;
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    EXPECT_EQ(slc_getc(s), 'a');
    EXPECT_TRUE(slc_ungetc(s, 'x') && slc_ungetc(s, 'y') && slc_ungetc(s, 'z'));
    EXPECT_FALSE(slc_ungetc(s, 'w')); // a fourth byte is refused
    for (int expected : {int('z'), int('y'), int('x'), int('b'), SLC_EOF, SLC_EOF})
        EXPECT_EQ(slc_getc(s), expected);
    EXPECT_EQ(slc_stream_error_text(s), nullptr);
    slc_destroy(s);
    fclose(f);
}
