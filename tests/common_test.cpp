#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/cpu.h"
#include "common/error.h"
#include "common/half.h"
#include "common/log.h"
#include "common/parallel.h"
#include "paste/rgba.h"
#include "support/kernels.h"

namespace zorv {
namespace {

/// By the compiler's own type.
double halfByDefinition(std::uint16_t bits) {
    return static_cast<double>(std::bit_cast<_Float16>(bits));
}
float nearestHalf(double x) {
    return static_cast<float>(static_cast<_Float16>(x));
}

TEST(Half, EveryValueIsExactOnEveryPath) {
    std::vector<std::uint16_t> all(65536 + 5);  // an odd tail after the vector body
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint16_t>(i);
    std::vector<float> portable(all.size());
    kernels::halfToFloatPortable(all.data(), portable.data(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto expected = static_cast<float>(halfByDefinition(all[i]));
        ASSERT_TRUE(std::isnan(expected) ? std::isnan(portable[i])
                                         : test::sameBits(portable[i], expected))
            << i << ": " << portable[i] << " instead of " << expected;
    }
    for (const auto& kernel : test::usableKernels(kHalfKernels)) {
        std::vector<float> wide(all.size());
        kernel.entry.widen(all.data(), wide.data(), all.size());
        EXPECT_TRUE(test::same(wide, portable)) << kernel.name;
    }
}

/// Every half-precision value, the ties between neighbours and what lies just beside both.
std::vector<double> roundingCases() {
    std::vector<double> cases;
    for (int bits = 0; bits < 0x7c00; ++bits) {
        const double value = halfByDefinition(static_cast<std::uint16_t>(bits));
        const double next =
            bits == 0x7bff ? 65536.0 : halfByDefinition(static_cast<std::uint16_t>(bits + 1));
        for (const double x : {value, (value + next) / 2}) {
            for (const double y : {x, std::nextafter(x, 1e9), std::nextafter(x, -1e9)}) {
                cases.insert(cases.end(), {y, -y});
            }
        }
    }
    for (const double x : {1e-30, 1e30, 65519.999, 1e-40, static_cast<double>(INFINITY)}) {
        cases.insert(cases.end(), {x, -x});
    }
    return cases;
}

TEST(Half, RoundingIsToTheNearestValueTiesToEvenOnEveryPath) {
    std::vector<float> singles;
    for (const double x : roundingCases()) {
        const float expected = nearestHalf(x), got = roundToHalf(x);
        ASSERT_EQ(got, expected) << x;
        ASSERT_EQ(std::signbit(got), std::signbit(x)) << x;
        const auto single = static_cast<float>(x);
        singles.insert(singles.end(),
                       {single, std::nextafter(single, 1e9f), std::nextafter(single, -1e9f)});
    }
    // Rounding to single precision first would make a tie of this one.
    EXPECT_EQ(roundToHalf(1 + 0x1p-11 + 0x1p-40), 1 + 0x1p-10f);
    singles.push_back(1.5f);  // an odd tail after the vector body
    std::vector<float> portable(singles.size());
    kernels::roundToHalfPortable(singles.data(), portable.data(), singles.size());
    for (std::size_t i = 0; i < singles.size(); ++i) {
        ASSERT_EQ(portable[i], nearestHalf(singles[i])) << singles[i];
    }

    const std::uint32_t nans[] = {0x7f800001, 0xff801fff, 0x7fc12345, 0xffbfe000};
    for (const std::uint32_t bits : nans) singles.push_back(std::bit_cast<float>(bits));
    portable.resize(singles.size());
    kernels::roundToHalfPortable(singles.data(), portable.data(), singles.size());
    EXPECT_TRUE(std::isnan(portable.back()) && std::isnan(roundToHalf(double{NAN})));
    for (const auto& kernel : test::usableKernels(kHalfKernels)) {
        std::vector<float> rounded = singles;  // in place
        kernel.entry.round(rounded.data(), rounded.data(), rounded.size());
        EXPECT_TRUE(test::same(rounded, portable)) << kernel.name;
    }
}

TEST(Rgba, EveryPathAndEveryTail) {
    for (std::size_t pixels = 0; pixels <= 40; ++pixels) {
        std::vector<std::uint8_t> rgb(3 * pixels), expected(4 * pixels, 255);
        for (std::size_t i = 0; i < rgb.size(); ++i) {
            expected[i / 3 * 4 + i % 3] = rgb[i] = static_cast<std::uint8_t>(i * 37);
        }
        for (const auto& kernel : test::usableKernels(kRgbaKernels)) {
            std::vector<std::uint8_t> rgba(4 * pixels);
            kernel.entry(rgb.data(), rgba.data(), pixels);
            ASSERT_TRUE(test::same(rgba, expected)) << kernel.name << ' ' << pixels;
        }
    }
}

TEST(Cpu, SettingLowersButNeverRaises) {
    EXPECT_EQ(chooseSimdLevel(nullptr, SimdLevel::kAvx512), SimdLevel::kAvx512);
    EXPECT_EQ(chooseSimdLevel("portable", SimdLevel::kAvx512), SimdLevel::kPortable);
    EXPECT_EQ(chooseSimdLevel("avx2", SimdLevel::kAvx512), SimdLevel::kAvx2);
    EXPECT_EQ(chooseSimdLevel("avx2", SimdLevel::kPortable), SimdLevel::kPortable);
    EXPECT_EQ(chooseSimdLevel("avx512", SimdLevel::kAvx2), SimdLevel::kAvx2);
}

TEST(Cpu, FindsWhatTheKernelFinds) {
    std::ifstream file("/proc/cpuinfo");
    std::string flags;
    while (std::getline(file, flags) && !flags.starts_with("flags")) continue;
    const auto has = [&](const std::string& flag) {
        return (flags + " ").find(" " + flag + " ") != std::string::npos;
    };
    const SimdLevel level = detectedSimdLevel();
    EXPECT_EQ(level >= SimdLevel::kAvx2, has("avx2") && has("fma") && has("f16c"));
    EXPECT_EQ(hasAvxVnni(), level >= SimdLevel::kAvx2 && has("avx_vnni"));
    EXPECT_EQ(hasAvx512Vnni(), level >= SimdLevel::kAvx512 && has("avx512_vnni"));
}

TEST(LastError, IsThereForDestructorsThatRunAfterItsThreadsOwnObjects) {
    using Errors = LastError<struct LateCalls>;
    const std::string longText(100, 'x');
    std::string seen;
    struct Late {
        std::string& seen;
        ~Late() {
            Errors::clear();
            seen = Errors::get();
            Errors::set("late", std::runtime_error("call"));
            seen += Errors::get();
        }
    };
    std::thread([&] {
        thread_local const Late late{seen};  // made first, so it goes last
        EXPECT_EQ(&late.seen, &seen);
        Errors::set(longText);
    }).join();
    EXPECT_EQ(seen, "late: call");
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

TEST(Log, LinesGoWhereTheHostSaysAndAFormerFunctionIsLeftAlone) {
    struct Host {
        std::vector<std::string> lines{};
        std::atomic<int> entered = 0, mayLeave = 0;
        static void line(void* user, const char* text) {
            auto& self = *static_cast<Host*>(user);
            self.lines.emplace_back(text);
            if (self.lines.back() != "slow") return;
            self.entered = 1;
            self.mayLeave.wait(0);
        }
    } host;
    const std::string filler(3000, 'x');
    setLog(Host::line, &host);
    logLine("%d of %s", 7, filler.c_str());
    EXPECT_EQ(host.lines, std::vector{"7 of " + filler});

    std::thread writer([] { logLine("slow"); });
    std::atomic<bool> restored = false;
    while (!host.entered) std::this_thread::yield();
    std::thread setter([&] {
        setLog(nullptr, nullptr);
        EXPECT_TRUE(host.mayLeave);
        restored = true;
    });
    testing::internal::CaptureStderr();
    std::size_t handed = 0;
    do {
        handed = host.lines.size();
        logLine("elsewhere");
    } while (host.lines.size() > handed);  // until the change is made
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "elsewhere\n");
    EXPECT_FALSE(restored);
    host.mayLeave = 1;
    host.mayLeave.notify_all();
    setter.join();
    writer.join();
}

}  // namespace
}  // namespace zorv
