// End-to-end runs of the modern command line: convert, info, check, help
// and --version, their usage errors, messages and exit statuses.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "test_util.h"

namespace {

// A millimetre-and-a-half model in 0.5 mm units: a closed polyline
// (counter-clockwise), an open one, a hatch block, an empty layer and a
// clockwise triangle, a label and ids, after a comment line.
const char MODEL[] = "// written by a test\n"
                     "$$HEADERSTART\n$$ASCII\n$$UNITS/0.5\n$$VERSION/200\n$$DATE/240702\n"
                     "$$LABEL/7,bracket\n$$LAYERS/3\n$$HEADEREND\n$$GEOMETRYSTART\n"
                     "$$LAYER/2\n$$POLYLINE/7,1,5,2,2,10,2,10,8,2,8,2,2\n"
                     "$$POLYLINE/7,2,3,4,4,6,4,6,6\n$$HATCHES/7,2,3,3,9,3,3,5,9,5\n"
                     "$$LAYER/4\n$$LAYER/6\n$$POLYLINE/8,0,4,2,2,2,8,10,2,2,2\n$$GEOMETRYEND\n";

// The model as `convert --to cli` writes it (0.01 mm units, the real
// bounds, the label, the empty layer).
const char MODEL_ASCII[] = "$$HEADERSTART\n$$ASCII\n$$VERSION/200\n$$UNITS/0.01\n$$DATE/240702\n"
                           "$$LAYERS/3\n$$DIMENSION/100,100,100,500,400,300\n$$LABEL/7,bracket\n"
                           "$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/100.\n"
                           "$$POLYLINE/7,1,5,100.,100.,500.,100.,500.,400.,100.,400.,100.,100.\n"
                           "$$POLYLINE/7,2,3,200.,200.,300.,200.,300.,300.\n"
                           "$$HATCHES/7,2,150.,150.,450.,150.,150.,250.,450.,250.\n"
                           "$$LAYER/200.\n$$LAYER/300.\n"
                           "$$POLYLINE/8,0,4,100.,100.,100.,400.,500.,100.,100.,100.\n"
                           "$$GEOMETRYEND";

std::string u16(unsigned v) {
    return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
}
std::string u32(std::uint32_t v) {
    return u16(v & 0xFFFF) + u16(v >> 16);
}
std::string f32(float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return u32(bits);
}

// A tiny strict JSON reader: enough to take `info --json` apart.
struct Json {
    enum Kind { null, boolean, number, string, array, object } kind = null;
    bool b = false;
    double n = 0;
    std::string s;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;
    const Json &operator[](const std::string &key) const {
        for (const auto &m : members)
            if (m.first == key) return m.second;
        throw std::runtime_error("no key " + key);
    }
    const Json &operator[](std::size_t i) const { return items.at(i); }
};

class JsonReader {
  public:
    explicit JsonReader(const std::string &text) : p_(text.c_str()) {}
    Json document() {
        Json v = value();
        blanks();
        if (*p_) fail();
        return v;
    }

  private:
    [[noreturn]] void fail() { throw std::runtime_error(std::string("bad JSON at: ") + p_); }
    void blanks() {
        while (*p_ == ' ' || *p_ == '\n' || *p_ == '\t' || *p_ == '\r')
            p_++;
    }
    void expect(char c) {
        blanks();
        if (*p_++ != c) fail();
    }
    bool word(const char *w) {
        if (std::strncmp(p_, w, std::strlen(w)) != 0) return false;
        p_ += std::strlen(w);
        return true;
    }
    std::string text() {
        expect('"');
        std::string s;
        while (*p_ != '"') {
            if (static_cast<unsigned char>(*p_) < 0x20) fail();
            if (*p_ != '\\') {
                s += *p_++;
                continue;
            }
            p_++;
            const char *esc = std::strchr("\"\\/bfnrt", *p_);
            if (*p_ == 'u') {
                unsigned cp = 0;
                for (int i = 1; i <= 4; i++) {
                    if (!std::isxdigit(static_cast<unsigned char>(p_[i]))) fail();
                    cp = cp * 16 + std::stoul(std::string(1, p_[i]), nullptr, 16);
                }
                s += cp < 0x80 ? std::string(1, static_cast<char>(cp))
                               : std::string{static_cast<char>(0xC0 | cp >> 6),
                                             static_cast<char>(0x80 | (cp & 0x3F))};
                p_ += 5;
            } else if (esc && *p_) {
                s += "\"\\/\b\f\n\r\t"[esc - "\"\\/bfnrt"];
                p_++;
            } else {
                fail();
            }
        }
        p_++;
        return s;
    }
    Json value() {
        blanks();
        Json v;
        if (*p_ == '{') {
            v.kind = Json::object;
            p_++;
            blanks();
            if (*p_ == '}') return p_++, v;
            do {
                std::string key = text();
                expect(':');
                v.members.emplace_back(key, value());
                blanks();
            } while (*p_ == ',' && p_++);
            expect('}');
        } else if (*p_ == '[') {
            v.kind = Json::array;
            p_++;
            blanks();
            if (*p_ == ']') return p_++, v;
            do {
                v.items.push_back(value());
                blanks();
            } while (*p_ == ',' && p_++);
            expect(']');
        } else if (*p_ == '"') {
            v.kind = Json::string;
            v.s = text();
        } else if (word("null")) {
        } else if (word("true") || word("false")) {
            v.kind = Json::boolean;
            v.b = p_[-1] == 'e' && p_[-2] == 'u';
        } else {
            // The JSON number grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
            const char *start = p_;
            if (*p_ == '-') p_++;
            if (*p_ == '0') {
                p_++;
            } else if (std::isdigit(static_cast<unsigned char>(*p_))) {
                while (std::isdigit(static_cast<unsigned char>(*p_)))
                    p_++;
            } else {
                fail();
            }
            if (*p_ == '.' && !std::isdigit(static_cast<unsigned char>(*++p_))) fail();
            while (std::isdigit(static_cast<unsigned char>(*p_)))
                p_++;
            if (*p_ == 'e' || *p_ == 'E') {
                if (*++p_ == '+' || *p_ == '-') p_++;
                if (!std::isdigit(static_cast<unsigned char>(*p_))) fail();
                while (std::isdigit(static_cast<unsigned char>(*p_)))
                    p_++;
            }
            v.kind = Json::number;
            v.n = std::stod(std::string(start, p_));
        }
        return v;
    }

    const char *p_;
};

Json info_json(const std::string &file, const std::vector<std::string> &more = {}) {
    std::vector<std::string> args = {"info", file, "--json"};
    args.insert(args.end(), more.begin(), more.end());
    RunResult r = run_laytran(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return JsonReader(r.out).document();
}

// Runs and expects a usage error of `command`: status 2, the message and
// the hint, nothing on standard output.
void expect_usage(const std::vector<std::string> &args, const std::string &message,
                  const std::string &command, const std::string &dir = "") {
    RunResult r = run_laytran(args, dir);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_EQ(r.out, "");
    const std::string lead = command.empty() ? "laytran: " : "laytran " + command + ": ";
    const std::string hint =
        command.empty() ? "try 'laytran --help'\n" : "try 'laytran " + command + " --help'\n";
    EXPECT_EQ(r.err, lead + message + "\n" + hint);
}

} // namespace

TEST(Modern, HelpVersionAndUsageErrors) {
    RunResult r = run_laytran({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "laytran 3.0a\n");
    // The same version as the classic id line.
    EXPECT_NE(run_laytran({"-V", "1"}, "", MODEL).err.find("id = LAYTRAN 3.0a\n"),
              std::string::npos);

    r = run_laytran({"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char *word : {"convert IN OUT", "info FILE", "check FILE", "view FILE", "svg FILE",
                             "help [COMMAND]", "-H"})
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
    EXPECT_EQ(run_laytran({"help"}).out, r.out);
    r = run_laytran({"help", "convert"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage: laytran convert IN OUT [options]\n", 0), 0u);
    for (const char *name : {"cli-aligned-short", "--force", "--progress", "--memory"})
        EXPECT_NE(r.out.find(name), std::string::npos) << name;
    EXPECT_EQ(run_laytran({"convert", "--help"}).out, r.out);
    EXPECT_EQ(run_laytran({"info", "-h"}).out, run_laytran({"help", "info"}).out);

    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    expect_usage({"frob"}, "unknown command 'frob'", "");
    expect_usage({"m.cli"},
                 "unknown command 'm.cli' (a file: 'laytran info m.cli', 'laytran convert m.cli "
                 "OUT', or the classic 'laytran -f m.cli')",
                 "", d.path());
    expect_usage({"--version", "x"}, "--version takes no operands", "");
    expect_usage({"convert"}, "missing operand IN", "convert");
    expect_usage({"convert", "m.cli"}, "missing operand OUT", "convert");
    expect_usage({"convert", "a", "b", "c"}, "too many operands: 'c'", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--forse"}, "unknown option '--forse'", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--for"},
                 "unknown option '--for' (did you mean --force?)", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "-f"},
                 "unknown option '-f' (options are long: --name)", "convert");
    expect_usage({"convert", "m.cli", "o.xyz"},
                 "cannot tell the output format from 'o.xyz': name it with --to (or use .cli, "
                 ".slc or .ssl)",
                 "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--to", "pdf"},
                 "unknown output format 'pdf' (cli, cli-binary, cli-long, cli-short, "
                 "cli-aligned, cli-aligned-short, slc or ssl)",
                 "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--from=stl"},
                 "unknown input format 'stl' (cli, slc or ssl)", "convert");
    expect_usage({"convert", "m.cli", "o.slc", "--units", "cm"},
                 "the SLC format holds millimetres or inches: --units mm or --units inch",
                 "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--units", "2x"},
                 "bad --units '2x' (a positive number of millimetres, or mm, cm, inches, mils, "
                 "microns, meters, feet, ...)",
                 "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--memory", "lots"},
                 "bad --memory 'lots' (a size such as 512M or 4G)", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--progress=sometimes"},
                 "bad --progress 'sometimes' (auto, always or never)", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--quiet", "--verbose"},
                 "--quiet and --verbose cannot go together", "convert");
    expect_usage({"convert", "m.cli", "o.cli", "--force=yes"}, "option '--force' takes no value",
                 "convert");
    expect_usage({"info", "m.cli", "--from"}, "option '--from' needs a value", "info");
    expect_usage({"check", "-"},
                 "check reads a file, not standard input (its places are given in it)", "check");
    expect_usage({"help", "frob"}, "unknown command 'frob'", "help");
    // A usage error reads and writes nothing, even with the input missing.
    EXPECT_FALSE(file_exists(d.file("o.cli")));
    expect_usage({"convert", "missing.cli", "o.cli", "--bogus"}, "unknown option '--bogus'",
                 "convert", d.path());

    // Files that cannot be read are bad input (status 1).
    r = run_laytran({"info", "missing.cli"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "laytran: missing.cli: error: cannot open: No such file or directory\n");
    write_file(d.file("noname"), "hello");
    r = run_laytran({"info", "noname"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "laytran: noname: error: cannot tell the format from the contents or the "
                     "name\nlaytran: hint: name it with --from cli, --from slc or --from ssl\n");
}

TEST(Modern, ConvertWritesEveryFormTrueToTheInput) {
    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    // Standard output is ASCII CLI: the real bounds, labels, ids, the empty layer.
    RunResult r = run_laytran({"convert", "m.cli", "-"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, MODEL_ASCII);
    EXPECT_EQ(r.err, "");
    // Every binary CLI form reads back to the same ASCII (hatches are
    // 16-bit in every binary form).
    for (const char *to :
         {"cli-binary", "cli-long", "cli-short", "cli-aligned", "cli-aligned-short"}) {
        r = run_laytran({"convert", "m.cli", "b.cli", "--to", to, "--force"}, d.path());
        EXPECT_EQ(r.status, 0) << to << r.err;
        EXPECT_EQ(run_laytran({"convert", "b.cli", "-"}, d.path()).out, MODEL_ASCII) << to;
        EXPECT_EQ(info_json(d.file("b.cli"))["variant"].s,
                  std::string("binary, ") +
                      (std::strstr(to, "short") ? "short" : "long and short") + " form" +
                      (std::strstr(to, "aligned") ? ", aligned" : ""))
            << to;
    }
    // .cli is binary long CLI; --reverse swaps the direction with the points.
    ASSERT_EQ(run_laytran({"convert", "m.cli", "r.cli", "--reverse"}, d.path()).status, 0);
    EXPECT_EQ(info_json(d.file("r.cli"))["variant"].s, "binary, long and short form");
    r = run_laytran({"convert", "r.cli", "-", "--to", "cli"}, d.path());
    EXPECT_NE(r.out.find("$$POLYLINE/7,0,5,100.,100.,100.,400.,500.,400.,500.,100.,100.,100.\n"
                         "$$POLYLINE/7,2,3,300.,300.,300.,200.,200.,200.\n"
                         "$$HATCHES/7,2,450.,250.,150.,250.,450.,150.,150.,150.\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("$$POLYLINE/8,1,4,"), std::string::npos);

    // SLC and FDM, read back by info; units and moves as asked.
    r = run_laytran({"convert", "m.cli", "m.slc"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran: warning: the SLC format holds part contours only: 1 hatch block "
                     "was left out\n");
    r = run_laytran({"convert", "m.cli", "m.ssl", "--quiet"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    for (const char *file : {"m.slc", "m.ssl"}) {
        const Json j = info_json(d.file(file));
        EXPECT_EQ(j["format"].s, file[3] == 'l' ? "slc" : "ssl");
        EXPECT_EQ(j["layer_count"].n, 3);
        EXPECT_EQ(j["counts"]["empty_layers"].n, 1);
        EXPECT_NEAR(j["bounds_mm"]["xmax"].n, 5, 1e-4);
        EXPECT_NEAR(j["spacing_mm"]["min"].n, 1, 1e-4);
    }
    ASSERT_EQ(
        run_laytran({"convert", "m.slc", "-", "--units", "mm", "--move-positive"}, d.path()).out,
        run_laytran({"convert", "m.slc", "-", "--units", "1"}, d.path()).out);
    // Standard input (a pipe: the bytes looked at come first) to standard output.
    r = run_program(
        "/bin/sh",
        {"-c", "cat m.slc | \"$0\" convert - - --to cli-short | \"$0\" info -", LAYTRAN_EXE},
        d.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("format            CLI, binary, short form\n"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("file              <stdin>\n"), std::string::npos);
}

TEST(Modern, InfoJsonGivesEveryFact) {
    TempDir d;
    write_file(d.file("m.cli"), std::string(MODEL) + "// caf\xe9 \"q\"\n");
    const Json j = info_json(d.file("m.cli"), {"--layers"});
    EXPECT_EQ(j["file"].s, d.file("m.cli"));
    EXPECT_EQ(j["format"].s, "cli");
    EXPECT_EQ(j["variant"].s, "ASCII");
    EXPECT_EQ(j["unit_mm"].n, 0.5);
    const Json &h = j["header"];
    EXPECT_EQ(h["units"].s, "0.5");
    EXPECT_EQ(h["version"].s, "200");
    EXPECT_EQ(h["date"].s, "240702");
    EXPECT_EQ(h["dimension"].kind, Json::null);
    EXPECT_EQ(h["declared_layers"].n, 3);
    EXPECT_EQ(h["labels"][0]["id"].n, 7);
    EXPECT_EQ(h["labels"][0]["text"].s, "bracket");
    EXPECT_EQ(h["fields"].items.size(), 6u);
    EXPECT_EQ(h["fields"][4]["key"].s, "LABEL");
    EXPECT_EQ(h["fields"][4]["value"].s, "7,bracket");
    EXPECT_EQ(j["layer_count"].n, 3);
    EXPECT_EQ(j["z_mm"]["first"].n, 1);
    EXPECT_EQ(j["z_mm"]["last"].n, 3);
    EXPECT_EQ(j["spacing_mm"]["min"].n, 1);
    EXPECT_EQ(j["spacing_mm"]["max"].n, 1);
    EXPECT_TRUE(j["spacing_mm"]["uniform"].b);
    const Json &b = j["bounds_mm"];
    EXPECT_EQ(b["xmin"].n, 1);
    EXPECT_EQ(b["xmax"].n, 5);
    EXPECT_EQ(b["ymin"].n, 1);
    EXPECT_EQ(b["ymax"].n, 4);
    EXPECT_EQ(b["zmin"].n, 1);
    EXPECT_EQ(b["zmax"].n, 3);
    const Json &c = j["counts"];
    const std::pair<const char *, double> counts[] = {
        {"layers", 3},       {"empty_layers", 1}, {"part_contours", 2},    {"open_polylines", 1},
        {"hatch_blocks", 1}, {"hatches", 2},      {"support_contours", 0}, {"web_contours", 0},
        {"points", 16},      {"gaps", 0}};
    for (const auto &k : counts)
        EXPECT_EQ(c[k.first].n, k.second) << k.first;
    ASSERT_EQ(j["layers"].items.size(), 3u);
    EXPECT_EQ(j["layers"][0]["index"].n, 1);
    EXPECT_EQ(j["layers"][0]["counts"]["points"].n, 12);
    EXPECT_EQ(j["layers"][0]["bounds_mm"]["xmax"].n, 5);
    EXPECT_EQ(j["layers"][1]["z_mm"].n, 2);
    EXPECT_EQ(j["layers"][1]["bounds_mm"].kind, Json::null);
    EXPECT_EQ(j["layers"][2]["counts"]["part_contours"].n, 1);

    // A label that is not UTF-8 is read as Latin-1; quotes are escaped.
    write_file(d.file("l.cli"), "$$HEADERSTART\n$$ASCII\n$$LABEL/1,caf\xe9 \"q\"\n$$HEADEREND\n"
                                "$$GEOMETRYSTART\n$$GEOMETRYEND\n");
    const Json l = info_json(d.file("l.cli"));
    EXPECT_EQ(l["header"]["labels"][0]["text"].s, "caf\xc3\xa9 \"q\"");
    EXPECT_EQ(l["bounds_mm"].kind, Json::null);
    EXPECT_EQ(l["z_mm"].kind, Json::null);
    EXPECT_EQ(l["spacing_mm"].kind, Json::null);
    EXPECT_EQ(l["unit_mm"].n, 1);

    // The text form says the same.
    RunResult r = run_laytran({"info", "m.cli"}, d.path());
    for (const char *line : {"format            CLI, ASCII\n", "label             7 bracket\n",
                             "layers            3 (declared 3)\n", "spacing           1 mm\n",
                             "bounds            x 1 to 5, y 1 to 4, z 1 to 3 mm\n",
                             "hatch blocks      1 (2 hatches)\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
}

TEST(Modern, CheckListsEveryProblemWithItsPlace) {
    TempDir d;
    // ASCII CLI: lines.
    write_file(d.file("a.cli"), "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$LAYERS/5\n$$FOO/3\n"
                                "$$HEADEREND\n$$GEOMETRYSTART\n$$LAYER/1\n"
                                "$$POLYLINE/1,1,4,0,0,1,0,1,1,0,1\n$$LAYER/0.5\n"
                                "$$POLYLINE/1,0,3,0,0,nan,0,0,0\n$$BOGUS\n$$POWER/100\n"
                                "$$LAYER/2\n$$POLYLINE/1,1,5,0,0,1,0,0,0\n$$LAYER/3\n");
    RunResult r = run_laytran({"check", "a.cli", "--verbose"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "a.cli:5: illegal keyword near '$$FOO'\n"
                     "a.cli:9: $$POLYLINE 1 of layer 1 is marked closed (counter-clockwise) but "
                     "ends at (0, 1), not at its first point (0, 0)\n"
                     "a.cli:10: layer 2 at z 0.5 does not rise above layer 1 at z 1\n"
                     "a.cli:11: floating-point value is NaN near 'nan'\n"
                     "a.cli:12: illegal keyword near '$$BOGUS'\n"
                     "a.cli:15: $$POLYLINE declares 5 points, but only 3 follow\n"
                     "a.cli: input ends early: 4 of the 5 layers declared by $$LAYERS were read\n"
                     "a.cli: note: 1 $$POWER command was skipped (not held by the output)\n"
                     "a.cli: 7 problems found (4 layers)\n");
    // The same file fails convert at its first problem, with the place.
    r = run_laytran({"convert", "a.cli", "o.cli"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "laytran: a.cli:11: error: floating-point value is NaN near 'nan'\n");
    EXPECT_FALSE(file_exists(d.file("o.cli")));

    // Binary CLI: byte offsets; a NaN, a wrapped 16-bit value, an unknown command.
    const std::string head = "$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$HEADEREND";
    write_file(d.file("b.cli"), head + u16(127) + f32(1) + u16(130) + u32(1) + u32(1) + u32(3) +
                                    f32(0) + f32(0) + f32(NAN) + f32(0) + f32(0) + f32(0) +
                                    u16(128) + u16(0) + u16(129) + u16(2) + u16(1) + u16(3) +
                                    u16(10) + u16(10) + u16(65530) + u16(10) + u16(10) + u16(20) +
                                    u16(999));
    r = run_laytran({"check", "b.cli"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "b.cli: byte 72: floating-point value is NaN\n"
                     "b.cli: byte 88: layer 2 at z 0 does not rise above layer 1 at z 1\n"
                     "b.cli: byte 92: $$POLYLINE 2 of layer 2 is marked closed (counter-clockwise) "
                     "but ends at (10, 20), not at its first point (10, 10)\n"
                     "b.cli: byte 92: 16-bit overflow: in $$POLYLINE 2 of layer 2, x jumps from "
                     "10 to 65530 between points 1 and 2 (a value that wrapped)\n"
                     "b.cli: byte 112: error: illegal keyword near '999'\n"
                     "b.cli: 5 problems found (2 layers read before reading stopped)\n");

    // SLC: a header keyword, a boundary that is not closed, a NaN, the end cut off.
    const std::string slc = "-SLCVER 2.0 -UNIT MM -FOO 3\r\n\x1a" + std::string(256, '\0') +
                            std::string(1, '\1') + f32(0) + f32(0.1f) + f32(0) + f32(0) +
                            f32(0.1f) + u32(1) + u32(3) + u32(0) + f32(0) + f32(0) + f32(1) +
                            f32(NAN) + f32(0) + f32(0) + f32(0.2f) + u32(1) + u32(5);
    write_file(d.file("s.slc"), slc);
    r = run_laytran({"check", "s.slc"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "s.slc: byte 22: illegal keyword near 'FOO'\n"
                     "s.slc: byte 331: floating-point value is NaN\n"
                     "s.slc: byte 355: error: premature EOF (not an SLC file or truncated file?)\n"
                     "s.slc: 3 problems found (1 layer read before reading stopped)\n");

    // FDM: lines; numbers that do not convert read as 0, a layer that does not rise.
    write_file(d.file("f.ssl"), "SLICE V0\nBOGUS (x)\nZ 0.1 0.005\n0 0\n1 1e99\nC\n"
                                "Z 0.05 .005\n0 0\n1 nan\nC\nEND\n");
    r = run_laytran({"check", "f.ssl"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "f.ssl:2: unknown header keyword near 'BOGUS'\n"
                     "f.ssl:5: illegal number near '1E99'\n"
                     "f.ssl:7: layer 2 at z 0.05 does not rise above layer 1 at z 0.1\n"
                     "f.ssl:9: floating-point value is NaN near 'NAN'\n"
                     "f.ssl: 4 problems found (2 layers)\n");

    // Clean files of every format pass (but the open polyline, an SLC
    // boundary now, does not close); --quiet prints nothing.
    write_file(d.file("m.cli"), MODEL);
    for (const char *to : {"cli", "cli-short", "cli-aligned", "slc", "ssl"}) {
        ASSERT_EQ(run_laytran({"convert", "m.cli", "c", "--to", to, "--force", "--quiet"}, d.path())
                      .status,
                  0);
        r = run_laytran({"check", "c"}, d.path());
        EXPECT_EQ(r.status, std::string(to) == "slc" ? 1 : 0) << to << r.out;
    }
    r = run_laytran({"check", "m.cli", "--quiet"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
    EXPECT_EQ(run_laytran({"check", "m.cli"}, d.path()).out,
              "m.cli: no problems found (3 layers)\n");
}

TEST(Modern, SniffingForceAndFailedRuns) {
    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    ASSERT_EQ(run_laytran({"convert", "m.cli", "m.slc", "--quiet"}, d.path()).status, 0);
    // Contents win over a misleading extension; an unknown extension is no obstacle.
    write_file(d.file("looks.cli"), read_file(d.file("m.slc")));
    RunResult r = run_laytran({"convert", "looks.cli", "o.slc"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran: looks.cli: warning: the contents are SLC, not CLI as the extension "
                     "says: reading as SLC\n");
    write_file(d.file("looks.slc"), MODEL);
    write_file(d.file("part.DAT"), MODEL);
    EXPECT_EQ(info_json(d.file("looks.slc"))["format"].s, "cli");
    EXPECT_EQ(info_json(d.file("part.DAT"))["format"].s, "cli");
    // Unknown contents fall back on the extension, in any case.
    write_file(d.file("odd.SLC"), "\x1a" + std::string(400, '\0'));
    r = run_laytran({"info", "odd.SLC"}, d.path());
    EXPECT_NE(r.err.find("odd.SLC: byte 401: error: premature EOF"), std::string::npos) << r.err;
    // --from overrides, with a hint when it was wrong.
    r = run_laytran({"info", "m.cli", "--from", "slc"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.substr(r.err.find("\nlaytran: hint:") + 1),
              "laytran: hint: looks like a CLI file: use --from cli\n");

    // An existing output needs --force; a refused or failed run leaves it as it was.
    write_file(d.file("out.cli"), "old");
    r = run_laytran({"convert", "m.cli", "out.cli"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "laytran: out.cli: error: exists (not overwritten)\n"
                     "laytran: hint: use --force to overwrite it\n");
    EXPECT_EQ(read_file(d.file("out.cli")), "old");
    std::string bad = MODEL;
    write_file(d.file("bad.cli"), bad.replace(bad.find("$$LAYER/6"), 9, "$$LAYER/nan"));
    r = run_laytran({"convert", "bad.cli", "out.cli", "--force"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(read_file(d.file("out.cli")), "old");
    r = run_laytran(
        {"convert", "m.cli", "out.cli", "--force", "--to", "cli-short", "--units", "0.00001"},
        d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("try --units with a larger unit or --to cli-long"), std::string::npos)
        << r.err;
    EXPECT_EQ(read_file(d.file("out.cli")), "old");
    r = run_laytran({"convert", "m.cli", "m.cli", "--force"}, d.path());
    EXPECT_EQ(r.err, "laytran: m.cli: error: the output file is the input file\n");
    EXPECT_EQ(read_file(d.file("m.cli")), MODEL);
    ASSERT_EQ(run_laytran({"convert", "m.cli", "out.cli", "--force"}, d.path()).status, 0);
    EXPECT_EQ(read_file(d.file("out.cli")).substr(0, 14), "$$HEADERSTART\n");
    r = run_program("/bin/sh", {"-c", "ls -A | grep laytran- ; true"}, d.path());
    EXPECT_EQ(r.out, "");
}

TEST(Modern, ProgressBarOnlyWhenAskedOffATerminal) {
    TempDir d;
    write_file(d.file("m.cli"), MODEL);
    // Standard error is a file here: no bar unless forced.
    RunResult r = run_laytran({"convert", "m.cli", "a.slc", "--quiet"}, d.path());
    EXPECT_EQ(r.err, "");
    r = run_laytran({"convert", "m.cli", "b.ssl", "--progress=always", "--quiet"}, d.path());
    EXPECT_EQ(r.err, "");
    r = run_laytran({"convert", "m.cli", "c.cli", "--progress", "always"}, d.path());
    EXPECT_EQ(r.status, 0);
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.front(), '\r');
    EXPECT_EQ(r.err.back(), '\n');
    for (const char *part : {"100% [====================] 0.3 kB read, 0.3 kB written, ", "kB/s"})
        EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1);
    // A message in between takes the bar off its line first.
    r = run_laytran({"info", "m.cli", "--progress=always", "--from", "ssl"}, d.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("\nlaytran: m.cli:"), std::string::npos) << r.err;
}
