#include "support/byte_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "support/helper_thread.h"

namespace laytran {

// The blocks read ahead: a ring the helper fills in order and the reader
// empties in order. Each block keeps a block's room in front of its bytes,
// where the unread tail of the block before is put when the reader moves
// on. The two wake each other only when needed: the reader when it waits
// for a block, the helper once half the ring is free again, so that a
// thread switch comes every few blocks rather than with each.
struct ByteInput::Ahead {
    static constexpr int slots = 4;
    struct Slot {
        std::unique_ptr<std::uint8_t[]> bytes; // room, then the block
        std::size_t got = 0;
        bool ended = false; // the file ended behind these bytes
        int error = 0;      // a read failed behind them (errno)
    };

    Ahead(int fd, std::uint64_t offset, std::size_t block) : fd(fd), offset(offset), block(block) {}
    ~Ahead() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop = true;
        }
        cv.notify_all();
        helper.wait();
    }
    void fill();

    const int fd;
    std::uint64_t offset; // the helper's: where the next read starts
    const std::size_t block;
    Slot ring[slots];
    std::mutex mutex;
    std::condition_variable cv;
    // Under the mutex: blocks filled and not yet taken, blocks the reader
    // gave back, who waits, and whether to stop.
    int filled = 0, free = slots;
    bool reader_waits = false, helper_waits = false, stop = false;
    // The reader's: the block it reads from (-1 before the first).
    int current = -1;
    bool last_taken = false; // the block taken last ended the reading
    int last_error = 0;      // ... on a failed read (errno)
    HelperThread helper;     // last: it stops before the blocks go
};

// The helper's loop: fills blocks in ring order until the end of the file,
// a failed read or stop.
void ByteInput::Ahead::fill() {
    int next = 0;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        // Wait for half the ring, unless the reader waits for a block.
        while (!stop && (free == 0 || (free < slots / 2 && filled > 0 && !reader_waits))) {
            helper_waits = true;
            cv.wait(lock);
            helper_waits = false;
        }
        if (stop) return;
        free--;
        lock.unlock();
        Slot &s = ring[next];
        if (!s.bytes) s.bytes.reset(new std::uint8_t[2 * block]);
        std::uint8_t *to = s.bytes.get() + block;
        s.got = 0;
        while (s.got < block) {
            const ssize_t got = ::pread(fd, to + s.got, block - s.got, static_cast<off_t>(offset));
            if (got > 0) {
                s.got += static_cast<std::size_t>(got);
                offset += static_cast<std::uint64_t>(got);
            } else if (got == 0) {
                s.ended = true;
                break;
            } else if (errno != EINTR) {
                s.error = errno;
                break;
            }
        }
        next = (next + 1) % slots;
        lock.lock();
        filled++;
        if (reader_waits) cv.notify_all();
        if (s.ended || s.error) return;
    }
}

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
    if (size_ >= ahead_from)
        ahead_ = std::make_unique<Ahead>(fd, static_cast<std::uint64_t>(at), block_size_);
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
    data_ = pos_;
    if (a.current < 0 && !a.last_taken) {
        if (!a.helper.start()) {
            // No thread to be had: read here, from where reading began.
            ahead_.reset();
            return refill(want);
        }
        a.helper.run([&a] { a.fill(); });
    }
    if (!a.last_taken) {
        const int next = (a.current + 1) % Ahead::slots;
        {
            std::unique_lock<std::mutex> lock(a.mutex);
            while (a.filled == 0) {
                a.reader_waits = true;
                if (a.helper_waits) a.cv.notify_all();
                a.cv.wait(lock);
                a.reader_waits = false;
            }
            a.filled--;
        }
        Ahead::Slot &s = a.ring[next];
        std::uint8_t *fresh = s.bytes.get() + a.block;
        if (keep > 0) std::memcpy(fresh - keep, pos_, keep);
        data_ = pos_ = fresh - keep;
        end_ = fresh + s.got;
        a.last_taken = s.ended || s.error;
        a.last_error = s.error;
        // The end or failure shows when this refill comes short, else with
        // the next.
        if (a.last_taken && static_cast<std::size_t>(end_ - pos_) < want) show_end(a.last_error);
        if (a.current >= 0) {
            // The block left behind goes back to the helper.
            std::lock_guard<std::mutex> lock(a.mutex);
            if (++a.free >= Ahead::slots / 2 && a.helper_waits) a.cv.notify_all();
        }
        a.current = next;
    } else {
        show_end(a.last_error);
    }
    limit_ = pushback_count_ > 0 ? pos_ : end_;
    return static_cast<std::size_t>(end_ - pos_) >= want;
}

void ByteInput::show_end(int error) {
    if (error != 0) {
        failed_ = true;
        error_number_ = error;
    } else {
        at_end_ = true;
    }
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
