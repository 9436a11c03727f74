// What the system says of this process's memory.
#pragma once

#include <cstddef>
#include <fstream>
#include <string>

/// ASan asks here for its settings: freed memory that it keeps for long would look like memory that
/// is not let go.
extern "C" [[gnu::used, gnu::visibility("default")]] inline const char* __asan_default_options() {
    return "quarantine_size_mb=1";
}

namespace zorv::test {

/// Bytes by a line of the process's status. Under TSan memory in use holds a shadow of every byte
/// that was ever touched, and tells nothing.
inline std::size_t statusBytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    std::size_t kibibytes = 0;
    while (status >> word && word != name) continue;
    status >> kibibytes;
    return kibibytes * 1024;
}

/// "VmHWM:" is the peak since then.
inline void forgetPeakMemory() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

}  // namespace zorv::test
