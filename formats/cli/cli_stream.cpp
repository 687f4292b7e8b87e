// The CLI stream object: creation, options, errors, the keyword table and
// the buffered byte layer.
#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "formats/cli/cli_internal.h"
#include "support/file_size.h"
#include "support/mm.h"

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
    "not a CLI file",
    "floating-point value is infinite or out of range",
    "value does not fit its 16-bit field",
};

struct Keyword {
    const char *name;
    uint32_t code;
    uint8_t parameters; // "/" follows the keyword
};

// Sorted by name; a code's first entry is the name the writer uses.
const Keyword keywords[] = {
    {"ALIGN", CLI_KW_ALIGN, 0},
    {"ASCII", CLI_KW_ASCII, 0},
    {"BINARY", CLI_KW_BINARY, 0},
    {"DATE", CLI_KW_DATE, 1},
    {"DIMENSION", CLI_KW_DIMENSION, 1},
    {"DIMENSIONS", CLI_KW_DIMENSION, 1},
    {"GEOMETRYEND", CLI_KW_GEOMETRYEND, 0},
    {"GEOMETRYSTART", CLI_KW_GEOMETRYSTART, 0},
    {"HATCHES", CLI_KW_HATCHES, 1},
    {"HEADEREND", CLI_KW_HEADEREND, 0},
    {"HEADERSTART", CLI_KW_HEADERSTART, 0},
    {"LABEL", CLI_KW_LABEL, 1},
    {"LAYER", CLI_KW_LAYER, 1},
    {"LAYERS", CLI_KW_LAYERS, 1},
    {"POLYLINE", CLI_KW_POLYLINE, 1},
    {"UNITS", CLI_KW_UNITS, 1},
    {"USERDATA", CLI_KW_USERDATA, 1},
    {"VERSION", CLI_KW_VERSION, 1},
};

constexpr uint32_t keyword_count = sizeof keywords / sizeof keywords[0];

const Keyword *keyword_of_code(uint32_t code) {
    for (uint32_t i = 0; i < keyword_count; i++) {
        if (keywords[i].code == code) return &keywords[i];
    }
    return nullptr;
}

// Reads as much as the buffer takes; the number of bytes read, 0 at the end
// of input or after a read error (recorded, io_failed set).
uint32_t refill(CliStream *s) {
    uint32_t got = 0;
    while (got < s->buffer_size) {
        size_t n = fread(s->buffer + got, 1, s->buffer_size - got, s->file);
        if (ferror(s->file)) {
            cli_fail(s, CLI_E_READ);
            s->io_failed = 1;
            return 0;
        }
        if (n == 0) break;
        got += static_cast<uint32_t>(n);
    }
    if (s->measured) s->file_left -= got < s->file_left ? got : s->file_left;
    return got;
}

// Two heights that make one layer: within the tolerance, and for heights
// below 1 also within the same share of the height, so that levels written
// in a large unit (a few 1e-8 at -U miles) stay apart.
bool same_height(float a, float b) {
    const double d = std::fabs(static_cast<double>(a) - static_cast<double>(b));
    const double larger =
        std::max(std::fabs(static_cast<double>(a)), std::fabs(static_cast<double>(b)));
    return d < CLI_TOLERANCE && d <= CLI_TOLERANCE * larger;
}

// Option 8 while writing: a new height after the header writes $$LAYER;
// before it, the height is kept for the first $$LAYER as it is.
int set_layer(CliStream *s, const float *z) {
    if (!z) return 0;
    if (s->flags & CLI_F_HEADER_WRITTEN) {
        if (same_height(*z, s->layer_z)) return 1;
        if (!cli_write_keyword(s, CLI_KW_LAYER) || !cli_write_real(s, *z)) return 0;
        if (!(s->flags & CLI_F_BINARY) && !cli_write_text(s, "\n", 0)) return 0;
    }
    s->layer_z = *z;
    return 1;
}

void set_flag(CliStream *s, uint8_t flag, void *value) {
    if (value)
        s->flags |= flag;
    else
        s->flags &= static_cast<uint8_t>(~flag);
}

} // namespace

int cli_fail(CliStream *s, uint32_t code) {
    if (s->error == 0) {
        s->error = code;
        if (code >= CLI_E_READ && code <= CLI_E_OPEN) s->sys_error = errno;
    }
    return 0;
}

const char *cli_error_text(uint32_t code) {
    return code < sizeof error_texts / sizeof error_texts[0] ? error_texts[code] : "<unknown>";
}

const char *cli_stream_error_text(const CliStream *s) {
    return s && s->error ? cli_error_text(s->error) : nullptr;
}

uint32_t cli_stream_error(const CliStream *s) {
    return s ? s->error : 0;
}

int cli_stream_system_error(const CliStream *s) {
    return s ? s->sys_error : 0;
}

const char *cli_keyword_name(uint32_t code) {
    const Keyword *k = keyword_of_code(code);
    return k ? k->name : nullptr;
}

int cli_keyword_has_parameters(uint32_t code) {
    const Keyword *k = keyword_of_code(code);
    return k ? k->parameters : 0;
}

uint32_t cli_keyword_lookup(const char *token) {
    for (uint32_t i = 0; i < keyword_count; i++) {
        if (strcmp(token, keywords[i].name) == 0) return keywords[i].code;
    }
    return 0;
}

void cli_header_clear(CliHeader *h) {
    memset(h, 0, sizeof *h);
    h->xmin = h->ymin = h->zmin = DBL_MAX;
    h->xmax = h->ymax = h->zmax = -DBL_MAX;
}

CliHeader *cli_header_get(CliStream *s) {
    if (s->header) return s->header;
    CliHeader *h = static_cast<CliHeader *>(mm_malloc(sizeof(CliHeader)));
    if (!h) return nullptr;
    cli_header_clear(h);
    s->header = h;
    s->header_owned = 1;
    return h;
}

CliStream *cli_create() {
    CliStream *s = static_cast<CliStream *>(mm_malloc(sizeof(CliStream)));
    if (!s) return nullptr;
    s->flags = CLI_F_SCALE;
    return s;
}

int cli_finish(CliStream *s) {
    if (!s || s->mode != CLI_MODE_WRITE || s->finished) return 1;
    s->finished = 1;
    int ok = 1;
    if (!(s->flags & CLI_F_BINARY)) ok = cli_write_keyword(s, CLI_KW_GEOMETRYEND);
    if (s->buffer && !cli_flush(s)) ok = 0;
    return ok;
}

int cli_destroy(CliStream *s) {
    if (!s) return 1;
    cli_finish(s);
    if (s->header_owned) mm_free(s->header, sizeof(CliHeader), 0);
    mm_free(s->skipped, (CLI_SKIPPED_MAX + 1) * sizeof(CliSkipped), 0);
    mm_free(s->buffer, s->buffer_size, 0);
    memset(s, 0, sizeof *s);
    mm_free(s, sizeof *s, 0);
    return 1;
}

int cli_set_option(CliStream *s, int code, void *value) {
    if (!s) return 0;
    if (code == CLI_OPT_FILE) {
        if (!value) return 0;
        s->file = static_cast<FILE *>(value);
        return 1;
    }
    if (code == CLI_OPT_MODE) {
        if (!value) return 0;
        s->mode = *static_cast<const uint32_t *>(value);
        return 1;
    }
    if (s->mode == CLI_MODE_READ) {
        switch (code) {
        case CLI_OPT_SCALE:
            set_flag(s, CLI_F_SCALE, value);
            return 1;
        case CLI_OPT_CALLBACK:
            if (!value) return 0;
            s->callback = *static_cast<const CliCallback *>(value);
            return 1;
        case CLI_OPT_CALLBACK_CONTEXT:
            s->callback_context = value;
            return 1;
        default:
            return 0;
        }
    }
    if (s->mode == CLI_MODE_WRITE) {
        switch (code) {
        case CLI_OPT_HEADER:
            if (!value) return 0;
            if (s->header_owned && s->header != value) mm_free(s->header, sizeof(CliHeader), 0);
            s->header = static_cast<CliHeader *>(value);
            s->header_owned = 0;
            return 1;
        case CLI_OPT_FORMAT:
            if (!value) return 0;
            s->format = *static_cast<const uint32_t *>(value);
            return 1;
        case CLI_OPT_ALIGN:
            set_flag(s, CLI_F_ALIGN, value);
            return 1;
        case CLI_OPT_SCALE:
            set_flag(s, CLI_F_SCALE, value);
            return 1;
        case CLI_OPT_SHORT:
            set_flag(s, CLI_F_SHORT, value);
            return 1;
        case CLI_OPT_LAYER:
            return set_layer(s, static_cast<const float *>(value));
        default:
            return 0;
        }
    }
    // No mode yet: nothing but the file and the mode. A mode of any other
    // value takes every option and ignores it.
    return s->mode != 0;
}

int cli_get_option(CliStream *s, int code, void *out) {
    if (!s) return 0;
    if (!out) return 1;
    switch (code) {
    case CLI_OPT_FILE:
        *static_cast<FILE **>(out) = s->file;
        break;
    case CLI_OPT_HEADER:
        *static_cast<CliHeader **>(out) = s->header;
        break;
    case CLI_OPT_FORMAT:
        *static_cast<uint32_t *>(out) = s->format;
        break;
    case CLI_OPT_MODE:
        *static_cast<uint32_t *>(out) = s->mode;
        break;
    case CLI_OPT_LAYER:
        *static_cast<float *>(out) = s->layer_z;
        break;
    case CLI_OPT_MM: {
        uint32_t mm = 0;
        if (s->flags & CLI_F_SCALE)
            mm = 1;
        else if (s->header &&
                 std::fabs(static_cast<double>(s->header->units) - 1.0) < CLI_TOLERANCE)
            mm = 1;
        *static_cast<uint32_t *>(out) = mm;
        break;
    }
    case CLI_OPT_LAYERS_READ:
        *static_cast<uint32_t *>(out) = s->layers_read;
        break;
    case CLI_OPT_END_SEEN:
        *static_cast<uint32_t *>(out) = s->end_seen;
        break;
    case CLI_OPT_SIGNED_SHORT:
        *static_cast<uint32_t *>(out) = s->signed_read;
        break;
    default:
        break;
    }
    return 1;
}

uint32_t cli_skipped_keywords(const CliStream *s) {
    return s ? s->skipped_count : 0;
}

const char *cli_skipped_keyword(const CliStream *s, uint32_t i, uint64_t *count) {
    if (!s || i >= s->skipped_count) return nullptr;
    if (count) *count = s->skipped[i].count;
    return s->skipped[i].name;
}

int cli_reserve_points(CliElement *e, uint32_t n) {
    if (!e) return 0;
    if (e->capacity >= n) return 1;
    void *grown = mm_realloc(e->points, static_cast<size_t>(e->capacity) * sizeof(CliPoint),
                             static_cast<size_t>(n) * sizeof(CliPoint));
    if (!grown) return 0;
    e->points = static_cast<CliPoint *>(grown);
    e->capacity = n;
    return 1;
}

void cli_free_points(CliElement *e) {
    if (!e) return;
    mm_free(e->points, static_cast<size_t>(e->capacity) * sizeof(CliPoint), 0);
    memset(e, 0, sizeof *e);
}

int cli_alloc_buffer(CliStream *s) {
    if (!s->file) return cli_fail(s, CLI_E_CONTEXT);
    if (s->buffer) return 1;
    uint32_t size = s->buffer_size ? s->buffer_size : CLI_BUFFER_DEFAULT;
    uint64_t file_size = 0;
    if (s->mode == CLI_MODE_READ && file_measure(s->file, &file_size, &s->file_left)) {
        s->measured = 1;
        if (file_size > 0 && file_size < size) size = static_cast<uint32_t>(file_size);
    }
    s->buffer = static_cast<uint8_t *>(mm_malloc(size));
    if (!s->buffer) {
        size = CLI_BUFFER_FALLBACK;
        s->buffer = static_cast<uint8_t *>(mm_malloc(size));
        if (!s->buffer) return 0;
    }
    s->buffer_size = size;
    s->pos = s->fill = 0;
    s->limit = s->mode == CLI_MODE_WRITE ? size : 0;
    return 1;
}

int cli_getc_slow(CliStream *s) {
    if (s->pushback_count > 0) {
        int c = s->pushback[--s->pushback_count];
        if (s->pushback_count == 0) s->limit = s->fill;
        return c;
    }
    if (s->pos < s->fill) return s->buffer[s->pos++];
    if (s->at_eof) return CLI_EOF;
    if (s->io_failed) return 0;
    if (!s->buffer && !cli_alloc_buffer(s)) {
        cli_fail(s, CLI_E_MEMORY);
        s->io_failed = 1;
        return 0;
    }
    s->base += s->fill;
    s->pos = s->fill = s->limit = 0;
    uint32_t got = refill(s);
    if (got == 0) {
        if (!s->io_failed && feof(s->file)) {
            s->at_eof = 1;
            return CLI_EOF;
        }
        cli_fail(s, CLI_E_READ);
        s->io_failed = 1;
        return 0;
    }
    s->fill = s->limit = got;
    s->pos = 1;
    return s->buffer[0];
}

int cli_ungetc(CliStream *s, int c) {
    if (s->pushback_count >= CLI_PUSHBACK_MAX) return 0;
    s->pushback[s->pushback_count++] = c;
    s->limit = 0;
    return 1;
}

uint64_t cli_bytes_left(const CliStream *s) {
    uint64_t held = 0;
    for (uint32_t i = 0; i < s->pushback_count; i++)
        held += s->pushback[i] != CLI_EOF;
    return s->file_left + (s->fill - s->pos) + held;
}

uint32_t cli_read_block(CliStream *s, uint8_t *out, uint32_t n) {
    uint32_t got = 0;
    while (got < n) {
        int c = cli_getc(s);
        if (c == CLI_EOF || s->io_failed) break;
        out[got++] = static_cast<uint8_t>(c);
    }
    return got;
}

int cli_flush(CliStream *s) {
    if (s->pos == 0) return 1;
    if (fwrite(s->buffer, 1, s->pos, s->file) != s->pos) return cli_fail(s, CLI_E_WRITE);
    s->base += s->pos;
    s->pos = s->fill = 0;
    return 1;
}

int cli_putc_slow(CliStream *s, int c) {
    if (!s->buffer && !cli_alloc_buffer(s)) return cli_fail(s, CLI_E_MEMORY);
    if (s->pos >= s->buffer_size && !cli_flush(s)) return 0;
    s->buffer[s->pos++] = static_cast<uint8_t>(c);
    s->fill = s->pos;
    return 1;
}

int cli_write_text(CliStream *s, const char *text, uint32_t n) {
    if (!text) text = "";
    size_t len = strlen(text);
    if (n == 0) n = static_cast<uint32_t>(len);
    for (uint32_t i = 0; i < n; i++) {
        if (!cli_putc(s, i < len ? static_cast<uint8_t>(text[i]) : ' ')) return 0;
    }
    return 1;
}
