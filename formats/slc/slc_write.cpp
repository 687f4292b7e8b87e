// The SLC writer: the header block with the first boundary, layer records,
// boundaries, the sampling table and the end record.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "formats/slc/slc_internal.h"
#include "support/mm.h"

namespace {

const char *const default_version = "2.0";
const char *const default_package = "Vantorell/Plexo_Forge_3.3";
constexpr float default_level_tolerance = 1.5e-5f;

// The spacing of two levels is only known to the resolution of the floats
// that hold them: from about 256 on, levels 0.1 apart differ in spacing by
// more than 1.5e-5 from layer to layer. A few units in their last place are
// allowed beyond the tolerance.
float spacing_tolerance(float tolerance, float a, float b) {
    const float m = std::max(std::fabs(a), std::fabs(b));
    const float ulp = std::nextafter(m, std::numeric_limits<float>::infinity()) - m;
    return std::max(tolerance, 4.0f * ulp);
}

// A keyword with its "-" where it takes one, then one space.
int write_keyword(SlcStream *s, uint32_t code) {
    const char *word = slc_keyword(code);
    if (!word) return slc_fail(s, SLC_E_ARGUMENT);
    return (!slc_keyword_has_minus(code) || slc_putc(s, '-')) && slc_write_text(s, word, 0) &&
           slc_putc(s, ' ');
}

int write_header_text(SlcStream *s, const SlcHeader *h) {
    return write_keyword(s, SLC_KW_SLCVER) && slc_write_text(s, h->version, 0) &&
           slc_putc(s, '\n') && write_keyword(s, SLC_KW_UNIT) && write_keyword(s, h->unit) &&
           slc_putc(s, '\n') && write_keyword(s, SLC_KW_TYPE) && write_keyword(s, h->type) &&
           slc_putc(s, '\n') && write_keyword(s, SLC_KW_PACKAGE) &&
           slc_write_text(s, h->package, 0) && slc_putc(s, '\n') && slc_putc(s, '\r') &&
           slc_putc(s, '\n') && slc_putc(s, SLC_CTRL_Z);
}

// Header text, reserved area, sampling table and the current layer's
// record, written together with the first boundary.
int write_header_block(SlcStream *s) {
    if (s->layer_z == -FLT_MAX) return 0; // no layer set yet
    s->flags &= ~SLC_F_BINARY;
    if (!s->header) {
        s->header = static_cast<SlcHeader *>(mm_malloc(sizeof(SlcHeader)));
        if (!s->header) return 0;
    }
    SlcHeader *h = s->header;
    if (!h->version[0]) strcpy(h->version, default_version);
    if (!h->package[0]) strcpy(h->package, default_package);
    if (!h->unit) h->unit = SLC_KW_MM;
    if (!h->type) h->type = SLC_KW_PART;
    slc_set_unit_factor(s, h->unit);
    if (!write_header_text(s, h)) return 0;

    s->flags = static_cast<uint8_t>((s->flags & ~SLC_F_HEADER_PENDING) | SLC_F_BINARY);
    for (uint32_t i = 0; i < SLC_RESERVED_SIZE; i++) {
        if (!slc_putc(s, 0)) return 0;
    }
    if (!slc_putc(s, static_cast<int>(s->sample_count))) return 0;
    for (uint32_t i = 0; i < s->sample_count; i++) {
        const SlcSample &e = s->samples[i];
        if (!slc_write_f32(s, e.z) || !slc_write_f32(s, e.thickness) ||
            !slc_write_f32(s, e.line_width) || !slc_write_f32(s, e.reserved))
            return 0;
    }
    return slc_write_layer_record(s, s->layer_z, s->layer_count);
}

} // namespace

int slc_write_layer_record(SlcStream *s, float z, uint32_t count) {
    return slc_write_f32(s, z) && slc_write_u32(s, count);
}

// A stream that never wrote a boundary has no header block, so it writes
// nothing at all: an end record alone would not make an SLC file.
int slc_finish(SlcStream *s) {
    if (!s || s->mode != SLC_MODE_WRITE) return 0;
    if (s->flags & SLC_F_HEADER_PENDING) return 1;
    if (s->layer_count != SLC_END_OF_LAYERS) {
        s->layer_count = SLC_END_OF_LAYERS;
        if (!slc_write_layer_record(s, s->layer_z, SLC_END_OF_LAYERS)) return 0;
    }
    return slc_flush(s);
}

int slc_write_entity(SlcStream *s, const SliceContour *c) {
    if (!s) return 0;
    if (s->mode != SLC_MODE_WRITE) return slc_fail(s, SLC_E_CONTEXT);
    if ((s->flags & SLC_F_HEADER_PENDING) && !write_header_block(s)) return 0;
    if (!c) return 1;
    if (c->kind != s->header->type) return 0;
    if (c->count > c->capacity || (c->count > 0 && !c->points)) return slc_fail(s, SLC_E_ARGUMENT);
    if (!slc_write_u32(s, c->count) || !slc_write_u32(s, c->gaps)) return 0;
    for (uint32_t i = 0; i < c->count; i++) {
        if (!slc_write_f32(s, c->points[i].x) || !slc_write_f32(s, c->points[i].y)) return 0;
    }
    return 1;
}

int slc_set_sampling_levels(SlcStream *s, const float *levels, const float *tolerance) {
    if (!s || !levels || s->mode != SLC_MODE_WRITE) return 0;
    if (levels[0] == FLT_MAX || levels[1] == FLT_MAX) return 0;
    const float tol = tolerance ? *tolerance : default_level_tolerance;
    SlcSample entry = {levels[0], levels[1] - levels[0], 0.0f, 0.0f};
    if (!slc_append_sample(s, &entry)) return 0;
    for (uint32_t i = 2; levels[i] != FLT_MAX; i++) {
        if (levels[i - 1] >= levels[i]) return slc_fail(s, SLC_E_ARGUMENT);
        const float d = levels[i] - levels[i - 1];
        if (std::fabs(d - s->samples[s->sample_count - 1].thickness) >
            spacing_tolerance(tol, levels[i - 1], levels[i])) {
            entry = {levels[i], d, 0.0f, 0.0f};
            if (!slc_append_sample(s, &entry)) return 0;
        }
    }
    return 1;
}
