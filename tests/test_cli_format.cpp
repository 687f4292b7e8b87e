#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "formats/cli/cli_internal.h"

namespace {

std::string u16(uint32_t v) {
    return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)};
}
std::string u32(uint32_t v) {
    return u16(v & 0xFFFF) + u16(v >> 16);
}
std::string f32(float v) {
    uint32_t bits;
    memcpy(&bits, &v, 4);
    return u32(bits);
}

struct Elem {
    uint32_t kind, id, dir;
    std::vector<CliPoint> points;
};
struct Layer {
    float z;
    std::vector<Elem> elems;
};
typedef std::vector<Layer> Model;

bool operator==(const Elem &a, const Elem &b) {
    if (a.kind != b.kind || a.id != b.id || a.points.size() != b.points.size()) return false;
    if (a.kind == CLI_POLYLINE && a.dir != b.dir) return false;
    for (size_t i = 0; i < a.points.size(); i++) {
        if (a.points[i].x != b.points[i].x || a.points[i].y != b.points[i].y) return false;
    }
    return true;
}
bool operator==(const Layer &a, const Layer &b) {
    return a.z == b.z && a.elems == b.elems;
}

// A regular temporary file, or with regular false input of unknown size.
FILE *input(std::string &bytes, bool regular) {
    if (!regular) return fmemopen(&bytes[0], bytes.size(), "rb");
    FILE *f = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), f);
    rewind(f);
    return f;
}

// Everything written to f; f is closed.
std::string file_text(FILE *f) {
    std::string b(static_cast<size_t>(ftell(f)), '\0');
    rewind(f);
    EXPECT_EQ(fread(&b[0], 1, b.size(), f), b.size());
    fclose(f);
    return b;
}

CliStream *open_stream(FILE *f, uint32_t mode, bool scale = false) {
    CliStream *s = cli_create();
    cli_set_option(s, CLI_OPT_MODE, &mode);
    cli_set_option(s, CLI_OPT_FILE, f);
    cli_set_option(s, CLI_OPT_SCALE, reinterpret_cast<void *>(static_cast<intptr_t>(scale)));
    return s;
}

struct Read {
    Model model;
    std::vector<int> results;
    CliHeader header = {};
    uint32_t error = 0;
    int clean = 0;
    uint32_t capacity = 0;
};

Read read_cli(std::string bytes, bool regular = true, uint32_t buffer_size = 0, bool scale = false,
              CliCallback callback = nullptr, void *context = nullptr) {
    Read r;
    FILE *f = input(bytes, regular);
    CliStream *s = open_stream(f, CLI_MODE_READ, scale);
    s->buffer_size = buffer_size;
    if (callback) cli_set_option(s, CLI_OPT_CALLBACK, &callback);
    cli_set_option(s, CLI_OPT_CALLBACK_CONTEXT, context);
    CliElement e = {};
    int result;
    while ((result = cli_read_element(s, &e)) != 0) {
        r.results.push_back(result);
        if (result == 2 || r.model.empty()) {
            r.model.push_back({});
            cli_get_option(s, CLI_OPT_LAYER, &r.model.back().z);
        }
        std::vector<CliPoint> pts(e.points, e.points + e.read);
        r.model.back().elems.push_back({e.kind, e.id, e.dir, pts});
        EXPECT_EQ(e.read, e.count);
    }
    CliHeader *h = nullptr;
    cli_get_option(s, CLI_OPT_HEADER, &h);
    if (h) r.header = *h;
    r.error = cli_stream_error(s);
    r.clean = cli_read_ended_cleanly(s);
    r.capacity = e.capacity;
    EXPECT_EQ(cli_stream_error_text(s) == nullptr, r.error == 0);
    cli_free_points(&e);
    cli_destroy(s);
    fclose(f);
    return r;
}

CliHeader test_header() {
    CliHeader h;
    cli_header_clear(&h);
    h.units = 1.0f;
    h.date = 191126;
    h.layers = 3;
    h.xmin = h.ymin = h.zmin = 0;
    h.xmax = h.ymax = h.zmax = 60000;
    return h;
}

std::string write_cli(const Model &m, uint32_t format, bool align, bool shortform, CliHeader *h) {
    FILE *f = tmpfile();
    CliStream *s = open_stream(f, CLI_MODE_WRITE);
    cli_set_option(s, CLI_OPT_FORMAT, &format);
    cli_set_option(s, CLI_OPT_ALIGN, reinterpret_cast<void *>(static_cast<intptr_t>(align)));
    cli_set_option(s, CLI_OPT_SHORT, reinterpret_cast<void *>(static_cast<intptr_t>(shortform)));
    if (h) cli_set_option(s, CLI_OPT_HEADER, h);
    CliElement e = {};
    for (const Layer &l : m) {
        float z = l.z;
        EXPECT_TRUE(cli_set_option(s, CLI_OPT_LAYER, &z));
        for (const Elem &el : l.elems) {
            cli_reserve_points(&e, static_cast<uint32_t>(el.points.size()));
            e.kind = el.kind, e.id = el.id, e.dir = el.dir;
            e.count = static_cast<uint32_t>(el.points.size());
            std::copy(el.points.begin(), el.points.end(), e.points);
            EXPECT_TRUE(cli_write_element(s, &e));
        }
    }
    cli_free_points(&e);
    EXPECT_TRUE(cli_finish(s));
    EXPECT_EQ(cli_stream_error(s), 0u);
    cli_destroy(s);
    return file_text(f);
}

// Hatches leave binary output as 16-bit integers: only the polylines of the
// long form carry fractions, negative and large values.
Model long_model() {
    return {{0.5f,
             {{CLI_POLYLINE, 1, 1, {{0, 0}, {-1234.5f, 3.4e7f}, {1e-3f, -7.25f}, {0, 0}}},
              {CLI_HATCHES, 2, 0, {{1, 2}, {65535, 4}, {0, 0}, {300, 70}}},
              {CLI_POLYLINE, 3, 0, {}}}},
            {1.25f, {{CLI_HATCHES, 4, 0, {}}}},
            {-2.0f, {{CLI_POLYLINE, 65535, 2, {{1.5f, 2.5f}, {3.4e38f, -1e-30f}}}}}};
}
Model short_model() {
    return {
        {1, {{CLI_POLYLINE, 1, 1, {{0, 0}, {65535, 3}, {12, 40000}}}, {CLI_POLYLINE, 2, 0, {}}}},
        {2, {{CLI_HATCHES, 7, 0, {{1, 2}, {3, 4}}}, {CLI_HATCHES, 8, 0, {}}}},
        {300, {{CLI_POLYLINE, 65535, 0, {{5, 6}, {7, 8}}}}}};
}

const std::string ascii_head = "$$HEADERSTART\n$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n";
const std::string binary_head = "$$HEADERSTART$$BINARY$$HEADEREND";

} // namespace

TEST(CliRoundTrip, EveryWriterVariantReadsBack) {
    struct Variant {
        uint32_t format;
        bool align, shortform;
    } variants[] = {{CLI_FORMAT_ASCII, false, false},
                    {CLI_FORMAT_BINARY, false, false},
                    {CLI_FORMAT_BINARY, true, false},
                    {CLI_FORMAT_BINARY, false, true},
                    {CLI_FORMAT_BINARY, true, true}};
    for (const Variant &v : variants) {
        const Model m = v.shortform ? short_model() : long_model();
        CliHeader h = test_header();
        const std::string bytes = write_cli(m, v.format, v.align, v.shortform, &h);
        // Unmeasured input, a small buffer that splits values, the whole file.
        for (uint32_t buffer : {0u, 7u}) {
            for (bool regular : {true, false}) {
                SCOPED_TRACE(testing::Message()
                             << v.format << v.align << v.shortform << buffer << regular);
                Read r = read_cli(bytes, regular, buffer);
                EXPECT_EQ(r.error, 0u);
                EXPECT_TRUE(r.clean);
                EXPECT_TRUE(r.model == m);
                EXPECT_TRUE(r.header.units == 1.0f && r.header.date == 191126u &&
                            r.header.layers == 3u && r.header.xmax == 60000.0 &&
                            r.header.zmin == 0);
            }
        }
    }
}

TEST(CliWrite, ExactBytesOfSmallFiles) {
    CliHeader h = test_header();
    h.units = 0.5f;
    h.date = 10126;
    h.layers = 0;
    h.xmax = 5, h.ymax = 1e10;
    Model m = {{1, {{CLI_POLYLINE, 1, 0, {{3, 0.25f}, {1e10f, -12}}}, {CLI_POLYLINE, 2, 1, {}}}},
               {1, {{CLI_HATCHES, 5, 0, {{1, 2}, {3, 4}, {9, 9}}}}},
               {2, {}},
               {3, {{CLI_HATCHES, 6, 0, {}}}}};
    EXPECT_EQ(write_cli(m, CLI_FORMAT_ASCII, false, false, &h),
              "$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/0.5\n$$DATE/010126\n"
              "$$DIMENSION/5,1e+10,60000,0,0,0\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/1.\n"
              "$$POLYLINE/1,0,2,3.,0.25,1.E+10,-12.\n$$POLYLINE/2,1,0,\n"
              "$$HATCHES/5,1,1.,2.,3.,4.\n$$LAYER/2.\n$$LAYER/3.\n$$HATCHES/6,0,\n"
              "$$GEOMETRYEND");
    // Units 0 become 0.01 and switch scaling on, whatever the caller asked
    // for: every real is divided by the units, the header's units not.
    h.xmin = DBL_MAX;
    h.units = 0;
    FILE *f = tmpfile();
    CliStream *s = open_stream(f, CLI_MODE_WRITE, false);
    uint32_t ascii = CLI_FORMAT_ASCII;
    cli_set_option(s, CLI_OPT_FORMAT, &ascii);
    cli_set_option(s, CLI_OPT_HEADER, &h);
    float z[] = {6, 7, 8};
    cli_set_option(s, CLI_OPT_LAYER, &z[0]); // replaced before the header goes out
    cli_set_option(s, CLI_OPT_LAYER, &z[1]);
    EXPECT_TRUE(cli_write_element(s, nullptr));
    EXPECT_TRUE(cli_set_option(s, CLI_OPT_LAYER, &z[1])); // same height: nothing
    EXPECT_TRUE(cli_set_option(s, CLI_OPT_LAYER, &z[2]));
    cli_destroy(s);
    EXPECT_EQ(file_text(f),
              "$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/0.01\n$$DATE/010126\n"
              "$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/700.\n$$LAYER/800.\n$$GEOMETRYEND");
    // Short aligned binary: fractions cut off, padding before every value
    // but between x and y.
    h = test_header();
    h.xmin = DBL_MAX;
    h.layers = 0;
    std::string head = "$$HEADERSTART\n$$BINARY\n$$ALIGN\n$$VERSION/200\n$$UNITS/1.\n"
                       "$$DATE/191126\n$$HEADEREND";
    const std::string pad((4 - head.size() % 4) % 4, '\0');
    // Hatches are short in either form; aligned integers keep 16 bits.
    Model fit = {{2,
                  {{CLI_POLYLINE, 7, 1, {{0.9f, 2.9f}}},
                   {CLI_HATCHES, 5, 0, {{1.7f, 2}, {3, 4}}},
                   {CLI_POLYLINE, 6, 0, {}}}}};
    const std::string hatch =
        u16(131) + u16(0) + u16(5) + u16(0) + u16(1) + u16(0) + u16(1) + u16(2) + u16(3) + u16(4);
    EXPECT_EQ(write_cli(fit, CLI_FORMAT_BINARY, true, true, &h),
              head + pad + u16(128) + u16(0) + u16(2) + u16(0) + u16(129) + u16(0) + u16(7) +
                  u16(0) + u16(1) + u16(0) + u16(1) + u16(0) + u16(0) + u16(2) + hatch + u16(129) +
                  u16(0) + u16(6) + u16(0) + u16(0) + u16(0) + u16(0));
    // Long aligned binary: integers take 16 bits and two zero bytes.
    EXPECT_EQ(write_cli(fit, CLI_FORMAT_BINARY, true, false, &h),
              head + pad + u16(127) + u16(0) + f32(2) + u16(130) + u16(0) + u32(7) + u32(1) +
                  u32(1) + f32(0.9f) + f32(2.9f) + hatch + u16(130) + u16(0) + u32(6) + u32(0) +
                  u16(0));
    // A value that does not fit its 16-bit field is refused, never wrapped.
    CliPoint low = {-1, 0}, high[2] = {{0, 65536}, {0, 0}};
    const struct {
        intptr_t align, shortform;
        CliElement e;
        uint32_t field;
        double value;
    } refused[] = {
        {0, 1, {CLI_POLYLINE, 1, 0, 1, 0, 1, &low}, CLI_FIELD_X, -1},
        {1, 0, {CLI_POLYLINE, 70000, 0, 1, 0, 1, &low}, CLI_FIELD_ID, 70000},
        {0, 0, {CLI_HATCHES, 1, 0, 2, 0, 2, high}, CLI_FIELD_Y, 65536},
    };
    for (auto k : refused) {
        FILE *out = tmpfile();
        s = open_stream(out, CLI_MODE_WRITE);
        uint32_t binary = CLI_FORMAT_BINARY;
        cli_set_option(s, CLI_OPT_FORMAT, &binary);
        cli_set_option(s, CLI_OPT_ALIGN, reinterpret_cast<void *>(k.align));
        cli_set_option(s, CLI_OPT_SHORT, reinterpret_cast<void *>(k.shortform));
        CliFieldFault fault = {};
        EXPECT_FALSE(cli_check_fields(s, &k.e, 0, &fault));
        EXPECT_TRUE(fault.field == k.field && fault.value == k.value);
        EXPECT_FALSE(cli_write_element(s, &k.e));
        EXPECT_EQ(cli_stream_error(s), CLI_E_FIELD);
        cli_destroy(s);
        fclose(out);
    }
    // Nothing written: only the end keyword.
    EXPECT_EQ(write_cli({}, CLI_FORMAT_ASCII, false, false, &h), "$$GEOMETRYEND");
}

TEST(CliStream, OptionsErrorsAndBytes) {
    CliStream *s = cli_create();
    uint32_t mode = CLI_MODE_READ;
    cli_set_option(s, CLI_OPT_MODE, &mode);
    // The first error sticks; reading without a file is a context error.
    CliElement e = {};
    EXPECT_EQ(cli_read_element(s, &e), 0);
    cli_fail(s, CLI_E_MEMORY);
    EXPECT_STREQ(cli_stream_error_text(s), "error in context (programming error?)");
    EXPECT_STREQ(cli_error_text(17), "<unknown>");
    EXPECT_STREQ(cli_error_text(CLI_E_EOF),
                 "premature EOF (illegal format or truncated file or $$GEOMETRYEND missing?)");
    cli_destroy(s);

    // A 10-byte file gets a 10-byte buffer, an empty one the full size;
    // pushback takes three bytes and keeps the byte count.
    std::string ten = "0123456789", none;
    for (std::string *bytes : {&ten, &none}) {
        FILE *f = input(*bytes, true);
        s = open_stream(f, CLI_MODE_READ);
        int c = cli_getc(s);
        EXPECT_EQ(s->buffer_size, bytes->empty() ? CLI_BUFFER_DEFAULT : 10u);
        if (!bytes->empty()) {
            EXPECT_EQ(c, '0');
            EXPECT_TRUE(cli_ungetc(s, 'a') && cli_ungetc(s, 'b') && cli_ungetc(s, CLI_EOF));
            EXPECT_FALSE(cli_ungetc(s, 'c'));
            EXPECT_EQ(cli_byte_count(s), uint64_t(-2));
            EXPECT_EQ(cli_getc(s), CLI_EOF);
            EXPECT_EQ(cli_getc(s), 'b');
            EXPECT_EQ(cli_getc(s), 'a');
            EXPECT_EQ(cli_getc(s), '1');
            EXPECT_EQ(cli_byte_count(s), 2u);
        }
        cli_destroy(s);
        fclose(f);
    }
}

TEST(CliRead, AsciiHardCases) {
    const std::string poly = "$$POLYLINE/1,0,2,1,2,3,4\n";
    struct Case {
        std::string text;
        size_t elements;
        uint32_t error;
        int clean;
        float z;
    } cases[] = {
        {ascii_head + "$$LAYER/1\n" + poly + "$$GEOMETRYEND", 1, 0, 1, 1},
        // Without $$GEOMETRYEND: a line feed behind a keyword is not the end
        // of the file, one behind a number is skipped with the number.
        {ascii_head + "$$LAYER/1\n" + poly, 1, 0, 1, 1},
        {ascii_head, 0, CLI_E_FORMAT, 1, 0},
        {ascii_head + "$$LAYER/1\n$$POLYLINE/1,0,2,1,2,3,4", 1, 0, 1, 1},
        // Comments, blanks inside keywords and numbers, lower case, unknown
        // header keywords with parameters.
        {"$$HEADER START\n$$ascii $$FOO/1,2 $$Units/2\n// a comment line\n$$HEADEREND\n"
         "$$GEOMETRYSTART $$layer/ 1 2 . 5 // 12.5\n$$polyLINE// x //1,0,2,1,2,3,// z /x4 "
         "$$GEOMETRYEND",
         1, 0, 1, 12.5f},
        {"// first\n" + ascii_head + "$$GEOMETRYEND", 0, 0, 1, 0},
        {ascii_head + "$$LAYER/1\n$$POLYLINE/1x,0,2,1,2,3,4\n$$GEOMETRYEND", 0, 0, 0, 1},
        {ascii_head + "$$LAYER/1\n$$LAYER/2\n" + poly + "$$LAYER/3\n$$GEOMETRYEND", 1, 0, 1, 2},
        {ascii_head + "$$LAYER/1 // open comment", 0, CLI_E_EOF, 1, 0},
        {ascii_head + "$$LAYER/nan\n" + poly, 0, CLI_E_NAN, 1, 0},
        // An unknown command of numbers in the geometry is passed over.
        {ascii_head + "$$LAYERSANDMOREX/1\n" + poly, 1, 0, 1, 0},
        {"$$HEADERSTART $$HEADEREND $$GEOMETRYSTART $$HEADERSTART", 0, 0, 1, 0},
        {"$$HEADERSTART $$GEOMETRYSTART", 0, CLI_E_KEYWORD, 1, 0},
        {"$$HEADERSTART $$GEOMETRYSTART $$HEADEREND $$GEOMETRYSTART $$LAYER/1 " + poly, 1, 0, 1, 1},
        {"$$HEADERSTART $$ASCII", 0, CLI_E_FORMAT, 1, 0},
        // Counts far beyond the file: no large allocation, a quiet stop.
        {ascii_head + "$$POLYLINE/1,0,10000000,1,2", 0, 0, 0, 0},
        {ascii_head + "$$HATCHES/1,5000000,1,2", 0, 0, 0, 0},
    };
    for (const Case &k : cases) {
        for (bool regular : {true, false}) {
            SCOPED_TRACE(k.text + (regular ? " (file)" : " (memory)"));
            Read r = read_cli(k.text, regular);
            size_t n = r.model.empty() ? 0 : r.model[0].elems.size();
            EXPECT_EQ(n, k.elements);
            EXPECT_EQ(r.error, k.error);
            EXPECT_EQ(r.clean, k.clean);
            EXPECT_LE(r.capacity, 300u);
            if (n) {
                EXPECT_EQ(r.model[0].z, k.z);
                EXPECT_TRUE(r.model[0].elems[0] == (Elem{CLI_POLYLINE, 1, 0, {{1, 2}, {3, 4}}}));
            }
        }
    }
    // A count that lies reserves no more than the bytes left can hold.
    std::string lie = ascii_head + "$$POLYLINE/1,0,10000000";
    for (int i = 0; i < 10000; i++)
        lie += ",1";
    Read r = read_cli(lie);
    EXPECT_TRUE(!r.clean && r.capacity <= 5001u) << r.capacity;
    r = read_cli("$$HEADERSTART $$ASCII $$DIMENSION/10,20,30,0,0,0 $$UNITS/0 $$LAYERS/3 // n\n"
                 "$$HEADEREND $$GEOMETRYSTART $$LAYER/1 $$HATCHES/5,2,1,2,3,4,5,6,7,8");
    EXPECT_EQ(r.header.units, 1.0f);
    EXPECT_EQ(r.header.layers, 3u);
    EXPECT_EQ(r.header.xmax + r.header.ymax + r.header.zmax, 60.0);
    EXPECT_EQ(r.header.xmin + r.header.ymin + r.header.zmin, 0.0);
    ASSERT_EQ(r.model.size(), 1u);
    EXPECT_TRUE(r.model[0].elems[0] == (Elem{CLI_HATCHES, 5, 0, {{1, 2}, {3, 4}, {5, 6}, {7, 8}}}));
}

TEST(CliRead, BinaryHardCases) {
    const std::string layer = u16(127) + f32(1.5f);
    const std::string poly =
        u16(130) + u32(1) + u32(0) + u32(2) + f32(1) + f32(2) + f32(3) + f32(4);
    const Elem expected = {CLI_POLYLINE, 1, 0, {{1, 2}, {3, 4}}};
    float nan = std::nanf("");
    struct Case {
        std::string bytes;
        size_t elements;
        uint32_t error;
    } cases[] = {
        {binary_head + layer + poly, 1, 0},
        {binary_head + layer + poly + u16(126), 1, CLI_E_KEYWORD},
        {binary_head + u16(133) + layer + poly, 0, CLI_E_KEYWORD},
        {binary_head + u16(127) + f32(nan) + poly, 0, CLI_E_NAN},
        {binary_head + layer + poly.substr(0, poly.size() - 3), 0, CLI_E_EOF},
        {binary_head + layer + poly + "x", 1, CLI_E_EOF},
        {binary_head + u16(127) + "\x01", 0, CLI_E_EOF},
        {binary_head + layer + u16(130) + u32(1) + u32(0) + u32(0xFFFFFFF0) + f32(1), 0, CLI_E_EOF},
        {binary_head + layer + u16(132) + u32(1) + u32(0x80000000), 0, CLI_E_EOF},
        {binary_head + layer + u16(131) + u16(1) + u16(2) + u16(1) + u16(2) + u16(3) + u16(4), 0,
         CLI_E_EOF},
        // Padding bytes of any value after every value, none between x and y.
        {"$$HEADERSTART$$BINARY$$ALIGN$$HEADEREND\xAA" + u16(128) + "\xAA\xAA" + u16(7) + "zz" +
             u16(129) + "zz" + u16(1) + "zz" + u16(0) + "zz" + u16(2) + "zz" + u16(1) + u16(2) +
             u16(3) + u16(4),
         1, 0},
        // A line feed behind $$HEADEREND is already geometry.
        {binary_head + "\n" + layer + poly, 0, CLI_E_KEYWORD},
    };
    for (const Case &k : cases) {
        for (bool regular : {true, false}) {
            SCOPED_TRACE(testing::Message() << (&k - cases) << regular);
            Read r = read_cli(k.bytes, regular, 5);
            size_t n = r.model.empty() ? 0 : r.model[0].elems.size();
            ASSERT_EQ(n, k.elements);
            EXPECT_EQ(r.error, k.error);
            EXPECT_LE(r.capacity, 300u);
            if (n) {
                EXPECT_TRUE(r.model[0].elems[0] == expected);
            }
        }
    }
}

namespace {
struct Seen {
    std::vector<std::string> labels, users;
};
int record(void *context, uint32_t code, const void *rec) {
    Seen *seen = static_cast<Seen *>(context);
    if (code == CLI_KW_LABEL) {
        const CliLabel *l = static_cast<const CliLabel *>(rec);
        seen->labels.push_back(std::to_string(l->id) + ":" + l->text);
    } else {
        const CliUserData *u = static_cast<const CliUserData *>(rec);
        EXPECT_EQ(u->data == nullptr, u->length == 0);
        std::string data(static_cast<const char *>(u->data), u->data ? u->length : 0);
        seen->users.push_back(std::string(u->uid) + ":" + data);
    }
    return 0;
}
} // namespace

TEST(CliRead, LabelAndUserDataCallback) {
    const std::string text = "$$HEADERSTART\n$$LABEL/7,part one\n$$USERDATA/acme,4,$/\x01,"
                             "$$USERDATA/,0,$$LABEL/2,$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n"
                             "$$LAYER/1 $$POLYLINE/1,0,2,1,2,3,4";
    for (bool regular : {true, false}) {
        Seen seen;
        Read r = read_cli(text, regular, 3, false, record, &seen);
        EXPECT_EQ(r.error, 0u);
        EXPECT_EQ(r.results, std::vector<int>{2});
        EXPECT_EQ(seen.labels, (std::vector<std::string>{"7:part one\n", "2:"}));
        EXPECT_EQ(seen.users, (std::vector<std::string>{"acme:$/\x01,", ":"}));
    }
    // Data that the file does not hold: the header fails.
    Seen seen;
    Read r = read_cli("$$HEADERSTART\n$$USERDATA/x,4000000000,abc", true, 0, false, record, &seen);
    EXPECT_EQ(r.error, CLI_E_EOF);
    EXPECT_TRUE(seen.users.empty());
    r = read_cli("$$HEADERSTART\n$$USERDATA/x,400000,abc", false, 0, false, record, &seen);
    EXPECT_EQ(r.error, CLI_E_EOF);
}

TEST(CliRobust, MutatedFilesTerminate) {
    CliHeader h = test_header();
    std::vector<std::string> seeds = {
        write_cli(long_model(), CLI_FORMAT_ASCII, false, false, &h),
        write_cli(long_model(), CLI_FORMAT_BINARY, false, false, &h),
        write_cli(long_model(), CLI_FORMAT_BINARY, true, false, &h),
        write_cli(short_model(), CLI_FORMAT_BINARY, true, true, &h),
        write_cli(short_model(), CLI_FORMAT_BINARY, false, true, &h),
    };
    std::mt19937 rng(20261119);
    const char specials[] = "$/,.\n-eE\x7f\x80\xff";
    for (int i = 0; i < 3000; i++) {
        std::string b = seeds[i % seeds.size()];
        int edits = 1 + static_cast<int>(rng() % 4);
        for (int k = 0; k < edits && !b.empty(); k++) {
            size_t at = rng() % b.size();
            switch (rng() % 4) {
            case 0:
                b[at] = static_cast<char>(rng());
                break;
            case 1:
                b[at] = specials[rng() % (sizeof specials - 1)];
                break;
            case 2:
                b.erase(at, 1 + rng() % 8);
                break;
            default:
                b.resize(at);
                break;
            }
        }
        read_cli(b, i % 2 == 0, i % 3 == 0 ? 0 : 1 + rng() % 16, i % 5 == 0);
    }
}
