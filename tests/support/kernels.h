// Walks over kernel tables, and comparisons that say where two results part.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <ostream>
#include <vector>

#include "common/cpu.h"

namespace zorv {

template <class Entry>
void PrintTo(const Kernel<Entry>& kernel, std::ostream* out) {
    *out << kernel.name;
}

namespace test {

/// The kernels of a table that this processor can run, the best one first.
template <class Entry, std::size_t kCount>
std::vector<Kernel<Entry>> usableKernels(const Kernel<Entry> (&table)[kCount]) {
    std::vector<Kernel<Entry>> usable;
    for (const Kernel<Entry>& kernel : table) {
        if (kernel.usable(detectedSimdLevel())) usable.push_back(kernel);
    }
    return usable;
}

template <class Entry>
std::string kernelName(const testing::TestParamInfo<Kernel<Entry>>& info) {
    return info.param.name;
}

inline bool sameBits(float a, float b) {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}
inline bool sameBits(std::uint8_t a, std::uint8_t b) {
    return a == b;
}

/// Bit for bit, with the first place that differs and both values.
template <class T>
testing::AssertionResult same(const std::vector<T>& actual, const std::vector<T>& expected) {
    if (actual.size() != expected.size()) {
        return testing::AssertionFailure()
               << actual.size() << " values instead of " << expected.size();
    }
    std::size_t differing = 0, first = 0;
    for (std::size_t i = actual.size(); i-- > 0;) {
        if (sameBits(actual[i], expected[i])) continue;
        ++differing;
        first = i;
    }
    if (differing == 0) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << differing << " of " << actual.size() << " differ, the first at " << first << ": "
           << +actual[first] << " instead of " << +expected[first];
}

}  // namespace test
}  // namespace zorv
