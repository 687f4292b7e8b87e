// End-to-end runs of the executable from CLI input to CLI output.
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

TEST(TranslateCli, StandardInputToStandardOutput) {
    RunResult r = run_laytran({}, "", SMALL_MM);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.substr(0, ascii_header("0.01", 2).size()), ascii_header("0.01", 2));
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

TEST(TranslateCli, UnconvertibleNumberEndsTheInputWithAWarning) {
    TempDir dir;
    write_file(dir.file("bad.cli"),
               "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$HEADEREND\n"
               "$$GEOMETRYSTART\n$$LAYER/1\n$$POLYLINE/1,1,2,0,0,1,1\n"
               "$$LAYER/2\n$$POLYLINE/1,1,2,0,0,abc,1\n$$GEOMETRYEND\n");
    RunResult r = run_laytran({"-f", "bad.cli", "-o", "out.cli", "-O", "A"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(WARNING): input ends early: data after layer 1 could not be read\n");
    EXPECT_EQ(read_file(dir.file("out.cli")),
              ascii_header("0.01", 1) + "$$LAYER/100.\n$$POLYLINE/1,1,2,0.,0.,100.,100.\n" +
                  "$$GEOMETRYEND");
}

TEST(TranslateCli, BundledSampleConverts) {
    RunResult r = run_laytran({"-f", source_path("samples/plate.cli"), "-O", "A"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("$$LAYERS/4\n"), std::string::npos);
    EXPECT_NE(r.out.find("$$LAYER/40.\n$$POLYLINE/1,1,5,0.,0.,2000.,0.,2000.,1200.,"),
              std::string::npos);
}
