// FDM slice files (.ssl): the stream object, the contour reader and the writer.
//
// An FdmStream stands for one open FDM slice file that is either read or
// written. The caller opens the FILE*, creates the stream, sets the mode and
// then the file, reads or writes contours, asks for the error text, destroys
// the stream (which ends an output file with END) and closes the file.
// Operations return 1 for success and 0 for failure; failures while reading
// or writing record a numeric code in the stream (see fdm_error_text). Only
// the first recorded code is kept.
//
// Coordinates and levels in an FDM slice file are in inches.
#pragma once

#include <cstdint>

struct FdmPoint {
    double x, y;
};

// One contour exchanged with the caller. The record and its point array
// belong to the caller; the reader reuses and grows the array.
struct FdmContour {
    uint32_t kind;     // FDM_CONTOUR, the only kind the writer takes
    uint32_t closure;  // FDM_CLOSED (terminated by C) or FDM_OPEN (by O)
    uint32_t count;    // points; the writer takes this many
    uint32_t filled;   // points stored by the reader (equals count after a read)
    uint32_t capacity; // points the array can hold
    FdmPoint *points;
};

// Header information. Only the scale is used: written numbers are divided by
// it while FDM_F_SCALE is set; 0 counts as 1. The box is carried unread.
struct FdmHeader {
    float scale;
    double xmin, xmax, ymin, ymax, zmin, zmax;
};

enum {
    FDM_OPT_FILE = 1,   // FILE* (the pointer itself); any mode
    FDM_OPT_HEADER = 2, // FdmHeader* from mm_malloc, taken over (write); get: FdmHeader*
    FDM_OPT_SCALE = 3,  // (void *)(intptr_t)n: non-zero sets FDM_F_SCALE (read, write)
    FDM_OPT_MODE = 4,   // uint32_t*: FDM_MODE_READ or FDM_MODE_WRITE; any mode
    FDM_OPT_LAYER = 5,  // double[2] {z, thickness}: the next layer (write) / the last Z read
};

enum : uint32_t {
    FDM_MODE_READ = 1,
    FDM_MODE_WRITE = 2,
};

enum : uint8_t {
    FDM_F_HEADER_WRITTEN = 0x01,
    FDM_F_HEADER_READ = 0x02,
    FDM_F_SCALE = 0x40,
};

enum : uint32_t {
    FDM_CONTOUR = 1, // the kind of a contour
    FDM_CLOSED = 1,
    FDM_OPEN = 2,
};

// Error codes recorded in a stream.
enum : uint32_t {
    FDM_OK = 0,
    FDM_E_EOF = 1,
    FDM_E_READ = 2,
    FDM_E_WRITE = 3,
    FDM_E_OPEN = 4,
    FDM_E_NAN = 5,
    FDM_E_NUMBER = 6,
    FDM_E_CHARACTER = 7,
    FDM_E_KEYWORD = 8,
    FDM_E_FORMAT = 9,
    FDM_E_LAYERS = 10,
    FDM_E_MEMORY = 11,
    FDM_E_CONTEXT = 12,
    FDM_E_ARGUMENT = 13,
    FDM_E_NOT_FDM = 14, // nothing but delimiters and comments in the first FDM_START_SEARCH bytes
};

// An input whose first this many bytes hold no word is no FDM slice file.
constexpr uint32_t FDM_START_SEARCH = 0x10000;

struct FdmStream;

// A new stream, or null when memory is exhausted.
FdmStream *fdm_create();
// Ends an output file (fdm_finish, unless already done) and releases the
// stream; null is accepted (1). 0 when the END line could not be written.
int fdm_destroy(FdmStream *s);
// Output only: writes the END line and flushes the buffer into the FILE, so
// that a write error is recorded before the caller asks for the error text.
// Done once; 1, or 0 on failure.
int fdm_finish(FdmStream *s);
// 1 if the option was taken, 0 if not.
int fdm_set_option(FdmStream *s, int code, void *value);
// Copies the option into out; codes it does not know copy nothing. 1 (0 only
// for a null stream).
int fdm_get_option(FdmStream *s, int code, void *out);

const char *fdm_error_text(uint32_t code);
// The text of the stream's first recorded error, or null when there is none.
const char *fdm_stream_error_text(const FdmStream *s);
// The first recorded code (0 = none) and the errno kept with codes 2, 3, 4.
uint32_t fdm_stream_error(const FdmStream *s);
int fdm_stream_system_error(const FdmStream *s);

// Reads the next contour into c.
// 2: a contour that begins a new layer (z and thickness: FDM_OPT_LAYER);
// 1: a contour of the current layer;
// 0: END or the end of the file, or a failure (see the error text).
int fdm_read_contour(FdmStream *s, FdmContour *c);

// Writes c (kind FDM_CONTOUR, at least one point) into the current layer;
// the header and the first Z line go out first. A contour whose last point
// equals its first is closed and written without the repeated point. A null
// c only writes the header and the Z line when they are not out yet.
int fdm_write_contour(FdmStream *s, const FdmContour *c);

// Grows the point array to hold at least n points (new points are zero).
// 0 when memory is short; the record is then unchanged.
int fdm_reserve_points(FdmContour *c, uint32_t n);
// Releases the point array and sets points to null and capacity to 0.
void fdm_free_points(FdmContour *c);
