// File naming and opening for the classic command line: formats from the
// extensions, default extensions, the standard streams, and the refusals.
#pragma once

#include <cstdio>
#include <string>

#include "app/classic/options.h"
#include "support/atomic_output.h"

namespace laytran::classic {

// The two files of a run. The input is closed when the object goes (unless
// it is the standard input); the output is discarded unless it was closed
// with `keep`.
struct ClassicFiles {
    explicit ClassicFiles(AtomicOutput::Watch *watch = nullptr) : output(watch) {}
    ~ClassicFiles() { close_input(); }
    ClassicFiles(const ClassicFiles &) = delete;
    ClassicFiles &operator=(const ClassicFiles &) = delete;
    void close_input();

    std::FILE *input = stdin;
    std::string input_path = "<stdin>";
    AtomicOutput output;
    std::string output_path = "<stdout>";
};

enum class Resolved {
    run,    // both files open
    stop,   // an error that ends the run like an option error (status 0)
    refuse, // an output that cannot be written without harm (status -1)
};

// Chooses the formats from the file extensions where no option chose them,
// opens both files (or takes the standard streams) and forces positive
// coordinates for the output forms that need them. Messages as the classic
// program prints them.
Resolved resolve_files(ClassicOptions &o, ClassicFiles &files);

// The position of name's extension (its last dot) when the last path part
// has one; npos otherwise. Only '/' separates directories.
std::string::size_type extension_at(const std::string &name);
// name with ext appended when it has no extension.
std::string with_extension(const std::string &name, const char *ext);

} // namespace laytran::classic
