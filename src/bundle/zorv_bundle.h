// A prepared subject's directory: manifest, identity tensors, stored driving sequence.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/half.h"
#include "common/units.h"

namespace zorv {

/// What "format" has to be.
constexpr const char* kBundleFormat = "zorv-bundle-v0";

/// Whether NT, H, W or crop may be `value`.
constexpr bool isBundleSize(std::int32_t value) {
    return value >= 1;
}

/// Sharpening that the compositor applies to a crop.
struct Unsharp {
    float amount = 1.3f;
    float sigma = 2.0f;  ///< of the Gaussian, in crop pixels
    std::int32_t ksize = 13;
};

/// What manifest.json says. Immutable after loading.
struct Manifest {
    std::string dir;    ///< the bundle directory as given
    std::string agent;  ///< free-text subject label
    std::int32_t NT = 0;
    std::int32_t H = 0;
    std::int32_t W = 0;
    std::int32_t M_src_w = 0;  ///< frame space in which the placements were computed
    std::int32_t M_src_h = 0;
    std::int32_t crop = 512;
    Unsharp unsharp;
    std::int32_t frames = 0;  ///< length of the stored driving sequence

    /// dir/model_<key>.onnx
    std::string modelPath(const std::string& key) const;
};

/// Reads and validates dir/manifest.json. Throws std::runtime_error with a one-line text.
Manifest loadManifest(const std::string& dir);

/// A headerless file of numbers, row after row.
struct TensorFile {
    static constexpr std::int32_t kNT = -1, kFrames = -2, kCrop = -3;  ///< what the manifest says

    const char* name;
    const char* type;
    std::size_t elementBytes;
    std::array<std::int32_t, 4> shape;  ///< 0 behind the last dimension

    /// Elements of the dimensions from `first` on; the largest size when no file can have so many.
    std::size_t elements(const Manifest& manifest, std::size_t first = 0) const;
    std::size_t bytes(const Manifest& manifest, std::size_t first = 0) const;
};

namespace files {
using T = TensorFile;
constexpr auto kKeypoints = static_cast<std::int32_t>(kKeypointFloats);
constexpr T kPooled{"pooled64.f16", "float16", 2, {T::kNT, 64, 32, 32}};
constexpr T kImages{"P.f16", "float16", 2, {T::kNT, 3, T::kCrop, T::kCrop}};
constexpr T kReduced{"fs_red.f16", "float16", 2, {T::kNT, 64, 64, 64}};
constexpr T kPlacements{"M.f32", "float32", 4, {T::kNT, 6}};
constexpr T kMask{"mask_512.u8", "uint8", 1, {T::kCrop, T::kCrop}};
constexpr T kDriveSource{"drive/xs.f32", "float32", 4, {T::kFrames, kKeypoints}};
constexpr T kDriveDriving{"drive/xd.f32", "float32", 4, {T::kFrames, kKeypoints}};
constexpr T kDriveTargets{"drive/si.i32", "int32", 4, {T::kFrames}};
constexpr T kTargetKeypoints{"xs_target.bin", "float32", 4, {T::kNT, kKeypoints}};
}  // namespace files

/// A read-only private mapping of a headerless tensor file; empty when default-made.
class MappedFile {
  public:
    MappedFile() = default;
    MappedFile(void* base, std::size_t length) : base_(base), length_(length) {}
    ~MappedFile();
    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;

    const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(base_); }
    std::size_t length() const { return length_; }
    bool empty() const { return base_ == nullptr; }

  private:
    void* base_ = nullptr;
    std::size_t length_ = 0;
};

/// Maps a file that must be exactly `length` bytes long.
MappedFile mapFile(const std::string& path, std::size_t length);

/// Maps a whole file; one without bytes is empty. Throws "cannot open PATH" or "mmap failed PATH".
MappedFile mapFile(const std::string& path);

/// The placements of all target frames, 6 floats each, see Identity::M: carried over from the frame
/// space in which they were computed to W x H.
std::vector<float> loadPlacements(const Manifest& manifest);

/// Per-target-frame tensors of one subject; any thread may read them. Indices are not checked.
class Identity {
  public:
    explicit Identity(const Manifest& manifest);

    /// 64 x 32 x 32 half-precision pooled features of frame i.
    const std::uint16_t* pooled64(int i) const { return pooled64_[i]; }
    /// 3 x crop x crop half-precision planes R, G, B of the source crop; only when hasP().
    const std::uint16_t* P(int i) const { return p_[i]; }
    /// 64 x 64 x 64 half-precision reduced features; only when hasFsRed().
    const std::uint16_t* fsRed(int i) const { return fsRed_[i]; }
    /// Placement (a, b, tx, c, d, ty): crop pixel (x, y) lands on frame pixel
    /// (a x + b y + tx, c x + d y + ty).
    const float* M(int i) const { return mVec_.data() + std::size_t{6} * static_cast<unsigned>(i); }

    bool hasP() const { return !p_.map.empty(); }
    bool hasFsRed() const { return !fsRed_.map.empty(); }

  private:
    struct Rows {
        MappedFile map;
        std::size_t rowBytes = 0;
        const std::uint16_t* operator[](int i) const {
            return reinterpret_cast<const std::uint16_t*>(map.data() +
                                                          static_cast<unsigned>(i) * rowBytes);
        }
    };
    static Rows mapRows(const Manifest& manifest, const TensorFile& file);

    Rows pooled64_, p_, fsRed_;
    std::vector<float> mVec_;
};

/// The stored driving sequence: `frames` source and driving keypoint sets and the target frame
/// that each is drawn on.
struct Drive {
    std::vector<float> xs;         ///< frames x 63, source keypoints
    std::vector<float> xd;         ///< frames x 63, driving keypoints
    std::vector<std::int32_t> si;  ///< frames, each in [0, NT)
    int frames = 0;
};

Drive loadDrive(const Manifest& manifest);

}  // namespace zorv
