// A growing sequence that forgets its front.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace zorv::motion {

/// Items of `itemFloats` floats with indices that never shift: appending adds at end(),
/// releaseBefore() lets the front go while later items keep their index. Items lie in blocks of
/// `blockItems`, of which `blocks` are made at once; up to so many free ones are kept. A store
/// whose items fit in them allocates nothing.
///
///     index     0 ......... begin()  ................. end()
///               released    | items                    |
class FrameStore {
  public:
    FrameStore(std::size_t itemFloats, std::size_t blockItems, std::size_t blocks);

    std::int64_t begin() const { return begin_; }
    std::int64_t end() const { return end_; }
    /// Blocks in memory, the free ones included.
    std::size_t blockCount() const;

    /// begin() <= index < end(). The pointer is valid until the item goes.
    float* at(std::int64_t index) { return slot(index / blockItems_).get() + offset(index); }
    const float* at(std::int64_t index) const {
        return slot(index / blockItems_).get() + offset(index);
    }
    /// Copies items [from, from + count), which must be there.
    void copy(std::int64_t from, std::size_t count, float* to) const;

    /// Makes sure that appending `count` items does not fail.
    void reserve(std::size_t count) { makeRoom(end_ + static_cast<std::int64_t>(count)); }
    /// Appends one item with values that the caller sets.
    float* append();
    /// Appends `count` items; all or, when memory runs out, none of them.
    void append(const float* items, std::size_t count);

    /// Drops items [end, end()); begin() <= end. No effect when there are none.
    void truncate(std::int64_t end);
    /// Lets items [begin(), index) go.
    void releaseBefore(std::int64_t index);
    /// Drops all items; indices start again at 0.
    void clear();

  private:
    using Block = std::unique_ptr<float[]>;

    Block& slot(std::int64_t block) {
        return ring_[static_cast<std::size_t>(block) % ring_.size()];
    }
    const Block& slot(std::int64_t block) const {
        return ring_[static_cast<std::size_t>(block) % ring_.size()];
    }
    std::size_t offset(std::int64_t index) const {
        return static_cast<std::size_t>(index % blockItems_) * itemFloats_;
    }
    /// Number of the first block that holds no item before `index`.
    std::int64_t blocksFor(std::int64_t index) const {
        return (index + blockItems_ - 1) / blockItems_;
    }
    void makeRoom(std::int64_t end);
    void growRing(std::size_t blocks);
    Block newBlock() const;
    Block freshBlock();
    void retire(Block block);

    std::size_t itemFloats_;
    std::int64_t blockItems_;
    std::int64_t begin_ = 0;
    std::int64_t end_ = 0;
    // Block b lies in slot b modulo the ring's size; blocks [firstBlock_, endBlock_) are there.
    std::int64_t firstBlock_ = 0;
    std::int64_t endBlock_ = 0;
    std::vector<Block> ring_;
    std::vector<Block> spare_;  ///< never more than its capacity at construction
    std::size_t spareLimit_;
};

}  // namespace zorv::motion
