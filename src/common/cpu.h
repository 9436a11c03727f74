// Which instruction sets the vector kernels may use.
#pragma once

namespace zorv {

/// Ordered: a higher level includes the lower ones.
enum class SimdLevel {
    kPortable,  ///< baseline x86-64
    kAvx2,      ///< AVX2, FMA and F16C
    kAvx512,    ///< AVX-512 F, BW, DQ and VL
};

/// The highest level that both the processor and the operating system support.
SimdLevel detectedSimdLevel();

/// VPDPBUSD, the dot product of bytes, which is not part of any level: in its 256-bit VEX form, and
/// in the AVX-512 form of all widths.
bool hasAvxVnni();
bool hasAvx512Vnni();

/// The level that kernels use: the detected one, lowered by the environment variable `ZORV_SIMD`
/// ("portable", "avx2" or "avx512"; it never raises it). Read once per process.
SimdLevel simdLevel();

/// "portable", "avx2" or "avx512".
const char* simdLevelName(SimdLevel level);

/// What `simdLevel()` makes of a setting (null = unset) on a processor of level `detected`.
SimdLevel chooseSimdLevel(const char* setting, SimdLevel detected);

}  // namespace zorv
