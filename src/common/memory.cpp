#include "common/memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "common/fault.h"

namespace zorv {

ZeroedPages::ZeroedPages(std::size_t bytes) : bytes_(bytes) {
    if (bytes == 0) return;
    void* base = fault::fails(fault::Kind::kMap)
                     ? MAP_FAILED
                     : ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) throw std::bad_alloc();
    base_ = base;
}

ZeroedPages::~ZeroedPages() {
    if (base_) ::munmap(base_, bytes_);
}

void ZeroedPages::release(std::size_t begin, std::size_t end) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t first = (begin + page - 1) / page * page;
    // The last page belongs to this mapping alone.
    const std::size_t last = end == bytes_ ? (end + page - 1) / page * page : end / page * page;
    if (first >= last) return;
    char* from = static_cast<char*>(base_) + first;
    // Pages that the host has locked cannot be given back.
    if (::madvise(from, last - first, MADV_DONTNEED) != 0) std::memset(from, 0, last - first);
}

}  // namespace zorv
