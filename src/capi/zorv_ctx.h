// The rendering context behind the zorv_ctx handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/memory.h"
#include "paste/frame_view.h"
#include "paste/zorv_paste.h"
#include "render/zorv_renderer.h"

/// One opened bundle with its renderer, its compositor and a cache of decoded target frames.
/// No lock is taken: one context is rendered from one thread at a time. A paste may run beside a
/// render when its target frame is in the cache already.
struct zorv_ctx {
    zorv_ctx(const std::string& bundleDir, const std::string& modelKey, int threadCount,
             const std::string& provider);

    /// RGB bytes (W x H x 3) of target frame i, decoded on first use. i is not checked.
    /// Throws "decode failed: " + path or "target size mismatch " + path.
    const std::uint8_t* target(int i);

    /// Writes target frame i to `out`, with `crop` (3 x crop x crop floats, planes R, G, B in
    /// [0, 1]) pasted in unless it is null. i is not checked, and calls must not overlap. Throws
    /// what target() throws, and std::bad_alloc; `out` may be written in part then.
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
    zorv::ZeroedArray<std::uint8_t> targetCache;  ///< NT x W x H x 3
    std::vector<std::uint8_t> targetLoaded;       ///< NT flags
    zorv::ZeroedArray<std::uint8_t> frameBuf;     ///< W x H x 3, output of zorv_paste_last
    const float* lastCrop = nullptr;              ///< of the last successful render
};
