// CLI (Common Layer Interface) slice files: what the reader and the writer
// share. The reader is CliReader (cli_reader.h), the writer CliWriter
// (cli_writer.h); the engine's source and sink over them are in
// cli_layers.h.
//
// A CLI file is an ASCII header section ($$HEADERSTART ... $$HEADEREND)
// followed by a geometry section of layers ($$LAYER), polylines and blocks
// of hatches, in ASCII ($$GEOMETRYSTART ... $$GEOMETRYEND) or as binary
// commands with 32-bit ("long") or 16-bit ("short") values, optionally on
// 4-byte boundaries ($$ALIGN).
#pragma once

#include <cstdint>
#include <vector>

#include "laytran/model.h"
#include "translate/model_ops.h"

namespace laytran {

// The module's error codes; the first one recorded is kept. The numbers are
// those the classic program has always used.
enum class CliError : int {
    none = 0,
    eof = 1,
    read = 2,
    write = 3,
    open = 4,
    nan = 5,
    number = 6,
    character = 7,
    keyword = 8,
    format = 9,
    layers = 10,
    memory = 11,
    context = 12,
    argument = 13,
    not_cli = 14,  // nothing in the first 64 KiB starts a CLI file
    infinite = 15, // a real that is infinite or beyond the float range
    field = 16,    // a value that does not fit its 16-bit binary field
};

// The exact text of a code ("premature EOF (...)", "write error", ...).
const char *cli_error_text(CliError code);

// The errors that keep the system's errno with them.
constexpr bool cli_error_has_errno(CliError code) {
    return code == CliError::read || code == CliError::write || code == CliError::open;
}

enum class CliElementKind : std::uint8_t {
    polyline,
    hatches, // independent lines: each two points (start, end) make one
};

// One polyline or one block of hatches as the reader delivers it.
struct CliElement {
    CliElementKind kind = CliElementKind::polyline;
    std::uint32_t id = 0;
    std::uint32_t direction = 0; // polylines: 0 clockwise, 1 counter-clockwise, 2 open
    std::vector<Point> points;   // hatches: two a hatch
    // The extremes of the points, when every one came in a run of binary
    // long-form points that took them.
    PointExtremes extremes;
};

// Two layer heights that make one layer for the writer: within the spacing
// of floats at 1.0, and for heights below 1 also within the same share of
// the height, so that levels written in a large unit stay apart.
bool cli_same_height(float a, float b);

} // namespace laytran
