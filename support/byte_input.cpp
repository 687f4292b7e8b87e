#include "support/byte_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace laytran {

ByteInput::ByteInput(int fd, std::size_t block) : fd_(fd), block_size_(block) {
    measure();
}

ByteInput::ByteInput(std::FILE *stream, std::size_t block) : stream_(stream), block_size_(block) {
    measure();
}

ByteInput::ByteInput(const void *data, std::size_t size)
    : data_(static_cast<const std::uint8_t *>(data)), pos_(data_), end_(data_ + size), limit_(end_),
      at_end_(false), size_known_(true), size_(size) {}

void ByteInput::measure() {
    int fd = stream_ ? fileno(stream_) : fd_;
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
    off_t at = stream_ ? ftello(stream_) : lseek(fd, 0, SEEK_CUR);
    if (at < 0 || at > st.st_size) return;
    size_known_ = true;
    size_ = static_cast<std::uint64_t>(st.st_size - at);
    // A small file needs no larger block than itself (and at least a byte).
    if (size_ < block_size_)
        block_size_ = std::max<std::size_t>(static_cast<std::size_t>(size_), 1);
}

bool ByteInput::unget(int c) {
    if (pushback_count_ == pushback_max) return false;
    pushback_[pushback_count_++] = c;
    if (c != eof) pushed_bytes_++;
    limit_ = pos_;
    return true;
}

bool ByteInput::settle_pushback() {
    const int n = pushback_count_;
    if (n == 0) return true;
    if (pos_ - data_ < n) return false;
    // The bytes come out most recent first: they must read as the block's
    // last n bytes before pos_ do.
    for (int i = 0; i < n; i++) {
        if (pushback_[n - 1 - i] != pos_[i - n]) return false;
    }
    pos_ -= n;
    pushback_count_ = pushed_bytes_ = 0;
    limit_ = end_;
    return true;
}

int ByteInput::get_slow() {
    if (pushback_count_ > 0) {
        int c = pushback_[--pushback_count_];
        if (c != eof) pushed_bytes_--;
        if (pushback_count_ == 0) limit_ = end_;
        return c;
    }
    if (pos_ < end_) return *pos_++;
    if (!refill(1)) return eof;
    return *pos_++;
}

std::size_t ByteInput::read_source(std::uint8_t *to, std::size_t n) {
    if (at_end_ || failed_ || n == 0) return 0;
    if (stream_) {
        std::size_t got = std::fread(to, 1, n, stream_);
        if (got < n) {
            if (std::ferror(stream_)) {
                failed_ = true;
                error_number_ = errno ? errno : EIO;
            } else {
                at_end_ = true;
            }
        }
        return got;
    }
    if (fd_ < 0) {
        at_end_ = true; // memory holds nothing beyond its bytes
        return 0;
    }
    for (;;) {
        ssize_t got = ::read(fd_, to, n);
        if (got > 0) return static_cast<std::size_t>(got);
        if (got == 0) {
            at_end_ = true;
            return 0;
        }
        if (errno == EINTR) continue;
        failed_ = true;
        error_number_ = errno;
        return 0;
    }
}

bool ByteInput::refill(std::size_t want) {
    if (fd_ < 0 && !stream_) {
        at_end_ = true;
        return false;
    }
    if (!block_) block_.reset(new std::uint8_t[block_size_]);
    std::size_t keep = static_cast<std::size_t>(end_ - pos_);
    if (keep > 0 && pos_ != block_.get()) std::memmove(block_.get(), pos_, keep);
    base_ += static_cast<std::uint64_t>(pos_ - data_);
    data_ = pos_ = block_.get();
    end_ = data_ + keep;
    while (static_cast<std::size_t>(end_ - pos_) < want && !at_end_ && !failed_) {
        std::size_t got = read_source(block_.get() + (end_ - data_),
                                      block_size_ - static_cast<std::size_t>(end_ - data_));
        end_ += got;
    }
    limit_ = pushback_count_ > 0 ? pos_ : end_;
    return static_cast<std::size_t>(end_ - pos_) >= want;
}

const std::uint8_t *ByteInput::contiguous_slow(std::size_t n) {
    if (pushback_count_ > 0 || n > block_size_ || failed_) return nullptr;
    if (!refill(n)) return nullptr;
    return pos_;
}

std::size_t ByteInput::read(void *out, std::size_t n) {
    auto *to = static_cast<std::uint8_t *>(out);
    std::size_t done = 0;
    while (done < n && pushback_count_ > 0) {
        int c = get_slow();
        if (c == eof) return done;
        to[done++] = static_cast<std::uint8_t>(c);
    }
    while (done < n) {
        std::size_t have = static_cast<std::size_t>(end_ - pos_);
        if (have > 0) {
            std::size_t take = std::min(have, n - done);
            std::memcpy(to + done, pos_, take);
            pos_ += take;
            done += take;
            continue;
        }
        // A long run goes straight from the source into the caller's memory.
        if (n - done >= block_size_ && (fd_ >= 0 || stream_)) {
            base_ += static_cast<std::uint64_t>(pos_ - data_);
            data_ = pos_ = end_ = limit_ = block_ ? block_.get() : nullptr;
            std::size_t got = read_source(to + done, n - done);
            if (got == 0) return done;
            base_ += got;
            done += got;
            continue;
        }
        if (!refill(1)) return done;
    }
    return done;
}

} // namespace laytran
