#pragma once

#include <cstdio>
#include <cstdlib>

namespace zorv::fuzz {

/// What must hold for every input. The fuzzer reports the abort with its call stack, in which the
/// compiler may have merged all calls of a function into one: hence the line.
inline void require(bool condition, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
    std::abort();
}

}  // namespace zorv::fuzz
