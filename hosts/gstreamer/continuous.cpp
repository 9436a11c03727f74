// Mode "continuous": every 40 ms of sound gives a frame with the timestamp of its sound.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "face_mode.h"
#include "speech_walk.h"
#include "video_out.h"

namespace zorv::gst {
namespace {

/// Timestamps that differ from the samples' count by less are the same stream of sound: clocks and
/// resamplers round.
constexpr GstClockTime kTolerance = 20 * GST_MSECOND;

GstClockTime timeOf(std::uint64_t samples) {
    return gst_util_uint64_scale(samples, GST_SECOND, 16000);
}

/// All calls but latency() and videoEvent() come from the sink's streaming thread or while it does
/// not run.
class Continuous : public FaceMode {
  public:
    explicit Continuous(const Settings& settings) : walk_(settings), qos_(settings.qos) {}

    int width() const override { return walk_.width(); }
    int height() const override { return walk_.height(); }
    GstCaps* soundCaps() const override {
        return gst_caps_from_string(
            "audio/x-raw, format=F32LE, rate=16000, channels=1, layout=interleaved");
    }
    bool isLive() const override { return false; }

    void prepare(const Pads& pads) override {
        pads_ = pads;
        out_ = std::make_unique<VideoOut>(pads.video, width(), height());
        gst_segment_init(&segment_, GST_FORMAT_TIME);
    }

    GstFlowReturn chain(GstBuffer* buffer) override;
    gboolean sinkEvent(GstEvent* event) override;
    gboolean videoEvent(GstEvent* event) override;
    gboolean latency(GstQuery* query) override;

  private:
    void restart(bool fromTheFirstFrame) {
        walk_.start(fromTheFirstFrame);
        base_ = GST_CLOCK_TIME_NONE;
    }
    void forgetLateness() {
        GST_OBJECT_LOCK(pads_.element);
        earliest_ = GST_CLOCK_TIME_NONE;
        GST_OBJECT_UNLOCK(pads_.element);
    }
    GstClockTime expected() const { return base_ + timeOf(walk_.samples()); }
    GstFlowReturn follow(GstClockTime time);
    GstFlowReturn hear(const float* samples, std::size_t count);
    GstFlowReturn silence(GstClockTime duration);
    GstFlowReturn drain();
    GstFlowReturn showReady();
    GstFlowReturn show(GstClockTime pts);
    bool tooLate(GstClockTime pts);
    bool announce();

    SpeechWalk walk_;
    const bool qos_;
    Pads pads_;
    std::unique_ptr<VideoOut> out_;
    GstSegment segment_ = {};
    GstClockTime base_ = GST_CLOCK_TIME_NONE;  ///< of the first sample since the walk's start
    bool started_ = false;                     ///< stream-start was sent
    bool segmentDue_ = false;                  ///< the segment follows the caps
    bool gap_ = false;                         ///< the next frame does not follow the one before
    GstClockTime earliest_ = GST_CLOCK_TIME_NONE;  ///< running time; under the object lock
    guint64 shown_ = 0, leftOut_ = 0;
};

GstFlowReturn Continuous::chain(GstBuffer* buffer) {
    GstFlowReturn flow = GST_FLOW_OK;
    GstMapInfo map;
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    try {
        flow = follow(GST_CLOCK_TIME_IS_VALID(pts) ? pts : GST_CLOCK_TIME_NONE);
        if (flow == GST_FLOW_OK) {
            if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
                throw std::runtime_error("cannot read a buffer of sound");
            }
            const auto* samples = reinterpret_cast<const float*>(map.data);
            flow = hear(samples, map.size / sizeof(float));
            gst_buffer_unmap(buffer, &map);
        }
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(pads_.element, LIBRARY, FAILED, ("%s", error.what()), (nullptr));
        flow = GST_FLOW_ERROR;
    }
    gst_buffer_unref(buffer);
    return flow;
}

/// Sound that does not go on where the last one ended begins a stream of its own.
GstFlowReturn Continuous::follow(GstClockTime time) {
    if (!GST_CLOCK_TIME_IS_VALID(base_)) {
        base_ = GST_CLOCK_TIME_IS_VALID(time) ? time : segment_.start;
        return GST_FLOW_OK;
    }
    if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_FLOW_OK;
    const GstClockTimeDiff off = GST_CLOCK_DIFF(expected(), time);
    if (std::abs(off) <= static_cast<GstClockTimeDiff>(kTolerance)) return GST_FLOW_OK;
    const GstFlowReturn flow = drain();
    base_ = time;
    gap_ = true;
    return flow;
}

GstFlowReturn Continuous::hear(const float* samples, std::size_t count) {
    constexpr std::size_t kPiece = 16000;  // a second: frames of a long buffer come out meanwhile
    for (std::size_t at = 0; at < count; at += kPiece) {
        walk_.push(samples + at, static_cast<int>(std::min(kPiece, count - at)));
        const GstFlowReturn flow = showReady();
        if (flow != GST_FLOW_OK) return flow;
    }
    return GST_FLOW_OK;
}

GstFlowReturn Continuous::silence(GstClockTime duration) {
    const std::vector<float> second(16000);
    std::uint64_t left = gst_util_uint64_scale_round(duration, 16000, GST_SECOND);
    while (left > 0) {
        const std::uint64_t count = std::min<std::uint64_t>(left, second.size());
        const GstFlowReturn flow = hear(second.data(), count);
        if (flow != GST_FLOW_OK) return flow;
        left -= count;
    }
    return GST_FLOW_OK;
}

/// Every frame of the sound that was heard; the walk then waits for a new stream of sound.
GstFlowReturn Continuous::drain() {
    if (walk_.samples() == 0) return GST_FLOW_OK;
    walk_.finish();
    const GstFlowReturn flow = showReady();
    restart(false);
    return flow;
}

GstFlowReturn Continuous::showReady() {
    while (walk_.next()) {
        const GstClockTime pts = base_ + walk_.frame() * kFrameTime;
        const GstFlowReturn flow = show(pts);
        if (flow != GST_FLOW_OK) return flow;
    }
    return GST_FLOW_OK;
}

GstFlowReturn Continuous::show(GstClockTime pts) {
    if (!announce()) return GST_FLOW_NOT_NEGOTIATED;
    if (tooLate(pts)) {
        gap_ = true;
        return GST_FLOW_OK;
    }
    GstFlowReturn flow = GST_FLOW_OK;
    GstBuffer* buffer = out_->make(
        [this](const Planes& planes) {
            walk_.render(planes);
            return true;
        },
        flow);
    if (!buffer) return flow;
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = kFrameTime;
    if (gap_ || shown_ == 0) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    gap_ = false;
    ++shown_;
    return gst_pad_push(pads_.video, buffer);
}

/// Stream start, caps and segment, in this order, before the first frame.
bool Continuous::announce() {
    if (!started_) startStream(pads_.video, pads_.element, pads_.sink, "face");
    started_ = true;
    if (!out_->negotiate()) return false;
    if (segmentDue_) gst_pad_push_event(pads_.video, gst_event_new_segment(&segment_));
    segmentDue_ = false;
    return true;
}

/// A frame that the downstream could not show in time any more is not rendered.
bool Continuous::tooLate(GstClockTime pts) {
    if (!qos_) return false;
    GST_OBJECT_LOCK(pads_.element);
    const GstClockTime earliest = earliest_;
    GST_OBJECT_UNLOCK(pads_.element);
    if (!GST_CLOCK_TIME_IS_VALID(earliest)) return false;
    const GstClockTime running = gst_segment_to_running_time(&segment_, GST_FORMAT_TIME, pts);
    if (!GST_CLOCK_TIME_IS_VALID(running) || running >= earliest) return false;
    ++leftOut_;
    GstMessage* message = gst_message_new_qos(
        GST_OBJECT(pads_.element), FALSE, running,
        gst_segment_to_stream_time(&segment_, GST_FORMAT_TIME, pts), pts, kFrameTime);
    gst_message_set_qos_stats(message, GST_FORMAT_BUFFERS, shown_, leftOut_);
    gst_element_post_message(pads_.element, message);
    return true;
}

gboolean Continuous::sinkEvent(GstEvent* event) {
    GstFlowReturn flow = GST_FLOW_OK;
    try {
        switch (GST_EVENT_TYPE(event)) {
            case GST_EVENT_STREAM_START:
            case GST_EVENT_CAPS:
                gst_event_unref(event);
                return TRUE;
            case GST_EVENT_SEGMENT: {
                const GstSegment* segment = nullptr;
                gst_event_parse_segment(event, &segment);
                const bool timed = segment->format == GST_FORMAT_TIME;
                if (timed) {
                    flow = drain();
                    segment_ = *segment;
                    segmentDue_ = true;
                }
                gst_event_unref(event);
                return timed && flow == GST_FLOW_OK;
            }
            case GST_EVENT_GAP: {
                GstClockTime time = GST_CLOCK_TIME_NONE, duration = GST_CLOCK_TIME_NONE;
                gst_event_parse_gap(event, &time, &duration);
                gst_event_unref(event);
                flow = follow(time);
                if (flow == GST_FLOW_OK && GST_CLOCK_TIME_IS_VALID(duration)) {
                    flow = silence(duration);
                }
                return flow == GST_FLOW_OK;
            }
            case GST_EVENT_FLUSH_STOP:
                restart(true);
                forgetLateness();
                gst_segment_init(&segment_, GST_FORMAT_TIME);
                break;
            case GST_EVENT_SEGMENT_DONE:
            case GST_EVENT_EOS:
                drain();
                announce();  // a stream without sound has caps and a segment all the same
                break;
            case GST_EVENT_TAG:
                gst_event_unref(event);  // they describe the sound
                return TRUE;
            default:
                break;
        }
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(pads_.element, LIBRARY, FAILED, ("%s", error.what()), (nullptr));
    }
    return gst_pad_push_event(pads_.video, event);
}

gboolean Continuous::videoEvent(GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_QOS) {
        GstClockTimeDiff late = 0;
        GstClockTime time = GST_CLOCK_TIME_NONE;
        gst_event_parse_qos(event, nullptr, nullptr, &late, &time);
        GST_OBJECT_LOCK(pads_.element);
        // A frame ahead of when the downstream will have caught up, as video elements do.
        earliest_ = late > 0
                        ? time + 2 * static_cast<GstClockTime>(late) + kFrameTime
                        : time - std::min<GstClockTime>(time, static_cast<GstClockTime>(-late));
        GST_OBJECT_UNLOCK(pads_.element);
    }
    return gst_pad_push_event(pads_.sink, event);
}

/// The upstream's latency and the sound behind a frame's start that the engine waits for.
gboolean Continuous::latency(GstQuery* query) {
    if (!gst_pad_peer_query(pads_.sink, query)) return FALSE;
    gboolean live = FALSE;
    GstClockTime least = 0, most = GST_CLOCK_TIME_NONE;
    gst_query_parse_latency(query, &live, &least, &most);
    const GstClockTime own = timeOf(static_cast<std::uint64_t>(walk_.lookAhead()));
    if (GST_CLOCK_TIME_IS_VALID(most)) most += own;
    gst_query_set_latency(query, live, least + own, most);
    return TRUE;
}

}  // namespace

std::unique_ptr<FaceMode> openContinuous(const Settings& settings) {
    return std::make_unique<Continuous>(settings);
}

}  // namespace zorv::gst
