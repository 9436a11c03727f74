// A tiny but complete bundle in a temporary directory, for tests that open one.
//
//     TestBundle bundle;                    // writes every file, removes them at the end
//     bundle.useModel("render", "render_fails");
//     bundle.truncate("P.f16");
//     zorv_create(bundle.dir().c_str(), "render", 1, nullptr);
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zorv::test {

/// Path of a model that make_models.py wrote, by its name without ".onnx".
std::string modelFile(const std::string& name);

/// A directory of its own under the system's temporary folder, removed with its content.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

/// Half-precision bits of `value`, cut toward zero; `value` is 0 or of magnitude 2^-14 .. 65504.
std::uint16_t halfBits(float value);

/// The models of make_models.py are made for crops of this side.
constexpr int kTestCrop = 16;

struct TestBundleOptions {
    int nt = 3;
    int width = 48;
    int height = 40;
    int crop = kTestCrop;
    int driveFrames = 4;
    bool withFsRed = false;
};

/// All values are smooth functions of frame and position that differ from frame to frame. The
/// crop lies inside the frame, enlarged and slightly turned.
class TestBundle {
  public:
    using Options = TestBundleOptions;

    explicit TestBundle(const Options& options = {});

    const Options& options() const { return options_; }
    const std::string& dir() const { return dir_.path(); }
    std::string path(const std::string& name) const { return dir() + "/" + name; }

    /// Writes all files as they were at first; undoes every change below.
    void write();

    /// Makes `model` (see modelFile) the bundle's model_<key>.onnx.
    void useModel(const std::string& key, const std::string& model);

    void remove(const std::string& name);
    void truncate(const std::string& name, std::size_t bytes = 1);  ///< cuts bytes off the end
    void extend(const std::string& name, std::size_t bytes = 1);    ///< appends zeros
    void empty(const std::string& name);
    void noise(const std::string& name, unsigned seed = 1);  ///< random bytes, size kept
    /// Replaces the first `from` of a text file, which must be there, by `to`.
    void replace(const std::string& name, const std::string& from, const std::string& to);

    /// The 63 floats of row `frame` of xs_target.bin.
    std::vector<float> baseKeypoints(int frame) const;

  private:
    void put(const std::string& name, const std::string& bytes);
    void writeManifest();
    void writeIdentity();
    void writeDrive();
    void writeFrames();

    Options options_;
    TempDir dir_;
};

}  // namespace zorv::test
