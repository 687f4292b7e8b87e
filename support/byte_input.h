// Buffered byte input shared by the format readers.
//
// Bytes come from a file descriptor, a C stream or memory, in large blocks.
// The hot path, get(), is one compare and one load; refills, pushback and
// failures live in the out-of-line slow path. While pushed-back bytes wait,
// `limit_` is held at `pos_` so that every read takes the slow path and
// hands them out first. The offset is never counted per byte: it is the
// bytes of earlier blocks plus the position in the current one, less the
// bytes held in the pushback.
//
// A regular file of some size is read ahead: a helper thread reads the next
// block (with pread, from the input's own offset) while the reader works on
// the current one, so that the copy out of the page cache and the parsing
// overlap. The bytes, the offsets and the place where a read error or the
// end shows are those of reading without it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace laytran {

class ByteInput {
  public:
    static constexpr int eof = -1;
    static constexpr std::size_t default_block = std::size_t(1) << 20;
    static constexpr int pushback_max = 3;

    // Inputs from this size on are read ahead on a helper thread.
    static constexpr std::uint64_t read_ahead_min = std::uint64_t(8) << 20;

    // Reads the descriptor from its current position; it stays the caller's.
    // A regular file of `ahead_from` bytes or more is read ahead (and its
    // descriptor's position then stays where it was).
    explicit ByteInput(int fd, std::size_t block = default_block,
                       std::uint64_t ahead_from = read_ahead_min);
    // Reads the stream from its current position; it stays the caller's.
    explicit ByteInput(std::FILE *stream, std::size_t block = default_block,
                       std::uint64_t ahead_from = read_ahead_min);
    // Reads `size` bytes at `data`, which must outlive the object.
    ByteInput(const void *data, std::size_t size);

    ~ByteInput();
    ByteInput(const ByteInput &) = delete;
    ByteInput &operator=(const ByteInput &) = delete;

    // Whether this input is read ahead.
    bool reading_ahead() const { return ahead_ != nullptr; }

    // The next byte (0..255), or `eof` at the end of the input and after a
    // failed read (then `failed()` is true).
    int get() { return pos_ < limit_ ? *pos_++ : get_slow(); }

    // Gives a byte (or `eof`) back; the most recent comes out first. False
    // when `pushback_max` bytes are already held.
    bool unget(int c);

    // Puts pushed-back bytes back into the block when they are the very
    // bytes just read from it (a reader that looked ahead and gave back),
    // so that contiguous() finds them in place; the offset stays. False when
    // the pushback holds anything else.
    bool settle_pushback();

    // Up to n bytes into out; the number delivered (less than n only at the
    // end of the input or after a failure).
    std::size_t read(void *out, std::size_t n);

    // When n bytes (n <= the block size) can be had contiguously without
    // waiting pushback, a pointer to them, which `skip(n)` then consumes;
    // null otherwise (near the end of the input, or after a failure).
    const std::uint8_t *contiguous(std::size_t n) {
        if (static_cast<std::size_t>(limit_ - pos_) >= n) return pos_;
        return contiguous_slow(n);
    }
    void skip(std::size_t n) { pos_ += n; }
    // The bytes contiguous() can give without reading (0 while pushed-back
    // bytes wait).
    std::size_t available() const {
        return pushback_count_ > 0 ? 0 : static_cast<std::size_t>(end_ - pos_);
    }

    // Bytes handed out so far, less the bytes held in the pushback.
    std::uint64_t offset() const {
        return base_ + static_cast<std::uint64_t>(pos_ - data_) - pushed_bytes_;
    }
    // Whether the input's size is known (a regular file, or memory), its
    // total size from where reading began, and the bytes not yet handed out.
    bool size_known() const { return size_known_; }
    std::uint64_t size() const { return size_; }
    std::uint64_t remaining() const {
        if (!size_known_) return UINT64_MAX;
        std::uint64_t at = offset();
        return at < size_ ? size_ - at : 0;
    }

    // True once the input has given its end (the pushback may still hold
    // bytes).
    bool at_end() const { return at_end_; }
    // A read from the source failed; `error_number()` is its errno.
    bool failed() const { return failed_; }
    int error_number() const { return error_number_; }

  private:
    int get_slow();
    const std::uint8_t *contiguous_slow(std::size_t n);
    // Moves the unread tail of the block to its start and reads behind it
    // until `want` bytes wait; false when fewer came.
    bool refill(std::size_t want);
    bool refill_ahead(std::size_t want);
    void show_end(int error);
    // One read from the source into `to`; 0 at its end or after a failure.
    std::size_t read_source(std::uint8_t *to, std::size_t n);
    void measure(std::uint64_t ahead_from);
    struct Ahead;
    std::unique_ptr<Ahead> ahead_;

    int fd_ = -1;
    std::FILE *stream_ = nullptr;
    std::unique_ptr<std::uint8_t[]> block_;
    std::size_t block_size_ = 0;
    const std::uint8_t *data_ = nullptr;  // start of the current block
    const std::uint8_t *pos_ = nullptr;   // next byte
    const std::uint8_t *end_ = nullptr;   // end of the valid bytes
    const std::uint8_t *limit_ = nullptr; // hot-path bound: end_, or pos_ while pushback waits
    std::uint64_t base_ = 0;              // bytes of the input before data_
    int pushback_[pushback_max] = {};
    int pushback_count_ = 0;
    int pushed_bytes_ = 0; // pushback entries that are bytes, not `eof`
    bool at_end_ = false;
    bool failed_ = false;
    int error_number_ = 0;
    bool size_known_ = false;
    std::uint64_t size_ = 0;
};

} // namespace laytran
