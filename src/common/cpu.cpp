#include "common/cpu.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zorv {

SimdLevel detectedSimdLevel() {
    // The builtin also asks the operating system whether it saves the wide registers.
    __builtin_cpu_init();
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                      __builtin_cpu_supports("f16c");
    if (!avx2) return SimdLevel::kPortable;
    const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
    return avx512 ? SimdLevel::kAvx512 : SimdLevel::kAvx2;
}

SimdLevel chooseSimdLevel(const char* setting, SimdLevel detected) {
    if (!setting) return detected;
    if (std::strcmp(setting, "portable") == 0) return SimdLevel::kPortable;
    if (std::strcmp(setting, "avx2") == 0) return std::min(SimdLevel::kAvx2, detected);
    return detected;
}

SimdLevel simdLevel() {
    static const SimdLevel level = chooseSimdLevel(std::getenv("ZORV_SIMD"), detectedSimdLevel());
    return level;
}

}  // namespace zorv
