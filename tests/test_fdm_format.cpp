#include <cmath>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "formats/fdm/fdm_internal.h"
#include "test_util.h"

namespace {

FdmStream *open_stream(FILE *f, uint32_t mode, uint32_t buffer_size = 0) {
    FdmStream *s = fdm_create();
    fdm_set_option(s, FDM_OPT_MODE, &mode);
    fdm_set_option(s, FDM_OPT_FILE, f);
    s->buffer_size = buffer_size;
    return s;
}

FILE *input(std::string &bytes, bool regular) {
    if (!regular) return fmemopen(&bytes[0], bytes.size(), "rb");
    FILE *f = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

std::string num(double v) {
    char t[64];
    snprintf(t, sizeof t, "%g", v);
    return t;
}

// Every call's result, with "@z/thickness" on a new layer, the closure and
// the points; then "err=" and the stream's final error code.
std::string read_all(std::string bytes, bool regular = true, uint32_t buffer_size = 0) {
    FILE *f = input(bytes, regular || bytes.empty());
    FdmStream *s = open_stream(f, FDM_MODE_READ, buffer_size);
    FdmContour c = {};
    std::string out;
    for (int r, calls = 0; (r = fdm_read_contour(s, &c)) != 0 && calls < 1000; calls++) {
        EXPECT_EQ(c.kind, FDM_CONTOUR);
        EXPECT_EQ(c.count, c.filled);
        out += std::to_string(r);
        if (r == 2) {
            double layer[2];
            fdm_get_option(s, FDM_OPT_LAYER, layer);
            out += "@" + num(layer[0]) + "/" + num(layer[1]);
        }
        out += c.closure == FDM_CLOSED ? " C" : " O";
        for (uint32_t i = 0; i < c.count; i++)
            out += " " + num(c.points[i].x) + "," + num(c.points[i].y);
        out += " | ";
    }
    out += "err=" + std::to_string(fdm_stream_error(s));
    fdm_free_points(&c);
    fdm_destroy(s);
    fclose(f);
    return out;
}

struct Writer {
    FILE *f = tmpfile();
    FdmStream *s = open_stream(f, FDM_MODE_WRITE);
    int layer(double z, double thickness) {
        double v[2] = {z, thickness};
        return fdm_set_option(s, FDM_OPT_LAYER, v);
    }
    int contour(std::vector<FdmPoint> pts, uint32_t kind = FDM_CONTOUR) {
        uint32_t n = static_cast<uint32_t>(pts.size());
        FdmContour c = {kind, 0, n, n, n, pts.data()};
        return fdm_write_contour(s, &c);
    }
    // Destroys the stream and gives the file's bytes.
    std::string finish() {
        EXPECT_EQ(fdm_destroy(s), 1);
        std::string out;
        rewind(f);
        for (int ch; (ch = fgetc(f)) != EOF;)
            out += static_cast<char>(ch);
        fclose(f);
        return out;
    }
};

} // namespace

TEST(FdmStream, StickyErrorsAndTexts) {
    FdmStream *s = fdm_create();
    uint32_t mode = FDM_MODE_READ;
    EXPECT_EQ(fdm_set_option(s, FDM_OPT_MODE, &mode), 1);
    double layer[2] = {7, 7};
    EXPECT_EQ(fdm_set_option(s, FDM_OPT_LAYER, layer), 0); // write mode only
    FdmContour c = {};
    EXPECT_EQ(fdm_read_contour(s, &c), 0); // no file set
    EXPECT_STREQ(fdm_stream_error_text(s), "error in context (programming error?)");
    fdm_record(s, FDM_E_READ);
    EXPECT_EQ(fdm_stream_error(s), FDM_E_CONTEXT);
    EXPECT_STREQ(fdm_error_text(14), "not an FDM file");
    EXPECT_STREQ(fdm_error_text(15), "<unknown>");
    EXPECT_EQ(fdm_destroy(s), 1);
}

TEST(FdmRead, HardCases) {
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
        EXPECT_EQ(read_all(t.in, false, 1), t.out) << "one-byte buffer: " << t.in;
    }
}

TEST(FdmWrite, ExactBytes) {
    Writer w;
    EXPECT_EQ(w.layer(9, 9), 1); // replaced by the next before the header
    EXPECT_EQ(w.layer(0.005, 0), 1);
    EXPECT_EQ(w.contour({{1, 2}, {3, 2}, {3, 4}, {1, 4}, {1, 2}}), 1);
    EXPECT_EQ(w.layer(100, 0.01), 1);
    EXPECT_EQ(w.contour({{-0.5, 0}, {123.25, 2.5}, {0.005, 1}}), 1);
    EXPECT_EQ(w.layer(0, 0.01), 1); // a layer without contours keeps its line
    EXPECT_EQ(w.contour({{5, 5}}), 1);
    EXPECT_EQ(w.contour({{1, 1}, {2, 2}}, 2), 0);
    EXPECT_STREQ(fdm_stream_error_text(w.s), "illegal argument (programming error?)");
    EXPECT_EQ(w.finish(), "SLICE V0\nSLICES ()\nZ   0.005 .005\n"
                          "  1.   2.\n  3.   2.\n  3.   4.\n  1.   4.\nC\n"
                          "Z 100.  0.01\n -0.5   0.\n123.25   2.5\n  0.005   1.\nO\n"
                          "Z   0.  0.01\nC\nEND\n");

    Writer empty;
    EXPECT_EQ(empty.finish(), "END\n");

    Writer refused; // the header still goes out before the refusal
    EXPECT_EQ(refused.contour({{1, 1}, {2, 2}}, 2), 0);
    EXPECT_EQ(refused.finish(), "SLICE V0\nSLICES ()\nZ   0. .005\nEND\n");

    Writer scaled;
    FdmHeader *h = fdm_create_header();
    h->scale = 2;
    EXPECT_EQ(fdm_set_option(scaled.s, FDM_OPT_HEADER, h), 1);
    EXPECT_EQ(scaled.layer(1, 0.02), 1);
    EXPECT_EQ(scaled.contour({{1, 3}, {4, 5}}), 1);
    EXPECT_EQ(scaled.finish(),
              "SLICE V0\nSLICES ()\nZ   0.5  0.01\n  0.5   1.5\n  2.   2.5\nO\nEND\n");
}

TEST(FdmWrite, NumberTextMatchesPrintf) {
    std::mt19937 rng(99);
    std::vector<float> values = {0.0f, -0.0f,   -1e-9f,  1e-9f,
                                 9e9f, -8.9e9f, 3.4e38f, -std::numeric_limits<float>::infinity()};
    for (int i = 1; i < 400; i += 2)
        values.push_back(static_cast<float>(i) / 128.0f); // ties of the sixth decimal
    std::uniform_real_distribution<float> wide(-20000.0f, 20000.0f);
    for (int i = 0; i < 200000; i++) {
        uint32_t bits = static_cast<uint32_t>(rng());
        float f;
        memcpy(&f, &bits, sizeof f);
        values.push_back(i % 2 && !std::isnan(f) ? f : wide(rng));
    }
    char fast[FDM_NUMBER_TEXT_SIZE], slow[FDM_NUMBER_TEXT_SIZE];
    for (float v : values) {
        uint32_t n = fdm_format_fixed(v, fast);
        snprintf(slow, sizeof slow, "%10f", static_cast<double>(v));
        ASSERT_STREQ(fast, slow) << v;
        ASSERT_EQ(n, strlen(slow));
    }
}

TEST(FdmWrite, WriteErrorsAreRecorded) {
    FILE *full = fopen("/dev/full", "w");
    if (!full) GTEST_SKIP() << "no /dev/full";
    FdmStream *s = open_stream(full, FDM_MODE_WRITE, 16);
    FdmPoint p[2] = {{1, 1}, {2, 2}};
    FdmContour c = {FDM_CONTOUR, 0, 2, 2, 2, p};
    int ok = 1;
    for (int i = 0; i < 10000 && ok; i++)
        ok = fdm_write_contour(s, &c);
    EXPECT_EQ(ok, 0);
    EXPECT_STREQ(fdm_stream_error_text(s), "write error");
    EXPECT_EQ(fdm_destroy(s), 0);
    fclose(full);
}

TEST(FdmWrite, RoundTripWithinSixDecimals) {
    std::mt19937 rng(4711);
    std::uniform_real_distribution<double> coord(-9.0, 9.0);
    std::vector<std::vector<FdmPoint>> contours;
    TempDir dir;
    FILE *f = fopen(dir.file("part.ssl").c_str(), "w+b");
    FdmStream *out = open_stream(f, FDM_MODE_WRITE, 100);
    for (int layer = 0; layer < 20; layer++) {
        double values[2] = {0.005 * (layer + 1), layer % 2 ? 0.0 : 0.0125};
        ASSERT_EQ(fdm_set_option(out, FDM_OPT_LAYER, values), 1);
        for (int k = 0; k < 3; k++) {
            std::vector<FdmPoint> pts(2 + rng() % 300);
            for (FdmPoint &p : pts)
                p = {coord(rng), coord(rng)};
            if (k == 1) pts.push_back(pts[0]);
            FdmContour c = {FDM_CONTOUR,
                            0,
                            static_cast<uint32_t>(pts.size()),
                            0,
                            static_cast<uint32_t>(pts.size()),
                            pts.data()};
            ASSERT_EQ(fdm_write_contour(out, &c), 1);
            if (k == 1) pts.pop_back();
            contours.push_back(pts);
        }
    }
    ASSERT_EQ(fdm_finish(out), 1);
    fdm_destroy(out);
    rewind(f);
    FdmStream *in = open_stream(f, FDM_MODE_READ);
    FdmContour c = {};
    for (size_t i = 0; i < contours.size(); i++) {
        ASSERT_EQ(fdm_read_contour(in, &c), i % 3 ? 1 : 2);
        double layer[2];
        fdm_get_option(in, FDM_OPT_LAYER, layer);
        EXPECT_NEAR(layer[0], 0.005 * static_cast<double>(i / 3 + 1), 5e-7);
        EXPECT_NEAR(layer[1], (i / 3) % 2 ? 0.005 : 0.0125, 5e-7);
        EXPECT_EQ(c.closure, i % 3 == 1 ? FDM_CLOSED : FDM_OPEN);
        ASSERT_EQ(c.count, contours[i].size());
        for (uint32_t k = 0; k < c.count; k++) {
            EXPECT_NEAR(c.points[k].x, static_cast<float>(contours[i][k].x), 5.01e-7);
            EXPECT_NEAR(c.points[k].y, static_cast<float>(contours[i][k].y), 5.01e-7);
        }
    }
    EXPECT_EQ(fdm_read_contour(in, &c), 0);
    EXPECT_EQ(fdm_stream_error_text(in), nullptr);
    fdm_free_points(&c);
    fdm_destroy(in);
    fclose(f);
}
