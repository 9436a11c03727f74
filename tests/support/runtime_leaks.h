#pragma once

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace zorv::test {

/// For runs in which an operator of ours fails: the model runtime forgets to release the status
/// that the operator gives it. Leaks of what this thread allocates in the scope are not reported.
class RuntimeLeaksStatus {
  public:
#if defined(__SANITIZE_ADDRESS__)
    RuntimeLeaksStatus() {
        __lsan_disable();
    }
    ~RuntimeLeaksStatus() {
        __lsan_enable();
    }
#else
    RuntimeLeaksStatus() {}
#endif
    RuntimeLeaksStatus(const RuntimeLeaksStatus&) = delete;
    RuntimeLeaksStatus& operator=(const RuntimeLeaksStatus&) = delete;
};

}  // namespace zorv::test
