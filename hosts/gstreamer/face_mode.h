// What the element does with sound, events and queries in one of its modes.
#pragma once

#include <gst/gst.h>

#include <memory>

#include "settings.h"

namespace zorv::gst {

/// The element's pads; `sound` is null in continuous mode.
struct Pads {
    GstElement* element = nullptr;
    GstPad* sink = nullptr;
    GstPad* video = nullptr;
    GstPad* sound = nullptr;
};

/// Opened on the way to PAUSED, which throws the library's text as std::runtime_error, and gone on
/// the way back.
class FaceMode {
  public:
    virtual ~FaceMode() = default;

    virtual int width() const = 0;
    virtual int height() const = 0;
    /// Caps that the sink pad takes; the caller owns them.
    virtual GstCaps* soundCaps() const = 0;

    virtual GstFlowReturn chain(GstBuffer* buffer) = 0;  ///< takes the buffer
    virtual gboolean sinkEvent(GstEvent* event) = 0;     ///< takes the event
    virtual gboolean videoEvent(GstEvent* event) = 0;    ///< takes an event from downstream
    virtual gboolean latency(GstQuery* query) = 0;

    virtual bool isLive() const = 0;
    virtual void prepare(const Pads& pads) = 0;  ///< once, before anything else
    virtual void play() {}                       ///< PAUSED to PLAYING
    virtual void pause() {}                      ///< PLAYING to PAUSED
    virtual void unlock() {}                     ///< before the pads become inactive
    virtual void stop() {}                       ///< once, at the end; pads are inactive
};

std::unique_ptr<FaceMode> openContinuous(const Settings& settings);
std::unique_ptr<FaceMode> openLiveIdle(const Settings& settings);

/// Tells downstream what stream this pad begins: one of its own, in the group of the sink's.
void startStream(GstPad* pad, GstElement* element, GstPad* sink, const char* name);

}  // namespace zorv::gst
