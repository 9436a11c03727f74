// One failure at a chosen place of the library's own code, and scenarios that are driven through
// every place there is.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/fault.h"

namespace zorv::test {

/// What fails: the n-th operation of a kind, or (kMemoryOut) every allocation from the n-th on.
enum class Fault { kAllocation, kMemoryOut, kOpen, kRead, kMap, kThread };

const std::vector<Fault>& allFaults();

/// Lets every operation succeed again.
void disarm();

/// Runs `call` as the library's code; elsewhere nothing fails.
template <class Call>
auto inLibrary(Call&& call) {
    const fault::InLibrary in;
    return call();
}

/// How a family of C functions tells its failures.
struct Family {
    const char* (*lastError)();
    void (*misuse)();  ///< leaves a text of its own behind
};
extern const Family kContext, kStream, kMotion, kA2x, kUtterance, kTelemetry;

/// Checks the text of a failure under the fault that is driven: one line that begins with the
/// function's name, if one is given, and holds the fault's cause. From now on nothing fails.
void noteFailure(const std::string& text, const std::string& function = "");

/// Makes a call until it is good: at most twice. Its failure must say why, after the function's
/// name, and leave everything as it was, so that the next call succeeds.
template <class Call>
auto attempt(const Family& family, const std::string& function, Call&& call) {
    family.misuse();
    auto result = inLibrary(call);
    if (result) return result;
    noteFailure(family.lastError(), function);
    return inLibrary(call);
}

/// Runs the scenario with every fault in `faults` at n = 1, 2, ... until one does not come up.
/// The scenario returns what it was handed in the end, which must always be the same. Ends the
/// program when a run takes minutes. Leaks are looked for where the build can.
void drive(const char* name, const std::vector<Fault>& faults,
           const std::function<std::string()>& scenario);

/// For what a process does once: the call meets the first allocation that fails, then the second,
/// and so on until it is good.
void driveOnce(const char* name, const Family& family, const std::string& function,
               const std::function<bool()>& call);

}  // namespace zorv::test
