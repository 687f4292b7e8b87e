// The FDM slice file writer.
//
// One fixed form: "SLICE V0" and "SLICES ()" as the header, a Z line per
// layer, one point per line, C or O after each contour, and END from
// fdm_destroy. Every line ends with a single line feed. Numbers are printed
// as "%10f" of the 32-bit value with trailing zeros cut (the full stop
// stays): 1 is "  1.", -0.5 is " -0.5", 123.25 is "123.25".
#include <cmath>
#include <cstring>

#include "formats/fdm/fdm_internal.h"

namespace {

enum : int {
    KW_C = 1,
    KW_END = 2,
    KW_FILE = 3,
    KW_O = 4,
    KW_SLICE = 5,
    KW_SLICES = 6,
    KW_V = 7,
    KW_Z = 8,
};

// Keyword texts, with the space that follows FILE, SLICE, SLICES and Z.
const char *const keyword_texts[] = {"C", "END", "FILE ", "O", "SLICE ", "SLICES ", "V", "Z "};

int write_keyword(FdmStream *s, int code) {
    if (code < KW_C || code > KW_Z) return fdm_record(s, FDM_E_KEYWORD);
    return fdm_write_text(s, keyword_texts[code - 1]);
}

// Formats value into the stream's scratch text and writes it.
int write_number(FdmStream *s, double value) {
    float v = static_cast<float>(value);
    if ((s->flags & FDM_F_SCALE) && s->header) {
        v = static_cast<float>((1.0 / static_cast<double>(s->header->scale)) *
                               static_cast<double>(v));
    }
    uint32_t len = fdm_format_fixed(static_cast<double>(v), s->number_text);
    if (memchr(s->number_text, '.', len)) {
        while (len > 0 && s->number_text[len - 1] == '0')
            len--;
    }
    return fdm_write_bytes(s, s->number_text, len);
}

int write_header(FdmStream *s) {
    uint8_t scale = static_cast<uint8_t>(s->flags & FDM_F_SCALE);
    s->flags &= static_cast<uint8_t>(~FDM_F_SCALE);
    char version[16];
    snprintf(version, sizeof version, "%d", static_cast<int>(s->version));
    if (!write_keyword(s, KW_SLICE) || !write_keyword(s, KW_V) || !fdm_write_text(s, version) ||
        !fdm_write_byte(s, '\n') || !write_keyword(s, KW_SLICES) || !fdm_write_text(s, "()\n")) {
        s->flags |= scale;
        return 0;
    }
    if (!fdm_ensure_header(s)) {
        s->flags |= scale;
        return 0;
    }
    if (s->header->scale == 0.0f) s->header->scale = 1.0f;
    s->flags |= FDM_F_HEADER_WRITTEN | scale;
    return fdm_write_z_line(s);
}

} // namespace

uint32_t fdm_format_fixed(double v, char *text) {
    // For a float value v * 1e6 is exact in a double (24 + 14 bits), so
    // rounding it to an integer (ties to even, as printf does) gives the six
    // decimals directly. Large and non-finite values go through snprintf.
    double scaled = v * 1e6;
    if (!(std::fabs(scaled) < 9.0e15)) {
        int n = snprintf(text, FDM_NUMBER_TEXT_SIZE, "%10f", v);
        return n < 0 ? 0u : static_cast<uint32_t>(strlen(text));
    }
    uint64_t u = static_cast<uint64_t>(std::fabs(std::nearbyint(scaled)));
    char digits[24];
    uint32_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    while (n < 7)
        digits[n++] = '0';
    bool negative = std::signbit(v);
    uint32_t len = (negative ? 1u : 0u) + n + 1;
    uint32_t at = 0;
    while (at + len < 10)
        text[at++] = ' ';
    if (negative) text[at++] = '-';
    for (uint32_t i = n; i > 6; i--)
        text[at++] = digits[i - 1];
    text[at++] = '.';
    for (uint32_t i = 6; i > 0; i--)
        text[at++] = digits[i - 1];
    text[at] = '\0';
    return at;
}

int fdm_write_z_line(FdmStream *s) {
    if (!write_keyword(s, KW_Z) || !write_number(s, s->layer_z)) return 0;
    int ok;
    if (static_cast<float>(s->layer_thickness) == 0.0f) {
        ok = fdm_write_text(s, " .005"); // the standard thickness
    } else {
        ok = write_number(s, s->layer_thickness);
    }
    return ok && fdm_write_byte(s, '\n');
}

int fdm_write_contour(FdmStream *s, const FdmContour *c) {
    if (!s) return 0;
    if (s->mode != FDM_MODE_WRITE) return fdm_record(s, FDM_E_CONTEXT);
    if (!(s->flags & FDM_F_HEADER_WRITTEN) && !write_header(s)) return 0;
    if (!c) return 1;
    // A contour without points has no form in the file.
    if (c->kind != FDM_CONTOUR || c->count == 0 || c->count > c->capacity || !c->points) {
        return fdm_record(s, FDM_E_ARGUMENT);
    }
    const FdmPoint &first = c->points[0];
    const FdmPoint &last = c->points[c->count - 1];
    bool closed = first.x == last.x && first.y == last.y;
    uint32_t n = closed ? c->count - 1 : c->count;
    for (uint32_t i = 0; i < n; i++) {
        if (!write_number(s, c->points[i].x) || !fdm_write_byte(s, ' ') ||
            !write_number(s, c->points[i].y) || !fdm_write_byte(s, '\n')) {
            return 0;
        }
    }
    return write_keyword(s, closed ? KW_C : KW_O) && fdm_write_byte(s, '\n');
}

int fdm_finish(FdmStream *s) {
    if (!s) return 0;
    if (s->mode != FDM_MODE_WRITE) return fdm_record(s, FDM_E_CONTEXT);
    if (s->flags & FDM_F_FINISHED) return 1;
    s->flags |= FDM_F_FINISHED;
    int ok = write_keyword(s, KW_END) && fdm_write_byte(s, '\n');
    if (!fdm_flush(s)) ok = 0;
    if (ok && fflush(s->file) != 0) ok = fdm_record(s, FDM_E_WRITE);
    return ok;
}
