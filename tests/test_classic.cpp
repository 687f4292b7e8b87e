// The classic program's pieces: the option scanner, option letters and unit
// words, file names, the time report, the alarm and the command-line
// splitter; and the order of the messages before a refusal.
#include <gtest/gtest.h>

#include "app/classic/files.h"
#include "app/classic/options.h"
#include "app/classic/run.h"
#include "app/classic/scanner.h"
#include "app/classic/session.h"
#include "test_util.h"

using namespace laytran;
using namespace laytran::classic;

namespace {

// The letters returned, each letter's argument in brackets, and the index
// where scanning ended.
std::string scan(std::vector<std::string> words, const char *letters = "f:o:HP") {
    std::vector<char *> argv;
    for (std::string &s : words)
        argv.push_back(&s[0]);
    OptionScanner scanner(static_cast<int>(argv.size()), argv.data(), letters);
    std::string seen;
    for (int c; (c = scanner.next()) != -1;) {
        seen += static_cast<char>(c);
        if (c != '?' && scanner.argument()) seen += std::string("[") + scanner.argument() + "]";
    }
    return seen + std::to_string(scanner.index());
}

} // namespace

TEST(ClassicOptions, ScannerClustersArgumentsAndEnds) {
    EXPECT_EQ(scan({"lt"}), "1");
    EXPECT_EQ(scan({"lt", "-Pfname", "-o", "out", "-PH", "file"}), "Pf[name]o[out]PH5");
    EXPECT_EQ(scan({"lt", "-Pf", "x", "-o", "-P"}), "Pf[x]o[-P]5");
    EXPECT_EQ(scan({"lt", "-P", "--x", "-P"}), "P3");
    EXPECT_EQ(scan({"lt", "-", "-P"}), "1");
    testing::internal::CaptureStderr();
    EXPECT_EQ(scan({"./lt", "-Px", "-:", "-P", "-o"}, "o:P"), "P??P?5");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "./lt: illegal option -- x\n./lt: illegal option -- :\n"
              "./lt: option requires an argument -- o\n");
}

TEST(ClassicOptions, LettersAccumulateAndUnitWordsMatchTheFirstTheyBegin) {
    auto form = [](const char *letters) {
        ClassicOptions o;
        EXPECT_TRUE(parse_output_letters(o, letters)) << letters;
        return output_form(o);
    };
    EXPECT_EQ(form("as"), OutputForm::cli_aligned_short);
    EXPECT_EQ(form("sa"), OutputForm::cli_aligned_short);
    EXPECT_EQ(form("sb"), OutputForm::cli_short);
    EXPECT_EQ(form("Ab"), OutputForm::cli_binary);
    EXPECT_EQ(form("bA"), OutputForm::cli_ascii);
    EXPECT_EQ(form("aS"), OutputForm::slc);
    EXPECT_EQ(form("sF b"), OutputForm::cli_binary);
    EXPECT_EQ(form(" "), OutputForm::fdm); // chosen by no letter
    ClassicOptions o;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse_output_letters(o, "ax"));
    EXPECT_FALSE(parse_input_letters(o, "SXC"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "laytran: error in argument \"x\" in option -O.\n"
              "laytran: error in argument \"XC\" in option -F.\n");
    EXPECT_EQ(output_form(o), OutputForm::cli_aligned);
    EXPECT_EQ(input_format(o), InputFormat::slc);

    const std::pair<const char *, double> words[] = {
        {"inch", 25.4}, {"Inches", 25.4}, {"M", 1.0},         {"mi", 1609344.0},
        {"mic", 0.001}, {"CM", 10.0},     {"minch", 2.54e-5}, {"", 25.4}};
    for (const auto &w : words)
        EXPECT_EQ(unit_word_factor(w.first), w.second) << w.first;
    EXPECT_FALSE(unit_word_factor("xyz"));
    EXPECT_FALSE(unit_word_factor("inchesx"));
}

TEST(ClassicFiles, Extensions) {
    EXPECT_EQ(extension_at("dir.old/part"), std::string::npos);
    EXPECT_EQ(extension_at("dir.old\\part"), 3u);
    EXPECT_EQ(extension_at("a.b/part.cli"), 8u);
    EXPECT_EQ(extension_at("."), std::string::npos);
    EXPECT_EQ(extension_at(""), std::string::npos);
    EXPECT_EQ(with_extension("part", ".cli"), "part.cli");
    EXPECT_EQ(with_extension("part.slc", ".cli"), "part.slc");
}

TEST(ClassicSession, TimeReportAlarmAndCommandLine) {
    const std::string lead = "lt(info): total time was ";
    EXPECT_EQ(time_report(0.05f, "lt", "total"), lead + "insignificant\n");
    EXPECT_EQ(time_report(12.34f, "lt", "total"), lead + "12.4 seconds\n");
    // 120 + 0.05 is just below 120.05 in binary; 120 s is not above two minutes.
    EXPECT_EQ(time_report(120.0f, "lt", "total"), lead + "120.0 seconds\n");
    EXPECT_EQ(time_report(150.0f, "lt", "total"),
              lead + "150.1 seconds\nlt(info): (more than 2 minutes)\n");
    EXPECT_EQ(time_report(3630.0f, "lt", "total"), lead + "1 hour(s) and 30.1 second(s)\n");
    EXPECT_EQ(time_report(3725.0f, "lt", "total"),
              lead + "1 hour(s), 2 minute(s) and 5.0 second(s)\n");
    RunTimer timer;
    timer.start();
    timer.stop();
    timer.stop(); // a second stop adds the whole time again
    EXPECT_GE(timer.elapsed, 0.0f);
    EXPECT_LT(timer.elapsed, 1.0f);

    ProgressWindow window;
    Alarm alarm(window);
    unsetenv("QZ_ALARM");
    alarm.init("lt");
    EXPECT_TRUE(alarm.progress_report(40));
    EXPECT_EQ(window.percent_text, "40 %");
    window.on_stop();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(alarm.abort_check());
    EXPECT_FALSE(alarm.abort_check());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "lt: program aborted by the user\n");
    for (const char *value : {"30", "abc"}) {
        setenv("QZ_ALARM", value, 1);
        Alarm kept(window);
        kept.init("lt");
        EXPECT_EQ(kept.setting(), value[0] == '3' ? 30 : 0);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(kept.abort_check());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // no name kept
    }
    unsetenv("QZ_ALARM");

    auto split = [](const char *text) {
        std::string joined;
        for (const std::string &w : split_command_line(text))
            joined += w + "|";
        return joined;
    };
    EXPECT_EQ(split(""), "laytran|");
    EXPECT_EQ(split("-f \"my file.cli\"  -o out.slc "), "laytran|-f|my file.cli|-o|out.slc|");
    EXPECT_EQ(split("\"ab\"cd ab\"c d\" \"\" \" \""), "laytran|ab|cd|abc d| |");
}

// What the end-to-end tests of the program leave out: the id lines come
// before the unit refusal, and the assumed input format before the error of
// an input that cannot be opened.
TEST(ClassicProgram, MessagesBeforeARefusal) {
    TempDir d;
    RunResult r =
        run_laytran({"-V", "2", "-o", "new", "-U", "2", "-O", "S"}, d.path(), "", "/opt/lt");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): id = LAYTRAN 3.0a\nlaytran(info): apparently running from "
                     "/opt/lt\nlaytran: output file format does not allow such units, 2 MM.\n");
    EXPECT_FALSE(file_exists(d.file("new.slc")));
    r = run_laytran({"-f", "none"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): input file format assumed to be CLI\n"
                     "laytran: unable to access (mode:rb) neither \"none\" nor \"<ditto>.cli\"\n"
                     "laytran: (No such file or directory)\n");
}
