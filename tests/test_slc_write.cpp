#include <cfloat>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "formats/slc/slc_internal.h"
#include "test_util.h"

namespace {

const std::string default_header = "-SLCVER 2.0\n-UNIT MM \n-TYPE PART \n"
                                   "-PACKAGE Vantorell/Plexo_Forge_3.3\n\r\n\x1a";

void put_u32(std::string &b, uint32_t v) {
    for (int i = 0; i < 4; i++)
        b += static_cast<char>((v >> (8 * i)) & 0xFF);
}
void put_f32(std::string &b, float v) {
    uint32_t bits;
    memcpy(&bits, &v, 4);
    put_u32(b, bits);
}

SlcStream *open_stream(FILE *f, uint32_t mode) {
    SlcStream *s = slc_create();
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    return s;
}

std::string file_bytes(FILE *f) {
    std::string b(static_cast<size_t>(ftell(f)), '\0');
    rewind(f);
    EXPECT_EQ(fread(&b[0], 1, b.size(), f), b.size());
    rewind(f);
    return b;
}

SlicePoint square[4] = {{0, 0}, {2, 0}, {2, 3.5f}, {0, 0}};
SliceContour part = {CONTOUR_PART, 4, 0, 4, 4, square, 0, 0};

// Writes three layers at z 0.1, 0.2, 0.3 with the square in each.
void write_three_layers(SlcStream *s) {
    const float levels[] = {0.1f, 0.2f, 0.3f, FLT_MAX};
    ASSERT_TRUE(slc_set_sampling_levels(s, levels, nullptr));
    for (int i = 0; i < 3; i++) {
        SlcLayerInfo layer = {levels[i], 0, 1};
        ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &layer));
        ASSERT_TRUE(slc_write_entity(s, &part));
    }
}

} // namespace

TEST(SlcWrite, ThreeLayersExactBytesAndReadBack) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    write_three_layers(s);
    EXPECT_TRUE(slc_finish(s));
    slc_destroy(s); // adds nothing after finishing

    std::string expected = default_header + std::string(256, '\0') + '\x01';
    for (float v : {0.1f, 0.2f - 0.1f, 0.0f, 0.0f})
        put_f32(expected, v);
    for (float z : {0.1f, 0.2f, 0.3f}) {
        put_f32(expected, z), put_u32(expected, 1), put_u32(expected, 4), put_u32(expected, 0);
        for (const SlicePoint &p : square)
            put_f32(expected, p.x), put_f32(expected, p.y);
    }
    put_f32(expected, 0.3f), put_u32(expected, SLC_END_OF_LAYERS);
    ASSERT_EQ(default_header.size(), 72u);
    EXPECT_EQ(file_bytes(f), expected);

    s = open_stream(f, SLC_MODE_READ);
    SliceContour c = {};
    for (float z : {0.1f, 0.2f, 0.3f}) {
        ASSERT_EQ(slc_read_boundary(s, &c), 2);
        SlcLayerInfo layer;
        slc_get_option(s, SLC_OPT_LAYER, &layer);
        EXPECT_EQ(layer.z, z);
        EXPECT_EQ(c.kind, CONTOUR_PART);
        ASSERT_EQ(c.count, 4u);
        EXPECT_EQ(memcmp(c.points, square, sizeof square), 0);
    }
    EXPECT_EQ(slc_read_boundary(s, &c), 0);
    EXPECT_EQ(slc_stream_error_text(s), nullptr);
    ASSERT_EQ(s->sample_count, 1u);
    EXPECT_EQ(s->samples[0].thickness, 0.2f - 0.1f);
    contour_free_points(&c);
    slc_destroy(s);
    fclose(f);
}

TEST(SlcWrite, SamplingTableRules) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    const float two_steps[] = {0.1f, 0.2f, 0.3f, 0.5f, 0.7f, FLT_MAX};
    ASSERT_TRUE(slc_set_sampling_levels(s, two_steps, nullptr));
    ASSERT_EQ(s->sample_count, 2u);
    EXPECT_EQ(s->samples[0].z, 0.1f);
    EXPECT_EQ(s->samples[0].thickness, 0.2f - 0.1f);
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
    EXPECT_EQ(slc_stream_error(s), SLC_E_LIMIT);
    EXPECT_EQ(s->sample_count, 255u);
    EXPECT_STREQ(slc_stream_error_text(s), "limit exceeded");
    slc_destroy(s);

    struct Case {
        std::vector<float> levels;
        uint32_t error;
    } bad[] = {{{0.2f, 0.2f, FLT_MAX}, SLC_E_ARGUMENT},
               {{0.1f, 0.2f, 0.15f, FLT_MAX}, SLC_E_ARGUMENT}};
    for (const Case &k : bad) {
        s = open_stream(f, SLC_MODE_WRITE);
        EXPECT_FALSE(slc_set_sampling_levels(s, k.levels.data(), nullptr));
        EXPECT_EQ(slc_stream_error(s), k.error);
        slc_destroy(s);
    }
    EXPECT_EQ(ftell(f), 0); // streams without a boundary write nothing
    fclose(f);
}

TEST(SlcWrite, RefusalsAndLayerOptions) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    SlcLayerInfo layer = {1.0f, 0.5f, 2};
    EXPECT_FALSE(slc_write_entity(s, &part)); // no layer set yet
    const float levels[] = {1.0f, 2.0f, FLT_MAX};
    ASSERT_TRUE(slc_set_sampling_levels(s, levels, nullptr));
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &layer));
    SlcLayerInfo same = {1.0f, 0, 7};
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_LAYER, &same)); // the same z keeps the first count
    ASSERT_TRUE(slc_write_entity(s, &part));
    SliceContour support = part;
    support.kind = CONTOUR_SUPPORT;
    const long before = ftell(f) + s->pos;
    EXPECT_FALSE(slc_write_entity(s, &support));
    EXPECT_EQ(ftell(f) + s->pos, before);
    SliceContour broken = part;
    broken.count = 5; // more points than the array holds
    EXPECT_FALSE(slc_write_entity(s, &broken));
    EXPECT_EQ(slc_stream_error(s), SLC_E_ARGUMENT);

    SlcLayerInfo got;
    slc_get_option(s, SLC_OPT_LAYER, &got);
    EXPECT_EQ(got.count, 2u);
    EXPECT_EQ(got.thickness, 0.5f);
    uint32_t untouched = 99;
    EXPECT_TRUE(slc_get_option(s, SLC_OPT_UNIT, &untouched));
    EXPECT_EQ(untouched, 99u);
    SlcHeader h = {};
    EXPECT_FALSE(slc_set_option(s, SLC_OPT_HEADER, &h)); // the stream made its own
    EXPECT_FALSE(slc_set_option(s, 7, &h));
    slc_destroy(s);

    s = open_stream(f, SLC_MODE_READ);
    EXPECT_FALSE(slc_set_option(s, SLC_OPT_LAYER, &layer));
    EXPECT_FALSE(slc_set_option(s, SLC_OPT_HEADER, &h));
    EXPECT_FALSE(slc_write_entity(s, &part));
    EXPECT_EQ(slc_stream_error(s), SLC_E_CONTEXT);
    slc_destroy(s);
    EXPECT_STREQ(slc_error_text(15), "<unknown>");
    EXPECT_STREQ(slc_error_text(SLC_E_NAN), "floating-point value is NaN");
    fclose(f);
}

TEST(SlcWrite, HeaderRecordAndUnitFactor) {
    FILE *f = tmpfile();
    SlcStream *s = open_stream(f, SLC_MODE_WRITE);
    SlcHeader h = {};
    h.type = SLC_KW_SUPPORT;
    strcpy(h.package, "pkg, with spaces");
    h.extents[1] = 5; // never written
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_HEADER, &h));
    uint32_t inch = SLC_KW_INCH;
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_UNIT, &inch));
    write_three_layers(s);
    slc_destroy(s);
    const std::string bytes = file_bytes(f);
    const std::string text =
        "-SLCVER 2.0\n-UNIT MM \n-TYPE -SUPPORT \n-PACKAGE pkg, with spaces\n\r\n\x1a";
    ASSERT_EQ(bytes.substr(0, text.size()), text);
    std::string z;
    put_f32(z, 0.1f * 25.4f); // every float from the sampling table on is scaled
    EXPECT_EQ(bytes.substr(text.size() + 257, 4), z);

    // Read back in inches: the round trip gives the caller's values again.
    s = open_stream(f, SLC_MODE_READ);
    ASSERT_TRUE(slc_set_option(s, SLC_OPT_UNIT, &inch));
    SliceContour c = {};
    ASSERT_EQ(slc_read_boundary(s, &c), 2);
    SlcHeader *read = nullptr;
    slc_get_option(s, SLC_OPT_HEADER, &read);
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(read->package, "PKG, WITH SPACES");
    EXPECT_EQ(read->unit, SLC_KW_MM);
    EXPECT_EQ(c.kind, CONTOUR_SUPPORT);
    for (int i = 0; i < 4; i++)
        EXPECT_FLOAT_EQ(c.points[i].y, square[i].y);
    contour_free_points(&c);
    slc_destroy(s);
    fclose(f);
}

TEST(SlcWrite, WriteErrorsAreRecordedFirstErrorKept) {
    TempDir dir;
    write_file(dir.file("ro.slc"), "");
    for (bool misuse_first : {false, true}) {
        FILE *f = fopen(dir.file("ro.slc").c_str(), "rb"); // every fwrite fails
        ASSERT_NE(f, nullptr);
        SlcStream *s = open_stream(f, SLC_MODE_WRITE);
        SlcSample bad = {0, 0, 0, 0};
        if (misuse_first) {
            EXPECT_FALSE(slc_set_option(s, SLC_OPT_SAMPLE, &bad));
        }
        write_three_layers(s);
        EXPECT_FALSE(slc_finish(s));
        EXPECT_EQ(slc_stream_error(s), misuse_first ? SLC_E_ARGUMENT : SLC_E_WRITE);
        EXPECT_EQ(slc_stream_system_error(s) != 0, !misuse_first); // errno kept with code 3
        slc_destroy(s);
        fclose(f);
    }
}
