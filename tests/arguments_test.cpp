// What every family of the C interface refuses, with its text; null handles are harmless.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/audio.h"
#include "support/engine.h"

namespace zorv {
namespace {

struct Call {
    std::function<long()> call;
    long result;
    const char* text;
};

void expect(const char* (*error)(), const std::vector<Call>& calls) {
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].call(), calls[i].result) << i << ": " << calls[i].text;
        EXPECT_STREQ(error(), calls[i].text) << i;
    }
}

const std::vector<float> kAudio = test::speechLike(641);
const std::string kEncoder = test::modelFile("encoder");

TEST(Arguments, OfAContext) {
    const test::TestBundle bundle;
    zorv_ctx* ctx = zorv_create(bundle.dir().c_str(), "render", 0, nullptr);
    ASSERT_TRUE(ctx) << zorv_last_error();
    const auto& made = bundle.options();
    EXPECT_EQ(std::vector({zorv_nt(ctx), zorv_width(ctx), zorv_height(ctx), zorv_crop(ctx),
                           zorv_drive_frames(ctx)}),
              std::vector({made.nt, made.width, made.height, made.crop, made.driveFrames}));
    EXPECT_EQ(zorv_nt(nullptr) + zorv_width(nullptr) + zorv_height(nullptr) + zorv_crop(nullptr) +
                  zorv_drive_frames(nullptr),
              0);
    zorv_destroy(nullptr);

    const std::vector<float> keypoints(63);
    const float* kp = keypoints.data();
    std::vector<std::uint8_t> out(std::size_t{4} * 48 * 40);
    std::uint8_t* to = out.data();
    const char* noDirectory = "zorv_create: NULL bundle_dir/model_key";
    const char* badRender = "zorv_render_kp_crop: bad args";
    const char* badPaste = "zorv_paste_crop: bad args / out too small";
    std::vector<Call> calls = {
        {[] { return zorv_create(nullptr, "render", 1, "") != nullptr; }, 0, noDirectory},
        {[] { return zorv_create("x", nullptr, 1, "") != nullptr; }, 0, noDirectory},
        {[=] { return zorv_paste_last(ctx, 0) != nullptr; }, 0,
         "zorv_paste_last: bad args / no prior render"},
        {[=] { return zorv_render_kp_crop(nullptr, 0, kp, kp) != nullptr; }, 0, badRender},
        {[=] { return zorv_render_kp_crop(ctx, 0, nullptr, kp) != nullptr; }, 0, badRender},
        {[=] { return zorv_render_kp_crop(ctx, 0, kp, nullptr) != nullptr; }, 0, badRender},
        {[=] { return zorv_render_kp_rgba(nullptr, 0, kp, kp, to, 7680); }, 0, ""},
        {[=] { return zorv_render_kp_crop(ctx, 0, kp, kp) != nullptr; }, 1, ""},
        {[=] { return zorv_paste_crop(ctx, 0, zorv_render_kp_crop(ctx, 0, kp, kp), to, 5759); }, 0,
         badPaste},
        {[=] { return zorv_paste_crop(ctx, 0, zorv_render_kp_crop(ctx, 0, kp, kp), to, 5760); }, 1,
         ""},
    };
    for (const int frame : {-1, made.nt}) {
        calls.push_back(
            {[=] { return zorv_render_kp_crop(ctx, frame, kp, kp) != nullptr; }, 0, badRender});
        calls.push_back({[=] { return zorv_target_frame(ctx, frame) != nullptr; }, 0,
                         "zorv_target_frame: bad args"});
        calls.push_back({[=] { return zorv_paste_crop(ctx, frame, kp, to, 7680); }, 0, badPaste});
    }
    for (const int k : {-1, made.driveFrames}) {
        calls.push_back({[=] { return zorv_render_drive_rgba(ctx, k, to, 7680); }, 0,
                         "zorv_render_drive_crop: bad frame index"});
    }
    expect(zorv_last_error, calls);
    std::string other = "not asked";
    std::thread([&] { other = zorv_last_error(); }).join();
    EXPECT_EQ(other, "") << "each thread has its own text";
    zorv_destroy(ctx);
}

TEST(Arguments, OfDeltas) {
    zorv_fca* fca = zorv_fca_create(kEncoder.c_str(), test::modelFile("fca_stream").c_str(), 1);
    ASSERT_TRUE(fca) << zorv_fca_last_error();
    std::vector<float> offsets(126, 7.f);
    float* out = offsets.data();
    const float* audio = kAudio.data();
    const char* null = "zorv_fca_deltas: NULL fca/audio/out";
    const char* noPath = "zorv_fca_create: NULL encoder_path/streaming_path";
    expect(zorv_fca_last_error,
           {{[=] { return zorv_fca_create(nullptr, "x", 1) != nullptr; }, 0, noPath},
            {[=] { return zorv_fca_create("x", nullptr, 1) != nullptr; }, 0, noPath},
            {[=] { return zorv_fca_deltas(fca, audio, 0, out, 2); }, 0, ""},
            {[=] { return zorv_fca_deltas(fca, nullptr, INT_MIN, nullptr, 0); }, 0, ""},
            {[=] { return zorv_fca_deltas(fca, audio, 641, out, 1); }, -1, ""},
            {[=] { return zorv_fca_deltas(fca, audio, INT_MAX, out, 2); }, -1, ""},
            {[=] { return zorv_fca_deltas(nullptr, audio, 641, out, 2); }, -1, null},
            {[=] { return zorv_fca_deltas(fca, nullptr, 641, out, 2); }, -1, null},
            {[=] { return zorv_fca_deltas(fca, audio, 641, nullptr, 2); }, -1, null}});
    EXPECT_EQ(offsets, std::vector<float>(126, 7.f)) << "a refused call wrote";
    expect(zorv_fca_last_error,
           {{[=] { return zorv_fca_deltas(fca, audio, 641, out, 2); }, 2, ""},
            {[=] { return zorv_fca_deltas(fca, audio, 640 * 1, out, INT_MAX); }, 1, ""}});
    zorv_fca_destroy(fca);
    zorv_fca_destroy(nullptr);
}

TEST(Arguments, OfAStream) {
    const test::TestBundle bundle;
    const auto create = [&](const char* dir, const char* encoder) {
        return zorv_stream_create(dir, encoder, 1, 0, 1);
    };
    zorv_stream* stream = create(bundle.dir().c_str(), kEncoder.c_str());
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    expect(
        zorv_stream_last_error,
        {{[=] { return create(nullptr, "") != nullptr; }, 0,
          "zorv_create: zorv_create: NULL bundle_dir/model_key"},
         {[&] { return create(bundle.dir().c_str(), nullptr) != nullptr; }, 0,
          "zorv_fca_create: zorv_fca_create: NULL encoder_path/streaming_path"},
         {[=] { return zorv_stream_run(stream, nullptr, 640, nullptr, nullptr); }, -1,
          "zorv_fca_deltas: zorv_fca_deltas: NULL fca/audio/out"},
         {[=] { return zorv_stream_run(stream, nullptr, INT_MIN, nullptr, nullptr); }, 0, ""},
         {[=] { return zorv_stream_run(stream, kAudio.data(), 641, nullptr, nullptr); }, 2, ""}});
    zorv_stream_destroy(stream);
    zorv_stream_destroy(nullptr);
}

TEST(Arguments, OfTheMotionEngine) {
    const test::TestMotion files;
    const auto engine = test::openMotion(files);
    zorv_motion* motion = engine->get();
    float xs[63], xd[63];
    float *x = xs, *y = xd;
    const char* badPush = "zorv_motion_push: bad args / already finished";
    const char* badPull = "zorv_motion_pull: bad args";
    expect(zorv_motion_last_error,
           {{[] { return zorv_motion_create(nullptr, 1, "") != nullptr; }, 0,
             "zorv_motion_create: NULL motion_dir"},
            {[=] { return zorv_motion_push(motion, x, 0); }, 1, ""},
            {[=] { return zorv_motion_push(nullptr, x, 1); }, 0, badPush},
            {[=] { return zorv_motion_push(motion, nullptr, 0); }, 0, badPush},
            {[=] { return zorv_motion_push(motion, x, -1); }, 0, badPush},
            {[=] { return zorv_motion_pull(nullptr, nullptr, x, y, 1); }, 0, badPull},
            {[=] { return zorv_motion_pull(motion, nullptr, nullptr, y, 1); }, 0, badPull},
            {[=] { return zorv_motion_pull(motion, nullptr, x, nullptr, 1); }, 0, badPull},
            {[=] { return zorv_motion_pull(motion, nullptr, x, y, 0); }, 0, badPull},
            {[] { return zorv_motion_avail(nullptr); }, 0, ""},  // every call clears the text
            {[] { return zorv_motion_nt(nullptr); }, 0, ""},
            {[] { return zorv_motion_total(nullptr); }, -1, ""}});
    zorv_motion_finish(nullptr);
    zorv_motion_set_eager(nullptr, 1);
    zorv_motion_reset(nullptr, 0, 1, 0);
    zorv_motion_destroy(nullptr);
}

TEST(Arguments, OfTheExpressionEngine) {
    const test::ExpressionDir files;
    const auto engine = test::openExpression(files);
    zorv_a2x* a2x = engine->get();
    engine->reset(0, 1, 1);
    std::vector<float> offsets(126, 7.f);
    float* out = offsets.data();
    const float* audio = kAudio.data();
    // Calls that succeed keep the text.
    const char* noDirectory = "zorv_a2x_create: NULL dir";
    const char* noAudio = "zorv_a2x_push: NULL a2x/pcm";
    const char* noRoom = "zorv_a2x_pull: NULL src/drv";
    const char* noClip = "zorv_a2x_deltas: NULL a2x/pcm/out";
    expect(zorv_a2x_last_error,
           {{[] { return zorv_a2x_create(nullptr, 1) != nullptr; }, 0, noDirectory},
            {[=] { return zorv_a2x_push(a2x, audio, -3); }, 1, noDirectory},
            {[=] { return zorv_a2x_push(a2x, nullptr, 0); }, 1, noDirectory},
            {[=] { return zorv_a2x_push(a2x, nullptr, 1); }, 0, noAudio},
            {[=] { return zorv_a2x_push(nullptr, audio, 1); }, 0, noAudio},
            {[=] { return zorv_a2x_pull(a2x, nullptr, nullptr, nullptr, 3); }, 0, noRoom},
            {[=] { return zorv_a2x_deltas(a2x, nullptr, 641, out, 2); }, -1, noClip},
            {[=] { return zorv_a2x_deltas(a2x, audio, 641, out, 1); }, -2, noClip},
            {[=] { return zorv_a2x_deltas(a2x, audio, INT_MAX, out, 402); }, -2, noClip},
            {[=] { return zorv_a2x_deltas(a2x, audio, 0, out, 2); }, 0, noClip},
            {[=] { return zorv_a2x_deltas(a2x, nullptr, INT_MIN, nullptr, 0); }, 0, noClip},
            {[] { return zorv_a2x_nt(nullptr); }, 0, noClip},
            {[] { return zorv_a2x_total(nullptr); }, 0, noClip},
            {[] { return zorv_a2x_avail(nullptr); }, 0, noClip}});
    EXPECT_EQ(zorv_a2x_pull(nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(offsets, std::vector<float>(126, 7.f)) << "a refused call wrote";
    zorv_a2x_finish(nullptr);
    zorv_a2x_set_eager(nullptr, 1);
    zorv_a2x_reset(nullptr, 0, 1, 1);
    zorv_a2x_destroy(nullptr);
}

TEST(Arguments, OfTelemetry) {
    expect(
        zorv_telemetry_last_error,
        {{[] { return zorv_telemetry_count(nullptr, nullptr, 1); }, 0,
          "zorv_telemetry_count: bad args"},
         {[] { return zorv_telemetry_event("name", nullptr); }, 0,
          "zorv_telemetry_event: bad args"},
         {[] { return zorv_telemetry_gauge("", nullptr, 1); }, 0, "zorv_telemetry_gauge: bad args"},
         {[] { return zorv_telemetry_duration(nullptr, 1); }, 0,
          "zorv_telemetry_duration: bad args"},
         {[] { return zorv_telemetry_count("name", nullptr, 1); }, 1, ""}});
}

}  // namespace
}  // namespace zorv
