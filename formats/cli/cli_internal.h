// The CLI stream record and its byte layer, shared by the reader, the writer
// and the tests.
//
// Bytes move through one buffer. The hot paths are inline: reading is one
// compare against `limit` and one load, writing one compare and one store.
// Everything else (allocating the buffer, refilling, pushback, flushing,
// errors) lives in the out-of-line slow paths. While pushed-back bytes are
// waiting, `limit` is 0 so that every read takes the slow path and hands
// them out first. The byte count is never incremented per byte: it is the
// bytes of earlier buffers (`base`) plus the position in the current one,
// less the bytes held in the pushback.
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/cli/cli.h"

constexpr uint32_t CLI_BUFFER_DEFAULT = 0x100000;
constexpr uint32_t CLI_BUFFER_FALLBACK = 512;
constexpr uint32_t CLI_PUSHBACK_MAX = 3;
constexpr int CLI_EOF = -1;
constexpr double CLI_TOLERANCE = 1.1920928955078125e-07;
constexpr uint32_t CLI_NUMBER_TEXT = 64;
// Bytes at the start of an input in which a CLI file must begin.
constexpr uint32_t CLI_START_WINDOW = 0x10000;
// Distinct unknown geometry keywords counted one by one.
constexpr uint32_t CLI_SKIPPED_MAX = 64;
constexpr uint32_t CLI_SKIPPED_NAME = 32;

struct CliSkipped {
    char name[CLI_SKIPPED_NAME]; // "" gathers the keywords past CLI_SKIPPED_MAX
    uint64_t count;
};

struct CliStream {
    uint32_t error;    // first recorded error, 0 = none
    int32_t sys_error; // errno kept with errors 2, 3 and 4
    FILE *file;        // owned by the caller
    uint32_t version;  // $$VERSION read, or to write (0 = 200)
    uint32_t format;   // 0 unset, CLI_FORMAT_ASCII, CLI_FORMAT_BINARY
    uint32_t mode;     // 0 unset, CLI_MODE_READ, CLI_MODE_WRITE
    float layer_z;     // height of the current layer
    CliHeader *header; // handed in (option 2) or allocated by the stream
    uint8_t header_owned;
    uint8_t flags; // CLI_F_*

    int pushback[CLI_PUSHBACK_MAX]; // most recent last; may hold CLI_EOF
    uint32_t pushback_count;
    uint8_t *buffer;      // owned, allocated on first use
    uint32_t buffer_size; // 0 until the buffer exists
    uint32_t pos;         // next byte to hand out / next free byte
    uint32_t fill;        // reading: valid bytes in the buffer
    uint32_t limit;       // hot-path bound (see above)
    uint64_t base;        // bytes of the file before the current buffer

    CliCallback callback;
    void *callback_context;

    uint8_t at_eof;         // reading: the file gave its end
    uint8_t io_failed;      // reading: a byte read failed (read error or no buffer)
    uint8_t eof_crossed;    // reading: a binary value ran past the end of the file
    uint8_t silent_stop;    // reading: the last read stopped with no error recorded
    uint8_t measured;       // reading: file_left is known (regular input file)
    uint8_t finished;       // writing: cli_finish has run
    uint64_t file_left;     // bytes of a measured input file not yet in the buffer
    uint8_t signed_axes;    // reading: bit 0, 1, 2 for x, y, z: 16-bit values are signed
    uint8_t signed_read;    // reading: a 16-bit value was read signed
    uint8_t end_seen;       // reading: $$GEOMETRYEND was read
    uint32_t layers_read;   // reading: layer commands read
    CliSkipped *skipped;    // reading: unknown geometry commands passed over
    uint32_t skipped_count; // entries in use

    char number[CLI_NUMBER_TEXT]; // scratch text for numbers
};

// Records code unless an error is already recorded; always 0.
int cli_fail(CliStream *s, uint32_t code);
// Allocates the I/O buffer on first use (1 on success); the caller records 11.
int cli_alloc_buffer(CliStream *s);

// Bytes delivered to the reader or accepted from the writer so far, less
// the bytes held in the pushback.
inline uint64_t cli_byte_count(const CliStream *s) {
    return s->base + s->pos - s->pushback_count;
}

int cli_getc_slow(CliStream *s);
// One byte (0..255), or CLI_EOF at the end of input; a failed read hands
// out 0, records the error and sets io_failed.
inline int cli_getc(CliStream *s) {
    return s->pos < s->limit ? s->buffer[s->pos++] : cli_getc_slow(s);
}
// Gives a byte (or CLI_EOF) back to the reader; 0 when three are held.
int cli_ungetc(CliStream *s, int c);
// Bytes the input can still give: known only for a measured file.
uint64_t cli_bytes_left(const CliStream *s);
// Reads up to n bytes through the byte reader; the number delivered.
uint32_t cli_read_block(CliStream *s, uint8_t *out, uint32_t n);

int cli_putc_slow(CliStream *s, int c);
inline int cli_putc(CliStream *s, int c) {
    if (s->pos < s->limit) {
        s->buffer[s->pos++] = static_cast<uint8_t>(c);
        return 1;
    }
    return cli_putc_slow(s, c);
}
// Writes n bytes of text (n = 0: its length; null: the empty text); past
// the text's end the bytes are spaces.
int cli_write_text(CliStream *s, const char *text, uint32_t n);
int cli_flush(CliStream *s);

// A header record with every field unset.
void cli_header_clear(CliHeader *h);
// The header record, allocated (empty) when the stream has none; null when
// memory is exhausted (nothing recorded).
CliHeader *cli_header_get(CliStream *s);

// The first keyword name of a code 1..17 and whether "/" follows it; null
// for any other code.
const char *cli_keyword_name(uint32_t code);
int cli_keyword_has_parameters(uint32_t code);
// The code of an upper-case keyword token, 0 when it is none.
uint32_t cli_keyword_lookup(const char *token);

// Writer pieces used by the stream options and cli_finish.
int cli_write_keyword(CliStream *s, uint32_t code);
int cli_write_real(CliStream *s, float v);
