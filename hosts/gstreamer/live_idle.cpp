// Mode "live-idle": the utterance engine on the pipeline's clock. A frame and its sound leave every
// 40 ms whether somebody speaks or not, with the same timestamp.
#include <zorv_core.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "face_mode.h"
#include "video_out.h"

namespace zorv::gst {
namespace {

/// So many frames behind its clock the element gives up catching up and starts a new schedule.
constexpr GstClockTime kMostCatchUp = 8 * kFrameTime;

/// So many idle frames are made before they are due: speech is shown so much later.
constexpr int kIdleAhead = 2;

/// How long the streaming thread waits for a frame before it looks whether it shall stop.
constexpr int kPatienceMs = 40;

struct Destroy {
    void operator()(zorv_ctx* ctx) const { zorv_destroy(ctx); }
    void operator()(zorv_utt* utt) const { zorv_utt_destroy(utt); }
};

void postUtterance(GstElement* element, const char* what, const zorv_utt_event& event) {
    static const char* const reasons[] = {"", "end", "silence", "interrupt", "failure"};
    const char* const reason = reasons[std::clamp<int>(event.reason, 0, ZORV_REASON_FAILURE)];
    gst_element_post_message(
        element, gst_message_new_element(
                     GST_OBJECT(element),
                     gst_structure_new("zorv-utterance", "event", G_TYPE_STRING, what, "reason",
                                       G_TYPE_STRING, reason, "utterance", G_TYPE_UINT64,
                                       static_cast<guint64>(event.utterance), "samples",
                                       G_TYPE_INT64, static_cast<gint64>(event.samples), nullptr)));
}

class LiveIdle : public FaceMode {
  public:
    explicit LiveIdle(const Settings& settings);

    int width() const override { return zorv_width(ctx_.get()); }
    int height() const override { return zorv_height(ctx_.get()); }
    GstCaps* soundCaps() const override {
        return gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16LE", "rate",
                                   G_TYPE_INT, settings_.rate, "channels", G_TYPE_INT, 1, "layout",
                                   G_TYPE_STRING, "interleaved", nullptr);
    }
    bool isLive() const override { return true; }

    void prepare(const Pads& pads) override;
    void play() override;
    void pause() override;
    void unlock() override;
    void stop() override;

    GstFlowReturn chain(GstBuffer* buffer) override;
    gboolean sinkEvent(GstEvent* event) override;
    gboolean videoEvent(GstEvent* event) override;
    gboolean latency(GstQuery* query) override;

  private:
    static void turn(gpointer self) { static_cast<LiveIdle*>(self)->turn(); }
    void turn();
    bool waitForSlot();
    bool openStreams();
    GstFlowReturn pullAndPush(GstClockTime running);
    void postEvents();
    bool control(GstEvent* event);
    bool waitUntilSettled();
    void setFlushing(bool flushing);
    void interrupt();
    void end(GstFlowReturn flow);

    const Settings settings_;
    std::unique_ptr<zorv_ctx, Destroy> ctx_;
    std::unique_ptr<zorv_utt, Destroy> utt_;
    Pads pads_;
    std::unique_ptr<VideoOut> out_;

    // The streaming thread's, or nobody's while it does not run.
    bool opened_ = false;
    int pixels_ = -1, matrix_ = -1;
    bool gap_ = true;
    GstClockTime origin_ = GST_CLOCK_TIME_NONE;  ///< running time of slot 0
    guint64 slot_ = 0;

    std::mutex mutex_;
    GstClockID wait_ = nullptr;  ///< what the streaming thread sleeps on
    std::condition_variable resumed_;
    bool playing_ = false, stopping_ = false, flushing_ = false;
    bool settled_ = false;  ///< pixels and matrix are set
    std::atomic<bool> draining_{false};
    std::atomic<std::uint64_t> pushed_{0};  ///< the newest utterance
    std::uint64_t ended_ = 0;               ///< the newest one that ended
};

LiveIdle::LiveIdle(const Settings& settings)
    : settings_(settings),
      ctx_(zorv_create(settings.bundle.c_str(), "render", settings.threads, nullptr)) {
    if (!ctx_) throw std::runtime_error(zorv_last_error());
    if (!settings.encoder.empty() && resolvedEngine(settings) == EngineKind::kExpression &&
        !zorv_a2x_preload_w2v(settings.encoder.c_str())) {
        throw std::runtime_error(zorv_a2x_last_error());
    }
    Settings unset = settings;
    unset.engine = EngineKind::kAuto;
    if (resolvedEngine(settings) != resolvedEngine(unset)) {
        throw std::runtime_error("engine does not fit the files in motion-dir");
    }
    zorv_utt_opts options = {};
    options.motion_dir = settings_.motionDir.c_str();
    options.threads = settings_.threads;
    options.eager = settings_.eager;
    options.steady_model = settings_.steadyModel.c_str();
    utt_.reset(zorv_utt_create(ctx_.get(), &options));
    if (!utt_ || !zorv_utt_set_input(utt_.get(), settings_.rate) ||
        !zorv_utt_set_idle_ahead(utt_.get(), kIdleAhead)) {
        throw std::runtime_error(zorv_utt_last_error());
    }
}

void LiveIdle::prepare(const Pads& pads) {
    pads_ = pads;
    out_ = std::make_unique<VideoOut>(pads.video, width(), height());
}

void LiveIdle::play() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        playing_ = true;
    }
    resumed_.notify_all();
    gst_pad_start_task(pads_.video, turn, this, nullptr);
}

/// The streaming thread may sit in a sink that holds its buffer while paused: nobody waits for it.
void LiveIdle::pause() {
    const std::lock_guard<std::mutex> lock(mutex_);
    playing_ = false;
    if (wait_) gst_clock_id_unschedule(wait_);
}

void LiveIdle::unlock() {
    pause();
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    resumed_.notify_all();
}

void LiveIdle::stop() {
    gst_pad_stop_task(pads_.video);
}

/// The engine's form of pictures is settled before it hears anything.
bool LiveIdle::waitUntilSettled() {
    std::unique_lock<std::mutex> lock(mutex_);
    resumed_.wait(lock, [this] { return settled_ || stopping_ || flushing_; });
    return settled_ && !stopping_ && !flushing_;
}

GstFlowReturn LiveIdle::chain(GstBuffer* buffer) {
    if (!waitUntilSettled()) {
        gst_buffer_unref(buffer);
        return GST_FLOW_FLUSHING;
    }
    GstMapInfo map;
    bool heard = false;
    if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_GAP)) {
        heard = true;  // nobody speaks: the silence limit ends the utterance
    } else if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        const int count = static_cast<int>(map.size / sizeof(gint16));
        const auto* samples = reinterpret_cast<const std::int16_t*>(map.data);
        const std::uint64_t utterance = zorv_utt_push(utt_.get(), samples, count);
        heard = utterance > 0 || count == 0;
        if (utterance > 0) pushed_ = utterance;
        gst_buffer_unmap(buffer, &map);
    }
    gst_buffer_unref(buffer);
    if (heard) return GST_FLOW_OK;
    GST_ELEMENT_ERROR(pads_.element, LIBRARY, FAILED, ("%s", zorv_utt_last_error()), (nullptr));
    return GST_FLOW_ERROR;
}

void LiveIdle::setFlushing(bool flushing) {
    const std::lock_guard<std::mutex> lock(mutex_);
    flushing_ = flushing;
    resumed_.notify_all();
}

void LiveIdle::interrupt() {
    zorv_utt_interrupt(utt_.get());
}

/// Events of this element's own, from upstream, downstream or the application.
bool LiveIdle::control(GstEvent* event) {
    if (gst_event_has_name(event, "zorv-interrupt")) {
        interrupt();
        return true;
    }
    if (gst_event_has_name(event, "zorv-end-utterance")) {
        zorv_utt_end_utterance(utt_.get());
        return true;
    }
    return false;
}

/// The sound's timeline ends here: what leaves is timed by the pipeline's clock.
gboolean LiveIdle::sinkEvent(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_FLUSH_START:
            setFlushing(true);
            interrupt();
            break;
        case GST_EVENT_FLUSH_STOP:
            setFlushing(false);
            break;
        case GST_EVENT_EOS:
            zorv_utt_end_utterance(utt_.get());
            draining_ = true;
            break;
        default:
            control(event);
            break;
    }
    gst_event_unref(event);
    return TRUE;
}

gboolean LiveIdle::videoEvent(GstEvent* event) {
    if (control(event)) {
        gst_event_unref(event);
        return TRUE;
    }
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEEK) {  // the clock's time cannot be sought
        gst_event_unref(event);
        return FALSE;
    }
    return gst_pad_push_event(pads_.sink, event);
}

/// A frame leaves when its time has come, not before and at most one slot later.
gboolean LiveIdle::latency(GstQuery* query) {
    gst_query_set_latency(query, TRUE, kFrameTime, kFrameTime);
    return TRUE;
}

void LiveIdle::turn() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        resumed_.wait(lock, [this] { return playing_ || stopping_; });
        if (stopping_) {
            gst_pad_pause_task(pads_.video);
            return;
        }
    }
    if (!opened_ && !openStreams()) {
        end(GST_FLOW_NOT_NEGOTIATED);
        return;
    }
    if (!waitForSlot()) return;
    const GstClockTime running = origin_ + slot_ * kFrameTime;
    const GstFlowReturn flow = pullAndPush(running);
    postEvents();
    if (flow != GST_FLOW_OK) end(flow);
}

bool LiveIdle::openStreams() {
    startStream(pads_.video, pads_.element, pads_.sink, "face");
    if (!out_->negotiate()) return false;
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(pads_.video, gst_event_new_segment(&segment));
    startStream(pads_.sound, pads_.element, pads_.sink, "sound");
    GstCaps* caps = soundCaps();
    gst_pad_push_event(pads_.sound, gst_event_new_caps(caps));
    gst_caps_unref(caps);
    gst_pad_push_event(pads_.sound, gst_event_new_segment(&segment));
    opened_ = true;
    return true;
}

/// Sleeps until the next slot by the pipeline's clock. False when the element shall stop.
bool LiveIdle::waitForSlot() {
    GstClock* clock = gst_element_get_clock(pads_.element);
    if (!clock) return false;
    const GstClockTime base = gst_element_get_base_time(pads_.element);
    const GstClockTime now = gst_clock_get_time(clock);
    const GstClockTime running = now > base ? now - base : 0;
    if (!GST_CLOCK_TIME_IS_VALID(origin_) ||
        running > origin_ + slot_ * kFrameTime + kMostCatchUp) {
        gap_ = true;
        slot_ = 0;
        origin_ = running;
    }
    GstClockID id = nullptr;
    bool wanted = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        wanted = playing_;
        if (wanted)
            id = wait_ = gst_clock_new_single_shot_id(clock, base + origin_ + slot_ * kFrameTime);
    }
    if (wanted) {
        const GstClockReturn result = gst_clock_id_wait(id, nullptr);
        wanted = result != GST_CLOCK_UNSCHEDULED;
        const std::lock_guard<std::mutex> lock(mutex_);
        gst_clock_id_unref(id);
        wait_ = nullptr;
    }
    gst_object_unref(clock);
    return wanted;
}

GstFlowReturn LiveIdle::pullAndPush(GstClockTime running) {
    if (!out_->negotiate()) return GST_FLOW_NOT_NEGOTIATED;
    if (pixels_ < 0) {
        pixels_ = out_->pixels();
        matrix_ = out_->matrix();
        if (!zorv_utt_set_pixels(utt_.get(), pixels_) ||
            !zorv_utt_set_matrix(utt_.get(), matrix_)) {
            GST_ELEMENT_ERROR(pads_.element, LIBRARY, FAILED, ("%s", zorv_utt_last_error()),
                              (nullptr));
            return GST_FLOW_ERROR;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        settled_ = true;
        resumed_.notify_all();
    }
    if (out_->pixels() != pixels_ || out_->matrix() != matrix_) return GST_FLOW_NOT_NEGOTIATED;
    const int count = settings_.rate / 25;
    GstBuffer* sound = gst_buffer_new_allocate(nullptr, static_cast<gsize>(count) * 2, nullptr);
    GstMapInfo map;
    gst_buffer_map(sound, &map, GST_MAP_WRITE);
    zorv_utt_frame frame = {};
    frame.struct_size = sizeof frame;
    frame.sound = reinterpret_cast<std::int16_t*>(map.data);
    frame.sound_capacity = count;
    int pulled = 0;
    GstFlowReturn flow = GST_FLOW_OK;
    GstBuffer* picture = out_->make(
        [&](const Planes& planes) {
            for (int i = 0; i < 3; ++i) {
                frame.plane[i] = planes.plane[i];
                frame.stride[i] = planes.stride[i];
            }
            pulled = zorv_utt_pull(utt_.get(), &frame);
            return pulled == 1;
        },
        flow);
    gst_buffer_unmap(sound, &map);
    if (!picture) {
        gst_buffer_unref(sound);
        if (flow != GST_FLOW_CUSTOM_ERROR) return flow;
        if (pulled < 0 || zorv_utt_wait(utt_.get(), 1, kPatienceMs) < 0) {
            GST_ELEMENT_ERROR(pads_.element, LIBRARY, FAILED, ("%s", zorv_utt_last_error()),
                              (nullptr));
            return GST_FLOW_ERROR;
        }
        return GST_FLOW_OK;  // the same slot again
    }
    for (GstBuffer* buffer : {picture, sound}) {
        GST_BUFFER_PTS(buffer) = running;
        GST_BUFFER_DURATION(buffer) = kFrameTime;
        if (gap_) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    gap_ = false;
    ++slot_;
    const bool resting = draining_ && frame.kind == 0 && ended_ >= pushed_;
    const GstFlowReturn heard = gst_pad_push(pads_.sound, sound);
    flow = gst_pad_push(pads_.video, picture);
    if (flow == GST_FLOW_NOT_LINKED) flow = heard;
    if (flow == GST_FLOW_OK && heard < GST_FLOW_OK && heard != GST_FLOW_NOT_LINKED) flow = heard;
    return flow == GST_FLOW_OK && resting ? GST_FLOW_EOS : flow;
}

void LiveIdle::postEvents() {
    zorv_utt_event event = {};
    event.struct_size = sizeof event;
    while (zorv_utt_next_event(utt_.get(), &event) == 1) {
        const char* name = "failed";
        if (event.type == ZORV_UTT_STARTED) name = "started";
        if (event.type == ZORV_UTT_FINISHED) name = "finished";
        if (event.type == ZORV_UTT_INTERRUPTED) name = "interrupted";
        if (event.type != ZORV_UTT_STARTED) ended_ = event.utterance;
        postUtterance(pads_.element, name, event);
        event.struct_size = sizeof event;
    }
}

/// Ends both streams: at the end of the sound, when the pads were stopped, or after an error.
void LiveIdle::end(GstFlowReturn flow) {
    gst_pad_pause_task(pads_.video);
    if (flow == GST_FLOW_FLUSHING) return;
    if (flow == GST_FLOW_NOT_NEGOTIATED || flow == GST_FLOW_NOT_LINKED) {
        GST_ELEMENT_FLOW_ERROR(pads_.element, flow);
    }
    gst_pad_push_event(pads_.video, gst_event_new_eos());
    gst_pad_push_event(pads_.sound, gst_event_new_eos());
}

}  // namespace

std::unique_ptr<FaceMode> openLiveIdle(const Settings& settings) {
    return std::make_unique<LiveIdle>(settings);
}

}  // namespace zorv::gst
