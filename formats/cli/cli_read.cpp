// The CLI reader: the ASCII scanner (significant characters, comments,
// tokens, numbers, texts), the binary value layer, the header section and
// the elements of the geometry section.
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
// Points reserved at once when the size of the input is unknown; the array
// then grows as the points arrive.
constexpr uint32_t unknown_size_points = 256;
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

int is_significant(int c) {
    if (c == CLI_EOF) return 1;
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return 1;
    return c == '$' || c == '/' || c == ',' || c == '.' || c == '+' || c == '-';
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
int read_token(CliStream *s, char *token, uint32_t capacity) {
    uint32_t n = 0;
    while (n < capacity - 1) {
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
    if (!read_token(s, token, number_capacity)) return 0;
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
    if (!read_token(s, token, number_capacity)) return 0;
    char *end = nullptr;
    double v = strtod(token, &end);
    if (end == token) {
        s->silent_stop = 1;
        return 0;
    }
    // The C library reads "nan" as a number; it is refused as in binary data.
    if (v != v) return cli_fail(s, CLI_E_NAN);
    *out = v;
    skip_comma(s);
    return 1;
}

int ascii_real(CliStream *s, float *out) {
    double v;
    if (!ascii_double(s, &v)) return 0;
    float f = to_f32(v);
    if (s->flags & CLI_F_SCALE) f *= s->header->units;
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

int binary_real(CliStream *s, float *out) {
    uint32_t bits = 0;
    float f;
    if (s->flags & CLI_F_SHORT) {
        if (!binary_u16(s, &bits)) return 0;
        f = static_cast<float>(bits);
    } else {
        if (!binary_u32(s, &bits)) return 0;
        memcpy(&f, &bits, sizeof f);
        // Bytes missing at the end of the file read as 255, which looks
        // like a NaN: report the end of the file instead.
        if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
        if (f != f) return cli_fail(s, CLI_E_NAN);
    }
    if (s->flags & CLI_F_SCALE) f *= s->header->units;
    *out = f;
    return align_skip(s);
}

int read_integer(CliStream *s, uint32_t *out) {
    return (s->flags & CLI_F_BINARY) ? binary_integer(s, out) : ascii_integer(s, out);
}

int read_real(CliStream *s, float *out) {
    return (s->flags & CLI_F_BINARY) ? binary_real(s, out) : ascii_real(s, out);
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
    char token[keyword_capacity];
    if (!read_token(s, token, keyword_capacity)) return 0;
    uint32_t code = cli_keyword_lookup(token);
    if (code == 0) return cli_fail(s, CLI_E_KEYWORD);
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
            double *order[6] = {&h->xmax, &h->ymax, &h->zmax, &h->xmin, &h->ymin, &h->zmin};
            for (int i = 0; ok && i < 6; i++)
                ok = ascii_double(s, order[i]);
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

int read_header(CliStream *s) {
    if (!cli_header_get(s)) return cli_fail(s, CLI_E_MEMORY);
    const uint8_t scale = s->flags & CLI_F_SCALE;
    s->flags &= static_cast<uint8_t>(~(CLI_F_BINARY | CLI_F_SCALE));
    int ok = read_header_keywords(s);
    if (ok) {
        if (s->format == CLI_FORMAT_BINARY) s->flags |= CLI_F_BINARY;
        if (s->header->units == 0.0f) s->header->units = 1.0f;
    }
    s->flags |= scale;
    if (!ok || !align_skip(s) || !expect_keyword(s, CLI_KW_GEOMETRYSTART)) return 0;
    s->flags |= CLI_F_HEADER_READ;
    return 1;
}

// Reserves room for count points as far as the input can justify it: all of
// them when a measured binary input holds their bytes (a count it cannot
// hold fails), as many as the bytes left allow in ASCII, a few when the
// size is unknown. The rest is reserved while the points arrive.
int reserve_for(CliStream *s, CliElement *e, uint32_t count) {
    uint64_t n = count;
    if (s->measured) {
        uint64_t left = cli_bytes_left(s);
        if (s->flags & CLI_F_BINARY) {
            if (n * ((s->flags & CLI_F_SHORT) ? 4 : 8) > left) return cli_fail(s, CLI_E_EOF);
        } else if (n > left / 2) {
            n = left / 2;
        }
    } else if (n > unknown_size_points) {
        n = unknown_size_points;
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
    if (!reserve_for(s, e, e->count)) return 0;
    for (uint32_t i = 0; i < e->count; i++) {
        if (i == e->capacity) {
            uint32_t more = i < unknown_size_points ? unknown_size_points : i;
            more = e->count - i > more ? i + more : e->count;
            if (!cli_reserve_points(e, more)) {
                s->silent_stop = 1;
                return 0;
            }
        }
        CliPoint p;
        const uint8_t align = s->flags & CLI_F_ALIGN;
        s->flags &= static_cast<uint8_t>(~CLI_F_ALIGN);
        int ok = read_real(s, &p.x);
        s->flags |= align;
        if (!ok || !read_real(s, &p.y)) return 0;
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
    if (!read_real(s, &z)) return 0;
    if (s->eof_crossed) return cli_fail(s, CLI_E_EOF);
    s->layer_z = z;
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
        case 0:
        case CLI_KW_GEOMETRYEND:
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
