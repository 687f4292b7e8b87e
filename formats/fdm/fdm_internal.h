// The FDM stream record and its byte-level buffered input and output,
// shared by the stream, the reader and the writer.
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/fdm/fdm.h"

enum : int {
    FDM_EOF = -1,  // end of the file (also as a pushed-back character)
    FDM_FAIL = -2, // an error was recorded on the stream
};

// Set once fdm_finish has written END, so that fdm_destroy does not again.
enum : uint8_t {
    FDM_F_FINISHED = 0x04,
};

enum : uint32_t {
    FDM_BUFFER_SIZE = 0x100000,
    FDM_SMALL_BUFFER_SIZE = 512,
    FDM_PUSHBACK_MAX = 3,
    FDM_NUMBER_TEXT_SIZE = 64,
};

struct FdmStream {
    uint32_t error;    // first error recorded; 0 = none
    int32_t sys_error; // errno when error 2, 3 or 4 was recorded
    FILE *file;        // not owned
    int32_t version;   // read from the header, or written into it
    uint32_t mode;     // 0 unset, 1 read, 2 write
    double layer_z;    // write: pending layer; read: last Z line
    double layer_thickness;
    FdmHeader *header; // owned, made on demand
    uint8_t flags;
    int pushback[FDM_PUSHBACK_MAX]; // most recent first; a byte or FDM_EOF
    int32_t pushback_count;
    int32_t fill;    // read: bytes in the buffer
    int32_t pos;     // read: next byte to hand out; write: next free byte
    int32_t limit;   // the fast paths run while pos < limit (see below)
    uint8_t *buffer; // owned, made on first use
    uint32_t buffer_size;
    int last_raw;                           // raw byte behind the last filtered character
    uint8_t searching;                      // reading: the first word is being sought
    uint32_t searched;                      // bytes passed over while searching
    char number_text[FDM_NUMBER_TEXT_SIZE]; // writer's scratch
};

// Records code unless an error is already recorded; always 0, so a failing
// operation can record and return in one step.
int fdm_record(FdmStream *s, uint32_t code);

// Out-of-line halves of the byte operations: pushback, buffer set-up,
// refill, flush and their errors.
int fdm_read_byte_slow(FdmStream *s);
int fdm_write_byte_slow(FdmStream *s, int c);

// Reading: limit is fill, or 0 while pushback is waiting, so the one
// compare below sends every pushed-back character through the slow path.
// The result is a byte 0..255, FDM_EOF or FDM_FAIL.
inline int fdm_read_byte(FdmStream *s) {
    return s->pos < s->limit ? s->buffer[s->pos++] : fdm_read_byte_slow(s);
}

// Gives one character (or FDM_EOF) back; 0 when three are already waiting.
int fdm_unread_byte(FdmStream *s, int c);

// Writing: limit is the buffer size once the buffer exists. 1 or 0.
inline int fdm_write_byte(FdmStream *s, int c) {
    if (s->pos < s->limit) {
        s->buffer[s->pos++] = static_cast<uint8_t>(c);
        return 1;
    }
    return fdm_write_byte_slow(s, c);
}

int fdm_write_bytes(FdmStream *s, const char *data, uint32_t n);
int fdm_write_text(FdmStream *s, const char *text);
int fdm_flush(FdmStream *s);

// A header record with scale 1 and an empty box, from mm_malloc; or null.
FdmHeader *fdm_create_header();
// Makes the default header record if the stream has none; 0 records 11.
int fdm_ensure_header(FdmStream *s);

// The text of "%10f" for v, which must be a float value, into text (at
// least FDM_NUMBER_TEXT_SIZE bytes); the result is its length.
uint32_t fdm_format_fixed(double v, char *text);

// The writer's part of FDM_OPT_LAYER once the header is out.
int fdm_write_z_line(FdmStream *s);
