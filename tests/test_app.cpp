// End-to-end runs of the real executable: option messages, help text,
// verbosity, output units, file naming and the closing message box.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "test_util.h"

namespace {

const char HELP[] = "  ----------------------------------------------------------------------\n"
                    "  Short Description of Available Options (in alphabetical order):\n"
                    "\n"
                    "  option  arg.type        description                      default\n"
                    "  ------  --------    -------------------             -----------------\n"
                    "    f     path        the input file name             stdin\n"
                    "    o     path        the output file name            stdout\n"
                    "    F     string      the format of the input file    C\n"
                    "                      one of {C,F,S}\n"
                    "    H                 this message                    Off\n"
                    "    O     string      the format of the output file   A\n"
                    "                      a valid combination of {A,a,b,s}\n"
                    "                      or {S}\n"
                    "    P      -          move model to positive quadrant\n"
                    "    R     flag        reverse the dir.of contours     Depends on type\n"
                    "                                                      of conversion\n"
                    "    U     real        units for the output file (CLI only)\n"
                    "    V     int         the verbosity level\n"
                    "  ----------------------------------------------------------------------\n";

const char ID_LINES[] = "laytran(info): id = LAYTRAN 3.0a\n"
                        "laytran(info): apparently running from /opt/bin/lt\n";
const char SET_P[] = "laytran(info): setting -P (output format requires positive numbers)\n";
const char ASSUMED_BINARY[] = "laytran(info): output file format assumed to be binary CLI\n";

std::string arg_error(const std::string &arg, char letter) {
    return "laytran: error in argument \"" + arg + "\" in option -" + letter + ".\n";
}

std::string units_error(const std::string &value) {
    return "laytran: output file format does not allow such units, " + value + " MM.\n";
}

// A two-layer millimetre model at the FDM layer spacing, so that every
// output format takes it without a warning.
const char MODEL_CLI[] = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n"
                         "$$LAYER/0.127\n$$POLYLINE/1,1,3,0,0,1,0,1,1\n"
                         "$$LAYER/0.254\n$$POLYLINE/1,1,3,0,0,1,0,1,1\n$$GEOMETRYEND\n";

// An SLC file with an empty header and one layer holding one boundary
// without vertices.
std::string empty_slc() {
    return std::string("\x1a") + std::string(256, '\0') + std::string(5, '\0') +
           std::string("\x01\0\0\0", 4) + std::string(12, '\0') + std::string(4, '\xff');
}

// Runs in dir and expects exit status 0 and exactly err on the error stream.
void expect_run(const std::vector<std::string> &args, const std::string &err,
                const std::string &dir = "", const std::string &input = MODEL_CLI) {
    RunResult r = run_laytran(args, dir, input);
    EXPECT_EQ(r.status, 0) << args[0];
    EXPECT_EQ(r.err, err) << args[0] << " " << (args.size() > 1 ? args[1] : "");
}

} // namespace

TEST(App, OptionErrorsPrintOnlyTheirMessageAndExitWithZero) {
    TempDir d;
    expect_run({"-V", "x", "-H"}, arg_error("x", 'V'));
    expect_run({"-V", "-1", "-W", "n"}, "laytran: argument used with -V must be positive.\n");
    expect_run({"-V", "2x"}, arg_error("2x", 'V'));
    expect_run({"-R", "1.5"}, arg_error("1.5", 'R'));
    expect_run({"-O", "bx"}, arg_error("x", 'O'));
    expect_run({"-F", "CXS"}, arg_error("XS", 'F'));
    expect_run({"-W", "nZ"}, arg_error("nZ", 'W'));
    for (const char *units : {"0", "-1", "xyz", "nan", "inf"}) {
        expect_run({"-U", units, "-W", "n"}, arg_error(units, 'U'));
    }
    // A missing argument is reported by the scanner and the run goes on.
    expect_run({"-o"}, "laytran: option requires an argument -- o\n");
    // The unit check refuses the job after the output is opened: neither a
    // new nor an existing output file is touched.
    expect_run({"-o", "new", "-U", "2", "-O", "S"}, units_error("2"), d.path());
    EXPECT_FALSE(file_exists(d.file("new.slc")));
    write_file(d.file("out.slc"), "old");
    expect_run({"-o", "out", "-U", "2", "-O", "S"},
               "laytran(info): output file out.slc already exists\n" + units_error("2"), d.path());
    EXPECT_EQ(read_file(d.file("out.slc")), "old");
}

TEST(App, HelpTextEndsTheProcessWithZero) {
    RunResult r = run_laytran({"-H", "-V", "x"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, HELP);
    r = run_laytran({"-x", "-H"}, "", "", "./lt");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, std::string("./lt: illegal option -- x\n") + HELP);
}

TEST(App, VerbosityLevels) {
    RunResult r = run_laytran({"-V", "1"}, "", MODEL_CLI, "/opt/bin/lt");
    EXPECT_EQ(r.err, std::string(ID_LINES) + "laytran(info): total time was insignificant\n");
    r = run_laytran({"-V", "2 x"}, "", MODEL_CLI, "/opt/bin/lt");
    EXPECT_EQ(r.err, ID_LINES);
    // The gap report follows SLC input at verbosity 1 to 6 only.
    const std::string no_gaps = "laytran(info): input file contains no gaps\n";
    expect_run({"-F", "S"}, no_gaps, "", empty_slc());
    expect_run({"-F", "S", "-V", "6"}, no_gaps, "", empty_slc());
    expect_run({"-F", "S", "-V", "7"}, "", "", empty_slc());
    expect_run({"-F", "S", "-V", "0"}, "", "", empty_slc());
    expect_run({"-F", "SC"}, "");
}

TEST(App, OutputUnitsAndUnitWords) {
    TempDir d;
    expect_run({"-U", "2.5cm", "-O", "S"}, units_error("2.5"));
    expect_run({"-U", "cm", "-O", "S"}, units_error("10"));
    expect_run({"-U", "1", "-O", "F"}, units_error("1"));
    expect_run({"-U", "1", "-o", "r.ssl"}, units_error("1"), d.path());
    expect_run({"-U", "Inches", "-O", "F"}, "");
    expect_run({"-U", "inch", "-o", "s.ssl"}, "", d.path());
    expect_run({"-U", "1", "-O", "S"}, "");
    expect_run({"-U", "25.4", "-O", "S"}, "");
    expect_run({"-U", "0.001"}, "laytran(WARNING): units different from 0.01(MM) may cause the "
                                "conversion\nlaytran(WARNING):   to SLI to fail.\n");
}

TEST(App, OutputLettersThatForcePositiveCoordinates) {
    for (const char *letters : {"a", "s", "as", "Ab s"})
        expect_run({"-O", letters}, SET_P);
    for (const char *letters : {"Ab", "aS", "sF", "sA", "b"})
        expect_run({"-O", letters}, "");
    expect_run({"-O", "s", "-P", "-V", "0"}, SET_P);
}

TEST(App, FileNamesAndDefaultExtensions) {
    TempDir d;
    const std::string dir = d.path();
    const std::string no_file = "laytran: (No such file or directory)\n";
    write_file(d.file("part.cli"), MODEL_CLI);
    write_file(d.file("part.SLC"), MODEL_CLI);
    write_file(d.file("p.slc"), empty_slc());
    expect_run({"-f", "part"}, "laytran(info): input file format assumed to be CLI\n", dir);
    expect_run({"-f", "part.SLC"}, "laytran(info): input file format assumed to be CLI\n", dir);
    expect_run({"-f", "p.slc"}, "laytran(info): input file contains no gaps\n", dir);
    expect_run({"-f", "none", "-V", "0"},
               "laytran: unable to access (mode:rb) neither \"none\" nor \"<ditto>.cli\"\n" +
                   no_file,
               dir);
    expect_run({"-F", "F", "-f", "none"},
               "laytran: unable to access (mode:rb) neither \"none\" nor \"<ditto>.ssl\"\n" +
                   no_file,
               dir);

    expect_run({"-o", "result"}, ASSUMED_BINARY, dir);
    EXPECT_TRUE(file_exists(d.file("result.cli")));
    write_file(d.file("result.cli"), "old");
    expect_run({"-o", "result.cli"},
               std::string(ASSUMED_BINARY) +
                   "laytran(info): output file result.cli already exists\n",
               dir);
    EXPECT_NE(read_file(d.file("result.cli")), "old");
    expect_run({"-o", "result.ssl"}, "", dir);
    EXPECT_TRUE(file_exists(d.file("result.ssl")));
    ASSERT_EQ(mkdir(d.file("dir.old").c_str(), 0755), 0);
    expect_run({"-o", "dir.old/part", "-O", "S"}, "", dir);
    EXPECT_TRUE(file_exists(d.file("dir.old/part.slc")));
    expect_run({"-o", "missing/x", "-O", "A"},
               "laytran: unable to access (mode:wb) \"missing/x\"\n" + no_file, dir);
    // No length limit but the system's.
    const std::string long_name = "dir.old/" + std::string(250, 'a');
    expect_run({"-o", long_name, "-O", "A"}, "", dir);
    EXPECT_TRUE(file_exists(d.file(long_name + ".cli")));
    const std::string too_long(300, 'a');
    expect_run({"-o", too_long, "-O", "A"},
               "laytran: unable to access (mode:wb) \"" + too_long +
                   "\"\nlaytran: (File name too long)\n",
               dir);
}

TEST(App, ClosingMessageBoxOnlyWhenAskedFor) {
    const std::string box = "Slice file conversion completed. Please check the log file\n";
    expect_run({"-W", "n"}, box);
    expect_run({"-W", "nN"}, "");
    expect_run({"-W", "n C"}, box);
    RunResult r = run_laytran({"-W", "n", "-V", "1", "-F", "S"}, "", empty_slc(), "/opt/bin/lt");
    EXPECT_EQ(r.err, std::string(ID_LINES) + "laytran(info): input file contains no gaps\n" +
                         "laytran(info): total time was insignificant\n" + box);
    // A failed run says so, after its error.
    r = run_laytran({"-W", "n", "-F", "C"}, "", "$$GEOMETRYEND");
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "laytran: error reading input file (illegal file format)\n"
                     "Slice file conversion failed. Please check the log file\n");
}
