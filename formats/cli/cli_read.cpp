// The CLI reader: the ASCII scanner (significant characters, comments,
// tokens, numbers, texts), the binary value layer, the header section and
// the elements of the geometry section.
#include <algorithm>
#include <cctype>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "formats/cli/cli_internal.h"
#include "support/mm.h"

namespace {

constexpr uint32_t keyword_capacity = 14;
constexpr uint32_t number_capacity = 32;
constexpr uint32_t text_step = 30;
// Points reserved at first when the input cannot justify more; the array
// then grows as the points arrive.
constexpr uint32_t unknown_size_points = 256;
// The keyword code of an unknown command passed over in ASCII geometry.
constexpr uint32_t skipped_command = 100;
// Data bytes of a $$USERDATA allocated at once when the input size is unknown.
constexpr uint32_t unknown_size_block = 4096;

// Binary commands.
enum : uint32_t {
    CMD_LAYER_LONG = 127,
    CMD_LAYER_SHORT = 128,
    CMD_POLYLINE_SHORT = 129,
    CMD_POLYLINE_LONG = 130,
    CMD_HATCHES_SHORT = 131,
    CMD_HATCHES_LONG = 132,
};

// Significant bytes: letters, digits and "$/,.+-" (and the end of file).
struct ByteClass {
    bool significant[256];
    constexpr ByteClass() : significant() {
        for (int c = 0; c < 256; c++) {
            significant[c] = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                             (c >= '0' && c <= '9') || c == '$' || c == '/' || c == ',' ||
                             c == '.' || c == '+' || c == '-';
        }
    }
};
constexpr ByteClass byte_class;

inline int is_significant(int c) {
    return c == CLI_EOF || byte_class.significant[c & 0xFF];
}

int is_separator(int c) {
    return c == CLI_EOF || c == 0 || c == '$' || c == '/' || c == ',';
}

float to_f32(double v) {
    if (v > FLT_MAX) return HUGE_VALF;
    if (v < -FLT_MAX) return -HUGE_VALF;
    return static_cast<float>(v);
}

// The end of the input: the next byte is the end of file or cannot be read.
// Any other byte is given back.
int at_end(CliStream *s) {
    int c = cli_getc(s);
    if (c == CLI_EOF || s->io_failed) return 1;
    cli_ungetc(s, c);
    return 0;
}

// The next significant character, lower case raised; "//" comments run to a
// line feed (delivered) or to a single "/" (the byte after it is dropped)
// or to a "//" (delivered as "/"). 0 after a failure.
int next_char(CliStream *s) {
    for (;;) {
        int c;
        do {
            c = cli_getc(s);
        } while (!is_significant(c) && s->error == 0);
        if (c == '/') {
            int d = cli_getc(s);
            if (d != '/') {
                cli_ungetc(s, d);
                return '/';
            }
            for (;;) {
                c = cli_getc(s);
                if (s->io_failed) return 0;
                if (c == CLI_EOF) return cli_fail(s, CLI_E_EOF);
                if (c == '\n') return '\n';
                if (c == '/') break;
            }
            d = cli_getc(s);
            if (d == '/') return '/';
            if (s->io_failed) return 0;
            continue; // the byte after a lone "/" is dropped
        }
        return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
    }
}

// Up to capacity - 1 significant characters up to a separator (given back).
// A keyword also ends at the line feed that closes a comment behind it
// ("$$BINARY // note"); a longer keyword is cut, the rest staying in the
// input. A number that does not fit records error 6.
int read_token(CliStream *s, char *token, uint32_t capacity, bool keyword) {
    const uint32_t last = capacity - 1;
    uint32_t n = 0;
    for (;;) {
        if (n == last && keyword) break;
        // In a binary file the geometry starts right behind $$HEADEREND.
        if (n == 9 && !(s->flags & CLI_F_HEADER_READ) && s->format == CLI_FORMAT_BINARY &&
            memcmp(token, "HEADEREND", 9) == 0)
            break;
        int c = next_char(s);
        if (s->error) return 0;
        if (is_separator(c)) {
            cli_ungetc(s, c);
            break;
        }
        if (n == last) {
            if (c != '\n') return cli_fail(s, CLI_E_NUMBER);
            cli_ungetc(s, c);
            break;
        }
        if (keyword && c == '\n' && n > 0) break;
        token[n++] = static_cast<char>(c);
    }
    token[n] = '\0';
    return 1;
}

// One "," after a number is taken; anything else is given back.
void skip_comma(CliStream *s) {
    int c = next_char(s);
    if (c != ',') cli_ungetc(s, c);
}

int ascii_integer(CliStream *s, uint32_t *out) {
    char token[number_capacity];
    if (!read_token(s, token, number_capacity, false)) return 0;
    char *end = nullptr;
    long v = strtol(token, &end, 10);
    // A comment behind the number leaves its line feed in the token.
    if (*end != '\0' && !isspace(static_cast<unsigned char>(*end))) {
        s->silent_stop = 1;
        return 0;
    }
    *out = static_cast<uint32_t>(v);
    skip_comma(s);
    return 1;
}

int ascii_double(CliStream *s, double *out) {
    char token[number_capacity];
    if (!read_token(s, token, number_capacity, false)) return 0;
    char *end = nullptr;
    double v = strtod(token, &end);
    if (end == token) {
        s->silent_stop = 1;
        return 0;
    }
    // The C library reads "nan" as a number; it is refused as in binary data.
    if (v != v) return cli_fail(s, CLI_E_NAN);
    if (!std::isfinite(v)) return cli_fail(s, CLI_E_INFINITE);
    *out = v;
    skip_comma(s);
    return 1;
}

int ascii_real(CliStream *s, float *out) {
    double v = 0.0;
    if (!ascii_double(s, &v)) return 0;
    float f = to_f32(v);
    if (s->flags & CLI_F_SCALE) f *= s->header->units;
    if (!std::isfinite(f)) return cli_fail(s, CLI_E_INFINITE);
    *out = f;
    return 1;
}

// Skips bytes until the byte count is a multiple of 4 (binary aligned
// geometry only); the end of file ends the skip.
int align_skip(CliStream *s) {
    if ((s->flags & (CLI_F_BINARY | CLI_F_ALIGN)) != (CLI_F_BINARY | CLI_F_ALIGN)) return 1;
    while (cli_byte_count(s) % 4 != 0) {
        int c = cli_getc(s);
        if (s->io_failed) return 0;
        if (c == CLI_EOF) break;
    }
    return 1;
}

// Little-endian 16-bit value; a byte past the end of the file reads as 255
// and marks eof_crossed.
int binary_u16(CliStream *s, uint32_t *out) {
    int lo = cli_getc(s);
    int hi = cli_getc(s);
    if (s->io_failed) return cli_fail(s, CLI_E_READ);
    if (lo == CLI_EOF || hi == CLI_EOF) s->eof_crossed = 1;
    *out = static_cast<uint32_t>(lo & 0xFF) | static_cast<uint32_t>(hi & 0xFF) << 8;
    return align_skip(s);
}

int binary_u32(CliStream *s, uint32_t *out) {
    const uint8_t align = s->flags & CLI_F_ALIGN;
    s->flags &= static_cast<uint8_t>(~CLI_F_ALIGN);
    uint32_t lo = 0, hi = 0;
    int ok = binary_u16(s, &lo) && binary_u16(s, &hi);
    s->flags |= align;
    if (!ok) return 0;
    *out = hi << 16 | lo;
    return align_skip(s);
}

int binary_integer(CliStream *s, uint32_t *out) {
    return (s->flags & CLI_F_SHORT) ? binary_u16(s, out) : binary_u32(s, out);
}

// A binary real of the axis 0, 1 or 2 (x, y, z): 16-bit values of an axis
// whose declared minimum is negative are signed.
int binary_real(CliStream *s, float *out, int axis) {
    uint32_t bits = 0;
    float f;
    if (s->flags & CLI_F_SHORT) {
        if (!binary_u16(s, &bits)) return 0;
        f = static_cast<float>(bits);
        if (s->signed_axes & (1 << axis)) {
            s->signed_read = 1;
            if (bits >= 0x8000) f -= 65536.0f;
        }
    } else {
        if (!binary_u32(s, &bits)) return 0;
        memcpy(&f, &bits, sizeof f);
        // Bytes missing at the end of the file read as 255, which looks
        // like a NaN: report the end of the file instead.
        if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
        if (f != f) return cli_fail(s, CLI_E_NAN);
    }
    if (s->flags & CLI_F_SCALE) f *= s->header->units;
    if (!std::isfinite(f)) return cli_fail(s, CLI_E_INFINITE);
    *out = f;
    return align_skip(s);
}

int read_integer(CliStream *s, uint32_t *out) {
    return (s->flags & CLI_F_BINARY) ? binary_integer(s, out) : ascii_integer(s, out);
}

int read_real(CliStream *s, float *out, int axis) {
    return (s->flags & CLI_F_BINARY) ? binary_real(s, out, axis) : ascii_real(s, out);
}

// Bytes taken as they come up to a separator (given back), in a new
// NUL-terminated allocation of *size bytes.
char *read_text(CliStream *s, uint32_t *size) {
    uint32_t cap = text_step, n = 0;
    char *text = static_cast<char *>(mm_malloc(cap));
    if (!text) {
        cli_fail(s, CLI_E_MEMORY);
        return nullptr;
    }
    for (;;) {
        int c = cli_getc(s);
        if (is_separator(c)) {
            cli_ungetc(s, c);
            break;
        }
        if (n + 1 == cap) {
            uint32_t grown_cap = cap + (cap / 2 > text_step ? cap / 2 : text_step);
            char *grown = static_cast<char *>(mm_realloc(text, cap, grown_cap));
            if (!grown) {
                mm_free(text, cap, 0);
                cli_fail(s, CLI_E_MEMORY);
                return nullptr;
            }
            text = grown;
            cap = grown_cap;
        }
        text[n++] = static_cast<char>(c);
    }
    if (s->io_failed) {
        mm_free(text, cap, 0);
        return nullptr;
    }
    *size = cap;
    return text;
}

// Counts a command passed over under its keyword.
int count_skipped(CliStream *s, const char *name) {
    if (!s->skipped) {
        s->skipped =
            static_cast<CliSkipped *>(mm_malloc((CLI_SKIPPED_MAX + 1) * sizeof(CliSkipped)));
        if (!s->skipped) return cli_fail(s, CLI_E_MEMORY);
    }
    uint32_t i = 0;
    while (i < s->skipped_count && strcmp(s->skipped[i].name, name) != 0)
        i++;
    if (i >= CLI_SKIPPED_MAX) {
        i = CLI_SKIPPED_MAX;
        s->skipped[i].name[0] = '\0';
        s->skipped_count = CLI_SKIPPED_MAX + 1;
    } else if (i == s->skipped_count) {
        snprintf(s->skipped[i].name, CLI_SKIPPED_NAME, "%s", name);
        s->skipped_count++;
    }
    s->skipped[i].count++;
    return 1;
}

// An unknown command in ASCII geometry of the form $$WORD/numbers, such as
// the process parameters other tools write ($$POWER/100.0), passed over
// and counted; name holds the letters read so far (CLI_SKIPPED_NAME bytes).
// 0 for anything else.
int skip_command(CliStream *s, char *name) {
    size_t n = strlen(name);
    if (n == keyword_capacity - 1 &&
        !read_token(s, name + n, CLI_SKIPPED_NAME - static_cast<uint32_t>(n), true))
        return 0;
    for (const char *p = name; *p; p++) {
        if (*p < 'A' || *p > 'Z') return 0;
    }
    if (*name == '\0' || next_char(s) != '/') return 0;
    for (;;) {
        char token[number_capacity];
        if (!read_token(s, token, number_capacity, false)) return 0;
        char *end = nullptr;
        strtod(token, &end);
        if (end == token || (*end != '\0' && !isspace(static_cast<unsigned char>(*end)))) return 0;
        int c = next_char(s);
        if (c != ',') {
            cli_ungetc(s, c);
            break;
        }
    }
    return count_skipped(s, name);
}

uint32_t ascii_keyword(CliStream *s) {
    if (s->error == 0) {
        if (next_char(s) != '$') return cli_fail(s, CLI_E_FORMAT);
    } else {
        // Resynchronise on the next "$"; reaching it clears the error.
        if (at_end(s)) return 0;
        for (;;) {
            int c = next_char(s);
            if (c == '$') break;
            if (c == CLI_EOF || s->io_failed) return 0;
        }
        s->error = 0;
        s->sys_error = 0;
    }
    if (next_char(s) != '$') return cli_fail(s, CLI_E_FORMAT);
    char token[CLI_SKIPPED_NAME];
    if (!read_token(s, token, keyword_capacity, true)) return 0;
    uint32_t code = cli_keyword_lookup(token);
    if (code == 0) {
        if ((s->flags & CLI_F_HEADER_READ) && skip_command(s, token)) return skipped_command;
        return cli_fail(s, CLI_E_KEYWORD);
    }
    if (cli_keyword_has_parameters(code) && next_char(s) != '/') return cli_fail(s, CLI_E_FORMAT);
    return code;
}

uint32_t binary_keyword(CliStream *s) {
    uint32_t command = 0;
    s->eof_crossed = 0;
    if (!binary_u16(s, &command)) return at_end(s) ? uint32_t{CLI_KW_GEOMETRYEND} : 0u;
    if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
    switch (command) {
    case CMD_LAYER_LONG:
    case CMD_POLYLINE_LONG:
    case CMD_HATCHES_LONG:
        s->flags &= static_cast<uint8_t>(~CLI_F_SHORT);
        break;
    case CMD_LAYER_SHORT:
    case CMD_POLYLINE_SHORT:
    case CMD_HATCHES_SHORT:
        s->flags |= CLI_F_SHORT;
        break;
    default:
        return cli_fail(s, CLI_E_KEYWORD);
    }
    if (command <= CMD_LAYER_SHORT) return CLI_KW_LAYER;
    if (command <= CMD_POLYLINE_LONG) return CLI_KW_POLYLINE;
    return CLI_KW_HATCHES;
}

uint32_t read_keyword(CliStream *s) {
    return (s->flags & CLI_F_BINARY) ? binary_keyword(s) : ascii_keyword(s);
}

int expect_keyword(CliStream *s, uint32_t code) {
    if (code == CLI_KW_GEOMETRYSTART && (s->flags & CLI_F_BINARY)) return 1;
    if (read_keyword(s) != code) return cli_fail(s, CLI_E_FORMAT);
    return 1;
}

int read_label(CliStream *s) {
    CliLabel label = {};
    uint32_t size = 0;
    if (!ascii_integer(s, &label.id)) return 0;
    char *text = read_text(s, &size);
    if (!text) return 0;
    label.text = text;
    if (s->callback) s->callback(s->callback_context, CLI_KW_LABEL, &label);
    mm_free(text, size, 0);
    return 1;
}

// The data block of a $$USERDATA: allocated as far as the input can justify
// and grown as the bytes arrive. Null with length 0; a short block fails.
int read_user_block(CliStream *s, uint32_t length, uint8_t **out, uint32_t *size) {
    *out = nullptr;
    *size = 0;
    if (length == 0) return 1;
    if (s->measured && length > cli_bytes_left(s)) return cli_fail(s, CLI_E_EOF);
    uint32_t cap = s->measured || length < unknown_size_block ? length : unknown_size_block;
    uint32_t got = 0;
    uint8_t *data = static_cast<uint8_t *>(mm_malloc(cap));
    if (!data) return cli_fail(s, CLI_E_MEMORY);
    for (;;) {
        got += cli_read_block(s, data + got, cap - got);
        if (got < cap || cap == length) break;
        uint32_t grown_cap = length - cap > cap ? cap * 2 : length;
        uint8_t *grown = static_cast<uint8_t *>(mm_realloc(data, cap, grown_cap));
        if (!grown) {
            mm_free(data, cap, 0);
            return cli_fail(s, CLI_E_MEMORY);
        }
        data = grown;
        cap = grown_cap;
    }
    if (got < length) {
        mm_free(data, cap, 0);
        return s->io_failed ? 0 : cli_fail(s, CLI_E_EOF);
    }
    *out = data;
    *size = cap;
    return 1;
}

int read_user_data(CliStream *s) {
    uint32_t uid_size = 0, length = 0, data_size = 0;
    uint8_t *data = nullptr;
    char *uid = read_text(s, &uid_size);
    if (!uid) return 0;
    skip_comma(s);
    int ok =
        !s->error && ascii_integer(s, &length) && read_user_block(s, length, &data, &data_size);
    if (ok && s->callback) {
        CliUserData user = {uid, length, data};
        s->callback(s->callback_context, CLI_KW_USERDATA, &user);
    }
    mm_free(data, data_size, 0);
    mm_free(uid, uid_size, 0);
    return ok;
}

int read_header_keywords(CliStream *s) {
    CliHeader *h = s->header;
    if (!expect_keyword(s, CLI_KW_HEADERSTART)) return 0;
    for (;;) {
        uint32_t code = read_keyword(s);
        int ok = 1;
        switch (code) {
        case CLI_KW_HEADEREND:
            return 1;
        case 0:
            // Not at the end: the next keyword read resynchronises.
            if (at_end(s)) return 0;
            break;
        case CLI_KW_ALIGN:
            s->flags |= CLI_F_ALIGN;
            break;
        case CLI_KW_ASCII:
            s->format = CLI_FORMAT_ASCII;
            break;
        case CLI_KW_BINARY:
            s->format = CLI_FORMAT_BINARY;
            break;
        case CLI_KW_DATE:
            ok = ascii_integer(s, &h->date);
            break;
        case CLI_KW_DIMENSION: {
            // The maximum corner comes first; some tools give the minimum first.
            double *order[6] = {&h->xmax, &h->ymax, &h->zmax, &h->xmin, &h->ymin, &h->zmin};
            for (int i = 0; ok && i < 6; i++)
                ok = ascii_double(s, order[i]);
            for (int i = 0; ok && i < 3; i++) {
                if (*order[i] < *order[i + 3]) std::swap(*order[i], *order[i + 3]);
            }
            break;
        }
        case CLI_KW_LABEL:
            ok = read_label(s);
            break;
        case CLI_KW_LAYERS:
            ok = ascii_integer(s, &h->layers);
            break;
        case CLI_KW_UNITS: {
            double units;
            ok = ascii_double(s, &units);
            if (ok) h->units = to_f32(units);
            if (ok && std::isinf(h->units)) ok = cli_fail(s, CLI_E_INFINITE);
            break;
        }
        case CLI_KW_USERDATA:
            ok = read_user_data(s);
            break;
        case CLI_KW_VERSION:
            ok = ascii_integer(s, &s->version);
            break;
        default:
            // A geometry keyword in the header is passed over, unless the
            // file ends with it.
            if (at_end(s)) return cli_fail(s, CLI_E_KEYWORD);
            break;
        }
        if (!ok) return 0;
    }
}

// Passes over what may stand before $$HEADERSTART: bytes the scanner skips
// anyway and "//" comment lines, as other tools write them. Any other byte
// is left for the header to take or refuse; when none comes within the
// first 64 KiB, the input is not a CLI file.
int skip_preamble(CliStream *s) {
    for (;;) {
        if (cli_byte_count(s) >= CLI_START_WINDOW) return cli_fail(s, CLI_E_NOT_CLI);
        int c = cli_getc(s);
        if (s->io_failed) return 0;
        if (c == '/') {
            int d = cli_getc(s);
            if (d != '/') {
                cli_ungetc(s, d);
                cli_ungetc(s, c);
                return 1;
            }
            while (c != '\n') {
                if (cli_byte_count(s) >= CLI_START_WINDOW) return cli_fail(s, CLI_E_NOT_CLI);
                c = cli_getc(s);
                if (s->io_failed) return 0;
                if (c == CLI_EOF) return cli_fail(s, CLI_E_EOF);
            }
        } else if (is_significant(c)) {
            cli_ungetc(s, c);
            return 1;
        }
    }
}

int read_header(CliStream *s) {
    if (!cli_header_get(s)) return cli_fail(s, CLI_E_MEMORY);
    const uint8_t scale = s->flags & CLI_F_SCALE;
    s->flags &= static_cast<uint8_t>(~(CLI_F_BINARY | CLI_F_SCALE));
    int ok = skip_preamble(s) && read_header_keywords(s);
    if (ok) {
        const CliHeader *h = s->header;
        if (s->format == CLI_FORMAT_BINARY) s->flags |= CLI_F_BINARY;
        if (h->units == 0.0f) s->header->units = 1.0f;
        // Some tools store 16-bit coordinates signed when the part lies
        // partly below zero, which the declared dimensions then show.
        s->signed_axes =
            static_cast<uint8_t>((h->xmin < 0.0) | (h->ymin < 0.0) << 1 | (h->zmin < 0.0) << 2);
    }
    s->flags |= scale;
    if (!ok || !align_skip(s) || !expect_keyword(s, CLI_KW_GEOMETRYSTART)) return 0;
    s->flags |= CLI_F_HEADER_READ;
    return 1;
}

// Room for the points of e from point i on, as far as the input justifies
// it: all of them when a measured binary input holds their bytes (a count
// it cannot hold fails); otherwise twice the points read so far, at most
// what the bytes left can hold in the densest ASCII ("1,1," for a point).
int reserve_from(CliStream *s, CliElement *e, uint32_t i) {
    uint64_t n = e->count;
    if (s->measured && (s->flags & CLI_F_BINARY)) {
        if (n * ((s->flags & CLI_F_SHORT) ? 4 : 8) > cli_bytes_left(s))
            return cli_fail(s, CLI_E_EOF);
    } else {
        uint64_t step = std::max(i, unknown_size_points);
        if (s->measured) step = std::min(step, (cli_bytes_left(s) + 1) / 4);
        n = std::min(n, i + std::max<uint64_t>(step, 1));
    }
    if (!cli_reserve_points(e, static_cast<uint32_t>(n))) {
        s->silent_stop = 1;
        return 0;
    }
    return 1;
}

int read_points(CliStream *s, CliElement *e) {
    e->read = 0;
    if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
    for (uint32_t i = 0; i < e->count; i++) {
        if (i >= e->capacity && !reserve_from(s, e, i)) return 0;
        CliPoint p;
        const uint8_t align = s->flags & CLI_F_ALIGN;
        s->flags &= static_cast<uint8_t>(~CLI_F_ALIGN);
        int ok = read_real(s, &p.x, 0);
        s->flags |= align;
        if (!ok || !read_real(s, &p.y, 1)) return 0;
        if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
        e->points[i] = p;
        e->read++;
    }
    return 1;
}

int read_polyline(CliStream *s, CliElement *e) {
    e->kind = CLI_POLYLINE;
    if (!read_integer(s, &e->id) || !read_integer(s, &e->dir) || !read_integer(s, &e->count))
        return 0;
    return read_points(s, e);
}

int read_hatches(CliStream *s, CliElement *e) {
    e->kind = CLI_HATCHES;
    uint32_t hatches = 0;
    if (!read_integer(s, &e->id) || !read_integer(s, &hatches)) return 0;
    if (hatches > UINT32_MAX / 2) return cli_fail(s, CLI_E_EOF);
    e->count = 2 * hatches;
    return read_points(s, e);
}

int read_layer(CliStream *s) {
    float z = 0.0f;
    if (!read_real(s, &z, 2)) return 0;
    if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
    s->layer_z = z;
    s->layers_read++;
    return 1;
}

} // namespace

int cli_read_element(CliStream *s, CliElement *e) {
    if (!s) return 0;
    s->silent_stop = 0;
    if (!e || s->mode != CLI_MODE_READ) return cli_fail(s, e ? CLI_E_CONTEXT : CLI_E_ARGUMENT);
    if (!(s->flags & CLI_F_HEADER_READ) && !read_header(s)) return 0;
    int result = 0;
    if (at_end(s)) return 0;
    for (;;) {
        switch (read_keyword(s)) {
        case CLI_KW_GEOMETRYEND:
            if (!(s->flags & CLI_F_BINARY)) s->end_seen = 1;
            return 0;
        case 0:
            // A layer with no element behind it is not reported.
            return 0;
        case CLI_KW_POLYLINE:
            if (!read_polyline(s, e)) return 0;
            return result == 2 ? 2 : 1;
        case CLI_KW_HATCHES:
            if (!read_hatches(s, e)) return 0;
            return result == 2 ? 2 : 1;
        case CLI_KW_LAYER:
            if (!read_layer(s)) return 0;
            result = 2;
            break;
        default:
            break;
        }
        if (at_end(s)) return 0;
    }
}

int cli_read_ended_cleanly(const CliStream *s) {
    return s && (s->error != 0 || !s->silent_stop);
}
