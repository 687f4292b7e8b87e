// The CLI writer: keywords, numbers in ASCII and binary, the header section
// and the elements.
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "formats/cli/cli_internal.h"
#include "support/number_text.h"

namespace {

float to_f32(double v) {
    if (v > FLT_MAX) return HUGE_VALF;
    if (v < -FLT_MAX) return -HUGE_VALF;
    return static_cast<float>(v);
}

int ascii(const CliStream *s) {
    return !(s->flags & CLI_F_BINARY);
}

// A separator or line break that only ASCII geometry carries.
int ascii_text(CliStream *s, const char *text) {
    return !ascii(s) || cli_write_text(s, text, 0);
}

// 16-bit little-endian value, after zero padding to a multiple of 4 bytes
// when alignment is on.
int write_u16(CliStream *s, uint32_t v) {
    if (s->flags & CLI_F_ALIGN) {
        while (cli_byte_count(s) % 4 != 0) {
            if (!cli_putc(s, 0)) return 0;
        }
    }
    return cli_putc(s, v & 0xFF) && cli_putc(s, (v >> 8) & 0xFF);
}

// Both halves of a 32-bit value stay together: padding only before the low.
int write_u32(CliStream *s, uint32_t v) {
    if (!write_u16(s, v & 0xFFFF)) return 0;
    const uint8_t align = s->flags & CLI_F_ALIGN;
    s->flags &= static_cast<uint8_t>(~CLI_F_ALIGN);
    int ok = write_u16(s, v >> 16);
    s->flags |= align;
    return ok;
}

int write_integer(CliStream *s, uint32_t v) {
    if (ascii(s)) {
        snprintf(s->number, sizeof s->number, "%ld", static_cast<long>(v));
        return cli_write_text(s, s->number, 0);
    }
    if (!(s->flags & (CLI_F_ALIGN | CLI_F_SHORT))) return write_u32(s, v);
    if (v > 0xFFFF) return cli_fail(s, CLI_E_FIELD);
    return write_u16(s, v);
}

int write_date(CliStream *s, uint32_t date) {
    if (!ascii(s)) return write_integer(s, date);
    snprintf(s->number, sizeof s->number, "%06d", static_cast<int>(date));
    return cli_write_text(s, s->number, 0);
}

// A real in a 16-bit field: its fraction is cut off and the integer must
// lie in 0 to 65535 (never wrapped).
bool fits_short(float v) {
    double t = std::trunc(static_cast<double>(v));
    return t >= 0.0 && t <= 65535.0;
}

// A real as it is written: divided by the units when scaling is on.
float output_real(const CliStream *s, float v) {
    if (s->flags & CLI_F_SCALE) {
        const double units = s->header ? static_cast<double>(s->header->units) : 0.0;
        if (units != 0.0) v = to_f32(static_cast<double>(v) * (1.0 / units));
    }
    return v;
}

int write_double(CliStream *s, double v) {
    snprintf(s->number, sizeof s->number, "%g", v);
    return cli_write_text(s, s->number, 0);
}

uint32_t local_date() {
    time_t now = time(nullptr);
    struct tm parts;
    if (!localtime_r(&now, &parts)) return 0;
    return static_cast<uint32_t>(parts.tm_mday * 10000 + (parts.tm_mon + 1) * 100 +
                                 parts.tm_year % 100);
}

int write_header(CliStream *s) {
    const uint8_t scale = s->flags & CLI_F_SCALE;
    uint8_t scale_on = 0;
    s->flags &= static_cast<uint8_t>(~(CLI_F_BINARY | CLI_F_SCALE));
    int ok = cli_write_keyword(s, CLI_KW_HEADERSTART) && cli_write_text(s, "\n", 0);
    if (ok && s->format == 0) s->format = CLI_FORMAT_BINARY;
    if (ok && s->format == CLI_FORMAT_ASCII) {
        ok = cli_write_keyword(s, CLI_KW_ASCII) && cli_write_text(s, "\n", 0);
    } else if (ok && s->format == CLI_FORMAT_BINARY) {
        ok = cli_write_keyword(s, CLI_KW_BINARY) && cli_write_text(s, "\n", 0);
        // Aligned binary data is announced so that a reader finds the padding.
        if (ok && (s->flags & CLI_F_ALIGN))
            ok = cli_write_keyword(s, CLI_KW_ALIGN) && cli_write_text(s, "\n", 0);
    } else {
        ok = 0;
    }
    if (ok && s->version == 0) s->version = 200;
    ok = ok && cli_write_keyword(s, CLI_KW_VERSION) && write_integer(s, s->version) &&
         cli_write_text(s, "\n", 0);
    CliHeader *h = ok ? cli_header_get(s) : nullptr;
    if (!h) {
        s->flags |= scale;
        return 0;
    }
    if (h->units == 0.0f) {
        h->units = 0.01f;
        scale_on = CLI_F_SCALE;
    }
    if (h->date == 0) h->date = local_date();
    ok = cli_write_keyword(s, CLI_KW_UNITS) && cli_write_real(s, h->units) &&
         cli_write_text(s, "\n", 0);
    if (ok && h->date != 0)
        ok = cli_write_keyword(s, CLI_KW_DATE) && write_date(s, h->date) &&
             cli_write_text(s, "\n", 0);
    if (ok && h->layers != 0)
        ok = cli_write_keyword(s, CLI_KW_LAYERS) && write_integer(s, h->layers) &&
             cli_write_text(s, "\n", 0);
    if (ok && h->xmin != DBL_MAX) {
        const double values[6] = {h->xmax, h->ymax, h->zmax, h->xmin, h->ymin, h->zmin};
        ok = cli_write_keyword(s, CLI_KW_DIMENSION);
        for (int i = 0; ok && i < 6; i++)
            ok = (i == 0 || cli_write_text(s, ",", 0)) && write_double(s, values[i]);
        ok = ok && cli_write_text(s, "\n", 0);
    }
    // Binary geometry follows the letters of $$HEADEREND directly.
    ok = ok && cli_write_keyword(s, CLI_KW_HEADEREND) &&
         (s->format != CLI_FORMAT_ASCII || cli_write_text(s, "\n", 0));
    s->flags |= scale | scale_on;
    if (!ok) return 0;
    s->flags |= CLI_F_HEADER_WRITTEN;
    if (s->format == CLI_FORMAT_BINARY) s->flags |= CLI_F_BINARY;
    return cli_write_keyword(s, CLI_KW_GEOMETRYSTART) && ascii_text(s, "\n") &&
           cli_write_keyword(s, CLI_KW_LAYER) && cli_write_real(s, s->layer_z) &&
           ascii_text(s, "\n");
}

// The points of e: x and y of one point form one aligned unit.
int write_points(CliStream *s, const CliElement *e, uint32_t count) {
    if (!ascii_text(s, ",")) return 0;
    if (count == 0) return ascii_text(s, "\n");
    const int short_form = (s->flags & CLI_F_SHORT) != 0;
    for (uint32_t i = 0; i < count; i++) {
        if (i > 0 && !ascii_text(s, ",")) return 0;
        if (!cli_write_real(s, e->points[i].x) || !ascii_text(s, ",")) return 0;
        const uint8_t align = s->flags & CLI_F_ALIGN;
        if (short_form) s->flags &= static_cast<uint8_t>(~CLI_F_ALIGN);
        int ok = cli_write_real(s, e->points[i].y);
        s->flags |= align;
        if (!ok) return 0;
    }
    return ascii_text(s, "\n");
}

int write_polyline(CliStream *s, const CliElement *e) {
    return cli_write_keyword(s, CLI_KW_POLYLINE) && write_integer(s, e->id) && ascii_text(s, ",") &&
           write_integer(s, e->dir) && ascii_text(s, ",") && write_integer(s, e->count) &&
           write_points(s, e, e->count);
}

// Hatches are always written in the short form in binary geometry.
int write_hatches(CliStream *s, const CliElement *e) {
    const uint8_t form = s->flags & CLI_F_SHORT;
    if (!ascii(s)) s->flags |= CLI_F_SHORT;
    const uint32_t hatches = e->count / 2;
    int ok = cli_write_keyword(s, CLI_KW_HATCHES) && write_integer(s, e->id) &&
             ascii_text(s, ",") && write_integer(s, hatches) && write_points(s, e, 2 * hatches);
    if (ok) s->flags = static_cast<uint8_t>((s->flags & ~CLI_F_SHORT) | form);
    return ok;
}

} // namespace

int cli_write_keyword(CliStream *s, uint32_t code) {
    const char *name = cli_keyword_name(code);
    if (!name) return cli_fail(s, CLI_E_KEYWORD);
    if (s->flags & CLI_F_BINARY) {
        const int short_form = (s->flags & CLI_F_SHORT) != 0;
        switch (code) {
        case CLI_KW_GEOMETRYSTART:
        case CLI_KW_GEOMETRYEND:
            return 1;
        case CLI_KW_LAYER:
            return write_u16(s, short_form ? 128 : 127);
        case CLI_KW_POLYLINE:
            return write_u16(s, short_form ? 129 : 130);
        case CLI_KW_HATCHES:
            return write_u16(s, short_form ? 131 : 132);
        default:
            break;
        }
    }
    return cli_write_text(s, "$$", 0) && cli_write_text(s, name, 0) &&
           (!cli_keyword_has_parameters(code) || cli_write_text(s, "/", 0));
}

int cli_write_real(CliStream *s, float v) {
    v = output_real(s, v);
    if (ascii(s)) {
        // Negative zero is written as 0.
        snprintf(s->number, sizeof s->number - 1, "%g", v == 0.0f ? 0.0 : static_cast<double>(v));
        s->number[mark_real(s->number, strlen(s->number))] = '\0';
        return cli_write_text(s, s->number, 0);
    }
    if (s->flags & CLI_F_SHORT) {
        if (!fits_short(v)) return cli_fail(s, CLI_E_FIELD);
        return write_u16(s, static_cast<uint32_t>(std::trunc(v)));
    }
    uint32_t bits;
    memcpy(&bits, &v, sizeof bits);
    return write_u32(s, bits);
}

int cli_check_fields(const CliStream *s, const CliElement *e, float z, CliFieldFault *fault) {
    if (!s || s->format == CLI_FORMAT_ASCII) return 1;
    CliFieldFault found = {0, 0.0};
    const bool short_form = (s->flags & CLI_F_SHORT) != 0;
    if (!e) {
        if (short_form && !fits_short(output_real(s, z)))
            found = {CLI_FIELD_LAYER, output_real(s, z)};
    } else {
        // Hatches are 16-bit in every binary form; aligned integers too.
        const bool hatches = e->kind == CLI_HATCHES;
        const bool short_values = short_form || hatches;
        const uint32_t count = hatches ? e->count / 2 : e->count;
        if (short_values || (s->flags & CLI_F_ALIGN)) {
            if (e->id > 0xFFFF)
                found = {CLI_FIELD_ID, static_cast<double>(e->id)};
            else if (!hatches && e->dir > 0xFFFF)
                found = {CLI_FIELD_DIR, static_cast<double>(e->dir)};
            else if (count > 0xFFFF)
                found = {CLI_FIELD_COUNT, static_cast<double>(count)};
        }
        const uint32_t points = hatches ? 2 * count : e->count;
        for (uint32_t i = 0; short_values && found.field == 0 && i < points && e->points; i++) {
            const float x = output_real(s, e->points[i].x), y = output_real(s, e->points[i].y);
            if (!fits_short(x))
                found = {CLI_FIELD_X, x};
            else if (!fits_short(y))
                found = {CLI_FIELD_Y, y};
        }
    }
    if (found.field == 0) return 1;
    if (fault) *fault = found;
    return 0;
}

int cli_write_element(CliStream *s, CliElement *e) {
    if (!s) return 0;
    if (s->mode != CLI_MODE_WRITE || s->finished) return cli_fail(s, CLI_E_CONTEXT);
    if (!(s->flags & CLI_F_HEADER_WRITTEN) && !write_header(s)) return 0;
    if (!e) return 1;
    if (e->count > e->capacity || (e->count > 0 && !e->points)) return cli_fail(s, CLI_E_ARGUMENT);
    if (e->kind == CLI_POLYLINE) return write_polyline(s, e);
    if (e->kind == CLI_HATCHES) return write_hatches(s, e);
    return cli_fail(s, CLI_E_ARGUMENT);
}
