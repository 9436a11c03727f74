// The utterance engine while every allocation, open, read, map and thread start fails once, and
// while memory runs out: an utterance that loses anything says so, and the next one is whole.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/error.h"
#include "support/fault_plan.h"
#include "support/random_host.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"
#include "utt/zorv_utt.h"

namespace zorv {
namespace {

using test::allFaults;
using test::attempt;
using test::drive;
using test::Fault;
using test::inLibrary;
using test::ScopedEnv;
using test::TestBundle;
using test::TestMotion;

constexpr int kRate = 24000, kFrameSamples = kRate / 25;

/// A motion source that stays open when the engine lets it go: its own opening is driven elsewhere.
class Lent final : public MotionSource {
  public:
    explicit Lent(MotionSource& source) : source_(source) {}

    int nt() override { return source_.nt(); }
    void reset(int startFrame, int direction, int loop) override {
        source_.reset(startFrame, direction, loop);
    }
    void setEager(int value) override { source_.setEager(value); }
    void push(const float* samples, int n) override { source_.push(samples, n); }
    void finish() override { source_.finish(); }
    int lookAhead() override { return source_.lookAhead(); }
    int avail() override { return source_.avail(); }
    int pull(int* index, float* source, float* driving, int max) override {
        return source_.pull(index, source, driving, max);
    }
    const char* error() override { return source_.error(); }
    void clearError() override { source_.clearError(); }

  private:
    MotionSource& source_;
};

/// One bundle frame: what a speech frame shows does not depend on how many idle frames went before.
class UtteranceFaults : public testing::TestWithParam<bool> {
  protected:
    UtteranceFaults() {
        bundle.useModel("render", "render");
        bundle.useModel("b4", "render_b4");
        context.reset(zorv_create(bundle.dir().c_str(), "render", 1, ""));
        options.motion_dir = files.dir().c_str();
        options.steady_model = "b4";
        options.silence_end_s = -1;
        options.ramp_frames = 3;
    }

    /// The engine when it is ready; one that cannot be made, or not be made ready, is made again.
    std::unique_ptr<zorv_utt> open(const UttSurroundings& surroundings) {
        std::unique_ptr<zorv_utt> utt(attempt(test::kUtterance, "zorv_utt_create", [&] {
            return guarded<LastError<zorv_utt>, zorv_utt*>("zorv_utt_create", nullptr, [&] {
                return new zorv_utt(*context, options, surroundings);
            });
        }));
        int ready = 0;
        while ((ready = inLibrary([&] { return zorv_utt_ready(utt.get()); })) == 0) pause();
        if (ready == 1) {
            attempt(test::kUtterance, "zorv_utt_set_input",
                    [&] { return zorv_utt_set_input(utt.get(), kRate); });
            if (GetParam()) zorv_utt_set_pixels(utt.get(), ZORV_PIXELS_I420);
            return utt;
        }
        test::noteFailure(zorv_utt_last_error());
        utt.reset();
        return open(surroundings);
    }

    static void pause() { std::this_thread::sleep_for(std::chrono::microseconds(100)); }

    /// The failures that the engine has told since the last call.
    bool hasFailed(zorv_utt* utt) {
        char text[256];
        const std::uint64_t failures = zorv_utt_failure(utt, text, sizeof text);
        if (failures == failures_) return false;
        failures_ = failures;
        test::noteFailure(text);
        return true;
    }

    void say(zorv_utt* utt, int frames) {
        std::vector<std::int16_t> pcm(static_cast<std::size_t>(frames) * kFrameSamples);
        for (std::size_t i = 0; i < pcm.size(); ++i) {
            pcm[i] = static_cast<std::int16_t>(i * i % 20011);
        }
        attempt(test::kUtterance, "zorv_utt_push",
                [&] { return zorv_utt_push(utt, pcm.data(), static_cast<int>(pcm.size())); });
        inLibrary([&] { zorv_utt_end_utterance(utt); });
    }

    int pull(zorv_utt* utt) {
        screen_.frame.sound = screen_.sound.data();
        for (;;) {
            const int pulled = inLibrary([&] { return zorv_utt_pull(utt, &screen_.frame); });
            if (pulled == 1) return screen_.frame.kind;
            if (hasFailed(utt)) return -1;
            pause();
        }
    }

    /// The types of the events that wait, and how far the last one says that speech was shown.
    std::string events(zorv_utt* utt) {
        zorv_utt_event event = {};
        event.struct_size = sizeof event;
        std::string types;
        while (inLibrary([&] { return zorv_utt_next_event(utt, &event); }) == 1) {
            types += static_cast<char>('0' + event.type);
        }
        return types + ' ' + std::to_string(event.samples);
    }

    /// Says `frames` frames and pulls to the end of the lips' way back to rest, or `interruptAt`
    /// speech frames, an interrupt, and that. Empty when the engine has told a failure.
    std::string utterance(zorv_utt* utt, int frames, int interruptAt) {
        events(utt);
        say(utt, frames);
        std::string result;
        int speech = 0;
        for (bool interrupted = false;;) {
            const int kind = pull(utt);
            if (kind < 0 || hasFailed(utt)) return {};
            if (kind == 0 && speech > 0) return result + events(utt);
            if (kind != 1 && speech == 0) continue;
            result += static_cast<char>('0' + kind);
            result.append(screen_.planes.begin(), screen_.planes.end());
            result.append(reinterpret_cast<const char*>(screen_.sound.data()), kFrameSamples * 2);
            speech += kind == 1;
            if (speech == interruptAt && !interrupted) {
                interrupted = true;
                inLibrary([&] { zorv_utt_interrupt(utt); });
            }
        }
    }

    /// Again after a failure, on the same engine. What another thread had begun to fail with may
    /// be told during the next one.
    std::string whole(zorv_utt* utt, int frames, int interruptAt) {
        std::string result;
        for (int trial = 0; result.empty() && trial < 4; ++trial) {
            if (zorv_utt_ready(utt) < 0) break;  // its only bundle frame could not be decoded
            if (trial > 0) zorv_utt_interrupt(utt);
            result = utterance(utt, frames, interruptAt);
        }
        return result;
    }

    const TestBundle::Options bundleOptions{.nt = 1, .driveFrames = 1};
    TestBundle bundle{bundleOptions};
    const TestMotion files{{.nt = 1}};
    std::unique_ptr<zorv_ctx> context;
    zorv_utt_opts options{};

  private:
    std::uint64_t failures_ = 0;
    test::Screen screen_;

  protected:
    std::string run(const UttSurroundings& surroundings) {
        context->targets = std::make_shared<TargetFrames>(context->manifest);
        for (int engine = 0; engine < 2; ++engine) {
            failures_ = 0;
            const std::unique_ptr<zorv_utt> utt = open(surroundings);
            const std::string first = whole(utt.get(), 5, -1);
            const std::string second = whole(utt.get(), 6, 2);
            if (!first.empty() && !second.empty()) return first + second;
        }
        return {};
    }
};

TEST_P(UtteranceFaults, EveryUtteranceIsWholeOrSaysSo) {
    const ScopedEnv pipeline("ZORV_UTT_PIPELINE_PASTE", GetParam() ? "1" : "0");
    zorv_telemetry_enable(GetParam());  // what records must not fail either
    UttOptions motion;
    motion.motionDir = files.dir();
    const std::unique_ptr<MotionSource> source = openMotionSource(motion);
    UttSurroundings surroundings;
    surroundings.openSource = [&](const UttOptions&) { return std::make_unique<Lent>(*source); };
    drive(GetParam() ? "utterance, pipelined" : "utterance", allFaults(),
          [&] { return run(surroundings); });
    zorv_telemetry_enable(0);
}

INSTANTIATE_TEST_SUITE_P(Pipelined, UtteranceFaults, testing::Bool());

class UtteranceOpening : public UtteranceFaults {};

INSTANTIATE_TEST_SUITE_P(Engine, UtteranceOpening, testing::Values(false));

TEST_P(UtteranceOpening, WithTheMotionEngine) {
    // Memory that stays out is driven in the parts: the engine above, the source in its own test.
    drive("zorv_utt_create",
          {Fault::kAllocation, Fault::kOpen, Fault::kRead, Fault::kMap, Fault::kThread}, [&] {
              open({});
              return std::string("ready");
          });
}

}  // namespace
}  // namespace zorv
