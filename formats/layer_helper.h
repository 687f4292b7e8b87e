// The second thread of a text sink. While the sink's own thread writes a
// large layer's contours from the front, the helper formats them from the
// back into a text of its own, with a writer of its own; where the two
// met, the sink appends the helper's texts in order (or, when the helper
// could not make them, writes those contours itself).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "laytran/model.h"
#include "support/byte_output.h"
#include "support/helper_thread.h"
#include "support/two_ends.h"

namespace laytran {

template <class Writer>
class LayerHelper {
  public:
    ~LayerHelper() { thread_.wait(); }

    // Starts the helper on `contours` (fewer than 2^32), which must stay
    // as they are until finish(). It formats each contour it takes with
    // format(writer, contour) (false: failed) into a Writer that
    // make(ByteOutput &) gives the first time (a unique_ptr). False, with
    // nothing started, when that writer cannot be had.
    template <class Make, class Format>
    bool start(const std::vector<Contour> &contours, Make make, Format format) {
        if (!writer_) {
            try {
                out_.reset(new ByteOutput(&text_));
                writer_ = make(*out_);
            } catch (const std::bad_alloc &) {
                discard();
                return false;
            }
        }
        done_ = false;
        ends_.reset(contours.size());
        thread_.run([this, &contours, format] {
            try {
                text_.clear();
                text_ends_.clear();
                const std::uint64_t base = out_->offset();
                bool ok = true;
                for (std::size_t i = 0; ok && ends_.take_back(i);) {
                    ok = format(*writer_, contours[i]);
                    text_ends_.push_back(static_cast<std::size_t>(out_->offset() - base));
                }
                done_ = ok && out_->flush();
            } catch (const std::bad_alloc &) {
            }
        });
        return true;
    }

    // The next contour for the sink's thread; false once the two met.
    bool take_front(std::size_t &i) { return ends_.take_front(i); }

    // Waits for the helper. The first contour it took (the count when
    // none); whether it formatted all it took. A helper that did not
    // starts afresh with the next layer.
    std::size_t finish(bool &formatted) {
        thread_.wait();
        formatted = done_;
        if (!formatted) discard();
        return ends_.meeting();
    }

    // After a finish() that formatted: the helper's texts, in the order of
    // their contours, onto `out`.
    void append_to(ByteOutput &out) const {
        // The texts end at text_ends_, the last contour's first.
        for (std::size_t k = text_ends_.size(); k-- > 0;) {
            const std::size_t from = k > 0 ? text_ends_[k - 1] : 0;
            out.write(text_.data() + from, text_ends_[k] - from);
        }
    }

  private:
    void discard() {
        writer_.reset();
        out_.reset();
    }

    HelperThread thread_;
    std::string text_;
    std::unique_ptr<ByteOutput> out_;
    std::unique_ptr<Writer> writer_;
    std::vector<std::size_t> text_ends_; // where the helper's texts end
    TwoEnds ends_;
    bool done_ = false;
};

} // namespace laytran
