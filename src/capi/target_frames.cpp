#include "capi/target_frames.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace zorv {
namespace {

/// Equal for contexts that decode the same pixels and place them alike.
struct BundleIdentity {
    std::array<int, 4> sizes;  ///< W, H, NT, crop
    TargetFrames::State state;
    std::vector<FileIdentity> frames;
    // NOLINTNEXTLINE(modernize-use-nullptr): the check misreads a defaulted comparison
    auto operator<=>(const BundleIdentity&) const = default;
};

BundleIdentity identityOf(const Manifest& manifest, const TargetFrames::State& state) {
    BundleIdentity identity{{manifest.W, manifest.H, manifest.NT, manifest.crop}, state, {}};
    identity.frames.reserve(toCount(manifest.NT));
    for (int i = 0; i < manifest.NT; ++i) {
        identity.frames.push_back(fileIdentity(targetPath(manifest, i)));
    }
    return identity;
}

}  // namespace

std::string targetPath(const Manifest& manifest, int i) {
    char path[1024];
    // A longer path is cut, and then fails to decode.
    if (std::snprintf(path, sizeof path, "%s/target_frames/frame_%06d.jpg", manifest.dir.c_str(),
                      i) < 0) {
        throw std::runtime_error("decode failed: " + manifest.dir);
    }
    return path;
}

TargetFrames::State TargetFrames::stateOf(const std::string& bundleDir) {
    return {fileIdentity(bundleDir + "/manifest.json"),
            fileIdentity(bundleDir + "/" + files::kPlacements.name),
            fileIdentity(bundleDir + "/" + files::kMask.name)};
}

std::shared_ptr<TargetFrames> TargetFrames::of(const Manifest& manifest, const State& before) {
    const auto make = [&] { return std::make_shared<TargetFrames>(manifest); };
    if (stateOf(manifest.dir) != before) return make();
    // Never freed: contexts may be opened by whatever runs at exit.
    static auto& registry = *new SharedRegistry<BundleIdentity, TargetFrames>;
    return registry.get(identityOf(manifest, before), make);
}

TargetFrames::TargetFrames(const Manifest& manifest)
    : width_(manifest.W),
      height_(manifest.H),
      frameBytes_(packedSize(PixelForm::kRgb, width_, height_)),
      frames_(toCount(manifest.NT)),
      rgb_(checkedProduct(frames_.size(), frameBytes_)) {}

void TargetFrames::keepRgb(int i, const std::vector<std::uint8_t>& pixels) {
    std::copy(pixels.begin(), pixels.end(), slot(i));
}

void TargetFrames::keepYuv(Yuv& yuv, YuvMatrix matrix, const FrameArea& area,
                           const std::uint8_t* rgb) const {
    const std::size_t planeBytes = packedSize(PixelForm::kI420, width_, height_);
    const std::size_t rowBytes = std::size_t{3} * static_cast<unsigned>(area.right - area.left);
    yuv.pages = ZeroedPages(planeBytes + rowBytes * static_cast<unsigned>(area.bottom - area.top));
    auto* bytes = static_cast<std::uint8_t*>(yuv.pages.data());
    const FrameView view = packedView(PixelForm::kI420, bytes, width_, height_);
    const Backdrop whole = rgbBackdrop(rgb, width_, height_);
    FrameWriter(PixelForm::kI420, matrix, view, width_, height_).frame(whole);
    std::uint8_t* blended = bytes + planeBytes;
    for (int y = area.top; y < area.bottom; ++y) {
        std::memcpy(blended + static_cast<std::size_t>(y - area.top) * rowBytes,
                    whole.pixel(area.left, y), rowBytes);
    }
    yuv.backdrop = {blended, area, view};
}

}  // namespace zorv
