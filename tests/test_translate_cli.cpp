// End-to-end runs of the executable from CLI input to CLI output.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_util.h"

namespace {

const char *const SMALL_MM =
    "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$HEADEREND\n$$GEOMETRYSTART\n"
    "$$LAYER/0.5\n$$POLYLINE/3,1,4,1,2,3.5,2,3.5,4,1,2\n$$HATCHES/7,1,0,0,10,0\n"
    "$$LAYER/0.75\n$$POLYLINE/4,0,3,1,1,2,2,3,1\n$$GEOMETRYEND\n";

std::string ascii_header(const char *units, int layers) {
    return std::string("$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/") + units +
           "\n$$DATE/231126\n$$LAYERS/" + std::to_string(layers) +
           "\n$$DIMENSION/60000,60000,60000,0,0,0\n$$HEADEREND\n$$GEOMETRYSTART\n";
}

const char *const UNITS_WARNING =
    "laytran(WARNING): units different from 0.01(MM) may cause the conversion\n"
    "laytran(WARNING):   to SLI to fail.\n";

// Binary long-form CLI: header text, then commands (little-endian).
struct BinaryCli {
    std::string bytes = "$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$HEADEREND";
    void u16(uint16_t v) {
        bytes += static_cast<char>(v & 0xff);
        bytes += static_cast<char>(v >> 8);
    }
    void u32(uint32_t v) {
        u16(static_cast<uint16_t>(v & 0xffff));
        u16(static_cast<uint16_t>(v >> 16));
    }
    void f32(float f) {
        uint32_t v;
        memcpy(&v, &f, 4);
        u32(v);
    }
    void layer(float z) {
        u16(127);
        f32(z);
    }
    void polyline(uint32_t id, uint32_t dir, const std::vector<float> &xy) {
        u16(130);
        u32(id);
        u32(dir);
        u32(static_cast<uint32_t>(xy.size() / 2));
        for (float v : xy)
            f32(v);
    }
};

} // namespace

TEST(TranslateCli, MillimetresToAsciiScalesByOneHundredIntoTheFixedFrame) {
    TempDir dir;
    write_file(dir.file("in.cli"), SMALL_MM);
    RunResult r = run_laytran({"-f", "in.cli", "-o", "out.cli", "-O", "A"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(read_file(dir.file("out.cli")),
              ascii_header("0.01", 2) + "$$LAYER/50.\n"
                                        "$$POLYLINE/3,1,4,100.,200.,350.,200.,350.,400.,100.,200.\n"
                                        "$$HATCHES/7,1,0.,0.,1000.,0.\n"
                                        "$$LAYER/75.\n"
                                        "$$POLYLINE/4,0,3,100.,100.,200.,200.,300.,100.\n"
                                        "$$GEOMETRYEND");

    // Other units: factor 200 and the three-part warning; -R reverses.
    r = run_laytran({"-f", "in.cli", "-o", "out.cli", "-O", "A", "-U", "0.005", "-R", "1"},
                    dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "laytran(info): output file out.cli already exists\n" + std::string(UNITS_WARNING));
    EXPECT_EQ(read_file(dir.file("out.cli")),
              ascii_header("0.005", 2) +
                  "$$LAYER/100.\n"
                  "$$POLYLINE/3,1,4,200.,400.,700.,800.,700.,400.,200.,400.\n"
                  "$$HATCHES/7,1,2000.,0.,0.,0.\n"
                  "$$LAYER/150.\n"
                  "$$POLYLINE/4,0,3,600.,200.,400.,400.,200.,200.\n"
                  "$$GEOMETRYEND");
}

TEST(TranslateCli, NegativeModelIsReportedAndMovedOnlyWithP) {
    TempDir dir;
    write_file(dir.file("neg.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/010100\n$$HEADEREND\n"
               "$$GEOMETRYSTART\n$$LAYER/-0.2\n$$POLYLINE/1,1,2,-5,3,5,4\n$$GEOMETRYEND\n");
    RunResult r = run_laytran({"-f", "neg.cli", "-o", "a.cli", "-O", "A", "-U", "1"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): model is not entirely in the positive quadrant\n"
                     "laytran(info): the minimum xyz-coordinates are -5, 3, and -0.2\n"
                     "laytran(info): the option -P can be used to move the model\n" +
                         std::string(UNITS_WARNING));
    EXPECT_NE(read_file(dir.file("a.cli")).find("$$LAYER/-0.2\n$$POLYLINE/1,1,2,-5.,3.,5.,4.\n"),
              std::string::npos);

    r = run_laytran({"-f", "neg.cli", "-o", "b.cli", "-O", "A", "-U", "1", "-P"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): model is not entirely in the positive quadrant\n"
                     "laytran(info): moving the model by XYZ=+5,+0,+0.2\n"
                     "laytran(info): min. z-coordinate places the part close to, or on the "
                     "platform\n" +
                         std::string(UNITS_WARNING));
    EXPECT_NE(read_file(dir.file("b.cli")).find("$$LAYER/0.\n$$POLYLINE/1,1,2,0.,3.,10.,4.\n"),
              std::string::npos);
}

TEST(TranslateCli, EveryCliVariantConvertsToEveryOther) {
    TempDir dir;
    write_file(dir.file("in.cli"), SMALL_MM);
    const std::vector<std::string> variants = {"A", "b", "a", "s", "as"};
    // ASCII output of each variant's file must be the same model.
    std::string reference;
    for (const std::string &from : variants) {
        std::string mid = dir.file("mid-" + from + ".cli");
        RunResult r = run_laytran({"-f", "in.cli", "-o", mid, "-O", from}, dir.path());
        ASSERT_EQ(r.status, 0) << from << r.err;
        for (const std::string &to : variants) {
            std::string out = dir.file("out-" + from + "-" + to + ".cli");
            r = run_laytran({"-f", mid, "-o", out, "-O", to}, dir.path());
            ASSERT_EQ(r.status, 0) << from << " to " << to << ": " << r.err;
            r = run_laytran({"-f", out, "-O", "A"}, dir.path());
            ASSERT_EQ(r.status, 0) << r.err;
            std::string geometry = r.out.substr(r.out.find("$$GEOMETRYSTART"));
            if (reference.empty()) reference = geometry;
            EXPECT_EQ(geometry, reference) << from << " to " << to;
        }
    }
    EXPECT_NE(reference.find("$$HATCHES/7,1,0.,0.,1000.,0.\n"), std::string::npos);
}

TEST(TranslateCli, InputAndOutputErrorsAreBothReportedInputFirst) {
    TempDir dir;
    BinaryCli cli;
    cli.layer(1.0f);
    std::vector<float> xy;
    for (int i = 0; i < 20; i++)
        xy.push_back(1000.25f + i);
    for (int i = 0; i < 20000; i++)
        cli.polyline(1, 1, xy);
    cli.bytes.resize(cli.bytes.size() - 10); // the last polyline is cut short
    write_file(dir.file("big.cli"), cli.bytes);
    // Every write to this file fails for want of space.
    ASSERT_EQ(symlink("/dev/full", dir.file("full.cli").c_str()), 0);
    RunResult r = run_laytran({"-f", "big.cli", "-o", "full.cli", "-O", "A"}, dir.path());
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "laytran(info): output file full.cli already exists\n"
                     "laytran: error reading input file (premature EOF (illegal format or "
                     "truncated file or $$GEOMETRYEND missing?))\n"
                     "laytran: error writing output file (write error: No space left on "
                     "device)\n");

    // A directory opens but cannot be read.
    r = run_laytran({"-F", "C", "-f", ".", "-o", "x.cli"}, dir.path());
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "laytran(info): output file format assumed to be binary CLI\n"
                     "laytran: error reading input file (read error: Is a directory)\n");
}

TEST(TranslateCli, AnEarlyEndIsWarnedAboutOnce) {
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$LAYERS/3\n"
                             "$$HEADEREND\n$$GEOMETRYSTART\n";
    const std::string two = "$$LAYER/1\n$$POLYLINE/1,1,2,0,0,1,1\n$$LAYER/2\n$$POLYLINE/1,1,2,0,0,";
    BinaryCli binary;
    binary.bytes = "$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$LAYERS/3\n$$HEADEREND";
    binary.layer(1);
    binary.polyline(1, 1, {0, 0, 1, 1});
    const std::string early = "laytran(WARNING): input ends early: ";
    const struct {
        std::string input, warning;
    } cases[] = {
        // A number that does not convert ends the input: one warning,
        // whatever else is missing.
        {head + two + "abc,1\n", "data after layer 1 could not be read"},
        {head + two + "1,1\n$$GEOMETRYEND\n", "2 of the 3 layers declared by $$LAYERS were read"},
        {head + two + "1,1\n", "2 of the 3 layers declared by $$LAYERS were read"},
        {head + two + "1,1\n$$LAYER/3\n$$POLYLINE/1,1,2,0,0,1,1",
         "$$GEOMETRYEND is missing after layer 3"},
        {binary.bytes, "1 of the 3 layers declared by $$LAYERS were read"},
    };
    for (const auto &k : cases) {
        RunResult r = run_laytran({"-O", "A"}, "", k.input);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, early + k.warning + "\n");
        if (&k == cases) {
            EXPECT_EQ(r.out, ascii_header("0.01", 1) +
                                 "$$LAYER/100.\n$$POLYLINE/1,1,2,0.,0.,100.,100.\n$$GEOMETRYEND");
        }
    }
}

TEST(TranslateCli, BundledSampleConverts) {
    RunResult r = run_laytran({"-f", source_path("samples/plate.cli"), "-O", "A"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("$$LAYERS/4\n"), std::string::npos);
    EXPECT_NE(r.out.find("$$LAYER/40.\n$$POLYLINE/1,1,5,0.,0.,2000.,0.,2000.,1200.,"),
              std::string::npos);
}

namespace {

// The model most files from other tools below hold, written plainly.
const std::string PLAIN_HEAD = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$LAYERS/2\n"
                               "$$HEADEREND\n$$GEOMETRYSTART\n";
const std::string PLAIN_LAYER_1 = "$$LAYER/0.5\n$$POLYLINE/1,1,5,1,2,11,2,11,12.5,1,12.5,1,2\n";
const std::string PLAIN_LAYER_2 = "$$LAYER/1\n$$POLYLINE/2,0,4,3,4,5,4,5,6,3,4\n";
const std::string PLAIN = PLAIN_HEAD + PLAIN_LAYER_1 + PLAIN_LAYER_2 + "$$GEOMETRYEND\n";

// Removes every line of lines from text; false when one is missing.
bool remove_lines(std::string &text, const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
        size_t at = text.find(line + "\n");
        if (at == std::string::npos) return false;
        text.erase(at, line.size() + 1);
    }
    return true;
}

const std::vector<std::string> ALL_OUTPUTS = {"A", "b", "a", "s", "as", "S", "F"};

} // namespace

TEST(TranslateCli, FilesFromOtherToolsReadAsTheirPlainForm) {
    const std::string binary_head = "$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$HEADEREND";
    BinaryCli plain_binary;
    plain_binary.layer(0.5f);
    plain_binary.polyline(1, 1, {1, 2, 11, 2, 11, 12.5f, 1, 12.5f, 1, 2});
    plain_binary.layer(1);
    plain_binary.polyline(2, 0, {3, 4, 5, 4, 5, 6, 3, 4});
    const std::string &binary = plain_binary.bytes;
    // Short form stored signed, below a $$DIMENSION with the minimum first.
    BinaryCli signed_short;
    signed_short.bytes = "$$HEADERSTART\n$$BINARY\n$$UNITS/0.01\n"
                         "$$DIMENSION/-800,-300,50,1200,1000,100\n$$HEADEREND";
    for (int v : {128,  50,  129, 1,   1, 3, -800, -300, 1200, -300, 1200,
                  1000, 128, 100, 129, 2, 0, 2,    -8,   0,    8,    0})
        signed_short.u16(static_cast<uint16_t>(v));
    const std::string power = "$$POWER/100.0\n";
    struct Case {
        std::string raw, plain;
        std::vector<std::string> notes; // lines the raw file adds to the messages
        std::string geometry;           // in the ASCII output
    } cases[] = {
        {"// prog 1.0 CLI export //\r\n\n  \n// second\n" + PLAIN, PLAIN, {}, ""},
        {"// prog 1.0 CLI export //\n\n" + binary, binary, {}, ""},
        {PLAIN_HEAD + PLAIN_LAYER_1.substr(0, 12) + power + "$$Speed/200.0,3\n" + power +
             PLAIN_LAYER_1.substr(12) + "$$FOCUS/0.0 // f\n" + power + PLAIN_LAYER_2 +
             "$$GEOMETRYEND\n",
         PLAIN,
         {"laytran(WARNING): 3 $$POWER commands were skipped (not held by the output)",
          "laytran(WARNING): 1 $$SPEED command was skipped (not held by the output)",
          "laytran(WARNING): 1 $$FOCUS command was skipped (not held by the output)"},
         ""},
        {"$$HEADERSTART // x\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$LAYERS/2\n$$HEADEREND // x\n"
         "$$GEOMETRYSTART\n" +
             PLAIN_LAYER_1 + PLAIN_LAYER_2 + "$$GEOMETRYEND // x\n",
         PLAIN,
         {},
         ""},
        {"$$HEADERSTART\n$$BINARY // note\n$$UNITS/1\n$$HEADEREND" +
             binary.substr(binary_head.size()),
         binary,
         {},
         ""},
        {signed_short.bytes,
         "$$HEADERSTART\n$$ASCII\n$$UNITS/0.01\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/50\n"
         "$$POLYLINE/1,1,3,-800,-300,1200,-300,1200,1000\n$$LAYER/100\n$$POLYLINE/2,0,2,-8,0,8,0\n"
         "$$GEOMETRYEND\n",
         {"laytran(info): $$DIMENSION declares a negative minimum: 16-bit coordinates are read as "
          "signed values"},
         "$$POLYLINE/1,1,3,-800.,-300.,1200.,-300.,1200.,1000.\n"},
        {"$$HEADERSTART\r\n$$ASCII\r\n$$UNITS/00001.000\r\n$$DATE/20240702\r\n$$LABEL/1,name\r\n"
         "$$DIMENSION/-0000069.945000,0000002.000000,0000000.500000,0000011.000000,"
         "0000012.500000,0000001.000000\r\n$$LAYERS/2\r\n$$HEADEREND\r\n$$GEOMETRYSTART\r\n"
         "$$LAYER/0000000.500000\r\n$$POLYLINE/00001,01,0005,-0000069.945000,0000002.000000,"
         "11,2,11,12.5,1,12.5,-0000069.945000,2\r\n$$LAYER/1.\r\n"
         "$$POLYLINE/2,0,4,3,4,5,4,5,6,3,4\r\n$$GEOMETRYEND\r\n",
         "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/20240702\n$$LAYERS/2\n$$HEADEREND\n"
         "$$GEOMETRYSTART\n$$LAYER/0.5\n$$POLYLINE/"
         "1,1,5,-69.945,2,11,2,11,12.5,1,12.5,-69.945,2\n" +
             PLAIN_LAYER_2 + "$$GEOMETRYEND\n",
         {},
         "$$DATE/20240702\n"},
    };
    for (const Case &k : cases) {
        for (const std::string &out : ALL_OUTPUTS) {
            SCOPED_TRACE(k.raw.substr(0, 40) + " to " + out);
            RunResult plain = run_laytran({"-O", out}, "", k.plain);
            RunResult raw = run_laytran({"-O", out}, "", k.raw);
            ASSERT_EQ(plain.status, 0) << plain.err;
            EXPECT_EQ(raw.status, 0);
            EXPECT_TRUE(remove_lines(raw.err, k.notes)) << raw.err;
            EXPECT_EQ(raw.err, plain.err);
            EXPECT_EQ(raw.out, plain.out);
            if (out == "A") {
                const std::string expected =
                    k.geometry.empty() ? "$$POLYLINE/1,1,5,100.,200.,1100.,200.,1100.,1250."
                                       : k.geometry;
                EXPECT_NE(raw.out.find(expected), std::string::npos) << raw.out;
            }
        }
    }
}

TEST(TranslateCli, ValuesThatDoNotFitTheirFieldFailTheRun) {
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n";
    std::string many = "$$LAYER/1\n$$POLYLINE/1,1,65536";
    for (int i = 0; i < 65536; i++)
        many += ",1,1";
    const std::string error = "laytran: error writing output file (";
    const std::string fits = " does not fit a 16-bit field (0 to 65535";
    const struct {
        std::string geometry, form, last_line;
    } cases[] = {
        {"$$LAYER/0.5\n$$POLYLINE/1,1,2,700,0,1,1\n", "s",
         "polyline 1, layer 50: x coordinate 70000" + fits +
             ", unit 0.01 mm); try -U with a larger unit or the long form -O b)"},
        {"$$LAYER/700\n$$POLYLINE/1,1,2,1,0,1,1\n", "as",
         "layer height 70000" + fits +
             ", unit 0.01 mm); try -U with a larger unit or the long form -O b)"},
        {"$$LAYER/0.5\n$$HATCHES/2,1,-9.5,0,1,1\n", "b",
         "hatches 2, layer 50: x coordinate -950" + fits +
             ", unit 0.01 mm); try -P to move the model)"},
        {"$$LAYER/0.5\n$$HATCHES/2,1,1,0,1,700\n", "b",
         "hatches 2, layer 50: y coordinate 70000" + fits +
             ", unit 0.01 mm); try -U with a larger unit or ASCII output -O A)"},
        {"$$LAYER/0.5\n$$POLYLINE/70000,1,2,1,0,1,1\n", "a",
         "polyline 70000, layer 50: id 70000" + fits +
             "); try the long form -O b or ASCII output -O A)"},
        {many, "s",
         "polyline 1, layer 100: point count 65536" + fits +
             "); try the long form -O b or ASCII output -O A)"},
    };
    for (const auto &k : cases) {
        RunResult r = run_laytran({"-O", k.form}, "", head + k.geometry);
        EXPECT_EQ(r.status, 255);
        EXPECT_NE(r.err.find("\n" + error + k.last_line + "\n"), std::string::npos) << r.err;
    }
    // The fraction is cut off: 655.359 mm fits the short form as 65535.
    RunResult r =
        run_laytran({"-O", "s"}, "", head + "$$LAYER/1\n$$POLYLINE/1,1,2,655.359,0,1,1\n");
    ASSERT_EQ(r.status, 0) << r.err;
    r = run_laytran({"-O", "A"}, "", r.out);
    EXPECT_NE(r.out.find("$$POLYLINE/1,1,2,65535.,0.,100.,100.\n"), std::string::npos) << r.out;
}

TEST(TranslateCli, BrokenNumbersAndOtherInputFailTheRun) {
    const std::string head = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n";
    BinaryCli infinite;
    infinite.layer(1);
    infinite.polyline(1, 1, {1, 2, HUGE_VALF, 4});
    std::string comments;
    while (comments.size() < 70000)
        comments += "// a comment line\n";
    const std::string digits(40, '1');
    const struct {
        std::string input, reason;
    } cases[] = {
        {head + "$$LAYER/inf\n$$POLYLINE/1,1,2,1,2,3,4\n",
         "floating-point value is infinite or out of range"},
        {head + "$$LAYER/1\n$$POLYLINE/1,1,2,1,2,1e39,4\n",
         "floating-point value is infinite or out of range"},
        {infinite.bytes, "floating-point value is infinite or out of range"},
        {"$$HEADERSTART\n$$UNITS/1e39\n$$HEADEREND\n",
         "floating-point value is infinite or out of range"},
        {head + "$$LAYER/1\n$$POLYLINE/1,1,2,1,2," + digits + ",4\n", "illegal number"},
        {head + "$$LAYER/1\n$$POWER/" + digits + "\n", "illegal number"},
        {head + "$$LAYER/1\n$$POWER/100W\n", "illegal keyword"},
        {head + "$$LAYER/1\n$$POWER\n", "illegal keyword"},
        {std::string(70000, '\0') + head, "not a CLI file"},
        {comments + head, "not a CLI file"},
        {"x\n" + head, "illegal file format"},
    };
    for (const auto &k : cases) {
        RunResult r = run_laytran({"-O", "A"}, "", k.input);
        EXPECT_EQ(r.status, 255);
        EXPECT_EQ(r.err, "laytran: error reading input file (" + k.reason + ")\n");
    }
}

TEST(TranslateCli, SmallAndNegativeZeroHeightsAreWrittenAsTheyAre) {
    // Levels of 0.127 mm steps are a few 1e-8 miles: none is dropped or merged.
    std::string in = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n";
    for (const char *z : {"0.127", "0.254", "0.381"})
        in += std::string("$$LAYER/") + z + "\n$$POLYLINE/1,1,2,0,0,10,0\n";
    RunResult r = run_laytran({"-O", "A", "-U", "miles", "-V", "0"}, "", in);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("$$LAYER/7.89141E-08\n$$POLYLINE/1,1,2,0.,0.,6.21371E-06,0.\n"
                         "$$LAYER/1.57828E-07\n$$POLYLINE/1,1,2,0.,0.,6.21371E-06,0.\n"
                         "$$LAYER/2.36742E-07\n"),
              std::string::npos)
        << r.out;
    r = run_laytran({"-O", "A"}, "",
                    "$$HEADERSTART\n$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/-0\n"
                    "$$POLYLINE/1,1,2,-0,1,2,3\n$$GEOMETRYEND\n");
    EXPECT_NE(r.out.find("$$LAYER/0.\n$$POLYLINE/1,1,2,0.,100.,200.,300.\n"), std::string::npos)
        << r.out;
}
