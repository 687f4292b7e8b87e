// 3D Systems SLC slice files: the reader and the writer.
//
// An SLC file is a header text ended by a Ctrl-Z byte, a 256-byte reserved
// area, a sampling table (a count byte and that many entries of four
// floats), then the layers: each a record of its level (f32) and its
// boundary count (u32), followed by the boundaries, each its vertex count
// and gap count (u32) and the vertices as x y pairs (f32). A layer record
// with the count 0xFFFFFFFF ends the file. Every binary value is
// little-endian.
//
// The reader and the writer hold all their state; each keeps the first
// error it met (see StreamError) with the module's code and text, and stops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "laytran/model.h"
#include "support/byte_input.h"
#include "support/byte_output.h"
#include "translate/format_io.h"

namespace laytran {

// The module's error codes; slc_error_text gives their texts.
enum class SlcError : int {
    none = 0,
    eof = 1, // "premature EOF (not an SLC file or truncated file?)"
    read = 2,
    write = 3,
    open = 4,
    nan = 5,
    number = 6, // an infinity, or a number beyond float range
    character = 7,
    keyword = 8,
    format = 9,
    layers = 10, // "too few layers"
    memory = 11,
    context = 12,
    argument = 13,
    limit = 14,   // a table or a count beyond what its field holds
    not_slc = 15, // no Ctrl-Z in the first slc_header_search bytes
};
const char *slc_error_text(int code);

// The header keywords, in alphabetical order; a header's unit and type are
// given as these.
enum class SlcKeyword : std::uint8_t {
    none = 0,
    arcres,
    chorddev,
    extents,
    extlwc,
    gaptol,
    inch,
    maxgapfound,
    mm,
    package,
    part,
    slcver,
    support,
    surftol,
    type,
    unit,
    web,
};

constexpr std::uint32_t slc_end_of_layers = 0xFFFFFFFFu;
constexpr std::size_t slc_max_samples = 255;
// An input whose first this many bytes hold no Ctrl-Z is no SLC file.
constexpr std::uint64_t slc_header_search = 0x10000;

// One entry of the sampling table.
struct SlcSample {
    float z = 0, thickness = 0, line_width = 0, reserved = 0;
};

// What a header text says. Words are kept upper-cased and cut to their
// field (SLCVER 3 characters, PACKAGE 32); a number keeps its value when its
// text does not convert.
struct SlcHeader {
    std::string version;
    SlcKeyword unit = SlcKeyword::none;
    SlcKeyword type = SlcKeyword::none; // none: the boundaries are part contours
    std::string package;
    double extents[6] = {}; // x min, x max, y min, y max, z min, z max (float values)
    float chord_deviation = 0, arc_resolution = 0, surface_tolerance = 0, gap_tolerance = 0,
          max_gap_found = 0, extlwc = 0;
    // Every keyword with its value as the text gives it, e.g. {"UNIT", "mm"}.
    std::vector<HeaderField> fields;
};

// Reads an SLC file from the input's current position. Use:
//   while (reader.next_layer(z, count))        // false at the end record or on error
//       for (k = 0; k < count; k++)
//           if (!reader.read_boundary(points, gaps)) break;
// then error(). The header block is read with the first call; an error in
// the header text is kept while the binary part after the Ctrl-Z is still
// read, so that the layers can be looked at.
class SlcReader {
  public:
    explicit SlcReader(ByteInput &in) : in_(in) {}

    // Check mode: each problem the reader can read past goes to `report`
    // (its code, offset and offending text) and reading goes on: every
    // error in the header text is reported, not only the first, and a NaN
    // or infinite value reads as 0. The rest ends reading as without it.
    using Problem = std::function<void(SlcError, std::uint64_t offset, const std::string &token)>;
    void set_check(Problem report) { check_ = std::move(report); }

    // Reads the header block (text, reserved area, sampling table) unless
    // that is done. False when the binary part cannot be reached.
    bool read_header();
    // The next layer record: its level and boundary count. False at the end
    // record (a clean end) and after any failure to read one.
    bool next_layer(float &z, std::uint32_t &boundaries);
    // The next boundary of the current layer: its vertices (replacing what
    // `points` held; sized from the file's count, never beyond what the input
    // can still give) and its gap count. False on failure. With `extremes`,
    // the extremes of the vertices when the pass that checks them took them.
    bool read_boundary(std::vector<Point> &points, std::uint32_t &gaps,
                       PointExtremes *extremes = nullptr);

    const SlcHeader &header() const { return header_; }
    const std::vector<SlcSample> &samples() const { return samples_; }
    const StreamError &error() const { return error_; }
    // The end record was read.
    bool ended() const { return ended_; }

  private:
    bool fail(SlcError code, std::uint64_t offset, std::string token = {});
    bool fail_input(); // a premature end, or the read error behind it
    bool read_u32(std::uint32_t &v);
    bool read_f32(float &v);
    bool read_vertices(std::vector<Point> &points, std::uint32_t n, PointExtremes *extremes);
    void parse_header_text(const std::string &text, std::uint64_t start);

    ByteInput &in_;
    SlcHeader header_;
    std::vector<SlcSample> samples_;
    StreamError error_;
    bool header_read_ = false;
    bool ended_ = false;
    bool stopped_ = false; // the end record or a failure: nothing more is read
    Problem check_;
};

enum class SlcUnit { mm, inch };
enum class SlcType { part, support, web };

struct SlcWriterOptions {
    SlcUnit unit = SlcUnit::mm;
    SlcType type = SlcType::part;
    std::string version = "2.0";                       // up to 3 characters are written
    std::string package = "Vantorell/Plexo_Forge_3.3"; // up to 32
};

// Writes an SLC file. Use: set_levels (or add_sample) for the sampling
// table, then per layer begin_layer and its boundaries, then finish. The
// header block goes out with the first layer; a writer that never began a
// layer writes nothing at all.
class SlcWriter {
  public:
    SlcWriter(ByteOutput &out, SlcWriterOptions options = {});

    // Builds the sampling table from the layers' increasing levels: an entry
    // for the first level, and one wherever the spacing changes by more than
    // the tolerance or the float resolution of the levels. False without an
    // error for fewer than two levels; levels that do not increase are an
    // argument error, more than 255 entries exceed the limit.
    bool set_levels(const std::vector<float> &levels);
    // Appends one entry (thickness above 0, at most 255 entries).
    bool add_sample(const SlcSample &sample);
    // Starts a layer holding `boundaries` boundaries (0xFFFFFFFF is the end
    // record's and beyond the limit).
    bool begin_layer(float z, std::uint64_t boundaries);
    bool write_boundary(const Point *points, std::size_t count, std::uint32_t gaps);
    // Writes the end record (after at least one layer) and the last bytes.
    // True when every byte got out.
    bool finish();

    const std::vector<SlcSample> &samples() const { return samples_; }
    const StreamError &error() const { return error_; }

    // The tolerance of set_levels below the levels' own resolution.
    static constexpr float level_tolerance = 1.5e-5f;

  private:
    bool fail(SlcError code);
    void write_header_block();

    ByteOutput &out_;
    SlcWriterOptions options_;
    std::vector<SlcSample> samples_;
    StreamError error_;
    bool began_ = false; // a layer was begun: the header block is out
    bool ended_ = false;
    float last_z_ = 0;
};

} // namespace laytran
