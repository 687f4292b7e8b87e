// Points held as bytes (two 32-bit floats each, in the host's order), read
// through an iterator: a vector's insert or assign from a pair of them
// copies the points into room it has not cleared first, which a resize
// followed by a copy would do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "laytran/model.h"

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

} // namespace laytran
