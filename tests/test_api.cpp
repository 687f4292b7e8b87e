// The public API: paths written through a temporary file, the input refused
// as output; reading, writing and translating in memory and on paths;
// eight translations at once on eight threads.
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "laytran/laytran.h"
#include "support/atomic_output.h"
#include "support/system_error.h"
#include "test_util.h"

using namespace laytran;

namespace {

std::string listing(const std::string &dir) {
    std::string all;
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    while (dirent *e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] != '.' || (e->d_name[1] && e->d_name[1] != '.'))
            names.push_back(e->d_name);
    }
    if (d) closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names)
        all += n + " ";
    return all;
}

// Collects the messages, one line each.
struct Log {
    std::string text;
    DiagnosticSink sink() {
        return [this](const Diagnostic &d) { text += d.text + "\n"; };
    }
};

struct Recorder : AtomicOutput::Watch {
    std::string calls;
    void live(int, const char *name) override { calls += std::string("live ") + name + ";"; }
    void ending() override { calls += "ending;"; }
    void gone() override { calls += "gone;"; }
};

} // namespace

TEST(AtomicOutput, ReplacesOnlyWhenKeptAndKeepsModeAndLinks) {
    TempDir d;
    const std::string target = d.file("out.cli");
    write_file(target, "old");
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    ASSERT_EQ(symlink("out.cli", d.file("link").c_str()), 0);
    for (bool keep : {false, true}) {
        Recorder watch;
        AtomicOutput out(&watch);
        struct stat st;
        ASSERT_EQ(stat(target.c_str(), &st), 0);
        ASSERT_TRUE(out.open(d.file("link"), &st));
        EXPECT_TRUE(out.temporary());
        EXPECT_EQ(fputs("new", out.stream()), 1);
        EXPECT_EQ(read_file(target), "old");
        EXPECT_TRUE(out.close(keep));
        EXPECT_EQ(read_file(target), keep ? "new" : "old");
        EXPECT_EQ(listing(d.path()), "link out.cli ");
        EXPECT_EQ(watch.calls.substr(0, 14), "live .laytran-");
        EXPECT_EQ(watch.calls.substr(20), ";ending;gone;");
    }
    struct stat st;
    ASSERT_EQ(lstat(d.file("link").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    AtomicOutput missing;
    EXPECT_FALSE(missing.open(d.file("no/such"), nullptr));
    EXPECT_EQ(errno, ENOENT);
}

TEST(Api, InputAsOutputIsRefusedAndAFailedCallKeepsThePreviousFile) {
    TempDir d;
    write_file(d.file("in.cli"), "$$HEADERSTART\n");
    write_file(d.file("out.cli"), "old");
    ASSERT_EQ(link(d.file("in.cli").c_str(), d.file("hard.cli").c_str()), 0);
    Log log;
    for (const char *name : {"in.cli", "hard.cli"}) {
        log.text.clear();
        EXPECT_FALSE(translate(d.file("in.cli"), d.file(name), {}, log.sink()).ok);
        EXPECT_EQ(log.text, "the output file is the input file (" + d.file(name) + ")\n");
    }
    EXPECT_EQ(read_file(d.file("in.cli")), "$$HEADERSTART\n");
    // A call that fails leaves the target and nothing else.
    EXPECT_FALSE(translate(d.file("in.cli"), d.file("out.cli"), {}, log.sink()).ok);
    Model negative;
    negative.layers.push_back(Layer{1.0f, 0.0f, {Contour{}}});
    negative.layers[0].contours[0].points = {{-1, 0}, {1, 1}};
    WriteOptions short_form;
    short_form.form = OutputForm::cli_short;
    EXPECT_FALSE(write_model(negative, d.file("out.cli"), short_form, log.sink()));
    EXPECT_EQ(read_file(d.file("out.cli")), "old");
    EXPECT_EQ(listing(d.path()), "hard.cli in.cli out.cli ");
    log.text.clear();
    Model model;
    EXPECT_FALSE(read_model(d.file("none.cli"), {}, model, log.sink()));
    EXPECT_EQ(log.text, "error reading input file (open error: No such file or directory)\n");
    // A number the system has no text for still names itself.
    EXPECT_EQ(system_error_text(1000), "unknown error code d=1000, x=3e8");
    EXPECT_EQ(system_error_text(-1), "unknown error code d=-1, x=ffffffff");
    EXPECT_STREQ(version(), LAYTRAN_VERSION_STRING);
    EXPECT_STREQ(version(), "3.0a");
}

// A file written to while it is read (by a slicer still writing it, say)
// fails the run and leaves the previous output, whether its model is kept or
// it is read twice, even when the change keeps every count.
TEST(Api, AnInputChangedWhileItIsReadFailsTheRun) {
    TempDir d;
    const std::string text = read_file(source_path("samples/plate.cli"));
    const std::string in = d.file("in.cli"), out = d.file("out.cli");
    // The last layer's outline 30 mm wide instead of 20: same size, same counts.
    const std::size_t at = text.rfind("$$POLYLINE/1,1,5,0,0,2") + 21;
    for (std::uint64_t budget : {std::uint64_t(0), std::uint64_t(1)}) {
        SCOPED_TRACE(budget ? "read twice" : "kept");
        write_file(in, text);
        // An hour old, so that any write moves its modification time.
        const struct timespec old[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, in.c_str(), old, 0), 0);
        write_file(out, "previous");
        TranslateOptions t;
        t.output = OutputForm::cli_ascii;
        t.memory_budget = budget;
        bool written = false;
        t.progress = [&](std::uint64_t, std::uint64_t, std::uint64_t) {
            if (written) return;
            written = true;
            const int fd = open(in.c_str(), O_WRONLY);
            EXPECT_EQ(pwrite(fd, "3", 1, static_cast<off_t>(at)), 1);
            close(fd);
        };
        Log log;
        EXPECT_FALSE(translate(in, out, t, log.sink()).ok);
        EXPECT_TRUE(written);
        EXPECT_NE(log.text.find("the input file changed while it was read"), std::string::npos)
            << log.text;
        EXPECT_EQ(read_file(out), "previous");
    }
}

TEST(Api, ReadWriteAndTranslateInMemoryAndOnPaths) {
    TempDir d;
    const std::string text = read_file(source_path("samples/plate.cli"));
    Log log;
    Model model;
    ASSERT_TRUE(read_model(text.data(), text.size(), {}, model, log.sink())) << log.text;
    EXPECT_EQ(model.layers.size(), 4u);
    Counts n = count(model);
    EXPECT_EQ(n.part_contours, 8u);
    EXPECT_EQ(n.hatch_blocks, 4u);
    Bounds b = bounds_mm(model);
    EXPECT_EQ(b.xmax, 20.0);
    EXPECT_EQ(b.zmax, static_cast<double>(0.4f));

    // Written as SLC and read back: the part contours, in millimetres.
    WriteOptions slc;
    slc.form = OutputForm::slc;
    ASSERT_TRUE(write_model(model, d.file("plate.slc"), slc, log.sink())) << log.text;
    Model back;
    ReadOptions as_slc;
    as_slc.format = InputFormat::slc;
    ASSERT_TRUE(read_model(d.file("plate.slc"), as_slc, back, log.sink())) << log.text;
    EXPECT_EQ(back.layers.size(), 4u);
    EXPECT_EQ(count(back).part_contours, 8u);
    EXPECT_EQ(bounds_mm(back).xmax, 20.0);

    // One call on paths gives what reading and writing give.
    TranslateOptions t;
    t.output = OutputForm::cli_binary;
    TranslateResult r = translate(source_path("samples/plate.cli"), d.file("a.cli"), t, log.sink());
    EXPECT_TRUE(r.ok) << log.text;
    WriteOptions binary;
    ASSERT_TRUE(write_model(model, d.file("b.cli"), binary, log.sink()));
    EXPECT_EQ(read_file(d.file("a.cli")), read_file(d.file("b.cli")));
}

TEST(Api, ModelReadAndWrittenBackEqualsTheProgramsOutput) {
    ReadOptions read;
    read.keep_empty_layers = false;
    Model model;
    ASSERT_TRUE(read_model(source_path("samples/plate.cli"), read, model));
    WriteOptions write;
    write.form = OutputForm::cli_ascii;
    write.cli_header = CliHeaderStyle::classic;
    std::FILE *f = tmpfile();
    ASSERT_TRUE(write_model(model, f, write));
    std::string bytes(static_cast<std::size_t>(ftell(f)), '\0');
    rewind(f);
    ASSERT_EQ(fread(&bytes[0], 1, bytes.size(), f), bytes.size());
    fclose(f);
    EXPECT_EQ(bytes, run_laytran({"-f", source_path("samples/plate.cli"), "-O", "A"}).out);
}

// Eight translations on eight threads at once, each in another pairing of
// formats: every output and every message as in a run on its own. The
// outputs of the first four runs alone are the inputs of the last four.
// Together, half of them read their input twice (a budget of one byte).
TEST(Concurrency, EightTranslationsOnEightThreads) {
    TempDir d;
    struct Job {
        std::string in;
        InputFormat from;
        OutputForm to;
    };
    const std::string plate = source_path("samples/plate.cli");
    std::vector<Job> jobs = {
        {plate, InputFormat::cli, OutputForm::cli_binary},
        {plate, InputFormat::cli, OutputForm::slc},
        {plate, InputFormat::cli, OutputForm::fdm},
        {plate, InputFormat::cli, OutputForm::cli_aligned_short},
        {d.file("0.cli"), InputFormat::cli, OutputForm::cli_ascii},
        {d.file("1.cli"), InputFormat::slc, OutputForm::cli_short},
        {d.file("2.cli"), InputFormat::fdm, OutputForm::slc},
        {d.file("3.cli"), InputFormat::cli, OutputForm::fdm},
    };
    auto run = [&](std::size_t i, const std::string &suffix) {
        Job &j = jobs[i];
        TranslateOptions o;
        o.input = j.from;
        o.output = j.to;
        o.reverse = i % 2 == 1;
        o.memory_budget = suffix == ".again" && i % 2 == 0 ? 1 : 0;
        const std::string out = d.file(std::to_string(i) + suffix);
        std::string log;
        TranslateResult r =
            translate(j.in, out, o, [&log](const Diagnostic &m) { log += m.text + "\n"; });
        EXPECT_TRUE(r.ok) << i << ": " << log;
        return log + read_file(out);
    };
    std::vector<std::string> alone(jobs.size()), together(jobs.size());
    for (std::size_t i = 0; i < jobs.size(); i++)
        alone[i] = run(i, ".cli");
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < jobs.size(); i++)
        threads.emplace_back([&, i] { together[i] = run(i, ".again"); });
    for (std::thread &t : threads)
        t.join();
    for (std::size_t i = 0; i < jobs.size(); i++)
        EXPECT_EQ(together[i], alone[i]) << "translation " << i;
}
