#include "support/test_bundle.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <stb/stb_image_write.h>
#pragma GCC diagnostic pop

namespace zorv::test {
namespace {

/// A smooth value in 0.1 .. 0.9 that differs with every argument.
float wave(int frame, std::size_t i, float step) {
    return 0.5f + 0.4f * std::sin(1.7f * static_cast<float>(frame) + step * static_cast<float>(i));
}

template <class T, class Fn>
std::string arrayBytes(std::size_t n, const Fn& value) {
    std::vector<T> values(n);
    for (std::size_t i = 0; i < n; ++i) values[i] = value(i);
    return {reinterpret_cast<const char*>(values.data()), n * sizeof(T)};
}

/// NT frames of `perFrame` half-precision values.
std::string halfFrames(int nt, std::size_t perFrame, float step) {
    std::string bytes;
    for (int frame = 0; frame < nt; ++frame) {
        bytes += arrayBytes<std::uint16_t>(
            perFrame, [&](std::size_t i) { return halfBits(wave(frame, i, step)); });
    }
    return bytes;
}

std::string jpegBytes(int frame, int width, int height) {
    std::vector<std::uint8_t> rgb;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < 3; ++c) {
                rgb.push_back(static_cast<std::uint8_t>(
                    127.5 + 100 * std::sin(0.1 * x * (c + 1) + 0.13 * y + 2.0 * frame)));
            }
        }
    }
    std::string bytes;
    const auto append = [](void* to, void* data, int size) {
        static_cast<std::string*>(to)->append(static_cast<char*>(data),
                                              static_cast<std::size_t>(size));
    };
    if (!stbi_write_jpg_to_func(append, &bytes, width, height, 3, rgb.data(), 95)) {
        throw std::runtime_error("cannot write a JPEG");
    }
    return bytes;
}

float keypoint(int row, std::size_t i) {
    return wave(row, i, 0.31f) - 0.5f;
}

}  // namespace

std::string modelFile(const std::string& name) {
    return std::string(ZORV_TEST_MODELS) + "/" + name + ".onnx";
}

TempDir::TempDir() {
    path_ = (std::filesystem::temp_directory_path() / "zorv_test_XXXXXX").string();
    if (!::mkdtemp(path_.data())) throw std::runtime_error("cannot make " + path_);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::uint16_t halfBits(float value) {
    if (value == 0) return 0;
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return static_cast<std::uint16_t>(((bits >> 16) & 0x8000u) |
                                      (((bits & 0x7fffffffu) - (112u << 23)) >> 13));
}

TestBundle::TestBundle(const Options& options) : options_(options) {
    write();
}

void TestBundle::write() {
    std::filesystem::create_directories(path("drive"));
    std::filesystem::create_directories(path("target_frames"));
    writeManifest();
    writeIdentity();
    writeDrive();
    writeFrames();
    put("model_render.onnx", readFile(modelFile("render")));
    put("fca_stream.onnx", readFile(modelFile("fca_stream")));
}

void TestBundle::put(const std::string& name, const std::string& bytes) {
    writeFile(path(name), bytes);
}

void TestBundle::writeManifest() {
    std::ostringstream text;
    text << "{\n  \"format\": \"zorv-bundle-v0\",\n  \"agent\": \"tiny\",\n"
         << "  \"NT\": " << options_.nt << ",\n  \"H\": " << options_.height
         << ",\n  \"W\": " << options_.width << ",\n  \"crop\": " << options_.crop
         << ",\n  \"unsharp\": {\"amount\": 0.5, \"sigma\": 1.0, \"ksize\": 5},\n  \"frames\": "
         << options_.driveFrames << "\n}\n";
    put("manifest.json", text.str());
}

void TestBundle::writeIdentity() {
    const int nt = options_.nt;
    const auto side = static_cast<std::size_t>(options_.crop);
    put("pooled64.f16", halfFrames(nt, 65536, 0.003f));
    put("P.f16", halfFrames(nt, 3 * side * side, 0.05f));
    if (options_.withFsRed) put("fs_red.f16", halfFrames(nt, 262144, 0.007f));

    put("M.f32", arrayBytes<float>(static_cast<std::size_t>(nt) * 6, [&](std::size_t i) {
            const auto frame = static_cast<float>(i / 6);
            const float placement[6] = {1.25f, 0.1f, 8.f + frame, -0.1f, 1.25f, 10.f};
            return placement[i % 6];
        }));
    put("mask_512.u8", arrayBytes<std::uint8_t>(side * side, [&](std::size_t i) {
            const std::size_t x = i % side;
            const std::size_t y = i / side;
            const std::size_t edge = std::min(std::min(x, side - 1 - x), std::min(y, side - 1 - y));
            return static_cast<std::uint8_t>(std::min<std::size_t>(255, edge * 64));
        }));
    put("xs_target.bin", arrayBytes<float>(static_cast<std::size_t>(nt) * 63, [](std::size_t i) {
            return keypoint(static_cast<int>(i / 63), i % 63);
        }));
}

void TestBundle::writeDrive() {
    const auto frames = static_cast<std::size_t>(options_.driveFrames);
    const auto row = [](std::size_t i) { return static_cast<int>(i / 63); };
    put("drive/xs.f32",
        arrayBytes<float>(frames * 63, [&](std::size_t i) { return keypoint(row(i), i % 63); }));
    put("drive/xd.f32", arrayBytes<float>(frames * 63, [&](std::size_t i) {
            return keypoint(row(i) + 10, i % 63);
        }));
    put("drive/si.i32", arrayBytes<std::int32_t>(frames, [&](std::size_t i) {
            return static_cast<std::int32_t>(i % static_cast<std::size_t>(options_.nt));
        }));
}

void TestBundle::writeFrames() {
    for (int frame = 0; frame < options_.nt; ++frame) {
        char name[64];
        std::snprintf(name, sizeof name, "target_frames/frame_%06d.jpg", frame);
        put(name, jpegBytes(frame, options_.width, options_.height));
    }
}

void TestBundle::useModel(const std::string& key, const std::string& model) {
    writeFile(path("model_" + key + ".onnx"), readFile(modelFile(model)));
}

void TestBundle::remove(const std::string& name) {
    if (!std::filesystem::remove(path(name))) throw std::runtime_error("no such file: " + name);
}

void TestBundle::truncate(const std::string& name, std::size_t bytes) {
    std::string content = readFile(path(name));
    content.resize(content.size() - std::min(bytes, content.size()));
    writeFile(path(name), content);
}

void TestBundle::extend(const std::string& name, std::size_t bytes) {
    writeFile(path(name), readFile(path(name)) + std::string(bytes, '\0'));
}

void TestBundle::empty(const std::string& name) {
    writeFile(path(name), "");
}

void TestBundle::noise(const std::string& name, unsigned seed) {
    std::string content = readFile(path(name));
    std::mt19937 random(seed);
    for (char& byte : content) byte = static_cast<char>(random());
    writeFile(path(name), content);
}

void TestBundle::replace(const std::string& name, const std::string& from, const std::string& to) {
    std::string content = readFile(path(name));
    const std::size_t at = content.find(from);
    if (at == std::string::npos) throw std::runtime_error(name + " has no " + from);
    writeFile(path(name), content.replace(at, from.size(), to));
}

std::vector<float> TestBundle::baseKeypoints(int frame) const {
    std::vector<float> row(63);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = keypoint(frame, i);
    return row;
}

}  // namespace zorv::test
