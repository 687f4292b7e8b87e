// Buffered byte output shared by the format writers.
//
// Bytes are assembled in one large block and handed to a file descriptor, a
// C stream or a string in few large writes. The hot paths (put, write of a
// few bytes, reserve/commit for numbers formatted in place) are inline; the
// flush is out of line. The first failure is kept (with its errno) and every
// later write is dropped, so a writer may check once, at the end: `finish()`
// flushes the last block and reports whether every byte got through.
//
// A full block bound for a descriptor or a stream is written by a helper
// thread while the next ones fill, so the system's copying overlaps the
// formatting. A failed write is therefore known from a later full block,
// settle() or finish() on; the bytes go out in order either way, and none
// after a failed write. The bytes
// of a regular file are sent on to the disk every few megabytes, so that a
// sync at the end (the output file's before its rename) finds little left.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <sys/types.h>

#include "support/helper_thread.h"

namespace laytran {

// Who else may write through a descriptor's open file.
enum class OutputFile {
    shared, // e.g. the standard output: written with plain writes only
    own,    // a new file no one else writes (a temporary output file)
};

class ByteOutput {
  public:
    static constexpr std::size_t default_block = std::size_t(1) << 20;

    // Writes to the descriptor; it stays the caller's (and is not closed).
    explicit ByteOutput(int fd, std::size_t block = default_block)
        : ByteOutput(fd, OutputFile::shared, block) {}
    ByteOutput(int fd, OutputFile use, std::size_t block = default_block);
    // Writes to the stream and flushes it at `finish()`; it stays the
    // caller's. An own file's stream is flushed here and its descriptor
    // written from then on.
    explicit ByteOutput(std::FILE *stream, std::size_t block = default_block)
        : ByteOutput(stream, OutputFile::shared, block) {}
    ByteOutput(std::FILE *stream, OutputFile use, std::size_t block = default_block);
    // Appends to the string, which must outlive the object.
    explicit ByteOutput(std::string *memory, std::size_t block = default_block);

    ~ByteOutput();
    ByteOutput(const ByteOutput &) = delete;
    ByteOutput &operator=(const ByteOutput &) = delete;

    bool put(std::uint8_t c) {
        if (pos_ < end_) {
            *pos_++ = c;
            return true;
        }
        return put_slow(c);
    }
    bool write(const void *data, std::size_t n) {
        if (static_cast<std::size_t>(end_ - pos_) >= n) {
            std::memcpy(pos_, data, n);
            pos_ += n;
            return true;
        }
        return write_slow(data, n);
    }
    bool write(const char *text) { return write(text, std::strlen(text)); }
    bool write(const std::string &text) { return write(text.data(), text.size()); }

    // Room for n bytes (n <= the block size) to be formatted in place;
    // `commit(k)` then keeps the first k of them. Null after a failure.
    char *reserve(std::size_t n) {
        if (static_cast<std::size_t>(end_ - pos_) >= n) return reinterpret_cast<char *>(pos_);
        return reserve_slow(n);
    }
    void commit(std::size_t k) { pos_ += k; }

    // Formats `count` items in batches of up to `batch` in place in the
    // block: `format(first, end, to)` writes items [first, end) at `to`, at
    // most `room` bytes an item, and returns the bytes written. A block
    // smaller than a batch takes one item at a time through `local` (room
    // bytes). False once the output has failed.
    template <class Format>
    bool write_batches(std::size_t count, std::size_t batch, std::size_t room, char *local,
                       Format &&format) {
        for (std::size_t i = 0; i < count;) {
            char *buf = reserve(std::min(count - i, batch) * room);
            if (!buf && failed_) return false;
            const std::size_t end = buf ? i + std::min(count - i, batch) : i + 1;
            const std::size_t len = format(i, end, buf ? buf : local);
            i = end;
            if (buf)
                commit(len);
            else
                write(local, len);
        }
        return true;
    }

    // Hands every buffered byte to the destination (and flushes a stream).
    bool flush();
    // Waits for the block being written, so that failed() tells about every
    // byte handed on so far. False when a write failed.
    bool settle();
    // The last flush; true when every byte written so far got through.
    bool finish() { return flush() && !failed_; }

    // Bytes accepted so far (buffered or written).
    std::uint64_t offset() const { return base_ + static_cast<std::uint64_t>(pos_ - block_.get()); }
    bool failed() const { return failed_; }
    int error_number() const { return error_number_; }
    // Whether bytes went to the disk around the system's cache (known once
    // settle() or finish() returned).
    bool bypassed_cache() const { return bypassed_; }

    // An own regular file, whose bytes can be written over or dropped.
    bool rewritable() const { return own_ && regular_ && fd_ >= 0; }
    // Drops every byte written so far (the file is cut back to where this
    // output began) and starts afresh, failures forgotten. False when the
    // file cannot be cut (or is not rewritable()).
    bool restart();
    // Writes n bytes over those at `at` (an offset of this output, below
    // offset()) once every byte before has gone out. False (the failure
    // kept) when they could not be written.
    bool patch(std::uint64_t at, const void *data, std::size_t n);

  private:
    struct BlockFree {
        void operator()(std::uint8_t *p) const;
    };
    using Block = std::unique_ptr<std::uint8_t[], BlockFree>;
    static std::uint8_t *make_block(Block &block, std::size_t size);
    void first_block();

    // Hands the full block on (to the helper thread where there is one).
    bool hand_on();
    bool put_slow(std::uint8_t c);
    bool write_slow(const void *data, std::size_t n);
    char *reserve_slow(std::size_t n);
    // Sends n bytes to the destination: 0, or the errno of the failure.
    int send(const std::uint8_t *data, std::size_t n);
    void take_failure(int error);
    // Notes where a regular file's bytes go; counts n bytes sent (which
    // starts the disk writing every few megabytes).
    void take_descriptor(OutputFile use);
    void watch_disk(int fd, off_t at);
    void sent(std::size_t n);
    // The system starts writing the bytes sent since it was last told,
    // without waiting for them.
    void start_disk_writing();
    void start_bypass();
    void stop_bypass();

    int fd_ = -1;
    std::FILE *stream_ = nullptr;
    std::string *memory_ = nullptr;
    Block block_;
    Block spare_[2]; // blocks being written or written, the older first
    std::unique_ptr<HelperThread> helper_;
    // The helper's errno for the first block it failed to write.
    std::atomic<int> helper_error_{0};
    std::size_t block_size_;
    std::uint8_t *pos_ = nullptr;
    std::uint8_t *end_ = nullptr;
    std::uint64_t base_ = 0; // bytes sent before the current block
    // A regular file: where the bytes sent go in it, and how far the system
    // was told to start writing them to the disk.
    bool regular_ = false, own_ = false;
    std::uint64_t start_ = 0; // where this output began in the file
    int disk_fd_ = -1;
    std::uint64_t sent_at_ = 0, flushing_at_ = 0;
    // An own file on a local disk may bypass the cache; bypassing_ once it
    // does. Both change only on the thread that sends.
    bool may_bypass_ = false, bypassing_ = false, bypassed_ = false;
    // Long runs are copied through the blocks too (set once, at the start:
    // the sending thread may change the two above meanwhile).
    bool through_blocks_ = false;
    bool failed_ = false;
    int error_number_ = 0;
};

} // namespace laytran
