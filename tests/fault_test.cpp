// Every allocation, open, read, map and thread start of the library's own code fails once, and
// memory runs out at every allocation: the call that meets it says so, nothing leaks, hangs or is
// lost, and made again the call gives what it always gives.
#include <gtest/gtest.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capi/zorv_ctx.h"
#include "common/parallel.h"
#include "stream/zorv_stream.h"
#include "support/audio.h"
#include "support/expression_dir.h"
#include "support/fault_plan.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace zorv {
namespace {

using test::allFaults;
using test::attempt;
using test::drive;
using test::driveOnce;
using test::ExpressionDir;
using test::Fault;
using test::inLibrary;
using test::modelFile;
using test::ScopedEnv;
using test::TestBundle;
using test::TestMotion;

constexpr std::size_t kPixels = 48 * 40;
constexpr std::size_t kCropFloats = 3 * test::kTestCrop * test::kTestCrop;
constexpr std::size_t kSet = 63;

const std::vector<Fault> kMemory = {Fault::kAllocation, Fault::kMemoryOut, Fault::kMap};

/// Null, of a call that failed for good, adds nothing.
template <class T>
void add(std::string& result, const T* values, std::size_t n) {
    if (values) result.append(reinterpret_cast<const char*>(values), n * sizeof(T));
}

using MotionPtr = std::unique_ptr<zorv_motion, Destroy<zorv_motion_destroy>>;
using ExpressionPtr = std::unique_ptr<zorv_a2x, Destroy<zorv_a2x_destroy>>;

/// Audio of so few frames that the engines run each model, but few times.
std::vector<float> speech(int frames) {
    return test::speechLike(640 * frames);
}

ContextPtr openContext(const TestBundle& bundle, const char* model) {
    return ContextPtr(attempt(test::kContext, "zorv_create",
                              [&] { return zorv_create(bundle.dir().c_str(), model, 1, ""); }));
}

std::string openAndMeasure(const TestBundle& bundle, const char* model) {
    const ContextPtr context = openContext(bundle, model);
    const int sizes[] = {zorv_nt(context.get()), zorv_width(context.get()),
                         zorv_height(context.get()), zorv_crop(context.get()),
                         zorv_drive_frames(context.get())};
    std::string result;
    add(result, sizes, 5);
    return result;
}

/// Every rendering function once, on a context that has decoded no frame yet.
std::string renderAll(zorv_ctx* context, const TestBundle& bundle) {
    context->targets = std::make_shared<TargetFrames>(context->manifest);
    const std::vector<float> source = bundle.baseKeypoints(0);
    const std::vector<float> driving = bundle.baseKeypoints(1);
    std::string result;
    const float* crop = attempt(test::kContext, "zorv_render_kp_crop", [&] {
        return zorv_render_kp_crop(context, 0, source.data(), driving.data());
    });
    add(result, crop, kCropFloats);
    std::vector<std::uint8_t> frame(kPixels * 4);
    attempt(test::kContext, "zorv_paste_crop",
            [&] { return zorv_paste_crop(context, 1, crop, frame.data(), frame.size()); });
    add(result, frame.data(), kPixels * 3);
    add(result,
        attempt(test::kContext, "zorv_target_frame", [&] { return zorv_target_frame(context, 0); }),
        kPixels * 3);
    add(result,
        attempt(test::kContext, "zorv_paste_last", [&] { return zorv_paste_last(context, 0); }),
        kPixels * 3);
    attempt(test::kContext, "zorv_render_kp_crop",
            [&] { return zorv_render_drive_crop(context, 2); });
    attempt(test::kContext, "zorv_",
            [&] { return zorv_render_drive_rgba(context, 2, frame.data(), frame.size()); });
    add(result, frame.data(), frame.size());
    return result;
}

class ContextFaults : public testing::Test {
  protected:
    ContextFaults() {
        bundle.useModel("warped", "render_warped");      // its sampling is rewritten
        bundle.useModel("own", "render_own_operators");  // allocate within a run of the model
    }
    const TestBundle::Options options{.nt = 3};
    TestBundle bundle{options};
};

TEST_F(ContextFaults, Opening) {
    drive("zorv_create", allFaults(), [&] { return openAndMeasure(bundle, "warped"); });
    drive("zorv_create, own operators", allFaults(), [&] { return openAndMeasure(bundle, "own"); });
}

TEST_F(ContextFaults, Rendering) {
    for (const char* model : {"warped", "own"}) {
        const ContextPtr context(zorv_create(bundle.dir().c_str(), model, 1, ""));
        ASSERT_TRUE(context) << zorv_last_error();
        drive(model, allFaults(), [&] { return renderAll(context.get(), bundle); });
    }
}

TEST(ParallelFaults, TheCallerDoesWhatNoThreadCanBeHadFor) {
    drive("parallelRange", {Fault::kAllocation, Fault::kMemoryOut, Fault::kThread}, [] {
        std::vector<int> values(100, 0);
        inLibrary([&] {
            parallelRange(
                100, 4,
                [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
                    for (; begin < end; ++begin) ++values[static_cast<std::size_t>(begin)];
                },
                1);
        });
        std::string result;
        add(result, values.data(), values.size());
        return result;
    });
}

int collect(void* user, int, const std::uint8_t* rgb, int W, int H) {
    const fault::InLibrary host(false);
    add(*static_cast<std::string*>(user), rgb,
        static_cast<std::size_t>(W) * static_cast<std::size_t>(H) * 3);
    return 1;
}

class StreamFaults : public testing::Test {
  protected:
    StreamFaults() {
        bundle.useModel("render", "render");
        test::writeFile(bundle.path("fca_stream.onnx"), test::readFile(modelFile("fca_stream")));
    }
    StreamPtr open() {
        return StreamPtr(attempt(test::kStream, "zorv", [&] {
            return zorv_stream_create(bundle.dir().c_str(), encoder.c_str(), 1, 1, 1);
        }));
    }
    TestBundle bundle;
    const std::string encoder = modelFile("encoder");
};

TEST_F(StreamFaults, Opening) {
    drive("zorv_stream_create", allFaults(), [&] {
        const StreamPtr stream = open();
        return std::to_string(zorv_stream_width(stream.get()));
    });
}

TEST_F(StreamFaults, Running) {
    const StreamPtr stream = open();
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    const std::vector<float> audio = speech(8);
    drive("zorv_stream_run", allFaults(), [&] {
        zorv_ctx* context = stream->ctx.get();
        context->targets = std::make_shared<TargetFrames>(context->manifest);
        std::string frames;
        attempt(test::kStream, "zorv", [&] {
            {
                const fault::InLibrary host(false);
                frames.clear();
            }
            return zorv_stream_run(stream.get(), audio.data(), static_cast<int>(audio.size()),
                                   collect, &frames) == 7;
        });
        return frames;
    });
}

/// Keypoint frames of one stream through the functions of either engine.
struct Keypoints {
    static constexpr int kRoom = 64;
    int index[kRoom];
    float source[kRoom * kSet];
    float driving[kRoom * kSet];

    std::string result(int count) const {
        std::string bytes;
        add(bytes, index, static_cast<std::size_t>(count));
        add(bytes, source, static_cast<std::size_t>(count) * kSet);
        add(bytes, driving, static_cast<std::size_t>(count) * kSet);
        return bytes;
    }
};

class MotionFaults : public testing::Test {
  protected:
    MotionPtr open() {
        return MotionPtr(attempt(test::kMotion, "zorv_motion_create",
                                 [&] { return zorv_motion_create(files.dir().c_str(), 1, ""); }));
    }
    const TestMotion files;
};

TEST_F(MotionFaults, Opening) {
    drive("zorv_motion_create", allFaults(),
          [&] { return std::to_string(zorv_motion_nt(open().get())); });
}

TEST_F(MotionFaults, Streaming) {
    constexpr int kFrames = 110;  // longer than the memory that an engine sets aside
    const std::vector<float> audio = speech(kFrames);
    drive("zorv_motion stream", kMemory, [&] {
        const MotionPtr motion(
            zorv_motion_create(files.dir().c_str(), 1, ""));  // has bound nothing
        attempt(test::kMotion, "zorv_motion_push", [&] {
            return zorv_motion_push(motion.get(), audio.data(), static_cast<int>(audio.size()));
        });
        zorv_motion_finish(motion.get());
        attempt(test::kMotion, "zorv_motion_avail",
                [&] { return zorv_motion_avail(motion.get()); });
        std::string result;
        for (int left = kFrames; left > 0;) {
            Keypoints frames;
            const int count = attempt(test::kMotion, "zorv_motion_pull", [&] {
                return zorv_motion_pull(motion.get(), frames.index, frames.source, frames.driving,
                                        Keypoints::kRoom);
            });
            if (count < 1) return std::string();
            result += frames.result(count);
            left -= count;
        }
        return result;
    });
}

class A2xFaults : public testing::Test {
  protected:
    std::string stream(zorv_a2x* a2x) {
        attempt(test::kA2x, "zorv_a2x_reset", [&] {
            zorv_a2x_reset(a2x, 0, 1, 1);
            return std::string_view(zorv_a2x_last_error()).starts_with("zorv_a2x_push");  // misuse
        });
        const std::vector<float> audio = speech(20);
        attempt(test::kA2x, "zorv_a2x_push",
                [&] { return zorv_a2x_push(a2x, audio.data(), static_cast<int>(audio.size())); });
        zorv_a2x_finish(a2x);
        Keypoints frames;
        const int count = attempt(test::kA2x, "zorv_a2x extend", [&] {
            return zorv_a2x_pull(a2x, frames.index, frames.source, frames.driving,
                                 Keypoints::kRoom);
        });
        std::string result = frames.result(count);
        attempt(test::kA2x, "zorv_a2x_deltas", [&] {
            return zorv_a2x_deltas(a2x, audio.data(), static_cast<int>(audio.size()),
                                   frames.driving, Keypoints::kRoom) == 20;
        });
        add(result, frames.driving, 20 * kSet);
        return result;
    }
    ExpressionPtr open() {
        return ExpressionPtr(attempt(test::kA2x, "zorv_a2x_create",
                                     [&] { return zorv_a2x_create(dir.path().c_str(), 1); }));
    }

    const ScopedEnv encoder{"W2V_ONNX", modelFile("a2x_w2v")};
    const ExpressionDir dir;
};

TEST_F(A2xFaults, OpeningAndStreaming) {
    driveOnce("zorv_a2x_preload_w2v", test::kA2x, "zorv_a2x_preload_w2v",
              [] { return zorv_a2x_preload_w2v(nullptr) == 1; });
    drive("zorv_a2x_create", allFaults(),
          [&] { return std::to_string(zorv_a2x_nt(open().get())); });
    drive("zorv_a2x stream", kMemory, [&] {
        const ExpressionPtr engine(
            zorv_a2x_create(dir.path().c_str(), 1));  // has bound nothing yet
        return stream(engine.get());
    });
}

TEST_F(A2xFaults, ShortWindowsAndSilence) {
    const ScopedEnv window("ZORV_A2X_W2V_WIN", "1");
    const ScopedEnv trunk("ZORV_A2X_W2V_WIN_ONNX", modelFile("a2x_trunk"));
    const ScopedEnv head("ZORV_A2X_W2V_HEAD_ONNX", modelFile("a2x_head"));
    const ScopedEnv silence("ZORV_A2X_SILENCE_PRIME", "3");
    drive("zorv_a2x_create, short windows", {Fault::kAllocation},
          [&] { return std::to_string(zorv_a2x_nt(open().get())); });
    drive("zorv_a2x stream, short windows", kMemory, [&] {
        const ExpressionPtr engine(zorv_a2x_create(dir.path().c_str(), 1));
        return stream(engine.get());
    });
}

TEST(TelemetryFaults, ABatchIsCompleteOrStays) {
    const std::string longText(200, 'x');
    zorv_telemetry_enable(1);
    drive("zorv_telemetry_take", kMemory, [&] {
        inLibrary([] { zorv_telemetry_clear(); });
        for (int i = 0; i < 3; ++i) {
            inLibrary([&] {
                zorv_telemetry_count("faults.count", "1", 2);
                zorv_telemetry_gauge("faults.gauge", "1", 0.5);
                zorv_telemetry_duration("faults.duration", 0.25);
                zorv_telemetry_event("faults.event", longText.c_str());
            });
        }
        std::string batch(1 << 20, '\0');
        const std::size_t size = attempt(test::kTelemetry, "zorv_telemetry_take", [&] {
            return zorv_telemetry_take(batch.data(), batch.size());
        });
        batch.resize(size);
        std::string own;  // not the failures that the library counts
        for (std::size_t at = 0; (at = batch.find("\"faults.", at)) != std::string::npos; ++at) {
            own += batch.substr(at, batch.find('}', at) - at);
        }
        return own;
    });
    zorv_telemetry_enable(0);
}

}  // namespace
}  // namespace zorv
