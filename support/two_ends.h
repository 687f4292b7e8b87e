// The items [0, n) of a list shared by two threads: one takes them from the
// front, the other from the back, one at a time, until the two meet. Each
// item goes to exactly one of them, and whichever thread is slowed down
// (by the system, or by items that take longer) simply takes fewer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace laytran {

class TwoEnds {
  public:
    // The next list, of n items (below 2^32); before the threads start on it.
    void reset(std::size_t n) { ends_.store(n, std::memory_order_relaxed); }
    // The next item from the front or from the back; false once none is left.
    bool take_front(std::size_t &i) { return take(i, true); }
    bool take_back(std::size_t &i) { return take(i, false); }
    // Once both are done: the first item the back taker took (n when none).
    std::size_t meeting() const {
        return static_cast<std::size_t>(ends_.load(std::memory_order_acquire) >> 32);
    }

  private:
    // The next front item in the high half, one past the last back item in
    // the low half.
    bool take(std::size_t &i, bool front) {
        std::uint64_t ends = ends_.load(std::memory_order_relaxed);
        for (;;) {
            const std::uint64_t first = ends >> 32, end = ends & 0xFFFFFFFFu;
            if (first >= end) return false;
            const std::uint64_t next = front ? ends + (std::uint64_t{1} << 32) : ends - 1;
            if (ends_.compare_exchange_weak(ends, next, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
                i = static_cast<std::size_t>(front ? first : end - 1);
                return true;
            }
        }
    }

    std::atomic<std::uint64_t> ends_{0};
};

} // namespace laytran
