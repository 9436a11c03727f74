// An expression directory in a temporary directory, with models that are formulas.
//
//     ExpressionDir dir({.window = 0});
//     ScopedEnv encoder("W2V_ONNX", modelFile("a2x_w2v"));
//     zorv_a2x_create(dir.path().c_str(), 1);
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/test_bundle.h"

namespace zorv::test {

struct ExpressionOptions {
    int window = 1;
    int left = 3;
    int layers = 2;  ///< as many as the encoder model has
    int rows = 400;  ///< of the positional table
    int nt = 3;
    int silencePrime = 0;
    std::string decoder = "a2x_dec";  ///< see modelFile
};

/// All tables are smooth and tell their rows apart; the last value of a positional row is its
/// number.
class ExpressionDir {
  public:
    static constexpr int kWidth = 16;  ///< model width h of the test models

    explicit ExpressionDir(const ExpressionOptions& options = {});

    const ExpressionOptions& options() const { return options_; }
    const std::string& path() const { return dir_.path(); }
    std::string file(const std::string& name) const { return path() + "/" + name; }

    void writeMeta(const std::string& text) const { writeFile(file("a2x_meta.json"), text); }
    /// Writes `floats` as the named table.
    void writeTable(const std::string& name, const std::vector<float>& floats) const;

    std::vector<float> pos() const;       ///< rows x kWidth
    std::vector<float> norm() const;      ///< 63 means, 63 deviations
    std::vector<float> xsTarget() const;  ///< nt x 63

  private:
    ExpressionOptions options_;
    TempDir dir_;
};

}  // namespace zorv::test
