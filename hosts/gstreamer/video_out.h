// The video source pad: caps, buffers of the downstream's pool, one frame at a time.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>
#include <zorv_core.h>

#include <functional>

namespace zorv::gst {

constexpr GstClockTime kFrameTime = 40 * GST_MSECOND;
constexpr int kFrameSamples = 640;  ///< at 16 kHz

/// Planes of a mapped video frame, as the library takes them.
struct Planes {
    int pixels = ZORV_PIXELS_I420;
    int matrix = ZORV_MATRIX_BT709;
    guint8* plane[3] = {};
    gint32 stride[3] = {};
};

/// Used by one streaming thread; the pad outlives it.
class VideoOut {
  public:
    VideoOut(GstPad* pad, int width, int height) : pad_(pad), width_(width), height_(height) {}
    ~VideoOut() { dropPool(); }
    VideoOut(const VideoOut&) = delete;
    VideoOut& operator=(const VideoOut&) = delete;

    /// Everything that the element can make of a subject of this size, best first.
    static GstCaps* possibleCaps(int width, int height);

    /// Agrees with the downstream on caps and on buffers, again when it asks for that. False when
    /// the downstream takes none of the possible caps.
    bool negotiate();

    /// ZORV_PIXELS_ value of the caps agreed upon.
    int pixels() const;
    int matrix() const;

    /// A buffer of the downstream's, filled by `fill`, which returns false to give up. Null with
    /// `flow` saying why; GST_FLOW_CUSTOM_ERROR means that `fill` gave up.
    GstBuffer* make(const std::function<bool(const Planes&)>& fill, GstFlowReturn& flow);

  private:
    bool chooseCaps();
    bool choosePool(GstCaps* caps);
    void dropPool();

    GstPad* const pad_;
    const int width_, height_;
    GstVideoInfo info_ = {};
    GstBufferPool* pool_ = nullptr;
    bool agreed_ = false;
};

}  // namespace zorv::gst
