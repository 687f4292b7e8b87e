// The FDM slice file reader.
//
// Bytes outside the accepted set are dropped, letters are upper-cased, "#"
// starts a comment to the end of the line, and white space and parentheses
// separate the words.
#include <climits>
#include <cmath>
#include <cstring>

#include "formats/fdm/fdm_io.h"
#include "support/number_text.h"

namespace laytran {

namespace {

const char *const error_texts[] = {
    "success",
    "premature EOF (illegal format or truncated file or $$GEOMETRYEND missing?)",
    "read error",
    "write error",
    "open error",
    "floating-point value is NaN",
    "illegal number",
    "illegal character",
    "illegal keyword",
    "illegal file format",
    "too few layers",
    "no more memory",
    "error in context (programming error?)",
    "illegal argument (programming error?)",
    "not an FDM file",
};

enum : int {
    kw_fail = -1,
    kw_none = 0,
    kw_c = 1,
    kw_end = 2,
    kw_file = 3,
    kw_o = 4,
    kw_slice = 5,
    kw_slices = 6,
    kw_v = 7,
    kw_z = 8,
};
const char *const keywords[] = {"C", "END", "FILE", "O", "SLICE", "SLICES", "V", "Z"};

constexpr int end_of_input = ByteInput::eof; // also as a pushed-back character
constexpr int read_failed = -2;              // an error was recorded
constexpr std::uint32_t number_token_max = 49, word_token_max = 30;
constexpr int version_11 = 11;
constexpr std::size_t field_text_max = 1024; // characters of a header value kept
// Doubles below this in magnitude round to a finite float, as the model keeps
// coordinates.
constexpr double f32_limit = 0x1.ffffffp+127;

// Character classes of the filter.
enum : std::uint8_t { ch_drop, ch_space, ch_keep, ch_lower, ch_comment };

struct CharTable {
    std::uint8_t cls[256];
};

constexpr CharTable make_char_table() {
    CharTable t = {};
    for (int c = '0'; c <= '9'; c++)
        t.cls[c] = ch_keep;
    for (int c = 'A'; c <= 'Z'; c++)
        t.cls[c] = ch_keep;
    for (int c = 'a'; c <= 'z'; c++)
        t.cls[c] = ch_lower;
    const char keep[] = "\\[]:/_().+-";
    for (int i = 0; keep[i]; i++)
        t.cls[static_cast<std::uint8_t>(keep[i])] = ch_keep;
    const char space[] = " \t\n\v\f\r";
    for (int i = 0; space[i]; i++)
        t.cls[static_cast<std::uint8_t>(space[i])] = ch_space;
    t.cls[static_cast<std::uint8_t>('#')] = ch_comment;
    return t;
}

constexpr CharTable char_table = make_char_table();

bool is_delimiter(int c) {
    return c == ' ' || c == '(' || c == ')' || c == end_of_input;
}

bool begins_number(int c) {
    return (c >= '0' && c <= '9') || c == '.' || c == '+' || c == '-';
}

// Raw bytes that read as a delimiter (white space, parentheses), and those
// that go into a token as they are (or raised to upper case).
constexpr std::size_t point_run_bytes = 16384;
inline bool raw_delimiter(std::uint8_t c) {
    return char_table.cls[c] == ch_space || c == '(' || c == ')';
}
inline bool token_byte(std::uint8_t c) {
    return (char_table.cls[c] == ch_keep || char_table.cls[c] == ch_lower) && c != '(' && c != ')';
}

} // namespace

const char *fdm_error_text(int code) {
    return code >= 0 && code < static_cast<int>(sizeof error_texts / sizeof error_texts[0])
               ? error_texts[code]
               : "<unknown>";
}

bool FdmReader::record(FdmError code) {
    if (!error_) {
        error_.code = static_cast<int>(code);
        error_.text = fdm_error_text(error_.code);
        error_.offset = in_.offset();
        if (code == FdmError::read) error_.system_error = in_.error_number();
    }
    return false;
}

// A byte, end_of_input, or read_failed after a failed read (recorded).
int FdmReader::raw_byte() {
    int c = in_.get();
    if (c == ByteInput::eof && in_.failed()) {
        record(FdmError::read);
        return read_failed;
    }
    return c;
}

// A raw byte for the scanners. While the first word is sought, only the
// first fdm_start_search bytes may be passed over.
int FdmReader::scan_byte() {
    if (searching_ && searched_++ == fdm_start_search) {
        record(FdmError::not_fdm);
        return read_failed;
    }
    return raw_byte();
}

// Skips raw bytes up to and including the next line feed.
bool FdmReader::skip_line() {
    for (;;) {
        int c = scan_byte();
        if (c == '\n') return true;
        if (c == read_failed) return false;
        if (c == end_of_input) return record(FdmError::eof);
    }
}

// The next filtered character: a kept byte (letters upper-cased), ' ' for
// any white space, end_of_input or read_failed. The raw byte is kept in
// last_raw_, so that what is given back reads again exactly as it stood.
int FdmReader::read_char() {
    for (;;) {
        int c = scan_byte();
        if (c < 0) {
            last_raw_ = c;
            return c;
        }
        switch (char_table.cls[c]) {
        case ch_keep:
            last_raw_ = c;
            return c;
        case ch_space:
            last_raw_ = c;
            return ' ';
        case ch_lower:
            last_raw_ = c;
            return c - ('a' - 'A');
        case ch_comment:
            if (!skip_line()) return read_failed;
            break;
        default:
            break;
        }
    }
}

void FdmReader::unread_last() {
    if (last_raw_ != read_failed) in_.unget(last_raw_);
}

// Skips delimiters and gives back the first other character (or the end of
// the input). The result is 1 when the last parenthesis passed was a left
// one, 2 when a right one, 0 when none came, -1 on failure.
int FdmReader::skip_delimiters() {
    int state = 0;
    for (;;) {
        int c = read_char();
        if (c == read_failed) return -1;
        if (c == '(') {
            state = 1;
        } else if (c == ')') {
            state = 2;
        } else if (c != ' ') {
            unread_last();
            return state;
        }
    }
}

// Reads a token of at most max characters into text. A word also ends
// before a character that can begin a number; a number that does not fit
// records 6. The delimiter that ends the token is given back; the end of the
// input is not. False on failure.
bool FdmReader::read_token(char *text, std::uint32_t max, TokenKind kind) {
    const bool word = kind == word_token;
    text[0] = '\0';
    if (skip_delimiters() < 0) return false;
    std::uint32_t n = 0;
    while (n < max) {
        int c = read_char();
        if (c == read_failed || error_) return false;
        if (c == end_of_input) break;
        if (is_delimiter(c) || (word && begins_number(c))) {
            unread_last();
            break;
        }
        text[n++] = static_cast<char>(c);
    }
    text[n] = '\0';
    if (n == max && kind == number_token) {
        int c = read_char();
        if (c == read_failed) return false;
        if (c == end_of_input) return true;
        if (!is_delimiter(c)) {
            error_.token = text;
            return record(FdmError::number);
        }
        unread_last();
    }
    return true;
}

// A keyword code, kw_none for an empty or unknown word, kw_fail on failure.
// Records nothing itself: the callers decide what an unknown word means.
// `empty` tells whether the word was empty (a number or the end follows).
int FdmReader::lookup_keyword(bool &empty) {
    char word[word_token_max + 1];
    if (!read_token(word, word_token_max, word_token)) return kw_fail;
    empty = word[0] == '\0';
    word_ = word;
    for (int i = 0; i < 8; i++) {
        if (std::strcmp(word, keywords[i]) == 0) return i + 1;
    }
    return kw_none;
}

// Unknown words are tolerated in version 11 files only.
int FdmReader::header_keyword(bool &empty) {
    int kw = lookup_keyword(empty);
    if (kw == kw_none && version_ != version_11 && !empty && check_) {
        check_(FdmError::keyword, in_.offset(), word_);
    } else if (kw == kw_none && version_ != version_11) {
        if (!error_) error_.token = word_;
        record(FdmError::keyword);
    }
    return kw;
}

// Reads a number token into text; a missing token is a premature end.
bool FdmReader::read_number_token(char *text) {
    if (!read_token(text, number_token_max, number_token)) return false;
    if (text[0] == '\0') return record(FdmError::eof);
    return true;
}

bool FdmReader::read_number(double &out) {
    char text[number_token_max + 1];
    if (!read_number_token(text)) return false;
    const std::size_t len = std::strlen(text);
    double value = 0.0;
    FdmError bad = FdmError::none;
    if (scan_double(text, text + len, &value) == 0)
        bad = FdmError::number;
    else if (value != value)
        bad = FdmError::nan;
    else if (!(std::fabs(value) < f32_limit))
        bad = FdmError::number;
    if (bad != FdmError::none) {
        if (check_) {
            check_(bad, in_.offset(), text);
            value = 0.0;
        } else {
            if (!error_) error_.token = text;
            return record(bad);
        }
    }
    out = value;
    return true;
}

bool FdmReader::read_integer(int &out) {
    char text[number_token_max + 1];
    if (!read_number_token(text)) return false;
    const std::size_t len = std::strlen(text);
    long value = 0;
    if (scan_long(text, text + len, &value) != len) {
        if (!check_) {
            if (!error_) error_.token = text;
            return record(FdmError::number);
        }
        check_(FdmError::number, in_.offset(), text);
        value = 0;
    }
    out = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    return true;
}

// The raw text after a left parenthesis, up to and including the next
// right one (or the end of the input), is passed over; its start is kept.
bool FdmReader::skip_parenthesised(std::string &text) {
    for (;;) {
        int c = raw_byte();
        if (c == ')' || c == end_of_input) return true;
        if (c == read_failed) return false;
        if (text.size() < field_text_max) text += static_cast<char>(c);
    }
}

// True at the end of the input or on a read failure.
bool FdmReader::at_end() {
    int c = raw_byte();
    if (c < 0) {
        if (c == end_of_input) in_.unget(c);
        return true;
    }
    in_.unget(c);
    return false;
}

bool FdmReader::read_header() {
    searching_ = true;
    int start = skip_delimiters();
    searching_ = false;
    if (start < 0) return false;
    bool empty = false;
    if (header_keyword(empty) != kw_slice) return record(FdmError::format);
    for (;;) {
        if (error_ || skip_delimiters() < 0) return false;
        if (at_end()) return record(FdmError::eof);
        int kw = header_keyword(empty);
        if (kw == kw_fail) return false;
        if (kw == kw_z) break;
        if (kw == kw_v) {
            int version = 0;
            if (!read_integer(version)) return false;
            version_ = version;
            fields_.push_back({"V", std::to_string(version)});
            if (version == version_11 && !skip_line()) return false;
            continue;
        }
        if (kw == kw_none && empty) {
            // A number where a keyword belongs (tolerated in version 11):
            // drop it, so that the scan moves on.
            char text[number_token_max + 1];
            if (!read_token(text, number_token_max, number_token)) return false;
            continue;
        }
        HeaderField field{word_, {}};
        int state = skip_delimiters();
        if (state < 0) return false;
        if (state == 1 && !skip_parenthesised(field.value)) return false;
        fields_.push_back(std::move(field));
    }
    header_read_ = true;
    return true;
}

// Points read in a run straight from the input's block while they stand
// plainly: delimiters (white space, parentheses), a number's own bytes, a
// delimiter, and the same for y. Anything else (a comment, a byte the
// filter drops, a number that does not convert, the contour's terminator)
// ends the run before its point, for the character-by-character path. The
// number of points taken.
std::size_t FdmReader::point_run(std::vector<Point> &points) {
    if (error_ || searching_ || !in_.settle_pushback()) return 0;
    const std::uint8_t *const start = in_.contiguous(point_run_bytes);
    if (!start) return 0;
    // Each value is looked at with its longest token and delimiter at hand.
    const std::uint8_t *const stop = start + point_run_bytes - number_token_max - 2;
    const std::uint8_t *p = start;
    std::size_t taken = 0;
    for (;;) {
        const std::uint8_t *q = p;
        float xy[2];
        int k = 0;
        for (; k < 2; k++) {
            while (q < stop && raw_delimiter(*q))
                q++;
            if (q >= stop || (k == 0 && !begins_number(*q))) break;
            double v = 0.0;
            // A value written plainly, with a delimiter right behind it.
            if (const std::size_t plain = scan_plain_decimal(q, &v);
                plain && raw_delimiter(q[plain])) {
                xy[k] = static_cast<float>(v);
                q += plain;
                continue;
            }
            std::size_t len = 0;
            while (token_byte(q[len]))
                len++;
            if (len == 0 || len >= number_token_max || !raw_delimiter(q[len])) break;
            const char *text = reinterpret_cast<const char *>(q);
            if (scan_exact_decimal(text, text + len, &v) == 0 &&
                (scan_double(text, text + len, &v) == 0 || v != v))
                break;
            if (!(std::fabs(v) < f32_limit)) break;
            xy[k] = static_cast<float>(v);
            q += len;
        }
        if (k < 2) break;
        points.push_back({xy[0], xy[1]});
        taken++;
        p = q;
    }
    in_.skip(static_cast<std::size_t>(p - start));
    return taken;
}

bool FdmReader::read_contour_body(std::vector<Point> &points, bool &closed) {
    if (version_ == version_11) {
        // Two counts precede the points; their meaning is not used.
        char text[number_token_max + 1];
        for (int i = 0; i < 2; i++) {
            if (!read_token(text, number_token_max, number_token)) return false;
        }
    }
    points.clear();
    for (;;) {
        if (point_run(points) > 0) continue;
        if (skip_delimiters() < 0) return false;
        int next = read_char();
        if (next == read_failed) return false;
        unread_last();
        if (!begins_number(next)) break;
        double x, y;
        if (!read_number(x) || !read_number(y)) return false;
        points.push_back({static_cast<float>(x), static_cast<float>(y)});
    }
    if (version_ == version_11) {
        int t = read_char();
        if (t == read_failed) return false;
        if (t == 'C') {
            closed = true;
        } else if (t == 'O') {
            closed = false;
        } else {
            return record(FdmError::keyword);
        }
        return skip_line() && skip_line();
    }
    bool empty = false;
    int kw = lookup_keyword(empty);
    if (kw == kw_c) {
        closed = true;
    } else if (kw == kw_o) {
        closed = false;
    } else if (kw != kw_fail) {
        if (!error_) error_.token = word_;
        return record(FdmError::keyword); // also at the end of the input
    }
    return kw != kw_fail;
}

// After a Z line's numbers a version 11 file may carry an O and the rest
// of the line, which are skipped.
bool FdmReader::finish_z_line() {
    char text[2];
    if (!read_token(text, 1, char_token)) return false;
    if (text[0] == 'O') return skip_line();
    if (text[0] != '\0') unread_last();
    return true;
}

FdmReader::Item FdmReader::next(std::vector<Point> &points, bool &closed) {
    if (ended_ || error_) return Item::end;
    bool empty = false;
    int kw;
    if (!header_read_) {
        if (!read_header()) {
            ended_ = true;
            return Item::end;
        }
        kw = kw_z;
    } else {
        kw = lookup_keyword(empty);
    }
    for (;;) {
        if (kw == kw_fail) break;
        // An unknown word, or a number, where a keyword belongs starts a
        // contour. A C read as such starts one even at the end of the input,
        // where its terminator is then missing.
        const bool contour_keyword = kw == kw_c;
        if (kw == kw_none) kw = kw_c;
        if (!contour_keyword && at_end()) break;
        if (kw == kw_c) {
            if (!read_contour_body(points, closed)) break;
            return Item::contour;
        }
        if (kw == kw_end) break;
        if (kw == kw_z) {
            if (!read_number(z_) || !read_number(thickness_)) break;
            if (version_ == version_11 && !finish_z_line()) break;
            return Item::layer;
        }
        kw = lookup_keyword(empty);
    }
    ended_ = true;
    return Item::end;
}

} // namespace laytran
