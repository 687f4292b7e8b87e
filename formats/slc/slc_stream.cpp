// The SLC stream object: creation, options, errors, the buffered byte layer
// and the unit factor.
#include <cerrno>
#include <cfloat>
#include <cstring>

#include "formats/slc/slc_internal.h"
#include "support/file_size.h"
#include "support/mm.h"

namespace {

const char *const error_texts[] = {
    "success",
    "premature EOF (not an SLC file or truncated file?)",
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
    "limit exceeded",
    "not an SLC file",
};

// Alphabetical; the code of a keyword is its place counted from 1.
const char *const keywords[] = {
    "ARCRES",  "CHORDDEV", "EXTENTS", "EXTLWC",  "GAPTOL",  "INCH", "MAXGAPFOUND", "MM",
    "PACKAGE", "PART",     "SLCVER",  "SUPPORT", "SURFTOL", "TYPE", "UNIT",        "WEB",
};

constexpr uint32_t keyword_count = sizeof keywords / sizeof keywords[0];

// Reads as much as the buffer takes; the number of bytes read, 0 at the end
// of input or after a read error (recorded, io_failed set).
uint32_t refill(SlcStream *s) {
    uint32_t got = 0;
    while (got < s->buffer_size) {
        size_t n = fread(s->buffer + got, 1, s->buffer_size - got, s->file);
        if (ferror(s->file)) {
            slc_fail(s, SLC_E_READ);
            s->io_failed = 1;
            return 0;
        }
        if (n == 0) break;
        got += static_cast<uint32_t>(n);
    }
    if (s->measured) s->file_left -= got < s->file_left ? got : s->file_left;
    return got;
}

} // namespace

int slc_fail(SlcStream *s, uint32_t code) {
    if (s->error == 0) {
        s->error = code;
        if (code >= SLC_E_READ && code <= SLC_E_OPEN) s->sys_error = errno;
    }
    return 0;
}

const char *slc_error_text(uint32_t code) {
    return code < sizeof error_texts / sizeof error_texts[0] ? error_texts[code] : "<unknown>";
}

const char *slc_stream_error_text(const SlcStream *s) {
    return s && s->error ? slc_error_text(s->error) : nullptr;
}

uint32_t slc_stream_error(const SlcStream *s) {
    return s ? s->error : 0;
}
int slc_stream_system_error(const SlcStream *s) {
    return s ? s->sys_error : 0;
}

const char *slc_keyword(uint32_t code) {
    return code >= 1 && code <= keyword_count ? keywords[code - 1] : nullptr;
}

int slc_keyword_has_minus(uint32_t code) {
    return code != SLC_KW_INCH && code != SLC_KW_MM && code != SLC_KW_PART && code != SLC_KW_WEB;
}

SlcStream *slc_create() {
    SlcStream *s = static_cast<SlcStream *>(mm_malloc(sizeof(SlcStream)));
    if (!s) return nullptr;
    s->layer_z = -FLT_MAX;
    s->flags = SLC_F_HEADER_PENDING;
    return s;
}

int slc_destroy(SlcStream *s) {
    if (!s) return 1;
    if (s->mode == SLC_MODE_WRITE) slc_finish(s);
    mm_free(s->header, sizeof(SlcHeader), 0);
    mm_free(s->samples, s->sample_capacity * sizeof(SlcSample), 0);
    mm_free(s->buffer, s->buffer_size, 0);
    memset(s, 0, sizeof *s);
    mm_free(s, sizeof *s, 0);
    return 1;
}

int slc_append_sample(SlcStream *s, const SlcSample *sample) {
    if (!(sample->thickness > 0.0f)) return slc_fail(s, SLC_E_ARGUMENT);
    if (s->sample_count >= SLC_MAX_SAMPLES) return slc_fail(s, SLC_E_LIMIT);
    if (s->sample_count == s->sample_capacity) {
        void *grown = mm_realloc(s->samples, s->sample_capacity * sizeof(SlcSample),
                                 (s->sample_capacity + 1) * sizeof(SlcSample));
        if (!grown) return 0;
        s->samples = static_cast<SlcSample *>(grown);
        s->sample_capacity++;
    }
    s->samples[s->sample_count++] = *sample;
    return 1;
}

int slc_set_option(SlcStream *s, int code, void *value) {
    if (!s || !value) return 0;
    const int writing = s->mode == SLC_MODE_WRITE;
    switch (code) {
    case SLC_OPT_FILE:
        s->file = static_cast<FILE *>(value);
        return 1;
    case SLC_OPT_HEADER: {
        if (!writing || s->header) return 0;
        SlcHeader *h = static_cast<SlcHeader *>(mm_malloc(sizeof(SlcHeader)));
        if (!h) return 0;
        *h = *static_cast<const SlcHeader *>(value);
        h->version[sizeof h->version - 1] = '\0';
        h->package[sizeof h->package - 1] = '\0';
        s->header = h;
        return 1;
    }
    case SLC_OPT_UNIT:
        s->caller_unit = *static_cast<const uint32_t *>(value);
        return 1;
    case SLC_OPT_MODE:
        s->mode = *static_cast<const uint32_t *>(value);
        return 1;
    case SLC_OPT_LAYER: {
        if (!writing) return 0;
        const SlcLayerInfo *layer = static_cast<const SlcLayerInfo *>(value);
        // Only the very same z is the same layer: levels closer than that are
        // distinct layers, whose boundaries must not join the previous one.
        if (layer->z == s->layer_z) return 1;
        if (!(s->flags & SLC_F_HEADER_PENDING) &&
            !slc_write_layer_record(s, layer->z, layer->count))
            return 0;
        s->layer_z = layer->z;
        s->layer_thickness = layer->thickness;
        s->layer_count = layer->count;
        return 1;
    }
    case SLC_OPT_SAMPLE:
        if (!writing) return 0;
        return slc_append_sample(s, static_cast<const SlcSample *>(value));
    default:
        return 0;
    }
}

int slc_get_option(SlcStream *s, int code, void *out) {
    if (!s) return 0;
    if (!out) return 1;
    switch (code) {
    case SLC_OPT_FILE:
        *static_cast<FILE **>(out) = s->file;
        break;
    case SLC_OPT_HEADER:
        *static_cast<SlcHeader **>(out) = s->header;
        break;
    case SLC_OPT_MODE:
        *static_cast<uint32_t *>(out) = s->mode;
        break;
    case SLC_OPT_LAYER: {
        SlcLayerInfo *layer = static_cast<SlcLayerInfo *>(out);
        layer->z = s->layer_z;
        layer->thickness = s->layer_thickness;
        layer->count = s->layer_count;
        break;
    }
    default:
        break;
    }
    return 1;
}

void slc_set_unit_factor(SlcStream *s, uint32_t header_unit) {
    s->flags &= ~SLC_F_SCALE;
    if (s->caller_unit == 0 || s->caller_unit == header_unit) return;
    float factor;
    if (s->caller_unit == SLC_KW_INCH)
        factor = static_cast<float>(1.0 / 25.4);
    else if (s->caller_unit == SLC_KW_MM)
        factor = 25.4f;
    else
        return;
    if (s->mode == SLC_MODE_WRITE) factor = static_cast<float>(1.0 / factor);
    s->unit_factor = factor;
    s->flags |= SLC_F_SCALE;
}

int slc_alloc_buffer(SlcStream *s) {
    if (!s->file) return slc_fail(s, SLC_E_CONTEXT);
    if (s->buffer) return 1;
    uint32_t size = s->buffer_size ? s->buffer_size : SLC_BUFFER_DEFAULT;
    uint64_t file_size = 0;
    if (s->mode == SLC_MODE_READ && file_measure(s->file, &file_size, &s->file_left)) {
        s->measured = 1;
        if (s->file_left > 0 && s->file_left < size) size = static_cast<uint32_t>(s->file_left);
    }
    s->buffer = static_cast<uint8_t *>(mm_malloc(size));
    if (!s->buffer) {
        size = SLC_BUFFER_FALLBACK;
        s->buffer = static_cast<uint8_t *>(mm_malloc(size));
        if (!s->buffer) return 0;
    }
    s->buffer_size = size;
    s->pos = s->fill = 0;
    s->limit = s->mode == SLC_MODE_WRITE ? size : 0;
    return 1;
}

int slc_getc_slow(SlcStream *s) {
    if (s->pushback_count > 0) {
        int c = s->pushback[--s->pushback_count];
        if (s->pushback_count == 0) s->limit = s->fill;
        return c;
    }
    if (s->pos < s->fill) return s->buffer[s->pos++];
    if (s->scanning) return SLC_EOF;
    if (!s->buffer && !slc_alloc_buffer(s)) {
        slc_fail(s, SLC_E_MEMORY);
        s->io_failed = 1;
        return 0;
    }
    uint32_t got = refill(s);
    if (got == 0) {
        if (!s->io_failed && feof(s->file)) return SLC_EOF;
        slc_fail(s, SLC_E_READ);
        s->io_failed = 1;
        return 0;
    }
    s->fill = s->limit = got;
    s->pos = 1;
    return s->buffer[0];
}

int slc_ungetc(SlcStream *s, int c) {
    if (c < 0 || s->pushback_count >= SLC_PUSHBACK_MAX) return 0;
    s->pushback[s->pushback_count++] = static_cast<uint8_t>(c);
    s->limit = 0;
    return 1;
}

uint64_t slc_bytes_left(const SlcStream *s) {
    return s->file_left + (s->fill - s->pos) + s->pushback_count;
}

int slc_read_u32_slow(SlcStream *s, uint32_t *out) {
    uint32_t v = 0;
    for (int i = 0; i < 4; i++) {
        int c = slc_getc(s);
        if (c == SLC_EOF) return slc_fail(s, SLC_E_EOF);
        v |= static_cast<uint32_t>(c & 0xFF) << (8 * i);
    }
    if (s->io_failed) return 0;
    *out = v;
    return 1;
}

int slc_flush(SlcStream *s) {
    if (s->pos == 0) return 1;
    if (fwrite(s->buffer, 1, s->pos, s->file) != s->pos) return slc_fail(s, SLC_E_WRITE);
    s->pos = 0;
    return 1;
}

int slc_putc_slow(SlcStream *s, int c) {
    if (!s->buffer && !slc_alloc_buffer(s)) return slc_fail(s, SLC_E_MEMORY);
    if (s->pos >= s->buffer_size && !slc_flush(s)) return 0;
    s->buffer[s->pos++] = static_cast<uint8_t>(c);
    return 1;
}

int slc_write_text(SlcStream *s, const char *text, uint32_t n) {
    if (!text) text = "";
    size_t len = strlen(text);
    if (n == 0) n = static_cast<uint32_t>(len);
    for (uint32_t i = 0; i < n; i++) {
        if (!slc_putc(s, i < len ? static_cast<uint8_t>(text[i]) : ' ')) return 0;
    }
    return 1;
}
