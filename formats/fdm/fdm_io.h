// FDM slice files (.ssl): the reader and the writer.
//
// The file is a stream of keywords and numbers separated by white space and
// parentheses; letters count in either case and "#" starts a comment to the
// end of the line. The header (SLICE, V, SLICES, FILE ...) runs up to the
// first Z; then each layer is a Z line with its level and thickness followed
// by its contours: an optional C, the points as x y pairs, and C (closed) or
// O (open). END or the end of the file ends the data. Version 11 files
// precede every contour with two integers and follow its terminator by a
// line and one more to skip. Coordinates and levels are in inches.
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

// The module's error codes; fdm_error_text gives their texts.
enum class FdmError : int {
    none = 0,
    eof = 1, // "premature EOF (illegal format or truncated file or ...)"
    read = 2,
    write = 3,
    open = 4,
    nan = 5,
    number = 6, // not a number, beyond float range, or longer than 49 characters
    character = 7,
    keyword = 8, // also a contour without its terminator
    format = 9,  // the file does not begin with SLICE
    layers = 10,
    memory = 11,
    context = 12,
    argument = 13, // the writer was given a contour without points
    not_fdm = 14,  // nothing but delimiters and comments in the first fdm_start_search bytes
};
const char *fdm_error_text(int code);

// An input whose first this many bytes hold no word is no FDM slice file.
constexpr std::uint64_t fdm_start_search = 0x10000;

// Reads an FDM slice file from the input's current position, one item at a
// time: a layer begins, a contour of the current layer, or the end.
class FdmReader {
  public:
    enum class Item { layer, contour, end };

    explicit FdmReader(ByteInput &in) : in_(in) {}

    // Check mode: each problem the reader can read past goes to `report`
    // (its code, offset and offending text) and reading goes on: a number
    // that does not convert, is NaN or lies beyond float range reads as 0,
    // and an unknown header keyword is kept as a field. The rest ends
    // reading as without it.
    using Problem = std::function<void(FdmError, std::uint64_t offset, const std::string &token)>;
    void set_check(Problem report) { check_ = std::move(report); }

    // The next item. At `layer` the new layer's level and thickness are
    // z() and thickness(); at `contour` its points (as floats, the last
    // point not repeated) are in `points`, replacing what it held, and
    // `closed` tells its terminator. `end` comes at END, at the end of the
    // input and after an error (see error()), and then stays.
    Item next(std::vector<Point> &points, bool &closed);

    double z() const { return z_; }
    double thickness() const { return thickness_; }
    int version() const { return version_; } // V; 0 when the header has none
    // Every header keyword with its value as written, e.g. {"FILE", "part.stl"}.
    const std::vector<HeaderField> &fields() const { return fields_; }
    const StreamError &error() const { return error_; }

  private:
    enum TokenKind { word_token, number_token, char_token };

    bool record(FdmError code);
    int raw_byte();
    int scan_byte();
    bool skip_line();
    int read_char();
    void unread_last();
    int skip_delimiters();
    bool read_token(char *text, std::uint32_t max, TokenKind kind);
    int lookup_keyword(bool &empty);
    int header_keyword(bool &empty);
    bool read_number_token(char *text);
    bool read_number(double &out);
    bool read_integer(int &out);
    bool skip_parenthesised(std::string &text);
    bool at_end();
    bool read_header();
    std::size_t point_run(std::vector<Point> &points);
    bool read_contour_body(std::vector<Point> &points, bool &closed);
    bool finish_z_line();

    ByteInput &in_;
    StreamError error_;
    std::vector<HeaderField> fields_;
    std::string word_; // the last word read where a keyword belongs
    double z_ = 0, thickness_ = 0;
    int version_ = 0;
    int last_raw_ = 0; // the raw byte behind the last filtered character
    std::uint64_t searched_ = 0;
    bool searching_ = false; // the first word is being sought
    bool header_read_ = false;
    bool ended_ = false;
    Problem check_;
};

// Writes an FDM slice file in one fixed form: "SLICE V0" and "SLICES ()" as
// the header, a Z line per layer, one point per line, C or O after each
// contour, END at the finish; every line ends with a line feed. Numbers are
// "%10f" of the float with the trailing zeros cut (the point stays): 1 is
// "  1.", -0.5 is " -0.5", 123.25 is "123.25"; a thickness of 0 is ".005".
class FdmWriter {
  public:
    explicit FdmWriter(ByteOutput &out) : out_(out) {}

    // The next layer. Until the header is out this only replaces the level
    // its Z line will give; after that the Z line goes out at once.
    bool layer(float z, float thickness);
    // A contour of at least one point, with the header first when it is not
    // out yet. A contour whose last point equals its first is closed: it is
    // written without the repeated point and ended by C; others by O.
    bool contour(const Point *points, std::size_t count);
    // The header and the pending Z line, when they are not out yet.
    bool write_header();
    // END and the last flush. True when every byte got out.
    bool finish();
    // For a writer whose contours go inside another writer's output: its
    // header counts as written, and nothing is written for it.
    void continue_contours() { header_written_ = true; }
    bool header_written() const { return header_written_; }
    // Records a write error when the output has failed; false then.
    bool check();
    // Waits until every byte handed on is written; false when a write
    // failed (recorded).
    bool settle() {
        out_.settle();
        return check();
    }

    const StreamError &error() const { return error_; }

    // The bytes of printf's "%10f" for v (a float value) into text, which
    // holds at least 64 bytes; the result is the length.
    static std::size_t format_fixed(double v, char *text);
    // The number as the file has it: format_fixed of v with the trailing
    // zeros of its decimals cut.
    static std::size_t format_trimmed(float v, char *text);
    // The "x y" lines of `count` points into out (which holds 130 bytes a
    // point); the result is the length. The scalar form, a vector form, and
    // the fastest this processor runs (chosen once, kept in the writer).
    using PointsFunction = std::size_t (*)(const Point *points, std::size_t count, char *out);
    static std::size_t format_points_scalar(const Point *points, std::size_t count, char *out);
#if defined(__x86_64__) && defined(__GNUC__)
    static std::size_t format_points_avx2(const Point *points, std::size_t count, char *out);
#endif
    static PointsFunction points_function();

  private:
    bool record(FdmError code);
    void number(float v);
    void z_line();

    ByteOutput &out_;
    PointsFunction format_points_ = points_function();
    StreamError error_;
    float z_ = 0, thickness_ = 0;
    bool header_written_ = false;
    bool finished_ = false;
};

} // namespace laytran
