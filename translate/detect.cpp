// Format detection from a file's first bytes (include/laytran/detect.h).
#include "laytran/detect.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace laytran {

namespace {

bool blank(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

char upper(unsigned char c) {
    return static_cast<char>(c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c);
}

// Whether `word` (upper case) stands at p, letters in any case.
bool at(const unsigned char *p, const unsigned char *end, const char *word) {
    const std::size_t n = std::strlen(word);
    if (static_cast<std::size_t>(end - p) < n) return false;
    for (std::size_t i = 0; i < n; i++) {
        if (upper(p[i]) != word[i]) return false;
    }
    return true;
}

// Passes over blanks and whole comment lines that begin with `comment`.
const unsigned char *skip(const unsigned char *p, const unsigned char *end, const char *comment) {
    const std::size_t n = std::strlen(comment);
    while (p < end) {
        if (blank(*p)) {
            p++;
        } else if (static_cast<std::size_t>(end - p) >= n && std::memcmp(p, comment, n) == 0) {
            while (p < end && *p != '\n')
                p++;
        } else {
            break;
        }
    }
    return p;
}

// The position of `word` (letters in any case) in [p, end), or end.
const unsigned char *find(const unsigned char *p, const unsigned char *end, const char *word) {
    for (; p < end; p++) {
        if (at(p, end, word)) return p;
    }
    return end;
}

} // namespace

Detected detect_format(const void *head, std::size_t size) {
    const auto *begin = static_cast<const unsigned char *>(head);
    const unsigned char *end = begin + (size < detect_window ? size : detect_window);

    const unsigned char *p = skip(begin, end, "//");
    if (at(p, end, "$$HEADERSTART")) {
        const unsigned char *header_end = find(p, end, "$$HEADEREND");
        return find(p, header_end, "$$BINARY") != header_end ? Detected::cli_binary
                                                             : Detected::cli_ascii;
    }
    p = skip(begin, end, "#");
    if (at(p, end, "SLICE") && (p + 5 == end || !((upper(p[5]) >= 'A' && upper(p[5]) <= 'Z'))))
        return Detected::fdm;
    for (p = begin; p < end && blank(*p);)
        p++;
    if (at(p, end, "-SLCVER")) return Detected::slc;
    const unsigned char *ctrl_z = static_cast<const unsigned char *>(
        std::memchr(begin, 0x1A, static_cast<std::size_t>(end - begin)));
    if (ctrl_z && find(begin, ctrl_z, "-UNIT") != ctrl_z) return Detected::slc;
    return Detected::unknown;
}

std::uint64_t cli_header_end(const void *head, std::size_t size) {
    const auto *begin = static_cast<const unsigned char *>(head);
    const unsigned char *end = begin + size;
    const unsigned char *at = find(begin, end, "$$HEADEREND");
    return at == end ? size : static_cast<std::uint64_t>(at - begin) + 11;
}

Detected detect_format(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Detected::unknown;
    std::vector<unsigned char> buf(detect_window);
    std::size_t got = 0;
    while (got < buf.size()) {
        const ssize_t n = ::read(fd, buf.data() + got, buf.size() - got);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return detect_format(buf.data(), got);
}

} // namespace laytran
