// Line numbers of a text file from byte offsets, counted only when asked:
// the file is read again from where the last answer left off (or from its
// start, for an earlier offset), counting line feeds.
#pragma once

#include <cstdint>
#include <string>

namespace laytran {

class LineLocator {
  public:
    explicit LineLocator(std::string path) : path_(std::move(path)) {}
    LineLocator(const LineLocator &) = delete;
    LineLocator &operator=(const LineLocator &) = delete;
    ~LineLocator();

    // The 1-based line of the byte at `offset` (an offset at the end of
    // the file counts as on the last line); -1 when the file cannot be read.
    std::int64_t line(std::uint64_t offset);
    // The line of the first byte at or after `offset` that is not white
    // space (for an offset in front of the blanks before a command).
    std::int64_t line_after_blanks(std::uint64_t offset);

  private:
    bool ready();

    std::string path_;
    int fd_ = -1;
    bool failed_ = false;
    std::uint64_t at_ = 0;  // bytes counted so far
    std::int64_t line_ = 1; // the line of the byte at at_
};

} // namespace laytran
