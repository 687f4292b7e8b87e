// SLC slice files: the stream object, the boundary reader and the writer.
//
// An SlcStream stands for one open SLC file that is either read or written.
// The caller opens the FILE*, creates the stream, sets the mode and the file,
// reads boundaries or writes layers and boundaries, asks for the error text,
// destroys the stream (which finishes an output file) and closes the file.
// Operations return 1 for success and 0 for failure; failures while reading
// or writing record a numeric code in the stream (see slc_error_text).
#pragma once

#include <cstdint>

#include "translate/slice_model.h"

struct SlcHeader {
    char version[4];   // SLCVER, up to 3 characters
    uint32_t unit;     // keyword code (SLC_KW_INCH or SLC_KW_MM), 0 = not set
    uint32_t type;     // keyword code (SLC_KW_PART, ...), 0 = not set
    char package[33];  // PACKAGE, up to 32 characters
    double extents[6]; // x min, x max, y min, y max, z min, z max
    float chord_deviation, arc_resolution, surface_tolerance, gap_tolerance, max_gap_found, extlwc;
};

// One entry of the sampling table.
struct SlcSample {
    float z, thickness, line_width, reserved;
};

// The value of SLC_OPT_LAYER; the same layout as the first three fields of
// SliceLayer.
struct SlcLayerInfo {
    float z;
    float thickness;
    uint32_t count; // boundaries in the layer; SLC_END_OF_LAYERS ends the file
};

enum {
    SLC_OPT_FILE = 1,   // FILE* (the pointer itself)
    SLC_OPT_HEADER = 2, // SlcHeader*: set copies it (write mode), get writes SlcHeader*
    SLC_OPT_UNIT = 3,   // uint32_t*: unit keyword code of the caller's lengths, 0 = none
    SLC_OPT_MODE = 4,   // uint32_t*: SLC_MODE_READ or SLC_MODE_WRITE
    SLC_OPT_LAYER = 5,  // SlcLayerInfo*: starts a layer (write mode) / the current layer
    SLC_OPT_SAMPLE = 6, // SlcSample*: appended to the sampling table (write mode)
};

enum : uint32_t {
    SLC_MODE_READ = 1,
    SLC_MODE_WRITE = 2,
};

// Keyword codes: the place of each keyword in the alphabetical table,
// counted from 1. The header record stores unit and type as these codes.
enum : uint32_t {
    SLC_KW_ARCRES = 1,
    SLC_KW_CHORDDEV = 2,
    SLC_KW_EXTENTS = 3,
    SLC_KW_EXTLWC = 4,
    SLC_KW_GAPTOL = 5,
    SLC_KW_INCH = 6,
    SLC_KW_MAXGAPFOUND = 7,
    SLC_KW_MM = 8,
    SLC_KW_PACKAGE = 9,
    SLC_KW_PART = 10,
    SLC_KW_SLCVER = 11,
    SLC_KW_SUPPORT = 12,
    SLC_KW_SURFTOL = 13,
    SLC_KW_TYPE = 14,
    SLC_KW_UNIT = 15,
    SLC_KW_WEB = 16,
    SLC_KW_END = 17, // the Ctrl-Z byte that closes the header text
};

// Error codes recorded in a stream.
enum : uint32_t {
    SLC_OK = 0,
    SLC_E_EOF = 1,
    SLC_E_READ = 2,
    SLC_E_WRITE = 3,
    SLC_E_OPEN = 4,
    SLC_E_NAN = 5,
    SLC_E_NUMBER = 6,
    SLC_E_CHARACTER = 7,
    SLC_E_KEYWORD = 8,
    SLC_E_FORMAT = 9,
    SLC_E_LAYERS = 10,
    SLC_E_MEMORY = 11,
    SLC_E_CONTEXT = 12,
    SLC_E_ARGUMENT = 13,
    SLC_E_LIMIT = 14,
    SLC_E_NOT_SLC = 15, // no header end (Ctrl-Z) in the first SLC_HEADER_SEARCH bytes
};

constexpr uint32_t SLC_END_OF_LAYERS = 0xFFFFFFFFu;
constexpr uint32_t SLC_MAX_SAMPLES = 255;
// An input whose first this many bytes hold no Ctrl-Z is no SLC file.
constexpr uint32_t SLC_HEADER_SEARCH = 0x10000;

struct SlcStream;

// A new stream, or null when memory is exhausted.
SlcStream *slc_create();
// Finishes an output file (slc_finish) and releases the stream; null is
// accepted. Always 1: a failure met while finishing is not reported here.
int slc_destroy(SlcStream *s);
// Writes the end record and flushes the buffer into the FILE, so that a
// write error can still be seen in the stream before it is destroyed.
// A stream that never wrote a boundary writes nothing. 1, or 0 on failure.
int slc_finish(SlcStream *s);
int slc_set_option(SlcStream *s, int code, void *value);
// Always 1 for a stream; codes it does not know leave out untouched.
int slc_get_option(SlcStream *s, int code, void *out);

const char *slc_error_text(uint32_t code);
// The text of the stream's first recorded error, or null when there is none.
const char *slc_stream_error_text(const SlcStream *s);
// The stream's first recorded error code (0 = none) and the errno kept with
// codes 2, 3 and 4.
uint32_t slc_stream_error(const SlcStream *s);
int slc_stream_system_error(const SlcStream *s);

// Reads the next boundary into c (its point array is reused or grown). The
// kind is the header's TYPE, CONTOUR_PART when the header has none.
// 2: c is the first boundary of a new layer (see SLC_OPT_LAYER);
// 1: c is the next boundary of the current layer;
// 0: the end record was reached, or reading failed (see the error text).
int slc_read_boundary(SlcStream *s, SliceContour *c);

// Writes c as a boundary of the current layer; the header block goes out
// with the first boundary, or when c is null (which writes nothing else, so
// that a layer without boundaries keeps its record). Only contours of the
// header's TYPE (CONTOUR_PART by default) are accepted; others give 0 and
// record nothing.
int slc_write_entity(SlcStream *s, const SliceContour *c);

// Builds the sampling table from increasing z levels ended by FLT_MAX: one
// entry for the first level and one wherever the spacing changes by more
// than the tolerance (default 1.5e-5). Call before the first boundary.
int slc_set_sampling_levels(SlcStream *s, const float *levels, const float *tolerance);
