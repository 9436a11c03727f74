#include "support/expression_dir.h"

#include <cmath>
#include <filesystem>

namespace zorv::test {
namespace {

std::vector<float> table(int rows, int columns, float (*value)(int row, int column)) {
    std::vector<float> values;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < columns; ++c) values.push_back(value(r, c));
    }
    return values;
}

}  // namespace

ExpressionDir::ExpressionDir(const ExpressionOptions& options) : options_(options) {
    writeMeta("{\"h\": 16, \"window\": " + std::to_string(options.window) + ", \"left\": " +
              std::to_string(options.left) + ", \"layers\": " + std::to_string(options.layers) +
              ", \"maxlen\": " + std::to_string(options.rows) +
              ", \"silence_prime\": " + std::to_string(options.silencePrime) + "}");
    writeTable("a2x_pos.f32", pos());
    writeTable("a2x_norm.f32", norm());
    writeTable("xs_target.bin", xsTarget());
    std::filesystem::create_symlink(modelFile("a2x_enc_stream"), file("a2x_enc_stream.onnx"));
    std::filesystem::create_symlink(modelFile(options.decoder), file("a2x_dec.onnx"));
}

void ExpressionDir::writeTable(const std::string& name, const std::vector<float>& floats) const {
    writeFile(file(name),
              {reinterpret_cast<const char*>(floats.data()), floats.size() * sizeof(float)});
}

std::vector<float> ExpressionDir::pos() const {
    return table(options_.rows, kWidth, [](int r, int c) {
        const auto row = static_cast<float>(r);
        return c == kWidth - 1 ? row : 0.5f * std::sin(row * 0.07f * static_cast<float>(c + 1));
    });
}

std::vector<float> ExpressionDir::norm() const {
    return table(2, 63, [](int r, int c) {
        const auto i = static_cast<float>(c);
        return r == 0 ? i / 100 - 0.3f : 0.5f + i / 63;
    });
}

std::vector<float> ExpressionDir::xsTarget() const {
    return table(options_.nt, 63, [](int r, int c) {
        return 10 * static_cast<float>(r) + static_cast<float>(c) / 8;
    });
}

}  // namespace zorv::test
