// A small but complete motion directory, for tests that open one.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/test_bundle.h"

namespace zorv::test {

struct TestMotionOptions {
    int nt = 3;
    int emotions = 4;
    float bridgeGain = 0.8f;
    float deltaPitch = 3.f;
};

/// All values are random with a fixed seed; a few dimensions of a motion vector have narrow
/// bounds. Models are those of make_models.py.
class TestMotion {
  public:
    explicit TestMotion(const TestMotionOptions& options = {});

    const std::string& dir() const { return dir_.path(); }
    std::string path(const std::string& name) const { return dir() + "/" + name; }
    /// Every ".bin" file in the order in which they are loaded, with its number of floats.
    const std::vector<std::pair<std::string, std::size_t>>& tables() const { return tables_; }

    void put(const std::string& name, const std::vector<float>& values) const;
    std::vector<float> floats(const std::string& name) const;
    void writeMeta(const std::string& text) const { writeFile(path("meta.json"), text); }
    /// Makes `model` (see modelFile) the directory's <key>.onnx.
    void useModel(const std::string& key, const std::string& model) const;

  private:
    TempDir dir_;
    std::vector<std::pair<std::string, std::size_t>> tables_;
};

}  // namespace zorv::test
