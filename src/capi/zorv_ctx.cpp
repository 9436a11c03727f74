#include "capi/zorv_ctx.h"

#include <stdexcept>

#include "capi/zorv_image.h"
#include "common/file.h"

namespace {

constexpr float kCropScale = 255.0f;  // crops are nominally in [0, 1]

std::vector<std::uint8_t> readMask(const zorv::Manifest& manifest) {
    const std::size_t bytes = zorv::files::kMask.bytes(manifest);
    std::string content;
    const auto status = zorv::readWholeFile(manifest.dir + "/" + zorv::files::kMask.name, content);
    if (status != zorv::ReadStatus::kOk || content.size() < bytes) {
        throw std::runtime_error("mask read failed");
    }
    return {content.begin(), content.begin() + static_cast<std::ptrdiff_t>(bytes)};
}

/// W x H x 3 bytes RGB.
std::vector<std::uint8_t> decodeTarget(const zorv::Manifest& manifest, int i) {
    const std::string path = zorv::targetPath(manifest, i);
    const auto mostPixels = zorv::checkedProduct(static_cast<std::size_t>(manifest.W),
                                                 static_cast<std::size_t>(manifest.H));
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels = zorv::loadImageRGB(path, width, height, mostPixels);
    if (width != manifest.W || height != manifest.H) {
        throw std::runtime_error("target size mismatch " + path);
    }
    return pixels;
}

}  // namespace

zorv_ctx::zorv_ctx(const std::string& bundleDir, const std::string& modelKey, int threadCount,
                   const std::string& provider)
    : zorv_ctx(zorv::TargetFrames::stateOf(bundleDir), bundleDir, modelKey, threadCount, provider) {
}

zorv_ctx::zorv_ctx(const zorv::TargetFrames::State& before, const std::string& bundleDir,
                   const std::string& modelKey, int threadCount, const std::string& provider)
    : manifest(zorv::loadManifest(bundleDir)),
      identity(manifest),
      drive(zorv::loadDrive(manifest)),
      threads(threadCount),
      ep(provider),
      renderer(std::make_unique<zorv::Renderer>(manifest, identity, modelKey, threads, ep)),
      paste(std::make_unique<zorv::Paste>(readMask(manifest), manifest.crop, manifest.unsharp)),
      targets(zorv::TargetFrames::of(manifest, before)),
      frameBuf(frameBytes(zorv::PixelForm::kRgb)) {}

std::size_t zorv_ctx::frameBytes(zorv::PixelForm form) const {
    return zorv::packedSize(form, manifest.W, manifest.H);
}

zorv::FrameView zorv_ctx::packed(zorv::PixelForm form, std::uint8_t* buffer) const {
    return zorv::packedView(form, buffer, manifest.W, manifest.H);
}

const std::uint8_t* zorv_ctx::target(int i) {
    return targets->rgb(i, [this](int frame) { return decodeTarget(manifest, frame); });
}

const zorv::Placement& zorv_ctx::placement(int i) {
    const auto place = [this](int frame) {
        return paste->place(identity.M(frame), manifest.W, manifest.H);
    };
    if (const zorv::Placement* kept = targets->placement(i, place)) return *kept;
    if (ownPlacementOf_ != i) {
        ownPlacementOf_ = -1;
        ownPlacement_ = place(i);
        ownPlacementOf_ = i;
    }
    return ownPlacement_;
}

void zorv_ctx::compose(int i, const float* crop, zorv::PixelForm form, zorv::YuvMatrix matrix,
                       const zorv::FrameView& out) {
    const zorv::FrameWriter writer(form, matrix, out, manifest.W, manifest.H);
    const auto decode = [this](int frame) { return decodeTarget(manifest, frame); };
    const auto area = [this](int frame) { return placement(frame).area(); };
    const zorv::Backdrop from = zorv::isYuv(form)
                                    ? targets->yuv(i, matrix, area, decode)
                                    : zorv::rgbBackdrop(target(i), manifest.W, manifest.H);
    if (crop) {
        paste->composite(crop, kCropScale, placement(i), from, writer);
    } else {
        writer.frame(from);
    }
}
