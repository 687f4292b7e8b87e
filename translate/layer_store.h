// The layers of a translation kept in memory between reading and writing.
//
// Every layer is one record (its level, its contours' fields and their
// points) in a few large blocks of memory, instead of a vector per contour:
// no allocation per contour, and blocks of 2 MiB and more are backed by huge
// pages where the system gives them, which saves most of the page faults of
// a large model. Once the blocks reach their full size, a helper thread
// makes the system provide (and clear) the next block while this one fills.
// A layer comes back out into a Layer whose memory is reused from one layer
// to the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "laytran/model.h"
#include "support/helper_thread.h"

namespace laytran {

class LayerStore {
  public:
    LayerStore() = default;
    ~LayerStore();
    LayerStore(const LayerStore &) = delete;
    LayerStore &operator=(const LayerStore &) = delete;

    // Appends a copy of the layer. False, with nothing appended, when the
    // memory for it could not be had.
    bool append(const Layer &layer);
    std::size_t size() const { return index_.size(); }
    // Layer i (below size()) into `layer`, replacing what it held.
    void get(std::size_t i, Layer &layer) const;
    // Memory taken, in bytes.
    std::uint64_t bytes() const { return bytes_; }
    // Gives all memory back.
    void clear();

  private:
    struct Block {
        unsigned char *data;
        std::size_t size;
    };
    unsigned char *room(std::size_t n);
    void prepare_next();

    std::vector<Block> blocks_;
    Block next_ = {nullptr, 0}; // a full-size block made ready by helper_
    std::unique_ptr<HelperThread> helper_;
    std::vector<const unsigned char *> index_; // every layer's record
    std::size_t used_ = 0;                     // bytes used of the last block
    std::uint64_t bytes_ = 0;
};

} // namespace laytran
