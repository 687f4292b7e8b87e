// The FDM slice file reader.
//
// The file is a stream of keywords and numbers separated by white space and
// parentheses. Bytes outside the accepted set are dropped, letters are
// upper-cased, "#" starts a comment to the end of the line. The header
// (SLICE, V, SLICES, FILE ...) runs up to the first Z; then each layer is a
// Z line with z and thickness followed by contours: an optional C, the
// points as x y pairs, and C (closed) or O (open). END or the end of the
// file ends the data. Version 11 files precede every contour with two
// integers and follow its terminator by a line and one more to skip.
#include <cmath>
#include <cstring>

#include "formats/fdm/fdm_internal.h"
#include "support/parse.h"

namespace {

enum : int {
    KW_NONE = 0,
    KW_C = 1,
    KW_END = 2,
    KW_FILE = 3,
    KW_O = 4,
    KW_SLICE = 5,
    KW_SLICES = 6,
    KW_V = 7,
    KW_Z = 8,
    KW_FAIL = -1,
};

const char *const keywords[] = {"C", "END", "FILE", "O", "SLICE", "SLICES", "V", "Z"};

// Doubles below this in magnitude round to a finite float, as the model keeps
// coordinates.
constexpr double f32_limit = 0x1.ffffffp+127;

enum : uint32_t {
    NUMBER_TOKEN_MAX = 49,
    WORD_TOKEN_MAX = 30,
    VERSION_11 = 11,
};

// Character classes of the filter.
enum : uint8_t {
    CH_DROP = 0,
    CH_SPACE = 1,
    CH_KEEP = 2,
    CH_LOWER = 3,
    CH_COMMENT = 4,
};

struct CharTable {
    uint8_t cls[256];
};

constexpr CharTable make_char_table() {
    CharTable t = {};
    for (int c = '0'; c <= '9'; c++)
        t.cls[c] = CH_KEEP;
    for (int c = 'A'; c <= 'Z'; c++)
        t.cls[c] = CH_KEEP;
    for (int c = 'a'; c <= 'z'; c++)
        t.cls[c] = CH_LOWER;
    const char keep[] = "\\[]:/_().+-";
    for (int i = 0; keep[i]; i++)
        t.cls[static_cast<uint8_t>(keep[i])] = CH_KEEP;
    const char space[] = " \t\n\v\f\r";
    for (int i = 0; space[i]; i++)
        t.cls[static_cast<uint8_t>(space[i])] = CH_SPACE;
    t.cls[static_cast<uint8_t>('#')] = CH_COMMENT;
    return t;
}

constexpr CharTable char_table = make_char_table();

bool is_delimiter(int c) {
    return c == ' ' || c == '(' || c == ')' || c == FDM_EOF;
}

bool begins_number(int c) {
    return (c >= '0' && c <= '9') || c == '.' || c == '+' || c == '-';
}

// A raw byte for the scanners. While the first word is sought, only the
// first FDM_START_SEARCH bytes may be passed over.
int scan_byte(FdmStream *s) {
    if (s->searching && s->searched++ == FDM_START_SEARCH) {
        fdm_record(s, FDM_E_NOT_FDM);
        return FDM_FAIL;
    }
    return fdm_read_byte(s);
}

// Skips raw bytes up to and including the next line feed.
int skip_line(FdmStream *s) {
    for (;;) {
        int c = scan_byte(s);
        if (c == '\n') return 1;
        if (c == FDM_FAIL) return 0;
        if (c == FDM_EOF) return fdm_record(s, FDM_E_EOF);
    }
}

// The next filtered character: a kept byte (letters upper-cased), ' ' for
// any white space, FDM_EOF or FDM_FAIL. The raw byte is kept in last_raw, so
// that what is given back reads again exactly as it stood in the file.
int read_char(FdmStream *s) {
    for (;;) {
        int c = scan_byte(s);
        if (c < 0) {
            s->last_raw = c;
            return c;
        }
        switch (char_table.cls[c]) {
        case CH_KEEP:
            s->last_raw = c;
            return c;
        case CH_SPACE:
            s->last_raw = c;
            return ' ';
        case CH_LOWER:
            s->last_raw = c;
            return c - ('a' - 'A');
        case CH_COMMENT:
            if (!skip_line(s)) return FDM_FAIL;
            break;
        default:
            break;
        }
    }
}

void unread_last(FdmStream *s) {
    fdm_unread_byte(s, s->last_raw);
}

// Skips delimiters and gives back the first other character (or the end of
// the file). The result is 1 when the last parenthesis passed was a left
// one, 2 when a right one, 0 when none came, -1 on failure.
int skip_delimiters(FdmStream *s) {
    int state = 0;
    for (;;) {
        int c = read_char(s);
        if (c == FDM_FAIL) return -1;
        if (c == '(') {
            state = 1;
        } else if (c == ')') {
            state = 2;
        } else if (c != ' ') {
            unread_last(s);
            return state;
        }
    }
}

enum TokenKind { TOKEN_WORD, TOKEN_NUMBER, TOKEN_CHAR };

// Reads a token of at most max characters into text. A word also ends
// before a character that can begin a number; a number that does not fit
// records 6. The delimiter that ends the token is given back; the end of the
// file is not. 0 on failure.
int read_token(FdmStream *s, char *text, uint32_t max, TokenKind kind) {
    const bool word = kind == TOKEN_WORD;
    text[0] = '\0';
    if (skip_delimiters(s) < 0) return 0;
    uint32_t n = 0;
    while (n < max) {
        int c = read_char(s);
        if (c == FDM_FAIL || s->error) return 0;
        if (c == FDM_EOF) break;
        if (is_delimiter(c) || (word && begins_number(c))) {
            unread_last(s);
            break;
        }
        text[n++] = static_cast<char>(c);
    }
    text[n] = '\0';
    if (n == max && kind == TOKEN_NUMBER) {
        int c = read_char(s);
        if (c == FDM_FAIL) return 0;
        if (c == FDM_EOF) return 1;
        if (!is_delimiter(c)) return fdm_record(s, FDM_E_NUMBER);
        unread_last(s);
    }
    return 1;
}

// A keyword code, KW_NONE for an empty or unknown word, KW_FAIL on failure.
// Records nothing itself: the callers decide what an unknown word means.
// empty tells whether the word was empty (a number or the end follows).
int lookup_keyword(FdmStream *s, bool *empty) {
    char word[WORD_TOKEN_MAX + 1];
    if (!read_token(s, word, WORD_TOKEN_MAX, TOKEN_WORD)) return KW_FAIL;
    *empty = word[0] == '\0';
    for (int i = 0; i < 8; i++) {
        if (strcmp(word, keywords[i]) == 0) return i + 1;
    }
    return KW_NONE;
}

// Unknown words are tolerated in version 11 files only.
int header_keyword(FdmStream *s, bool *empty) {
    int kw = lookup_keyword(s, empty);
    if (kw == KW_NONE && s->version != VERSION_11) fdm_record(s, FDM_E_KEYWORD);
    return kw;
}

// Reads a number token into text; a missing token is a premature end.
int read_number_token(FdmStream *s, char *text) {
    if (!read_token(s, text, NUMBER_TOKEN_MAX, TOKEN_NUMBER)) return 0;
    if (text[0] == '\0') return fdm_record(s, FDM_E_EOF);
    return 1;
}

int read_number(FdmStream *s, double *out) {
    char text[NUMBER_TOKEN_MAX + 1];
    if (!read_number_token(s, text)) return 0;
    double value = 0.0;
    if (!parse_double(text, &value)) return fdm_record(s, FDM_E_NUMBER);
    if (is_nan(value)) return fdm_record(s, FDM_E_NAN);
    if (!(std::fabs(value) < f32_limit)) return fdm_record(s, FDM_E_NUMBER);
    *out = value;
    return 1;
}

int read_integer(FdmStream *s, int *out) {
    char text[NUMBER_TOKEN_MAX + 1];
    if (!read_number_token(s, text)) return 0;
    int value = 0;
    if (!parse_int(text, &value)) return fdm_record(s, FDM_E_NUMBER);
    *out = value;
    return 1;
}

// The raw text after a left parenthesis, up to and including the next
// right one (or the end of the file), is dropped.
int skip_parenthesised(FdmStream *s) {
    for (;;) {
        int c = fdm_read_byte(s);
        if (c == ')' || c == FDM_EOF) return 1;
        if (c == FDM_FAIL) return 0;
    }
}

// True at the end of the file or on a read failure.
bool at_end(FdmStream *s) {
    int c = fdm_read_byte(s);
    if (c < 0) {
        if (c == FDM_EOF) fdm_unread_byte(s, c);
        return true;
    }
    fdm_unread_byte(s, c);
    return false;
}

int read_header(FdmStream *s) {
    if (!fdm_ensure_header(s)) return 0;
    s->flags &= static_cast<uint8_t>(~FDM_F_SCALE);
    s->searching = 1;
    int start = skip_delimiters(s);
    s->searching = 0;
    if (start < 0) return 0;
    bool empty = false;
    if (header_keyword(s, &empty) != KW_SLICE) return fdm_record(s, FDM_E_FORMAT);
    for (;;) {
        if (s->error || skip_delimiters(s) < 0) return 0;
        if (at_end(s)) return fdm_record(s, FDM_E_EOF);
        int kw = header_keyword(s, &empty);
        if (kw == KW_FAIL) return 0;
        if (kw == KW_Z) break;
        if (kw == KW_V) {
            int version = 0;
            if (!read_integer(s, &version)) return 0;
            s->version = version;
            if (version == static_cast<int>(VERSION_11) && !skip_line(s)) return 0;
            continue;
        }
        if (kw == KW_NONE && empty) {
            // A number where a keyword belongs (tolerated in version 11):
            // drop it, so that the scan moves on.
            char text[NUMBER_TOKEN_MAX + 1];
            if (!read_token(s, text, NUMBER_TOKEN_MAX, TOKEN_NUMBER)) return 0;
            continue;
        }
        int state = skip_delimiters(s);
        if (state < 0) return 0;
        if (state == 1 && !skip_parenthesised(s)) return 0;
    }
    if (s->header->scale == 0.0f) s->header->scale = 1.0f;
    s->flags |= FDM_F_HEADER_READ;
    return 1;
}

// Grows the point array geometrically: a contour has no point count, so
// growing one point at a time would make long contours quadratic.
int grow_points(FdmContour *c) {
    if (c->count < c->capacity) return 1;
    if (c->count == UINT32_MAX) return 0;
    uint32_t want = c->capacity < 16 ? 16 : c->capacity;
    want = want > UINT32_MAX / 2 ? UINT32_MAX : want * 2;
    return fdm_reserve_points(c, want);
}

int read_contour_body(FdmStream *s, FdmContour *c) {
    c->kind = FDM_CONTOUR;
    if (s->version == VERSION_11) {
        // Two counts precede the points; their meaning is not used.
        char text[NUMBER_TOKEN_MAX + 1];
        for (int i = 0; i < 2; i++) {
            if (!read_token(s, text, NUMBER_TOKEN_MAX, TOKEN_NUMBER)) return 0;
        }
    }
    c->count = 0;
    c->filled = 0;
    for (;;) {
        if (skip_delimiters(s) < 0) return 0;
        int next = read_char(s);
        if (next == FDM_FAIL) return 0;
        unread_last(s);
        if (!begins_number(next)) break;
        FdmPoint p;
        if (!read_number(s, &p.x) || !read_number(s, &p.y)) return 0;
        if (!grow_points(c)) return fdm_record(s, FDM_E_MEMORY);
        c->points[c->count] = p;
        c->count++;
        c->filled++;
    }
    if (s->version == VERSION_11) {
        int t = read_char(s);
        if (t == FDM_FAIL) return 0;
        if (t == 'C') {
            c->closure = FDM_CLOSED;
        } else if (t == 'O') {
            c->closure = FDM_OPEN;
        } else {
            return fdm_record(s, FDM_E_KEYWORD);
        }
        return skip_line(s) && skip_line(s);
    }
    bool empty = false;
    int kw = lookup_keyword(s, &empty);
    if (kw == KW_C) {
        c->closure = FDM_CLOSED;
    } else if (kw == KW_O) {
        c->closure = FDM_OPEN;
    } else if (kw != KW_FAIL) {
        return fdm_record(s, FDM_E_KEYWORD); // also at the end of the file
    }
    return kw != KW_FAIL;
}

// After a Z line's numbers a version 11 file may carry an O and the rest
// of the line, which are skipped.
int finish_z_line(FdmStream *s) {
    char text[2];
    if (!read_token(s, text, 1, TOKEN_CHAR)) return 0;
    if (text[0] == 'O') return skip_line(s);
    if (text[0] != '\0') unread_last(s);
    return 1;
}

} // namespace

int fdm_read_contour(FdmStream *s, FdmContour *c) {
    if (!s) return 0;
    if (!c) return fdm_record(s, FDM_E_ARGUMENT);
    if (s->mode != FDM_MODE_READ) return fdm_record(s, FDM_E_CONTEXT);
    if (s->error) return 0;
    bool new_layer = false;
    bool empty = false;
    int kw;
    if (!(s->flags & FDM_F_HEADER_READ)) {
        if (!read_header(s)) return 0;
        kw = KW_Z;
    } else {
        kw = lookup_keyword(s, &empty);
    }
    for (;;) {
        if (kw == KW_FAIL) return 0;
        // An unknown word, or a number, where a keyword belongs starts a
        // contour. A C read as such starts one even at the end of the file,
        // where its terminator is then missing.
        const bool contour_keyword = kw == KW_C;
        if (kw == KW_NONE) kw = KW_C;
        if (!contour_keyword && at_end(s)) return 0;
        switch (kw) {
        case KW_C:
            if (!read_contour_body(s, c)) return 0;
            return new_layer ? 2 : 1;
        case KW_END:
            return 0;
        case KW_Z:
            if (!read_number(s, &s->layer_z) || !read_number(s, &s->layer_thickness)) return 0;
            new_layer = true;
            if (s->version == VERSION_11 && !finish_z_line(s)) return 0;
            break;
        default:
            break;
        }
        kw = lookup_keyword(s, &empty);
    }
}
