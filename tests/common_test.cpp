#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "capi/rgba.h"
#include "common/cpu.h"
#include "common/half.h"
#include "common/key_finder.h"
#include "common/parallel.h"

namespace zorv {
namespace {

/// Half precision by its definition: (-1)^s x 2^(e-15) x 1.m, in double.
double halfByDefinition(std::uint16_t bits) {
    const int exponent = (bits >> 10) & 31;
    const double mantissa = bits & 1023;
    const double sign = bits & 0x8000 ? -1 : 1;
    if (exponent == 31) return mantissa == 0 ? sign * INFINITY : NAN;
    return sign *
           (exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25));
}

TEST(Half, EveryValueIsExactOnEveryPath) {
    std::vector<std::uint16_t> all(65536 + 5);  // an odd tail after the vector body
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint16_t>(i);
    std::vector<float> portable(all.size());
    kernels::halfToFloatPortable(all.data(), portable.data(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        const double expected = halfByDefinition(all[i]);
        if (std::isnan(expected)) {
            ASSERT_TRUE(std::isnan(portable[i])) << i;
        } else {
            ASSERT_EQ(portable[i], expected) << i;
            ASSERT_EQ(std::signbit(portable[i]), std::signbit(expected)) << i;
        }
    }
    if (detectedSimdLevel() < SimdLevel::kAvx2) GTEST_SKIP() << "processor without F16C";
    std::vector<float> vector(all.size());
    kernels::halfToFloatAvx2(all.data(), vector.data(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(std::bit_cast<std::uint32_t>(vector[i]),
                  std::bit_cast<std::uint32_t>(portable[i]))
            << "half bits " << all[i];
    }
}

TEST(Rgba, EveryPathAndEveryTail) {
    for (std::size_t pixels = 0; pixels <= 40; ++pixels) {
        std::vector<std::uint8_t> rgb(3 * pixels), portable(4 * pixels), vector(4 * pixels);
        for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>(i * 37);
        kernels::rgbToRgbaPortable(rgb.data(), portable.data(), pixels);
        for (std::size_t i = 0; i < portable.size(); ++i) {
            ASSERT_EQ(portable[i], i % 4 == 3 ? 255 : rgb[i / 4 * 3 + i % 4]) << pixels;
        }
        if (detectedSimdLevel() < SimdLevel::kAvx2) continue;
        kernels::rgbToRgbaAvx2(rgb.data(), vector.data(), pixels);
        ASSERT_EQ(vector, portable) << pixels;
    }
}

TEST(Cpu, SettingLowersButNeverRaises) {
    EXPECT_EQ(chooseSimdLevel(nullptr, SimdLevel::kAvx512), SimdLevel::kAvx512);
    EXPECT_EQ(chooseSimdLevel("portable", SimdLevel::kAvx512), SimdLevel::kPortable);
    EXPECT_EQ(chooseSimdLevel("avx2", SimdLevel::kAvx512), SimdLevel::kAvx2);
    EXPECT_EQ(chooseSimdLevel("avx2", SimdLevel::kPortable), SimdLevel::kPortable);
    EXPECT_EQ(chooseSimdLevel("avx512", SimdLevel::kAvx2), SimdLevel::kAvx2);
}

TEST(KeyFinder, NumbersSaturateAndIgnoreTheLocale) {
    EXPECT_EQ(toInt32(255.9), 255);
    EXPECT_EQ(toInt32(-255.9), -255);
    EXPECT_EQ(toInt32(1e300), INT32_MAX);
    EXPECT_EQ(toInt32(-INFINITY), INT32_MIN);
    EXPECT_EQ(toInt32(NAN), 0);
    EXPECT_EQ(numberFrom("  1.5,", 0), 1.5);
    EXPECT_EQ(numberFrom("\"5\"", 0), 0.0);
    EXPECT_EQ(numberFrom("", 0), 0.0);
}

TEST(ParallelRange, EveryIndexOnceForSmallCountsOfItemsAndWorkers) {
    for (int workers = 0; workers <= 5; ++workers) {
        for (const std::ptrdiff_t n : {0, 1, 63, 127, 128, 129, 192, 320, 321, 1000}) {
            std::vector<int> hits(static_cast<std::size_t>(n), 0);  // disjoint: no lock needed
            parallelRange(n, workers, [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
                for (std::ptrdiff_t i = begin; i < end; ++i) ++hits[static_cast<std::size_t>(i)];
            });
            for (const int hit : hits) ASSERT_EQ(hit, 1) << "n " << n << " workers " << workers;
        }
    }
}

}  // namespace
}  // namespace zorv
