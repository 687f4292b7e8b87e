// The CLI module through its own API: the reader and the writer on bytes in
// memory, and the engine's source and sink over them.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "formats/cli/cli_layers.h"
#include "formats/cli/cli_reader.h"
#include "formats/cli/cli_writer.h"

using namespace laytran;

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

Contour part(uint32_t id, uint32_t dir, std::vector<Point> p) {
    return {ContourKind::part, id, dir, 0, std::move(p)};
}
Contour hatch(uint32_t id, std::vector<Point> p) {
    return {ContourKind::hatches, id, 0, 0, std::move(p)};
}
using Layers = std::vector<Layer>;

// Contours and models as text, so that a failed comparison shows what
// differs.
std::string as_text(const Contour &c) {
    std::ostringstream s;
    s.precision(9);
    s << " " << static_cast<int>(c.kind) << "/" << c.id << "/" << c.direction << "(";
    for (const Point &p : c.points)
        s << p.x << "," << p.y << ";";
    return s.str() + ")";
}
std::string as_text(const Layers &m) {
    std::ostringstream s;
    s.precision(9);
    for (const Layer &l : m) {
        s << "z" << l.z << ":";
        for (const Contour &c : l.contours)
            s << as_text(c);
        s << "\n";
    }
    return s.str();
}

// Everything a CliReader gives: layers (each element of its own, and a
// layer at 0 for elements before the first), the end and the header.
struct Read {
    Layers layers;
    CliError error = CliError::none;
    bool clean = false;
    size_t capacity = 0; // of the element array, which is reused
    CliHeaderInfo header;
};

// From memory, or (known_size false) from a stream of unknown size read in
// blocks of `block` bytes.
Read read_cli(std::string bytes, bool known_size = true, size_t block = 7) {
    FILE *f = known_size ? nullptr : fmemopen(&bytes[0], bytes.size(), "rb");
    auto in = f ? std::make_unique<ByteInput>(f, block)
                : std::make_unique<ByteInput>(bytes.data(), bytes.size());
    CliReader reader(*in);
    CliElement e;
    Read r;
    for (CliReader::Event ev; (ev = reader.next(e)) != CliReader::Event::end;) {
        if (ev == CliReader::Event::layer || r.layers.empty())
            r.layers.push_back({reader.layer_z(), 0.0f, {}});
        if (ev == CliReader::Event::element)
            r.layers.back().contours.push_back(
                {e.kind == CliElementKind::hatches ? ContourKind::hatches : ContourKind::part, e.id,
                 e.direction, 0, e.points});
    }
    r.error = reader.error();
    r.clean = reader.ended_cleanly();
    r.capacity = e.points.capacity();
    r.header = reader.header();
    if (f) fclose(f);
    return r;
}

// The first layer that holds elements.
const Layer *first_elements(const Read &r) {
    for (const Layer &l : r.layers) {
        if (!l.contours.empty()) return &l;
    }
    return nullptr;
}

CliWriteHeader test_header() {
    CliWriteHeader h;
    h.units = 1.0f;
    h.date = 191126;
    h.layers = 3;
    h.dimension = "60000,60000,60000,0,0,0";
    return h;
}

std::string write_cli(const Layers &m, OutputForm form, const CliWriteHeader &h) {
    std::string bytes;
    ByteOutput out(&bytes);
    CliWriter w(out, form);
    w.set_header(h);
    for (const Layer &l : m) {
        EXPECT_TRUE(w.set_layer(l.z));
        for (const Contour &c : l.contours) {
            const auto kind =
                c.kind == ContourKind::part ? CliElementKind::polyline : CliElementKind::hatches;
            EXPECT_TRUE(w.write_element(kind, c.id, c.direction, c.points.data(), c.points.size()));
        }
    }
    EXPECT_TRUE(w.finish());
    return bytes;
}

// Hatches leave binary output as 16-bit integers: only the polylines of the
// long form carry fractions, negative and large values.
Layers long_model() {
    return {{0.5f,
             0,
             {part(1, 1, {{0, 0}, {-1234.5f, 3.4e7f}, {1e-3f, -7.25f}, {0, 0}}),
              hatch(2, {{1, 2}, {65535, 4}, {0, 0}, {300, 70}}), part(3, 0, {})}},
            {1.25f, 0, {hatch(4, {})}},
            {-2.0f, 0, {part(65535, 2, {{1.5f, 2.5f}, {3.4e38f, -1e-30f}})}}};
}
Layers short_model() {
    return {{1, 0, {part(1, 1, {{0, 0}, {65535, 3}, {12, 40000}}), part(2, 0, {})}},
            {2, 0, {hatch(7, {{1, 2}, {3, 4}}), hatch(8, {})}},
            {300, 0, {part(65535, 0, {{5, 6}, {7, 8}})}}};
}

// Binary long-form geometry of polylines in one layer.
struct BinaryModel {
    std::string bytes = "$$HEADERSTART$$BINARY$$HEADEREND" + u16(127) + f32(1);
    void polyline(const std::vector<float> &xy) {
        bytes += u16(130) + u32(1) + u32(0) + u32(static_cast<uint32_t>(xy.size() / 2));
        for (float v : xy)
            bytes += f32(v);
    }
};

const OutputForm cli_forms[] = {OutputForm::cli_ascii, OutputForm::cli_binary,
                                OutputForm::cli_aligned, OutputForm::cli_short,
                                OutputForm::cli_aligned_short};
const std::string ascii_head = "$$HEADERSTART\n$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n";
const std::string binary_head = "$$HEADERSTART$$BINARY$$HEADEREND";

} // namespace

TEST(CliModule, EveryWriterFormReadsBack) {
    for (OutputForm form : cli_forms) {
        const Layers m = needs_positive(form) ? short_model() : long_model();
        const std::string bytes = write_cli(m, form, test_header());
        // The whole input at once; unknown size in blocks that split values.
        for (size_t block : {size_t(0), size_t(7), size_t(100)}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(form) << " block " << block);
            Read r = read_cli(bytes, block == 0, block);
            EXPECT_EQ(r.error, CliError::none);
            EXPECT_TRUE(r.clean);
            EXPECT_EQ(as_text(r.layers), as_text(m));
            const CliHeaderInfo &h = r.header;
            EXPECT_TRUE(h.units == 1.0f && h.date == 191126u && h.layers == 3u &&
                        h.xmax == 60000.0 && h.zmin == 0 &&
                        h.aligned == (form == OutputForm::cli_aligned ||
                                      form == OutputForm::cli_aligned_short));
        }
    }
}

TEST(CliModule, WriterBytesOfEveryForm) {
    CliWriteHeader h = test_header();
    h.units = 0.5f;
    h.date = 10126;
    h.layers = 0;
    h.dimension = "5,1e+10,60000,0,0,0";
    Layers m = {{1, 0, {part(1, 0, {{3, 0.25f}, {1e10f, -12}}), part(2, 1, {{-0.0f, 0}})}},
                {1, 0, {hatch(5, {{1, 2}, {3, 4}, {9, 9}})}},
                {2, 0, {}},
                {3, 0, {hatch(6, {})}}};
    EXPECT_EQ(write_cli(m, OutputForm::cli_ascii, h),
              "$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/0.5\n$$DATE/010126\n"
              "$$DIMENSION/5,1e+10,60000,0,0,0\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/1.\n"
              "$$POLYLINE/1,0,2,3.,0.25,1.E+10,-12.\n$$POLYLINE/2,1,1,0.,0.\n"
              "$$HATCHES/5,1,1.,2.,3.,4.\n$$LAYER/2.\n$$LAYER/3.\n$$HATCHES/6,0,\n"
              "$$GEOMETRYEND");
    // Short aligned binary: fractions cut off, padding before every value
    // but between x and y.
    h.units = 1;
    h.date = 191126;
    h.dimension = "";
    const std::string head = "$$HEADERSTART\n$$BINARY\n$$ALIGN\n$$VERSION/200\n$$UNITS/1.\n"
                             "$$DATE/191126\n$$HEADEREND";
    const std::string pad((4 - head.size() % 4) % 4, '\0');
    // Hatches are short in either form; aligned integers keep 16 bits.
    Layers fit = {
        {2, 0, {part(7, 1, {{0.9f, 2.9f}}), hatch(5, {{1.7f, 2}, {3, 4}}), part(6, 0, {})}}};
    const std::string hatches =
        u16(131) + u16(0) + u16(5) + u16(0) + u16(1) + u16(0) + u16(1) + u16(2) + u16(3) + u16(4);
    EXPECT_EQ(write_cli(fit, OutputForm::cli_aligned_short, h),
              head + pad + u16(128) + u16(0) + u16(2) + u16(0) + u16(129) + u16(0) + u16(7) +
                  u16(0) + u16(1) + u16(0) + u16(1) + u16(0) + u16(0) + u16(2) + hatches +
                  u16(129) + u16(0) + u16(6) + u16(0) + u16(0) + u16(0) + u16(0));
    // Long aligned binary: integers take 16 bits and two zero bytes.
    EXPECT_EQ(write_cli(fit, OutputForm::cli_aligned, h),
              head + pad + u16(127) + u16(0) + f32(2) + u16(130) + u16(0) + u32(7) + u32(1) +
                  u32(1) + f32(0.9f) + f32(2.9f) + hatches + u16(130) + u16(0) + u32(6) + u32(0) +
                  u16(0));
}

TEST(CliModule, ReaderAsciiHardCases) {
    const std::string poly = "$$POLYLINE/1,0,2,1,2,3,4\n";
    struct Case {
        std::string text;
        size_t elements;
        CliError error;
        bool clean;
        float z;
    } cases[] = {
        {ascii_head + "$$LAYER/1\n" + poly + "$$GEOMETRYEND", 1, CliError::none, true, 1},
        // Without $$GEOMETRYEND: a line feed behind a keyword is not the end
        // of the file, one behind a number is skipped with the number.
        {ascii_head + "$$LAYER/1\n" + poly, 1, CliError::none, true, 1},
        {ascii_head, 0, CliError::format, true, 0},
        {ascii_head + "$$LAYER/1\n$$POLYLINE/1,0,2,1,2,3,4", 1, CliError::none, true, 1},
        // Comments, blanks inside keywords and numbers, lower case, unknown
        // header keywords with parameters.
        {"$$HEADER START\n$$ascii $$FOO/1,2 $$Units/2\n// a comment line\n$$HEADEREND\n"
         "$$GEOMETRYSTART $$layer/ 1 2 . 5 // 12.5\n$$polyLINE// x //1,0,2,1,2,3,// z /x4 "
         "$$GEOMETRYEND",
         1, CliError::none, true, 12.5f},
        {"// first\n" + ascii_head + "$$GEOMETRYEND", 0, CliError::none, true, 0},
        {ascii_head + "$$LAYER/1\n$$POLYLINE/1x,0,2,1,2,3,4\n$$GEOMETRYEND", 0, CliError::none,
         false, 1},
        {ascii_head + "$$LAYER/1\n$$LAYER/2\n" + poly + "$$LAYER/3\n$$GEOMETRYEND", 1,
         CliError::none, true, 2},
        {ascii_head + "$$LAYER/1 // open comment", 0, CliError::eof, true, 0},
        {ascii_head + "$$LAYER/nan\n" + poly, 0, CliError::nan, true, 0},
        {ascii_head + "$$LAYER/1e39\n" + poly, 0, CliError::infinite, true, 0},
        {ascii_head + "$$LAYER/1\n$$POLYLINE/1,0,2,1,2," + std::string(32, '3') + ",4\n", 0,
         CliError::number, true, 0},
        // An unknown command of numbers in the geometry is passed over.
        {ascii_head + "$$LAYERSANDMOREX/1\n" + poly, 1, CliError::none, true, 0},
        {ascii_head + "$$LAYER/1\n$$POWER/100W\n" + poly, 0, CliError::keyword, true, 0},
        {"$$HEADERSTART $$HEADEREND $$GEOMETRYSTART $$HEADERSTART", 0, CliError::none, true, 0},
        {"$$HEADERSTART $$GEOMETRYSTART", 0, CliError::keyword, true, 0},
        {"$$HEADERSTART $$GEOMETRYSTART $$HEADEREND $$GEOMETRYSTART $$LAYER/1 " + poly, 1,
         CliError::none, true, 1},
        {"$$HEADERSTART $$ASCII", 0, CliError::format, true, 0},
        {"x\n" + ascii_head, 0, CliError::format, true, 0},
        {std::string(70000, ' ') + ascii_head, 0, CliError::not_cli, true, 0},
        // Counts far beyond the file: no large allocation, a quiet stop.
        {ascii_head + "$$POLYLINE/1,0,10000000,1,2", 0, CliError::none, false, 0},
        {ascii_head + "$$HATCHES/1,5000000,1,2", 0, CliError::none, false, 0},
    };
    for (const Case &k : cases) {
        for (bool known : {true, false}) {
            SCOPED_TRACE(k.text.substr(0, 120) + (known ? " (known size)" : " (unknown size)"));
            Read r = read_cli(k.text, known);
            const Layer *l = first_elements(r);
            size_t n = l ? l->contours.size() : 0;
            EXPECT_EQ(n, k.elements);
            EXPECT_EQ(r.error, k.error);
            EXPECT_EQ(r.clean, k.clean);
            EXPECT_LE(r.capacity, 300u);
            if (n) {
                EXPECT_EQ(l->z, k.z);
                EXPECT_EQ(as_text(l->contours[0]), as_text(part(1, 0, {{1, 2}, {3, 4}})));
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
    EXPECT_EQ(as_text(r.layers), as_text({{1, 0, {hatch(5, {{1, 2}, {3, 4}, {5, 6}, {7, 8}})}}}));
}

// The reader's fast paths (numbers read in place, runs of points straight
// from the block) against its byte-by-byte path (a stream read five bytes
// at a time), on long random point lists of every spelling, ASCII and
// binary, with a rare value that stops the reading.
TEST(CliModule, FastPathsReadWhatTheByteByBytePathReads) {
    // Plain numbers and other spellings that read on; from "1e39" on those
    // that stop the reading.
    const char *numbers[] = {"1",
                             "-2.5",
                             "+3.",
                             ".25",
                             "0007.50",
                             "1e3",
                             "-4.5E-2",
                             "-0",
                             " 7",
                             "8 ",
                             "9\r\n",
                             "1.5mm",
                             "1 2",
                             "1e",
                             "1e+",
                             "-.5",
                             "0x1",
                             "3e38",
                             "12345678901234567890123",
                             "1e39",
                             "nan",
                             "abc",
                             "$",
                             "",
                             "1/",
                             ","};
    const char *separators[] = {",", ",", ",", ",", " , ", ",\n", "\t,\r\n", ", // 5,\n"};
    std::mt19937 rng(5);
    for (int round = 0; round < 40; round++) {
        std::string text = ascii_head + "$$LAYER/1\n";
        BinaryModel binary;
        while (text.size() < 60000) {
            const int count = static_cast<int>(rng() % 300);
            text += "$$POLYLINE/1,0," + std::to_string(count) + ",";
            std::vector<float> xy;
            for (int v = 2 * count; v > 0; v--) {
                // Mostly plain numbers; now and then one that stops the reading.
                const std::size_t pick = rng() % 20000 ? rng() % 19 : 19 + rng() % 7;
                text += numbers[pick];
                text += v > 1 ? separators[rng() % 8] : "\n";
                std::uint32_t bits = static_cast<std::uint32_t>(rng());
                bits = rng() % 4000 ? bits & 0xBFFFFFFFu : bits | 0x7F800000u; // rarely not finite
                float f;
                std::memcpy(&f, &bits, 4);
                xy.push_back(f);
            }
            binary.polyline(xy);
        }
        text += "$$GEOMETRYEND";
        for (const std::string &bytes : {text, binary.bytes}) {
            Read fast = read_cli(bytes), slow = read_cli(bytes, false, 5);
            ASSERT_EQ(as_text(fast.layers), as_text(slow.layers)) << round;
            EXPECT_EQ(fast.error, slow.error) << round;
            EXPECT_EQ(fast.clean, slow.clean) << round;
        }
    }
}

// Everything the reader tells, a line an event (its place, its fields, a
// hash of its points), then how it ended: read on one thread, or on two
// from parallel_min bytes of geometry at hand, from memory or (block > 0)
// from a file of known or unknown size.
std::string reader_story(std::string bytes, size_t parallel_min, size_t block = 0,
                         bool known_size = true) {
    FILE *f = nullptr;
    if (block && known_size) {
        f = tmpfile();
        fwrite(bytes.data(), 1, bytes.size(), f);
        rewind(f);
    } else if (block) {
        f = fmemopen(&bytes[0], bytes.size(), "rb");
    }
    auto in = f ? std::make_unique<ByteInput>(f, block)
                : std::make_unique<ByteInput>(bytes.data(), bytes.size());
    std::ostringstream s;
    s.precision(9);
    {
        CliReader reader(*in);
        reader.set_parallel_min(parallel_min);
        CliElement e;
        for (CliReader::Event ev; (ev = reader.next(e)) != CliReader::Event::end;) {
            s << reader.command_offset();
            if (ev == CliReader::Event::layer) {
                s << " z" << reader.layer_z() << "\n";
                continue;
            }
            uint64_t hash = 14695981039346656037u;
            for (const Point &p : e.points) {
                uint64_t xy;
                memcpy(&xy, &p, 8);
                hash = (hash ^ xy) * 1099511628211u;
            }
            s << " " << static_cast<int>(e.kind) << "/" << e.id << "/" << e.direction << "/"
              << e.points.size() << "/" << hash << "\n";
        }
        s << "error " << static_cast<int>(reader.error()) << " at " << reader.error_offset() << " '"
          << reader.error_token() << "' clean " << reader.ended_cleanly() << " layers "
          << reader.layers_read() << " end " << reader.end_seen();
        for (const CliSkipped &k : reader.skipped())
            s << " " << k.name << "*" << k.count;
    }
    if (f) fclose(f);
    return s.str();
}

// The first line in which two stories differ ("" when they do not).
std::string first_difference(const std::string &a, const std::string &b) {
    const size_t at = static_cast<size_t>(
        std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
    if (at == a.size() && at == b.size()) return "";
    const size_t line = a.rfind('\n', at) + 1;
    return "line " + std::to_string(std::count(a.begin(), a.begin() + at, '\n') + 1) + ": " +
           a.substr(line, a.find('\n', line) - line) + " | " +
           b.substr(line, b.find('\n', line) - line);
}

// Megabytes of ASCII geometry read on two threads tell what one thread
// reads, with one thing planted in the second half, at a command that
// begins next to a multiple of 64 KiB (a block's end) or anywhere: things
// that stop a piece (read alone from there on) and some that do not.
TEST(CliModule, ReaderReadsLargeAsciiGeometryOnTwoThreads) {
    std::mt19937 rng(11);
    const auto number = [&rng] {
        static const char *other[] = {" 7", "1e3", "-.5", "+3.", "8 ", "0007.50", "2 // c\n"};
        if (rng() % 64 == 0) return std::string(other[rng() % 7]);
        return std::to_string(static_cast<int>(rng() % 200000) - 100000) + "." +
               std::to_string(rng() % 100);
    };
    std::string body;
    for (int layer = 1; body.size() < (2u << 20);) {
        if (rng() % 8 == 0) body += "$$LAYER/" + std::to_string(layer++) + "\n";
        const int n = static_cast<int>(rng() % 300);
        const bool hatches = rng() % 3 == 0;
        body += hatches ? "$$HATCHES/2," + std::to_string(n)
                        : "$$POLYLINE/1," + std::to_string(rng() % 3) + "," + std::to_string(n);
        for (int v = (hatches ? 4 : 2) * n; v > 0; v--)
            body += "," + number();
        body += "\n";
        if (rng() % 40 == 0) body += rng() % 2 ? "$$POWER/100\n" : "// a comment\n";
    }
    const std::string plants[] = {"",
                                  "$$SPEED/25,3\n",
                                  "$$ALIGN\n",
                                  "$$POLYLINE/1,0,3,1,2,3,4\n",
                                  "$$LAYER/nan\n",
                                  "$$HATCHES/1,1,1,2,3,1e39\n",
                                  "/\n",
                                  "$$FOO/1x\n",
                                  "$$GEOMETRYEND\n"};
    int round = 0;
    for (const std::string &plant : plants) {
        for (bool at_block : {true, false}) {
            const size_t half = body.size() / 2;
            size_t at = at_block ? (half / 65536 + 1 + rng() % (half / 65536)) * 65536 - rng() % 64
                                 : half + rng() % half;
            at = body.find("\n$$", at) + 1;
            std::string text = ascii_head + body.substr(0, at) + plant + body.substr(at);
            // Now and then with $$GEOMETRYEND, or cut short.
            if (round % 3 == 0) text += "$$GEOMETRYEND\n";
            if (round % 5 == 4) text.resize(text.size() - rng() % half);
            round++;
            SCOPED_TRACE(plant + " at " + std::to_string(at));
            const std::string alone = reader_story(text, SIZE_MAX);
            EXPECT_EQ(first_difference(alone, reader_story(text, 8192)), "");
            EXPECT_EQ(first_difference(alone, reader_story(text, 8192, 65536)), "");
            EXPECT_EQ(first_difference(alone, reader_story(text, 4096, 24576, false)), "");
        }
    }
}

TEST(CliModule, ReaderBinaryHardCases) {
    const std::string layer = u16(127) + f32(1.5f);
    const std::string poly =
        u16(130) + u32(1) + u32(0) + u32(2) + f32(1) + f32(2) + f32(3) + f32(4);
    float nan = std::nanf("");
    struct Case {
        std::string bytes;
        size_t elements;
        CliError error;
    } cases[] = {
        {binary_head + layer + poly, 1, CliError::none},
        {binary_head + layer + poly + u16(126), 1, CliError::keyword},
        {binary_head + u16(133) + layer + poly, 0, CliError::keyword},
        {binary_head + u16(127) + f32(nan) + poly, 0, CliError::nan},
        {binary_head + layer + poly.substr(0, 14) + f32(HUGE_VALF) + poly.substr(18), 0,
         CliError::infinite},
        {binary_head + layer + poly.substr(0, poly.size() - 3), 0, CliError::eof},
        {binary_head + layer + poly + "x", 1, CliError::eof},
        {binary_head + u16(127) + "\x01", 0, CliError::eof},
        {binary_head + layer + u16(130) + u32(1) + u32(0) + u32(0xFFFFFFF0) + f32(1), 0,
         CliError::eof},
        {binary_head + layer + u16(132) + u32(1) + u32(0x80000000), 0, CliError::eof},
        {binary_head + layer + u16(131) + u16(1) + u16(2) + u16(1) + u16(2) + u16(3) + u16(4), 0,
         CliError::eof},
        // Padding bytes of any value after every value, none between x and y.
        {"$$HEADERSTART$$BINARY$$ALIGN$$HEADEREND\xAA" + u16(128) + "\xAA\xAA" + u16(7) + "zz" +
             u16(129) + "zz" + u16(1) + "zz" + u16(0) + "zz" + u16(2) + "zz" + u16(1) + u16(2) +
             u16(3) + u16(4),
         1, CliError::none},
        // A line feed behind $$HEADEREND is already geometry.
        {binary_head + "\n" + layer + poly, 0, CliError::keyword},
    };
    for (const Case &k : cases) {
        for (bool known : {true, false}) {
            SCOPED_TRACE(testing::Message() << (&k - cases) << known);
            Read r = read_cli(k.bytes, known, 5);
            size_t n = r.layers.empty() ? 0 : r.layers[0].contours.size();
            ASSERT_EQ(n, k.elements);
            EXPECT_EQ(r.error, k.error);
            EXPECT_LE(r.capacity, 300u);
            if (n) {
                EXPECT_EQ(as_text(r.layers[0].contours[0]), as_text(part(1, 0, {{1, 2}, {3, 4}})));
            }
        }
    }
    // An element larger than the ones before it, right at the end of the
    // input, is read whole: only the points still to come must fit.
    Read r = read_cli(binary_head + layer + poly + u16(130) + u32(2) + u32(0) + u32(3) + f32(1) +
                      f32(2) + f32(3) + f32(4) + f32(5) + f32(6));
    EXPECT_EQ(r.error, CliError::none);
    ASSERT_EQ(r.layers.size(), 1u);
    EXPECT_EQ(r.layers[0].contours[1].points.size(), 3u);
}

TEST(CliModule, ReaderLabelsAndUserData) {
    const std::string text = "$$HEADERSTART\n$$LABEL/7,part one\n$$USERDATA/acme,4,$/\x01,"
                             "$$USERDATA/,0,$$LABEL/2,$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n"
                             "$$LAYER/1 $$POLYLINE/1,0,2,1,2,3,4";
    for (bool known : {true, false}) {
        Read r = read_cli(text, known, 3);
        EXPECT_EQ(r.error, CliError::none);
        EXPECT_EQ(r.layers.size(), 1u);
        const CliHeaderInfo &h = r.header;
        ASSERT_EQ(h.labels.size(), 2u);
        EXPECT_TRUE(h.labels[0].id == 7 && h.labels[0].text == "part one");
        EXPECT_TRUE(h.labels[1].id == 2 && h.labels[1].text.empty());
        ASSERT_EQ(h.user_data.size(), 2u);
        EXPECT_TRUE(h.user_data[0].uid == "acme" && h.user_data[0].data == "$/\x01,");
        EXPECT_TRUE(h.user_data[1].uid.empty() && h.user_data[1].data.empty());
    }
    // Data that the file does not hold: the header fails.
    EXPECT_EQ(read_cli("$$HEADERSTART\n$$USERDATA/x,4000000000,abc").error, CliError::eof);
    EXPECT_EQ(read_cli("$$HEADERSTART\n$$USERDATA/x,400000,abc", false).error, CliError::eof);
}

namespace {

struct Source {
    Layers layers;
    ModelHeader header;
    StreamError error;
    std::string messages; // "W: text" and "I: text" lines
};

Source run_source(const std::string &bytes, bool keep_empty = false, int verbosity = 3) {
    Source s;
    DiagnosticSink sink = [&](const Diagnostic &d) {
        s.messages += (d.severity == Severity::info ? "I: " : "W: ") + d.text + "\n";
    };
    Reporter reporter(sink);
    ByteInput in(bytes.data(), bytes.size());
    SourceOptions options;
    options.keep_empty_layers = keep_empty;
    options.verbosity = verbosity;
    auto source = make_cli_source(in, reporter, options);
    Layer layer;
    while (source->next_layer(layer))
        s.layers.push_back(layer);
    source->report_read_end(reporter);
    source->report_run_end(reporter);
    s.header = source->header();
    s.error = source->error();
    return s;
}

} // namespace

TEST(CliModule, SourceLayersHeaderAndRemarks) {
    const std::string text =
        "// tool\n$$HEADERSTART $$ASCII $$UNITS/0.5 $$DATE/ 010203 $$LAYERS/4 "
        "$$LABEL/3,part A\r\n$$HEADEREND $$GEOMETRYSTART $$POLYLINE/1,1,2,0,0,1,1 $$LAYER/1 "
        "$$LAYER/2 $$HATCHES/2,1,0,0,1,1 $$POWER/5 $$LAYER/3 $$POLYLINE/3,2,0, $$GEOMETRYEND";
    const Contour first = part(1, 1, {{0, 0}, {1, 1}}), hatches = hatch(2, {{0, 0}, {1, 1}});
    Source s = run_source(text);
    EXPECT_FALSE(s.error);
    // Elements before the first layer make one at 0; a layer without
    // elements is dropped, one with an empty polyline is not.
    EXPECT_EQ(as_text(s.layers),
              as_text({{0, 0, {first}}, {2, 0, {hatches}}, {3, 0, {part(3, 2, {})}}}));
    const ModelHeader &h = s.header;
    EXPECT_TRUE(h.format == InputFormat::cli && h.variant == "ASCII" && h.unit_mm == 0.5 &&
                h.declared_layers == 4u);
    ASSERT_EQ(h.labels.size(), 1u);
    EXPECT_TRUE(h.labels[0].id == 3 && h.labels[0].text == "part A");
    std::string fields;
    for (const HeaderField &f : h.fields)
        fields += f.key + "=" + f.value + ";";
    EXPECT_EQ(fields, "ASCII=;UNITS=0.5;DATE=010203;LAYERS=4;LABEL=3,part A;");
    EXPECT_EQ(s.messages, "W: input ends early: 3 of the 4 layers declared by $$LAYERS were read\n"
                          "W: 1 $$POWER command was skipped (not held by the output)\n");
    EXPECT_EQ(run_source(text, true).layers.size(), 4u);

    // The other early ends, the signed 16-bit values and the skipped counts.
    std::string signed_short = "$$HEADERSTART$$BINARY$$DIMENSION/-800,0,0,1200,10,10$$HEADEREND";
    for (int v : {128, 50, 129, 1, 1, 2, -800, 0, 1200, 10})
        signed_short += u16(static_cast<uint16_t>(v));
    std::string many = ascii_head + "$$LAYER/1 $$POLYLINE/1,1,2,0,0,1,1 ";
    for (int i = 0; i < 70; i++)
        many += "$$P" + std::string(1, static_cast<char>('A' + i / 26)) +
                static_cast<char>('A' + i % 26) + "/1 $$PAA/2 ";
    const struct {
        std::string input, messages;
        int verbosity;
    } cases[] = {
        {ascii_head + "$$LAYER/1 $$POLYLINE/1,1,2,0,0,1,1 $$LAYER/2 $$POLYLINE/1,1,2,0,x",
         "W: input ends early: data after layer 1 could not be read\n", 3},
        {ascii_head + "$$LAYER/1 $$POLYLINE/1,1,2,0,0,1,1",
         "W: input ends early: $$GEOMETRYEND is missing after layer 1\n", 3},
        {signed_short,
         "I: $$DIMENSION declares a negative minimum: 16-bit coordinates are read as signed "
         "values\n",
         5},
        {signed_short, "", 0},
    };
    for (const auto &k : cases)
        EXPECT_EQ(run_source(k.input, false, k.verbosity).messages, k.messages) << k.input;
    // Past 64 keywords the rest are counted together.
    const std::string skipped = run_source(many + "$$GEOMETRYEND").messages;
    const std::string tail = " skipped (not held by the output)\n";
    const std::string head = "W: 71 $$PAA commands were" + tail + "W: 1 $$PAB command was" + tail,
                      last = "W: 6 commands of other keywords were" + tail;
    EXPECT_EQ(skipped.substr(0, head.size()), head);
    EXPECT_EQ(skipped.substr(skipped.size() - last.size()), last);
    Source r = run_source(signed_short);
    EXPECT_EQ(as_text(r.layers), as_text({{50, 0, {part(1, 1, {{-800, 0}, {1200, 10}})}}}));
    EXPECT_EQ(r.header.variant, "binary, short form");

    // Errors: the module's code and text, and where it happened.
    const std::string nan = ascii_head + "$$LAYER/1 $$POLYLINE/1,1,2,0,0,nan,1";
    r = run_source(nan);
    EXPECT_TRUE(r.error.code == 5 && std::string(r.error.text) == "floating-point value is NaN" &&
                r.error.offset == nan.rfind(','));
    EXPECT_EQ(r.messages, "");
}

namespace {

struct Sink {
    std::string bytes, messages;
    StreamError error;
    uint64_t gaps = 0;
    bool ok = false;
};

Sink run_sink(const Layers &m, OutputForm form, OutputPlan plan) {
    Sink s;
    DiagnosticSink sink = [&](const Diagnostic &d) { s.messages += "W: " + d.text + "\n"; };
    Reporter reporter(sink);
    ByteOutput out(&s.bytes);
    auto k = make_cli_sink(form, out, reporter);
    if (plan.layer_count == 0) plan.layer_count = m.size();
    s.ok = k->begin(plan);
    for (size_t i = 0; i < m.size() && s.ok; i++)
        s.ok = k->write_layer(m[i]);
    s.ok = k->finish() && s.ok;
    s.error = k->error();
    s.gaps = k->gaps();
    return s;
}

constexpr float gap = gap_coordinate;

} // namespace

// Layers of many points are formatted on two threads: the bytes of the
// contours written one by one (each alone in a layer of the same height).
TEST(CliModule, SinkFormatsLargeAsciiLayersOnTwoThreads) {
    std::mt19937 rng(3);
    Layers m, one_by_one;
    for (int l = 0; l < 3; l++) {
        Layer layer{0.5f * static_cast<float>(l + 1), 0, {}};
        for (std::uint32_t c = 0; c < 12; c++) {
            std::vector<Point> p;
            for (int i = static_cast<int>(rng() % 900); i > 0; i--)
                p.push_back({static_cast<float>(rng() % 100000) / 7, static_cast<float>(i)});
            if (c % 5 == 2) p.insert(p.begin() + p.size() / 2, {gap, gap});
            Contour k = c % 3 ? part(c, 1, p) : hatch(c, p);
            k.gaps = c % 5 == 2;
            layer.contours.push_back(k);
            one_by_one.push_back({layer.z, 0, {k}});
        }
        m.push_back(layer);
    }
    OutputPlan plan;
    plan.unit_mm = 0.01;
    plan.layer_count = m.size();
    for (CliHeaderStyle style : {CliHeaderStyle::classic, CliHeaderStyle::faithful}) {
        plan.cli_header = style;
        Sink a = run_sink(m, OutputForm::cli_ascii, plan);
        Sink b = run_sink(one_by_one, OutputForm::cli_ascii, plan);
        EXPECT_TRUE(a.ok && b.ok);
        EXPECT_EQ(a.bytes, b.bytes);
        EXPECT_EQ(a.gaps, b.gaps);
    }
}

TEST(CliModule, SinkClassicAndFaithful) {
    ModelHeader source;
    source.fields = {{"DATE", "10203"}};
    source.labels = {{4, "a/b"}};
    Contour gappy = part(9, 0, {{1, 1}, {gap, gap}, {2, 2}, {3, 3}, {gap, gap}, {4, 4}});
    gappy.gaps = 2;
    Contour support = hatch(5, {{1, 2}, {3, 4}}), web = hatch(6, {{5, 6}, {7, 8}});
    support.kind = ContourKind::support;
    web.kind = ContourKind::web;
    const Layers m = {
        {0.5f, 0, {}}, {1, 0, {gappy, support, web, part(2, 1, {{7, 7}})}}, {2, 0, {}}};
    OutputPlan plan;
    plan.unit_mm = 0.01;
    plan.source = &source;
    plan.bounds = {-1.5, 7, 1, 8, 0.5, 2};
    // Classic: the fixed frame, the header with the first element; pieces
    // split at gap marks, the last piece and the contour of one point left out.
    Sink s = run_sink(m, OutputForm::cli_ascii, plan);
    EXPECT_TRUE(s.ok && s.gaps == 2u && s.messages.empty());
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/0.01\n$$DATE/010203\n"
                             "$$LAYERS/3\n";
    const std::string geometry = "$$POLYLINE/9,0,1,1.,1.\n$$POLYLINE/9,0,2,2.,2.,3.,3.\n"
                                 "$$HATCHES/5,1,1.,2.,3.,4.\n$$HATCHES/6,1,5.,6.,7.,8.\n";
    EXPECT_EQ(s.bytes, head +
                           "$$DIMENSION/60000,60000,60000,0,0,0\n$$HEADEREND\n"
                           "$$GEOMETRYSTART\n$$LAYER/1.\n" +
                           geometry + "$$LAYER/2.\n$$GEOMETRYEND");
    // Faithful: the real bounds minimum first, the labels, every layer.
    plan.cli_header = CliHeaderStyle::faithful;
    s = run_sink(m, OutputForm::cli_ascii, plan);
    EXPECT_EQ(s.bytes, head +
                           "$$DIMENSION/-1.5,1,0.5,7,8,2\n$$LABEL/4,a b\n$$HEADEREND\n"
                           "$$GEOMETRYSTART\n$$LAYER/0.5\n$$LAYER/1.\n" +
                           geometry + "$$LAYER/2.\n$$GEOMETRYEND");
    // What was written reads back; other units are warned about.
    plan.unit_mm = 1;
    s = run_sink(m, OutputForm::cli_aligned_short, plan);
    EXPECT_EQ(s.messages, "W: units different from 0.01(MM) may cause the conversion\n"
                          "W:   to SLI to fail.\n");
    Source back = run_source(s.bytes, true);
    EXPECT_EQ(back.layers.size(), 3u);
    EXPECT_EQ(back.layers[1].contours.size(), 4u);
    EXPECT_TRUE(back.header.labels.size() == 1 && back.header.labels[0].text == "a b");
    EXPECT_TRUE(back.header.unit_mm == 1 && back.header.variant == "binary, short form, aligned");
    // No layers: a whole file; the faithful one without a $$LAYER.
    EXPECT_EQ(run_sink({}, OutputForm::cli_binary, plan).bytes,
              "$$HEADERSTART\n$$BINARY\n$$VERSION/200\n$$UNITS/1.\n$$DATE/010203\n"
              "$$DIMENSION/-1.5,1,0.5,7,8,2\n$$LABEL/4,a b\n$$HEADEREND");
    plan.cli_header = CliHeaderStyle::classic;
    EXPECT_NE(run_sink({}, OutputForm::cli_ascii, plan).bytes.find("$$LAYER/0.\n$$GEOMETRYEND"),
              std::string::npos);

    // Values that do not fit: the module's error, the detail that names it.
    plan.unit_mm = 0.01;
    const struct {
        Layers m;
        OutputForm form;
        std::string detail;
    } refused[] = {
        {{{50, 0, {hatch(2, {{-950, 0}, {1, 1}})}}},
         OutputForm::cli_binary,
         "hatches 2, layer 50: x coordinate -950 does not fit a 16-bit field (0 to 65535, unit "
         "0.01 mm); try -P to move the model"},
        {{{70000, 0, {}}},
         OutputForm::cli_aligned_short,
         "layer height 70000 does not fit a 16-bit field (0 to 65535, unit 0.01 mm); try -U with "
         "a larger unit or the long form -O b"},
        {{{50, 0, {part(1, 70000, {{1, 1}, {2, 2}})}}},
         OutputForm::cli_short,
         "polyline 1, layer 50: direction 70000 does not fit a 16-bit field (0 to 65535); try the "
         "long form -O b or ASCII output -O A"},
    };
    for (const auto &k : refused) {
        s = run_sink(k.m, k.form, plan);
        EXPECT_FALSE(s.ok);
        EXPECT_TRUE(s.error.code == 16 &&
                    std::string(s.error.text) == "value does not fit its 16-bit field");
        EXPECT_EQ(s.error.detail, k.detail);
        EXPECT_EQ(s.bytes, "$$GEOMETRYEND"); // nothing of the refused element went out
    }
    // finish() alone ends the file as the classic program does.
    std::string bytes;
    ByteOutput out(&bytes);
    DiagnosticSink none;
    Reporter reporter(none);
    EXPECT_TRUE(make_cli_sink(OutputForm::cli_short, out, reporter)->finish());
    EXPECT_EQ(bytes, "$$GEOMETRYEND");
    // A write that fails is the output's error, with its errno.
    int fd = open("/dev/full", O_WRONLY);
    ASSERT_GE(fd, 0);
    ByteOutput full(fd);
    auto sink = make_cli_sink(OutputForm::cli_binary, full, reporter);
    EXPECT_TRUE(sink->begin(plan) && sink->write_layer(m[1]));
    EXPECT_FALSE(sink->finish());
    EXPECT_TRUE(sink->error().code == 3 && sink->error().system_error == ENOSPC);
    close(fd);
}
