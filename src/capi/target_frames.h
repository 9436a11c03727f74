// The decoded target frames of one bundle, and what else is the same for every frame that is drawn
// on one of them.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/memory.h"
#include "common/once.h"
#include "common/shared_registry.h"
#include "paste/frame_writer.h"

namespace zorv {

/// Where the file of target frame i is.
std::string targetPath(const Manifest& manifest, int i);

/// Each part of a frame is made when it is first asked for, once, and then never changes. Any
/// thread may ask; it waits only while another thread makes the same part. An exception of a maker
/// reaches its caller, and the next caller makes the part again. Indices are not checked.
class TargetFrames {
  public:
    explicit TargetFrames(const Manifest& manifest);

    /// All of frame i in RGB: `decode(i)` gives W x H x 3 bytes.
    template <class Decode>
    const std::uint8_t* rgb(int i, const Decode& decode) {
        Frame& frame = at(i);
        once_.call(frame.rgbDone, [&] { keepRgb(i, decode(i)); });
        return slot(i);
    }

    /// Frame i as YUV, and the RGB of the area that is blended, which `area(i)` gives. Keeps no
    /// other RGB: takes all of it from rgb() where that has been asked for, else from `decode(i)`.
    template <class Area, class Decode>
    Backdrop yuv(int i, YuvMatrix matrix, const Area& area, const Decode& decode) {
        Yuv& yuv = at(i).yuv[static_cast<std::size_t>(matrix)];
        once_.call(yuv.done, [&] {
            if (at(i).rgbDone.done()) {
                keepYuv(yuv, matrix, area(i), slot(i));
            } else {
                keepYuv(yuv, matrix, area(i), decode(i).data());
            }
        });
        return yuv.backdrop;
    }

    /// The placement of frame i, which `place(i)` gives; null when the placements have used up
    /// their memory.
    template <class Place>
    const Placement* placement(int i, const Place& place) {
        Frame& frame = at(i);
        if (!frame.placed.done() && placementBytes_ >= kPlacementBytes) return nullptr;
        once_.call(frame.placed, [&] {
            frame.placement = place(i);
            placementBytes_ += frame.placement.bytes();
        });
        return &frame.placement;
    }

    /// The files besides the frames that pixels and placements come from, as they are now.
    using State = std::array<FileIdentity, 3>;
    static State stateOf(const std::string& bundleDir);

    /// Those of `manifest`'s bundle, shared by all contexts that have it open with every file in
    /// the same state. `before` is the state before the caller read the bundle: if a file has
    /// changed since then, the caller gets frames of its own.
    static std::shared_ptr<TargetFrames> of(const Manifest& manifest, const State& before);

  private:
    /// Most memory of all kept placements; one takes about a byte per blended pixel.
    static constexpr std::size_t kPlacementBytes = std::size_t{48} << 20;

    struct Yuv {
        OnceGroup::Flag done;
        ZeroedPages pages;
        Backdrop backdrop;  ///< in `pages`
    };
    struct Frame {
        OnceGroup::Flag rgbDone;
        std::array<Yuv, 2> yuv;  ///< by YuvMatrix
        OnceGroup::Flag placed;
        Placement placement;
    };

    Frame& at(int i) { return frames_[static_cast<std::size_t>(i)]; }
    std::uint8_t* slot(int i) { return rgb_.data() + static_cast<std::size_t>(i) * frameBytes_; }
    void keepRgb(int i, const std::vector<std::uint8_t>& pixels);
    void keepYuv(Yuv& yuv, YuvMatrix matrix, const FrameArea& area, const std::uint8_t* rgb) const;

    const int width_;
    const int height_;
    const std::size_t frameBytes_;  ///< of one RGB frame
    OnceGroup once_;
    std::vector<Frame> frames_;
    ZeroedArray<std::uint8_t> rgb_;  ///< NT x W x H x 3
    std::atomic<std::size_t> placementBytes_{0};
};

}  // namespace zorv
