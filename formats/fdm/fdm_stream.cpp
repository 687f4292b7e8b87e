// The FDM stream object: creation and destruction, options, the error
// record, buffered byte I/O with pushback, and the contour point arrays.
#include <cerrno>
#include <cfloat>
#include <cstring>

#include "formats/fdm/fdm_internal.h"
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
    "not an FDM file",
};

const uint32_t error_text_count = sizeof error_texts / sizeof error_texts[0];

void header_set_defaults(FdmHeader *h) {
    h->scale = 1.0f;
    h->xmin = h->ymin = h->zmin = DBL_MAX;
    h->xmax = h->ymax = h->zmax = -DBL_MAX;
}

// The buffer is made on the first byte read or written. An input that is a
// regular file smaller than the standard size gets a buffer of its length.
int setup_buffer(FdmStream *s) {
    if (!s->file) return fdm_record(s, FDM_E_CONTEXT);
    if (s->buffer) return 1;
    uint32_t size = s->buffer_size ? s->buffer_size : static_cast<uint32_t>(FDM_BUFFER_SIZE);
    uint64_t file_size = 0, left = 0;
    if (s->mode == FDM_MODE_READ && file_measure(s->file, &file_size, &left) && file_size > 0 &&
        file_size < size) {
        size = static_cast<uint32_t>(file_size);
    }
    uint8_t *buffer = static_cast<uint8_t *>(mm_malloc(size));
    if (!buffer) {
        size = FDM_SMALL_BUFFER_SIZE;
        buffer = static_cast<uint8_t *>(mm_malloc(size));
        if (!buffer) return fdm_record(s, FDM_E_MEMORY);
    }
    s->buffer = buffer;
    s->buffer_size = size;
    s->fill = s->pos = 0;
    s->limit = s->mode == FDM_MODE_WRITE ? static_cast<int32_t>(size) : 0;
    return 1;
}

} // namespace

int fdm_record(FdmStream *s, uint32_t code) {
    if (s->error == 0) {
        s->error = code;
        if (code == FDM_E_READ || code == FDM_E_WRITE || code == FDM_E_OPEN) {
            s->sys_error = errno;
        }
    }
    return 0;
}

int fdm_read_byte_slow(FdmStream *s) {
    if (s->pushback_count > 0) {
        int c = s->pushback[0];
        s->pushback_count--;
        for (int32_t i = 0; i < s->pushback_count; i++)
            s->pushback[i] = s->pushback[i + 1];
        if (s->pushback_count == 0) s->limit = s->fill;
        return c;
    }
    if (!s->buffer && !setup_buffer(s)) return FDM_FAIL;
    if (s->pos < s->fill) { // only reached when the limit was lowered
        s->limit = s->fill;
        return s->buffer[s->pos++];
    }
    size_t n = fread(s->buffer, 1, s->buffer_size, s->file);
    if (ferror(s->file)) {
        fdm_record(s, FDM_E_READ);
        return FDM_FAIL;
    }
    s->fill = static_cast<int32_t>(n);
    s->pos = 0;
    s->limit = s->fill;
    if (n == 0) {
        if (feof(s->file)) return FDM_EOF;
        fdm_record(s, FDM_E_READ);
        return FDM_FAIL;
    }
    return s->buffer[s->pos++];
}

int fdm_unread_byte(FdmStream *s, int c) {
    if (s->pushback_count >= static_cast<int32_t>(FDM_PUSHBACK_MAX)) return 0;
    for (int32_t i = s->pushback_count; i > 0; i--)
        s->pushback[i] = s->pushback[i - 1];
    s->pushback[0] = c;
    s->pushback_count++;
    s->limit = 0;
    return 1;
}

int fdm_flush(FdmStream *s) {
    if (s->pos <= 0) return 1;
    size_t want = static_cast<size_t>(s->pos);
    size_t n = fwrite(s->buffer, 1, want, s->file);
    // The buffer is emptied either way, so that later calls can go on.
    s->pos = 0;
    if (n < want) return fdm_record(s, FDM_E_WRITE);
    return 1;
}

int fdm_write_byte_slow(FdmStream *s, int c) {
    if (!s->buffer && !setup_buffer(s)) return 0;
    if (s->pos >= static_cast<int32_t>(s->buffer_size) && !fdm_flush(s)) return 0;
    s->limit = static_cast<int32_t>(s->buffer_size);
    s->buffer[s->pos++] = static_cast<uint8_t>(c);
    return 1;
}

int fdm_write_bytes(FdmStream *s, const char *data, uint32_t n) {
    if (!s->buffer && !setup_buffer(s)) return 0;
    while (n > 0) {
        if (s->pos >= static_cast<int32_t>(s->buffer_size) && !fdm_flush(s)) return 0;
        uint32_t room = s->buffer_size - static_cast<uint32_t>(s->pos);
        uint32_t part = n < room ? n : room;
        memcpy(s->buffer + s->pos, data, part);
        s->pos += static_cast<int32_t>(part);
        data += part;
        n -= part;
    }
    return 1;
}

int fdm_write_text(FdmStream *s, const char *text) {
    if (!text) return 1;
    return fdm_write_bytes(s, text, static_cast<uint32_t>(strlen(text)));
}

int fdm_ensure_header(FdmStream *s) {
    if (s->header) return 1;
    s->header = fdm_create_header();
    return s->header ? 1 : fdm_record(s, FDM_E_MEMORY);
}

FdmHeader *fdm_create_header() {
    FdmHeader *h = static_cast<FdmHeader *>(mm_malloc(sizeof(FdmHeader)));
    if (h) header_set_defaults(h);
    return h;
}

FdmStream *fdm_create() {
    FdmStream *s = static_cast<FdmStream *>(mm_malloc(sizeof(FdmStream)));
    if (!s) return nullptr;
    s->flags = FDM_F_SCALE;
    return s;
}

int fdm_destroy(FdmStream *s) {
    if (!s) return 1;
    int ok = 1;
    if (s->mode == FDM_MODE_WRITE && !(s->flags & FDM_F_FINISHED)) ok = fdm_finish(s);
    mm_free(s->header, sizeof(FdmHeader), 0);
    mm_free(s->buffer, s->buffer_size, 0);
    mm_free(s, sizeof(FdmStream), 0);
    return ok;
}

int fdm_set_option(FdmStream *s, int code, void *value) {
    if (!s) return 0;
    if (code == FDM_OPT_FILE) {
        if (!value) return 0;
        s->file = static_cast<FILE *>(value);
        return 1;
    }
    if (code == FDM_OPT_MODE) {
        if (!value) return 0;
        s->mode = *static_cast<const uint32_t *>(value);
        return 1;
    }
    switch (s->mode) {
    case 0:
        return 0;
    case FDM_MODE_READ:
        if (code != FDM_OPT_SCALE) return 0;
        break;
    case FDM_MODE_WRITE:
        if (code != FDM_OPT_SCALE && code != FDM_OPT_HEADER && code != FDM_OPT_LAYER) return 0;
        break;
    default:
        return 1; // a mode of no known kind takes every option and ignores it
    }
    if (code == FDM_OPT_SCALE) {
        if (reinterpret_cast<intptr_t>(value) != 0) {
            s->flags |= FDM_F_SCALE;
        } else {
            s->flags &= static_cast<uint8_t>(~FDM_F_SCALE);
        }
        return 1;
    }
    if (!value) return 0;
    if (code == FDM_OPT_HEADER) {
        FdmHeader *h = static_cast<FdmHeader *>(value);
        if (h != s->header) mm_free(s->header, sizeof(FdmHeader), 0);
        s->header = h;
        return 1;
    }
    const double *layer = static_cast<const double *>(value);
    s->layer_z = layer[0];
    s->layer_thickness = layer[1];
    if (s->flags & FDM_F_HEADER_WRITTEN) return fdm_write_z_line(s);
    return 1;
}

int fdm_get_option(FdmStream *s, int code, void *out) {
    if (!s) return 0;
    if (!out) return 1;
    switch (code) {
    case FDM_OPT_FILE:
        *static_cast<FILE **>(out) = s->file;
        break;
    case FDM_OPT_HEADER:
        *static_cast<FdmHeader **>(out) = s->header;
        break;
    case FDM_OPT_MODE:
        *static_cast<uint32_t *>(out) = s->mode;
        break;
    case FDM_OPT_LAYER:
        static_cast<double *>(out)[0] = s->layer_z;
        static_cast<double *>(out)[1] = s->layer_thickness;
        break;
    default:
        break;
    }
    return 1;
}

const char *fdm_error_text(uint32_t code) {
    return code < error_text_count ? error_texts[code] : "<unknown>";
}

const char *fdm_stream_error_text(const FdmStream *s) {
    if (!s || s->error == 0) return nullptr;
    return fdm_error_text(s->error);
}

uint32_t fdm_stream_error(const FdmStream *s) {
    return s ? s->error : 0;
}

int fdm_stream_system_error(const FdmStream *s) {
    return s ? s->sys_error : 0;
}

int fdm_reserve_points(FdmContour *c, uint32_t n) {
    if (!c) return 0;
    if (c->capacity >= n) return 1;
    void *p = mm_realloc(c->points, static_cast<size_t>(c->capacity) * sizeof(FdmPoint),
                         static_cast<size_t>(n) * sizeof(FdmPoint));
    if (!p) return 0;
    c->points = static_cast<FdmPoint *>(p);
    c->capacity = n;
    return 1;
}

void fdm_free_points(FdmContour *c) {
    if (!c) return;
    mm_free(c->points, static_cast<size_t>(c->capacity) * sizeof(FdmPoint), 0);
    c->points = nullptr;
    c->capacity = 0;
    c->count = 0;
    c->filled = 0;
}
