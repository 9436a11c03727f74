// The element zorvface in GStreamer's test harness, on bundles that are formulas.
#include <gst/check/gstharness.h>
#include <gst/check/gsttestclock.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/expression_dir.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace zorv::test {
namespace {

constexpr GstClockTime kFrame = 40 * GST_MSECOND;
constexpr char kSound[] = "audio/x-raw,format=F32LE,rate=16000,channels=1,layout=interleaved";

GstBuffer* sound(std::size_t count, GstClockTime pts, std::size_t first = 0) {
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, count * sizeof(float), nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    for (std::size_t i = 0; i < count; ++i) {
        reinterpret_cast<float*>(map.data)[i] =
            0.5f * static_cast<float>(std::sin(0.05 * static_cast<double>(first + i)));
    }
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = pts;
    return buffer;
}

GstClockTime timeOf(std::size_t samples) {
    return gst_util_uint64_scale(samples, GST_SECOND, 16000);
}

std::string bytesOf(GstBuffer* buffer) {
    std::string bytes(gst_buffer_get_size(buffer), 0);
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

class GStreamerFace : public testing::Test {
  protected:
    std::string element(const std::string& more = "", bool expression = false) const {
        return "zorvface name=face bundle=" + bundle_.dir() +
               " motion-dir=" + (expression ? expression_.path() : motion_.dir()) + " " + more;
    }

    /// A harness around the element, playing, with sound's caps and a segment.
    struct Harness {
        explicit Harness(const std::string& launch, const char* caps = kSound,
                         const char* taken = "video/x-raw,format=I420")
            : h(gst_harness_new_empty()) {
            gst_harness_add_parse(h, launch.c_str());
            if (taken) gst_harness_set_sink_caps_str(h, taken);
            if (caps) gst_harness_set_src_caps_str(h, caps);
        }
        ~Harness() { gst_harness_teardown(h); }
        Harness(const Harness&) = delete;

        /// Every buffer that has come out.
        std::vector<GstClockTime> times() {
            std::vector<GstClockTime> result;
            while (GstBuffer* buffer = gst_harness_try_pull(h)) {
                result.push_back(GST_BUFFER_PTS(buffer));
                EXPECT_EQ(GST_BUFFER_DURATION(buffer), kFrame);
                pictures.push_back(bytesOf(buffer));
                gst_buffer_unref(buffer);
            }
            return result;
        }
        bool eos() {
            bool seen = false;
            while (GstEvent* event = gst_harness_try_pull_event(h)) {
                seen |= GST_EVENT_TYPE(event) == GST_EVENT_EOS;
                gst_event_unref(event);
            }
            return seen;
        }
        GstHarness* h;
        std::vector<std::string> pictures;
    };

    static std::vector<GstClockTime> frames(std::size_t count, GstClockTime base) {
        std::vector<GstClockTime> result;
        for (std::size_t k = 0; k < count; ++k) result.push_back(base + k * kFrame);
        return result;
    }

    TestBundle bundle_;
    TestMotion motion_;
    ExpressionDir expression_;
    ScopedEnv encoder_{"W2V_ONNX", modelFile("a2x_w2v")};
};

TEST_F(GStreamerFace, AFramePerStartedBlockAtTheTimeOfItsSoundWhateverTheCut) {
    constexpr std::size_t kSamples = 20 * 640 + 1;
    constexpr GstClockTime kBase = 3 * GST_SECOND + 1;
    for (const bool expression : {false, true}) {
        std::vector<std::string> first;
        for (const std::size_t cut :
             {kSamples, std::size_t{17}, std::size_t{641}, std::size_t{4001}}) {
            SCOPED_TRACE(testing::Message()
                         << "pieces of " << cut << ", expression " << expression);
            Harness harness(element("eager=0", expression));
            for (std::size_t at = 0; at < kSamples; at += cut) {
                const std::size_t count = std::min(cut, kSamples - at);
                ASSERT_EQ(gst_harness_push(harness.h, sound(count, kBase + timeOf(at), at)),
                          GST_FLOW_OK);
            }
            ASSERT_TRUE(gst_harness_push_event(harness.h, gst_event_new_eos()));
            EXPECT_EQ(harness.times(), frames(21, kBase));
            EXPECT_TRUE(harness.eos());
            if (first.empty()) first = harness.pictures;
            if (!expression) {
                EXPECT_EQ(harness.pictures, first);
            }
        }
    }
}

TEST_F(GStreamerFace, GapsJumpsSegmentsAndFlushesKeepTheTimestampsTrue) {
    Harness harness(element());
    GstHarness* h = harness.h;
    // A gap event is silence: one stream of sound with what stands around it.
    gst_harness_push(h, sound(1000, 0));
    gst_harness_push_event(h, gst_event_new_gap(timeOf(1000), timeOf(4000)));
    gst_harness_push(h, sound(280, timeOf(5000)));
    // A jump ends the stream of sound at 5280 samples, nine frames; the next one is on its own.
    const GstClockTime later = GST_SECOND + 7;
    gst_harness_push(h, sound(640, later));
    // So does a segment.
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = 5 * GST_SECOND;
    gst_harness_push_event(h, gst_event_new_segment(&segment));
    gst_harness_push(h, sound(700, segment.start));
    gst_harness_push_event(h, gst_event_new_eos());
    std::vector<GstClockTime> expected = frames(9, 0);
    expected.push_back(later);
    for (const GstClockTime time : frames(2, segment.start)) expected.push_back(time);
    EXPECT_EQ(harness.times(), expected);

    // A flush drops what is heard, in every state, and starts again with the first frame.
    std::string afterFlush;
    for (const std::size_t heard : {0, 300, 6400}) {
        SCOPED_TRACE(heard);
        gst_harness_push_event(h, gst_event_new_flush_start());
        gst_harness_push_event(h, gst_event_new_flush_stop(TRUE));
        harness.times();
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(h, gst_event_new_segment(&segment));
        if (heard > 0) gst_harness_push(h, sound(heard, GST_SECOND));
        gst_harness_push_event(h, gst_event_new_flush_start());
        gst_harness_push_event(h, gst_event_new_flush_stop(TRUE));
        harness.times();
        harness.pictures.clear();
        gst_harness_push_event(h, gst_event_new_segment(&segment));
        gst_harness_push(h, sound(1280, 2 * GST_SECOND));
        gst_harness_push_event(h, gst_event_new_eos());
        EXPECT_EQ(harness.times(), frames(2, 2 * GST_SECOND));
        ASSERT_EQ(harness.pictures.size(), 2u);
        if (afterFlush.empty()) afterFlush = harness.pictures[0];
        EXPECT_EQ(harness.pictures[0], afterFlush);
    }
}

TEST_F(GStreamerFace, TheLatencyIsWhatTheFirstFrameTakes) {
    for (const bool expression : {false, true}) {
        SCOPED_TRACE(expression);
        Harness harness(element("", expression));
        gst_harness_set_upstream_latency(harness.h, 7 * GST_MSECOND);
        std::size_t heard = 0;
        GstBuffer* frame = nullptr;
        for (; !frame && heard < 64000; heard += 32) {
            gst_harness_push(harness.h, sound(32, timeOf(heard), heard));
            frame = gst_harness_try_pull(harness.h);
        }
        ASSERT_NE(frame, nullptr);
        gst_buffer_unref(frame);
        const GstClockTime own = gst_harness_query_latency(harness.h) - 7 * GST_MSECOND;
        EXPECT_LE(own, timeOf(heard));
        EXPECT_GT(own, timeOf(heard - 32));
    }
}

TEST_F(GStreamerFace, AnExpressionStreamOutlivesThePositionalTable) {
    Harness harness(element("", true));
    const std::size_t rows = static_cast<std::size_t>(expression_.options().rows);
    const std::size_t samples = (rows + 150) * 640;
    for (std::size_t at = 0; at < samples; at += 6400) {
        ASSERT_EQ(gst_harness_push(harness.h, sound(6400, timeOf(at), at)), GST_FLOW_OK);
    }
    gst_harness_push_event(harness.h, gst_event_new_eos());
    EXPECT_EQ(harness.times(), frames(rows + 150, 0));
}

TEST_F(GStreamerFace, LateFramesAreLeftOutAndTimestampsStay) {
    Harness harness(element());
    for (std::size_t k = 0; k < 4; ++k) gst_harness_push(harness.h, sound(640, k * kFrame));
    const std::size_t before = harness.times().size();
    // 100 ms late at 80 ms: what lies before 320 ms would come too late.
    gst_harness_push_upstream_event(
        harness.h, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.5, 100 * GST_MSECOND, 2 * kFrame));
    for (std::size_t k = 4; k < 12; ++k) gst_harness_push(harness.h, sound(640, k * kFrame));
    gst_harness_push_event(harness.h, gst_event_new_eos());
    const std::vector<GstClockTime> after = harness.times();
    ASSERT_FALSE(after.empty());
    EXPECT_GT(after.front(), before * kFrame);
    EXPECT_GE(after.front(), 8 * kFrame);
    EXPECT_EQ(after, frames(after.size(), after.front()));
    EXPECT_EQ(after.back(), 11 * kFrame);
}

TEST_F(GStreamerFace, CapsFollowTheDownstreamOrFailPlainly) {
    for (const char* format : {"I420", "NV12", "RGBA"}) {
        SCOPED_TRACE(format);
        const std::string taken = std::string("video/x-raw,format=") + format;
        Harness harness(element(), kSound, taken.c_str());
        gst_harness_push(harness.h, sound(1281, 0));
        GstCaps* caps = gst_pad_get_current_caps(harness.h->sinkpad);
        ASSERT_NE(caps, nullptr);
        GstVideoInfo info;
        ASSERT_TRUE(gst_video_info_from_caps(&info, caps));
        EXPECT_STREQ(gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&info)), format);
        EXPECT_EQ(info.width, 48);
        EXPECT_EQ(info.height, 40);
        EXPECT_EQ(info.fps_n, 25 * info.fps_d);
        if (GST_VIDEO_INFO_IS_YUV(&info)) {
            EXPECT_EQ(info.colorimetry.matrix, GST_VIDEO_COLOR_MATRIX_BT601);
            EXPECT_EQ(info.colorimetry.range, GST_VIDEO_COLOR_RANGE_16_235);
        }
        gst_caps_unref(caps);
    }
    Harness narrow(element(), kSound, "video/x-raw,format=I420,width=64");
    gst_harness_push(narrow.h, sound(1, 0));
    EXPECT_EQ(gst_harness_push(narrow.h, sound(1281, 0)), GST_FLOW_NOT_NEGOTIATED);
}

/// A downstream's buffers of 48 x 40 I420: odd strides, and a colour where no pixel lies.
constexpr gsize kOddBytes = 3340;
gsize kOddOffset[GST_VIDEO_MAX_PLANES] = {7, 2131, 2711};
gint kOddStride[GST_VIDEO_MAX_PLANES] = {53, 29, 31};
constexpr guint8 kUntouched = 0xa5;

struct OddPool : GstBufferPool {};
struct OddPoolClass : GstBufferPoolClass {};
G_DEFINE_TYPE(OddPool, odd_pool, GST_TYPE_BUFFER_POOL)
void odd_pool_init(OddPool*) {}
void odd_pool_class_init(OddPoolClass* klass) {
    klass->alloc_buffer = [](GstBufferPool*, GstBuffer** buffer, GstBufferPoolAcquireParams*) {
        *buffer = gst_buffer_new_allocate(nullptr, kOddBytes, nullptr);
        gst_buffer_memset(*buffer, 0, kUntouched, kOddBytes);
        gst_buffer_add_video_meta_full(*buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_I420,
                                       48, 40, 3, kOddOffset, kOddStride);
        return GST_FLOW_OK;
    };
}
GstPadProbeReturn offerPool(GstPad*, GstPadProbeInfo* info, gpointer pool) {
    GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
    gst_query_add_allocation_pool(query, GST_BUFFER_POOL(pool), kOddBytes, 0, 0);
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return GST_PAD_PROBE_HANDLED;
}

TEST_F(GStreamerFace, FramesAreWrittenIntoTheDownstreamsBuffersWhateverTheirStrides) {
    auto* pool = GST_BUFFER_POOL(g_object_new(odd_pool_get_type(), nullptr));
    Harness plain(element()), padded(element());
    Harness refused(element(), kSound, "video/x-raw,format=NV12");
    for (Harness* harness : {&padded, &refused}) {
        gst_pad_add_probe(harness->h->sinkpad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, offerPool, pool,
                          nullptr);
    }
    const auto show = [](Harness& harness) {
        gst_harness_push(harness.h, sound(1280, 0));
        return gst_harness_pull(harness.h);
    };
    GstBuffer* ours = show(plain);
    GstBuffer* theirs = show(padded);
    GstBuffer* instead = show(refused);  // the pool is in use for I420
    EXPECT_EQ(theirs->pool, pool);
    EXPECT_NE(instead->pool, pool);
    const std::string tight = bytesOf(ours);
    EXPECT_EQ(bytesOf(instead).substr(0, 48 * 40), tight.substr(0, 48 * 40));  // its luma
    std::string expected(kOddBytes, static_cast<char>(kUntouched));
    for (std::size_t plane = 0, at = 0; plane < 3; ++plane) {
        const std::size_t width = plane ? 24 : 48;
        for (std::size_t y = 0; y < (plane ? 20u : 40u); ++y, at += width) {
            const std::size_t row =
                kOddOffset[plane] + y * static_cast<std::size_t>(kOddStride[plane]);
            expected.replace(row, width, tight, at, width);
        }
    }
    EXPECT_EQ(bytesOf(theirs), expected);
    for (GstBuffer* buffer : {ours, theirs, instead}) gst_buffer_unref(buffer);
    gst_object_unref(pool);
}

/// The text of the first error that the element posts on its way to PLAYING.
std::string errorOf(const std::string& launch) {
    GstElement* pipeline =
        gst_parse_launch(("fakesrc ! " + launch + " ! fakesink").c_str(), nullptr);
    EXPECT_NE(pipeline, nullptr);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, GST_MESSAGE_ERROR);
    std::string text;
    if (message) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        text = error->message;
        g_error_free(error);
        gst_message_unref(message);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
    return text;
}

TEST_F(GStreamerFace, WhatCannotBeOpenedIsAnElementErrorWithTheLibrarysText) {
    for (const std::string mode : {"continuous", "live-idle"}) {
        const std::string end = " mode=" + mode + " motion-dir=" + motion_.dir();
        EXPECT_NE(errorOf("zorvface bundle=/nowhere" + end).find("zorv_create: "),
                  std::string::npos);
        EXPECT_NE(errorOf("zorvface bundle=" + bundle_.dir() + " mode=" + mode).find("required"),
                  std::string::npos);
    }
    EXPECT_NE(errorOf("zorvface bundle=" + bundle_.dir() + " motion-dir=/nowhere")
                  .find("zorv_motion_create: "),
              std::string::npos);
}

TEST_F(GStreamerFace, OpensAndClosesAHundredTimes) {
    for (const std::string mode : {"continuous", "live-idle"}) {
        GstElement* face = gst_parse_launch(element("mode=" + mode).c_str(), nullptr);
        for (int i = 0; i < 100; ++i) {
            ASSERT_NE(gst_element_set_state(face, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
            ASSERT_EQ(gst_element_set_state(face, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        }
        gst_object_unref(face);
    }
}

/// A pipeline in live-idle mode on a clock that the test moves, frame by frame.
class LiveFace : public GStreamerFace {
  protected:
    struct Frame {
        GstClockTime video, sound;
        std::vector<std::int16_t> samples;
    };

    void SetUp() override {
        const std::string launch =
            "appsrc name=in format=time caps=audio/x-raw,format=S16LE,rate=24000,channels=1,"
            "layout=interleaved ! " +
            element("mode=live-idle rate=24000 steady-model=-") +
            " ! appsink name=video sync=false async=false caps=video/x-raw,format=NV12"
            " face.sound ! appsink name=sound sync=false async=false";
        pipeline_ = gst_parse_launch(launch.c_str(), nullptr);
        ASSERT_NE(pipeline_, nullptr);
        clock_ = gst_test_clock_new();
        gst_pipeline_use_clock(GST_PIPELINE(pipeline_), clock_);
        bus_ = gst_element_get_bus(pipeline_);
        ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    }
    void TearDown() override {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(bus_);
        gst_object_unref(clock_);
        gst_object_unref(pipeline_);
    }

    template <class... Arguments>
    auto call(const char* name, const char* signal, Arguments... arguments) {
        GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), name);
        GstFlowReturn flow = GST_FLOW_OK;
        g_signal_emit_by_name(element, signal, arguments..., &flow);
        gst_object_unref(element);
        return flow;
    }
    /// The next buffer at a sink; the clock moves whenever the element sleeps on it. Null at the
    /// end.
    GstSample* pull(const char* name) {
        GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), name);
        GstSample* sample = nullptr;
        gboolean ended = FALSE;
        while (!sample && !ended) {
            g_object_get(element, "eos", &ended, nullptr);
            g_signal_emit_by_name(element, "try-pull-sample", guint64{GST_MSECOND}, &sample);
            if (!sample && gst_test_clock_peek_next_pending_id(GST_TEST_CLOCK(clock_), nullptr)) {
                gst_test_clock_crank(GST_TEST_CLOCK(clock_));
            }
        }
        gst_object_unref(element);
        return sample;
    }

    void push(std::size_t count) {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, count * 2, nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        for (std::size_t i = 0; i < count; ++i) {
            spoken_.push_back(static_cast<std::int16_t>(1 + (spoken_.size() * 7919) % 20000));
            reinterpret_cast<std::int16_t*>(map.data)[i] = spoken_.back();
        }
        gst_buffer_unmap(buffer, &map);
        call("in", "push-buffer", buffer);
        gst_buffer_unref(buffer);
    }
    void send(const char* name) {
        GstElement* face = gst_bin_get_by_name(GST_BIN(pipeline_), "face");
        gst_element_send_event(
            face, gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty(name)));
        gst_object_unref(face);
    }

    void flushSource() {
        GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline_), "in");
        gst_element_send_event(source, gst_event_new_flush_start());
        gst_element_send_event(source, gst_event_new_flush_stop(TRUE));
        gst_object_unref(source);
    }

    /// Takes what leaves in the next slot; false at the end.
    bool next(Frame& frame) {
        GstSample* video = pull("video");
        if (!video) return false;
        GstSample* heard = pull("sound");
        frame.video = GST_BUFFER_PTS(gst_sample_get_buffer(video));
        GstBuffer* buffer = gst_sample_get_buffer(heard);
        frame.sound = GST_BUFFER_PTS(buffer);
        frame.samples.resize(gst_buffer_get_size(buffer) / 2);
        gst_buffer_extract(buffer, 0, frame.samples.data(), frame.samples.size() * 2);
        gst_sample_unref(video);
        gst_sample_unref(heard);
        return true;
    }

    /// Runs until an utterance's event of this name is posted; collects what was heard.
    void runUntil(const std::string& name) {
        for (int slot = 0; slot < 3000; ++slot) {
            Frame frame;
            ASSERT_TRUE(next(frame));
            EXPECT_EQ(frame.video, frame.sound);
            if (last_ != GST_CLOCK_TIME_NONE) {
                EXPECT_EQ((frame.video - last_) % kFrame, 0u);
            }
            last_ = frame.video;
            ASSERT_EQ(frame.samples.size(), 960u);
            heard_.insert(heard_.end(), frame.samples.begin(), frame.samples.end());
            constexpr auto kTold =
                static_cast<GstMessageType>(GST_MESSAGE_ELEMENT | GST_MESSAGE_ERROR);
            while (GstMessage* message = gst_bus_pop_filtered(bus_, kTold)) {
                const GstStructure* said = gst_message_get_structure(message);
                const char* event = gst_structure_get_string(said, "event");
                gchar* text = gst_structure_to_string(said);
                EXPECT_NE(event, nullptr) << text;
                g_free(text);
                const bool found = event && name == event;
                gst_message_unref(message);
                if (found) return;
            }
        }
        FAIL() << "no event " << name;
    }

    std::vector<std::int16_t> spokenSound() const {
        std::vector<std::int16_t> loud;
        for (const std::int16_t sample : heard_) {
            if (sample != 0) loud.push_back(sample);
        }
        return loud;
    }

    GstElement* pipeline_ = nullptr;
    GstClock* clock_ = nullptr;
    GstBus* bus_ = nullptr;
    std::vector<std::int16_t> spoken_, heard_;
    GstClockTime last_ = GST_CLOCK_TIME_NONE;
};

TEST_F(LiveFace, NeverStopsAndTakesItsSoundAlong) {
    Frame frame;
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(next(frame));  // without any sound
    push(24000 + 1);
    send("zorv-end-utterance");
    runUntil("finished");
    EXPECT_EQ(spokenSound(), spoken_);
    const std::size_t before = spokenSound().size();
    std::size_t heard = before;
    for (const bool flush : {false, true}) {
        push(48000);
        runUntil("started");
        if (flush) {
            flushSource();
        } else {
            send("zorv-interrupt");
        }
        runUntil("interrupted");
        EXPECT_LT(spokenSound().size() - heard, 48000u);
        heard = spokenSound().size();
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(next(frame));
            for (const std::int16_t sample : frame.samples) ASSERT_EQ(sample, 0);
        }
    }
    spoken_.resize(before);
    heard_.resize(0);
    push(960);
    call("in", "end-of-stream");
    while (next(frame)) heard_.insert(heard_.end(), frame.samples.begin(), frame.samples.end());
    EXPECT_EQ(spokenSound().size(), 960u);
}

}  // namespace
}  // namespace zorv::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    gst_init(&argc, &argv);
    if (!gst_registry_scan_path(gst_registry_get(), ZORV_PLUGIN_DIR)) return 1;
    return RUN_ALL_TESTS();
}
