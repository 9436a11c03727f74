// Which instruction sets the vector kernels may use, and how a kernel is chosen.
#pragma once

#include <cstddef>

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

/// One way to do a piece of work. All ways together are a constant array, the best one first and
/// the one for every processor last.
template <class Entry>
struct Kernel {
    SimdLevel level;   ///< the lowest one that has its instructions
    const char* name;  ///< what `zorv_kernel_path` calls it
    bool (*needs)();   ///< whether the processor has what no level includes; null: not needed
    Entry entry;       ///< a function, or functions that belong together

    bool usable(SimdLevel allowed) const { return level <= allowed && (!needs || needs()); }
};

/// The best kernel of `table` that `allowed` permits and this processor can run. Allocates nothing.
/// REQUIRES: the processor has `allowed`.
template <class Entry, std::size_t kCount>
const Kernel<Entry>& chooseKernel(const Kernel<Entry> (&table)[kCount],
                                  SimdLevel allowed = simdLevel()) {
    const Kernel<Entry>* kernel = table;
    while (kernel != table + kCount - 1 && !kernel->usable(allowed)) ++kernel;
    return *kernel;
}

}  // namespace zorv
