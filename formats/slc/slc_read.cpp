// The SLC reader: the header text scanner, the reserved area, the sampling
// table and the binary layers of boundaries.
#include <cfloat>
#include <cmath>
#include <cstring>

#include "formats/slc/slc_internal.h"
#include "support/mm.h"
#include "support/parse.h"

namespace {

constexpr uint32_t keyword_letters = 12; // letters of a word that count

const char *const header_delimiters = "- ,";
const char *const package_delimiters = "-";

int is_letter(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
int to_upper(int c) {
    return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
}

// Doubles below this in magnitude round to a finite float.
constexpr double f32_limit = 0x1.ffffffp+127;

// A byte of the header text; running past its end records a premature end.
int scan_getc(SlcStream *s) {
    int c = slc_getc(s);
    if (c == SLC_EOF) slc_fail(s, SLC_E_EOF);
    return c;
}

// Non-printable bytes (including 0x80 to 0xFF) and those of the current set
// separate words, except a '-' in front of a digit, which starts a negative
// number. The Ctrl-Z and the end of input end a word without being
// delimiters: they are left to be read again.
int is_delimiter(SlcStream *s, int c) {
    if (c < 0 || c == SLC_CTRL_Z) return 0;
    if (c == '-') {
        int next = slc_getc(s);
        slc_ungetc(s, next);
        if (next >= '0' && next <= '9') return 0;
    }
    if (c < 0x20 || c > 0x7E) return 1;
    return strchr(s->delimiters, c) != nullptr;
}

int ends_word(SlcStream *s, int c) {
    return c < 0 || c == SLC_CTRL_Z || is_delimiter(s, c);
}

// The next keyword: its code, 0 for a word that is none, SLC_KW_END at the
// Ctrl-Z (left in place), -1 at the end of input (recorded).
int scan_keyword(SlcStream *s) {
    int c;
    do {
        c = scan_getc(s);
        if (c < 0) return -1;
        if (c == SLC_CTRL_Z) {
            slc_ungetc(s, c);
            return SLC_KW_END;
        }
    } while (!is_letter(c));
    char word[keyword_letters + 1];
    uint32_t n = 0;
    for (; !ends_word(s, c); c = scan_getc(s)) {
        if (n < keyword_letters) word[n++] = static_cast<char>(to_upper(c));
    }
    word[n] = '\0';
    slc_ungetc(s, c);
    for (uint32_t code = 1; code < SLC_KW_END; code++) {
        if (strcmp(word, slc_keyword(code)) == 0) return static_cast<int>(code);
    }
    return 0;
}

// A word value, upper-cased, of which the first `limit` characters are kept.
void scan_word(SlcStream *s, char *field, uint32_t limit) {
    int c;
    do
        c = scan_getc(s);
    while (c == ' ');
    uint32_t n = 0;
    for (; !ends_word(s, c); c = scan_getc(s)) {
        if (n < limit) field[n++] = static_cast<char>(to_upper(c));
    }
    field[n] = '\0';
    if (c != ' ') slc_ungetc(s, c);
}

// A number value; out keeps its value when the token does not convert. A
// NaN records 5, a value beyond float range (infinity too) records 6.
void scan_number(SlcStream *s, float *out) {
    int c;
    do
        c = scan_getc(s);
    while (is_delimiter(s, c));
    uint32_t n = 0;
    for (; !ends_word(s, c); c = scan_getc(s)) {
        if (n < sizeof s->token - 1) s->token[n++] = static_cast<char>(c);
    }
    s->token[n] = '\0';
    slc_ungetc(s, c);
    double v;
    if (!parse_double(s->token, &v)) return;
    if (v != v) {
        slc_fail(s, SLC_E_NAN);
    } else if (!(std::fabs(v) < f32_limit)) {
        slc_fail(s, SLC_E_NUMBER);
    } else {
        *out = static_cast<float>(v);
    }
}

void parse_header_text(SlcStream *s) {
    SlcHeader *h = s->header;
    while (s->error == 0) {
        s->delimiters = header_delimiters;
        int code = scan_keyword(s);
        if (code < 0 || code == SLC_KW_END) break;
        switch (code) {
        case 0:
            slc_fail(s, SLC_E_KEYWORD);
            break;
        case SLC_KW_SLCVER:
            scan_word(s, h->version, sizeof h->version - 1);
            break;
        case SLC_KW_UNIT:
        case SLC_KW_TYPE: {
            int value = scan_keyword(s);
            if (value < 0 || value == SLC_KW_END) break;
            if (value == 0) slc_fail(s, SLC_E_KEYWORD);
            (code == SLC_KW_UNIT ? h->unit : h->type) = static_cast<uint32_t>(value);
            break;
        }
        case SLC_KW_PACKAGE:
            s->delimiters = package_delimiters;
            scan_word(s, h->package, sizeof h->package - 1);
            break;
        case SLC_KW_EXTENTS:
            for (double &e : h->extents) {
                float v = static_cast<float>(e);
                scan_number(s, &v);
                e = v;
            }
            break;
        case SLC_KW_CHORDDEV:
            scan_number(s, &h->chord_deviation);
            break;
        case SLC_KW_ARCRES:
            scan_number(s, &h->arc_resolution);
            break;
        case SLC_KW_SURFTOL:
            scan_number(s, &h->surface_tolerance);
            break;
        case SLC_KW_GAPTOL:
            scan_number(s, &h->gap_tolerance);
            break;
        case SLC_KW_MAXGAPFOUND:
            scan_number(s, &h->max_gap_found);
            break;
        case SLC_KW_EXTLWC:
            scan_number(s, &h->extlwc);
            break;
        default: // INCH, MM, PART, SUPPORT, WEB stand alone
            break;
        }
    }
}

// Parses the header text through the stream's own byte layer: the buffer
// state is set aside, the text put in its place, and restored afterwards so
// that reading goes on after the Ctrl-Z.
void scan_header_text(SlcStream *s, uint8_t *text, uint32_t len) {
    uint8_t *buffer = s->buffer;
    uint32_t pos = s->pos, fill = s->fill, limit = s->limit, pushed = s->pushback_count;
    uint8_t pushback[SLC_PUSHBACK_MAX];
    memcpy(pushback, s->pushback, sizeof pushback);

    s->buffer = text;
    s->pos = 0;
    s->fill = s->limit = len;
    s->pushback_count = 0;
    s->scanning = 1;
    parse_header_text(s);
    s->scanning = 0;

    s->buffer = buffer;
    s->pos = pos;
    s->fill = fill;
    s->limit = limit;
    s->pushback_count = pushed;
    memcpy(s->pushback, pushback, sizeof pushback);
}

void scale_header(SlcHeader *h, float factor) {
    for (double &e : h->extents)
        e *= static_cast<double>(factor);
    h->chord_deviation *= factor;
    h->arc_resolution *= factor;
    h->surface_tolerance *= factor;
    h->gap_tolerance *= factor;
    h->max_gap_found *= factor;
    h->extlwc *= factor;
}

int read_sampling_table(SlcStream *s) {
    int n = slc_getc(s);
    if (n == SLC_EOF) return slc_fail(s, SLC_E_EOF);
    if (s->io_failed) return 0;
    // Entries are kept here until they have all been read, so a count byte
    // alone never makes the reader allocate.
    SlcSample table[SLC_MAX_SAMPLES];
    for (int i = 0; i < n; i++) {
        SlcSample &e = table[i];
        if (!slc_read_f32(s, &e.z) || !slc_read_f32(s, &e.thickness) ||
            !slc_read_f32(s, &e.line_width) || !slc_read_f32(s, &e.reserved))
            return 0;
    }
    mm_free(s->samples, s->sample_capacity * sizeof(SlcSample), 0);
    s->samples = nullptr;
    s->sample_count = s->sample_capacity = 0;
    if (n == 0) return 1;
    s->samples = static_cast<SlcSample *>(mm_malloc(n * sizeof(SlcSample)));
    if (!s->samples) return slc_fail(s, SLC_E_MEMORY);
    memcpy(s->samples, table, n * sizeof(SlcSample));
    s->sample_count = s->sample_capacity = static_cast<uint32_t>(n);
    return 1;
}

int read_header_block(SlcStream *s) {
    s->flags &= ~SLC_F_BINARY;
    uint8_t text[SLC_HEADER_TEXT_MAX + 1];
    uint32_t len = 0;
    for (uint32_t searched = 0;; searched++) {
        if (searched == SLC_HEADER_SEARCH) return slc_fail(s, SLC_E_NOT_SLC);
        int c = slc_getc(s);
        if (s->io_failed) return 0;
        if (c == SLC_EOF) return slc_fail(s, SLC_E_EOF);
        if (c == SLC_CTRL_Z) break;
        if (len < SLC_HEADER_TEXT_MAX) text[len++] = static_cast<uint8_t>(c);
    }
    text[len++] = SLC_CTRL_Z;
    if (!s->header) {
        s->header = static_cast<SlcHeader *>(mm_malloc(sizeof(SlcHeader)));
        if (!s->header) return slc_fail(s, SLC_E_MEMORY);
    }
    scan_header_text(s, text, len);

    slc_set_unit_factor(s, s->header->unit);
    if (s->flags & SLC_F_SCALE) scale_header(s->header, s->unit_factor);
    s->flags |= SLC_F_HEADER_READ | SLC_F_BINARY;

    for (uint32_t i = 0; i < SLC_RESERVED_SIZE; i++) {
        if (slc_getc(s) == SLC_EOF) return slc_fail(s, SLC_E_EOF);
    }
    if (s->io_failed) return 0;
    return read_sampling_table(s);
}

// Reads the vertices into c. On a measured file a count that the bytes left
// cannot hold is a premature end at once; otherwise the array grows as
// vertices arrive.
int read_vertices(SlcStream *s, SliceContour *c, uint32_t n) {
    if (s->measured) {
        if (static_cast<uint64_t>(n) * sizeof(SlicePoint) > slc_bytes_left(s))
            return slc_fail(s, SLC_E_EOF);
        if (!contour_reserve_points(c, n)) return slc_fail(s, SLC_E_MEMORY);
    }
    for (uint32_t i = 0; i < n; i++) {
        if (i == c->capacity) {
            uint64_t want = 2 * static_cast<uint64_t>(c->capacity);
            uint64_t buffered = i + (s->fill - s->pos) / sizeof(SlicePoint) + 1;
            if (want < buffered) want = buffered;
            if (want < 16) want = 16;
            if (want > n) want = n;
            if (!contour_reserve_points(c, static_cast<uint32_t>(want)))
                return slc_fail(s, SLC_E_MEMORY);
        }
        SlicePoint &p = c->points[i];
        if (!slc_read_f32(s, &p.x) || !slc_read_f32(s, &p.y)) return 0;
        c->held = i + 1;
    }
    return 1;
}

int read_boundary(SlcStream *s, SliceContour *c) {
    if (!(s->flags & SLC_F_HEADER_READ)) {
        if (!read_header_block(s)) return 0;
    }
    int began = 0;
    while (s->boundaries_left == 0) {
        float z = 0.0f;
        uint32_t count = 0;
        if (!slc_read_f32(s, &z) || !slc_read_u32(s, &count)) return 0;
        s->layer_z = z;
        s->layer_count = count;
        if (count == SLC_END_OF_LAYERS) return 0;
        s->boundaries_left = count;
        began = 1;
    }
    uint32_t vertices, gaps;
    if (!slc_read_u32(s, &vertices) || !slc_read_u32(s, &gaps)) return 0;
    c->kind = s->header->type ? s->header->type : CONTOUR_PART;
    c->count = vertices;
    c->gaps = gaps;
    c->held = 0;
    if (!read_vertices(s, c, vertices)) return 0;
    s->boundaries_left--;
    return began ? 2 : 1;
}

} // namespace

int slc_read_boundary(SlcStream *s, SliceContour *c) {
    if (!s) return 0;
    if (!c) return slc_fail(s, SLC_E_ARGUMENT);
    if (s->mode != SLC_MODE_READ) return slc_fail(s, SLC_E_CONTEXT);
    if (s->finished) return 0;
    int r = read_boundary(s, c);
    // After the end record, or once reading has failed, nothing more is read.
    if (r == 0) s->finished = 1;
    return r;
}
