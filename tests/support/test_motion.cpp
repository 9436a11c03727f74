#include "support/test_motion.h"

#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>

namespace zorv::test {
namespace {

std::vector<float> randoms(std::size_t n, float low, float high, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<float> values(n);
    for (float& value : values) {
        value = low + (high - low) * static_cast<float>(random() % 10001) / 10000;
    }
    return values;
}

/// Overlapping triangles, as filters for speech have them.
std::vector<float> filterBank() {
    std::vector<float> weights(257 * 80);
    for (int bin = 0; bin < 257; ++bin) {
        for (int band = 0; band < 80; ++band) {
            const double centre = 3 + 250 * std::pow(band / 79.0, 1.5);
            const double width = 2 + 0.08 * centre;
            weights[static_cast<std::size_t>(bin * 80 + band)] =
                static_cast<float>(std::max(0.0, 1 - std::abs(bin - centre) / width));
        }
    }
    return weights;
}

std::vector<float> hann() {
    std::vector<float> window(512);
    for (std::size_t i = 0; i < 512; ++i) {
        window[i] =
            static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * static_cast<double>(i) / 512));
    }
    return window;
}

/// Records with a scale near 1.
std::vector<float> infos(std::size_t n, unsigned seed) {
    std::vector<float> values = randoms(n * 328, -0.4f, 0.4f, seed);
    for (std::size_t i = 0; i < n; ++i) values[i * 328 + 258] += 1.2f;
    return values;
}

/// Wide, except that every 40th dimension is held within -0.05 .. 0.05.
std::vector<float> bounds() {
    std::vector<float> values(530, -4.f);
    for (std::size_t d = 0; d < 265; ++d) {
        if (d % 40 == 10) values[d] = -0.05f;
        values[265 + d] = -values[d];
    }
    return values;
}

}  // namespace

TestMotion::TestMotion(const TestMotionOptions& options) {
    const auto nt = static_cast<std::size_t>(options.nt);
    writeMeta("{\"nt\": " + std::to_string(options.nt) + ", \"n_src\": " +
              std::to_string(options.nt) + ", \"n_emo\": " + std::to_string(options.emotions) +
              ", \"s_bridge\": " + std::to_string(options.bridgeGain) +
              ", \"delta_pitch\": " + std::to_string(options.deltaPitch) + "}\n");
    const auto table = [&](const std::string& name, const std::vector<float>& values) {
        put(name, values);
        tables_.emplace_back(name, values.size());
    };
    table("hubert_stft_window.bin", hann());
    table("hubert_stft_binmat.bin", filterBank());
    table("hubert_fmean.bin", randoms(1024, -0.2f, 0.2f, 1));
    table("hubert_fstd.bin", randoms(1024, 0.5f, 1.5f, 2));
    table("emo.bin", randoms(8 * static_cast<std::size_t>(options.emotions), -1, 1, 3));
    table("ch_xs_info.bin", infos(1, 4));
    table("ch_sc.bin", randoms(63, -1, 1, 5));
    table("ch_eye_open.bin", randoms(2, -1, 1, 6));
    table("ch_eye_ball.bin", randoms(6, -1, 1, 7));
    table("v_min_max.bin", bounds());
    table("src_xs_info.bin", infos(nt, 8));
    table("xs_target.bin", randoms(nt * 63, -0.5f, 0.5f, 9));
    for (const char* key : {"hubert_student", "lmdm", "stitch"}) useModel(key, key);
}

void TestMotion::put(const std::string& name, const std::vector<float>& values) const {
    writeFile(path(name), {reinterpret_cast<const char*>(values.data()), values.size() * 4});
}

std::vector<float> TestMotion::floats(const std::string& name) const {
    const std::string bytes = readFile(path(name));
    std::vector<float> values(bytes.size() / 4);
    std::memcpy(values.data(), bytes.data(), values.size() * 4);
    return values;
}

void TestMotion::useModel(const std::string& key, const std::string& model) const {
    writeFile(path(key + ".onnx"), readFile(modelFile(model)));
}

}  // namespace zorv::test
