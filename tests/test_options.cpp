// Option scanner, unit words, file extensions and output-format letters.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "job/job.h"
#include "support/opt.h"

namespace {

struct Scan {
    std::vector<std::string> words;
    std::vector<char *> argv;
    explicit Scan(std::vector<std::string> w) : words(std::move(w)) {
        for (std::string &s : words)
            argv.push_back(&s[0]);
        argv.push_back(nullptr);
        opt_reset();
    }
    // The letters returned, with each letter's argument in brackets.
    std::string all(const char *letters = "f:o:HP") {
        std::string seen;
        int c;
        while ((c = opt_next(static_cast<int>(words.size()), argv.data(), letters)) != -1) {
            seen += static_cast<char>(c);
            if (c != '?' && opt_arg) seen += std::string("[") + opt_arg + "]";
        }
        return seen;
    }
};

} // namespace

TEST(OptionScanner, ClustersArgumentsAndEnds) {
    Scan none({"lt"});
    EXPECT_EQ(none.all(), "");
    EXPECT_EQ(opt_index, 1);
    Scan cluster({"lt", "-Pfname", "-o", "out", "-PH", "file"});
    EXPECT_EQ(cluster.all(), "Pf[name]o[out]PH");
    EXPECT_EQ(opt_index, 5);
    Scan separate({"lt", "-Pf", "x", "-o", "-P"});
    EXPECT_EQ(separate.all(), "Pf[x]o[-P]");
    EXPECT_EQ(opt_index, 5);
    Scan dashes({"lt", "-P", "--x", "-P"});
    EXPECT_EQ(dashes.all(), "P");
    EXPECT_EQ(opt_index, 3);
    Scan lone({"lt", "-", "-P"});
    EXPECT_EQ(lone.all(), "");
    EXPECT_EQ(opt_index, 1);
}

TEST(OptionScanner, ErrorsAreReportedAndScanningGoesOn) {
    testing::internal::CaptureStderr();
    Scan illegal({"./lt", "-Px", "-:", "-P", "-o"});
    EXPECT_EQ(illegal.all("o:P"), "P??P?");
    EXPECT_EQ(opt_index, 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "./lt: illegal option -- x\n./lt: illegal option -- :\n"
              "./lt: option requires an argument -- o\n");
}

TEST(JobOptions, UnitWordsMatchTheFirstWordTheyBegin) {
    struct Case {
        const char *word;
        double factor;
    } cases[] = {{"inch", 25.4},     {"Inches", 25.4}, {"M", 1.0},        {"mi", 1609344.0},
                 {"mic", 0.001},     {"mils", 0.0254}, {"km", 1e6},       {"CM", 10.0},
                 {"minch", 2.54e-5}, {"feet", 304.8},  {"meters", 1000.0}};
    for (const Case &c : cases) {
        double factor = 0.0;
        EXPECT_EQ(unit_word_factor(c.word, &factor), 1) << c.word;
        EXPECT_DOUBLE_EQ(factor, c.factor) << c.word;
    }
    double factor = 7.0;
    EXPECT_EQ(unit_word_factor("xyz", &factor), 0);
    EXPECT_EQ(unit_word_factor("inchesx", &factor), 0);
    EXPECT_EQ(factor, 7.0);
}

TEST(JobFiles, ExtensionsAndDefaultExtensions) {
    EXPECT_EQ(file_extension("dir.old/part"), nullptr);
    EXPECT_STREQ(file_extension("dir.old\\part"), ".old\\part");
    EXPECT_STREQ(file_extension("a.b/part.cli"), ".cli");
    EXPECT_EQ(file_extension("."), nullptr);
    EXPECT_EQ(file_extension(""), nullptr);
    EXPECT_EQ(file_extension(nullptr), nullptr);

    // No length limit of its own: the system decides what is too long.
    for (const std::string &name :
         {std::string("part"), std::string("part.slc"), std::string(5000, 'a')}) {
        char *with = job_name_with_extension(name.c_str(), ".cli");
        EXPECT_EQ(with, file_extension(name.c_str()) ? name : name + ".cli");
        job_free_path(&with);
    }
}

TEST(JobOptions, OutputLettersAccumulateInOrder) {
    auto flags = [](const char *letters, int expect_result = 1) {
        JobSettings s = {};
        EXPECT_EQ(parse_output_format(&s, letters), expect_result) << letters;
        return (s.flags[1] << 8) | s.flags[0];
    };
    const int binary = JOB_OUT_CLI_BINARY, aligned = JOB_OUT_CLI_ALIGNED;
    const int shortform = JOB_OUT_CLI_SHORT << 8;
    EXPECT_EQ(flags("as"), binary | aligned | shortform);
    EXPECT_EQ(flags("sa"), binary | aligned | shortform);
    EXPECT_EQ(flags("Ab"), binary);
    EXPECT_EQ(flags("bA"), JOB_OUT_CLI_ASCII);
    EXPECT_EQ(flags("aS"), JOB_OUT_SLC << 8);
    EXPECT_EQ(flags("Sb"), binary);
    EXPECT_EQ(flags("sF"), JOB_OUT_FDM << 8);
    testing::internal::CaptureStderr();
    EXPECT_EQ(flags("bx", 0), binary);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "laytran: error in argument \"x\" in option -O.\n");
}
