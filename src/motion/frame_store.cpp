#include "motion/frame_store.h"

#include <algorithm>

namespace zorv::motion {

FrameStore::FrameStore(std::size_t itemFloats, std::size_t blockItems, std::size_t blocks)
    : itemFloats_(itemFloats),
      blockItems_(static_cast<std::int64_t>(blockItems)),
      ring_(blocks),
      spareLimit_(blocks) {
    while (spare_.size() < blocks) spare_.push_back(newBlock());
}

std::size_t FrameStore::blockCount() const {
    return static_cast<std::size_t>(endBlock_ - firstBlock_) + spare_.size();
}

void FrameStore::copy(std::int64_t from, std::size_t count, float* to) const {
    const std::int64_t last = from + static_cast<std::int64_t>(count);
    while (from < last) {
        const std::int64_t piece = std::min(last - from, blockItems_ - from % blockItems_);
        to = std::copy_n(at(from), static_cast<std::size_t>(piece) * itemFloats_, to);
        from += piece;
    }
}

float* FrameStore::append() {
    makeRoom(end_ + 1);
    return at(end_++);
}

void FrameStore::append(const float* items, std::size_t count) {
    const std::int64_t last = end_ + static_cast<std::int64_t>(count);
    makeRoom(last);
    while (end_ < last) {
        const std::int64_t piece = std::min(last - end_, blockItems_ - end_ % blockItems_);
        const std::size_t floats = static_cast<std::size_t>(piece) * itemFloats_;
        std::copy_n(items, floats, at(end_));
        items += floats;
        end_ += piece;
    }
}

void FrameStore::truncate(std::int64_t end) {
    end_ = std::min(end_, end);
    const std::int64_t needed = std::max(firstBlock_, blocksFor(end_));
    while (endBlock_ > needed) retire(std::move(slot(--endBlock_)));
}

void FrameStore::releaseBefore(std::int64_t index) {
    begin_ = std::max(begin_, std::min(index, end_));
    const std::int64_t first = std::min(begin_ / blockItems_, endBlock_);
    while (firstBlock_ < first) retire(std::move(slot(firstBlock_++)));
}

void FrameStore::clear() {
    releaseBefore(end_);
    while (endBlock_ > firstBlock_) retire(std::move(slot(--endBlock_)));
    begin_ = end_ = firstBlock_ = endBlock_ = 0;
}

void FrameStore::makeRoom(std::int64_t end) {
    const std::int64_t needed = blocksFor(end);
    if (needed <= endBlock_) return;
    growRing(static_cast<std::size_t>(needed - firstBlock_));
    while (endBlock_ < needed) {
        slot(endBlock_) = freshBlock();
        ++endBlock_;
    }
}

void FrameStore::growRing(std::size_t blocks) {
    if (blocks <= ring_.size()) return;
    std::vector<Block> ring(std::max(blocks, 2 * ring_.size()));
    for (std::int64_t b = firstBlock_; b < endBlock_; ++b) {
        ring[static_cast<std::size_t>(b) % ring.size()] = std::move(slot(b));
    }
    ring_ = std::move(ring);
}

FrameStore::Block FrameStore::newBlock() const {
    return std::make_unique_for_overwrite<float[]>(static_cast<std::size_t>(blockItems_) *
                                                   itemFloats_);
}

FrameStore::Block FrameStore::freshBlock() {
    if (spare_.empty()) return newBlock();
    Block block = std::move(spare_.back());
    spare_.pop_back();
    return block;
}

void FrameStore::retire(Block block) {
    if (spare_.size() < spareLimit_) spare_.push_back(std::move(block));
}

}  // namespace zorv::motion
