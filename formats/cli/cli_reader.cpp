// The CLI reader: the ASCII scanner (significant characters, comments,
// tokens, numbers, texts), the binary values, the header section and the
// elements of the geometry section.
#include "formats/cli/cli_reader.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>

#include "formats/point_bytes.h"
#include "support/helper_thread.h"
#include "support/number_text.h"
#include "support/two_ends.h"

namespace laytran {

enum class CliKeyword : std::uint8_t {
    none,
    align,
    ascii,
    binary,
    date,
    dimension,
    geometryend,
    geometrystart,
    hatches,
    headerend,
    headerstart,
    label,
    layer,
    layers,
    polyline,
    units,
    userdata,
    version,
    skipped, // an unknown $$WORD/numbers command of the geometry, passed over
};

namespace {

using Keyword = CliKeyword;

constexpr int eof = ByteInput::eof;
constexpr bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
constexpr std::uint32_t keyword_capacity = 14;
constexpr std::uint32_t number_capacity = 32;
// Bytes looked at for a number that can be read in place.
constexpr std::size_t number_window = 64;
// Bytes at the start of an input in which a CLI file must begin.
constexpr std::uint64_t start_window = 0x10000;
// Distinct unknown geometry keywords counted one by one, and the longest
// name kept for one.
constexpr std::size_t skipped_max = 64;
constexpr std::uint32_t skipped_name = 32;
// Points reserved at first when the input cannot justify more; the array
// then grows as the points arrive.
constexpr std::uint64_t unknown_size_points = 256;
// Data bytes of a $$USERDATA taken at once when the input size is unknown.
constexpr std::size_t unknown_size_block = 4096;
// Binary points converted in one run, and the bytes of ASCII points looked
// at in one.
constexpr std::size_t run_points = 4096;
constexpr std::size_t ascii_run_bytes = 16384;
static_assert(sizeof(Point) == 8, "a point is two floats");

// Binary commands.
enum : std::uint32_t {
    cmd_layer_long = 127,
    cmd_layer_short = 128,
    cmd_polyline_short = 129,
    cmd_polyline_long = 130,
    cmd_hatches_short = 131,
    cmd_hatches_long = 132,
};

// Significant bytes: letters, digits and "$/,.+-"; a number's own bytes
// are those without the separators "$/,".
struct ByteClass {
    bool significant[256];
    bool number[256];
    constexpr ByteClass() : significant(), number() {
        for (int c = 0; c < 256; c++) {
            const bool alnum =
                (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
            number[c] = alnum || c == '.' || c == '+' || c == '-';
            significant[c] = number[c] || c == '$' || c == '/' || c == ',';
        }
    }
};
constexpr ByteClass byte_class;

inline bool is_significant(int c) {
    return c == eof || byte_class.significant[c & 0xFF];
}

bool is_separator(int c) {
    return c == eof || c == 0 || c == '$' || c == '/' || c == ',';
}

// The white space strtol and strtod skip.
bool is_c_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

float to_f32(double v) {
    if (v > FLT_MAX) return HUGE_VALF;
    if (v < -FLT_MAX) return -HUGE_VALF;
    return static_cast<float>(v);
}

std::uint32_t load_u32(const std::uint8_t *p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool finite_bits(std::uint32_t bits) {
    return (bits & 0x7F800000u) != 0x7F800000u;
}

struct KeywordName {
    const char *name;
    Keyword code;
    bool parameters; // "/" follows the keyword
};

const KeywordName keyword_names[] = {
    {"ALIGN", Keyword::align, false},
    {"ASCII", Keyword::ascii, false},
    {"BINARY", Keyword::binary, false},
    {"DATE", Keyword::date, true},
    {"DIMENSION", Keyword::dimension, true},
    {"DIMENSIONS", Keyword::dimension, true},
    {"GEOMETRYEND", Keyword::geometryend, false},
    {"GEOMETRYSTART", Keyword::geometrystart, false},
    {"HATCHES", Keyword::hatches, true},
    {"HEADEREND", Keyword::headerend, false},
    {"HEADERSTART", Keyword::headerstart, false},
    {"LABEL", Keyword::label, true},
    {"LAYER", Keyword::layer, true},
    {"LAYERS", Keyword::layers, true},
    {"POLYLINE", Keyword::polyline, true},
    {"UNITS", Keyword::units, true},
    {"USERDATA", Keyword::userdata, true},
    {"VERSION", Keyword::version, true},
};

const KeywordName *find_keyword(const char *token) {
    for (const KeywordName &k : keyword_names) {
        if (std::strcmp(token, k.name) == 0) return &k;
    }
    return nullptr;
}

// A label's text without the blanks and line end behind it.
std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                             text.back() == '\n'))
        text.pop_back();
    return text;
}

} // namespace

int CliReader::read_failed() {
    fail(CliError::read);
    io_failed_ = true;
    return 0;
}

bool CliReader::fail(CliError code) {
    if (error_ == CliError::none) {
        error_ = code;
        system_error_ = cli_error_has_errno(code) ? in_.error_number() : 0;
        error_offset_ = in_.offset();
    }
    return false;
}

CliKeyword CliReader::refuse(CliError code) {
    fail(code);
    return Keyword::none;
}

CliReader::Event CliReader::finish() {
    finished_ = true;
    return Event::end;
}

void CliReader::problem(CliError code, std::uint64_t offset, std::string token) {
    CliProblem p;
    p.code = code;
    p.offset = offset;
    p.token = std::move(token);
    p.detail = std::move(bad_detail_);
    bad_detail_.clear();
    check_(p);
}

// Check mode: reports the error just met (or the number that did not
// convert) and lets the next keyword read resynchronise on the next "$"
// (header and ASCII geometry only). False when reading cannot go on; at
// the end of the input the error is dropped, so that reading ends there.
bool CliReader::recover() {
    if (!check_ || binary_ || io_failed_) return false;
    if (error_ == CliError::eof || error_ == CliError::read || error_ == CliError::memory ||
        error_ == CliError::not_cli)
        return false;
    if (error_ != CliError::none) {
        // A keyword or a stray character is placed where its command began.
        const bool command = error_ == CliError::keyword || error_ == CliError::format;
        problem(error_, command ? command_at_ : error_offset_, std::move(bad_token_));
    } else if (silent_stop_) {
        if (bad_detail_.empty()) bad_detail_ = "a number was expected";
        problem(CliError::number, command_at_, std::move(bad_token_));
        fail(CliError::number); // the next keyword read resynchronises
    } else {
        return false;
    }
    bad_token_.clear();
    silent_stop_ = false;
    if (at_end()) {
        error_ = CliError::none;
        if (!header_read_) fail(CliError::eof); // the header never ended
        return false;
    }
    return true;
}

// The end of the input: the next byte is the end or cannot be read. Any
// other byte is given back.
bool CliReader::at_end() {
    int c = getc();
    if (c == eof || io_failed_) return true;
    ungetc(c);
    return false;
}

// The next significant character, lower case raised; "//" comments run to a
// line feed (delivered) or to a single "/" (the byte after it is dropped)
// or to a "//" (delivered as "/"). 0 after a failure.
int CliReader::next_char() {
    for (;;) {
        int c;
        do {
            c = getc();
        } while (!is_significant(c) && error_ == CliError::none);
        if (c == '/') {
            int d = getc();
            if (d != '/') {
                ungetc(d);
                return '/';
            }
            for (;;) {
                c = getc();
                if (io_failed_) return 0;
                if (c == eof) return fail(CliError::eof);
                if (c == '\n') return '\n';
                if (c == '/') break;
            }
            d = getc();
            if (d == '/') return '/';
            if (io_failed_) return 0;
            continue; // the byte after a lone "/" is dropped
        }
        return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
    }
}

// Up to capacity - 1 significant characters up to a separator (given back).
// A keyword also ends at the line feed that closes a comment behind it
// ("$$BINARY // note"); a longer keyword is cut, the rest staying in the
// input. A number that does not fit records an illegal number.
bool CliReader::read_token(char *token, std::uint32_t capacity, bool keyword) {
    const std::uint32_t last = capacity - 1;
    std::uint32_t n = 0;
    for (;;) {
        if (n == last && keyword) break;
        // In a binary file the geometry starts right behind $$HEADEREND.
        if (n == 9 && !header_read_ && header_.geometry == CliGeometry::binary &&
            std::memcmp(token, "HEADEREND", 9) == 0)
            break;
        int c = next_char();
        if (error_ != CliError::none) return false;
        if (is_separator(c)) {
            ungetc(c);
            break;
        }
        if (n == last) {
            if (c != '\n') return fail(CliError::number);
            ungetc(c);
            break;
        }
        if (keyword && c == '\n' && n > 0) break;
        token[n++] = static_cast<char>(c);
    }
    token[n] = '\0';
    return true;
}

// One "," after a number is taken; anything else is given back.
void CliReader::skip_comma() {
    int c = next_char();
    if (c != ',') ungetc(c);
}

// The text of the next number. A number that stands plainly (its bytes,
// blanks, then "," or "$") is read where it lies in the input, which is
// then left at that separator; any other goes through the scanner into
// scratch. Once the number converted, number_taken() takes the "," behind
// it, so that both ways leave the input alike.
bool CliReader::number_token(const char *&first, const char *&last, char *scratch) {
    if (error_ == CliError::none) {
        if (const std::uint8_t *p = in_.contiguous(number_window)) {
            std::size_t n = 0;
            while (n < number_capacity && byte_class.number[p[n]])
                n++;
            std::size_t k = n;
            while (k < number_window && !byte_class.significant[p[k]])
                k++;
            if (n < number_capacity && k < number_window && (p[k] == ',' || p[k] == '$')) {
                first = reinterpret_cast<const char *>(p);
                last = first + n;
                fast_skip_ = p[k] == ',' ? 1 : 0;
                in_.skip(k);
                return true;
            }
        }
    }
    fast_skip_ = SIZE_MAX;
    if (!read_token(scratch, number_capacity, false)) return false;
    first = scratch;
    last = scratch + std::strlen(scratch);
    return true;
}

void CliReader::number_taken() {
    if (fast_skip_ == SIZE_MAX)
        skip_comma();
    else
        in_.skip(fast_skip_);
}

bool CliReader::ascii_integer(std::uint32_t &out, std::string *text) {
    char scratch[number_capacity];
    const char *first = nullptr, *last = nullptr;
    if (!number_token(first, last, scratch)) return false;
    long v = 0;
    const char *end = first + scan_long(first, last, &v);
    // A comment behind the number leaves its line feed in the token.
    if (end != last && !is_c_space(*end)) {
        silent_stop_ = true;
        bad_token_.assign(first, last);
        return false;
    }
    if (text) {
        const char *from = first;
        while (from < end && is_c_space(*from))
            from++;
        text->assign(from, end);
    }
    out = static_cast<std::uint32_t>(v);
    number_taken();
    return true;
}

bool CliReader::ascii_double(double &out, std::string *text) {
    char scratch[number_capacity];
    const char *first = nullptr, *last = nullptr;
    if (!number_token(first, last, scratch)) return false;
    double v = 0.0;
    const std::size_t used = scan_double(first, last, &v);
    if (used == 0) {
        silent_stop_ = true;
        bad_token_.assign(first, last);
        return false;
    }
    // The C library reads "nan" as a number; it is refused as in binary data.
    if (!std::isfinite(v)) {
        const CliError code = v != v ? CliError::nan : CliError::infinite;
        if (!check_) {
            bad_token_.assign(first, last);
            return fail(code);
        }
        problem(code, in_.offset(), std::string(first, last));
        v = 0.0;
    }
    if (text) {
        const char *from = first;
        while (is_c_space(*from))
            from++;
        text->assign(from, first + used);
    }
    out = v;
    number_taken();
    return true;
}

bool CliReader::ascii_real(float &out) {
    double v = 0.0;
    if (!ascii_double(v)) return false;
    float f = to_f32(v);
    if (!std::isfinite(f)) {
        if (!check_) return fail(CliError::infinite);
        problem(CliError::infinite, in_.offset(), {});
        f = 0.0f;
    }
    out = f;
    return true;
}

// Skips bytes until the offset is a multiple of 4 (aligned binary geometry
// only); the end of the input ends the skip.
bool CliReader::align_skip(bool align) {
    if (!binary_ || !align) return true;
    while (in_.offset() % 4 != 0) {
        int c = getc();
        if (io_failed_) return false;
        if (c == eof) break;
    }
    return true;
}

// Little-endian 16-bit value; a byte past the end of the input reads as 255
// and marks eof_crossed_.
bool CliReader::binary_u16(std::uint32_t &out, bool align) {
    int lo = getc();
    int hi = getc();
    if (io_failed_) return fail(CliError::read);
    if (lo == eof || hi == eof) eof_crossed_ = true;
    out = static_cast<std::uint32_t>(lo & 0xFF) | static_cast<std::uint32_t>(hi & 0xFF) << 8;
    return align_skip(align);
}

// Both halves of a 32-bit value stay together: padding only behind it.
bool CliReader::binary_u32(std::uint32_t &out, bool align) {
    std::uint32_t lo = 0, hi = 0;
    if (!binary_u16(lo, false) || !binary_u16(hi, false)) return false;
    out = hi << 16 | lo;
    return align_skip(align);
}

// A binary real of the axis 0, 1 or 2 (x, y, z): 16-bit values of an axis
// whose declared minimum is negative are signed.
bool CliReader::binary_real(float &out, int axis, bool align) {
    std::uint32_t bits = 0;
    float f;
    if (short_) {
        if (!binary_u16(bits, align)) return false;
        f = static_cast<float>(bits);
        if (signed_axes_ & (1 << axis)) {
            signed_read_ = true;
            if (bits >= 0x8000) f -= 65536.0f;
        }
    } else {
        if (!binary_u32(bits, align)) return false;
        std::memcpy(&f, &bits, sizeof f);
        // Bytes missing at the end of the input read as 255, which looks
        // like a NaN: report the end of the input instead.
        if (eof_crossed_) return fail(CliError::eof);
    }
    if (!std::isfinite(f)) {
        // Placed where the value begins.
        const CliError code = f != f ? CliError::nan : CliError::infinite;
        if (!check_) {
            if (error_ == CliError::none && !fail(code)) error_offset_ = in_.offset() - 4;
            return false;
        }
        problem(code, in_.offset() - 4, {});
        f = 0.0f;
    }
    out = f;
    return align_skip(align);
}

bool CliReader::read_integer(std::uint32_t &out) {
    if (!binary_) return ascii_integer(out);
    return short_ ? binary_u16(out, header_.aligned) : binary_u32(out, header_.aligned);
}

bool CliReader::read_real(float &out, int axis, bool align) {
    return binary_ ? binary_real(out, axis, align) : ascii_real(out);
}

// Bytes taken as they come up to a separator (given back).
bool CliReader::read_text(std::string &text) {
    text.clear();
    for (;;) {
        int c = getc();
        if (is_separator(c)) {
            ungetc(c);
            break;
        }
        text.push_back(static_cast<char>(c));
    }
    return !io_failed_;
}

void CliReader::count_skipped(const std::string &name) {
    std::size_t i = 0;
    while (i < skipped_.size() && skipped_[i].name != name)
        i++;
    if (i >= skipped_max) {
        i = skipped_max;
        if (skipped_.size() == skipped_max) skipped_.push_back({});
    } else if (i == skipped_.size()) {
        skipped_.push_back({name, 0});
    }
    skipped_[i].count++;
}

// An unknown command in ASCII geometry of the form $$WORD/numbers, such as
// the process parameters other tools write ($$POWER/100.0), passed over and
// counted; name holds the letters read so far (room for skipped_name
// bytes). False for anything else.
bool CliReader::skip_command(std::string &name) {
    if (name.size() == keyword_capacity - 1) {
        char rest[skipped_name];
        if (!read_token(rest, skipped_name - keyword_capacity + 1, true)) return false;
        name += rest;
    }
    for (char c : name) {
        if (c < 'A' || c > 'Z') return false;
    }
    if (name.empty()) return false;
    const int c = next_char();
    if (c != '/') {
        ungetc(c); // for check mode, which reads on from there
        return false;
    }
    for (;;) {
        char token[number_capacity];
        if (!read_token(token, number_capacity, false)) return false;
        double v = 0.0;
        const std::size_t used = scan_double(token, token + std::strlen(token), &v);
        if (used == 0 || (token[used] != '\0' && !is_c_space(token[used]))) return false;
        int c = next_char();
        if (c != ',') {
            ungetc(c);
            break;
        }
    }
    return true;
}

CliKeyword CliReader::ascii_keyword() {
    if (error_ == CliError::none) {
        const int c = next_char();
        command_at_ = in_.offset() - 1;
        if (c != '$') {
            if (c > 0) bad_token_ = std::string(1, static_cast<char>(c));
            return refuse(CliError::format);
        }
    } else {
        // Resynchronise on the next "$"; reaching it clears the error.
        if (at_end()) return Keyword::none;
        for (;;) {
            int c = next_char();
            if (c == '$') break;
            if (c == eof || io_failed_) return Keyword::none;
        }
        error_ = CliError::none;
        system_error_ = 0;
        error_offset_ = 0;
        bad_token_.clear();
        command_at_ = in_.offset() - 1;
    }
    if (next_char() != '$') return refuse(CliError::format);
    char token[keyword_capacity];
    if (!read_token(token, keyword_capacity, true)) return Keyword::none;
    const KeywordName *k = find_keyword(token);
    if (!k) {
        std::string name = token;
        if (header_read_ && skip_command(name)) {
            skipped_name_ = std::move(name);
            return Keyword::skipped;
        }
        bad_token_ = "$$" + name;
        return refuse(CliError::keyword);
    }
    if (k->parameters && next_char() != '/') return refuse(CliError::format);
    return k->code;
}

CliKeyword CliReader::binary_keyword() {
    std::uint32_t command = 0;
    eof_crossed_ = false;
    command_at_ = in_.offset();
    if (!binary_u16(command, header_.aligned))
        return at_end() ? Keyword::geometryend : Keyword::none;
    if (eof_crossed_) return refuse(CliError::eof);
    switch (command) {
    case cmd_layer_long:
    case cmd_polyline_long:
    case cmd_hatches_long:
        short_ = false;
        long_seen_ = true;
        break;
    case cmd_layer_short:
    case cmd_polyline_short:
    case cmd_hatches_short:
        short_ = true;
        short_seen_ = true;
        break;
    default:
        // Placed where the command begins, with its number as the token.
        if (error_ == CliError::none) {
            fail(CliError::keyword);
            error_offset_ = command_at_;
            bad_token_ = std::to_string(command);
        }
        return Keyword::none;
    }
    if (command <= cmd_layer_short) return Keyword::layer;
    if (command <= cmd_polyline_long) return Keyword::polyline;
    return Keyword::hatches;
}

CliKeyword CliReader::read_keyword() {
    return binary_ ? binary_keyword() : ascii_keyword();
}

bool CliReader::expect_keyword(Keyword code) {
    if (code == Keyword::geometrystart && binary_) return true;
    if (read_keyword() != code) return fail(CliError::format);
    return true;
}

bool CliReader::read_label() {
    Label label;
    std::string id_text, text;
    if (!ascii_integer(label.id, &id_text) || !read_text(text)) return false;
    label.text = trimmed(std::move(text));
    header_.fields.push_back({"LABEL", id_text + "," + label.text});
    header_.labels.push_back(std::move(label));
    return true;
}

// The data block of a $$USERDATA is taken as far as the input can justify
// it and grows as the bytes arrive; a short block fails.
bool CliReader::read_user_data() {
    CliUserData user;
    std::string length_text;
    std::uint32_t length = 0;
    if (!read_text(user.uid)) return false;
    skip_comma();
    if (error_ != CliError::none || !ascii_integer(length, &length_text)) return false;
    if (length > 0) {
        if (in_.size_known() && length > in_.remaining()) return fail(CliError::eof);
        std::size_t cap =
            in_.size_known() || length < unknown_size_block ? length : unknown_size_block;
        std::size_t got = 0;
        for (;;) {
            user.data.resize(cap);
            got += in_.read(&user.data[got], cap - got);
            if (got < cap || cap == length) break;
            cap = length - cap > cap ? cap * 2 : length;
        }
        if (got < length) {
            if (in_.failed()) read_failed();
            return fail(CliError::eof);
        }
    }
    header_.fields.push_back({"USERDATA", user.uid + "," + length_text});
    header_.user_data.push_back(std::move(user));
    return true;
}

bool CliReader::read_header_keywords() {
    CliHeaderInfo &h = header_;
    if (!expect_keyword(Keyword::headerstart)) return false;
    for (;;) {
        const Keyword code = read_keyword();
        bool ok = true;
        std::string text;
        switch (code) {
        case Keyword::headerend:
            return true;
        case Keyword::none:
            // Not at the end: the next keyword read resynchronises.
            if (check_ && error_ != CliError::none && !recover()) return false;
            if (at_end()) return false;
            break;
        case Keyword::align:
            h.aligned = true;
            h.fields.push_back({"ALIGN", ""});
            break;
        case Keyword::ascii:
            h.geometry = CliGeometry::ascii;
            h.fields.push_back({"ASCII", ""});
            break;
        case Keyword::binary:
            h.geometry = CliGeometry::binary;
            h.fields.push_back({"BINARY", ""});
            break;
        case Keyword::date:
            ok = ascii_integer(h.date, &text);
            if (ok) h.fields.push_back({"DATE", text});
            break;
        case Keyword::dimension: {
            // The maximum corner comes first; some tools give the minimum first.
            double *order[6] = {&h.xmax, &h.ymax, &h.zmax, &h.xmin, &h.ymin, &h.zmin};
            double values[6] = {};
            std::string all, one;
            for (int i = 0; ok && i < 6; i++) {
                ok = ascii_double(values[i], &one);
                all += (i ? "," : "") + one;
            }
            if (!ok) break;
            for (int i = 0; i < 3; i++) {
                if (values[i] < values[i + 3]) std::swap(values[i], values[i + 3]);
            }
            for (int i = 0; i < 6; i++)
                *order[i] = values[i];
            h.has_dimension = true;
            h.fields.push_back({"DIMENSION", all});
            break;
        }
        case Keyword::label:
            ok = read_label();
            break;
        case Keyword::layers:
            ok = ascii_integer(h.layers, &text);
            if (ok) h.fields.push_back({"LAYERS", text});
            break;
        case Keyword::units: {
            double units = 0.0;
            ok = ascii_double(units, &text);
            if (ok) h.units = to_f32(units);
            if (ok && std::isinf(h.units)) ok = fail(CliError::infinite);
            if (ok) h.fields.push_back({"UNITS", text});
            break;
        }
        case Keyword::userdata:
            ok = read_user_data();
            break;
        case Keyword::version:
            ok = ascii_integer(h.version, &text);
            if (ok) h.fields.push_back({"VERSION", text});
            break;
        default:
            // A geometry keyword in the header is passed over, unless the
            // input ends with it.
            if (at_end()) return fail(CliError::keyword);
            break;
        }
        if (!ok && !recover()) return false;
    }
}

// Passes over what may stand before $$HEADERSTART: bytes the scanner skips
// anyway and "//" comment lines, as other tools write them. Any other byte
// is left for the header to take or refuse; when none comes within the
// first 64 KiB, the input is not a CLI file.
bool CliReader::skip_preamble() {
    for (;;) {
        if (in_.offset() >= start_window) return fail(CliError::not_cli);
        int c = getc();
        if (io_failed_) return false;
        if (c == '/') {
            int d = getc();
            if (d != '/') {
                ungetc(d);
                ungetc(c);
                return true;
            }
            while (c != '\n') {
                if (in_.offset() >= start_window) return fail(CliError::not_cli);
                c = getc();
                if (io_failed_) return false;
                if (c == eof) return fail(CliError::eof);
            }
        } else if (is_significant(c)) {
            ungetc(c);
            return true;
        }
    }
}

bool CliReader::read_header() {
    binary_ = false;
    const bool ok = skip_preamble() && read_header_keywords();
    if (ok) {
        CliHeaderInfo &h = header_;
        binary_ = h.geometry == CliGeometry::binary;
        if (h.units == 0.0f) h.units = 1.0f;
        // Some tools store 16-bit coordinates signed when the part lies
        // partly below zero, which the declared dimensions then show.
        if (h.has_dimension)
            signed_axes_ = static_cast<std::uint8_t>((h.xmin < 0.0) | (h.ymin < 0.0) << 1 |
                                                     (h.zmin < 0.0) << 2);
    }
    if (!ok || !align_skip(header_.aligned) || !expect_keyword(Keyword::geometrystart))
        return false;
    header_read_ = true;
    return true;
}

// Room for the points of e from point i on, as far as the input justifies
// it: all of them when an input of known size holds the binary bytes of the
// points still to come (a count it cannot hold fails); otherwise twice the
// points read so far, at most what the bytes left can hold in the densest
// ASCII ("1,1," a point).
bool CliReader::reserve_from(CliElement &e, std::uint64_t count, std::size_t i) {
    std::uint64_t n = count;
    if (in_.size_known() && binary_) {
        if ((n - i) * (short_ ? 4 : 8) > in_.remaining()) return fail(CliError::eof);
    } else {
        std::uint64_t step = std::max<std::uint64_t>(i, unknown_size_points);
        if (in_.size_known()) step = std::min(step, (in_.remaining() + 1) / 4);
        n = std::min(n, i + std::max<std::uint64_t>(step, 1));
    }
    try {
        e.points.reserve(static_cast<std::size_t>(n));
    } catch (const std::bad_alloc &) {
        return fail(CliError::memory);
    }
    return true;
}

// Up to n binary points converted straight from the input's block: the
// points of one element follow each other without padding once the count
// before them is aligned. A long-form value that is not finite ends the run
// before its point, which the value-by-value path then refuses. The number
// of points taken (0 when the bytes are not at hand).
std::size_t CliReader::binary_run(CliElement &e, std::size_t n) {
    const std::size_t size = short_ ? 4 : 8;
    if (header_.aligned && in_.offset() % 4 != 0) return 0;
    n = std::min(n, run_points);
    const std::uint8_t *p = in_.contiguous(n * size);
    if (!p) return 0;
    std::size_t done = 0;
    if (short_) {
        e.extremes.known = false;
        const std::size_t at = e.points.size();
        e.points.resize(at + n);
        Point *to = e.points.data() + at;
        const bool sx = signed_axes_ & 1, sy = signed_axes_ & 2;
        for (; done < n; done++, p += 4) {
            const std::uint32_t x = p[0] | static_cast<std::uint32_t>(p[1]) << 8;
            const std::uint32_t y = p[2] | static_cast<std::uint32_t>(p[3]) << 8;
            float fx = static_cast<float>(x), fy = static_cast<float>(y);
            if (sx && x >= 0x8000) fx -= 65536.0f;
            if (sy && y >= 0x8000) fy -= 65536.0f;
            to[done] = {fx, fy};
        }
        if (sx || sy) signed_read_ = true;
    } else {
        // The values are checked all at once (their extremes taken on the
        // way), then copied as they stand: a point in memory is the two
        // little-endian floats of the file.
        bool finite = true;
        if (little_endian) {
            const PointScan scan = scan_point_bytes(p, n);
            widen(e.extremes, scan);
            finite = scan.finite;
        } else {
            for (std::size_t k = 0; k < 2 * n; k++)
                finite &= finite_bits(load_u32(p + 4 * k));
        }
        if (!finite) {
            while (finite_bits(load_u32(p + 8 * done)) && finite_bits(load_u32(p + 8 * done + 4)))
                done++;
        } else {
            done = n;
        }
        if (little_endian) {
            e.points.insert(e.points.end(), PointBytes(p), PointBytes(p + done * size));
        } else {
            for (std::size_t k = 0; k < done; k++) {
                const std::uint32_t x = load_u32(p + 8 * k), y = load_u32(p + 8 * k + 4);
                Point q;
                std::memcpy(&q.x, &x, 4);
                std::memcpy(&q.y, &y, 4);
                e.points.push_back(q);
            }
        }
    }
    in_.skip(done * size);
    return done;
}

// Up to n ASCII points read straight from the input's block, each value as
// ascii_real reads it when its text stands plainly: blanks, the number's
// own bytes, blanks and the "," behind it. A point whose values do not all
// stand so, or do not convert to finite floats, ends the run before it,
// for the value-by-value path to read. The number of points taken.
std::size_t CliReader::ascii_run(CliElement &e, std::size_t n) {
    if (error_ != CliError::none) return 0;
    // Near the end of the input, the bytes left.
    std::size_t bytes = ascii_run_bytes;
    const std::uint8_t *start = in_.contiguous(bytes);
    if (!start) {
        bytes = in_.available();
        if (bytes <= number_window) return 0;
        start = in_.contiguous(bytes);
    }
    // Each value is decided within the same window as number_token's.
    const std::uint8_t *const stop = start + bytes - number_window;
    n = std::min(n, ascii_run_bytes / 4);
    // The points go to the element once read: the densest text ("1,1,")
    // would need n of them, the usual one holds a quarter of that.
    Point to[ascii_run_bytes / 4];
    const std::uint8_t *p = start;
    std::size_t done = 0;
    while (done < n) {
        const std::uint8_t *q = p;
        float xy[2];
        double v = 0.0;
        int k = 0;
        for (; k < 2; k++) {
            while (q < stop && !byte_class.significant[*q])
                q++;
            if (q >= stop) break;
            // A value written plainly, with its "," right behind it.
            if (const std::size_t plain = scan_plain_decimal(q, &v); plain && q[plain] == ',') {
                xy[k] = static_cast<float>(v);
                q += plain + 1;
                continue;
            }
            // The value, then the rest of the token, the blanks and the ",".
            const char *text = reinterpret_cast<const char *>(q);
            std::size_t len = scan_exact_decimal(text, text + number_capacity, &v);
            const bool exact = len > 0;
            while (len < number_capacity && byte_class.number[q[len]])
                len++;
            std::size_t end = len;
            while (end < number_window && !byte_class.significant[q[end]])
                end++;
            if (len == 0 || len >= number_capacity || end >= number_window || q[end] != ',') break;
            if (!exact && (scan_double(text, text + len, &v) == 0 || !std::isfinite(v))) break;
            const float f = to_f32(v);
            if (!std::isfinite(f)) break;
            xy[k] = f;
            q += end + 1;
        }
        if (k < 2) break;
        to[done++] = {xy[0], xy[1]};
        p = q;
    }
    e.points.insert(e.points.end(), to, to + done);
    in_.skip(static_cast<std::size_t>(p - start));
    return done;
}

bool CliReader::read_points(CliElement &e, std::uint32_t count) {
    e.points.clear();
    // Taken by the binary long-form runs of a little-endian host only.
    e.extremes = {};
    e.extremes.known = binary_ && little_endian;
    if (eof_crossed_) return fail(CliError::eof);
    std::size_t i = 0;
    while (i < count) {
        // The first call checks the count against the input, whatever room
        // the array has from earlier elements.
        if ((i == 0 || i >= e.points.capacity()) && !reserve_from(e, count, i)) return false;
        const std::size_t room = std::min<std::size_t>(count, e.points.capacity()) - i;
        if (const std::size_t done = binary_ ? binary_run(e, room) : ascii_run(e, room)) {
            i += done;
            continue;
        }
        e.extremes.known = false; // a point read alone
        Point p;
        if (!read_real(p.x, 0, false) || !read_real(p.y, 1, header_.aligned)) {
            if (check_ && silent_stop_)
                bad_detail_ = (e.kind == CliElementKind::hatches
                                   ? "$$HATCHES declares " + std::to_string(count / 2) +
                                         " hatches (" + std::to_string(count) + " points)"
                                   : "$$POLYLINE declares " + std::to_string(count) + " points") +
                              ", but only " + std::to_string(i) + " follow";
            return false;
        }
        if (eof_crossed_) return fail(CliError::eof);
        e.points.push_back(p);
        i++;
    }
    return true;
}

bool CliReader::read_polyline(CliElement &e) {
    e.kind = CliElementKind::polyline;
    std::uint32_t count = 0;
    if (!read_integer(e.id) || !read_integer(e.direction) || !read_integer(count)) return false;
    return read_points(e, count);
}

bool CliReader::read_hatches(CliElement &e) {
    e.kind = CliElementKind::hatches;
    e.direction = 0;
    std::uint32_t hatches = 0;
    if (!read_integer(e.id) || !read_integer(hatches)) return false;
    if (hatches > UINT32_MAX / 2) return fail(CliError::eof);
    return read_points(e, 2 * hatches);
}

bool CliReader::read_layer() {
    float z = 0.0f;
    if (!read_real(z, 2, header_.aligned)) return false;
    if (eof_crossed_) return fail(CliError::eof);
    layer_z_ = z;
    layers_read_++;
    return true;
}

CliReader::Event CliReader::next(CliElement &element) {
    silent_stop_ = false;
    if (finished_) return Event::end;
    if (!header_read_ && !read_header()) return finish();
    if (Event event; ahead_event(element, event)) return event;
    if (at_end()) return finish();
    for (;;) {
        switch (read_keyword()) {
        case Keyword::geometryend:
            if (!binary_) end_seen_ = true;
            return finish();
        case Keyword::none:
            if (recover()) continue;
            return finish();
        case Keyword::polyline:
            if (read_polyline(element)) return Event::element;
            if (recover()) continue;
            return finish();
        case Keyword::hatches:
            if (read_hatches(element)) return Event::element;
            if (recover()) continue;
            return finish();
        case Keyword::layer:
            if (read_layer()) return Event::layer;
            if (recover()) continue;
            return finish();
        case Keyword::skipped:
            count_skipped(skipped_name_);
            break;
        default:
            break;
        }
        if (at_end()) return finish();
    }
}

// Reading on two threads

// An event read ahead: a layer, an element or an unknown command passed
// over, and where its command began from the start of its piece.
struct CliReader::AheadEvent {
    enum Kind : std::uint8_t { layer, element, skipped };
    Kind kind = layer;
    float z = 0.0f;
    std::uint64_t at = 0;
    CliElement item;
    std::string name;
};

// Whole commands from where one begins up to where the next piece's begins.
struct CliReader::AheadPiece {
    std::size_t begin = 0, end = 0; // in the window
    std::vector<AheadEvent> events; // [0, count) read, the rest kept for their memory
    std::size_t count = 0;
    std::size_t consumed = 0; // bytes up to the end of the last event's command
    bool complete = false;    // nothing else up to the end
};

// Geometry text at hand in the input's block, cut into pieces.
struct CliReader::AheadWindow {
    const std::uint8_t *data = nullptr;
    std::uint64_t base = 0; // the input offset of data[0]
    std::vector<AheadPiece> pieces;
    std::size_t count = 0; // pieces in use
    TwoEnds ends;
};

// Two windows: one whose events are handed out while the helper reads the
// other. A window's bytes stay untouched in the block while it is read: the
// input is not read from until it has been collected.
struct CliReader::Ahead {
    HelperThread helper;
    AheadWindow windows[2];
    AheadWindow *reading = nullptr;   // handed to the helper, not yet collected
    AheadWindow *replaying = nullptr; // events handed out from [piece, used)
    std::size_t piece = 0, event = 0, used = 0;
};

CliReader::CliReader(ByteInput &in) : in_(in) {}

CliReader::~CliReader() {
    if (ahead_ && ahead_->reading) ahead_->helper.wait();
}

namespace {

// Where commands begin at a line start ("$$" behind a line feed) in the
// window data: the first in [from, end) (end when none; 1 <= from, end + 2
// <= the window's size), and the last in the window of `size` bytes (0 when
// none).
std::size_t next_cut(const std::uint8_t *data, std::size_t from, std::size_t end) {
    for (std::size_t i = from; i < end; i++) {
        const void *line = std::memchr(data + i - 1, '\n', end - i);
        if (!line) break;
        i = static_cast<std::size_t>(static_cast<const std::uint8_t *>(line) - data) + 1;
        if (data[i] == '$' && data[i + 1] == '$') return i;
    }
    return end;
}

std::size_t last_cut(const std::uint8_t *data, std::size_t size) {
    for (std::size_t n = size - 2; n > 0;) {
        const void *line = memrchr(data, '\n', n);
        if (!line) break;
        n = static_cast<std::size_t>(static_cast<const std::uint8_t *>(line) - data);
        if (data[n + 1] == '$' && data[n + 2] == '$') return n + 1;
    }
    return 0;
}

} // namespace

// The next event read ahead, reading ahead when it can; false when this
// thread reads on alone.
bool CliReader::ahead_event(CliElement &element, Event &event) {
    if (!ahead_ && (check_ || binary_ || in_.offset() < retry_at_)) return false;
    for (;;) {
        if (ahead_ && ahead_->replaying && replay(element, event)) return true;
        if (ahead_ && ahead_->reading) {
            collect_ahead();
            continue;
        }
        if (!launch_ahead()) return false;
    }
}

bool CliReader::replay(CliElement &element, Event &event) {
    Ahead &a = *ahead_;
    AheadWindow &w = *a.replaying;
    for (; a.piece < a.used; a.piece++, a.event = 0) {
        AheadPiece &p = w.pieces[a.piece];
        while (a.event < p.count) {
            AheadEvent &e = p.events[a.event++];
            command_at_ = w.base + p.begin + e.at;
            switch (e.kind) {
            case AheadEvent::skipped:
                count_skipped(e.name);
                continue;
            case AheadEvent::layer:
                layer_z_ = e.z;
                layers_read_++;
                event = Event::layer;
                return true;
            case AheadEvent::element:
                element.kind = e.item.kind;
                element.id = e.item.id;
                element.direction = e.item.direction;
                // The caller's array serves a later piece.
                element.points.swap(e.item.points);
                event = Event::element;
                return true;
            }
        }
    }
    a.replaying = nullptr;
    return false;
}

// Cuts the geometry text at hand into pieces and hands them to the helper
// and this thread, when there is enough of it.
bool CliReader::launch_ahead() {
    if (check_ || binary_ || !header_read_ || finished_ || error_ != CliError::none || io_failed_ ||
        parallel_min_ == SIZE_MAX)
        return false;
    const std::uint64_t at = in_.offset();
    if (at < retry_at_ || !in_.settle_pushback()) return false;
    std::size_t size = in_.available();
    // A file is read on for a full window; a pipe gives what it has.
    if (size < parallel_min_ && in_.size_known() && !in_.at_end() && in_.contiguous(parallel_min_))
        size = in_.available();
    if (size < parallel_min_ || size < number_window) {
        retry_at_ = at + std::max<std::size_t>(size, 1);
        return false;
    }
    // A window of at most four times that (memory gives the whole input at
    // hand), in pieces of a sixteenth of it: small enough for the two
    // threads to end close together.
    if (size / 4 > parallel_min_) size = 4 * parallel_min_;
    const std::uint8_t *data = in_.contiguous(size);
    // The text up to the last command that begins in the window.
    const std::size_t end = last_cut(data, size);
    const std::size_t piece_bytes = std::max<std::size_t>(parallel_min_ / 16, 1);
    if (end < 2 * piece_bytes) {
        retry_at_ = at + (end > 0 ? end : size);
        return false;
    }
    try {
        if (!ahead_) ahead_.reset(new Ahead);
        Ahead &a = *ahead_;
        AheadWindow &w = a.windows[a.replaying == &a.windows[0] ? 1 : 0];
        w.data = data;
        w.base = at;
        w.count = 0;
        for (std::size_t begin = 0; begin < end;) {
            const std::size_t cut = next_cut(data, std::min(begin + piece_bytes, end), end);
            if (w.count == w.pieces.size()) w.pieces.emplace_back();
            w.pieces[w.count].begin = begin;
            w.pieces[w.count++].end = cut;
            begin = cut;
        }
        w.ends.reset(w.count);
        a.helper.run([&w] {
            for (std::size_t i; w.ends.take_back(i);)
                read_piece(w, i);
        });
        a.reading = &w;
    } catch (const std::bad_alloc &) {
        retry_at_ = at + end;
        return false;
    }
    return true;
}

// This thread's share of the pieces, then the helper's; the events up to
// the first piece that did not read to its end are handed out, and the
// input goes on behind them. The next window is cut at once when all went.
void CliReader::collect_ahead() {
    Ahead &a = *ahead_;
    AheadWindow &w = *a.reading;
    for (std::size_t i; w.ends.take_front(i);)
        read_piece(w, i);
    a.helper.wait();
    a.reading = nullptr;
    std::size_t used = 0, taken = 0;
    bool complete = true;
    while (complete && used < w.count) {
        const AheadPiece &p = w.pieces[used++];
        complete = p.complete;
        taken = complete ? p.end : p.begin + p.consumed;
    }
    in_.skip(taken);
    a.replaying = &w;
    a.piece = a.event = 0;
    a.used = used;
    // What stopped the piece is read by this thread alone.
    if (!complete)
        retry_at_ = w.base + taken + 1;
    else
        launch_ahead();
}

// Piece i of the window, read by a reader of its own (on either thread).
void CliReader::read_piece(AheadWindow &w, std::size_t i) {
    AheadPiece &p = w.pieces[i];
    p.count = p.consumed = 0;
    p.complete = false;
    try {
        ByteInput in(w.data + p.begin, p.end - p.begin);
        CliReader reader(in);
        reader.read_piece_commands(p, w.data + p.begin, p.end - p.begin);
    } catch (const std::bad_alloc &) {
        p.complete = false; // the events read so far stand
    }
}

void CliReader::read_piece_commands(AheadPiece &piece, const std::uint8_t *data, std::size_t size) {
    header_read_ = true;
    for (;;) {
        const std::size_t at = static_cast<std::size_t>(in_.offset());
        piece.consumed = at;
        std::size_t k = at;
        while (k < size && !byte_class.significant[data[k]])
            k++;
        if (k == size) {
            piece.complete = true;
            return;
        }
        if (piece.count == piece.events.size()) piece.events.emplace_back();
        AheadEvent &e = piece.events[piece.count];
        const Keyword code = read_keyword();
        e.at = command_at_;
        bool ok = false;
        if (code == Keyword::polyline || code == Keyword::hatches) {
            e.kind = AheadEvent::element;
            ok = code == Keyword::polyline ? read_polyline(e.item) : read_hatches(e.item);
        } else if (code == Keyword::layer) {
            e.kind = AheadEvent::layer;
            ok = read_layer();
            e.z = layer_z_;
        } else if (code == Keyword::skipped) {
            e.kind = AheadEvent::skipped;
            e.name = skipped_name_;
            ok = true;
        }
        if (!ok || error_ != CliError::none || silent_stop_) return;
        piece.count++;
    }
}

} // namespace laytran
