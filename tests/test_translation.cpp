// The model operations and the translation driver, the driver run over fake
// layer sources and sinks: the order of its messages, units, scaling and
// placement, and how read and write errors end a run.
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

#include "formats/point_bytes.h"
#include "translate/model_ops.h"
#include "translate/translation.h"

using namespace laytran;

namespace {

constexpr float G = gap_coordinate;

Layer layer_at(float z, std::vector<std::vector<Point>> contours,
               ContourKind kind = ContourKind::part) {
    Layer layer;
    layer.z = z;
    for (auto &points : contours) {
        Contour c;
        c.kind = kind;
        for (Point p : points)
            c.gaps += is_gap_mark(p);
        c.points = std::move(points);
        layer.contours.push_back(std::move(c));
    }
    return layer;
}

// What the fake source hands out, and what the fake sink did and does.
struct Script {
    InputFormat format = InputFormat::cli;
    ModelHeader header;
    std::vector<Layer> layers;
    std::size_t fail_after = SIZE_MAX; // the source's error after this many layers
    StreamError read_error;
    bool source_missing = false, sink_missing = false;
    int sources = 0;           // sources made: a second reading makes another
    std::vector<Layer> second; // what the second source gives, when set

    std::size_t sink_fail_at = SIZE_MAX; // write_layer of this index fails
    StreamError write_error;             // recorded then (none: a silent failure)
    OutputPlan plan;
    Bounds plan_bounds;
    std::vector<Layer> written;
    bool begun = false, finished = false;
};

class FakeSource : public LayerSource {
  public:
    explicit FakeSource(Script &s) : s_(s) {}
    bool next_layer(Layer &layer) override {
        if (next_ == s_.fail_after) error_ = s_.read_error;
        if (error_ || next_ >= s_.layers.size()) return false;
        layer = s_.layers[next_++];
        return true;
    }
    const ModelHeader &header() const override { return s_.header; }
    const StreamError &error() const override { return error_; }
    void report_read_end(Reporter &r) override { r.info("read end"); }
    void report_run_end(Reporter &r) override { r.warning("3 $$POWER commands were skipped"); }

  private:
    Script &s_;
    std::size_t next_ = 0;
    StreamError error_;
};

class FakeSink : public LayerSink {
  public:
    explicit FakeSink(Script &s) : s_(s) {}
    bool begin(const OutputPlan &plan) override {
        s_.begun = true;
        s_.plan = plan;
        s_.plan_bounds = plan.bounds;
        return true;
    }
    bool write_layer(const Layer &layer) override {
        if (s_.written.size() == s_.sink_fail_at) {
            error_ = s_.write_error;
            return false;
        }
        s_.written.push_back(layer);
        for (const Contour &c : layer.contours)
            gaps_ += c.gaps;
        return true;
    }
    bool finish() override {
        s_.finished = true;
        return !error_;
    }
    const StreamError &error() const override { return error_; }
    std::uint64_t gaps() const override { return gaps_; }
    void report_run_end(Reporter &r) override { r.warning("left out"); }

  private:
    Script &s_;
    StreamError error_;
    std::uint64_t gaps_ = 0;
};

StreamError stream_error(const char *text, int system_error = 0, std::string detail = {}) {
    StreamError e;
    e.code = 2;
    e.text = text;
    e.system_error = system_error;
    e.detail = std::move(detail);
    return e;
}

struct Outcome {
    bool ok;
    std::string log; // the messages as the classic program prints them, without its name
};

Outcome run(Script &s, TranslateOptions o = {}) {
    o.input = s.format;
    std::string log;
    DiagnosticSink collect = [&log](const Diagnostic &d) {
        log += d.severity == Severity::info      ? "(info): "
               : d.severity == Severity::warning ? "(WARNING): "
                                                 : ": ";
        log += d.text + "\n";
    };
    FormatFactories fakes;
    fakes.source = [&s](InputFormat, ByteInput &, Reporter &, const SourceOptions &) {
        if (++s.sources == 2 && !s.second.empty()) s.layers = s.second;
        return s.source_missing ? nullptr : std::make_unique<FakeSource>(s);
    };
    fakes.sink = [&s](OutputForm, ByteOutput &, Reporter &) {
        return s.sink_missing ? nullptr : std::make_unique<FakeSink>(s);
    };
    Translation t(o, collect, fakes);
    InputBytes in = InputBytes::memory("", 0);
    std::string bytes;
    ByteOutput out(&bytes);
    bool ok = t.run(in, out);
    return {ok, log};
}

const char read_end[] = "(info): read end\n";
const char skipped[] = "(WARNING): 3 $$POWER commands were skipped\n";
const char left_out[] = "(WARNING): left out\n";

} // namespace

TEST(ModelOps, ScaleRoundsToFloatKeepsGapMarksAndFindsTheFirstBadLayer) {
    Model m;
    m.layers.push_back(layer_at(0.3f, {{{-5, 3}, {G, G}, {10, 20}}}));
    m.layers[0].thickness = 0.3f;
    Bounds b;
    EXPECT_EQ(scale(m, 1 / 25.4, b), 1u);
    const Layer &l = m.layers[0];
    // The float nearest the double product, and bounds of the stored floats.
    EXPECT_EQ(static_cast<double>(l.z), 0.011811024509370327);
    EXPECT_EQ(b.zmin, 0.011811024509370327);
    EXPECT_EQ(l.thickness, 0.3f);
    EXPECT_EQ(b.xmin, static_cast<double>(static_cast<float>(-5 / 25.4)));
    EXPECT_EQ(b.ymax, static_cast<double>(static_cast<float>(20 / 25.4)));
    EXPECT_TRUE(is_gap_mark(l.contours[0].points[1]));
    EXPECT_EQ(move(m, 1, 2, 3), 1u);
    EXPECT_TRUE(is_gap_mark(l.contours[0].points[1]));
    EXPECT_EQ(l.contours[0].points[2].y, static_cast<float>(static_cast<float>(20 / 25.4) + 2.0));

    // A value beyond float range is stored as 0; the first such layer counts.
    m.layers.push_back(layer_at(1, {{{1e30f, 0}}}));
    m.layers.push_back(layer_at(2, {{{1e30f, 0}}}));
    Bounds peek;
    EXPECT_EQ(scaled_bounds(m, 1e10, peek), 1u);
    EXPECT_EQ(m.layers[1].contours[0].points[0].x, 1e30f); // unchanged
    EXPECT_EQ(scale(m, 1e10, b), 1u);
    EXPECT_EQ(m.layers[1].contours[0].points[0].x, 0.0f);
    EXPECT_EQ(b.xmax, peek.xmax);
    EXPECT_EQ(move(m, 0, 0, std::nan("")), 0u);

    // Reversal swaps the ends and keeps the middle.
    Layer r = layer_at(0, {{{1, 0}}, {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}}});
    reverse(r);
    EXPECT_EQ(r.contours[0].points[0].x, 1.0f);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(r.contours[1].points[i].x, 5.0f - i);
}

// Scaling runs on vector instructions for contours without gap marks: the
// same stored values, bounds (down to the sign of a zero bound, the first
// met) and range check as the plain loop over the points; so does a factor
// so close to 1 that the points are only checked (0.01 as a float, to 0.01),
// and one just too far from 1 for that; and so do the bounds alone, which
// come from the points' extremes when the points are not needed.
TEST(ModelOps, ScaleOnVectorsKeepsThePlainRule) {
    std::srand(7);
    const float values[] = {0.0f,   -0.0f,   1.5f,   -2.25f,    3e38f,        -3e38f,
                            1e-45f, -1e-45f, 7e-39f, HUGE_VALF, std::nanf("")};
    int round = 0;
    // Every other round only zeros and positive values: zero bounds.
    auto any = [&] {
        if (round % 2) return values[std::rand() % 3];
        return std::rand() % 3 ? values[std::rand() % (round % 8 ? 9 : 11)]
                               : static_cast<float>(std::rand() - RAND_MAX / 2) / 64.0f;
    };
    for (; round < 400; round++) {
        Layer layer;
        layer.z = any();
        for (int k = std::rand() % 4; k > 0; k--) {
            Contour c;
            for (int i = std::rand() % 9; i > 0; i--)
                c.points.push_back({any(), any()});
            if (std::rand() % 5 == 0) c.points.push_back({G, G});
            layer.contours.push_back(c);
        }
        const double factors[] = {1.0, 100.0, 1e-40, static_cast<double>(0.01f) / 0.01,
                                  1.0 + 0x1p-24};
        const double factor = factors[round % 5];
        Layer plain = layer, unkept = layer;
        Bounds want = empty_bounds(), got = empty_bounds(), got_unkept = empty_bounds();
        bool finite = true;
        auto to_float = [&finite](double v) {
            if (std::fabs(v) < 0x1.ffffffp+127) return static_cast<float>(v);
            finite = false;
            return 0.0f;
        };
        plain.z = to_float(plain.z * factor);
        want.zmin = want.zmax = plain.z;
        for (Contour &c : plain.contours) {
            for (Point &p : c.points) {
                if (is_gap_mark(p)) continue;
                p = {to_float(p.x * factor), to_float(p.y * factor)};
                if (p.x < want.xmin) want.xmin = p.x;
                if (p.x > want.xmax) want.xmax = p.x;
                if (p.y < want.ymin) want.ymin = p.y;
                if (p.y > want.ymax) want.ymax = p.y;
            }
        }
        EXPECT_EQ(scale(layer, factor, got), finite);
        EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << round;
        // Bounds and range check alone, the points not needed; and so again
        // from the extremes a reader took in its pass over the points' bytes.
        Layer taken = unkept;
        EXPECT_EQ(scale(unkept, factor, got_unkept, false), finite);
        EXPECT_EQ(std::memcmp(&got_unkept, &want, sizeof got), 0) << round;
        std::vector<PointExtremes> extremes(taken.contours.size());
        for (std::size_t k = 0; k < extremes.size(); k++) {
            const std::vector<Point> &points = taken.contours[k].points;
            extremes[k].known = true;
            // In two runs, as a reader meets them across its blocks.
            const auto *bytes = reinterpret_cast<const unsigned char *>(points.data());
            const std::size_t half = points.size() / 2;
            widen(extremes[k], scan_point_bytes(bytes, half));
            widen(extremes[k], scan_point_bytes(bytes + 8 * half, points.size() - half));
        }
        Bounds got_taken = empty_bounds();
        EXPECT_EQ(scale(taken, factor, got_taken, false, extremes.data()), finite);
        EXPECT_EQ(std::memcmp(&got_taken, &want, sizeof got), 0) << round;
        for (std::size_t k = 0; k < layer.contours.size(); k++) {
            const auto &a = layer.contours[k].points, &b = plain.contours[k].points;
            EXPECT_TRUE(a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Point)) == 0)
                << round;
        }
    }
}

TEST(ModelOps, BoundsAndCountsByKind) {
    Model m;
    m.header.unit_mm = 25.4;
    EXPECT_TRUE(bounds(m).empty());
    m.layers.push_back(layer_at(1, {{{0, 0}, {G, G}, {2, 1}, {0, 0}}}));
    m.layers[0].contours.push_back(layer_at(0, {{{0, 0}, {1, 1}}}).contours[0]);
    m.layers[0].contours.back().direction = direction_open;
    m.layers.push_back(layer_at(2, {{{0, 0}, {1, 1}, {1, 0}, {2, -1}}}, ContourKind::hatches));
    m.layers.push_back(layer_at(3, {{{5, 5}}}, ContourKind::support));
    m.layers.push_back(layer_at(4, {{{5, 5}}}, ContourKind::web));
    m.layers.push_back(layer_at(5, {}));
    Counts n = count(m);
    EXPECT_EQ(n.layers, 5u);
    EXPECT_EQ(n.empty_layers, 1u);
    EXPECT_EQ(n.part_contours, 1u);
    EXPECT_EQ(n.open_polylines, 1u);
    EXPECT_EQ(n.hatch_blocks, 1u);
    EXPECT_EQ(n.hatches, 2u);
    EXPECT_EQ(n.support_contours, 1u);
    EXPECT_EQ(n.web_contours, 1u);
    EXPECT_EQ(n.points, 11u);
    EXPECT_EQ(n.gaps, 1u);
    Bounds b = bounds_mm(m);
    EXPECT_EQ(b.xmin, 0.0);
    EXPECT_EQ(b.xmax, 5 * 25.4);
    EXPECT_EQ(b.ymin, -25.4);
    EXPECT_EQ(b.zmax, 5 * 25.4);
}

TEST(Translation, PlacementLinesAndTheOrderOfTheRemarks) {
    Script s;
    s.layers = {layer_at(-0.002f, {{{-0.05f, 0.03f}, {G, G}, {1, 1}}}), layer_at(0.01f, {})};
    TranslateOptions o;
    o.output = OutputForm::cli_ascii;
    // Without -P: the minimum, the hint, nothing moved.
    Outcome r = run(s, o);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.log, std::string(read_end) +
                         "(WARNING): model is not entirely in the positive quadrant\n"
                         "(info): the minimum xyz-coordinates are -5, 3, and -0.2\n"
                         "(info): the option -P can be used to move the model\n" +
                         left_out + skipped);
    EXPECT_EQ(s.written[0].contours[0].points[0].x, -5.0f);

    // With -P (or a form that needs it): moved, platform note; reversed.
    for (OutputForm form : {OutputForm::cli_ascii, OutputForm::cli_short}) {
        s.written.clear();
        o.output = form;
        o.move_positive = form == OutputForm::cli_ascii;
        o.reverse = true;
        r = run(s, o);
        EXPECT_EQ(r.log, std::string(read_end) +
                             "(WARNING): model is not entirely in the positive quadrant\n"
                             "(info): moving the model by XYZ=+5,+0,+0.2\n"
                             "(info): min. z-coordinate places the part close to, or on the "
                             "platform\n" +
                             left_out + skipped);
        const std::vector<Point> &p = s.written[0].contours[0].points;
        EXPECT_EQ(p[0].x, 100.0f + 5.0f);
        EXPECT_TRUE(is_gap_mark(p[1]));
        EXPECT_EQ(p[2].x, 0.0f);
        EXPECT_EQ(s.written[0].z, 0.0f);
        EXPECT_DOUBLE_EQ(s.plan_bounds.xmin, 0.0);
        EXPECT_EQ(s.plan_bounds.zmax, 1.0 - static_cast<double>(-0.2f));
        EXPECT_EQ(s.plan.levels, (std::vector<float>{0.0f, s.written[1].z}));
        EXPECT_EQ(s.plan.counts.gaps, 1u);
        EXPECT_EQ(s.plan.layer_count, 2u);
    }
}

TEST(Translation, OutputUnitOfEachForm) {
    struct Case {
        double input_unit;
        OutputForm form;
        double given, unit;
    } cases[] = {{1.0, OutputForm::cli_binary, 0, 0.01}, {25.4, OutputForm::slc, 0, 25.4},
                 {1.0, OutputForm::slc, 0, 1.0},         {25.4, OutputForm::fdm, 0, 25.4},
                 {1.0, OutputForm::fdm, 0, 25.4},        {1.0, OutputForm::cli_ascii, 0.5, 0.5}};
    for (const Case &c : cases) {
        Script s;
        s.header.unit_mm = c.input_unit;
        s.layers = {layer_at(1, {{{2, 3}}})};
        TranslateOptions o;
        o.output = c.form;
        o.unit_mm = c.given;
        Outcome r = run(s, o);
        EXPECT_TRUE(r.ok) << r.log;
        EXPECT_EQ(s.plan.unit_mm, c.unit);
        EXPECT_EQ(s.plan.unit_given, c.given != 0);
        EXPECT_EQ(s.written[0].contours[0].points[0].y,
                  static_cast<float>(3 * c.input_unit / c.unit));
    }
}

TEST(Translation, NoGeometryAndValuesThatLeaveTheFloatRange) {
    Script empty;
    Outcome r = run(empty);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(r.log, std::string(read_end) + "(WARNING): the input holds no geometry\n" + left_out +
                         skipped);
    EXPECT_TRUE(empty.begun && empty.finished); // a whole file without layers

    // Scaling beyond float range fails before anything is written.
    Script s;
    s.layers = {layer_at(1, {{{1, 1}}}), layer_at(2, {{{1e30f, 1}}})};
    TranslateOptions o;
    o.unit_mm = 1e-10;
    r = run(s, o);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.log, std::string(read_end) +
                         ": scaling by 1e+10 to the output unit makes a coordinate of layer 2 "
                         "infinite (choose a larger unit with -U)\n" +
                         skipped);
    EXPECT_FALSE(s.begun);

    // So does a move.
    s.layers = {layer_at(1, {{{-3e38f, 1}}}), layer_at(2, {{{3e38f, 1}}})};
    o.unit_mm = 1;
    o.move_positive = true;
    r = run(s, o);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.log.find("(info): moving the model by XYZ=+3e+38,+0,+0\n"
                         ": moving the model makes a coordinate of layer 2 infinite\n"),
              std::string::npos)
        << r.log;
    EXPECT_FALSE(s.begun);
}

TEST(Translation, ReadErrors) {
    // CLI: what was read is written, the error comes at the end, after the
    // remarks; no "no geometry" warning for an input that failed.
    for (std::size_t after : {1u, 0u}) {
        Script s;
        s.layers = {layer_at(1, {{{1, 1}}}), layer_at(2, {{{1, 1}}})};
        s.fail_after = after;
        s.read_error = stream_error("read error", EIO);
        Outcome r = run(s);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(s.written.size(), after);
        EXPECT_EQ(r.log, std::string(read_end) + left_out + skipped +
                             ": error reading input file (read error: Input/output error)\n");
    }
    // SLC and FDM: reported when the load ends and again at the end;
    // nothing is written.
    for (InputFormat format : {InputFormat::slc, InputFormat::fdm}) {
        Script s;
        s.format = format;
        s.layers = {layer_at(1, {{{1, 1}}}), layer_at(2, {{{1, 1}}})};
        s.fail_after = 1;
        s.read_error = stream_error("premature end of file");
        Outcome r = run(s);
        EXPECT_FALSE(r.ok);
        const std::string line = ": error reading input file (premature end of file)\n";
        EXPECT_EQ(r.log, read_end + line + skipped + line);
        EXPECT_FALSE(s.begun || s.finished);
    }
    Script s;
    s.source_missing = true;
    EXPECT_EQ(run(s).log, ": failed to initialize the CLI input.\n");
    s = Script();
    s.sink_missing = true;
    TranslateOptions o;
    o.output = OutputForm::fdm;
    EXPECT_EQ(run(s, o).log, ": failed to initialize the FDM output.\n");
}

TEST(Translation, WriteErrors) {
    struct Case {
        StreamError error;
        const char *line;
    } cases[] = {
        {stream_error("write error", ENOSPC), "write error: No space left on device"},
        {stream_error("illegal number", 0, "x coordinate 70000 does not fit"),
         "x coordinate 70000 does not fit"},
        {StreamError(), "no more memory"}, // a sink that stopped without a word
    };
    for (const Case &c : cases) {
        Script s;
        s.layers = {layer_at(1, {{{1, 1}}}), layer_at(2, {{{1, 1}}})};
        s.sink_fail_at = 1;
        s.write_error = c.error;
        // An input error too: the input's line comes first.
        s.fail_after = 2;
        s.read_error = stream_error("illegal keyword");
        Outcome r = run(s);
        EXPECT_FALSE(r.ok);
        EXPECT_TRUE(s.finished);
        // No left-out remark: the last layer was not written.
        EXPECT_EQ(r.log, std::string(read_end) + skipped +
                             ": error reading input file (illegal keyword)\n"
                             ": error writing output file (" +
                             c.line + ")\n");
    }
}

TEST(Translation, ASecondReadingMustGiveTheLayersOfTheFirst) {
    const std::vector<Layer> layers = {layer_at(-1, {{{1, 1}}}), layer_at(2, {{{1, 1}}})};
    TranslateOptions o;
    o.memory_budget = 1; // the layers are read again for the writing
    o.move_positive = true;
    Script s;
    s.layers = layers;
    Outcome r = run(s, o);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(s.sources, 2);
    EXPECT_EQ(s.written.size(), 2u);
    EXPECT_EQ(s.written[1].z, 300.0f);
    EXPECT_NE(r.log.find(left_out), std::string::npos);
    // Another height, a layer more or a point less: the run fails.
    for (int change = 0; change < 3; change++) {
        s = Script();
        s.layers = s.second = layers;
        if (change == 0) s.second[1].z = 2.5f;
        if (change == 1) s.second.push_back(layers[0]);
        if (change == 2) s.second[1].contours[0].points.pop_back();
        r = run(s, o);
        EXPECT_FALSE(r.ok);
        const std::string end = std::string(skipped) +
                                ": error reading input file (the input file changed while it "
                                "was read)\n";
        EXPECT_EQ(r.log.substr(r.log.size() - std::min(r.log.size(), end.size())), end) << change;
    }
}

TEST(Translation, InputBytesReadAgainFromTheirStart) {
    auto first_bytes = [](std::unique_ptr<ByteInput> in) {
        std::string s(4, '\0');
        s.resize(in ? in->read(&s[0], 4) : 0);
        return s;
    };
    InputBytes memory = InputBytes::memory("abcdef", 6);
    EXPECT_EQ(first_bytes(memory.open()), "abcd");
    EXPECT_EQ(first_bytes(memory.open()), "abcd");
    std::FILE *f = tmpfile();
    std::fputs("xyz-abcdef", f);
    std::fseek(f, 4, SEEK_SET);
    InputBytes file = InputBytes::stream(f);
    EXPECT_EQ(first_bytes(file.open()), "abcd");
    EXPECT_EQ(first_bytes(file.open()), "abcd");
    std::fclose(f);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "abcdef", 6), 6);
    close(fds[1]);
    InputBytes pipe_input = InputBytes::descriptor(fds[0]);
    EXPECT_EQ(first_bytes(pipe_input.open()), "abcd");
    EXPECT_EQ(pipe_input.open(), nullptr); // a pipe is read once
    close(fds[0]);
}
