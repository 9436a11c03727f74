// Sizes that cannot overflow, and large zeroed buffers that cost memory only where touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace zorv {

/// a x b. Throws std::bad_alloc when that overflows: so much memory cannot be had.
inline std::size_t checkedProduct(std::size_t a, std::size_t b) {
    std::size_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) throw std::bad_alloc();
    return product;
}

/// A count read from a file. Throws std::bad_alloc when it is negative.
inline std::size_t toCount(std::int32_t value) {
    if (value < 0) throw std::bad_alloc();
    return static_cast<std::size_t>(value);
}

/// Anonymous zeroed pages; physical memory is used only for pages that are written.
class ZeroedPages {
  public:
    ZeroedPages() = default;
    explicit ZeroedPages(std::size_t bytes);
    ~ZeroedPages();
    ZeroedPages(ZeroedPages&& other) noexcept
        : base_(std::exchange(other.base_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}
    ZeroedPages& operator=(ZeroedPages&& other) noexcept {
        std::swap(base_, other.base_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }

    void* data() const { return base_; }

    /// Bytes [begin, end) will not be read before they are written again: gives back the memory
    /// of the whole pages inside, which then read as zeros; the edges keep what they hold.
    void release(std::size_t begin, std::size_t end);

  private:
    void* base_ = nullptr;
    std::size_t bytes_ = 0;
};

/// A fixed array of n zeroed T on ZeroedPages.
template <class T>
class ZeroedArray {
  public:
    ZeroedArray() = default;
    explicit ZeroedArray(std::size_t n) : pages_(checkedProduct(n, sizeof(T))), size_(n) {}

    T* data() { return static_cast<T*>(pages_.data()); }
    const T* data() const { return static_cast<const T*>(pages_.data()); }
    std::size_t size() const { return size_; }

    /// ZeroedPages::release of elements [begin, end).
    void release(std::size_t begin, std::size_t end) {
        pages_.release(begin * sizeof(T), end * sizeof(T));
    }

  private:
    ZeroedPages pages_;
    std::size_t size_ = 0;
};

/// A vector whose storage starts at a cache line.
template <class T>
struct CacheLineAllocator {
    using value_type = T;
    static constexpr std::align_val_t kLine{64};
    CacheLineAllocator() = default;
    template <class U>
    explicit(false) CacheLineAllocator(const CacheLineAllocator<U>&) {}
    T* allocate(std::size_t n) {
        return static_cast<T*>(::operator new(checkedProduct(n, sizeof(T)), kLine));
    }
    void deallocate(T* p, std::size_t) { ::operator delete(p, kLine); }
    bool operator==(const CacheLineAllocator&) const = default;
};
template <class T>
using AlignedVector = std::vector<T, CacheLineAllocator<T>>;

}  // namespace zorv
