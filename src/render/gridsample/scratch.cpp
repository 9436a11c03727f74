#include "render/gridsample/scratch.h"

#include "common/memory.h"

namespace zorv {
namespace {

/// Lets its memory go when its thread ends but stays usable: destructors that run later, those of
/// static objects at exit among them, may still render.
struct Scratch {
    Scratch() : pages() {}
    ~Scratch() { pages = {}; }
    union {
        ZeroedArray<std::byte> pages;
    };
};

}  // namespace

void* gridSampleScratch(std::size_t bytes) {
    thread_local Scratch scratch;
    if (scratch.pages.size() < bytes) scratch.pages = ZeroedArray<std::byte>(bytes);
    return scratch.pages.data();
}

}  // namespace zorv
