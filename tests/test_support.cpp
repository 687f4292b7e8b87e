// Number parsing, memory wrappers, error texts, the time report, the
// progress window state, the abort check and the command-line splitter.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/command_line.h"
#include "app/progress.h"
#include "support/alarm.h"
#include "support/mm.h"
#include "support/parse.h"
#include "support/run_timer.h"

TEST(Parse, IntegersRealsAndCase) {
    int i = -5;
    EXPECT_EQ(parse_int("42", &i), 1);
    EXPECT_EQ(i, 42);
    EXPECT_EQ(parse_int("  42 and more", &i), 1);
    EXPECT_EQ(i, 42);
    EXPECT_EQ(parse_int("43x", &i), 0);
    EXPECT_EQ(i, 43);
    EXPECT_EQ(parse_int("", &i), 1);
    EXPECT_EQ(i, 0);
    i = 9;
    EXPECT_EQ(parse_int(nullptr, &i), 0);
    EXPECT_EQ(i, 9);
    double d = 1.0;
    EXPECT_EQ(parse_double("2.5e1", &d), 1);
    EXPECT_EQ(d, 25.0);
    EXPECT_EQ(parse_double("1.5mm", &d), 1);
    EXPECT_EQ(d, 1.5);
    EXPECT_EQ(parse_double("abc", &d), 0);
    EXPECT_EQ(d, 0.0);
    float f = 3.0f;
    EXPECT_EQ(parse_float("abc", &f), 0);
    EXPECT_EQ(f, 3.0f);
    EXPECT_EQ(parse_float("0.1", &f), 1);
    EXPECT_EQ(f, 0.1f);
    char word[] = "Inch-\xC4";
    EXPECT_STREQ(str_to_lower(word), "inch-\xC4");
}

TEST(Memory, BlocksAreZeroFilledAndKeepTheirContents) {
    EXPECT_EQ(mm_malloc(0), nullptr);
    auto *block = static_cast<unsigned char *>(mm_malloc(10));
    ASSERT_NE(block, nullptr);
    for (int k = 0; k < 10; k++) {
        EXPECT_EQ(block[k], 0);
        block[k] = static_cast<unsigned char>(k + 1);
    }
    block = static_cast<unsigned char *>(mm_realloc(block, 10, 30));
    ASSERT_NE(block, nullptr);
    for (int k = 0; k < 30; k++)
        EXPECT_EQ(block[k], k < 10 ? k + 1 : 0) << k;
    block = static_cast<unsigned char *>(mm_realloc(block, 30, 5));
    for (int k = 0; k < 5; k++)
        EXPECT_EQ(block[k], k + 1);
    EXPECT_EQ(mm_realloc(block, 5, 0), nullptr);
    mm_free(nullptr, 0, 0);

    // A fresh block is zero whatever old size the caller passes.
    void *used = malloc(64);
    memset(used, 0xAB, 64);
    free(used);
    block = static_cast<unsigned char *>(mm_realloc(nullptr, 100, 64));
    ASSERT_NE(block, nullptr);
    for (int k = 0; k < 64; k++)
        EXPECT_EQ(block[k], 0) << k;
    mm_free(block, 64, 0);
}

TEST(Memory, SystemErrorTexts) {
    EXPECT_STREQ(sys_error_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(sys_error_text(1000), "unknown error code d=1000, x=3e8");
    EXPECT_STREQ(sys_error_text(-1), "unknown error code d=-1, x=ffffffff");
}

namespace {

std::string time_report(float seconds) {
    RunTimer timer = {};
    timer.elapsed = seconds;
    FILE *stream = tmpfile();
    run_time_report(&timer, stream, "lt", "total");
    std::string text(static_cast<size_t>(ftell(stream)), '\0');
    rewind(stream);
    EXPECT_EQ(fread(&text[0], 1, text.size(), stream), text.size());
    fclose(stream);
    return text;
}

} // namespace

TEST(RunTimer, ReportWording) {
    const std::string lead = "lt(info): total time was ";
    EXPECT_EQ(time_report(0.05f), lead + "insignificant\n");
    EXPECT_EQ(time_report(12.34f), lead + "12.4 seconds\n");
    // 120 + 0.05 is just below 120.05 in binary; 120 s is not above two minutes.
    EXPECT_EQ(time_report(120.0f), lead + "120.0 seconds\n");
    EXPECT_EQ(time_report(150.0f), lead + "150.1 seconds\nlt(info): (more than 2 minutes)\n");
    EXPECT_EQ(time_report(3600.0f), lead + "3600.1 seconds\nlt(info): (more than 60 minutes)\n");
    EXPECT_EQ(time_report(3630.0f), lead + "1 hour(s) and 30.1 second(s)\n");
    EXPECT_EQ(time_report(3727.25f), lead + "1 hour(s), 2 minute(s) and 7.3 second(s)\n");
    EXPECT_EQ(time_report(3725.0f), lead + "1 hour(s), 2 minute(s) and 5.0 second(s)\n");
    EXPECT_EQ(time_report(7260.0f), lead + "2 hour(s), 1 minute(s) and 0.1 second(s)\n");

    RunTimer timer = {};
    run_timer_start(&timer, nullptr);
    EXPECT_EQ(timer.started, 1);
    timer.start -= 2.0f; // as if started two seconds ago
    run_timer_stop(&timer, nullptr);
    run_timer_stop(&timer, nullptr);
    EXPECT_GE(timer.elapsed, 4.0f);
    EXPECT_LT(timer.elapsed, 5.0f);
}

TEST(Alarm, SettingAbortCheckAndPercentReport) {
    progress_create();
    alarm_reset();
    unsetenv("QZ_ALARM");
    alarm_init("lt");
    EXPECT_EQ(alarm_setting, 0);
    EXPECT_EQ(progress_report(40), 1);
    progress_set_percent(10);
    EXPECT_EQ(progress_report(40), 1);
    EXPECT_STREQ(progress_window.percent_text, "10 %");
    progress_on_stop();
    testing::internal::CaptureStderr();
    EXPECT_EQ(user_abort_check(), 0);
    EXPECT_EQ(user_abort_check(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "lt: program aborted by the user\n");

    for (const char *value : {"30", "abc"}) {
        alarm_reset();
        setenv("QZ_ALARM", value, 1);
        alarm_init("lt");
        EXPECT_EQ(alarm_setting, value[0] == '3' ? 30 : 0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(user_abort_check(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
    unsetenv("QZ_ALARM");
    alarm_reset();
    progress_create();
}

namespace {

std::string split(const char *text) {
    int argc = -1;
    char **argv = nullptr;
    EXPECT_EQ(split_command_line(text, &argc, &argv), 1);
    std::string joined;
    for (int k = 0; k < argc; k++)
        joined += std::string(argv[k]) + "|";
    EXPECT_EQ(argv[argc], nullptr);
    free_command_line(argc, argv);
    return joined;
}

} // namespace

TEST(CommandLine, WordsAndQuotes) {
    EXPECT_EQ(split(""), "laytran|");
    EXPECT_EQ(split("-f \"my file.cli\"  -o out.slc "), "laytran|-f|my file.cli|-o|out.slc|");
    EXPECT_EQ(split("\"ab\"cd ab\"c d\" \"\" \" \""), "laytran|ab|cd|abc d| |");
    EXPECT_EQ(split("tab\there \"open quote"), "laytran|tab\there|open quote|");
    std::string long_word(300, 'w');
    EXPECT_EQ(split(("-f " + long_word).c_str()), "laytran|-f|" + long_word + "|");
}
