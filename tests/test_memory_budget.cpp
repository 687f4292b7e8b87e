// Runs that read their input twice, holding one layer at a time (a model
// beyond the memory budget), against runs that keep the model: the same
// bytes and the same messages, in every format and in failing runs too.
#include <gtest/gtest.h>

#include "laytran/io.h"
#include "support/byte_input.h"
#include "support/memory_budget.h"
#include "test_util.h"
#include "translate/layer_store.h"

using namespace laytran;

namespace {

// Coordinates below zero, hatches, process parameters and a label: what
// makes the engine and the writers talk.
const char *const MODEL =
    "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$DATE/231126\n$$LABEL/1,part\n$$LAYERS/3\n$$HEADEREND\n"
    "$$GEOMETRYSTART\n$$LAYER/0.1\n$$POWER/100\n$$POLYLINE/1,1,5,-2,-1,10,-1,10,6,-2,6,-2,-1\n"
    "$$HATCHES/2,2,0,0,5,0,0,1,5,1\n$$LAYER/0.2\n$$POLYLINE/1,0,4,0,0,4,0,4,3,0,0\n$$SPEED/20\n"
    "$$POWER/90\n$$LAYER/0.3\n$$POLYLINE/1,1,4,1,1,3,1,3,2,1,1\n$$GEOMETRYEND\n";

std::string replaced(std::string text, const std::string &from, const std::string &to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

} // namespace

TEST(MemoryBudget, SizesAndTheDefault) {
    EXPECT_EQ(parse_memory_size("4096"), 4096u);
    EXPECT_EQ(parse_memory_size("64K"), 64u << 10);
    EXPECT_EQ(parse_memory_size("256mb"), 256u << 20);
    EXPECT_EQ(parse_memory_size("2G"), std::uint64_t(2) << 30);
    EXPECT_EQ(parse_memory_size("1TiB"), std::uint64_t(1) << 40);
    EXPECT_EQ(parse_memory_size("0"), 0u);
    for (const char *bad :
         {"", "G", "1.5G", "-1", "12 M", "1P", "2iG", "18446744073709551616", "17179869184G"})
        EXPECT_FALSE(parse_memory_size(bad)) << bad;
    EXPECT_GT(default_memory_budget(), 0u);
}

TEST(MemoryBudget, StoreGivesBackEveryLayerAcrossItsBlocks) {
    // A layer larger than the blocks so far gets one of its own.
    std::vector<Layer> layers(3);
    for (std::size_t i = 0; i < layers.size(); i++) {
        layers[i].z = 0.5f * static_cast<float>(i);
        layers[i].thickness = 0.25f;
        const std::size_t points = i == 1 ? 300000 : 3;
        for (std::size_t k = 0; k < 2; k++) {
            Contour c;
            c.kind = k ? ContourKind::hatches : ContourKind::web;
            c.id = static_cast<std::uint32_t>(7 + k);
            c.direction = direction_open;
            c.gaps = static_cast<std::uint32_t>(k);
            for (std::size_t p = 0; p < points; p++)
                c.points.push_back({static_cast<float>(p), -static_cast<float>(i)});
            layers[i].contours.push_back(c);
        }
    }
    layers.push_back(Layer{});
    LayerStore store;
    for (const Layer &layer : layers)
        ASSERT_TRUE(store.append(layer));
    EXPECT_EQ(store.size(), layers.size());
    EXPECT_GE(store.bytes(), 2 * 300000 * sizeof(Point));
    Layer back;
    for (std::size_t i : {1u, 0u, 3u, 2u}) {
        store.get(i, back);
        EXPECT_EQ(back.z, layers[i].z);
        EXPECT_EQ(back.thickness, layers[i].thickness);
        ASSERT_EQ(back.contours.size(), layers[i].contours.size());
        for (std::size_t k = 0; k < back.contours.size(); k++) {
            const Contour &a = back.contours[k], &b = layers[i].contours[k];
            EXPECT_TRUE(a.kind == b.kind && a.id == b.id && a.direction == b.direction &&
                        a.gaps == b.gaps && a.points.size() == b.points.size());
            EXPECT_EQ(0, memcmp(a.points.data(), b.points.data(), a.points.size() * sizeof(Point)));
        }
    }
    store.clear();
    EXPECT_EQ(store.size(), 0u);
    EXPECT_EQ(store.bytes(), 0u);
}

// Every input format into several forms, with warnings (placement, hatches
// left out, commands skipped, an early end) and failures (input cut short,
// a value too large for its field, a move or a scaling beyond float range):
// a budget of one byte (decided before reading) and one of 100 KiB (the
// kept layers outgrow it while they are read) give what the run that keeps
// the model gives, byte for byte and message for message. So does a bad
// LAYTRAN_MEMORY, after its warning, and a pipe, which is read once.
TEST(MemoryBudget, TwoReadingsGiveTheBytesAndMessagesOfOne) {
    TempDir d;
    write_file(d.file("model.cli"), MODEL);
    write_file(d.file("early.cli"), replaced(MODEL, "3,1,3,2", "abc,1,3,2"));
    write_file(d.file("empty.cli"),
               "$$HEADERSTART\n$$ASCII\n$$HEADEREND\n$$GEOMETRYSTART\n$$GEOMETRYEND\n");
    write_file(d.file("huge.cli"), "$$HEADERSTART\n$$ASCII\n$$UNITS/0.01\n$$HEADEREND\n"
                                   "$$GEOMETRYSTART\n$$LAYER/1\n$$POLYLINE/1,1,2,-3e38,0,1,1\n"
                                   "$$LAYER/2\n$$POLYLINE/1,1,2,3e38,0,1,1\n$$GEOMETRYEND\n");
    for (const char *form : {"b", "S", "F"}) {
        const std::string name = std::string("model.") + (*form == 'b'   ? "b.cli"
                                                          : *form == 'S' ? "slc"
                                                                         : "ssl");
        ASSERT_EQ(run_laytran({"-f", "model.cli", "-o", name, "-O", form}, d.path()).status, 0);
    }
    const std::string binary = read_file(d.file("model.b.cli")),
                      slc = read_file(d.file("model.slc"));
    write_file(d.file("cut.cli"), binary.substr(0, binary.size() - 6));
    write_file(d.file("cut.slc"), slc.substr(0, slc.size() - 12));
    write_file(d.file("bad.ssl"), replaced(read_file(d.file("model.ssl")), "\nC\n", "\nX\n"));

    const std::vector<std::vector<std::string>> forms = {{"-O", "A"},
                                                         {"-O", "b"},
                                                         {"-O", "as"},
                                                         {"-O", "S"},
                                                         {"-O", "F"},
                                                         {"-O", "A", "-P", "-R", "1"},
                                                         {"-O", "s", "-U", "0.0001"}};
    int failed = 0;
    for (const char *in : {"model.cli", "model.b.cli", "cut.cli", "early.cli", "empty.cli",
                           "huge.cli", "model.slc", "cut.slc", "model.ssl", "bad.ssl"}) {
        for (const auto &form : forms) {
            std::vector<std::string> args = {"-f", in, "-o", "out.dat"};
            args.insert(args.end(), form.begin(), form.end());
            const std::string what =
                std::string(in) + " " + form[1] + (form.size() > 2 ? " " + form[2] : "");
            auto run = [&](std::vector<std::string> env) {
                std::remove(d.file("out.dat").c_str());
                RunResult r = run_laytran(args, d.path(), "", "laytran", env);
                return std::to_string(r.status) + "\n" + r.err + "\n" +
                       read_file(d.file("out.dat"));
            };
            const std::string one = run({});
            failed += one[0] != '0';
            EXPECT_EQ(run({"LAYTRAN_MEMORY=1"}), one) << what;
            EXPECT_EQ(run({"LAYTRAN_MEMORY=100K"}), one) << what;
        }
    }
    EXPECT_GE(failed, 20); // the failing runs are among them

    std::vector<std::string> args = {"-f", "model.cli", "-o", "out.dat", "-O", "S"};
    std::remove(d.file("out.dat").c_str());
    RunResult one = run_laytran(args, d.path());
    const std::string bytes = read_file(d.file("out.dat"));
    std::remove(d.file("out.dat").c_str());
    RunResult bad = run_laytran(args, d.path(), "", "laytran", {"LAYTRAN_MEMORY=lots"});
    EXPECT_EQ(bad.err,
              "laytran(WARNING): LAYTRAN_MEMORY is not a size in bytes (K, M, G or T may follow "
              "the number): lots; half the physical memory is used\n" +
                  one.err);
    EXPECT_EQ(read_file(d.file("out.dat")), bytes);
    RunResult piped = run_laytran({"-O", "S"}, d.path(), MODEL, "laytran", {"LAYTRAN_MEMORY=1"});
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.out, run_laytran({"-O", "S"}, d.path(), MODEL).out);
}

// A file large enough to be read ahead on a helper thread, whole and cut
// short, kept or read twice: the status, messages and bytes of the same
// file through a pipe, which is read on one thread.
TEST(MemoryBudget, AFileReadAheadGivesWhatAPipeGives) {
    std::string file = "$$HEADERSTART\n$$BINARY\n$$UNITS/0.01\n$$HEADEREND";
    const auto put = [&file](const void *p, std::size_t n) {
        file.append(static_cast<const char *>(p), n);
    };
    for (int layer = 1; file.size() < ByteInput::read_ahead_min + 100000; layer++) {
        const std::uint16_t layer_command = 127, polyline = 130;
        const float z = 0.05f * static_cast<float>(layer);
        put(&layer_command, 2);
        put(&z, 4);
        const std::uint32_t head[3] = {1, static_cast<std::uint32_t>(layer % 3), 7001};
        put(&polyline, 2);
        put(head, sizeof head);
        for (std::uint32_t i = 0; i < 2 * head[2]; i++) {
            const float v =
                static_cast<float>((i * 7919u + static_cast<unsigned>(layer)) % 4001u) - 1000.25f;
            put(&v, 4);
        }
    }
    TempDir d;
    write_file(d.file("big.cli"), file);
    write_file(d.file("cut.cli"), file.substr(0, file.size() - 1000003));
    for (const char *in : {"big.cli", "cut.cli"}) {
        for (const char *form : {"b", "A", "S"}) {
            SCOPED_TRACE(std::string(in) + " -O " + form);
            const RunResult piped = run_program(
                "/bin/sh", {"-c", "cat \"$1\" | exec \"$0\" -O \"$2\" -P", LAYTRAN_EXE, in, form},
                d.path(), "", "sh");
            for (const char *memory : {"LAYTRAN_MEMORY=1", "LAYTRAN_MEMORY=1G"}) {
                std::remove(d.file("out.dat").c_str());
                const RunResult r = run_laytran({"-f", in, "-o", "out.dat", "-O", form, "-P"},
                                                d.path(), "", "laytran", {memory});
                EXPECT_EQ(r.status, piped.status) << memory;
                EXPECT_EQ(r.err, piped.err) << memory;
                // A failed run leaves no file; standard output got what was read.
                EXPECT_TRUE(read_file(d.file("out.dat")) == (r.status == 0 ? piped.out : ""))
                    << memory;
            }
        }
    }
}

// An output written while its input is read, with the layer count guessed
// from the first megabytes: the layer sizes change along the file, so that
// the guess is off (its header is written again in place) or off by whole
// digits (what was written is dropped and the input read again). Either
// way: the status, messages and bytes of the same file through a pipe.
TEST(MemoryBudget, AnOutputWrittenDuringTheReadingIsThatOfAPipe) {
    const auto binary = [](const std::vector<std::pair<int, int>> &runs,
                           const std::string &declared = "") {
        std::string file = "$$HEADERSTART\n$$BINARY\n$$UNITS/0.01\n" + declared + "$$HEADEREND";
        const auto put = [&file](const void *p, std::size_t n) {
            file.append(static_cast<const char *>(p), n);
        };
        int layer = 0;
        for (const auto &[layers, points] : runs) {
            for (int i = 0; i < layers; i++, layer++) {
                const std::uint16_t layer_command = 127, polyline = 130;
                const float z = 0.05f * static_cast<float>(layer + 1);
                put(&layer_command, 2);
                put(&z, 4);
                const std::uint32_t head[3] = {1, 1, static_cast<std::uint32_t>(points)};
                put(&polyline, 2);
                put(head, sizeof head);
                for (int k = 0; k < 2 * points; k++) {
                    const float v = static_cast<float>((k * 7919 + layer) % 3001) - 500.5f;
                    put(&v, 4);
                }
            }
        }
        return file;
    };
    TempDir d;
    // 1000 layers in the first 8 MiB, 4000 after: a guess of about 1500.
    write_file(d.file("off.cli"), binary({{1000, 1050}, {4000, 130}}));
    // 18 layers in the first 8 MiB, 1200 after: a guess of two digits.
    write_file(d.file("digits.cli"), binary({{18, 60000}, {1200, 500}}));
    // The count the file declares is taken at once, right or wrong.
    write_file(d.file("declared.cli"), binary({{18, 60000}, {1200, 500}}, "$$LAYERS/1218\n"));
    write_file(d.file("misdeclared.cli"), binary({{1000, 1050}, {4000, 130}}, "$$LAYERS/99\n"));
    // The aligned form moves the model (its coordinates below 0): written
    // once the bounds are known.
    const std::vector<std::vector<std::string>> forms = {
        {"-O", "b"}, {"-O", "A", "-R", "1"}, {"-O", "b", "-U", "0.1"}, {"-O", "a"}};
    for (const char *in : {"off.cli", "digits.cli", "declared.cli", "misdeclared.cli"}) {
        for (const auto &form : forms) {
            SCOPED_TRACE(std::string(in) + " " + form[1]);
            std::string options;
            for (const std::string &o : form)
                options += " " + o;
            const RunResult piped = run_program(
                "/bin/sh", {"-c", "cat \"$1\" | exec \"$0\"" + options, LAYTRAN_EXE, in}, d.path(),
                "", "sh");
            std::vector<std::string> args = {"-f", in, "-o", "out.dat"};
            args.insert(args.end(), form.begin(), form.end());
            std::remove(d.file("out.dat").c_str());
            const RunResult r = run_laytran(args, d.path());
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(piped.status, 0);
            EXPECT_EQ(r.err, piped.err);
            EXPECT_TRUE(read_file(d.file("out.dat")) == piped.out);
            if (form[1] != "a") continue;
            // Through the library, which moves the model for that form
            // without being told.
            TranslateOptions t;
            t.output = OutputForm::cli_aligned;
            t.cli_header = CliHeaderStyle::classic;
            std::remove(d.file("out.dat").c_str());
            EXPECT_TRUE(translate(d.file(in), d.file("out.dat"), t).ok);
            EXPECT_TRUE(read_file(d.file("out.dat")) == piped.out);
        }
    }
}

TEST(MemoryBudget, ProgressCountsBothReadings) {
    TempDir d;
    write_file(d.file("in.cli"), MODEL);
    // Kept, read twice (the faithful header needs the bounds first), and
    // written during the only reading (the classic header).
    for (int way = 0; way < 3; way++) {
        const std::uint64_t budget = way == 0 ? UINT64_MAX : 1;
        std::uint64_t read = 0, total = 0, written = 0;
        TranslateOptions o;
        o.output = OutputForm::cli_ascii;
        o.memory_budget = budget;
        if (way == 2) o.cli_header = CliHeaderStyle::classic;
        o.progress = [&](std::uint64_t r, std::uint64_t t, std::uint64_t w) {
            EXPECT_GE(r, read);
            read = r, total = t, written = w;
        };
        ASSERT_TRUE(translate(d.file("in.cli"), d.file("out.cli"), o).ok);
        EXPECT_EQ(total, (way == 1 ? 2 : 1) * std::string(MODEL).size());
        EXPECT_EQ(read, total);
        EXPECT_EQ(written, read_file(d.file("out.cli")).size());
    }
}
