#include "support/byte_output.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/vfs.h>
#endif

namespace laytran {

namespace {
// Bytes of a regular file handed to the disk at a time.
constexpr std::uint64_t disk_step = std::uint64_t(8) << 20;
// Longer than starting the writing of a step takes on a disk that keeps up.
constexpr std::chrono::milliseconds disk_wait(20);
// Writes around the cache take blocks, offsets and addresses in multiples
// of this (a page, a multiple of every usual sector size).
constexpr std::size_t direct_unit = 4096;
// An own file bypasses the cache from here on: a small file is better left
// to the cache, which the sync at the end writes at once.
constexpr std::uint64_t bypass_from = disk_step;

// Local disk file systems, where writing around the cache is a plain,
// streaming write. (On a network file system every such write waits for
// the server.)
bool local_disk(int fd) {
#ifdef __linux__
    struct statfs fs;
    if (fstatfs(fd, &fs) != 0) return false;
    switch (static_cast<unsigned long>(fs.f_type)) {
    case 0xEF53UL:     // ext2, ext3, ext4
    case 0x58465342UL: // xfs
    case 0x9123683EUL: // btrfs
    case 0xF2F52010UL: // f2fs
        return true;
    default:
        return false;
    }
#else
    (void)fd;
    return false;
#endif
}
} // namespace

void ByteOutput::BlockFree::operator()(std::uint8_t *p) const {
    ::operator delete[](p, std::align_val_t(direct_unit));
}

std::uint8_t *ByteOutput::make_block(Block &block, std::size_t size) {
    block.reset(static_cast<std::uint8_t *>(::operator new[](size, std::align_val_t(direct_unit))));
    return block.get();
}

void ByteOutput::first_block() {
    pos_ = make_block(block_, block_size_);
    end_ = pos_ + block_size_;
}

ByteOutput::ByteOutput(int fd, OutputFile use, std::size_t block) : fd_(fd), block_size_(block) {
    first_block();
    take_descriptor(use);
}

ByteOutput::ByteOutput(std::FILE *stream, OutputFile use, std::size_t block)
    : stream_(stream), block_size_(block) {
    first_block();
    const int fd = fileno(stream);
    if (fd < 0) return;
    if (use == OutputFile::own && std::fflush(stream) == 0) {
        // Nobody else writes the file: its descriptor is written directly.
        stream_ = nullptr;
        fd_ = fd;
        take_descriptor(use);
    } else {
        watch_disk(fd, ftello(stream));
    }
}

void ByteOutput::take_descriptor(OutputFile use) {
    const off_t at = lseek(fd_, 0, SEEK_CUR);
    watch_disk(fd_, at);
    own_ = use == OutputFile::own;
#ifdef O_DIRECT
    may_bypass_ = use == OutputFile::own && regular_ && block_size_ % direct_unit == 0 &&
                  at % static_cast<off_t>(direct_unit) == 0 && local_disk(fd_);
    through_blocks_ = may_bypass_;
#else
    (void)use;
#endif
}

void ByteOutput::watch_disk(int fd, off_t at) {
    struct stat st;
    regular_ = at >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    disk_fd_ = fd;
    sent_at_ = flushing_at_ = start_ = regular_ ? static_cast<std::uint64_t>(at) : 0;
}

bool ByteOutput::restart() {
    if (!rewritable()) return false;
    if (helper_) helper_->wait();
    if (bypassing_) stop_bypass();
    if (ftruncate(fd_, static_cast<off_t>(start_)) != 0 ||
        lseek(fd_, static_cast<off_t>(start_), SEEK_SET) != static_cast<off_t>(start_))
        return false;
    helper_error_.store(0);
    failed_ = false;
    error_number_ = 0;
    base_ = 0;
    pos_ = block_.get();
    end_ = pos_ + block_size_;
    sent_at_ = flushing_at_ = start_;
    may_bypass_ = through_blocks_;
    return true;
}

bool ByteOutput::patch(std::uint64_t at, const void *data, std::size_t n) {
    if (!rewritable()) {
        take_failure(EBADF);
        return false;
    }
    if (!flush()) return false;
    // A few bytes at any place: through the cache.
    if (bypassing_) stop_bypass();
    const auto *p = static_cast<const std::uint8_t *>(data);
    std::uint64_t to = start_ + at;
    while (n > 0) {
        const ssize_t done = ::pwrite(fd_, p, n, static_cast<off_t>(to));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) {
            take_failure(done < 0 ? errno : EIO);
            return false;
        }
        p += done;
        to += static_cast<std::uint64_t>(done);
        n -= static_cast<std::size_t>(done);
    }
    return true;
}

void ByteOutput::start_bypass() {
#ifdef O_DIRECT
    const int flags = fcntl(fd_, F_GETFL);
    bypassing_ = flags >= 0 && fcntl(fd_, F_SETFL, flags | O_DIRECT) == 0;
    may_bypass_ = bypassing_;
    bypassed_ = bypassed_ || bypassing_;
#endif
}

void ByteOutput::stop_bypass() {
#ifdef O_DIRECT
    const int flags = fcntl(fd_, F_GETFL);
    if (flags >= 0) fcntl(fd_, F_SETFL, flags & ~O_DIRECT);
#endif
    bypassing_ = may_bypass_ = false;
}

void ByteOutput::start_disk_writing() {
#ifdef SYNC_FILE_RANGE_WRITE
    // Only a hint, whatever it answers.
    sync_file_range(disk_fd_, static_cast<off_t>(flushing_at_),
                    static_cast<off_t>(sent_at_ - flushing_at_), SYNC_FILE_RANGE_WRITE);
#endif
    flushing_at_ = sent_at_;
}

void ByteOutput::sent(std::size_t n) {
    sent_at_ += n;
    if (bypassing_) return;
    if (may_bypass_ && sent_at_ >= bypass_from && sent_at_ % direct_unit == 0) {
        // What the cache holds goes to the disk now; what follows, around it.
        start_disk_writing();
        start_bypass();
        return;
    }
    // A disk that cannot take the bytes as fast as they come makes the call
    // wait: the system is then left to write them in its own time.
    if (regular_ && sent_at_ - flushing_at_ >= disk_step) {
        const auto start = std::chrono::steady_clock::now();
        start_disk_writing();
        if (std::chrono::steady_clock::now() - start > disk_wait) regular_ = false;
    }
}

ByteOutput::ByteOutput(std::string *memory, std::size_t block)
    : memory_(memory), block_size_(block) {
    first_block();
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
    // Only whole units at aligned addresses can go around the cache (the
    // last, short block of a file for one).
    if (bypassing_ &&
        (n % direct_unit != 0 || reinterpret_cast<std::uintptr_t>(data) % direct_unit))
        stop_bypass();
    while (n > 0) {
        ssize_t done = ::write(fd_, data, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            // Refused around the cache (a short write left the offset
            // unaligned, or the file system will not): written through it.
            if (errno == EINVAL && bypassing_) {
                stop_bypass();
                continue;
            }
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
        take_failure(helper_error_.load());
    }
    // After a failure every later write takes the slow path and is dropped.
    if (failed_) end_ = pos_;
    return !failed_;
}

bool ByteOutput::hand_on() {
    // A failure of the blocks written so far shows here; the blocks still
    // queued are dropped by the helper.
    take_failure(helper_error_.load());
    if (failed_) {
        end_ = pos_;
        return false;
    }
    std::uint8_t *start = block_.get();
    std::size_t n = static_cast<std::size_t>(pos_ - start);
    // A file that may go around the cache is sent in whole units: the rest
    // starts the next block.
    const std::size_t rest = through_blocks_ ? n % direct_unit : 0;
    n -= rest;
    if (memory_ || n == 0) return flush();
    try {
        for (Block &b : spare_) {
            if (!b) make_block(b, block_size_);
        }
        if (!helper_) helper_.reset(new HelperThread);
    } catch (const std::bad_alloc &) {
        return flush(); // written here and now
    }
    // Up to two blocks wait for the helper or are being written, so that it
    // goes from one to the next without waiting for this thread; the block
    // filled next is then one the helper is done with.
    helper_->post(
        [this, start, n] {
            if (helper_error_.load() != 0) return;
            if (const int error = send(start, n)) helper_error_.store(error);
        },
        2);
    std::memcpy(spare_[0].get(), start + n, rest);
    std::swap(block_, spare_[0]);
    std::swap(spare_[0], spare_[1]);
    base_ += n;
    pos_ = block_.get() + rest;
    end_ = block_.get() + block_size_;
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
    if (failed_) return false;
    auto *from = static_cast<const std::uint8_t *>(data);
    if (n >= block_size_ && !through_blocks_) {
        // A long run goes out directly, after what came before it.
        if (!flush()) return false;
        take_failure(send(from, n));
        base_ += n;
        if (failed_) end_ = pos_;
        return !failed_;
    }
    // The block is filled up, so that what is handed on is whole.
    while (n > 0) {
        if (pos_ == end_ && !hand_on()) return false;
        const std::size_t k = std::min(n, static_cast<std::size_t>(end_ - pos_));
        std::memcpy(pos_, from, k);
        pos_ += k;
        from += k;
        n -= k;
    }
    return true;
}

char *ByteOutput::reserve_slow(std::size_t n) {
    if (failed_ || n > block_size_ || !hand_on()) return nullptr;
    // What a whole-unit hand-on kept may leave too little room.
    if (static_cast<std::size_t>(end_ - pos_) < n && !flush()) return nullptr;
    return reinterpret_cast<char *>(pos_);
}

} // namespace laytran
