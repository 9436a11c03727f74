#include "capi/zorv_ctx.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "capi/zorv_image.h"
#include "common/file.h"

namespace {

constexpr float kCropScale = 255.0f;  // crops are nominally in [0, 1]

std::vector<std::uint8_t> readMask(const zorv::Manifest& manifest) {
    const std::size_t side = static_cast<std::size_t>(manifest.crop);
    const std::size_t bytes = zorv::checkedProduct(side, side);
    std::string content;
    const auto status = zorv::readWholeFile(manifest.dir + "/mask_512.u8", content);
    if (status != zorv::ReadStatus::kOk || content.size() < bytes) {
        throw std::runtime_error("mask read failed");
    }
    return {content.begin(), content.begin() + static_cast<std::ptrdiff_t>(bytes)};
}

}  // namespace

zorv_ctx::zorv_ctx(const std::string& bundleDir, const std::string& modelKey, int threadCount,
                   const std::string& provider)
    : manifest(zorv::loadManifest(bundleDir)),
      identity(manifest),
      drive(zorv::loadDrive(manifest)),
      threads(threadCount),
      ep(provider),
      renderer(std::make_unique<zorv::Renderer>(manifest, identity, modelKey, threads, ep)),
      paste(std::make_unique<zorv::Paste>(readMask(manifest), manifest.crop, manifest.unsharp)) {
    const std::size_t frames = static_cast<std::size_t>(manifest.NT);
    const std::size_t pixels = zorv::checkedProduct(static_cast<std::size_t>(manifest.W),
                                                    static_cast<std::size_t>(manifest.H));
    const std::size_t bytes = zorv::checkedProduct(pixels, 3);
    targetCache = zorv::ZeroedArray<std::uint8_t>(zorv::checkedProduct(frames, bytes));
    targetLoaded.resize(frames);
    frameBuf = zorv::ZeroedArray<std::uint8_t>(bytes);
}

std::size_t zorv_ctx::frameBytes(zorv::PixelForm form) const {
    return zorv::packedSize(form, manifest.W, manifest.H);
}

zorv::FrameView zorv_ctx::packed(zorv::PixelForm form, std::uint8_t* buffer) const {
    return zorv::packedView(form, buffer, manifest.W, manifest.H);
}

const std::uint8_t* zorv_ctx::target(int i) {
    const std::size_t index = static_cast<std::size_t>(i);
    const std::size_t bytes = frameBuf.size();
    std::uint8_t* slot = targetCache.data() + index * bytes;
    if (targetLoaded[index]) return slot;
    char path[1024];
    // A longer path is cut, and then fails to decode.
    if (std::snprintf(path, sizeof path, "%s/target_frames/frame_%06d.jpg", manifest.dir.c_str(),
                      i) < 0) {
        throw std::runtime_error("decode failed: " + manifest.dir);
    }
    int width = 0;
    int height = 0;
    const std::vector<std::uint8_t> pixels = zorv::loadImageRGB(path, width, height, bytes / 3);
    if (width != manifest.W || height != manifest.H) {
        throw std::runtime_error(std::string("target size mismatch ") + path);
    }
    std::copy(pixels.begin(), pixels.end(), slot);
    targetLoaded[index] = 1;
    return slot;
}

void zorv_ctx::compose(int i, const float* crop, zorv::PixelForm form, zorv::YuvMatrix matrix,
                       const zorv::FrameView& out) {
    const std::uint8_t* frame = target(i);
    const zorv::FrameWriter writer(form, matrix, out, manifest.W, manifest.H);
    if (crop) {
        paste->composite(crop, kCropScale, identity.M(i), frame, writer);
    } else {
        writer.frame(frame);
    }
}
