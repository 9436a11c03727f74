// The rendering context behind the zorv_ctx handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bundle/zorv_bundle.h"
#include "capi/target_frames.h"
#include "common/error.h"
#include "common/memory.h"
#include "paste/frame_view.h"
#include "paste/zorv_paste.h"
#include "render/zorv_renderer.h"

struct zorv_ctx;

namespace zorv {
using ContextError = LastError<zorv_ctx>;
}  // namespace zorv

/// One opened bundle with its renderer, its compositor and its target frames. One thread at a time
/// renders; one thread at a time composes, which may be another one; any thread may ask for a
/// target frame.
struct zorv_ctx {
    zorv_ctx(const std::string& bundleDir, const std::string& modelKey, int threadCount,
             const std::string& provider);

    /// RGB bytes (W x H x 3) of target frame i, decoded on first use. i is not checked.
    /// Throws "decode failed: " + path or "target size mismatch " + path.
    const std::uint8_t* target(int i);

    /// Writes target frame i to `out`, with `crop` (3 x crop x crop floats, planes R, G, B in [0,
    /// 1]) pasted in unless it is null. i is not checked. When `form` is YUV, only the blended area
    /// of the frame is kept as RGB. `matrix` is not used for RGBA and RGB. Throws what target()
    /// throws, std::bad_alloc, and "paste: side > 1024"; nothing is written then.
    void compose(int i, const float* crop, zorv::PixelForm form, zorv::YuvMatrix matrix,
                 const zorv::FrameView& out);

    /// Bytes of a frame without gaps, and such a frame at `buffer`.
    std::size_t frameBytes(zorv::PixelForm form) const;
    zorv::FrameView packed(zorv::PixelForm form, std::uint8_t* buffer) const;

    zorv::Manifest manifest;
    zorv::Identity identity;
    zorv::Drive drive;
    int threads;
    std::string ep;
    std::unique_ptr<zorv::Renderer> renderer;
    std::unique_ptr<zorv::Paste> paste;
    std::shared_ptr<zorv::TargetFrames> targets;
    zorv::ZeroedArray<std::uint8_t> frameBuf;  ///< W x H x 3, output of zorv_paste_last
    const float* lastCrop = nullptr;           ///< of the last successful render

  private:
    zorv_ctx(const zorv::TargetFrames::State& before, const std::string& bundleDir,
             const std::string& modelKey, int threadCount, const std::string& provider);

    const zorv::Placement& placement(int i);

    zorv::Placement ownPlacement_;  ///< of the last frame whose placement is not kept
    int ownPlacementOf_ = -1;
};
