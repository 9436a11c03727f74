// Working memory of the vector samplers that is too large for the stacks of hosts' threads.
#pragma once

#include <cstddef>

namespace zorv {

/// At least `bytes` bytes at the start of a page, the calling thread's own until its next call;
/// they hold what the last sampler left. Allocated by the thread's first calls and kept until it
/// ends. Throws std::bad_alloc. Not inline: it must not be compiled for one instruction set.
void* gridSampleScratch(std::size_t bytes);

}  // namespace zorv
