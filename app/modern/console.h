// The modern surface's output: results on standard output, messages on
// standard error as "laytran: WHERE: error: TEXT" (warning:, note:), where
// WHERE names the file and, for its input, the line (text) or the byte
// offset (binary), and a progress bar on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "laytran/detect.h"
#include "laytran/diagnostics.h"
#include "support/line_locator.h"

namespace laytran::modern {

enum class Level {
    quiet,   // errors only
    normal,  // errors and warnings
    verbose, // and notes
};

// The input a command reads, for placing its diagnostics.
struct InputPlace {
    std::string name;                  // as the user gave it; "-" for standard input
    std::string path;                  // a file that can be read again ("" for standard input)
    Detected kind = Detected::unknown; // the contents: text or binary
    std::uint64_t header_end = 0;      // binary CLI: offsets below lie in the text header
};

class ProgressBar {
  public:
    enum class When { auto_, always, never };

    // `stream` is where the bar goes (standard error).
    ProgressBar(std::FILE *stream, When when);
    // Bytes read of `total` (0: unknown) and written so far.
    void update(std::uint64_t read, std::uint64_t total, std::uint64_t written);
    // Takes the bar off the line (before a message), to be drawn again at
    // the next update.
    void clear();
    // Ends the bar: on a terminal it disappears, elsewhere its last state
    // stays as a line of its own.
    void finish();

  private:
    void draw();

    std::FILE *stream_;
    bool enabled_ = false;
    bool terminal_ = false;
    bool drawn_ = false; // a bar is on the line now
    bool shown_ = false; // a bar was drawn at least once
    std::chrono::steady_clock::time_point start_, last_draw_;
    std::uint64_t read_ = 0, total_ = 0, written_ = 0;
    std::size_t width_ = 0; // characters of the last bar drawn
};

class Console {
  public:
    Console(std::FILE *out = stdout, std::FILE *err = stderr) : out_(out), err_(err) {}

    Level level = Level::normal;

    void set_input(InputPlace place);
    // The name messages about the output give it.
    void set_output(std::string name) { output_ = std::move(name); }
    // Prints a library diagnostic by the level; errors always.
    void diagnostic(const Diagnostic &d);
    DiagnosticSink sink() {
        return [this](const Diagnostic &d) { diagnostic(d); };
    }
    void error(const std::string &text, const std::string &where = {});
    void warning(const std::string &text, const std::string &where = {});
    void note(const std::string &text, const std::string &where = {});
    void hint(const std::string &text);
    // Text on standard output.
    void print(const std::string &text);
    // Flushes standard output; false (after a message) when that failed.
    bool finish_output();

    // The progress bar, once a command starts one.
    void start_progress(ProgressBar::When when);
    ProgressBar *progress() { return progress_.get(); }
    void finish_progress();

    std::uint64_t errors() const { return errors_; }
    std::uint64_t warnings() const { return warnings_; }
    // The place of an input byte: "NAME:LINE" or "NAME: byte N".
    std::string place_of(std::uint64_t offset, std::int64_t line = -1);

  private:
    void message(const char *severity, const std::string &text, const std::string &where);

    std::FILE *out_, *err_;
    InputPlace input_;
    std::string output_;
    std::unique_ptr<LineLocator> lines_;
    std::unique_ptr<ProgressBar> progress_;
    std::uint64_t errors_ = 0, warnings_ = 0;
    std::string last_; // the last message printed
};

// "looks like an SLC file: use --from slc" when `detected` is a format
// other than `used`; empty otherwise.
std::string format_hint(Detected detected, InputFormat used);
// The name the modern surface gives a format: "cli", "slc" or "ssl".
const char *format_name(InputFormat format);

} // namespace laytran::modern
