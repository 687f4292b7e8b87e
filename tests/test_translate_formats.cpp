// End-to-end runs of the executable between the three formats.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

#include "test_util.h"

namespace {

// Little-endian SLC building blocks.
struct SlcBytes {
    std::string bytes;
    void u8(uint8_t v) { bytes += static_cast<char>(v); }
    void u32(uint32_t v) {
        for (int i = 0; i < 4; i++)
            u8(static_cast<uint8_t>(v >> (8 * i)));
    }
    void f32(float f) {
        uint32_t v;
        memcpy(&v, &f, 4);
        u32(v);
    }
    void header(const std::string &text) {
        bytes += text + "\r\n\x1a";
        bytes += std::string(256, '\0');
    }
    void table(std::initializer_list<float> entries) {
        u8(static_cast<uint8_t>(entries.size() / 4));
        for (float f : entries)
            f32(f);
    }
    void layer(float z, uint32_t count) {
        f32(z);
        u32(count);
    }
    void boundary(uint32_t gaps, const std::vector<float> &xy) {
        u32(static_cast<uint32_t>(xy.size() / 2));
        u32(gaps);
        for (float f : xy)
            f32(f);
    }
};

const char *const SLC_HEADER_MM = "-SLCVER 2.0\n-UNIT MM \n-TYPE PART \n"
                                  "-PACKAGE Vantorell/Plexo_Forge_3.3\n";

// The geometry of an ASCII CLI file: per layer its level and point lists.
struct Geometry {
    std::vector<std::pair<double, std::vector<std::vector<double>>>> layers;
};

Geometry parse_ascii_cli(const std::string &text) {
    Geometry g;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("$$LAYER/", 0) == 0) {
            g.layers.push_back({atof(line.c_str() + 8), {}});
        } else if (line.rfind("$$POLYLINE/", 0) == 0 && !g.layers.empty()) {
            std::vector<double> values;
            std::istringstream fields(line.substr(11));
            std::string field;
            while (std::getline(fields, field, ','))
                values.push_back(atof(field.c_str()));
            // id, dir, count, then the points
            g.layers.back().second.push_back(std::vector<double>(values.begin() + 3, values.end()));
        }
    }
    return g;
}

void expect_same_geometry(const Geometry &a, const Geometry &b, double tolerance,
                          const std::string &what) {
    ASSERT_EQ(a.layers.size(), b.layers.size()) << what;
    for (size_t i = 0; i < a.layers.size(); i++) {
        EXPECT_NEAR(a.layers[i].first, b.layers[i].first, tolerance) << what;
        ASSERT_EQ(a.layers[i].second.size(), b.layers[i].second.size()) << what;
        for (size_t j = 0; j < a.layers[i].second.size(); j++) {
            const auto &p = a.layers[i].second[j], &q = b.layers[i].second[j];
            ASSERT_EQ(p.size(), q.size()) << what;
            for (size_t k = 0; k < p.size(); k++)
                EXPECT_NEAR(p[k], q[k], tolerance) << what;
        }
    }
}

} // namespace

TEST(TranslateSlc, CliToSlcWritesTheExactFile) {
    TempDir dir;
    write_file(dir.file("in.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n"
               "$$LAYER/0.1\n$$POLYLINE/1,1,4,0,0,2,0,2,1,0,0\n"
               "$$LAYER/0.2\n$$POLYLINE/1,1,4,0,0,2,0,2,1,0,0\n"
               "$$LAYER/0.3\n$$POLYLINE/1,1,4,0,0,2,0,2,1,0,0\n$$GEOMETRYEND\n");
    RunResult r = run_laytran({"-f", "in.cli", "-o", "out.slc"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    SlcBytes want;
    want.header(SLC_HEADER_MM);
    want.table({0.1f, 0.2f - 0.1f, 0, 0});
    for (float z : {0.1f, 0.2f, 0.3f}) {
        want.layer(z, 1);
        want.boundary(0, {0, 0, 2, 0, 2, 1, 0, 0});
    }
    want.layer(0.3f, 0xffffffffu);
    EXPECT_EQ(read_file(dir.file("out.slc")), want.bytes);
    EXPECT_EQ(want.bytes.substr(0, 72).size(), 72u);

    // SLC written by laytran reads back and writes the same bytes again.
    r = run_laytran({"-f", "out.slc", "-o", "again.slc"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): input file contains no gaps\n");
    EXPECT_EQ(read_file(dir.file("again.slc")), want.bytes);

    // Inch output says so in its header.
    r = run_laytran({"-f", "in.cli", "-o", "inch.slc", "-U", "25.4"}, dir.path());
    EXPECT_EQ(r.status, 0);
    std::string inch = read_file(dir.file("inch.slc"));
    EXPECT_EQ(inch.substr(0, 24), "-SLCVER 2.0\n-UNIT INCH \n");
    r = run_laytran({"-f", "inch.slc", "-o", "inch.cli", "-O", "A", "-V", "0"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(
        read_file(dir.file("inch.cli")).find("$$POLYLINE/0,0,4,0.,0.,200.,0.,200.,100.,0.,0."),
        std::string::npos);
}

// Levels 0.1 mm apart up to 300 mm keep one spacing in the sampling table,
// although their floats' spacing varies by more than 1.5e-5 above 256 mm.
TEST(TranslateSlc, TallStackAtTenthMillimetreLayers) {
    TempDir dir;
    std::string cli = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n";
    char line[64];
    for (int k = 1; k <= 3000; k++) {
        snprintf(line, sizeof line, "$$LAYER/%.1f\n$$POLYLINE/1,1,3,0,0,1,0,1,1\n", k * 0.1);
        cli += line;
    }
    write_file(dir.file("tall.cli"), cli + "$$GEOMETRYEND\n");
    RunResult r = run_laytran({"-f", "tall.cli", "-o", "tall.slc"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::string slc = read_file(dir.file("tall.slc"));
    ASSERT_GT(slc.size(), 330u);
    EXPECT_EQ(slc[72 + 256], '\x01'); // one entry in the sampling table
}

TEST(TranslateSlc, GapsSplitContoursAndAreReported) {
    TempDir dir;
    const float G = 3.4028235e38f;
    SlcBytes slc;
    slc.header("-UNIT MM -TYPE PART");
    slc.table({1, 1, 0, 0});
    slc.layer(1, 1);
    slc.boundary(2, {0, 0, 1, 0, G, G, 2, 0, 3, 0, G, G, 4, 0, 5, 0});
    slc.layer(1, 0xffffffffu);
    write_file(dir.file("gaps.slc"), slc.bytes);
    RunResult r = run_laytran({"-f", "gaps.slc", "-o", "gaps.cli", "-O", "A"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): input file contains 2 gap(s)\n");
    EXPECT_NE(read_file(dir.file("gaps.cli"))
                  .find("$$LAYER/100.\n$$POLYLINE/0,0,2,0.,0.,100.,0.\n"
                        "$$POLYLINE/0,0,2,200.,0.,300.,0.\n$$POLYLINE/0,0,2,400.,0.,500.,0.\n"),
              std::string::npos);
    r = run_laytran({"-f", "gaps.slc", "-o", "gaps.ssl", "-V", "0"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    std::string fdm = read_file(dir.file("gaps.ssl"));
    size_t opens = 0;
    for (size_t at = fdm.find("\nO\n"); at != std::string::npos; at = fdm.find("\nO\n", at + 1))
        opens++;
    EXPECT_EQ(opens, 3u);

    // The total goes past what 32 bits hold.
    SlcBytes many;
    many.header("-TYPE PART");
    many.table({1, 1, 0, 0});
    for (float z : {1.0f, 2.0f}) {
        many.layer(z, 1);
        many.boundary(0x80000000u, {0, 0, 1, 0, 1, 1});
    }
    many.layer(2, 0xffffffffu);
    write_file(dir.file("many.slc"), many.bytes);
    r = run_laytran({"-f", "many.slc", "-o", "many.slc2", "-O", "S"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): input file contains 4294967296 gap(s)\n");
}

// Each broken input or unfit value fails the run with its own message.
TEST(TranslateFormats, BrokenInputsAndValuesBeyondFloatRangeFailTheRun) {
    TempDir dir;
    auto slc = [](float x) {
        SlcBytes b;
        b.header("-TYPE PART");
        b.table({1, 1, 0, 0});
        for (float z : {1.0f, 2.0f}) {
            b.layer(z, 1);
            b.boundary(0, {-3e38f, 0, x, 0, 1, 1});
        }
        b.layer(2, 0xffffffffu);
        return b.bytes;
    };
    // A reading error is printed after the load and again after the run.
    auto reading = [](const std::string &text) {
        const std::string line = "laytran: error reading input file (" + text + ")\n";
        return line + line;
    };
    const std::string eof = reading("premature EOF (not an SLC file or truncated file?)");
    const std::string gaps = "laytran(info): input file contains no gaps\n";
    const struct {
        std::string name, bytes;
        std::vector<std::string> args;
        std::string err;
    } cases[] = {
        {"one.cli",
         "$$HEADERSTART\n$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/0.1\n"
         "$$POLYLINE/1,1,2,0,0,1,1\n$$GEOMETRYEND\n",
         {"-O", "S"},
         "laytran: error writing output file (the SLC format needs at least two layers)\n"},
        {"empty.slc", "", {}, eof + gaps},
        {"cut.slc", slc(1).substr(0, slc(1).size() - 1), {}, eof + gaps},
        {"inf.slc", slc(INFINITY), {}, reading("illegal number") + gaps},
        {"/dev/zero", "", {"-F", "S"}, reading("not an SLC file") + gaps},
        {"/dev/zero", "", {"-F", "F"}, reading("not an FDM file")},
        {"big.ssl", "SLICE Z 1 .005 1 1e39 C", {}, reading("illegal number")},
        {"long.ssl",
         "SLICE Z 1 .005 1 " + std::string(100, '1') + " C",
         {},
         reading("illegal number")},
        {"open.ssl", "SLICE Z 1 .005 1 1 2 2", {}, reading("illegal keyword")},
        {"lone.ssl", "SLICE Z 1 .005 1 1 2 2 C C\n", {}, reading("illegal keyword")},
        {"scale.slc",
         slc(3e38f),
         {"-U", "0.001"},
         "laytran: scaling by 1000 to the output unit makes a coordinate of layer 1 infinite "
         "(choose a larger unit with -U)\n" +
             gaps},
        {"move.slc",
         slc(3e38f),
         {"-P", "-O", "S"},
         "laytran(WARNING): model is not entirely in the positive quadrant\n"
         "laytran(info): moving the model by XYZ=+3e+38,+0,+0\n"
         "laytran: moving the model makes a coordinate of layer 1 infinite\n" +
             gaps},
    };
    for (const auto &k : cases) {
        if (k.name[0] != '/') write_file(dir.file(k.name), k.bytes);
        std::vector<std::string> args = {"-f", k.name, "-O", "A"};
        args.insert(args.end(), k.args.begin(), k.args.end());
        RunResult r = run_laytran(args, dir.path());
        EXPECT_EQ(r.status, 255) << k.name;
        EXPECT_EQ(r.err, k.err) << k.name;
    }
}

TEST(TranslateFdm, InchesToCliAndMillimetresToInches) {
    TempDir dir;
    write_file(dir.file("in.ssl"), "SLICE V0\nSLICES ()\nZ   0.005 .005\n  1.   2.\n"
                                   "  1.5   2.\n  1.5   2.5\nC\nEND\n");
    RunResult r = run_laytran({"-f", "in.ssl", "-o", "out.cli", "-O", "A"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(
        read_file(dir.file("out.cli"))
            .find(
                "$$LAYER/12.7\n$$POLYLINE/0,1,4,2540.,5080.,3810.,5080.,3810.,6350.,2540.,5080.\n"),
        std::string::npos);

    // Millimetres at 0.127 mm spacing are 0.005 inch layers: no warning.
    write_file(dir.file("mm.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n"
               "$$LAYER/0.127\n$$POLYLINE/1,1,4,25.4,25.4,50.8,25.4,50.8,50.8,25.4,25.4\n"
               "$$LAYER/0.254\n$$POLYLINE/1,1,3,25.4,25.4,50.8,25.4,50.8,50.8\n$$GEOMETRYEND\n");
    r = run_laytran({"-f", "mm.cli", "-o", "mm.ssl"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(read_file(dir.file("mm.ssl")),
              "SLICE V0\nSLICES ()\nZ   0.005 .005\n  1.   1.\n  2.   1.\n  2.   2.\nC\n"
              "Z   0.01 .005\n  1.   1.\n  2.   1.\n  2.   2.\nO\nEND\n");

    // Other spacing: one warning for the whole run.
    write_file(dir.file("thick.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n"
               "$$LAYER/1\n$$POLYLINE/1,1,2,0,0,1,1\n$$LAYER/2\n$$POLYLINE/1,1,2,0,0,1,1\n"
               "$$LAYER/3\n$$POLYLINE/1,1,2,0,0,1,1\n$$GEOMETRYEND\n");
    r = run_laytran({"-f", "thick.cli", "-o", "thick.ssl"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): layer thickness must be 0.005\n");
}

TEST(TranslateFormats, EveryPairingCarriesTheModel) {
    TempDir dir;
    // Three 0.05 inch layers of part contours; closed squares and an open path.
    // Levels and coordinates are whole numbers so that the short form keeps them.
    write_file(dir.file("model.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/0.01\n$$HEADEREND\n$$GEOMETRYSTART\n"
               "$$LAYER/127\n$$POLYLINE/1,1,5,2540,2540,7620,2540,7620,5080,2540,5080,2540,2540\n"
               "$$LAYER/254\n$$POLYLINE/1,1,5,2540,2540,7620,2540,7620,5080,2540,5080,2540,2540\n"
               "$$POLYLINE/2,1,3,3810,3810,5080,3810,6350,4445\n"
               "$$LAYER/381\n$$POLYLINE/1,1,4,0,0,12700,0,12700,2540,0,0\n$$GEOMETRYEND\n");
    const std::vector<std::pair<std::string, std::string>> inputs = {
        {"cli", "C"}, {"slc", "S"}, {"ssl", "F"}};
    const std::vector<std::string> outputs = {"A", "b", "a", "s", "as", "S", "F"};
    // Inputs of each format, made from the model.
    for (const auto &in : inputs) {
        RunResult r = run_laytran({"-f", "model.cli", "-o", "model-in." + in.first, "-O",
                                   in.second == "C" ? "A" : in.second},
                                  dir.path());
        ASSERT_EQ(r.status, 0) << r.err;
    }
    // The SLC input has no TYPE, as some writers make them: part contours.
    std::string slc = read_file(dir.file("model-in.slc"));
    ASSERT_EQ(slc.substr(12, 24), "-UNIT MM \n-TYPE PART \n-P");
    write_file(dir.file("model-in.slc"), slc.erase(22, 12));
    RunResult r = run_laytran({"-f", "model.cli", "-O", "A"}, dir.path());
    Geometry reference = parse_ascii_cli(r.out);
    ASSERT_EQ(reference.layers.size(), 3u);
    int pairings = 0;
    for (const auto &in : inputs) {
        for (const std::string &out : outputs) {
            std::string ext = out == "S" ? "slc" : out == "F" ? "ssl" : "cli";
            std::string name = "pair-" + in.first + "-" + out + "." + ext;
            r = run_laytran({"-f", "model-in." + in.first, "-o", name, "-O", out}, dir.path());
            ASSERT_EQ(r.status, 0) << name << ": " << r.err;
            r = run_laytran({"-f", name, "-O", "A"}, dir.path());
            ASSERT_EQ(r.status, 0) << name << ": " << r.err;
            // The short form cuts fractions off: a value a hair below a whole
            // number loses one unit.
            double tolerance = out.find('s') != std::string::npos ? 1.0 : 0.02;
            expect_same_geometry(parse_ascii_cli(r.out), reference, tolerance, name);
            pairings++;
        }
    }
    EXPECT_EQ(pairings, 21);
}

// What SLC and FDM cannot hold is left out with one warning: CLI hatches
// (which FDM once joined into one zigzag contour) and SLC support contours.
TEST(TranslateFormats, HatchesAndSupportAreLeftOutOfSlcAndFdmWithOneWarning) {
    TempDir dir;
    // Millimetres at the FDM layer spacing; the first layer holds hatches only.
    write_file(
        dir.file("h.cli"),
        "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/0.127\n"
        "$$HATCHES/2,2,0,0,25.4,0,0,12.7,25.4,12.7\n$$HATCHES/3,1,0,12.7,25.4,0\n"
        "$$LAYER/0.254\n$$POLYLINE/1,1,4,0,0,25.4,0,25.4,12.7,0,0\n$$HATCHES/2,1,0,0,25.4,12.7\n"
        "$$LAYER/0.381\n$$POLYLINE/1,1,3,12.7,0,25.4,12.7,12.7,12.7\n$$GEOMETRYEND\n");
    RunResult r = run_laytran({"-f", "h.cli", "-o", "h.slc"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): the SLC format holds part contours only: 3 hatch blocks "
                     "were left out\n");
    SlcBytes want; // every layer keeps its record, the first one without boundaries
    want.header(SLC_HEADER_MM);
    want.table({0.127f, 0.254f - 0.127f, 0, 0});
    want.layer(0.127f, 0);
    want.layer(0.254f, 1);
    want.boundary(0, {0, 0, 25.4f, 0, 25.4f, 12.7f, 0, 0});
    want.layer(0.381f, 1);
    want.boundary(0, {12.7f, 0, 25.4f, 12.7f, 12.7f, 12.7f});
    want.layer(0.381f, 0xffffffffu);
    EXPECT_EQ(read_file(dir.file("h.slc")), want.bytes);

    r = run_laytran({"-f", "h.cli", "-o", "h.ssl"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): the FDM format holds part contours only: 3 hatch blocks "
                     "were left out\n");
    EXPECT_EQ(read_file(dir.file("h.ssl")),
              "SLICE V0\nSLICES ()\nZ   0.01 .005\n  0.   0.\n  1.   0.\n  1.   0.5\nC\n"
              "Z   0.015 .005\n  0.5   0.\n  1.   0.5\n  0.5   0.5\nO\nEND\n");

    // Every CLI form holds them all.
    for (const char *form : {"A", "b", "a", "s", "as"}) {
        r = run_laytran({"-f", "h.cli", "-o", std::string("h-") + form, "-O", form}, dir.path());
        EXPECT_EQ(r.status, 0) << form;
        r = run_laytran({"-f", std::string("h-") + form, "-O", "A"}, dir.path());
        EXPECT_NE(r.out.find("$$HATCHES/2,1,0.,0.,2540.,1270.\n$$LAYER"), std::string::npos);
        EXPECT_NE(r.out.find("$$HATCHES/3,1,0.,1270.,2540.,0.\n$$LAYER"), std::string::npos);
    }

    // An SLC file of support contours stays one; FDM has no place for them.
    SlcBytes support;
    support.header("-SLCVER 2.0\n-UNIT MM \n-TYPE -SUPPORT \n-PACKAGE Vantorell/Plexo_Forge_3.3\n");
    support.table({1, 1, 0, 0});
    for (float z : {1.0f, 2.0f}) {
        support.layer(z, 1);
        support.boundary(0, {0, 0, 1, 0, 1, 1, 0, 0});
    }
    support.layer(2, 0xffffffffu);
    write_file(dir.file("s.slc"), support.bytes);
    r = run_laytran({"-f", "s.slc", "-o", "s2.slc", "-V", "0"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(read_file(dir.file("s2.slc")), support.bytes);
    r = run_laytran({"-f", "s.slc", "-o", "s.ssl", "-V", "0"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): layer thickness must be 0.005\n"
                     "laytran(WARNING): the FDM format holds part contours only: 2 support "
                     "contours were left out\n");
    EXPECT_EQ(read_file(dir.file("s.ssl")), "SLICE V0\nSLICES ()\nZ   0.07874  0.03937\nEND\n");
}

// An input without elements still gives a whole file (it was a lone
// $$GEOMETRYEND, even for binary output) and a warning; SLC needs two layers.
TEST(TranslateFormats, InputWithoutGeometryMakesAWholeFileAndAWarning) {
    TempDir dir;
    const std::string warning = "laytran(WARNING): the input holds no geometry\n";
    write_file(dir.file("e.ssl"), "SLICE V0\nSLICES ()\nZ 1 .005\nEND\n");
    for (const std::string form : {"A", "b", "a", "s", "as", "F"}) {
        const std::string out = "e-" + form + (form == "F" ? ".ssl" : ".cli");
        RunResult r = run_laytran({"-f", "e.ssl", "-o", out, "-O", form, "-V", "0"}, dir.path());
        EXPECT_EQ(r.status, 0) << form;
        const bool positive = form == "a" || form == "s" || form == "as";
        EXPECT_EQ(r.err, (positive ? "laytran(info): setting -P (output format requires positive "
                                     "numbers)\n"
                                   : "") +
                             warning)
            << form;
        const std::string bytes = read_file(dir.file(out));
        if (form == "F") {
            EXPECT_EQ(bytes, "SLICE V0\nSLICES ()\nZ   0. .005\nEND\n");
        } else {
            EXPECT_EQ(bytes.substr(0, 16), "$$HEADERSTART\n$$");
            EXPECT_NE(bytes.find("$$HEADEREND"), std::string::npos) << form;
        }
        // What was written reads back as a whole file without geometry.
        r = run_laytran({"-f", out, "-O", "A", "-V", "0"}, dir.path());
        EXPECT_EQ(r.status, 0) << form;
        EXPECT_EQ(r.err, warning) << form;
    }
    // SLC needs two layers.
    RunResult r = run_laytran({"-f", "e.ssl", "-o", "e.slc"}, dir.path());
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, warning + "laytran: error writing output file (the SLC format needs at least "
                               "two layers)\n");
}
