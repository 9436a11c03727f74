#include "common/memory.h"

#include <sys/mman.h>

namespace zorv {

ZeroedPages::ZeroedPages(std::size_t bytes) : bytes_(bytes) {
    if (bytes == 0) return;
    base_ = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base_ == MAP_FAILED) {
        base_ = nullptr;
        throw std::bad_alloc();
    }
}

ZeroedPages::~ZeroedPages() {
    if (base_) ::munmap(base_, bytes_);
}

}  // namespace zorv
