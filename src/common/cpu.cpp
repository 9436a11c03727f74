#include "common/cpu.h"

#include <cpuid.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zorv {
namespace {

/// Read from the processor, since not every compiler's builtin knows the name. It uses the
/// registers of AVX, which the operating system saves whenever there is AVX2.
bool hasF16c() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_F16C);
}

}  // namespace

SimdLevel detectedSimdLevel() {
    // The builtin also asks the operating system whether it saves the wide registers.
    __builtin_cpu_init();
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && hasF16c();
    if (!avx2) return SimdLevel::kPortable;
    const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
    return avx512 ? SimdLevel::kAvx512 : SimdLevel::kAvx2;
}

bool hasAvxVnni() {
    if (detectedSimdLevel() < SimdLevel::kAvx2) return false;
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid_count(7, 1, &eax, &ebx, &ecx, &edx) && (eax & (1u << 4));
}

bool hasAvx512Vnni() {
    if (detectedSimdLevel() < SimdLevel::kAvx512) return false;
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ecx & (1u << 11));
}

const char* simdLevelName(SimdLevel level) {
    switch (level) {
        case SimdLevel::kAvx512:
            return "avx512";
        case SimdLevel::kAvx2:
            return "avx2";
        case SimdLevel::kPortable:
            break;
    }
    return "portable";
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
