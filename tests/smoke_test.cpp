// Every family of the C interface once, small enough to run under memcheck and on an emulated
// processor:
//   smoke_test write FILE            keeps what came out
//   smoke_test compare FILE [old]    holds it against what another run kept; old: refuses to run
//                                    on a processor with AVX
#include <zorv_core.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/audio.h"
#include "support/expression_dir.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace {

using namespace zorv::test;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "smoke_test: %s\n", what.c_str());
    std::exit(1);
}

void require(bool condition, const char* error) {
    if (!condition) fail(error);
}

/// What the calls returned, in order.
struct Results {
    std::vector<std::uint8_t> pixels;
    std::vector<float> keypoints;

    void addPixels(const std::uint8_t* begin, std::size_t count) {
        pixels.insert(pixels.end(), begin, begin + count);
    }
};

template <class Handle, void (*destroy)(Handle*)>
struct Destroy {
    void operator()(Handle* handle) const { destroy(handle); }
};
using Context = std::unique_ptr<zorv_ctx, Destroy<zorv_ctx, zorv_destroy>>;
using Stream = std::unique_ptr<zorv_stream, Destroy<zorv_stream, zorv_stream_destroy>>;
using Motion = std::unique_ptr<zorv_motion, Destroy<zorv_motion, zorv_motion_destroy>>;
using Expression = std::unique_ptr<zorv_a2x, Destroy<zorv_a2x, zorv_a2x_destroy>>;
using Utterance = std::unique_ptr<zorv_utt, Destroy<zorv_utt, zorv_utt_destroy>>;

Context open(const TestBundle& bundle, const char* key) {
    Context ctx(zorv_create(bundle.dir().c_str(), key, 1, nullptr));
    require(ctx != nullptr, zorv_last_error());
    return ctx;
}

std::size_t frameBytes(zorv_ctx* ctx) {
    return static_cast<std::size_t>(zorv_width(ctx)) * static_cast<std::size_t>(zorv_height(ctx)) *
           4;
}

void renderDrive(const TestBundle& bundle, const char* key, Results& results) {
    const Context ctx = open(bundle, key);
    std::vector<std::uint8_t> rgba(frameBytes(ctx.get()));
    for (int k = 0; k < zorv_drive_frames(ctx.get()); ++k) {
        require(zorv_render_drive_rgba(ctx.get(), k, rgba.data(), rgba.size()), zorv_last_error());
        results.addPixels(rgba.data(), rgba.size());
    }
}

void runBatch(const TestBundle& bundle, const std::vector<float>& audio, Results& results) {
    const Stream stream(
        zorv_stream_create(bundle.dir().c_str(), modelFile("encoder").c_str(), 1, 0, 1));
    require(stream != nullptr, zorv_stream_last_error());
    const auto keep = [](void* user, int, const std::uint8_t* rgb, int width, int height) {
        static_cast<Results*>(user)->addPixels(rgb, static_cast<std::size_t>(width * height * 3));
        return 0;
    };
    const int samples = static_cast<int>(audio.size());
    const int frames = zorv_stream_run(stream.get(), audio.data(), samples, keep, &results);
    require(frames == samples / 640, zorv_stream_last_error());
}

/// Takes what `pull` hands out, a few frames at a time, until there is no more.
template <class Pull>
int drain(Pull pull, Results& results) {
    constexpr int kMax = 8;
    float source[kMax * 63], driving[kMax * 63];
    int frames = 0;
    for (int n; (n = pull(source, driving, kMax)) > 0; frames += n) {
        results.keypoints.insert(results.keypoints.end(), source, source + n * 63);
        results.keypoints.insert(results.keypoints.end(), driving, driving + n * 63);
    }
    return frames;
}

void runMotion(const std::string& dir, const std::vector<float>& audio, Results& results) {
    const Motion motion(zorv_motion_create(dir.c_str(), 1, nullptr));
    require(motion != nullptr, zorv_motion_last_error());
    const int samples = static_cast<int>(audio.size());
    require(zorv_motion_push(motion.get(), audio.data(), samples), zorv_motion_last_error());
    zorv_motion_finish(motion.get());
    const int frames = drain(
        [&](float* source, float* driving, int max) {
            return zorv_motion_pull(motion.get(), nullptr, source, driving, max);
        },
        results);
    require(frames == samples / 640, zorv_motion_last_error());
}

void runExpression(const std::vector<float>& audio, Results& results) {
    setenv("W2V_ONNX", modelFile("a2x_w2v").c_str(), 1);
    const ExpressionDir dir;
    const Expression engine(zorv_a2x_create(dir.path().c_str(), 1));
    require(engine != nullptr, zorv_a2x_last_error());
    const int samples = static_cast<int>(audio.size());
    zorv_a2x_reset(engine.get(), 0, 1, 1);
    require(zorv_a2x_push(engine.get(), audio.data(), samples), zorv_a2x_last_error());
    zorv_a2x_finish(engine.get());
    const int frames =
        drain([&](float* source, float* driving,
                  int max) { return zorv_a2x_pull(engine.get(), nullptr, source, driving, max); },
              results);
    require(frames == samples / 640, zorv_a2x_last_error());
}

/// Speaks until the first frame of speech; which one is shown when depends on the machine.
void speak(const TestBundle& bundle, const std::string& motionDir,
           const std::vector<float>& audio) {
    const Context ctx = open(bundle, "render");
    zorv_utt_opts opts{};
    opts.motion_dir = motionDir.c_str();
    opts.steady_model = "-";
    const Utterance utt(zorv_utt_create(ctx.get(), &opts));
    require(utt != nullptr, zorv_utt_last_error());
    std::vector<std::int16_t> pcm(audio.size());
    std::transform(audio.begin(), audio.end(), pcm.begin(),
                   [](float sample) { return static_cast<std::int16_t>(sample * 32767); });
    require(zorv_utt_push_audio(utt.get(), pcm.data(), static_cast<int>(pcm.size())),
            zorv_utt_last_error());
    zorv_utt_end_utterance(utt.get());
    std::vector<std::uint8_t> rgba(frameBytes(ctx.get()));
    zorv_utt_frame_info info{};
    char reason[200];
    while (info.kind != 1) {
        if (!zorv_utt_pull_frame(utt.get(), rgba.data(), rgba.size(), &info)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (zorv_utt_failure(utt.get(), reason, sizeof reason)) fail(reason);
        require(zorv_utt_ready(utt.get()) >= 0, zorv_utt_last_error());
    }
    zorv_utt_interrupt(utt.get());
}

Results runAll() {
    TestBundle bundle;
    bundle.useModel("render", "render_own_operators");
    bundle.useModel("warped", "render_warped");
    const TestMotion motion;
    const std::vector<float> audio = speechLike(640 * 12);
    Results results;
    renderDrive(bundle, "render", results);
    renderDrive(bundle, "warped", results);
    runBatch(bundle, audio, results);
    runMotion(motion.dir(), audio, results);
    runExpression(audio, results);
    speak(bundle, motion.dir(), audio);
    return results;
}

template <class T>
std::string bytesOf(const std::vector<T>& values) {
    return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)};
}

/// The model runtime's kernels differ from processor to processor in the last bits of a float: a
/// pixel may round the other way, which sharpening enlarges, and so may the half-precision features
/// inside the expression engine, whose steps are 2^-11.
void compare(const Results& results, const std::string& kept) {
    if (kept.size() != results.pixels.size() + results.keypoints.size() * sizeof(float)) {
        fail("another amount of results");
    }
    int worst = 0;
    for (std::size_t i = 0; i < results.pixels.size(); ++i) {
        worst = std::max(worst, std::abs(results.pixels[i] - static_cast<std::uint8_t>(kept[i])));
    }
    float farthest = 0;
    for (std::size_t i = 0; i < results.keypoints.size(); ++i) {
        float other;
        std::memcpy(&other, kept.data() + results.pixels.size() + i * sizeof other, sizeof other);
        const float distance = std::abs(results.keypoints[i] - other) / (1 + std::abs(other));
        if (!(distance <= farthest)) farthest = distance;  // holds on to a NaN
    }
    std::printf("%zu pixels, farthest %d; %zu keypoint values, farthest %g\n",
                results.pixels.size(), worst, results.keypoints.size(), double{farthest});
    if (worst > 2 || !(farthest <= 1e-3f)) fail("not what the other run gave");
}

}  // namespace

int main(int count, char** arguments) {
    const std::string verb = count > 2 ? arguments[1] : "";
    const bool old = count > 3 && std::strcmp(arguments[3], "old") == 0;
    if (verb != "write" && verb != "compare") fail("usage: write FILE | compare FILE [old]");
    if (old && __builtin_cpu_supports("avx")) fail("this processor has AVX");
    const Results results = runAll();
    if (verb == "write") {
        writeFile(arguments[2], bytesOf(results.pixels) + bytesOf(results.keypoints));
    } else {
        compare(results, readFile(arguments[2]));
    }
}
