// The grid sampler: every instruction set against a plain reference, and the operator in sessions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "render/custom_operators.h"
#include "render/gridsample/gridsample_fast.h"
#include "render/gridsample/op.h"
#include "support/failure.h"
#include "support/kernels.h"
#include "support/runtime_leaks.h"
#include "support/session.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::failure;
using test::same;

using SampleKernel = Kernel<GridSampleFunction*>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

struct Shape {
    std::int64_t C, H, W;
    std::size_t plane() const { return static_cast<std::size_t>(H * W); }
    std::size_t count() const { return static_cast<std::size_t>(C) * plane(); }
};

enum class Warp { kIdentity, kSmooth, kSteep, kTurned, kRandom, kOutside, kFar, kMirrored, kMixed };
constexpr Warp kWarps[] = {Warp::kIdentity, Warp::kSmooth,   Warp::kSteep,
                           Warp::kTurned,   Warp::kRandom,   Warp::kOutside,
                           Warp::kFar,      Warp::kMirrored, Warp::kMixed};

/// Smooth up to steep warps run through every way of fetching; kMixed changes between them.
std::vector<float> gridOf(Warp warp, const Shape& s, unsigned seed = 1) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> anywhere(-1.2f, 1.2f);
    const float far[] = {-1, 1, -1.5f, 1.5f, -1e9f, 1e9f, -3e38f, 3e38f, -kInfinity, kInfinity};
    std::vector<float> grid;
    for (std::int64_t i = 0; i < s.H * s.W; ++i) {
        const float u = (2 * static_cast<float>(i % s.W) + 1) / static_cast<float>(s.W) - 1;
        const float v = (2 * static_cast<float>(i / s.W) + 1) / static_cast<float>(s.H) - 1;
        const Warp here = warp == Warp::kMixed ? kWarps[(i / 40) % 6] : warp;
        float x = u, y = v;
        if (here == Warp::kSmooth) x = 1.01f * u - 0.03f * v, y = 1.01f * v + 0.03f * u;
        if (here == Warp::kSteep) x = 0.6f * u - 0.2f * v, y = v + 0.4f * std::sin(5 * u);
        if (here == Warp::kTurned) x = v, y = -u;
        if (here == Warp::kRandom) x = anywhere(random), y = anywhere(random);
        if (here == Warp::kOutside) x -= 4, y += (i % 3 == 0 ? 5.0f : 0.0f);
        if (here == Warp::kFar) (i % 2 ? x : y) = far[random() % 10];
        if (here == Warp::kMirrored) x = -u;
        grid.push_back(x);
        grid.push_back(y);
    }
    return grid;
}

std::vector<float> randomPlanes(const Shape& s, unsigned seed = 2) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-4, 4);
    std::vector<float> x(s.count());
    for (float& v : x) v = value(random);
    return x;
}

/// One pixel by the formulas, in the order of operations that the vector paths have (fused) or
/// that the portable one has.
float sampleOne(const float* plane, const Shape& s, float gx, float gy, bool fused) {
    const auto tap = [](float g, std::int64_t size, std::int64_t* a, std::int64_t* b) {
        const float position = (1.0f + g) * 0.5f * static_cast<float>(size) - 0.5f;
        const float before = std::floor(position);
        const auto clamped = [size](float index) {
            return index < 0                          ? 0
                   : index < static_cast<float>(size) ? static_cast<std::int64_t>(index)
                                                      : size - 1;
        };
        *a = clamped(before);
        *b = clamped(before + 1);
        return *a == *b ? 0.0f : position - before;
    };
    std::int64_t xa, xb, ya, yb;
    const float fx = tap(gx, s.W, &xa, &xb), fy = tap(gy, s.H, &ya, &yb);
    const float corners[] = {plane[ya * s.W + xa], plane[ya * s.W + xb], plane[yb * s.W + xa],
                             plane[yb * s.W + xb]};
    const float weights[] = {(1 - fx) * (1 - fy), fx * (1 - fy), (1 - fx) * fy, fx * fy};
    float sum = weights[0] * corners[0];
    for (int i = 1; i < 4; ++i) {
        sum = fused ? std::fma(weights[i], corners[i], sum) : sum + weights[i] * corners[i];
    }
    return sum;
}

std::vector<float> reference(const Shape& s, const std::vector<float>& x,
                             const std::vector<float>& grid, bool fused) {
    std::vector<float> y;
    for (std::int64_t c = 0; c < s.C; ++c) {
        const float* plane = x.data() + static_cast<std::size_t>(c) * s.plane();
        for (std::size_t p = 0; p < s.plane(); ++p) {
            y.push_back(sampleOne(plane, s, grid[2 * p], grid[2 * p + 1], fused));
        }
    }
    return y;
}

/// Exact heap blocks, so that a read or write outside shows, between guard values.
std::vector<float> run(const SampleKernel& kernel, const Shape& s, const std::vector<float>& x,
                       const std::vector<float>& grid) {
    constexpr std::size_t kGuard = 16;
    std::vector<float> y(s.count() + 2 * kGuard, 12345.0f);
    kernel.entry(x.data(), grid.data(), y.data() + kGuard, s.C, s.H, s.W);
    for (std::size_t i = 0; i < kGuard; ++i) {
        EXPECT_EQ(y[i], 12345.0f);
        EXPECT_EQ(y[y.size() - 1 - i], 12345.0f);
    }
    return {y.begin() + kGuard, y.end() - kGuard};
}

class GridSample : public testing::TestWithParam<SampleKernel> {
  protected:
    bool fused() const { return GetParam().level != SimdLevel::kPortable; }

    /// Bit for bit: planes too small for vectors are the portable path's on all levels.
    void expectReference(const Shape& s, Warp warp, unsigned seed) {
        const auto x = randomPlanes(s, seed);
        const auto grid = gridOf(warp, s, seed);
        const auto y = run(GetParam(), s, x, grid);
        const bool vectors = fused() && s.W >= 2 && s.H * s.W >= 8;
        ASSERT_TRUE(same(y, reference(s, x, grid, vectors)))
            << s.C << " x " << s.H << " x " << s.W << " warp " << static_cast<int>(warp) << " seed "
            << seed;
    }
};

INSTANTIATE_TEST_SUITE_P(Levels, GridSample,
                         testing::ValuesIn(test::usableKernels(kGridSampleKernels)),
                         test::kernelName<GridSampleFunction*>);

TEST_P(GridSample, GivesTheFormulasBitsForEveryWidthAndWarp) {
    unsigned seed = 1;
    for (std::int64_t W = 1; W <= 41; ++W) {
        for (const Warp warp : kWarps) {
            ++seed;
            expectReference({1 + seed % 9, 1 + seed % 11, W}, warp, seed);
        }
    }
    for (const Warp warp : kWarps) {
        expectReference({5, 64, 64}, warp, 7);
        expectReference({2, 40, 100}, warp, 8);  // several tiles, the last one short
        expectReference({3, 1, 300}, warp, 9);
        expectReference({3, 300, 2}, warp, 10);
        expectReference({19, 64, 64}, warp, 11);  // scattered points from interleaved channels
        expectReference({9, 13, 11}, warp, 12);
        expectReference({9, 65, 64}, warp, 13);  // too large for those
    }
}

TEST_P(GridSample, NotANumberSamplesSomePixel) {
    const Shape s{9, 6, 50};
    const auto x = randomPlanes(s);
    for (const Warp warp : {Warp::kSmooth, Warp::kRandom}) {
        std::vector<float> grid = gridOf(warp, s);
        const auto before = run(GetParam(), s, x, grid);
        for (std::size_t i = 0; i < grid.size(); i += 7) grid[i] = kNaN;
        grid[2] = grid[3] = kNaN;
        const auto y = run(GetParam(), s, x, grid);
        for (std::size_t i = 0; i < y.size(); ++i) {
            const std::size_t p = i % s.plane();
            if (std::isnan(grid[2 * p]) || std::isnan(grid[2 * p + 1])) {
                EXPECT_LE(std::abs(y[i]), 4.0f) << i;
            } else {
                EXPECT_EQ(y[i], before[i]) << i;  // neighbours do not notice
            }
        }
        EXPECT_TRUE(std::count(x.begin(), x.begin() + 300, y[1])) << y[1];
    }
}

// What lies beyond the border pixel's own neighbourhood must not reach it, not even times zero.
TEST_P(GridSample, BorderPixelsIgnoreTheirNeighbours) {
    const Shape s{1, 6, 48};
    std::vector<float> x(s.count(), kInfinity);
    for (std::int64_t i = 0; i < 48; ++i) {
        x[static_cast<std::size_t>(i)] = x[static_cast<std::size_t>(5 * 48 + i)] = 1;
    }
    for (std::int64_t i = 0; i < 6; ++i) {
        x[static_cast<std::size_t>(48 * i)] = x[static_cast<std::size_t>(48 * i + 47)] = 1;
    }
    std::vector<float> grid = gridOf(Warp::kIdentity, s);
    for (std::size_t p = 0; p < s.plane(); ++p) {
        const bool column = p % 48 == 0 || p % 48 == 47;
        if (column) {
            grid[2 * p] *= 1.02f;
        } else {
            grid[2 * p + 1] = p < 3 * 48 ? -1.0f : 1.0f;
        }
    }
    for (const float v : run(GetParam(), s, x, grid)) EXPECT_EQ(v, 1.0f);
}

/// A session of the one-node test model, on one thread.
class SamplerSession {
  public:
    explicit SamplerSession(const std::string& model) {
        Ort::SessionOptions options = makeSessionOptions(1);
        registerGridSampleFast(options);
        session_ = createOperatorSession(test::testEnv(), test::modelFile(model), options);
    }

    std::vector<float> run(const std::vector<float>& x, const std::vector<std::int64_t>& xShape,
                           const std::vector<float>& grid,
                           const std::vector<std::int64_t>& gridShape) {
        const auto y =
            test::runModel(session_, {{"x", x, xShape}, {"grid", grid, gridShape}}, {"y"});
        shape = y[0].GetTensorTypeAndShapeInfo().GetShape();
        return test::floatsOf(y[0]);
    }

    std::vector<std::int64_t> shape;  ///< of the last output

  private:
    Ort::Session session_{nullptr};
};

// Run under each value of ZORV_SIMD: the bits tell which kernel the session used.
TEST(GridSampleOperator, RunsTheKernelOfTheSetting) {
    const Shape s{6, 20, 50};
    const auto x = randomPlanes(s);
    const auto grid = gridOf(Warp::kMixed, s);
    const auto plain = reference(s, x, grid, false), fused = reference(s, x, grid, true);
    ASSERT_NE(plain, fused);  // else the bits tell nothing
    const char* setting = std::getenv("ZORV_SIMD");
    const SimdLevel level = chooseSimdLevel(setting, detectedSimdLevel());
    const auto y =
        SamplerSession("sampler_fast").run(x, {1, s.C, s.H, s.W}, grid, {1, s.H, s.W, 2});
    EXPECT_TRUE(same(y, level == SimdLevel::kPortable ? plain : fused));
    EXPECT_EQ(chooseKernel(kGridSampleKernels).level, level);
}

TEST(GridSampleOperator, AgreesWithTheStandardNode) {
    SamplerSession standard("sampler"), fast("sampler_fast");
    for (const Warp warp : kWarps) {
        if (warp == Warp::kFar) continue;  // the standard node makes NaN of infinities
        const Shape s{4, 17, 35};
        auto x = randomPlanes({2 * s.C, s.H, s.W});
        auto grid = gridOf(warp, s, 3);
        const auto second = gridOf(Warp::kRandom, s, 4);
        grid.insert(grid.end(), second.begin(), second.end());
        const std::vector<std::int64_t> xShape{2, s.C, s.H, s.W}, gridShape{2, s.H, s.W, 2};
        const auto expected = standard.run(x, xShape, grid, gridShape);
        const auto y = fast.run(x, xShape, grid, gridShape);
        ASSERT_EQ(fast.shape, xShape);
        for (std::size_t i = 0; i < y.size(); ++i) ASSERT_NEAR(y[i], expected[i], 5e-5) << i;
    }
}

TEST(GridSampleOperator, TakesOnlyShapesThatItCanServe) {
    SamplerSession fast("sampler_fast");
    const std::vector<float> x(24, 1.0f), grid(24, 0.0f);
    EXPECT_EQ(fast.run(x, {1, 2, 3, 4}, grid, {1, 3, 4, 2}), x);
    EXPECT_EQ(fast.run(x, {1, 2, 3, 4}, grid, {1, 2, 2, 6}), x);  // only the count matters
    EXPECT_EQ(fast.run(x, {1, 2, 3, 4}, grid, {1, 6, 2, 2}), x);  // the grid's size
    EXPECT_EQ(fast.shape, (std::vector<std::int64_t>{1, 2, 6, 2}));
    EXPECT_TRUE(fast.run({}, {0, 2, 3, 4}, {}, {0, 3, 4, 2}).empty());
    EXPECT_EQ(fast.shape, (std::vector<std::int64_t>{0, 2, 3, 4}));
    EXPECT_TRUE(fast.run({}, {1, 0, 3, 4}, grid, {1, 3, 4, 2}).empty());

    const auto has = [](const std::string& text, const char* part) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    };
    const test::RuntimeLeaksStatus scope;
    has(failure([] { SamplerSession("sampler_fast_rank3"); }), "must have 4 dimensions");
    const std::vector<float> shorter(22, 0.0f);
    has(failure([&] { fast.run(x, {1, 2, 3, 4}, shorter, {1, 1, 1, 22}); }), "fewer points");
    has(failure([&] { fast.run({}, {1, 2, 0, 4}, grid, {1, 3, 4, 2}); }), "X has no pixels");
    has(failure([&] { fast.run(x, {2, 1, 3, 4}, grid, {1, 3, 4, 2}); }), "fewer points");
    has(failure([&] { fast.run(x, {1, 2, 3, 4}, {}, {0, 3, 4, 2}); }), "fewer points");
}

}  // namespace
}  // namespace zorv
