#include "support/line_locator.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace laytran {

LineLocator::~LineLocator() {
    if (fd_ >= 0) ::close(fd_);
}

bool LineLocator::ready() {
    if (fd_ < 0 && !failed_) {
        fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        failed_ = fd_ < 0;
    }
    return !failed_;
}

std::int64_t LineLocator::line_after_blanks(std::uint64_t offset) {
    if (!ready()) return -1;
    char block[256];
    for (;;) {
        const ssize_t n = ::pread(fd_, block, sizeof block, static_cast<off_t>(offset));
        if (n <= 0) break;
        ssize_t i = 0;
        while (i < n &&
               (block[i] == ' ' || block[i] == '\t' || block[i] == '\r' || block[i] == '\n'))
            i++;
        offset += static_cast<std::uint64_t>(i);
        if (i < n) break;
    }
    return line(offset);
}

std::int64_t LineLocator::line(std::uint64_t offset) {
    if (!ready()) return -1;
    if (offset < at_) {
        at_ = 0;
        line_ = 1;
    }
    std::vector<char> block(1 << 16);
    while (at_ < offset) {
        const std::uint64_t want = offset - at_ < block.size() ? offset - at_ : block.size();
        const ssize_t n =
            ::pread(fd_, block.data(), static_cast<std::size_t>(want), static_cast<off_t>(at_));
        if (n < 0) {
            failed_ = true;
            return -1;
        }
        if (n == 0) break; // past the end: the last line
        for (const char *p = block.data(), *end = p + n;
             (p = static_cast<const char *>(
                  std::memchr(p, '\n', static_cast<std::size_t>(end - p))));
             p++)
            line_++;
        at_ += static_cast<std::uint64_t>(n);
    }
    return line_;
}

} // namespace laytran
