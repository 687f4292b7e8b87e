#include "support/byte_output.h"

#include <cerrno>
#include <unistd.h>

namespace laytran {

namespace {
std::uint8_t *make_block(std::unique_ptr<std::uint8_t[]> &block, std::size_t size) {
    block.reset(new std::uint8_t[size]);
    return block.get();
}
} // namespace

ByteOutput::ByteOutput(int fd, std::size_t block) : fd_(fd), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
}

ByteOutput::ByteOutput(std::FILE *stream, std::size_t block) : stream_(stream), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
}

ByteOutput::ByteOutput(std::string *memory, std::size_t block)
    : memory_(memory), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
}

bool ByteOutput::send(const std::uint8_t *data, std::size_t n) {
    if (failed_) return false;
    if (memory_) {
        memory_->append(reinterpret_cast<const char *>(data), n);
        return true;
    }
    if (stream_) {
        if (n > 0 && std::fwrite(data, 1, n, stream_) != n) {
            failed_ = true;
            error_number_ = errno ? errno : EIO;
        }
        return !failed_;
    }
    while (n > 0) {
        ssize_t done = ::write(fd_, data, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            failed_ = true;
            error_number_ = errno;
            return false;
        }
        if (done == 0) { // nothing taken and no reason given: treat as full
            failed_ = true;
            error_number_ = ENOSPC;
            return false;
        }
        data += done;
        n -= static_cast<std::size_t>(done);
    }
    return true;
}

bool ByteOutput::flush() {
    if (failed_) return false;
    std::uint8_t *start = block_.get();
    std::size_t n = static_cast<std::size_t>(pos_ - start);
    bool ok = send(start, n);
    base_ += n;
    pos_ = start;
    if (ok && stream_ && std::fflush(stream_) != 0) {
        failed_ = true;
        error_number_ = errno ? errno : EIO;
        ok = false;
    }
    // After a failure every later write takes the slow path and is dropped.
    end_ = ok ? start + block_size_ : start;
    return ok;
}

bool ByteOutput::put_slow(std::uint8_t c) {
    if (failed_ || !flush()) return false;
    *pos_++ = c;
    return true;
}

bool ByteOutput::write_slow(const void *data, std::size_t n) {
    if (failed_ || !flush()) return false;
    if (n >= block_size_) {
        bool ok = send(static_cast<const std::uint8_t *>(data), n);
        base_ += n;
        if (!ok) end_ = pos_;
        return ok;
    }
    std::memcpy(pos_, data, n);
    pos_ += n;
    return true;
}

char *ByteOutput::reserve_slow(std::size_t n) {
    if (failed_ || n > block_size_ || !flush()) return nullptr;
    return reinterpret_cast<char *>(pos_);
}

} // namespace laytran
