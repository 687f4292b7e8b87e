#include "translate/layer_store.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/mman.h>

#include "formats/point_bytes.h"

namespace laytran {

namespace {

constexpr std::size_t huge_page = std::size_t(2) << 20;
constexpr std::size_t first_block = std::size_t(1) << 20;
constexpr std::size_t largest_block = std::size_t(16) << 20;
constexpr std::size_t small_page = 4096;

// A record: the layer's fields, then per contour its fields and its points.
struct LayerHead {
    float z;
    float thickness;
    std::uint64_t contours;
};
struct ContourHead {
    std::uint32_t kind;
    std::uint32_t id;
    std::uint32_t direction;
    std::uint32_t gaps;
    std::uint64_t points;
};
static_assert(sizeof(LayerHead) % 8 == 0 && sizeof(ContourHead) % 8 == 0 && sizeof(Point) == 8,
              "records keep their points 8-byte aligned");

// n bytes of fresh memory (a multiple of the huge page size from that size
// on, aligned to it and advised to be backed by huge pages); null when the
// system has none.
unsigned char *map_block(std::size_t n) {
    const bool huge = n >= huge_page;
    const std::size_t length = huge ? n + huge_page : n;
    void *p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    auto *start = static_cast<unsigned char *>(p);
    if (!huge) return start;
    // Trim to a huge-page boundary at both ends.
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(start);
    const std::size_t head = (huge_page - at % huge_page) % huge_page;
    if (head > 0) munmap(start, head);
    if (huge_page - head > 0) munmap(start + head + n, huge_page - head);
    start += head;
#ifdef MADV_HUGEPAGE
    madvise(start, n, MADV_HUGEPAGE);
#endif
    return start;
}

} // namespace

LayerStore::~LayerStore() {
    clear();
}

// Maps the next full-size block and has the helper touch every page of it,
// so that the system provides and clears the memory beside the reading.
void LayerStore::prepare_next() {
    unsigned char *data = map_block(largest_block);
    if (!data) return;
    next_ = {data, largest_block};
    bytes_ += largest_block;
    try {
        if (!helper_) helper_.reset(new HelperThread);
    } catch (const std::bad_alloc &) {
        return; // the pages come as they are first written
    }
    helper_->run([data] {
        for (std::size_t at = 0; at < largest_block; at += small_page)
            reinterpret_cast<volatile unsigned char *>(data)[at] = 0;
    });
}

unsigned char *LayerStore::room(std::size_t n) {
    if (!blocks_.empty() && blocks_.back().size - used_ >= n) return blocks_.back().data + used_;
    // Each block twice the last, up to the largest; a record larger than
    // that gets a block of its own size.
    std::size_t size =
        blocks_.empty() ? first_block : std::min(blocks_.back().size * 2, largest_block);
    if (size < n) size = (n + huge_page - 1) / huge_page * huge_page;
    if (blocks_.size() == blocks_.capacity()) blocks_.reserve(blocks_.size() * 2 + 8);
    Block block = {nullptr, size};
    if (size == largest_block && next_.data) {
        if (helper_) helper_->wait();
        block = next_;
        next_ = {nullptr, 0};
    } else {
        block.data = map_block(size);
        if (!block.data) return nullptr;
        bytes_ += size;
    }
    blocks_.push_back(block);
    used_ = 0;
    // From the full size on, the block after this one is made ready now.
    if (size == largest_block) prepare_next();
    return block.data;
}

bool LayerStore::append(const Layer &layer) {
    std::size_t n = sizeof(LayerHead);
    for (const Contour &c : layer.contours)
        n += sizeof(ContourHead) + c.points.size() * sizeof(Point);
    unsigned char *p;
    try {
        if (index_.size() == index_.capacity()) index_.reserve(index_.size() * 2 + 1024);
        p = room(n);
    } catch (const std::bad_alloc &) {
        return false;
    }
    if (!p) return false;
    index_.push_back(p);
    used_ += n;
    const LayerHead head = {layer.z, layer.thickness, layer.contours.size()};
    std::memcpy(p, &head, sizeof head);
    p += sizeof head;
    for (const Contour &c : layer.contours) {
        const ContourHead ch = {static_cast<std::uint32_t>(c.kind), c.id, c.direction, c.gaps,
                                c.points.size()};
        std::memcpy(p, &ch, sizeof ch);
        p += sizeof ch;
        if (!c.points.empty()) std::memcpy(p, c.points.data(), c.points.size() * sizeof(Point));
        p += c.points.size() * sizeof(Point);
    }
    return true;
}

void LayerStore::get(std::size_t i, Layer &layer) const {
    const unsigned char *p = index_[i];
    LayerHead head;
    std::memcpy(&head, p, sizeof head);
    p += sizeof head;
    layer.z = head.z;
    layer.thickness = head.thickness;
    layer.contours.resize(static_cast<std::size_t>(head.contours));
    for (Contour &c : layer.contours) {
        ContourHead ch;
        std::memcpy(&ch, p, sizeof ch);
        p += sizeof ch;
        c.kind = static_cast<ContourKind>(ch.kind);
        c.id = ch.id;
        c.direction = ch.direction;
        c.gaps = ch.gaps;
        const std::size_t n = static_cast<std::size_t>(ch.points);
        c.points.assign(PointBytes(p), PointBytes(p + n * sizeof(Point)));
        p += n * sizeof(Point);
    }
}

void LayerStore::clear() {
    if (helper_) helper_->wait();
    if (next_.data) munmap(next_.data, next_.size);
    next_ = {nullptr, 0};
    for (const Block &b : blocks_)
        munmap(b.data, b.size);
    blocks_.clear();
    blocks_.shrink_to_fit();
    index_.clear();
    index_.shrink_to_fit();
    used_ = 0;
    bytes_ = 0;
}

} // namespace laytran
