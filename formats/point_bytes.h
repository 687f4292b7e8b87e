// Points held as bytes (two 32-bit floats each, in the host's order), read
// through an iterator: a vector's insert or assign from a pair of them
// copies the points into room it has not cleared first, which a resize
// followed by a copy would do.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "laytran/model.h"
#include "translate/model_ops.h"

namespace laytran {

class PointBytes {
  public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = Point;
    using difference_type = std::ptrdiff_t;
    using pointer = const Point *;
    using reference = Point;

    explicit PointBytes(const void *at) : at_(static_cast<const unsigned char *>(at)) {}

    Point operator*() const {
        Point p;
        std::memcpy(&p, at_, sizeof p);
        return p;
    }
    Point operator[](difference_type i) const { return *(*this + i); }
    PointBytes &operator++() {
        at_ += sizeof(Point);
        return *this;
    }
    PointBytes operator++(int) {
        PointBytes was = *this;
        ++*this;
        return was;
    }
    PointBytes &operator--() {
        at_ -= sizeof(Point);
        return *this;
    }
    PointBytes operator--(int) {
        PointBytes was = *this;
        --*this;
        return was;
    }
    PointBytes &operator+=(difference_type n) {
        at_ += n * static_cast<difference_type>(sizeof(Point));
        return *this;
    }
    PointBytes &operator-=(difference_type n) { return *this += -n; }
    friend PointBytes operator+(PointBytes a, difference_type n) { return a += n; }
    friend PointBytes operator+(difference_type n, PointBytes a) { return a += n; }
    friend PointBytes operator-(PointBytes a, difference_type n) { return a -= n; }
    friend difference_type operator-(PointBytes a, PointBytes b) {
        return (a.at_ - b.at_) / static_cast<difference_type>(sizeof(Point));
    }
    friend bool operator==(PointBytes a, PointBytes b) { return a.at_ == b.at_; }
    friend bool operator!=(PointBytes a, PointBytes b) { return a.at_ != b.at_; }
    friend bool operator<(PointBytes a, PointBytes b) { return a.at_ < b.at_; }
    friend bool operator>(PointBytes a, PointBytes b) { return a.at_ > b.at_; }
    friend bool operator<=(PointBytes a, PointBytes b) { return a.at_ <= b.at_; }
    friend bool operator>=(PointBytes a, PointBytes b) { return a.at_ >= b.at_; }

  private:
    const unsigned char *at_;
};

// What a pass over points held as bytes found: every value finite, a gap
// mark among them, and the extremes of x and y.
struct PointScan {
    bool finite = true;
    bool gap = false;
    float xmin = 0, xmax = 0, ymin = 0, ymax = 0;
};

// One pass over n points of little-endian floats at p (on a little-endian
// host), two points at a time on SSE2.
inline PointScan scan_point_bytes(const unsigned char *p, std::size_t n) {
    PointScan r;
    float lo[4] = {HUGE_VALF, HUGE_VALF, HUGE_VALF, HUGE_VALF};
    float hi[4] = {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
    std::size_t i = 0;
#ifdef __SSE2__
    const __m128i exponent = _mm_set1_epi32(0x7F800000);
    const __m128 gap = _mm_set1_ps(gap_coordinate);
    __m128i bad = _mm_setzero_si128();
    __m128 gaps = _mm_setzero_ps();
    __m128 vlo = _mm_loadu_ps(lo), vhi = _mm_loadu_ps(hi);
    for (; i + 2 <= n; i += 2) {
        const __m128i bits = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 8 * i));
        bad = _mm_or_si128(bad, _mm_cmpeq_epi32(_mm_and_si128(bits, exponent), exponent));
        const __m128 v = _mm_castsi128_ps(bits); // x0 y0 x1 y1
        const __m128 at_gap = _mm_cmpeq_ps(v, gap);
        gaps = _mm_or_ps(gaps, _mm_and_ps(at_gap, _mm_shuffle_ps(at_gap, at_gap, 0xB1)));
        vlo = _mm_min_ps(v, vlo);
        vhi = _mm_max_ps(v, vhi);
    }
    r.finite = _mm_movemask_epi8(bad) == 0;
    r.gap = _mm_movemask_ps(gaps) != 0;
    _mm_storeu_ps(lo, vlo);
    _mm_storeu_ps(hi, vhi);
#endif
    for (; i < n; i++) {
        float xy[2];
        std::memcpy(xy, p + 8 * i, 8);
        r.finite &= std::isfinite(xy[0]) && std::isfinite(xy[1]);
        r.gap |= is_gap_mark({xy[0], xy[1]});
        lo[0] = std::min(lo[0], xy[0]);
        hi[0] = std::max(hi[0], xy[0]);
        lo[1] = std::min(lo[1], xy[1]);
        hi[1] = std::max(hi[1], xy[1]);
    }
    r.xmin = std::min(lo[0], lo[2]);
    r.xmax = std::max(hi[0], hi[2]);
    r.ymin = std::min(lo[1], lo[3]);
    r.ymax = std::max(hi[1], hi[3]);
    return r;
}

// Widens `e` by a scan of further points of the same contour; a value not
// finite or a gap mark makes the extremes unknown.
inline void widen(PointExtremes &e, const PointScan &s) {
    if (!s.finite || s.gap) e.known = false;
    if (!e.known) return;
    e.xmin = std::min(e.xmin, s.xmin);
    e.xmax = std::max(e.xmax, s.xmax);
    e.ymin = std::min(e.ymin, s.ymin);
    e.ymax = std::max(e.ymax, s.ymax);
}

} // namespace laytran
