#include "app/modern/input.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/modern/args.h"
#include "laytran/io.h"
#include "support/system_error.h"

namespace laytran::modern {

namespace {

std::string lower(std::string s) {
    for (char &c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    return s;
}

const char *detected_name(Detected d) {
    switch (d) {
    case Detected::cli_ascii:
    case Detected::cli_binary:
        return "CLI";
    case Detected::slc:
        return "SLC";
    case Detected::fdm:
        return "FDM";
    case Detected::unknown:
        break;
    }
    return "unknown";
}

// Reads up to detect_window bytes from the descriptor's position.
bool read_head(int fd, std::vector<unsigned char> &head, bool positioned, off_t at) {
    head.resize(detect_window);
    std::size_t got = 0;
    while (got < head.size()) {
        const ssize_t n = positioned ? ::pread(fd, head.data() + got, head.size() - got,
                                               at + static_cast<off_t>(got))
                                     : ::read(fd, head.data() + got, head.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    head.resize(got);
    return true;
}

} // namespace

InputFormat parse_input_name(const std::string &name) {
    const std::string n = lower(name);
    if (n == "slc") return InputFormat::slc;
    if (n == "ssl") return InputFormat::fdm;
    if (n == "cli" || n.compare(0, 4, "cli-") == 0) {
        for (const char *v :
             {"cli", "cli-binary", "cli-long", "cli-short", "cli-aligned", "cli-aligned-short"}) {
            if (n == v) return InputFormat::cli;
        }
    }
    throw UsageError("unknown input format '" + name + "' (cli, slc or ssl)");
}

bool format_from_extension(const std::string &path, InputFormat &format) {
    const std::size_t slash = path.rfind('/');
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
    const std::string ext = lower(path.substr(dot));
    if (ext == ".cli")
        format = InputFormat::cli;
    else if (ext == ".slc")
        format = InputFormat::slc;
    else if (ext == ".ssl")
        format = InputFormat::fdm;
    else
        return false;
    return true;
}

Input::~Input() {
    if (stream && own_stream_) std::fclose(stream);
}

ssize_t Input::serve(void *cookie, char *buf, std::size_t size) {
    auto *self = static_cast<Input *>(cookie);
    if (self->served_ < self->head_.size()) {
        std::size_t n = std::min(size, self->head_.size() - self->served_);
        std::copy(self->head_.begin() + static_cast<std::ptrdiff_t>(self->served_),
                  self->head_.begin() + static_cast<std::ptrdiff_t>(self->served_ + n), buf);
        self->served_ += n;
        return static_cast<ssize_t>(n);
    }
    for (;;) {
        const ssize_t n = ::read(0, buf, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

bool Input::open(const std::string &given, const std::string *from, Console &console) {
    name = given;
    const bool standard = given == "-";
    const std::string shown = standard ? "<stdin>" : given;
    if (standard) {
        struct stat st;
        const off_t at = ::lseek(0, 0, SEEK_CUR);
        const bool regular = fstat(0, &st) == 0 && S_ISREG(st.st_mode) && at >= 0;
        if (!read_head(0, head_, regular, at)) {
            console.error("cannot read: " + system_error_text(errno), shown);
            return false;
        }
        if (regular) {
            stream = stdin;
        } else {
            // The bytes looked at come first, then the rest of the pipe.
            cookie_io_functions_t io = {};
            io.read = &Input::serve;
            stream = fopencookie(this, "r", io);
            if (!stream) {
                console.error("cannot read: " + system_error_text(errno), shown);
                return false;
            }
            own_stream_ = true;
        }
    } else {
        path = given;
        const int fd = ::open(given.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) {
            console.error("cannot open: " + system_error_text(errno), shown);
            if (fd >= 0) ::close(fd);
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            ::close(fd);
            console.error("is a directory, not a slice file", shown);
            return false;
        }
        const bool ok = read_head(fd, head_, S_ISREG(st.st_mode), 0);
        const int saved = errno;
        ::close(fd);
        if (!ok) {
            console.error("cannot read: " + system_error_text(saved), shown);
            return false;
        }
    }
    sniffed = detected = detect_format(head_.data(), head_.size());
    if (sniffed == Detected::cli_binary) header_end_ = cli_header_end(head_.data(), head_.size());

    InputFormat by_extension = InputFormat::cli;
    const bool has_extension = !standard && format_from_extension(given, by_extension);
    if (from) {
        format = parse_input_name(*from);
    } else if (detected != Detected::unknown) {
        format = input_format(detected);
        if (has_extension && by_extension != format)
            console.warning(std::string("the contents are ") + detected_name(detected) + ", not " +
                                format_label(by_extension) + " as the extension says: reading as " +
                                detected_name(detected),
                            shown);
    } else if (has_extension) {
        format = by_extension;
    } else {
        console.error("cannot tell the format from the contents or the name", shown);
        console.hint("name it with --from cli, --from slc or --from ssl");
        return false;
    }
    if (detected == Detected::unknown || input_format(detected) != format) {
        // What the reader will meet: the place of text or binary bytes.
        detected = format == InputFormat::fdm   ? Detected::fdm
                   : format == InputFormat::slc ? Detected::slc
                                                : Detected::unknown;
    }
    if (!standard) head_.clear();
    return true;
}

bool Input::read(Model &model, ProgressBar::When when, Console &console) {
    console.set_input(place());
    ReadOptions options;
    options.format = format;
    options.keep_empty_layers = true;
    console.start_progress(when);
    options.progress = [&console](std::uint64_t r, std::uint64_t total, std::uint64_t w) {
        console.progress()->update(r, total, w);
    };
    const bool ok = stream ? read_model(stream, options, model, console.sink())
                           : read_model(path, options, model, console.sink());
    console.finish_progress();
    if (!ok) {
        const std::string hint = format_hint(sniffed, format);
        if (!hint.empty()) console.hint(hint);
    }
    return ok;
}

InputPlace Input::place() const {
    InputPlace p;
    p.name = name;
    p.path = path;
    p.kind = detected;
    p.header_end = header_end_;
    return p;
}

} // namespace laytran::modern
