// The int8 convolution: every instruction set against a plain reference, and the operator in
// sessions.
#include <gtest/gtest.h>
#include <onnxruntime_cxx_api.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include "render/custom_operators.h"
#include "render/int8conv/int8conv_vnni.h"
#include "support/failure.h"
#include "support/kernels.h"
#include "support/runtime_leaks.h"
#include "support/session.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::failure;
using test::same;
using test::usableKernels;

struct Case {
    std::int64_t n, c, h, w, m, kh, kw;
    ConvAttributes attributes;
    float low = -1, high = 2;

    friend std::ostream& operator<<(std::ostream& out, const Case& t) {
        const ConvAttributes& a = t.attributes;
        return out << "x [" << t.n << ',' << t.c << ',' << t.h << ',' << t.w << "] kernel [" << t.m
                   << ',' << t.kh << ',' << t.kw << "] strides " << a.strides[0] << ','
                   << a.strides[1] << " pads " << a.pads[0] << ',' << a.pads[1] << ',' << a.pads[2]
                   << ',' << a.pads[3] << " dilations " << a.dilations[0] << ',' << a.dilations[1]
                   << " group " << a.group << (a.enlarged ? " enlarged" : "")
                   << (a.zeroPads ? " zero pads" : "") << " range " << t.low << ".." << t.high;
    }
};

/// Random operands of a case; the weights include both ends of their range.
struct Operands {
    explicit Operands(const Case& t) : random(static_cast<unsigned>(t.c * 131 + t.m)) {
        x.resize(static_cast<std::size_t>(t.n * t.c * t.h * t.w));
        for (float& v : x) {
            v = t.low + (t.high - t.low) * static_cast<float>(random() % 1001) / 1000;
        }
        const std::int64_t in = t.c / t.attributes.group;
        weights.resize(static_cast<std::size_t>(t.m * in * t.kh * t.kw));
        for (std::int8_t& v : weights) v = static_cast<std::int8_t>(random());
        for (std::int64_t i = 0; i < t.m; ++i) {
            scale.push_back(0.001f * static_cast<float>(1 + random() % 9));
            bias.push_back(0.1f * static_cast<float>(random() % 9) - 0.4f);
        }
    }

    std::mt19937 random;
    std::vector<float> x, scale, bias;
    std::vector<std::int8_t> weights;
};

ConvGeometry geometryOf(const Case& t) {
    return ConvGeometry(t.attributes, {t.n, t.c, t.h, t.w},
                        {t.m, t.c / t.attributes.group, t.kh, t.kw});
}

std::vector<float> run(Int8Conv& conv, const Case& t, const Operands& o) {
    const ConvGeometry g = geometryOf(t);
    std::vector<float> y(static_cast<std::size_t>(g.n * g.m * g.oh * g.ow), -1234.5f);
    conv.run(g, {o.x.data(), o.weights.data(), o.scale.data(), o.bias.data(), y.data()});
    return y;
}

std::vector<float> run(const Int8ConvKernels& kernels, const Case& t, const Operands& o,
                       const ConvSplit& split = {1}) {
    Int8Conv conv(t.attributes, kernels, split);
    return run(conv, t, o);
}

/// One pixel of the output at a time, straight from the floats; taps in the padding are skipped, or
/// meet 0.0.
std::vector<float> reference(const Case& t, const Operands& o) {
    const ConvAttributes& a = t.attributes;
    const ConvGeometry g = geometryOf(t);
    float low = 0, high = 0;
    for (const float v : o.x) low = std::min(low, v), high = std::max(high, v);
    const float scale = high > low ? (high - low) / 255 : 1.0f;
    const int zp = static_cast<int>(std::nearbyint(-low / scale));
    const std::int64_t in = t.c / a.group, out = t.m / a.group;
    std::vector<float> y;
    for (std::int64_t at = 0; at < g.n * g.m * g.oh * g.ow; ++at) {
        const std::int64_t column = at % g.ow, row = at / g.ow % g.oh, m = at / g.ow / g.oh % g.m;
        const std::int64_t n = at / g.ow / g.oh / g.m;
        int sum = 0, wsum = 0;
        for (std::int64_t k = 0; k < in * t.kh * t.kw; ++k) {
            const std::int64_t kx = k % t.kw, ky = k / t.kw % t.kh, c = k / t.kw / t.kh;
            const int weight = o.weights[static_cast<std::size_t>(m * in * t.kh * t.kw + k)];
            wsum += weight;
            const std::int64_t sy = row * a.strides[0] - a.pads[0] + ky * a.dilations[0];
            const std::int64_t sx = column * a.strides[1] - a.pads[1] + kx * a.dilations[1];
            const int zoom = a.enlarged ? 2 : 1;
            const bool outside = sy < 0 || sx < 0 || sy >= t.h * zoom || sx >= t.w * zoom;
            if (outside && !a.zeroPads) continue;
            const std::int64_t plane = (n * t.c + m / out * in + c) * t.h * t.w;
            const auto pixel = static_cast<std::size_t>(plane + sy / zoom * t.w + sx / zoom);
            const float value = outside ? 0 : o.x[pixel];
            sum +=
                weight * std::clamp(static_cast<int>(std::nearbyint(value / scale)) + zp, 0, 255);
        }
        const auto i = static_cast<std::size_t>(m);
        y.push_back(static_cast<float>(sum - wsum * zp) * (scale * o.scale[i]) + o.bias[i]);
    }
    return y;
}

const std::vector<Case>& cases() {
    const ConvAttributes same = {{1, 1}, {1, 1, 1, 1}, {1, 1}, 1};
    static const std::vector<Case> all = {
        {1, 4, 1, 1, 1, 1, 1, {}},
        {1, 3, 5, 7, 2, 1, 1, {}},
        {1, 16, 9, 16, 16, 3, 3, same},
        {2, 5, 6, 17, 9, 3, 3, same},          // channels that fill neither quad nor tile
        {1, 8, 20, 49, 24, 3, 3, same},        // part-filled vectors at the row's end
        {1, 8, 7, 33, 7, 3, 3, same, 0, 1},    // zero point 0
        {1, 8, 7, 33, 7, 3, 3, same, -3, -1},  // zero point 255
        {1, 6, 12, 40, 10, 3, 3, {{2, 2}, {1, 1, 1, 1}, {1, 1}, 1}},
        {1, 6, 12, 40, 10, 3, 3, {{3, 2}, {0, 1, 2, 3}, {1, 1}, 1}},
        {1, 4, 12, 60, 8, 3, 5, {{1, 3}, {2, 4, 0, 1}, {2, 2}, 1}},
        {1, 4, 9, 30, 8, 2, 2, {{5, 7}, {0, 0, 0, 0}, {1, 1}, 1}},
        {1, 12, 8, 20, 18, 3, 3, {{1, 1}, {1, 1, 1, 1}, {1, 1}, 3}},
        {2, 6, 8, 20, 6, 3, 3, {{1, 2}, {1, 1, 1, 1}, {1, 1}, 6}},  // a group per channel
        {1, 3, 2, 3, 5, 5, 7, {{1, 1}, {4, 5, 4, 5}, {1, 1}, 1}},   // kernel beyond the picture
        {1, 3, 1, 2, 5, 3, 3, {{2, 1}, {7, 1, 3, 2}, {3, 1}, 1}},   // rows of padding alone
        {1, 3, 4, 20, 5, 4, 3, {{INT64_MAX, INT64_MAX}, {0, 0, 1, 0}, {1, 2}, 1}},
        {1, 64, 4, 24, 64, 3, 3, same},
        {1, 4, 5, 20, 6, 3, 3, same, 0, 0},  // silence
    };
    return all;
}

/// On every instruction set, alone and on several threads.
void expectReference(const Case& t, const Operands& operands) {
    const std::vector<float> expected = reference(t, operands);
    for (const auto& kernel : usableKernels(kInt8ConvKernels)) {
        for (const ConvSplit& split :
             {ConvSplit{1}, ConvSplit{1, 0, 2e6, 99}, {3, 1, 1, 1}, {2, 1, 1, 999}}) {
            EXPECT_TRUE(same(run(*kernel.entry, t, operands, split), expected))
                << kernel.name << " workers " << split.workers << ' ' << t;
        }
    }
}

TEST(Int8Conv, EveryInstructionSetGivesTheReferencesBits) {
    for (const Case& t : cases()) expectReference(t, Operands(t));
}

TEST(Int8Conv, EnlargedAndPaddedLikeTheSeparateNodes) {
    std::mt19937 random(11);
    const auto any = [&](unsigned least, unsigned most) {
        return static_cast<std::int64_t>(least + random() % (most - least + 1));
    };
    for (int i = 0; i < 150; ++i) {
        Case t = {any(1, 2), any(1, 19), any(1, 9), any(1, 75), any(1, 7), 3, 3, {}};
        t.attributes.enlarged = i % 3 < 2;
        t.attributes.zeroPads = i % 3 > 0;
        for (auto& pad : t.attributes.pads) pad = t.attributes.enlarged ? 1 : any(1, 3);
        if (i % 6 == 5) t.attributes.strides[1] = t.attributes.dilations[0] = 2, t.h += 3;
        t.low = -static_cast<float>(any(0, 3)), t.high = t.low + static_cast<float>(any(0, 4));
        expectReference(t, Operands(t));
    }
}

TEST(Int8Conv, LargestSumsDoNotSaturate) {
    Case t = {1, 64, 3, 40, 16, 3, 3, {}, 1, 1};  // every byte 255
    Operands operands(t);
    for (const int weight : {-128, 127}) {
        std::fill(operands.weights.begin(), operands.weights.end(),
                  static_cast<std::int8_t>(weight));
        const std::vector<float> expected = reference(t, operands);
        for (const auto& kernel : usableKernels(kInt8ConvKernels)) {
            EXPECT_TRUE(same(run(*kernel.entry, t, operands), expected)) << kernel.name;
        }
    }
}

TEST(Int8Conv, QuantisesLikeTheDivision) {
    std::mt19937 random(5);
    for (const float scale : {1.0f, 0.0078125f, 0.011764706f, 1.7e-39f, 3.1e-33f, 2.3e33f, 0.3f}) {
        const Quantisation q = {scale, 37};
        std::vector<float> values[4];
        for (auto& row : values) {
            for (int i = 0; i < 4099; ++i) {
                // Around the ties, which a product with the reciprocal would miss by a hair.
                float value = (static_cast<float>(random() % 512) / 2 - 40) * scale;
                for (auto steps = random() % 3; steps > 0; --steps) {
                    value = std::nextafter(value, random() % 2 ? 1e38f : -1e38f);
                }
                row.push_back(value);
            }
        }
        values[0][7] = std::numeric_limits<float>::quiet_NaN();
        values[1][9] = std::numeric_limits<float>::infinity();
        values[2][11] = -std::numeric_limits<float>::infinity();
        const float* rows[4] = {values[0].data(), values[1].data(), values[2].data(),
                                values[3].data()};
        std::vector<std::uint32_t> expected(4099), actual(4099);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            for (int c = 0; c < 4; ++c) {
                const float quotient = rows[c][i] / scale;
                const float rounded = std::nearbyint(quotient);
                const bool fits = rounded >= -0x1p31f && rounded < 0x1p31f;
                // What does not fit an int becomes the smallest one, as the processor does it.
                const double sum = fits ? double{rounded} + 37 : 0.0;
                const auto byte = static_cast<std::uint32_t>(std::clamp(sum, 0.0, 255.0));
                expected[i] |= byte << (8 * c);
            }
        }
        for (const auto& kernel : usableKernels(kInt8ConvKernels)) {
            for (const std::int64_t width :
                 {std::int64_t{3}, std::int64_t{21}, std::int64_t{4099}}) {
                const auto part = static_cast<std::ptrdiff_t>(width);
                std::fill(actual.begin(), actual.end(), 0u);
                kernel.entry->quantiseRow(rows, width, q, actual.data());
                const auto at =
                    std::mismatch(actual.begin(), actual.begin() + part, expected.begin());
                EXPECT_EQ(at.first, actual.begin() + part)
                    << kernel.name << " scale " << scale << " column " << at.first - actual.begin()
                    << " of " << width << ": " << *at.first << " instead of " << *at.second;
                EXPECT_EQ(std::count(actual.begin() + part, actual.end(), 0u), 4099 - part);
            }
        }
    }
}

TEST(Int8Conv, RangeIncludesZeroAndPassesOverNaN) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& kernel : usableKernels(kInt8ConvKernels)) {
        for (const std::size_t count : {0u, 1u, 15u, 64u, 200u, 1003u}) {
            for (const float sign : {1.0f, -1.0f}) {
                std::vector<float> data(count, sign);
                // The NaNs come to the same vector lane after the peak.
                for (std::size_t i = 32; i < count; i += 32) data[i] = nan;
                if (count > 2) data[count > 100 ? 0 : count - 1] = 7 * sign;
                const float peak = count > 2 ? 7.0f : static_cast<float>(count);
                float min = 5, max = 5;
                kernel.entry->minMax(data.data(), count, &min, &max);
                EXPECT_EQ(min, sign < 0 ? -peak : 0) << kernel.name << ' ' << count;
                EXPECT_EQ(max, sign > 0 ? peak : 0) << kernel.name << ' ' << count;
            }
        }
    }
    EXPECT_EQ(chooseQuantisation(0, 0).scale, 1);
    EXPECT_EQ(chooseQuantisation(-51, 0).scale, 0.2f);
    // Ties to even.
    for (const auto& [low, high, zero] : {std::tuple{0.f, 0.f, 0},
                                          {0.f, 51.f, 0},
                                          {-51.f, 0.f, 255},
                                          {-0.5f, 254.5f, 0},
                                          {-1.5f, 253.5f, 2},
                                          {-3e38f, 3e38f, 0}}) {
        EXPECT_EQ(chooseQuantisation(low, high).zeroPoint, zero) << low << ".." << high;
    }
}

TEST(Int8Conv, BadShapesAreRefused) {
    const auto refusal = [](const Case& t, std::vector<std::int64_t> x = {},
                            std::vector<std::int64_t> weights = {}) {
        if (x.empty()) x = {t.n, t.c, t.h, t.w};
        if (weights.empty()) weights = {t.m, t.c, t.kh, t.kw};
        return failure([&] { ConvGeometry(t.attributes, x, weights); });
    };
    const Case good = {1, 4, 5, 6, 8, 3, 3, {}};
    const Case enlarged = {1, 4, 5, 6, 8, 3, 3, {{1, 1}, {1, 1, 1, 1}, {1, 1}, 1, true}};
    EXPECT_EQ(refusal(good), "no failure");
    EXPECT_EQ(refusal(enlarged), "no failure");
    const std::string name = "Int8ConvVNNI: ", memory = "std::bad_alloc";
    EXPECT_EQ(refusal(good, {4, 5, 6}), name + "X and W must have rank 4");
    EXPECT_EQ(refusal(good, {}, {8, 3, 3, 3}), name + "channels do not fit W and group");
    const std::string large = name + "kernel larger than the padded input";
    const std::string plain = name + "only a plain 3 x 3 kernel with pads of 1 takes an enlarged X";
    const struct {
        const Case& from;
        std::string expected;
        std::function<void(Case&)> change;
    } cases[] = {
        {good, large, [](Case& t) { t.h = 2; }},
        {good, large, [](Case& t) { t.kh = 0; }},
        {good, name + "bad strides", [](Case& t) { t.attributes.strides[1] = 0; }},
        {good, name + "bad pads", [](Case& t) { t.attributes.pads[3] = -1; }},
        {good, name + "bad dilations", [](Case& t) { t.attributes.dilations[0] = -1; }},
        {good, name + "bad group", [](Case& t) { t.attributes.group = 0; }},
        {enlarged, plain, [](Case& t) { t.attributes.strides[0] = 2, t.h = 1; }},
        {enlarged, plain, [](Case& t) { t.attributes.pads[2] = 2; }},
        {enlarged, plain, [](Case& t) { t.kw = 2; }},
        {good, memory, [](Case& t) { t.attributes.pads[0] = INT64_MAX; }},
        {good, memory,
         [](Case& t) { t.attributes.pads[0] = t.attributes.pads[1] = std::int64_t{1} << 40; }},
    };
    for (const auto& [from, expected, change] : cases) {
        Case bad = from;
        change(bad);
        EXPECT_EQ(refusal(bad), expected) << bad;
    }
    Case groups = enlarged;
    groups.attributes.group = 2, groups.c = 8;
    EXPECT_EQ(refusal(groups, {}, {8, 4, 3, 3}), plain);

    Int8Conv conv({}, *chooseKernel(kInt8ConvKernels).entry);
    const Operands operands(good);
    run(conv, good, operands);
    const Case other = {1, 4, 5, 6, 8, 1, 3, {}};
    EXPECT_EQ(failure([&] { run(conv, other, Operands(other)); }),
              "Int8ConvVNNI: W changed its shape");
}

TEST(Int8Conv, WorkerCount) {
    const char* const tooLarge = "99999999999999999999";
    for (const auto& [setting, limit, workers] : {std::tuple<const char*, int, int>{nullptr, 8, 8},
                                                  {nullptr, 0, 1},
                                                  {"3", 8, 3},
                                                  {"30", 8, 8},
                                                  {"3", 0, 3},
                                                  {"0", 8, 1},
                                                  {"-7", 8, 1},
                                                  {"", 8, 1},
                                                  {tooLarge, 8, 8}}) {
        EXPECT_EQ(chooseConvThreads(setting, limit), workers);
    }
}

/// Runs in a fresh process, which reads the environment anew.
TEST(Int8ConvDeathTest, EnvironmentOfTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::setenv("ZORV_INT8_THREADS", "1", 1);
    ::setenv("ZORV_INT8_PROF", "1", 1);
    const auto useOnce = [] {
        const int before = convThreads();
        ::setenv("ZORV_INT8_THREADS", "2", 1);
        const Case& t = cases()[2];
        run(*chooseKernel(kInt8ConvKernels).entry, t, Operands(t));
        std::exit(before == 1 && convThreads() == 1 ? 0 : 1);
    };
    EXPECT_EXIT(useOnce(), testing::ExitedWithCode(0),
                "\\[int8 prof\\] minmax [0-9]+  transpose [0-9]+  gemm [0-9]+  requant 0  \\(ms "
                "total over all convs/runs\\)");
    ::setenv("ZORV_INT8_PROF", "0", 1);
    EXPECT_EXIT(useOnce(), testing::ExitedWithCode(0), "^$");
    ::unsetenv("ZORV_INT8_THREADS");
    ::unsetenv("ZORV_INT8_PROF");

    const auto isPortable = [] { std::exit(Int8Conv({}).useVnni() ? 1 : 0); };
    ::setenv("ZORV_SIMD", "portable", 1);
    EXPECT_EXIT(isPortable(), testing::ExitedWithCode(0), "");
    ::unsetenv("ZORV_SIMD");
    const bool best = chooseKernel(kInt8ConvKernels, detectedSimdLevel()).entry->useVnni;
    EXPECT_EXIT(isPortable(), testing::ExitedWithCode(best ? 1 : 0), "");
}

/// x [1, 8, 10, 20] -> y, through the nodes that make_models.py wrote.
class Int8ConvSession {
  public:
    explicit Int8ConvSession(const std::string& model) : session_(open(model)) {}

    std::vector<float> run(const Operands& operands) {
        const test::ModelInput x = {"x", operands.x, {1, 8, 10, 20}};
        return test::floatsOf(test::runModel(session_, {x}, {"y"}).front());
    }

  private:
    Ort::Session open(const std::string& model) {
        Ort::SessionOptions options = makeSessionOptions(1);
        registerInt8ConvVNNI(options);
        return createOperatorSession(test::testEnv(), test::modelFile(model), options);
    }

    Ort::Session session_;
};

/// What make_models.py gives the nodes.
Operands modelOperands(const Case& t) {
    Operands o(t);
    for (std::size_t i = 0; i < o.weights.size(); ++i) {
        o.weights[i] = static_cast<std::int8_t>(static_cast<int>(i * 37 % 256) - 128);
    }
    for (std::size_t i = 0; i < o.scale.size(); ++i) {
        o.scale[i] = static_cast<float>(i + 1) / 1024;
        o.bias[i] = static_cast<float>(i) / 8 - 1;
    }
    return o;
}

TEST(Int8ConvOperator, AttributesReachTheConvolution) {
    const auto expectSame = [](const std::string& model, const Case& t) {
        const Operands operands = modelOperands(t);
        EXPECT_TRUE(same(Int8ConvSession(model).run(operands), reference(t, operands))) << model;
    };
    expectSame("int8conv", {1, 8, 10, 20, 6, 3, 2, {{2, 1}, {1, 0, 2, 3}, {1, 2}, 2}});
    expectSame("int8conv_defaults", {1, 8, 10, 20, 6, 3, 2, {}});
    // Values that are too few count as absent.
    expectSame("int8conv_short", {1, 8, 10, 20, 6, 3, 2, {}});
}

TEST(Int8ConvOperator, FailuresAreTheRunsOwn) {
    const Operands operands = modelOperands({1, 8, 10, 20, 6, 3, 2, {}});
    const auto text = [&](const char* model) {
        Int8ConvSession session(model);
        const test::RuntimeLeaksStatus scope;
        return failure([&] { session.run(operands); });
    };
    EXPECT_NE(text("int8conv_bad_scale").find("weight scale and bias must be [M]"),
              std::string::npos);
    EXPECT_NE(text("int8conv_too_large").find("kernel larger than the padded input"),
              std::string::npos);
}

TEST(Int8ConvOperator, SessionsAndThreadsShareItSafely) {
    const Case t = {1, 8, 10, 20, 6, 3, 2, {{2, 1}, {1, 0, 2, 3}, {1, 2}, 2}};
    const Operands operands = modelOperands(t);
    const std::vector<float> expected = reference(t, operands);
    Int8ConvSession shared("int8conv");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            EXPECT_EQ(shared.run(operands), expected);  // first runs at once pack once
            if (i % 2 == 0) {
                EXPECT_EQ(Int8ConvSession("int8conv").run(operands), expected);
            }
            for (int k = 0; k < 5; ++k) EXPECT_EQ(shared.run(operands), expected);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace zorv
