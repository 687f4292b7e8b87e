// CLI (Common Layer Interface) slice files: the stream object, the element
// reader and the writer.
//
// A CliStream stands for one open CLI file that is either read or written.
// The caller opens the FILE*, creates the stream, sets the mode and the file
// and the other options, then reads or writes elements, asks for the error
// text, destroys the stream (which finishes an output file) and closes the
// file. Operations return 1 for success and 0 for failure; failures that come
// from the file or from memory record a numeric code in the stream (see
// cli_error_text). Only the first recorded code is kept.
#pragma once

#include <cstdint>

// The header block. Callers copy it as one block: field order and widths are
// fixed. Unset values: units 0, date 0, minima +DBL_MAX, maxima -DBL_MAX,
// layers 0.
struct CliHeader {
    float units;   // millimetres per coordinate unit ($$UNITS)
    uint32_t date; // ddmmyy as a decimal number ($$DATE)
    double xmin, xmax, ymin, ymax, zmin, zmax;
    uint32_t layers; // $$LAYERS
};

struct CliPoint {
    float x, y;
};

// One polyline or one block of hatches. The record and its point array are
// the caller's; the reader grows the array with cli_reserve_points.
struct CliElement {
    uint32_t kind;     // CLI_POLYLINE or CLI_HATCHES
    uint32_t id;       // element identifier
    uint32_t dir;      // polyline orientation as stored in the file
    uint32_t count;    // points; hatches give two points (start, end) each
    uint32_t read;     // points actually read into the array
    uint32_t capacity; // points the array can hold
    CliPoint *points;
};

// Handed to the header callback for $$LABEL (keyword CLI_KW_LABEL); the text
// belongs to the reader and lives only during the call.
struct CliLabel {
    uint32_t id;
    const char *text;
};

// Handed to the header callback for $$USERDATA (keyword CLI_KW_USERDATA);
// uid and data belong to the reader and live only during the call. A length
// of 0 comes with no data.
struct CliUserData {
    const char *uid;
    uint32_t length;
    const void *data;
};

// Called while the header is read; the result is ignored.
typedef int (*CliCallback)(void *context, uint32_t keyword_code, const void *record);

enum {
    CLI_OPT_FILE = 1,              // FILE* (the pointer itself)
    CLI_OPT_HEADER = 2,            // CliHeader*: kept, not copied (write); get: CliHeader*
    CLI_OPT_FORMAT = 3,            // uint32_t*: CLI_FORMAT_ASCII or CLI_FORMAT_BINARY (write)
    CLI_OPT_ALIGN = 4,             // (void *)(intptr_t)n: 4-byte aligned binary values (write)
    CLI_OPT_SCALE = 5,             // (void *)(intptr_t)n: unit scaling of coordinates
    CLI_OPT_SHORT = 6,             // (void *)(intptr_t)n: 16-bit binary values (write)
    CLI_OPT_MODE = 7,              // uint32_t*: CLI_MODE_READ or CLI_MODE_WRITE
    CLI_OPT_LAYER = 8,             // float*: starts a layer at this height (write); get: float
    CLI_OPT_CALLBACK = 11,         // CliCallback*: the header callback (read)
    CLI_OPT_CALLBACK_CONTEXT = 12, // void*: the callback's first argument (read)
    CLI_OPT_MM = 13,               // get only, uint32_t: 1 when coordinates come out in mm
    CLI_OPT_LAYERS_READ = 14,      // get only, uint32_t: layer commands read so far
    CLI_OPT_END_SEEN = 15,         // get only, uint32_t: 1 when $$GEOMETRYEND was read
    CLI_OPT_SIGNED_SHORT = 16,     // get only, uint32_t: 1 when 16-bit values were read signed
};

enum : uint32_t {
    CLI_MODE_READ = 1,
    CLI_MODE_WRITE = 2,
};

enum : uint32_t {
    CLI_FORMAT_ASCII = 1,
    CLI_FORMAT_BINARY = 2,
};

enum : uint8_t {
    CLI_F_HEADER_WRITTEN = 0x01, // writing: header, $$GEOMETRYSTART and first $$LAYER are out
    CLI_F_HEADER_READ = 0x02,    // reading: the header section has been read
    CLI_F_SHORT = 0x04,          // binary values are 16-bit integers
    CLI_F_ALIGN = 0x08,          // binary values sit on 4-byte boundaries of the byte count
    CLI_F_BINARY = 0x10,         // the geometry section is binary
    CLI_F_SCALE = 0x40,          // coordinates and heights are scaled by the header's units
};

// Keyword codes. The element kinds and the callback's keyword codes are
// among them.
enum : uint32_t {
    CLI_KW_ALIGN = 1,
    CLI_KW_ASCII = 2,
    CLI_KW_BINARY = 3,
    CLI_KW_DATE = 4,
    CLI_KW_DIMENSION = 5,
    CLI_KW_GEOMETRYEND = 6,
    CLI_KW_GEOMETRYSTART = 7,
    CLI_KW_HATCHES = 8,
    CLI_KW_HEADEREND = 9,
    CLI_KW_HEADERSTART = 10,
    CLI_KW_LABEL = 11,
    CLI_KW_LAYER = 12,
    CLI_KW_LAYERS = 13,
    CLI_KW_POLYLINE = 14,
    CLI_KW_UNITS = 15,
    CLI_KW_USERDATA = 16,
    CLI_KW_VERSION = 17,
};

enum : uint32_t {
    CLI_HATCHES = CLI_KW_HATCHES,
    CLI_POLYLINE = CLI_KW_POLYLINE,
};

// Error codes recorded in a stream.
enum : uint32_t {
    CLI_OK = 0,
    CLI_E_EOF = 1,
    CLI_E_READ = 2,
    CLI_E_WRITE = 3,
    CLI_E_OPEN = 4,
    CLI_E_NAN = 5,
    CLI_E_NUMBER = 6,
    CLI_E_CHARACTER = 7,
    CLI_E_KEYWORD = 8,
    CLI_E_FORMAT = 9,
    CLI_E_LAYERS = 10,
    CLI_E_MEMORY = 11,
    CLI_E_CONTEXT = 12,
    CLI_E_ARGUMENT = 13,
    CLI_E_NOT_CLI = 14,  // nothing in the first 64 KiB starts a CLI file
    CLI_E_INFINITE = 15, // a real that is infinite or beyond the float range
    CLI_E_FIELD = 16,    // a value that does not fit its 16-bit binary field
};

// What a value that does not fit its binary field is (cli_check_fields).
enum : uint32_t {
    CLI_FIELD_LAYER = 1, // the layer height
    CLI_FIELD_ID = 2,
    CLI_FIELD_DIR = 3,
    CLI_FIELD_COUNT = 4, // points of a polyline, hatches of a block
    CLI_FIELD_X = 5,
    CLI_FIELD_Y = 6,
};

struct CliFieldFault {
    uint32_t field; // CLI_FIELD_*
    double value;   // as it would be written (after unit scaling)
};

struct CliStream;

// A new stream (mode unset, unit scaling on), or null when memory is
// exhausted.
CliStream *cli_create();
// Finishes an output file (cli_finish) and releases the stream together with
// a header record it allocated itself; null is accepted. Always 1.
int cli_destroy(CliStream *s);
// Ends an output file: $$GEOMETRYEND for an ASCII geometry, then the flush,
// so that a write error can be seen before the stream is destroyed. Later
// calls (and cli_destroy) do nothing more. 1, or 0 on failure.
int cli_finish(CliStream *s);
int cli_set_option(CliStream *s, int code, void *value);
// Always 1 for a stream; codes it does not know leave out untouched.
int cli_get_option(CliStream *s, int code, void *out);

const char *cli_error_text(uint32_t code);
// The text of the stream's first recorded error, or null when there is none.
const char *cli_stream_error_text(const CliStream *s);
// The first recorded error code (0 = none) and the errno kept with 2, 3, 4.
uint32_t cli_stream_error(const CliStream *s);
int cli_stream_system_error(const CliStream *s);

// Reads the next element into e. The first call reads the header.
// 2: e begins a new layer (its height: CLI_OPT_LAYER); 1: e belongs to the
// current layer; 0: the geometry ended or reading failed.
int cli_read_element(CliStream *s, CliElement *e);
// After cli_read_element gave 0: 1 when that came from the end of the
// geometry or from a recorded error, 0 when reading stopped on an ASCII
// number that did not convert or a point array that could not grow.
int cli_read_ended_cleanly(const CliStream *s);

// Unknown commands of the form $$WORD/numbers passed over in ASCII
// geometry: the number of distinct keywords, and the name (without "$$")
// and count of each in the order first seen. Past the first 64 keywords
// the rest are counted together under the name "".
uint32_t cli_skipped_keywords(const CliStream *s);
const char *cli_skipped_keyword(const CliStream *s, uint32_t i, uint64_t *count);

// Writes e (null only forces the header out); the header goes out before the
// first element. An element whose count exceeds its capacity, or of a kind
// other than CLI_POLYLINE and CLI_HATCHES, records CLI_E_ARGUMENT.
int cli_write_element(CliStream *s, CliElement *e);

// Whether everything cli_write_element would write for e (null: only the
// layer height z) fits its field in the stream's output form: 1, or 0 with
// the first value that does not fit in *fault. A binary short-form field
// holds 0 to 65535 after the fraction is cut off; the writer refuses such a
// value itself (CLI_E_FIELD), this lets a caller say which one it is.
int cli_check_fields(const CliStream *s, const CliElement *e, float z, CliFieldFault *fault);

// Grows e's point array to exactly n points when it holds fewer; 0 when
// memory is exhausted (the array is then unchanged).
int cli_reserve_points(CliElement *e, uint32_t n);
// Releases e's point array and zeroes the record.
void cli_free_points(CliElement *e);
