// The CLI reader: reads a CLI file from a ByteInput, header first, then the
// geometry one event at a time (a layer begins, an element of the current
// layer, the end).
//
// What it takes besides the plain format, as other tools write it:
// - text before $$HEADERSTART: blank bytes and "//" comment lines; when no
//   other byte comes within the first 64 KiB, the input is not a CLI file;
// - keywords and numbers in any case, with blanks and "//" comments inside
//   them, a comment right behind a keyword ("$$BINARY // note");
// - unknown header commands (passed over) and unknown geometry commands of
//   the form $$WORD/numbers (passed over and counted, see skipped());
// - a $$DIMENSION with the minimum corner first; 16-bit coordinates stored
//   signed when $$DIMENSION declares a negative minimum for the axis.
// A count read from the file never reserves more points than the rest of
// the input can hold.
//
// Large runs of ASCII geometry are read on two threads (not in check mode):
// when the input's block holds at least parallel_min() bytes of it, they
// are cut where commands begin ("$$" at a line start) into pieces, which
// this thread takes from the front and a helper from the back, each piece
// read by a reader of its own into a list of events. The lists are then
// handed out in order up to the first piece that met anything but whole
// layers, elements and skipped commands up to its end (an error, the end of
// the geometry, a header keyword); from there this thread reads on alone.
// The events, errors and their places are those of reading alone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "formats/cli/cli_format.h"
#include "laytran/model.h"
#include "support/byte_input.h"

namespace laytran {

enum class CliGeometry : std::uint8_t { unset, ascii, binary };

struct CliUserData {
    std::string uid;
    std::string data;
};

// What the header section said. Values stay as unset below when the file
// does not give them.
struct CliHeaderInfo {
    CliGeometry geometry = CliGeometry::unset;
    bool aligned = false;       // $$ALIGN
    std::uint32_t version = 0;  // $$VERSION as a number
    float units = 0.0f;         // $$UNITS; 1 once a header without it (or with 0) was read
    std::uint32_t date = 0;     // $$DATE as a number (ddmmyy)
    std::uint32_t layers = 0;   // $$LAYERS
    bool has_dimension = false; // $$DIMENSION, maximum corner ordered above the minimum
    double xmin = 0, ymin = 0, zmin = 0, xmax = 0, ymax = 0, zmax = 0;
    std::vector<Label> labels; // text without the line end behind it
    std::vector<CliUserData> user_data;
    // Every header command read, in file order: the keyword and its
    // parameters as written (numbers as they stood, blanks and comments left
    // out), e.g. {"UNITS", "0.01"}, {"LABEL", "1,part"}, {"BINARY", ""}.
    std::vector<HeaderField> fields;
};

// An unknown geometry command passed over; past 64 distinct keywords the
// rest are counted together under the name "".
struct CliSkipped {
    std::string name; // without "$$"
    std::uint64_t count = 0;
};

// A problem that check mode reads past: the module's code, where it was
// met, the offending text and, when there is one, a fuller sentence.
struct CliProblem {
    CliError code = CliError::none;
    std::uint64_t offset = 0;
    std::string token;
    std::string detail;
};

// The reader's keyword codes (cli_reader.cpp).
enum class CliKeyword : std::uint8_t;

class CliReader {
  public:
    enum class Event { layer, element, end };

    // Reads from `in`, which must outlive the reader.
    explicit CliReader(ByteInput &in);
    ~CliReader();
    CliReader(const CliReader &) = delete;
    CliReader &operator=(const CliReader &) = delete;

    // The next event; the first call reads the header. `layer`: a $$LAYER
    // was read (its height: layer_z()); `element`: `element` holds the next
    // element of the current layer (its points replaced); `end`: the
    // geometry ended or reading stopped (see error() and ended_cleanly()),
    // and every later call gives `end` again.
    Event next(CliElement &element);

    // Check mode: each problem the reader can read past goes to `report`
    // and reading goes on: a NaN or infinite value reads as 0; in the
    // header and in ASCII geometry, after an unknown command, a number
    // that does not convert or a count that does not match, reading picks
    // up at the next "$". A problem it cannot read past (the end of the
    // input, a read error, an unknown binary command) ends reading as
    // without check mode.
    void set_check(std::function<void(const CliProblem &)> report) { check_ = std::move(report); }
    // Where the command behind the last event began, and whether it was a
    // short-form binary one.
    std::uint64_t command_offset() const { return command_at_; }
    bool command_short() const { return binary_ && short_; }

    float layer_z() const { return layer_z_; }
    const CliHeaderInfo &header() const { return header_; }

    // The first error recorded (none when reading went well), its errno for
    // read errors and the byte offset at which it was recorded.
    CliError error() const { return error_; }
    int system_error() const { return system_error_; }
    std::uint64_t error_offset() const { return error_offset_; }
    // The offending text of that error, when there is one.
    const std::string &error_token() const { return bad_token_; }
    // After `end`: false when reading stopped on an ASCII number that did
    // not convert, without an error recorded (an early end).
    bool ended_cleanly() const { return error_ != CliError::none || !silent_stop_; }

    std::uint32_t layers_read() const { return layers_read_; } // $$LAYER commands read
    bool end_seen() const { return end_seen_; }                // ASCII $$GEOMETRYEND read
    bool signed_short() const { return signed_read_; }         // 16-bit values were read signed
    bool long_form_seen() const { return long_seen_; }         // binary commands of each form
    bool short_form_seen() const { return short_seen_; }
    const std::vector<CliSkipped> &skipped() const { return skipped_; }

    // The bytes of ASCII geometry at hand from which two threads read them
    // (SIZE_MAX: never).
    static constexpr std::size_t default_parallel_min = std::size_t(1) << 18;
    void set_parallel_min(std::size_t bytes) { parallel_min_ = bytes; }
    std::size_t parallel_min() const { return parallel_min_; }

  private:
    using Keyword = CliKeyword;
    struct AheadEvent;
    struct AheadPiece;
    struct AheadWindow;
    struct Ahead;

    int getc() {
        int c = in_.get();
        return c < 0 && in_.failed() ? read_failed() : c;
    }
    int read_failed();
    void ungetc(int c) { in_.unget(c); }
    bool fail(CliError code);
    Keyword refuse(CliError code); // fail(code), then no keyword
    Event finish();
    bool recover();
    void problem(CliError code, std::uint64_t offset, std::string token);

    bool at_end();
    int next_char();
    bool read_token(char *token, std::uint32_t capacity, bool keyword);
    void skip_comma();
    bool number_token(const char *&first, const char *&last, char *scratch);
    void number_taken();
    bool ascii_integer(std::uint32_t &out, std::string *text = nullptr);
    bool ascii_double(double &out, std::string *text = nullptr);
    bool ascii_real(float &out);
    bool align_skip(bool align);
    bool binary_u16(std::uint32_t &out, bool align);
    bool binary_u32(std::uint32_t &out, bool align);
    bool binary_real(float &out, int axis, bool align);
    bool read_integer(std::uint32_t &out);
    bool read_real(float &out, int axis, bool align);
    bool read_text(std::string &text);
    void count_skipped(const std::string &name);
    bool skip_command(std::string &name);
    Keyword ascii_keyword();
    Keyword binary_keyword();
    Keyword read_keyword();
    bool expect_keyword(Keyword code);
    bool read_label();
    bool read_user_data();
    bool read_header_keywords();
    bool skip_preamble();
    bool read_header();
    bool reserve_from(CliElement &e, std::uint64_t count, std::size_t i);
    std::size_t binary_run(CliElement &e, std::size_t n);
    std::size_t ascii_run(CliElement &e, std::size_t n);
    bool read_points(CliElement &e, std::uint32_t count);
    bool read_polyline(CliElement &e);
    bool read_hatches(CliElement &e);
    bool read_layer();
    // Reading on two threads (cli_reader.cpp).
    bool ahead_event(CliElement &element, Event &event);
    bool replay(CliElement &element, Event &event);
    bool launch_ahead();
    void collect_ahead();
    static void read_piece(AheadWindow &w, std::size_t i);
    void read_piece_commands(AheadPiece &piece, const std::uint8_t *data, std::size_t size);

    ByteInput &in_;
    CliHeaderInfo header_;
    CliError error_ = CliError::none;
    int system_error_ = 0;
    std::uint64_t error_offset_ = 0;
    float layer_z_ = 0.0f;
    std::uint32_t layers_read_ = 0;
    std::uint8_t signed_axes_ = 0; // bit 0, 1, 2 for x, y, z: 16-bit values are signed
    bool header_read_ = false;
    bool binary_ = false;      // the geometry section is binary (after the header)
    bool short_ = false;       // the current binary command is of the short form
    bool io_failed_ = false;   // a byte could not be read
    bool eof_crossed_ = false; // a binary value ran past the end of the input
    bool silent_stop_ = false; // the last call stopped without an error recorded
    bool finished_ = false;
    bool end_seen_ = false;
    bool signed_read_ = false;
    bool long_seen_ = false;
    bool short_seen_ = false;
    std::size_t fast_skip_ = 0; // bytes the number just scanned in place leaves behind it
    std::vector<CliSkipped> skipped_;
    std::string skipped_name_; // of the unknown command just passed over
    // Reading on two threads.
    std::size_t parallel_min_ = default_parallel_min;
    std::uint64_t retry_at_ = 0; // no pieces cut before this offset
    std::unique_ptr<Ahead> ahead_;
    // Check mode.
    std::function<void(const CliProblem &)> check_;
    std::uint64_t command_at_ = 0;
    std::string bad_token_, bad_detail_; // of the error just recorded
};

} // namespace laytran
