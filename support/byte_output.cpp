#include "support/byte_output.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace laytran {

namespace {
// Bytes of a regular file handed to the disk at a time.
constexpr std::uint64_t disk_step = std::uint64_t(8) << 20;
// Longer than starting the writing of a step takes on a disk that keeps up.
constexpr std::chrono::milliseconds disk_wait(20);

std::uint8_t *make_block(std::unique_ptr<std::uint8_t[]> &block, std::size_t size) {
    block.reset(new std::uint8_t[size]);
    return block.get();
}
} // namespace

ByteOutput::ByteOutput(int fd, std::size_t block) : fd_(fd), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
    watch_disk(fd, lseek(fd, 0, SEEK_CUR));
}

ByteOutput::ByteOutput(std::FILE *stream, std::size_t block) : stream_(stream), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
    const int fd = fileno(stream);
    if (fd >= 0) watch_disk(fd, ftello(stream));
}

void ByteOutput::watch_disk(int fd, off_t at) {
    struct stat st;
    regular_ = at >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    disk_fd_ = fd;
    sent_at_ = flushing_at_ = regular_ ? static_cast<std::uint64_t>(at) : 0;
}

void ByteOutput::sent(std::size_t n) {
    sent_at_ += n;
#ifdef SYNC_FILE_RANGE_WRITE
    // The system starts writing what it holds of the file, without waiting
    // for it; only a hint, whatever it answers. A disk that cannot take the
    // bytes as fast as they come makes the call wait: the system is then
    // left to write them in its own time.
    if (regular_ && sent_at_ - flushing_at_ >= disk_step) {
        const auto start = std::chrono::steady_clock::now();
        sync_file_range(disk_fd_, static_cast<off_t>(flushing_at_),
                        static_cast<off_t>(sent_at_ - flushing_at_), SYNC_FILE_RANGE_WRITE);
        flushing_at_ = sent_at_;
        if (std::chrono::steady_clock::now() - start > disk_wait) regular_ = false;
    }
#endif
}

ByteOutput::ByteOutput(std::string *memory, std::size_t block)
    : memory_(memory), block_size_(block) {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
}

ByteOutput::~ByteOutput() {
    // A block still being written ends before the object does.
    if (helper_) helper_->wait();
}

int ByteOutput::send(const std::uint8_t *data, std::size_t n) {
    if (memory_) {
        memory_->append(reinterpret_cast<const char *>(data), n);
        return 0;
    }
    if (stream_) {
        if (n > 0 && std::fwrite(data, 1, n, stream_) != n) return errno ? errno : EIO;
        sent(n);
        return 0;
    }
    while (n > 0) {
        ssize_t done = ::write(fd_, data, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (done == 0) return ENOSPC; // nothing taken and no reason given: treat as full
        data += done;
        n -= static_cast<std::size_t>(done);
        sent(static_cast<std::size_t>(done));
    }
    return 0;
}

void ByteOutput::take_failure(int error) {
    if (error == 0 || failed_) return;
    failed_ = true;
    error_number_ = error;
}

bool ByteOutput::settle() {
    if (helper_ && helper_->busy()) {
        helper_->wait();
        take_failure(helper_error_);
    }
    // After a failure every later write takes the slow path and is dropped.
    if (failed_) end_ = pos_;
    return !failed_;
}

bool ByteOutput::hand_on() {
    if (!settle()) return false;
    std::uint8_t *start = block_.get();
    const std::size_t n = static_cast<std::size_t>(pos_ - start);
    if (memory_ || n == 0) return flush();
    try {
        if (!spare_) spare_.reset(new std::uint8_t[block_size_]);
        if (!helper_) helper_.reset(new HelperThread);
    } catch (const std::bad_alloc &) {
        return flush(); // written here and now
    }
    helper_->run([this, start, n] { helper_error_ = send(start, n); });
    std::swap(block_, spare_);
    base_ += n;
    pos_ = block_.get();
    end_ = pos_ + block_size_;
    return true;
}

bool ByteOutput::flush() {
    if (!settle()) return false;
    std::uint8_t *start = block_.get();
    std::size_t n = static_cast<std::size_t>(pos_ - start);
    take_failure(send(start, n));
    base_ += n;
    pos_ = start;
    if (!failed_ && stream_ && std::fflush(stream_) != 0) take_failure(errno ? errno : EIO);
    end_ = failed_ ? start : start + block_size_;
    return !failed_;
}

bool ByteOutput::put_slow(std::uint8_t c) {
    if (failed_ || !hand_on()) return false;
    *pos_++ = c;
    return true;
}

bool ByteOutput::write_slow(const void *data, std::size_t n) {
    if (failed_ || !hand_on()) return false;
    if (n >= block_size_) {
        // A long run goes out directly, after what came before it.
        if (!flush()) return false;
        take_failure(send(static_cast<const std::uint8_t *>(data), n));
        base_ += n;
        if (failed_) end_ = pos_;
        return !failed_;
    }
    std::memcpy(pos_, data, n);
    pos_ += n;
    return true;
}

char *ByteOutput::reserve_slow(std::size_t n) {
    if (failed_ || n > block_size_ || !hand_on()) return nullptr;
    return reinterpret_cast<char *>(pos_);
}

} // namespace laytran
