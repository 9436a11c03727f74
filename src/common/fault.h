// Failures on demand. In a build with ZORV_FAULT_INJECTION a test decides which of the library's
// own opens, reads, maps and thread starts fail, and can tell the library's code from that of the
// model runtime. In every other build this compiles to nothing.
#pragma once

#ifdef ZORV_FAULT_INJECTION
#include <atomic>
#include <utility>
#endif

namespace zorv::fault {

enum class Kind { kAllocation, kOpen, kRead, kMap, kThread };

#ifdef ZORV_FAULT_INJECTION

/// Decides whether the operation that is about to begin fails; null: none does.
inline std::atomic<bool (*)(Kind)> decide{nullptr};

inline bool fails(Kind kind) {
    const auto ask = decide.load(std::memory_order_acquire);
    return ask && ask(kind);
}

/// Whether this thread runs the library's code, as opposed to the host's or the model runtime's.
inline thread_local bool inLibrary = false;

/// For the length of a block, this thread runs the library's code, or (false) leaves it.
class InLibrary {
  public:
    explicit InLibrary(bool in = true) : before_(std::exchange(inLibrary, in)) {}
    ~InLibrary() { inLibrary = before_; }
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;

  private:
    const bool before_;
};

#else

constexpr bool fails(Kind) {
    return false;
}

struct [[maybe_unused]] InLibrary {
    explicit constexpr InLibrary(bool = true) {}
};

#endif

}  // namespace zorv::fault
