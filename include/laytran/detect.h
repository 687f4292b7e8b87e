// Telling a slice file's format from its first bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "laytran/formats.h"

namespace laytran {

enum class Detected {
    unknown,    // none of the formats below
    cli_ascii,  // $$HEADERSTART (after blanks and "//" comment lines), no $$BINARY
    cli_binary, // the same with $$BINARY before $$HEADEREND
    slc,        // a header text that begins with -SLCVER, or holds -UNIT before a Ctrl-Z
    fdm,        // the first word (after blanks and "#" comments) is SLICE
};

// How many bytes from the start of a file detect_format looks at, at most.
constexpr std::size_t detect_window = 0x10000;

// The format the bytes at the start of a file (up to detect_window of
// them) show. Letters count in either case.
Detected detect_format(const void *head, std::size_t size);
// The same for the file at `path` (unknown when it cannot be read).
Detected detect_format(const std::string &path);

// Where the text header of a CLI file ends: the offset just past its
// $$HEADEREND (letters in any case) among the bytes at its start; `size`
// when they hold none.
std::uint64_t cli_header_end(const void *head, std::size_t size);

// The input format of a detected file; cli for unknown.
constexpr InputFormat input_format(Detected d) {
    return d == Detected::slc   ? InputFormat::slc
           : d == Detected::fdm ? InputFormat::fdm
                                : InputFormat::cli;
}

} // namespace laytran
