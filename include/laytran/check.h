// Checking a slice file: every problem in it, not only the first.
#pragma once

#include <cstdint>
#include <string>

#include "laytran/diagnostics.h"
#include "laytran/formats.h"
#include "laytran/io.h"

namespace laytran {

struct CheckOptions {
    InputFormat format = InputFormat::cli;
    ProgressFn progress; // as for ReadOptions
};

struct CheckResult {
    bool opened = false;        // the file could be opened (else one error was sent)
    bool complete = false;      // read to its end: no problem stopped the reading
    std::uint64_t problems = 0; // problems sent (warnings and errors)
    std::uint64_t layers = 0;   // layers read
};

// Reads the file at `path` to its end as `options.format`, one layer at a
// time, and sends every problem found to the sink: each as one Diagnostic
// of severity warning (reading went on) or error (it stopped there), with
// the file, the byte offset, the 1-based line where the bytes are text
// (ASCII CLI, the header of a binary CLI file, FDM), and the offending
// token where there is one. Facts that are no problem (commands other
// tools write that are passed over) come with severity info.
//
// The problems: the input ending early (a truncated file, a missing end
// record, $$GEOMETRYEND or layers $$LAYERS declares); unknown commands and
// keywords; counts that do not match (a CLI element with fewer numbers
// than it declares, more layers than $$LAYERS); NaN and infinite values;
// layers that do not rise above the one before; part contours marked
// closed whose last point is not their first; and, in short-form (16-bit)
// CLI commands, coordinates or heights that jump by half the 16-bit range
// or more between neighbours, the mark of a value that wrapped.
CheckResult check_file(const std::string &path, const CheckOptions &options,
                       const DiagnosticSink &sink = {});

} // namespace laytran
