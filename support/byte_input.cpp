#include "support/byte_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "support/helper_thread.h"

namespace laytran {

// The second block and the helper that fills it. Each block keeps a block's
// room in front of its bytes, where the unread tail of the block before is
// put when the reader moves on.
struct ByteInput::Ahead {
    int fd = -1;
    std::uint64_t offset = 0; // of the file, where the next read starts
    std::unique_ptr<std::uint8_t[]> spare;
    // What the last read ahead gave: bytes, and whether it met the end or
    // a failure (with its errno).
    std::size_t got = 0;
    bool ended = false;
    int error = 0;
    bool failed = false;
    HelperThread helper; // last: it stops before the blocks go
};

ByteInput::ByteInput(int fd, std::size_t block, std::uint64_t ahead_from)
    : fd_(fd), block_size_(block) {
    measure(ahead_from);
}

ByteInput::ByteInput(std::FILE *stream, std::size_t block, std::uint64_t ahead_from)
    : stream_(stream), block_size_(block) {
    measure(ahead_from);
}

ByteInput::ByteInput(const void *data, std::size_t size)
    : data_(static_cast<const std::uint8_t *>(data)), pos_(data_), end_(data_ + size), limit_(end_),
      at_end_(false), size_known_(true), size_(size) {}

ByteInput::~ByteInput() = default;

void ByteInput::measure(std::uint64_t ahead_from) {
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
    if (size_ >= ahead_from) {
        ahead_ = std::make_unique<Ahead>();
        ahead_->fd = fd;
        ahead_->offset = static_cast<std::uint64_t>(at);
    }
}

// Fills the spare block behind its front room, on the helper thread.
void ByteInput::read_ahead() {
    Ahead &a = *ahead_;
    std::uint8_t *to = a.spare.get() + block_size_;
    const std::size_t size = block_size_;
    a.helper.run([&a, to, size] {
        a.got = 0;
        while (a.got < size) {
            const ssize_t got =
                ::pread(a.fd, to + a.got, size - a.got, static_cast<off_t>(a.offset));
            if (got > 0) {
                a.got += static_cast<std::size_t>(got);
                a.offset += static_cast<std::uint64_t>(got);
            } else if (got == 0) {
                a.ended = true;
                return;
            } else if (errno != EINTR) {
                a.failed = true;
                a.error = errno;
                return;
            }
        }
    });
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
    if (ahead_) return refill_ahead(want);
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

// The next block from the helper, with the unread tail of this one put in
// front of it. The helper's end or failure shows once its last bytes are
// taken, where a read of our own would have met it.
bool ByteInput::refill_ahead(std::size_t want) {
    Ahead &a = *ahead_;
    const std::size_t keep = static_cast<std::size_t>(end_ - pos_);
    base_ += static_cast<std::uint64_t>(pos_ - data_);
    if (!block_) {
        block_.reset(new std::uint8_t[2 * block_size_]);
        a.spare.reset(new std::uint8_t[2 * block_size_]);
        read_ahead();
    }
    a.helper.wait();
    if (a.got == 0) {
        // Nothing more: the tail stays where it is.
        data_ = pos_;
        if (a.failed) {
            failed_ = true;
            error_number_ = a.error;
        } else {
            at_end_ = true;
        }
    } else {
        std::uint8_t *fresh = a.spare.get() + block_size_;
        std::memcpy(fresh - keep, pos_, keep);
        data_ = pos_ = fresh - keep;
        end_ = fresh + a.got;
        block_.swap(a.spare);
        a.got = 0;
        if (!a.ended && !a.failed) read_ahead();
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
        if (n - done >= block_size_ && (fd_ >= 0 || stream_) && !ahead_) {
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
