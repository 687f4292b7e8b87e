#include "app/modern/console.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "support/system_error.h"

namespace laytran::modern {

namespace {

constexpr const char program[] = "laytran";
// A run shorter than this shows no bar (unless always).
constexpr auto quiet_time = std::chrono::seconds(1);
constexpr auto redraw_time = std::chrono::milliseconds(200);
constexpr int bar_cells = 20;

bool starts_with(const std::string &s, const char *prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// The library speaks the classic options in its remedies; the modern
// surface names its own.
const char *const remedies[][2] = {
    {"try -U with a larger unit or the long form -O b",
     "try --units with a larger unit or --to cli-long"},
    {"try -U with a larger unit or ASCII output -O A",
     "try --units with a larger unit or --to cli"},
    {"try the long form -O b or ASCII output -O A", "try --to cli-long or --to cli"},
    {"try ASCII output -O A", "try --to cli"},
    {"try -P to move the model", "try --move-positive"},
    {"(choose a larger unit with -U)", "(choose a larger unit with --units)"},
    {"the option -P can be used to move the model", "--move-positive moves the model"},
};

// The message proper: the library's "error reading input file (...)" and
// "error writing output file (...)" say less than the place in front of
// them, so only what is in the parentheses stays.
std::string modern_text(std::string text) {
    for (const char *wrapper : {"error reading input file (", "error writing output file ("}) {
        if (starts_with(text, wrapper) && !text.empty() && text.back() == ')') {
            text = text.substr(std::strlen(wrapper), text.size() - std::strlen(wrapper) - 1);
            break;
        }
    }
    for (const auto &r : remedies) {
        const std::size_t at = text.find(r[0]);
        if (at != std::string::npos) text.replace(at, std::strlen(r[0]), r[1]);
    }
    return text;
}

// A token as it can be shown on one line.
std::string printable(const std::string &token) {
    std::string s;
    for (unsigned char c : token) {
        if (c >= 0x20 && c < 0x7F) {
            s += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            s += hex;
        }
        if (s.size() > 60) return s + "...";
    }
    return s;
}

std::string megabytes(std::uint64_t bytes) {
    char text[32];
    const double b = static_cast<double>(bytes);
    if (b < 1e6)
        std::snprintf(text, sizeof text, "%.1f kB", b / 1e3);
    else if (b < 1e9)
        std::snprintf(text, sizeof text, "%.1f MB", b / 1e6);
    else
        std::snprintf(text, sizeof text, "%.2f GB", b / 1e9);
    return text;
}

} // namespace

const char *format_name(InputFormat format) {
    switch (format) {
    case InputFormat::slc:
        return "slc";
    case InputFormat::fdm:
        return "ssl";
    case InputFormat::cli:
        break;
    }
    return "cli";
}

std::string format_hint(Detected detected, InputFormat used) {
    if (detected == Detected::unknown || input_format(detected) == used) return {};
    const InputFormat f = input_format(detected);
    const char *what = f == InputFormat::slc   ? "an SLC"
                       : f == InputFormat::fdm ? "an FDM (.ssl)"
                                               : "a CLI";
    return std::string("looks like ") + what + " file: use --from " + format_name(f);
}

// ProgressBar

ProgressBar::ProgressBar(std::FILE *stream, When when) : stream_(stream) {
    terminal_ = isatty(fileno(stream)) == 1;
    enabled_ = when == When::always || (when == When::auto_ && terminal_);
    // Forced, the bar shows from the start; else only in a long run.
    start_ = std::chrono::steady_clock::now();
    if (when == When::always) start_ -= quiet_time;
    last_draw_ = start_;
}

void ProgressBar::update(std::uint64_t read, std::uint64_t total, std::uint64_t written) {
    read_ = read;
    total_ = total;
    written_ = written;
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - start_ < quiet_time) return;
    if (shown_ && drawn_ && now - last_draw_ < redraw_time) return;
    last_draw_ = now;
    draw();
}

void ProgressBar::draw() {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::string line;
    if (total_ > 0) {
        const double share = read_ >= total_ ? 1.0 : static_cast<double>(read_) / total_;
        const int cells = static_cast<int>(share * bar_cells);
        char percent[8];
        std::snprintf(percent, sizeof percent, "%3d%% ", static_cast<int>(share * 100.0));
        line = percent;
        line += '[';
        line += std::string(static_cast<std::size_t>(cells), '=');
        line += std::string(static_cast<std::size_t>(bar_cells - cells), ' ');
        line += "] ";
    }
    line += megabytes(read_) + " read, " + megabytes(written_) + " written";
    if (seconds > 0.0) line += ", " + megabytes(static_cast<std::uint64_t>(read_ / seconds)) + "/s";
    std::string text = "\r" + line;
    if (terminal_)
        text += "\033[K";
    else if (line.size() < width_)
        text += std::string(width_ - line.size(), ' ');
    width_ = line.size();
    std::fwrite(text.data(), 1, text.size(), stream_);
    std::fflush(stream_);
    drawn_ = shown_ = true;
}

void ProgressBar::clear() {
    if (!drawn_) return;
    std::fputs(terminal_ ? "\r\033[K" : "\n", stream_);
    drawn_ = false;
    width_ = 0;
}

void ProgressBar::finish() {
    if (!enabled_ || !shown_) return;
    if (terminal_) {
        clear();
    } else {
        draw();
        std::fputc('\n', stream_);
        drawn_ = false;
    }
    std::fflush(stream_);
    enabled_ = false;
}

// Console

void Console::set_input(InputPlace place) {
    input_ = std::move(place);
    lines_.reset();
    if (!input_.path.empty()) lines_ = std::make_unique<LineLocator>(input_.path);
}

std::string Console::place_of(std::uint64_t offset, std::int64_t line) {
    const std::string name = input_.name == "-" ? "<stdin>" : input_.name;
    const bool text = input_.kind == Detected::cli_ascii || input_.kind == Detected::fdm ||
                      (input_.kind == Detected::cli_binary && offset < input_.header_end);
    if (text && line < 0 && lines_) line = lines_->line(offset);
    if (text && line >= 0) return name + ":" + std::to_string(line);
    return name + ": byte " + std::to_string(offset);
}

void Console::diagnostic(const Diagnostic &d) {
    const bool about_input =
        !input_.name.empty() &&
        ((!d.file.empty() && (d.file == input_.path || d.file == input_.name)) ||
         (d.file.empty() && starts_with(d.text, "error reading input")));
    std::string where;
    if (about_input && d.offset >= 0)
        where = place_of(static_cast<std::uint64_t>(d.offset), d.line);
    else if (about_input)
        where = input_.name == "-" ? "<stdin>" : input_.name;
    else if (!d.file.empty())
        where = d.file;
    else if (starts_with(d.text, "error writing output"))
        where = output_ == "-" ? "<stdout>" : output_;
    std::string text = modern_text(d.text);
    if (!d.token.empty()) text += " near '" + printable(d.token) + "'";
    switch (d.severity) {
    case Severity::error:
        error(text, where);
        break;
    case Severity::warning:
        warning(text, where);
        break;
    case Severity::info:
        note(text, where);
        break;
    }
    if (!d.hint.empty() && (d.severity == Severity::error || level != Level::quiet)) hint(d.hint);
}

void Console::message(const char *severity, const std::string &text, const std::string &where) {
    if (progress_) progress_->clear();
    std::string line = std::string(program) + ": ";
    if (!where.empty()) line += where + ": ";
    line += severity;
    line += text + "\n";
    // The library reports an input that failed to load twice (when the load
    // ends and at the end of the run); once is enough here.
    if (line == last_) return;
    last_ = line;
    std::fwrite(line.data(), 1, line.size(), err_);
    std::fflush(err_);
}

void Console::error(const std::string &text, const std::string &where) {
    errors_++;
    message("error: ", text, where);
}

void Console::warning(const std::string &text, const std::string &where) {
    warnings_++;
    if (level != Level::quiet) message("warning: ", text, where);
}

void Console::note(const std::string &text, const std::string &where) {
    if (level == Level::verbose) message("note: ", text, where);
}

void Console::hint(const std::string &text) {
    message("hint: ", text, {});
}

void Console::print(const std::string &text) {
    std::fwrite(text.data(), 1, text.size(), out_);
}

bool Console::finish_output() {
    if (std::fflush(out_) == 0 && !std::ferror(out_)) return true;
    error("cannot write to standard output: " + system_error_text(errno));
    return false;
}

void Console::start_progress(ProgressBar::When when) {
    if (level == Level::quiet) when = ProgressBar::When::never;
    progress_ = std::make_unique<ProgressBar>(err_, when);
}

void Console::finish_progress() {
    if (progress_) progress_->finish();
}

} // namespace laytran::modern
