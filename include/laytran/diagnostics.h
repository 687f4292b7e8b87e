// Diagnostics: how the library tells its caller what happened.
//
// Nothing in the library prints. Every information line, warning and error
// goes to a sink that the caller supplies, one message per call, in the
// order the engine produces them. A sink may print, collect or ignore them.
// The library never keeps a sink beyond the call it was given to.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace laytran {

enum class Severity {
    info,    // progress and facts ("moving the model by XYZ=+5,+0,+0.2")
    warning, // the run goes on, but the user should look ("... were left out")
    error,   // the run (or the read or write) fails
};

// One message. `text` is the message proper: one line, without a program
// name in front and without a line end, e.g.
// "error reading input file (premature end of file)". The other fields say
// where the problem is, when the engine knows it; they are empty / -1
// otherwise. A front end that prints only `text` reproduces the classic
// program's messages exactly.
struct Diagnostic {
    Severity severity = Severity::info;
    std::string text;
    std::string file;         // the path the message is about
    std::int64_t offset = -1; // byte offset in that file
    std::int64_t line = -1;   // 1-based line, for text input
    std::string token;        // the offending text, when there is one
    std::string hint;         // a suggested remedy, when there is one
};

// The caller's receiver of diagnostics. An empty sink drops everything.
using DiagnosticSink = std::function<void(const Diagnostic &)>;

} // namespace laytran
