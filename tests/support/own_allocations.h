// Tells the library's own allocations from those of the model runtime. A program that is linked
// with own_allocations.cpp can refuse any operator new and knows which threads are within the
// runtime.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <atomic>

namespace zorv::test {

/// Whether this thread is within a call of the model runtime.
inline thread_local bool inRuntime = false;

/// Models run so far.
inline std::atomic<long> modelRuns = 0;

/// Whether code of the model runtime's library is at `address`.
bool isRuntimeCode(const void* address);

/// While it lives, `refuses` is asked before every operator new of the process, and the runtime's
/// functions mark their calls and count runs. An entry that is not marked shows as an allocation
/// outside a call whose caller isRuntimeCode().
class RuntimeCalls {
  public:
    /// True makes the allocation throw std::bad_alloc. `caller` is the address that operator new
    /// returns to. Must not allocate.
    using Refuses = bool (*)(const void* caller);

    explicit RuntimeCalls(Refuses refuses);
    ~RuntimeCalls();
    RuntimeCalls(const RuntimeCalls&) = delete;
    RuntimeCalls& operator=(const RuntimeCalls&) = delete;

  private:
    OrtApi api_;
};

}  // namespace zorv::test
