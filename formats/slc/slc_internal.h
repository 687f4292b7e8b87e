// The SLC stream record and its byte layer, shared by the reader, the writer
// and the tests.
//
// Bytes move through one buffer. The hot paths are inline: reading is one
// compare against `limit` and one load, writing one compare and one store.
// Everything else (allocating the buffer, refilling, pushback, flushing,
// errors) lives in the out-of-line slow paths. While pushed-back bytes are
// waiting, `limit` is 0 so that every read takes the slow path and hands
// them out first.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "formats/slc/slc.h"

enum : uint8_t {
    SLC_F_HEADER_PENDING = 1, // writing: the header block is still to be written
    SLC_F_HEADER_READ = 2,    // reading: the header block has been parsed
    SLC_F_BINARY = 8,         // numbers are binary (clear while header text is handled)
    SLC_F_SCALE = 16,         // every float read or written passes through unit_factor
};

constexpr uint32_t SLC_BUFFER_DEFAULT = 0x100000;
constexpr uint32_t SLC_BUFFER_FALLBACK = 2048;
constexpr uint32_t SLC_HEADER_TEXT_MAX = 2050; // header characters scanned before the Ctrl-Z
constexpr uint32_t SLC_RESERVED_SIZE = 256;
constexpr uint32_t SLC_PUSHBACK_MAX = 3;
constexpr int SLC_CTRL_Z = 0x1A;
constexpr int SLC_EOF = -1;

struct SlcStream {
    uint32_t error;    // first recorded error, 0 = none
    int32_t sys_error; // errno kept with errors 2, 3 and 4
    FILE *file;        // owned by the caller
    uint32_t mode;     // SLC_MODE_READ, SLC_MODE_WRITE, 0 = not set
    float layer_z;     // -FLT_MAX until a layer is set
    float layer_thickness;
    uint32_t layer_count; // SLC_END_OF_LAYERS marks the end record
    uint32_t boundaries_left;
    SlcHeader *header; // owned, may be null
    uint32_t sample_count;
    uint32_t sample_capacity;
    SlcSample *samples; // owned
    uint8_t flags;

    uint8_t *buffer;                    // owned, allocated on first use
    uint32_t buffer_size;               // 0 = SLC_BUFFER_DEFAULT
    uint32_t pos;                       // reading: next byte to hand out; writing: next free byte
    uint32_t fill;                      // reading: valid bytes in the buffer
    uint32_t limit;                     // hot-path bound (see above)
    uint8_t pushback[SLC_PUSHBACK_MAX]; // most recent last
    uint32_t pushback_count;
    float unit_factor;
    uint32_t caller_unit; // SLC_KW_INCH, SLC_KW_MM or 0

    uint8_t io_failed;  // a byte read failed (read error or no buffer)
    uint8_t finished;   // reading: the end record was met or a boundary failed
    uint8_t scanning;   // reading from the header text copy, not from the file
    uint8_t measured;   // file_left is known (regular input file)
    uint64_t file_left; // bytes of a measured input file not yet in the buffer

    // Header scanner state.
    const char *delimiters;
    char token[SLC_HEADER_TEXT_MAX + 2]; // the last number token
};

// Records code unless an error is already recorded; always 0.
int slc_fail(SlcStream *s, uint32_t code);
// Allocates the I/O buffer on first use (1 on success); the caller records 11.
int slc_alloc_buffer(SlcStream *s);

int slc_getc_slow(SlcStream *s);
// One byte, or SLC_EOF at the end of input; a failed read hands out 0 and
// sets io_failed.
inline int slc_getc(SlcStream *s) {
    return s->pos < s->limit ? s->buffer[s->pos++] : slc_getc_slow(s);
}
inline int slc_getc_upper(SlcStream *s) {
    int c = slc_getc(s);
    return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
}
// Gives a byte back to the reader; 0 (and the byte lost) when three are held.
int slc_ungetc(SlcStream *s, int c);
// Bytes the input can still give: known only for a measured file.
uint64_t slc_bytes_left(const SlcStream *s);

int slc_read_u32_slow(SlcStream *s, uint32_t *out);
// Little-endian u32. Running out of input records a premature end.
inline int slc_read_u32(SlcStream *s, uint32_t *out) {
    if (s->pos + 4 <= s->limit) {
        const uint8_t *p = s->buffer + s->pos;
        *out = p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
               static_cast<uint32_t>(p[3]) << 24;
        s->pos += 4;
        return 1;
    }
    return slc_read_u32_slow(s, out);
}
// Little-endian f32; a NaN records 5, an infinity 6 ("illegal number"). Scaled
// when unit scaling is on.
inline int slc_read_f32(SlcStream *s, float *out) {
    uint32_t bits;
    if (!slc_read_u32(s, &bits)) return 0;
    if ((bits & 0x7F800000u) == 0x7F800000u)
        return slc_fail(s, (bits & 0x007FFFFFu) ? SLC_E_NAN : SLC_E_NUMBER);
    float v;
    memcpy(&v, &bits, sizeof v);
    *out = (s->flags & SLC_F_SCALE) ? v * s->unit_factor : v;
    return 1;
}

int slc_putc_slow(SlcStream *s, int c);
inline int slc_putc(SlcStream *s, int c) {
    if (s->pos < s->limit) {
        s->buffer[s->pos++] = static_cast<uint8_t>(c);
        return 1;
    }
    return slc_putc_slow(s, c);
}
inline int slc_write_u32(SlcStream *s, uint32_t v) {
    if (s->pos + 4 <= s->limit) {
        uint8_t *p = s->buffer + s->pos;
        p[0] = static_cast<uint8_t>(v);
        p[1] = static_cast<uint8_t>(v >> 8);
        p[2] = static_cast<uint8_t>(v >> 16);
        p[3] = static_cast<uint8_t>(v >> 24);
        s->pos += 4;
        return 1;
    }
    return slc_putc(s, v & 0xFF) && slc_putc(s, (v >> 8) & 0xFF) && slc_putc(s, (v >> 16) & 0xFF) &&
           slc_putc(s, (v >> 24) & 0xFF);
}
inline int slc_write_f32(SlcStream *s, float v) {
    if (s->flags & SLC_F_SCALE) v *= s->unit_factor;
    uint32_t bits;
    memcpy(&bits, &v, sizeof bits);
    return slc_write_u32(s, bits);
}
// Writes exactly n bytes of text (n = 0: its length), padding with spaces.
int slc_write_text(SlcStream *s, const char *text, uint32_t n);
int slc_flush(SlcStream *s);

// Sets unit_factor and SLC_F_SCALE from the caller unit and the header unit;
// the write direction uses the reciprocal.
void slc_set_unit_factor(SlcStream *s, uint32_t header_unit);
// Appends one sampling-table entry (checks thickness and the 255 limit).
int slc_append_sample(SlcStream *s, const SlcSample *sample);
// The keyword for a code 1..16, null otherwise.
const char *slc_keyword(uint32_t code);
// Whether the writer puts a "-" in front of the keyword.
int slc_keyword_has_minus(uint32_t code);

int slc_write_layer_record(SlcStream *s, float z, uint32_t count);
